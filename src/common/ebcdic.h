// Code-page conversion: the host's character set, translation between ASCII and EBCDIC code
// page 037 through fixed tables, and user code tables built from a code/attribute description.
//
// The ASCII-to-EBCDIC table keeps the 7-bit bytes where IBM037 has them, except "[", "\",
// "]", "^", "`", "{", "}", "~", which go to 0xBB, 0xBC, 0xBD, 0x6A, 0x4A, 0xFB, 0xFD, 0xFF; of
// the 8-bit bytes the Latin-1 umlauts Ä, Ö, Ü go to 0xBB, 0xBC, 0xBD and every other one to
// 0x07 (where DEL lands). The way back maps every byte produced from 0x00 to 0x7E back to it,
// 0x13 to 0x12, 0x07 to 0x07, and every byte never produced to 0xFE. The tables are generated
// from the system's iconv by scripts/gen_codepages.py.
//
// Ownership: all operations work in the caller's areas.
//
// Threads: the tables are constant; every operation may run in several threads at once.
#ifndef QX_COMMON_EBCDIC_H_
#define QX_COMMON_EBCDIC_H_

inline constexpr int kCodeTabSize = 256;
inline constexpr int kCodeTabDescriptionSize = 2 * kCodeTabSize;
inline constexpr unsigned char kCodeValid = 1;       // attribute bit: the code is valid
inline constexpr unsigned char kCodeSubstitute = 2;  // attribute bit: the code for invalid ones

// The translation tables (index: input byte, value: output byte).
extern const unsigned char ascii_to_ebcdic037[kCodeTabSize];
extern const unsigned char ebcdic037_to_ascii[kCodeTabSize];

// 1 when the host's character set is not ASCII (the digit zero is not 0x30), else 0.
int iIsEbcdic(void);

// Translate `textLength` bytes of `Text` in place; nothing happens for 0 or less.
void ToEbcdic(char* Text, int textLength);
void ToAscii(char* Text, int textLength);

// Builds the 256-byte table `cCodeTab` from the 512-byte description `InpCode` (256 codes,
// then 256 attributes): entry i is code i when attribute i has kCodeValid, else the
// substitute, which is the code of the lowest entry whose attribute has kCodeSubstitute, or a
// blank when there is none.
void SetCodeTab(unsigned char* cCodeTab, const unsigned char* InpCode);

// Writes the table entry of each of the `AreaLen` bytes of `ConvArea` to the same place in
// `OutArea` (the two may be the same area). Returns the number of bytes converted, 0 for a
// length of 0 or less.
int AreaConv(char* OutArea, const char* ConvArea, int AreaLen, const unsigned char* cCodeTab);

#endif  // QX_COMMON_EBCDIC_H_
