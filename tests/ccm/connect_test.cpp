#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "support/ccm.h"

namespace ccm_test {
namespace {

// A TCP socket bound to a loopback address with a port the system picked; listening or not.
class LoopbackPort {
 public:
  LoopbackPort(int family, bool listening) {
    fd_ = socket(family, SOCK_STREAM, 0);
    sockaddr_in6 a{};
    socklen_t len = sizeof(sockaddr_in6);
    if (family == AF_INET) {
      auto* v4 = reinterpret_cast<sockaddr_in*>(&a);
      v4->sin_family = AF_INET;
      v4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      len = sizeof(sockaddr_in);
    } else {
      a.sin6_family = AF_INET6;
      a.sin6_addr = in6addr_loopback;
    }
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&a), len) != 0 ||
        (listening && listen(fd_, 8) != 0) ||
        getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
      return;
    }
    port_ = ntohs(a.sin6_port);  // sin_port stands at the same offset
  }
  ~LoopbackPort() {
    if (fd_ >= 0) close(fd_);
  }
  int port() const { return port_; }

 private:
  int fd_ = -1;
  int port_ = 0;
};

class ConnectTest : public CcmTest {
 protected:
  ConnectTest() { wakeups_ = true; }
  bool network_woken() {
    fcntl(ccm_->network_wakeup[0], F_SETFL, O_NONBLOCK);
    char c = 0;
    return read(ccm_->network_wakeup[0], &c, 1) == 1 && c == 'N';
  }
};

TEST_F(ConnectTest, ConnectsToAListeningLoopbackSocket) {
  LoopbackPort server(AF_INET, true);
  ASSERT_NE(server.port(), 0);
  for (int expected_id : {1, 2}) {
    ccm_error_t err{};
    int id = ccm_connect(ccm_, "127.0.0.1", server.port(), 5, nullptr, 60, &err);
    ASSERT_EQ(id, expected_id) << err.msginsert;
    ccm_channel_t* ch = ccm_channel_getbyID(ccm_, id);
    ASSERT_NE(ch, nullptr);
    EXPECT_EQ(ch->type, 5);
    EXPECT_EQ(ch->port, server.port());
    EXPECT_STREQ(ch->addr, "127.0.0.1");
    EXPECT_NE(ch->flag & CCM_CHFLAG_CONNECTING, 0);
    EXPECT_GE(ch->s, 0);
    EXPECT_EQ(members(ccm_->channel_newq).back(), ch);
    ccm_channel_unlock(ccm_);
    EXPECT_TRUE(network_woken());
  }
}

TEST_F(ConnectTest, Ipv6LoopbackWhenTheHostHasIt) {
  LoopbackPort server(AF_INET6, true);
  if (server.port() == 0) GTEST_SKIP() << "no ::1 on this host";
  ccm_error_t err{};
  int id = ccm_connect(ccm_, "[::1]", server.port(), 6, nullptr, 5, &err);
  ASSERT_EQ(id, 1) << err.msginsert;
  ccm_channel_t* ch = ccm_channel_getbyID(ccm_, id);
  ASSERT_NE(ch, nullptr);
  EXPECT_STREQ(ch->addr, "::1");
  EXPECT_NE(ch->flag & CCM_CHFLAG_CONNECTING, 0);
  ccm_channel_unlock(ccm_);
  EXPECT_EQ(ccm_is_cp_connecting(ccm_, "::1", server.port(), &err), 1);
}

TEST_F(ConnectTest, RefusalsBeforeAnyChannelIsMade) {
  const std::string long_host(128, 'h');
  struct Case {
    const char* host;
    int port;
    const char* insert_prefix;
  } cases[] = {
      {"no-such-host.invalid", 80, "getaddrinfo|"},
      {"", 80, "getaddrinfo|"},
      {"[127.0.0.1", 0, "connect()|22(Invalid argument),port(0)|"},
      {"127.0.0.1", 65536, "connect()|22(Invalid argument),port(65536)|"},
      {"127.0.0.1", -1, "connect()|22(Invalid argument),port(-1)|"},
      {long_host.c_str(), 80, "connect()|22(Invalid argument),host(80)|"},
      {nullptr, 80, "connect()|22(Invalid argument),host(80)|"},
  };
  for (const Case& c : cases) {
    ccm_error_t err{};
    auto* cuc = static_cast<ccm_connect_user_context_t*>(
        ccm_alloc_default(sizeof(ccm_connect_user_context_t), "test"));
    EXPECT_EQ(ccm_connect(ccm_, c.host, c.port, 5, cuc, 60, &err), -1);
    EXPECT_EQ(err.msgnr, 2000102);
    EXPECT_EQ(std::strncmp(err.msginsert, c.insert_prefix, std::strlen(c.insert_prefix)), 0)
        << err.msginsert;
  }
  EXPECT_EQ(ccm_->unique_channel_ID, 1);
  EXPECT_EQ(ccm_->channel_newq.head, nullptr);
  EXPECT_EQ(ccm_->recvq.head, nullptr);
}

