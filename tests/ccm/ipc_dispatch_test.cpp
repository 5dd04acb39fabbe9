// Internal message dispatch, the IPC logger and descriptor passing.
#include "ccm/ipc_dispatch.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "ccm/net_thread.h"
#include "ccm/receive.h"
#include "common/protocol_header.h"
#include "common/trace_log.h"
#include "support/ccm.h"

namespace {

using ccm_test::CcmTest;
using ccm_test::FailAllocations;

// Log entries come from both threads.
std::mutex log_mutex;
std::vector<std::pair<int, std::string>> logged;
int record_log(int msgnr, const char* insert) {
  std::lock_guard<std::mutex> lock(log_mutex);
  logged.emplace_back(msgnr, insert);
  return 0;
}
bool was_logged(int msgnr, const std::string& insert) {
  std::lock_guard<std::mutex> lock(log_mutex);
  return std::find(logged.begin(), logged.end(), std::make_pair(msgnr, insert)) != logged.end();
}

class IpcDispatchTest : public CcmTest {
 protected:
  void SetUp() override {
    CcmTest::SetUp();
    app_.ccm = ccm_;
    probe_ = ccm_msg_alloc(ccm_, &err_);
    logged.clear();
    __log_set_logger(record_log);
  }
  void TearDown() override {
    __log_set_logger(nullptr);
    process_IPC_message(nullptr, ccm_, probe_);  // forget this test's application context
    ccm_msg_free(ccm_, probe_);
    CcmTest::TearDown();
  }

  // An internal message as received: type field of 16 bytes as given, then `len` in all.
  ccm_msg_t* received(const char (&type)[17], int len = 40) {
    ccm_msg_t* m = ccm_msg_alloc(ccm_, &err_);
    std::memset(m->msg_start, 0, len);
    std::memcpy(m->msg_start, type, 16);
    m->len = len;
    m->type = CCM_MSG_IPC;
    std::strcpy(m->addr.src_name, "PARTNER");
    return m;
  }

  // The messages waiting in the context's send queue, taken out.
  std::vector<ccm_msg_t*> take_sendq() {
    std::vector<ccm_msg_t*> v;
    ccm_spin_guard guard(ccm_->queue_lock);
    while (ccm_msg_t* m = ccm_queue_pop(ccm_->sendq))
      v.push_back(m);
    return v;
  }

  // Releases the pooled messages, so that the next allocation asks for memory.
  void empty_pool() {
    ccm_spin_guard guard(ccm_->queue_lock);
    while (ccm_msg_t* m = ccm_queue_pop(ccm_->msg_freeq))
      ccm_free(m);
    ccm_->nof_freemsg = 0;
  }

  ccm_error_t err_{};
  ccm_msg_t* probe_ = nullptr;  // an empty message; dispatching it only sets the context
};

TEST_F(IpcDispatchTest, TypesAreMatchedOverAllSixteenBytes) {
  struct Case {
    char type[17];
    int len;
    int rslt;
  };
  const Case cases[] = {
      {"CHANNEL_CLOSE\0\0\0", 40, 0},
      {"CHANNEL_CLOSE\0X\0", 40, -1},   // a byte after the terminator
      {"CHANNEL_CLOSE\0\0\0", 14, -1},  // too short to hold the type field
      {"CHANNEL_ACCEPT\0\0", 20, -1},   // known to the system, handled by nobody
      {"\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 40, -1},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.type);
    logged.clear();
    ccm_msg_t* m = received(k.type, k.len);
    EXPECT_EQ(process_IPC_message(&app_, ccm_, m), k.rslt);
    ccm_msg_free(ccm_, m);
    if (k.rslt == 0) {
      EXPECT_TRUE(logged.empty());
    } else {
      ASSERT_EQ(logged.size(), 2u);
      EXPECT_EQ(logged[0].first, -1);
      EXPECT_EQ(logged[0].second, "IPC message (" + std::string(k.type) + ") is not known");
      EXPECT_EQ(logged[1], std::make_pair(CCM_MSGNR_IPC_SOURCE, std::string("PARTNER|")));
    }
  }
  ccm_msg_t* m = received("ROUTENAT\0\0\0\0\0\0\0\0");
  EXPECT_EQ(process_ipc_not_implemented(&app_, m), -1);
  EXPECT_EQ(logged.back().first, CCM_MSGNR_IPC_SOURCE);
  EXPECT_EQ(logged[logged.size() - 2].second, "IPC message (ROUTENAT) is not implemented");
  ccm_msg_free(ccm_, m);
}

TEST_F(IpcDispatchTest, LoggerSendsOnlyWithARememberedContext) {
  process_IPC_message(nullptr, ccm_, probe_);
  EXPECT_EQ(ipc_logger(42, "before"), -1);
  EXPECT_TRUE(take_sendq().empty());

  ccm_msg_t* close_notice = received("CHANNEL_CLOSE\0\0\0");
  process_IPC_message(&app_, ccm_, close_notice);
  ccm_msg_free(ccm_, close_notice);
  {
    empty_pool();
    FailAllocations fail("CCMMSG");
    EXPECT_EQ(ipc_logger(42, "no memory"), -1);
  }
  EXPECT_TRUE(take_sendq().empty());

  const std::string long_text(1500, 'L');
  EXPECT_EQ(ipc_logger(42, "short"), 0);
  EXPECT_EQ(ipc_logger(2000102, long_text.c_str()), 0);
  const std::vector<ccm_msg_t*> sent = take_sendq();
  ASSERT_EQ(sent.size(), 2u);
  for (ccm_msg_t* m : sent) {
    EXPECT_STREQ(m->addr.dst_addr, IPC_AGENT_DESTINATION);
    ASSERT_EQ(m->len, kProtocolHeaderSize + 1044);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(m->msg_start) + kProtoProtocolOffset, 3), "IPC");
  }
  const unsigned char* rec = sent[1]->msg_start + kProtocolHeaderSize;
  EXPECT_STREQ(reinterpret_cast<const char*>(rec), "LOGGING");
  int msgnr = 0;
  std::memcpy(&msgnr, rec + 16, sizeof msgnr);
  EXPECT_EQ(msgnr, 2000102);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(rec + 20)), long_text.substr(0, 1023));
  for (ccm_msg_t* m : sent)
    ccm_msg_free(ccm_, m);
}

