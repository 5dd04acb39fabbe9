// The Wireshark dissector (tools/wireshark/qx7.lua) read through tshark: captures of real runs
// of the messenger against the agent simulator and a fake agent, the same frames cut into
// other segments, crafted frames (internal records, GSS, every malformed case), the port and
// the heuristic, and hostile input that must never raise a Lua error.
#include <algorithm>
#include <random>

#include "support/capture.h"

namespace {

using namespace agent_test;
using namespace capture_test;
using namespace std::string_literals;

constexpr uint16_t kPort = 2217;  // the agent simulator's default, the dissector's default port

#define REQUIRE_TSHARK() \
  if (const std::string why = tshark_unusable(); !why.empty()) GTEST_SKIP() << why

// A capture file of this test process, removed at the end of the test unless the environment
// names a folder to keep the captures in (QX_KEEP_CAPTURES), for a look with Wireshark.
struct PcapFile {
  explicit PcapFile(const char* name) {
    const char* keep = getenv("QX_KEEP_CAPTURES");
    kept = keep != nullptr && *keep != 0;
    path = (kept ? std::string(keep) : scratch_dir()) + "/qx7_" + name + ".pcap";
  }
  ~PcapFile() {
    if (!kept) unlink(path.c_str());
  }
  std::string path;
  bool kept;
};

// The text after "key": in a JSON line of the simulator (escapes \" \\ \u00XX undone).
std::string json_text(const std::string& line, const std::string& key) {
  size_t at = line.find("\"" + key + "\":\"");
  if (at == std::string::npos) return "?";
  std::string out;
  for (at += key.size() + 4; at < line.size() && line[at] != '"'; at++) {
    if (line[at] == '\\' && line[at + 1] == 'u') {
      out += static_cast<char>(strtol(line.substr(at + 2, 4).c_str(), nullptr, 16));
      at += 5;
    } else {
      if (line[at] == '\\') at++;
      out += line[at];
    }
  }
  return out;
}

// Whether some packet of the rows has `value` inside field `name`.
bool any_has(const std::vector<Fields>& rows, const std::string& name, const std::string& value) {
  for (const Fields& r : rows)
    if (r.count(name) != 0 && r.at(name).find(value) != std::string::npos) return true;
  return false;
}

std::string infos(const std::vector<Fields>& rows) {
  std::string s;
  for (const Fields& r : rows)
    s += "[" + r.at("_ws.col.Info") + "] ";
  return s;
}

const std::vector<std::string> kMeldFields = {
    "qx7.message",          "qx7.length",        "qx7.protocol",       "qx7.dst.name",
    "qx7.native.text",      "qx7.meld.job",      "qx7.meld.client",    "qx7.meld.status",
    "qx7.meld.rc",          "qx7.meld.text",     "qx7.meld.utc",       "qx7.meld.seconds",
    "qx7.meld.pid",         "qx7.meld.ppid",     "qx7.meld.pgrp",      "qx7.meld.file",
    "qx7.meld.login_check", "qx7.meld.var.name", "qx7.meld.var.value", "qx7.meld.var.type",
    "qx7.meld.md_version"};

// One event per row, each run through a relay to the agent simulator and to the fake agent;
// the capture holds one connection per run, and tshark must show greeting, job message and
// reply with the values the run used and the agent received.
TEST(Dissector, EveryEventKindFromRealRuns) {
  REQUIRE_TSHARK();
  struct Case {
    std::vector<std::string> args;
    const char* kind;  // qx7.message of the job message
    std::string info;  // its Info column
  } cases[] = {
      {{"TYP=S", "JNR=4711", "MNR=100", "TXT=nightly backup"},
       "job status",
       "job 4711 running rc=0 \"nightly backup\""},
      {{"TYP=R", "JNR=4712", "RET=2"}, "job status", "job 4712 running rc=2"},
      {{"TYP=0", "JNR=4713"}, "job status", "job 4713 running rc=0"},
      {{"TYP=1", "JNR=4714", "TXT=awake"}, "job status", "job 4714 running rc=0 \"awake\""},
      {{"TYP=E", "JNR=4711", "MNR=100", "RET=3", "TXT=nightly backup"},
       "job status",
       "job 4711 end rc=3 \"nightly backup\""},
      {{"TYP=O", "JNR=4715", "OUTFILE=/var/log/backup.out", "ULOGIN=Y"},
       "output view",
       "job 4715 output \"/var/log/backup.out\" login=Y"},
      {{"TYP=V", "JNR=4716", "NAME=ROWS", "VALUE=1234", "VTYPE=N"},
       "variable",
       "job 4716 variable ROWS=\"1234\" type=N"},
      {{"TYP=V", "JNR=4717"}, "variable", "job 4717 variable (none)"},
  };
  // Each case runs against the simulator, then against the fake agent; the capture holds the
  // simulator's connections first.
  Simulator sim({"--json"});
  FakeAgent fake(good_agent);
  std::vector<std::vector<Segment>> conns;
  for (int agent_port : {sim.port(), fake.port()}) {
    Relay relay(agent_port);
    for (const Case& c : cases) {
      std::vector<std::string> args = c.args;
      args.push_back("TIMEOUT=5");
      ASSERT_TRUE(run_messenger(relay.port(), args).exited) << c.info;
    }
    const auto got = relay.connections();
    ASSERT_EQ(got.size(), std::size(cases));
    conns.insert(conns.end(), got.begin(), got.end());
  }
  ASSERT_TRUE(sim.wait_lines(1 + std::size(cases), 5000));
  Capture cap;
  for (size_t i = 0; i < conns.size(); i++)
    cap.replay(static_cast<uint16_t>(41000 + i), kPort, conns[i]);
  PcapFile pcap("events");
  ASSERT_TRUE(cap.write(pcap.path));

  const auto rows = tshark_fields(pcap.path, kMeldFields);
  const auto lines = sim.lines();
  const auto kept = fake.frames();
  ASSERT_EQ(kept.size(), std::size(cases));
  for (size_t i = 0; i < conns.size(); i++) {
    const bool simulated = i < std::size(cases);
    const Case& c = cases[i % std::size(cases)];
    SCOPED_TRACE(std::string(simulated ? "simulator: " : "fake agent: ") + c.info);
    const auto s = of_stream(rows, static_cast<int>(i));
    ASSERT_EQ(s.size(), 3u) << infos(s);
    EXPECT_EQ(s[0].at("_ws.col.Info"), "greeting");
    EXPECT_EQ(s[0].at("qx7.native.text"), simulated ? "QX7 agent simulator" : "QX7 agent");
    EXPECT_EQ(s[2].at("_ws.col.Info"), "reply");
    EXPECT_EQ(s[2].at("qx7.native.text"), "OK");
    const Fields& m = s[1];
    EXPECT_EQ(m.at("_ws.col.Info"), c.info);
    EXPECT_EQ(m.at("qx7.message"), c.kind);
    EXPECT_EQ(m.at("qx7.protocol"), "NAT");
    EXPECT_EQ(m.at("qx7.dst.name"), "JPAKTJ_R");
    EXPECT_EQ(m.at("qx7.meld.md_version"), "12.2.0+build.2108");
    size_t sent = 0;
    for (const Segment& seg : conns[i])
      sent += seg.from_client ? seg.data.size() : 0;
    EXPECT_EQ(m.at("qx7.length"), std::to_string(sent));
    if (std::string(c.kind) == "job status") {
      // The messenger is this test's child.
      EXPECT_EQ(m.at("qx7.meld.ppid"), std::to_string(getpid()));
      EXPECT_EQ(m.at("qx7.meld.pgrp"), std::to_string(getpgrp()));
    }
    if (!simulated) {
      // The fake agent kept the frame: the time and process ID it carries.
      const Bytes& f = kept[i - std::size(cases)];
      const size_t seconds_at = std::string(c.kind) == "job status" ? 124
                                : c.kind[0] == 'o'                  ? 84
                                                                    : 116;
      EXPECT_EQ(m.at("qx7.meld.seconds"), std::to_string(get_le(f, 63 + seconds_at)));
      if (std::string(c.kind) == "job status") {
        EXPECT_EQ(m.at("qx7.meld.pid"), std::to_string(get_le(f, 63 + 128)));
      }
      continue;
    }
    // The simulator's own reading of the same message.
    const std::string& ev = lines[1 + i];
    EXPECT_EQ(m.at("qx7.meld.job"), std::to_string(json_number(ev, "job"))) << ev;
    EXPECT_EQ(m.at("qx7.meld.client"), std::to_string(json_number(ev, "client")));
    EXPECT_EQ(m.at("qx7.meld.status"), json_text(ev, "status"));
    EXPECT_EQ(m.at("qx7.meld.utc"), json_text(ev, "utc"));
    EXPECT_EQ(m.at("qx7.meld.seconds"), std::to_string(json_number(ev, "time")));
    if (std::string(c.kind) == "job status") {
      EXPECT_EQ(m.at("qx7.meld.rc"), std::to_string(json_number(ev, "rc")));
      EXPECT_EQ(m.at("qx7.meld.text"), json_text(ev, "text"));
      EXPECT_EQ(m.at("qx7.meld.pid"), std::to_string(json_number(ev, "pid")));
    } else if (std::string(c.kind) == "output view") {
      EXPECT_EQ(m.at("qx7.meld.file"), json_text(ev, "file"));
      EXPECT_EQ(m.at("qx7.meld.login_check"), json_text(ev, "login_check"));
    } else {
      EXPECT_EQ(m.at("qx7.meld.var.name"), json_text(ev, "name"));
      EXPECT_EQ(m.at("qx7.meld.var.value"), json_text(ev, "value"));
      EXPECT_EQ(m.at("qx7.meld.var.type"), json_text(ev, "type"));
    }
  }
}

// The frames of one real run against the fake agent: greeting, job message, reply.
struct RealFrames {
  Bytes greeting, job, reply;
  std::vector<Segment> segments;
};

RealFrames end_event_against_fake_agent() {
  FakeAgent agent(good_agent);
  Relay relay(agent.port());
  const RunResult run = run_messenger(
      relay.port(), {"TYP=E", "JNR=99", "MNR=7", "RET=7", "TXT=from the fake agent", "TIMEOUT=5"});
  EXPECT_EQ(run.status, 7);
  RealFrames r;
  const auto conns = relay.connections();
  const auto kept = agent.frames();
  if (conns.size() != 1 || kept.size() != 1) {
    ADD_FAILURE() << "the run did not reach the fake agent";
    return r;
  }
  r.segments = conns[0];
  r.greeting = native_frame("QX7 agent");
  r.job = kept[0];
  r.reply = native_frame("OK");
  return r;
}

Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts)
    out.insert(out.end(), p.begin(), p.end());
  return out;
}
Bytes part(const Bytes& b, size_t from, size_t to = std::string::npos) {
  to = std::min(to, b.size());
  return Bytes(b.begin() + static_cast<long>(std::min(from, to)),
               b.begin() + static_cast<long>(to));
}

