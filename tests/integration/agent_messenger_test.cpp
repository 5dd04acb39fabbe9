// Whole runs of qx_jpmd against fake agents, then the agent session in-process. Every run
// exits with the job's status, writes nothing to standard error, ends within (RETRY - 1) x
// 120 + (RETRY + 1) x TIMEOUT + 5 seconds and stays within the README's memory bound.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>

#include <memory>

#include "ccm/address.h"
#include "ccm/internal.h"
#include "ccm/locks.h"
#include "messenger/agent_session.h"
#include "messenger/driver.h"
#include "support/agent.h"

namespace {

using namespace agent_test;

double time_bound(int retry, int timeout) {
  return (retry - 1) * 120.0 + (retry + 1) * timeout + 5.0;
}
// The README's memory bound of a run with one attempt (more attempts may take more).
constexpr long kRunMemoryBoundKb = 44 * 1024;

void expect_sound_run(const RunResult& run, int want_status, double bound) {
  EXPECT_TRUE(run.exited) << "signal " << run.signal;
  EXPECT_EQ(run.status, want_status);
  EXPECT_EQ(run.err, "");
  EXPECT_LE(run.secs, bound);
  if (!qxtest::kSanitizerBuild) {
    EXPECT_LT(run.max_rss_kb, kRunMemoryBoundKb);
  }
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
  const std::pair<std::vector<std::string>, Bytes> cases[] = {
      {{"TYP=S", "JNR=7", "MNR=100", "TXT=nightly load"},
       status_body(7, 100, 'R', "nightly load", 0)},
      {{"TYP=E", "JNR=8", "MNR=100", "RET=3", "TXT=" + t40}, status_body(8, 100, 'E', t40, 3)},
      // Unquoted texts split by the shell: the bare words "cmd" and "retry" are no keys.
      {{"TYP=E", "JNR=8", "MNR=100", "RET=3", "TXT=see", "cmd", "log"},
       status_body(8, 100, 'E', "see", 3)},
      {{"TYP=S", "JNR=7", "TXT=backup", "failed,", "will", "retry"},
       status_body(7, 0, 'R', "backup", 0)},
      {{"JNR=1", "MNR=-1", "RET=-1"}, status_body(1, -1, 'R', "", -1)},
      {{"TYP=O", "JNR=9", "MNR=2", "ULOGIN=Yes", "OUTFILE=/o/j9"}, output_body(9, 2, 'Y', "/o/j9")},
      {{"TYP=O", "JNR=9", "OUTFILE=" + f200}, output_body(9, 0, 'N', f200)},
      {{"TYP=V", "JNR=10", "MNR=2", "NAME=X", "VALUE=1", "VTYPE=C"},
       variable_body(10, 2, "X", "1", 'C')},
      {{"TYP=V", "JNR=11", "NAME=" + n300, "VALUE=" + v1100, "VTYPE=N"},
       variable_body(11, 0, n300, v1100, 'N')},
      {{"TYP=V", "JNR=12", "VALUE=1", "VTYPE=C"}, variable_body(12, 0, "", "1", 'C')},
  };
  for (auto [args, want] : cases) {
    SCOPED_TRACE(args[0] + " " + args[1]);
    FakeAgent agent(good_agent);
    args.push_back("TIMEOUT=5");
    // An end event exits with its return code, every other with 0.
    expect_sound_run(run_messenger(agent.port(), args), want[24] == 'E' ? 3 : 0, time_bound(3, 5));
    const std::vector<Bytes> frames = agent.frames();
    ASSERT_EQ(frames.size(), 1u);
    ASSERT_EQ(frames[0].size(), 63 + want.size());
    const Bytes body(frames[0].begin() + 63, frames[0].end());
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
    EXPECT_EQ(frames[0], nat_frame("JPAKTJ_R", want));
  }
}

// Whatever the agent does, the report is printed and the run ends soundly; only a greeted run
// puts its job message on the wire, exactly once.
TEST(AgentMessenger, HostileAgents) {
  const char kInvalid[] = "main:      invalid answer", kNormal[] = "ended normally";
  const auto sends = [](const auto& b) {  // these bytes, then wait for the messenger's close
    return [f = Bytes(b.begin(), b.end())](int& fd) {
      write_all(fd, f);
      wait_eof(fd, 3000);
    };
  };
  const auto with_length = [](const char* digits) {  // a header announcing this frame length
    Bytes f = native_frame("hi");
    std::memcpy(f.data(), digits, 8);
    return f;
  };
  const auto byte_by_byte = [](int& fd) {
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    for (unsigned char ch : native_frame("slow agent")) {
      write_all(fd, Bytes{ch});
      usleep(2000);
    }
  };
  const struct {
    const char* name;
    std::function<void(int& fd)> script;  // null: nothing listens (refused)
    bool delivered;                       // the job message reaches the agent
    const char* trace;                    // a line the trace must contain
    int timeout = 1;                      // long enough for the agent's script on a busy host
  } cases[] = {
      {"refused", nullptr, false, kNormal},
      {"silent", [](int& fd) { wait_eof(fd, 3000); }, false, "ended abnormally"},
      {"closes at once", [](int& fd) { close(std::exchange(fd, -1)); }, false, kInvalid},
      {"resets", [](int& fd) { reset_close(std::exchange(fd, -1)); }, false, kInvalid},
      {"greets with a NAT message", sends(nat_frame("JPAKTJ_S", {'h', 'i'})), false, kInvalid},
      {"greets with key 7", sends(native_frame("hello", 7)), false, kInvalid},
      {"sends garbage", sends(std::string("GET / HTTP/1.0\r\nHost: agent\r\n\r\n")), false,
       kInvalid},
      {"length not a number", sends(with_length("00x00060")), false, kInvalid},
      {"length below the header", sends(with_length("00000010")), false, kInvalid},
      {"huge length", sends(with_length("99999999")), false, kInvalid},
      {"answers with an internal frame", sends(ipc_notice("CHANNEL_CLOSE", 2)), false, kInvalid},
      {"greets byte by byte", byte_by_byte, true, kNormal, 5},
      {"never replies", [](int& fd) { write_all(fd, native_frame("mute")); }, true, kNormal},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FakeAgent agent([&](FakeAgent& self, int& fd, int) {
      if (c.script) c.script(fd);
      Bytes rest;  // all that comes after the greeting, up to the messenger's close
      if (fd < 0 || !c.delivered) return;
      wait_eof(fd, 10000, &rest);
      self.keep(rest);
    });
    const RunResult run = run_messenger(
        c.script ? agent.port() : refused_port(),
        {"TYP=E", "JNR=77", "RET=5", "RETRY=1", "TIMEOUT=" + std::to_string(c.timeout), "TRC=1"});
    expect_sound_run(run, 5, time_bound(1, c.timeout));
    EXPECT_NE(run.out.find("**  JOB 00000077 (ProcID:"), std::string::npos);
    EXPECT_NE(run.out.find(c.trace), std::string::npos) << run.out;
    const std::vector<Bytes> kept = agent.frames();
    ASSERT_EQ(kept.size(), c.delivered ? 1u : 0u);
    if (c.delivered) {  // one MELD frame
      ASSERT_EQ(kept[0].size(), 339u);
      EXPECT_EQ(std::string(kept[0].begin(), kept[0].begin() + 8), "00000339");
      EXPECT_EQ(std::string(kept[0].begin() + 63, kept[0].begin() + 71), "MELD    ");
    }
  }
}

// How the job started the run: standard descriptors closed (with a trace that would fill a
// pipe in their place), output a broken pipe, or 1,100 inherited descriptors (the run's own
// then lie above FD_SETSIZE). The event is delivered, the status is the job's, and closed
// descriptors are on /dev/null while the run talks to the agent.
TEST(AgentMessenger, HowTheJobStartedTheRun) {
  constexpr int kClosed = qxtest::kClosedFd;
  int broken[2];
  ASSERT_EQ(pipe2(broken, O_CLOEXEC), 0);
  close(broken[0]);
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
  const rlimit raised{std::max<rlim_t>(old.rlim_cur, 2048), old.rlim_max};
  const struct {
    const char* name;
    std::vector<int> fds;  // standard input, output, error of the run (-1: a file)
    int inherited = 0;
  } cases[] = {{"input and output closed", {kClosed, kClosed, -1}},
               {"error closed", {-1, -1, kClosed}},
               {"all closed", {kClosed, kClosed, kClosed}},
               {"output a broken pipe", {-1, broken[1], -1}},
               {"1,100 inherited descriptors", {-1, -1, -1}, 1100}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.inherited > 0 && (raised.rlim_cur > old.rlim_max || setrlimit(RLIMIT_NOFILE, &raised)))
      continue;  // a hard limit below 2,048 descriptors
    std::atomic<pid_t> pid{0};
    std::string links[3];
    FakeAgent agent([&](FakeAgent& self, int& fd, int index) {
      for (int i = 0; i < 3; i++) {
        char link[64] = {};
        const std::string path = "/proc/" + std::to_string(pid.load()) + "/fd/" + std::to_string(i);
        if (readlink(path.c_str(), link, sizeof link - 1) > 0) links[i] = link;
      }
      good_agent(self, fd, index);
    });
    std::vector<int> fds = c.fds, held;
    for (int& fd : fds)
      if (fd == -1) fd = qxtest::temp_file();
    for (int i = 0; i < c.inherited; i++)
      held.push_back(open("/dev/null", O_RDONLY));  // inherited: no O_CLOEXEC
    pid = qxtest::spawn(
        {bin_path("qx_jpmd"), "IPA=127.0.0.1", "PNR=" + std::to_string(agent.port()), "TYP=E",
         "RET=5", "RETRY=1", "TIMEOUT=5", "TRC=1", "TXT=" + std::string(60, 't')},
        fds);
    int st = 0;
    if (!qxtest::reap(pid, now_ms() + 20000, &st)) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
      st = -1;
    }
    for (int fd : held)
      close(fd);
    setrlimit(RLIMIT_NOFILE, &old);
    EXPECT_TRUE(held.empty() || held.back() > 1100);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 5) << st;
    EXPECT_EQ(agent.frames().size(), 1u);
    for (int i = 0; i < 3; i++)
      EXPECT_TRUE(c.fds[i] != kClosed || links[i] == "/dev/null") << i << " " << links[i];
    EXPECT_TRUE(fds[2] < 0 || qxtest::read_all(fds[2]).empty());
    for (int fd : fds)
      if (fd >= 0 && fd != broken[1]) close(fd);
  }
  close(broken[1]);
}

