// The real program's command line and report: the version answer, the report of every event
// kind byte for byte, tracing, and arguments that are malformed, huge or hold 8-bit bytes.
// Standard error stays empty in every case.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>

#include "support/process.h"

namespace {

using qxtest::bin_path;

std::string VersionLine(const std::string& name) {
  return "QX7 Agent \"" + name + "\" version 12.2.0+build.2108, changelist '1530016094'\n";
}

// A run without connection attempts (no 120-second pauses).
qxtest::RunResult Jpmd(std::vector<std::string> args,
                       const std::string& program = bin_path("qx_jpmd")) {
  if (args != std::vector<std::string>{"-V"}) args.push_back("RETRY=0");
  auto run = qxtest::run_program(program, args);
  EXPECT_EQ(run.err, "");
  return run;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

TEST(Version, LoneDashVNamesTheProgramFromArgvZero) {
  char dir[] = "/tmp/qx_cli_XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  for (const std::string& name :
       {std::string("qx_jpmd"), std::string("my_messenger"), std::string(255, 'n')}) {
    const std::string link = std::string(dir) + "/" + name;
    ASSERT_EQ(symlink(bin_path("qx_jpmd").c_str(), link.c_str()), 0);
    const auto run = Jpmd({"-V"}, link);
    EXPECT_EQ(run.out, VersionLine(name));
    EXPECT_EQ(run.status, 0);
    unlink(link.c_str());
  }
  rmdir(dir);
  // With other arguments, or in lower case, -V is an ignored key.
  EXPECT_EQ(Jpmd({"-V", "TRC=1"}).out.find("QX7 Agent"), std::string::npos);
  EXPECT_EQ(Jpmd({"-v"}).out.find("QX7 Agent"), std::string::npos);
}

// Everything literal but {DT} (dd.mm.yyyy / hh:mm:ss) and {STAMP} (yyyymmdd/hhmmss.mmm).
std::string Pattern(const std::string& expected) {
  std::string p = std::regex_replace(expected, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
  for (const auto& [marker, by] :
       {std::pair<std::string, std::string>{R"(\{DT\})", R"(\d\d\.\d\d\.\d{4} / \d\d:\d\d:\d\d)"},
        {R"(\{STAMP\})", R"(\d{8}/\d{6}\.\d{3})"}})
    for (size_t at; (at = p.find(marker)) != std::string::npos;)
      p.replace(at, marker.size(), by);
  return p;
}

// The report of every event kind; the process ID in it is the parent's, this test's.
TEST(Report, EveryEventKindByteForByte) {
  char pid[16];
  snprintf(pid, sizeof pid, "%010i", static_cast<int>(getpid()));
  const std::string frame(72, '*'), job = std::string("(ProcID:") + pid + ") ";
  const auto framed = [&](const std::string& event, const std::string& detail) {
    return frame + "\n**  qx_jpmd    version 12.2.0+build.2108        changelist 1530016094 **\n" +
           event + "\n**                                   UTC TIME   {DT} **\n" + detail + "\n" +
           frame + "\n";
  };
  const auto text = [](const std::string& t, const std::string& tail) {
    return "**  TEXT=\"" + t + "\"" + tail + "**";
  };
  const std::string blank = text(std::string(32, ' '), std::string(27, ' '));
  const std::string restart = "**  JOB 00000000 " + job + "RESTART AT {DT} **";
  const struct {
    std::vector<std::string> args;
    std::string expected;
    int status;
  } cases[] = {
      {{"TYP=S", "JNR=42", "TXT=nightly backup", "IPA=agent", "PNR=4711"},
       framed("**  JOB 00000042 " + job + "START AT   {DT} **",
              text("nightly backup" + std::string(18, ' '), std::string(27, ' '))),
       0},
      {{"TYP=E", "RET=3", "JNR=7"},
       framed("**  JOB 00000007 " + job + "ENDED AT   {DT} **",
              text(std::string(32, ' '), "  RETCODE=03               ")),
       3},
      // The shell sees the low eight bits of the job's return code.
      {{"TYP=E", "RET=300", "JNR=7"},
       framed("**  JOB 00000007 " + job + "ENDED AT   {DT} **",
              text(std::string(32, ' '), "  RETCODE=300               ")),
       44},
      {{"JNR=1"}, framed("**  JOB 00000001 " + job + "RESTART AT {DT} **", blank), 0},
      {{"TYP=e", "RET=5"}, framed(restart, blank), 0},
      {{"TYP="}, framed(restart, blank), 0},
      {{"TYP=\xe4"}, framed(restart, blank), 0},
      {{"TYP=S", "RET=300", "TXT=" + std::string(70, 'x')},
       framed("**  JOB 00000000 " + job + "START AT   {DT} **",
              text(std::string(63, 'x'), std::string(27, ' '))),
       0},
      {{"TYP=O", "OUTFILE=/var/log/job.out", "ULOGIN=Y"},
       "{STAMP} QX7 messenger 'qx_jpmd', login check 'Y', registered output file "
       "'/var/log/job.out'\n\n",
       0},
      {{"TYP=O", "ULOGIN=Y"}, "", 0},
      {{"TYP=V", "NAME=A", "VTYPE=C"}, "Registered variable: 'C' A=NULL\n", 0},
      {{"TYP=V", "VALUE=42", "VTYPE=N"}, "Registered variable: 'N' NULL=42\n", 0},
      {{"TYP=V", "NAME=X", "VALUE=1"}, "Registered variable: '' X=1\n", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0]);
    const auto run = Jpmd(c.args);
    EXPECT_EQ(run.status, c.status);
    EXPECT_TRUE(std::regex_match(run.out, std::regex(Pattern(c.expected)))) << run.out;
  }
  // Snooze and wake-up show the retry count; they look once for the agent's answer.
  const struct {
    std::vector<std::string> args;
    std::string expected;
  } notices[] = {
      {{"TYP=0", "IPA=10.1.2.3", "PNR=5000", "WAIT=5"},
       framed("**  SNOOZE-Message, TCP/IP = '10.1.2.3       ' PNR=5000             **",
              "**  parameters           : RETRY=03, WAIT=120                        **")},
      {{"TYP=1", "IPA=agent.example.com.long", "PNR=1", "RETRY=1"},
       framed("**  WAKEUP-Message, TCP/IP = 'agent.example.com.long' PNR=1             **",
              "**  parameters           : RETRY=01, WAIT=120                        **")},
  };
  for (auto c : notices) {
    c.args.push_back("TIMEOUT=NONE");
    const auto run = qxtest::run_program(bin_path("qx_jpmd"), c.args);
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(std::regex_match(run.out, std::regex(Pattern(c.expected)))) << run.out;
  }
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
  // Arguments before TRC are not traced; the summary follows the last one (RETRY=0).
  const std::pair<size_t, std::string> expected[] = {
      {0, "parse_arguments:      argument-03 : TYP=S"},
      {1, "parse_arguments:      key(TYP) = value(S)"},
      {3, "parse_arguments:      key(TXT) = value(traced)"},
      {6, "parse_arguments:      TCP/IP address                 : ''"},
      {8, "parse_arguments:      job number                     : '9'"},
      {13, "parse_arguments <-- (OK)"},
      {14, "printMelder() -->"},
      {texts.size() - 1,
       "main:      Program QX7 Messenger Version \"12.2.0+build.2108\" ended normally"}};
  for (const auto& [at, text] : expected)
    EXPECT_EQ(texts[at], text);
  for (const char* trc : {"TRC=0", "TRC=", "XTRC=1"}) {  // without tracing only the report
    const auto lines = Lines(Jpmd({"TYP=S", trc}).out);
    ASSERT_EQ(lines.size(), 6u) << trc;
    for (const auto& line : lines)
      EXPECT_EQ(line.substr(0, 2), "**");
  }
}

TEST(BadInput, IsTakenCutOrIgnored) {
  const std::string huge(100000, 'h');  // within the system's 128 KiB for one argument
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
  bool found_cut = false;  // the raw argument is traced cut to the trace line's limit
  for (const auto& line : Lines(traced.out)) {
    if (line.find("argument-02 : TXT=hhh") == std::string::npos) continue;
    found_cut = true;
    EXPECT_LT(line.size(), 2100u);
  }
  EXPECT_TRUE(found_cut);
  EXPECT_NE(
      traced.out.find("Registered variable: '\x80' " + std::string(200, 'n') + "=" + high + "\n"),
      std::string::npos);
}

}  // namespace
