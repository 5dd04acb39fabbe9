// Whole runs of qx_jpmd against fake agents, then the agent session in-process. Every run exits
// with the job's status, writes nothing to standard error, in time and within the memory bound.
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

// The README's bound on time ((RETRY - 1) x 120 + (RETRY + 1) x TIMEOUT + 5 s) and memory.
void expect_sound_run(const RunResult& run, int want_status, int retry, int timeout) {
  EXPECT_TRUE(run.exited && run.err.empty()) << "signal " << run.signal << " " << run.err;
  EXPECT_EQ(run.status, want_status);
  EXPECT_LE(run.secs, (retry - 1) * 120.0 + (retry + 1) * timeout + 5.0);
  EXPECT_TRUE(qxtest::kSanitizerBuild || run.max_rss_kb < 44 * 1024) << run.max_rss_kb;
}

// A job message: R/E (text a, return code n), O (file a, login n), V (name a, value b, type n).
Bytes event(char kind, int job, int client, const std::string& a, const std::string& b = "",
            int n = 0) {
  const bool named = kind == 'V' && !a.empty();
  const size_t size = named ? 1521 : kind == 'V' ? 296 : 276;
  Bytes w = meld_body(size, client, job, kind, kind == 'O' ? 25 : 57);
  const std::string t = a.substr(0, 31);  // a status text: a NUL, then blanks to 32 bytes
  if (kind == 'O') w[88] = static_cast<unsigned char>(n), put_text(w, 89, a.substr(0, 187));
  if (kind != 'O')
    put_text(w, 25,
             kind == 'V' ? std::string(32, ' ') : t + '\0' + std::string(31 - t.size(), ' '));
  if (kind == 'R' || kind == 'E') put_le(w, 100, static_cast<unsigned>(n));
  if (!named) return w;
  put_le(w, 120, 108);
  put_le(w, 124, 1225);
  put_text(w, 128, a.substr(0, 199));
  put_text(w, 328, b.substr(0, 1023));
  w[1352] = static_cast<unsigned char>(n);
  return w;
}

