// Repeated runs of qx_jpmd against agents that stress the end of a run.
#include <gtest/gtest.h>

#include "support/agent.h"

namespace {

using namespace agent_test;

// The greeting and a second frame arrive in one segment, so the second is queued before the
// job message is even built. It is no reply: the job message must still reach the wire
// exactly once, and the run waits for the real reply before it closes.
TEST(AgentRobustness, FrameBehindGreetingInOneSegment) {
  constexpr int kRuns = 100;
  std::atomic<int> exactly_one{0};
  FakeAgent agent([&](FakeAgent&, int& fd, int) {
    Bytes both = native_frame("agent"), extra = native_frame("unasked"), meld, rest;
    both.insert(both.end(), extra.begin(), extra.end());
    write_all(fd, both);
    if (!read_frame(fd, &meld) || std::string(meld.begin() + 63, meld.begin() + 71) != "MELD    ")
      return;
    write_all(fd, native_frame("OK"));
    if (wait_eof(fd, 5000, &rest) && rest.empty()) exactly_one++;
  });
  ASSERT_TRUE(agent.ok());
  for (int i = 0; i < kRuns; i++) {
    const RunResult run =
        run_messenger(agent.port(), {"TYP=S", "JNR=" + std::to_string(i), "TIMEOUT=2"});
    ASSERT_TRUE(run.exited && run.status == 0 && run.err.empty())
        << "run " << i << " signal " << run.signal << " status " << run.status << " " << run.err;
  }
  for (int i = 0; i < 100 && agent.connections() < kRuns; i++)
    usleep(10000);
  usleep(100000);  // the last connection's script ends after the run's close
  EXPECT_EQ(exactly_one.load(), kRuns);
}

// The agent greets and resets at once: whatever the messenger meets (a reset on read or on
// write, where a plain write would raise SIGPIPE), the run exits with the job's return code.
TEST(AgentRobustness, ResetRightAfterGreeting) {
  constexpr int kRuns = 200;
  FakeAgent agent([](FakeAgent&, int& fd, int) {
    write_all(fd, native_frame("agent"));
    reset_close(std::exchange(fd, -1));
  });
  ASSERT_TRUE(agent.ok());
  int bad = 0;
  for (int i = 0; i < kRuns && bad <= 5; i++) {
    const RunResult run = run_messenger(agent.port(), {"TYP=E", "RET=7", "RETRY=1", "TIMEOUT=2"});
    if (!run.exited || run.status != 7 || !run.err.empty() || run.secs > 2 * 2 + 5) {
      ADD_FAILURE() << "run " << i << ": status " << run.status << " signal " << run.signal
                    << " secs " << run.secs << " " << run.err;
      bad++;
    }
  }
  EXPECT_EQ(agent.connections(), kRuns);
}

}  // namespace
