// Repeated runs of qx_jpmd against agents that stress the end of a run: an agent whose
// greeting is followed by a second frame in the same segment, and one that resets the
// connection right after its greeting.
#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "support/agent.h"

namespace {

using namespace agent_test;

// The greeting and a second frame arrive together, so the second one is queued before the
// job message is even built. It is no reply: the run must put its job message on the wire
// exactly once, wait for the real reply and close.
TEST(AgentRobustness, FrameBehindGreetingInOneSegment) {
  constexpr int kRuns = 100;
  std::atomic<int> exactly_one{0};
  FakeAgent agent([&](FakeAgent&, int& fd, int) {
    Bytes both = native_frame("agent");
    Bytes extra = native_frame("unasked");
    both.insert(both.end(), extra.begin(), extra.end());
    write_all(fd, both);
    // The job message, answered; after it nothing more may come before the close.
    Bytes meld, rest;
    if (!read_frame(fd, &meld) || std::string(meld.begin() + 63, meld.begin() + 71) != "MELD    ") {
      return;
    }
    write_all(fd, native_frame("OK"));
    if (wait_eof(fd, 5000, &rest) && rest.empty()) exactly_one++;
  });
  ASSERT_TRUE(agent.ok());
  for (int i = 0; i < kRuns; i++) {
    RunResult run = run_messenger(agent.port(), {"TYP=S", "JNR=" + std::to_string(i), "TIMEOUT=2"});
    ASSERT_TRUE(run.exited) << "run " << i << " signal " << run.signal;
    ASSERT_EQ(run.status, 0);
    ASSERT_EQ(run.err, "");
  }
  // The agent's thread has seen every connection end once the last run is over.
  for (int i = 0; i < 100 && agent.connections() < kRuns; i++)
    usleep(10000);
  usleep(100000);
  EXPECT_EQ(exactly_one.load(), kRuns);
}

// The agent greets and resets at once: whatever the network thread meets (a reset on read or
// on write), the run ends by exit with the job's return code.
TEST(AgentRobustness, ResetRightAfterGreeting) {
  constexpr int kRuns = 200;
  FakeAgent agent([](FakeAgent&, int& fd, int) {
    write_all(fd, native_frame("agent"));
    reset_close(fd);
    fd = -1;
  });
  ASSERT_TRUE(agent.ok());
  int bad = 0;
  for (int i = 0; i < kRuns; i++) {
    RunResult run = run_messenger(agent.port(), {"TYP=E", "RET=7", "RETRY=1", "TIMEOUT=2"});
    if (!run.exited || run.status != 7 || run.signal != 0 || !run.err.empty() ||
        run.secs > 2 * 2 + 5) {
      ADD_FAILURE() << "run " << i << ": exited " << run.exited << " status " << run.status
                    << " signal " << run.signal << " secs " << run.secs << " stderr " << run.err;
      if (++bad > 5) break;
    }
  }
  EXPECT_EQ(agent.connections(), kRuns);
}

}  // namespace
