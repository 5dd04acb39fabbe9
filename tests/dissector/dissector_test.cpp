// tools/wireshark/qx7.lua read through tshark: real runs against the agent simulator and a
// fake agent, crafted and malformed frames in any segmentation, the port and the heuristic,
// and hostile input that must never raise a Lua error.
#include <optional>
#include <random>

#include "support/capture.h"

namespace {

using namespace agent_test;
using namespace capture_test;
using namespace std::string_literals;

constexpr uint16_t kPort = 2217;  // the simulator's default, the dissector's default port

#define REQUIRE_TSHARK() \
  if (const std::string why = tshark_unusable(); !why.empty()) GTEST_SKIP() << why

Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts)
    out.insert(out.end(), p.begin(), p.end());
  return out;
}
Bytes part(const Bytes& b, size_t from, size_t to = SIZE_MAX) {
  to = std::min(to, b.size());
  return Bytes(b.begin() + static_cast<long>(std::min(from, to)), b.begin() + long(to));
}
Bytes text(const std::string& s) {
  return Bytes(s.begin(), s.end());
}

// How often `value` occurs in field `name` over the packets `rows`.
int count(const std::vector<Fields>& rows, const std::string& name, const std::string& value) {
  int n = 0;
  for (const Fields& r : rows)
    for (size_t at = 0; r.count(name) && (at = r.at(name).find(value, at)) != r.at(name).npos;)
      n++, at += std::max<size_t>(value.size(), 1);
  return n;
}

// The value of `key` in a JSON line of the simulator (a string without its quotes: the
// values here hold no escapes).
std::optional<std::string> json_value(const std::string& line, const std::string& key) {
  size_t at = line.find("\"" + key + "\":");
  if (at == std::string::npos) return std::nullopt;
  at += key.size() + 3;
  if (line[at] == '"') return line.substr(at + 1, line.find('"', at + 1) - at - 1);
  return line.substr(at, line.find_first_of(",}", at) - at);
}

