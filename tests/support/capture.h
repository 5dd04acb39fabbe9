// Packet captures for the Lua dissector: a relay that keeps what real connections carried, a
// pcap writer, and tshark's fields of each packet.
#ifndef QX_TESTS_SUPPORT_CAPTURE_H_
#define QX_TESTS_SUPPORT_CAPTURE_H_

#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "support/agent.h"

namespace capture_test {

using agent_test::Bytes;

// A fake agent's script that passes its connection through to the agent on `target`, keeping
// an empty frame, then each read as 'C' (from the client) or 'A' and the bytes read; the
// letter alone is the end of that side.
inline agent_test::FakeAgent::Script relay_to(int target) {
  return [target](agent_test::FakeAgent& relay, int& c, int) {
    int port = target;
    const int a = agent_test::loopback_socket(&port, false);
    const timeval limit{20, 0};
    for (int fd : {c, a})
      setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    relay.keep({});
    // Each read is kept before it is passed on, so the kept order follows cause and effect.
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

// A private folder of this test process, removed at exit: tshark's home (so the user's
// plugins and preferences stay out) and the place of the captures.
inline const std::string& scratch_dir() {
  static const struct Dir {
    std::string path;
    Dir() {
      char t[] = "/tmp/qx_tshark_XXXXXX";
      if (mkdtemp(t) != nullptr) path = t;
    }
    ~Dir() {
      std::error_code ec;
      if (!path.empty()) std::filesystem::remove_all(path, ec);
    }
  } dir;
  return dir.path;
}

// A pcap file of raw IPv4 packets between 10.0.0.1, port 40000 + the connection's index, and
// 10.0.0.2, with checksums left 0 (tshark checks none by default).
class Capture {
 public:
  Capture() {
    for (uint32_t v : {0xa1b2c3d4u, 2u | 4u << 16, 0u, 0u, 262144u, 101u})  // 101: raw IP
      put(file_, v, 4, false);
  }
  // A new connection to `server_port` after its handshake; its index.
  int connect(uint16_t server_port) {
    const int k = static_cast<int>(conns_.size());
    conns_.push_back({{static_cast<uint16_t>(40000 + k), server_port}, {1000, 500000}});
    packet(k, true, {}, kSyn);
    packet(k, false, {}, kSyn | kAck);
    packet(k, true, {}, kAck);
    return k;
  }
  // `data` (at most 65,000 bytes) in one segment; no data ends that side.
  void send(int k, bool from_client, const Bytes& data) {
    packet(k, from_client, data, data.empty() ? kAck | kFin : kAck | kPsh);
  }
  // The connections that relay_to kept, each to `server_port`.
  void replay(uint16_t server_port, const std::vector<Bytes>& kept) {
    for (int k = -1; const Bytes& seg : kept)
      seg.empty() ? void(k = connect(server_port))
                  : send(k, seg[0] == 'C', Bytes(seg.begin() + 1, seg.end()));
  }
  // Writes qx7_NAME.pcap into the scratch folder, or into QX_KEEP_CAPTURES (to open it in
  // Wireshark); its path, or "" when it could not be written.
  std::string write(const std::string& name) const {
    const char* keep = getenv("QX_KEEP_CAPTURES");
    const std::string path =
        (keep != nullptr && *keep != 0 ? keep : scratch_dir()) + "/qx7_" + name + ".pcap";
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(file_.data()), static_cast<long>(file_.size()));
    out.close();
    return out.good() ? path : "";
  }

 private:
  static constexpr uint8_t kFin = 0x01, kSyn = 0x02, kPsh = 0x08, kAck = 0x10;
  static void put(Bytes& b, uint32_t v, int n, bool big_endian = true) {
    for (int i = 0; i < n; i++)
      b.push_back(static_cast<unsigned char>(v >> 8 * (big_endian ? n - 1 - i : i)));
  }
  void packet(int k, bool from_client, const Bytes& data, uint8_t flags) {
    auto& [ports, seq] = conns_[k];
    const int me = from_client ? 0 : 1;
    const uint32_t addr[2] = {0x0a000001, 0x0a000002}, size = 40 + uint32_t(data.size());
    Bytes p;
    // IPv4: version, header length, total length, 64 hops, TCP; TCP: 20-byte header, window.
    for (auto [v, n] :
         std::initializer_list<std::pair<uint32_t, int>>{{0x4500, 2},
                                                         {size, 2},
                                                         {0, 4},
                                                         {0x40060000, 4},
                                                         {addr[me], 4},
                                                         {addr[1 - me], 4},
                                                         {ports[me], 2},
                                                         {ports[1 - me], 2},
                                                         {seq[me], 4},
                                                         {(flags & kAck) ? seq[1 - me] : 0, 4},
                                                         {0x5000u | flags, 2},
                                                         {0xffff0000, 4},
                                                         {0, 2}})
      put(p, v, n);
    p.insert(p.end(), data.begin(), data.end());
    seq[me] += static_cast<uint32_t>(data.size()) + ((flags & (kSyn | kFin)) ? 1 : 0);
    for (uint32_t v : {packets_ / 1000, packets_ % 1000 * 1000, size, size})
      put(file_, v, 4, false);
    file_.insert(file_.end(), p.begin(), p.end());
    packets_++;
  }

  std::vector<std::pair<std::array<uint16_t, 2>, std::array<uint32_t, 2>>> conns_;  // ports, seqs
  Bytes file_;
  uint32_t packets_ = 0;
};

// tshark with its own home; with `pcap`, reading it with the source's dissector.
inline qxtest::RunResult run_tshark(std::vector<std::string> args, const std::string& pcap = "") {
  const std::string& home = scratch_dir();
  args.insert(args.begin(), {"HOME=" + home, "XDG_CONFIG_HOME=" + home, "tshark"});
  if (!pcap.empty())
    args.insert(args.begin() + 3,
                {"-n", "-r", pcap, "-X", "lua_script:" QX_SOURCE_DIR "/tools/wireshark/qx7.lua"});
  return qxtest::run_program("/usr/bin/env", args, 300);
}

// Why the tests cannot run, or "": no tshark, or a qx7 dissector in its plugin folder that the
// source's copy would stand aside for.
inline std::string tshark_unusable() {
  const qxtest::RunResult run = run_tshark({"-G", "protocols"});
  if (run.status != 0) return "tshark is not installed";
  return run.out.find("\tqx7\n") != std::string::npos ? "a qx7 dissector is installed" : "";
}

// The Info column and the fields `names` of each packet the dissector showed, by TCP
// connection; several occurrences of a field are joined with "|".
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
  for (std::string line, stream; std::getline(lines, line);) {
    std::stringstream cols(line);
    std::getline(cols, stream, '\t');
    Fields& row = streams[atoi(stream.c_str())].emplace_back();
    for (const std::string& n : names)
      std::getline(cols, row[n], '\t');
  }
  return streams;
}

}  // namespace capture_test

#endif  // QX_TESTS_SUPPORT_CAPTURE_H_
