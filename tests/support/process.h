// Runs a program as a child process with arguments and standard input, and collects its
// standard output, standard error, the way it ended and how long it took.
#ifndef QX_TESTS_SUPPORT_PROCESS_H_
#define QX_TESTS_SUPPORT_PROCESS_H_

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

namespace qxtest {

inline long long now_ms() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

// A program built by this project.
inline std::string bin_path(const char* name) {
  return std::string(QX_BIN_DIR) + "/" + name;
}

struct RunResult {
  bool exited = false;  // ended by exit (not by a signal, not killed for running too long)
  int status = -1;      // exit status when `exited`, else -1
  int signal = 0;       // the signal that ended it, 0 when none
  std::string out;      // standard output
  std::string err;      // standard error
  double secs = 0;      // from start to exit
};

// The child is killed after `limit_secs`; `input` is its standard input (closed at once when
// empty), `workdir` its working directory.
inline RunResult run_program(const std::string& program, const std::vector<std::string>& args,
                             int limit_secs = 30, const std::string& input = "",
                             const char* workdir = nullptr) {
  RunResult run;
  int in[2], out[2], err[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
    return run;
  std::vector<char*> argv{const_cast<char*>(program.c_str())};
  for (const auto& a : args)
    argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  signal(SIGPIPE, SIG_IGN);
  const long long start = now_ms();
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    if (workdir != nullptr && chdir(workdir) != 0) _exit(126);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  close(err[1]);
  int in_fd = in[1];
  size_t written = 0;
  if (input.empty()) {
    close(in_fd);
    in_fd = -1;
  }
  bool killed = false;
  std::string* sinks[2] = {&run.out, &run.err};
  int fds[2] = {out[0], err[0]};
  int open_fds = 2;
  char buf[4096];
  while (open_fds > 0) {
    const long long left = start + limit_secs * 1000LL - now_ms();
    if (left <= 0 && !killed) {
      kill(pid, SIGKILL);
      killed = true;
    }
    pollfd p[3] = {{fds[0], POLLIN, 0}, {fds[1], POLLIN, 0}, {in_fd, POLLOUT, 0}};
    poll(p, 3, killed ? 1000 : static_cast<int>(std::min(left, 1000LL)));
    for (int i = 0; i < 2; i++) {
      if (fds[i] < 0 || p[i].revents == 0) continue;
      const ssize_t r = read(fds[i], buf, sizeof buf);
      if (r > 0) {
        sinks[i]->append(buf, static_cast<size_t>(r));
      } else if (r == 0 || errno != EINTR) {
        close(fds[i]);
        fds[i] = -1;
        open_fds--;
      }
    }
    if (in_fd >= 0 && p[2].revents != 0) {
      const ssize_t w = write(in_fd, input.data() + written, input.size() - written);
      if (w > 0) written += static_cast<size_t>(w);
      if (w <= 0 || written == input.size()) {
        close(in_fd);
        in_fd = -1;
      }
    }
  }
  if (in_fd >= 0) close(in_fd);
  int st = 0;
  waitpid(pid, &st, 0);
  run.secs = (now_ms() - start) / 1000.0;
  if (WIFEXITED(st) && !killed) {
    run.exited = true;
    run.status = WEXITSTATUS(st);
  }
  if (WIFSIGNALED(st)) run.signal = WTERMSIG(st);
  return run;
}

}  // namespace qxtest

#endif  // QX_TESTS_SUPPORT_PROCESS_H_