// One event kind per row, each run through a relay to the simulator, then to the fake agent:
// greeting, job message and reply show what the simulator read from the same bytes.
TEST(Dissector, EveryEventKindFromRealRuns) {
  REQUIRE_TSHARK();
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      // arguments, Info
      {{"TYP=S", "JNR=4711", "MNR=100", "TXT=nightly backup"},
       "job 4711 running rc=0 \"nightly backup\""},
      {{"TYP=R", "JNR=4712", "RET=2"}, "job 4712 running rc=2"},
      {{"TYP=0", "JNR=4713"}, "job 4713 running rc=0"},
      {{"TYP=1", "JNR=4714", "TXT=awake"}, "job 4714 running rc=0 \"awake\""},
      {{"TYP=E", "JNR=4711", "RET=3", "TXT=backup"}, "job 4711 end rc=3 \"backup\""},
      {{"TYP=O", "JNR=4715", "OUTFILE=/var/log/b.out", "ULOGIN=Y"},
       "job 4715 output \"/var/log/b.out\" login=Y"},
      {{"TYP=V", "JNR=4716", "NAME=ROWS", "VALUE=1234", "VTYPE=N"},
       "job 4716 variable ROWS=\"1234\" type=N"},
      {{"TYP=V", "JNR=4717"}, "job 4717 variable (none)"},
  };
  const size_t n = std::size(cases);
  Simulator sim({"--json"});
  FakeAgent fake(good_agent);
  Capture cap;
  std::vector<size_t> sent;  // bytes from the messenger, per connection
  for (int agent : {sim.port(), fake.port()}) {
    FakeAgent relay(relay_to(agent));
    for (const auto& [args, info] : cases) {
      std::vector<std::string> a = args;
      a.push_back("TIMEOUT=5");
      ASSERT_TRUE(run_messenger(relay.port(), a).exited) << info;
    }
    const std::vector<Bytes> kept = relay.frames();
    cap.replay(kPort, kept);
    for (const Bytes& seg : kept)
      seg.empty() ? sent.push_back(0) : void(sent.back() += seg[0] == 'C' ? seg.size() - 1 : 0);
  }
  ASSERT_EQ(sent.size(), 2 * n);
  ASSERT_TRUE(sim.wait_lines(1 + n, 5000));
  const std::pair<std::string, const char*> from_sim[] = {
      {"job", "job"},       {"client", "client"},   {"status", "status"},
      {"rc", "rc"},         {"text", "text"},       {"utc", "utc"},
      {"seconds", "time"},  {"pid", "pid"},         {"ppid", "ppid"},
      {"pgrp", "pgrp"},     {"file", "file"},       {"login_check", "login_check"},
      {"var.name", "name"}, {"var.value", "value"}, {"var.type", "type"}};
  std::vector<std::string> names = {"qx7.message",  "qx7.length",      "qx7.protocol",
                                    "qx7.dst.name", "qx7.native.text", "qx7.meld.md_version"};
  for (const auto& [field, key] : from_sim)
    names.push_back("qx7.meld." + field);
  auto streams = tshark_fields(cap.write("events"), names);
  const auto lines = sim.lines();
  for (size_t i = 0; i < 2 * n; i++) {
    const bool simulated = i < n;
    const std::string& info = cases[i % n].second;
    SCOPED_TRACE((simulated ? "simulator: " : "fake agent: ") + info);
    const auto& s = streams[static_cast<int>(i)];
    ASSERT_EQ(s.size(), 3u) << testing::PrintToString(s);
    const char typ = cases[i % n].first[0][4];
    const std::pair<const char*, std::string> want[] = {
        {"_ws.col.Info", info},
        {"qx7.message", typ == 'O'   ? "output view"
                        : typ == 'V' ? "variable"
                                     : "job status"},
        {"qx7.protocol", "NAT"},
        {"qx7.dst.name", "JPAKTJ_R"},
        {"qx7.length", std::to_string(sent[i])},
        {"qx7.meld.md_version", "12.2.0+build.2108"},
        {"qx7.meld.ppid", typ == 'O' || typ == 'V' ? "" : std::to_string(getpid())}};
    for (const auto& [field, value] : want)
      EXPECT_EQ(s[1].at(field), value) << field;
    EXPECT_EQ(s[0].at("_ws.col.Info") + s[2].at("_ws.col.Info"), "greetingreply");
    EXPECT_EQ(s[0].at("qx7.native.text"), simulated ? "QX7 agent simulator" : "QX7 agent");
    EXPECT_EQ(s[2].at("qx7.native.text"), "OK");
    // The fake agent's runs against the simulator's reading of the same case.
    for (const auto& [field, key] : from_sim) {
      const auto v = json_value(lines.at(1 + i % n), key);
      if (!v || (!simulated && "time utc pid"s.find(key) != std::string::npos)) continue;
      EXPECT_EQ(s[1].at("qx7.meld." + field), *v) << field;
    }
  }
}

// A frame of protocol `proto` with `body`.
Bytes framed(const char* proto, const Bytes& body, const char* coding = "") {
  char h[49];
  snprintf(h, sizeof h, "%08zuQX7:global001%.3s%-8.8s%16s", 48 + body.size(), proto, coding, "");
  return cat({Bytes(h, h + 48), body});
}
// The job status body of job 4711, ended with return code 3 and the text "nightly backup".
Bytes end_body() {
  Bytes b = meld_body(276, 100, 4711, 'E', 57);
  put_text(b, 25, "nightly backup"s + '\0' + std::string(17, ' '));
  put_le(b, 100, 3);
  return b;
}
// An internal record: its type NUL-padded to 16 bytes, then texts and numbers at offsets.
Bytes ipc_record(const char* type, size_t size,
                 std::initializer_list<std::pair<size_t, std::string>> texts = {},
                 std::initializer_list<std::pair<size_t, unsigned>> numbers = {}) {
  Bytes b(size, 0);
  put_text(b, 0, std::string(type).substr(0, size));
  for (const auto& [at, t] : texts)
    put_text(b, at, t);
  for (const auto& [at, v] : numbers)
    put_le(b, at, v);
  return b;
}

