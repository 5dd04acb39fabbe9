// qx_agentsim as job scripts use it, clients that misbehave, whole messenger runs under valgrind.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <fstream>

#include "support/agent.h"

namespace {
using namespace agent_test;

const auto has = [](std::string_view t, std::string_view part) { return t.find(part) != t.npos; };

TEST(AgentSimulator, ModesAsTheMessengerSeesThem) {
  // Mode, a line of the messenger's trace, whether the event is printed, the least run time.
  const std::tuple<const char*, const char*, bool, double> cases[] = {
      {"normal", "ended normally", true, 0},
      {"no-reply", "ended normally", true, 1},
      {"silent", "ended abnormally", false, 1},
      {"wrong-greeting", "main:      invalid answer", false, 0},
      {"close", "main:      invalid answer", false, 0}};
  for (const auto& [mode, trace, event, min_secs] : cases) {
    SCOPED_TRACE(mode);
    Simulator sim({"--json", "--mode", mode});
    const RunResult run = run_messenger(
        sim.port(), {"TYP=E", "JNR=31", "RET=4", "RETRY=1", "TIMEOUT=1", "TRC=1", "TXT=say \"hi\""},
        8);
    EXPECT_TRUE(run.exited && run.status == 4 && run.err.empty() && run.secs >= min_secs &&
                has(run.out, trace))
        << run.status << " " << run.secs << run.err << run.out;
    EXPECT_EQ(sim.stop(), 0);
    const std::vector<std::string> lines = sim.lines();
    ASSERT_EQ(lines.size(), event ? 2u : 1u);
    const std::string& l = lines.back();
    EXPECT_TRUE(!event || (json_number(l, "job") == 31 && json_number(l, "rc") == 4 &&
                           has(l, "\"event\":\"end\"") && has(l, "\"text\":\"say \\\"hi\\\"\"")))
        << l;
    if (HasFailure()) break;
  }
}

void expect_served(int port) {  // a messenger run against `port` delivers its event at once
  const RunResult run =
      run_messenger(port, {"TYP=E", "JNR=5", "RET=4", "RETRY=1", "TIMEOUT=5", "TRC=1"}, 8);
  EXPECT_TRUE(run.status == 4 && has(run.out, "ended normally") && run.secs < 4.0) << run.out;
}
const auto meld_frame = [](int n) { return nat_frame("JPAKTJ_R", meld_body(276, 0, n, 'R', 57)); };
bool prints_line(const Simulator& sim, const std::string& part) {  // within 5 seconds
  for (long long end = now_ms() + 5000; now_ms() < end; usleep(5000))
    for (const std::string& l : sim.lines())
      if (has(l, part)) return true;
  return false;
}

// A client that never reads its answers is dropped past the queue bound; a silent one after --idle.
TEST(AgentSimulator, DropsClientsThatDoNotReadOrSayNothing) {
  Simulator sim({"--idle", "1"});
  int port = sim.port();
  const int flood = loopback_socket(&port, false, 4096);
  ASSERT_GE(flood, 0);
  const long long start = now_ms();
  for (int job = 1; now_ms() - start < 10000 && write_all(flood, meld_frame(job));)
    job++;
  EXPECT_LT(now_ms() - start, 10000);
  EXPECT_TRUE(prints_line(sim, "event='closed' reason='not reading'"));
  close(flood);
  const int quiet = loopback_socket(&port, false);
  ASSERT_GE(quiet, 0);
  const long long connected = now_ms();
  Bytes greeting;
  EXPECT_TRUE(read_frame(quiet, &greeting) && wait_eof(quiet, 5000) &&
              now_ms() - connected >= 900 && now_ms() - connected < 3000);
  close(quiet);
  EXPECT_TRUE(prints_line(sim, "event='closed' reason='idle'"));
  expect_served(sim.port());
  EXPECT_EQ(sim.stop(), 0);
}

// Without descriptors to accept with, waiting connections are turned away without spinning.
TEST(AgentSimulator, DescriptorShortageDoesNotSpin) {
  Simulator sim;
  rlimit plenty{};
  ASSERT_EQ(prlimit(sim.pid(), RLIMIT_NOFILE, nullptr, &plenty), 0);
  const rlimit few{14, plenty.rlim_max};
  ASSERT_EQ(prlimit(sim.pid(), RLIMIT_NOFILE, &few, nullptr), 0);
  std::vector<int> clients;
  for (int i = 0, port; i < 12; i++)
    clients.push_back(loopback_socket(&(port = sim.port()), false));
  usleep(200 * 1000);
  const auto cpu_ticks = [&] {
    std::ifstream stat("/proc/" + std::to_string(sim.pid()) + "/stat");
    std::string f[15];
    for (auto& field : f)
      stat >> field;
    return atoll(f[13].c_str()) + atoll(f[14].c_str());  // utime and stime
  };
  const long long before = cpu_ticks();
  usleep(1000 * 1000);
  EXPECT_LT(cpu_ticks() - before, sysconf(_SC_CLK_TCK) / 5);
  for (int fd : clients)
    close(fd);
  ASSERT_EQ(prlimit(sim.pid(), RLIMIT_NOFILE, &plenty, nullptr), 0);
  usleep(200 * 1000);
  expect_served(sim.port());
  EXPECT_EQ(sim.stop(), 0);
}

// Standard output a pipe nobody reads: the simulator keeps serving and SIGTERM ends it soon.
TEST(AgentSimulator, StalledOutputNeitherStopsServingNorTheStop) {
  int out[2];
  ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);
  Simulator sim({"--json"}, out);
  close(out[1]);
  int port = sim.port();
  const int flood = loopback_socket(&port, false, 1 << 22);  // room for every answer: no drop
  ASSERT_GE(flood, 0);
  for (int job = 1; job <= 2000; job++)  // far more lines than the pipe holds
    ASSERT_TRUE(write_all(flood, meld_frame(job)));
  Bytes empty = frame(""), empty_frames;  // more than the wake-up pipe has room for
  for (int i = 0; i < 70000; i++)
    empty_frames.insert(empty_frames.end(), empty.begin(), empty.end());
  ASSERT_TRUE(write_all(flood, empty_frames));
  expect_served(sim.port());
  const long long term = now_ms();
  EXPECT_EQ(sim.stop(true, 5000), 0);
  EXPECT_LT(now_ms() - term, qxtest::kSanitizerBuild ? 3000 : 2000);  // TSan pauses at exit
  close(flood);
  close(out[0]);
}

