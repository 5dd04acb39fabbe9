// Channel reading and writing over real socket pairs.
#include "ccm/io.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ccm/wire.h"
#include "common/protocol_header.h"
#include "support/ccm.h"

namespace {

using ccm_test::CcmTest;
using ccm_test::FailAllocations;
using ccm_test::ipc_frame;

int fcntl_nonblock(int fd) {
  return fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK) == -1 ? -1 : 0;
}

std::string body_of(const std::string& frame) {
  return frame.substr(kProtocolHeaderSize);
}

class IoTest : public CcmTest {
 protected:
  void SetUp() override {
    CcmTest::SetUp();
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv_), 0);
    ch_ = entered_channel(CCM_CHTYPE_NONE);
    ch_->s = sv_[0];  // closed with the channel
    merge_newq();
  }
  void TearDown() override {
    if (sv_[1] >= 0) close(sv_[1]);
    CcmTest::TearDown();
  }

  void put(const std::string& bytes) {
    ASSERT_EQ(write(sv_[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }

  // Reads until the socket has nothing more, as the select loop would.
  int read_all() {
    int rslt = 0;
    while (rslt == 0 && readable())
      rslt = ccm_read_channel(ccm_, ch_, &err_);
    return rslt;
  }

  bool readable() {
    int n = 0;
    return recv(sv_[0], &n, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
  }

  // The bodies of the queued messages, oldest first; each message is freed.
  std::vector<std::string> take_bodies(std::vector<int>* sizes = nullptr) {
    std::vector<std::string> bodies;
    for (;;) {
      ccm_msg_t* m = nullptr;
      {
        ccm_spin_guard guard(ccm_->queue_lock);
        m = ccm_queue_pop(ccm_->recvq);
      }
      if (m == nullptr) break;
      EXPECT_EQ(m->type, CCM_MSG_IPC);
      EXPECT_EQ(m->addr.src_ID, ch_->ID);
      bodies.emplace_back(reinterpret_cast<const char*>(m->msg_start), m->len);
      if (sizes != nullptr) sizes->push_back(m->size);
      ccm_msg_free(ccm_, m);
    }
    return bodies;
  }

  bool deleted() const { return (ch_->flag & CCM_CHFLAG_DELETED) != 0; }

  int sv_[2] = {-1, -1};
  ccm_channel_t* ch_ = nullptr;
  ccm_error_t err_{};
};

TEST_F(IoTest, TwoFramesAndHalfAThirdInOneRead) {
  const std::string a = ipc_frame(100, 1), b = ipc_frame(48, 2), c = ipc_frame(300, 3);
  put(a + b + c.substr(0, 150));
  EXPECT_EQ(ccm_read_channel(ccm_, ch_, &err_), 0);
  EXPECT_EQ(take_bodies(), (std::vector<std::string>{body_of(a), body_of(b)}));
  ASSERT_EQ(ch_->recv_pos, 150);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(ch_->recv_buffer), 150), c.substr(0, 150));

  put(c.substr(150));
  EXPECT_EQ(ccm_read_channel(ccm_, ch_, &err_), 0);
  EXPECT_EQ(take_bodies(), std::vector<std::string>{body_of(c)});
  EXPECT_EQ(ch_->recv_pos, 0);
}

TEST_F(IoTest, FrameArrivingOneByteAtATime) {
  const std::string f = ipc_frame(60, 4);
  for (size_t i = 0; i < f.size(); ++i) {
    put(f.substr(i, 1));
    ASSERT_EQ(ccm_read_channel(ccm_, ch_, &err_), 0) << "byte " << i;
    if (i + 1 < f.size()) {
      ASSERT_TRUE(take_bodies().empty()) << "byte " << i;
    }
  }
  EXPECT_EQ(take_bodies(), std::vector<std::string>{body_of(f)});
  EXPECT_FALSE(deleted());
}

// Counts the receive buffers allocated.
int buffers_made = 0;
void* count_buffers(size_t size, const char* tag) {
  if (std::strcmp(tag, "RECVBUFF") == 0) buffers_made++;
  return ccm_alloc_default(size, tag);
}

// Large frames: the buffer grows in multiples of 8192 bytes, at once to the frame's size when
// its length is known, and the frame goes into a pool message up to 32768 bytes (20,000
// included), into a message of its own size above. The buffer never shrinks.
TEST_F(IoTest, LargeFramesGrowTheBufferAndChooseTheirMessage) {
  struct Case {
    int total;
    int buffer_size;
    int message_size;
    int buffers;
  };
  ccm_alloc = count_buffers;
  for (const Case& k :
       {Case{20000, 24576, CCM_MSG_POOL_SIZE, 2}, Case{32768, 32768, CCM_MSG_POOL_SIZE, 1},
        Case{32769, 40960, 32769, 1}, Case{70000, 73728, 70000, 1}}) {
    SCOPED_TRACE(k.total);
    buffers_made = 0;
    const std::string f = ipc_frame(k.total, 5);
    put(f);
    EXPECT_EQ(read_all(), 0);
    std::vector<int> sizes;
    EXPECT_EQ(take_bodies(&sizes), std::vector<std::string>{body_of(f)});
    EXPECT_EQ(sizes, std::vector<int>{k.message_size});
    EXPECT_EQ(ch_->recv_size, k.buffer_size);
    EXPECT_EQ(ch_->recv_pos, 0);
    EXPECT_EQ(buffers_made, k.buffers);
  }
  ccm_alloc = ccm_alloc_default;
}

TEST_F(IoTest, InvalidLengthIsRejectedAtOnce) {
  for (const char* length : {"0000004x", "00000047", "16777217", "-0000100", "99999999"}) {
    SCOPED_TRACE(length);
    ccm_channel_t* ch = entered_channel(CCM_CHTYPE_NONE);
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    ch->s = sv[0];
    std::string f = ipc_frame(100, 6);
    f.replace(0, 8, length);
    f.resize(8192 + 100, 'x');  // more than the first buffer holds
    ASSERT_EQ(write(sv[1], f.data(), f.size()), static_cast<ssize_t>(f.size()));
    ccm_error_t err{};
    EXPECT_EQ(ccm_read_channel(ccm_, ch, &err), -1);
    EXPECT_TRUE(ch->flag & CCM_CHFLAG_DELETED);
    EXPECT_EQ(ch->msgnr, CCM_MSGNR_RECEIVE_ERROR);
    EXPECT_EQ(ch->recv_size, CCM_RECV_GROW_STEP);
    close(sv[1]);
  }
  EXPECT_TRUE(take_bodies().empty());
}

TEST_F(IoTest, PartnerCloseDeletesTheChannelWithoutError) {
  close(sv_[1]);
  sv_[1] = -1;
  EXPECT_EQ(ccm_read_channel(ccm_, ch_, &err_), -1);
  EXPECT_TRUE(deleted());
  EXPECT_EQ(ch_->msgnr, 0);
  EXPECT_TRUE(ccm_->flag & CCM_FLAG_CHANNEL_DELETED);
}

// Fails the n-th message allocation from now on (1 = the next).
int allocations_left = 0;
void* fail_nth_message(size_t size, const char* tag) {
  if (std::strcmp(tag, "CCMMSG") == 0 && --allocations_left == 0) return nullptr;
  return ccm_alloc_default(size, tag);
}

TEST_F(IoTest, FailedMessageAllocationNeverQueuesAFrameTwice) {
  const std::string a = ipc_frame(70, 7), b = ipc_frame(80, 8), c = ipc_frame(90, 9);
  put(a + b);
  allocations_left = 2;
  ccm_alloc = fail_nth_message;
  EXPECT_EQ(ccm_read_channel(ccm_, ch_, &err_), -1);
  ccm_alloc = ccm_alloc_default;
  EXPECT_EQ(err_.msgnr, CCM_MSGNR_ALLOC);
  EXPECT_FALSE(deleted());
  EXPECT_EQ(ch_->recv_pos, static_cast<int>(b.size()));

  put(c);
  EXPECT_EQ(ccm_read_channel(ccm_, ch_, &err_), 0);
  EXPECT_EQ(take_bodies(), (std::vector<std::string>{body_of(a), body_of(b), body_of(c)}));
}

TEST_F(IoTest, FailedBufferGrowthKeepsTheChannelAndItsBytes) {
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
  EXPECT_EQ(ch_->recv_size, 8192);
  EXPECT_EQ(ch_->recv_pos, 8192);
  EXPECT_EQ(read_all(), 0);
  EXPECT_EQ(take_bodies(), std::vector<std::string>{body_of(f)});
}

class WriteTest : public IoTest {
 protected:
  // Queues `len` bytes on the channel as the dispatcher would.
  ccm_msg_t* queue(int len, int seed) {
    ccm_msg_t* m = len <= CCM_MSG_POOL_SIZE ? ccm_msg_alloc(ccm_, &err_)
                                            : ccm_msg_alloc_huge(ccm_, len, &err_);
    for (int i = 0; i < len; ++i)
      m->msg_start[i] = static_cast<unsigned char>(seed + i * 7);
    m->len = len;
    ccm_spin_guard g1(ccm_->queue_lock);
    ccm_queue_unlink(ccm_->msgq_inuse, m);
    ccm_spin_guard g2(ch_->queue_lock);
    ccm_queue_append(ch_->sendq, m);
    return m;
  }

  std::string drain() {
    std::string got;
    char buf[65536];
    ssize_t n;
    while ((n = recv(sv_[1], buf, sizeof buf, MSG_DONTWAIT)) > 0)
      got.append(buf, n);
    return got;
  }

  static std::string bytes_of(int len, int seed) {
    std::string s;
    for (int i = 0; i < len; ++i)
      s.push_back(static_cast<char>(seed + i * 7));
    return s;
  }
};

TEST_F(WriteTest, LargeMessageResumesAfterPartialWrite) {
  int small = 4096;
  ASSERT_EQ(setsockopt(sv_[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
  ASSERT_EQ(fcntl_nonblock(sv_[0]), 0);
  ccm_msg_t* big = queue(70000, 1);
  queue(100, 2);

  EXPECT_EQ(ccm_write_channel(ccm_, ch_, &err_), 0);
  ASSERT_EQ(ch_->sendq.head, big);
  const int first = big->pos;
  EXPECT_GT(first, 0);
  EXPECT_LT(first, 70000);
  // Nothing drained: the socket takes nothing more and the message keeps its progress.
  EXPECT_EQ(ccm_write_channel(ccm_, ch_, &err_), 0);
  EXPECT_EQ(big->pos, first);

  std::string got;
  for (int round = 0; round < 1000 && ch_->sendq.head != nullptr; ++round) {
    got += drain();
    ASSERT_EQ(ccm_write_channel(ccm_, ch_, &err_), 0);
  }
  got += drain();
  EXPECT_EQ(ch_->sendq.head, nullptr);
  EXPECT_EQ(got, bytes_of(70000, 1) + bytes_of(100, 2));
  EXPECT_FALSE(deleted());
}

TEST_F(WriteTest, WriteToAClosedPartnerDeletesTheChannelWithoutSignal) {
  close(sv_[1]);
  sv_[1] = -1;
  queue(200, 3);
  EXPECT_EQ(ccm_write_channel(ccm_, ch_, &err_), -1);
  EXPECT_TRUE(deleted());
  EXPECT_EQ(ch_->msgnr, CCM_MSGNR_SEND_ERROR);
  EXPECT_NE(std::string(ch_->msginsert).find(ch_->name), std::string::npos);
}

}  // namespace
