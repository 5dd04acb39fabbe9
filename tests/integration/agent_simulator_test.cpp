// qx_agentsim as job script writers use it, clients and readers that misbehave, and whole
// messenger runs against it under valgrind.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <fstream>

#include "support/agent.h"

namespace {

using namespace agent_test;

TEST(AgentSimulator, ModesAsTheMessengerSeesThem) {
  const struct {
    const char* mode;
    const char* trace;  // a line of the messenger's trace
    bool event;         // the simulator prints the event
    double min_secs;    // the run waits out its time-out first
  } cases[] = {
      {"normal", "ended normally", true, 0},
      {"no-reply", "ended normally", true, 1},
      {"silent", "ended abnormally", false, 1},
      {"wrong-greeting", "main:      invalid answer", false, 0},
      {"close", "main:      invalid answer", false, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.mode);
    Simulator sim({"--json", "--mode", c.mode});
    const RunResult run = run_messenger(sim.port(), {"TYP=E", "JNR=31", "RET=4", "RETRY=1",
                                                     "TIMEOUT=1", "TRC=1", "TXT=say \"hi\""});
    EXPECT_TRUE(run.exited && run.status == 4 && run.err.empty()) << run.status << run.err;
    EXPECT_GE(run.secs, c.min_secs);
    EXPECT_NE(run.out.find(c.trace), std::string::npos);
    EXPECT_EQ(sim.stop(), 0);
    const std::vector<std::string> lines = sim.lines();
    ASSERT_EQ(lines.size(), c.event ? 2u : 1u);
    if (c.event) {
      EXPECT_EQ(json_number(lines[1], "job"), 31);
      EXPECT_EQ(json_number(lines[1], "rc"), 4);
      EXPECT_NE(lines[1].find("\"event\":\"end\""), std::string::npos) << lines[1];
      EXPECT_NE(lines[1].find("\"text\":\"say \\\"hi\\\"\""), std::string::npos) << lines[1];
    }
  }
}

TEST(AgentSimulator, ExitsAfterCountEvents) {
  Simulator sim({"--count", "2"});
  for (const char* job : {"JNR=1", "JNR=2"})
    EXPECT_EQ(run_messenger(sim.port(), {"TYP=O", job, "OUTFILE=/tmp/job.out", "TIMEOUT=5"}).status,
              0);
  EXPECT_EQ(sim.stop(false, 5000), 0);
  ASSERT_EQ(sim.lines().size(), 3u);
  EXPECT_NE(sim.lines()[2].find("file='/tmp/job.out'"), std::string::npos) << sim.lines()[2];
}

// A messenger run against `port` that delivers its event at once.
void expect_served(int port) {
  const RunResult run =
      run_messenger(port, {"TYP=E", "JNR=5", "RET=4", "RETRY=1", "TIMEOUT=5", "TRC=1"});
  EXPECT_EQ(run.status, 4);
  EXPECT_NE(run.out.find("ended normally"), std::string::npos);
  EXPECT_LT(run.secs, 4.0);
}

Bytes meld_frame(int job) {  // as the messenger sends it
  return nat_frame("JPAKTJ_R", meld_body(276, 0, job, 'R', 57));
}

// Whether the simulator prints a line holding `part` within 5 seconds (its writer thread may
// print it a moment after the close it reports).
bool prints_line(const Simulator& sim, const std::string& part) {
  for (long long end = now_ms() + 5000; now_ms() < end; usleep(5000))
    for (const std::string& l : sim.lines())
      if (l.find(part) != std::string::npos) return true;
  return false;
}

// A client that sends job messages and never reads the answers is dropped once its queue of
// answers passes the bound; one that says nothing is closed after --idle seconds.
TEST(AgentSimulator, DropsClientsThatDoNotReadOrSayNothing) {
  Simulator sim({"--idle", "1"});
  int port = sim.port();
  const int flood = loopback_socket(&port, false, 4096);
  ASSERT_GE(flood, 0);
  const long long start = now_ms();
  int sent = 0;
  while (now_ms() - start < 20000 && write_all(flood, meld_frame(++sent))) {
  }
  EXPECT_LT(now_ms() - start, 20000) << sent << " job messages sent";
  EXPECT_TRUE(prints_line(sim, "event='closed' reason='not reading'"));
  close(flood);
  const int quiet = loopback_socket(&port, false);
  ASSERT_GE(quiet, 0);
  const long long connected = now_ms();
  Bytes greeting;
  EXPECT_TRUE(read_frame(quiet, &greeting));
  EXPECT_TRUE(wait_eof(quiet, 5000));
  EXPECT_TRUE(now_ms() - connected >= 900 && now_ms() - connected < 3000);
  close(quiet);
  EXPECT_TRUE(prints_line(sim, "event='closed' reason='idle'"));
  expect_served(sim.port());
  EXPECT_EQ(sim.stop(), 0);
}

// With no descriptor left for accepting, the simulator turns waiting connections away instead
// of spinning on its ready listener, and serves again once descriptors are free.
TEST(AgentSimulator, DescriptorShortageDoesNotSpin) {
  Simulator sim;
  rlimit plenty{};
  ASSERT_EQ(prlimit(sim.pid(), RLIMIT_NOFILE, nullptr, &plenty), 0);
  const rlimit few{14, plenty.rlim_max};
  ASSERT_EQ(prlimit(sim.pid(), RLIMIT_NOFILE, &few, nullptr), 0);
  std::vector<int> clients;
  for (int i = 0; i < 12; i++) {
    int port = sim.port();
    clients.push_back(loopback_socket(&port, false));
  }
  usleep(200 * 1000);
  const auto cpu_ticks = [&] {
    std::ifstream stat("/proc/" + std::to_string(sim.pid()) + "/stat");
    std::string field;
    long long ticks = 0;
    for (int i = 1; i <= 15 && stat >> field; i++)
      if (i >= 14) ticks += atoll(field.c_str());  // utime and stime
    return ticks;
  };
  const long long before = cpu_ticks();
  usleep(1000 * 1000);
  EXPECT_LT(cpu_ticks() - before, sysconf(_SC_CLK_TCK) / 5);  // well under a fifth of a second
  for (int fd : clients)
    close(fd);
  ASSERT_EQ(prlimit(sim.pid(), RLIMIT_NOFILE, &plenty, nullptr), 0);
  usleep(200 * 1000);
  expect_served(sim.port());
  EXPECT_EQ(sim.stop(), 0);
}

// Standard output a pipe that nobody reads: the simulator keeps serving, and SIGTERM ends it
// within 2 seconds.
TEST(AgentSimulator, StalledOutputNeitherStopsServingNorTheStop) {
  int out[2];
  ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);
  Simulator sim({"--json"}, out);
  close(out[1]);
  int port = sim.port();  // far more lines than the pipe holds
  const int flood = loopback_socket(&port, false);
  ASSERT_GE(flood, 0);
  for (int job = 1; job <= 2000; job++)
    ASSERT_TRUE(write_all(flood, meld_frame(job)));
  // And more frames than the connection manager's wake-up pipe has room for their bytes.
  const Bytes empty = frame("");
  Bytes empty_frames(70000 * empty.size());
  for (size_t i = 0; i < empty_frames.size(); i++)
    empty_frames[i] = empty[i % empty.size()];
  ASSERT_TRUE(write_all(flood, empty_frames));
  expect_served(sim.port());
  const long long term = now_ms();
  EXPECT_EQ(sim.stop(true, 5000), 0);
#if defined(__SANITIZE_THREAD__)
  constexpr long long kAtExit = 1000;  // ThreadSanitizer pauses a second at every exit
#else
  constexpr long long kAtExit = 0;
#endif
  EXPECT_LT(now_ms() - term, 2000 + kAtExit);
  close(flood);
  close(out[0]);
}