// A wrong command line prints the short usage and exits 2; help lists every flag and exits 0.
TEST(AgentSimulator, CommandLinesThatDoNotServe) {
  const std::pair<std::vector<std::string>, int> cases[] = {
      {{"--port", "70000"}, 2}, {{"--mode", "rude"}, 2}, {{"--count"}, 2}, {{"-v"}, 2},
      {{"--idle", "-1"}, 2},    {{"--idle", ""}, 2},     {{"--help"}, 0},  {{"--json", "-h"}, 0}};
  for (const auto& [args, status] : cases) {
    SCOPED_TRACE(args[0]);
    const RunResult run = run_program(bin_path("qx_agentsim"), args, 5);
    EXPECT_TRUE(run.status == status && run.out.rfind("usage: qx_agentsim", 0) == 0 &&
                run.err.empty() && !has(run.out, "listening on 127.0.0.1"))
        << run.status << run.out;
    for (const char* flag : {"--addr", "--port", "--json", "--count", "--mode", "--idle", "--help"})
      EXPECT_TRUE(status != 0 || has(run.out, std::string("\n  ") + flag)) << flag;
  }
}

// qx_jpmd_dynamic leaves no memory error, block or descriptor, agent answering, silent or absent.
TEST(AgentValgrind, WholeRunsLeaveNothing) {
  if (qxtest::kSanitizerBuild) GTEST_SKIP() << "sanitizer build";
  if (access("/usr/bin/valgrind", X_OK) != 0) GTEST_SKIP() << "valgrind missing";
  const std::pair<const char*, std::vector<std::string>> cases[] = {
      {"normal", {"TYP=S", "JNR=1", "TXT=valgrind"}},
      {"normal", {"TYP=V", "JNR=2", "NAME=X", "VALUE=1", "VTYPE=C"}},
      {"silent", {"TYP=S", "JNR=3", "TIMEOUT=1"}},
      {nullptr, {"TYP=S", "JNR=4", "RETRY=1"}},  // nothing listens
  };
  for (const auto& [mode, jpmd_args] : cases) {
    SCOPED_TRACE(jpmd_args[1]);
    Simulator sim({"--mode", mode != nullptr ? mode : "normal"});
    const int port = mode != nullptr ? sim.port() : refused_port();
    ASSERT_GT(port, 0);
    std::vector<std::string> args = jpmd_args;
    args.insert(args.begin(),
                {"--leak-check=full", "--show-leak-kinds=all", "--track-fds=yes",
                 "--errors-for-leak-kinds=all", "--error-exitcode=99", bin_path("qx_jpmd_dynamic"),
                 "IPA=127.0.0.1", "TRC=1", "PNR=" + std::to_string(port)});
    const RunResult run = run_program("/usr/bin/valgrind", args, 15);
    size_t inherited = 0;
    for (size_t at = run.err.find("FILE DESCRIPTORS: ");
         (at = run.err.find("<inherited from parent>", at + 1)) != std::string::npos;)
      inherited++;
    EXPECT_TRUE(run.exited && run.status == 0 && has(run.err, "ERROR SUMMARY: 0 errors") &&
                has(run.err, "FILE DESCRIPTORS: " + std::to_string(3 + inherited) +
                                 " open (3 std) at exit.") &&
                has(run.err, "All heap blocks were freed") &&
                !has(run.err, "total heap usage: 0 allocs"))
        << run.err;
    if (HasFailure()) break;
  }
}
}  // namespace
