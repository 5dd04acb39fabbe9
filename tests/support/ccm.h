// Connection manager test support: a context per test, failing allocations, fake answers.
#ifndef QX_TESTS_SUPPORT_CCM_H_
#define QX_TESTS_SUPPORT_CCM_H_

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <pthread.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ccm/address.h"
#include "ccm/ccm.h"
#include "ccm/internal.h"
#include "ccm/receive.h"
#include "ccm/send.h"
#include "ccm/wire.h"

namespace ccm_test {

// The 48-byte header of a frame of `total` bytes; `coding` follows the protocol name.
inline std::string frame_header(int total, const char* protocol = "NAT",
                                const std::string& coding = std::string(8, ' ')) {
  char digits[16];
  std::snprintf(digits, sizeof digits, "%.8d", total);
  return std::string(digits) + "QX7:global001" + protocol + coding + std::string(16, ' ');
}

inline std::string frame(const std::string& body, const char* protocol = "NAT") {
  return frame_header(48 + static_cast<int>(body.size()), protocol) + body;
}
// An internal frame of `total` bytes whose body bytes depend on `seed` and their position.
inline std::string ipc_frame(int total, int seed) {
  std::string f = frame_header(total, "IPC");
  for (int i = 48; i < total; ++i)
    f.push_back(static_cast<char>(seed * 31 + i));
  return f;
}
inline std::string text(const ccm_msg_t* m) {
  return std::string(reinterpret_cast<const char*>(m->msg_start), m->len);
}

// While it lives, every allocation tagged `tag` fails.
inline const char* hook_tag = nullptr;
struct FailAllocations {
  explicit FailAllocations(const char* tag) {
    hook_tag = tag;
    ccm_alloc = [](size_t size, const char* t) {
      return std::strcmp(t, hook_tag) == 0 ? nullptr : ccm_alloc_default(size, t);
    };
  }
  ~FailAllocations() { ccm_alloc = ccm_alloc_default; }
};

// While it lives, every name resolves to these address literals, in this order.
struct Resolver {
  explicit Resolver(const std::vector<const char*>& literals)
      : nodes_(literals.size()), addrs_(literals.size()) {
    for (size_t i = 0; i < literals.size(); ++i) {
      sockaddr_in6& sa = addrs_[i];
      const bool v6 = inet_pton(AF_INET6, literals[i], &sa.sin6_addr) == 1;
      if (!v6) inet_pton(AF_INET, literals[i], &reinterpret_cast<sockaddr_in*>(&sa)->sin_addr);
      sa.sin6_family = v6 ? AF_INET6 : AF_INET;  // sin_family stands at the same offset
      nodes_[i].ai_addrlen = v6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
      nodes_[i].ai_family = sa.sin6_family;
      nodes_[i].ai_addr = reinterpret_cast<sockaddr*>(&sa);
      nodes_[i].ai_next = i + 1 < literals.size() ? &nodes_[i + 1] : nullptr;
    }
    fake_answers = &nodes_[0];
    ccm_resolver = {[](const char*, const char*, const addrinfo*, addrinfo** out) {
                      return *out = fake_answers, 0;
                    },
                    [](addrinfo*) {}};
  }
  ~Resolver() { ccm_resolver = ccm_resolver_default; }
  static inline addrinfo* fake_answers = nullptr;
  std::vector<addrinfo> nodes_;
  std::vector<sockaddr_in6> addrs_;
};

template <class Queue>
std::vector<decltype(Queue{}.head)> members(const Queue& q) {
  std::vector<decltype(Queue{}.head)> v;
  for (auto* p = q.head; p != nullptr; p = p->nxt)
    v.push_back(p);
  return v;
}

class CcmTest : public ::testing::Test {
 protected:
  void SetUp() override {
    app_.running_mode = 3;
    ASSERT_EQ(ccm_open(&app_, &ccm_, &err_), 0) << err_.msginsert;
    ASSERT_EQ(ccm_create_wakeup_pipes(ccm_, &err_), 0);
  }
  void TearDown() override {
    if (ccm_ != nullptr) ccm_session_close(ccm_, &err_);
  }
  void start_thread() { ASSERT_EQ(ccm_thread_start(ccm_, &err_), 0); }
  void merge_newq() {  // as the network thread does at the start of each cycle
    ccm_channel_guard guard(ccm_, ccm_lock_trace::kQuiet);
    while (ccm_channel_t* ch = ccm_queue_pop(ccm_->channel_newq))
      ccm_queue_append(ccm_->channelq, ch);
  }
  ccm_channel_t* new_channel(int type = CCM_CHTYPE_MESSENGER, bool entered = true) {
    ccm_channel_t* ch = nullptr;
    EXPECT_EQ(ccm_channel_new_entry(ccm_, &ch, &err_), 0);
    ch->type = type;
    if (entered) ccm_channel_chain(ccm_, ch);
    return ch;
  }
  // An entered channel of a trusted local partner on one end of a socket pair; the other end.
  int paired_channel(ccm_channel_t** ch) {
    int sv[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    *ch = new_channel(CCM_CHTYPE_NONE, false);
    (*ch)->s = sv[0];  // closed with the channel
    EXPECT_EQ(ccm_channel_set_local_partner(ccm_, *ch, &err_), 0);
    ccm_channel_chain(ccm_, *ch);
    return sv[1];
  }
  std::vector<std::string> drain_recvq() {  // the texts, in order; freed
    std::vector<std::string> texts;
    for (ccm_msg_t* m; (m = ccm_queue_pop(ccm_->recvq)) != nullptr; ccm_msg_free(ccm_, m))
      texts.push_back(text(m));
    return texts;
  }
  ccm_msg_t* next_message() {  // within 5 seconds, or null
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    ccm_msg_t* m = nullptr;
    while (m == nullptr && std::chrono::steady_clock::now() < deadline)
      EXPECT_GE(ccm_receive_message(ccm_, 1, &m, &err_), 0);
    return m;
  }
  int closed_channel(ipcmsg_channel_close_t* notice = nullptr) {  // of the next message, or -1
    ccm_msg_t* m = next_message();
    if (m == nullptr) return -1;
    if (notice != nullptr) std::memcpy(static_cast<void*>(notice), m->msg_start, sizeof *notice);
    const int id = ccm_close_notice_channelID(m);
    ccm_msg_free(ccm_, m);
    return id;
  }
  ccm_app_context_head app_{};
  ccm_context_t* ccm_ = nullptr;
  ccm_error_t err_{};
};

}  // namespace ccm_test

#endif  // QX_TESTS_SUPPORT_CCM_H_
