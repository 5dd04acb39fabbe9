// String utilities, dates under a time zone the test sets, trace and log output.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "common/dates.h"
#include "common/strutil.h"
#include "common/trace_log.h"

namespace {

using namespace std::string_literals;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

// Word, rest (-2) and whole (-1) modes at the area's limits; rest mode clears behind the text.
TEST(GetWordDelimited, ModesAndLimits) {
  const std::tuple<const char*, char, int, int, const char*, int> cases[] = {
      {"JNR=4711", '=', 1, 64, "JNR", 3}, {"JNR=4711", '=', -2, 64, "4711", 4},
      {"CMD=a=b", '=', -2, 64, "a=b", 3}, {"CMD=a=b", '=', 2, 64, "a", 1},
      {"KEY", '=', -2, 64, "", 0},        {"KEY=", '=', -2, 64, "", 0},
      {"KEY", '=', 1, 64, "KEY", 3},      {"a,,b", ',', 2, 64, "", 0},
      {"a,,b", ',', 3, 64, "b", 1},       {"a,,b", ',', 4, 64, "", 0},
      {"a,,b", ',', 0, 64, "", 0},        {"a,,b", ',', -1, 64, "a,,b", 4},
      {"=v", '=', 1, 64, "", 0},          {" a , b", ',', 2, 64, " b", 2},
      {"abcdef", ',', 1, 4, "abc", 4},    {"abc,x", ',', 1, 4, "abc", 3},
      {"abcd,x", ',', 1, 4, "abc", 4},    {"abcd", ',', 1, 1, "", 1},
      {"k=abcdef", '=', -2, 4, "abc", 3}, {"k=abc", '=', -2, 4, "abc", 3},
      {"k=ab", '=', -2, 8, "ab", 2},      {"ab\0zz", '\0', 2, 64, "", 0}};
  for (const auto& [src, delim, n, dst_len, want, ret] : cases) {
    char dst[64];
    memset(dst, 'X', sizeof dst);
    const int got = get_word_delimited(src, delim, n, dst, dst_len);
    EXPECT_EQ(std::make_tuple(ret, std::string(want), std::string(64 - dst_len, 'X')),
              std::make_tuple(got, std::string(dst), std::string(dst + dst_len, 64 - dst_len)))
        << src << " " << n;
    const std::string rest(dst, dst_len);
    EXPECT_TRUE(n != -2 || rest.find_first_not_of('\0', strlen(want)) == rest.npos) << src;
  }
  char dst[4] = "ab";
  EXPECT_EQ(std::tuple(get_word_delimited(nullptr, '=', 1, dst, 4),
                       get_word_delimited("a", '=', 1, dst, 0),
                       get_word_delimited("a", '=', 1, nullptr, 4)),
            std::tuple(0, 0, 0));  // no text: an empty word; no area: nothing
  EXPECT_STREQ(dst, "");
}

// Copies and appends: cut to the area less one, terminated, nothing written behind it.
TEST(StringCopy, BoundedAtTheLimit) {
  const std::tuple<int, const char*, std::string> cases[] = {
      {4, "abcdef", "abc\0X"s}, {4, "abc", "abc\0X"s}, {4, "abcd", "abc\0"s}, {4, "", "\0"s},
      {4, nullptr, "\0"s},      {0, "abc", "\0X"s},    {-3, "abc", "X"s}};
  for (const auto& [size, src, area_after] : cases) {
    char area[8];
    memset(area, 'X', sizeof area);
    StringCopy(area, size, src);
    EXPECT_EQ(std::string(area, area_after.size()), area_after) << size << (src ? src : "null");
  }
  char overlap[16] = "0123456789";
  StringCopy(overlap, 5, overlap + 2);
  EXPECT_STREQ(overlap, "2345");
  char area[8] = "ab", unterminated[4] = {'a', 'b', 'c', 'd'};
  StringCat(area, sizeof area, "cdefghij");
  StringCat(area, sizeof area, "x");  // full: unchanged
  StringCat(unterminated, sizeof unterminated, "x");
  EXPECT_EQ(std::string(area) + "|" + std::string(unterminated, 4), "abcdefg|abcd");
  EXPECT_EQ(_StringCopy(nullptr, 4, "abc", __FILE__, __LINE__), nullptr);
  EXPECT_EQ(_StringCat(nullptr, 4, "x", __FILE__, __LINE__), nullptr);
}

// Blanks go, tabs stay; fixed fields, case, replacement and descriptor lists within bounds.
TEST(Blanks, StripAndFixedFields) {
  const std::tuple<const char*, const char*, const char*, const char*> cases[] = {
      {"  host  ", "host", "host  ", "  host"},
      {"\thost\t ", "\thost\t", "\thost\t ", "\thost\t"},
      {"    ", "", "", ""}};
  for (const auto& [in, stripped, left, right] : cases) {
    std::string a = in, b = in, d = in;
    strip(a.data());
    lstrip(b.data());
    rstrip(d.data());
    EXPECT_EQ(std::string(a.c_str()) + "|" + b.c_str() + "|" + d.c_str(),
              std::string(stripped) + "|" + left + "|" + right);
  }
  char field[8] = {'x', ' ', ' ', ' ', 'y', 'y', 'y', 'y'}, value[6], none = 'n';
  EatTrailing(field + 2, 2), EatTrailing(nullptr, 3);  // all blank: only the field's own go
  EXPECT_EQ(std::string(field, 8), "x \0\0yyyy"s);
  std::string got = GetStringTh("ab   xyz", 8, value, sizeof value);
  got += std::string("|") + GetStringTh("abcdefgh", 8, value, sizeof value);
  EXPECT_EQ(got + "|" + GetStringTh("abcdefgh", 8, value, 1) + *GetStringTh("x", 1, &none, 0),
            "ab|abcde|n");  // room for the terminator only, then for nothing
  char h[4] = {'w', 'x', 'y', 'z'}, blanks[] = "    ";
  fix_len_reorg2(h, 4), fix_len_reorg2(h, 0);  // no blank to drop: terminated inside; 0: as is
  fix_len_reorg2(blanks, 3);                   // only blanks in the field: an empty text
  char word[] = "  ab c\0z";                   // the field's first word, padded; no field: nothing
  fix_len_reorg(word, 3), fix_len_reorg(word + 6, -1), fix_len_reorg2(word + 6, -1);
  EXPECT_EQ(std::string(h) + "|" + std::string(word, 8) + "|" + std::string(blanks, 4),
            "wxy|a  b c\0z|\0   "s);
  char text[] = "aZ\x80z\xe4-1";  // only ASCII letters change case, within the length
  ToUpperCase(text, 3), ToLowerCase(text, 1);
  EXPECT_STREQ(text, "aZ\x80z\xe4-1");
  EXPECT_STREQ(strlow(text), "az\x80z\xe4-1");
  EXPECT_STREQ(strupper(text), "AZ\x80Z\xe4-1");
  char path[] = "a/b/c  ", fds[32], fewer[32];
  EatTrailingStr(path);
  EXPECT_STREQ(str_replace_char(path, '/', '.'), "a.b.c");
  fd_set set;  // descriptors up to and including maxfd
  FD_ZERO(&set);
  for (int fd : {0, 3, 5})
    FD_SET(fd, &set);
  EXPECT_EQ(std::string(fdset2string(fds, &set, 5)) + "|" + fdset2string(fewer, &set, 4),
            "0,3,5|0,3");
}

TEST(Matching, MasksAndWildcards) {
  const std::tuple<std::string, std::string, int> cases[] = {
      {"abc", "a*", 1},    {""s, "*", 1},        {""s, ""s, 1},           {"abc", "a?c", 1},
      {"abc", "a?", 0},    {"abcbc", "a*bc", 1}, {"abxbc", "*x*c", 1},    {"abc", "*d", 0},
      {"abc", "abc**", 1}, {"ab", "abc", 0},     {"axxbxxc", "a*b*c", 1}, {"abcd", "a*c", 0}};
  for (const auto& [str, mask, want] : cases)
    EXPECT_EQ(MyStrMatch(str.c_str(), mask.c_str(), '*', '?'), want) << str << " ~ " << mask;
  EXPECT_EQ(MyStrMatch("a*c", "a*c", '\0', '\0'), 1);      // wildcards switched off
  char s[] = "prefix.middle.suffix", mask[] = "*middle*";  // without wildcards: a prefix
  EXPECT_EQ(std::make_pair(strMatchPtr(s, "prefix", '*', '?'), strMatchPtr(s, "suffix", '*', '?')),
            std::make_pair(s, static_cast<char*>(nullptr)));
  EXPECT_EQ(strMatchPtr(s, mask, '*', '?'), s + 7);
  EXPECT_STREQ(mask, "*middle*");  // the mask is left as it was
  EXPECT_EQ(strMatchPtr(s, "*middle", '*', '?'), nullptr);
  EXPECT_EQ(std::pair(strcstr(s, "m?d", '?'), strMatchPtr(s, "prefix.middle.suff?x", '*', '?')),
            std::pair(s + 7, s));
}

TEST(TextHelpers, HexStringAndEnvironment) {
  const unsigned char bytes[] = {'M', 'E', 'L', 'D', 0x01};
  char out[128], small[6], big[1024], one[1] = {'x'};
  GetHexString(bytes, sizeof bytes, out, sizeof out);
  EXPECT_EQ(out, "'4D454C44 01'" + std::string(27, ' ') + ">MELD.<");
  GetHexString(bytes, sizeof bytes, small, sizeof small);
  GetHexString(bytes, sizeof bytes, small + 1, 0);  // no area: nothing written
  EXPECT_EQ(small + std::string(GetHexString(bytes, sizeof bytes, one, 1)), "'4D45");  // 1: ""
  const std::string many(600, '\xAB');
  GetHexString(reinterpret_cast<const unsigned char*>(many.data()), 600, big, sizeof big);
  EXPECT_EQ(strlen(big), 511u);           // the work text stops at 511 characters
  EXPECT_EQ(std::make_tuple(1, 1, 0, 1),  // rest within the message, in 32-bit arithmetic
            std::make_tuple(Zudnst_Plausibility(0, 5, 5), Zudnst_Plausibility(10, 4, 6),
                            Zudnst_Plausibility(10, 5, 6), Zudnst_Plausibility(10, 0xFFFFFFFF, 2)));
  char b26[8], field[4];  // seven letters for any 32-bit number; a non-letter ends a decode
  EXPECT_EQ((std::tuple{std::string(Zudnst_LongToB26(27, b26)), Zudnst_B26ToLong(b26),
                        Zudnst_B26ToLong(Zudnst_LongToB26(4294967295u, b26)),
                        Zudnst_B26ToLong("BB?B"), Zudnst_B26ToLong("AAAAAAAB"),
                        Zudnst_B26ToLong("B"), get_variable_msg_field(field, "abcdef", 2, 3)}),
            std::tuple("AAAAABB", 27u, 4294967295u, 702u, 0u, 1u, 0));  // 7 letters at most
  const std::string cut = field;
  EXPECT_EQ(cut + (get_variable_msg_field(field, "a", 0, -1), field), "cde");
  setenv("QX_T_HOME", "/home/job", 1);
  unsetenv("QX_T_UNSET");
  EXPECT_EQ(ExpandEnvironmentStringsA("%QX_T_HOME%/log", out, sizeof out), 13);
  std::string got = out;
  ExpandEnvironmentStringsA("a%QX_T_UNSET%b|x%QX_T_HOME", out, sizeof out);
  ExpandEnvironmentStringsA("%QX_T_HOME%", small, 5);
  got += std::string(",") + out + "," + small;
  ExpandEnvironmentStringsA(("%" + std::string(200, 'N') + "%").c_str(), out, sizeof out);
  EXPECT_EQ(got + "," + out, "/home/job/log,ab|x/home/job,/hom,");
  // No room, no area: nothing written; room for the terminator only: an empty text.
  EXPECT_EQ((std::tuple{ExpandEnvironmentStringsA("ab", small, 0) +
                            ExpandEnvironmentStringsA("ab", nullptr, 9) +
                            ExpandEnvironmentStringsA("ab", small, 1),
                        small[0]}),
            std::tuple(0, '\0'));
}

struct TimeZone {
  explicit TimeZone(const char* tz) : old(getenv("TZ") ? getenv("TZ") : "") {
    setenv("TZ", tz, 1);
    tzset();
  }
  ~TimeZone() {
    old.empty() ? unsetenv("TZ") : setenv("TZ", old.c_str(), 1);
    tzset();
  }
  std::string old;
};

TEST(Dates, LocalAndUtcSplitUnderTheZone) {
  const std::tuple<const char*, time_t, int, int, int, int, const char*> cases[] = {
      {"UTC0", 0, 1, 0, 1, 0, "19700101/000000"},
      {"JST-9", 1795361405, 23, 0, 22, 15, "20261123/003005"}};  // UTC+9
  for (const auto& [zone, when, local_day, local_hour, utc_day, utc_hour, text] : cases) {
    TimeZone tz(zone);
    DATUM_BUFF dt;
    memset(&dt, 0x5A, sizeof dt);
    time_t t = when;
    GetDatumZeit2(&t, &dt);
    EXPECT_EQ(std::make_tuple(dt.dt_tag, dt.dt_std, dt.utc_tag, dt.utc_std),
              std::make_tuple(local_day, local_hour, utc_day, utc_hour));
    EXPECT_EQ(dt.dt_msek + dt.dt_usek + dt.dt_nsek + dt.utc_msek + dt.utc_nsek, 0);
    EXPECT_STREQ(dt.dt_xdat, text);
  }
  DATUM_BUFF now;  // the current time carries milliseconds in its text
  GetDatumZeit2(nullptr, &now);
  ASSERT_EQ(std::make_pair(strlen(now.dt_xdat), now.dt_xdat[15]), std::make_pair(19ul, '.'));
  EXPECT_EQ(std::make_pair(atoi(now.dt_xdat + 16), now.utc_msek),
            std::make_pair(int{now.dt_msek}, now.dt_msek));
  EXPECT_LT(now.dt_usek, 1000);
  EXPECT_LE(llabs(static_cast<long long>(now.dt_time - time(nullptr))), 2);
}

TEST(Dates, TextsCutToTheAreaLocalToUtcAndStopwatch) {
  TimeZone tz("CET-1");  // UTC+1, no daylight saving rule
  time_t t = 0;
  char area[32];
  const std::string got = (GetDtChar2(&t, area, 10), area);
  GetDtChar2(&t, area, sizeof area);
  EXPECT_EQ(got + "|" + area + "|" + GetDtChar(&t), "19700101|19700101/010000|19700101/010000");
  MSG_TYPE_TIMESTAMP zero = {0, 0, 0, 0, 0, 0, 7}, copy = zero, ts = {2026, 1, 1, 0, 30, 15, 42};
  const MSG_TYPE_TIMESTAMP utc = {2025, 12, 31, 23, 30, 15, 42};
  EXPECT_EQ(std::make_pair(CreateCharUtcTime(&copy), CreateCharUtcTime(&ts)), std::make_pair(0, 0));
  EXPECT_EQ(memcmp(&copy, &zero, sizeof copy), 0);  // an empty time stays as it is
  EXPECT_EQ(memcmp(&ts, &utc, sizeof ts), 0);
  MSG_TYPE_TIMESTAMP minus1 = {1970, 1, 1, 0, 59, 59, 0};  // one second before the epoch
  EXPECT_EQ(CreateCharUtcTime(&minus1), -1);               // mktime's -1 is taken as its failure
  struct timeval start = {0, 0};
  for (int i = 0; i < 3 && start.tv_usec == 0; ++i)  // starts the stopwatch, microseconds too
    EXPECT_EQ(GetUsec(&start, 0), 0);
  EXPECT_NE(start.tv_usec, 0);
  start.tv_sec -= 2;
  const int us = GetUsec(&start, 1);
  EXPECT_TRUE(us >= 2000000 && us < 3000000) << us;
  EXPECT_EQ(GetUsec(nullptr, 1), 0);
  EXPECT_GE(GetElapsedTime(nullptr), start.tv_sec);  // without an area for the microseconds
  const std::pair<int, const char*> durations[] = {
      {59, "00:00:59"}, {360000, "100:00:00"}, {-61, "00:-01:-01"}, {0, "00:00:00"}};
  for (auto [sec, text] : durations)
    EXPECT_EQ(std::string(sec2hhmmss(sec, area)) + "|" + sec2hhmmss2(sec), text + "|"s + text);
  sec2hhmmss3(3661, area, 6), sec2hhmmss3(1, area, -1);  // no room: nothing written
  EXPECT_STREQ(area, "01:01");
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}
// Trace lines: "%.8X         %s - %s", cut at 2047; off, the macro does not format.
TEST(Trace, LineShapeCutAndOff) {
  trcFlag = 1;
  CaptureStdout();
  __trace_text(0, "%s:      value %d", "fn", 42);
  __trace_text(0, "%s", std::string(3000, 'x').c_str());
  trcFlag = 0;
  int evaluated = 0;
  QX_TRACE("%d", ++evaluated);
  const auto lines = Lines(GetCapturedStdout());
  ASSERT_EQ(std::make_pair(evaluated, lines.size()), std::make_pair(0, size_t{2}));
  const std::regex shape(R"(^[0-9A-F]{8,}         \d{8}/\d{6}\.\d{3} - (.*)$)");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(lines[0], m, shape)) << lines[0];
  EXPECT_EQ(m[1], "fn:      value 42");
  ASSERT_TRUE(std::regex_match(lines[1], m, shape));
  EXPECT_EQ(m[1].length(), 2047);
  CaptureStdout();
  EXPECT_EQ(mprintf("a=%d", 1), 0);
  mprintf("ends with newline\n");
  mprintf("%s", std::string(3000, 'y').c_str());
  const std::string out = GetCapturedStdout();
  EXPECT_EQ(out, "a=1\nends with newline\n\n" + std::string(2047, 'y') + "\n");
}

