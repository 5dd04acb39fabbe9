// Command execution with scrambled passwords.
//
// Quoting. The shell (/bin/sh, read as POSIX sh, byte by byte) must take the clear text of a
// password as one literal piece of the word it stands in, whatever bytes it holds. expandCmd
// follows the command's shell syntax up to each marker with a small scanner, which knows
//   - unquoted text (the command itself and the inside of $( ), counting parentheses);
//   - '...', "...", backslash escapes and comments (# at the start of a word);
//   - here-documents: the operator << or <<- with its delimiter word (quoted when any part of
//     it is quoted), and the body lines after the next unquoted newline, up to the line that
//     is the delimiter;
//   - ${ }, $(( )) and `...`, whose quoting rules differ between shells.
// A clear text of bytes that mean nothing where it stands is inserted as it is, exactly as
// an unquoted insertion would be. Otherwise it is quoted for its place:
//   unquoted            'text', each ' written as '\''
//   "..."               "'text'": the double quotes are closed around a single-quoted piece
//   '...'               each ' written as '\''
//   body of <<EOF       each $, ` and \ behind a backslash; a newline as it is
//   body of <<'EOF'     as it is
//   comment             as it is
// A backslash right before a marker keeps the meaning it has before the marker's first byte:
// unquoted it escapes the first clear byte, inside "..." or a body it is a backslash.
// A clear text is refused (expandCmd returns -1, nothing runs) where it cannot be carried:
// where it needs quoting inside ${ }, $(( )) or `...` (write $( ) instead) or right behind an
// unquoted $; a newline in a comment or right behind an unquoted backslash; a marker in (or cut by
// the operator of) a here-document's delimiter word; a body in which the clear text would make a
// line that is the delimiter, or (with <<-) put a tab where the shell strips it. Where shells part
// ways the scanner stops trusting its place, and from there on carries only clear texts that need
// no quoting: after the word `case` inside $( ) (a pattern's lone ")" would look like the end),
// after $' (a quote with escapes in some shells), after a ' inside
// ${ } within "..." or a body (a quote or a plain byte, by shell and operator), after a
// here-document opened inside a body, after a line of an unquoted body that ends in an
// escaping backslash (the shell joins it to the next before it looks for the delimiter), and
// after such a joined line elsewhere unless a blank stands on one side of the join.
//
// Delivery. The shell reads the expanded command as its script from an anonymous memory file
// (its size sealed, wiped when the shell has ended), named to it as /proc/<messenger>/fd/<n>:
// the descriptor stays close-on-exec, so neither the shell nor anything the command runs
// inherits it, and the shell's command line and environment hold no clear text. Where there is no
// memory file or /proc does not show it, the command goes to `sh -c` as its argument, and the trace
// says so. Either way the shell starts with the default action for SIGPIPE (the messenger ignores
// it), and, like system(), the messenger ignores SIGINT and SIGQUIT while it waits.
#include "messenger/command_exec.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <string>
#include <vector>

#include "common/memory.h"
#include "common/trace_log.h"
#include "scramble/scramble.h"

extern char** environ;

namespace {

constexpr size_t kMarkerLen = 4;
constexpr size_t kPasswordArea = 256;
static_assert(kMarkerLen + kCmdPasswordDigitsMax + 1 == kPasswordArea);

bool is_marker(std::string_view s) {
  return s.size() >= kMarkerLen && (s.substr(0, kMarkerLen) == "--10" || s.substr(0, kMarkerLen) ==
                                                                             "\xAD\xAD"
                                                                             "10");
}

bool is_hex_digit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// Bytes that have no meaning to the shell anywhere inside a word.
bool is_inert(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         (c != '\0' && strchr("_./:@+,-", c) != nullptr);
}

bool all_inert(std::string_view s) {
  for (char c : s)
    if (!is_inert(c)) return false;
  return true;
}

bool has_any(std::string_view s, const char* set) {
  return s.find_first_of(set) != std::string_view::npos;
}

// Where the scanner stands. kScript and kCmdSub hold commands (comments, here-documents);
// kParam, kArith and kBackquote are opaque: shells differ in how quotes work inside them, and
// so does every frame opened inside one.
enum class Kind { kScript, kCmdSub, kParam, kArith, kBackquote, kSingle, kDouble, kComment, kBody };

struct Frame {
  Kind kind;
  bool opaque;
  int depth;  // open parentheses (kCmdSub, kArith) or braces (kParam)
};

struct HereDoc {
  std::string delimiter;
  bool quoted = false;
  bool strip_tabs = false;
};

class Expander {
 public:
  Expander(std::string_view command, char* out, size_t size)
      : cmd_(command), out_(out), size_(size) {}
  ~Expander() {
    explicit_bzero(password_, sizeof password_);
    explicit_bzero(clear_, sizeof clear_);
  }
  Expander(const Expander&) = delete;
  Expander& operator=(const Expander&) = delete;

