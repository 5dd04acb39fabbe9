#include "ccm/receive.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "ccm/ipc.h"
#include "support/ccm.h"

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

class ReceiveTest : public ccm_test::CcmTest {
 protected:
  ReceiveTest() { wakeups_ = true; }

  // Queues an internal message for the main thread, as the reader or a channel close does.
  ccm_msg_t* deliver(const char* type) {
    ccm_msg_t* m = ccm_msg_alloc(ccm_, &err_);
    std::memset(m->msg_start, 0, 16);
    std::strcpy(reinterpret_cast<char*>(m->msg_start), type);
    m->len = 16;
    send_IPC_internal(ccm_, m);
    return m;
  }

  ccm_error_t err_{};
};

TEST_F(ReceiveTest, QueuedMessagesComeOutOldestFirstWithoutWaiting) {
  ccm_msg_t* a = deliver("FIRST");
  ccm_msg_t* b = deliver("SECOND");
  ccm_msg_t* got = nullptr;
  EXPECT_EQ(ccm_receive_message(ccm_, 5, &got, &err_), 1);
  EXPECT_EQ(got, a);
  EXPECT_EQ(got->type, CCM_MSG_IPC);
  ccm_msg_free(ccm_, got);
  EXPECT_EQ(ccm_receive_message(ccm_, 5, &got, &err_), 1);
  EXPECT_EQ(got, b);
  ccm_msg_free(ccm_, got);

  // Both wake-up bytes are still in the pipe: each of the next two waits ends at once with
  // no message, the third waits for its time-out.
  const auto t0 = Clock::now();
  EXPECT_EQ(ccm_receive_message(ccm_, 5, &got, &err_), 0);
  EXPECT_EQ(got, nullptr);
  EXPECT_EQ(ccm_receive_message(ccm_, 5, &got, &err_), 0);
  EXPECT_LT(seconds_since(t0), 1.0);
  EXPECT_EQ(ccm_receive_message(ccm_, 0, &got, &err_), 0);
}

TEST_F(ReceiveTest, EmptyQueueWaitsForTheTimeOut) {
  ccm_msg_t* got = reinterpret_cast<ccm_msg_t*>(1);
  auto t0 = Clock::now();
  EXPECT_EQ(ccm_receive_message(ccm_, 0, &got, &err_), 0);
  EXPECT_EQ(got, nullptr);
  EXPECT_LT(seconds_since(t0), 0.5);

  t0 = Clock::now();
  EXPECT_EQ(ccm_receive_message(ccm_, 1, &got, &err_), 0);
  EXPECT_GE(seconds_since(t0), 0.9);
}

TEST_F(ReceiveTest, MessageFromAnotherThreadEndsTheWait) {
  ccm_msg_t* sent = nullptr;
  std::thread network([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    sent = deliver("CHANNEL_CLOSE");
  });
  const auto t0 = Clock::now();
  ccm_msg_t* got = nullptr;
  EXPECT_EQ(ccm_receive_message(ccm_, 10, &got, &err_), 1);
  network.join();
  EXPECT_LT(seconds_since(t0), 5.0);
  EXPECT_EQ(got, sent);
  ccm_msg_free(ccm_, got);
}

void on_signal(int) {}

TEST_F(ReceiveTest, SignalEndsTheWaitWithoutError) {
  struct sigaction sa {};
  sa.sa_handler = on_signal;  // no SA_RESTART: select returns EINTR
  struct sigaction old {};
  sigaction(SIGUSR2, &sa, &old);
  const pthread_t self = pthread_self();
  std::thread killer([self] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    pthread_kill(self, SIGUSR2);
  });
  const auto t0 = Clock::now();
  ccm_msg_t* got = nullptr;
  EXPECT_EQ(ccm_receive_message(ccm_, 10, &got, &err_), 0);
  killer.join();
  sigaction(SIGUSR2, &old, nullptr);
  EXPECT_LT(seconds_since(t0), 5.0);
  EXPECT_EQ(got, nullptr);
}

TEST_F(ReceiveTest, WaitWithoutPipeFails) {
  ccm_close_wakeup_pipes(ccm_);
  ccm_msg_t* got = nullptr;
  EXPECT_EQ(ccm_receive_message(ccm_, 1, &got, &err_), -1);
  EXPECT_EQ(err_.msgnr, 2000102);
  EXPECT_EQ(std::strncmp(err_.msginsert, "select(processor_wakeup(-1))|", 29), 0);
}

