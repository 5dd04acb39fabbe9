// Test support for runs of the real messenger against agents written here with plain
// sockets: frame builders and readers, a scripted fake agent on a loopback port, the agent
// simulator, and the expected bytes of the job message bodies.
//
// Nothing here uses the connection manager: the fake agents speak the wire format from
// their own few lines, so that a fault in the system's framing cannot hide itself.
#ifndef QX_TESTS_SUPPORT_AGENT_H_
#define QX_TESTS_SUPPORT_AGENT_H_

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/process.h"

namespace agent_test {

using Bytes = std::vector<unsigned char>;

using qxtest::now_ms;
using qxtest::run_program;
using qxtest::RunResult;

// ---- Frames ---------------------------------------------------------------------------------

// The 48-byte header for a frame of `total` bytes.
inline Bytes header(size_t total, const char* protocol = "NAT") {
  char h[64];
  snprintf(h, sizeof h, "%08zuQX7:global001%.3s%24s", total, protocol, "");
  // Room for the whole frame up front: the builders append the rest without reallocating.
  Bytes b(std::max<size_t>(total, 48));
  std::memcpy(b.data(), h, 48);
  b.resize(48);
  return b;
}

// A native frame: header, `key`, one length byte, the data. Key 4 is the agent's greeting.
inline Bytes native_frame(const std::string& data, unsigned char key = 4) {
  Bytes f = header(48 + 2 + data.size());
  f.push_back(key);
  f.push_back(static_cast<unsigned char>(data.size()));
  f.insert(f.end(), data.begin(), data.end());
  return f;
}

// A NAT frame to `dst` (8 characters) with a payload under the 32-bit key.
inline Bytes nat_frame(const std::string& dst, const Bytes& payload) {
  Bytes f = header(48 + 10 + 5 + payload.size());
  f.push_back(0x01);
  f.push_back(0x08);
  std::string name = (dst + "        ").substr(0, 8);
  f.insert(f.end(), name.begin(), name.end());
  f.push_back(0xFF);
  for (int i = 0; i < 4; i++)
    f.push_back(static_cast<unsigned char>(payload.size() >> (8 * i)));
  f.insert(f.end(), payload.begin(), payload.end());
  return f;
}

inline bool write_all(int fd, const void* data, size_t n) {
  auto* p = static_cast<const unsigned char*>(data);
  while (n > 0) {
    ssize_t w = send(fd, p, n, MSG_NOSIGNAL);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}
inline bool write_all(int fd, const Bytes& b) {
  return write_all(fd, b.data(), b.size());
}

// Reads exactly n bytes within the time left until `deadline`; false on EOF, error or time.
inline bool read_exact(int fd, unsigned char* p, size_t n, long long deadline) {
  while (n > 0) {
    long long left = deadline - now_ms();
    if (left <= 0) return false;
    pollfd pfd{fd, POLLIN, 0};
    if (poll(&pfd, 1, static_cast<int>(left)) <= 0) continue;
    ssize_t r = recv(fd, p, n, 0);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    p += r;
    n -= static_cast<size_t>(r);
  }
  return true;
}

// One whole frame (header included) within `timeout_ms`; false when none came.
inline bool read_frame(int fd, Bytes* out, int timeout_ms = 5000) {
  long long deadline = now_ms() + timeout_ms;
  unsigned char h[48];
  if (!read_exact(fd, h, sizeof h, deadline)) return false;
  long total = strtol(std::string(h, h + 8).c_str(), nullptr, 10);
  if (total < 48 || total > (1 << 20)) return false;
  Bytes f(static_cast<size_t>(total));
  std::memcpy(f.data(), h, sizeof h);
  if (!read_exact(fd, f.data() + 48, f.size() - 48, deadline)) return false;
  *out = std::move(f);
  return true;
}

// Waits until the partner closes (or resets) the connection; false when it does not
// within `timeout_ms`. Everything that arrives meanwhile is appended to `rest`.
inline bool wait_eof(int fd, int timeout_ms, Bytes* rest = nullptr) {
  long long deadline = now_ms() + timeout_ms;
  unsigned char buf[4096];
  for (;;) {
    long long left = deadline - now_ms();
    if (left <= 0) return false;
    pollfd pfd{fd, POLLIN, 0};
    if (poll(&pfd, 1, static_cast<int>(left)) <= 0) continue;
    ssize_t r = recv(fd, buf, sizeof buf, 0);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return true;
    if (rest != nullptr) rest->insert(rest->end(), buf, buf + r);
  }
}

// Closes with a reset instead of an orderly close.
inline void reset_close(int fd) {
  linger lg{1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
  close(fd);
}

// A loopback listening socket on `port` (0: any free one); the port actually used is
// stored back. -1 on failure.
inline int listen_loopback(int* port, int backlog = 64) {
  int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int one = 1;
  setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(static_cast<uint16_t>(*port));
  if (bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(s, backlog) != 0) {
    close(s);
    return -1;
  }
  socklen_t len = sizeof a;
  getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
  *port = ntohs(a.sin_port);
  return s;
}

// A client socket connected to a loopback port; -1 on failure.
inline int connect_loopback(int port) {
  int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(static_cast<uint16_t>(port));
  if (connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    close(s);
    return -1;
  }
  return s;
}

// A loopback port on which nothing listens (connections to it are refused).
inline int refused_port() {
  int port = 0;
  int s = listen_loopback(&port);
  close(s);
  return port;
}

// ---- Fake agent -----------------------------------------------------------------------------

// Accepts connections on a loopback port and runs `script` for each, one after the other,
// on its own thread. The script gets the agent (to keep frames), the connection (closed after
// it returns unless the script closed it and set `fd` to -1) and the connection's number.
class FakeAgent {
 public:
  using Script = std::function<void(FakeAgent& agent, int& fd, int index)>;

  explicit FakeAgent(Script script, int port = 0) : script_(std::move(script)), port_(port) {
    listen_fd_ = listen_loopback(&port_);
    if (pipe(stop_) != 0) stop_[0] = stop_[1] = -1;
    thread_ = std::thread([this] { serve(); });
  }
  ~FakeAgent() {
    if (write(stop_[1], "x", 1) != 1) {
    }
    thread_.join();
    close(listen_fd_);
    close(stop_[0]);
    close(stop_[1]);
  }
  FakeAgent(const FakeAgent&) = delete;
  FakeAgent& operator=(const FakeAgent&) = delete;

  bool ok() const { return listen_fd_ >= 0; }
  int port() const { return port_; }
  int connections() const { return accepted_.load(); }
  std::vector<long long> accept_times() {
    std::lock_guard<std::mutex> lock(mu_);
    return accept_times_;
  }
  // Frames that scripts kept with `keep`.
  void keep(const Bytes& frame) {
    std::lock_guard<std::mutex> lock(mu_);
    frames_.push_back(frame);
  }
  std::vector<Bytes> frames() {
    std::lock_guard<std::mutex> lock(mu_);
    return frames_;
  }

 private:
  void serve() {
    for (;;) {
      pollfd p[2] = {{listen_fd_, POLLIN, 0}, {stop_[0], POLLIN, 0}};
      if (poll(p, 2, -1) < 0) continue;
      if (p[1].revents != 0) return;
      int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) continue;
      int index = accepted_++;
      {
        std::lock_guard<std::mutex> lock(mu_);
        accept_times_.push_back(now_ms());
      }
      script_(*this, fd, index);
      if (fd >= 0) close(fd);
    }
  }

  Script script_;
  int port_;
  int listen_fd_ = -1;
  int stop_[2] = {-1, -1};
  std::atomic<int> accepted_{0};
  std::mutex mu_;
  std::vector<long long> accept_times_;
  std::vector<Bytes> frames_;
  std::thread thread_;
};

// ---- Running the messenger -------------------------------------------------------------------

inline std::string messenger_path() {
  return std::string(QX_BIN_DIR) + "/qx_jpmd";
}

// The messenger against a loopback port.
inline RunResult run_messenger(int port, std::vector<std::string> args, int limit_secs = 30) {
  args.insert(args.begin(), {"IPA=127.0.0.1", "PNR=" + std::to_string(port)});
  return run_program(messenger_path(), args, limit_secs);
}

// ---- The agent simulator ---------------------------------------------------------------------

// qx_agentsim on a free loopback port, its standard output collected line by line.
class Simulator {
 public:
  explicit Simulator(std::vector<std::string> args = {}) {
    args.insert(args.begin(), {"--port", "0"});
    std::string program = std::string(QX_BIN_DIR) + "/qx_agentsim";
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (auto& a : args)
      argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(out[1], 1);
      execv(program.c_str(), argv.data());
      _exit(127);
    }
    close(out[1]);
    out_ = out[0];
    reader_ = std::thread([this] { read_lines(); });
    // The first line names the port: "listening on ADDRESS port PORT".
    std::string first;
    if (wait_lines(1, 10000)) first = lines()[0];
    size_t at = first.rfind(' ');
    if (first.rfind("listening on ", 0) == 0 && at != std::string::npos) {
      port_ = atoi(first.c_str() + at + 1);
    }
  }
  ~Simulator() { stop(); }
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;

  int port() const { return port_; }

  // Stops the simulator with SIGTERM; its exit status, or -1 when a signal ended it.
  int stop() {
    if (pid_ > 0) kill(pid_, SIGTERM);
    return wait_exit(-1);
  }

  // Waits up to `timeout_ms` (-1: no limit) for the simulator to end by itself; its exit
  // status, or -1 when it is still running or a signal ended it.
  int wait_exit(int timeout_ms) {
    if (pid_ <= 0) return status_;
    long long deadline = now_ms() + timeout_ms;
    int st = 0;
    while (waitpid(pid_, &st, timeout_ms < 0 ? 0 : WNOHANG) == 0) {
      if (now_ms() >= deadline) return -1;
      usleep(5000);
    }
    pid_ = 0;
    if (reader_.joinable()) reader_.join();
    close(out_);
    status_ = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return status_;
  }

  std::vector<std::string> lines() {
    std::lock_guard<std::mutex> lock(mu_);
    return lines_;
  }
  // Waits until at least `n` lines came; false when they did not within `timeout_ms`.
  bool wait_lines(size_t n, int timeout_ms) {
    long long deadline = now_ms() + timeout_ms;
    while (now_ms() < deadline) {
      {
        std::lock_guard<std::mutex> lock(mu_);
        if (lines_.size() >= n) return true;
      }
      usleep(5000);
    }
    return false;
  }

 private:
  void read_lines() {
    std::string partial;
    char buf[8192];
    for (;;) {
      ssize_t r = read(out_, buf, sizeof buf);
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) return;
      partial.append(buf, static_cast<size_t>(r));
      size_t nl;
      while ((nl = partial.find('\n')) != std::string::npos) {
        std::lock_guard<std::mutex> lock(mu_);
        lines_.push_back(partial.substr(0, nl));
        partial.erase(0, nl + 1);
      }
    }
  }

