// Repeated runs of qx_jpmd against agents that stress the end of a run: an agent whose
// greeting is followed by a second frame in the same segment, and one that resets the
// connection right after its greeting.
#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "integration/agent_fake.h"

namespace {

using namespace agent_test;

// Counts the whole frames in `bytes`; -1 when they do not divide into frames.
int count_frames(const Bytes& bytes, int* meld) {
  size_t off = 0;
  int n = 0;
  *meld = 0;
  while (off < bytes.size()) {
    if (bytes.size() - off < 48) return -1;
    long len =
        strtol(std::string(bytes.begin() + off, bytes.begin() + off + 8).c_str(), nullptr, 10);
    if (len < 48 || off + len > bytes.size()) return -1;
    if (len > 71 && std::string(bytes.begin() + off + 63, bytes.begin() + off + 71) == "MELD    ") {
      (*meld)++;
    }
    off += static_cast<size_t>(len);
    n++;
  }
  return n;
}

// The greeting and a second frame arrive together, so the second one is queued before the
// job message is even built. The run must still put its job message on the wire exactly
// once before it closes.
TEST(AgentRobustness, FrameBehindGreetingInOneSegment) {
  constexpr int kRuns = 100;
  std::atomic<int> exactly_one{0};
  FakeAgent agent([&](FakeAgent&, int& fd, int) {
    Bytes both = native_frame("agent");
    Bytes extra = native_frame("unasked");
    both.insert(both.end(), extra.begin(), extra.end());
    write_all(fd, both);
    Bytes rest;
    wait_eof(fd, 5000, &rest);
    int meld = 0;
    if (count_frames(rest, &meld) == 1 && meld == 1) exactly_one++;
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
