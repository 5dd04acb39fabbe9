// tools/wireshark/qx7.lua through tshark: real runs, crafted and malformed frames.
#include "support/capture.h"

namespace {

using namespace agent_test;
using namespace capture_test;
using namespace std::string_literals;

constexpr uint16_t kPort = 2217;  // the simulator's default, the dissector's default port

struct Dissector : testing::Test {
  void SetUp() override {
    const RunResult run = run_tshark({"-G", "protocols"});
    if (run.status != 0 || run.out.find("\tqx7\n") != run.out.npos)
      GTEST_SKIP() << "no tshark, or a qx7 dissector is installed";
  }
};

Bytes operator+(Bytes a, const Bytes& b) {
  return a.insert(a.end(), b.begin(), b.end()), a;
}
Bytes part(const Bytes& b, size_t from, size_t to = SIZE_MAX) {
  return Bytes(b.begin() + long(std::min({from, to, b.size()})),
               b.begin() + long(std::min(to, b.size())));
}
const auto framed = [](const char* p, const Bytes& b) { return frame({b.begin(), b.end()}, p); };

// How often `value` occurs in field `name` over the packets `rows`.
int count(const std::vector<Fields>& rows, const std::string& name, const std::string& value) {
  int n = 0;
  for (const Fields& r : rows)
    for (size_t at = 0; r.count(name) && (at = r.at(name).find(value, at)) != r.at(name).npos;)
      n++, at += std::max<size_t>(value.size(), 1);
  return n;
}

// The value of `key` in a JSON line of the simulator, unquoted (no escapes here); "" if absent.
std::string json_value(const std::string& line, const std::string& key) {
  const size_t at = line.find("\"" + key + "\":") + key.size() + 3,
               q = at < line.size() && line[at] == '"';
  if (at < key.size() + 3) return "";  // not found
  return line.substr(at + q, line.find_first_of(q ? "\"" : ",}", at + q) - at - q);
}

// Every event kind relayed to the simulator shows what the simulator read.
TEST_F(Dissector, EveryEventKindFromRealRuns) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"TYP=S", "JNR=4711", "MNR=300", "TXT=new run"}, "job 4711 running rc=0 \"new run\""},
      {{"TYP=R", "JNR=4712", "RET=2"}, "job 4712 running rc=2"},
      {{"TYP=0", "JNR=4713"}, "job 4713 running rc=0"},
      {{"TYP=1", "JNR=4714", "TXT=awake"}, "job 4714 running rc=0 \"awake\""},
      {{"TYP=E", "JNR=4711", "RET=3", "TXT=backup"}, "job 4711 end rc=3 \"backup\""},
      {{"TYP=O", "JNR=4715", "OUTFILE=/b.out", "ULOGIN=Y"}, "job 4715 output \"/b.out\" login=Y"},
      {{"TYP=V", "JNR=4716", "NAME=R", "VALUE=9", "VTYPE=N"}, "job 4716 variable R=\"9\" type=N"},
      {{"TYP=V", "JNR=4717"}, "job 4717 variable (none)"},
  };
  const size_t n = std::size(cases);
  Simulator sim({"--json"});
  Capture cap;
  FakeAgent relay(relay_to(sim.port()));
  for (const auto& [args, info] : cases)
    ASSERT_TRUE(run_messenger(relay.port(), args, 10).exited) << info;
  for (int k = -1; const Bytes& seg : relay.frames())  // see relay_to
    seg.empty() ? void(k = cap.connect(kPort)) : cap.send(k, seg[0] == 'C', part(seg, 1));
  ASSERT_TRUE(sim.wait_lines(1 + n, 5000));
  std::vector<std::string> names = {"qx7.message", "qx7.protocol", "qx7.dst.name",
                                    "qx7.native.text", "qx7.meld.md_version"};
  std::vector<std::pair<std::string, std::string>> from_sim;  // a meld field, its JSON key
  std::stringstream keys(
      "job client status rc text utc seconds:time pid ppid pgrp file login_check var.name:name "
      "var.value:value var.type:type");
  for (std::string f; keys >> f; names.push_back("qx7.meld." + from_sim.back().first))
    from_sim.emplace_back(f.substr(0, f.find(':')), f.substr(f.find(':') + 1));
  auto streams = tshark_fields(cap.write("events"), names);
  const auto lines = sim.lines();
  for (size_t i = 0; i < n; i++) {
    const auto& [args, info] = cases[i];
    SCOPED_TRACE(info);
    const auto& s = streams[static_cast<int>(i)];
    ASSERT_EQ(s.size(), 3u) << testing::PrintToString(s);
    const char* kind = args[0][4] == 'O' ? "output view" : args[0][4] == 'V' ? "variable" : "";
    std::string joined;  // the greeting, the job message and the reply
    std::stringstream fields(
        "0_ws.col.Info 0qx7.native.text 1_ws.col.Info 1qx7.message 1qx7.protocol 1qx7.dst.name "
        "1qx7.meld.md_version 1qx7.meld.ppid 2_ws.col.Info 2qx7.native.text");
    for (std::string f; fields >> f;)  // packet, field
      joined += s[f[0] - '0'].at(f.substr(1)) + "|";
    EXPECT_EQ(joined, "greeting|QX7 agent"s + " simulator|" + info + "|" +
                          (*kind ? kind : "job status") + "|NAT|JPAKTJ_R|12.2.0+build.2108|" +
                          (*kind ? "" : std::to_string(getpid())) + "|reply|OK|");
    for (const auto& [field, key] : from_sim) {
      EXPECT_EQ(s[1].at("qx7.meld." + field), json_value(lines.at(1 + i), key)) << field;
    }
  }
}

