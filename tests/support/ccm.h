// Test support for the connection manager: a context opened for each test, a way to make
// chosen allocations fail, small views of the context's lists, and frame builders.
#ifndef QX_TESTS_SUPPORT_CCM_H_
#define QX_TESTS_SUPPORT_CCM_H_

#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ccm/ccm.h"
#include "ccm/internal.h"

namespace ccm_test {

// The 48-byte header of a frame of `total` bytes; `coding` fills the 8 bytes behind the
// protocol name.
inline std::string frame_header(int total, const char* protocol = "NAT",
                                const std::string& coding = std::string(8, ' ')) {
  char digits[16];  // room for any int, so the compiler sees no truncation
  std::snprintf(digits, sizeof digits, "%.8d", total);
  return std::string(digits) + "QX7:global001" + protocol + coding + std::string(16, ' ');
}

inline std::string frame(const std::string& body, const char* protocol = "NAT") {
  return frame_header(48 + static_cast<int>(body.size()), protocol) + body;
}

// An internal frame of `total` bytes whose body bytes depend on `seed` and their position,
// so that a misplaced byte shows.
inline std::string ipc_frame(int total, int seed) {
  std::string f = frame_header(total, "IPC");
  for (int i = 48; i < total; ++i)
    f.push_back(static_cast<char>(seed * 31 + i));
  return f;
}

// Allocations whose tag equals `fail_tag` fail while it is set.
inline const char* fail_tag = nullptr;
inline void* failing_alloc(size_t size, const char* tag) {
  if (fail_tag != nullptr && std::strcmp(tag, fail_tag) == 0) return nullptr;
  return ccm_alloc_default(size, tag);
}

// Makes every allocation tagged `tag` fail for its scope.
class FailAllocations {
 public:
  explicit FailAllocations(const char* tag) {
    fail_tag = tag;
    ccm_alloc = failing_alloc;
  }
  ~FailAllocations() {
    ccm_alloc = ccm_alloc_default;
    fail_tag = nullptr;
  }
};

template <class Queue>
std::vector<decltype(Queue{}.head)> members(const Queue& q) {
  std::vector<decltype(Queue{}.head)> v;
  for (auto* p = q.head; p != nullptr; p = p->nxt)
    v.push_back(p);
  return v;
}

inline bool channel_lock_held(ccm_context_t* ccm) {
  if (pthread_spin_trylock(&ccm->channel_lock) != 0) return true;
  pthread_spin_unlock(&ccm->channel_lock);
  return false;
}

class CcmTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::memcpy(app_.eyec, "TESTPCX ", 8);
    app_.running_mode = 3;
    ccm_error_t err{};
    ASSERT_EQ(ccm_open(&app_, &ccm_, &err), 0) << err.msginsert;
    if (wakeups_) {
      ASSERT_EQ(ccm_create_wakeup_pipes(ccm_, &err), 0);
    }
  }

  void TearDown() override {
    if (ccm_ == nullptr) return;
    merge_newq();
    ccm_channel_closeall(ccm_);
    ccm_error_t err{};
    ccm_close(ccm_, &err);
  }

  // What the network thread does at the start of each cycle.
  void merge_newq() {
    ccm_spin_guard guard(ccm_->channel_lock);
    while (ccm_channel_t* ch = ccm_queue_pop(ccm_->channel_newq)) {
      ccm_queue_append(ccm_->channelq, ch);
    }
  }

  ccm_channel_t* new_channel(int type = CCM_CHTYPE_MESSENGER) {
    ccm_channel_t* ch = nullptr;
    ccm_error_t err{};
    EXPECT_EQ(ccm_channel_new_entry(ccm_, &ch, &err), 0);
    if (ch != nullptr) ch->type = type;
    return ch;
  }

  ccm_channel_t* entered_channel(int type = CCM_CHTYPE_MESSENGER) {
    ccm_channel_t* ch = new_channel(type);
    ccm_channel_chain(ccm_, ch);
    return ch;
  }

  // Takes every message of recvq and returns the types of the internal messages.
  std::vector<std::string> drain_recvq() {
    std::vector<std::string> types;
    for (;;) {
      ccm_msg_t* m = nullptr;
      {
        ccm_spin_guard guard(ccm_->queue_lock);
        m = ccm_queue_pop(ccm_->recvq);
      }
      if (m == nullptr) break;
      types.emplace_back(reinterpret_cast<const char*>(m->msg_start),
                         strnlen(reinterpret_cast<const char*>(m->msg_start), 16));
      ccm_msg_free(ccm_, m);
    }
    return types;
  }

  bool wakeups_ = false;  // set in a constructor to create the wake-up pipes
  ccm_app_context_head app_{};
  ccm_context_t* ccm_ = nullptr;
};

}  // namespace ccm_test

#endif  // QX_TESTS_SUPPORT_CCM_H_
