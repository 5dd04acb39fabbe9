// Packet captures made from real runs, and tshark to read them: a relay that passes a
// connection through to an agent and keeps every read as a TCP segment, a writer of pcap
// files with the Ethernet, IPv4 and TCP headers built here, and a runner of tshark with the
// project's Lua dissector that returns the chosen fields of each packet.
#ifndef QX_TESTS_SUPPORT_CAPTURE_H_
#define QX_TESTS_SUPPORT_CAPTURE_H_

#include <dirent.h>

#include <array>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/agent.h"

namespace capture_test {

using agent_test::Bytes;

// One read of the relay: `data` from the client (or from the agent), or the end of that
// direction (`fin`, with no data).
struct Segment {
  bool from_client;
  Bytes data;
  bool fin = false;
};

// Accepts one connection at a time on a loopback port, connects it to `target_port` and passes
// the bytes both ways until both sides have closed, keeping the segments of each connection.
class Relay {
 public:
  explicit Relay(int target_port) : target_(target_port) {
    listen_fd_ = agent_test::loopback_socket(&port_, true);
    if (listen_fd_ < 0) ADD_FAILURE() << "no loopback port for the relay";
    if (listen_fd_ >= 0) thread_ = std::thread([this] { serve(); });
  }
  ~Relay() {
    if (listen_fd_ < 0) return;
    stopping_ = true;
    shutdown(listen_fd_, SHUT_RDWR);
    thread_.join();
    close(listen_fd_);
  }
  int port() const { return port_; }
  // The segments of every connection passed so far, once the last one has ended (at most
  // 5 seconds).
  std::vector<std::vector<Segment>> connections() {
    std::unique_lock<std::mutex> lock(mu_);
    done_.wait_for(lock, std::chrono::seconds(5), [this] { return !busy_; });
    return conns_;
  }

 private:
  void serve() {
    while (!stopping_) {
      const int c = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (c < 0) continue;
      {
        std::lock_guard<std::mutex> lock(mu_);
        busy_ = true;
      }
      int port = target_;
      const int a = agent_test::loopback_socket(&port, false);
      std::vector<Segment> segs;
      if (a >= 0) pump(c, a, &segs);
      close(c);
      if (a >= 0) close(a);
      {
        std::lock_guard<std::mutex> lock(mu_);
        conns_.push_back(std::move(segs));
        busy_ = false;
      }
      done_.notify_all();
    }
  }
  // Passes bytes until both directions have ended (or 20 seconds passed).
  static void pump(int c, int a, std::vector<Segment>* segs) {
    bool open[2] = {true, true};  // client to agent, agent to client
    const int from[2] = {c, a}, to[2] = {a, c};
    const long long deadline = agent_test::now_ms() + 20000;
    unsigned char buf[65536];
    while ((open[0] || open[1]) && agent_test::now_ms() < deadline) {
      pollfd p[2] = {{c, static_cast<short>(open[0] ? POLLIN : 0), 0},
                     {a, static_cast<short>(open[1] ? POLLIN : 0), 0}};
      if (poll(p, 2, 100) <= 0) continue;
      for (int i = 0; i < 2; i++) {
        if (!open[i] || p[i].revents == 0) continue;
        const ssize_t r = recv(from[i], buf, sizeof buf, MSG_DONTWAIT);
        if (r < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (r > 0) {
          segs->push_back({i == 0, Bytes(buf, buf + r)});
          agent_test::write_all(to[i], segs->back().data);
          continue;
        }
        open[i] = false;
        segs->push_back({i == 0, {}, true});
        shutdown(to[i], SHUT_WR);
      }
    }
  }

  int target_;
  int port_ = 0;
  int listen_fd_ = -1;
  std::atomic<bool> stopping_{false};
  std::mutex mu_;
  std::condition_variable done_;
  bool busy_ = false;                        // guarded by mu_
  std::vector<std::vector<Segment>> conns_;  // guarded by mu_
  std::thread thread_;
};

// A pcap file of TCP connections between 10.0.0.1 (clients) and 10.0.0.2 (the agent).
class Capture {
 public:
  // A connection from `client_port` to `server_port` with its three-way handshake; its index.
  int connect(uint16_t client_port, uint16_t server_port) {
    conns_.push_back({client_port, server_port, {1000, 500000}});
    const int k = static_cast<int>(conns_.size()) - 1;
    packet(k, true, {}, kSyn);
    conns_[k].seq[0]++;
    packet(k, false, {}, kSyn | kAck);
    conns_[k].seq[1]++;
    packet(k, true, {}, kAck);
    return k;
  }
  // `data` as one segment (or, past the largest IPv4 packet, as several).
  void send(int k, bool from_client, const Bytes& data, bool fin = false) {
    for (size_t at = 0; at < data.size() || (at == 0 && fin);) {
      const size_t n = std::min<size_t>(data.size() - at, 60000);
      const bool last = at + n == data.size();
      packet(k, from_client, Bytes(data.begin() + at, data.begin() + at + n),
             kAck | kPsh | (fin && last ? kFin : 0));
      at += n;
      if (n == 0) break;
    }
  }
  void fin(int k, bool from_client) { packet(k, from_client, {}, kAck | kFin); }
  // A whole connection as the relay saw it.
  int replay(uint16_t client_port, uint16_t server_port, const std::vector<Segment>& segs) {
    const int k = connect(client_port, server_port);
    for (const Segment& s : segs)
      s.fin ? fin(k, s.from_client) : send(k, s.from_client, s.data);
    return k;
  }
  bool write(const std::string& path) const {
    FILE* out = fopen(path.c_str(), "wb");
    if (out == nullptr) return false;
    Bytes file;
    put32(file, 0xa1b2c3d4);  // microsecond time stamps, written little-endian
    put32(file, 2 | 4 << 16);
    put32(file, 0);
    put32(file, 0);
    put32(file, 262144);  // snap length
    put32(file, 1);       // Ethernet
    for (size_t i = 0; i < packets_.size(); i++) {
      put32(file, static_cast<uint32_t>(i / 1000));
      put32(file, static_cast<uint32_t>(i % 1000 * 1000));
      put32(file, static_cast<uint32_t>(packets_[i].size()));
      put32(file, static_cast<uint32_t>(packets_[i].size()));
      file.insert(file.end(), packets_[i].begin(), packets_[i].end());
    }
    const bool ok = fwrite(file.data(), 1, file.size(), out) == file.size();
    return fclose(out) == 0 && ok;
  }

