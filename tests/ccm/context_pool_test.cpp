// The context, the message pool and address resolution.
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "support/ccm.h"

namespace ccm_test {
namespace {

TEST(ContextOpen, AllocationFailureFillsErrorAndStoresNothing) {
  ccm_context_t* const sentinel = reinterpret_cast<ccm_context_t*>(0x1);
  ccm_context_t* ccm = sentinel;
  ccm_error_t err{};
  {
    FailAllocations fail("CCM_OPEN");
    EXPECT_EQ(ccm_open(nullptr, &ccm, &err), -1);
  }
  EXPECT_EQ(ccm, sentinel);
  EXPECT_EQ(err.msgnr, 3301);
  EXPECT_EQ(ccm_close(nullptr, &err), 0);
}

using MessageTest = CcmTest;

// IDs run on across pool and huge messages; the pool keeps at most 64, never a huge one, and
// serves a request of its own size; messages left in any queue go with ccm_close (ASan).
TEST_F(MessageTest, PoolKeepsAtMost64AndNeverHugeMessages) {
  std::vector<ccm_msg_t*> msgs;
  for (int i = 0; i < 70; ++i)
    msgs.push_back(ccm_msg_alloc(ccm_, &err_));
  ccm_msg_t* huge = ccm_msg_alloc_huge(ccm_, 1024, &err_);
  EXPECT_EQ(huge->ID, 71u);
  ccm_msg_free(ccm_, huge);
  EXPECT_EQ(ccm_->nof_freemsg, 0);
  for (ccm_msg_t* m : msgs)
    ccm_msg_free(ccm_, m);
  EXPECT_EQ(ccm_->nof_freemsg, 64);
  EXPECT_EQ(members(ccm_->msg_freeq).size(), 64u);
  EXPECT_EQ(ccm_->msgq_inuse.head, nullptr);
  ccm_msg_t* pooled = ccm_msg_alloc_huge(ccm_, CCM_MSG_POOL_SIZE, &err_);
  EXPECT_EQ(ccm_->nof_freemsg, 63);
  EXPECT_EQ(pooled->ID, 72u);
  EXPECT_EQ(pooled->msg_start, pooled->buffer1 + CCM_MSG_HEADROOM);
  for (ccm_msg_queue_t* q : {&ccm_->sendq, &ccm_->recvq, &ccm_->msgq_2dispatch}) {
    ccm_msg_t* m = ccm_msg_alloc_huge(ccm_, 1000, &err_);
    ccm_queue_unlink(ccm_->msgq_inuse, m);
    ccm_queue_append(*q, m);
  }
  EXPECT_EQ(ccm_close(ccm_, &err_), 0);
  ccm_ = nullptr;
}

// A failed allocation changes no queue and uses no ID, with or without pooled messages.
TEST_F(MessageTest, AllocationFailureChangesNoQueue) {
  ccm_msg_free(ccm_, ccm_msg_alloc(ccm_, &err_));
  FailAllocations fail("CCMMSG");
  for (int size : {1000, CCM_MSG_POOL_SIZE}) {  // the second empties the pool first
    ccm_msg_t* taken = size == CCM_MSG_POOL_SIZE ? ccm_msg_alloc(ccm_, &err_) : nullptr;
    const int pooled_before = ccm_->nof_freemsg, next_id = ccm_->unique_msg_ID;
    EXPECT_EQ(ccm_msg_alloc_huge(ccm_, size, &err_), nullptr);
    EXPECT_EQ(ccm_->unique_msg_ID, next_id);
    EXPECT_EQ(err_.msgnr, 3301);
    EXPECT_EQ(members(ccm_->msgq_inuse).size(), taken ? 1u : 0u);
    EXPECT_EQ(ccm_->nof_freemsg, pooled_before);
    if (taken) ccm_msg_free(ccm_, taken);
  }
}

// Emptying frees the context's receive queues and those of every live channel; the send
// queue and deleted channels are left alone.
TEST_F(MessageTest, EmptyingQueuesFreesContextAndLiveChannelQueues) {
  ccm_channel_t* live = entered_channel();
  ccm_channel_t* gone = entered_channel();
  ccm_channel_t* live2 = entered_channel();
  merge_newq();
  ccm_channel_delete(ccm_, gone);
  live->recv_pos = 17;
  for (ccm_msg_queue_t* q : {&live->sendq, &live->recvq, &gone->sendq, &live2->sendq, &ccm_->recvq,
                             &ccm_->msgq_2dispatch, &ccm_->sendq}) {
    ccm_msg_t* m = ccm_msg_alloc(ccm_, &err_);
    ccm_queue_unlink(ccm_->msgq_inuse, m);
    ccm_queue_append(*q, m);
  }
  ccm_msg_alloc(ccm_, &err_);  // in use
  EXPECT_EQ(ccm_msg_emptying_queues(ccm_), 0);
  for (ccm_msg_queue_t* q : {&ccm_->recvq, &ccm_->msgq_2dispatch, &ccm_->msgq_inuse, &live->sendq,
                             &live->recvq, &live2->sendq})
    EXPECT_EQ(q->head, nullptr);
  EXPECT_EQ(live->recv_pos, 0);
  EXPECT_NE(ccm_->sendq.head, nullptr);
  EXPECT_NE(gone->sendq.head, nullptr);
  EXPECT_EQ(ccm_->nof_freemsg, 6);
}

// One answer is chosen (first) and all are tried in the order: preferred usable, other
// usable, unusable (loopback, link-local); each address once, at most `max`.
TEST(Address, ChoiceAndTheOrderAllAreTriedIn) {
  const std::tuple<std::vector<const char*>, int, int, std::string> cases[] = {
      {{"127.0.0.1", "2001:db8::1", "192.0.2.1", "192.0.2.2"},
       CCM_PREFER_IPV4,
       8,
       "192.0.2.1 192.0.2.2 2001:db8::1 127.0.0.1 "},
      {{"192.0.2.1", "192.0.2.1", "::1"}, CCM_PREFER_IPV6, 8, "192.0.2.1 ::1 "},
      {{"fe80::1", "127.0.0.1"}, CCM_PREFER_IPV4, 8, "fe80::1 127.0.0.1 "},
      {{"2001:db8::1", "192.0.2.1", "192.0.2.2"}, CCM_PREFER_IPV6, 2, "2001:db8::1 192.0.2.1 "}};
  for (const auto& [answers, options, max, want] : cases) {
    Resolver fake(answers);
    sockaddr_in6 addrs[8], first;
    const int n = ccm_hostname2addresses("any", options, addrs, max, nullptr);
    std::string got;
    for (int i = 0; i < n; ++i) {
      char out[64];
      ccm_address2string(&addrs[i], out, sizeof out);
      got += std::string(out) + " ";
    }
    EXPECT_EQ(got, want);
    ASSERT_EQ(ccm_hostname2address("any", options, &first, nullptr), 0);
    EXPECT_EQ(std::memcmp(&first, &addrs[0], sizeof first), 0);
  }
  EXPECT_EQ(ccm_hostname2addresses("any", CCM_PREFER_IPV4, nullptr, 0, nullptr), -1);
}

// Names are cleaned of blanks and brackets; an address area is cleared whole, and left all
// zero when the name cannot be resolved.
TEST(Address, LiteralsBracketsAndBadNames) {
  const std::string long255(255, 'a'), long256(256, 'b');
  const std::pair<const char*, const char*> cases[] = {{"127.0.0.1", "127.0.0.1"},
                                                       {"[127.0.0.1]", "127.0.0.1"},
                                                       {" 10.1.2.3 ", "10.1.2.3"},
                                                       {"[::1]", "::1"},
                                                       {"[2001:DB8::5]", "2001:db8::5"},
                                                       {"[[192.0.2.9]]", "192.0.2.9"},
                                                       {"", ""},
                                                       {"[]", ""},
                                                       {"12[7.0.0.1", ""},
                                                       {"no-such-host.invalid", ""},
                                                       {long255.c_str(), ""},
                                                       {long256.c_str(), ""}};
  for (auto [host, want] : cases) {
    sockaddr_in6 addr, zero{};
    std::memset(&addr, 0xAB, sizeof addr);
    ccm_error_t err{};
    const int rslt = ccm_hostname2address(host, CCM_PREFER_IPV4, &addr, &err);
    EXPECT_EQ(rslt, *want ? 0 : -1) << host;
    EXPECT_EQ(err.msgnr, *want ? 0 : 2000102) << host;
    char out[64] = "";
    if (rslt == 0) ccm_address2string(&addr, out, sizeof out);
    EXPECT_STREQ(out, want);
    const int family = addr.sin6_family;
    std::memcpy(&zero, &addr, family == AF_INET6 ? sizeof addr : family ? sizeof(sockaddr_in) : 0);
    EXPECT_EQ(std::memcmp(&addr, &zero, sizeof addr), 0) << host;  // the rest is cleared
  }
}

}  // namespace
}  // namespace ccm_test