// The descriptor of a pipe crosses a socket pair with the "PASSFD" record and works on the
// receiving side.
TEST_F(IpcDispatchTest, PassedDescriptorArrivesWithItsControlData) {
  ASSERT_EQ(ccm_thread_start(ccm_, &err_), 0);
  ccm_channel_t* from = nullptr;
  ccm_channel_t* to = nullptr;
  ASSERT_EQ(ccm_channel_create_pair(ccm_, &from, &to, &err_), 0);
  const int to_id = to->ID;
  char from_name[64];
  std::strcpy(from_name, from->name);
  int pipefd[2];
  ASSERT_EQ(pipe(pipefd), 0);
  ASSERT_EQ(send_file_descriptor(ccm_, from_name, pipefd[1], 5, 6, "JOBOUTPUT"), 0);
  EXPECT_TRUE(was_logged(CCM_MSGNR_PASSFD, std::to_string(pipefd[1]) + "/ID=5"));

  ccm_msg_t* m = nullptr;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (m == nullptr && std::chrono::steady_clock::now() < deadline) {
    ccm_receive_message(ccm_, 1, &m, &err_);
  }
  ccm_thread_stop(ccm_);
  pthread_join(ccm_->thread, nullptr);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->type, CCM_MSG_IPC);
  EXPECT_EQ(m->addr.src_ID, to_id);
  ASSERT_EQ(m->len, 156);
  const ipcmsg_passfd_t* rec = reinterpret_cast<const ipcmsg_passfd_t*>(m->msg_start);
  EXPECT_STREQ(rec->head.msgtype, "PASSFD");
  EXPECT_EQ(rec->fd, pipefd[1]);
  EXPECT_EQ(rec->agentID, 6);
  EXPECT_EQ(rec->listenerID, 5);
  EXPECT_STREQ(rec->name, "JOBOUTPUT");

  msghdr mh{};
  alignas(cmsghdr) unsigned char control[256];
  std::memcpy(control, m->control_data, m->control_len);
  mh.msg_control = control;
  mh.msg_controllen = m->control_len;
  cmsghdr* c = CMSG_FIRSTHDR(&mh);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->cmsg_level, SOL_SOCKET);
  EXPECT_EQ(c->cmsg_type, SCM_RIGHTS);
  int passed = -1;
  std::memcpy(&passed, CMSG_DATA(c), sizeof passed);
  ccm_msg_free(ccm_, m);
  ASSERT_GE(passed, 0);
  EXPECT_NE(passed, pipefd[1]);
  ASSERT_EQ(write(passed, "ping", 4), 4);
  char got[4];
  ASSERT_EQ(read(pipefd[0], got, 4), 4);
  EXPECT_EQ(std::string(got, 4), "ping");
  for (int fd : {passed, pipefd[0], pipefd[1]})
    close(fd);
}

}  // namespace
