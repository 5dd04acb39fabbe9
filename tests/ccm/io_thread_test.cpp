// Reading, writing, descriptor passing, the network thread, internal messages, listening.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/trace_log.h"
#include "support/agent.h"
#include "support/ccm.h"

namespace ccm_test {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
using namespace std::string_literals;
void put(int fd, const std::string& bytes) {
  ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

std::mutex log_mutex;  // entries come from both threads
std::vector<std::pair<int, std::string>> logged;
int record_log(int msgnr, const char* insert) {
  std::lock_guard<std::mutex> lock(log_mutex);
  logged.emplace_back(msgnr, insert);
  return 0;
}

class IoTest : public CcmTest {
 protected:
  void SetUp() override {
    CcmTest::SetUp();
    peer_ = paired_channel(&ch_);
  }
  void TearDown() override {
    close(peer_);
    CcmTest::TearDown();
  }
  ccm_msg_t* send(int dst_ID, const char* dst_addr, const std::string& bytes) {
    ccm_msg_t* m = ccm_msg_alloc_huge(ccm_, std::max<int>(bytes.size(), CCM_MSG_POOL_SIZE), &err_);
    std::memcpy(m->msg_start, bytes.data(), bytes.size());
    m->len = static_cast<int>(bytes.size());
    ccm_setaddr(m, dst_ID, 0, dst_addr, "", 0);
    return ccm_send_message_common(ccm_, m, "test"), m;
  }
  bool joined() {  // within 5 seconds
    const timespec deadline{time(nullptr) + 5, 0};
    if (pthread_timedjoin_np(ccm_->thread, nullptr, &deadline) != 0) return false;
    return ccm_->thread_started = 0, true;
  }
  int peer_ = -1;
  ccm_channel_t* ch_ = nullptr;
};

// Frames split anywhere arrive whole; a bad length deletes the channel before buffers grow.
TEST_F(IoTest, FramesSplitAnywhereArriveWholeAndABadLengthDeletes) {
  const std::string a = ipc_frame(100, 1), b = ipc_frame(48, 2), c = ipc_frame(300, 3);
  put(peer_, a + b + c.substr(0, 150));  // no buffer to read into yet: all stays for later
  EXPECT_EQ((FailAllocations("RECVBUFF"),
             std::tuple{ccm_read_channel(ccm_, ch_, &err_), ch_->flag & CCM_CHFLAG_DELETED}),
            std::tuple(-1, 0));
  EXPECT_EQ(ccm_read_channel(ccm_, ch_, &err_), 0);
  EXPECT_EQ(drain_recvq(), (std::vector<std::string>{a.substr(48), b.substr(48)}));
  EXPECT_EQ(
      (put(peer_, c.substr(150)), FailAllocations("CCMMSG"), ccm_read_channel(ccm_, ch_, &err_)),
      -1);  // read, but no message for it: the frame waits in the buffer
  EXPECT_EQ((put(peer_, b), ccm_read_channel(ccm_, ch_, &err_)), 0);
  EXPECT_EQ(drain_recvq(), (std::vector<std::string>{c.substr(48), b.substr(48)}));
  for (size_t i = 0; i < a.size(); ++i) {
    put(peer_, a.substr(i, 1));
    ASSERT_EQ(ccm_read_channel(ccm_, ch_, &err_), 0) << "byte " << i;
    ASSERT_EQ(drain_recvq().size(), i + 1 == a.size() ? 1u : 0u) << "byte " << i;
  }
  put(peer_, "0000004x" + ipc_frame(100, 6).substr(8) + std::string(8192, 'x'));  // > 1 buffer
  EXPECT_EQ((std::tuple{ccm_read_channel(ccm_, ch_, &err_), ch_->flag & CCM_CHFLAG_DELETED,
                        ch_->msgnr, ch_->recv_size}),
            std::tuple(-1, CCM_CHFLAG_DELETED, CCM_MSGNR_RECEIVE_ERROR, CCM_RECV_GROW_STEP));
}

// A read completing two frames gives its descriptor to the first; one completing none closes it.
TEST_F(IoTest, PassedDescriptorGoesToTheFirstFrameOfTheReadOnly) {
  int pipefd[2];
  ASSERT_EQ(pipe(pipefd), 0);
  EXPECT_EQ((FailAllocations("CCMMSG"), send_file_descriptor(ccm_, "", pipefd[1], 5, 6, "")), -1);
  ASSERT_EQ(send_file_descriptor(ccm_, ch_->name, pipefd[1], 5, 6, "JOBOUTPUT"), 0);  // queued
  EXPECT_STREQ(ccm_->sendq.tail->addr.dst_addr, ch_->name);
  merge_newq(), ccm_dispatch_send_messages(ccm_), ccm_write_channel(ccm_, ch_, &err_);
  std::string both(512, '\0');  // the message goes out with the descriptor: a copy, closed here
  alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(int))] = {};
  iovec iov{both.data(), both.size()};
  msghdr mh{nullptr, 0, &iov, 1, control, sizeof control, 0};
  cmsghdr* c = CMSG_FIRSTHDR(&mh);
  ASSERT_TRUE(recvmsg(peer_, &mh, 0) > 0 && c->cmsg_type == SCM_RIGHTS &&
              close(*reinterpret_cast<int*>(CMSG_DATA(c))) == 0);
  iov = {(both = ipc_frame(60, 1) + ipc_frame(70, 2)).data(), both.size()};
  *c = {CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
  std::memcpy(CMSG_DATA(c), &pipefd[1], sizeof(int));
  ASSERT_EQ(sendmsg(peer_, &mh, 0), static_cast<ssize_t>(both.size()));
  EXPECT_EQ(close(pipefd[1]) + ccm_read_channel(ccm_, ch_, &err_), 0);
  std::vector<int> passed;  // the descriptor of each message, or -1
  while (ccm_msg_t* m = ccm_queue_pop(ccm_->recvq)) {
    passed.push_back(-1);
    if (m->control_len >= CMSG_LEN(sizeof(int)))
      std::memcpy(&passed.back(), m->control_data + (CMSG_DATA(c) - control), sizeof(int));
    ccm_msg_free(ccm_, m);
  }
  ASSERT_EQ(passed.size(), 2u);
  char byte;  // the first owns the pipe's only other copy, the second none
  EXPECT_EQ((std::tuple{passed[1], write(passed[0], "x", 1), close(passed[0]),
                        read(pipefd[0], &byte, 1), read(pipefd[0], &byte, 1), close(pipefd[0])}),
            std::tuple(-1, 1, 0, 1, 0, 0));
  ASSERT_EQ(pipe2(pipefd, O_NONBLOCK), 0);  // with bytes that complete no frame: closed at once
  const int on = 1;  // and behind the sender's credentials, which are no descriptors
  setsockopt(ch_->s, SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
  std::memcpy(CMSG_DATA(c), &pipefd[1], sizeof(int));
  iov.iov_len = 10;
  ASSERT_EQ(sendmsg(peer_, &mh, 0), 10);
  EXPECT_EQ((std::tuple{close(pipefd[1]), ccm_read_channel(ccm_, ch_, &err_),
                        read(pipefd[0], &byte, 1), close(pipefd[0])}),
            std::tuple(0, 0, 0, 0));
  EXPECT_EQ((close(std::exchange(peer_, -1)), ccm_read_channel(ccm_, ch_, &err_)), -1);  // closed
}

// Queued messages resume after partial writes; a closed partner deletes without SIGPIPE.
TEST_F(IoTest, QueuedMessagesResumeAfterPartialWritesAndAClosedPartnerDeletes) {
  const int small = 4096;
  ASSERT_EQ(setsockopt(ch_->s, SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
  fcntl(ch_->s, F_SETFL, O_NONBLOCK);
  const std::string out[] = {ipc_frame(70000, 1), ipc_frame(100, 2), ipc_frame(300, 3)};
  for (const std::string& f : out)
    send(ch_->ID, "", f);
  merge_newq();
  ASSERT_EQ(ccm_dispatch_send_messages(ccm_), 0);
  ccm_msg_t* big = ch_->sendq.head;
  EXPECT_EQ(ccm_write_channel(ccm_, ch_, &err_), 0);
  EXPECT_GT(big->pos, 0);
  std::string got;
  char buf[65536];
  for (int round = 0; round < 1000 && got.size() < 70400; ++round) {
    for (ssize_t n; (n = recv(peer_, buf, sizeof buf, MSG_DONTWAIT)) > 0;)
      got.append(buf, n);
    ASSERT_EQ(ccm_write_channel(ccm_, ch_, &err_), 0);
  }
  EXPECT_EQ(got, out[0] + out[1] + out[2]);
  const int wakeup = std::exchange(ccm_->processor_wakeup[0], -1);  // no pipe to wait on
  ccm_msg_t* none = nullptr;
  EXPECT_EQ(ccm_receive_message(ccm_, 0, &none, &err_), -1);
  ccm_->processor_wakeup[0] = wakeup;
  rlimit old{};  // poll refuses to watch more descriptors than the process may have
  getrlimit(RLIMIT_NOFILE, &old);
  const rlimit zero{0, old.rlim_max};
  EXPECT_EQ((setrlimit(RLIMIT_NOFILE, &zero), ccm_receive_message_ms(ccm_, 1000, &none, &err_)),
            -1);
  setrlimit(RLIMIT_NOFILE, &old);
  shutdown(peer_, SHUT_RD);
  send(ch_->ID, "", out[1]);
  ccm_dispatch_send_messages(ccm_);  // a drain ends at its deadline, or when its channel is gone
  EXPECT_EQ((std::tuple{ccm_drain_sendq(ccm_, ch_->ID, 0), ccm_drain_sendq(ccm_, 999, 1000)}),
            std::tuple(0, -1));
  EXPECT_EQ(
      (std::tuple{ccm_write_channel(ccm_, ch_, &err_), ch_->flag & CCM_CHFLAG_DELETED, ch_->msgnr}),
      std::tuple(-1, CCM_CHFLAG_DELETED, CCM_MSGNR_SEND_ERROR));
}

// One cycle dispatches by ID or server name and serves the live channel behind unusable ones.
TEST_F(IoTest, CycleDispatchesAndServesTheLiveChannelBehindOthers) {
  ccm_channel_t* server = new_channel(CCM_CHTYPE_NOSOCKET);  // keeps what it is sent
  std::strcpy(server->name, "*SERVER");
  ccm_flag_set(server->flag, CCM_CHFLAG_NAT_02);
  ccm_channel_delete(ccm_, new_channel(CCM_CHTYPE_SILENT));
  ccm_channel_t* beyond = new_channel(CCM_CHTYPE_SILENT);
  beyond->s = CCM_MAX_WATCHED_FD + 1;  // never opened: it must not reach select
  ccm_channel_t* live = nullptr;
  const int peer = paired_channel(&live);
  const std::string f = ipc_frame(64, 'z');
  put(peer, f);
  send(999, "", f);
  ccm_msg_t* kept = send(998, "", f);
  kept->flag = CCM_MSGFLAG_KEEP;
  ccm_msg_t* to_cp = send(0, "*CP(host)", f);
  to_cp->type = CCM_MSG_NAT;
  ccm_msg_t* plain = send(0, "*SERVER", f);  // not NAT: unmarked
  send(live->ID, "", f.substr(0, 60));
  send(live->ID, "", f.substr(60));
  put(ccm_->network_wakeup[1], std::string(5000, 'N'));  // more than one read of the drain
  const int free_before = ccm_->nof_freemsg;
  EXPECT_EQ(ccm_network_select(ccm_, 5, &err_), 0);
  EXPECT_EQ(ccm_->nof_freemsg, free_before + 3);  // the one to 999 and the two written
  EXPECT_EQ(members(server->sendq), (std::vector<ccm_msg_t*>{to_cp, plain}));
  EXPECT_TRUE((to_cp->flag & CCM_MSGFLAG_CHANNEL_02) && !(plain->flag & CCM_MSGFLAG_CHANNEL_02));
  EXPECT_EQ(beyond->msgnr, CCM_MSGNR_SYSCALL);
  beyond->s = -1;
  EXPECT_EQ(drain_recvq(), std::vector<std::string>{f.substr(48)});
  char back[65];
  const ssize_t n = recv(peer, back, sizeof back, MSG_DONTWAIT);
  EXPECT_EQ(std::string(back, std::max<ssize_t>(n, 0)), f);
  EXPECT_EQ(read(ccm_->network_wakeup[0], back, 1), -1);  // every wake-up byte taken
  ccm_drain_wakeup(ccm_->network_wakeup[0]);              // and an empty pipe's drain returns
  close(peer);
  ccm_msg_free(ccm_, kept);
}

// A flood is held at the unread bound in little memory; a notice never blocks; all arrive.
TEST_F(IoTest, FloodOfSmallFramesIsHeldAtTheUnreadBound) {
  start_thread();
  ccm_wakeup_network(ccm_);
  fcntl(peer_, F_SETFL, O_NONBLOCK);
  qxtest::reset_peak_memory();
  const long before_kb = qxtest::peak_memory_kb();
  std::string stream;  // identical frames: a write cut anywhere goes on at offset % 48
  for (int i = 0; i < 256; ++i)
    stream += ipc_frame(48, 0);
  long long bytes = 0;
  auto put_more = [&](size_t upto) {
    const size_t at = static_cast<size_t>(bytes % 48);
    const ssize_t n = write(peer_, stream.data() + at, upto - at);
    bytes += std::max<ssize_t>(n, 0);
    return n > 0;
  };
  for (auto progress = Clock::now(); Clock::now() - progress < 1s;) {
    if (put_more(stream.size())) progress = Clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_LT(bytes, 100LL << 20) << "the channel was never held";
  }
  EXPECT_TRUE(ccm_flag_get(ch_->flag) & CCM_CHFLAG_RECV_HELD);
  const int unread = __atomic_load_n(&ch_->unread_msgs, __ATOMIC_SEQ_CST) - CCM_UNREAD_MAX_MSGS;
  EXPECT_TRUE(unread >= 0 && unread <= CCM_RECV_READ_AHEAD / 48) << unread;
  EXPECT_LT(qxtest::kSanitizerBuild ? 0 : qxtest::peak_memory_kb() - before_kb, 8 * 1024);
  while (write(ccm_->processor_wakeup[1], "P", 1) == 1) {
  }
  const auto t0 = Clock::now();
  ccm_msg_t* notice = ccm_msg_alloc(ccm_, &err_);
  std::strcpy(reinterpret_cast<char*>(notice->msg_start), "NOTICE");
  notice->len = 16;
  EXPECT_EQ(send_IPC_internal(ccm_, notice), 0);
  EXPECT_LT(Clock::now() - t0, 1s);
  long long received = 0;
  while (ccm_msg_t* m = next_message()) {
    received += m->addr.src_ID == ch_->ID ? 1 : 0;
    ccm_msg_free(ccm_, m);
    if (bytes % 48 != 0) put_more(48);  // the frame cut by the last write
    if (bytes % 48 == 0 && received == bytes / 48) break;
  }
  EXPECT_EQ(received * 48, bytes);
}

// Members up to maxfd; a list that does not fit is cut with ",..." after its last whole number.
TEST(FdsetText, MembersUpToMaxfdCutWithAMarker) {
  static ccm_fdset set{};
  for (int fd : {0, 3, 5, 1023, CCM_MAX_WATCHED_FD})
    set.add(fd);
  const std::tuple<int, int, std::string> cases[] = {
      {5, 64, "0,3,5"}, {4, 64, "0,3"},     {1 << 20, 64, "0,3,5,1023,65535"},
      {5, 10, "0,3,5"}, {5, 9, "0,3,..."},  {5, 5, ",..."},
      {5, 4, ""},       {5, 0, "as it was"}};
  for (const auto& [maxfd, size, want] : cases) {
    char work[64] = "as it was";
    EXPECT_EQ(ccm_fdset_text(work, size, &set, maxfd), want) << maxfd << " " << size;
  }
}

// A select that keeps failing is logged each time and then ends the thread by itself.
TEST_F(IoTest, PersistentSelectFailureEndsTheThreadWithItsErrorLogged) {
  logged.clear();
  __log_set_logger(record_log);
  EXPECT_EQ(ccm_network_select(ccm_, 0, &err_), 0);  // an idle cycle is no failure
  ccm_channel_t* bogus = new_channel();
  bogus->s = dup(0);  // a number in the descriptor table that is closed again at once
  close(bogus->s);
  start_thread();
  const bool ended = joined();
  __log_set_logger(nullptr);
  ASSERT_TRUE(ended);
  EXPECT_EQ(__atomic_load_n(&ccm_->loop, __ATOMIC_ACQUIRE), 1);  // nobody asked it to stop
  int select_errors = 0, ends = 0;
  for (const auto& [msgnr, insert] : logged) {
    select_errors += msgnr == CCM_MSGNR_SYSCALL && insert.starts_with("select(");
    ends += msgnr == CCM_MSGNR_THREAD;
  }
  EXPECT_EQ(std::tuple(select_errors, ends), std::tuple(CCM_SELECT_FAILURES_MAX, 1));
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
    EXPECT_EQ(process_IPC_message(&app_, ccm_, m), k.rslt) << k.type;
    ccm_msg_free(ccm_, m);
    EXPECT_EQ(logged.size(), k.rslt == 0 ? 0u : 2u);
  }
  __log_set_logger(nullptr);
  // The last handler's context names the connection manager that ipc_logger sends through.
  ASSERT_EQ((app_.ccm = ccm_, ipc_logger(2003060, "7/ID=1")), 0);
  const std::string rec = text(ccm_->sendq.head);
  EXPECT_EQ(
      std::string(ccm_->sendq.head->addr.dst_addr) + rec.substr(0, 8) + rec.substr(48, 28),
      "*IPC(AGENT)00001092LOGGING"s + std::string(9, '\0') + "\x74\x90\x1E\0"s + "7/ID=1\0\0"s);
  ccm_msg_free(ccm_, ccm_queue_pop(ccm_->sendq));
  EXPECT_EQ((app_.ccm = nullptr, ipc_logger(2003060, "")), -1);
}

int listener_port(ccm_context_t* ccm) {  // of the channel "*LISTEN", or -1
  ccm_channel_t* ch = ccm_channel_getbyName(ccm, "*LISTEN");
  sockaddr_in a{};
  socklen_t len = sizeof a;
  if (ch == nullptr) return -1;
  getsockname(ch->s, reinterpret_cast<sockaddr*>(&a), &len);
  return ccm_channel_unlock(ccm), ntohs(a.sin_port);
}

class ListenTest : public IoTest {
 protected:
  int listen_started() {  // the port of a loopback listener served by the thread
    start_thread();
    EXPECT_EQ(ccm_create_listen(ccm_, "127.0.0.1", 0, 5, &err_), 0);
    ccm_wakeup_network(ccm_);
    return listener_port(ccm_);
  }
  int accepted() {  // the channel ID of the next accept notice, or -1
    ccm_msg_t* m = next_message();
    int id = -1;
    if (m != nullptr && m->len == 20 && text(m).rfind("CHANNEL_ACCEPT\0", 0) == 0)
      std::memcpy(&id, m->msg_start + 16, sizeof id);
    if (m != nullptr) ccm_msg_free(ccm_, m);
    return id;
  }
};

// Failing to listen, to start the thread or to make a pair leaves no descriptor open; an accept
// without a channel or notice closes the connection again.
TEST_F(ListenTest, FailuresLeaveNoSocketOpen) {
  ASSERT_EQ(ccm_create_listen(ccm_, "127.0.0.1", 0, 5, &err_), 0);
  int port = listener_port(ccm_);
  const int lowest = dup(0);
  close(lowest);
  for (auto [host, at] :
       {std::pair{"127.0.0.1", port}, {"127.0.0.1", 65536}, {"no-such-host.invalid", 0}})
    EXPECT_EQ(ccm_create_listen(ccm_, host, at, 5, &err_), -1) << host << at;
  rlimit old{};
  getrlimit(RLIMIT_NOFILE, &old);
  const rlimit none{3, old.rlim_max};  // no descriptor but the standard ones
  ccm_channel_t* pair[2];  // a listener, the thread's pipes, a pair: nothing without descriptors
  EXPECT_EQ(
      (setrlimit(RLIMIT_NOFILE, &none),
       std::tuple{ccm_create_listen(ccm_, "127.0.0.1", 0, 5, &err_), ccm_thread_start(ccm_, &err_),
                  ccm_channel_create_pair(ccm_, &pair[0], &pair[1], &err_)}),
      std::tuple(-1, -1, -1));
  setrlimit(RLIMIT_NOFILE, &old);
  ASSERT_EQ(ccm_create_wakeup_pipes(ccm_, &err_), 0);  // in the numbers the failed start closed
  EXPECT_EQ((FailAllocations("CREATE_CHANNEL"),
             std::tuple{ccm_create_listen(ccm_, "127.0.0.1", 0, 5, &err_),
                        ccm_channel_create_pair(ccm_, &pair[0], &pair[1], &err_)}),
            std::tuple(-1, -1));
  EXPECT_EQ(dup(0), lowest);
  close(lowest);
  merge_newq();
  ccm_channel_t* listener = ccm_channel_getbyName(ccm_, "*LISTEN");
  ccm_channel_unlock(ccm_);
  EXPECT_EQ(ccm_signal_on_listen(ccm_, listener, &err_), -1);  // nothing waiting
  for (const char* tag : {"CREATE_CHANNEL", "CCMMSG"}) {  // an accept without a channel or notice
    const int client = agent_test::loopback_socket(&port, false);
    char byte;
    EXPECT_EQ((FailAllocations(tag), ccm_signal_on_listen(ccm_, listener, &err_)), -1) << tag;
    EXPECT_LE(read(client, &byte, 1), 0) << tag;
    close(client);
  }
  EXPECT_EQ(ccm_->channel_newq.head, nullptr);
}

// A channel stuck on a zero window closes at once, and its close never holds the thread.
TEST_F(ListenTest, ClosingAChannelStuckOnAZeroWindowNeverWaits) {
  int port = listen_started();
  std::vector<int> clients;
  for (const bool garbage : {true, false}) {
    clients.push_back(agent_test::loopback_socket(&port, false, 1));
    const int id = accepted();
    ASSERT_GT(id, 0);
    send(id, "", std::string(1 << 20, 'z'));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the window closes
    garbage ? put(clients.back(), "GET / HTTP/1.0\r\n\r\n")
            : (void)shutdown(clients.back(), SHUT_WR);
    EXPECT_EQ(closed_channel(), id);
  }
  const auto t0 = Clock::now();
  ccm_thread_stop(ccm_);
  EXPECT_TRUE(joined());
  EXPECT_LT(Clock::now() - t0, 5s);
  for (int c : clients)
    close(c);
}

// Forged internal frames over TCP drop the sender only, with an error; they reach nobody.
TEST_F(ListenTest, ForgedInternalFramesDropTheSenderAndChangeNothing) {
  int port = listen_started();
  int honest[2], honest_id[2];
  for (int i = 0; i < 2; ++i) {
    honest[i] = agent_test::loopback_socket(&port, false);
    ASSERT_GT(honest_id[i] = accepted(), 0);
  }
  const auto notice = [](const char* type, int id) {
    const agent_test::Bytes f = agent_test::ipc_notice(type, id);
    return std::string(f.begin(), f.end());
  };
  const std::string forged[] = {
      notice("CHANNEL_ACCEPT", honest_id[0]), notice("CHANNEL_CLOSE", 2),  // the listener
      notice("CHANNEL_CLOSE", honest_id[1]), notice("ROUTENAT", honest_id[0]), ipc_frame(300, 3)};
  for (const std::string& f : forged) {
    const int attacker = agent_test::loopback_socket(&port, false), id = accepted();
    ASSERT_GT(id, 0);
    put(attacker, f);
    ipcmsg_channel_close_t closed{};  // the attacker's channel closed, nothing else
    char byte;
    EXPECT_EQ((std::tuple{closed_channel(&closed), closed.ccmch.msgnr, read(attacker, &byte, 1)}),
              std::tuple(id, CCM_MSGNR_RECEIVE_ERROR, 0))
        << f.substr(48, 16);
    close(attacker);
    EXPECT_EQ(ccm_channel_existbyID(ccm_, honest_id[0]) + ccm_channel_existbyID(ccm_, honest_id[1]),
              2);
    EXPECT_GT(listener_port(ccm_), 0);
  }
  ccm_msg_t* extra = nullptr;
  EXPECT_EQ(ccm_receive_message(ccm_, 0, &extra, &err_), 0);
  for (int c : honest)
    close(c);
}

// Two paired channels of a context of its own greet each other; what went wrong, or "".
std::string exchange_in_own_context(int mode, bool gss) {
  ccm_app_context_head app{};
  app.running_mode = mode;
  ccm_context_t* ccm = nullptr;
  ccm_error_t err{};
  ccm_channel_t* ch[2] = {};
  if (ccm_session_open(&app, &ccm, &err) != 0) return err.msginsert;
  if (gss) ccm_set_gss_classifier(ccm, [](ccm_context_t*, ccm_msg_t*) { return 1; });
  std::string fault = ccm_channel_create_pair(ccm, &ch[0], &ch[1], &err) == 0 ? "" : "no pair";
  for (int r = 0; r < 200 && fault.empty(); r++) {
    std::string word = "mode " + std::to_string(mode) + " round " + std::to_string(r);
    ccm_msg_t* g = ccm_msg_alloc(ccm, &err);
    ccm_msg_write_native_data(g, 4, word.data(), static_cast<int>(word.size()));
    ccm_setaddr(g, ch[r % 2]->ID, 0, "", "", 0);
    send_native_message(ccm, g);
    ccm_msg_t* got = nullptr;
    for (int i = 0; i < 50 && got == nullptr; i++)
      ccm_receive_message_ms(ccm, 100, &got, &err);
    if (got == nullptr || got->type != (gss ? CCM_MSG_GSS : CCM_MSG_NATIVE) ||
        got->addr.src_ID != ch[1 - r % 2]->ID || (!gss && text(got) != word))
      fault = "round " + std::to_string(r) + " lost or mixed up";
    if (got != nullptr) ccm_msg_free(ccm, got);
  }
  ccm_session_close(ccm, &err);
  return fault;
}

// Two contexts side by side never see each other's traffic (nor share state, for TSan).
TEST(Contexts, TwoContextsRunSideBySide) {
  std::string faults[2];
  std::thread other([&] { faults[1] = exchange_in_own_context(1, true); });
  faults[0] = exchange_in_own_context(0, false);
  other.join();
  EXPECT_EQ(faults[0] + faults[1], "");
}

}  // namespace
}  // namespace ccm_test
