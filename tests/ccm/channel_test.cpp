#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/ccm.h"

namespace ccm_test {
namespace {

using ChannelTest = CcmTest;

TEST_F(ChannelTest, IdsAreConsecutiveNamesAndEyeCatchersFollowThem) {
  std::vector<ccm_channel_t*> chs;
  for (int i = 0; i < 7; ++i)
    chs.push_back(new_channel());
  for (int i = 0; i < 7; ++i) {
    EXPECT_EQ(chs[i]->ID, i + 1);
    EXPECT_EQ(std::string(chs[i]->name), "*ID" + std::to_string(i + 1));
    EXPECT_EQ(chs[i]->s, -1);
    EXPECT_EQ(std::memcmp(chs[i]->eyec, "##CCM#CHANNEL###", 16), 0);
  }
  ccm_channel_chain(ccm_, chs[6]);
  EXPECT_EQ(std::memcmp(chs[6]->eyec, "#CCMSOCK00000007", 16), 0);
  EXPECT_EQ(members(ccm_->channel_newq), std::vector<ccm_channel_t*>{chs[6]});

  // Destroyed IDs are not handed out again.
  ccm_error_t err{};
  for (int i = 0; i < 6; ++i)
    ccm_channel_destroy(ccm_, chs[i], &err);
  ccm_channel_t* eighth = new_channel();
  EXPECT_EQ(eighth->ID, 8);
  ccm_channel_destroy(ccm_, eighth, &err);
  drain_recvq();
}

TEST_F(ChannelTest, ChannelAllocationFailureMakesNothing) {
  ccm_channel_t* ch = reinterpret_cast<ccm_channel_t*>(0x1);
  ccm_error_t err{};
  {
    FailAllocations fail("CREATE_CHANNEL");
    EXPECT_EQ(ccm_channel_new_entry(ccm_, &ch, &err), -1);
  }
  EXPECT_EQ(ch, reinterpret_cast<ccm_channel_t*>(0x1));
  EXPECT_EQ(err.msgnr, 3301);
  EXPECT_EQ(std::strncmp(err.msginsert, "CREATE_CHANNEL/", 15), 0) << err.msginsert;
  EXPECT_NE(std::strstr(err.msginsert, "channel.cpp("), nullptr);
  EXPECT_EQ(ccm_->unique_channel_ID, 1);
}

// Where each search looks, and that it holds channel_lock exactly when it finds a channel.
TEST_F(ChannelTest, SearchesFindLiveChannelsAndKeepTheLockOnlyWhenFound) {
  ccm_channel_t* active = entered_channel();
  merge_newq();
  ccm_channel_t* waiting = entered_channel();
  ccm_channel_t* deleted = entered_channel();
  active->remoteID = 41;
  waiting->remoteID = 42;
  deleted->remoteID = 43;
  ccm_channel_delete(ccm_, deleted);
  EXPECT_NE(ccm_->flag & CCM_FLAG_CHANNEL_DELETED, 0);

  enum Kind { kID, kRemote, kName };
  struct Case {
    Kind kind;
    ccm_channel_t* target;
    bool found;
  } cases[] = {
      {kID, active, true},     {kID, waiting, true},      {kID, deleted, false},
      {kName, active, true},   {kName, waiting, true},    {kName, deleted, false},
      {kRemote, active, true}, {kRemote, waiting, false}, {kRemote, deleted, false},
  };
  for (const Case& c : cases) {
    ccm_channel_t* r = nullptr;
    switch (c.kind) {
      case kID:
        r = ccm_channel_getbyID(ccm_, c.target->ID);
        break;
      case kRemote:
        r = ccm_channel_getbyRemoteID(ccm_, c.target->remoteID);
        break;
      case kName:
        r = ccm_channel_getbyName(ccm_, c.target->name);
        break;
    }
    SCOPED_TRACE(testing::Message() << "kind " << c.kind << " channel " << c.target->ID);
    EXPECT_EQ(r, c.found ? c.target : nullptr);
    EXPECT_EQ(channel_lock_held(ccm_), c.found);
    if (r != nullptr) ccm_channel_unlock(ccm_);
  }
  EXPECT_EQ(ccm_channel_getbyName(ccm_, nullptr), nullptr);
  EXPECT_EQ(ccm_channel_getbyID(ccm_, 99), nullptr);
  EXPECT_FALSE(channel_lock_held(ccm_));

  EXPECT_EQ(ccm_channel_existbyID(ccm_, waiting->ID), 1);
  EXPECT_EQ(ccm_channel_existbyName(ccm_, deleted->name), 0);
  EXPECT_FALSE(channel_lock_held(ccm_));

  std::strcpy(waiting->addr, "192.0.2.4");
  char ip[64] = {};
  EXPECT_EQ(ccm_channel_get_ip(ccm_, 0, waiting->name, ip, nullptr), 0);
  EXPECT_STREQ(ip, "192.0.2.4");
  EXPECT_EQ(ccm_channel_get_ip(ccm_, 99, "*nothing", ip, nullptr), -1);
  EXPECT_FALSE(channel_lock_held(ccm_));
}

TEST_F(ChannelTest, DestroyDeletedKeepsSurvivorsInOrderAndCounts) {
  std::vector<ccm_channel_t*> chs;
  for (int i = 0; i < 6; ++i)
    chs.push_back(entered_channel(i == 3 ? 255 : 5));
  merge_newq();
  ccm_channel_t* late = entered_channel();  // waits in channel_newq; not examined
  ccm_channel_delete(ccm_, late);
  for (int i : {0, 3, 5})
    ccm_channel_delete(ccm_, chs[i]);

  int n = -1;
  EXPECT_EQ(ccm_destroy_deleted_channels(ccm_, &n), 0);
  EXPECT_EQ(n, 3);
  EXPECT_EQ(members(ccm_->channelq), (std::vector<ccm_channel_t*>{chs[1], chs[2], chs[4]}));
  EXPECT_EQ(ccm_->channelq.tail, chs[4]);
  EXPECT_EQ(ccm_->flag & CCM_FLAG_CHANNEL_DELETED, 0);
  EXPECT_EQ(members(ccm_->channel_newq), std::vector<ccm_channel_t*>{late});
  // Two type 5 channels went with a notice each, the type 255 channel without one.
  EXPECT_EQ(drain_recvq(), (std::vector<std::string>{"CHANNEL_CLOSE", "CHANNEL_CLOSE"}));

  EXPECT_EQ(ccm_destroy_deleted_channels(ccm_, &n), 0);
  EXPECT_EQ(n, 0);
}

TEST_F(ChannelTest, CloseNoticeCarriesChannelAndUserContext) {
  struct Case {
    int type;
    bool with_cuc;
    int notices;
  } cases[] = {{5, true, 1}, {5, false, 1}, {0, false, 1}, {255, true, 0}, {-1, false, 0}};
  for (const Case& c : cases) {
    ccm_channel_t* ch = new_channel(c.type);
    int id = ch->ID;
    std::strcpy(ch->host, "agent.example");
    ch->recv_buffer = static_cast<unsigned char*>(ccm_alloc_default(64, "test"));
    if (c.with_cuc) {
      auto* cuc = static_cast<ccm_connect_user_context_t*>(
          ccm_alloc_default(CCM_CUC_FIXED_SIZE + 8, "test"));
      std::strcpy(cuc->key, "user-key");
      cuc->client = 12;
      cuc->gss_len = 8;
      ch->cuc = cuc;
    }
    ccm_error_t err{};
    ccm_channel_destroy(ccm_, ch, &err);
    std::vector<ccm_msg_t*> got = members(ccm_->recvq);
    ASSERT_EQ(static_cast<int>(got.size()), c.notices) << "type " << c.type;
    if (c.notices == 0) continue;
    ccm_msg_t* m = got[0];
    EXPECT_EQ(m->type, CCM_MSG_IPC);
    ASSERT_EQ(m->len, static_cast<int>(sizeof(ipcmsg_channel_close_t)));
    ipcmsg_channel_close_t notice;
    std::memcpy(&notice, m->msg_start, sizeof notice);
    EXPECT_EQ(std::memcmp(notice.head.msgtype, "CHANNEL_CLOSE\0\0\0", 16), 0);
    EXPECT_EQ(notice.ccmch.ID, id);
    EXPECT_EQ(notice.ccmch.type, c.type);
    EXPECT_STREQ(notice.ccmch.host, "agent.example");
    ccm_connect_user_context_t fixed;
    std::memcpy(&fixed, notice.cuc, CCM_CUC_FIXED_SIZE);
    EXPECT_STREQ(fixed.key, c.with_cuc ? "user-key" : "");
    EXPECT_EQ(fixed.client, c.with_cuc ? 12 : 0);
    drain_recvq();
  }
}

TEST_F(ChannelTest, DestroyWithoutAMessageSendsNoNoticeButReleasesEverything) {
  ccm_channel_t* ch = new_channel(5);
  ch->s = socket(AF_INET, SOCK_STREAM, 0);
  ccm_error_t err{};
  ch->sendq = {};
  ccm_msg_t* queued = ccm_msg_alloc_huge(ccm_, 512, &err);
  ccm_queue_unlink(ccm_->msgq_inuse, queued);
  ccm_queue_append(ch->sendq, queued);
  int fd = ch->s;
  {
    FailAllocations fail("CCMMSG");
    ccm_channel_destroy(ccm_, ch, &err);
  }
  EXPECT_EQ(ccm_->recvq.head, nullptr);
  EXPECT_EQ(close(fd), -1);  // the socket went with the channel
}

TEST_F(ChannelTest, BindAddressInquiry) {
  ccm_channel_t* ch = new_channel();
  ch->s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(ch->s, reinterpret_cast<sockaddr*>(&local), sizeof local), 0);
  ccm_error_t err{};
  EXPECT_EQ(ccm_channel_bindaddr_inquire(ccm_, ch, &err), 0);
  EXPECT_STREQ(ch->bind_addr, "127.0.0.1");
  EXPECT_NE(ch->flag & CCM_CHFLAG_BINDADDR, 0);