// Frames that claim the internal notices, or any internal message, sent over TCP change
// nothing: each sender is dropped, the client greeted before gets nothing more, the listener
// stays, and a messenger run afterwards is served.
TEST(AgentSimulator, ForgedInternalFramesDropTheSender) {
  Simulator sim;
  int port = sim.port();
  const int first = loopback_socket(&port, false);  // channel 2; the listener is channel 1
  Bytes greeting;
  ASSERT_TRUE(read_frame(first, &greeting));
  const Bytes forged[] = {ipc_notice("CHANNEL_ACCEPT", 2), ipc_notice("CHANNEL_ACCEPT", 1),
                          ipc_notice("CHANNEL_CLOSE", 1), ipc_notice("CHANNEL_CLOSE", 2),
                          ipc_notice("ROUTENAT", 2)};
  for (const Bytes& f : forged) {
    SCOPED_TRACE(std::string(f.begin() + 48, f.begin() + 62));
    int p = sim.port();
    const int attacker = loopback_socket(&p, false);
    ASSERT_TRUE(read_frame(attacker, &greeting));
    write_all(attacker, f);
    EXPECT_TRUE(wait_eof(attacker, 5000));
    close(attacker);
  }
  Bytes extra;
  EXPECT_FALSE(read_frame(first, &extra, 300)) << "a second greeting";
  const RunResult run = run_messenger(sim.port(), {"TYP=S", "JNR=9", "RETRY=1", "TIMEOUT=5"});
  EXPECT_TRUE(run.status == 0 && run.secs < 5.0) << run.status << " " << run.secs;
  close(first);
  EXPECT_EQ(sim.stop(), 0);
  ASSERT_EQ(sim.lines().size(), 2u);  // "listening on ..." and the messenger's event
  EXPECT_NE(sim.lines()[1].find("job=9"), std::string::npos) << sim.lines()[1];
}

