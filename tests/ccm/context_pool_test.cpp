// The context, its wake-up pipes, the message pool and address resolution.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/ccm.h"

namespace ccm_test {
namespace {

using ContextTest = CcmTest;

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
  EXPECT_EQ(std::string(err.msginsert).rfind("CCM_OPEN/", 0), 0u) << err.msginsert;
  EXPECT_EQ(ccm_close(nullptr, &err), 0);
}

// Messages left in every queue, huge or pooled, are released by ccm_close (ASan proves it).
TEST_F(ContextTest, CloseReleasesMessagesOfEveryQueue) {
  for (ccm_msg_queue_t* q : {&ccm_->sendq, &ccm_->recvq, &ccm_->msgq_2dispatch}) {
    for (int i = 0; i < 3; ++i) {
      ccm_msg_t* m = i == 0 ? ccm_msg_alloc_huge(ccm_, 1000, &err_) : ccm_msg_alloc(ccm_, &err_);
      ccm_queue_unlink(ccm_->msgq_inuse, m);
      ccm_queue_append(*q, m);
    }
  }
  ASSERT_NE(ccm_msg_alloc(ccm_, &err_), nullptr);  // stays in msgq_inuse
  ccm_msg_free(ccm_, ccm_msg_alloc(ccm_, &err_));  // stays in the pool
  EXPECT_EQ(ccm_close(ccm_, &err_), 0);
  ccm_ = nullptr;
}

std::string pending_bytes(int fd) {
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  std::string bytes;
  char buf[16];
  for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;)
    bytes.append(buf, static_cast<size_t>(n));
  return bytes;
}

TEST_F(ContextTest, WakeupsWriteOneByteEachAndRecreationStartsEmpty) {
  EXPECT_EQ(ccm_->network_wakeup[0], -1);
  ASSERT_EQ(ccm_create_wakeup_pipes(ccm_, &err_), 0);
  ccm_wakeup_network(ccm_);
  ccm_wakeup_network(ccm_);
  ccm_wakeup_processor(ccm_);
  EXPECT_EQ(pending_bytes(ccm_->network_wakeup[0]), "NN");
  EXPECT_EQ(pending_bytes(ccm_->processor_wakeup[0]), "P");
  ccm_wakeup_network(ccm_);
  ASSERT_EQ(ccm_create_wakeup_pipes(ccm_, &err_), 0);
  EXPECT_EQ(pending_bytes(ccm_->network_wakeup[0]), "");
  EXPECT_EQ(ccm_close_wakeup_pipes(ccm_), 0);
  EXPECT_EQ(ccm_->network_wakeup[1] + ccm_->processor_wakeup[0], -2);
  EXPECT_EQ(ccm_wakeup_network(ccm_), 0);  // closed pipes are not written
}

using MessageTest = CcmTest;

// IDs run on across pool reuse and huge messages; a reused message has a cleared record and
// msg_start at the head room.
TEST_F(MessageTest, IdsAndReusedPoolMessages) {
  ccm_msg_t* m = ccm_msg_alloc(ccm_, &err_);
  EXPECT_EQ(m->ID, 1u);
  EXPECT_EQ(m->size, CCM_MSG_POOL_SIZE);
  m->msg_start -= 48;
  m->len = 11;
  m->type = CCM_MSG_NAT;
  m->flag = CCM_MSGFLAG_XML;
  m->addr.dst_ID = 9;
  ccm_msg_free(ccm_, m);
  ccm_msg_t* r = ccm_msg_alloc(ccm_, &err_);
  ASSERT_EQ(r, m);
  EXPECT_EQ(r->ID, 2u);
  EXPECT_EQ(r->len + r->type + r->flag + r->addr.dst_ID, 0);
  EXPECT_EQ(r->msg_start, r->buffer1 + CCM_MSG_HEADROOM);
  ccm_msg_t* huge = ccm_msg_alloc_huge(ccm_, 40000, &err_);
  EXPECT_EQ(huge->ID, 3u);
  ccm_msg_free(ccm_, huge);
  ccm_msg_free(ccm_, r);
}