// Frames made here, one connection each after a greeting: the same job message cut into
// other segments, internal records, GSS and other keys, and every malformed case. Each case
// shows exactly its expert information and its count of job 4711's messages.
TEST(Dissector, CraftedFramesAndEveryMalformedCase) {
  REQUIRE_TSHARK();
  const Bytes j = nat_frame("JPAKTJ_R", end_body());
  const std::string info = "job 4711 end rc=3 \"nightly backup\"";
  // Destination address, name, source name; destination ID, the job message's length.
  const Bytes routenat =
      cat({ipc_record("ROUTENAT", 308,
                      {{16, "#CCMADDR"}, {32, "*SERVER"}, {96, "JPAKTJ_R"}, {232, "JOBSRC  "}},
                      {{28, 5}, {304, 276}}),
           end_body()});
  const Bytes passfd = ipc_record("PASSFD", 156, {{28, "*LISTEN"}}, {{16, 7}, {20, 3}, {24, 1}});
  const Bytes logging = ipc_record("LOGGING", 1044, {{20, "7/ID=1"}}, {{16, 2003060}});
  std::vector<Bytes> bytewise;
  for (size_t i = 0; i < 60; i++)
    bytewise.push_back(part(j, i, i + 1));
  bytewise.push_back(part(j, 60));
  Bytes short_variable = meld_body(400, 0, 5, 'V', 57);
  put_le(short_variable, 124, 1225);
  put_le(short_variable, 120, 108);
  const Bytes bad_length = cat({text("0000x339"), part(j, 8)});
  const struct Case {
    const char* name;
    std::vector<Bytes> segments;  // from the messenger; an empty one ends its side
    std::string info;             // part of the Info column
    std::string experts = "";     // the qx7.expert.* fields set
    std::vector<std::pair<std::string, std::string>> fields = {};  // field, part of its value
    int jobs = 0;
  } cases[] = {
      Case("split in five",
           {part(j, 0, 1), part(j, 1, 8), part(j, 8, 48), part(j, 48, 150), part(j, 150)}, info, "",
           {{"qx7.meld.client", "100"}}, 1),
      Case("byte by byte through the header", bytewise, info, "", {}, 1),
      Case("two frames in one segment", {cat({j, j})}, info + "; " + info, "", {}, 2),
      Case("a segment with the end of one frame and the start of the next",
           {part(j, 0, 200), cat({part(j, 200), part(j, 0, 100)}), part(j, 100)}, info, "", {}, 2),
      Case("ROUTENAT", {framed("IPC", routenat)}, "IPC ROUTENAT: " + info, "",
           {{"qx7.ipc.addr.dst_name", "JPAKTJ_R"},
            {"qx7.ipc.addr.dst_addr", "*SERVER"},
            {"qx7.ipc.addr.dst_id", "5"},
            {"qx7.ipc.route.len", "276"}},
           1),
      Case("PASSFD", {framed("IPC", passfd)}, "IPC PASSFD fd=7 \"*LISTEN\"", "odd",
           {{"qx7.ipc.agent_id", "3"}, {"qx7.ipc.listener_id", "1"}}),
      Case("LOGGING", {framed("IPC", logging)}, "IPC LOGGING 2003060 \"7/ID=1\""),
      Case("GSS", {framed("GSS", text("token"), "KRB5")}, "GSS coding=\"KRB5\", 5 bytes", "",
           {{"qx7.gss.data", "746f6b656e"}}),
      Case("native frame under key 7", {native_frame("hello", 7)}, "native key 0x07, 5 bytes"),
      Case("native frame under a decimal length", {frame("A0000005hello")},
           "native key 0x41, 5 bytes", "", {{"qx7.native.text", "hello"}}),
      Case("job message under the 16-bit key",
           {frame("\x01\x08JPAKTJ_R\xFE\x14\x01"s + std::string(j.begin() + 63, j.end()))}, info,
           "", {}, 1),
      Case("source block",
           {frame("\x01\x08JPAKTJ_R\xFF\x02\x00\x00\x00hi\xFD\x0C\x00\x01\x08SENDER  \x02\x00"s)},
           "", "odd", {{"qx7.src.name", "SENDER"}, {"qx7.dst.name", "JPAKTJ_R"}}),
      Case("length not 8 digits", {bad_length}, "malformed: length \"0000x339\" is not 8 digits",
           "length"),
      Case("length inside the header", {cat({text("00000020"), part(j, 8)})},
           "lies inside the 48-byte header", "length"),
      Case("length beyond any frame", {cat({text("99999999"), part(j, 8)})},
           "exceeds the largest frame", "length"),
      Case("the connection ends inside a frame", {part(j, 0, 200), {}},
           "the connection ended inside the frame of 339 bytes", "closed"),
      Case("data after a malformed frame", {bad_length, j}, "data after a malformed frame",
           "length after"),
      Case("unknown protocol", {framed("XYZ", text("abc"))}, "malformed: unknown protocol \"XYZ\"",
           "protocol"),
      Case("unknown key", {frame("\x01\x08JPAKTJ_R\x09\x02xy")}, "malformed: unknown key 0x09",
           "key"),
      Case("key length past its frame", {frame("\xFF\xE8\x03\x00\x00short"s)},
           "entry of key 0xFF runs past its frame", "entry"),
      Case("length field past its frame", {frame("\xFF\x05")},
           "length of key 0xFF runs past its frame", "entry"),
      Case("decimal length not digits", {frame("A12x4567abc")},
           "length of key 0x41 is not 7 digits", "entry"),
      Case("destination value not 4 bytes", {frame("\x02\x02xy")}, "destination value of 2 bytes",
           "entry"),
      Case("truncated job message", {nat_frame("JPAKTJ_R", part(end_body(), 0, 110))},
           "job 4711 end rc=3", "truncated", {}, 1),
      Case("truncated variable record", {nat_frame("JPAKTJ_R", short_variable)}, "", "truncated",
           {{"qx7.meld.var.len", "1225"}}),
      Case("truncated ROUTENAT", {framed("IPC", part(routenat, 0, 100))}, "ROUTENAT", "truncated"),
      Case("truncated PASSFD", {framed("IPC", part(passfd, 0, 40))}, "", "truncated odd",
           {{"qx7.ipc.listener_id", "1"}}),
      Case("truncated LOGGING", {framed("IPC", part(logging, 0, 18))}, "LOGGING", "truncated"),
      Case("record shorter than its type", {framed("IPC", text("ROUTE"))}, "", "truncated"),
      Case("forged CHANNEL_ACCEPT", {framed("IPC", ipc_record("CHANNEL_ACCEPT", 20))}, "", "forged",
           {{"qx7.ipc.channel_id", "0"}}),
  };
  const std::string experts[] = {"length", "protocol", "key",    "entry", "truncated",
                                 "closed", "after",    "forged", "odd",   "fault"};
  std::vector<std::string> names = {"qx7.meld.job"};
  for (const std::string& x : experts)
    names.push_back("qx7.expert." + x);
  Capture cap;
  for (const Case& c : cases) {
    const int k = cap.connect(kPort);
    cap.send(k, false, native_frame("QX7 agent"));
    for (const Bytes& seg : c.segments)
      cap.send(k, true, seg);
    for (const auto& [name, value] : c.fields)
      names.push_back(name);
  }
  auto streams = tshark_fields(cap.write("crafted"), names);
  for (size_t i = 0; i < std::size(cases); i++) {
    const Case& c = cases[i];
    SCOPED_TRACE(c.name + testing::PrintToString(streams[static_cast<int>(i)]));
    const auto& s = streams[static_cast<int>(i)];
    EXPECT_GT(count(s, "_ws.col.Info", c.info), 0);
    for (const auto& [name, value] : c.fields)
      EXPECT_GT(count(s, name, value), 0) << name << " " << value;
    for (const std::string& x : experts)
      EXPECT_EQ(count(s, "qx7.expert." + x, "1") > 0,
                (" " + c.experts + " ").find(" " + x + " ") != std::string::npos)
          << x;
    EXPECT_EQ(count(s, "qx7.meld.job", "4711"), c.jobs);
  }
}

