#include "ccm/wire.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "ccm/receive.h"
#include "support/ccm.h"

namespace {

using Bytes = std::string;  // frames and bodies as byte strings
using ccm_test::frame;
using ccm_test::frame_header;

Bytes u16(unsigned v) {
  return Bytes{char(v & 0xFF), char(v >> 8)};
}
Bytes u32(unsigned v) {
  return u16(v & 0xFFFF) + u16(v >> 16);
}
Bytes entry1(unsigned char key, const Bytes& d) {
  return Bytes{char(key), char(d.size())} + d;
}

class WireTest : public ccm_test::CcmTest {
 protected:
  void SetUp() override {
    CcmTest::SetUp();
    std::strcpy(ch_.name, "*ID7");
    ch_.ID = 7;
    ch_.s = 5;
  }
  void TearDown() override {
    for (ccm_msg_t* m : msgs_)
      ccm_msg_free(ccm_, m);
    ccm_set_gss_classifier(nullptr);
    CcmTest::TearDown();
  }

  // A received frame the way the reader hands it over, but placed at the very end of the
  // message's data area, so that any read past the frame leaves the allocation.
  ccm_msg_t* received(const Bytes& f) {
    ccm_msg_t* m = ccm_msg_alloc_huge(ccm_, static_cast<int>(f.size()) + 256, &err_);
    EXPECT_NE(m, nullptr);
    msgs_.push_back(m);
    m->msg_start = m->buffer1 + 2 * m->size - f.size();
    std::memcpy(m->msg_start, f.data(), f.size());
    m->len = static_cast<int>(f.size());
    return m;
  }

  Bytes data(const ccm_msg_t* m) const {
    return Bytes(reinterpret_cast<const char*>(m->msg_start), m->len);
  }