// A connect that fails at once (the broadcast address is refused without SO_BROADCAST, or
// unreachable) costs an ID and leaves one close notice; a refusal that the system reports
// later (loopback here) returns the ID and shows on the socket.
TEST_F(ConnectTest, ImmediateConnectFailureLeavesOneCloseNotice) {
  ccm_error_t err{};
  EXPECT_EQ(ccm_connect(ccm_, "255.255.255.255", 9, 5, nullptr, 60, &err), -1);
  EXPECT_EQ(err.msgnr, 2000102);
  EXPECT_THAT(err.msginsert, testing::MatchesRegex("connect\\(\\)\\|[0-9]+\\([A-Za-z ]+\\),"
                                                   "S\\([0-9]+\\(ID=1\\)\\)\\|"));
  EXPECT_EQ(ccm_->channel_newq.head, nullptr);
  std::vector<ccm_msg_t*> notices = members(ccm_->recvq);
  ASSERT_EQ(notices.size(), 1u);
  ipcmsg_channel_close_t notice;
  std::memcpy(&notice, notices[0]->msg_start, sizeof notice);
  EXPECT_STREQ(notice.head.msgtype, "CHANNEL_CLOSE");
  EXPECT_EQ(notice.ccmch.ID, 1);
  EXPECT_GE(notice.ccmch.s, 0);  // the channel as it was, before its socket closed

  LoopbackPort bound(AF_INET, false);  // bound, not listening
  ASSERT_NE(bound.port(), 0);
  int id = ccm_connect(ccm_, "127.0.0.1", bound.port(), 5, nullptr, 60, &err);
  if (id == -1) {
    EXPECT_EQ(std::strncmp(err.msginsert, "connect()|111(Connection refused),S(", 36), 0);
  } else {
    EXPECT_EQ(id, 2);
  }
}

TEST_F(ConnectTest, SocketFailureDestroysTheChannel) {
  int lowest = dup(0);
  ASSERT_GE(lowest, 0);
  close(lowest);
  rlimit saved{};
  getrlimit(RLIMIT_NOFILE, &saved);
  rlimit low = saved;
  low.rlim_cur = static_cast<rlim_t>(lowest);  // no new descriptor can be had
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  ccm_error_t err{};
  int rslt = ccm_connect(ccm_, "127.0.0.1", 9, 5, nullptr, 60, &err);
  setrlimit(RLIMIT_NOFILE, &saved);
  EXPECT_EQ(rslt, -1);
  EXPECT_STREQ(err.msginsert, "socket()|24(Too many open files),S(-1(ID=1))|");
  EXPECT_EQ(members(ccm_->recvq).size(), 1u);
}

TEST_F(ConnectTest, ChannelAllocationFailureMakesNoChannelAndNoNotice) {
  LoopbackPort server(AF_INET, true);
  ccm_error_t err{};
  {
    FailAllocations fail("CREATE_CHANNEL");
    EXPECT_EQ(ccm_connect(ccm_, "127.0.0.1", server.port(), 5, nullptr, 60, &err), -1);
  }
  EXPECT_EQ(err.msgnr, 3301);
  EXPECT_EQ(std::strncmp(err.msginsert, "CREATE_CHANNEL/", 15), 0) << err.msginsert;
  EXPECT_EQ(ccm_->recvq.head, nullptr);
  EXPECT_EQ(ccm_->channel_newq.head, nullptr);
}

TEST_F(ConnectTest, SocketOptionFailuresNameTheCall) {
  ccm_channel_t* ch = new_channel();  // no socket: every option call fails
  ccm_error_t err{};
  EXPECT_EQ(ccm_set_nonblocking(ccm_, ch, &err), -1);
  EXPECT_STREQ(err.msginsert, "ioctl(...,FIONBIO)|9-Bad file descriptor");
  EXPECT_EQ(ccm_set_linger(ccm_, ch, 1, 60, &err), -1);
  EXPECT_STREQ(err.msginsert, "setsockopt(SO_LINGER,s=-1,ID=1)|9-Bad file descriptor");

  ch->s = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(ccm_set_nonblocking(ccm_, ch, &err), 0);
  EXPECT_NE(fcntl(ch->s, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(ccm_set_linger(ccm_, ch, 1, 60, &err), 0);
  linger lg{};
  socklen_t len = sizeof lg;
  getsockopt(ch->s, SOL_SOCKET, SO_LINGER, &lg, &len);
  EXPECT_EQ(lg.l_onoff, 1);
  EXPECT_EQ(lg.l_linger, 60);
  ccm_channel_destroy(ccm_, ch, &err);
  drain_recvq();
}

TEST_F(ConnectTest, IsCpConnectingFindsLiveType6Channels) {
  ccm_channel_t* active = entered_channel(6);
  std::strcpy(active->addr, "127.0.0.1");
  active->port = 4000;
  merge_newq();
  ccm_channel_t* waiting = entered_channel(6);
  std::strcpy(waiting->addr, "127.0.0.1");
  waiting->port = 4001;
  ccm_channel_t* other_type = entered_channel(5);
  std::strcpy(other_type->addr, "127.0.0.1");
  other_type->port = 4002;

  ccm_error_t err{};
  struct Case {
    const char* host;
    int port;
    int result;
  } cases[] = {
      {"127.0.0.1", 4000, 1}, {"[127.0.0.1]", 4001, 1},           {"127.0.0.1", 4002, 0},
      {"127.0.0.2", 4000, 0}, {"no-such-host.invalid", 4000, -1},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(ccm_is_cp_connecting(ccm_, c.host, c.port, &err), c.result) << c.host << c.port;
  }
  ccm_channel_delete(ccm_, waiting);
  EXPECT_EQ(ccm_is_cp_connecting(ccm_, "127.0.0.1", 4001, &err), 0);
  EXPECT_FALSE(channel_lock_held(ccm_));
}

}  // namespace
}  // namespace ccm_test
