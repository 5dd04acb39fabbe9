// CMD=... runs its command with scrambled passwords turned into clear text; qx_scramble.
#include <gtest/gtest.h>

#include <algorithm>

#include "messenger/command_exec.h"
#include "scramble/scramble.h"
#include "support/process.h"

namespace {
using namespace qxtest;
using namespace std::string_literals;

const std::string kMessenger = bin_path("qx_jpmd"), kTool = bin_path("qx_scramble");

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

const std::string kRefused =
    "qx_jpmd: a scrambled password in CMD cannot be quoted where it "
    "stands; the command was not run\n";

TEST(CmdExec, PasswordsAreReplacedInPlace) {
  const std::string one = Scrambled("s3cr3t-one"), d16 = "0123456789ABCDEF", d10 = "abcdef1234";
  const std::string two = Scrambled("second password of 24 ch", /*magic=*/true);
  // 119 characters: 240 digits, the longest value; a run of digits ends after 251 of them.
  const std::string longest(119, 'L'), a252(252, 'a');
  const std::tuple<std::string, std::string, int> cases[] = {
      {"printf '[%s]' plain text", "[plain][text]", 0},
      {"printf '[%s]' " + one + " '" + two + "'", "[s3cr3t-one][second password of 24 ch]", 0},
      {"printf '[%s]' x" + one + "y", "[xs3cr3t-oney]", 0},
      {"printf '[%s]' " + Cased(one, tolower), "[s3cr3t-one]", 0},
      {"printf '[%s]' a--10 --10x --10", "[a][x]", 0},  // markers without digits go
      {"printf '[%s]' --10" + d10 + " --11" + d16,
       "[--10" + Cased(d10, toupper) + "][--11" + d16 + "]", 0},
      {"printf '[%s]' \xAD\xAD\x31\x30", "[]", 0},  // the magic header, then "10"
      {"printf '[%s]' " + Scrambled(longest), "[" + longest + "]", 0},
      {"printf '[%s]' --10" + a252, "[--10" + Cased(a252.substr(1), toupper) + "a]", 0},
      // Where a clear text needs quoting but cannot be carried, nothing runs.
      {"printf '[%s]' ${x:-" + Scrambled("a b") + "}", kRefused, 1},
      {"printf '[%s]' `echo " + Scrambled("a'b") + "`", kRefused, 1},
      {"cat <<E\n" + Scrambled("x\nE\ny") + "\nE\n", kRefused, 1},
      {"cat <<-E\nx" + Scrambled("\n\ty") + "\nE\n", kRefused, 1},
      {"cat <<" + Scrambled("ab") + "\nx\n-10\n", kRefused, 1},  // the operator <<- cuts it
      // Where shells differ, the place is no longer trusted: no quoting from there on.
      {"printf '[%s]' \"$(case x in x) echo " + Scrambled("a b") + ";; esac)\"", kRefused, 1},
      {"printf '[%s]' \"${x:-'}\"'}\" " + Scrambled("a b"), kRefused, 1},
      {"printf '[%s]' \"$\\\n(echo \"" + Scrambled("a\"b") + "\")\"", kRefused, 1},
      {"cat <<E\nx\\\nE\n" + Scrambled("a;b") + "\nE\n", kRefused, 1},
      {"printf '[%s]' \\\n " + Scrambled("a b") + " \\\n" + Scrambled("c d"), "[a b][c d]", 0},
      {"printf '[%s]' ${x:-" + one + "}", "[s3cr3t-one]", 0},  // no quoting needed there
      {"printf '[%s]' \"$(echo x) " + Scrambled("a$b") + "\"", "[x a$b]", 0},  // "..." again
      {"cat <<\\E\n" + Scrambled("a$b") + "\nE\n", "a$b\n", 0},                // a quoted body
      {"printf '[%s]' $'x' " + Scrambled("AZaz09_./:@+,-"), "[$x][AZaz09_./:@+,-]", 0},
      {"cat <<E\nx\n" + Scrambled("a$b") + "\nE\n", "x\na$b\n", 0},  // on a later body line
      {"false", "", 1},
      {"exit 7", "", 1},
      {"", "", 0},
      {"kill -9 $$", "", 1},
      {"kill -INT $$; printf alive", "", 1},
      {"kill -USR1 $PPID; sleep 0.2; printf done", "done", 0}};  // the wait goes on after SIGUSR1
  for (const auto& [command, output, status] : cases) {
    SCOPED_TRACE(command);
    const auto run = run_program(kMessenger, {"CMD=" + command});
    EXPECT_EQ(std::tie(run.status, run.out, run.err), std::make_tuple(status, output, ""s));
  }
  // Arguments after CMD are not looked at, and no report is printed.
  EXPECT_EQ(run_program(kMessenger, {"TYP=S", "cmd=printf done", "TRC=1"}).out, "done");
}

// The exact text for the shell (null: refused); an area too small at any step refused, wiped.
TEST(ExpandCmd, ExactTextAndEveryAreaTooSmall) {
  const std::pair<std::string, const char*> cases[] = {
      {"x\\", "x\\"},
      {"cat <<", "cat <<"},
      {"cat <<-E", "cat <<-E"},
      {"cat <<-", "cat <<-"},
      {"cat << ", "cat << "},
      {"cat << \\E", "cat << \\E"},
      {"cat <<\"E\\$\"", "cat <<\"E\\$\""},
      {"x\n", "x\n"},
      {"$((1))$(x)${x}<<<x", "$((1))$(x)${x}<<<x"},
      {"x --10abc", "x --10ABC"},
      {"x " + Scrambled("a b") + " " + Scrambled("A"), "x 'a b' A"},
      {"\"$(x) " + Scrambled("a$b") + "\"", "\"$(x) \"'a$b'\"\""},
      {"cat <<\\E\n" + Scrambled("a$b"), "cat <<\\E\na$b"},
      {"cat <<E\nx\n" + Scrambled("a$b"), "cat <<E\nx\na\\$b"},
      {"\"" + Scrambled("a$b"), "\"\"'a$b'\""},
      {"'" + Scrambled("a'b"), "'a'\\''b"},
      {"\\" + Scrambled("a b"), "\\a' b'"},
      {"\"x\\" + Scrambled("a$b"), "\"x\\\\\"'a$b'\""},
      {"cat <<E\nx\\" + Scrambled("a$b"), "cat <<E\nx\\\\a\\$b"},
      {"cat <<E\nE\n" + Scrambled("a b") + " <<E\nx\nE", "cat <<E\nE\n'a b' <<E\nx\nE"},
      {"${x:-y}`y " + Scrambled("ab") + "` " + Scrambled("a b"), "${x:-y}`y ab` 'a b'"},
      {"cat <<E\nE\n${x:-'y'} " + Scrambled("a b"), "cat <<E\nE\n${x:-'y'} 'a b'"},
      {"\"$(case=1 " + Scrambled("a$b") + ")\"", "\"$(case=1 'a$b')\""},  // not the word case
      {"\"${x:-y} " + Scrambled("a$b") + "\"", "\"${x:-y} \"'a$b'\"\""},
      {"$((1+" + Scrambled("12") + "))", "$((1+12))"},
      {"\"$(f (xy) " + Scrambled("a$b") + ")\"", "\"$(f (xy) 'a$b')\""},
      {"cat <<'E'\n" + Scrambled("a$b"), "cat <<'E'\na$b"},
      {"cat <<E=\n\tE=\nE\n" + Scrambled("a$b"), "cat <<E=\n\tE=\nE\na\\$b"},  // no line ends it
      {"cat <<\"E\\x\"\nEx\n" + Scrambled("a$b"), "cat <<\"E\\x\"\nEx\na$b"},
      {"# " + Scrambled("a b"), "# a b"},
      {"a=#" + Scrambled("a b"), "a=#'a b'"},      // inside a word # starts no comment
      {"x )) " + Scrambled("a b"), "x )) 'a b'"},  // unbalanced: closes nothing
      {"cat <<E \\\n" + Scrambled("a b") + "\nE", "cat <<E \\\n'a b'\nE"},  // a joined line
      {"x\\\n " + Scrambled("a b"), "x\\\n 'a b'"},  // a blank after the joined line
      {"\"$(echo {) " + Scrambled("a$b") + "\"", "\"$(echo {) \"'a$b'\"\""},
      {"$" + Scrambled("a b"), nullptr},
      {"cat <<E\n$(x <<F)\n" + Scrambled("a$b"), nullptr},  // a here-document inside a body
      {"$'x' " + Scrambled("a$b"), nullptr},
      {"cat <<-E\nx\n" + Scrambled("\ty"), nullptr},
      {"\\" + Scrambled("\ny"), nullptr},
      {"cat <<" + Scrambled("ab"), nullptr},
      {"cat <<\\" + Scrambled("ab"), nullptr},
      {"${x:-){}" + Scrambled("a b") + "}", nullptr},  // the ) closes nothing: still inside
      {"cat <<-E\n\t" + Scrambled("\ty"), nullptr},
      {"cat <<E\n" + Scrambled("E"), nullptr},  // a last line that is the delimiter
      {"cat << " + Scrambled("ab"), nullptr},
  };
  for (const auto& [command, wanted] : cases) {
    SCOPED_TRACE(command);
    std::vector<char> area(ExpandedCmdSize(command.size()), 'x');
    size_t len = 0;
    if (wanted == nullptr) {
      EXPECT_EQ(expandCmd(command, area.data(), area.size(), &len), -1);
      EXPECT_EQ(std::string(area.data(), area.size()), std::string(area.size(), '\0'));
      continue;
    }
    const std::string want = wanted;
    ASSERT_EQ(expandCmd(command, area.data(), want.size() + 1, &len), 0);
    EXPECT_EQ(std::string(area.data(), len + 1), want + '\0');
    for (size_t size = 0; size <= want.size(); ++size) {
      std::vector<char> small(size, 'x');
      EXPECT_EQ(expandCmd(command, small.data(), size, &len), -1) << size;
      EXPECT_EQ(std::string(small.begin(), small.end()), std::string(size, '\0')) << size;
    }
  }
}

// Shell-special characters, a run of 119, every byte: one argument wherever the marker stands.
TEST(CmdExec, ClearTextIsOneLiteralPieceOfItsWord) {
  const std::string specials = " \t\n;&|<>()$`\"'\\*?[]#~=%";
  std::vector<std::string> values = {"Pa$$w0rd;id"};
  for (char c : specials)
    values.push_back(std::string(1, c) + "pw" + c);  // at the start, inside and at the end
  std::string run, printable, control, high1, high2;
  for (size_t i = 0; i < 119; ++i)
    run += specials[i % specials.size()];
  for (int b = 1; b < 256; ++b)
    (b < 0x20 || b == 0x7F ? control : b < 0x7F ? printable : b < 0xC0 ? high1 : high2) += char(b);
  values.insert(values.end(), {run, printable, control, high1, high2});
  const std::string print = "printf '%s\\0'";  // each argument, NUL-terminated
  // Where; the command before and after the marker; the output before and after the value.
  const std::tuple<const char*, std::string, std::string, std::string, std::string> contexts[] = {
      {"unquoted word", print + " ", "", "", ""},
      {"unquoted in a word", print + " x", "y", "x", "y"},
      {"double quotes", print + " \"x", "y\"", "x", "y"},
      {"single quotes", print + " 'x", "y'", "x", "y"},
      {"here-document, quoted delimiter", print + " \"$(cat <<'EOF'\nx", "y\nEOF\n)\"", "x", "y"},
      {"here-document", print + " \"$(cat <<EOF\nx", "y\nEOF\n)\"", "x", "y"},
      {"here-document <<-", print + " \"$(cat <<-EOF\n\tx", "y\n\tEOF\n)\"", "x", "y"}};
  for (const auto& [where, before, after, prefix, suffix] : contexts)
    for (const std::string& value : values) {
      SCOPED_TRACE(std::string(where) + ": " + value);
      const auto run = run_program(kMessenger, {"CMD=" + before + Scrambled(value) + after});
      EXPECT_EQ(std::tie(run.status, run.out, run.err),
                std::make_tuple(0, prefix + value + suffix + '\0', ""s));
    }
}

// No clear text in the shell's arguments, environment or trace; its stdin the messenger's; SIGPIPE.
TEST(CmdExec, ShellShowsNoClearText) {
  const std::string clear = "Kl4r-" + std::to_string(getpid());
  const std::string command =
      "read x; echo \"[$x]\"; for f in cmdline environ; do tr '\\0' ' ' </proc/$$/$f; echo; done; "
      "ls -l /proc/self/fd; grep SigIgn /proc/$$/status; : " +
      Scrambled(clear);
  const sighandler_t saved = signal(SIGPIPE, SIG_IGN);
  const auto run = run_program(kMessenger, {"TRC=1", "CMD=" + command}, 30, "from the messenger\n");
  signal(SIGPIPE, saved);
  const auto has = [&](const std::string& p) { return run.out.find(p) != std::string::npos; };
  const size_t sig_ign = run.out.find("SigIgn:");  // the mask of ignored signals follows
  EXPECT_TRUE(
      run.status == 0 && has("[from the messenger]\nsh /proc/") && !has(clear) &&
      has("processCmd(cmd=" + command + ") -->") && !has("memfd") && sig_ign != std::string::npos &&
      (std::stoull(run.out.substr(sig_ign + 7), nullptr, 16) & (1ULL << (SIGPIPE - 1))) == 0)
      << run.out;
}

// Without /proc or room for a script file the command line carries it; stdin is never the script.
TEST(CmdExec, WithoutAScriptFileTheCommandLineCarriesIt) {
  if (kSanitizerBuild) GTEST_SKIP() << "sanitizer run times need /proc and room to write";
  // Launcher, command, input, output (empty: no output can be written).
  const std::tuple<std::vector<std::string>, std::string, std::string, std::string> cases[] = {
      {{"/usr/bin/unshare", "-rm", "sh", "-c", "mount -t tmpfs none /proc && exec \"$0\" \"$@\""},
       "printf '%s\\0' " + Scrambled("a b;c"),
       "",
       "a b;c"s + '\0'},
      {{"/bin/sh", "-c", "trap '' XFSZ; ulimit -f 0; exec \"$0\" \"$@\""}, "true", "false\n", ""}};
  for (const auto& [launch, command, input, out] : cases) {
    SCOPED_TRACE(launch[0]);
    std::vector<std::string> args(launch.begin() + 1, launch.end());
    args.insert(args.end(), {kMessenger, "TRC=1", "CMD=" + command});
    const auto run = run_program(launch[0], args, 30, input);
    if (run.status != 0 && run.out.empty() && !out.empty()) continue;  // no user namespace
    EXPECT_TRUE(
        run.status == 0 && run.err.empty() && run.out.find(out) != std::string::npos &&
        (out.empty() || run.out.find("no descriptor path for the script") != std::string::npos))
        << run.status << run.err << run.out;
  }
}

// The tool's output unscrambles to the line read, with either header and key; -d reads it back.
TEST(ScrambleTool, ScramblesStandardInputAndReadsItBack) {
  for (const std::string& value : {"hunter2"s, "blank & $ign"s, ""s, std::string(119, 'z')}) {
    SCOPED_TRACE(value);
    const auto run = run_program(kTool, {}, 30, value + "\n");
    const std::string text = run.out.substr(0, run.out.size() - 1);
    EXPECT_TRUE(run.status == 0 && run.err.empty() && text.substr(0, 4) == "--10") << run.out;
    EXPECT_EQ(Unscramble(text), value);
    EXPECT_EQ(run_program(kTool, {"-d"}, 30, Cased(text, tolower) + "\n").out, value + "\n");
  }
  const auto keyed = run_program(kTool, {"-k", "other", "-m"}, 30, "pw");  // no line end
  EXPECT_EQ(keyed.out.substr(0, 4), "\xAD\xAD\x31\x30");
  EXPECT_EQ(Unscramble(keyed.out.substr(0, keyed.out.size() - 1), "other"), "pw");
}

TEST(ScrambleTool, RefusalsGoToStandardOutput) {
  // One block with its terminator: no random padding, so a wrong key always reads the same.
  const std::string seven = Scrambled("1234567"), other = Scrambled("abcdefg");
  const std::tuple<std::vector<std::string>, std::string, int, std::string> cases[] = {
      {{"secret-on-the-command-line"}, "", 2, "qx_scramble"},
      {{"-k", "twelve-chars"}, "pw\n", 2, "qx_scramble"},
      {{"-k", ""}, "pw\n", 2, "1 to 11 characters"},
      {{}, std::string(120, 'z') + "\n", 1, "120 characters"},  // longer than the messenger reads
      {{}, std::string(10000, 'z') + "\n", 1, "at most 119"},
      {{}, "12"s + '\0' + "34567\n", 1, "NUL"},
      {{}, "", 1, "qx_scramble"},
      {{"-d"}, "PLAIN\n", 1, "qx_scramble"},
      {{"-d"}, seven + other.substr(4) + "\n", 1, "does not unscramble"},  // terminator too early
      {{"-d", "-k", "other"}, seven + "\n", 1, "does not unscramble"},
      {{"-h"}, "", 0, "qx_scramble"}};
  for (const auto& [args, input, status, says] : cases) {
    SCOPED_TRACE(args.empty() ? input.substr(0, 20) : args[0]);
    const auto run = run_program(kTool, args, 30, input);
    EXPECT_TRUE(run.status == status && run.err.empty()) << run.status << run.err;
    EXPECT_NE(run.out.find(says), std::string::npos) << run.out;
    EXPECT_EQ(run.out.find("1234567"), std::string::npos) << run.out;
  }
  // A write that fails (a full disk) is a failure, in both directions.
  for (const auto& [argv, input] :
       {std::pair<std::vector<std::string>, std::string>{{kTool}, "pw\n"},
        {{kTool, "-d"}, seven + "\n"}}) {
    const int in = temp_file(input), full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    int status = 0;
    EXPECT_TRUE(reap(spawn(argv, {in, full, full}), now_ms() + 10000, &status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << argv.size() << " " << status;
    close(in);
    close(full);
  }
}
}  // namespace
