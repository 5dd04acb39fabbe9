// Byte order, 64-bit helpers and number-to-text conversion.
#include <limits.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/convert.h"

namespace {

template <typename T>
std::vector<unsigned char> BytesOf(T value) {
  std::vector<unsigned char> b(sizeof value);
  memcpy(b.data(), &value, sizeof value);
  return b;
}

TEST(ByteOrder, WireFieldsAreLeastSignificantFirstOnThisHost) {
  ASSERT_EQ(1, iIsIntel()) << "these expectations are for a little-endian host";
  EXPECT_EQ((std::vector<unsigned char>{0x67, 0x12, 0x00, 0x00}), BytesOf(iCnvU32(4711)));
  EXPECT_EQ((std::vector<unsigned char>{0x2C, 0x01}), BytesOf(iCnvU16(300)));
  EXPECT_EQ((std::vector<unsigned char>{0xFE, 0xFF}), BytesOf(iCnvI16(-2)));
  EXPECT_EQ((std::vector<unsigned char>{0xFE, 0xFF, 0xFF, 0xFF}), BytesOf(iCnvI32(-2)));
  EXPECT_EQ(0x12345678, CnvInt4(0x12345678));
  EXPECT_EQ(short{0x1234}, CnvInt2(0x1234));
  long long i64 = 0x0102030405060708LL;
  EXPECT_EQ(&i64, _CnvInt64(&i64));
  EXPECT_EQ(0x0102030405060708LL, i64);
  unsigned long long u64 = 0x0102030405060708ULL;
  EXPECT_EQ(0x0102030405060708ULL, *_CnvUint64(&u64));
}

// Both host orders: the conversion a big-endian host makes reverses the bytes, and on either
// host it is its own inverse.
struct OrderCase {
  bool host_is_little;
  uint16_t u16, wire16;
  uint32_t u32, wire32;
  uint64_t u64, wire64;
};

class ByteOrderForHost : public testing::TestWithParam<OrderCase> {};

TEST_P(ByteOrderForHost, ConvertsAndIsItsOwnInverse) {
  const OrderCase& c = GetParam();
  using namespace qx_byteorder;
  EXPECT_EQ(c.wire16, ToWire16(c.u16, c.host_is_little));
  EXPECT_EQ(c.wire32, ToWire32(c.u32, c.host_is_little));
  EXPECT_EQ(c.wire64, ToWire64(c.u64, c.host_is_little));
  EXPECT_EQ(c.u16, ToWire16(ToWire16(c.u16, c.host_is_little), c.host_is_little));
  EXPECT_EQ(c.u32, ToWire32(ToWire32(c.u32, c.host_is_little), c.host_is_little));
  EXPECT_EQ(c.u64, ToWire64(ToWire64(c.u64, c.host_is_little), c.host_is_little));
}

INSTANTIATE_TEST_SUITE_P(BothHosts, ByteOrderForHost,
                         testing::Values(OrderCase{true, 0x1234, 0x1234, 0x12345678, 0x12345678,
                                                   0x0102030405060708ULL, 0x0102030405060708ULL},
                                         OrderCase{false, 0x1234, 0x3412, 0x12345678, 0x78563412,
                                                   0x0102030405060708ULL, 0x0807060504030201ULL},
                                         OrderCase{false, 0xFFFE, 0xFEFF, 0x000000FF, 0xFF000000,
                                                   0xFFULL, 0xFF00000000000000ULL}));

TEST(ByteOrder, SignedValueOnBigEndianHostIsSwappedTwosComplement) {
  EXPECT_EQ(-257, static_cast<short>(qx_byteorder::ToWire16(static_cast<uint16_t>(-2), false)));
}

// CNV_Int writes least significant first, CNV_X most significant first; both for both hosts.
TEST(ByteOrder, InPlaceFieldConvertersForBothHosts) {
  struct Case {
    bool host_is_little;
    bool want_little;
    std::vector<unsigned char> in, out;
  };
  const std::vector<Case> cases = {
      {true, false, {1, 0, 0, 0}, {0, 0, 0, 1}},
      {true, true, {1, 0, 0, 0}, {1, 0, 0, 0}},
      {false, true, {0, 0, 0, 1}, {1, 0, 0, 0}},
      {false, false, {0, 0, 0, 1}, {0, 0, 0, 1}},
      {true, false, {1, 2}, {2, 1}},
      {true, false, {1, 2, 3, 4, 5, 6, 7, 8}, {8, 7, 6, 5, 4, 3, 2, 1}},
      {true, false, {1, 2, 3}, {1, 2, 3}},  // other sizes stay as they are
      {true, false, {1}, {1}},
  };
  for (const Case& c : cases) {
    std::vector<unsigned char> field = c.in;
    qx_byteorder::ToOrder(field.data(), static_cast<short>(field.size()), c.host_is_little,
                          c.want_little);
    EXPECT_EQ(c.out, field) << "little host " << c.host_is_little << ", size " << c.in.size();
  }
  int one = 1;
  CNV_X(&one, sizeof one);
  EXPECT_EQ((std::vector<unsigned char>{0, 0, 0, 1}), BytesOf(one));
  one = 1;
  CNV_Int(&one, sizeof one);
  EXPECT_EQ((std::vector<unsigned char>{1, 0, 0, 0}), BytesOf(one));
  EXPECT_EQ(-5, CNV_Int4(-5));
  EXPECT_EQ(short{-5}, CNV_Int2(-5));
}

TEST(Arithmetic64, SignedComparisonsAndExtension) {
  long long minus1 = -1, plus1 = 1, big = LLONG_MAX, small = LLONG_MIN;
  EXPECT_EQ(0, MyGt8(&minus1, &plus1));
  EXPECT_EQ(1, MyGt8(&plus1, &minus1));
  EXPECT_EQ(1, MyLe8(&minus1, &plus1));
  EXPECT_EQ(1, MyLe8(&plus1, &plus1));
  EXPECT_EQ(1, MyGt8(&big, &small));
  int i_minus1 = -1, i_plus1 = 1;
  EXPECT_EQ(0, MyGt4(&i_minus1, &i_plus1));
  EXPECT_EQ(1, MyLe4(&i_minus1, &i_plus1));
  EXPECT_EQ(0, MyLe4(&i_plus1, &i_minus1));

  long long sum = 0;
  MyAddFrom4(&sum, -1);
  EXPECT_EQ(-1, sum);
  sum = 0;
  myAdd8(&sum, 0xFFFFFFFFu);
  EXPECT_EQ(4294967295LL, sum);
  long long add = 1;
  sum = LLONG_MAX;
  MyAddFrom8(&sum, &add);
  EXPECT_EQ(LLONG_MIN, sum);  // wraps
  add = -10;
  sum = 3;
  MyAddFrom8(&sum, &add);
  EXPECT_EQ(-7, sum);
}

TEST(CnvAddrStr, EightDigitsInTheHostsByteOrder) {
  const void* p = reinterpret_cast<const void*>(uintptr_t{0xABC12345678});
  char text[16];
  memset(text, 'x', sizeof text);
  EXPECT_EQ(text, qx_byteorder::AddrText(p, text, sizeof text, true));
  EXPECT_STREQ("12345678", text);
  EXPECT_EQ('\0', text[15]);  // the whole area is cleared
  qx_byteorder::AddrText(p, text, sizeof text, false);
  EXPECT_STREQ("78563412", text);
  memset(text, 'x', sizeof text);
  CnvAddrStr(p, text, 5);
  EXPECT_STREQ("1234", text);
  EXPECT_EQ('x', text[5]);  // nothing behind the given size
}

TEST(CnvIntToChar, RightAlignsDigitsInA32CharacterField) {
  struct Case {
    unsigned long long value;
    const char* digits;
  };
  for (const Case& c :
       {Case{18446744073709551615ULL, "18446744073709551615"}, Case{4711, "4711"}, Case{7, "7"}}) {
    char area[33];
    const char* first = CnvIntToChar(c.value, area, sizeof area);
    EXPECT_STREQ(c.digits, first);
    EXPECT_EQ(area + 32 - strlen(c.digits), first);
    EXPECT_EQ(std::string(32 - strlen(c.digits), ' '),
              std::string(static_cast<const char*>(area), first));
  }
  char area[40];
  memset(area, 'x', sizeof area);
  EXPECT_EQ(area, CnvIntToChar(0, area, sizeof area));
  EXPECT_STREQ("0", area);
  EXPECT_EQ('\0', area[39]);
}

TEST(CnvIntToChar, ShortAreaGetsDigitsLeftAlignedAndCut) {
  char area[5];
  EXPECT_EQ(area, CnvIntToChar(123456, area, sizeof area));
  EXPECT_STREQ("1234", area);
  EXPECT_EQ(area, CnvIntToChar(1, area, 0));
}

TEST(Convert2Hex, WritesTwoDigitsPerByteWithinItsBound) {
  const unsigned char in[4] = {0x00, 0xFF, 0xA5, 0x1C};
  char out[10];
  EXPECT_EQ(0, convert2hex(in, 4, out, 10));
  EXPECT_STREQ("00FFA51C", out);

  char untouched[9];
  memset(untouched, 'x', sizeof untouched);
  EXPECT_EQ(-1, convert2hex(in, 4, untouched, 9));
  EXPECT_EQ(std::string(9, 'x'), std::string(untouched, 9));
  EXPECT_EQ(-1, convert2hex(in, -1, untouched, 9));
  EXPECT_EQ(-1, convert2hex(nullptr, 1, untouched, 9));

  char empty[2] = {'x', 'x'};
  EXPECT_EQ(0, convert2hex(in, 0, empty, 2));
  EXPECT_EQ('\0', empty[0]);
}

}  // namespace
