// The real program's command line: version, usage, and every event kind's report byte for byte.
#include <gtest/gtest.h>

#include <regex>

#include "messenger/usage.h"
#include "support/process.h"

namespace {
using qxtest::bin_path;

// A lone -V names argv[0]; none, "--help" or "-h" alone print the usage; all else is a run.
TEST(CommandLine, VersionUsageOrARun) {
  const std::string n255(255, 'n'), v = "\" version 12.2.0+build.2108, changelist '1530016094'\n";
  // Arguments; status (-1: runs on after 1 s); whole output or (no line end) part; argv[0] name.
  const std::tuple<std::vector<std::string>, int, std::string, std::string> cases[] = {
      {{"-V"}, 0, "QX7 Agent \"my_messenger" + v, "my_messenger"},
      {{"-V"}, 0, "QX7 Agent \"" + n255 + v, n255},
      {{}, 2, kUsageText, "qx_jpmd"},
      {{"--help"}, 0, kUsageText, "qx_jpmd"},
      {{"-h"}, 0, kUsageText, "qx_jpmd"},
      {{"foo"}, -1, "RESTART AT", "qx_jpmd"},
      {{"--help", "RETRY=0"}, 0, "RESTART AT", "qx_jpmd"},
      {{"-h", "TYP=E", "RET=7", "RETRY=0"}, 7, "ENDED AT", "qx_jpmd"},
      {{"-V", "TRC=1", "RETRY=0"}, 0, "RESTART AT", "qx_jpmd"},
      {{"-v", "RETRY=0"}, 0, "RESTART AT", "qx_jpmd"}};
  for (const auto& [argv, status, out, name] : cases) {
    SCOPED_TRACE(out.substr(0, 20) + " " + std::to_string(argv.size()));
    std::vector<std::string> args = {"-c", "exec -a \"$0\" " + bin_path("qx_jpmd") + " \"$@\"",
                                     "/opt/qx/" + name};
    args.insert(args.end(), argv.begin(), argv.end());
    const auto run = qxtest::run_program("/bin/bash", args, status < 0 ? 1 : 5);
    const auto has = [&](const std::string& p) { return run.out.find(p) != std::string::npos; };
    EXPECT_TRUE(run.err.empty() && run.status == status &&
                (out.back() == '\n' ? run.out == out && run.secs < 2.0
                                    : has(out) && !has("usage:") && !has("QX7 Agent")))
        << run.status << " " << run.secs << " " << run.out;
  }
}

// The report of every event kind; the process ID in it is the parent's, this test's.
TEST(Report, EveryEventKindByteForByte) {
  std::string huge(100000, 'h'), high;  // within 128 KiB per argument
  for (int b = 0x80; b <= 0xFF; ++b)
    high += static_cast<char>(b);
  // {DT} masks dd.mm.yyyy / hh:mm:ss and {STAMP} yyyymmdd/hhmmss.mmm in the output.
  const std::regex dt(R"(\d\d\.\d\d\.\d{4} / \d\d:\d\d:\d\d)"), stamp(R"(\d{8}/\d{6}\.\d{3})");
  const std::string pid = std::to_string(10000000000LL + getpid()).substr(1);  // ten digits
  const auto framed = [](const std::string& event, const std::string& detail) {
    const std::string line(72, '*');
    return line + "\n**  qx_jpmd    version 12.2.0+build.2108        changelist 1530016094 **\n" +
           event + "\n**                                   UTC TIME   {DT} **\n" + detail + "\n" +
           line + "\n";
  };
  const auto job = [&](const std::string& jnr, const std::string& verb, const std::string& text,
                       const std::string& tail = std::string(27, ' ')) {
    return framed("**  JOB " + jnr + " (ProcID:" + pid + ") " + verb + " {DT} **",
                  "**  TEXT=\"" + text + std::string(32 - std::min<size_t>(text.size(), 32), ' ') +
                      "\"" + tail + "**");
  };
  const struct {
    std::vector<std::string> args;
    std::string expected;
    int status = 0;
  } cases[] = {
      {{"TYP=S", "JNR=42", "TXT=nightly backup", "IPA=agent", "PNR=4711"},
       job("00000042", "START AT  ", "nightly backup")},
      {{"TYP=E", "RET=3", "JNR=7"},
       job("00000007", "ENDED AT  ", "", "  RETCODE=03" + std::string(15, ' ')),
       3},
      // The shell sees the low eight bits of the job's return code.
      {{"TYP=E", "RET=300", "JNR=7"},
       job("00000007", "ENDED AT  ", "", "  RETCODE=300" + std::string(15, ' ')),
       44},
      {{"JNR=1"}, job("00000001", "RESTART AT", "")},
      {{"TYP=S", "TRC=0", "TRC=", "XTRC=1"}, job("00000000", "START AT  ", "")},  // no trace
      // Unknown, malformed, huge and 8-bit arguments are taken, cut or ignored.
      {{"UNKNOWN=1", "noequals", "JNR=", "=", "==", "TYP=S", "TXT=" + huge, "IPA=" + huge,
        std::string(50000, 'k') + "=" + std::string(49999, 'v'), "OUTFILE=" + high,
        "NAME=" + std::string(300, 'n'), high + "=" + high, "MNR=" + huge},
       job("00000000", "START AT  ", huge.substr(0, 63))},
      {{"TYP=e", "RET=5"}, job("00000000", "RESTART AT", "")},
      {{"TYP=O", "OUTFILE=/var/log/job.out", "ULOGIN=Y"},
       "{STAMP} QX7 messenger 'qx_jpmd', login check 'Y', registered output file "
       "'/var/log/job.out'\n\n"},
      {{"TYP=O", "ULOGIN=Y"}, ""},
      {{"TYP=V", "NAME=A", "VTYPE=C"}, "Registered variable: 'C' A=NULL\n"},
      {{"TYP=V", "VALUE=42", "VTYPE=N"}, "Registered variable: 'N' NULL=42\n"},
      {{"TYP=V", "NAME=X", "VALUE=1"}, "Registered variable: '' X=1\n"},
      {{"TYP=V", "NAME=" + std::string(300, 'n'), "VALUE=" + high, "VTYPE=" + high},
       "Registered variable: '\x80' " + std::string(200, 'n') + "=" + high + "\n"},
      // Snooze and wake-up show the retry count; they look once for the agent's answer.
      {{"TYP=0", "IPA=10.1.2.3", "PNR=5000", "WAIT=5", "TIMEOUT=NONE"},
       framed("**  SNOOZE-Message, TCP/IP = '10.1.2.3       ' PNR=5000             **",
              "**  parameters           : RETRY=03, WAIT=120                        **")},
      {{"TYP=1", "IPA=agent.example.com.long", "PNR=1", "RETRY=1", "TIMEOUT=NONE"},
       framed("**  WAKEUP-Message, TCP/IP = 'agent.example.com.long' PNR=1             **",
              "**  parameters           : RETRY=01, WAIT=120                        **")}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0]);
    std::vector<std::string> args = c.args;  // no pauses between attempts unless none is made
    if (args.back() != "TIMEOUT=NONE") args.push_back("RETRY=0");
    const auto run = qxtest::run_program(bin_path("qx_jpmd"), args, 5);
    const std::string masked =
        std::regex_replace(std::regex_replace(run.out, dt, "{DT}"), stamp, "{STAMP}");
    EXPECT_EQ(std::make_tuple(run.err, run.status, masked),
              std::make_tuple(std::string(), c.status, c.expected));
    if (HasFailure()) break;
  }
}
}  // namespace
