// One agent simulator holding 1,500 connections at once (descriptors above 1024 watched), each
// completing its exchange; then 200 messengers together, each event delivered exactly once.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <set>

#include "support/agent.h"

namespace {

using namespace agent_test;

constexpr int kConnections = 1500, kMessengers = 200;

TEST(AgentLoad, ManyConnectionsThenManyMessengers) {
  rlimit rl;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &rl), 0);
  if (rl.rlim_max < kConnections + 512) GTEST_SKIP() << "descriptor limit " << rl.rlim_max;
  rl.rlim_cur = std::max<rlim_t>(rl.rlim_cur, kConnections + 512);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &rl), 0);
  Simulator sim({"--json"});
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
    close(fds[i]);
  }
  EXPECT_EQ(complete, kConnections);
  ASSERT_TRUE(sim.wait_lines(1 + kConnections, 20000));
  std::vector<std::thread> runners;
  std::vector<RunResult> runs(kMessengers);
  for (int i = 0; i < kMessengers; i++)
    runners.emplace_back([&, i] {
      runs[i] = run_messenger(sim.port(),
                              {"TYP=E", "JNR=" + std::to_string(101500 + i),
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
  EXPECT_EQ(std::tuple(seen.size(), *seen.begin(), *seen.rbegin(), sim.lines().size()),
            std::tuple(size_t{kConnections + kMessengers}, 100000LL, 101699LL,
                       size_t{1 + kConnections + kMessengers}));
}

}  // namespace