// The real run as it was, then its job message cut into other segments: split at several
// places, byte by byte through the header, two frames in one segment, and a segment holding
// the end of one frame and the start of the next. Every cut shows the same fields.
TEST(Dissector, FramesAcrossSegments) {
  REQUIRE_TSHARK();
  const RealFrames rf = end_event_against_fake_agent();
  ASSERT_FALSE(rf.job.empty());
  const Bytes& j = rf.job;
  std::vector<Bytes> header_bytes;
  for (size_t i = 0; i < 60; i++)
    header_bytes.push_back(part(j, i, i + 1));
  header_bytes.push_back(part(j, 60));
  struct Case {
    const char* name;
    std::vector<Bytes> client;  // segments of the messenger after the greeting
    int jobs;                   // job messages in them
  } cases[] = {
      {"split in five",
       {part(j, 0, 1), part(j, 1, 8), part(j, 8, 48), part(j, 48, 150), part(j, 150)},
       1},
      {"byte by byte through the header", header_bytes, 1},
      {"two frames in one segment", {cat({j, j})}, 2},
      {"a segment with the end of one and the start of the next",
       {part(j, 0, 200), cat({part(j, 200), part(j, 0, 100)}), part(j, 100)},
       2},
  };
  Capture cap;
  cap.replay(42000, kPort, rf.segments);
  for (size_t i = 0; i < std::size(cases); i++) {
    const int k = cap.connect(static_cast<uint16_t>(42001 + i), kPort);
    cap.send(k, false, rf.greeting);
    for (const Bytes& seg : cases[i].client)
      cap.send(k, true, seg);
    cap.send(k, false, rf.reply);
    cap.fin(k, true);
    cap.fin(k, false);
  }
  PcapFile pcap("segments");
  ASSERT_TRUE(cap.write(pcap.path));
  const auto rows = tshark_fields(pcap.path, kMeldFields);

  const std::string info = "job 99 end rc=7 \"from the fake agent\"";
  for (size_t i = 0; i <= std::size(cases); i++) {
    SCOPED_TRACE(i == 0 ? "the real run" : cases[i - 1].name);
    const auto s = of_stream(rows, static_cast<int>(i));
    ASSERT_GE(s.size(), 3u) << infos(s);
    EXPECT_EQ(s.front().at("_ws.col.Info"), "greeting");
    EXPECT_EQ(s.back().at("_ws.col.Info"), "reply");
    const std::pair<const char*, std::string> want[] = {
        {"qx7.meld.job", "99"},
        {"qx7.meld.client", "7"},
        {"qx7.meld.ppid", std::to_string(getpid())},
        {"qx7.meld.pid", std::to_string(get_le(j, 63 + 128))},
        {"qx7.meld.seconds", std::to_string(get_le(j, 63 + 124))}};
    auto repeat = [](const std::string& v, size_t n, const char* sep) {
      std::string out = v;
      for (size_t k = 1; k < n; k++)
        out += sep + v;
      return out;
    };
    int jobs = 0;
    for (size_t r = 1; r + 1 < s.size(); r++) {
      // A packet that completes frames shows every one of them.
      const std::string& got = s[r].at("_ws.col.Info");
      const size_t n = std::count(got.begin(), got.end(), ';') + 1;
      jobs += static_cast<int>(n);
      EXPECT_EQ(got, repeat(info, n, "; "));
      for (const auto& [name, value] : want)
        EXPECT_EQ(s[r].at(name), repeat(value, n, "|")) << name;
    }
    EXPECT_EQ(jobs, i == 0 ? 1 : cases[i - 1].jobs) << infos(s);
  }
}

