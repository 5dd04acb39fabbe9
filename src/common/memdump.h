// Memory dumps and keyed-field formatters: diagnostic dumps of memory areas as hexadecimal
// and character columns on standard output, an area as one line of hexadecimal text, and
// picking a field out of a rest area ("A=/first/B=,second,") or a keyed text
// ("HOST=alpha,PORT=2217").
//
// Ownership: the caller guarantees that every area is readable for the length given; results
// go into the caller's areas, except `ZUMEM_TraceStr`, which returns an area of this module
// that its next call overwrites.
//
// Threads: `ZUMEM_TraceStr` is for one thread at a time. The others keep no state; the lines
// of dumps from several threads may interleave on standard output, but never within a line.
#ifndef QX_COMMON_MEMDUMP_H_
#define QX_COMMON_MEMDUMP_H_

// Dump under the heading "<title padded to 61> 0x<size, 6 hex> (<size, 5 decimal>)": lines of
// 16 bytes with address, offset, lower-case hexadecimal and characters; a run of lines equal
// to the one shown is left out and marked with "=" in column 1.
void iPrtMem(const void* pAddr, unsigned int lSize, const char* pTitle);

// Dump under the heading "----->  TRACE: (<id>)" with address and length from column 66;
// lines of 16 bytes with offset, upper-case hexadecimal and characters; a run of lines equal
// to the one shown is left out (the last 16 bytes are always shown) and marked with "=" in
// column 22. Returns 0. Nothing but the heading for a length of 0 or less.
int ZUMEM_Trace(const char* id, const void* addr, int len);

// The same as ZUMEM_Trace.
void MemTrace(const char* id, const void* Area, int Length);

// ZUMEM_Trace with the title made of `id` as "%40s : ".
void FormMemTrace(const char* id, const void* Area, int Length);

// Prints the heading of ZUMEM_Trace and formats the body lines without printing them. The
// returned static area of 256 bytes holds the last body line ("\n" included), so for an area
// of at most 16 bytes its only line; it is empty for a length of 0 or less.
inline constexpr int kTraceStrSize = 256;
char* ZUMEM_TraceStr(const char* id, const void* addr, int len);

// Clears `oLen` bytes of `oPtr` and writes the bytes of `iPtr` as "%.2X", a blank before each
// fourth, while the text is at most oLen - 4 characters long (so it always stays terminated).
// Returns `oPtr`.
char* GetMemTrace(const unsigned char* iPtr, int iLen, char* oPtr, int oLen);

// Finds the field with code `search` in a rest area of fields <code>=<delim><value><delim>
// within the first `rest_len` bytes and copies its value, at most `retSize` characters and a
// terminator, into `result` (which holds retSize + 1 bytes). 1 when found, else 0.
int GetRestField(const char* rest_area, int rest_len, char search, char* result,
                 unsigned int retSize);

// Finds `search` in the string `Area` (`Length` is not consulted) and copies the text behind
// the next "=" up to the next "," or the end, at most retSize - 1 characters, terminated,
// into `result`. 1 when the result is not empty, else 0 (the result is then empty).
int GetAttribute(const char* Area, int Length, const char* search, char* result,
                 unsigned int retSize);

#endif  // QX_COMMON_MEMDUMP_H_
