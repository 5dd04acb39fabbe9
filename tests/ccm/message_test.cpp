#include <cstring>
#include <vector>

#include "support/ccm.h"

namespace ccm_test {
namespace {

using MessageTest = CcmTest;

TEST_F(MessageTest, IdsAreConsecutiveAcrossPoolReuseAndHugeMessages) {
  ccm_error_t err{};
  std::vector<unsigned long> ids;
  ccm_msg_t* a = ccm_msg_alloc(ccm_, &err);
  ids.push_back(a->ID);
  ccm_msg_free(ccm_, a);
  ccm_msg_t* b = ccm_msg_alloc(ccm_, &err);  // the same buffer again
  EXPECT_EQ(b, a);
  ids.push_back(b->ID);
  ccm_msg_t* c = ccm_msg_alloc_huge(ccm_, 40000, &err);
  ids.push_back(c->ID);
  EXPECT_EQ(ids, (std::vector<unsigned long>{1, 2, 3}));
  ccm_msg_free(ccm_, b);
  ccm_msg_free(ccm_, c);
}

TEST_F(MessageTest, ReusedPoolMessageHasClearedRecordButOldData) {
  ccm_error_t err{};
  ccm_msg_t* m = ccm_msg_alloc(ccm_, &err);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(std::memcmp(m->eyec, "##CCM#MESSAGE###", 16), 0);
  EXPECT_EQ(m->size, CCM_MSG_POOL_SIZE);
  EXPECT_EQ(m->buffer2, m->buffer1 + CCM_MSG_POOL_SIZE);
  m->msg_start -= 48;
  std::memcpy(m->msg_start, "old payload", 11);
  m->len = 11;
  m->type = CCM_MSG_NAT;
  m->flag = CCM_MSGFLAG_XML;
  m->addr.dst_ID = 9;
  unsigned char* old_data = m->msg_start;
  ccm_msg_free(ccm_, m);

  ccm_msg_t* r = ccm_msg_alloc(ccm_, &err);
  ASSERT_EQ(r, m);
  EXPECT_EQ(r->len, 0);
  EXPECT_EQ(r->type, 0);
  EXPECT_EQ(r->flag, 0);
  EXPECT_EQ(r->addr.dst_ID, 0);
  EXPECT_EQ(r->msg_start, r->buffer1 + CCM_MSG_HEADROOM);
  EXPECT_EQ(std::memcmp(old_data, "old payload", 11), 0);
  ccm_msg_free(ccm_, r);
}

TEST_F(MessageTest, PoolKeepsAtMost64AndNeverHugeMessages) {
  ccm_error_t err{};
  std::vector<ccm_msg_t*> msgs;
  for (int i = 0; i < 70; ++i)
    msgs.push_back(ccm_msg_alloc(ccm_, &err));
  ccm_msg_t* huge = ccm_msg_alloc_huge(ccm_, 1024, &err);
  ccm_msg_free(ccm_, huge);
  EXPECT_EQ(ccm_->nof_freemsg, 0);
  for (ccm_msg_t* m : msgs)
    ccm_msg_free(ccm_, m);
  EXPECT_EQ(ccm_->nof_freemsg, 64);
  EXPECT_EQ(members(ccm_->msg_freeq).size(), 64u);
  EXPECT_EQ(ccm_->msgq_inuse.head, nullptr);

  // A huge request of the pool size is served from the pool.
  ccm_msg_t* pooled = ccm_msg_alloc_huge(ccm_, CCM_MSG_POOL_SIZE, &err);
  EXPECT_EQ(ccm_->nof_freemsg, 63);
  ccm_msg_free(ccm_, pooled);
}

// Freeing unlinks from any place of msgq_inuse and keeps the list sound.
TEST_F(MessageTest, FreeUnlinksFromAnyPositionOfTheInUseList) {
  for (int victim = 0; victim < 3; ++victim) {
    ccm_error_t err{};
    ccm_msg_t* m[3];
    for (auto& p : m)
      p = ccm_msg_alloc(ccm_, &err);  // pushed at the head: m[2], m[1], m[0]
    ccm_msg_free(ccm_, m[victim]);
    std::vector<ccm_msg_t*> expect;
    for (int i = 2; i >= 0; --i) {
      if (i != victim) expect.push_back(m[i]);
    }
    EXPECT_EQ(members(ccm_->msgq_inuse), expect) << "victim " << victim;
    EXPECT_EQ(ccm_->msgq_inuse.tail, expect.back());
    for (ccm_msg_t* p : expect)
      ccm_msg_free(ccm_, p);
    EXPECT_EQ(ccm_->msgq_inuse.head, nullptr);
    EXPECT_EQ(ccm_->msgq_inuse.tail, nullptr);
  }
}

TEST_F(MessageTest, ReceivedMessageIsRecycledWithoutTouchingInUse) {
  ccm_error_t err{};
  ccm_msg_t* kept = ccm_msg_alloc(ccm_, &err);
  ccm_msg_t* received = ccm_msg_alloc(ccm_, &err);
  std::memcpy(received->msg_start, "CHANNEL_CLOSE", 14);
  received->len = 16;
  send_IPC_internal(ccm_, received);
  EXPECT_EQ(received->type, CCM_MSG_IPC);
  EXPECT_EQ(members(ccm_->recvq), std::vector<ccm_msg_t*>{received});
  EXPECT_EQ(members(ccm_->msgq_inuse), std::vector<ccm_msg_t*>{kept});

  ccm_queue_pop(ccm_->recvq);
  ccm_msg_free(ccm_, received);
  EXPECT_EQ(members(ccm_->msgq_inuse), std::vector<ccm_msg_t*>{kept});
  EXPECT_EQ(ccm_->nof_freemsg, 1);
  ccm_msg_free(ccm_, kept);
}

TEST_F(MessageTest, AllocationFailureChangesNoQueue) {
  ccm_error_t err{};
  ccm_msg_t* pooled = ccm_msg_alloc(ccm_, &err);
  ccm_msg_free(ccm_, pooled);
  FailAllocations fail("CCMMSG");
  for (int size : {1000, CCM_MSG_POOL_SIZE}) {  // the second empties the pool first
    ccm_msg_t* taken = size == CCM_MSG_POOL_SIZE ? ccm_msg_alloc(ccm_, &err) : nullptr;
    std::memset(&err, 0, sizeof err);
    int pooled_before = ccm_->nof_freemsg;
    int next_id = ccm_->unique_msg_ID;
    EXPECT_EQ(ccm_msg_alloc_huge(ccm_, size, &err), nullptr);
    EXPECT_EQ(ccm_->unique_msg_ID, next_id);
    EXPECT_EQ(err.msgnr, 3301);
    EXPECT_EQ(std::strncmp(err.msginsert, "CCMMSG/", 7), 0) << err.msginsert;
    EXPECT_EQ(members(ccm_->msgq_inuse).size(), taken ? 1u : 0u);
    EXPECT_EQ(ccm_->nof_freemsg, pooled_before);
    if (taken) ccm_msg_free(ccm_, taken);
  }
}

TEST_F(MessageTest, EmptyingQueuesFreesContextAndLiveChannelQueues) {
  ccm_error_t err{};
  auto queued = [&](ccm_msg_queue_t& q) {
    ccm_msg_t* m = ccm_msg_alloc(ccm_, &err);
    ccm_queue_unlink(ccm_->msgq_inuse, m);
    ccm_queue_append(q, m);
  };
  ccm_channel_t* live = entered_channel();
  ccm_channel_t* gone = entered_channel();
  merge_newq();
  ccm_channel_delete(ccm_, gone);
  live->recv_pos = 17;
  for (ccm_msg_queue_t* q : {&live->sendq, &live->recvq, &gone->sendq, &ccm_->recvq,
                             &ccm_->msgq_2dispatch, &ccm_->sendq}) {
    queued(*q);
  }
  ccm_msg_alloc(ccm_, &err);  // in use

  EXPECT_EQ(ccm_msg_emptying_queues(ccm_), 0);
  EXPECT_EQ(ccm_->recvq.head, nullptr);
  EXPECT_EQ(ccm_->msgq_2dispatch.head, nullptr);
  EXPECT_EQ(ccm_->msgq_inuse.head, nullptr);
  EXPECT_EQ(live->sendq.head, nullptr);
  EXPECT_EQ(live->recvq.head, nullptr);
  EXPECT_EQ(live->recv_pos, 0);
  EXPECT_NE(ccm_->sendq.head, nullptr);  // the send queue is left alone
  EXPECT_NE(gone->sendq.head, nullptr);  // a deleted channel is left to its destruction
  EXPECT_EQ(ccm_->nof_freemsg, 5);

  ccm_channel_emptying_msg_queue(ccm_, gone);
  EXPECT_EQ(gone->sendq.head, nullptr);
  EXPECT_EQ(ccm_->nof_freemsg, 6);
}

}  // namespace
}  // namespace ccm_test