// Each event kind byte for byte; whatever the agent does, only a greeted run sends it, once.
TEST(AgentMessenger, EventsAndHostileAgents) {
  const char kInvalid[] = "main:      invalid answer", kNormal[] = "ended normally";
  const std::string t40(40, 'x'), f200(200, 'f'), n300(300, 'n'), v1100(1100, 'v'), v(1023, 'v');
  using Script = std::function<void(FakeAgent&, int&)>;
  const Script replies = [](FakeAgent& self, int& fd) { good_agent(self, fd, 0); };
  const auto sends = [](const auto& b) -> Script {  // these bytes, then wait for the close
    return [f = Bytes(b.begin(), b.end())](FakeAgent&, int& fd) {
      write_all(fd, f);
      wait_eof(fd, 3000);
    };
  };
  const auto with_length = [](const char* digits) {  // a header announcing this frame length
    Bytes f = native_frame("hi");
    std::memcpy(f.data(), digits, 8);
    return f;
  };
  const Script resets = [](FakeAgent&, int& fd) {
    linger lg{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
    close(std::exchange(fd, -1));
  };
  const Script byte_by_byte = [](FakeAgent&, int& fd) {
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    for (unsigned char ch : native_frame("slow agent")) {
      write_all(fd, Bytes{ch});
      usleep(2000);
    }
  };
  // Greets, reads nothing until the run ended (its window shut), sends garbage or half-closes.
  std::atomic<bool> run_ended{false};
  const auto shut_window = [&run_ended](bool garbage) -> Script {
    return [garbage, &run_ended](FakeAgent&, int& fd) {
      write_all(fd, native_frame("QX7 agent"));
      usleep(300 * 1000);
      garbage ? (void)write_all(fd, frame("\x05\x01x")) : (void)shutdown(fd, SHUT_WR);
      for (int i = 0; i < 1000 && !run_ended; i++)
        usleep(10 * 1000);
    };
  };
  struct Row {
    std::string name;
    Script script;      // null: nothing listens (refused)
    const char* trace;  // a line the trace must contain
    bool delivered;     // the job message reaches the agent
    int timeout = 1;    // long enough for the agent's script on a busy host
    std::vector<std::string> args = {"TYP=E", "JNR=77", "RET=5"};
    Bytes want = event('E', 77, 0, "", "", 5);
    bool big = false;  // to an agent whose receive buffer is 1 byte
  };
  const auto ev = [&](const std::vector<std::string>& args, const Bytes& want) {
    return Row{args[0] + " " + args[1], replies, kNormal, true, 5, args, want};
  };
  const std::vector<std::string> big = {"TYP=V", "JNR=5", "NAME=BIG", "VALUE=" + v, "VTYPE=C"};
  const Bytes big_want = event('V', 5, 0, "BIG", v, 'C');
  const Row cases[] = {
      ev({"TYP=S", "JNR=7", "MNR=100", "TXT=nightly load"}, event('R', 7, 100, "nightly load")),
      ev({"TYP=E", "JNR=8", "MNR=100", "RET=3", "TXT=" + t40}, event('E', 8, 100, t40, "", 3)),
      // Unquoted texts split by the shell: the bare words "cmd" and "retry" are no keys.
      ev({"TYP=E", "JNR=8", "MNR=100", "RET=3", "TXT=see", "cmd", "log"},
         event('E', 8, 100, "see", "", 3)),
      ev({"TYP=S", "JNR=7", "TXT=backup", "failed,", "will", "retry"}, event('R', 7, 0, "backup")),
      ev({"JNR=1", "MNR=-1", "RET=-1"}, event('R', 1, -1, "", "", -1)),
      ev({"TYP=O", "JNR=9", "MNR=2", "ULOGIN=Yes", "OUTFILE=/o/j9"},
         event('O', 9, 2, "/o/j9", "", 'Y')),
      ev({"TYP=O", "JNR=9", "OUTFILE=" + f200}, event('O', 9, 0, f200, "", 'N')),
      ev({"TYP=V", "JNR=10", "MNR=2", "NAME=X", "VALUE=1", "VTYPE=C"},
         event('V', 10, 2, "X", "1", 'C')),
      ev({"TYP=V", "JNR=11", "NAME=" + n300, "VALUE=" + v1100, "VTYPE=N"},
         event('V', 11, 0, n300, v1100, 'N')),
      ev({"TYP=V", "JNR=12", "VALUE=1", "VTYPE=C"}, event('V', 12, 0, "")),
      {"refused", nullptr, kNormal, false},
      {"silent", [](FakeAgent&, int& fd) { wait_eof(fd, 3000); }, "ended abnormally", false},
      {"closes at once", [](FakeAgent&, int& fd) { close(std::exchange(fd, -1)); }, kInvalid,
       false},
      {"resets", resets, kInvalid, false},
      {"greets with a NAT message", sends(nat_frame("JPAKTJ_S", {'h', 'i'})), kInvalid, false},
      {"greets with key 7", sends(native_frame("hello", 7)), kInvalid, false},
      {"sends garbage", sends(std::string("GET / HTTP/1.0\r\nHost: agent\r\n\r\n")), kInvalid,
       false},
      {"huge length", sends(with_length("99999999")), kInvalid, false},
      {"answers with an internal frame", sends(ipc_notice("CHANNEL_CLOSE", 2)), kInvalid, false},
      {"greets byte by byte", byte_by_byte, kNormal, true, 5},
      {"never replies", [](FakeAgent&, int& fd) { write_all(fd, native_frame("mute")); }, kNormal,
       true},
      {"shut window, then garbage", shut_window(true), kNormal, true, 5, big, big_want, true},
      {"shut window, then half-close", shut_window(false), kNormal, true, 5, big, big_want, true},
  };
  for (const auto& c : cases) {
    if (HasFailure()) break;  // a broken build fails at its first row, in seconds
    SCOPED_TRACE(c.name);
    FakeAgent agent(
        [&](FakeAgent& self, int& fd, int) {
          if (c.script) c.script(self, fd);
          Bytes rest;  // all that comes after the greeting, up to the messenger's close
          if (fd >= 0 && c.delivered && wait_eof(fd, 10000, &rest) && !rest.empty())
            self.keep(rest);
        },
        0, c.big ? 1 : 0);
    std::vector<std::string> args = c.args;
    args.insert(args.end(), {"RETRY=1", "TRC=1", "TIMEOUT=" + std::to_string(c.timeout)});
    const time_t started = time(nullptr);
    run_ended = false;
    const RunResult run = run_messenger(c.script ? agent.port() : refused_port(), args, 10);
    run_ended = true;
    Bytes want = c.want;
    const auto le = [](const Bytes& b, size_t off) {
      unsigned v = 0;
      for (int i = 3; i >= 0; --i)
        v = v << 8 | static_cast<unsigned char>(b[off + i]);
      return v;
    };
    // An end event exits with its return code, every other with 0.
    expect_sound_run(run, want[24] == 'E' ? static_cast<int>(le(want, 100)) : 0, 1, c.timeout);
    EXPECT_TRUE(!c.big || run.secs < 2.5) << run.secs;  // not held until the agent reads
    char report[32];
    snprintf(report, sizeof report, "**  JOB %08u (ProcID:", le(want, 20));
    EXPECT_TRUE(want[24] == 'O' || want[24] == 'V' || run.out.find(report) != std::string::npos);
    EXPECT_NE(run.out.find(c.trace), std::string::npos) << run.out;
    const std::vector<Bytes> kept = agent.frames();
    ASSERT_EQ(kept.size(), c.delivered ? 1u : 0u);
    if (!c.delivered) continue;
    ASSERT_EQ(kept[0].size(), 63 + want.size());
    const Bytes got(kept[0].begin() + 63, kept[0].end());
    // Taken from what came: the time stamp (of this run) and the messenger's process.
    const size_t at = want[24] == 'O' ? 68 : want[24] == 'V' ? 100 : 108;  // UTC, then seconds
    const time_t sent = le(got, at + 16);
    tm u;
    gmtime_r(&sent, &u);
    const int fields[6] = {u.tm_year + 1900, u.tm_mon + 1, u.tm_mday,
                           u.tm_hour,        u.tm_min,     u.tm_sec};
    for (int i = 0; i < 6; i++)
      put_le(want, at + 2 * i, static_cast<unsigned>(fields[i]), 2);
    put_le(want, at + 16, static_cast<unsigned>(sent));
    EXPECT_TRUE(sent >= started && sent <= time(nullptr)) << sent;  // within this run
    if (at == 108) {  // its own process, its parent (this test), the group it inherited
      EXPECT_TRUE(le(got, 128) != 0 && le(got, 128) != static_cast<unsigned>(getpid()));
      put_le(want, 128, le(got, 128));
      put_le(want, 132, static_cast<unsigned>(getpid()));
      put_le(want, 136, static_cast<unsigned>(getpgrp()));
    }
    EXPECT_EQ(kept[0], nat_frame("JPAKTJ_R", want));
  }
}

// Closed standard descriptors (on /dev/null during the run), a broken pipe, 1,100 inherited.
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
    if (HasFailure()) break;
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
    int st = -1;
    if (!qxtest::reap(pid, now_ms() + 10000, &st)) kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
    for (int fd : held)
      close(fd);
    setrlimit(RLIMIT_NOFILE, &old);
    EXPECT_TRUE(held.empty() || held.back() > 1100);
    EXPECT_EQ(std::tuple(WIFEXITED(st) ? WEXITSTATUS(st) : -1, agent.frames().size()),
              std::tuple(5, 1u));
    for (int i = 0; i < 3; i++)
      EXPECT_TRUE(c.fds[i] != kClosed || links[i] == "/dev/null") << i << " " << links[i];
    EXPECT_TRUE(fds[2] < 0 || qxtest::read_all(fds[2]).empty());
    for (int fd : fds)
      if (fd >= 0 && fd != broken[1]) close(fd);
  }
  close(broken[1]);
}