// Port 2217 by the port table, another port by the heuristic (which sees the header in a
// segment of its own); without the heuristic only the port of the preference.
TEST(Dissector, PortPreferenceAndHeuristic) {
  REQUIRE_TSHARK();
  const Bytes job = nat_frame("JPAKTJ_R", end_body());
  Capture cap;
  for (uint16_t port : {kPort, uint16_t{23456}}) {
    const int k = cap.connect(port);
    cap.send(k, false, native_frame("QX7 agent"));
    cap.send(k, true, part(job, 0, 100));
    cap.send(k, true, part(job, 100));
  }
  const std::string pcap = cap.write("ports");
  const std::pair<std::vector<std::string>, int> cases[] = {
      // options, streams shown
      {{}, 2},
      {{"-o", "qx7.heuristic:FALSE"}, 0},
      {{"-o", "qx7.heuristic:FALSE", "-o", "qx7.tcp_port:23456"}, 1}};
  for (const auto& [options, shown] : cases) {
    SCOPED_TRACE(testing::PrintToString(options));
    auto streams = tshark_fields(pcap, {"qx7.meld.job"}, options);
    for (int k = 0; k < 2; k++)
      EXPECT_EQ(count(streams[k], "qx7.meld.job", "4711"), int(shown == 2 || shown == k)) << k;
  }
}

