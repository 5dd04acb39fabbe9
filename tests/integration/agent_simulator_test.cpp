// qx_agentsim as job script writers use it: each mode as a messenger run sees it, the event
// it prints, its own exit after --count events, and wrong command lines.
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
    ASSERT_GT(sim.port(), 0);
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
  ASSERT_GT(sim.port(), 0);
  for (int job : {1, 2}) {
    const RunResult run = run_messenger(
        sim.port(),
        {"TYP=O", "JNR=" + std::to_string(job), "OUTFILE=/tmp/job.out", "RETRY=1", "TIMEOUT=5"});
    EXPECT_EQ(run.status, 0);
  }
  EXPECT_EQ(sim.wait_exit(5000), 0);
  ASSERT_EQ(sim.lines().size(), 3u);
  EXPECT_NE(sim.lines()[2].find("file='/tmp/job.out'"), std::string::npos) << sim.lines()[2];
}

TEST(AgentSimulator, WrongCommandLines) {
  for (std::vector<std::string> args : {std::vector<std::string>{"--port", "70000"},
                                        {"--mode", "rude"},
                                        {"--count"},
                                        {"--verbose"}}) {
    const RunResult run = run_program(bin_path("qx_agentsim"), args, 10);
    EXPECT_EQ(run.status, 2) << args[0];
    EXPECT_NE(run.out.find("usage: qx_agentsim"), std::string::npos);
    EXPECT_EQ(run.err, "");
  }
}

}  // namespace