TEST_F(ReceiveTest, AddressingSetsOnlyItsOwnSide) {
  ccm_msg_t* m = ccm_msg_alloc(ccm_, &err_);
  ccm_setback(m, "*SERVER", "ME", 3);
  m->addr.src_ID = 11;
  ccm_addr_t* a = ccm_setaddr(m, 7, 99, "", "JPAKTJ_R", 0);
  EXPECT_EQ(a, &m->addr);
  EXPECT_EQ(std::memcmp(a->eyec, "#CCMADDR", 8), 0);
  EXPECT_EQ(a->dst_ID, 7);
  EXPECT_STREQ(a->dst_addr, "");
  EXPECT_STREQ(a->dst_name, "JPAKTJ_R");
  EXPECT_EQ(a->dst_acv, 0);
  EXPECT_STREQ(a->src_addr, "*SERVER");
  EXPECT_STREQ(a->src_name, "ME");
  EXPECT_EQ(a->src_acv, 3);
  EXPECT_EQ(a->src_ID, 11);

  const std::string long_text(100, 'x');
  ccm_setaddr(m, 1, 0, long_text.c_str(), long_text.c_str(), 0);
  EXPECT_EQ(std::string(a->dst_addr), long_text.substr(0, 63));
  EXPECT_EQ(std::string(a->dst_name), long_text.substr(0, 63));

  // The answer goes back to the sender; its own source stays.
  ccm_msg_t* answer = ccm_msg_alloc(ccm_, &err_);
  ccm_setback(answer, "me", "ANSWER", 5);
  ccm_setaddr_reply(answer, m);
  EXPECT_EQ(answer->addr.dst_ID, 11);
  EXPECT_STREQ(answer->addr.dst_addr, "*SERVER");
  EXPECT_STREQ(answer->addr.dst_name, "ME");
  EXPECT_EQ(answer->addr.dst_acv, 3);
  EXPECT_STREQ(answer->addr.src_name, "ANSWER");
  EXPECT_EQ(answer->addr.src_acv, 5);
  ccm_msg_free(ccm_, answer);
  ccm_msg_free(ccm_, m);
}

TEST_F(ReceiveTest, CountsSkipDeletedChannels) {
  struct Kind {
    int type;
    int flag;
  } kinds[] = {{1, 0},
               {3, 0},
               {4, 0},
               {6, 0},
               {0, 0},
               {255, 0},
               {3, CCM_CHFLAG_DELETED},
               {4, CCM_CHFLAG_DELETED},
               {-1, 0}};
  ccm_channel_t channels[std::size(kinds)] = {};
  for (size_t i = 0; i < std::size(kinds); ++i) {
    channels[i].type = kinds[i].type;
    channels[i].flag = kinds[i].flag;
    pthread_spin_init(&channels[i].queue_lock, PTHREAD_PROCESS_PRIVATE);
    channels[i].nxt = i + 1 < std::size(kinds) ? &channels[i + 1] : nullptr;
  }
  ccm_->channelq.head = &channels[0];
  ccm_->channelq.tail = &channels[std::size(kinds) - 1];

  EXPECT_EQ(ccm_get_nof_server_connections(ccm_), 2);
  EXPECT_EQ(ccm_get_nof_connections(ccm_), 3);
  EXPECT_EQ(ccm_get_nof_agent_connections(ccm_), 1);
  EXPECT_EQ(ccm_get_nof_channels(ccm_), 6);

  // Only live channels of a type other than -1 count for pending output.
  ccm_msg_t* m = ccm_msg_alloc(ccm_, &err_);
  EXPECT_EQ(ccm_is_all_sendq_empty(ccm_), 1);
  channels[6].sendq.head = m;  // deleted
  channels[8].sendq.head = m;  // type -1
  EXPECT_EQ(ccm_is_all_sendq_empty(ccm_), 1);
  channels[2].sendq.head = m;
  EXPECT_EQ(ccm_is_all_sendq_empty(ccm_), 0);
  for (ccm_channel_t& ch : channels)
    ch.sendq.head = nullptr;

  EXPECT_EQ(ccm_get_sendq_count(ccm_), 0);
  ccm_->sendq.head = ccm_->sendq.tail = m;
  ccm_->msgq_inuse.head = ccm_->msgq_inuse.tail = nullptr;
  EXPECT_EQ(ccm_get_sendq_count(ccm_), 1);
  EXPECT_EQ(ccm_is_all_sendq_empty(ccm_), 0);

  ccm_->channelq.head = ccm_->channelq.tail = nullptr;
  for (ccm_channel_t& ch : channels)
    pthread_spin_destroy(&ch.queue_lock);
}

}  // namespace
