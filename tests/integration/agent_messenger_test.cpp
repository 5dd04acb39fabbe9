// Whole runs of qx_jpmd against fake agents on loopback ports: the frame each kind of event
// puts on the wire, and agents that refuse, stay silent, close, reset, greet wrongly, send
// garbage or never reply. Every run must print its report, end by exit with the status the
// job script needs, write nothing to standard error and end within its time bound.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/agent.h"

namespace {

using namespace agent_test;

// Longest run allowed: the pauses between attempts, one time-out per attempt plus the
// reply's, and a few seconds for starting and closing.
double time_bound(int retry, int timeout) {
  return (retry - 1) * 120.0 + (retry + 1) * timeout + 5.0;
}

void expect_sound_run(const RunResult& run, int want_status, double bound) {
  EXPECT_TRUE(run.exited) << "signal " << run.signal;
  EXPECT_EQ(run.signal, 0);
  EXPECT_EQ(run.status, want_status);
  EXPECT_EQ(run.err, "");
  EXPECT_LE(run.secs, bound);
}

// The agent as it should be: greeting, one frame read and kept, a reply, then it waits for
// the messenger to close.
void good_agent(FakeAgent& agent, int& fd, int) {
  if (!write_all(fd, native_frame("QX7 agent"))) return;
  Bytes frame;
  if (!read_frame(fd, &frame)) return;
  agent.keep(frame);
  write_all(fd, native_frame("OK"));
  wait_eof(fd, 5000);
}

// ---- The frame of each kind of event ----------------------------------------------------------

struct KindCase {
  const char* name;
  std::vector<std::string> args;
  int status;          // exit status
  size_t body_len;     // length of the MELD body
  const char* report;  // a piece of the report on standard output
  // The expected body apart from its time stamp and process IDs.
  std::function<Bytes()> body;
  size_t time_off, time_t_off;  // where the time stamp and its seconds stand
  bool has_pids;
};

class AgentKinds : public ::testing::TestWithParam<KindCase> {};

TEST_P(AgentKinds, FrameOnTheWire) {
  const KindCase& c = GetParam();
  FakeAgent agent(good_agent);
  ASSERT_TRUE(agent.ok());
  std::vector<std::string> args = c.args;
  args.push_back("TIMEOUT=5");
  RunResult run = run_messenger(agent.port(), args);
  expect_sound_run(run, c.status, time_bound(3, 5));
  EXPECT_NE(run.out.find(c.report), std::string::npos) << run.out;

  std::vector<Bytes> frames = agent.frames();
  ASSERT_EQ(frames.size(), 1u);
  const Bytes& f = frames[0];
  ASSERT_EQ(f.size(), 63 + c.body_len);
  Bytes prefix = header(63 + c.body_len);
  Bytes route = {0x01, 0x08, 'J', 'P', 'A', 'K', 'T', 'J', '_', 'R', 0xFF, 0, 0, 0, 0};
  put32(route, 11, static_cast<unsigned>(c.body_len));
  prefix.insert(prefix.end(), route.begin(), route.end());
  EXPECT_EQ(Bytes(f.begin(), f.begin() + 63), prefix);

  Bytes body(f.begin() + 63, f.end());
  Bytes want = c.body();
  EXPECT_TRUE(adopt_time(body, want, c.time_off, c.time_t_off));
  if (c.has_pids) {
    // The messenger's own process, its parent (this test) and the group it inherited.
    unsigned pid = get32(body, 128);
    EXPECT_NE(pid, 0u);
    EXPECT_NE(pid, static_cast<unsigned>(getpid()));
    put32(want, 128, pid);
    put32(want, 132, static_cast<unsigned>(getpid()));
    put32(want, 136, static_cast<unsigned>(getpgrp()));
  }
  EXPECT_EQ(body, want);
}

Bytes status_body(int job, int client, char status, const std::string& text, int ret) {
  Bytes b = meld_body(276, client, 57);
  put32(b, 20, static_cast<unsigned>(job));
  b[24] = static_cast<unsigned char>(status);
  std::string t = text.substr(0, 31);
  put_text(b, 25, t);
  std::memset(b.data() + 26 + t.size(), ' ', 31 - t.size());
  put32(b, 100, static_cast<unsigned>(ret));
  return b;
}

INSTANTIATE_TEST_SUITE_P(
    Messenger, AgentKinds,
    ::testing::Values(
        KindCase{"start",
                 {"TYP=S", "JNR=7", "MNR=100", "TXT=nightly load"},
                 0,
                 276,
                 "**  JOB 00000007 (ProcID:",
                 [] { return status_body(7, 100, 'R', "nightly load", 0); },
                 108,
                 124,
                 true},
        KindCase{"end_with_3",
                 {"TYP=E", "JNR=8", "MNR=100", "RET=3", "TXT=" + std::string(40, 'x')},
                 3,
                 276,
                 "RETCODE=03",
                 [] { return status_body(8, 100, 'E', std::string(40, 'x'), 3); },
                 108,
                 124,
                 true},
        KindCase{"output_file",
                 {"TYP=O", "JNR=9", "MNR=2", "ULOGIN=Yes", "OUTFILE=/var/spool/job9.out"},
                 0,
                 276,
                 "registered output file '/var/spool/job9.out'",
                 [] {
                   Bytes b = meld_body(276, 2, 25);
                   put32(b, 20, 9);
                   b[24] = 'O';
                   b[88] = 'Y';
                   put_text(b, 89, "/var/spool/job9.out");
                   return b;
                 },
                 68,
                 84,
                 false},
        KindCase{"variable",
                 {"TYP=V", "JNR=10", "MNR=2", "NAME=X", "VALUE=1", "VTYPE=C"},
                 0,
                 1521,
                 "Registered variable: 'C' X=1",
                 [] {
                   Bytes b = meld_body(1521, 2, 57);
                   put32(b, 20, 10);
                   b[24] = 'V';
                   std::memset(b.data() + 25, ' ', 32);
                   put32(b, 120, 108);
                   put32(b, 124, 1225);
                   b[128] = 'X';
                   b[328] = '1';
                   b[1352] = 'C';
                   return b;
                 },
                 100,
                 116,
                 false}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- Hostile agents ---------------------------------------------------------------------------

struct HostileCase {
  const char* name;
  // What the agent does with a connection; null: nothing listens (refused).
  std::function<void(int& fd)> script;
  bool delivered;     // the job message reaches the agent
  const char* trace;  // a trace line the run must contain
  int timeout = 1;    // TIMEOUT of the run: long enough for the agent's script on a busy host
};

class HostileAgents : public ::testing::TestWithParam<HostileCase> {};

TEST_P(HostileAgents, RunEndsSoundly) {
  const HostileCase& c = GetParam();
  const int kTimeout = c.timeout;
  FakeAgent agent([&](FakeAgent& self, int& fd, int) {
    if (c.script) c.script(fd);
    Bytes rest;
    if (fd >= 0 && c.delivered) {
      wait_eof(fd, 5000, &rest);
      self.keep(rest);
    }
  });
  ASSERT_TRUE(agent.ok());
  int port = c.script ? agent.port() : refused_port();

  RunResult run = run_messenger(port, {"TYP=E", "JNR=77", "RET=5", "RETRY=1",
                                       "TIMEOUT=" + std::to_string(kTimeout), "TRC=1"});
  expect_sound_run(run, 5, time_bound(1, kTimeout));
  EXPECT_NE(run.out.find("**  JOB 00000077 (ProcID:"), std::string::npos);
  EXPECT_NE(run.out.find(c.trace), std::string::npos) << run.out;

  std::vector<Bytes> kept = agent.frames();
  if (c.delivered) {
    ASSERT_EQ(kept.size(), 1u);
    // Exactly one MELD frame came before the close.
    Bytes rest = kept[0];
    ASSERT_GE(rest.size(), 63u + 276u);
    EXPECT_EQ(std::string(rest.begin(), rest.begin() + 8), "00000339");
    EXPECT_EQ(std::string(rest.begin() + 63, rest.begin() + 71), "MELD    ");
    EXPECT_EQ(rest.size(), 339u);
  } else {
    EXPECT_TRUE(kept.empty());
  }
}

// A header announcing `digits` as the frame length, then some body bytes.
std::function<void(int&)> sends(Bytes b) {
  return [b](int& fd) {
    write_all(fd, b);
    wait_eof(fd, 3000);
  };
}
Bytes with_length(const std::string& digits) {
  Bytes f = header(60);
  std::memcpy(f.data(), digits.data(), 8);
  f.insert(f.end(), {0x04, 0x02, 'h', 'i', 0, 0, 0, 0, 0, 0});
  return f;
}
Bytes text(const std::string& s) {
  return Bytes(s.begin(), s.end());
}

const char kInvalid[] = "main:      invalid answer";
const char kAbnormal[] = "ended abnormally";
const char kNormal[] = "ended normally";

INSTANTIATE_TEST_SUITE_P(
    Messenger, HostileAgents,
    ::testing::Values(
        HostileCase{"refused", nullptr, false, kNormal},
        HostileCase{"silent", [](int& fd) { wait_eof(fd, 3000); }, false, kAbnormal},
        HostileCase{"closes_at_once",
                    [](int& fd) {
                      close(fd);
                      fd = -1;
                    },
                    false, kInvalid},
        HostileCase{"resets",
                    [](int& fd) {
                      reset_close(fd);
                      fd = -1;
                    },
                    false, kInvalid},
        HostileCase{"greets_with_nat_message", sends(nat_frame("JPAKTJ_S", text("hello"))), false,
                    kInvalid},
        HostileCase{"greets_with_key_7", sends(native_frame("hello", 7)), false, kInvalid},
        HostileCase{"sends_garbage", sends(text("GET / HTTP/1.0\r\nHost: agent\r\n\r\n")), false,
                    kInvalid},
        HostileCase{"length_not_a_number", sends(with_length("00x00060")), false, kInvalid},
        HostileCase{"length_below_header", sends(with_length("00000010")), false, kInvalid},
        HostileCase{"length_huge", sends(with_length("99999999")), false, kInvalid},
        HostileCase{"greets_byte_by_byte",
                    [](int& fd) {
                      int one = 1;
                      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
                      for (unsigned char ch : native_frame("slow agent")) {
                        write_all(fd, &ch, 1);
                        usleep(2000);
                      }
                    },
                    true, kNormal, 5},
        HostileCase{"never_replies", [](int& fd) { write_all(fd, native_frame("mute")); }, true,
                    kNormal}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