  // False when a clear text cannot be carried, or the area is too small.
  bool Run() {
    stack_.push_back({Kind::kScript, false, 0});
    while (i_ < cmd_.size()) {
      after_dollar_ = dollar_;
      dollar_ = false;
      bool ok;
      if (in_body() && at_line_start_) {
        ok = BodyLine();
      } else if (is_marker(cmd_.substr(i_))) {
        ok = Marker(false);
      } else {
        ok = Step();
      }
      if (!ok) return false;
    }
    if (in_body() && line_inserted_ && !BodyLinesFit()) return false;
    out_[len_] = '\0';
    return true;
  }

  size_t length() const { return len_; }

 private:
  bool in_body() const { return body_ != kNoBody; }
  Frame& top() { return stack_.back(); }
  bool command_frame() const {
    return stack_.back().kind == Kind::kScript || stack_.back().kind == Kind::kCmdSub;
  }
  void Push(Kind kind) { stack_.push_back({kind, top().opaque, 0}); }

  bool Put(char c) {
    if (len_ + 1 >= size_) return false;
    out_[len_++] = c;
    return true;
  }
  bool Put(std::string_view s) {
    if (s.size() >= size_ - len_) return false;
    memcpy(out_ + len_, s.data(), s.size());
    len_ += s.size();
    return true;
  }
  // Copies the next `n` bytes of the command.
  bool Copy(size_t n) {
    const bool ok = Put(cmd_.substr(i_, n));
    i_ += n;
    return ok;
  }
  // The byte `k` places ahead, '\0' past the end (a command holds no NUL: it comes from a C
  // string).
  char Peek(size_t k) const { return i_ + k < cmd_.size() ? cmd_[i_ + k] : '\0'; }
  bool Next(char c) const { return Peek(1) == c; }

  // One byte (or operator) of the command, by the frame it stands in.
  bool Step() {
    const char c = cmd_[i_];
    if (c == '\n') return Newline(false);
    const Kind kind = top().kind;
    switch (kind) {
      case Kind::kSingle:
        if (c == '\'') stack_.pop_back();
        return Copy(1);
      case Kind::kComment:
        return Copy(1);
      case Kind::kBackquote:
        if (c == '\\') return Backslash();
        if (c == '`') stack_.pop_back();
        return Copy(1);
      case Kind::kDouble:
        if (c == '"') {
          stack_.pop_back();
          return Copy(1);
        }
        return Expansion();
      case Kind::kBody:
        if (pending_.front().quoted) return Copy(1);
        if (c == '"' || c == '\'') return Copy(1);
        return Expansion();
      case Kind::kScript:
      case Kind::kCmdSub:
      case Kind::kParam:
      case Kind::kArith:
        break;
    }
    if (c == '\'' && kind == Kind::kParam && InsideQuotes()) {
      lost_ = true;
      return Copy(1);
    }
    if (c == '\'' || c == '"') {
      Push(c == '\'' ? Kind::kSingle : Kind::kDouble);
      return Copy(1);
    }
    if (command_frame()) {
      if (kind == Kind::kCmdSub && IsWord("case")) lost_ = true;
      if (c == '#' && WordStart()) {
        Push(Kind::kComment);
        return Copy(1);
      }
      if (c == '<' && Next('<')) {
        if (Peek(2) == '<') return Copy(3);  // a here-string
        if (in_body()) lost_ = true;
        return HereDocOperator();
      }
    }
    return Nesting(c, kind);
  }

