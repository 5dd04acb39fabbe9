// qx_agentsim short of descriptors; whole messenger runs under valgrind.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <fstream>

#include "support/agent.h"

namespace {
using namespace agent_test;

const auto has = [](std::string_view t, std::string_view part) { return t.find(part) != t.npos; };

void expect_served(int port) {  // a messenger run against `port` delivers its event at once
  const RunResult run =
      run_messenger(port, {"TYP=E", "JNR=5", "RET=4", "RETRY=1", "TIMEOUT=5", "TRC=1"}, 8);
  EXPECT_TRUE(run.status == 4 && has(run.out, "ended normally") && run.secs < 4.0) << run.out;
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

// qx_jpmd_dynamic leaves no memory error, block or descriptor, whatever the simulator's mode;
// its trace says how each run ended.
TEST(AgentValgrind, WholeRunsLeaveNothing) {
  if (qxtest::kSanitizerBuild) GTEST_SKIP() << "sanitizer build";
  if (access("/usr/bin/valgrind", X_OK) != 0) GTEST_SKIP() << "valgrind missing";
  const char kNormal[] = "ended normally", kInvalid[] = "main:      invalid answer";
  const std::tuple<const char*, std::vector<std::string>, const char*> cases[] = {
      {"normal", {"TYP=S", "JNR=1", "TXT=valgrind"}, kNormal},
      {"normal", {"TYP=V", "JNR=2", "NAME=X", "VALUE=1", "VTYPE=C"}, kNormal},
      {"silent", {"TYP=S", "JNR=3", "TIMEOUT=1"}, "ended abnormally"},
      {"no-reply", {"TYP=S", "JNR=3", "TIMEOUT=1"}, kNormal},
      {"wrong-greeting", {"TYP=S", "JNR=3"}, kInvalid},
      {"close", {"TYP=S", "JNR=3"}, kInvalid},
      {nullptr, {"TYP=S", "JNR=4"}, kNormal},  // nothing listens
  };
  for (const auto& [mode, jpmd_args, trace] : cases) {
    SCOPED_TRACE(jpmd_args[1]);
    Simulator sim({"--mode", mode != nullptr ? mode : "normal"});
    const int port = mode != nullptr ? sim.port() : refused_port();
    ASSERT_GT(port, 0);
    std::vector<std::string> args = jpmd_args;
    args.insert(args.begin(),
                {"--leak-check=full", "--show-leak-kinds=all", "--track-fds=yes",
                 "--errors-for-leak-kinds=all", "--error-exitcode=99", bin_path("qx_jpmd_dynamic"),
                 "IPA=127.0.0.1", "TRC=1", "RETRY=1", "PNR=" + std::to_string(port)});
    const RunResult run = run_program("/usr/bin/valgrind", args, 15);
    size_t inherited = 0;
    for (size_t at = run.err.find("FILE DESCRIPTORS: ");
         (at = run.err.find("<inherited from parent>", at + 1)) != std::string::npos;)
      inherited++;
    EXPECT_TRUE(run.exited && run.status == 0 && has(run.err, "ERROR SUMMARY: 0 errors") &&
                has(run.err, "FILE DESCRIPTORS: " + std::to_string(3 + inherited) +
                                 " open (3 std) at exit.") &&
                has(run.err, "All heap blocks were freed") && has(run.out, trace) &&
                !has(run.err, "total heap usage: 0 allocs"))
        << run.err << run.out;
    if (HasFailure()) break;
  }
}
}  // namespace
