// Scrambled passwords end to end: qx_jpmd CMD=... runs its command with the scrambled values
// turned into clear text, and qx_scramble makes and checks such values for job authors.
#include <gtest/gtest.h>
#include <pty.h>

#include <algorithm>

#include "scramble/scramble.h"
#include "support/process.h"

namespace {

using qxtest::bin_path;
using qxtest::run_program;

const std::string kMessenger = bin_path("qx_jpmd"), kTool = bin_path("qx_scramble");

// The scrambled text of `value` with the "--10" header (or 0xAD 0xAD with `magic`).
std::string Scrambled(const std::string& value, bool magic = false) {
  char text[512];
  ZUSTRNG_EnMaxim2(text, value.c_str(), kCommandPasswordKey);
  return magic ? text : "--" + std::string(text + 2);
}
std::string Unscramble(const std::string& text, const char* key = kCommandPasswordKey) {
  char clear[512] = {};
  EXPECT_EQ(ZUSTRNG_DeMaxim2(clear, text.c_str(), key), 0) << text;
  return clear;
}
std::string Cased(std::string s, int (*to)(int)) {
  std::transform(s.begin(), s.end(), s.begin(), to);  // ASCII only
  return s;
}

TEST(CmdExec, PasswordsAreReplacedInPlace) {
  const std::string one = Scrambled("s3cr3t-one"), d16 = "0123456789ABCDEF", d10 = "abcdef1234";
  const std::string two = Scrambled("second password of 24 ch", /*magic=*/true);
  // 119 characters fill 15 blocks (240 digits), the longest value that can be replaced; 127
  // make 256 digits, and a run ends after 251 of them: no whole number of blocks, so the text
  // stays as written (digits upper-cased) and the rest follows unchanged.
  const std::string longest(119, 'L'), too_long = Cased(Scrambled(std::string(127, 'T')), tolower);
  const struct {
    std::string command, output;
    int status;
  } cases[] = {
      {"printf '[%s]' plain text", "[plain][text]", 0},
      {"printf '[%s]' " + one + " '" + two + "'", "[s3cr3t-one][second password of 24 ch]", 0},
      {"printf '[%s]' x" + one + "y", "[xs3cr3t-oney]", 0},
      {"printf '[%s]' " + Cased(one, tolower), "[s3cr3t-one]", 0},
      {"printf '[%s]' a--10 --10x --10", "[a][x]", 0},  // markers without digits go
      {"printf '[%s]' --10" + d10 + " --11" + d16,
       "[--10" + Cased(d10, toupper) + "][--11" + d16 + "]", 0},
      {"printf '[%s]' \xAD\xAD"
       "10",
       "[]", 0},
      {"printf '[%s]' " + Scrambled(longest), "[" + longest + "]", 0},
      {"printf '[%s]' " + too_long,
       "[" + Cased(too_long.substr(0, 255), toupper) + too_long.substr(255) + "]", 0},
      {"false", "", 1},
      {"exit 7", "", 1},
      {"", "", 0},
      {"kill -9 $$", "", 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command);
    const auto run = run_program(kMessenger, {"CMD=" + c.command});
    EXPECT_EQ(run.status, c.status);
    EXPECT_EQ(run.out, c.output);
    EXPECT_EQ(run.err, "");
  }
  // Arguments after CMD are not looked at, and no report is printed.
  EXPECT_EQ(run_program(kMessenger, {"TYP=S", "cmd=printf done", "TRC=1"}).out, "done");
}

// The trace shows the command as written; the clear text reaches only the command (which
// prints it rot13-encoded here).
TEST(CmdExec, TraceShowsOnlyTheScrambledCommand) {
  const std::string command = "printf %s " + Scrambled("Tr4ced-N0t") + " | tr a-zA-Z n-za-mN-ZA-M";
  const auto run = run_program(kMessenger, {"TRC=1", "CMD=" + command});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_NE(run.out.find("processCmd(cmd=" + command + ") -->"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("Ge4prq-A0g"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("processCmd <-- (result=0)"), std::string::npos) << run.out;
  EXPECT_EQ(run.out.find("Tr4ced-N0t"), std::string::npos) << run.out;
}

TEST(ScrambleTool, ScramblesStandardInputAndReadsItBack) {
  for (const std::string& value :
       std::vector<std::string>{"hunter2", "blank & $ign", "", std::string(119, 'z')}) {
    SCOPED_TRACE(value);
    const auto run = run_program(kTool, {}, 30, value + "\n");
    ASSERT_EQ(run.status, 0) << run.out;
    EXPECT_EQ(run.err, "");
    const std::string text = run.out.substr(0, run.out.size() - 1);
    EXPECT_EQ(text.substr(0, 4), "--10");
    EXPECT_EQ(Unscramble(text), value);
    const auto back = run_program(kTool, {"-d"}, 30, Cased(text, tolower) + "\n");
    EXPECT_EQ(back.status, 0);
    EXPECT_EQ(back.out, value + "\n");
  }
  const auto keyed = run_program(kTool, {"-k", "other", "-m"}, 30, "pw");  // no line end
  ASSERT_EQ(keyed.status, 0);
  EXPECT_EQ(keyed.out.substr(0, 4),
            "\xAD\xAD"
            "10");
  EXPECT_EQ(Unscramble(keyed.out.substr(0, keyed.out.size() - 1), "other"), "pw");
}

TEST(ScrambleTool, RefusalsGoToStandardOutput) {
  const struct {
    std::vector<std::string> args;
    std::string input;
    int status;
  } cases[] = {
      {{"secret-on-the-command-line"}, "", 2},
      {{"-x"}, "", 2},
      {{"-k"}, "", 2},
      {{"-k", "twelve-chars"}, "pw\n", 2},
      {{}, std::string(120, 'z') + "\n", 1},  // longer than the messenger reads
      {{}, "", 1},
      {{"-d"}, "PLAIN\n", 1},
      {{"-h"}, "", 0},
      {{"--help"}, "", 0},
      {{"--version"}, "", 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.empty() ? c.input : c.args[0]);
    const auto run = run_program(kTool, c.args, 30, c.input);
    EXPECT_EQ(run.status, c.status);
    EXPECT_EQ(run.err, "");
    EXPECT_NE(run.out.find("qx_scramble"), std::string::npos);
  }
}

TEST(ScrambleTool, TerminalPromptDoesNotEcho) {
  int master = -1;
  const pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    execl(kTool.c_str(), kTool.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  std::string seen;
  const auto read_some = [&] {
    pollfd p{master, POLLIN, 0};
    char buf[256];
    const ssize_t n = poll(&p, 1, 5000) > 0 ? read(master, buf, sizeof buf) : 0;
    if (n > 0) seen.append(buf, static_cast<size_t>(n));
    return n > 0;
  };
  while (seen.find("Value: ") == std::string::npos && read_some()) {
  }
  ASSERT_EQ(write(master, "tty-secret\n", 11), 11);
  while (read_some()) {
  }
  close(master);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(seen.find("tty-secret"), std::string::npos) << seen;
  const size_t start = seen.find("--10");
  ASSERT_NE(start, std::string::npos) << seen;
  EXPECT_EQ(Unscramble(seen.substr(start, seen.find_first_of("\r\n", start) - start)),
            "tty-secret");
}

}  // namespace