  // Brackets in a command, substitution or parameter frame: they nest, and the closing one of
  // the frame ends it.
  bool Nesting(char c, Kind kind) {
    Frame& f = top();
    if (c == '(' || (c == '{' && kind == Kind::kParam)) {
      ++f.depth;
    } else if (c == ')' && (kind == Kind::kCmdSub || kind == Kind::kArith)) {
      if (f.depth > 0) {
        --f.depth;
      } else if (kind == Kind::kCmdSub) {
        stack_.pop_back();
      } else if (Next(')')) {
        stack_.pop_back();
        return Copy(2);
      }
    } else if (c == '}' && kind == Kind::kParam) {
      if (f.depth > 0) {
        --f.depth;
      } else {
        stack_.pop_back();
      }
    } else if (c == ')' && f.depth > 0) {
      --f.depth;
    }
    return Expansion();
  }

  // Backslashes, $ forms and backquotes: the same in commands, "..." and unquoted bodies.
  bool Expansion() {
    const char c = cmd_[i_];
    if (c == '\\') return Backslash();
    if (c == '`') {
      stack_.push_back({Kind::kBackquote, true, 0});
      return Copy(1);
    }
    if (c != '$') return Copy(1);
    if (Next('(') && Peek(2) == '(') {
      stack_.push_back({Kind::kArith, true, 0});
      return Copy(3);
    }
    if (Next('(')) {
      Push(Kind::kCmdSub);
      return Copy(2);
    }
    if (Next('{')) {
      stack_.push_back({Kind::kParam, true, 0});
      return Copy(2);
    }
    if (Next('\'') && top().kind != Kind::kDouble && top().kind != Kind::kBody) lost_ = true;
    dollar_ = true;
    return Copy(1);
  }

  bool Backslash() {
    if (!Copy(1)) return false;
    if (i_ == cmd_.size()) return true;
    if (is_marker(cmd_.substr(i_))) return Marker(true);
    if (cmd_[i_] == '\n') {
      // The shell removes the pair before it reads the syntax: the bytes on either side meet.
      // With a blank on one side nothing new can form; otherwise the place is not trusted.
      const size_t bs = i_ - 1;
      const bool blank_before = bs == 0 || strchr(" \t\n", cmd_[bs - 1]) != nullptr;
      const bool blank_after = Next(' ') || Next('\t');
      if (!blank_before && !blank_after) lost_ = true;
      return Newline(true);
    }
    return Copy(1);
  }

  bool WordStart() const { return i_ == 0 || strchr(" \t\n;&|()<>", cmd_[i_ - 1]) != nullptr; }

  // The word `word` stands here, alone.
  bool IsWord(std::string_view word) const {
    const size_t end = i_ + word.size();
    return WordStart() && cmd_.substr(i_, word.size()) == word &&
           (end == cmd_.size() || strchr(" \t\n;&|()<>", cmd_[end]) != nullptr);
  }

  // Some frame under the top one is "..." or a here-document body.
  bool InsideQuotes() const {
    for (size_t k = 0; k + 1 < stack_.size(); ++k)
      if (stack_[k].kind == Kind::kDouble || stack_[k].kind == Kind::kBody) return true;
    return false;
  }

  // A newline ends a comment and a body's line; an unquoted one in a command starts the
  // bodies of the here-documents opened on its line.
  bool Newline(bool escaped) {
    if (top().kind == Kind::kComment) stack_.pop_back();
    if (in_body()) {
      // The shell joins a line that ends in an escaping backslash to the next one before it
      // looks for the delimiter.
      if (escaped && !pending_.front().quoted) lost_ = true;
      if (line_inserted_ && !BodyLinesFit()) return false;
      at_line_start_ = true;
      return Copy(1);
    }
    if (!Copy(1)) return false;
    if (!escaped && command_frame() && !pending_.empty()) StartBody();
    return true;
  }

