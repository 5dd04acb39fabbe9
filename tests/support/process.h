// Child processes of the tests, and this process's descriptors and memory.
#ifndef QX_TESTS_SUPPORT_PROCESS_H_
#define QX_TESTS_SUPPORT_PROCESS_H_

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>  // for agent.h
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace qxtest {
inline long long now_ms() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}
inline std::string bin_path(const char* name) {  // a program of this build
  return std::string(QX_BIN_DIR) + "/" + name;
}
inline int temp_file(const std::string& text = "") {
  char path[] = "/tmp/qx_run_XXXXXX";
  const int fd = mkostemp(path, O_CLOEXEC);
  unlink(path);
  return pwrite(fd, text.data(), text.size(), 0) == ssize_t(text.size()) ? fd : -1;
}
inline std::string read_all(int fd) {
  std::string text;
  char buf[65536];
  for (ssize_t r; (r = pread(fd, buf, sizeof buf, static_cast<off_t>(text.size()))) > 0;)
    text.append(buf, static_cast<size_t>(r));
  return text;
}

// This process's open descriptors and what each refers to.
inline std::map<int, std::string> open_descriptors() {
  std::map<int, std::string> fds;
  DIR* dir = opendir("/proc/self/fd");
  for (dirent* e; dir != nullptr && (e = readdir(dir)) != nullptr;) {
    char link[256] = {};
    if (e->d_name[0] == '.' || atoi(e->d_name) == dirfd(dir)) continue;
    fds[atoi(e->d_name)] =
        readlink(("/proc/self/fd/" + std::string(e->d_name)).c_str(), link, 255) > 0 ? link : "";
  }
  if (dir != nullptr) closedir(dir);
  return fds;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitizerBuild = true;
#else
inline constexpr bool kSanitizerBuild = false;
#endif
// Peak resident memory in KiB since start or reset_peak_memory; -1 when unknown.
inline long peak_memory_kb() {
  const int fd = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
  char text[4096] = {};
  const ssize_t n = fd >= 0 ? read(fd, text, sizeof text - 1) : -1;
  if (fd >= 0) close(fd);
  const char* at = n > 0 ? strstr(text, "VmHWM:") : nullptr;
  return at != nullptr ? atol(at + 6) : -1;
}
inline void reset_peak_memory() {  // an older kernel keeps the peak: the measure is coarser
  const int fd = open("/proc/self/clear_refs", O_WRONLY | O_CLOEXEC);
  if (fd >= 0 && (write(fd, "5", 1) < 0 || true)) close(fd);
}

struct RunResult {
  bool exited = false;          // ended by exit, not by a signal nor killed for running too long
  int status = -1, signal = 0;  // exit status when `exited`, else -1; the signal that ended it
  std::string out, err;
  double secs = 0;
  long max_rss_kb = 0;
};

inline constexpr int kClosedFd = -2;  // in `fds` of spawn: closed in the child
// Starts `args[0]` with `fds` as its standard input, output and error (-1: inherited).
inline pid_t spawn(std::vector<std::string> args, const std::vector<int>& fds) {
  std::vector<char*> argv(args.size() + 1);  // null-terminated
  std::transform(args.begin(), args.end(), argv.begin(), [](std::string& a) { return a.data(); });
  const pid_t pid = fork();
  if (pid == 0) {
    for (int i = 0; i < 3; i++) {
      if (fds[i] >= 0) dup2(fds[i], i);
      if (fds[i] == kClosedFd) close(i);
    }
    execv(argv[0], argv.data());
    _exit(127);
  }
  return pid;
}
// Waits for the child until `deadline` (of now_ms); false when it still runs.
inline bool reap(pid_t pid, long long deadline, int* st, long* max_rss_kb = nullptr) {
  rusage ru{};
  for (; wait4(pid, st, WNOHANG, &ru) == 0; usleep(1000))
    if (now_ms() >= deadline) return false;
  if (max_rss_kb != nullptr) *max_rss_kb = ru.ru_maxrss;
  return true;
}

// Runs `program` on `input`, killed after `limit_secs`.
inline RunResult run_program(const std::string& program, std::vector<std::string> args,
                             int limit_secs = 30, const std::string& input = "") {
  RunResult run;
  const std::vector<int> fds = {temp_file(input), temp_file(), temp_file()};
  args.insert(args.begin(), program);
  const long long start = now_ms();
  const pid_t pid = spawn(args, fds);
  int st = 0;
  const bool killed = !reap(pid, start + limit_secs * 1000LL, &st, &run.max_rss_kb);
  if (killed && kill(pid, SIGKILL) == 0) waitpid(pid, &st, 0);
  run.secs = (now_ms() - start) / 1000.0;
  run.exited = WIFEXITED(st) && !killed;
  run.status = run.exited ? WEXITSTATUS(st) : -1;
  run.signal = WIFSIGNALED(st) && !killed ? WTERMSIG(st) : 0;
  run.out = read_all(fds[1]);
  run.err = read_all(fds[2]);
  for (int fd : fds)
    close(fd);
  return run;
}
}  // namespace qxtest

#endif  // QX_TESTS_SUPPORT_PROCESS_H_
