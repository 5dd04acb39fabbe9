// Listening, accepting and one connection manager talking to itself over loopback.
#include "ccm/listen.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <set>
#include <string>

#include "ccm/net_thread.h"
#include "ccm/receive.h"
#include "ccm/send.h"
#include "ccm/wire.h"
#include "support/ccm.h"

namespace {

using ccm_test::CcmTest;
using ccm_test::FailAllocations;

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
  return ntohs(a.sin6_port);
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
  void TearDown() override {
    if (running_) {
      ccm_thread_stop(ccm_);
      pthread_join(ccm_->thread, nullptr);
    }
    CcmTest::TearDown();
  }

  void start() {
    ASSERT_EQ(ccm_thread_start(ccm_, &err_), 0);
    running_ = true;
  }

  // The listening channel's socket and port.
  int listener_port(int* s = nullptr) {
    ccm_channel_t* l = ccm_channel_getbyName(ccm_, "*LISTEN");
    EXPECT_NE(l, nullptr);
    if (l == nullptr) return -1;
    const int fd = l->s;
    ccm_channel_unlock(ccm_);
    if (s != nullptr) *s = fd;
    return local_port(fd);
  }

  // The next received message within 5 seconds, or null.
  ccm_msg_t* next_message() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    ccm_msg_t* m = nullptr;
    while (m == nullptr && std::chrono::steady_clock::now() < deadline) {
      EXPECT_GE(ccm_receive_message(ccm_, 1, &m, &err_), 0);
    }
    return m;
  }

  // The channel ID of an accept notice, or -1 for any other message (which is freed).
  int accepted_id(ccm_msg_t* m) {
    if (m == nullptr) return -1;
    int id = -1;
    if (m->type == CCM_MSG_IPC && m->len == 20 &&
        std::strcmp(reinterpret_cast<char*>(m->msg_start), "CHANNEL_ACCEPT") == 0) {
      std::memcpy(&id, m->msg_start + 16, sizeof id);
    }
    ccm_msg_free(ccm_, m);
    return id;
  }

  int port_of_channel(int id) {
    ccm_channel_t* ch = ccm_channel_getbyID(ccm_, id);
    if (ch == nullptr) return -1;
    const int port = ch->port;
    ccm_channel_unlock(ccm_);
    return port;
  }

  bool running_ = false;
  ccm_error_t err_{};
};

TEST_F(ListenTest, WildcardListenerAcceptsIpv4Clients) {
  ASSERT_EQ(ccm_create_listen(ccm_, "", 0, 5, &err_), 0);
  int s = -1;
  const int port = listener_port(&s);
  merge_newq();
  const int client = connect_client(port);
  ccm_channel_t* listener = ccm_->channelq.head;
  ASSERT_EQ(ccm_signal_on_listen(ccm_, listener, &err_), 0) << err_.msginsert;
  const int id = accepted_id(next_message());
  ASSERT_GT(id, 0);
  EXPECT_EQ(port_of_channel(id), local_port(client));
  close(client);
}

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
  EXPECT_LE(read(client, &byte, 1), 0);  // closed by the listener's side
  close(client);
  EXPECT_FALSE(listener->flag & CCM_CHFLAG_DELETED);
}

TEST_F(ListenTest, EachConnectionIsAnnouncedOnceWithItsChannelAndPort) {
  start();
  ASSERT_EQ(ccm_create_listen(ccm_, "127.0.0.1", 0, 5, &err_), 0);
  const int port = listener_port();
  ccm_wakeup_network(ccm_);
  std::set<int> client_ports;
  int clients[3];
  for (int& c : clients) {
    c = connect_client(port);
    client_ports.insert(local_port(c));
  }
  std::set<int> ids, announced_ports;
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

// One context listens and connects to itself: the accepted side greets with a native message,
// the connecting side answers with a NAT message; both arrive byte for byte.
TEST_F(ListenTest, GreetingAndNatAnswerThroughOneContext) {
  start();
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
  EXPECT_EQ(std::string(reinterpret_cast<char*>(got->msg_start), got->len), greeting);
  ccm_msg_free(ccm_, got);

  std::string payload;
  for (int i = 0; i < 3000; ++i)
    payload.push_back(static_cast<char>(i * 13));
  ccm_msg_t* n = ccm_msg_alloc(ccm_, &err_);
  std::memcpy(n->msg_start, payload.data(), payload.size());
  n->len = static_cast<int>(payload.size());
  ccm_setaddr(n, out_id, 0, "JPAKTJ_R", "MELD", 0x01020304);
  ccm_setback(n, "JOB", "JPMD", 7);
  ASSERT_EQ(send_NAT_message(ccm_, n), 0);
  got = next_message();
  ASSERT_NE(got, nullptr);
  EXPECT_EQ(got->type, CCM_MSG_NAT);
  EXPECT_EQ(got->addr.src_ID, in_id);
  EXPECT_STREQ(got->addr.dst_name, "MELD");
  EXPECT_EQ(got->addr.dst_acv, 0x01020304);
  EXPECT_STREQ(got->addr.src_name, "JPMD    ");  // source names keep their padding
  EXPECT_EQ(got->addr.src_acv, 7);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(got->msg_start), got->len), payload);
  ccm_msg_free(ccm_, got);
}

}  // namespace
