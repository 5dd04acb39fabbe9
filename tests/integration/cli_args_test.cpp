// The command line of the real program: the version answer, tracing, CMD, and arguments
// that are malformed, huge or hold 8-bit bytes. Standard error stays empty in every case.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "support/process.h"

namespace {

const char kVersionLine[] = "QX7 Agent \"%s\" version 12.2.0+build.2108, changelist '1530016094'\n";

qxtest::RunResult Jpmd(std::vector<std::string> args) {
  // These runs are about the command line: no connection attempts (no 120-second pauses).
  if (args.size() != 1 || args[0] != "-V") args.push_back("RETRY=0");
  auto run = qxtest::run_program(qxtest::bin_path("qx_jpmd"), args);
  EXPECT_EQ(run.err, "") << "standard error must stay empty";
  return run;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

std::string VersionLine(const char* name) {
  std::string line(strlen(kVersionLine) + strlen(name), '\0');
  line.resize(static_cast<size_t>(snprintf(line.data(), line.size(), kVersionLine, name)));
  return line;
}

TEST(Version, LoneDashVPrintsTheLineAndExitsZero) {
  const auto run = Jpmd({"-V"});
  EXPECT_EQ(run.out, VersionLine("qx_jpmd"));
  EXPECT_EQ(run.status, 0);
}

TEST(Version, ProgramNameComesFromArgvZero) {
  char dir[] = "/tmp/qx_cli_XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string link = std::string(dir) + "/my_messenger";
  ASSERT_EQ(symlink(qxtest::bin_path("qx_jpmd").c_str(), link.c_str()), 0);
  const auto run = qxtest::run_program(link, {"-V"});
  EXPECT_EQ(run.out, VersionLine("my_messenger"));
  EXPECT_EQ(run.status, 0);
  // A name longer than 255 characters is cut.
  const std::string long_link = std::string(dir) + "/" + std::string(255, 'n');
  ASSERT_EQ(symlink(qxtest::bin_path("qx_jpmd").c_str(), long_link.c_str()), 0);
  const auto long_run = qxtest::run_program(long_link, {"-V"});
  EXPECT_EQ(long_run.out, VersionLine(std::string(255, 'n').c_str()));
  unlink(link.c_str());
  unlink(long_link.c_str());
  rmdir(dir);
}

TEST(Version, DashVWithOtherArgumentsIsAnIgnoredKey) {
  const auto run = Jpmd({"-V", "TRC=1"});
  EXPECT_EQ(run.out.find("QX7 Agent"), std::string::npos);
  EXPECT_NE(run.out.find("RESTART AT"), std::string::npos);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(Jpmd({"-v"}).out.find("QX7 Agent"), std::string::npos);  // case-sensitive
}

TEST(Trace, EveryNonReportLineHasTheTraceShape) {
  const auto run = Jpmd({"JNR=9", "TRC=1", "TYP=S", "TXT=traced"});
  EXPECT_EQ(run.status, 0);
  const std::regex trace(R"(^[0-9A-F]{8,}         \d{8}/\d{6}\.\d{3} - (.*)$)");
  std::vector<std::string> texts;
  int report_lines = 0;
  for (const auto& line : Lines(run.out)) {
    std::smatch m;
    if (std::regex_match(line, m, trace)) {
      texts.push_back(m[1]);
    } else {
      EXPECT_EQ(line.substr(0, 2), "**") << line;
      ++report_lines;
    }
  }
  EXPECT_EQ(report_lines, 6);
  ASSERT_GE(texts.size(), 16u);
  // The arguments up to TRC are not traced; the summary follows the last argument (the
  // helper's RETRY=0).
  EXPECT_EQ(texts[0], "parse_arguments:      argument-03 : TYP=S");
  EXPECT_EQ(texts[1], "parse_arguments:      key(TYP) = value(S)");
  EXPECT_EQ(texts[3], "parse_arguments:      key(TXT) = value(traced)");
  EXPECT_EQ(texts[6], "parse_arguments:      TCP/IP address                 : ''");
  EXPECT_EQ(texts[8], "parse_arguments:      job number                     : '9'");
  EXPECT_EQ(texts[13], "parse_arguments <-- (OK)");
  EXPECT_EQ(texts[14], "printMelder() -->");
  EXPECT_EQ(texts[15], "printMelder <-- (OK)");
  EXPECT_EQ(texts.back(),
            "main:      Program QX7 Messenger Version \"12.2.0+build.2108\" ended normally");
}

TEST(Trace, WithoutTrcOnlyTheReport) {
  for (const char* trc : {"TRC=0", "TRC=", "XTRC=1"}) {
    const auto run = Jpmd({"TYP=S", trc});
    const auto lines = Lines(run.out);
    ASSERT_EQ(lines.size(), 6u) << trc;
    for (const auto& line : lines)
      EXPECT_EQ(line.substr(0, 2), "**");
  }
}

TEST(Cmd, RunsTheCommandWithoutReportAndExitsZeroOrOne) {
  auto run = Jpmd({"CMD=echo run; exit 0", "TYP=E", "RET=9"});
  EXPECT_EQ(run.out, "run\n");
  EXPECT_EQ(run.status, 0);
  run = Jpmd({"TYP=E", "RET=9", "CMD=exit 7"});
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.status, 1);
  run = Jpmd({"TRC=1", "cmd=true"});
  EXPECT_NE(run.out.find("processCmd(cmd=true) -->"), std::string::npos);
  EXPECT_NE(run.out.find("processCmd <-- (result=0)"), std::string::npos);
  EXPECT_EQ(run.status, 0);
}

TEST(BadInput, IsTakenCutOrIgnored) {
  // Each argument stays within the system's limit for one argument (128 KiB).
  const std::string huge(100000, 'h');
  std::string high;
  for (int b = 0x80; b <= 0xFF; ++b)
    high += static_cast<char>(b);
  const auto run =
      Jpmd({"UNKNOWN=1", "noequals", "JNR=", "=", "==", "TYP=S", "TXT=" + huge, "IPA=" + huge,
            std::string(50000, 'k') + "=" + std::string(49999, 'v'), "OUTFILE=" + high,
            "NAME=" + std::string(300, 'n'), high + "=" + high, "MNR=" + huge});
  EXPECT_EQ(run.status, 0);
  const auto lines = Lines(run.out);
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(lines[4], "**  TEXT=\"" + std::string(63, 'h') + "\"                           **");

  const auto traced = Jpmd({"TRC=1", "TXT=" + huge, "TYP=V", "NAME=" + std::string(300, 'n'),
                            "VALUE=" + high, "VTYPE=" + high});
  EXPECT_EQ(traced.status, 0);
  // The raw argument is traced cut to the trace line's limit.
  bool found_cut = false;
  for (const auto& line : Lines(traced.out)) {
    if (line.find("argument-02 : TXT=hhh") != std::string::npos) {
      found_cut = true;
      EXPECT_LT(line.size(), 2100u);
    }
  }
  EXPECT_TRUE(found_cut);
  EXPECT_NE(
      traced.out.find("Registered variable: '\x80' " + std::string(200, 'n') + "=" + high + "\n"),
      std::string::npos);
}

}  // namespace