// The job status body of job 4711, ended with return code 3 and the text "nightly backup".
Bytes end_body() {
  Bytes b = meld_body(276, 300, 4711, 'E', 57);
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

// Crafted frames show their Info, fields, exact expert info and job count; the port decides.
TEST_F(Dissector, CraftedFramesEveryMalformedCaseAndThePort) {
  const Bytes j = nat_frame("JPAKTJ_R", end_body());
  const std::string info = "job 4711 end rc=3 \"nightly backup\"";
  // Destination address, name, source name; destination ID, the job message's length.
  const Bytes routenat =
      ipc_record("ROUTENAT", 308,
                 {{16, "#CCMADDR"}, {32, "*SERVER"}, {96, "JPAKTJ_R"}, {232, "JOBSRC  "}},
                 {{28, 5}, {304, 276}}) +
      end_body();
  const Bytes passfd = ipc_record("PASSFD", 156, {{28, "*LISTEN"}}, {{16, 7}, {20, 3}, {24, 1}});
  const Bytes logging = ipc_record("LOGGING", 1044, {{20, "7/ID=1"}}, {{16, 2003060}});
  std::vector<Bytes> bytewise;
  for (size_t i = 0; i <= 60; i++)
    bytewise.push_back(part(j, i, i < 60 ? i + 1 : SIZE_MAX));
  auto variable = [](unsigned distance, unsigned size) {  // of the variable record
    Bytes b = meld_body(400, 0, 5, 'V', 57);
    put_le(b, 120, distance);
    put_le(b, 124, size);
    return b;
  };
  Bytes gss = frame("token", "GSS");
  put_text(gss, 24, "KRB5");  // the coding
  auto length = [&j](const char* digits) { return Bytes(digits, digits + 8) + part(j, 8); };
  const struct Row {
    std::vector<Bytes> segments;  // from the messenger; an empty one ends its side
    std::string info;             // part of the Info column
    std::string fields = "";      // "field=part of its value" and "!expert" set, ...
    int jobs = 0;
    uint16_t port = kPort;
  } cases[] = {
      Row(bytewise, info, "meld.client=300 length=339", 1),    // the header byte by byte
      Row({part(j, 0, 48), part(j, 48)}, info, "", 1, 23456),  // by the heuristic
      Row({j + j}, info + "; " + info, "", 2),
      Row({part(j, 0, 200), part(j, 200) + part(j, 0, 100), part(j, 100)}, info, "", 2),
      Row({framed("IPC", routenat)}, "IPC ROUTENAT: " + info,
          "ipc.addr.dst_name=JPAKTJ_R ipc.addr.dst_addr=*SERVER ipc.addr.dst_id=5 "
          "ipc.route.len=276",
          1),
      Row({framed("IPC", passfd)}, "IPC PASSFD fd=7 \"*LISTEN\"",
          "!odd ipc.agent_id=3 ipc.listener_id=1"),
      Row({framed("IPC", logging)}, "IPC LOGGING 2003060 \"7/ID=1\""),
      Row({gss}, "GSS coding=\"KRB5\", 5 bytes", "gss.data=746f6b656e"),
      Row({frame(""), native_frame("hi", 7)}, "key 0x07, 2 bytes"),  // first a header alone
      Row({frame("A0000005hello")}, "key 0x41, 5 bytes", "native.text=hello"),
      Row({frame("\x01\x08JPAKTJ_R\xFE\x14\x01"s + std::string(j.begin() + 63, j.end()))}, info, "",
          1),
      Row({frame("\x01\x08JPAKTJ_R\xFF\x02\x00\x00\x00hi\xFD\x0C\x00\x01\x08SENDER  \x02\x00"s)},
          "NAT to JPAKTJ_R, 2 bytes", "!odd src.name=SENDER dst.name=JPAKTJ_R"),
      Row({length("0000x339")}, "malformed: length \"0000x339\" is not 8", "!length"),
      Row({length("00000020")}, "malformed: length 20 lies inside", "!length"),
      Row({length("99999999")}, "malformed: length 99999999 exceeds", "!length"),
      Row({part(j, 0, 200), {}}, "the connection ended inside the frame of 339", "!closed"),
      Row({length("0000x339"), j}, "data after a malformed frame", "!length !after"),
      Row({frame("abc", "XYZ")}, "malformed: unknown protocol \"XYZ\"", "!protocol"),
      Row({frame("\x01\x08JPAKTJ_R\x09\x02xy")}, "malformed: unknown key 0x09", "!key"),
      Row({frame("\xFF\xE8\x03\x00\x00short"s)}, "entry of key 0xFF runs past", "!entry"),
      Row({frame("\xFF\x05")}, "malformed: length of key 0xFF runs past", "!entry"),
      Row({frame("A12x4567abc")}, "malformed: length of key 0x41 is not 7", "!entry"),
      Row({frame("\x02\x02xy")}, "malformed: destination value of 2", "!entry"),
      Row({nat_frame("JPAKTJ_R", part(end_body(), 0, 110))}, info + " [truncated]", "!truncated",
          1),
      Row({nat_frame("JPAKTJ_R", variable(108, 1225))}, "type= [truncated]",
          "!truncated meld.var.len=1225"),
      Row({nat_frame("JPAKTJ_R", variable(100, 1225))}, "job 5 variable (none)", "!odd"),
      Row({framed("IPC", part(routenat, 0, 100))}, "IPC ROUTENAT [truncated]", "!truncated"),
      Row({framed("IPC", part(passfd, 0, 40))}, "LISTEN\" [truncated]",
          "!truncated !odd ipc.listener_id=1"),
      Row({framed("IPC", part(logging, 0, 18))}, "IPC LOGGING ? \"\" [truncated]", "!truncated"),
      Row({frame("ROUTE", "IPC")}, "IPC, 5 bytes [truncated]", "!truncated"),
      Row({framed("IPC", ipc_record("CHANNEL_ACCEPT", 20))}, "CHANNEL_ACCEPT",
          "!forged ipc.channel_id=0"),
  };
  const std::string experts[] = {"!length", "!protocol", "!key",    "!entry", "!truncated",
                                 "!closed", "!after",    "!forged", "!odd",   "!fault"};
  std::vector<std::string> names = {"qx7.meld.job"};
  for (const std::string& x : experts)
    names.push_back("qx7.expert." + x.substr(1));
  Capture cap;
  for (const Row& c : cases) {
    const int k = cap.connect(c.port);
    cap.send(k, false, native_frame("QX7 agent"));
    for (const Bytes& seg : c.segments)
      cap.send(k, true, seg);
    std::stringstream fields(c.fields);
    for (std::string f; fields >> f;)
      if (f[0] != '!') names.push_back("qx7." + f.substr(0, f.find('=')));
  }
  const std::string pcap = cap.write("crafted");
  auto streams = tshark_fields(pcap, names);
  for (size_t i = 0; i < std::size(cases); i++) {
    const Row& c = cases[i];
    const auto& s = streams[static_cast<int>(i)];
    SCOPED_TRACE(testing::PrintToString(s));
    EXPECT_GT(count(s, "_ws.col.Info", c.info), 0);
    std::stringstream fields(c.fields);
    for (std::string f; fields >> f;) {
      const size_t eq = f.find('=');
      EXPECT_TRUE(f[0] == '!' || count(s, "qx7." + f.substr(0, eq), f.substr(eq + 1)) > 0) << f;
    }
    for (const std::string& x : experts)
      EXPECT_EQ(count(s, "qx7.expert." + x.substr(1), "1") > 0, c.fields.find(x) != x.npos) << x;
    EXPECT_EQ(count(s, "qx7.meld.job", "4711"), c.jobs);
  }
  for (const std::string port : {"2217", "23456"}) {
    const auto on =
        tshark_fields(pcap, {}, {"-o", "qx7.heuristic:FALSE", "-o", "qx7.tcp_port:" + port});
    for (size_t i = 0; i < std::size(cases); i++)
      EXPECT_EQ(on.count(int(i)), std::to_string(cases[i].port) == port) << i << " on " << port;
  }
}

}  // namespace
