// Bounded copies at their limits, word splitting, blanks, matching and the small
// conversions of the string utilities.
#include "common/strutil.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>

namespace {

struct WordCase {
  const char* src;
  char delim;
  int n;
  int dst_len;
  const char* want;
  int want_ret;
};

class GetWordDelimited : public testing::TestWithParam<WordCase> {};

TEST_P(GetWordDelimited, PlacesWordAndCount) {
  const WordCase& c = GetParam();
  char dst[64];
  memset(dst, 'X', sizeof dst);
  EXPECT_EQ(get_word_delimited(c.src, c.delim, c.n, dst, c.dst_len), c.want_ret);
  EXPECT_STREQ(dst, c.want);
  // Nothing is written behind the area.
  for (size_t i = static_cast<size_t>(c.dst_len); i < sizeof dst; ++i)
    EXPECT_EQ(dst[i], 'X');
}

INSTANTIATE_TEST_SUITE_P(
    Modes, GetWordDelimited,
    testing::Values(
        WordCase{"JNR=4711", '=', 1, 64, "JNR", 3}, WordCase{"JNR=4711", '=', -2, 64, "4711", 4},
        WordCase{"CMD=a=b", '=', -2, 64, "a=b", 3}, WordCase{"CMD=a=b", '=', 2, 64, "a", 1},
        WordCase{"KEY", '=', -2, 64, "", 0}, WordCase{"KEY=", '=', -2, 64, "", 0},
        WordCase{"KEY", '=', 1, 64, "KEY", 3}, WordCase{"a,,b", ',', 2, 64, "", 0},
        WordCase{"a,,b", ',', 3, 64, "b", 1}, WordCase{"a,,b", ',', 4, 64, "", 0},
        WordCase{"a,,b", ',', 0, 64, "", 0}, WordCase{"a,,b", ',', -1, 64, "a,,b", 4},
        WordCase{"=v", '=', 1, 64, "", 0}, WordCase{" a , b", ',', 2, 64, " b", 2},
        // Word mode at the limit of the area.
        WordCase{"abcdef", ',', 1, 4, "abc", 4}, WordCase{"abc,x", ',', 1, 4, "abc", 3},
        WordCase{"abcd,x", ',', 1, 4, "abc", 4}, WordCase{"abcd", ',', 1, 1, "", 1},
        // Rest mode is cut to the area less one and always terminated.
        WordCase{"k=abcdef", '=', -2, 4, "abc", 3}, WordCase{"k=abc", '=', -2, 4, "abc", 3}));

TEST(GetWordDelimited, RestModeFillsTheAreaBehindAShortText) {
  char dst[8];
  memset(dst, 'X', sizeof dst);
  EXPECT_EQ(get_word_delimited("k=ab", '=', -2, dst, sizeof dst), 2);
  for (size_t i = 2; i < sizeof dst; ++i)
    EXPECT_EQ(dst[i], '\0') << i;
}

TEST(StringCopy, CutsAtTheLimitAndClearsTheArea) {
  char area[8];
  memset(area, 'X', sizeof area);
  EXPECT_EQ(StringCopy(area, 4, "abcdef"), area);
  EXPECT_EQ(std::string(area, 4), std::string("abc\0", 4));
  EXPECT_EQ(area[4], 'X');

  memset(area, 'X', sizeof area);
  StringCopy(area, 4, "abc");  // fits exactly: the bytes behind are not touched
  EXPECT_STREQ(area, "abc");
  EXPECT_EQ(area[4], 'X');

  memset(area, 'X', sizeof area);
  StringCopy(area, 4, "abcd");  // one too long
  EXPECT_STREQ(area, "abc");
}

TEST(StringCopy, EmptyNullAndZeroSize) {
  char area[4] = {'X', 'X', 'X', 'X'};
  StringCopy(area, 4, "");
  EXPECT_EQ(area[0], '\0');
  area[0] = 'X';
  StringCopy(area, 4, nullptr);
  EXPECT_EQ(area[0], '\0');
  area[0] = 'X';
  StringCopy(area, 0, "abc");
  EXPECT_EQ(area[0], '\0');
  EXPECT_EQ(area[1], 'X');
  area[0] = 'X';
  StringCopy(area, -3, "abc");
  EXPECT_EQ(area[0], 'X');
  EXPECT_EQ(_StringCopy(nullptr, 4, "abc", __FILE__, __LINE__), nullptr);
}

TEST(StringCopy, OverlappingCutIsAMove) {
  char area[16] = "0123456789";
  StringCopy(area, 5, area + 2);
  EXPECT_STREQ(area, "2345");
}

TEST(StringCat, AppendsWithinTheRoomLeft) {
  char area[8] = "ab";
  StringCat(area, sizeof area, "cdefghij");
  EXPECT_STREQ(area, "abcdefg");
  StringCat(area, sizeof area, "x");  // full: unchanged
  EXPECT_STREQ(area, "abcdefg");
  char unterminated[4] = {'a', 'b', 'c', 'd'};
  StringCat(unterminated, sizeof unterminated, "x");  // not read or written beyond the area
  EXPECT_EQ(std::string(unterminated, 4), "abcd");
  EXPECT_EQ(_StringCat(nullptr, 4, "x", __FILE__, __LINE__), nullptr);
}

TEST(Blanks, StripKeepsTabsAndHandlesAllBlank) {
  struct {
    const char* in;
    const char* stripped;
    const char* left;
    const char* right;
  } cases[] = {{"  host  ", "host", "host  ", "  host"},
               {"\thost\t ", "\thost\t", "\thost\t ", "\thost\t"},
               {"    ", "", "", ""},
               {"", "", "", ""},
               {"a b", "a b", "a b", "a b"}};
  for (const auto& c : cases) {
    char a[32], b[32], d[32];
    strcpy(a, c.in);
    strcpy(b, c.in);
    strcpy(d, c.in);
    strip(a);
    lstrip(b);
    rstrip(d);
    EXPECT_STREQ(a, c.stripped) << '"' << c.in << '"';
    EXPECT_STREQ(b, c.left) << '"' << c.in << '"';
    EXPECT_STREQ(d, c.right) << '"' << c.in << '"';
  }
  rstrip(nullptr);
  lstrip(nullptr);
}

TEST(Blanks, EatTrailingStaysInsideTheField) {
  char field[8] = {'x', ' ', ' ', ' ', 'y', 'y', 'y', 'y'};
  EatTrailing(field, 4);
  EXPECT_EQ(std::string(field, 8), std::string("x\0\0\0yyyy", 8));
  char blanks[3] = {' ', ' ', ' '};
  EatTrailing(blanks, 3);
  EXPECT_EQ(std::string(blanks, 3), std::string(3, '\0'));
  char value[6];
  EXPECT_STREQ(GetStringTh("ab   xyz", 8, value, sizeof value), "ab");
  EXPECT_STREQ(GetStringTh("abcdefgh", 8, value, sizeof value), "abcde");
}

TEST(Case, OnlyAsciiLettersChange) {
  char text[] = "aZ\x80\xe4z-1";
  ToUpperCase(text, 3);
  EXPECT_STREQ(text, "AZ\x80\xe4z-1");
  strupper(text);
  EXPECT_STREQ(text, "AZ\x80\xe4Z-1");
  strlow(text);
  EXPECT_STREQ(text, "az\x80\xe4z-1");
  char with_nul[4] = {'a', '\0', 'b', 'c'};
  ToUpperCase(with_nul, 4);
  EXPECT_EQ(std::string(with_nul, 4), std::string("A\0BC", 4));
  ToUpperCase(with_nul, -1);
}

TEST(GetPName, LastPathComponent) {
  char a[] = "/opt/bin/tool", b[] = "tool", c[] = "dir/";
  EXPECT_STREQ(GetPName(a), "tool");
  EXPECT_STREQ(GetPName(b), "tool");
  EXPECT_STREQ(GetPName(c), "");
}

TEST(ReplaceAndFdset, Texts) {
  char s[] = "a.b.c";
  EXPECT_STREQ(str_replace_char(s, '.', '_'), "a_b_c");
  EXPECT_STREQ(str_replace_char(s, '\0', 'x'), "a_b_c");

  fd_set set;
  FD_ZERO(&set);
  char work[1024];
  EXPECT_STREQ(fdset2string(work, &set, 10), "");
  FD_SET(3, &set);
  FD_SET(5, &set);
  FD_SET(7, &set);
  FD_SET(9, &set);
  EXPECT_STREQ(fdset2string(work, &set, 7), "3,5,7");
  EXPECT_STREQ(fdset2string(work, &set, 9), "3,5,7,9");
}

TEST(Matching, MyStrMatch) {
  struct {
    const char* str;
    const char* mask;
    int want;
  } cases[] = {{"abc", "abc", 1},
               {"abc", "a*", 1},
               {"abc", "*", 1},
               {"", "*", 1},
               {"", "", 1},
               {"abc", "a?c", 1},
               {"abc", "a?", 0},
               {"abcbc", "a*bc", 1},
               {"abxbc", "*x*c", 1},
               {"abc", "*d", 0},
               {"abc", "abc**", 1},
               {"ab", "abc", 0},
               {"axxbxxc", "a*b*c", 1},
               {"abcd", "a*c", 0}};
  for (const auto& c : cases) {
    EXPECT_EQ(MyStrMatch(c.str, c.mask, '*', '?'), c.want) << c.str << " ~ " << c.mask;
  }
  EXPECT_EQ(MyStrMatch("a*c", "a*c", '\0', '\0'), 1);  // wildcards switched off
  EXPECT_EQ(MyStrMatch("abc", "a*c", '\0', '?'), 0);
}

TEST(Matching, StrccmpAndStrcstr) {
  char s[] = "hello world";
  EXPECT_EQ(strccmp(s, "hel", '?'), 1);
  EXPECT_EQ(strccmp(s, "h?l", '?'), 1);
  EXPECT_EQ(strccmp("he", "hel", '?'), 0);
  EXPECT_EQ(strcstr(s, "wor", '?'), s + 6);
  EXPECT_EQ(strcstr(s, "w?r", '?'), s + 6);
  EXPECT_EQ(strcstr(s, "xyz", '?'), nullptr);
  EXPECT_EQ(strcstr(s, "", '?'), s);
}

TEST(Matching, StrMatchPtr) {
  char s[] = "prefix.middle.suffix";
  char mask[] = "*middle*";
  EXPECT_EQ(strMatchPtr(s, "", '*', '?'), s);
  EXPECT_EQ(strMatchPtr(s, "prefix", '*', '?'), s);  // no wildcard: a prefix
  EXPECT_EQ(strMatchPtr(s, "suffix", '*', '?'), nullptr);
  EXPECT_EQ(strMatchPtr(s, "*", '*', '?'), s);
  EXPECT_EQ(strMatchPtr(s, mask, '*', '?'), s + 7);
  EXPECT_STREQ(mask, "*middle*");                           // the mask is left as it was
  EXPECT_EQ(strMatchPtr(s, "*middle", '*', '?'), nullptr);  // something behind it
  EXPECT_EQ(strMatchPtr(s, "pre*suffix", '*', '?'), s);
  EXPECT_EQ(strMatchPtr(s, "pre*suff", '*', '?'), nullptr);
}

TEST(FixedFields, Reorganise) {
  char f[8] = {' ', ' ', 'a', 'b', ' ', 'c', ' ', ' '};
  fix_len_reorg(f, 8);
  EXPECT_EQ(std::string(f, 8), "ab      ");
  char g[8] = {' ', ' ', 'a', 'b', ' ', 'c', 'd', 'e'};
  fix_len_reorg2(g, 8);
  EXPECT_STREQ(g, "ab cde");
  char h[4] = {'w', 'x', 'y', 'z'};
  fix_len_reorg2(h, 4);  // no blank to drop: still terminated inside the field
  EXPECT_STREQ(h, "wxy");
}

TEST(HexString, ShortAndLongAreas) {
  const unsigned char bytes[] = {'M', 'E', 'L', 'D', 0x01};
  char out[128];
  GetHexString(bytes, sizeof bytes, out, sizeof out);
  EXPECT_STREQ(out, ("'4D454C44 01'" + std::string(27, ' ') + ">MELD.<").c_str());
  char small[6];
  GetHexString(bytes, sizeof bytes, small, sizeof small);
  EXPECT_STREQ(small, "'4D45");
  unsigned char many[600];
  memset(many, 0xAB, sizeof many);
  char big[1024];
  GetHexString(many, sizeof many, big, sizeof big);
  EXPECT_EQ(strlen(big), 511u);  // the work text stops at 511 characters
  EXPECT_EQ(strchr(big, '>'), nullptr);
}

TEST(Environment, ExpandsReferences) {
  setenv("QX_T_HOME", "/home/job", 1);
  unsetenv("QX_T_UNSET");
  char out[64];
  EXPECT_EQ(ExpandEnvironmentStringsA("%QX_T_HOME%/log", out, sizeof out), 13);
  EXPECT_STREQ(out, "/home/job/log");
  ExpandEnvironmentStringsA("a%QX_T_UNSET%b", out, sizeof out);
  EXPECT_STREQ(out, "ab");
  ExpandEnvironmentStringsA("x%QX_T_HOME", out, sizeof out);
  EXPECT_STREQ(out, "x/home/job");
  char tiny[5];
  ExpandEnvironmentStringsA("%QX_T_HOME%", tiny, sizeof tiny);
  EXPECT_STREQ(tiny, "/hom");
  std::string long_name = "%" + std::string(200, 'N') + "%";
  ExpandEnvironmentStringsA(long_name.c_str(), out, sizeof out);
  EXPECT_STREQ(out, "");
}

TEST(Base26, RoundTripsAndStops) {
  char out[8];
  EXPECT_STREQ(Zudnst_LongToB26(0, out), "AAAAAAA");
  EXPECT_STREQ(Zudnst_LongToB26(27, out), "AAAAABB");
  EXPECT_EQ(Zudnst_B26ToLong("AAAAABB"), 27u);
  EXPECT_EQ(Zudnst_B26ToLong("B?"), 26u);
  EXPECT_EQ(Zudnst_B26ToLong(""), 0u);
  for (unsigned v : {1u, 25u, 26u, 675u, 123456789u, 0xFFFFFFFFu}) {
    EXPECT_EQ(Zudnst_B26ToLong(Zudnst_LongToB26(v, out)), v);
  }
  EXPECT_EQ(Zudnst_Plausibility(0, 5, 5), 1);
  EXPECT_EQ(Zudnst_Plausibility(10, 5, 5), 1);
  EXPECT_EQ(Zudnst_Plausibility(10, 5, 6), 0);
  EXPECT_EQ(Zudnst_Plausibility(10, 0xFFFFFFFFu, 2), 1);  // 32-bit sum wraps
}

TEST(Misc, VariableFieldAndTimer) {
  char out[4];
  EXPECT_EQ(get_variable_msg_field(out, "abcdef", 2, 3), 0);
  EXPECT_STREQ(out, "cde");
  const time_t now = time(nullptr);
  EXPECT_EQ(is_timer_elapsed(now - 10, 5), 1);
  EXPECT_EQ(is_timer_elapsed(now, 100), 0);
}

}  // namespace
