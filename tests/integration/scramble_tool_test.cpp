// qx_scramble as job authors use it: value on standard input or on a terminal, scrambled
// text on standard output, nothing on standard error.
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "scramble/scramble.h"
#include "support/process.h"

namespace {

using qxtest::bin_path;
using qxtest::run_program;

const std::string kTool = bin_path("qx_scramble");

std::string Unscramble(std::string text, const char* key) {
  char clear[512] = {};
  EXPECT_EQ(ZUSTRNG_DeMaxim2(clear, text.c_str(), key), 0) << text;
  return clear;
}

std::string Chomp(std::string s) {
  if (!s.empty() && s.back() == '\n') s.pop_back();
  return s;
}

TEST(ScrambleTool, ScramblesStandardInputForTheMessenger) {
  for (const std::string& value : {std::string("hunter2"), std::string("with blank & $ign"),
                                   std::string(""), std::string(119, 'z')}) {
    SCOPED_TRACE(value);
    const auto run = run_program(kTool, {}, 30, value + "\n");
    ASSERT_EQ(run.status, 0) << run.out;
    EXPECT_EQ(run.err, "");
    const std::string text = Chomp(run.out);
    EXPECT_EQ(text.substr(0, 4), "--10");
    EXPECT_EQ(Unscramble(text, kCommandPasswordKey), value);
    // -d reads it back, also with lower-case digits.
    std::string lower = text;
    for (char& c : lower)
      c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    const auto back = run_program(kTool, {"-d"}, 30, lower + "\n");
    EXPECT_EQ(back.status, 0);
    EXPECT_EQ(back.out, value + "\n");
  }
}

TEST(ScrambleTool, KeyAndHeaderOptions) {
  const auto run = run_program(kTool, {"-k", "other", "-m"}, 30, "pw");  // no newline at the end
  ASSERT_EQ(run.status, 0);
  const std::string text = Chomp(run.out);
  EXPECT_EQ(text.substr(0, 4),
            "\xAD\xAD"
            "10");
  EXPECT_EQ(Unscramble(text, "other"), "pw");
  EXPECT_NE(Unscramble(text, kCommandPasswordKey), "pw");
}

TEST(ScrambleTool, RefusalsGoToStandardOutput) {
  struct Case {
    std::vector<std::string> args;
    std::string input;
    int status;
  };
  const Case cases[] = {
      {{"secret-on-the-command-line"}, "", 2},
      {{"-x"}, "", 2},
      {{"-k"}, "", 2},
      {{"-k", "twelve-chars"}, "pw\n", 2},
      {{}, std::string(120, 'z') + "\n", 1},  // longer than the messenger reads
      {{}, "", 1},                            // no value at all
      {{"-d"}, "PLAIN\n", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args.empty() ? c.input : c.args[0]);
    const auto run = run_program(kTool, c.args, 30, c.input);
    EXPECT_EQ(run.status, c.status);
    EXPECT_EQ(run.err, "");
    EXPECT_NE(run.out.find("qx_scramble"), std::string::npos);
  }
  const auto help = run_program(kTool, {"-h"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("usage: qx_scramble"), std::string::npos);
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
  auto read_some = [&](int timeout_ms) {
    pollfd p{master, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0) return false;
    char buf[256];
    const ssize_t n = read(master, buf, sizeof buf);
    if (n <= 0) return false;
    seen.append(buf, static_cast<size_t>(n));
    return true;
  };
  while (seen.find("Value: ") == std::string::npos && read_some(5000)) {
  }
  ASSERT_NE(seen.find("Value: "), std::string::npos);
  ASSERT_EQ(write(master, "tty-secret\n", 11), 11);
  while (read_some(5000)) {
  }
  close(master);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(seen.find("tty-secret"), std::string::npos) << seen;
  const size_t start = seen.find("--10");
  ASSERT_NE(start, std::string::npos) << seen;
  const size_t end = seen.find_first_of("\r\n", start);
  EXPECT_EQ(Unscramble(seen.substr(start, end - start), kCommandPasswordKey), "tty-secret");
}

}  // namespace
