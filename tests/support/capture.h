// Packet captures and tshark to read them: a writer of pcap files with the Ethernet, IPv4 and
// TCP headers built here, and a runner of tshark with the project's Lua dissector that returns
// the chosen fields of each packet.
#ifndef QX_TESTS_SUPPORT_CAPTURE_H_
#define QX_TESTS_SUPPORT_CAPTURE_H_

#include <array>
#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/agent.h"

namespace capture_test {

using agent_test::Bytes;

// A pcap file of TCP connections between 10.0.0.1 (clients) and 10.0.0.2 (the agent). The
// checksums are left zero: tshark does not check them unless told to.
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
  // `data` as one segment (the last of its direction with `fin`).
  void send(int k, bool from_client, const Bytes& data, bool fin = false) {
    packet(k, from_client, data, kAck | kPsh | (fin ? kFin : 0));
  }
  void fin(int k, bool from_client) { packet(k, from_client, {}, kAck | kFin); }
  bool write(const std::string& path) const {
    FILE* out = fopen(path.c_str(), "wb");
    if (out == nullptr) return false;
    Bytes file;
    // Microsecond time stamps, version 2.4, snap length 262144, Ethernet; little-endian.
    for (uint32_t v : {0xa1b2c3d4u, 2u | 4u << 16, 0u, 0u, 262144u, 1u})
      put32(file, v);
    for (size_t i = 0; i < packets_.size(); i++) {
      const auto size = static_cast<uint32_t>(packets_[i].size());
      for (uint32_t v :
           {static_cast<uint32_t>(i / 1000), static_cast<uint32_t>(i % 1000 * 1000), size, size})
        put32(file, v);
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
    put_be(h, tcp, from_client ? c.client_port : c.server_port, 2);
    put_be(h, tcp + 2, from_client ? c.server_port : c.client_port, 2);
    put_be(h, tcp + 4, c.seq[from_client ? 0 : 1], 4);
    put_be(h, tcp + 8, (flags & kAck) ? c.seq[from_client ? 1 : 0] : 0, 4);
    h[tcp + 12] = 0x50;
    h[tcp + 13] = flags;
    put_be(h, tcp + 14, 65535, 2);
    Bytes p(h.begin(), h.end());
    p.insert(p.end(), data.begin(), data.end());
    c.seq[from_client ? 0 : 1] += static_cast<uint32_t>(n) + ((flags & kFin) ? 1 : 0);
    packets_.push_back(std::move(p));
  }

  std::vector<Conn> conns_;
  std::vector<Bytes> packets_;
};

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
      std::error_code ignored;
      if (!path.empty()) std::filesystem::remove_all(path, ignored);
    }
  } dir;
  return dir.path;
}

// tshark from PATH with `args`, run with its own home.
inline qxtest::RunResult run_tshark(std::vector<std::string> args) {
  const std::string& home = scratch_dir();
  args.insert(args.begin(), {"HOME=" + home, "XDG_CONFIG_HOME=" + home, "tshark"});
  return qxtest::run_program("/usr/bin/env", args, 300);
}

// Why the tests cannot run, or "": tshark is missing, or a dissector of the same name is
// installed in tshark's system plugin folder (the source's copy would then stand aside).
inline std::string tshark_unusable() {
  const qxtest::RunResult run = run_tshark({"-G", "protocols"});
  if (run.status == 127) return "tshark is not installed";  // env found no tshark
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
