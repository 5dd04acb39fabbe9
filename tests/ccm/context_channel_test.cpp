// The message pool, address resolution, the channel table and outgoing connections.
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "support/agent.h"
#include "support/ccm.h"

namespace ccm_test {
namespace {
using namespace std::string_literals;

using MessageTest = CcmTest;
using ChannelTest = CcmTest;
// IDs run on; the pool keeps at most 64 and no huge one; ccm_close frees every queue (ASan).
TEST_F(MessageTest, PoolKeepsAtMost64AndNeverHugeMessages) {
  std::vector<ccm_msg_t*> msgs;
  for (int i = 0; i < 70; ++i)
    msgs.push_back(ccm_msg_alloc(ccm_, &err_));
  ccm_msg_t* huge = ccm_msg_alloc_huge(ccm_, 1024, &err_);
  EXPECT_EQ(huge->ID, 71u);
  EXPECT_EQ(ccm_msg_free(ccm_, huge), 0);
  EXPECT_EQ(ccm_->nof_freemsg, 0);
  for (ccm_msg_t* m : msgs)
    ccm_msg_free(ccm_, m);
  EXPECT_EQ((std::tuple{ccm_->nof_freemsg, ccm_->msgq_inuse.head}), std::tuple(64, nullptr));
  ccm_msg_t* pooled = ccm_msg_alloc_huge(ccm_, CCM_MSG_POOL_SIZE, &err_);
  EXPECT_EQ((std::tuple{ccm_->nof_freemsg, pooled->msg_start}),
            std::tuple(63, pooled->buffer1 + CCM_MSG_HEADROOM));
  ccm_channel_t* chs[2] = {new_channel(), new_channel()};  // the first deleted: passed over
  merge_newq();
  ccm_channel_delete(ccm_, chs[0]);
  const auto fill = [this](std::initializer_list<ccm_msg_queue_t*> queues) {
    for (ccm_msg_queue_t* q : queues) {
      ccm_msg_t* m = ccm_msg_alloc_huge(ccm_, 1000, &err_);
      ccm_queue_unlink(ccm_->msgq_inuse, m);
      ccm_queue_append(*q, m);
    }
  };
  fill({&ccm_->recvq, &ccm_->msgq_2dispatch, &chs[1]->sendq, &chs[1]->recvq});
  EXPECT_EQ(ccm_msg_emptying_queues(ccm_), 0);  // the pooled one in use goes back to the pool
  EXPECT_EQ((std::tuple{ccm_->recvq.head, ccm_->msgq_2dispatch.head, ccm_->msgq_inuse.head,
                        chs[1]->sendq.head, chs[1]->recvq.head}),
            std::tuple(nullptr, nullptr, nullptr, nullptr, nullptr));
  fill({&ccm_->sendq, &ccm_->recvq, &ccm_->msgq_2dispatch});
  EXPECT_EQ((std::tuple{ccm_channel_closeall(ccm_), ccm_close(ccm_, &err_)}), std::tuple(0, 0));
  ccm_ = nullptr;
}

// A failed allocation fills the error and changes no context, message ID or queue.
TEST_F(MessageTest, FailedAllocationsChangeNothing) {
  ccm_context_t* other = nullptr;
  EXPECT_EQ((FailAllocations("CCM_OPEN"), ccm_open(nullptr, &other, &err_)), -1);
  EXPECT_EQ((std::tuple{other, err_.msgnr}), std::tuple(nullptr, 3301));
  EXPECT_EQ(ccm_close(nullptr, &err_) + ccm_session_close(nullptr, &err_), 0);
  EXPECT_EQ(ccm_thread_join(ccm_), -1);  // no thread was started
  ccm_msg_free(ccm_, ccm_msg_alloc(ccm_, &err_));
  ccm_msg_t* one = ccm_msg_alloc_frame(ccm_, 1, &err_);  // a frame of one byte, none of 0 bytes
  EXPECT_TRUE(one != nullptr && ccm_msg_alloc_frame(ccm_, 0, &err_) == nullptr);
  ccm_msg_free(ccm_, one);
  FailAllocations fail("CCMMSG");
  // The second empties the pool first; the largest size allowed gets as far as the allocation.
  for (int size : {1000, CCM_MSG_POOL_SIZE, 1 << 29}) {
    ccm_msg_t* taken = size == CCM_MSG_POOL_SIZE ? ccm_msg_alloc(ccm_, &err_) : nullptr;
    const int pooled_before = ccm_->nof_freemsg, next_id = ccm_->unique_msg_ID;
    EXPECT_EQ(ccm_msg_alloc_huge(ccm_, size, &err_), nullptr);
    EXPECT_EQ((std::tuple{ccm_->unique_msg_ID, err_.msgnr, members(ccm_->msgq_inuse).size(),
                          ccm_->nof_freemsg, std::strstr(err_.msginsert, "size=")}),
              std::tuple(next_id, 3301, taken ? 1u : 0u, pooled_before, nullptr));
    if (taken) ccm_msg_free(ccm_, taken);
  }
}

// Addresses are tried preferred usable first, then usable, then unusable; each once, <= max.
TEST(Address, ChoiceAndTheOrderAllAreTriedIn) {
  const int v4 = CCM_PREFER_IPV4, v6 = CCM_PREFER_IPV6;
  const std::tuple<std::vector<const char*>, int, int, std::string> cases[] = {
      {{"127.0.0.1", "2001:db8::1", "192.0.2.1"}, v4, 8, "192.0.2.1 2001:db8::1 127.0.0.1 "},
      {{"192.0.2.1", "192.0.2.1", "::1"}, v6, 8, "192.0.2.1 ::1 "},
      {{"fe80::1", "127.0.0.1"}, v4, 8, "fe80::1 127.0.0.1 "},
      {{"fe80::1", "2001:db8::1", "2001:db8::2"}, v4, 8, "2001:db8::1 2001:db8::2 fe80::1 "},
      {{"2001:db8::1", "192.0.2.1", "192.0.2.2"}, v6, 2, "2001:db8::1 192.0.2.1 "}};
  char out[64];
  for (const auto& [answers, options, max, want] : cases) {
    Resolver fake(answers);
    sockaddr_in6 addrs[8], first;
    const int n = ccm_hostname2addresses("any", options, addrs, max, nullptr);
    std::string got;
    for (int i = 0; i < n; ++i) {
      ASSERT_EQ(ccm_address2string(&addrs[i], out, sizeof out), 0);
      got += std::string(out) + " ";
    }
    EXPECT_EQ(got, want);
    ASSERT_EQ(ccm_hostname2address("any", options, &first, nullptr), 0);
    EXPECT_EQ(std::memcmp(&first, &addrs[0], sizeof first), 0);
  }
  EXPECT_EQ(ccm_hostname2addresses("any", CCM_PREFER_IPV4, nullptr, 0, nullptr), -1);
  Resolver mine({"2001:db8::5", "192.0.2.5"});  // whatever this host's name is
  EXPECT_EQ(ccm_getmyIP(0, out, nullptr) == 0 ? std::string(out) : "", "192.0.2.5");
  static std::string logged;  // every address of a name, in the resolver's order
  logged.clear();
  __log_set_logger([](int nr, const char* insert) {
    return logged += std::to_string(nr) + ":" + insert + " ", 0;
  });
  EXPECT_EQ((std::tuple{ccm_log_all_ip("any", nullptr), ccm_log_all_ip(nullptr, nullptr), logged}),
            std::tuple(0, -1, "2000066:any|[2001:db8::5] 2000066:any|192.0.2.5 "));
  __log_set_logger(nullptr);
}

// Blanks and brackets are cleaned off; the area is cleared, all zero for a bad name.
TEST(Address, LiteralsBracketsAndBadNames) {
  const char* cases[] = {"127.0.0.1>127.0.0.1",
                         "[127.0.0.1]>127.0.0.1",
                         " 10.1.2.3 >10.1.2.3",
                         "[::1]>::1",
                         "[2001:DB8::5]>2001:db8::5",
                         "[[192.0.2.9]]>192.0.2.9",
                         ">",
                         "[]>",
                         "12[7.0.0.1>",
                         "no-such-host.invalid>",
                         "#255>",
                         "#256>"};  // #N: N letters
  for (const std::string c : cases) {
    std::string host = c.substr(0, c.find('>')), want = c.substr(c.find('>') + 1);
    if (host[0] == '#') host = std::string(std::stoi(host.substr(1)), 'a');
    sockaddr_in6 addr, zero{};
    std::memset(&addr, 0xAB, sizeof addr);
    ccm_error_t err{};
    const int rslt = ccm_hostname2address(host.c_str(), CCM_PREFER_IPV4, &addr, &err);
    char out[64] = "";
    if (rslt == 0) ccm_address2string(&addr, out, sizeof out);
    EXPECT_EQ((std::tuple{rslt, err.msgnr, std::string(out)}),
              std::tuple(want.empty() ? -1 : 0, want.empty() ? 2000102 : 0, want))
        << host;
    const int family = addr.sin6_family;
    std::memcpy(&zero, &addr, family == AF_INET6 ? sizeof addr : family ? sizeof(sockaddr_in) : 0);
    EXPECT_EQ(std::memcmp(&addr, &zero, sizeof addr), 0) << host;  // the rest is cleared
  }
}

// Where each search looks, and that it holds channel_lock exactly when it finds a channel.
TEST_F(ChannelTest, SearchesFindLiveChannelsAndKeepTheLockOnlyWhenFound) {
  ccm_channel_t* deleted = new_channel();  // passed over before the others
  ccm_channel_t* active = new_channel();
  merge_newq();
  ccm_channel_t* waiting = new_channel();
  active->remoteID = 41;
  waiting->remoteID = 42;
  deleted->remoteID = 43;
  ASSERT_EQ(ccm_channel_delete(ccm_, deleted), 0);
  EXPECT_NE(ccm_->flag & CCM_FLAG_CHANNEL_DELETED, 0);
  auto by_id = [this](ccm_channel_t* c) { return ccm_channel_getbyID(ccm_, c->ID); };
  auto by_remote = [this](auto* c) { return ccm_channel_getbyRemoteID(ccm_, c->remoteID); };
  auto by_name = [this](ccm_channel_t* c) { return ccm_channel_getbyName(ccm_, c->name); };
  const struct {
    std::function<ccm_channel_t*(ccm_channel_t*)> search;
    ccm_channel_t* target;
    bool found;
  } cases[] = {{by_id, active, true},     {by_id, waiting, true},      {by_id, deleted, false},
               {by_name, active, true},   {by_name, waiting, true},    {by_name, deleted, false},
               {by_remote, active, true}, {by_remote, waiting, false}, {by_remote, deleted, false}};
  for (const auto& c : cases) {
    ccm_channel_t* r = c.search(c.target);
    const bool held = pthread_spin_trylock(&ccm_->channel_lock) != 0;
    if (!held) pthread_spin_unlock(&ccm_->channel_lock);
    EXPECT_EQ((std::tuple{r, held}), std::tuple(c.found ? c.target : nullptr, c.found))
        << "case " << (&c - cases);
    EXPECT_EQ(r != nullptr ? ccm_channel_unlock(ccm_) : 0, 0);
  }
  EXPECT_EQ(ccm_channel_getbyName(ccm_, nullptr), nullptr);
  EXPECT_EQ(ccm_channel_existbyID(ccm_, waiting->ID) + ccm_channel_existbyID(ccm_, deleted->ID), 1);
  // Partners' addresses by ID or by name, and which CP connections are made or under way.
  for (auto [c, a] : {std::pair{active, "127.0.0.1"}, {waiting, "127.0.0.2"}, {deleted, "::3"}})
    c->type = CCM_CHTYPE_CP, c->port = 99, std::strcpy(c->addr, a);
  char ip[2][CCM_ADDRSTR_SIZE];
  std::string got;
  for (auto [host, port] : {std::pair{"127.0.0.1", 99},
                            {"127.0.0.2", 99},
                            {"::3", 99},
                            {"127.0.0.1", 98},
                            {"no-such-host.invalid", 99}})
    got += std::to_string(ccm_is_cp_connecting(ccm_, host, port, &err_)) + " ";
  EXPECT_EQ((std::tuple{got, ccm_channel_get_ip(ccm_, active->ID, nullptr, ip[0], &err_),
                        ccm_channel_get_ip(ccm_, 0, waiting->name, ip[1], &err_),
                        ccm_channel_get_ip(ccm_, deleted->ID, "", ip[0], &err_),
                        std::string(ip[0]) + ip[1], ccm_channel_deletebyName(ccm_, waiting->name),
                        ccm_channel_existbyName(ccm_, waiting->name)}),
            std::tuple("1 1 0 0 -1 ", 0, 0, -1, "127.0.0.1127.0.0.2", 0, 0));
  char cut[8] = "xxxxxxx";  // a copied text keeps to its area, terminator included
  ccm_copy_text(cut, 3, "abcdef");
  EXPECT_EQ(std::string(cut, 8), "ab\0xxxx\0"s);
}

// Survivors keep their order; notices carry channel and user context; the socket always closes.
TEST_F(ChannelTest, DestroyDeletedKeepsSurvivorsInOrderAndSendsNotices) {
  ccm_channel_t* ch = new_channel(5, false);
  const int fd = ch->s = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(ccm_channel_set_local_partner(ccm_, ch, &err_), -1);  // a network socket
  ccm_msg_t* queued = ccm_msg_alloc_huge(ccm_, 512, &err_);
  ccm_queue_unlink(ccm_->msgq_inuse, queued);
  ccm_queue_append(ch->sendq, queued);
  FailAllocations("CCMMSG"), ccm_channel_destroy(ccm_, ch, &err_);  // the pool is still empty
  EXPECT_EQ((std::tuple{ccm_->recvq.head, close(fd)}), std::tuple(nullptr, -1));
  std::vector<ccm_channel_t*> chs;
  for (int type : {CCM_CHTYPE_AGENT, 5, 5, CCM_CHTYPE_SILENT, 5, CCM_CHTYPE_SERVER})
    chs.push_back(new_channel(type));
  std::strcpy(chs[0]->host, "agent.example");
  chs[0]->cuc =
      static_cast<ccm_connect_user_context_t*>(ccm_alloc_default(CCM_CUC_FIXED_SIZE + 8, "test"));
  std::strcpy(chs[0]->cuc->key, "user-key");
  merge_newq();
  ccm_channel_t* late = new_channel();  // waits in channel_newq; not examined
  ccm_channel_delete(ccm_, late);
  const int ids[] = {chs[0]->ID, chs[5]->ID};
  for (int i : {0, 3, 5})
    ccm_channel_delete(ccm_, chs[i]);
  int n = -1;
  static std::string logged;  // a silent channel's close is not logged
  logged.clear();             // a repeated run starts empty
  __log_set_logger(
      [](int nr, const char* insert) { return logged += std::to_string(nr) + insert, 0; });
  EXPECT_EQ(ccm_destroy_deleted_channels(ccm_, &n), 0);
  __log_set_logger(nullptr);
  const std::string a = std::to_string(ids[0]), b = std::to_string(ids[1]);
  EXPECT_EQ(logged, "2000007*ID" + a + "(s=-1,ID=" + a + ")2000010*ID" + b + "(s=-1,ID=" + b + ")");
  EXPECT_EQ(n, 3);
  EXPECT_EQ(members(ccm_->channelq), (std::vector<ccm_channel_t*>{chs[1], chs[2], chs[4]}));
  EXPECT_EQ((std::tuple{ccm_->channelq.tail, ccm_->flag & CCM_FLAG_CHANNEL_DELETED}),
            std::tuple(chs[4], 0));
  EXPECT_EQ(members(ccm_->channel_newq), std::vector<ccm_channel_t*>{late});
  const std::vector<ccm_msg_t*> got = members(ccm_->recvq);
  ASSERT_EQ(got.size(), 2u);
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(got[i]->len, static_cast<int>(sizeof(ipcmsg_channel_close_t)));
    ipcmsg_channel_close_t notice;
    std::memcpy(&notice, got[i]->msg_start, sizeof notice);
    EXPECT_EQ(
        std::string(notice.head.msgtype, 16) + notice.ccmch.host + "/" +
            reinterpret_cast<const char*>(notice.cuc) + "/" + std::to_string(notice.ccmch.ID),
        "CHANNEL_CLOSE\0\0\0"s + (i ? "//" : "agent.example/user-key/") + std::to_string(ids[i]));
  }
  drain_recvq();
}

using ConnectTest = CcmTest;

// A refusal before a channel exists leaves no trace (the user context goes), after it a notice.
TEST_F(ConnectTest, RefusalsBeforeAndAfterTheChannelIsMade) {
  const std::string long_host(128, 'h');
  const std::tuple<const char*, int, const char*> cases[] = {
      {"no-such-host.invalid", 80, "getaddrinfo|"},
      {"127.0.0.1", 0, "connect()|22(Invalid argument),port(0)|"},
      {"127.0.0.1", 65536, "connect()|22(Invalid argument),port(65536)|"},
      {long_host.c_str(), 80, "connect()|22(Invalid argument),host(80)|"},
      {nullptr, 80, "connect()|22(Invalid argument),host(80)|"},
      {"127.0.0.1", 1, "CREATE_CHANNEL/"},  // the lowest and the highest port are no refusal
      {"127.0.0.1", 65535, "CREATE_CHANNEL/"}};
  for (auto [host, port, insert] : cases) {
    auto* cuc = static_cast<ccm_connect_user_context_t*>(
        ccm_alloc_default(sizeof(ccm_connect_user_context_t), "test"));  // released by the call
    FailAllocations fail(std::strcmp(insert, "CREATE_CHANNEL/") == 0 ? "CREATE_CHANNEL" : "-");
    EXPECT_EQ(ccm_connect(ccm_, host, port, 5, cuc, 60, &err_), -1);
    EXPECT_EQ(std::string(err_.msginsert).rfind(insert, 0), 0u) << err_.msginsert;
  }
  EXPECT_EQ((std::tuple{ccm_->unique_channel_ID, ccm_->recvq.head}), std::tuple(1, nullptr));
  // One failing after the channel is made leaves one close notice; options fail without a socket.
  EXPECT_EQ(ccm_connect(ccm_, "255.255.255.255", 9, 5, nullptr, 60, &err_), -1);
  EXPECT_EQ((std::tuple{std::string(err_.msginsert).substr(0, 10), ccm_->channel_newq.head,
                        members(ccm_->recvq).size(),
                        ccm_->recvq.head ? ccm_close_notice_channelID(ccm_->recvq.head) : 0}),
            std::tuple("connect()|", nullptr, 1u, 1));
  drain_recvq();
  ccm_channel_t* ch = new_channel();  // no socket
  EXPECT_EQ(ccm_set_nonblocking(ccm_, ch, &err_) + ccm_set_linger(ccm_, ch, 1, 60, &err_), -2);
}

// Refused addresses of a name are passed over in order; any other failure ends the connect.
TEST_F(ConnectTest, MultiAddressConnectMovesOnToTheNextAddress) {
  int port = 0;
  const int listener = agent_test::loopback_socket(&port, true);
  start_thread();
  const struct {
    std::vector<const char*> answers;
    const char* last;  // the address tried last; 127.0.0.1 connects
  } cases[] = {{{"127.0.0.2", "127.0.0.1"}, "127.0.0.1"},
               {{"127.0.0.2", "127.0.0.4", "127.0.0.5", "127.0.0.1"}, "127.0.0.1"},
               {{"127.0.0.2", "127.0.0.4"}, "127.0.0.4"},
               {{"127.0.0.2", "fe80::1", "127.0.0.1"}, "fe80::1"}};  // EINVAL (no scope): no retry
  const bool ipv6 = close(socket(AF_INET6, SOCK_STREAM, 0)) == 0;    // without it: no fe80 row
  EXPECT_EQ((ccm_->flag & CCM_FLAG_IPV6) != 0, ipv6);
  for (const auto& c : cases) {
    if (!ipv6 && std::strchr(c.last, ':') != nullptr) continue;
    const bool connected = std::strcmp(c.last, "127.0.0.1") == 0;
    Resolver fake(c.answers);
    const int id = ccm_connect(ccm_, "multi", port, 5, nullptr, 60, &err_);
    ASSERT_GT(id, 0) << c.answers.size() << err_.msginsert;
    if (connected) {  // taken, then closed by the partner
      pollfd pfd{listener, POLLIN, 0};
      ASSERT_EQ(poll(&pfd, 1, 5000), 1);
      close(accept(listener, nullptr, nullptr));
    }
    ipcmsg_channel_close_t notice{};
    ASSERT_EQ(closed_channel(&notice), id);
    EXPECT_EQ((std::tuple{std::string(notice.ccmch.addr), notice.ccmch.msgnr != 0}),
              std::tuple(c.last, !connected))
        << notice.ccmch.msginsert;
  }
  close(listener);
}

}  // namespace
}  // namespace ccm_test