// An agent that greets, never reads (its window closes with the job message partly unsent),
// then sends garbage or half-closes: the run ends at once, and the whole job message still
// arrives once the agent reads.
TEST(AgentMessenger, AgentWithAClosedWindowNeverHoldsTheRun) {
  const std::string value(1023, 'v');  // the largest job message: 1,584 bytes
  for (const bool garbage : {true, false}) {
    SCOPED_TRACE(garbage ? "garbage" : "half-close");
    FakeAgent agent(
        [&](FakeAgent& self, int& fd, int) {
          write_all(fd, native_frame("QX7 agent"));
          usleep(300 * 1000);  // the job message fills the window
          if (garbage) {
            write_all(fd, frame("\x05\x01x"));
          } else {
            shutdown(fd, SHUT_WR);
          }
          usleep(3000 * 1000);  // reading opens the window: only after the run has ended
          Bytes rest;
          wait_eof(fd, 10000, &rest);
          self.keep(rest);
        },
        0, 1);
    const RunResult run = run_messenger(
        agent.port(), {"TYP=V", "JNR=5", "NAME=BIG", "VALUE=" + value, "RETRY=1", "TIMEOUT=5"});
    expect_sound_run(run, 0, time_bound(1, 5));
    EXPECT_LT(run.secs, 2.5);
    const std::vector<Bytes> kept = agent.frames();
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(kept[0].size(), 1584u);
  }
}

