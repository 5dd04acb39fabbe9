// qx_jpmd CMD=...: the command runs with its scrambled passwords turned into clear text.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cctype>
#include <fstream>
#include <sstream>
#include <string>

#include "scramble/scramble.h"
#include "support/process.h"

namespace {

using qxtest::bin_path;
using qxtest::run_program;

const std::string kMessenger = bin_path("qx_jpmd");

// The scrambled text of `value` with the "--10" header (or 0xAD 0xAD with `magic`).
std::string Scrambled(const std::string& value, bool magic = false) {
  char text[512];
  ZUSTRNG_EnMaxim2(text, value.c_str(), kCommandPasswordKey);
  std::string s = text;
  if (!magic) s.replace(0, 2, "--");
  return s;
}

std::string Cased(std::string s, int (*to)(int)) {
  for (char& c : s)
    c = static_cast<char>(to(static_cast<unsigned char>(c)));
  return s;
}

qxtest::RunResult RunCmd(const std::string& command) {
  return run_program(kMessenger, {"CMD=" + command});
}

TEST(CmdExec, PasswordsAreReplacedInPlace) {
  const std::string one = Scrambled("s3cr3t-one");
  const std::string two = Scrambled("second password of 24 ch", /*magic=*/true);
  const std::string d16 = "0123456789ABCDEF";
  const std::string d10 = "abcdef1234";
  struct Case {
    std::string command;
    std::string output;
  };
  const Case cases[] = {
      {"printf '[%s]' plain text", "[plain][text]"},
      {"printf '[%s]' " + one + " '" + two + "'", "[s3cr3t-one][second password of 24 ch]"},
      {"printf '[%s]' x" + one + "y", "[xs3cr3t-oney]"},
      {"printf '[%s]' " + Cased(one, tolower), "[s3cr3t-one]"},
      // A marker without digits is removed; one followed by no blank as well.
      {"printf '[%s]' a--10 --10x --10", "[a][x]"},
      // A run of digits of the wrong length stays, upper-cased; so does a wrong version.
      {"printf '[%s]' --10" + d10 + " --11" + d16,
       "[--10" + Cased(d10, toupper) + "][--11" + d16 + "]"},
      // A header without digits counts as an empty value even with the magic bytes.
      {"printf '[%s]' \xAD\xAD"
       "10",
       "[]"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    const auto run = RunCmd(c.command);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, c.output);
    EXPECT_EQ(run.err, "");
  }
}

TEST(CmdExec, DigitRunsEndAfter251Digits) {
  // 119 characters fill 15 blocks, 240 digits: the longest value that can be replaced.
  const std::string longest(119, 'L');
  auto run = RunCmd("printf '[%s]' " + Scrambled(longest));
  EXPECT_EQ(run.out, "[" + longest + "]");

  // 127 characters make 256 digits: the run ends after 251 of them, which is no whole number
  // of blocks, so the text stays as written (digits upper-case) and the rest follows as it is.
  const std::string too_long = Cased(Scrambled(std::string(127, 'T')), tolower);
  run = RunCmd("printf '[%s]' " + too_long);
  std::string expected = "[";
  expected.append(Cased(too_long.substr(0, 4 + 251), toupper))
      .append(too_long.substr(4 + 251))
      .append("]");
  EXPECT_EQ(run.out, expected);
}

TEST(CmdExec, ExitStatusFollowsTheCommand) {
  struct Case {
    const char* command;
    int status;
  };
  const Case cases[] = {{"true", 0}, {"false", 1}, {"exit 7", 1}, {"", 0}, {"kill -9 $$", 1}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    EXPECT_EQ(RunCmd(c.command).status, c.status);
  }
  // Arguments after CMD are not looked at, and no report is printed.
  const auto run = run_program(kMessenger, {"TYP=S", "cmd=printf done", "TRC=1"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "done");
}

TEST(CmdExec, TraceShowsOnlyTheScrambledCommand) {
  char dir[] = "/tmp/qx_cmd_XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string file = std::string(dir) + "/secret.txt", clear = "Tr4ced-N0t";
  const std::string command = "printf %s " + Scrambled(clear) + " > " + file;
  const auto run = run_program(kMessenger, {"TRC=1", "CMD=" + command});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_NE(run.out.find("processCmd(cmd=" + command + ") -->"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("processCmd <-- (result=0)"), std::string::npos) << run.out;
  EXPECT_EQ(run.out.find(clear), std::string::npos) << run.out;
  std::stringstream written;
  written << std::ifstream(file).rdbuf();
  EXPECT_EQ(written.str(), clear);
  unlink(file.c_str());
  rmdir(dir);
}

}  // namespace