// A frame of protocol `proto` with `body`.
Bytes framed(const char* proto, const Bytes& body, const char* coding = "        ") {
  char h[49];
  snprintf(h, sizeof h, "%08zuQX7:global001%.3s%-8.8s%16s", 48 + body.size(), proto, coding, "");
  return cat({Bytes(h, h + 48), body});
}
Bytes text(const std::string& s) {
  return Bytes(s.begin(), s.end());
}
// A MELD job status body of job 4711 with return code 3 and the text "nightly backup".
Bytes end_body() {
  Bytes b = meld_body(276, 100, 4711, 'E', 57);
  put_text(b, 25, std::string("nightly backup") + '\0' + std::string(17, ' '));
  put_le(b, 100, 3);
  return b;
}
// An internal record: its type NUL-padded to 16 bytes, then `size` - 16 zero bytes.
Bytes ipc_record(const char* type, size_t size) {
  Bytes b(size, 0);
  memcpy(b.data(), type, std::min(strlen(type), size));
  return b;
}
Bytes routenat() {
  const Bytes payload = end_body();
  Bytes b = ipc_record("ROUTENAT", 308 + payload.size());
  put_text(b, 16, "#CCMADDR");
  put_le(b, 16 + 12, 5);              // dst_ID
  put_text(b, 16 + 16, "*SERVER");    // dst_addr
  put_text(b, 16 + 80, "JPAKTJ_R");   // dst_name
  put_text(b, 16 + 216, "JOBSRC  ");  // src_name
  put_le(b, 304, static_cast<unsigned>(payload.size()));
  std::copy(payload.begin(), payload.end(), b.begin() + 308);
  return b;
}
Bytes passfd() {
  Bytes b = ipc_record("PASSFD", 156);
  put_le(b, 16, 7);
  put_le(b, 20, 3);
  put_le(b, 24, 1);
  put_text(b, 28, "*LISTEN");
  return b;
}
Bytes logging() {
  Bytes b = ipc_record("LOGGING", 1044);
  put_le(b, 16, 2003060);
  put_text(b, 20, "7/ID=1");
  return b;
}

