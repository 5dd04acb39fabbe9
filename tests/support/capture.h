// Packet captures for the Lua dissector: a keeping relay, a pcap writer, tshark's fields.
#ifndef QX_TESTS_SUPPORT_CAPTURE_H_
#define QX_TESTS_SUPPORT_CAPTURE_H_

#include <sys/stat.h>

#include <fstream>
#include <map>
#include <sstream>

#include "support/agent.h"

namespace capture_test {

using agent_test::Bytes;

// A relay to `target` keeping an empty frame, then each read as 'C'/'A' + bytes ('C' alone: EOF).
inline agent_test::FakeAgent::Script relay_to(int target) {
  return [target](agent_test::FakeAgent& relay, int& c, int) {
    int port = target;
    const int a = agent_test::loopback_socket(&port, false);
    const timeval limit{5, 0};
    for (int fd : {c, a})
      setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    relay.keep({});
    auto pass = [&relay](int from, int to, unsigned char side) {
      Bytes seg;
      do {
        seg.assign(65537, side);
        seg.resize(1 + std::max<ssize_t>(recv(from, seg.data() + 1, 65536, 0), 0));
        relay.keep(seg);
      } while (seg.size() > 1 && agent_test::write_all(to, Bytes(seg.begin() + 1, seg.end())));
      shutdown(to, SHUT_WR);
    };
    std::thread back(pass, a, c, 'A');
    pass(c, a, 'C');
    back.join();
    if (a >= 0) close(a);
  };
}

// tshark's home (keeping the user's plugins out), and the captures' unless QX_KEEP_CAPTURES.
inline std::string capture_dir(bool home = false) {
  const char* keep = home ? nullptr : getenv("QX_KEEP_CAPTURES");
  const std::string dir = keep != nullptr && *keep != 0 ? keep : QX_BIN_DIR "/../qx7_captures";
  return mkdir(dir.c_str(), 0700), dir;
}

// Raw IPv4 packets from 10.0.0.1:40000+index to 10.0.0.2; checksums 0 (tshark checks none).
class Capture {
 public:
  Capture() {
    for (uint32_t v : {0xa1b2c3d4u, 2u | 4u << 16, 0u, 0u, 262144u, 101u})  // 101: raw IP
      put(file_, v, false);
  }
  // A new connection to `server_port` after its handshake; its index.
  int connect(uint16_t server_port) {
    const int k = static_cast<int>(conns_.size());
    conns_.push_back({40000u + k, server_port, 1000, 500000});
    for (uint8_t flags : {kSyn, uint8_t(kSyn | kAck), kAck})
      packet(k, flags != (kSyn | kAck), {}, flags);
    return k;
  }
  // `data` (at most 65,000 bytes) in one segment; no data ends that side.
  void send(int k, bool from_client, const Bytes& data) {
    packet(k, from_client, data, data.empty() ? kAck | kFin : kAck | kPsh);
  }
  // Writes qx7_NAME.pcap into capture_dir() (a failed write shows as tshark's failure); its path.
  std::string write(const std::string& name) const {
    const std::string path = capture_dir() + "/qx7_" + name + ".pcap";
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(file_.data()), long(file_.size()));
    return path;
  }

 private:
  static constexpr uint8_t kFin = 0x01, kSyn = 0x02, kPsh = 0x08, kAck = 0x10;
  static void put(Bytes& b, uint32_t v, bool big_endian = true) {
    for (int i = 0; i < 4; i++)
      b.push_back(static_cast<unsigned char>(v >> 8 * (big_endian ? 3 - i : i)));
  }
  void packet(int k, bool from_client, const Bytes& data, uint8_t flags) {
    std::vector<uint32_t>& c = conns_[k];
    const uint32_t me = from_client ? 0 : 1, size = 40 + uint32_t(data.size());
    for (uint32_t v : {packets_ / 1000, packets_ % 1000 * 1000, size, size})  // time, lengths
      put(file_, v, false);
    // An IPv4 header (64 hops, TCP), then TCP's ports, sequence, ack, flags and window.
    const uint32_t addr = 0x0a000001 + me, port = c[me] << 16 | c[1 - me];
    const uint32_t ack = (flags & kAck) ? c[3 - me] : 0, tcp = (0x5000u | flags) << 16 | 0xffff;
    for (uint32_t w :
         {0x45000000 | size, 0u, 0x40060000u, addr, addr ^ 3, port, c[2 + me], ack, tcp, 0u})
      put(file_, w);
    file_.insert(file_.end(), data.begin(), data.end());
    c[2 + me] += uint32_t(data.size()) + ((flags & (kSyn | kFin)) ? 1 : 0);
    packets_++;
  }
  std::vector<std::vector<uint32_t>> conns_;  // ports, next sequence numbers: client's, server's
  Bytes file_;
  uint32_t packets_ = 0;
};

// tshark with its own home; with `pcap`, reading it with the source's dissector.
inline qxtest::RunResult run_tshark(std::vector<std::string> args, const std::string& pcap = "") {
  const std::string home = capture_dir(true);
  args.insert(args.begin(), {"HOME=" + home, "XDG_CONFIG_HOME=" + home, "tshark"});
  if (!pcap.empty())
    args.insert(args.begin() + 3,
                {"-n", "-r", pcap, "-X", "lua_script:" QX_SOURCE_DIR "/tools/wireshark/qx7.lua"});
  return qxtest::run_program("/usr/bin/env", args, 120);
}

// By TCP connection, the Info column and fields `names` of each qx7 packet (repeats "|"-joined).
using Fields = std::map<std::string, std::string>;
inline std::map<int, std::vector<Fields>> tshark_fields(const std::string& pcap,
                                                        std::vector<std::string> names,
                                                        std::vector<std::string> args = {}) {
  names.insert(names.begin(), "_ws.col.Info");
  args.insert(args.end(), {"-Y", "qx7", "-T", "fields", "-E", "occurrence=a", "-E", "aggregator=|",
                           "-E", "quote=n", "-e", "tcp.stream"});
  for (const std::string& n : names)
    args.insert(args.end(), {"-e", n});
  const qxtest::RunResult run = run_tshark(args, pcap);
  EXPECT_EQ(run.status, 0) << run.err;
  std::map<int, std::vector<Fields>> streams;
  std::stringstream lines(run.out);
  for (std::string line; std::getline(lines, line);) {
    Fields& row = streams[atoi(line.c_str())].emplace_back();
    std::stringstream cols(line.substr(line.find('\t') + 1));
    for (const std::string& n : names)
      std::getline(cols, row[n], '\t');
  }
  return streams;
}

}  // namespace capture_test

#endif  // QX_TESTS_SUPPORT_CAPTURE_H_