TEST_F(MessageTest, PoolKeepsAtMost64AndNeverHugeMessages) {
  std::vector<ccm_msg_t*> msgs;
  for (int i = 0; i < 70; ++i)
    msgs.push_back(ccm_msg_alloc(ccm_, &err_));
  ccm_msg_free(ccm_, ccm_msg_alloc_huge(ccm_, 1024, &err_));
  EXPECT_EQ(ccm_->nof_freemsg, 0);
  for (ccm_msg_t* m : msgs)
    ccm_msg_free(ccm_, m);
  EXPECT_EQ(ccm_->nof_freemsg, 64);
  EXPECT_EQ(members(ccm_->msg_freeq).size(), 64u);
  EXPECT_EQ(ccm_->msgq_inuse.head, nullptr);
  ccm_msg_t* pooled = ccm_msg_alloc_huge(ccm_, CCM_MSG_POOL_SIZE, &err_);  // the pool serves it
  EXPECT_EQ(ccm_->nof_freemsg, 63);
  ccm_msg_free(ccm_, pooled);
}

TEST_F(MessageTest, FreeUnlinksFromAnyPositionOfTheInUseList) {
  for (int victim = 0; victim < 3; ++victim) {
    ccm_msg_t* m[3];
    for (auto& p : m)
      p = ccm_msg_alloc(ccm_, &err_);  // pushed at the head: m[2], m[1], m[0]
    ccm_msg_free(ccm_, m[victim]);
    std::vector<ccm_msg_t*> expect;
    for (int i = 2; i >= 0; --i) {
      if (i != victim) expect.push_back(m[i]);
    }
    EXPECT_EQ(members(ccm_->msgq_inuse), expect) << "victim " << victim;
    EXPECT_EQ(ccm_->msgq_inuse.tail, expect.back());
    for (ccm_msg_t* p : expect)
      ccm_msg_free(ccm_, p);
    EXPECT_EQ(ccm_->msgq_inuse.tail, nullptr);
  }
}

TEST_F(MessageTest, AllocationFailureChangesNoQueue) {
  ccm_msg_free(ccm_, ccm_msg_alloc(ccm_, &err_));
  FailAllocations fail("CCMMSG");
  for (int size : {1000, CCM_MSG_POOL_SIZE}) {  // the second empties the pool first
    ccm_msg_t* taken = size == CCM_MSG_POOL_SIZE ? ccm_msg_alloc(ccm_, &err_) : nullptr;
    err_ = {};
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
                             &live->recvq, &live2->sendq}) {
    EXPECT_EQ(q->head, nullptr);
  }
  EXPECT_EQ(live->recv_pos, 0);
  EXPECT_NE(ccm_->sendq.head, nullptr);
  EXPECT_NE(gone->sendq.head, nullptr);
  EXPECT_EQ(ccm_->nof_freemsg, 6);
  ccm_channel_emptying_msg_queue(ccm_, gone);
  EXPECT_EQ(gone->sendq.head, nullptr);
  EXPECT_EQ(ccm_->nof_freemsg, 7);
}

// Loopback and link-local ("FE80:") answers are never usable; the preferred family comes
// first, then any usable answer, then the first answer.
TEST(AddressChoose, PreferenceRules) {
  const int v4 = CCM_PREFER_IPV4, v6 = CCM_PREFER_IPV6;
  const struct {
    std::vector<const char*> answers;
    int options, chosen;
  } cases[] = {
      {{"2001:db8::1", "192.0.2.1"}, v4, 1},
      {{"2001:db8::1", "192.0.2.1"}, v6, 0},
      {{"2001:db8::1", "192.0.2.1"}, 0, 0},
      {{"192.0.2.1", "2001:db8::1"}, v4 | v6, 0},
      {{"::1", "127.0.0.1"}, v4, 0},
      {{"127.0.0.1", "2001:db8::1"}, v4, 1},
      {{"fe80::1", "192.0.2.1"}, v6, 1},
      {{"FE80::abcd", "127.0.0.1", "2001:db8::2"}, v4, 2},
      {{"192.0.2.7"}, v6, 0},
  };
  for (const auto& c : cases) {
    Answers list(c.answers);
    EXPECT_EQ(list.index_of(ccm_address_choose(list.head(), c.options)), c.chosen)
        << c.answers.front() << " options " << c.options;
  }
  EXPECT_EQ(ccm_address_choose(nullptr, v4), nullptr);
}