// Runs repeated against one agent at the edges of a run. The greeting and a second frame in
// one segment: the second is no reply, the job message comes once and the run waits for the
// real reply (not always: the two are queued one by one, and a session that looks in between
// takes the second for the reply). A reset right after the greeting (on read or on write, where a
// plain write would raise SIGPIPE): the run exits with the job's return code.
TEST(AgentMessenger, RepeatedRunsAtTheEdges) {
  std::atomic<int> ok{0}, waited{0};
  const FakeAgent::Script behind = [&](FakeAgent&, int& fd, int) {
    Bytes both = native_frame("agent"), extra = native_frame("unasked"), meld, rest;
    both.insert(both.end(), extra.begin(), extra.end());
    write_all(fd, both);
    if (!read_frame(fd, &meld) || meld.size() != 339) return;
    waited += !wait_eof(fd, 100);
    write_all(fd, native_frame("OK"));
    if (wait_eof(fd, 5000, &rest) && rest.empty()) ok++;
  };
  const FakeAgent::Script resets = [&](FakeAgent&, int& fd, int) {
    write_all(fd, native_frame("agent"));
    reset_close(std::exchange(fd, -1));
    ok++;
  };
  const struct {
    const char* name;
    FakeAgent::Script script;
    std::vector<std::string> args;
    int status, runs, min_waited;
  } cases[] = {
      {"frame behind the greeting", behind, {"TYP=S", "TIMEOUT=2"}, 0, 100, 25},
      {"reset after the greeting", resets, {"TYP=E", "RET=7", "RETRY=1", "TIMEOUT=2"}, 7, 200, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ok = waited = 0;
    FakeAgent agent(c.script);
    for (int i = 0; i < c.runs; i++)
      expect_sound_run(run_messenger(agent.port(), c.args), c.status, time_bound(3, 2));
    agent.frames();
    EXPECT_EQ(ok.load(), c.runs);
    EXPECT_GE(waited.load(), c.min_waited);
  }
}

// ---- The session in-process, with a short pause between attempts ----

constexpr int kPauseMs = 300;

class AgentSessionTest : public ::testing::Test {
 protected:
  // Runs the session; every descriptor it opened is closed when it returns (the agent's end
  // of a connection may take a moment longer).
  int run(int retry, int port, const char* host = "127.0.0.1") {
    const auto fds_before = qxtest::open_descriptors();
    initialize_messenger(&pcx_);  // the 120-second pause is replaced by the short one
    pcx_.melder_type = pcx_.status = 'E';
    pcx_.IoTimeOut = timeout_;
    pcx_.reti = 9;
    pcx_.jobnri = 5;
    std::strcpy(pcx_.ipAddr, host);
    pcx_.connect_retry = retry;
    pcx_.portnri = port;
    AgentSessionTiming timing{kPauseMs, on_wait_step_};
    const long long start = now_ms();
    const int status = run_agent_session(&pcx_, &timing);
    elapsed_ms_ = now_ms() - start;
    for (int i = 0; i < 300 && check_fds_ && qxtest::open_descriptors() != fds_before; i++)
      usleep(10000);
    if (check_fds_) {
      EXPECT_EQ(qxtest::open_descriptors(), fds_before);
    }
    EXPECT_EQ(ccm, nullptr);
    return status;
  }
  PCX pcx_;
  int timeout_ = 5;
  void (*on_wait_step_)() = nullptr;
  long long elapsed_ms_ = 0;
  bool check_fds_ = true;
};

// Each way a session ends: the job's status always, the agent's channel only once greeted, an
// abnormal end only when the greeting never came or there is no connection manager, and every
// attempt but the first after the pause. Internal messages of no channel that keep arriving
// (for 5 s) do not hold a wait past its deadline. A name of two addresses, the first refused:
// the attempt moves on to the second, a usable address before a loopback one, else in the
// resolver's order (the agent listens on 127.0.0.1 only).
TEST_F(AgentSessionTest, Outcomes) {
  const auto closes = [](FakeAgent&, int& fd, int) { close(std::exchange(fd, -1)); };
  const auto rejected = [](FakeAgent&, int& fd, int) {
    write_all(fd, native_frame("wrong", 7));
    wait_eof(fd, 3000);
  };
  const auto silent = [](FakeAgent&, int& fd, int) { wait_eof(fd, 3000); };
  const auto mute = [](FakeAgent& self, int& fd, int) {
    write_all(fd, native_frame("mute agent"));
    Bytes frame;
    if (read_frame(fd, &frame)) self.keep(frame);
    wait_eof(fd, 3000);
  };
  static std::vector<std::string> answers;
  ccm_resolver.resolve = [](const char* node, const char* service, const addrinfo* hints,
                            addrinfo** res) {
    if (std::strcmp(node, "agent.test") != 0) return getaddrinfo(node, service, hints, res);
    addrinfo numeric{};  // the answers, chained into one list that freeaddrinfo releases
    numeric.ai_flags = AI_NUMERICHOST;
    numeric.ai_socktype = SOCK_STREAM;
    for (const std::string& a : answers) {
      if (getaddrinfo(a.c_str(), nullptr, &numeric, res) != 0) return EAI_NONAME;
      res = &(*res)->ai_next;
    }
    return 0;
  };
  static long long flow_until;
  on_wait_step_ = [] {
    ccm_error_t err{};
    ccm_msg_t* m = now_ms() < flow_until ? ccm_msg_alloc(ccm, &err) : nullptr;
    if (m == nullptr) return;
    std::memcpy(m->msg_start, "UNRELATED", 10);
    m->len = 16;
    m->type = CCM_MSG_IPC;
    ccm_queue_guard guard(ccm, ccm_lock_trace::kQuiet);
    ccm_queue_unlink(ccm->msgq_inuse, m);
    ccm_queue_append(ccm->recvq, m);
  };
  const struct {
    const char* name;
    FakeAgent::Script script;  // null: nothing listens
    int retry, attempts;
    bool abnormal, delivered, no_context = false, flow = false;
    std::vector<std::string> answers = {};  // of the name agent.test, the host when given
  } cases[] = {
      {"delivered", good_agent, 2, 1, false, true},
      {"rejected", rejected, 3, 3, false, false},
      {"closed at once", closes, 2, 2, false, false},
      {"timed out", silent, 2, 1, true, false},
      {"nothing listening", nullptr, 2, 0, false, false},
      {"no attempt", closes, 0, 0, false, false},
      {"negative RETRY", closes, -2, 0, false, false},
      {"no connection manager", closes, 3, 0, true, false, true},
      {"unrelated messages, no greeting", silent, 1, 1, true, false, false, true},
      {"unrelated messages, no reply", mute, 1, 1, false, true, false, true},
      {"usable address first",
       good_agent,
       1,
       1,
       false,
       true,
       false,
       false,
       {"127.0.0.1", "127.0.0.2"}},
      {"loopback addresses", good_agent, 1, 1, false, true, false, false, {"::1", "127.0.0.1"}},
  };
  timeout_ = 1;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FakeAgent agent(c.script ? c.script : closes);
    if (c.no_context) {
      ccm_alloc = [](size_t size, const char* tag) -> void* {
        return std::strcmp(tag, "CCM_OPEN") == 0 ? nullptr : ccm_alloc_default(size, tag);
      };
    }
    answers = c.answers;
    flow_until = c.flow ? now_ms() + 5000 : 0;
    EXPECT_EQ(run(c.retry, c.script ? agent.port() : refused_port(),
                  answers.empty() ? "127.0.0.1" : "agent.test"),
              9);
    ccm_alloc = ccm_alloc_default;
    EXPECT_EQ(pcx_.abnormal_end, c.abnormal ? 1 : 0);
    EXPECT_EQ(pcx_.agentID != 0, c.delivered);
    EXPECT_EQ(agent.frames().size(), c.delivered ? 1u : 0u);
    EXPECT_EQ(agent.connections(), c.attempts);
    const int pauses = std::max(c.attempts - 1, 0);
    EXPECT_TRUE(elapsed_ms_ >= pauses * kPauseMs && elapsed_ms_ < pauses * (kPauseMs + 3000) + 3000)
        << elapsed_ms_;
  }
  ccm_resolver = ccm_resolver_default;
}