// Every fuzz corpus file and random bytes (some behind a valid header), whole and cut into
// random segments, on the dissector's port and on another (the heuristic): tshark shows every
// packet's tree, ends in time, and reports no Lua error and no dissector fault.
TEST(Dissector, HostileInputRaisesNoLuaError) {
  REQUIRE_TSHARK();
  std::vector<Bytes> inputs;
  std::error_code ec;
  for (const auto& f :
       std::filesystem::recursive_directory_iterator(QX_SOURCE_DIR "/fuzz/corpus", ec)) {
    if (!f.is_regular_file()) continue;
    std::ifstream in(f.path(), std::ios::binary);
    inputs.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    // A channel_read input is two bytes of chunk sizes, then the stream.
    if (f.path().parent_path().filename() == "channel_read")
      inputs.push_back(part(inputs.back(), 2));
  }
  ASSERT_GE(inputs.size(), 12u + 2 * 9 + 7) << "fuzz/corpus not found";
  std::mt19937 rng(17);
  for (int i = 0; i < 120; i++) {
    Bytes& b = inputs.emplace_back(rng() % 2000 + 1);
    for (auto& x : b)
      x = static_cast<unsigned char>(rng());
    if (i % 3 != 0) continue;
    if (i % 2 == 0)  // keyed entries with small lengths
      for (size_t k = 0; k + 1 < b.size(); k += 2)
        b[k] = "\x01\x02\x03\x04\x07\x3B\xF9\x41\x44\xFD\xFE\xFF"[rng() % 12], b[k + 1] &= 7;
    b = framed(&"NAT\0IPC\0GSS\0QQQ"[rng() % 4 * 4], b);
    if (i % 5 == 0) b.resize(rng() % b.size());
  }
  Capture cap;
  for (const Bytes& in : inputs) {
    for (uint16_t port : {kPort, uint16_t{7011}}) {
      int k = cap.connect(port);
      cap.send(k, true, in);
      cap.send(k, true, {});
      k = cap.connect(port);
      for (size_t at = 0, n; at < in.size(); at += n)
        cap.send(k, rng() % 4 != 0, part(in, at, at + (n = rng() % 64 + 1)));
      cap.send(k, true, {});
    }
  }
  const RunResult run = run_tshark({"-V"}, cap.write("hostile"));
  ASSERT_TRUE(run.exited) << "tshark did not finish";
  EXPECT_EQ(run.status, 0) << run.err;
  const std::string all = run.out + run.err;
  for (const char* bad :
       {"Lua Error", "Lua: Error", "Dissector bug", "dissector fault", "Exception occurred"})
    EXPECT_EQ(all.find(bad), std::string::npos) << all.substr(all.find(bad), 300);
  // The dissector did see the input.
  EXPECT_NE(run.out.find("QX7 connection manager and job messages"), std::string::npos);
  EXPECT_NE(run.out.find("Expert Info (Error/Malformed)"), std::string::npos);
}

}  // namespace