  // << or <<-, blanks and the delimiter word, which is quoted when any part of it is.
  bool HereDocOperator() {
    HereDoc doc;
    if (!Copy(2)) return false;
    // "<<--10..." is the operator <<- and a delimiter word that holds the rest of the marker:
    // a marker that the operator cuts in two is refused like one inside the word.
    if (is_marker(cmd_.substr(i_))) return false;
    if (Peek(0) == '-') {
      doc.strip_tabs = true;
      if (!Copy(1)) return false;
    }
    while (Peek(0) == ' ' || Peek(0) == '\t')
      if (!Copy(1)) return false;
    char quote = '\0';
    while (i_ < cmd_.size()) {
      const char c = cmd_[i_];
      if (is_marker(cmd_.substr(i_))) return false;
      if (quote == '\0' && strchr(" \t\n;&|<>()", c) != nullptr) break;
      if (c == quote) {
        quote = '\0';
      } else if (quote == '\0' && (c == '\'' || c == '"')) {
        quote = c;
        doc.quoted = true;
      } else if (c == '\\' && quote != '\'') {
        const bool escapes = quote == '\0' || (Next('$') || Next('`') || Next('"') || Next('\\'));
        if (escapes && Peek(1) != '\0') {
          doc.quoted = true;
          if (!Copy(1)) return false;
          if (is_marker(cmd_.substr(i_))) return false;
          doc.delimiter += cmd_[i_];
        } else {
          doc.delimiter += c;
        }
      } else {
        doc.delimiter += c;
      }
      if (!Copy(1)) return false;
    }
    pending_.push_back(std::move(doc));
    return true;
  }

  void StartBody() {
    Push(Kind::kBody);
    body_ = stack_.size() - 1;
    at_line_start_ = true;
  }

  // At the start of a body's line: the delimiter line ends the body (and starts the next
  // pending one); any other line is scanned as body text.
  bool BodyLine() {
    const HereDoc& doc = pending_.front();
    size_t end = cmd_.find('\n', i_);
    if (end == std::string_view::npos) end = cmd_.size();
    std::string_view line = cmd_.substr(i_, end - i_);
    if (doc.strip_tabs) line.remove_prefix(std::min(line.find_first_not_of('\t'), line.size()));
    at_line_start_ = false;
    line_start_ = len_;
    line_inserted_ = false;
    if (line != doc.delimiter) return true;
    if (!Copy(std::min(end + 1, cmd_.size()) - i_)) return false;  // with its newline
    stack_.resize(body_);
    body_ = kNoBody;
    pending_.pop_front();
    if (!pending_.empty()) StartBody();
    return true;
  }

  // No line of the output made from this body line is the delimiter.
  bool BodyLinesFit() const {
    const HereDoc& doc = pending_.front();
    std::string_view made(out_ + line_start_, len_ - line_start_);
    while (true) {
      const size_t nl = made.find('\n');
      std::string_view line = made.substr(0, nl);
      if (doc.strip_tabs) line.remove_prefix(std::min(line.find_first_not_of('\t'), line.size()));
      if (line == doc.delimiter) return false;
      if (nl == std::string_view::npos) return true;
      made.remove_prefix(nl + 1);
    }
  }

  // A marker and its digits: replaced by the clear text, or kept when the codec does not take
  // them.
  bool Marker(bool after_backslash) {
    memcpy(password_, cmd_.data() + i_, kMarkerLen);
    i_ += kMarkerLen;
    size_t n = kMarkerLen;
    while (n < kMarkerLen + kCmdPasswordDigitsMax && is_hex_digit(Peek(0))) {
      const char c = cmd_[i_++];
      password_[n++] = (c >= 'a' && c <= 'f') ? static_cast<char>(c - 'a' + 'A') : c;
    }
    password_[n] = '\0';
    // At most 8 bytes per 16 digits: terminated inside the zeroed area.
    memset(clear_, 0, sizeof clear_);
    if (ZUSTRNG_DeMaxim2(clear_, password_, kCommandPasswordKey) != 0) {
      return Put(std::string_view(password_, n));
    }
    return Insert(std::string_view(clear_, strnlen(clear_, sizeof clear_)), after_backslash);
  }

