// Numeric conversion: the host's byte order, converters between host order and the wire
// order of binary fields (least significant byte first on every host), converters to the
// network order (most significant byte first), 64-bit arithmetic and comparisons on values
// given by pointer, and number-to-text formatting.
//
// Ownership: all operations work on the caller's values and areas.
//
// Threads: every operation keeps no state and may run in several threads at once.
#ifndef QX_COMMON_CONVERT_H_
#define QX_COMMON_CONVERT_H_

#include <stddef.h>
#include <stdint.h>

// 1 on a little-endian host, 0 otherwise (found by storing the 16-bit value 1).
int iIsIntel(void);

// Host order to wire order and back (the conversion is its own inverse): unchanged on a
// little-endian host, bytes reversed on a big-endian one.
unsigned short iCnvU16(unsigned short u16);
short iCnvI16(short i16);
unsigned int iCnvU32(unsigned int u32);
int iCnvI32(int i32);
int CnvInt4(int l);
short CnvInt2(short s);
// In place, returning the pointer.
long long* _CnvInt64(long long* i64);
unsigned long long* _CnvUint64(unsigned long long* u64);

// The value unchanged on every host.
int CNV_Int4(int l);
short CNV_Int2(short s);

// In place on a field of `size` 2, 4 or 8 bytes; other sizes are left unchanged.
// CNV_Int: host order to least significant byte first. CNV_X: host order to most significant
// byte first (network order).
void CNV_Int(void* num, short size);
void CNV_X(void* num, short size);

// 64-bit arithmetic, wrapping: *Summe += *add; *Summe += add sign-extended; *gss_uint32 +=
// add zero-extended.
void MyAddFrom8(long long* Summe, long long* add);
void MyAddFrom4(long long* Summe, int add);
void myAdd8(long long* gss_uint32, unsigned int add);

// Signed comparisons: 1 when *if1 > *if2 (Gt) or *if1 <= *if2 (Le), else 0.
int MyGt8(long long* if1, long long* if2);
int MyLe8(long long* if1, long long* if2);
int MyGt4(int* if1, int* if2);
int MyLe4(int* if1, int* if2);

// Clears `iLen` bytes of `cAddr` and writes the low 32 bits of the pointer value as eight
// upper-case hexadecimal digits (at most `iLen` bytes, terminator included): most significant
// byte first on a little-endian host, least significant first on a big-endian one. Returns
// `cAddr`.
char* CnvAddrStr(const void* Was, char* cAddr, int iLen);

// `Ptr` in decimal, right-aligned in a 32-character field of `oPtr`: position 0 blank,
// positions 1 to 31 blanks and then the digits, the least significant at 31, a terminator at
// 32. `oLen` bytes of `oPtr` are cleared first. Returns a pointer to the first digit; 0 gives
// "0" at the start of `oPtr` and returns `oPtr`.
// An area of fewer than 33 bytes cannot hold the field: the digits are then written
// left-aligned, cut to `oLen` - 1 characters, and `oPtr` is returned (nothing is written when
// `oLen` is 0 or less).
inline constexpr int kCnvIntToCharField = 32;
char* CnvIntToChar(unsigned long long Ptr, char* oPtr, int oLen);

// Each of the `inBufLen` bytes of `in` as two upper-case hexadecimal digits, then a
// terminator; 0. Returns -1 and writes nothing when `strLen` / 2 is not greater than
// `inBufLen` (so `str` needs 2 * inBufLen + 2 bytes), when `inBufLen` is negative, or when a
// pointer is null.
int convert2hex(const void* in, int inBufLen, char* str, int strLen);

// The same conversions for a host order given by the caller; the operations above pass the
// real one. They let both orders be checked on any host.
namespace qx_byteorder {

constexpr uint16_t Swap16(uint16_t v) {
  return static_cast<uint16_t>((v >> 8) | (v << 8));
}
constexpr uint32_t Swap32(uint32_t v) {
  return (v >> 24) | ((v >> 8) & 0x0000FF00u) | ((v << 8) & 0x00FF0000u) | (v << 24);
}
constexpr uint64_t Swap64(uint64_t v) {
  return (static_cast<uint64_t>(Swap32(static_cast<uint32_t>(v))) << 32) |
         Swap32(static_cast<uint32_t>(v >> 32));
}

// Host order to least significant byte first.
constexpr uint16_t ToWire16(uint16_t v, bool host_is_little) {
  return host_is_little ? v : Swap16(v);
}
constexpr uint32_t ToWire32(uint32_t v, bool host_is_little) {
  return host_is_little ? v : Swap32(v);
}
constexpr uint64_t ToWire64(uint64_t v, bool host_is_little) {
  return host_is_little ? v : Swap64(v);
}

// Reverses a field of 2, 4 or 8 bytes in place; other sizes are left alone.
void ReverseField(void* num, short size);

// In place: host order to least significant first (`want_little`) or to most significant
// first.
void ToOrder(void* num, short size, bool host_is_little, bool want_little);

// CnvAddrStr for the given host order.
char* AddrText(const void* Was, char* cAddr, int iLen, bool host_is_little);

}  // namespace qx_byteorder

#endif  // QX_COMMON_CONVERT_H_