// The first attempt's close notice is queued at once (refused) or arrives during the pause
// (greeted wrongly, the agent then flooding the rejected connection, which is closed at once and
// costs no memory): it is no answer for the second attempt, which ends once the reply came.
TEST_F(AgentSessionTest, StaleCloseNoticeIsNoAnswer) {
  for (const bool refused : {true, false}) {
    SCOPED_TRACE(refused ? "refused" : "wrong greeting");
    check_fds_ = !refused;  // the agent is started during the run
    const int port = refused_port();
    std::unique_ptr<FakeAgent> agent;
    const auto start = [&] {
      agent = std::make_unique<FakeAgent>(
          [refused](FakeAgent& self, int& fd, int index) {
            if (refused || index > 0) return good_agent(self, fd, index);
            const long long start = now_ms();
            write_all(fd, native_frame("wrong", 7));
            while (now_ms() - start < 2 * kPauseMs && write_all(fd, native_frame("flood")))
              usleep(100);
            if (now_ms() - start < kPauseMs) self.keep({});
          },
          port);
    };
    if (!refused) start();
    std::thread starter([&] {
      usleep(kPauseMs * 1000 / 3);
      if (refused) start();
    });
    qxtest::reset_peak_memory();
    const long before_kb = qxtest::peak_memory_kb();
    const int status = run(2, port);
    starter.join();
    EXPECT_TRUE(qxtest::kSanitizerBuild || qxtest::peak_memory_kb() - before_kb < 16 * 1024);
    EXPECT_EQ(status, 9);
    EXPECT_EQ(pcx_.abnormal_end, 0);
    EXPECT_NE(pcx_.agentID, 0);
    EXPECT_EQ(agent->connections(), refused ? 1 : 2);
    std::vector<Bytes> frames = agent->frames();
    if (!refused) {  // the mark that the flood met a closed connection in time
      ASSERT_FALSE(frames.empty());
      EXPECT_TRUE(frames[0].empty());
      frames.erase(frames.begin());
    }
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(std::string(frames[0].begin() + 63, frames[0].begin() + 71), "MELD    ");
    EXPECT_LT(elapsed_ms_, kPauseMs + 3000);  // a wait for the time-out would take 5 seconds
  }
}

}  // namespace
