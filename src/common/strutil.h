// String utilities: small operations on NUL-terminated byte strings and on blank-padded
// fixed-length fields, shared by every part of the system.
//
// Conventions: a size argument (`RcvSize`, `dst_len`, `vLength`, ...) is the size of the
// receiving area in bytes, terminator included. A fixed-length field is padded on the right
// with blanks (0x20) and need not be terminated. A blank is 0x20 only. Case changes use the C
// library in the "C" locale: only ASCII letters change, bytes from 0x80 up stay as they are.
//
// Ownership: every operation works in the caller's areas; none allocates memory that outlives
// the call, and none keeps state between calls.
//
// Threads: every operation is reentrant and may run in several threads at once on
// different data.
#ifndef QX_COMMON_STRUTIL_H_
#define QX_COMMON_STRUTIL_H_

#include <sys/select.h>
#include <time.h>

// ---- Copies and fields --------------------------------------------------------------------

// Bounded copy: at most RcvSize - 1 bytes of SndArea into RcvArea, always terminated (when
// RcvSize is at least 1). A null or empty SndArea leaves RcvArea empty. When SndArea is cut,
// the whole area is cleared first; otherwise the bytes behind the terminator are not
// touched. A negative RcvSize touches nothing. Returns RcvArea (null when RcvArea is null).
// FileName and line name the caller for diagnostics only.
char* _StringCopy(char* RcvArea, int RcvSize, const char* SndArea, const char* FileName, int line);

// Bounded append of SndArea behind the text in RcvArea, cut like _StringCopy to the room
// left in the RcvSize-byte area. Returns RcvArea (null when RcvArea is null).
char* _StringCat(char* RcvArea, int RcvSize, const char* SndArea, const char* FileName, int line);

#define StringCopy(rcv, size, snd) _StringCopy((rcv), (int)(size), (snd), __FILE__, __LINE__)
#define StringCat(rcv, size, snd) _StringCat((rcv), (int)(size), (snd), __FILE__, __LINE__)

// The n-th word (from 1) of src between single-byte delimiters; no quoting, no trimming. A
// negative n gives the rest of the string from word -n on, delimiters included. Returns the
// count of bytes placed (dst_len when a word had to be cut to dst_len - 1 bytes), 0 when the
// word is missing or empty. dst is always terminated when dst_len is at least 1.
int get_word_delimited(const char* src, char delimiter, int n, char* dst, int dst_len);

// Copies `len` bytes from `in + dist` to `out` and terminates them; `out` holds len + 1.
int get_variable_msg_field(char* out, const char* in, int dist, int len);

// Copies min(tLength, vLength - 1) bytes of the field Text to Value, terminates it and
// removes trailing blanks. Returns Value.
char* GetStringTh(const char* Text, int tLength, char* Value, int vLength);

// Text form of at most 500 bytes: "'" hex digits in groups of 4 bytes "'", then for short
// texts blanks to a multiple of 40 and ">" printable characters "<". Copied into the
// vLength-byte area cValue, always terminated (cut when it does not fit). Returns cValue.
char* GetHexString(const void* addr, int aLength, char* cValue, int vLength);

// Rewrites the l-byte field p as its first blank-delimited word, left-aligned and
// blank-padded to l bytes.
void fix_len_reorg(char* p, int l);

// Drops the leading blanks of the l-byte field p and stores the rest back as a string. The
// terminator always stays inside the field: at most l - 1 bytes are kept.
void fix_len_reorg2(char* p, int l);

// ---- Program name, case, blanks -----------------------------------------------------------

// The part of ProgName behind its last "/" (inside ProgName).
char* GetPName(char* ProgName);

void ToUpperCase(char* Text, int tLength);  // the first tLength bytes, whatever they are
void ToLowerCase(char* Text, int tLength);
char* strupper(char* string);  // up to the terminator; returns string
char* strupr(char* string);
char* ToUpperStr(char* Text);
char* strlow(char* string);
char* ToLowerStr(char* Text);

// From pChar backwards, blanks become NUL; stops at the first other byte or after the byte
// Idx bytes before pChar.
void EatString(char* pChar, int Idx);
void EatTrailing(char* Area, int Length);  // trailing blanks of a Length-byte field
void EatTrailingStr(char* Area);           // trailing blanks of a string

void rstrip(char* string);  // trailing blanks; null is ignored
void lstrip(char* string);  // leading blanks; null is ignored
void strip(char* string);   // both

// Replaces every c1 by c2 up to the terminator (c1 NUL matches nothing). Returns string.
char* str_replace_char(char* string, char c1, char c2);

// ---- Matching -----------------------------------------------------------------------------

// Whole-string match of str against mask: `more` matches any run (also empty), `one` exactly
// one byte; a NUL wildcard is switched off. 1 on a match, else 0.
int MyStrMatch(const char* str, const char* mask, char more, char one);

// Where mask matches in str (see the source for the rules), or null.
char* strMatchPtr(char* str, const char* mask, char more, char one);

// The first position in str1 where str2 matches with strccmp, or null.
char* strcstr(char* str1, const char* str2, char one);

// 1 when str1 begins with str2 (a byte `one` in str2 matches any byte), else 0.
int strccmp(const char* str1, const char* str2, char one);

// ---- Miscellaneous ------------------------------------------------------------------------

// "3,5,7" for the members of set from 0 to maxfd; the caller sizes `work` for the longest
// list it can get (4 bytes a descriptor below 1000). Returns work.
char* fdset2string(char* work, fd_set* set, int maxfd);

// Copies buf into logName (logSize bytes, always terminated), replacing every %NAME% with the
// value of the environment variable NAME (an unset one is dropped; a "%" without its closing
// "%" takes the rest as the name; names are cut to 63 bytes). Returns the length written.
int ExpandEnvironmentStringsA(const char* buf, char* logName, int logSize);

// iIn as exactly 7 base-26 digits "A".."Z" and a terminator (pOut holds 8 bytes).
char* Zudnst_LongToB26(unsigned int iIn, char* pOut);

// At most 7 base-26 digits back to a number; a byte outside "A".."Z" ends the reading after
// the multiplication.
unsigned int Zudnst_B26ToLong(const char* pIn);

// 1 when MsgLen is 0 or RestDist + RestLen (32-bit unsigned) is at most MsgLen, else 0.
int Zudnst_Plausibility(unsigned int MsgLen, unsigned int RestDist, unsigned int RestLen);

// 1 when start_time + timespan seconds lies strictly before now, else 0.
int is_timer_elapsed(time_t start_time, int timespan);

#endif  // QX_COMMON_STRUTIL_H_
