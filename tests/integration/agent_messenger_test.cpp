// Whole runs of qx_jpmd against fake agents: the frame each kind of event puts on the wire,
// and agents that refuse, stay silent, close, reset, greet wrongly, send garbage or never
// reply. Every run prints its report, exits with the job's status, writes nothing to standard
// error and ends within (RETRY - 1) x 120 + (RETRY + 1) x TIMEOUT + 5 seconds.
#include <gtest/gtest.h>

#include "support/agent.h"

namespace {

using namespace agent_test;

double time_bound(int retry, int timeout) {
  return (retry - 1) * 120.0 + (retry + 1) * timeout + 5.0;
}

void expect_sound_run(const RunResult& run, int want_status, double bound) {
  EXPECT_TRUE(run.exited) << "signal " << run.signal;
  EXPECT_EQ(run.status, want_status);
  EXPECT_EQ(run.err, "");
  EXPECT_LE(run.secs, bound);
}

Bytes status_body(int job, int client, char status, const std::string& text, int ret) {
  Bytes b = meld_body(276, client, job, status, 57);
  const std::string t = text.substr(0, 31);  // a NUL, then blanks to 32 bytes
  put_text(b, 25, t + '\0' + std::string(31 - t.size(), ' '));
  put_le(b, 100, static_cast<unsigned>(ret));
  return b;
}
Bytes output_body(int job, int client, char login, const std::string& file) {
  Bytes b = meld_body(276, client, job, 'O', 25);
  b[88] = static_cast<unsigned char>(login);
  put_text(b, 89, file.substr(0, 187));
  return b;
}
Bytes variable_body(int job, int client, const std::string& name, const std::string& value,
                    char type) {
  Bytes b = meld_body(name.empty() ? 296 : 1521, client, job, 'V', 57);
  put_text(b, 25, std::string(32, ' '));
  if (name.empty()) return b;  // no name: no variable record
  put_le(b, 120, 108);
  put_le(b, 124, 1225);
  put_text(b, 128, name.substr(0, 199));
  put_text(b, 328, value.substr(0, 1023));
  b[1352] = static_cast<unsigned char>(type);
  return b;
}

// Every kind of event arrives as one frame, byte for byte; only the time stamp (within seconds
// of now) and the messenger's own process ID are taken from what came.
TEST(AgentMessenger, FrameOfEachEventOnTheWire) {
  const std::string t40(40, 'x'), f200(200, 'f'), n300(300, 'n'), v1100(1100, 'v');
  const struct {
    std::vector<std::string> args;
    int status;
    const char* report;  // a piece of the report
    Bytes body;
  } cases[] = {
      {{"TYP=S", "JNR=7", "MNR=100", "TXT=nightly load"},
       0,
       "**  JOB 00000007 (ProcID:",
       status_body(7, 100, 'R', "nightly load", 0)},
      {{"TYP=E", "JNR=8", "MNR=100", "RET=3", "TXT=" + t40},
       3,
       "RETCODE=03",
       status_body(8, 100, 'E', t40, 3)},
      {{"JNR=1", "MNR=-1", "RET=-1"}, 0, "RESTART AT", status_body(1, -1, 'R', "", -1)},
      {{"TYP=O", "JNR=9", "MNR=2", "ULOGIN=Yes", "OUTFILE=/var/spool/job9.out"},
       0,
       "registered output file '/var/spool/job9.out'",
       output_body(9, 2, 'Y', "/var/spool/job9.out")},
      {{"TYP=O", "JNR=9", "OUTFILE=" + f200}, 0, "login check 'N'", output_body(9, 0, 'N', f200)},
      {{"TYP=V", "JNR=10", "MNR=2", "NAME=X", "VALUE=1", "VTYPE=C"},
       0,
       "Registered variable: 'C' X=1",
       variable_body(10, 2, "X", "1", 'C')},
      {{"TYP=V", "JNR=11", "NAME=" + n300, "VALUE=" + v1100, "VTYPE=N"},
       0,
       "Registered variable: 'N' n",
       variable_body(11, 0, n300, v1100, 'N')},
      {{"TYP=V", "JNR=12", "VALUE=1", "VTYPE=C"},
       0,
       "Registered variable: 'C' NULL=1",
       variable_body(12, 0, "", "1", 'C')},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.args[1]);
    FakeAgent agent(good_agent);
    ASSERT_TRUE(agent.ok());
    std::vector<std::string> args = c.args;
    args.push_back("TIMEOUT=5");
    const RunResult run = run_messenger(agent.port(), args);
    expect_sound_run(run, c.status, time_bound(3, 5));
    EXPECT_NE(run.out.find(c.report), std::string::npos) << run.out;

    const std::vector<Bytes> frames = agent.frames();
    ASSERT_EQ(frames.size(), 1u);
    const Bytes& f = frames[0];
    const size_t len = c.body.size();
    ASSERT_EQ(f.size(), 63 + len);
    Bytes prefix = nat_frame("JPAKTJ_R", Bytes(len));
    prefix.resize(63);
    EXPECT_EQ(Bytes(f.begin(), f.begin() + 63), prefix);

    const Bytes body(f.begin() + 63, f.end());
    Bytes want = c.body;
    if (want[24] == 'O') {
      EXPECT_TRUE(adopt_time(body, want, 68, 84));
    } else if (want[24] == 'V') {
      EXPECT_TRUE(adopt_time(body, want, 100, 116));
    } else {
      EXPECT_TRUE(adopt_time(body, want, 108, 124));
      // The messenger's own process, its parent (this test) and the group it inherited.
      const unsigned pid = get_le(body, 128);
      EXPECT_NE(pid, 0u);
      EXPECT_NE(pid, static_cast<unsigned>(getpid()));
      put_le(want, 128, pid);
      put_le(want, 132, static_cast<unsigned>(getpid()));
      put_le(want, 136, static_cast<unsigned>(getpgrp()));
    }
    EXPECT_EQ(body, want);
  }
}