// Frames made here, one connection each, the messenger's side sending them after a greeting:
// the internal records and a GSS frame by their fields, a native frame under another key,
// and every malformed case as expert information with its Info line.
TEST(Dissector, CraftedFramesAndEveryMalformedCase) {
  REQUIRE_TSHARK();
  const Bytes body = end_body();
  const Bytes job = nat_frame("JPAKTJ_R", body);
  Bytes past = job;
  past.resize(200);
  Bytes short_variable = meld_body(400, 0, 5, 'V', 57);
  put_le(short_variable, 124, 1225);
  put_le(short_variable, 120, 108);
  struct Case {
    const char* name;
    std::vector<Bytes> segments;
    bool fin;  // the messenger closes in its last segment
    std::vector<std::pair<std::string, std::string>> expect;  // field, part of its value
  } cases[] = {
      {"ROUTENAT with a job message",
       {framed("IPC", routenat())},
       false,
       {{"qx7.ipc.type", "ROUTENAT"},
        {"qx7.ipc.addr.dst_name", "JPAKTJ_R"},
        {"qx7.ipc.addr.dst_addr", "*SERVER"},
        {"qx7.ipc.addr.dst_id", "5"},
        {"qx7.ipc.route.len", "276"},
        {"qx7.meld.job", "4711"},
        {"_ws.col.Info", "IPC ROUTENAT: job 4711 end rc=3 \"nightly backup\""}}},
      {"PASSFD",
       {framed("IPC", passfd())},
       false,
       {{"qx7.ipc.fd", "7"},
        {"qx7.ipc.agent_id", "3"},
        {"qx7.ipc.listener_id", "1"},
        {"qx7.ipc.name", "*LISTEN"},
        {"_ws.col.Info", "IPC PASSFD fd=7 \"*LISTEN\""}}},
      {"LOGGING",
       {framed("IPC", logging())},
       false,
       {{"qx7.ipc.log.msgnr", "2003060"}, {"_ws.col.Info", "IPC LOGGING 2003060 \"7/ID=1\""}}},
      {"GSS",
       {framed("GSS", text("token"), "KRB5")},
       false,
       {{"qx7.gss.data", "746f6b656e"}, {"_ws.col.Info", "GSS coding=\"KRB5\", 5 bytes"}}},
      {"native frame under key 7",
       {native_frame("hello", 7)},
       false,
       {{"qx7.native.key", "0x07"}, {"_ws.col.Info", "native key 0x07, 5 bytes"}}},
      {"native frame under a decimal length",
       {frame("A0000005hello")},
       false,
       {{"qx7.native.text", "hello"}, {"_ws.col.Info", "native key 0x41, 5 bytes"}}},
      {"job message under the 16-bit key",
       {frame("\x01\x08JPAKTJ_R\xFE\x14\x01"s + std::string(body.begin(), body.end()))},
       false,
       {{"qx7.meld.rc", "3"}, {"_ws.col.Info", "job 4711 end rc=3 \"nightly backup\""}}},
      {"source block",
       {frame("\x01\x08JPAKTJ_R\xFF\x02\x00\x00\x00hi\xFD\x0C\x00\x01\x08SENDER  \x02\x00"s)},
       false,
       {{"qx7.src.name", "SENDER"}, {"qx7.dst.name", "JPAKTJ_R"}}},
      {"length not 8 digits",
       {cat({text("0000x339"), part(job, 8)})},
       false,
       {{"qx7.expert.length", "1"},
        {"_ws.col.Info", "malformed: length \"0000x339\" is not 8 digits"}}},
      {"length inside the header",
       {cat({text("00000020"), part(job, 8)})},
       false,
       {{"qx7.expert.length", "1"}, {"_ws.col.Info", "lies inside the 48-byte header"}}},
      {"length beyond any frame",
       {cat({text("99999999"), part(job, 8)})},
       false,
       {{"qx7.expert.length", "1"}, {"_ws.col.Info", "exceeds the largest frame"}}},
      {"length past the data",
       {past},
       true,
       {{"qx7.expert.closed", "1"},
        {"_ws.col.Info", "the connection ended inside the frame of 339 bytes"}}},
      {"data after a malformed frame",
       {cat({text("0000x339"), part(job, 8)}), job},
       false,
       {{"qx7.expert.after", "1"}, {"_ws.col.Info", "data after a malformed frame"}}},
      {"unknown protocol",
       {framed("XYZ", text("abc"))},
       false,
       {{"qx7.expert.protocol", "1"}, {"_ws.col.Info", "malformed: unknown protocol \"XYZ\""}}},
      {"unknown key",
       {frame("\x01\x08JPAKTJ_R\x09\x02"
              "ab")},
       false,
       {{"qx7.expert.key", "1"}, {"_ws.col.Info", "malformed: unknown key 0x09"}}},
      {"key length past its frame",
       {frame("\xFF\xE8\x03\x00\x00short"s)},
       false,
       {{"qx7.expert.entry", "1"}, {"_ws.col.Info", "entry of key 0xFF runs past its frame"}}},
      {"length field past its frame",
       {frame("\xFF\x05")},
       false,
       {{"qx7.expert.entry", "1"}, {"_ws.col.Info", "length of key 0xFF runs past its frame"}}},
      {"decimal length not digits",
       {frame("A12x4567abc")},
       false,
       {{"qx7.expert.entry", "1"}, {"_ws.col.Info", "length of key 0x41 is not 7 digits"}}},
      {"destination value not 4 bytes",
       {frame("\x02\x02"
              "ab")},
       false,
       {{"qx7.expert.entry", "1"}, {"_ws.col.Info", "destination value of 2 bytes"}}},
      {"truncated job message",
       {nat_frame("JPAKTJ_R", part(end_body(), 0, 110))},
       false,
       {{"qx7.expert.truncated", "1"},
        {"qx7.meld.rc", "3"},
        {"_ws.col.Info", "job 4711 end rc=3"}}},
      {"truncated variable record",
       {nat_frame("JPAKTJ_R", short_variable)},
       false,
       {{"qx7.expert.truncated", "1"}, {"qx7.meld.var.len", "1225"}}},
      {"truncated ROUTENAT",
       {framed("IPC", part(routenat(), 0, 100))},
       false,
       {{"qx7.expert.truncated", "1"}, {"qx7.ipc.type", "ROUTENAT"}}},
      {"truncated PASSFD",
       {framed("IPC", part(passfd(), 0, 40))},
       false,
       {{"qx7.expert.truncated", "1"}, {"qx7.ipc.listener_id", "1"}}},
      {"truncated LOGGING",
       {framed("IPC", part(logging(), 0, 18))},
       false,
       {{"qx7.expert.truncated", "1"}}},
      {"internal record shorter than its type",
       {framed("IPC", text("ROUTE"))},
       false,
       {{"qx7.expert.truncated", "1"}}},
      {"forged CHANNEL_ACCEPT",
       {framed("IPC", ipc_record("CHANNEL_ACCEPT", 20))},
       false,
       {{"qx7.expert.forged", "1"}, {"qx7.ipc.channel_id", "0"}}},
  };
  Capture cap;
  for (size_t i = 0; i < std::size(cases); i++) {
    const int k = cap.connect(static_cast<uint16_t>(43000 + i), kPort);
    cap.send(k, false, native_frame("QX7 agent"));
    const auto& segs = cases[i].segments;
    for (size_t s = 0; s < segs.size(); s++)
      cap.send(k, true, segs[s], cases[i].fin && s + 1 == segs.size());
  }
  PcapFile pcap("crafted");
  ASSERT_TRUE(cap.write(pcap.path));
  std::vector<std::string> names;
  for (const Case& c : cases)
    for (const auto& [name, value] : c.expect)
      if (std::find(names.begin(), names.end(), name) == names.end() && name != "_ws.col.Info")
        names.push_back(name);
  const auto rows = tshark_fields(pcap.path, names);
  for (size_t i = 0; i < std::size(cases); i++) {
    SCOPED_TRACE(cases[i].name);
    const auto s = of_stream(rows, static_cast<int>(i));
    for (const auto& [name, value] : cases[i].expect)
      EXPECT_TRUE(any_has(s, name, value)) << name << " " << value << ": " << infos(s);
    // A case that expects no expert information must get none.
    bool clean = true;
    for (const auto& [name, value] : cases[i].expect)
      clean = clean && name.rfind("qx7.expert.", 0) != 0;
    for (const std::string& x : names)
      if (clean && x.rfind("qx7.expert.", 0) == 0) {
        EXPECT_FALSE(any_has(s, x, "1")) << x;
      }
  }
}

