// Numeric conversion: byte order, 64-bit helpers, number to text.
#include "common/convert.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>

namespace qx_byteorder {

void ReverseField(void* num, short size) {
  if (num == nullptr || (size != 2 && size != 4 && size != 8)) return;
  auto* p = static_cast<unsigned char*>(num);
  std::reverse(p, p + size);
}

void ToOrder(void* num, short size, bool host_is_little, bool want_little) {
  if (host_is_little != want_little) ReverseField(num, size);
}

char* AddrText(const void* Was, char* cAddr, int iLen, bool host_is_little) {
  if (cAddr == nullptr || iLen <= 0) return cAddr;
  memset(cAddr, 0, static_cast<size_t>(iLen));
  const auto value = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(Was));
  // The bytes as this host keeps them in memory, printed from the highest address down.
  unsigned char b[4];
  if (host_is_little) {
    for (int i = 0; i < 4; ++i)
      b[i] = static_cast<unsigned char>(value >> (8 * i));
  } else {
    for (int i = 0; i < 4; ++i)
      b[i] = static_cast<unsigned char>(value >> (8 * (3 - i)));
  }
  snprintf(cAddr, static_cast<size_t>(iLen), "%02X%02X%02X%02X", b[3], b[2], b[1], b[0]);
  return cAddr;
}

}  // namespace qx_byteorder

using namespace qx_byteorder;

int iIsIntel(void) {
  const uint16_t one = 1;
  unsigned char first;
  memcpy(&first, &one, 1);
  return first == 1 ? 1 : 0;
}

unsigned short iCnvU16(unsigned short u16) {
  return ToWire16(u16, iIsIntel() == 1);
}

short iCnvI16(short i16) {
  return static_cast<short>(ToWire16(static_cast<uint16_t>(i16), iIsIntel() == 1));
}

unsigned int iCnvU32(unsigned int u32) {
  return ToWire32(u32, iIsIntel() == 1);
}

int iCnvI32(int i32) {
  return static_cast<int>(ToWire32(static_cast<uint32_t>(i32), iIsIntel() == 1));
}

int CnvInt4(int l) {
  return iCnvI32(l);
}

short CnvInt2(short s) {
  return iCnvI16(s);
}

long long* _CnvInt64(long long* i64) {
  if (i64 != nullptr) {
    *i64 = static_cast<long long>(ToWire64(static_cast<uint64_t>(*i64), iIsIntel() == 1));
  }
  return i64;
}

unsigned long long* _CnvUint64(unsigned long long* u64) {
  if (u64 != nullptr) *u64 = ToWire64(*u64, iIsIntel() == 1);
  return u64;
}

int CNV_Int4(int l) {
  return l;
}

short CNV_Int2(short s) {
  return s;
}

void CNV_Int(void* num, short size) {
  ToOrder(num, size, iIsIntel() == 1, true);
}

void CNV_X(void* num, short size) {
  ToOrder(num, size, iIsIntel() == 1, false);
}

// Sums are formed unsigned so that they wrap instead of overflowing.
void MyAddFrom8(long long* Summe, long long* add) {
  *Summe = static_cast<long long>(static_cast<unsigned long long>(*Summe) +
                                  static_cast<unsigned long long>(*add));
}

void MyAddFrom4(long long* Summe, int add) {
  *Summe = static_cast<long long>(static_cast<unsigned long long>(*Summe) +
                                  static_cast<unsigned long long>(static_cast<long long>(add)));
}

void myAdd8(long long* gss_uint32, unsigned int add) {
  *gss_uint32 = static_cast<long long>(static_cast<unsigned long long>(*gss_uint32) +
                                       static_cast<unsigned long long>(add));
}

int MyGt8(long long* if1, long long* if2) {
  return *if1 > *if2 ? 1 : 0;
}

int MyLe8(long long* if1, long long* if2) {
  return *if1 <= *if2 ? 1 : 0;
}

int MyGt4(int* if1, int* if2) {
  return *if1 > *if2 ? 1 : 0;
}

int MyLe4(int* if1, int* if2) {
  return *if1 <= *if2 ? 1 : 0;
}

char* CnvAddrStr(const void* Was, char* cAddr, int iLen) {
  return AddrText(Was, cAddr, iLen, iIsIntel() == 1);
}

char* CnvIntToChar(unsigned long long Ptr, char* oPtr, int oLen) {
  if (oPtr == nullptr || oLen <= 0) return oPtr;
  memset(oPtr, 0, static_cast<size_t>(oLen));
  if (oLen <= kCnvIntToCharField) {
    snprintf(oPtr, static_cast<size_t>(oLen), "%llu", Ptr);
    return oPtr;
  }
  if (Ptr == 0) {
    oPtr[0] = '0';
    return oPtr;
  }
  char* first = oPtr + kCnvIntToCharField;
  for (int pos = kCnvIntToCharField - 1; pos >= 1; --pos) {
    if (Ptr == 0) {
      oPtr[pos] = ' ';
      continue;
    }
    oPtr[pos] = static_cast<char>('0' + Ptr % 10);
    Ptr /= 10;
    first = oPtr + pos;
  }
  oPtr[0] = ' ';
  return first;
}

int convert2hex(const void* in, int inBufLen, char* str, int strLen) {
  if (in == nullptr || str == nullptr || inBufLen < 0 || strLen / 2 <= inBufLen) return -1;
  static constexpr char kDigits[] = "0123456789ABCDEF";
  const auto* bytes = static_cast<const unsigned char*>(in);
  for (int i = 0; i < inBufLen; ++i) {
    str[2 * i] = kDigits[bytes[i] >> 4];
    str[2 * i + 1] = kDigits[bytes[i] & 0x0F];
  }
  str[2 * inBufLen] = '\0';
  return 0;
}