// ---- Hostile agents ---------------------------------------------------------------------------

struct HostileCase {
  const char* name;
  std::function<void(int& fd)> script;  // null: nothing listens (refused)
  bool delivered;                       // the job message reaches the agent
  const char* trace;                    // a line the trace must contain
  int timeout = 1;                      // long enough for the agent's script on a busy host
};

class HostileAgents : public ::testing::TestWithParam<HostileCase> {};

TEST_P(HostileAgents, RunEndsSoundly) {
  const HostileCase& c = GetParam();
  FakeAgent agent([&](FakeAgent& self, int& fd, int) {
    if (c.script) c.script(fd);
    Bytes rest;
    if (fd >= 0 && c.delivered) {
      wait_eof(fd, 5000, &rest);
      self.keep(rest);
    }
  });
  ASSERT_TRUE(agent.ok());
  const RunResult run = run_messenger(
      c.script ? agent.port() : refused_port(),
      {"TYP=E", "JNR=77", "RET=5", "RETRY=1", "TIMEOUT=" + std::to_string(c.timeout), "TRC=1"});
  expect_sound_run(run, 5, time_bound(1, c.timeout));
  EXPECT_NE(run.out.find("**  JOB 00000077 (ProcID:"), std::string::npos);
  EXPECT_NE(run.out.find(c.trace), std::string::npos) << run.out;

  const std::vector<Bytes> kept = agent.frames();
  ASSERT_EQ(kept.size(), c.delivered ? 1u : 0u);
  if (c.delivered) {  // exactly one MELD frame before the close
    ASSERT_EQ(kept[0].size(), 339u);
    EXPECT_EQ(std::string(kept[0].begin(), kept[0].begin() + 8), "00000339");
    EXPECT_EQ(std::string(kept[0].begin() + 63, kept[0].begin() + 71), "MELD    ");
  }
}

std::function<void(int&)> sends(Bytes b) {
  return [b](int& fd) {
    write_all(fd, b);
    wait_eof(fd, 3000);
  };
}
// A header announcing `digits` as the frame length, then a few body bytes.
Bytes with_length(const std::string& digits) {
  Bytes f = native_frame("hi");
  f.resize(60);
  std::memcpy(f.data(), digits.data(), 8);
  return f;
}
Bytes text(const std::string& s) {
  return Bytes(s.begin(), s.end());
}

const char kInvalid[] = "main:      invalid answer";

INSTANTIATE_TEST_SUITE_P(
    Messenger, HostileAgents,
    ::testing::Values(
        HostileCase{"refused", nullptr, false, "ended normally"},
        HostileCase{"silent", [](int& fd) { wait_eof(fd, 3000); }, false, "ended abnormally"},
        HostileCase{"closes_at_once", [](int& fd) { close(std::exchange(fd, -1)); }, false,
                    kInvalid},
        HostileCase{"resets", [](int& fd) { reset_close(std::exchange(fd, -1)); }, false, kInvalid},
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
                      const int one = 1;
                      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
                      for (unsigned char ch : native_frame("slow agent")) {
                        write_all(fd, &ch, 1);
                        usleep(2000);
                      }
                    },
                    true, "ended normally", 5},
        HostileCase{"never_replies", [](int& fd) { write_all(fd, native_frame("mute")); }, true,
                    "ended normally"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
