// qx_agentsim as job script writers use it: each mode as a messenger run sees it, the event
// it prints, its own exit after --count events, wrong command lines and its help; and whole
// messenger runs against it under valgrind (skipped in sanitizer builds and where it is missing).
#include <gtest/gtest.h>

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
    EXPECT_TRUE(run.exited);
    EXPECT_EQ(run.status, 4);
    EXPECT_EQ(run.err, "");
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
  for (int job : {1, 2}) {
    const RunResult run = run_messenger(
        sim.port(),
        {"TYP=O", "JNR=" + std::to_string(job), "OUTFILE=/tmp/job.out", "RETRY=1", "TIMEOUT=5"});
    EXPECT_EQ(run.status, 0);
  }
  EXPECT_EQ(sim.stop(false, 5000), 0);
  ASSERT_EQ(sim.lines().size(), 3u);
  EXPECT_NE(sim.lines()[2].find("file='/tmp/job.out'"), std::string::npos) << sim.lines()[2];
}

// A wrong command line prints the short usage and exits with 2; asking for help prints every
// flag and exits with 0 without listening.
TEST(AgentSimulator, CommandLinesThatDoNotServe) {
  const struct {
    std::vector<std::string> args;
    int status;
  } cases[] = {
      {{"--port", "70000"}, 2}, {{"--mode", "rude"}, 2}, {{"--count"}, 2}, {{"-v"}, 2},
      {{"--help"}, 0},          {{"--json", "-h"}, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0]);
    const RunResult run = run_program(bin_path("qx_agentsim"), c.args, 10);
    EXPECT_EQ(run.status, c.status);
    EXPECT_EQ(run.out.rfind("usage: qx_agentsim", 0), 0u) << run.out;
    EXPECT_EQ(run.out.find("listening on 127.0.0.1"), std::string::npos) << run.out;
    EXPECT_EQ(run.err, "");
    for (const char* flag : {"--addr", "--port", "--json", "--count", "--mode", "--help"}) {
      const bool listed = run.out.find(std::string("\n  ") + flag) != std::string::npos;
      EXPECT_TRUE(listed || c.status != 0) << flag;
    }
  }
}

// Whole runs under memcheck: no memory error and no block left at exit, whether the event is
// delivered, the agent stays silent or nothing listens. memcheck cannot follow the statically
// linked qx_jpmd; these runs use its dynamically linked twin.
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
    std::vector<std::string> args = {"--leak-check=full",           "--show-leak-kinds=all",
                                     "--errors-for-leak-kinds=all", "--error-exitcode=99",
                                     bin_path("qx_jpmd_dynamic"),   "IPA=127.0.0.1",
                                     "PNR=" + std::to_string(port), "TRC=1"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const RunResult run = run_program("/usr/bin/valgrind", args, 60);
    EXPECT_TRUE(run.exited);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.err.find("ERROR SUMMARY: 0 errors"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("All heap blocks were freed"), std::string::npos) << run.err;
    // memcheck really watched the heap: a run it could not follow shows no allocation.
    EXPECT_EQ(run.err.find("total heap usage: 0 allocs"), std::string::npos) << run.err;
  }
}

}  // namespace
