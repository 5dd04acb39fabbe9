// ASCII/EBCDIC tables and user code tables.
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/ebcdic.h"

namespace {

std::string Bytes(std::initializer_list<int> bytes) {
  std::string s;
  for (int b : bytes)
    s += static_cast<char>(b);
  return s;
}

TEST(Ebcdic, HostIsAscii) {
  EXPECT_EQ(0, iIsEbcdic());
}

TEST(Ebcdic, TranslatesInPlaceBothWays) {
  struct Case {
    std::string ascii, ebcdic;
  };
  const std::vector<Case> cases = {
      {"A1[", Bytes({0xC1, 0xF1, 0xBB})},
      {"az09 ", Bytes({0x81, 0xA9, 0xF0, 0xF9, 0x40})},
      {"\\]^`{}~", Bytes({0xBC, 0xBD, 0x6A, 0x4A, 0xFB, 0xFD, 0xFF})},
      {"|\n", Bytes({0x4F, 0x25})},
  };
  for (const Case& c : cases) {
    std::string text = c.ascii;
    ToEbcdic(text.data(), static_cast<int>(text.size()));
    EXPECT_EQ(c.ebcdic, text) << c.ascii;
    ToAscii(text.data(), static_cast<int>(text.size()));
    EXPECT_EQ(c.ascii, text) << c.ascii;
  }
  std::string never_produced = "A";  // 0x41 is no image of a 7-bit byte
  ToAscii(never_produced.data(), 1);
  EXPECT_EQ(Bytes({0xFE}), never_produced);
}

TEST(Ebcdic, ZeroAndNegativeLengthsLeaveTextAlone) {
  for (int length : {0, -1, -100}) {
    char text[] = "abc";
    ToEbcdic(text, length);
    ToAscii(text, length);
    EXPECT_STREQ("abc", text);
  }
}

// Over all 256 bytes: 7-bit bytes come back but 0x13 (as 0x12) and 0x7F (as 0x07); 8-bit bytes
// come back as 0x07, except Ä, Ö and Ü, which come back as "[", "\" and "]".
TEST(Ebcdic, RoundTripOverAllBytes) {
  for (int b = 0; b < 256; ++b) {
    char c = static_cast<char>(b);
    ToEbcdic(&c, 1);
    ToAscii(&c, 1);
    int expected;
    switch (b) {
      case 0x13:
        expected = 0x12;
        break;
      case 0x7F:
        expected = 0x07;
        break;
      case 0xC4:
        expected = '[';
        break;
      case 0xD6:
        expected = '\\';
        break;
      case 0xDC:
        expected = ']';
        break;
      default:
        expected = b < 0x80 ? b : 0x07;
    }
    EXPECT_EQ(expected, static_cast<unsigned char>(c)) << "byte 0x" << std::hex << b;
  }
}

// The 7-bit bytes land on distinct EBCDIC bytes, and only those and 0x07 map back to anything
// but 0xFE.
TEST(Ebcdic, ImagesOfSevenBitBytesAreDistinctAndAloneMapBack) {
  std::vector<int> preimages(256, 0);
  for (int b = 0; b < 0x7F; ++b)
    ++preimages[ascii_to_ebcdic037[b]];
  for (int e = 0; e < 256; ++e) {
    EXPECT_LE(preimages[e], 1) << "EBCDIC 0x" << std::hex << e;
    if (preimages[e] == 0 && e != 0x07) {
      EXPECT_EQ(0xFE, ebcdic037_to_ascii[e]) << "EBCDIC 0x" << std::hex << e;
    }
  }
}

std::vector<unsigned char> Description() {
  std::vector<unsigned char> d(kCodeTabDescriptionSize, 0);
  for (int i = 0; i < kCodeTabSize; ++i)
    d[i] = static_cast<unsigned char>(255 - i);
  return d;
}

TEST(SetCodeTab, ValidCodesKeptOthersGetSubstitute) {
  struct Case {
    const char* name;
    std::vector<std::pair<int, unsigned char>> attributes;
    std::vector<std::pair<int, unsigned char>> expected;  // entries to check
  };
  const std::vector<Case> cases = {
      {"no substitute: blank", {{'a', kCodeValid}}, {{'a', 255 - 'a'}, {'b', ' '}, {0, ' '}}},
      {"lowest substitute wins",
       {{5, kCodeSubstitute}, {9, kCodeSubstitute | kCodeValid}, {7, kCodeValid}},
       {{5, 250}, {6, 250}, {7, 248}, {9, 246}, {255, 250}}},
      {"substitute bit alone does not make a code valid",
       {{200, kCodeSubstitute}},
       {{200, 55}, {0, 55}}},
  };
  for (const Case& c : cases) {
    std::vector<unsigned char> d = Description();
    for (auto [i, a] : c.attributes)
      d[kCodeTabSize + i] = a;
    unsigned char table[kCodeTabSize];
    SetCodeTab(table, d.data());
    for (auto [i, v] : c.expected)
      EXPECT_EQ(v, table[i]) << c.name << ", entry " << i;
  }
}

TEST(AreaConv, ConvertsIntoOtherOrSameArea) {
  unsigned char upper[kCodeTabSize];
  for (int i = 0; i < kCodeTabSize; ++i) {
    upper[i] = static_cast<unsigned char>(i >= 'a' && i <= 'z' ? i - 32 : i);
  }
  const char in[4] = {'a', 'B', '\xE4', 'z'};  // exactly four readable bytes
  char out[4];
  EXPECT_EQ(4, AreaConv(out, in, 4, upper));
  EXPECT_EQ(std::string("AB\xE4Z", 4), std::string(out, 4));

  char same[] = "mixed Text";
  EXPECT_EQ(10, AreaConv(same, same, 10, upper));
  EXPECT_STREQ("MIXED TEXT", same);

  for (int length : {0, -3}) {
    char untouched[] = "abc";
    EXPECT_EQ(0, AreaConv(untouched, untouched, length, upper));
    EXPECT_STREQ("abc", untouched);
  }
}

}  // namespace
