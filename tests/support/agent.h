// Agents on plain sockets (frames, a scripted fake agent, the agent simulator) and job message
// bodies; nothing here uses the connection manager, so a framing fault cannot hide itself.
#ifndef QX_TESTS_SUPPORT_AGENT_H_
#define QX_TESTS_SUPPORT_AGENT_H_

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>

#include "support/process.h"

namespace agent_test {

using Bytes = std::vector<unsigned char>;
using qxtest::bin_path, qxtest::now_ms, qxtest::run_program, qxtest::RunResult;

// A frame: the 48-byte header, then `body`.
inline Bytes frame(const std::string& body, const char* protocol = "NAT") {
  char h[49];
  snprintf(h, sizeof h, "%08zuQX7:global001%.3s%24s", 48 + body.size(), protocol, "");
  const std::string f = h + body;
  return Bytes(f.begin(), f.end());
}
// A native frame: `key`, one length byte, the data. Key 4 is the agent's greeting.
inline Bytes native_frame(const std::string& data, char key = 4) {
  return frame(std::string{key, static_cast<char>(data.size())} + data);
}
// A NAT frame to `dst` (8 characters) with a payload under the 32-bit length key.
inline Bytes nat_frame(const std::string& dst, const Bytes& payload) {
  std::string len(4, '\0');
  for (int i = 0; i < 4; i++)
    len[i] = static_cast<char>(payload.size() >> (8 * i));
  return frame("\x01\x08" + (dst + "        ").substr(0, 8) + "\xFF" + len +
               std::string(payload.begin(), payload.end()));
}

// An internal frame: the 16-byte type (NUL-padded), a 4-byte channel ID.
inline Bytes ipc_notice(const char* type, int id) {
  std::string rec(16, '\0');
  rec.replace(0, strlen(type), type);
  return frame(rec + std::string(reinterpret_cast<const char*>(&id), 4), "IPC");
}

inline bool write_all(int fd, const Bytes& b) {
  for (size_t at = 0; at < b.size();) {
    const ssize_t w = send(fd, b.data() + at, b.size() - at, MSG_NOSIGNAL);
    if (w < 0 && errno != EINTR) return false;
    at += static_cast<size_t>(std::max<ssize_t>(w, 0));
  }
  return true;
}

// Receives `n` bytes (unless `all`, any): the count, short at a close, -1 past `deadline`.
inline long receive(int fd, unsigned char* p, size_t n, long long deadline, bool all) {
  size_t got = 0;
  while (got < n && (all || got == 0)) {
    pollfd pfd{fd, POLLIN, 0};
    if (poll(&pfd, 1, static_cast<int>(std::max(deadline - now_ms(), 0LL))) == 0) return -1;
    const ssize_t r = recv(fd, p + got, n - got, MSG_DONTWAIT);
    if (r == 0 || (r < 0 && errno != EINTR && errno != EAGAIN)) break;
    got += static_cast<size_t>(std::max<ssize_t>(r, 0));
  }
  return static_cast<long>(got);
}

// One whole frame within `timeout_ms`; false when none came.
inline bool read_frame(int fd, Bytes* out, int timeout_ms = 5000) {
  const long long deadline = now_ms() + timeout_ms;
  unsigned char h[48];
  if (receive(fd, h, 48, deadline, true) != 48) return false;
  const long total = strtol(std::string(h, h + 8).c_str(), nullptr, 10);
  if (total < 48 || total > (1 << 20)) return false;
  Bytes f(static_cast<size_t>(total));
  std::memcpy(f.data(), h, 48);
  if (receive(fd, f.data() + 48, f.size() - 48, deadline, true) != total - 48) return false;
  *out = std::move(f);
  return true;
}

// Waits for the peer's close (false: none within `timeout_ms`), keeping what came.
inline bool wait_eof(int fd, int timeout_ms, Bytes* rest = nullptr) {
  const long long deadline = now_ms() + timeout_ms;
  unsigned char buf[4096];
  for (long r; (r = receive(fd, buf, sizeof buf, deadline, false)) != 0;) {
    if (r < 0) return false;
    if (rest != nullptr) rest->insert(rest->end(), buf, buf + r);
  }
  return true;
}

// A loopback socket listening on `*port` (0: any, stored back) or connected to it; or -1.
inline int loopback_socket(int* port, bool listening, int rcvbuf = 0) {
  const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), one = 1;
  if (rcvbuf != 0) setsockopt(s, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
  sockaddr_in a{AF_INET, htons(static_cast<uint16_t>(*port)), {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t len = sizeof a;
  auto* sa = reinterpret_cast<sockaddr*>(&a);
  setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  if (listening ? bind(s, sa, len) != 0 || listen(s, 64) != 0 || getsockname(s, sa, &len) != 0
                : connect(s, sa, len) != 0) {
    close(s);
    return -1;
  }
  *port = ntohs(a.sin_port);
  return s;
}

// A loopback port on which nothing listens.
inline int refused_port() {
  int port = 0;
  close(loopback_socket(&port, true));
  return port;
}

// Runs `script` on a thread for each connection in turn (it may keep frames; fd = -1 keeps it).
class FakeAgent {
 public:
  using Script = std::function<void(FakeAgent& agent, int& fd, int index)>;
  explicit FakeAgent(Script script, int port = 0, int rcvbuf = 0)
      : script_(std::move(script)), port_(port) {
    listen_fd_ = loopback_socket(&port_, true, rcvbuf);
    if (listen_fd_ < 0) ADD_FAILURE() << "no loopback port for the fake agent";
    if (listen_fd_ >= 0) thread_ = std::thread([this] { serve(); });
  }
  ~FakeAgent() {
    if (listen_fd_ < 0) return;
    stopping_ = true;
    shutdown(listen_fd_, SHUT_RDWR);  // ends the blocked accept
    thread_.join();
    close(listen_fd_);
  }
  int port() const { return port_; }
  int connections() const { return accepted_.load(); }
  // The frames kept, once every accepted connection's script returned (at most 5 s).
  std::vector<Bytes> frames() {
    std::unique_lock<std::mutex> lock(mu_);
    done_.wait_for(lock, std::chrono::seconds(5), [this] { return served_ == accepted_.load(); });
    return frames_;
  }
  void keep(const Bytes& frame) {
    std::lock_guard<std::mutex> lock(mu_);
    frames_.push_back(frame);
  }

 private:
  void serve() {
    while (!stopping_) {
      int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) continue;
      script_(*this, fd, accepted_++);
      if (fd >= 0) close(fd);
      std::lock_guard<std::mutex> lock(mu_);
      served_++;
      done_.notify_all();
    }
  }
  Script script_;
  int port_;
  int listen_fd_ = -1, served_ = 0;  // served_: scripts returned, guarded by mu_
  std::atomic<bool> stopping_{false};
  std::atomic<int> accepted_{0};
  std::mutex mu_;
  std::condition_variable done_;
  std::vector<Bytes> frames_;
  std::thread thread_;
};

// The agent as it should be: greets, keeps one frame, replies and waits for the close.
inline void good_agent(FakeAgent& agent, int& fd, int) {
  if (!write_all(fd, native_frame("QX7 agent"))) return;
  Bytes frame;
  if (!read_frame(fd, &frame)) return;
  agent.keep(frame);
  write_all(fd, native_frame("OK"));
  wait_eof(fd, 5000);
}

// The messenger against a loopback port; a run normally ends within seconds.
inline RunResult run_messenger(int port, std::vector<std::string> args, int limit_secs = 20) {
  args.insert(args.begin(), {"IPA=127.0.0.1", "PNR=" + std::to_string(port)});
  return run_program(bin_path("qx_jpmd"), args, limit_secs);
}

// qx_agentsim on a free loopback port; its output goes to a file.
class Simulator {
 public:
  explicit Simulator(std::vector<std::string> args = {}) : out_(qxtest::temp_file()) {
    args.insert(args.begin(), {bin_path("qx_agentsim"), "--port", "0"});
    pid_ = qxtest::spawn(args, {-1, out_, -1});
    const std::string first = wait_lines(1, 10000) ? lines()[0] : "";
    if (first.rfind("listening on ", 0) == 0) port_ = atoi(first.c_str() + first.rfind(' ') + 1);
    if (port_ <= 0) ADD_FAILURE() << "qx_agentsim did not name its port";
  }
  ~Simulator() {
    if (stop() < 0 && pid_ > 0) kill(pid_, SIGKILL), waitpid(pid_, nullptr, 0);
    close(out_);
  }
  Simulator(const Simulator&) = delete;
  int port() const { return port_; }
  pid_t pid() const { return pid_; }
  // Its exit status once it ended after a SIGTERM, within 10 seconds, or -1.
  int stop() {
    if (pid_ > 0) kill(pid_, SIGTERM);
    int st = 0;
    if (pid_ > 0 && qxtest::reap(pid_, now_ms() + 10000, &st)) {
      pid_ = 0;
      status_ = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }
    return pid_ > 0 ? -1 : status_;
  }
  std::vector<std::string> lines() const {
    const std::string text = qxtest::read_all(out_);
    std::vector<std::string> out;
    for (size_t at = 0, nl; (nl = text.find('\n', at)) != std::string::npos; at = nl + 1)
      out.push_back(text.substr(at, nl - at));
    return out;
  }
  bool wait_lines(size_t n, int timeout_ms) const {
    for (long long end = now_ms() + timeout_ms; now_ms() < end; usleep(5000))
      if (lines().size() >= n) return true;
    return false;
  }

 private:
  int out_, port_ = 0, status_ = -1;
  pid_t pid_ = 0;
};

// The number after "key": in a JSON line, or -1.
inline long long json_number(const std::string& line, const std::string& key) {
  const size_t at = line.find("\"" + key + "\":");
  return at == std::string::npos ? -1 : atoll(line.c_str() + at + key.size() + 3);
}

inline void put_le(Bytes& b, size_t off, unsigned v, int n = 4) {
  for (int i = 0; i < n; i++)
    b[off + i] = static_cast<unsigned char>(v >> (8 * i));
}
inline void put_text(Bytes& b, size_t off, const std::string& s) {
  std::memcpy(b.data() + off, s.data(), s.size());
}

// The MELD head of job `job`, status byte `status`, and the version block at `ver`.
inline Bytes meld_body(size_t size, int client, int job, char status, size_t ver) {
  Bytes b(size, 0);
  put_text(b, 0, "MELD    03");
  put_le(b, 10, static_cast<unsigned>(client), 2);
  put_le(b, 20, static_cast<unsigned>(job));
  b[24] = static_cast<unsigned char>(status);
  put_text(b, ver, "12.2.0+build.2108               ");
  put_le(b, ver + 33, 12, 2);
  put_le(b, ver + 35, 2, 2);
  put_text(b, ver + 39, "  ");
  return b;
}

}  // namespace agent_test

#endif  // QX_TESTS_SUPPORT_AGENT_H_
