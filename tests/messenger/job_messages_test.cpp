// The three job messages, checked as the frames the network thread would write: the header,
// the routing entries and every byte of the body, built here from the message layouts
// independently of the records the sender uses (with the fake agents' frame helpers).
#include "messenger/job_messages.h"

#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "ccm/internal.h"
#include "ccm/message.h"
#include "messenger/agent_session.h"
#include "support/agent.h"

namespace {

using namespace agent_test;

constexpr int kAgentID = 7;

class JobMessagesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::memset(&pcx_, 0, sizeof pcx_);
    pcx_.running_mode = 3;
    pcx_.status = 'R';
    pcx_.melder_type = 'U';
    pcx_.output_login = 'N';
    pcx_.agentID = kAgentID;
    ccm_error_t err{};
    ASSERT_EQ(ccm_open(&pcx_, &ccm, &err), 0);
  }
  void TearDown() override {
    ccm_error_t err{};
    ccm_close(ccm, &err);
    ccm = nullptr;
  }
  // A fresh context and context record for the next case of a table.
  void Reset() {
    TearDown();
    SetUp();
  }

  // The one frame queued for the network thread, or an empty vector when none is. Checks the
  // routing that every job message carries.
  Bytes queued_frame() {
    ccm_msg_t* m = ccm->sendq.head;
    if (m == nullptr) return {};
    EXPECT_EQ(m->nxt, nullptr) << "more than one message queued";
    EXPECT_EQ(m->addr.dst_ID, kAgentID);
    EXPECT_EQ(m->type, CCM_MSG_NAT);
    return Bytes(m->msg_start, m->msg_start + m->len);
  }

  // The body behind the frame prefix, after checking the prefix byte for byte.
  Bytes body_of(const Bytes& frame, size_t body_len) {
    Bytes want(63);
    char digits[9];
    snprintf(digits, sizeof digits, "%08zu", body_len + 63);
    put_text(want, 0, std::string(digits) + "QX7:global001NAT" + std::string(24, ' '));
    put_text(want, 48, "\x01\x08JPAKTJ_R\xFF");
    put32(want, 59, static_cast<unsigned>(body_len));
    EXPECT_EQ(frame.size(), body_len + 63);
    if (frame.size() < 63) return {};
    EXPECT_EQ(Bytes(frame.begin(), frame.begin() + 63), want);
    return Bytes(frame.begin() + 63, frame.end());
  }

  PCX pcx_;
};

TEST_F(JobMessagesTest, JobStatusBodies) {
  struct Case {
    const char* name;
    char type;
    char status;
    int ret;
    short client;
    std::string text;
  };
  const std::string forty(40, 'T');
  const Case cases[] = {
      {"start", 'S', 'R', 0, 100, "started"},
      {"end with 3", 'E', 'E', 3, 100, ""},
      {"restart, long text", 'U', 'R', -1, -1, forty},
      {"text of 31", '1', 'R', 0, 0, std::string(31, 'x')},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Reset();
    pcx_.jobnri = 7;
    pcx_.melder_type = c.type;
    pcx_.status = c.status;
    pcx_.reti = c.ret;
    pcx_.client = c.client;
    snprintf(pcx_.info_text, sizeof pcx_.info_text, "%s", c.text.c_str());
    ASSERT_EQ(SendJpMd(&pcx_), 0);
    Bytes body = body_of(queued_frame(), 276);
    ASSERT_EQ(body.size(), 276u);

    Bytes want = meld_body(276, c.client, 57);
    put32(want, 20, 7);
    want[24] = static_cast<unsigned char>(c.status);
    // Text: at most 31 characters, a NUL, blanks to 32 bytes.
    std::string t = c.text.substr(0, 31);
    put_text(want, 25, t);
    want[25 + t.size()] = 0;
    std::memset(want.data() + 26 + t.size(), ' ', 31 - t.size());
    put32(want, 100, static_cast<unsigned>(c.ret));
    put32(want, 128, static_cast<unsigned>(getpid()));
    put32(want, 132, static_cast<unsigned>(getppid()));
    put32(want, 136, static_cast<unsigned>(getpgrp()));
    EXPECT_TRUE(adopt_time(body, want, 108, 124));
    EXPECT_EQ(body, want);
  }
}

