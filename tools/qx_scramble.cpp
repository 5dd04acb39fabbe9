// qx_scramble: makes the scrambled values that job authors write into the command of a
// messenger's CMD argument in place of clear passwords, and checks them.
//
// The clear value is read from standard input (one line, the newline stripped) or, when
// standard input is a terminal, from a prompt on /dev/tty that does not echo. It is never
// taken from the command line, where other users of the host could read it.
//
// Output goes to standard output only; usage errors exit with 2, other failures with 1.
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <fcntl.h>

#include <initializer_list>

#include "scramble/scramble.h"

namespace {

// The messenger reads at most 251 digits behind a marker: 15 blocks, 119 characters of value.
constexpr int kMaxValueLen = 119;
constexpr int kLineMax = 8192;

void usage(FILE* out) {
  fputs(
      "usage: qx_scramble [-d] [-m] [-k KEY] [-h | --help]\n"
      "\n"
      "Scrambles a password for the CMD argument of qx_jpmd. The value is read from\n"
      "standard input (one line) or, on a terminal, asked for without echo; it is never\n"
      "given on the command line.\n"
      "\n"
      "  -d          unscramble: read a scrambled value and print its clear text\n"
      "  -k KEY      key text of at most 11 characters (default: the messenger's key)\n"
      "  -m          write the header as the two bytes 0xAD 0xAD instead of \"--\"\n"
      "  -h, --help  this help\n"
      "\n"
      "The scrambled value is printed as \"--10\" and upper-case hexadecimal digits, which\n"
      "a shell passes unchanged; qx_jpmd accepts it as well as the 0xAD 0xAD form.\n"
      "Values longer than 119 characters are refused: qx_jpmd reads at most 251 digits\n"
      "behind a marker.\n",
      out);
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

// Reads one line from `in` into `line` (kLineMax bytes) without its newline. Returns false
// at end of input with nothing read.
bool read_line(FILE* in, char* line) {
  if (fgets(line, kLineMax, in) == nullptr) return false;
  line[strcspn(line, "\n")] = '\0';
  return true;
}

// Reads the value from standard input, or from the terminal without echo.
bool read_value(const char* prompt, char* line) {
  if (!isatty(STDIN_FILENO)) return read_line(stdin, line);
  const int fd = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return false;
  FILE* tty = fdopen(fd, "r+");
  if (tty == nullptr) {
    close(fd);
    return false;
  }
  bool ok;
  {
    // Echo goes off before the prompt appears, so nothing typed after it is shown.
    EchoOff quiet(fd);
    fputs(prompt, tty);
    fflush(tty);
    ok = read_line(tty, line);
  }
  fclose(tty);
  return ok;
}

int scramble(const char* key, bool magic_header, char* line) {
  const int len = static_cast<int>(strlen(line));
  if (len > kMaxValueLen) {
    printf("qx_scramble: the value has %d characters; qx_jpmd takes at most %d\n", len,
           kMaxValueLen);
    return 1;
  }
  char text[ScrambledTextSize(kMaxValueLen)];
  ZUSTRNG_EnMaxim2(text, line, key);
  if (!magic_header) memcpy(text, "--", 2);
  printf("%s\n", text);
  explicit_bzero(text, sizeof text);
  return 0;
}

int unscramble(const char* key, char* line) {
  // Digits are read in upper case only; accept what a job author may have typed.
  for (char* p = line + strnlen(line, 4); *p != '\0'; ++p) {
    if (*p >= 'a' && *p <= 'f') *p = static_cast<char>(*p - 'a' + 'A');
  }
  char clear[kLineMax] = {};
  const int rc = ZUSTRNG_DeMaxim2(clear, line, key);
  if (rc != 0) {
    printf("qx_scramble: not a scrambled value\n");
    return 1;
  }
  printf("%s\n", clear);
  explicit_bzero(clear, sizeof clear);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
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
        if (strlen(key) > static_cast<size_t>(kScrambleKeyMax)) {
          printf("qx_scramble: the key has more than %d characters\n", kScrambleKeyMax);
          return 2;
        }
        break;
      case 'h':
        usage(stdout);
        return 0;
      default:
        // A long option it does not know has no option character.
        if (optopt != 0)
          printf("qx_scramble: unknown option or missing argument: -%c\n", optopt);
        else
          printf("qx_scramble: unknown option: %s\n", argv[optind - 1]);
        usage(stdout);
        return 2;
    }
  }
  if (optind != argc) {
    printf("qx_scramble: the value is read from standard input, not from the command line\n");
    usage(stdout);
    return 2;
  }

  static char line[kLineMax];
  if (!read_value(decode ? "Scrambled value: " : "Value: ", line)) {
    printf("qx_scramble: no value read\n");
    return 1;
  }
  const int rc = decode ? unscramble(key, line) : scramble(key, magic_header, line);
  explicit_bzero(line, sizeof line);
  return rc;
}
