// Channel reading and writing, descriptor passing, the network thread, internal messages and
// listening, over socket pairs and loopback connections.
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <mutex>
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
void put(int fd, const std::string& bytes) {
  ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

// `bytes` with one descriptor attached.
void send_with_fd(int s, const std::string& bytes, int fd) {
  alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(int))] = {};
  iovec iov{const_cast<char*>(bytes.data()), bytes.size()};
  msghdr mh{};
  mh.msg_iov = &iov;
  mh.msg_iovlen = 1;
  mh.msg_control = control;
  mh.msg_controllen = sizeof control;
  cmsghdr* c = CMSG_FIRSTHDR(&mh);
  c->cmsg_level = SOL_SOCKET;
  c->cmsg_type = SCM_RIGHTS;
  c->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(c), &fd, sizeof(int));
  ASSERT_EQ(sendmsg(s, &mh, 0), static_cast<ssize_t>(bytes.size()));
}
// The descriptor in a message's control data, or -1.
int passed_fd(const ccm_msg_t* m) {
  int fd = -1;
  if (m->control_len >= CMSG_LEN(sizeof fd)) std::memcpy(&fd, m->control_data + CMSG_LEN(0), 4);
  return fd;
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
  int read_all() {  // until the socket has nothing more, as the select loop would
    int rslt = 0, n = 0;
    while (rslt == 0 && recv(ch_->s, &n, 1, MSG_PEEK | MSG_DONTWAIT) > 0)
      rslt = ccm_read_channel(ccm_, ch_, &err_);
    return rslt;
  }
  std::vector<std::string> take_bodies() {  // freed, in order
    std::vector<std::string> bodies;
    while (ccm_msg_t* m = ccm_queue_pop(ccm_->recvq)) {
      EXPECT_EQ(m->type, CCM_MSG_IPC);
      EXPECT_EQ(m->addr.src_ID, ch_->ID);
      bodies.push_back(text(m));
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
  put(peer_, a + b + c.substr(0, 150));
  EXPECT_EQ(ccm_read_channel(ccm_, ch_, &err_), 0);
  EXPECT_EQ(take_bodies(), (std::vector<std::string>{body_of(a), body_of(b)}));
  ASSERT_EQ(ch_->recv_pos, 150);
  put(peer_, c.substr(150));
  EXPECT_EQ(ccm_read_channel(ccm_, ch_, &err_), 0);
  EXPECT_EQ(take_bodies(), std::vector<std::string>{body_of(c)});
  const std::string f = ipc_frame(60, 4);
  for (size_t i = 0; i < f.size(); ++i) {
    put(peer_, f.substr(i, 1));
    ASSERT_EQ(ccm_read_channel(ccm_, ch_, &err_), 0) << "byte " << i;
    ASSERT_EQ(take_bodies().size(), i + 1 == f.size() ? 1u : 0u) << "byte " << i;
  }
  EXPECT_EQ(ch_->recv_pos, 0);
}

// A bad length deletes the channel with an error before any buffer grows; a partner's close
// deletes it without one.
TEST_F(IoTest, InvalidLengthIsRejectedAtOnceAndPartnerCloseWithoutError) {
  for (const char* length : {"0000004x", "00000047", "16777217", "99999999"}) {
    ccm_channel_t* ch = nullptr;
    const int peer = paired_channel(&ch);
    std::string f = ipc_frame(100, 6);
    f.replace(0, 8, length);
    f.resize(8192 + 100, 'x');  // more than the first buffer holds
    put(peer, f);
    EXPECT_EQ(ccm_read_channel(ccm_, ch, &err_), -1);
    EXPECT_TRUE(ch->flag & CCM_CHFLAG_DELETED) << length;
    EXPECT_EQ(ch->msgnr, CCM_MSGNR_RECEIVE_ERROR);
    EXPECT_EQ(ch->recv_size, CCM_RECV_GROW_STEP);
    close(peer);
  }
  EXPECT_TRUE(take_bodies().empty());
  close(peer_);
  peer_ = -1;
  EXPECT_EQ(ccm_read_channel(ccm_, ch_, &err_), -1);
  EXPECT_TRUE(deleted());
  EXPECT_EQ(ch_->msgnr, 0);
  EXPECT_TRUE(ccm_->flag & CCM_FLAG_CHANNEL_DELETED);
}

// One read completes two frames and carries one descriptor: only the first message owns it.
TEST_F(IoTest, PassedDescriptorGoesToTheFirstFrameOfTheReadOnly) {
  int pipefd[2];
  ASSERT_EQ(pipe(pipefd), 0);
  send_with_fd(peer_, ipc_frame(60, 1) + ipc_frame(70, 2), pipefd[1]);
  close(pipefd[1]);
  EXPECT_EQ(ccm_read_channel(ccm_, ch_, &err_), 0);
  std::vector<int> passed;
  while (ccm_msg_t* m = ccm_queue_pop(ccm_->recvq)) {
    passed.push_back(passed_fd(m));
    ccm_msg_free(ccm_, m);
  }
  ASSERT_EQ(passed.size(), 2u);
  EXPECT_EQ(passed[1], -1);
  ASSERT_GE(passed[0], 0);
  ASSERT_EQ(write(passed[0], "x", 1), 1);
  close(passed[0]);
  char byte;
  EXPECT_EQ(read(pipefd[0], &byte, 1), 1);
  EXPECT_EQ(read(pipefd[0], &byte, 1), 0);
  close(pipefd[0]);
}

// Three queued messages go out in order over many partial writes, each resuming where the
// last stopped; a closed partner deletes the channel without a SIGPIPE.
TEST_F(IoTest, QueuedMessagesResumeAfterPartialWritesAndAClosedPartnerDeletes) {
  const int small = 4096;
  ASSERT_EQ(setsockopt(ch_->s, SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
  fcntl(ch_->s, F_SETFL, fcntl(ch_->s, F_GETFL) | O_NONBLOCK);
  auto queue = [&](int len, int seed) {  // as the dispatcher does
    ccm_msg_t* m = ccm_msg_alloc_huge(ccm_, std::max(len, CCM_MSG_POOL_SIZE), &err_);
    std::memcpy(m->msg_start, ipc_frame(len + 48, seed).data() + 48, len);
    m->len = len;
    ccm_queue_unlink(ccm_->msgq_inuse, m);
    ccm_queue_append(ch_->sendq, m);
    return m;
  };
  ccm_msg_t* big = queue(70000, 1);
  queue(100, 2);
  queue(300, 3);
  EXPECT_EQ(ccm_write_channel(ccm_, ch_, &err_), 0);
  ASSERT_EQ(ch_->sendq.head, big);
  const int first = big->pos;
  EXPECT_GT(first, 0);
  EXPECT_EQ(ccm_write_channel(ccm_, ch_, &err_), 0);  // nothing drained: no progress
  EXPECT_EQ(big->pos, first);
  std::string got;
  char buf[65536];
  for (int round = 0; round < 1000 && got.size() < 70400; ++round) {
    for (ssize_t n; (n = recv(peer_, buf, sizeof buf, MSG_DONTWAIT)) > 0;)
      got.append(buf, n);
    ASSERT_EQ(ccm_write_channel(ccm_, ch_, &err_), 0);
  }
  EXPECT_EQ(got,
            body_of(ipc_frame(70048, 1)) + body_of(ipc_frame(148, 2)) + body_of(ipc_frame(348, 3)));
  EXPECT_EQ(ch_->sendq.head, nullptr);
  close(peer_);
  peer_ = -1;
  queue(200, 4);
  EXPECT_EQ(ccm_write_channel(ccm_, ch_, &err_), -1);
  EXPECT_TRUE(deleted());
  EXPECT_EQ(ch_->msgnr, CCM_MSGNR_SEND_ERROR);
}

std::mutex log_mutex;  // entries come from both threads
std::vector<std::pair<int, std::string>> logged;
int record_log(int msgnr, const char* insert) {
  std::lock_guard<std::mutex> lock(log_mutex);
  logged.emplace_back(msgnr, insert);
  return 0;
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
  bool joined() {  // within 5 seconds
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 5;
    if (pthread_timedjoin_np(ccm_->thread, nullptr, &deadline) != 0) return false;
    ccm_->thread_started = 0;
    return true;
  }
};

// Messages go to their channel by ID or to the server by name, in order; one for an unknown
// channel is freed, one marked to be kept is left to its owner.
TEST_F(NetThreadTest, DispatchRoutesByIdOrNameAndFreesTheUnroutable) {
  ccm_channel_t* by_id = entered_channel(CCM_CHTYPE_NONE);
  ccm_channel_t* server = entered_channel(CCM_CHTYPE_CP);
  std::strcpy(server->name, "*SERVER");
  ccm_flag_set(server->flag, CCM_CHFLAG_NAT_02);
  server->pATctx = &err_;
  ccm_msg_t* to_id = send(by_id->ID, "", std::string(60, 'i'));
  send(999, "", std::string(60, 'u'));
  ccm_msg_t* to_cp = send(0, "*CP(host)", std::string(60, 'c'));
  to_cp->type = CCM_MSG_NAT;
  ccm_msg_t* kept = send(998, "", std::string(60, 'k'), CCM_MSGFLAG_KEEP);
  ccm_msg_t* to_id2 = send(by_id->ID, "", std::string(60, 'j'));
  const int free_before = ccm_->nof_freemsg;
  EXPECT_EQ(ccm_dispatch_send_messages(ccm_), 0);
  EXPECT_EQ(members(by_id->sendq), (std::vector<ccm_msg_t*>{to_id, to_id2}));
  EXPECT_EQ(members(server->sendq), std::vector<ccm_msg_t*>{to_cp});
  EXPECT_TRUE(to_cp->flag & CCM_MSGFLAG_CHANNEL_02);
  EXPECT_EQ(to_cp->pATctx, &err_);
  EXPECT_FALSE(to_id->flag & CCM_MSGFLAG_CHANNEL_02);
  EXPECT_EQ(ccm_->nof_freemsg, free_before + 1);  // the message for channel 999
  EXPECT_EQ(ccm_->sendq.head, nullptr);
  EXPECT_FALSE(channel_lock_held(ccm_));
  ccm_msg_free(ccm_, kept);
}

// A flood of 48-byte frames nobody takes is read up to the unread bound and then held, in
// little memory; with the processor pipe full a notice still goes through without blocking;
// once the messages are taken, reading resumes and every frame arrives.
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

// A select that keeps failing (a closed socket number) is logged each time, and after a few
// failures in a row the thread ends by itself.
TEST_F(NetThreadTest, PersistentSelectFailureEndsTheThreadWithItsErrorLogged) {
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

// Internal types match over all 16 bytes of a long enough record; others are logged.
TEST_F(CcmTest, IpcTypesAreMatchedOverAllSixteenBytes) {
  const struct {
    char type[17];
    int len, rslt;
  } cases[] = {{"CHANNEL_CLOSE\0\0\0", 40, 0},
               {"CHANNEL_CLOSE\0X\0", 40, -1},   // a byte after the terminator
               {"CHANNEL_CLOSE\0\0\0", 14, -1},  // too short to hold the type field
               {"CHANNEL_ACCEPT\0\0", 20, -1},   // known to the system, handled by nobody
               {"ROUTENAT\0\0\0\0\0\0\0\0", 40, -1}};
  __log_set_logger(record_log);
  for (const auto& k : cases) {
    logged.clear();
    ccm_msg_t* m = ccm_msg_alloc(ccm_, &err_);
    std::memset(m->msg_start, 0, k.len);
    std::memcpy(m->msg_start, k.type, 16);
    m->len = k.len;
    std::strcpy(m->addr.src_name, "PARTNER");
    EXPECT_EQ(process_IPC_message(&app_, ccm_, m), k.rslt) << k.type;
    ccm_msg_free(ccm_, m);
    EXPECT_EQ(logged.size(), k.rslt == 0 ? 0u : 2u);
    if (k.rslt != 0) {
      EXPECT_EQ(logged.back().second, "PARTNER|");
    }
  }
  __log_set_logger(nullptr);
  ccm_msg_t* probe = ccm_msg_alloc(ccm_, &err_);  // an empty message forgets the context
  process_IPC_message(nullptr, ccm_, probe);
  ccm_msg_free(ccm_, probe);
}

int local_port(int s) {
  sockaddr_in6 a{};
  socklen_t len = sizeof a;
  getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
  return ntohs(a.sin6_port);  // sin_port stands at the same offset
}
int connect_client(int port, int rcvbuf = 0) {
  const int c = socket(AF_INET, SOCK_STREAM, 0);
  if (rcvbuf > 0) setsockopt(c, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
  sockaddr_in a{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
  EXPECT_EQ(connect(c, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  return c;
}
// The channel ID of an accept notice, or -1 for any other message; the message is freed.
int accepted_id(ccm_context_t* ccm, ccm_msg_t* m) {
  int id = -1;
  if (m != nullptr && m->len == 20 &&
      std::strcmp(reinterpret_cast<char*>(m->msg_start), "CHANNEL_ACCEPT") == 0)
    std::memcpy(&id, m->msg_start + 16, sizeof id);
  if (m != nullptr) ccm_msg_free(ccm, m);
  return id;
}
// The port of a channel, or -1 when there is none; the channel named "*LISTEN" for ID 0.
int channel_port(ccm_context_t* ccm, int id) {
  ccm_channel_t* ch = id ? ccm_channel_getbyID(ccm, id) : ccm_channel_getbyName(ccm, "*LISTEN");
  if (ch == nullptr) return -1;
  const int port = id ? ch->port : local_port(ch->s);
  ccm_channel_unlock(ccm);
  return port;
}

class ListenTest : public NetThreadTest {
 protected:
  // Starts the thread and a loopback listener; its port.
  int listen_started() {
    start_thread();
    EXPECT_EQ(ccm_create_listen(ccm_, "127.0.0.1", 0, 5, &err_), 0);
    ccm_wakeup_network(ccm_);
    return channel_port(ccm_, 0);
  }
  int accepted() { return accepted_id(ccm_, next_message()); }
};

// A taken port, a bad port or no channel entry: -1 and no socket left open.
TEST_F(ListenTest, FailuresLeaveNoSocketOpen) {
  ASSERT_EQ(ccm_create_listen(ccm_, "127.0.0.1", 0, 5, &err_), 0);
  const int port = channel_port(ccm_, 0);
  const int before = dup(0);  // the lowest free descriptor
  close(before);
  EXPECT_EQ(ccm_create_listen(ccm_, "127.0.0.1", port, 5, &err_), -1);
  EXPECT_EQ(err_.msgnr, CCM_MSGNR_SYSCALL);
  EXPECT_EQ(ccm_create_listen(ccm_, "127.0.0.1", 65536, 5, &err_), -1);
  {
    FailAllocations fail("CREATE_CHANNEL");
    EXPECT_EQ(ccm_create_listen(ccm_, "127.0.0.1", 0, 5, &err_), -1);
  }
  EXPECT_EQ(dup(0), before);
  close(before);
  // Without a message for its notice, an accepted connection is closed again.
  const int client = connect_client(port);
  merge_newq();
  {
    FailAllocations fail("CCMMSG");
    EXPECT_EQ(ccm_signal_on_listen(ccm_, ccm_->channelq.head, &err_), -1);
  }
  EXPECT_EQ(ccm_->channel_newq.head, nullptr);
  EXPECT_TRUE(drain_recvq().empty());
  char byte;
  EXPECT_LE(read(client, &byte, 1), 0);
  close(client);
  EXPECT_FALSE(ccm_->channelq.head->flag & CCM_CHFLAG_DELETED);
}

// A partner on a zero window that sends garbage or half-closes loses its channel at once, and
// the close never holds the thread: stop and join take far less than a lingering close.
TEST_F(ListenTest, ClosingAChannelStuckOnAZeroWindowNeverWaits) {
  const int port = listen_started();
  std::vector<int> clients;
  for (const bool garbage : {true, false}) {
    clients.push_back(connect_client(port, 1));
    const int id = accepted();
    ASSERT_GT(id, 0);
    ccm_msg_t* big = ccm_msg_alloc_huge(ccm_, 1 << 20, &err_);
    big->len = 1 << 20;
    ccm_setaddr(big, id, 0, "", "", 0);
    ccm_send_message_common(ccm_, big, "test");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the window closes
    if (garbage) {
      put(clients.back(), "GET / HTTP/1.0\r\n\r\n");
    } else {
      shutdown(clients.back(), SHUT_WR);
    }
    ccm_msg_t* closed = next_message();
    ASSERT_NE(closed, nullptr);
    EXPECT_EQ(ccm_close_notice_channelID(closed), id);
    ccm_msg_free(ccm_, closed);
  }
  const auto t0 = Clock::now();
  ccm_thread_stop(ccm_);
  EXPECT_TRUE(joined());
  EXPECT_LT(seconds_since(t0), 5.0);
  for (int c : clients)
    close(c);
}

// Internal frames over TCP, forged notices among them, end the sender's channel with an
// error and reach nobody; the listener and the other connections stay as they were.
TEST_F(ListenTest, ForgedInternalFramesDropTheSenderAndChangeNothing) {
  const int port = listen_started();
  int honest[2], honest_id[2];
  for (int i = 0; i < 2; ++i) {
    honest[i] = connect_client(port);
    honest_id[i] = accepted();
    ASSERT_GT(honest_id[i], 0);
  }
  const auto notice = [](const char* type, int id) {
    std::string rec(16, '\0');
    rec.replace(0, std::strlen(type), type);
    return frame(rec + std::string(reinterpret_cast<const char*>(&id), 4), "IPC");
  };
  const std::string forged[] = {
      notice("CHANNEL_ACCEPT", honest_id[0]), notice("CHANNEL_CLOSE", 1),  // the listener
      notice("CHANNEL_CLOSE", honest_id[1]), notice("ROUTENAT", honest_id[0]), ipc_frame(300, 3)};
  for (const std::string& f : forged) {
    SCOPED_TRACE(testing::PrintToString(f.substr(48, 16)));
    const int attacker = connect_client(port);
    const int id = accepted();
    ASSERT_GT(id, 0);
    put(attacker, f);
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
    for (int i = 0; i < 2; ++i)
      EXPECT_EQ(channel_port(ccm_, honest_id[i]), local_port(honest[i]));
    EXPECT_GT(channel_port(ccm_, 1), -1);  // the listener
  }
  ccm_msg_t* extra = nullptr;
  EXPECT_EQ(ccm_receive_message(ccm_, 0, &extra, &err_), 0);
  for (int c : honest)
    close(c);
}

// A context of its own whose two paired channels greet each other `rounds` times; what went
// wrong, or "".
std::string exchange_in_own_context(int mode, bool gss, int rounds) {
  ccm_app_context_head app{};
  app.running_mode = mode;
  ccm_context_t* ccm = nullptr;
  ccm_error_t err{};
  ccm_channel_t *a = nullptr, *b = nullptr;
  if (ccm_session_open(&app, &ccm, &err) != 0) return err.msginsert;
  if (gss) ccm_set_gss_classifier(ccm, [](ccm_context_t*, ccm_msg_t*) { return 1; });
  std::string fault = ccm_channel_create_pair(ccm, &a, &b, &err) == 0 ? "" : "no pair";
  const int ids[2] = {a ? a->ID : 0, b ? b->ID : 0};
  for (int r = 0; r < rounds && fault.empty(); r++) {
    std::string word = "mode " + std::to_string(mode) + " round " + std::to_string(r);
    ccm_msg_t* g = ccm_msg_alloc(ccm, &err);
    ccm_msg_write_native_data(g, 4, word.data(), static_cast<int>(word.size()));
    ccm_setaddr(g, ids[r % 2], 0, "", "", 0);
    send_native_message(ccm, g);
    ccm_msg_t* got = nullptr;
    for (int i = 0; i < 50 && got == nullptr; i++)
      ccm_receive_message_ms(ccm, 100, &got, &err);
    if (got == nullptr || got->type != (gss ? CCM_MSG_GSS : CCM_MSG_NATIVE) ||
        got->addr.src_ID != ids[1 - r % 2] || (!gss && text(got) != word))
      fault = "round " + std::to_string(r) + " lost or mixed up";
    if (got != nullptr) ccm_msg_free(ccm, got);
  }
  ccm_session_close(ccm, &err);
  return fault;
}

// Two contexts side by side, each with its own thread, sets and classifier: neither sees the
// other's traffic (and ThreadSanitizer sees no shared state).
TEST(Contexts, TwoContextsRunSideBySide) {
  std::string faults[2];
  std::thread other([&] { faults[1] = exchange_in_own_context(1, true, 200); });
  faults[0] = exchange_in_own_context(0, false, 200);
  other.join();
  EXPECT_EQ(faults[0] + faults[1], "");
}

}  // namespace
}  // namespace ccm_test