TEST_F(JobMessagesTest, OutputViewBodies) {
  struct Case {
    const char* name;
    std::string file;
    char login;
  };
  const Case cases[] = {
      {"short name, login check", "/var/log/job.out", 'Y'},
      {"name of 200 characters arrives cut to 187", std::string(200, 'f'), 'N'},
      {"name of 187 characters fills the body", std::string(187, 'g'), 'N'},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Reset();
    pcx_.jobnri = 42;
    pcx_.client = 3;
    pcx_.output_login = c.login;
    snprintf(pcx_.output_file, sizeof pcx_.output_file, "%s", c.file.c_str());
    ASSERT_EQ(SendOutputViewMsg(&pcx_), 0);
    Bytes body = body_of(queued_frame(), 276);
    ASSERT_EQ(body.size(), 276u);

    Bytes want = meld_body(276, 3, 25);
    put32(want, 20, 42);
    want[24] = 'O';
    want[88] = static_cast<unsigned char>(c.login);
    put_text(want, 89, c.file.substr(0, 187));
    EXPECT_TRUE(adopt_time(body, want, 68, 84));
    EXPECT_EQ(body, want);
  }
}

TEST_F(JobMessagesTest, NoOutputFileSendsNothing) {
  EXPECT_EQ(SendOutputViewMsg(&pcx_), -1);
  EXPECT_TRUE(queued_frame().empty());
}

TEST_F(JobMessagesTest, RegisterVariableBodies) {
  struct Case {
    const char* name;
    std::string var, value;
    char type;
    size_t body_len;
  };
  const Case cases[] = {
      {"X=1 of type C", "X", "1", 'C', 1521},
      {"name without a value", "EMPTY", "", 'C', 1521},
      {"longest name and value are cut", std::string(200, 'n'), std::string(1023, 'v'), 'N', 1521},
      {"no name: no record", "", "ignored", 'C', 296},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Reset();
    pcx_.jobnri = 9;
    pcx_.client = 1;
    snprintf(pcx_.var_name, sizeof pcx_.var_name, "%s", c.var.c_str());
    snprintf(pcx_.var_value, sizeof pcx_.var_value, "%s", c.value.c_str());
    pcx_.var_type = c.type;
    ASSERT_EQ(SendRegVariableMsg(&pcx_), 0);
    Bytes body = body_of(queued_frame(), c.body_len);
    ASSERT_EQ(body.size(), c.body_len);

    Bytes want = meld_body(c.body_len, 1, 57);
    put32(want, 20, 9);
    want[24] = 'V';
    std::memset(want.data() + 25, ' ', 32);
    if (!c.var.empty()) {
      put32(want, 120, 108);
      put32(want, 124, 1225);
      put_text(want, 128, c.var.substr(0, 199));
      put_text(want, 328, c.value.substr(0, 1023));
      want[1352] = static_cast<unsigned char>(c.type);
    }
    EXPECT_TRUE(adopt_time(body, want, 100, 116));
    EXPECT_EQ(body, want);
  }
}

// Without memory for a message nothing is queued and the caller learns it.
TEST_F(JobMessagesTest, NoMessageAvailable) {
  pcx_.var_name[0] = 'X';
  std::strcpy(pcx_.output_file, "/tmp/out");
  struct Fail {
    Fail() {
      ccm_alloc = [](size_t size, const char* tag) -> void* {
        return std::strcmp(tag, "CCMMSG") == 0 ? nullptr : ccm_alloc_default(size, tag);
      };
    }
    ~Fail() { ccm_alloc = ccm_alloc_default; }
  } fail;
  EXPECT_EQ(SendJpMd(&pcx_), -1);
  EXPECT_EQ(SendOutputViewMsg(&pcx_), -1);
  EXPECT_EQ(SendRegVariableMsg(&pcx_), -1);
  EXPECT_TRUE(queued_frame().empty());
}

}  // namespace