  bool Insert(std::string_view text, bool after_backslash) {
    if (text.empty()) return true;
    if (in_body()) line_inserted_ = true;
    const Frame& f = top();
    if (f.opaque || lost_) return all_inert(text) && Put(text);
    switch (f.kind) {
      case Kind::kScript:
      case Kind::kCmdSub:
        if (all_inert(text)) return Put(text);
        if (after_dollar_) return false;
        if (after_backslash) {
          // The backslash escapes the first clear byte; a newline there would join lines.
          if (text[0] == '\n' || !Put(text[0])) return false;
          text.remove_prefix(1);
          if (all_inert(text)) return Put(text);
        }
        return PutSingleQuoted(text);
      case Kind::kDouble:
        if (!has_any(text, "$`\"\\")) return Put(text);
        if (after_backslash && !Put('\\')) return false;
        return Put('"') && PutSingleQuoted(text) && Put('"');
      case Kind::kSingle:
        return PutInSingleQuotes(text);
      case Kind::kComment:
        return text.find('\n') == std::string_view::npos && Put(text);
      case Kind::kBody:
        return InsertInBody(text, after_backslash);
      default:
        return false;
    }
  }

  bool InsertInBody(std::string_view text, bool after_backslash) {
    const HereDoc& doc = pending_.front();
    if (doc.strip_tabs) {
      if (text.find("\n\t") != std::string_view::npos) return false;
      size_t k = len_;
      while (k > 0 && out_[k - 1] == '\t')
        --k;
      if (text[0] == '\t' && (k == 0 || out_[k - 1] == '\n')) return false;
    }
    if (doc.quoted || !has_any(text, "$`\\")) return Put(text);
    if (after_backslash && !Put('\\')) return false;
    for (char c : text) {
      if (strchr("$`\\", c) != nullptr && !Put('\\')) return false;
      if (!Put(c)) return false;
    }
    return true;
  }

  bool PutInSingleQuotes(std::string_view text) {
    for (char c : text)
      if (!(c == '\'' ? Put("'\\''") : Put(c))) return false;
    return true;
  }
  bool PutSingleQuoted(std::string_view text) {
    return Put('\'') && PutInSingleQuotes(text) && Put('\'');
  }

  static constexpr size_t kNoBody = static_cast<size_t>(-1);

  std::string_view cmd_;
  char* out_;
  size_t size_;
  size_t len_ = 0;
  size_t i_ = 0;
  std::vector<Frame> stack_;
  std::deque<HereDoc> pending_;  // opened, body not read yet; the first is being read
  size_t body_ = kNoBody;        // the body's frame in stack_
  bool at_line_start_ = false;   // of a body line
  size_t line_start_ = 0;        // where the output of the current body line begins
  bool line_inserted_ = false;   // a clear text went into the current body line
  bool dollar_ = false;          // the last byte was an unquoted $ of no expansion
  bool after_dollar_ = false;
  bool lost_ = false;  // the scanner no longer trusts its place
  char password_[kPasswordArea];
  char clear_[kPasswordArea];
};

// Restores a signal's action when it goes out of scope.
class SignalAction {
 public:
  SignalAction(int sig, void (*handler)(int)) : sig_(sig) {
    struct sigaction sa {};
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    ok_ = sigaction(sig_, &sa, &saved_) == 0;
  }
  ~SignalAction() {
    if (ok_) sigaction(sig_, &saved_, nullptr);
  }
  SignalAction(const SignalAction&) = delete;
  SignalAction& operator=(const SignalAction&) = delete;
  // Whether the signal was ignored before.
  bool was_ignored() const { return ok_ && saved_.sa_handler == SIG_IGN; }

