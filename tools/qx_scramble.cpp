// qx_scramble: makes the scrambled values that job authors write into the command of a
// messenger's CMD argument in place of clear passwords, and checks them.
//
// The clear value is read from standard input (one line, the newline stripped) or, when
// standard input is a terminal, from a prompt on /dev/tty that does not echo. It is never
// taken from the command line, where other users of the host could read it.
//
// Output goes to standard output only, written directly (no library buffer holds a clear
// value); usage errors exit with 2, other failures (a refused value, a failed write) with 1.
// Every area that held the clear value is wiped before it is released.
#include <errno.h>
#include <getopt.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <fcntl.h>

#include <algorithm>
#include <initializer_list>

#include "scramble/scramble.h"

namespace {

// The messenger reads at most 251 digits behind a marker: 15 blocks, 119 characters of value.
constexpr int kMaxValueLen = 119;
// The longest line kept: a value or a scrambled value (4 + 240 digits) with room to spare.
constexpr size_t kLineMax = 512;

// Writes all of `text` to standard output; false when that fails (a full disk, a closed pipe).
bool write_out(const char* text, size_t len) {
  while (len > 0) {
    const ssize_t n = write(STDOUT_FILENO, text, len);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    text += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

// A message or the usage on standard output (never a secret).
bool say(const char* format, ...) __attribute__((format(printf, 1, 2)));
bool say(const char* format, ...) {
  char text[2048];
  va_list args;
  va_start(args, format);
  const int n = vsnprintf(text, sizeof text, format, args);
  va_end(args);
  if (n < 0) return false;
  return write_out(text, std::min(static_cast<size_t>(n), sizeof text - 1));
}

void usage() {
  say("%s",
      "usage: qx_scramble [-d] [-m] [-k KEY] [-h | --help]\n"
      "\n"
      "Scrambles a password for the CMD argument of qx_jpmd. The value is read from\n"
      "standard input (one line) or, on a terminal, asked for without echo; it is never\n"
      "given on the command line.\n"
      "\n"
      "  -d          unscramble: read a scrambled value and print its clear text\n"
      "  -k KEY      key text of 1 to 11 characters (default: the messenger's key)\n"
      "  -m          write the header as the two bytes 0xAD 0xAD instead of \"--\"\n"
      "  -h, --help  this help\n"
      "\n"
      "The scrambled value is printed as \"--10\" and upper-case hexadecimal digits, which\n"
      "a shell passes unchanged; qx_jpmd accepts it as well as the 0xAD 0xAD form.\n"
      "Values longer than 119 characters, and values holding a NUL byte, are refused:\n"
      "qx_jpmd reads at most 251 digits behind a marker.\n");
}

// Terminal settings to put back if the prompt is interrupted.
int g_tty_fd = -1;
struct termios g_tty_saved;

void restore_tty_and_die(int sig) {
  if (g_tty_fd >= 0) tcsetattr(g_tty_fd, TCSANOW, &g_tty_saved);
  signal(sig, SIG_DFL);
  raise(sig);
}

// Switches echo off on an open terminal for its lifetime.
class EchoOff {
 public:
  explicit EchoOff(int fd) : fd_(fd) {
    if (tcgetattr(fd_, &g_tty_saved) != 0) return;
    g_tty_fd = fd_;
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
      signal(sig, restore_tty_and_die);
    struct termios quiet = g_tty_saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ECHONL;
    tcsetattr(fd_, TCSANOW, &quiet);
  }
  ~EchoOff() {
    if (g_tty_fd < 0) return;
    tcsetattr(fd_, TCSANOW, &g_tty_saved);
    g_tty_fd = -1;
  }
  EchoOff(const EchoOff&) = delete;
  EchoOff& operator=(const EchoOff&) = delete;

 private:
  int fd_;
};

// One line of input: its first kLineMax - 1 bytes, terminated, and what the whole line was.
// Read with read(2) into this area only, so that no library buffer keeps a copy of the value.
struct Line {
  char text[kLineMax] = {};
  size_t len = 0;        // of the whole line, without its newline
  bool has_nul = false;  // a NUL byte anywhere in the line
  Line() = default;
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;
  ~Line() { explicit_bzero(text, sizeof text); }
};

// Reads one line from `fd` without its newline, byte by byte (nothing behind the line is
// taken from a pipe). False at end of input with nothing read, or on a read error.
bool read_line(int fd, Line* line) {
  bool any = false;
  char c = '\0';
  while (true) {
    const ssize_t n = read(fd, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) break;
    any = true;
    if (c == '\n') break;
    if (c == '\0') line->has_nul = true;
    if (line->len < kLineMax - 1) line->text[line->len] = c;
    ++line->len;
  }
  explicit_bzero(&c, sizeof c);
  line->text[std::min(line->len, kLineMax - 1)] = '\0';
  return any;
}

// Reads the value from standard input, or from the terminal without echo.
bool read_value(const char* prompt, Line* line) {
  if (!isatty(STDIN_FILENO)) return read_line(STDIN_FILENO, line);
  const int fd = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok;
  {
    // Echo goes off before the prompt appears, so nothing typed after it is shown.
    EchoOff quiet(fd);
    ok = write(fd, prompt, strlen(prompt)) >= 0 && read_line(fd, line);
  }
  close(fd);
  return ok;
}

int scramble(const char* key, bool magic_header, const Line& line) {
  if (line.has_nul) {
    say("qx_scramble: the value holds a NUL byte, which a command cannot carry\n");
    return 1;
  }
  if (line.len > static_cast<size_t>(kMaxValueLen)) {
    say("qx_scramble: the value has %zu characters; qx_jpmd takes at most %d\n", line.len,
        kMaxValueLen);
    return 1;
  }
  char text[ScrambledTextSize(kMaxValueLen)];
  ZUSTRNG_EnMaxim2(text, line.text, key);
  if (!magic_header) memcpy(text, "--", 2);
  const size_t len = strlen(text);
  text[len] = '\n';
  const bool ok = write_out(text, len + 1);
  explicit_bzero(text, sizeof text);
  return ok ? 0 : 1;
}

// The clear text of a scrambled value ends with its terminator in the last block: a wrong
// key or foreign digits almost never give that. A line break cannot stand in a value either.
bool decodes_to_text(const char* clear, size_t blocks) {
  const size_t len = strnlen(clear, 8 * blocks);
  return blocks > 0 && len >= 8 * (blocks - 1) && len < 8 * blocks &&
         memchr(clear, '\n', len) == nullptr;
}

int unscramble(const char* key, Line* line) {
  // Digits are read in upper case only; accept what a job author may have typed.
  for (char* p = line->text + strnlen(line->text, 4); *p != '\0'; ++p) {
    if (*p >= 'a' && *p <= 'f') *p = static_cast<char>(*p - 'a' + 'A');
  }
  const size_t len = strlen(line->text);
  if (line->has_nul || line->len >= kLineMax - 1 || len < 4) {
    say("qx_scramble: not a scrambled value\n");
    return 1;
  }
  char clear[kLineMax + 1] = {};
  const int rc = ZUSTRNG_DeMaxim2(clear, line->text, key);
  int status = 0;
  if (rc != 0) {
    say("qx_scramble: not a scrambled value\n");
    status = 1;
  } else if (!decodes_to_text(clear, (len - 4) / 16)) {
    say("qx_scramble: the value does not unscramble to text with this key\n");
    status = 1;
  } else {
    const size_t n = strlen(clear);
    clear[n] = '\n';
    status = write_out(clear, n + 1) ? 0 : 1;
  }
  explicit_bzero(clear, sizeof clear);
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  // A failed write is an exit status of 1, not a signal.
  signal(SIGPIPE, SIG_IGN);
  bool decode = false;
  bool magic_header = false;
  const char* key = kCommandPasswordKey;
  opterr = 0;  // getopt must not write to standard error
  int opt;
  static const option kLongOptions[] = {{"help", no_argument, nullptr, 'h'},
                                        {nullptr, 0, nullptr, 0}};
  while ((opt = getopt_long(argc, argv, "dmk:h", kLongOptions, nullptr)) != -1) {
    switch (opt) {
      case 'd':
        decode = true;
        break;
      case 'm':
        magic_header = true;
        break;
      case 'k':
        key = optarg;
        // An empty key would silently mean the codec's default key.
        if (key[0] == '\0' || strlen(key) > static_cast<size_t>(kScrambleKeyMax)) {
          say("qx_scramble: the key must have 1 to %d characters\n", kScrambleKeyMax);
          usage();
          return 2;
        }
        break;
      case 'h':
        usage();
        return 0;
      default:
        // A long option it does not know has no option character.
        if (optopt != 0)
          say("qx_scramble: unknown option or missing argument: -%c\n", optopt);
        else
          say("qx_scramble: unknown option: %s\n", argv[optind - 1]);
        usage();
        return 2;
    }
  }
  if (optind != argc) {
    say("qx_scramble: the value is read from standard input, not from the command line\n");
    usage();
    return 2;
  }

  Line line;
  if (!read_value(decode ? "Scrambled value: " : "Value: ", &line)) {
    say("qx_scramble: no value read\n");
    return 1;
  }
  return decode ? unscramble(key, &line) : scramble(key, magic_header, line);
}