// Port 2217 by the port table, another port by the heuristic; without the heuristic only the
// port of the preference is dissected.
TEST(Dissector, PortPreferenceAndHeuristic) {
  REQUIRE_TSHARK();
  const Bytes job = nat_frame("JPAKTJ_R", end_body());
  Capture cap;
  for (uint16_t port : {kPort, uint16_t{23456}}) {
    const int k = cap.connect(static_cast<uint16_t>(port == kPort ? 41500 : 41501), port);
    cap.send(k, false, native_frame("QX7 agent"));
    cap.send(k, true, part(job, 0, 100));  // the heuristic sees the header, then the rest
    cap.send(k, true, part(job, 100));
  }
  PcapFile pcap("ports");
  ASSERT_TRUE(cap.write(pcap.path));
  struct Case {
    std::vector<std::string> options;
    bool on_2217, on_other;
  } cases[] = {
      {{}, true, true},
      {{"-o", "qx7.heuristic:FALSE"}, true, false},
      {{"-o", "qx7.heuristic:FALSE", "-o", "qx7.tcp_port:23456"}, false, true},
  };
  for (const Case& c : cases) {
    const auto rows = tshark_fields(pcap.path, {"qx7.meld.job"}, c.options);
    SCOPED_TRACE(testing::PrintToString(c.options));
    EXPECT_EQ(any_has(of_stream(rows, 0), "qx7.meld.job", "4711"), c.on_2217) << infos(rows);
    EXPECT_EQ(any_has(of_stream(rows, 1), "qx7.meld.job", "4711"), c.on_other) << infos(rows);
  }
}