  ccm_channel_t* ipc = new_channel();
  std::strcpy(ipc->name, "*IPC(AGENT)");
  EXPECT_EQ(ccm_channel_bindaddr_inquire(ccm_, ipc, &err), 0);
  EXPECT_NE(ipc->flag & CCM_CHFLAG_BINDADDR, 0);

  ccm_channel_t* broken = new_channel();  // no socket
  EXPECT_EQ(ccm_channel_bindaddr_inquire(ccm_, broken, &err), -1);
  EXPECT_EQ(err.msgnr, 2000102);
  EXPECT_EQ(std::string(err.msginsert),
            "getsockname()|9(Bad file descriptor),S(-1(ID=" + std::to_string(broken->ID) + "))|");
  EXPECT_NE(broken->flag & CCM_CHFLAG_DELETED, 0);

  for (ccm_channel_t* c : {ch, ipc, broken})
    ccm_channel_destroy(ccm_, c, &err);
  drain_recvq();
}

// Two threads allocate and free messages and enter, search, delete and destroy channels at
// the same time, the way the main and the network thread share a context.
TEST_F(ChannelTest, TwoThreadsShareMessagesAndChannels) {
  std::atomic<bool> stop{false};
  std::thread network([&] {
    while (!stop.load()) {
      ccm_error_t err{};
      ccm_msg_t* m = ccm_msg_alloc(ccm_, &err);
      if (m != nullptr) ccm_msg_free(ccm_, m);
      merge_newq();
      ccm_destroy_deleted_channels(ccm_);
    }
  });
  for (int i = 0; i < 2000; ++i) {
    ccm_error_t err{};
    ccm_msg_t* m = ccm_msg_alloc_huge(ccm_, i % 2 ? CCM_MSG_POOL_SIZE : 4096, &err);
    ASSERT_NE(m, nullptr);
    ccm_channel_t* ch = entered_channel(i % 3 == 0 ? 255 : 5);
    int id = ch->ID;
    ccm_channel_t* found = ccm_channel_getbyID(ccm_, id);
    ASSERT_EQ(found, ch);
    found->remoteID = id;
    ccm_channel_unlock(ccm_);
    ccm_channel_deletebyID(ccm_, id);
    ccm_msg_free(ccm_, m);
    drain_recvq();
    EXPECT_EQ(ccm_channel_existbyID(ccm_, id), 0);
  }
  stop.store(true);
  network.join();
}

}  // namespace
}  // namespace ccm_test