 private:
  int sig_;
  bool ok_;
  struct sigaction saved_;
};

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// Runs /bin/sh with `argv` and returns the wait status, or -1 with errno set when it could
// not be started. SIGPIPE is at its default action in the shell whatever the messenger's is;
// SIGINT and SIGQUIT keep the action they had before the call, as under system().
int RunShell(char* const argv[]) {
  SignalAction quiet_int(SIGINT, SIG_IGN), quiet_quit(SIGQUIT, SIG_IGN);
  posix_spawnattr_t attr;
  if (int rc = posix_spawnattr_init(&attr); rc != 0) {
    errno = rc;
    return -1;
  }
  sigset_t defaults, mask;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  if (!quiet_int.was_ignored()) sigaddset(&defaults, SIGINT);
  if (!quiet_quit.was_ignored()) sigaddset(&defaults, SIGQUIT);
  sigprocmask(SIG_SETMASK, nullptr, &mask);
  posix_spawnattr_setsigdefault(&attr, &defaults);
  posix_spawnattr_setsigmask(&attr, &mask);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, "/bin/sh", nullptr, &attr, argv, environ);
  posix_spawnattr_destroy(&attr);
  if (rc != 0) {
    errno = rc;
    return -1;
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  errno = 0;
  return status;
}

// Writes `len` bytes of `data` (zeros when null) to `fd` from offset 0.
bool WriteAt0(int fd, const char* data, size_t len) {
  static constexpr char kZeros[512] = {};
  size_t done = 0;
  while (done < len) {
    const size_t want = data != nullptr ? len - done : std::min(len - done, sizeof kZeros);
    const ssize_t n = pwrite(fd, data != nullptr ? data + done : kZeros, want, done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// An anonymous memory file holding `script`, its size sealed; -1 when the system has none.
// It is not sealed against writes, so that it can be wiped once the shell has read it.
int ScriptFile(const char* script, size_t len) {
  const int fd = memfd_create("qx_jpmd-cmd", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (fd < 0) return -1;
  if (!WriteAt0(fd, script, len)) {
    WriteAt0(fd, nullptr, len);
    close(fd);
    return -1;
  }
  fcntl(fd, F_ADD_SEALS, F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_SEAL);
  return fd;
}

// Runs the expanded command; see the head of this file.
int RunScript(char* script, size_t len) {
  Fd file(ScriptFile(script, len));
  char path[64];
  snprintf(path, sizeof path, "/proc/%d/fd/%d", static_cast<int>(getpid()), file.get());
  // The shell opens the file by this name: it must be there for this process too.
  bool named = false;
  if (file.get() >= 0) {
    Fd probe(open(path, O_RDONLY | O_CLOEXEC));
    named = probe.get() >= 0;
  }
  char sh[] = "sh";
  if (named) {
    char* argv[] = {sh, path, nullptr};
    const int result = RunShell(argv);
    const int err = errno;
    WriteAt0(file.get(), nullptr, len);
    errno = err;
    return result;
  }
  QX_TRACE(
      "processCmd:      no descriptor path for the script: the command goes to the "
      "interpreter's command line");
  char dash_c[] = "-c";
  char* argv[] = {sh, dash_c, script, nullptr};
  return RunShell(argv);
}

}  // namespace

int expandCmd(std::string_view command, char* result, size_t size, size_t* result_len) {
  if (size == 0) return -1;
  Expander expander(command, result, size);
  if (!expander.Run()) {
    explicit_bzero(result, size);
    return -1;
  }
  *result_len = expander.length();
  return 0;
}

int processCmd(PCX* pcx) {
  QX_TRACE("%s(cmd=%s) -->", __func__, pcx->pCmdBuffer);
  const size_t len = strnlen(pcx->pCmdBuffer, sizeof pcx->pCmdBuffer - 1);
  const size_t size = ExpandedCmdSize(len);
  char* pBuff2 = static_cast<char*>(MemAllocRetArea(size));
  size_t script_len = 0;
  int result = -1;
  if (expandCmd(std::string_view(pcx->pCmdBuffer, len), pBuff2, size, &script_len) != 0) {
    printf(
        "qx_jpmd: a scrambled password in CMD cannot be quoted where it stands; the command "
        "was not run\n");
  } else {
    // What was traced so far comes before the command's own output.
    fflush(stdout);
    errno = 0;
    result = RunScript(pBuff2, script_len);
    if (errno != 0 && trc_level()) {
      const int err = errno;
      __trace_text(0, "%s:      error '%d/%s', result %i", __func__, err, strerror(err), result);
    }
  }
  // The expanded command holds the clear passwords.
  explicit_bzero(pBuff2, size);
  FreeMallocArea(reinterpret_cast<void**>(&pBuff2), "pBuff2");
  QX_TRACE("%s <-- (result=%d)", __func__, result);
  return result;
}
