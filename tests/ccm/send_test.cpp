#include "ccm/send.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "ccm/receive.h"
#include "ccm/wire.h"
#include "support/ccm.h"

namespace {

using Bytes = std::string;

class SendTest : public ccm_test::CcmTest {
 protected:
  SendTest() { wakeups_ = true; }

  ccm_msg_t* with_payload(const Bytes& payload) {
    ccm_msg_t* m =
        ccm_msg_alloc_huge(ccm_, std::max<int>(CCM_MSG_POOL_SIZE, payload.size()), &err_);
    std::memcpy(m->msg_start, payload.data(), payload.size());
    m->len = static_cast<int>(payload.size());
    return m;
  }

  // The one frame on the context's send queue; the message must have left msgq_inuse.
  Bytes queued_frame() {
    EXPECT_EQ(ccm_get_sendq_count(ccm_), 1);
    EXPECT_EQ(ccm_->msgq_inuse.head, nullptr);
    const ccm_msg_t* m = ccm_->sendq.head;
    if (m == nullptr) return "";
    return Bytes(reinterpret_cast<const char*>(m->msg_start), m->len);
  }

  ccm_error_t err_{};
};

Bytes payload_of(size_t n) {
  Bytes p(n, '\0');
  for (size_t i = 0; i < n; ++i)
    p[i] = static_cast<char>('A' + i % 26);
  return p;
}

TEST_F(SendTest, JobMessageGoesOutAsNatFrameToTheReceiver) {
  const Bytes payload = payload_of(276);
  ccm_msg_t* m = with_payload(payload);
  ccm_setaddr(m, 7, 0, "", "JPAKTJ_R", 0);
  ASSERT_EQ(send_NAT_message(ccm_, m), 0);
  const Bytes want = Bytes("00000339QX7:global001NAT") + Bytes(24, ' ') + "\x01\x08JPAKTJ_R" +
                     Bytes("\xFF\x14\x01\x00\x00", 5) + payload;
  EXPECT_EQ(queued_frame(), want);
  EXPECT_EQ(ccm_->sendq.head->type, CCM_MSG_NAT);
  EXPECT_EQ(ccm_->sendq.head->addr.dst_ID, 7);

  // The frame reads back as what was sent.
  ccm_msg_t* in = with_payload(want);
  ASSERT_EQ(ccm_classify_message(ccm_, nullptr, in, &err_), 0);
  EXPECT_EQ(Bytes(reinterpret_cast<char*>(in->msg_start), in->len), payload);
  EXPECT_STREQ(in->addr.dst_name, "JPAKTJ_R");
  ccm_msg_free(ccm_, in);
}

// A payload longer than a pool message can carry behind the routing record still goes whole.
TEST_F(SendTest, ServerMessagesAreRoutedOutsideRunningModeZero) {
  struct Case {
    int mode;
    const char* dst;
    size_t size;
    bool routed;
  } cases[] = {{0, "*SERVER", 40, false},
               {3, "*SERVER", 40, true},
               {3, "*SERVER2", 40, false},
               {3, "*SERVER", 65200, true}};
  for (const Case& c : cases) {
    app_.running_mode = c.mode;
    const Bytes payload = payload_of(c.size);
    ccm_msg_t* m = with_payload(payload);
    ccm_setaddr(m, 0, 0, c.dst, "JPAKTJ_R", 0);
    ccm_setback(m, "", "ME", 0);
    ASSERT_EQ(send_NAT_message(ccm_, m), 0);
    const Bytes f = queued_frame();
    if (c.routed) {
      ASSERT_EQ(f.size(), 48u + 308 + payload.size());
      EXPECT_EQ(f.substr(0, 48), ccm_test::frame_header(static_cast<int>(f.size()), "IPC"));
      EXPECT_EQ(f.substr(48, 16), Bytes("ROUTENAT\0\0\0\0\0\0\0\0", 16));
      ccm_addr_t addr;
      std::memcpy(&addr, f.data() + 48 + 16, sizeof addr);
      EXPECT_STREQ(addr.dst_addr, "*SERVER");
      EXPECT_STREQ(addr.src_name, "ME");
      int len;
      std::memcpy(&len, f.data() + 48 + 304, 4);
      EXPECT_EQ(len, static_cast<int>(c.size));
      EXPECT_EQ(f.substr(48 + 308), payload);
      EXPECT_STREQ(ccm_->sendq.head->addr.dst_addr, "*IPC(AGENT)");
      EXPECT_EQ(ccm_->sendq.head->type, CCM_MSG_IPC);
    } else {
      EXPECT_EQ(f.substr(21, 3), "NAT") << c.mode;
      EXPECT_EQ(f.substr(48, 10), "\x01\x08JPAKTJ_R");
    }
    ccm_msg_free(ccm_, ccm_->sendq.head);
    ccm_->sendq.head = ccm_->sendq.tail = nullptr;
  }
}

TEST_F(SendTest, NativeGssAndIpcFramesGetTheirHeaders) {
  struct Case {
    const char* what;
    int (*send)(ccm_context_t*, ccm_msg_t*);
    Bytes body;
    Bytes frame;
    int type;
  } cases[] = {
      {"native", send_native_message, "\x04\x02hi",
       ccm_test::frame_header(52, "NAT") + "\x04\x02hi", 0},
      {"ipc", send_IPC_message, "LOGGING", ccm_test::frame_header(55, "IPC") + "LOGGING", 3},
      {"gss long coding",
       [](ccm_context_t* c, ccm_msg_t* m) { return send_GSS_message(c, m, "KERBEROS5X"); }, "tok",
       ccm_test::frame_header(51, "GSS", "KERBEROS") + "tok", 0},
      {"gss short coding",
       [](ccm_context_t* c, ccm_msg_t* m) { return send_GSS_message(c, m, "K5"); }, "tok",
       ccm_test::frame_header(51, "GSS", "K5      ") + "tok", 0},
  };
  for (const Case& c : cases) {
    ccm_msg_t* m = with_payload(c.body);
    ASSERT_EQ(c.send(ccm_, m), 0) << c.what;
    EXPECT_EQ(queued_frame(), c.frame) << c.what;
    EXPECT_EQ(m->type, c.type) << c.what;
    ccm_msg_free(ccm_, ccm_->sendq.head);
    ccm_->sendq.head = ccm_->sendq.tail = nullptr;
  }
}

TEST_F(SendTest, SendWithoutHeadRoomLeavesTheMessageWithTheCaller) {
  ccm_msg_t* m = with_payload("abc");
  m->msg_start = m->buffer1 + 20;
  EXPECT_EQ(send_native_message(ccm_, m), -1);
  EXPECT_EQ(send_NAT_message(ccm_, m), -1);
  EXPECT_EQ(m->msg_start, m->buffer1 + 20);
  EXPECT_EQ(m->len, 3);
  EXPECT_EQ(ccm_get_sendq_count(ccm_), 0);
  EXPECT_EQ(ccm_->msgq_inuse.head, m);
}

TEST_F(SendTest, ForwardSendsACopyFromTheServer) {
  ccm_msg_t* in = with_payload("job data");
  ccm_setaddr(in, 0, 0, "", "JPAKTJ_R", 0x0A);
  ccm_setback(in, "*CP1", "SENDER", 0x0B);

  EXPECT_EQ(ccm_forward_NAT_message(ccm_, in, 42, "*CP9", &err_, 1), -1);
  EXPECT_EQ(err_.msgnr, 2003070);
  EXPECT_STREQ(err_.msginsert, "42/*CP9|channel not found|");
  EXPECT_EQ(ccm_get_sendq_count(ccm_), 0);

  // Unchecked, the copy is addressed by the ID the caller gives.
  ASSERT_EQ(ccm_forward_NAT_message(ccm_, in, 42, "", &err_, 0), 0);
  ccm_msg_t* f = ccm_->sendq.head;
  ASSERT_NE(f, nullptr);
  EXPECT_NE(f, in);
  EXPECT_EQ(f->addr.dst_ID, 42);
  EXPECT_EQ(f->addr.src_acv, 0x0B);
  const Bytes frame(reinterpret_cast<char*>(f->msg_start), f->len);
  const int acv = 0x0A;
  const Bytes want_body = Bytes("\x02\x04", 2) + Bytes(reinterpret_cast<const char*>(&acv), 4) +
                          "\x01\x08JPAKTJ_R" + Bytes("\xFF\x08\x00\x00\x00", 5) + "job data" +
                          Bytes("\xFD\x19\x00", 3) + "\x03\x07*SERVER\x01\x08SENDER  " +
                          Bytes("\x02\x04\x0B\x00\x00\x00", 6);
  EXPECT_EQ(frame.substr(48), want_body);
  EXPECT_EQ(Bytes(reinterpret_cast<char*>(in->msg_start), in->len), "job data");
  ccm_msg_free(ccm_, in);
}

}  // namespace
