// Load on both ends of the job message: one agent simulator holding 1,500 connections open at
// once (so that descriptors above 1024 are watched), every one completing its exchange; then
// 200 messengers started together, each delivering its event exactly once.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <map>
#include <string>
#include <vector>

#include "support/agent.h"

namespace {

using namespace agent_test;

constexpr int kConnections = 1500;
constexpr int kMessengers = 200;

void raise_descriptor_limit(rlim_t want) {
  rlimit rl;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &rl), 0);
  if (rl.rlim_cur < want) {
    if (rl.rlim_max < want) GTEST_SKIP() << "descriptor limit " << rl.rlim_max;
    rl.rlim_cur = want;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &rl), 0);
  }
}

// A job status MELD frame for job `job`, built by hand.
Bytes meld_frame(int job) {
  Bytes body(276, 0);
  put_text(body, 0, "MELD    03");
  put32(body, 20, static_cast<unsigned>(job));
  body[24] = 'R';
  put_text(body, 25, "load");
  return nat_frame("JPAKTJ_R", body);
}

// How often each job number occurs among the simulator's event lines.
std::map<long long, int> jobs_seen(const std::vector<std::string>& lines) {
  std::map<long long, int> seen;
  for (const auto& l : lines) {
    if (l.rfind("{", 0) == 0) seen[json_number(l, "job")]++;
  }
  return seen;
}

TEST(AgentLoad, ManyConnectionsThenManyMessengers) {
  raise_descriptor_limit(kConnections + 512);
  Simulator sim({"--json"});
  ASSERT_GT(sim.port(), 0);

  // Phase 1: all connections open at once, then each one's exchange.
  std::vector<int> fds;
  for (int i = 0; i < kConnections; i++) {
    int s = connect_loopback(sim.port());
    ASSERT_GE(s, 0) << "connection " << i;
    fds.push_back(s);
  }
  int complete = 0;
  for (int i = 0; i < kConnections; i++) {
    Bytes greeting, reply;
    if (!read_frame(fds[i], &greeting, 20000) || greeting.size() < 50 || greeting[48] != 4) {
      continue;
    }
    if (!write_all(fds[i], meld_frame(100000 + i))) continue;
    if (read_frame(fds[i], &reply, 20000)) complete++;
  }
  EXPECT_EQ(complete, kConnections);
  for (int s : fds)
    close(s);
  ASSERT_TRUE(sim.wait_lines(1 + kConnections, 20000));

  // Phase 2: the messengers, started together.
  std::vector<std::thread> runners;
  std::vector<RunResult> runs(kMessengers);
  for (int i = 0; i < kMessengers; i++) {
    runners.emplace_back([&, i] {
      runs[i] = run_messenger(sim.port(),
                              {"TYP=E", "JNR=" + std::to_string(200000 + i),
                               "RET=" + std::to_string(i % 100), "TIMEOUT=30"},
                              60);
    });
  }
  for (auto& t : runners)
    t.join();
  for (int i = 0; i < kMessengers; i++) {
    EXPECT_TRUE(runs[i].exited) << "messenger " << i << " signal " << runs[i].signal;
    EXPECT_EQ(runs[i].status, i % 100) << "messenger " << i;
    EXPECT_EQ(runs[i].err, "");
  }
  ASSERT_TRUE(sim.wait_lines(1 + kConnections + kMessengers, 20000));
  EXPECT_EQ(sim.stop(), 0);

  std::map<long long, int> seen = jobs_seen(sim.lines());
  int once = 0;
  for (int i = 0; i < kConnections; i++)
    once += seen[100000 + i] == 1;
  for (int i = 0; i < kMessengers; i++)
    once += seen[200000 + i] == 1;
  EXPECT_EQ(once, kConnections + kMessengers);
  EXPECT_EQ(sim.lines().size(), 1u + kConnections + kMessengers);
}

}  // namespace