 private:
  static constexpr uint8_t kFin = 0x01, kSyn = 0x02, kPsh = 0x08, kAck = 0x10;
  struct Conn {
    uint16_t client_port, server_port;
    uint32_t seq[2];  // next sequence number from the client, from the server
  };
  static void put32(Bytes& b, uint32_t v) {
    for (int i = 0; i < 4; i++)
      b.push_back(static_cast<unsigned char>(v >> (8 * i)));
  }
  using Header = std::array<unsigned char, 54>;  // Ethernet, IPv4 and TCP without options
  static void put_be(Header& b, size_t off, uint32_t v, int n) {
    for (int i = 0; i < n; i++)
      b[off + i] = static_cast<unsigned char>(v >> (8 * (n - 1 - i)));
  }
  // The Internet checksum of `n` bytes at `p`, `sum` added (the TCP pseudo-header).
  static uint16_t checksum(const unsigned char* p, size_t n, uint32_t sum = 0) {
    for (size_t i = 0; i < n; i += 2)
      sum += static_cast<uint32_t>(p[i] << 8 | (i + 1 < n ? p[i + 1] : 0));
    while (sum >> 16)
      sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
  }
  void packet(int k, bool from_client, const Bytes& data, uint8_t flags) {
    Conn& c = conns_[k];
    constexpr size_t ip = 14, tcp = ip + 20;
    const size_t n = data.size();
    Header h{};
    put_be(h, 12, 0x0800, 2);
    h[ip] = 0x45;
    put_be(h, ip + 2, static_cast<uint32_t>(40 + n), 2);
    h[ip + 8] = 64;
    h[ip + 9] = 6;
    const uint32_t client = 0x0a000001, server = 0x0a000002;
    put_be(h, ip + 12, from_client ? client : server, 4);
    put_be(h, ip + 16, from_client ? server : client, 4);
    put_be(h, ip + 10, checksum(h.data() + ip, 20), 2);
    put_be(h, tcp, from_client ? c.client_port : c.server_port, 2);
    put_be(h, tcp + 2, from_client ? c.server_port : c.client_port, 2);
    put_be(h, tcp + 4, c.seq[from_client ? 0 : 1], 4);
    put_be(h, tcp + 8, (flags & kAck) ? c.seq[from_client ? 1 : 0] : 0, 4);
    h[tcp + 12] = 0x50;
    h[tcp + 13] = flags;
    put_be(h, tcp + 14, 65535, 2);
    Bytes p(h.begin(), h.end());
    p.insert(p.end(), data.begin(), data.end());
    // Pseudo-header: addresses, protocol and TCP length.
    const uint32_t pseudo = (client >> 16) + (client & 0xffff) + (server >> 16) +
                            (server & 0xffff) + 6 + static_cast<uint32_t>(20 + n);
    const uint16_t sum = checksum(p.data() + tcp, 20 + n, pseudo);
    p[tcp + 16] = static_cast<unsigned char>(sum >> 8);
    p[tcp + 17] = static_cast<unsigned char>(sum);
    c.seq[from_client ? 0 : 1] += static_cast<uint32_t>(n) + ((flags & kFin) ? 1 : 0);
    packets_.push_back(std::move(p));
  }

