#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "support/ccm.h"

namespace ccm_test {
namespace {

using ContextTest = CcmTest;

TEST_F(ContextTest, OpenStartsCountersAtOneWithPipesClosed) {
  EXPECT_EQ(std::memcmp(ccm_->eyec, "##CCM_CONEXT####", 16), 0);
  EXPECT_EQ(GlbPcx, &app_);
  EXPECT_EQ(ccm_->unique_channel_ID, 1);
  EXPECT_EQ(ccm_->unique_msg_ID, 1);
  for (int fd : {ccm_->network_wakeup[0], ccm_->network_wakeup[1], ccm_->processor_wakeup[0],
                 ccm_->processor_wakeup[1]}) {
    EXPECT_EQ(fd, -1);
  }
  ccm_error_t err{};
  bool ipv6 = ccm_check_ipv6_support(&err) == 0;
  EXPECT_EQ((ccm_->flag & CCM_FLAG_IPV6) != 0, ipv6);
  EXPECT_EQ(ccm_->flag & ~CCM_FLAG_IPV6, 0);
}

TEST(ContextOpen, AllocationFailureFillsErrorAndStoresNothing) {
  ccm_context_t* sentinel = reinterpret_cast<ccm_context_t*>(0x1);
  ccm_context_t* ccm = sentinel;
  ccm_error_t err{};
  {
    FailAllocations fail("CCM_OPEN");
    EXPECT_EQ(ccm_open(nullptr, &ccm, &err), -1);
  }
  EXPECT_EQ(ccm, sentinel);
  EXPECT_EQ(err.msgnr, 3301);
  EXPECT_EQ(std::strncmp(err.msginsert, "CCM_OPEN/", 9), 0) << err.msginsert;
  EXPECT_NE(std::strstr(err.msginsert, "context.cpp("), nullptr) << err.msginsert;
}

TEST(ContextClose, NullContextIsAccepted) {
  ccm_error_t err{};
  EXPECT_EQ(ccm_close(nullptr, &err), 0);
  EXPECT_EQ(ccm_wakeup_network(nullptr), 0);
  EXPECT_EQ(ccm_wakeup_processor(nullptr), 0);
}

// Messages left in every queue are released by ccm_close (the leak checker proves it).
TEST_F(ContextTest, CloseReleasesMessagesOfEveryQueue) {
  ccm_error_t err{};
  for (ccm_msg_queue_t* q : {&ccm_->sendq, &ccm_->recvq, &ccm_->msgq_2dispatch}) {
    for (int i = 0; i < 3; ++i) {
      ccm_msg_t* m = i == 0 ? ccm_msg_alloc_huge(ccm_, 1000, &err) : ccm_msg_alloc(ccm_, &err);
      ASSERT_NE(m, nullptr);
      ccm_queue_unlink(ccm_->msgq_inuse, m);
      ccm_queue_append(*q, m);
    }
  }
  ASSERT_NE(ccm_msg_alloc(ccm_, &err), nullptr);  // stays in msgq_inuse
  ccm_msg_free(ccm_, ccm_msg_alloc(ccm_, &err));  // stays in the pool
  EXPECT_EQ(ccm_close(ccm_, &err), 0);
  ccm_ = nullptr;
}

std::string pending_bytes(int fd) {
  int flags = fcntl(fd, F_GETFL);
  fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  std::string bytes;
  char buf[16];
  for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;)
    bytes.append(buf, static_cast<size_t>(n));
  fcntl(fd, F_SETFL, flags);
  return bytes;
}

TEST_F(ContextTest, WakeupsWriteOneByteEachAndRecreationStartsEmpty) {
  ccm_error_t err{};
  ASSERT_EQ(ccm_create_wakeup_pipes(ccm_, &err), 0);
  for (int fd : {ccm_->network_wakeup[0], ccm_->network_wakeup[1], ccm_->processor_wakeup[0],
                 ccm_->processor_wakeup[1]}) {
    EXPECT_GE(fd, 0);
  }
  ccm_wakeup_network(ccm_);
  ccm_wakeup_network(ccm_);
  ccm_wakeup_processor(ccm_);
  EXPECT_EQ(pending_bytes(ccm_->network_wakeup[0]), "NN");
  EXPECT_EQ(pending_bytes(ccm_->processor_wakeup[0]), "P");

  ccm_wakeup_network(ccm_);
  ASSERT_EQ(ccm_create_wakeup_pipes(ccm_, &err), 0);
  EXPECT_EQ(pending_bytes(ccm_->network_wakeup[0]), "");

  EXPECT_EQ(ccm_close_wakeup_pipes(ccm_), 0);
  EXPECT_EQ(ccm_->network_wakeup[1], -1);
  EXPECT_EQ(ccm_->processor_wakeup[0], -1);
  EXPECT_EQ(ccm_wakeup_network(ccm_), 0);  // closed pipes are not written
}

}  // namespace
}  // namespace ccm_test
