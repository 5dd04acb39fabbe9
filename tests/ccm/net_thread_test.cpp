// The network thread: its cycle, the dispatch of outgoing messages, the descriptor sets
// beyond 1024, socket pairs, and starting and stopping the thread.
#include "ccm/net_thread.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <string>

#include "ccm/io.h"
#include "ccm/receive.h"
#include "ccm/send.h"
#include "common/protocol_header.h"
#include "common/trace_log.h"
#include "support/ccm.h"

namespace {

using ccm_test::CcmTest;
using ccm_test::ipc_frame;

class NetThreadTest : public CcmTest {
 protected:
  NetThreadTest() { wakeups_ = true; }

  // A channel on one end of a socket pair; the other end is returned.
  int paired_channel(ccm_channel_t** ch, int name_fd = -1) {
    int sv[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    *ch = new_channel(CCM_CHTYPE_NONE);
    (*ch)->s = sv[0];
    if (name_fd >= 0) {
      EXPECT_EQ(dup2(sv[0], name_fd), name_fd);
      close(sv[0]);
      (*ch)->s = name_fd;
    }
    ccm_channel_chain(ccm_, *ch);
    return sv[1];
  }

  ccm_msg_t* message_to(int dst_ID, const char* dst_addr, int flag = 0) {
    ccm_msg_t* m = ccm_msg_alloc(ccm_, &err_);
    m->len = 60;
    ccm_setaddr(m, dst_ID, 0, dst_addr, "", 0);
    m->flag = flag;
    ccm_send_message_common(ccm_, m, "test");
    return m;
  }

  ccm_error_t err_{};
};

TEST_F(NetThreadTest, DispatchRoutesByIdOrNameAndFreesTheUnroutable) {
  ccm_channel_t* by_id = entered_channel(CCM_CHTYPE_NONE);
  ccm_channel_t* server = entered_channel(CCM_CHTYPE_CP);
  std::strcpy(server->name, "*SERVER");
  ccm_flag_set(server->flag, CCM_CHFLAG_NAT_02);
  server->pATctx = &err_;

  ccm_msg_t* to_id = message_to(by_id->ID, "");
  ccm_msg_t* to_cp = message_to(0, "*CP(host)");
  to_cp->type = CCM_MSG_NAT;
  message_to(999, "");
  ccm_msg_t* kept = message_to(998, "", CCM_MSGFLAG_KEEP);
  const int free_before = ccm_->nof_freemsg;

  trcFlag = 1;
  testing::internal::CaptureStdout();
  EXPECT_EQ(ccm_dispatch_send_messages(ccm_), 0);
  fflush(stdout);
  const std::string trace = testing::internal::GetCapturedStdout();
  trcFlag = 0;

  EXPECT_NE(trace.find("number of dispatched messages = 4"), std::string::npos);
  EXPECT_EQ(ccm_test::members(by_id->sendq), std::vector<ccm_msg_t*>{to_id});
  EXPECT_EQ(ccm_test::members(server->sendq), std::vector<ccm_msg_t*>{to_cp});
  EXPECT_TRUE(to_cp->flag & CCM_MSGFLAG_CHANNEL_02);
  EXPECT_EQ(to_cp->pATctx, &err_);
  EXPECT_FALSE(to_id->flag & CCM_MSGFLAG_CHANNEL_02);
  EXPECT_EQ(ccm_->nof_freemsg, free_before + 1);  // the message for channel 999
  EXPECT_EQ(ccm_->sendq.head, nullptr);
  EXPECT_FALSE(ccm_test::channel_lock_held(ccm_));
  ccm_msg_free(ccm_, kept);
}

TEST_F(NetThreadTest, CycleServesSocketsAboveTheFdSetLimit) {
  ccm_channel_t* ch = nullptr;
  const int peer = paired_channel(&ch, 5000);
  const std::string f = ipc_frame(64, 'z');
  ASSERT_EQ(write(peer, f.data(), f.size()), static_cast<ssize_t>(f.size()));
  ccm_send_message_common(
      ccm_,
      [&] {
        ccm_msg_t* m = ccm_msg_alloc(ccm_, &err_);
        std::memcpy(m->msg_start, f.data(), f.size());
        m->len = static_cast<int>(f.size());
        ccm_setaddr(m, ch->ID, 0, "", "", 0);
        return m;
      }(),
      "test");

  EXPECT_EQ(ccm_network_select(ccm_, 5, &err_), 0);
  ccm_msg_t* got = nullptr;
  ASSERT_EQ(ccm_receive_message(ccm_, 0, &got, &err_), 1);
  EXPECT_EQ(got->len, 16);
  ccm_msg_free(ccm_, got);
  char back[64];
  EXPECT_EQ(recv(peer, back, sizeof back, MSG_DONTWAIT), 64);
  EXPECT_EQ(std::string(back, 64), f);
  close(peer);
}

TEST_F(NetThreadTest, SocketBeyondTheSetsEndsItsChannelWithAnError) {
  ccm_channel_t* ch = new_channel(CCM_CHTYPE_NONE);
  ch->s = CCM_MAX_WATCHED_FD + 1;  // never opened: the loop must not hand it to select
  ccm_channel_chain(ccm_, ch);
  EXPECT_EQ(ccm_network_select(ccm_, 0, &err_), 0);
  EXPECT_TRUE(ch->flag & CCM_CHFLAG_DELETED);
  EXPECT_EQ(ch->msgnr, CCM_MSGNR_SYSCALL);
  EXPECT_TRUE(ccm_->flag & CCM_FLAG_CHANNEL_DELETED);
  ch->s = -1;
}

TEST(FdSetText, ListsMembersAndCutsWithAMarker) {
  alignas(8) static unsigned char set[8192];
  auto add = [](int fd) { set[fd / 8] |= static_cast<unsigned char>(1u << (fd % 8)); };
  std::memset(set, 0, sizeof set);
  char text[CCM_FDSET_TEXT_SIZE];
  EXPECT_STREQ(ccm_fdset_text(text, sizeof text, set, 65535), "");
  for (int fd : {0, 3, 1030, 65535})
    add(fd);
  EXPECT_STREQ(ccm_fdset_text(text, sizeof text, set, 65535), "0,3,1030,65535");
  EXPECT_STREQ(ccm_fdset_text(text, sizeof text, set, 1030), "0,3,1030");

  std::memset(set, 0xff, sizeof set);
  ccm_fdset_text(text, sizeof text, set, 65535);
  const std::string all = text;
  EXPECT_LT(all.size(), sizeof text);
  EXPECT_EQ(all.substr(all.size() - 4), ",...");
  EXPECT_EQ(all.substr(0, 8), "0,1,2,3,");
}

// Fails the n-th channel allocation from now on (1 = the next).
int channels_left = 0;
void* fail_nth_channel(size_t size, const char* tag) {
  if (std::strcmp(tag, "CREATE_CHANNEL") == 0 && --channels_left == 0) return nullptr;
  return ccm_alloc_default(size, tag);
}

// When the second channel cannot be made, the first is released again, silently.
TEST_F(NetThreadTest, FailedPairLeavesNothingBehind) {
  ccm_channel_t* a = nullptr;
  ccm_channel_t* b = nullptr;
  channels_left = 2;
  ccm_alloc = fail_nth_channel;
  EXPECT_EQ(ccm_channel_create_pair(ccm_, &a, &b, &err_), -1);
  ccm_alloc = ccm_alloc_default;
  EXPECT_EQ(a, nullptr);
  EXPECT_EQ(err_.msgnr, CCM_MSGNR_ALLOC);
  EXPECT_EQ(ccm_->channel_newq.head, nullptr);
  EXPECT_TRUE(drain_recvq().empty());  // nothing was announced, so nothing is closed
}

// Joins `thread` within `seconds`; false when it is still running.
bool joined_within(pthread_t thread, int seconds) {
  timespec deadline{};
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += seconds;
  return pthread_timedjoin_np(thread, nullptr, &deadline) == 0;
}

TEST_F(NetThreadTest, StopEndsTheWaitAndDestroysDeletedChannelsBeforeTheJoin) {
  ASSERT_EQ(ccm_thread_start(ccm_, &err_), 0);
  ccm_channel_t* ch = nullptr;
  const int peer = paired_channel(&ch);
  const int id = ch->ID;
  // Once the thread has written this, it is cycling: its next wait lasts up to 10 seconds.
  message_to(id, "");
  pollfd pfd{peer, POLLIN, 0};
  ASSERT_EQ(poll(&pfd, 1, 5000), 1);
  char sent[60];
  ASSERT_EQ(read(peer, sent, sizeof sent), 60);
  ccm_channel_deletebyID(ccm_, id);
  ASSERT_EQ(ccm_thread_stop(ccm_), 0);
  // Far less than the 10-second cycle: only the wake-up can end the wait this early.
  ASSERT_TRUE(joined_within(ccm_->thread, 5));

  EXPECT_EQ(ccm_->channelq.head, nullptr);
  EXPECT_EQ(ccm_->channel_newq.head, nullptr);
  ccm_msg_t* notice = nullptr;
  ASSERT_EQ(ccm_receive_message(ccm_, 0, &notice, &err_), 1);
  EXPECT_STREQ(reinterpret_cast<const char*>(notice->msg_start), "CHANNEL_CLOSE");
  ccm_channel_t closed{};
  std::memcpy(static_cast<void*>(&closed), notice->msg_start + 16, sizeof closed);
  EXPECT_EQ(closed.ID, id);
  ccm_msg_free(ccm_, notice);
  char byte;
  EXPECT_EQ(read(peer, &byte, 1), 0);  // the channel's socket was closed
  close(peer);
}

// Both threads busy at once: the main thread sends over both ends of a socket pair and takes
// what arrives while the network thread writes, reads and queues.
TEST_F(NetThreadTest, TrafficBothWaysArrivesInOrder) {
  ASSERT_EQ(ccm_thread_start(ccm_, &err_), 0);
  ccm_channel_t* a = nullptr;
  ccm_channel_t* b = nullptr;
  ASSERT_EQ(ccm_channel_create_pair(ccm_, &a, &b, &err_), 0);
  const int ids[2] = {a->ID, b->ID};
  constexpr int kEach = 300;
  int next_seq[2] = {0, 0};  // per receiving channel
  int received = 0;
  auto take = [&](int wait) {
    ccm_msg_t* m = nullptr;
    if (ccm_receive_message(ccm_, wait, &m, &err_) != 1) return;
    const int side = m->addr.src_ID == ids[0] ? 0 : 1;
    int seq = -1;
    std::memcpy(&seq, m->msg_start, sizeof seq);
    EXPECT_EQ(seq, next_seq[side]++);
    EXPECT_EQ(m->len, 4 + seq % 5000);
    ccm_msg_free(ccm_, m);
    received++;
  };
  for (int seq = 0; seq < kEach; ++seq) {
    for (int to : ids) {
      ccm_msg_t* m = ccm_msg_alloc(ccm_, &err_);
      const int body = 4 + seq % 5000;
      const std::string f = ipc_frame(kProtocolHeaderSize + body, static_cast<char>(seq));
      std::memcpy(m->msg_start, f.data(), f.size());
      std::memcpy(m->msg_start + kProtocolHeaderSize, &seq, sizeof seq);
      m->len = static_cast<int>(f.size());
      ccm_setaddr(m, to, 0, "", "", 0);
      ccm_send_message_common(ccm_, m, "test");
    }
    take(0);
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (received < 2 * kEach && std::chrono::steady_clock::now() < deadline)
    take(1);
  EXPECT_EQ(received, 2 * kEach);
  ccm_thread_stop(ccm_);
  ASSERT_TRUE(joined_within(ccm_->thread, 5));
}

}  // namespace