  std::vector<Conn> conns_;
  std::vector<Bytes> packets_;
};

// tshark from PATH, or "" when it is not installed.
inline std::string tshark_path() {
  const char* path = getenv("PATH");
  std::stringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
  for (std::string dir; std::getline(dirs, dir, ':');) {
    const std::string p = dir + "/tshark";
    if (access(p.c_str(), X_OK) == 0) return p;
  }
  return "";
}

// The project's dissector.
inline std::string dissector_path() {
  return std::string(QX_SOURCE_DIR) + "/tools/wireshark/qx7.lua";
}

// A private folder of this test process (mkdtemp), removed with its files at exit: tshark's
// home, so that a copy of the dissector in the user's plugin folder and the user's
// preferences stay out of the tests, and the place of the capture files.
inline const std::string& scratch_dir() {
  static const struct Dir {
    std::string path;
    Dir() {
      char t[] = "/tmp/qx_tshark_XXXXXX";
      if (mkdtemp(t) != nullptr) path = t;
    }
    ~Dir() {
      if (path.empty()) return;
      if (DIR* d = opendir(path.c_str()); d != nullptr) {
        for (dirent* e; (e = readdir(d)) != nullptr;)
          if (e->d_name[0] != '.') unlink((path + "/" + e->d_name).c_str());
        closedir(d);
      }
      rmdir(path.c_str());
    }
  } dir;
  return dir.path;
}

// tshark with `args`, run with its own home.
inline qxtest::RunResult run_tshark(std::vector<std::string> args) {
  const std::string& home = scratch_dir();
  args.insert(args.begin(), {"HOME=" + home, "XDG_CONFIG_HOME=" + home, tshark_path()});
  return qxtest::run_program("/usr/bin/env", args, 300);
}

// Why the tests cannot run, or "": tshark is missing, or a dissector of the same name is
// installed in tshark's system plugin folder (the source's copy would then stand aside).
inline std::string tshark_unusable() {
  if (tshark_path().empty()) return "tshark is not installed";
  const qxtest::RunResult run = run_tshark({"-G", "protocols"});
  if (run.out.find("\tqx7\n") != std::string::npos)
    return "a qx7 dissector is installed in tshark's plugin folder";
  return "";
}

// tshark over `pcap` with the source's dissector loaded.
inline qxtest::RunResult tshark(const std::string& pcap, std::vector<std::string> args) {
  args.insert(args.begin(), {"-n", "-X", "lua_script:" + dissector_path(), "-r", pcap});
  return run_tshark(args);
}

// Each packet that the dissector showed, as field name -> value (several occurrences joined
// with "|"), in packet order. `tcp.stream` and `_ws.col.Info` are always there.
using Fields = std::map<std::string, std::string>;
inline std::vector<Fields> tshark_fields(const std::string& pcap, std::vector<std::string> names,
                                         std::vector<std::string> extra = {}) {
  names.insert(names.begin(), {"tcp.stream", "_ws.col.Info"});
  std::vector<std::string> args = {"-Y", "qx7",          "-T", "fields",       "-E", "separator=/t",
                                   "-E", "occurrence=a", "-E", "aggregator=|", "-E", "quote=n"};
  args.insert(args.end(), extra.begin(), extra.end());
  for (const std::string& n : names) {
    args.push_back("-e");
    args.push_back(n);
  }
  const qxtest::RunResult run = tshark(pcap, args);
  EXPECT_EQ(run.status, 0) << run.err;
  std::vector<Fields> rows;
  std::stringstream lines(run.out);
  for (std::string line; std::getline(lines, line);) {
    Fields row;
    size_t at = 0;
    for (const std::string& n : names) {
      const size_t tab = line.find('\t', at);
      row[n] = line.substr(at, tab == std::string::npos ? std::string::npos : tab - at);
      at = tab == std::string::npos ? line.size() : tab + 1;
    }
    rows.push_back(std::move(row));
  }
  return rows;
}

// The rows of one TCP connection (by its index in the capture).
inline std::vector<Fields> of_stream(const std::vector<Fields>& rows, int stream) {
  std::vector<Fields> out;
  for (const Fields& r : rows)
    if (r.at("tcp.stream") == std::to_string(stream)) out.push_back(r);
  return out;
}

}  // namespace capture_test

#endif  // QX_TESTS_SUPPORT_CAPTURE_H_