// A wrong command line prints the short usage and exits with 2; asking for help prints every
// flag and exits with 0 without listening.
TEST(AgentSimulator, CommandLinesThatDoNotServe) {
  const struct {
    std::vector<std::string> args;
    int status;
  } cases[] = {
      {{"--port", "70000"}, 2}, {{"--mode", "rude"}, 2}, {{"--count"}, 2}, {{"-v"}, 2},
      {{"--idle", "-1"}, 2},    {{"--idle", ""}, 2},     {{"--help"}, 0},  {{"--json", "-h"}, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0]);
    const RunResult run = run_program(bin_path("qx_agentsim"), c.args, 10);
    EXPECT_EQ(run.status, c.status);
    EXPECT_TRUE(run.out.rfind("usage: qx_agentsim", 0) == 0 && run.err.empty()) << run.out;
    EXPECT_EQ(run.out.find("listening on 127.0.0.1"), std::string::npos) << run.out;
    for (const char* flag : {"--addr", "--port", "--json", "--count", "--mode", "--idle", "--help"})
      EXPECT_TRUE(c.status != 0 || run.out.find(std::string("\n  ") + flag) != std::string::npos)
          << flag;
  }
}

// Whole runs of the dynamically linked twin of qx_jpmd (memcheck cannot follow a static one)
// under memcheck: no memory error, no block and no descriptor of its own left at exit, whether
// the event is delivered, the agent stays silent or nothing listens.
TEST(AgentValgrind, WholeRunsLeaveNothing) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "sanitizer build";
#endif
  if (access("/usr/bin/valgrind", X_OK) != 0) GTEST_SKIP() << "valgrind missing";
  const struct {
    const char* mode;  // simulator mode; null: nothing listens
    std::vector<std::string> args;
  } cases[] = {
      {"normal", {"TYP=S", "JNR=1", "TXT=valgrind"}},
      {"normal", {"TYP=V", "JNR=2", "NAME=X", "VALUE=1", "VTYPE=C"}},
      {"silent", {"TYP=S", "JNR=3", "TIMEOUT=1"}},
      {nullptr, {"TYP=S", "JNR=4", "RETRY=1"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[1]);
    Simulator sim({"--mode", c.mode != nullptr ? c.mode : "normal"});
    const int port = c.mode != nullptr ? sim.port() : refused_port();
    ASSERT_GT(port, 0);
    std::vector<std::string> args = c.args;
    args.insert(args.begin(),
                {"--leak-check=full", "--show-leak-kinds=all", "--track-fds=yes",
                 "--errors-for-leak-kinds=all", "--error-exitcode=99", bin_path("qx_jpmd_dynamic"),
                 "IPA=127.0.0.1", "TRC=1", "PNR=" + std::to_string(port)});
    const RunResult run = run_program("/usr/bin/valgrind", args, 60);
    EXPECT_TRUE(run.exited && run.status == 0) << run.err;
    EXPECT_NE(run.err.find("ERROR SUMMARY: 0 errors"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("All heap blocks were freed"), std::string::npos) << run.err;
    // memcheck really watched the heap: a run it could not follow shows no allocation.
    EXPECT_EQ(run.err.find("total heap usage: 0 allocs"), std::string::npos) << run.err;
    // Open at exit: the three standard descriptors and what this test let the run inherit.
    const size_t fds = run.err.find("FILE DESCRIPTORS: ");
    ASSERT_NE(fds, std::string::npos) << run.err;
    size_t inherited = 0;
    for (size_t at = fds;
         (at = run.err.find("<inherited from parent>", at + 1)) != std::string::npos;)
      inherited++;
    EXPECT_EQ(run.err.substr(fds, run.err.find('\n', fds) - fds),
              "FILE DESCRIPTORS: " + std::to_string(3 + inherited) + " open (3 std) at exit.")
        << run.err;
  }
}

}  // namespace