// Random bytes and every fuzz corpus file, whole and cut into random segments, on the
// dissector's port and on another one (the heuristic): tshark shows the whole tree of every
// packet, ends in time and reports no Lua error and no dissector fault.
TEST(Dissector, HostileInputRaisesNoLuaError) {
  REQUIRE_TSHARK();
  std::vector<Bytes> inputs;
  const std::string corpus = std::string(QX_SOURCE_DIR) + "/fuzz/corpus";
  // Every file of every corpus under fuzz/corpus.
  auto names_in = [](const std::string& folder) {
    std::vector<std::string> names;
    if (DIR* d = opendir(folder.c_str()); d != nullptr) {
      for (dirent* ent; (ent = readdir(d)) != nullptr;)
        if (ent->d_name[0] != '.') names.push_back(ent->d_name);
      closedir(d);
    }
    return names;
  };
  for (const std::string& dir : names_in(corpus)) {
    for (const std::string& name : names_in(corpus + "/" + dir)) {
      const int fd = open((corpus + "/" + dir + "/" + name).c_str(), O_RDONLY | O_CLOEXEC);
      const std::string s = qxtest::read_all(fd);
      close(fd);
      inputs.push_back(text(s));
      // A channel_read input is two bytes of chunk sizes, then the stream.
      if (dir == "channel_read" && s.size() > 2) inputs.push_back(text(s.substr(2)));
    }
  }
  ASSERT_GE(inputs.size(), 12u + 2 * 9 + 7) << "fuzz/corpus not found";
  std::mt19937 rng(17);
  auto byte = [&] { return static_cast<unsigned char>(rng()); };
  for (int i = 0; i < 120; i++) {
    Bytes b(rng() % 2000 + 1);
    for (auto& x : b)
      x = byte();
    if (i % 3 == 0) {
      // A valid header of a random protocol in front; keyed entries with small lengths.
      const char* protos[] = {"NAT", "IPC", "GSS", "QQQ"};
      if (i % 2 == 0)
        for (size_t k = 0; k + 1 < b.size(); k += 2)
          b[k] = "\x01\x02\x03\x04\x07\x3B\xF9\x41\x44\xFD\xFE\xFF"[rng() % 12], b[k + 1] &= 7;
      b = framed(protos[rng() % 4], b);
      if (i % 5 == 0) b.resize(rng() % b.size());
    }
    inputs.push_back(b);
  }
  Capture cap;
  uint16_t client = 50000;
  for (const Bytes& in : inputs) {
    for (uint16_t port : {kPort, uint16_t{7011}}) {
      int k = cap.connect(client++, port);
      cap.send(k, true, in, true);
      k = cap.connect(client++, port);
      for (size_t at = 0; at < in.size();) {
        const size_t n = rng() % 64 + 1;
        cap.send(k, rng() % 4 != 0, part(in, at, at + n));
        at += n;
      }
      cap.fin(k, true);
    }
  }
  PcapFile pcap("hostile");
  ASSERT_TRUE(cap.write(pcap.path));
  const RunResult run = tshark(pcap.path, {"-V"});
  ASSERT_TRUE(run.exited) << "tshark did not finish";
  EXPECT_EQ(run.status, 0) << run.err;
  for (const char* bad :
       {"Lua Error", "Lua: Error", "Dissector bug", "dissector fault", "Exception occurred"}) {
    const size_t at = (run.out + run.err).find(bad);
    EXPECT_EQ(at, std::string::npos)
        << bad << ": " << (run.out + run.err).substr(at == std::string::npos ? 0 : at, 300);
  }
  // The dissector did see the input.
  EXPECT_NE(run.out.find("QX7 connection manager and job messages"), std::string::npos);
  EXPECT_NE(run.out.find("Expert Info (Error/Malformed)"), std::string::npos);
}

}  // namespace
