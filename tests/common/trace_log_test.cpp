// Trace line shape, report lines, the dump layout and the logger hook.
#include "common/trace_log.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Captures what the library writes to standard output while it lives.
class StdoutCapture {
 public:
  StdoutCapture() {
    fflush(stdout);
    testing::internal::CaptureStdout();
  }
  std::string Take() {
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
  }
};

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

class TraceSwitch {
 public:
  explicit TraceSwitch(int level) : old_(trcFlag) { trcFlag = level; }
  ~TraceSwitch() { trcFlag = old_; }

 private:
  int old_;
};

TEST(Trace, LineShapeAndCut) {
  TraceSwitch on(1);
  StdoutCapture cap;
  __trace_text(0, "%s:      value %d", "fn", 42);
  __trace_text(0, "%s", std::string(3000, 'x').c_str());
  const auto lines = Lines(cap.Take());
  ASSERT_EQ(lines.size(), 2u);
  const std::regex shape(R"(^[0-9A-F]{8,}         \d{8}/\d{6}\.\d{3} - (.*)$)");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(lines[0], m, shape)) << lines[0];
  EXPECT_EQ(m[1], "fn:      value 42");
  ASSERT_TRUE(std::regex_match(lines[1], m, shape));
  EXPECT_EQ(m[1].length(), 2047);
}

TEST(Trace, MacroFormatsNothingWhenOff) {
  TraceSwitch off(0);
  int evaluated = 0;
  StdoutCapture cap;
  QX_TRACE("%d", ++evaluated);
  EXPECT_EQ(cap.Take(), "");
  EXPECT_EQ(evaluated, 0);
  EXPECT_EQ(trc_level(), 0);
}

TEST(Mprintf, AddsNewlineAndCuts) {
  StdoutCapture cap;
  EXPECT_EQ(mprintf("a=%d", 1), 0);
  mprintf("ends with newline\n");
  mprintf("%s", std::string(3000, 'y').c_str());
  const std::string out = cap.Take();
  EXPECT_EQ(out.substr(0, 23), "a=1\nends with newline\n\n");
  EXPECT_EQ(out.size(), 23u + 2047u + 1u);
}

// Dumps a buffer and returns the lines without the heading (which is checked separately).
std::vector<std::string> Dump(const void* data, int len, std::string* heading = nullptr) {
  StdoutCapture cap;
  trcdump(const_cast<void*>(data), len, "title %d", len);
  auto lines = Lines(cap.Take());
  EXPECT_GE(lines.size(), 1u);
  if (heading != nullptr) *heading = lines.empty() ? "" : lines[0];
  if (!lines.empty()) lines.erase(lines.begin());
  return lines;
}

TEST(Trcdump, HeadingIsSixtyEightCharactersThenAddressAndLength) {
  std::string heading;
  char byte = 0;
  EXPECT_TRUE(Dump(&byte, 0, &heading).empty());
  ASSERT_GT(heading.size(), 68u);
  EXPECT_TRUE(std::regex_match(heading.substr(0, 68),
                               std::regex(R"(\d{8}/\d{6}\.\d{3} U0009909 TRACE: \(title 0\) +)")))
      << heading;
  char expect_tail[64];
  snprintf(expect_tail, sizeof expect_tail, "%p %.5d", static_cast<void*>(&byte), 0);
  EXPECT_EQ(heading.substr(68), expect_tail);

  std::string long_title(100, 't');
  StdoutCapture cap;
  trcdump(&byte, -3, "%s", long_title.c_str());
  const std::string line = Lines(cap.Take())[0];
  snprintf(expect_tail, sizeof expect_tail, "%p %.4d", static_cast<void*>(&byte), -3);
  EXPECT_EQ(line.substr(68), expect_tail);
  EXPECT_EQ(line[67], 't');
}

TEST(Trcdump, ShortAndPartialLinesArePadded) {
  unsigned char data[40];
  for (int i = 0; i < 40; ++i)
    data[i] = static_cast<unsigned char>(0x18 + i);
  const auto lines = Dump(data, 40);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].substr(0, 29), std::string(20, ' ') + "00000000 ");
  EXPECT_EQ(lines[1].substr(20, 9), "00000010 ");
  EXPECT_EQ(lines[2].substr(20, 9), "00000020 ");
  EXPECT_EQ(lines[0].substr(29, 9), " 18191A1B");
  // The "  >" of the short last line stands where the full lines have it.
  EXPECT_EQ(lines[0].find("  >"), 65u);
  EXPECT_EQ(lines[2].find("  >"), 65u);
  EXPECT_EQ(lines[0].substr(68), "........ !\"#$%&'<");
  EXPECT_EQ(lines[2].substr(68), "89:;<=>?<");

  const unsigned char five[] = {'M', 'E', 'L', 'D', 0};
  const auto one = Dump(five, 5);
  ASSERT_EQ(one.size(), 1u);
  EXPECT_EQ(one[0], std::string(20, ' ') + "00000000  4D454C44 00" + std::string(61 - 41, ' ') +
                        "  >MELD.<");
}

TEST(Trcdump, RepeatedGroupsAreSkippedButTheLastIsShown) {
  unsigned char same[64];
  memset(same, 0x11, sizeof same);
  auto lines = Dump(same, 64);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].substr(20, 9), "00000000=");
  EXPECT_EQ(lines[1].substr(20, 9), "00000030 ");

  // Exactly two equal groups: nothing to skip, the last 16 bytes are shown.
  lines = Dump(same, 32);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0][28], ' ');

  // A repeated run that is followed by different bytes.
  unsigned char mixed[56];
  memset(mixed, 0x22, 48);
  memset(mixed + 48, 0x33, 8);
  lines = Dump(mixed, 56);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].substr(20, 9), "00000000=");
  EXPECT_EQ(lines[1].substr(20, 9), "00000030 ");
  EXPECT_EQ(lines[1].find("  >"), 65u);
}

TEST(TrcdumpLimited, WritesNothing) {
  char data[4] = "abc";
  StdoutCapture cap;
  trcdump_limited(data, 4, 2, "title");
  EXPECT_EQ(cap.Take(), "");
}

std::vector<std::pair<int, std::string>> logged;
int Recorder(int msgnr, const char* insert) {
  logged.emplace_back(msgnr, insert);
  return 0;
}

TEST(Log, FormatsAndHandsToTheCurrentLogger) {
  logged.clear();
  __log(1, "dropped");  // the starting logger drops every event
  EXPECT_TRUE(logged.empty());
  EXPECT_EQ(__log_set_logger(Recorder), 0);
  EXPECT_EQ(__log(3301, "%s/%s(%d)", "area", "file.cpp", 12), 0);
  __log(2, "%s", std::string(3000, 'z').c_str());
  __log_set_logger(nullptr);
  __log(4, "dropped again");
  ASSERT_EQ(logged.size(), 2u);
  EXPECT_EQ(logged[0], std::make_pair(3301, std::string("area/file.cpp(12)")));
  EXPECT_EQ(logged[1].second.size(), 2047u);
}

}  // namespace