  pid_t pid_ = 0;
  int out_ = -1;
  int port_ = 0;
  int status_ = -1;
  std::thread reader_;
  std::mutex mu_;
  std::vector<std::string> lines_;
};

// The number after "\"key\":" in a JSON line, or -1.
inline long long json_number(const std::string& line, const std::string& key) {
  size_t at = line.find("\"" + key + "\":");
  if (at == std::string::npos) return -1;
  return atoll(line.c_str() + at + key.size() + 3);
}

// ---- Expected bodies -----------------------------------------------------------------------

inline void put32(Bytes& b, size_t off, unsigned v) {
  for (int i = 0; i < 4; i++)
    b[off + i] = static_cast<unsigned char>(v >> (8 * i));
}
inline void put16(Bytes& b, size_t off, unsigned v) {
  b[off] = static_cast<unsigned char>(v);
  b[off + 1] = static_cast<unsigned char>(v >> 8);
}
inline void put_text(Bytes& b, size_t off, const std::string& s) {
  std::memcpy(b.data() + off, s.data(), s.size());
}
inline unsigned get32(const Bytes& b, size_t off) {
  return b[off] | b[off + 1] << 8 | b[off + 2] << 16 | static_cast<unsigned>(b[off + 3]) << 24;
}

// The MELD head and the version block at `ver`.
inline Bytes meld_body(size_t size, int client, size_t ver) {
  Bytes b(size, 0);
  put_text(b, 0, "MELD    03");
  put16(b, 10, static_cast<unsigned short>(client));
  put_text(b, ver, "12.2.0+build.2108               ");
  put16(b, ver + 33, 12);
  put16(b, ver + 35, 2);
  put_text(b, ver + 39, "  ");
  return b;
}

inline unsigned get16(const Bytes& b, size_t off) {
  return b[off] | b[off + 1] << 8;
}

// Checks that the seconds at `off_t` lie within a few seconds of now and that the UTC time
// stamp at `off` is the same moment, then copies both into `want`, so that the rest of the
// body can be compared byte for byte.
inline bool adopt_time(const Bytes& got, Bytes& want, size_t off, size_t off_t) {
  time_t sent = static_cast<time_t>(get32(got, off_t));
  time_t now = time(nullptr);
  tm u;
  gmtime_r(&sent, &u);
  const int fields[6] = {u.tm_year + 1900, u.tm_mon + 1, u.tm_mday, u.tm_hour, u.tm_min, u.tm_sec};
  bool same = get32(got, off + 12) == 0;
  for (int i = 0; i < 6; i++)
    same = same && get16(got, off + 2 * i) == unsigned(fields[i]);
  std::memcpy(want.data() + off, got.data() + off, 16);
  std::memcpy(want.data() + off_t, got.data() + off_t, 4);
  return same && now - sent >= 0 && now - sent <= 5;
}

}  // namespace agent_test

#endif  // QX_TESTS_SUPPORT_AGENT_H_
