// Channel reading and writing over socket pairs, the network thread, waiting for messages,
// internal messages with descriptor passing, and listening.
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "common/protocol_header.h"
#include "common/trace_log.h"
#include "support/ccm.h"
#include "support/process.h"

namespace ccm_test {
namespace {

using Clock = std::chrono::steady_clock;
double seconds_since(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}
std::string body_of(const std::string& frame) {
  return frame.substr(kProtocolHeaderSize);
}

class IoTest : public CcmTest {
 protected:
  void SetUp() override {
    CcmTest::SetUp();
    peer_ = paired_channel(&ch_);
    merge_newq();
  }
  void TearDown() override {
    if (peer_ >= 0) close(peer_);
    CcmTest::TearDown();
  }
  void put(const std::string& bytes) {
    ASSERT_EQ(write(peer_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  // Reads until the socket has nothing more, as the select loop would.
  int read_all() {
    int rslt = 0, n = 0;
    while (rslt == 0 && recv(ch_->s, &n, 1, MSG_PEEK | MSG_DONTWAIT) > 0)
      rslt = ccm_read_channel(ccm_, ch_, &err_);
    return rslt;
  }
  // The bodies of the queued messages, oldest first; each message is freed.
  std::vector<std::string> take_bodies(std::vector<int>* sizes = nullptr) {
    std::vector<std::string> bodies;
    while (ccm_msg_t* m = ccm_queue_pop(ccm_->recvq)) {
      EXPECT_EQ(m->type, CCM_MSG_IPC);
      EXPECT_EQ(m->addr.src_ID, ch_->ID);
      bodies.push_back(text(m));
      if (sizes != nullptr) sizes->push_back(m->size);
      ccm_msg_free(ccm_, m);
    }
    return bodies;
  }
  bool deleted() const { return (ch_->flag & CCM_CHFLAG_DELETED) != 0; }

  int peer_ = -1;
  ccm_channel_t* ch_ = nullptr;
};

TEST_F(IoTest, TwoFramesAndHalfAThirdInOneReadThenOneByteAtATime) {
  const std::string a = ipc_frame(100, 1), b = ipc_frame(48, 2), c = ipc_frame(300, 3);
  put(a + b + c.substr(0, 150));
  EXPECT_EQ(ccm_read_channel(ccm_, ch_, &err_), 0);
  EXPECT_EQ(take_bodies(), (std::vector<std::string>{body_of(a), body_of(b)}));
  ASSERT_EQ(ch_->recv_pos, 150);
  put(c.substr(150));
  EXPECT_EQ(ccm_read_channel(ccm_, ch_, &err_), 0);
  EXPECT_EQ(take_bodies(), std::vector<std::string>{body_of(c)});
  EXPECT_EQ(ch_->recv_pos, 0);

  const std::string f = ipc_frame(60, 4);
  for (size_t i = 0; i + 1 < f.size(); ++i) {
    put(f.substr(i, 1));
    ASSERT_EQ(ccm_read_channel(ccm_, ch_, &err_), 0) << "byte " << i;
    ASSERT_TRUE(take_bodies().empty()) << "byte " << i;
  }
  put(f.substr(f.size() - 1));
  EXPECT_EQ(ccm_read_channel(ccm_, ch_, &err_), 0);
  EXPECT_EQ(take_bodies(), std::vector<std::string>{body_of(f)});
}

// The buffer grows in steps of 8192 bytes, at once to the frame's size when its length is
// known, and never shrinks; a frame gets a message area of its own size unless it fills more
// than half of a pool message.
TEST_F(IoTest, LargeFramesGrowTheBufferAndChooseTheirMessage) {
  const struct {
    int total, buffer_size, message_size, buffers;
  } cases[] = {{20000, 24576, 10000, 2},
               {32768, 32768, 16384, 1},
               {32769, 40960, CCM_MSG_POOL_SIZE, 1},
               {65536, 65536, CCM_MSG_POOL_SIZE, 1},
               {70001, 73728, 35001, 1}};
  for (const auto& k : cases) {
    FailAllocations counter("RECVBUFF", -1);
    const std::string f = ipc_frame(k.total, 5);
    put(f);
    EXPECT_EQ(read_all(), 0);
    std::vector<int> sizes;
    EXPECT_EQ(take_bodies(&sizes), std::vector<std::string>{body_of(f)}) << k.total;
    EXPECT_EQ(sizes, std::vector<int>{k.message_size});
    EXPECT_EQ(ch_->recv_size, k.buffer_size);
    EXPECT_EQ(counter.count(), k.buffers) << k.total;
  }
}

// A bad length deletes the channel with an error before any buffer is grown for it.
TEST_F(IoTest, InvalidLengthIsRejectedAtOnceAndPartnerCloseWithoutError) {
  for (const char* length : {"0000004x", "00000047", "16777217", "-0000100", "99999999"}) {
    ccm_channel_t* ch = nullptr;
    const int peer = paired_channel(&ch);
    std::string f = ipc_frame(100, 6);
    f.replace(0, 8, length);
    f.resize(8192 + 100, 'x');  // more than the first buffer holds
    ASSERT_EQ(write(peer, f.data(), f.size()), static_cast<ssize_t>(f.size()));
    EXPECT_EQ(ccm_read_channel(ccm_, ch, &err_), -1);
    EXPECT_TRUE(ch->flag & CCM_CHFLAG_DELETED) << length;
    EXPECT_EQ(ch->msgnr, CCM_MSGNR_RECEIVE_ERROR);
    EXPECT_EQ(ch->recv_size, CCM_RECV_GROW_STEP);
    EXPECT_EQ(std::string(ch->msginsert).rfind(std::string(ch->name) + "|", 0), 0u)
        << ch->msginsert;
    close(peer);
  }
  EXPECT_TRUE(take_bodies().empty());
  unsigned char good[] = "00000339QX7:global", junk[] = "abcdefgh";
  EXPECT_EQ(ccm_get_msg_length(ccm_, ch_, good), 339u);
  EXPECT_EQ(ccm_get_msg_length(ccm_, ch_, junk), 0u);
  close(peer_);
  peer_ = -1;
  EXPECT_EQ(ccm_read_channel(ccm_, ch_, &err_), -1);
  EXPECT_TRUE(deleted());
  EXPECT_EQ(ch_->msgnr, 0);
  EXPECT_TRUE(ccm_->flag & CCM_FLAG_CHANNEL_DELETED);
}

// Failed allocations keep the channel and its bytes; no frame is queued twice.
TEST_F(IoTest, FailedAllocationsKeepTheChannelAndNeverQueueAFrameTwice) {
  const std::string a = ipc_frame(70, 7), b = ipc_frame(80, 8), c = ipc_frame(90, 9);
  put(a + b);
  {
    FailAllocations fail("CCMMSG", 2);
    EXPECT_EQ(ccm_read_channel(ccm_, ch_, &err_), -1);
  }
  EXPECT_EQ(err_.msgnr, CCM_MSGNR_ALLOC);
  EXPECT_FALSE(deleted());
  EXPECT_EQ(ch_->recv_pos, static_cast<int>(b.size()));
  put(c);
  EXPECT_EQ(ccm_read_channel(ccm_, ch_, &err_), 0);
  EXPECT_EQ(take_bodies(), (std::vector<std::string>{body_of(a), body_of(b), body_of(c)}));

  const std::string f = ipc_frame(9000, 10);
  put(f.substr(0, 8192));
  EXPECT_EQ(ccm_read_channel(ccm_, ch_, &err_), 0);
  put(f.substr(8192));
  {
    FailAllocations fail("RECVBUFF");
    EXPECT_EQ(ccm_read_channel(ccm_, ch_, &err_), -1);
  }
  EXPECT_EQ(err_.msgnr, CCM_MSGNR_ALLOC);
  EXPECT_FALSE(deleted());
  EXPECT_EQ(ch_->recv_pos, 8192);
  EXPECT_EQ(read_all(), 0);
  EXPECT_EQ(take_bodies(), std::vector<std::string>{body_of(f)});
}

// One read completes two frames and carries one descriptor: only the first message owns it.
TEST_F(IoTest, PassedDescriptorGoesToTheFirstFrameOfTheReadOnly) {
  const std::string both = ipc_frame(60, 1) + ipc_frame(70, 2);
  int pipefd[2];
  ASSERT_EQ(pipe(pipefd), 0);
  alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(int))] = {};
  iovec iov{const_cast<char*>(both.data()), both.size()};
  msghdr mh{};
  mh.msg_iov = &iov;
  mh.msg_iovlen = 1;
  mh.msg_control = control;
  mh.msg_controllen = sizeof control;
  cmsghdr* c = CMSG_FIRSTHDR(&mh);
  c->cmsg_level = SOL_SOCKET;
  c->cmsg_type = SCM_RIGHTS;
  c->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(c), &pipefd[1], sizeof(int));
  ASSERT_EQ(sendmsg(peer_, &mh, 0), static_cast<ssize_t>(both.size()));
  close(pipefd[1]);
  EXPECT_EQ(ccm_read_channel(ccm_, ch_, &err_), 0);
  std::vector<size_t> control_lens;
  int passed = -1;
  while (ccm_msg_t* m = ccm_queue_pop(ccm_->recvq)) {
    control_lens.push_back(m->control_len);
    if (m->control_len >= CMSG_LEN(sizeof(int))) {
      std::memcpy(&passed, m->control_data + (CMSG_DATA(c) - control), sizeof passed);
    }
    ccm_msg_free(ccm_, m);
  }
  ASSERT_EQ(control_lens.size(), 2u);
  EXPECT_GE(control_lens[0], CMSG_LEN(sizeof(int)));
  EXPECT_EQ(control_lens[1], 0u);
  ASSERT_GE(passed, 0);
  ASSERT_EQ(write(passed, "x", 1), 1);  // the one copy of the descriptor works
  close(passed);
  char byte;
  EXPECT_EQ(read(pipefd[0], &byte, 1), 1);
  EXPECT_EQ(read(pipefd[0], &byte, 1), 0);  // no other copy keeps the pipe open
  close(pipefd[0]);
}

std::string bytes_of(int len, int seed) {
  std::string s;
  for (int i = 0; i < len; ++i)
    s.push_back(static_cast<char>(seed + i * 7));
  return s;
}

class WriteTest : public IoTest {
 protected:
  ccm_msg_t* queue(int len, int seed) {  // as the dispatcher does
    ccm_msg_t* m = ccm_msg_alloc_huge(ccm_, std::max(len, CCM_MSG_POOL_SIZE), &err_);
    const std::string bytes = bytes_of(len, seed);
    std::memcpy(m->msg_start, bytes.data(), len);
    m->len = len;
    ccm_queue_unlink(ccm_->msgq_inuse, m);
    ccm_queue_append(ch_->sendq, m);
    return m;
  }
};

// A 70,000-byte message goes out in several sends; a partial write resumes where it stopped.
TEST_F(WriteTest, LargeMessageResumesAfterPartialWrite) {
  const int small = 4096;
  ASSERT_EQ(setsockopt(ch_->s, SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
  fcntl(ch_->s, F_SETFL, fcntl(ch_->s, F_GETFL) | O_NONBLOCK);
  ccm_msg_t* big = queue(70000, 1);
  queue(100, 2);
  EXPECT_EQ(ccm_write_channel(ccm_, ch_, &err_), 0);
  ASSERT_EQ(ch_->sendq.head, big);
  const int first = big->pos;
  EXPECT_GT(first, 0);
  EXPECT_LT(first, 70000);
  EXPECT_EQ(ccm_write_channel(ccm_, ch_, &err_), 0);  // nothing drained: no progress
  EXPECT_EQ(big->pos, first);
  std::string got;
  char buf[65536];
  for (int round = 0; round < 1000 && ch_->sendq.head != nullptr; ++round) {
    for (ssize_t n; (n = recv(peer_, buf, sizeof buf, MSG_DONTWAIT)) > 0;)
      got.append(buf, n);
    ASSERT_EQ(ccm_write_channel(ccm_, ch_, &err_), 0);
  }
  for (ssize_t n; (n = recv(peer_, buf, sizeof buf, MSG_DONTWAIT)) > 0;)
    got.append(buf, n);
  EXPECT_EQ(got, bytes_of(70000, 1) + bytes_of(100, 2));
  EXPECT_FALSE(deleted());
}

// A write to a closed partner deletes the channel; no SIGPIPE ends the process.
TEST_F(WriteTest, WriteToAClosedPartnerDeletesTheChannelWithoutSignal) {
  close(peer_);
  peer_ = -1;
  queue(200, 3);
  EXPECT_EQ(ccm_write_channel(ccm_, ch_, &err_), -1);
  EXPECT_TRUE(deleted());
  EXPECT_EQ(ch_->msgnr, CCM_MSGNR_SEND_ERROR);
  EXPECT_NE(std::string(ch_->msginsert).find(ch_->name), std::string::npos);
}

class NetThreadTest : public CcmTest {
 protected:
  NetThreadTest() { wakeups_ = true; }
  ccm_msg_t* send(int dst_ID, const char* dst_addr, const std::string& bytes, int flag = 0) {
    ccm_msg_t* m = ccm_msg_alloc(ccm_, &err_);
    std::memcpy(m->msg_start, bytes.data(), bytes.size());
    m->len = static_cast<int>(bytes.size());
    ccm_setaddr(m, dst_ID, 0, dst_addr, "", 0);
    m->flag = flag;
    ccm_send_message_common(ccm_, m, "test");
    return m;
  }
  // Joins the thread within 5 seconds; false when it is still running.
  bool joined() {
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 5;
    running_ = pthread_timedjoin_np(ccm_->thread, nullptr, &deadline) != 0;
    if (!running_) ccm_->thread_started = 0;
    return !running_;
  }
};

// Messages go to their channel by ID or to the server by name; one for an unknown channel is
// freed and counted, one marked to be kept is left to its owner.
TEST_F(NetThreadTest, DispatchRoutesByIdOrNameAndFreesTheUnroutable) {
  ccm_channel_t* by_id = entered_channel(CCM_CHTYPE_NONE);
  ccm_channel_t* server = entered_channel(CCM_CHTYPE_CP);
  std::strcpy(server->name, "*SERVER");
  ccm_flag_set(server->flag, CCM_CHFLAG_NAT_02);
  server->pATctx = &err_;
  ccm_msg_t* to_id = send(by_id->ID, "", std::string(60, 'i'));
  ccm_msg_t* to_cp = send(0, "*CP(host)", std::string(60, 'c'));
  to_cp->type = CCM_MSG_NAT;
  send(999, "", std::string(60, 'u'));
  ccm_msg_t* kept = send(998, "", std::string(60, 'k'), CCM_MSGFLAG_KEEP);
  const int free_before = ccm_->nof_freemsg;
  trcFlag = 1;  // the trace counts every dispatched message, the freed one included
  testing::internal::CaptureStdout();
  EXPECT_EQ(ccm_dispatch_send_messages(ccm_), 0);
  fflush(stdout);
  trcFlag = 0;
  EXPECT_NE(testing::internal::GetCapturedStdout().find("number of dispatched messages = 4"),
            std::string::npos);
  EXPECT_EQ(members(by_id->sendq), std::vector<ccm_msg_t*>{to_id});
  EXPECT_EQ(members(server->sendq), std::vector<ccm_msg_t*>{to_cp});
  EXPECT_TRUE(to_cp->flag & CCM_MSGFLAG_CHANNEL_02);
  EXPECT_EQ(to_cp->pATctx, &err_);
  EXPECT_FALSE(to_id->flag & CCM_MSGFLAG_CHANNEL_02);
  EXPECT_EQ(ccm_->nof_freemsg, free_before + 1);  // the message for channel 999
  EXPECT_EQ(ccm_->sendq.head, nullptr);
  EXPECT_FALSE(channel_lock_held(ccm_));
  ccm_msg_free(ccm_, kept);
}

// The descriptor sets reach 65535: a socket at 5000 is read and written in one cycle, one
// beyond the sets ends its channel with an error.
TEST_F(NetThreadTest, CycleServesSocketsAboveTheFdSetLimit) {
  ccm_channel_t* ch = nullptr;
  const int peer = paired_channel(&ch);
  ASSERT_EQ(dup2(ch->s, 5000), 5000);
  close(ch->s);
  ch->s = 5000;
  const std::string f = ipc_frame(64, 'z');
  ASSERT_EQ(write(peer, f.data(), f.size()), static_cast<ssize_t>(f.size()));
  send(ch->ID, "", f);
  ccm_channel_t* beyond = entered_channel(CCM_CHTYPE_NONE);
  beyond->s = CCM_MAX_WATCHED_FD + 1;  // never opened: the loop must not hand it to select
  EXPECT_EQ(ccm_network_select(ccm_, 5, &err_), 0);
  EXPECT_TRUE(beyond->flag & CCM_CHFLAG_DELETED);
  EXPECT_EQ(beyond->msgnr, CCM_MSGNR_SYSCALL);
  beyond->s = -1;
  ccm_msg_t* got = nullptr;
  ASSERT_EQ(ccm_receive_message(ccm_, 0, &got, &err_), 1);
  EXPECT_EQ(text(got), body_of(f));
  ccm_msg_free(ccm_, got);
  char back[64];
  EXPECT_EQ(recv(peer, back, sizeof back, MSG_DONTWAIT), 64);
  EXPECT_EQ(std::string(back, 64), f);
  close(peer);
}

// When the second channel of a pair cannot be made, the first goes again without a notice.
TEST_F(NetThreadTest, FailedPairLeavesNothingBehind) {
  ccm_channel_t* a = nullptr;
  ccm_channel_t* b = nullptr;
  {
    FailAllocations fail("CREATE_CHANNEL", 2);
    EXPECT_EQ(ccm_channel_create_pair(ccm_, &a, &b, &err_), -1);
  }
  EXPECT_EQ(a, nullptr);
  EXPECT_EQ(err_.msgnr, CCM_MSGNR_ALLOC);
  EXPECT_EQ(ccm_->channel_newq.head, nullptr);
  EXPECT_TRUE(drain_recvq().empty());
}

// A stop ends the wait far sooner than the 10-second cycle; a channel deleted before it is
// destroyed, and its notice queued, before the join returns.
TEST_F(NetThreadTest, StopEndsTheWaitAndDestroysDeletedChannelsBeforeTheJoin) {
  start_thread();
  ccm_channel_t* ch = nullptr;
  const int peer = paired_channel(&ch);
  const int id = ch->ID;
  send(id, "", std::string(60, 's'));  // once written, the thread is in its long wait
  pollfd pfd{peer, POLLIN, 0};
  ASSERT_EQ(poll(&pfd, 1, 5000), 1);
  char sent[60];
  ASSERT_EQ(read(peer, sent, sizeof sent), 60);
  ccm_channel_deletebyID(ccm_, id);
  ASSERT_EQ(ccm_thread_stop(ccm_), 0);
  ASSERT_TRUE(joined());
  EXPECT_EQ(ccm_->channelq.head, nullptr);
  EXPECT_EQ(ccm_->channel_newq.head, nullptr);
  ccm_msg_t* notice = nullptr;
  ASSERT_EQ(ccm_receive_message(ccm_, 0, &notice, &err_), 1);
  ipcmsg_channel_close_t closed;
  std::memcpy(static_cast<void*>(&closed), notice->msg_start, sizeof closed);
  EXPECT_STREQ(closed.head.msgtype, "CHANNEL_CLOSE");
  EXPECT_EQ(closed.ccmch.ID, id);
  EXPECT_EQ(ccm_close_notice_channelID(notice), id);
  ccm_msg_free(ccm_, notice);
  EXPECT_EQ(read(peer, sent, 1), 0);  // the channel's socket was closed
  close(peer);
}

// Both threads carry traffic at once over both ends of a pair; everything arrives in order.
TEST_F(NetThreadTest, TrafficBothWaysArrivesInOrder) {
  start_thread();
  ccm_channel_t* a = nullptr;
  ccm_channel_t* b = nullptr;
  ASSERT_EQ(ccm_channel_create_pair(ccm_, &a, &b, &err_), 0);
  const int ids[2] = {a->ID, b->ID};
  constexpr int kEach = 300;
  int next_seq[2] = {0, 0}, received = 0;
  auto take = [&](int wait) {
    ccm_msg_t* m = nullptr;
    if (ccm_receive_message(ccm_, wait, &m, &err_) != 1) return;
    int seq = -1;
    std::memcpy(&seq, m->msg_start, sizeof seq);
    EXPECT_EQ(seq, next_seq[m->addr.src_ID == ids[0] ? 0 : 1]++);
    EXPECT_EQ(m->len, 4 + seq % 5000);
    ccm_msg_free(ccm_, m);
    received++;
  };
  for (int seq = 0; seq < kEach; ++seq) {
    for (int to : ids) {
      std::string f = ipc_frame(kProtocolHeaderSize + 4 + seq % 5000, seq);
      f.replace(kProtocolHeaderSize, 4, reinterpret_cast<const char*>(&seq), 4);
      send(to, "", f);
    }
    take(0);
  }
  const auto deadline = Clock::now() + std::chrono::seconds(20);
  while (received < 2 * kEach && Clock::now() < deadline)
    take(1);
  EXPECT_EQ(received, 2 * kEach);
}

// A partner floods 48-byte frames that nobody takes: the channel is read up to its bound of
// unread messages and then left alone, so the partner's writes stop (flow control) and the
// memory stays small. Neither wake-up pipe can block a writer: with the processor pipe full,
// a notice made on this thread still goes through. Once the messages are taken, reading
// resumes and every frame arrives.
TEST_F(NetThreadTest, FloodOfSmallFramesIsHeldAtTheUnreadBound) {
  start_thread();
  ccm_channel_t* ch = nullptr;
  const int peer = paired_channel(&ch);
  const int id = ch->ID;
  ccm_wakeup_network(ccm_);
  fcntl(peer, F_SETFL, fcntl(peer, F_GETFL) | O_NONBLOCK);
  qxtest::reset_peak_memory();
  const long before_kb = qxtest::peak_memory_kb();
  std::string stream;  // identical frames: a write cut anywhere goes on at offset % 48
  for (int i = 0; i < 256; ++i)
    stream += ipc_frame(48, 0);
  long long bytes = 0;
  auto put_more = [&](size_t upto) {
    const size_t at = static_cast<size_t>(bytes % 48);
    const ssize_t n = write(peer, stream.data() + at, upto - at);
    if (n > 0) bytes += n;
    return n > 0;
  };
  for (auto progress = Clock::now(); seconds_since(progress) < 1.0;) {
    if (put_more(stream.size())) {
      progress = Clock::now();
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_LT(bytes, 100LL << 20) << "the channel was never held";
  }
  EXPECT_TRUE(ccm_flag_get(ch->flag) & CCM_CHFLAG_RECV_HELD);
  const int unread = __atomic_load_n(&ch->unread_msgs, __ATOMIC_SEQ_CST);
  EXPECT_GE(unread, CCM_UNREAD_MAX_MSGS);
  EXPECT_LE(unread, CCM_UNREAD_MAX_MSGS + CCM_RECV_READ_AHEAD / 48);
  // About a thousand small messages, not a thousand 64 KiB areas.
  if (!qxtest::kSanitizerBuild) {
    EXPECT_LT(qxtest::peak_memory_kb() - before_kb, 8 * 1024);
  }

  while (write(ccm_->processor_wakeup[1], "P", 1) == 1) {
  }
  const auto t0 = Clock::now();
  ccm_msg_t* notice = ccm_msg_alloc(ccm_, &err_);
  std::strcpy(reinterpret_cast<char*>(notice->msg_start), "NOTICE");
  notice->len = 16;
  send_IPC_internal(ccm_, notice);
  EXPECT_LT(seconds_since(t0), 1.0);

  long long received = 0;
  while (ccm_msg_t* m = next_message()) {
    received += m->addr.src_ID == id ? 1 : 0;
    ccm_msg_free(ccm_, m);
    if (bytes % 48 != 0) put_more(48);  // the frame cut by the last write
    if (bytes % 48 == 0 && received == bytes / 48) break;
  }
  EXPECT_EQ(received * 48, bytes);
  close(peer);
}

class ReceiveTest : public NetThreadTest {
 protected:
  ccm_msg_t* deliver(const char* type) {  // as the reader or a channel close does
    ccm_msg_t* m = ccm_msg_alloc(ccm_, &err_);
    std::memset(m->msg_start, 0, 16);
    std::strcpy(reinterpret_cast<char*>(m->msg_start), type);
    m->len = 16;
    send_IPC_internal(ccm_, m);
    return m;
  }
};

// Queued messages come out oldest first without waiting; their left-over wake-up bytes end
// the next wait at once without a message; an empty queue waits for the time-out.
TEST_F(ReceiveTest, QueuedMessagesAndTimeOuts) {
  ccm_msg_t* first = deliver("FIRST");
  ccm_msg_t* second = deliver("SECOND");
  for (ccm_msg_t* want : {first, second}) {
    ccm_msg_t* got = nullptr;
    EXPECT_EQ(ccm_receive_message(ccm_, 5, &got, &err_), 1);
    EXPECT_EQ(got, want);
    EXPECT_EQ(got->type, CCM_MSG_IPC);
    ccm_msg_free(ccm_, got);
  }
  ccm_msg_t* got = reinterpret_cast<ccm_msg_t*>(1);
  auto t0 = Clock::now();
  EXPECT_EQ(ccm_receive_message(ccm_, 5, &got, &err_), 0);  // takes both bytes at once
  EXPECT_EQ(got, nullptr);
  EXPECT_EQ(ccm_receive_message(ccm_, 0, &got, &err_), 0);
  EXPECT_LT(seconds_since(t0), 1.0);
  t0 = Clock::now();
  EXPECT_EQ(ccm_receive_message(ccm_, 1, &got, &err_), 0);
  EXPECT_GE(seconds_since(t0), 0.9);
  ccm_close_wakeup_pipes(ccm_);
  EXPECT_EQ(ccm_receive_message(ccm_, 1, &got, &err_), -1);
  EXPECT_EQ(std::string(err_.msginsert).rfind("select(processor_wakeup(-1))|", 0), 0u);
}

void on_signal(int) {}

// A message from another thread ends the wait with it; a signal ends it without an error.
TEST_F(ReceiveTest, AnotherThreadOrASignalEndsTheWait) {
  struct sigaction sa {
  }, old{};
  sa.sa_handler = on_signal;  // no SA_RESTART: select returns EINTR
  sigaction(SIGUSR2, &sa, &old);
  const pthread_t self = pthread_self();
  for (bool by_signal : {false, true}) {
    ccm_msg_t* sent = nullptr;
    std::thread other([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      if (by_signal)
        pthread_kill(self, SIGUSR2);
      else
        sent = deliver("CHANNEL_CLOSE");
    });
    const auto t0 = Clock::now();
    ccm_msg_t* got = nullptr;
    EXPECT_EQ(ccm_receive_message(ccm_, 10, &got, &err_), by_signal ? 0 : 1);
    other.join();
    EXPECT_LT(seconds_since(t0), 5.0);
    EXPECT_EQ(got, sent);
    if (got) ccm_msg_free(ccm_, got);
  }
  sigaction(SIGUSR2, &old, nullptr);
}

// Log entries come from both threads.
std::mutex log_mutex;
std::vector<std::pair<int, std::string>> logged;
int record_log(int msgnr, const char* insert) {
  std::lock_guard<std::mutex> lock(log_mutex);
  logged.emplace_back(msgnr, insert);
  return 0;
}

class IpcDispatchTest : public CcmTest {
 protected:
  void SetUp() override {
    CcmTest::SetUp();
    app_.ccm = ccm_;
    logged.clear();
    __log_set_logger(record_log);
  }
  void TearDown() override {
    __log_set_logger(nullptr);
    ccm_msg_t* probe = ccm_msg_alloc(ccm_, &err_);  // an empty message only sets the context
    process_IPC_message(nullptr, ccm_, probe);      // forget this test's application context
    ccm_msg_free(ccm_, probe);
    CcmTest::TearDown();
  }
  // An internal message as received: type field of 16 bytes as given, `len` bytes in all.
  ccm_msg_t* received(const char (&type)[17], int len = 40) {
    ccm_msg_t* m = ccm_msg_alloc(ccm_, &err_);
    std::memset(m->msg_start, 0, len);
    std::memcpy(m->msg_start, type, 16);
    m->len = len;
    m->type = CCM_MSG_IPC;
    std::strcpy(m->addr.src_name, "PARTNER");
    return m;
  }
};

TEST_F(IpcDispatchTest, TypesAreMatchedOverAllSixteenBytes) {
  const struct {
    char type[17];
    int len, rslt;
  } cases[] = {
      {"CHANNEL_CLOSE\0\0\0", 40, 0},
      {"CHANNEL_CLOSE\0X\0", 40, -1},   // a byte after the terminator
      {"CHANNEL_CLOSE\0\0\0", 14, -1},  // too short to hold the type field
      {"CHANNEL_ACCEPT\0\0", 20, -1},   // known to the system, handled by nobody
      {"\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 40, -1},
  };
  for (const auto& k : cases) {
    logged.clear();
    ccm_msg_t* m = received(k.type, k.len);
    EXPECT_EQ(process_IPC_message(&app_, ccm_, m), k.rslt) << k.type;
    ccm_msg_free(ccm_, m);
    if (k.rslt == 0) {
      EXPECT_TRUE(logged.empty());
      continue;
    }
    ASSERT_EQ(logged.size(), 2u);
    EXPECT_EQ(logged[0],
              std::make_pair(-1, "IPC message (" + std::string(k.type) + ") is not known"));
    EXPECT_EQ(logged[1], std::make_pair(CCM_MSGNR_IPC_SOURCE, std::string("PARTNER|")));
  }
  ccm_msg_t* m = received("ROUTENAT\0\0\0\0\0\0\0\0");
  EXPECT_EQ(process_ipc_not_implemented(&app_, m), -1);
  EXPECT_EQ(logged[logged.size() - 2].second, "IPC message (ROUTENAT) is not implemented");
  ccm_msg_free(ccm_, m);
}

// ipc_logger sends only once a dispatched message has given it the application context, and
// not when no message can be had; its record has a fixed size and a cut insert.
TEST_F(IpcDispatchTest, LoggerSendsOnlyWithARememberedContext) {
  EXPECT_EQ(ipc_logger(42, "before"), -1);
  ccm_msg_t* close_notice = received("CHANNEL_CLOSE\0\0\0");
  process_IPC_message(&app_, ccm_, close_notice);
  ccm_msg_free(ccm_, close_notice);
  while (ccm_msg_t* m = ccm_queue_pop(ccm_->msg_freeq))  // empty the pool
    ccm_free(m);
  ccm_->nof_freemsg = 0;
  {
    FailAllocations fail("CCMMSG");
    EXPECT_EQ(ipc_logger(42, "no memory"), -1);
  }
  EXPECT_EQ(ccm_->sendq.head, nullptr);
  const std::string long_text(1500, 'L');
  EXPECT_EQ(ipc_logger(2000102, long_text.c_str()), 0);
  ASSERT_EQ(members(ccm_->sendq).size(), 1u);
  ccm_msg_t* m = ccm_queue_pop(ccm_->sendq);
  EXPECT_STREQ(m->addr.dst_addr, IPC_AGENT_DESTINATION);
  ASSERT_EQ(m->len, kProtocolHeaderSize + 1044);
  EXPECT_EQ(text(m).substr(kProtoProtocolOffset, 3), "IPC");
  const std::string rec = text(m).substr(kProtocolHeaderSize);
  int msgnr = 0;
  std::memcpy(&msgnr, rec.data() + 16, sizeof msgnr);
  EXPECT_EQ(std::string(rec.c_str()) + "/" + std::to_string(msgnr), "LOGGING/2000102");
  EXPECT_EQ(std::string(rec.c_str() + 20), long_text.substr(0, 1023));
  ccm_msg_free(ccm_, m);
}

// A pipe's descriptor crosses a socket pair in a "PASSFD" message and works in the receiver.
TEST_F(IpcDispatchTest, PassedDescriptorArrivesWithItsControlData) {
  start_thread();
  ccm_channel_t* from = nullptr;
  ccm_channel_t* to = nullptr;
  ASSERT_EQ(ccm_channel_create_pair(ccm_, &from, &to, &err_), 0);
  const int to_id = to->ID;
  const std::string from_name = from->name;
  int pipefd[2];
  ASSERT_EQ(pipe(pipefd), 0);
  ASSERT_EQ(send_file_descriptor(ccm_, from_name.c_str(), pipefd[1], 5, 6, "JOBOUTPUT"), 0);
  ccm_msg_t* m = next_message();
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->type, CCM_MSG_IPC);
  EXPECT_EQ(m->addr.src_ID, to_id);
  ASSERT_EQ(m->len, 156);
  const auto* rec = reinterpret_cast<const ipcmsg_passfd_t*>(m->msg_start);
  EXPECT_STREQ(rec->head.msgtype, "PASSFD");
  EXPECT_EQ(rec->fd, pipefd[1]);
  EXPECT_EQ(rec->agentID, 6);
  EXPECT_EQ(rec->listenerID, 5);
  EXPECT_STREQ(rec->name, "JOBOUTPUT");
  msghdr mh{};
  alignas(cmsghdr) unsigned char control[256];
  std::memcpy(control, m->control_data, m->control_len);
  mh.msg_control = control;
  mh.msg_controllen = m->control_len;
  cmsghdr* c = CMSG_FIRSTHDR(&mh);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->cmsg_level, SOL_SOCKET);
  EXPECT_EQ(c->cmsg_type, SCM_RIGHTS);
  int passed = -1;
  std::memcpy(&passed, CMSG_DATA(c), sizeof passed);
  ccm_msg_free(ccm_, m);
  ASSERT_GE(passed, 0);
  EXPECT_NE(passed, pipefd[1]);
  ASSERT_EQ(write(passed, "ping", 4), 4);
  char got[4];
  ASSERT_EQ(read(pipefd[0], got, 4), 4);
  EXPECT_EQ(std::string(got, 4), "ping");
  for (int fd : {passed, pipefd[0], pipefd[1]})
    close(fd);
}

int open_descriptors() {
  int n = 0;
  DIR* d = opendir("/proc/self/fd");
  while (readdir(d) != nullptr)
    n++;
  closedir(d);
  return n;
}

int local_port(int s) {
  sockaddr_in6 a{};
  socklen_t len = sizeof a;
  getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
  return ntohs(a.sin6_port);  // sin_port stands at the same offset
}

int connect_client(int port) {
  const int c = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(connect(c, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  return c;
}

class ListenTest : public CcmTest {
 protected:
  int listener_port() {  // the port of the listening channel
    ccm_channel_t* l = ccm_channel_getbyName(ccm_, "*LISTEN");
    EXPECT_NE(l, nullptr);
    if (l == nullptr) return -1;
    const int fd = l->s;
    ccm_channel_unlock(ccm_);
    return local_port(fd);
  }
  // The channel ID of an accept notice, or -1 for any other message (which is freed).
  int accepted_id(ccm_msg_t* m) {
    int id = -1;
    if (m != nullptr && m->type == CCM_MSG_IPC && m->len == 20 &&
        std::strcmp(reinterpret_cast<char*>(m->msg_start), "CHANNEL_ACCEPT") == 0) {
      std::memcpy(&id, m->msg_start + 16, sizeof id);
    }
    if (m != nullptr) ccm_msg_free(ccm_, m);
    return id;
  }
  int port_of_channel(int id) {
    ccm_channel_t* ch = ccm_channel_getbyID(ccm_, id);
    if (ch == nullptr) return -1;
    const int port = ch->port;
    ccm_channel_unlock(ccm_);
    return port;
  }
};

TEST_F(ListenTest, FailuresLeaveNoSocketOpen) {
  ASSERT_EQ(ccm_create_listen(ccm_, "127.0.0.1", 0, 5, &err_), 0);
  const int port = listener_port();
  const int before = open_descriptors();
  EXPECT_EQ(ccm_create_listen(ccm_, "127.0.0.1", port, 5, &err_), -1);
  EXPECT_EQ(err_.msgnr, CCM_MSGNR_SYSCALL);
  EXPECT_EQ(std::string(err_.msginsert).rfind("bind(127.0.0.1:" + std::to_string(port) + ")|", 0),
            0u)
      << err_.msginsert;
  EXPECT_EQ(ccm_create_listen(ccm_, "no-such-host.invalid", 0, 5, &err_), -1);
  EXPECT_EQ(ccm_create_listen(ccm_, "127.0.0.1", 65536, 5, &err_), -1);  // not port 0
  {
    FailAllocations fail("CREATE_CHANNEL");
    EXPECT_EQ(ccm_create_listen(ccm_, "127.0.0.1", 0, 5, &err_), -1);
  }
  EXPECT_EQ(open_descriptors(), before);
}

// Without a message for the notice the accepted connection is closed again.
TEST_F(ListenTest, AcceptWithoutANoticeClosesTheConnection) {
  ASSERT_EQ(ccm_create_listen(ccm_, "127.0.0.1", 0, 5, &err_), 0);
  const int client = connect_client(listener_port());
  merge_newq();
  ccm_channel_t* listener = ccm_->channelq.head;
  {
    FailAllocations fail("CCMMSG");
    EXPECT_EQ(ccm_signal_on_listen(ccm_, listener, &err_), -1);
  }
  EXPECT_EQ(err_.msgnr, CCM_MSGNR_ALLOC);
  EXPECT_EQ(ccm_->channel_newq.head, nullptr);
  EXPECT_TRUE(drain_recvq().empty());
  char byte;
  EXPECT_LE(read(client, &byte, 1), 0);
  close(client);
  EXPECT_FALSE(listener->flag & CCM_CHFLAG_DELETED);
}

// A wildcard listener accepts IPv4 clients; each connection yields one "CHANNEL_ACCEPT" with
// the new channel's ID, whose channel has the peer's port.
TEST_F(ListenTest, EachConnectionIsAnnouncedOnceWithItsChannelAndPort) {
  start_thread();
  ASSERT_EQ(ccm_create_listen(ccm_, "", 0, 5, &err_), 0);
  const int port = listener_port();
  ccm_wakeup_network(ccm_);
  std::set<int> client_ports, ids, announced_ports;
  int clients[3];
  for (int& c : clients) {
    c = connect_client(port);
    client_ports.insert(local_port(c));
  }
  for (int i = 0; i < 3; ++i) {
    const int id = accepted_id(next_message());
    ASSERT_GT(id, 0);
    ids.insert(id);
    announced_ports.insert(port_of_channel(id));
  }
  EXPECT_EQ(ids.size(), 3u);
  EXPECT_EQ(announced_ports, client_ports);
  ccm_msg_t* extra = nullptr;
  EXPECT_EQ(ccm_receive_message(ccm_, 1, &extra, &err_), 0);
  EXPECT_EQ(extra, nullptr);
  for (int c : clients)
    close(c);
}

// A partner that stops reading (its window closes with a large message unsent) and then sends
// garbage or half-closes loses its channel at once, and closing it does not hold the network
// thread: the stop and join that follow take far less than a lingering close would.
TEST_F(ListenTest, ClosingAChannelStuckOnAZeroWindowNeverWaits) {
  start_thread();
  ASSERT_EQ(ccm_create_listen(ccm_, "127.0.0.1", 0, 5, &err_), 0);
  const int port = listener_port();
  ccm_wakeup_network(ccm_);
  std::vector<int> clients;
  for (const bool garbage : {true, false}) {
    const int c = socket(AF_INET, SOCK_STREAM, 0);
    const int tiny = 1;
    setsockopt(c, SOL_SOCKET, SO_RCVBUF, &tiny, sizeof tiny);
    sockaddr_in a{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    ASSERT_EQ(connect(c, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    clients.push_back(c);
    const int id = accepted_id(next_message());
    ASSERT_GT(id, 0);
    ccm_msg_t* big = ccm_msg_alloc_huge(ccm_, 1 << 20, &err_);
    big->len = 1 << 20;
    ccm_setaddr(big, id, 0, "", "", 0);
    ccm_send_message_common(ccm_, big, "test");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the window closes
    if (garbage) {
      ASSERT_EQ(write(c, "GET / HTTP/1.0\r\n\r\n", 18), 18);
    } else {
      shutdown(c, SHUT_WR);
    }
    ccm_msg_t* closed = next_message();
    ASSERT_NE(closed, nullptr);
    EXPECT_STREQ(reinterpret_cast<char*>(closed->msg_start), "CHANNEL_CLOSE");
    ccm_msg_free(ccm_, closed);
  }
  const auto t0 = std::chrono::steady_clock::now();
  ccm_thread_stop(ccm_);
  ccm_thread_join(ccm_);
  running_ = false;
  EXPECT_LT(seconds_since(t0), 5.0);
  for (int c : clients)
    close(c);
}

// Frames that claim the internal notices, or any internal message, come only from a trusted
// local partner: over TCP each one ends the sender's channel with an error and reaches nobody;
// the listener and the other connection stay as they were.
TEST_F(ListenTest, ForgedInternalFramesDropTheSenderAndChangeNothing) {
  start_thread();
  ASSERT_EQ(ccm_create_listen(ccm_, "127.0.0.1", 0, 5, &err_), 0);
  const int port = listener_port();
  ccm_wakeup_network(ccm_);
  const int honest = connect_client(port);
  const int honest_id = accepted_id(next_message());
  ASSERT_GT(honest_id, 0);
  const auto notice = [](const char* type, int id) {
    std::string rec(16, '\0');
    rec.replace(0, std::strlen(type), type);
    return frame(rec + std::string(reinterpret_cast<const char*>(&id), 4), "IPC");
  };
  const std::string forged[] = {
      notice("CHANNEL_ACCEPT", honest_id), notice("CHANNEL_CLOSE", 1),  // the listener
      notice("CHANNEL_CLOSE", honest_id),  notice("ROUTENAT", honest_id), ipc_frame(300, 3),
  };
  for (const std::string& f : forged) {
    SCOPED_TRACE(testing::PrintToString(f.substr(48, 16)));
    const int attacker = connect_client(port);
    const int id = accepted_id(next_message());
    ASSERT_GT(id, 0);
    ASSERT_EQ(write(attacker, f.data(), f.size()), static_cast<ssize_t>(f.size()));
    ccm_msg_t* m = next_message();  // the attacker's channel closed, nothing else
    ASSERT_NE(m, nullptr);
    ipcmsg_channel_close_t closed;
    ASSERT_EQ(m->len, static_cast<int>(sizeof closed));
    std::memcpy(static_cast<void*>(&closed), m->msg_start, sizeof closed);
    ccm_msg_free(ccm_, m);
    EXPECT_STREQ(closed.head.msgtype, "CHANNEL_CLOSE");
    EXPECT_EQ(closed.ccmch.ID, id);
    EXPECT_EQ(closed.ccmch.msgnr, CCM_MSGNR_RECEIVE_ERROR);
    char byte;
    EXPECT_EQ(read(attacker, &byte, 1), 0);
    close(attacker);
    EXPECT_EQ(port_of_channel(honest_id), local_port(honest));
    EXPECT_GT(port_of_channel(1), -1);  // the listener
  }
  ccm_msg_t* extra = nullptr;
  EXPECT_EQ(ccm_receive_message(ccm_, 0, &extra, &err_), 0);
  EXPECT_EQ(extra, nullptr);
  close(honest);
}

// One context listens and connects to itself: the accepted side greets with a native message,
// the connecting side answers with a NAT message; both arrive byte for byte.
TEST_F(ListenTest, GreetingAndNatAnswerThroughOneContext) {
  start_thread();
  ASSERT_EQ(ccm_create_listen(ccm_, "127.0.0.1", 0, 5, &err_), 0);
  ccm_wakeup_network(ccm_);
  const int out_id =
      ccm_connect(ccm_, "127.0.0.1", listener_port(), CCM_CHTYPE_MESSENGER, nullptr, 10, &err_);
  ASSERT_GT(out_id, 0) << err_.msginsert;
  const int in_id = accepted_id(next_message());
  ASSERT_GT(in_id, 0);

  char greeting[] = "HELLO FROM THE AGENT";
  ccm_msg_t* g = ccm_msg_alloc(ccm_, &err_);
  ccm_msg_write_native_data(g, 4, greeting, sizeof greeting - 1);
  ccm_setaddr(g, in_id, 0, "", "", 0);
  ASSERT_EQ(send_native_message(ccm_, g), 0);
  ccm_msg_t* got = next_message();
  ASSERT_NE(got, nullptr);
  EXPECT_EQ(got->type, CCM_MSG_NATIVE);
  EXPECT_EQ(got->protocol_key, 4);
  EXPECT_EQ(got->addr.src_ID, out_id);
  EXPECT_EQ(text(got), greeting);
  ccm_msg_free(ccm_, got);

  const std::string payload = ipc_frame(3048, 13).substr(48);
  ccm_msg_t* n = ccm_msg_alloc(ccm_, &err_);
  std::memcpy(n->msg_start, payload.data(), payload.size());
  n->len = static_cast<int>(payload.size());
  ccm_setaddr(n, out_id, 0, "JPAKTJ_R", "MELD", 0x01020304);
  ccm_setback(n, "JOB", "JPMD", 7);
  ASSERT_EQ(send_NAT_message(ccm_, n), 0);
  got = next_message();
  ASSERT_NE(got, nullptr);
  EXPECT_EQ(got->type, CCM_MSG_NAT);
  // The receiver sees the destination name and value and the source block, names padded.
  EXPECT_EQ(addr_text(got->addr),
            "0,,MELD,0x1020304<" + std::to_string(in_id) + ",JOB,JPMD    ,0x7");
  EXPECT_EQ(text(got), payload);
  ccm_msg_free(ccm_, got);
}

// One context of several in a process: its own network thread, a listener, and a client
// connected to that listener. Each side greets the other `rounds` times with native frames.
// Returns what went wrong, or "" when every frame came back whole and in order.
std::string exchange_in_own_context(int mode, bool gss, int rounds) {
  ccm_app_context_head app{};
  app.running_mode = mode;
  ccm_context_t* ccm = nullptr;
  ccm_error_t err{};
  if (ccm_session_open(&app, &ccm, &err) != 0) return err.msginsert;
  if (gss) ccm_set_gss_classifier(ccm, [](ccm_context_t*, ccm_msg_t*) { return 1; });
  std::string fault;
  auto next = [&] {
    ccm_msg_t* m = nullptr;
    for (int i = 0; i < 50 && m == nullptr; i++)
      ccm_receive_message_ms(ccm, 100, &m, &err);
    return m;
  };
  int out_id = -1, in_id = -1;
  if (ccm_create_listen(ccm, "127.0.0.1", 0, 5, &err) == 0) {
    ccm_channel_t* l = ccm_channel_getbyName(ccm, "*LISTEN");
    const int port = l != nullptr ? local_port(l->s) : 0;
    if (l != nullptr) ccm_channel_unlock(ccm);
    out_id = ccm_connect(ccm, "127.0.0.1", port, CCM_CHTYPE_MESSENGER, nullptr, 10, &err);
    if (ccm_msg_t* m = next(); m != nullptr) {
      if (std::strcmp(reinterpret_cast<char*>(m->msg_start), "CHANNEL_ACCEPT") == 0)
        std::memcpy(&in_id, m->msg_start + 16, sizeof in_id);
      ccm_msg_free(ccm, m);
    }
  }
  if (out_id <= 0 || in_id <= 0) fault = "no connection: " + std::string(err.msginsert);
  for (int r = 0; r < rounds && fault.empty(); r++) {
    const int to = r % 2 == 0 ? in_id : out_id;
    std::string word = "mode " + std::to_string(mode) + " round " + std::to_string(r);
    ccm_msg_t* g = ccm_msg_alloc(ccm, &err);
    ccm_msg_write_native_data(g, 4, word.data(), static_cast<int>(word.size()));
    ccm_setaddr(g, to, 0, "", "", 0);
    send_native_message(ccm, g);
    ccm_msg_t* got = next();
    const int want_type = gss ? CCM_MSG_GSS : CCM_MSG_NATIVE;
    if (got == nullptr || got->type != want_type ||
        got->addr.src_ID != (to == in_id ? out_id : in_id) || (!gss && text(got) != word)) {
      fault = "round " + std::to_string(r) + " lost or mixed up";
    }
    if (got != nullptr) ccm_msg_free(ccm, got);
  }
  ccm_session_close(ccm, &err);
  return fault;
}

// Any number of contexts run side by side in one process, each with its own network thread,
// descriptor sets, application context and GSS classifier: traffic of one never reaches or
// disturbs the other (and, under ThreadSanitizer, no state is shared between them).
TEST(Contexts, TwoContextsWithListenerAndClientRunSideBySide) {
  std::string faults[2];
  std::thread other([&] { faults[1] = exchange_in_own_context(1, true, 200); });
  faults[0] = exchange_in_own_context(0, false, 200);
  other.join();
  EXPECT_EQ(faults[0], "");
  EXPECT_EQ(faults[1], "");
}

// A select that keeps failing (here a socket number that is not open) neither spins nor
// goes unnoticed: every failed cycle is logged with its error, and after a few in a row the
// thread ends by itself, without a stop.
TEST_F(NetThreadTest, PersistentSelectFailureEndsTheThreadWithItsErrorLogged) {
  logged.clear();
  __log_set_logger(record_log);
  ccm_channel_t* bogus = entered_channel();
  bogus->s = dup(0);  // a number in the descriptor table that is closed again at once
  close(bogus->s);
  start_thread();
  const bool ended = joined();
  __log_set_logger(nullptr);
  ASSERT_TRUE(ended);
  EXPECT_EQ(__atomic_load_n(&ccm_->loop, __ATOMIC_ACQUIRE), 1);  // nobody asked it to stop
  int select_errors = 0, ends = 0;
  for (const auto& [msgnr, insert] : logged) {
    select_errors += msgnr == CCM_MSGNR_SYSCALL && insert.rfind("select(", 0) == 0;
    ends += msgnr == CCM_MSGNR_THREAD;
  }
  EXPECT_EQ(select_errors, CCM_SELECT_FAILURES_MAX);
  EXPECT_EQ(ends, 1);
  bogus->s = -1;
}

}  // namespace
}  // namespace ccm_test
