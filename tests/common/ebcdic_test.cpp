// ASCII/EBCDIC tables and user code tables.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/ebcdic.h"

namespace {

TEST(Ebcdic, TranslatesInPlaceBothWays) {
  EXPECT_EQ(0, iIsEbcdic());
  struct Case {
    std::string ascii, ebcdic;
  };
  for (const Case& c :
       {Case{"A1[", "\xC1\xF1\xBB"}, Case{"az09 |\n", "\x81\xA9\xF0\xF9\x40\x4F\x25"},
        Case{"\\]^`{}~", "\xBC\xBD\x6A\x4A\xFB\xFD\xFF"}}) {
    std::string text = c.ascii;
    ToEbcdic(text.data(), static_cast<int>(text.size()));
    EXPECT_EQ(c.ebcdic, text) << c.ascii;
    ToAscii(text.data(), static_cast<int>(text.size()));
    EXPECT_EQ(c.ascii, text) << c.ascii;
  }
  char never_produced[] = "A";  // 0x41 is no image of a 7-bit byte
  ToAscii(never_produced, 1);
  EXPECT_STREQ("\xFE", never_produced);
  for (int length : {0, -1}) {
    char text[] = "abc";
    ToEbcdic(text, length);
    ToAscii(text, length);
    EXPECT_STREQ("abc", text);
  }
}

// Over all 256 bytes: 7-bit bytes come back but 0x13 (as 0x12) and 0x7F (as 0x07); 8-bit
// bytes come back as 0x07, except Ä, Ö and Ü, which come back as "[", "\" and "]". No two
// 7-bit bytes share an EBCDIC byte, and an EBCDIC byte no 7-bit byte lands on gives 0xFE.
TEST(Ebcdic, RoundTripOverAllBytes) {
  std::vector<int> preimages(256, 0);
  for (int b = 0; b < 256; ++b) {
    char c = static_cast<char>(b);
    ToEbcdic(&c, 1);
    if (b < 0x7F) ++preimages[static_cast<unsigned char>(c)];
    ToAscii(&c, 1);
    int expected = b < 0x80 ? b : 0x07;
    if (b == 0x13) expected = 0x12;
    if (b == 0x7F) expected = 0x07;
    if (b == 0xC4) expected = '[';
    if (b == 0xD6) expected = '\\';
    if (b == 0xDC) expected = ']';
    EXPECT_EQ(expected, static_cast<unsigned char>(c)) << "byte 0x" << std::hex << b;
  }
  for (int e = 0; e < 256; ++e) {
    EXPECT_LE(preimages[e], 1) << "EBCDIC 0x" << std::hex << e;
    if (preimages[e] == 0 && e != 0x07) {
      EXPECT_EQ(0xFE, ebcdic037_to_ascii[e]) << "EBCDIC 0x" << std::hex << e;
    }
  }
}

TEST(CodeTab, ValidCodesKeptOthersGetLowestSubstituteOrBlank) {
  struct Case {
    std::vector<std::pair<int, unsigned char>> attributes, expected;
  };
  const std::vector<Case> cases = {
      {{{'a', kCodeValid}}, {{'a', 255 - 'a'}, {'b', ' '}}},
      {{{5, kCodeSubstitute}, {9, kCodeSubstitute | kCodeValid}, {7, kCodeValid}},
       {{5, 250}, {6, 250}, {7, 248}, {9, 246}, {255, 250}}},
  };
  for (const Case& c : cases) {
    std::vector<unsigned char> description(kCodeTabDescriptionSize, 0);
    for (int i = 0; i < kCodeTabSize; ++i)
      description[i] = static_cast<unsigned char>(255 - i);
    for (auto [i, a] : c.attributes)
      description[kCodeTabSize + i] = a;
    unsigned char table[kCodeTabSize];
    SetCodeTab(table, description.data());
    for (auto [i, v] : c.expected)
      EXPECT_EQ(v, table[i]) << "entry " << i;
  }

  unsigned char upper[kCodeTabSize];
  for (int i = 0; i < kCodeTabSize; ++i)
    upper[i] = static_cast<unsigned char>(toupper(i));
  const char in[3] = {'a', '\xE4', 'z'};  // exactly three readable bytes
  char out[3];
  EXPECT_EQ(3, AreaConv(out, in, 3, upper));
  EXPECT_EQ("A\xE4Z", std::string(out, 3));
  char same[] = "mixed Text";
  EXPECT_EQ(10, AreaConv(same, same, 10, upper));
  EXPECT_STREQ("MIXED TEXT", same);
  EXPECT_EQ(0, AreaConv(same, same, -3, upper));
}

}  // namespace