// All answers in the order they are tried: preferred usable, other usable, unusable; each
// address once, at most `max`.
TEST(AddressChoose, AllAddressesInTheOrderTheyAreTried) {
  const struct {
    std::vector<const char*> answers;
    int max;
    std::vector<const char*> want;
  } cases[] = {
      {{"127.0.0.1", "2001:db8::1", "192.0.2.1", "192.0.2.2"},
       8,
       {"192.0.2.1", "192.0.2.2", "2001:db8::1", "127.0.0.1"}},
      {{"192.0.2.1", "192.0.2.1", "::1"}, 8, {"192.0.2.1", "::1"}},
      {{"2001:db8::1", "192.0.2.1", "192.0.2.2"}, 2, {"192.0.2.1", "192.0.2.2"}},
  };
  for (const auto& c : cases) {
    Resolver fake(c.answers);
    sockaddr_in6 addrs[8];
    ASSERT_EQ(ccm_hostname2addresses("any", CCM_PREFER_IPV4, addrs, c.max, nullptr),
              static_cast<int>(c.want.size()));
    for (size_t i = 0; i < c.want.size(); ++i) {
      char out[64];
      ccm_address2string(&addrs[i], out, sizeof out);
      EXPECT_STREQ(out, c.want[i]) << i;
    }
  }
  EXPECT_EQ(ccm_hostname2addresses("any", CCM_PREFER_IPV4, nullptr, 0, nullptr), -1);
}

TEST(HostnameToAddress, LiteralsBracketsLocalhostAndBadNames) {
  const std::pair<const char*, const char*> good[] = {
      {"127.0.0.1", "127.0.0.1"}, {"[127.0.0.1]", "127.0.0.1"},     {" 10.1.2.3 ", "10.1.2.3"},
      {"[::1]", "::1"},           {"[2001:DB8::5]", "2001:db8::5"}, {"[[192.0.2.9]]", "192.0.2.9"},
  };
  for (auto [host, text] : good) {
    sockaddr_in6 addr;
    std::memset(&addr, 0xAB, sizeof addr);
    ASSERT_EQ(ccm_hostname2address(host, CCM_PREFER_IPV4, &addr, nullptr), 0) << host;
    EXPECT_EQ(addr.sin6_port, 0) << host;
    char out[64];
    EXPECT_EQ(ccm_address2string(&addr, out, sizeof out), 0);
    EXPECT_STREQ(out, text);
    if (addr.sin6_family == AF_INET) {  // the rest of the area is cleared
      const unsigned char* rest = reinterpret_cast<unsigned char*>(&addr) + sizeof(sockaddr_in);
      EXPECT_EQ(std::vector<unsigned char>(rest, rest + 12), std::vector<unsigned char>(12, 0));
    }
  }
  const std::string long255(255, 'a'), long256(256, 'b');
  for (const char* h :
       {"", "[]", "12[7.0.0.1", "no-such-host.invalid", long255.c_str(), long256.c_str()}) {
    sockaddr_in6 addr;
    std::memset(&addr, 0xAB, sizeof addr);
    ccm_error_t err{};
    EXPECT_EQ(ccm_hostname2address(h, CCM_PREFER_IPV4, &addr, &err), -1) << h;
    EXPECT_EQ(err.msgnr, 2000102) << h;
    EXPECT_EQ(std::string(err.msginsert).rfind("getaddrinfo|", 0), 0u) << err.msginsert;
    const unsigned char* bytes = reinterpret_cast<unsigned char*>(&addr);
    EXPECT_EQ(std::vector<unsigned char>(bytes, bytes + sizeof addr),
              std::vector<unsigned char>(sizeof addr, 0));
  }
}

}  // namespace
}  // namespace ccm_test
