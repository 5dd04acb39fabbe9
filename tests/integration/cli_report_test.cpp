// The report of every event kind, run through the real program: byte for byte, with only the
// date, the time and the time stamp matched as patterns. The process ID in the report is the
// parent's, which is this test process.
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include "support/process.h"

namespace {

const std::string kFrame(72, '*');

// Turns an expected text into a regular expression: everything literal except the markers
// {DT} (dd.mm.yyyy / hh:mm:ss) and {STAMP} (yyyymmdd/hhmmss.mmm).
std::string Pattern(const std::string& expected) {
  static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
  std::string escaped = std::regex_replace(expected, special, R"(\$&)");
  auto replace = [&escaped](const std::string& marker, const std::string& by) {
    for (size_t at; (at = escaped.find(marker)) != std::string::npos;)
      escaped.replace(at, marker.size(), by);
  };
  replace(R"(\{DT\})", R"(\d\d\.\d\d\.\d{4} / \d\d:\d\d:\d\d)");
  replace(R"(\{STAMP\})", R"(\d{8}/\d{6}\.\d{3})");
  return escaped;
}

std::string Pid() {
  char text[16];
  snprintf(text, sizeof text, "%010i", static_cast<int>(getpid()));
  return text;
}

std::string Framed(const std::string& event, const std::string& detail) {
  return kFrame + "\n" +
         "**  qx_jpmd    version 12.2.0+build.2108        changelist 1530016094 **\n" + event +
         "\n" + "**                                   UTC TIME   {DT} **\n" + detail + "\n" +
         kFrame + "\n";
}

struct ReportCase {
  const char* name;
  std::vector<std::string> args;
  std::string expected;  // with markers
  int exit_status;
};

std::vector<ReportCase> Cases() {
  const std::string pid = Pid();
  const std::string text_line =
      "**  TEXT=\"                                \"" + std::string(27, ' ') + "**";
  return {
      {"Start",
       {"TYP=S", "JNR=42", "TXT=nightly backup", "IPA=agent", "PNR=4711"},
       Framed("**  JOB 00000042 (ProcID:" + pid + ") START AT   {DT} **",
              "**  TEXT=\"nightly backup                  \"                           **"),
       0},
      {"EndedWithRetcode",
       {"TYP=E", "RET=3", "JNR=7"},
       Framed("**  JOB 00000007 (ProcID:" + pid + ") ENDED AT   {DT} **",
              "**  TEXT=\"                                \"  RETCODE=03               **"),
       3},
      {"RestartByDefault",
       {"JNR=1"},
       Framed("**  JOB 00000001 (ProcID:" + pid + ") RESTART AT {DT} **", text_line),
       0},
      {"LowerCaseTypesAreRestarts",
       {"TYP=e", "RET=5"},
       Framed("**  JOB 00000000 (ProcID:" + pid + ") RESTART AT {DT} **", text_line),
       0},
      {"EmptyTypeIsARestart",
       {"TYP="},
       Framed("**  JOB 00000000 (ProcID:" + pid + ") RESTART AT {DT} **", text_line),
       0},
      {"HighByteTypeIsARestart",
       {"TYP=\xe4"},
       Framed("**  JOB 00000000 (ProcID:" + pid + ") RESTART AT {DT} **", text_line),
       0},
      {"Snooze",
       {"TYP=0", "IPA=10.1.2.3", "PNR=5000", "WAIT=5"},
       Framed("**  SNOOZE-Message, TCP/IP = '10.1.2.3       ' PNR=5000             **",
              "**  parameters           : RETRY=03, WAIT=120                        **"),
       0},
      {"Wakeup",
       {"TYP=1", "IPA=agent.example.com.long", "PNR=1", "RETRY=1"},
       Framed("**  WAKEUP-Message, TCP/IP = 'agent.example.com.long' PNR=1             **",
              "**  parameters           : RETRY=01, WAIT=120                        **"),
       0},
      {"LongTextWidensTheLine",
       {"TYP=S", "TXT=" + std::string(70, 'x')},
       Framed("**  JOB 00000000 (ProcID:" + pid + ") START AT   {DT} **",
              "**  TEXT=\"" + std::string(63, 'x') + "\"                           **"),
       0},
      {"OutputView",
       {"TYP=O", "OUTFILE=/var/log/job.out", "ULOGIN=Y"},
       "{STAMP} QX7 messenger 'qx_jpmd', login check 'Y', registered output file "
       "'/var/log/job.out'\n\n",
       0},
      {"OutputViewWithoutFile", {"TYP=O", "ULOGIN=Y"}, "", 0},
      {"VariableWithoutValue",
       {"TYP=V", "NAME=A", "VTYPE=C"},
       "Registered variable: 'C' A=NULL\n",
       0},
      {"VariableWithoutName",
       {"TYP=V", "VALUE=42", "VTYPE=N"},
       "Registered variable: 'N' NULL=42\n",
       0},
      {"VariableWithoutType", {"TYP=V", "NAME=X", "VALUE=1"}, "Registered variable: '' X=1\n", 0},
  };
}

class Report : public testing::TestWithParam<ReportCase> {};

TEST_P(Report, ByteForByte) {
  const ReportCase& c = GetParam();
  // The report comes before any connection attempt. Runs whose report shows the retry
  // count only look once for the agent's answer; the others make no attempt at all.
  std::vector<std::string> args = c.args;
  args.push_back(args[0] == "TYP=0" || args[0] == "TYP=1" ? "TIMEOUT=NONE" : "RETRY=0");
  const auto run = qxtest::run_program(qxtest::bin_path("qx_jpmd"), args);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.status, c.exit_status);
  EXPECT_TRUE(std::regex_match(run.out, std::regex(Pattern(c.expected)))) << run.out;
}

INSTANTIATE_TEST_SUITE_P(EventKinds, Report, testing::ValuesIn(Cases()),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ExitStatus, EndEventKeepsTheLowEightBits) {
  const auto run =
      qxtest::run_program(qxtest::bin_path("qx_jpmd"), {"TYP=E", "RET=300", "RETRY=0"});
  EXPECT_EQ(run.status, 44);
  const auto start =
      qxtest::run_program(qxtest::bin_path("qx_jpmd"), {"TYP=S", "RET=300", "RETRY=0"});
  EXPECT_EQ(start.status, 0);
}

}  // namespace
