// The agent session in-process with a short pause between attempts: the number of attempts,
// the waits before the second and later ones, failed attempts whose close notices arrive
// late, and a connection manager that cannot be opened.
#include "messenger/agent_session.h"

#include <gtest/gtest.h>

#include <memory>

#include "ccm/internal.h"
#include "support/agent.h"

namespace {

using namespace agent_test;

constexpr int kPauseMs = 300;

class AgentSessionTest : public ::testing::Test {
 protected:
  int run(int retry, int port) {
    PCX fresh{};
    pcx_ = fresh;
    pcx_.running_mode = 3;
    pcx_.melder_type = pcx_.status = 'E';
    pcx_.output_login = 'N';
    pcx_.connect_wait = 120;  // replaced by the short pause
    pcx_.IoTimeOut = 5;
    pcx_.reti = 9;
    pcx_.jobnri = 5;
    std::strcpy(pcx_.ipAddr, "127.0.0.1");
    pcx_.connect_retry = retry;
    pcx_.portnri = port;
    AgentSessionTiming timing{kPauseMs};
    const long long start = now_ms();
    const int status = run_agent_session(&pcx_, &timing);
    elapsed_ms_ = now_ms() - start;
    return status;
  }
  PCX pcx_;
  long long elapsed_ms_ = 0;
};

// Every attempt meets an agent that closes at once; every attempt but the first waits the
// pause first, and a negative RETRY makes no attempt.
TEST_F(AgentSessionTest, AttemptsAndPauses) {
  for (auto [retry, attempts] : {std::pair{3, 3}, {1, 1}, {0, 0}, {-2, 0}}) {
    SCOPED_TRACE("RETRY=" + std::to_string(retry));
    FakeAgent agent([](FakeAgent&, int& fd, int) { close(std::exchange(fd, -1)); });
    ASSERT_TRUE(agent.ok());
    EXPECT_EQ(run(retry, agent.port()), 9);
    EXPECT_EQ(agent.connections(), attempts);
    EXPECT_EQ(pcx_.abnormal_end, 0);
    EXPECT_EQ(pcx_.agentID, 0);
    const std::vector<long long> at = agent.accept_times();
    for (size_t i = 1; i < at.size(); i++) {
      EXPECT_GE(at[i] - at[i - 1], kPauseMs - 5);
      EXPECT_LT(at[i] - at[i - 1], kPauseMs + 3000);
    }
    EXPECT_LT(elapsed_ms_, std::max(attempts - 1, 0) * (kPauseMs + 3000) + 3000);
    EXPECT_EQ(ccm, nullptr);
  }
}

// The first attempt is refused at once, so its close notice is queued before the second
// attempt starts; that notice must not be taken as the second attempt's answer.
TEST_F(AgentSessionTest, RefusedThenDelivered) {
  const int port = refused_port();
  std::unique_ptr<FakeAgent> agent;
  std::thread starter([&] {
    usleep(kPauseMs * 1000 / 3);
    agent = std::make_unique<FakeAgent>(good_agent, port);
  });
  const int status = run(2, port);
  starter.join();
  ASSERT_TRUE(agent->ok());
  EXPECT_EQ(status, 9);
  EXPECT_EQ(pcx_.abnormal_end, 0);
  EXPECT_NE(pcx_.agentID, 0);
  EXPECT_EQ(agent->connections(), 1);
  const std::vector<Bytes> frames = agent->frames();
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(std::string(frames[0].begin() + 63, frames[0].begin() + 71), "MELD    ");
  // Nothing waits between the reply and the end (a wait for the time-out takes 5 seconds).
  EXPECT_LT(elapsed_ms_, kPauseMs + 3000);
}

// The first connection is greeted wrongly and closed by the agent later, while the session
// pauses: that close notice is no answer for the second attempt either.
TEST_F(AgentSessionTest, LateCloseNoticeOfEarlierAttemptIsNoAnswer) {
  FakeAgent agent([](FakeAgent& self, int& fd, int index) {
    if (index > 0) return good_agent(self, fd, index);
    write_all(fd, native_frame("wrong", 7));
    usleep(50 * 1000);
  });
  ASSERT_TRUE(agent.ok());
  EXPECT_EQ(run(2, agent.port()), 9);
  EXPECT_EQ(agent.connections(), 2);
  EXPECT_EQ(agent.frames().size(), 1u);
  EXPECT_NE(pcx_.agentID, 0);
}

// Without a connection manager the run ends at once with the job's status.
TEST_F(AgentSessionTest, NoContextNoAttempt) {
  FakeAgent agent([](FakeAgent&, int&, int) {});
  ASSERT_TRUE(agent.ok());
  ccm_alloc = [](size_t size, const char* tag) -> void* {
    return std::strcmp(tag, "CCM_OPEN") == 0 ? nullptr : ccm_alloc_default(size, tag);
  };
  const int status = run(3, agent.port());
  ccm_alloc = ccm_alloc_default;
  EXPECT_EQ(status, 9);
  EXPECT_EQ(pcx_.abnormal_end, 1);
  EXPECT_EQ(agent.connections(), 0);
  EXPECT_EQ(ccm, nullptr);
}

}  // namespace
