// Runs a built program with arguments and standard input, and collects its standard output,
// standard error and exit status.
#ifndef QX_TESTS_INTEGRATION_CMD_PROCESS_H_
#define QX_TESTS_INTEGRATION_CMD_PROCESS_H_

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace qxtest {

struct ProgramRun {
  int exit_status = -1;  // -1 when the program did not exit normally
  std::string out;
  std::string err;
};

inline std::string ProgramPath(const char* name) {
  return std::string(QX_BIN_DIR) + "/" + name;
}

inline ProgramRun RunProgram(const std::string& path, const std::vector<std::string>& args,
                             const std::string& input = "", const char* workdir = nullptr) {
  int in[2], out[2], err[2];
  if (pipe(in) != 0 || pipe(out) != 0 || pipe(err) != 0) return {};
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]})
      close(fd);
    if (workdir != nullptr && chdir(workdir) != 0) _exit(126);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(path.c_str()));
    for (const std::string& a : args)
      argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(path.c_str(), argv.data());
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  close(err[1]);
  signal(SIGPIPE, SIG_IGN);
  size_t written = 0;
  if (input.empty()) {
    close(in[1]);
    in[1] = -1;
  }
  ProgramRun run;
  pollfd fds[3] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}, {in[1], POLLOUT, 0}};
  int open_outputs = 2;
  while (open_outputs > 0) {
    if (poll(fds, 3, 30000) <= 0) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].revents == 0) continue;
      char buf[4096];
      const ssize_t n = read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        (i == 0 ? run.out : run.err).append(buf, static_cast<size_t>(n));
      } else {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open_outputs;
      }
    }
    if (fds[2].fd >= 0 && fds[2].revents != 0) {
      const ssize_t n = write(in[1], input.data() + written, input.size() - written);
      if (n > 0) written += static_cast<size_t>(n);
      if (n <= 0 || written == input.size()) {
        close(in[1]);
        fds[2].fd = -1;
      }
    }
  }
  for (const pollfd& p : fds) {
    if (p.fd >= 0) close(p.fd);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  run.exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

}  // namespace qxtest

#endif  // QX_TESTS_INTEGRATION_CMD_PROCESS_H_