  ccm_error_t err_{};
  ccm_channel_t ch_{};
  std::vector<ccm_msg_t*> msgs_;
};

TEST(FrameLength, OnlyEightDigitsWithinBoundsAreAccepted) {
  struct Case {
    const char* digits;
    int want;
  } cases[] = {
      {"00000048", 48}, {"00000339", 339}, {"16777216", kMaxFrameSize},
      {"00000047", -1}, {"00000000", -1},  {"16777217", -1},
      {"99999999", -1}, {"-0000339", -1},  {" 0000339", -1},
      {"0000339 ", -1}, {"0000033x", -1},  {"+0000339", -1},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(ccm_check_msg_length(reinterpret_cast<const unsigned char*>(c.digits)), c.want)
        << c.digits;
  }
}

TEST_F(WireTest, InvalidLengthIsRecordedOnTheChannel) {
  auto* digits = reinterpret_cast<const unsigned char*>("0000004xQX7:global");
  EXPECT_EQ(ccm_get_valid_msg_length(ccm_, &ch_, digits, &err_), -1);
  EXPECT_EQ(ch_.msgnr, 2002036);
  EXPECT_NE(std::strstr(ch_.msginsert, "*ID7|"), nullptr);
  EXPECT_EQ(err_.msgnr, 2002036);

  unsigned char text[] = "00000339QX7:global";
  EXPECT_EQ(ccm_get_valid_msg_length(ccm_, &ch_, text, &err_), 339);
  EXPECT_EQ(ccm_get_msg_length(ccm_, &ch_, text), 339u);
  unsigned char junk[] = "abcdefgh";
  EXPECT_EQ(ccm_get_msg_length(ccm_, &ch_, junk), 0u);
}

TEST_F(WireTest, HeaderAndNativeEntryAreWrittenByteForByte) {
  ccm_msg_t* m = ccm_msg_alloc(ccm_, &err_);
  msgs_.push_back(m);
  char hello[] = "hello";
  EXPECT_EQ(ccm_msg_write_native_data(m, 4, hello, 5), nullptr);
  EXPECT_EQ(data(m), Bytes("\x04\x05hello"));
  // Other keys and over-long data write nothing.
  m->len = 0;
  ccm_msg_write_native_data(m, 7, hello, 5);
  EXPECT_EQ(m->len, 0);
  std::vector<char> big(256, 'x');
  ccm_msg_write_native_data(m, 4, big.data(), 256);
  EXPECT_EQ(m->len, 0);

  m->len = 7;
  m->msg_start -= 48;
  m->len += 48;
  EXPECT_EQ(ccm_msg_set_protocol_header(m, "IPC"), 0);
  EXPECT_EQ(data(m).substr(0, 48), frame_header(55, "IPC"));
}

// Outgoing NAT bodies for the address combinations a sender can have.
TEST_F(WireTest, NatBodyCarriesTheAddressEntriesThatAreSet) {
  const int acv = 0x11223344;
  Bytes acv_bytes(reinterpret_cast<const char*>(&acv), 4);
  struct Case {
    const char* what;
    int dst_acv;
    const char* dst_addr;
    const char* dst_name;
    const char* src_addr;
    const char* src_name;
    int src_acv;
    Bytes front;  // entries before the payload, 0xFF entry excluded
    Bytes back;   // source block
  } cases[] = {
      {"name only", 0, "", "JPAKTJ_R", "", "", 0, entry1(1, "JPAKTJ_R"), ""},
      {"long name cut", 0, "", "JPAKTJ_RECEIVER", "", "", 0, entry1(1, "JPAKTJ_R"), ""},
      {"short name padded", 0, "", "AB", "", "", 0, entry1(1, "AB      "), ""},
      {"plain address not sent", 0, "host1", "", "", "", 0, "", ""},
      {"all destination entries", acv, "*CP0001", "X", "", "", 0,
       entry1(2, acv_bytes) + entry1(1, "X       ") + entry1(3, "*CP0001"), ""},
      {"source block", 0, "", "", "*SERVER", "ME", acv, "",
       Bytes("\xFD") + u16(25) + entry1(3, "*SERVER") + entry1(1, "ME      ") +
           entry1(2, acv_bytes)},
  };
  for (const Case& c : cases) {
    ccm_msg_t* m = ccm_msg_alloc(ccm_, &err_);
    msgs_.push_back(m);
    ccm_setaddr(m, 0, 0, c.dst_addr, c.dst_name, c.dst_acv);
    ccm_setback(m, c.src_addr, c.src_name, c.src_acv);
    std::memcpy(m->msg_start, "PAY", 3);
    m->len = 3;
    ASSERT_EQ(cmm_msg_write_sr_data(m), 0) << c.what;
    EXPECT_EQ(data(m), c.front + "\xFF" + u32(3) + "PAY" + c.back) << c.what;
  }
}

TEST_F(WireTest, SentAddressesComeBackOnReceipt) {
  ccm_msg_t* out = ccm_msg_alloc(ccm_, &err_);
  msgs_.push_back(out);
  ccm_setaddr(out, 0, 0, "*CP0001", "JPAKTJ_RX", 0x01020304);
  ccm_setback(out, "*SERVER", "ME", 77);
  std::memcpy(out->msg_start, "payload", 7);
  out->len = 7;
  ASSERT_EQ(cmm_msg_write_sr_data(out), 0);
  ch_.flag = CCM_CHFLAG_CONNECTING;

  ccm_msg_t* in = received(frame(data(out)));
  ASSERT_EQ(ccm_classify_message(ccm_, &ch_, in, &err_), 0);
  EXPECT_EQ(in->type, CCM_MSG_NAT);
  EXPECT_EQ(in->protocol_key, 0);
  EXPECT_EQ(data(in), "payload");
  EXPECT_STREQ(in->addr.dst_name, "JPAKTJ_R");
  EXPECT_STREQ(in->addr.dst_addr, "*CP0001");
  EXPECT_EQ(in->addr.dst_acv, 0x01020304);
  EXPECT_STREQ(in->addr.src_name, "ME      ");  // blanks stay inside the source block
  EXPECT_STREQ(in->addr.src_addr, "*SERVER");
  EXPECT_EQ(in->addr.src_acv, 77);
  EXPECT_EQ(ch_.flag & CCM_CHFLAG_CONNECTING, 0);
}

TEST_F(WireTest, NativeKeysGiveTypeZeroWithTheirDataAtTheStartOfTheBuffer) {
  const Bytes d = "greeting";
  struct Case {
    Bytes body;
    unsigned char key;
    int len;
  } cases[] = {
      {entry1(4, d), 4, 8},
      {entry1(7, d), 7, 8},
      {Bytes("\x3B") + u16(8) + d, 0x3B, 8},
      {Bytes("\xF9") + u16(8) + d, 0xF9, 8},
      {"A0000008" + d, 'A', 8},
      {"D0000008" + d, 'D', 8},
      // Names before the payload are taken and the payload still moves to the front.
      {entry1(1, "  AB    ") + Bytes("\x3B") + u16(8) + d, 0x3B, 8},
      // The short forms take the rest of the body as their length.
      {entry1(4, d) + entry1(1, "JPAKTJ_R"), 4, 18},
  };
  for (const Case& c : cases) {
    ccm_msg_t* m = received(frame(c.body));
    ASSERT_EQ(ccm_classify_message(ccm_, &ch_, m, &err_), 0) << int(c.key);
    EXPECT_EQ(m->type, CCM_MSG_NATIVE);
    EXPECT_EQ(m->protocol_key, c.key);
    EXPECT_EQ(m->msg_start, m->buffer1);
    EXPECT_EQ(m->len, c.len);
    EXPECT_EQ(data(m).substr(0, 8), d);
  }
  ccm_msg_t* named = received(frame(entry1(1, "  AB    ") + entry1(4, d)));
  ASSERT_EQ(ccm_classify_message(ccm_, &ch_, named, &err_), 0);
  EXPECT_STREQ(named->addr.dst_name, "AB");
}

TEST_F(WireTest, XmlPayloadsAreMarked) {
  struct Case {
    Bytes body;
    bool xml;
  } cases[] = {
      {Bytes("\xFE") + u16(9) + "<?xml a/>", true},
      {Bytes("\xFF") + u32(9) + "<?xml a/>", true},
      {entry1(4, "<?xml"), true},
      {Bytes("\xFE") + u16(4) + "<?xm", false},
      {Bytes("\xFF") + u32(6) + " <?xml", false},
  };
  for (const Case& c : cases) {
    ccm_msg_t* m = received(frame(c.body));
    ASSERT_EQ(ccm_classify_message(ccm_, &ch_, m, &err_), 0);
    EXPECT_EQ((m->flag & CCM_MSGFLAG_XML) != 0, c.xml) << c.body;
  }
}

TEST_F(WireTest, IpcAndGssFramesAreNotParsed) {
  ccm_msg_t* ipc = received(frame(Bytes("CHANNEL_CLOSE\0\0\0rest", 20), "IPC"));
  ASSERT_EQ(ccm_classify_message(ccm_, &ch_, ipc, &err_), 0);
  EXPECT_EQ(ipc->type, CCM_MSG_IPC);
  EXPECT_EQ(data(ipc), Bytes("CHANNEL_CLOSE\0\0\0rest", 20));
  EXPECT_STREQ(ipc->addr.src_addr, "*ID7");

  ccm_set_gss_classifier([](ccm_context_t*, ccm_msg_t* m) {
    return std::memcmp(m->msg_start + 21, "GSS", 3) == 0 ? 1 : 0;
  });
  const Bytes gss = frame("\x99token", "GSS");
  ccm_msg_t* g = received(gss);
  ASSERT_EQ(ccm_classify_message(ccm_, &ch_, g, &err_), 0);
  EXPECT_EQ(g->type, CCM_MSG_GSS);
  EXPECT_EQ(data(g), gss);  // header stays in front
  // The same frame without the classifier is an invalid native frame (key 0x99).
  ccm_set_gss_classifier(nullptr);
  EXPECT_EQ(ccm_classify_message(ccm_, &ch_, received(gss), &err_), -1);
}

TEST_F(WireTest, HostileBodiesAreRejectedWithoutReadingPastTheFrame) {
  const Bytes cases[] = {
      "\x05\x01x",  // unknown key
      "\x01",       // length byte missing
      "\x01\x08"
      "ABC",  // name runs past the frame
      "\x02\x03"
      "abc",  // value that is not 4 bytes
      "\x02\x05"
      "abcde",
      "\xFE\x01",                          // 16-bit length cut
      Bytes("\xFE") + u16(100) + "short",  // payload runs past the frame
      Bytes("\xFF") + u32(0xFFFFFFFF) + "x",
      Bytes("\xFF") + u32(3),
      "A00x0003abc",                              // decimal length with a non-digit
      "D0000009abc",                              // decimal payload runs past the frame
      "A000",                                     // decimal length cut
      Bytes("\xFD") + u16(40) + entry1(1, "ME"),  // source block runs past the frame
      entry1(4, "ok") + Bytes(1, '\0'),           // trailing unknown key
  };
  for (const Bytes& body : cases) {
    ch_.msgnr = 0;
    ccm_msg_t* m = received(frame(body));
    EXPECT_EQ(ccm_classify_message(ccm_, &ch_, m, &err_), -1) << testing::PrintToString(body);
    EXPECT_EQ(ch_.msgnr, 2002036);
  }
  // A frame shorter than its own header.
  ccm_msg_t* m = received("00000020QX7:global001NAT");
  EXPECT_EQ(ccm_classify_message(ccm_, &ch_, m, &err_), -1);
}

TEST_F(WireTest, OverlongFieldsAreCutAndBadSourceBlocksEndTheirWalk) {
  const Bytes name(200, 'N');
  ccm_msg_t* m =
      received(frame(entry1(1, name) + entry1(3, Bytes(255, 'A')) + "\xFE" + u16(1) + "p"));
  ASSERT_EQ(ccm_classify_message(ccm_, &ch_, m, &err_), 0);
  EXPECT_EQ(std::string(m->addr.dst_name), Bytes(63, 'N'));
  EXPECT_EQ(std::string(m->addr.dst_addr), Bytes(63, 'A'));

  struct Case {
    const char* what;
    Bytes block;
    const char* src_name;
    std::string src_addr;
  } cases[] = {
      {"unknown sub-key ends the walk", entry1(1, "ME") + entry1(9, "zz") + entry1(3, "ADDR"), "ME",
       ""},
      {"sub-entry running past the block",
       entry1(1, "ME") + "\x03\x10"
                         "AB",
       "ME", ""},
      {"value of the wrong size",
       Bytes("\x02\x02"
             "ab") +
           entry1(1, "ME"),
       "", ""},
      {"only the first 256 bytes are walked", entry1(3, Bytes(251, 'a')) + entry1(1, "ME"), "",
       Bytes(63, 'a')},
      {"odd trailing byte", entry1(3, "ADDR") + "\x01", "", "ADDR"},
  };
  for (const Case& c : cases) {
    ccm_msg_t* s =
        received(frame(Bytes("\xFD") + u16(c.block.size()) + c.block + "\xFE" + u16(2) + "ok"));
    ASSERT_EQ(ccm_classify_message(ccm_, &ch_, s, &err_), 0) << c.what;
    EXPECT_STREQ(s->addr.src_name, c.src_name) << c.what;
    EXPECT_EQ(std::string(s->addr.src_addr), c.src_addr) << c.what;
    EXPECT_EQ(data(s), "ok") << c.what;
  }
}

}  // namespace