std::vector<std::string> Dump(const void* data, int len) {
  CaptureStdout();
  trcdump(const_cast<void*>(data), len, "title %d", len);
  return Lines(GetCapturedStdout());
}

// Offsets in column 20; repeats left out but the last ("=" marks the first); two equal shown.
TEST(Trcdump, HeadingShortLinesAndRepeats) {
  char byte = 0, tail[64];
  auto lines = Dump(&byte, 0);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(std::regex_match(lines[0].substr(0, 68),
                               std::regex(R"(\d{8}/\d{6}\.\d{3} U0009909 TRACE: \(title 0\) +)")))
      << lines[0];
  snprintf(tail, sizeof tail, "%p %.5d", static_cast<void*>(&byte), 0);
  EXPECT_EQ(lines[0].substr(68), tail);
  unsigned char data[64];
  for (int i = 0; i < 40; ++i)
    data[i] = static_cast<unsigned char>(0x18 + i);
  lines = Dump(data, 40);
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[1].substr(0, 38) + lines[1].substr(65),
            std::string(20, ' ') + "00000000  18191A1B  >........ !\"#$%&'<");
  EXPECT_EQ(lines[3].substr(20, 9) + lines[3].substr(65), "00000020   >89:;<=>?<");  // aligned
  const unsigned char five[] = {'M', 'E', 'L', 'D', 0};
  EXPECT_EQ(Dump(five, 5)[1],
            std::string(20, ' ') + "00000000  4D454C44 00" + std::string(20, ' ') + "  >MELD.<");
  memset(data, 0x11, sizeof data);
  const std::tuple<int, std::string, std::string> repeats[] = {{64, "00000000=", "00000030 "},
                                                               {32, "00000000 ", "00000010 "},
                                                               {56, "00000000=", "00000030 "}};
  for (const auto& [len, first, last] : repeats) {
    if (len == 56) memset(data + 48, 0x33, 8);
    lines = Dump(data, len);
    ASSERT_EQ(lines.size(), 3u) << len;
    EXPECT_EQ(lines[1].substr(20, 9) + lines[2].substr(20, 9), first + last) << len;
  }
  CaptureStdout();
  trcdump_limited(data, 4, 2, "title");
  EXPECT_EQ(GetCapturedStdout(), "");
}

}  // namespace