// A frame sent with the greeting is never the reply; a reset after the greeting ends with RET.
TEST(AgentMessenger, RepeatedRunsAtTheEdges) {
  std::atomic<int> ok{0}, waited{0};
  const FakeAgent::Script behind = [&](FakeAgent&, int& fd, int) {
    Bytes both = native_frame("agent"), extra = native_frame("unasked"), meld, rest;
    both.insert(both.end(), extra.begin(), extra.end());
    write_all(fd, both);
    if (!read_frame(fd, &meld, 3000) || meld.size() != 339) return;
    waited += !wait_eof(fd, 20);  // a reply taken from the unasked frame closes at once
    write_all(fd, native_frame("OK"));
    if (wait_eof(fd, 3000, &rest) && rest.empty()) ok++;
  };
  const FakeAgent::Script resets = [&](FakeAgent&, int& fd, int) {
    write_all(fd, native_frame("agent"));
    linger lg{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
    close(std::exchange(fd, -1));
    ok++;
  };
  const struct {
    const char* name;
    FakeAgent::Script script;
    std::vector<std::string> args;
    int status, runs, min_waited;
  } cases[] = {
      {"frame behind the greeting", behind, {"TYP=S", "TIMEOUT=2"}, 0, 100, 100},
      {"reset after the greeting", resets, {"TYP=E", "RET=7", "RETRY=1", "TIMEOUT=2"}, 7, 200, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ok = waited = 0;
    FakeAgent agent(c.script);
    for (int i = 0; i < c.runs && !HasFailure(); i++)  // the first run that fails ends the row
      expect_sound_run(run_messenger(agent.port(), c.args, 10), c.status, 3, 2);
    agent.frames();
    EXPECT_EQ(std::tuple(ok.load(), waited.load() >= c.min_waited), std::tuple(c.runs, true));
  }
}

// Each way an in-process session ends (300 ms pauses): unrelated messages never hold a wait,
// the next address is tried when one is refused, and no close notice answers a later attempt.
TEST(AgentSession, Outcomes) {
  constexpr int kPauseMs = 300;
  const auto processors = [] {
    cpu_set_t s;
    return sched_getaffinity(0, sizeof s, &s), CPU_COUNT(&s);
  };
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
  // Greets wrongly, then floods the rejected connection, marking that it was closed in time.
  const auto flood = [](FakeAgent& self, int& fd, int index) {
    if (index > 0) return good_agent(self, fd, index);
    const long long start = now_ms();
    write_all(fd, native_frame("wrong", 7));
    while (now_ms() - start < 2 * kPauseMs && write_all(fd, native_frame("flood")))
      usleep(100);
    if (now_ms() - start < kPauseMs) self.keep({});
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
  static int steps;
  const auto unrelated = [] {  // an internal message of no channel on every step of a wait
    steps++;
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
    bool abnormal, delivered;
    std::vector<std::string> answers = {};  // of the name agent.test, the host when given
    bool no_context = false, flow = false;
    bool late = false;  // the agent starts listening during the first pause
    int timeout = 1;
  } cases[] = {
      {"delivered", good_agent, 2, 1, false, true},
      {"rejected", rejected, 3, 3, false, false},
      {"closed at once", closes, 2, 2, false, false},
      {"timed out", silent, 2, 1, true, false},
      {"nothing listening", nullptr, 2, 0, false, false},
      {"no attempt", closes, 0, 0, false, false},
      {"no connection manager", closes, 3, 0, true, false, {}, true},
      {"unrelated messages, no greeting", silent, 1, 1, true, false, {}, false, true},
      {"unrelated messages, no reply", mute, 1, 1, false, true, {}, false, true},
      {"usable address first", good_agent, 1, 1, false, true, {"127.0.0.1", "127.0.0.2"}},
      {"loopback addresses", good_agent, 1, 1, false, true, {"::1", "127.0.0.1"}},
      // A deadline in the past looks at what was queued when the wait began, and no more.
      {"past deadline, unrelated messages", silent, 1, 1, true, false, {}, false, true, false, 0},
      {"stale notice of a refusal", good_agent, 2, 1, false, true, {}, false, false, true, 5},
      {"stale notice of a rejection", flood, 2, 2, false, true, {}, false, false, false, 5},
  };
  for (const auto& c : cases) {
    if (HasFailure()) break;
    SCOPED_TRACE(c.name);
    const int port = refused_port();
    std::unique_ptr<FakeAgent> agent;
    const auto start = [&] { agent = std::make_unique<FakeAgent>(c.script, port); };
    if (c.script && !c.late) start();
    std::thread starter([&] {
      if (c.late) usleep(kPauseMs * 1000 / 3), start();
    });
    if (c.no_context) {
      ccm_alloc = [](size_t size, const char* tag) -> void* {
        return std::strcmp(tag, "CCM_OPEN") == 0 ? nullptr : ccm_alloc_default(size, tag);
      };
    }
    answers = c.answers;
    flow_until = c.flow ? now_ms() + 5000 : 0, steps = 0;
    const auto fds_before = qxtest::open_descriptors();
    const int cpus_before = processors();  // the run keeps to one, then gives the set back
    qxtest::reset_peak_memory();
    const long before_kb = qxtest::peak_memory_kb();
    PCX pcx;
    initialize_messenger(&pcx);
    pcx.melder_type = pcx.status = 'E';
    pcx.IoTimeOut = c.timeout;
    pcx.reti = 9;
    pcx.jobnri = 5;
    std::strcpy(pcx.ipAddr, answers.empty() ? "127.0.0.1" : "agent.test");
    pcx.connect_retry = c.retry;
    pcx.portnri = port;
    AgentSessionTiming timing{kPauseMs, unrelated};
    const long long begin = now_ms();
    EXPECT_EQ(run_agent_session(&pcx, &timing), 9);
    const long long elapsed_ms = now_ms() - begin;
    starter.join();
    ccm_alloc = ccm_alloc_default;
    EXPECT_TRUE(qxtest::kSanitizerBuild || qxtest::peak_memory_kb() - before_kb < 16 * 1024);
    EXPECT_EQ(std::tuple(ccm, processors()), std::tuple(nullptr, cpus_before));
    // No descriptor of the run stays open (the agent's may take a moment, as may its accepting
    // a connection that the run already closed; a late one is new).
    const auto settling = [&] {
      return qxtest::open_descriptors() != fds_before ||
             (agent && agent->connections() < c.attempts);
    };
    for (int i = 0; i < 300 && !c.late && settling(); i++)
      usleep(10000);
    EXPECT_TRUE(c.late || qxtest::open_descriptors() == fds_before);
    const std::vector<Bytes> kept = agent ? agent->frames() : std::vector<Bytes>{};
    const size_t marks = c.script == nullptr ? 0 : std::count(kept.begin(), kept.end(), Bytes{});
    EXPECT_EQ(std::tuple(pcx.abnormal_end, pcx.agentID != 0, kept.size() - marks,
                         agent ? agent->connections() : 0),
              std::tuple(c.abnormal ? 1 : 0, c.delivered, c.delivered ? 1u : 0u, c.attempts));
    EXPECT_EQ(marks, c.timeout == 5 && !c.late ? 1u : 0u);  // the flood met a closed connection
    EXPECT_TRUE(c.timeout != 0 || steps == 1) << steps;
    const int pauses = std::max(c.attempts - 1, 0);
    EXPECT_TRUE(elapsed_ms >= pauses * kPauseMs && elapsed_ms < pauses * kPauseMs + 3000)
        << elapsed_ms;
  }
  ccm_resolver = ccm_resolver_default;
}

}  // namespace
