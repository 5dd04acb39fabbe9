// One agent simulator holding 1,500 connections open at once (so that descriptors above 1024
// are watched), every one completing its exchange; then 200 messengers started together, each
// delivering its event exactly once and exiting with its job's return code.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <set>

#include "support/agent.h"

namespace {

using namespace agent_test;

constexpr int kConnections = 1500;
constexpr int kMessengers = 200;

TEST(AgentLoad, ManyConnectionsThenManyMessengers) {
  rlimit rl;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &rl), 0);
  if (rl.rlim_cur < kConnections + 512) {
    if (rl.rlim_max < kConnections + 512) GTEST_SKIP() << "descriptor limit " << rl.rlim_max;
    rl.rlim_cur = kConnections + 512;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &rl), 0);
  }
  Simulator sim({"--json"});

  // All connections open at once, then each one's exchange with a job status message.
  std::vector<int> fds;
  for (int i = 0, port = sim.port(); i < kConnections; i++) {
    fds.push_back(loopback_socket(&port, false));
    ASSERT_GE(fds.back(), 0) << "connection " << i;
  }
  int complete = 0;
  for (int i = 0; i < kConnections; i++) {
    Bytes greeting, reply, body = meld_body(276, 0, 100000 + i, 'R', 57);
    complete += read_frame(fds[i], &greeting, 20000) && greeting.size() >= 50 &&
                greeting[48] == 4 && write_all(fds[i], nat_frame("JPAKTJ_R", body)) &&
                read_frame(fds[i], &reply, 20000);
  }
  EXPECT_EQ(complete, kConnections);
  for (int s : fds)
    close(s);
  ASSERT_TRUE(sim.wait_lines(1 + kConnections, 20000));

  std::vector<std::thread> runners;
  std::vector<RunResult> runs(kMessengers);
  for (int i = 0; i < kMessengers; i++)
    runners.emplace_back([&, i] {
      runs[i] = run_messenger(sim.port(),
                              {"TYP=E", "JNR=" + std::to_string(100000 + kConnections + i),
                               "RET=" + std::to_string(i % 100), "TIMEOUT=30"},
                              60);
    });
  for (int i = 0; i < kMessengers; i++) {
    runners[i].join();
    EXPECT_TRUE(runs[i].exited && runs[i].status == i % 100 && runs[i].err.empty())
        << "messenger " << i << " status " << runs[i].status << " signal " << runs[i].signal;
  }
  ASSERT_TRUE(sim.wait_lines(1 + kConnections + kMessengers, 20000));
  EXPECT_EQ(sim.stop(), 0);

  std::set<long long> seen;  // every event exactly once on the agent's side
  for (const auto& l : sim.lines())
    if (l.rfind("{", 0) == 0) seen.insert(json_number(l, "job"));
  EXPECT_EQ(seen.size(), size_t{kConnections + kMessengers});
  EXPECT_EQ(*seen.begin(), 100000);
  EXPECT_EQ(*seen.rbegin(), 100000 + kConnections + kMessengers - 1);
  EXPECT_EQ(sim.lines().size(), 1u + kConnections + kMessengers);
}

}  // namespace
