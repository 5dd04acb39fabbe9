// The agent session driven in-process with a short pause between attempts: how many
// attempts are made, how long the session waits before the second and later ones, and a
// connection that fails at once followed by a good agent.
#include "messenger/agent_session.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "ccm/internal.h"
#include "common/trace_log.h"
#include "support/agent.h"

namespace {

using namespace agent_test;

constexpr int kPauseMs = 300;

class AgentSessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::memset(&pcx_, 0, sizeof pcx_);
    pcx_.running_mode = 3;
    pcx_.melder_type = 'E';
    pcx_.status = 'E';
    pcx_.output_login = 'N';
    pcx_.connect_wait = 120;
    pcx_.IoTimeOut = 5;
    pcx_.reti = 9;
    pcx_.jobnri = 5;
    std::strcpy(pcx_.ipAddr, "127.0.0.1");
  }
  int run(int retry, int port) {
    pcx_.connect_retry = retry;
    pcx_.portnri = port;
    AgentSessionTiming timing{kPauseMs};
    long long start = now_ms();
    int status = run_agent_session(&pcx_, &timing);
    elapsed_ms_ = now_ms() - start;
    return status;
  }
  PCX pcx_;
  long long elapsed_ms_ = 0;
};

// Every attempt meets an agent that closes at once: each is an invalid answer, and every
// attempt but the first waits the pause first.
TEST_F(AgentSessionTest, AttemptsAndPauses) {
  struct Case {
    int retry;
    int attempts;
  };
  for (Case c : {Case{3, 3}, Case{1, 1}, Case{0, 0}, Case{-2, 0}}) {
    SCOPED_TRACE("RETRY=" + std::to_string(c.retry));
    SetUp();
    FakeAgent agent([](FakeAgent&, int& fd, int) {
      close(fd);
      fd = -1;
    });
    ASSERT_TRUE(agent.ok());
    EXPECT_EQ(run(c.retry, agent.port()), 9);
    EXPECT_EQ(agent.connections(), c.attempts);
    EXPECT_EQ(pcx_.abnormal_end, 0);
    EXPECT_EQ(pcx_.agentID, 0);
    std::vector<long long> at = agent.accept_times();
    for (size_t i = 1; i < at.size(); i++) {
      EXPECT_GE(at[i] - at[i - 1], kPauseMs - 5);
      EXPECT_LT(at[i] - at[i - 1], kPauseMs + 3000);
    }
    EXPECT_LT(elapsed_ms_, (c.attempts > 0 ? c.attempts - 1 : 0) * (kPauseMs + 3000) + 3000);
    EXPECT_EQ(ccm, nullptr);
  }
}

// The first attempt is refused at once (its close notice lands in the receive queue), the
// second meets a good agent: the notice of the failed attempt must not count as the
// second attempt's answer.
TEST_F(AgentSessionTest, RefusedThenDelivered) {
  int port = refused_port();
  std::unique_ptr<FakeAgent> agent;
  std::thread starter([&] {
    usleep(kPauseMs * 1000 / 3);
    agent = std::make_unique<FakeAgent>(
        [](FakeAgent& self, int& fd, int) {
          write_all(fd, native_frame("agent"));
          Bytes frame;
          if (read_frame(fd, &frame)) self.keep(frame);
          write_all(fd, native_frame("OK"));
          wait_eof(fd, 3000);
        },
        port);
  });
  int status = run(2, port);
  starter.join();
  ASSERT_TRUE(agent->ok());
  EXPECT_EQ(status, 9);
  EXPECT_EQ(pcx_.abnormal_end, 0);
  EXPECT_NE(pcx_.agentID, 0);
  EXPECT_EQ(agent->connections(), 1);
  std::vector<Bytes> frames = agent->frames();
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(std::string(frames[0].begin() + 63, frames[0].begin() + 71), "MELD    ");
  // The reply came: nothing waits between it and the end of the session (a wait for the
  // time-out would take 5 seconds).
  EXPECT_LT(elapsed_ms_, kPauseMs + 3000);
}

// Without a connection manager the run ends at once with the job's status.
TEST_F(AgentSessionTest, NoContextNoAttempt) {
  FakeAgent agent([](FakeAgent&, int&, int) {});
  ASSERT_TRUE(agent.ok());
  ccm_alloc = [](size_t size, const char* tag) -> void* {
    return std::strcmp(tag, "CCM_OPEN") == 0 ? nullptr : ccm_alloc_default(size, tag);
  };
  int status = run(3, agent.port());
  ccm_alloc = ccm_alloc_default;
  EXPECT_EQ(status, 9);
  EXPECT_EQ(pcx_.abnormal_end, 1);
  EXPECT_EQ(agent.connections(), 0);
  EXPECT_EQ(ccm, nullptr);
}

// The first connection is greeted wrongly and then closed by the agent: its close notice
// arrives while the session pauses and must not be taken as the second attempt's answer.
TEST_F(AgentSessionTest, CloseNoticeOfEarlierAttemptIsNoAnswer) {
  FakeAgent agent([](FakeAgent& self, int& fd, int index) {
    if (index == 0) {
      write_all(fd, native_frame("wrong", 7));
      usleep(50 * 1000);
      return;  // closed by the agent after the wrong greeting
    }
    write_all(fd, native_frame("agent"));
    Bytes frame;
    if (read_frame(fd, &frame)) self.keep(frame);
    write_all(fd, native_frame("OK"));
    wait_eof(fd, 3000);
  });
  ASSERT_TRUE(agent.ok());
  EXPECT_EQ(run(2, agent.port()), 9);
  EXPECT_EQ(agent.connections(), 2);
  EXPECT_EQ(agent.frames().size(), 1u);
  EXPECT_NE(pcx_.agentID, 0);
}

}  // namespace
