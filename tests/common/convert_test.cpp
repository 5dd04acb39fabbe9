// Byte order, 64-bit helpers and number-to-text conversion.
#include <limits.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/convert.h"

namespace {

using Bytes = std::vector<unsigned char>;

template <typename T>
Bytes BytesOf(T value) {
  Bytes b(sizeof value);
  memcpy(b.data(), &value, sizeof value);
  return b;
}

TEST(ByteOrder, WireFieldsAreLeastSignificantFirstOnThisHost) {
  ASSERT_EQ(1, iIsIntel()) << "these expectations are for a little-endian host";
  EXPECT_EQ((Bytes{0x67, 0x12, 0x00, 0x00}), BytesOf(iCnvU32(4711)));
  EXPECT_EQ((Bytes{0x2C, 0x01}), BytesOf(iCnvU16(300)));
  EXPECT_EQ((Bytes{0xFE, 0xFF, 0xFF, 0xFF}), BytesOf(iCnvI32(-2)));
  long long i64 = 0x0102030405060708LL;
  EXPECT_EQ(0x0102030405060708LL, *_CnvInt64(&i64));
}

// A big-endian host reverses the bytes; on either host the conversion is its own inverse.
TEST(ByteOrder, BothHostOrders) {
  using namespace qx_byteorder;
  struct Case {
    bool little;
    uint16_t u16, w16;
    uint32_t u32, w32;
    uint64_t u64, w64;
  };
  for (const Case& c :
       {Case{true, 0x1234, 0x1234, 0x12345678, 0x12345678, 0x0102030405060708, 0x0102030405060708},
        Case{false, 0x1234, 0x3412, 0x12345678, 0x78563412, 0x0102030405060708,
             0x0807060504030201}}) {
    EXPECT_EQ(c.w16, ToWire16(c.u16, c.little));
    EXPECT_EQ(c.w32, ToWire32(c.u32, c.little));
    EXPECT_EQ(c.w64, ToWire64(c.u64, c.little));
    EXPECT_EQ(c.u16, ToWire16(ToWire16(c.u16, c.little), c.little));
    EXPECT_EQ(c.u32, ToWire32(ToWire32(c.u32, c.little), c.little));
  }
  EXPECT_EQ(-257, static_cast<short>(ToWire16(static_cast<uint16_t>(-2), false)));
}

// CNV_Int gives least significant first, CNV_X most significant first, for both hosts.
TEST(ByteOrder, InPlaceFieldConverters) {
  struct Case {
    bool host_is_little, want_little;
    Bytes in, out;
  };
  const std::vector<Case> cases = {
      {true, false, {1, 0, 0, 0}, {0, 0, 0, 1}},
      {true, true, {1, 0, 0, 0}, {1, 0, 0, 0}},
      {false, true, {0, 0, 0, 1}, {1, 0, 0, 0}},
      {false, true, {1, 2}, {2, 1}},
      {true, false, {1, 2, 3, 4, 5, 6, 7, 8}, {8, 7, 6, 5, 4, 3, 2, 1}},
      {true, false, {1, 2, 3}, {1, 2, 3}},  // other sizes stay as they are
  };
  for (const Case& c : cases) {
    Bytes field = c.in;
    qx_byteorder::ToOrder(field.data(), static_cast<short>(field.size()), c.host_is_little,
                          c.want_little);
    EXPECT_EQ(c.out, field) << "little host " << c.host_is_little << ", size " << c.in.size();
  }
  int one = 1;
  CNV_X(&one, sizeof one);
  EXPECT_EQ((Bytes{0, 0, 0, 1}), BytesOf(one));
  one = 1;
  CNV_Int(&one, sizeof one);
  EXPECT_EQ((Bytes{1, 0, 0, 0}), BytesOf(one));
}

TEST(Arithmetic64, SignedComparisonsAndExtension) {
  long long minus1 = -1, plus1 = 1;
  int i_minus1 = -1, i_plus1 = 1;
  EXPECT_EQ(0, MyGt8(&minus1, &plus1));
  EXPECT_EQ(1, MyLe8(&minus1, &plus1));
  EXPECT_EQ(0, MyGt4(&i_minus1, &i_plus1));
  EXPECT_EQ(1, MyLe4(&i_minus1, &i_plus1));
  long long sum = 0;
  MyAddFrom4(&sum, -1);
  EXPECT_EQ(-1, sum);
  sum = 0;
  myAdd8(&sum, 0xFFFFFFFFu);
  EXPECT_EQ(4294967295LL, sum);
  sum = LLONG_MAX;
  MyAddFrom8(&sum, &plus1);
  EXPECT_EQ(LLONG_MIN, sum);  // wraps
}

TEST(CnvAddrStr, EightDigitsInTheHostsByteOrderWithinTheArea) {
  const void* p = reinterpret_cast<const void*>(uintptr_t{0xABC12345678});
  char text[12];
  qx_byteorder::AddrText(p, text, sizeof text, false);
  EXPECT_STREQ("78563412", text);
  memset(text, 'x', sizeof text);
  CnvAddrStr(p, text, 5);
  EXPECT_EQ(std::string("1234\0xxx", 8), std::string(text, 8));
  CnvAddrStr(p, text, sizeof text);
  EXPECT_STREQ("12345678", text);
}

TEST(CnvIntToChar, RightAlignedIn32CharacterField) {
  for (const char* digits : {"18446744073709551615", "4711"}) {
    char area[33];
    const char* first = CnvIntToChar(strtoull(digits, nullptr, 10), area, sizeof area);
    EXPECT_STREQ(digits, first);
    EXPECT_EQ(std::string(32 - strlen(digits), ' '),
              std::string(static_cast<const char*>(area), first));
  }
  char area[40];
  EXPECT_EQ(area, CnvIntToChar(0, area, sizeof area));
  EXPECT_STREQ("0", area);
  EXPECT_STREQ("1234", CnvIntToChar(123456, area, 5));  // too small for the field: cut
}

TEST(Convert2Hex, TwoDigitsPerByteWithinItsBound) {
  const unsigned char in[4] = {0x00, 0xFF, 0xA5, 0x1C};
  char out[10];
  EXPECT_EQ(0, convert2hex(in, 4, out, 10));
  EXPECT_STREQ("00FFA51C", out);
  char untouched[9] = "xxxxxxxx";
  EXPECT_EQ(-1, convert2hex(in, 4, untouched, 9));
  EXPECT_EQ(-1, convert2hex(in, -1, untouched, 9));
  EXPECT_STREQ("xxxxxxxx", untouched);
}

}  // namespace
