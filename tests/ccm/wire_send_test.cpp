// Frames on the wire: lengths, keys parsed, the send paths and the counting queries.
#include <cstring>
#include <string>
#include <vector>

#include "support/ccm.h"

namespace ccm_test {
namespace {

using Bytes = std::string;
using namespace std::string_literals;

const auto u16 = [](unsigned v) { return Bytes{char(v & 0xFF), char(v >> 8)}; };
const auto u32 = [](unsigned v) { return u16(v & 0xFFFF) + u16(v >> 16); };
const auto entry1 = [](int key, const Bytes& d) { return Bytes{char(key), char(d.size())} + d; };

class WireTest : public CcmTest {
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
    CcmTest::TearDown();
  }
  // A message holding `bytes`, freed with the test; a received frame ends its area.
  ccm_msg_t* message(const Bytes& bytes, bool at_end = true) {
    ccm_msg_t* m = ccm_msg_alloc_huge(ccm_, static_cast<int>(bytes.size()) + 256, &err_);
    msgs_.push_back(m);
    if (at_end) m->msg_start = m->buffer1 + 2 * m->size - bytes.size();
    std::memcpy(m->msg_start, bytes.data(), bytes.size());
    m->len = static_cast<int>(bytes.size());
    return m;
  }
  ccm_msg_t* classified(const Bytes& f, int rslt = 0) {
    ccm_msg_t* m = message(f);
    EXPECT_EQ(ccm_classify_message(ccm_, &ch_, m, &err_), rslt) << testing::PrintToString(f);
    return m;
  }
  ccm_channel_t ch_{};
  std::vector<ccm_msg_t*> msgs_;
};

TEST(FrameLength, OnlyEightDigitsWithinBoundsAreAccepted) {
  const std::pair<const char*, int> cases[] = {
      {"00000048", 48}, {"00000339", 339}, {"16777216", kMaxFrameSize},
      {"00000047", -1}, {"00000000", -1},  {"16777217", -1},
      {"99999999", -1}, {"-0000339", -1},  {" 0000339", -1},
      {"0000339 ", -1}, {"0000033x", -1},  {"+0000339", -1}};
  for (auto [digits, want] : cases)
    EXPECT_EQ(ccm_check_msg_length(reinterpret_cast<const unsigned char*>(digits)), want) << digits;
}

TEST_F(WireTest, HeaderAndNativeEntryAreWrittenByteForByte) {
  ccm_msg_t* m = message(Bytes(257, 0), false);  // room for the longest native entry
  char hello[] = "hello", big[256] = {};
  ccm_msg_write_native_data(m, 4, big, 255);
  ccm_msg_write_native_data(m, 7, hello, 5);  // other keys and over-long data write nothing
  ccm_msg_write_native_data(m, 4, big, 256);
  EXPECT_EQ(text(m), "\x04\xFF" + std::string(255, '\0'));
  EXPECT_EQ(ccm_msg_write_native_data(m, 4, hello, 5), nullptr);
  EXPECT_EQ(text(m), "\x04\x05hello");
  ccm_msg_write_native_data(m, 4, hello, 0);
  EXPECT_EQ(text(m), "\x04\0"s);                                                  // an empty entry
  for (auto [len, rslt] : {std::pair{-1, -1}, {100000000, -1}, {99999999, 0}}) {  // 8 digits
    m->len = len;
    EXPECT_EQ(ccm_msg_set_protocol_header(m, "IPC"), rslt) << len;
  }
  EXPECT_EQ(std::memcmp(m->msg_start, "99999999QX7:global001IPC", 24), 0);
  m->len = 0;
}

// Native keys give type 0, their data moved to the buffer's start; names before are taken.
TEST_F(WireTest, NativeKeysGiveTypeZeroWithTheirDataAtTheStartOfTheBuffer) {
  const Bytes d = "greeting";
  const std::tuple<Bytes, unsigned char, int> cases[] = {
      {entry1(4, d), 4, 8},
      {entry1(7, d), 7, 8},
      {"\x3B" + u16(8) + d, 0x3B, 8},
      {"\xF9" + u16(8) + d, 0xF9, 8},
      {"A0000009" + d + "!", 'A', 9},
      {"D0000008" + d, 'D', 8},
      {entry1(1, "  AB    ") + "\x3B" + u16(8) + d, 0x3B, 8},
      {entry1(4, d) + entry1(1, "JPAKTJ_R"), 4, 18}};
  for (const auto& [body, key, len] : cases) {
    ccm_msg_t* m = classified(frame(body));
    EXPECT_EQ((std::tuple{m->type, m->protocol_key, m->msg_start, m->len, text(m).substr(0, 8)}),
              std::tuple(CCM_MSG_NATIVE, key, m->buffer1, len, d));
  }
  EXPECT_STREQ(classified(frame(entry1(1, "  AB    ") + entry1(4, d)))->addr.dst_name, "AB");
}

// Hostile bodies refused, nothing read past the frame; IPC frames only from trusted partners.
TEST_F(WireTest, HostileAndInternalFramesAreRefusedUnlessTrusted) {
  const struct {
    Bytes frame;
    bool trusted = false, taken = false;
  } cases[] = {{frame("ROUTENAT\0\0\0\0\0\0\0\0rest"s, "IPC"), true, true},
               {frame("ROUTENAT\0\0\0\0\0\0\0\0rest"s, "IPC")},
               {frame("CHANNEL_CLOSE\0\0\0rest"s, "IPC")},
               {frame("CHANNEL_CLOSE\0\0\0rest"s, "IPC"), true},
               {frame("CHANNEL_ACCEPT\0\0\1\0\0\0"s, "IPC"), true},
               {frame("CHANNEL_ACCEPT"s, "IPC"), true},  // a type field cut short claims it too
               {frame("CHANNEL_CLOSED\0\0"s, "IPC"), true, true},
               {frame("\x05\x01x")},    // unknown key
               {frame("\x01")},         // length byte missing
               {frame("\001\010ABC")},  // name runs past the frame
               {frame("\002\003abc")},  // value that is not 4 bytes
               {frame("\002\005abcde")},
               {frame("\xFE\x01")},                   // 16-bit length cut
               {frame("\xFE" + u16(100) + "short")},  // payload runs past the frame
               {frame("\xFF" + u32(0xFFFFFFFF) + "x")},
               {frame("\xFF" + u32(3))},
               {frame("A000003xabc")},                       // decimal length with a non-digit
               {frame("D0000009abc")},                       // decimal payload runs past the frame
               {frame("A000")},                              // decimal length cut
               {frame("\xFD" + u16(40) + entry1(1, "ME"))},  // source block runs past the frame
               {frame(entry1(4, "ok") + "\0"s)}};            // trailing unknown key
  for (const auto& c : cases) {
    ch_.flag = c.trusted ? CCM_CHFLAG_LOCAL_PARTNER : 0;
    ch_.msgnr = 0;
    ccm_msg_t* m = classified(c.frame, c.taken ? 0 : -1);
    EXPECT_EQ(ch_.msgnr, c.taken ? 0 : 2002036) << testing::PrintToString(c.frame);
    if (!c.taken) continue;
    EXPECT_EQ((std::tuple{m->type, text(m), std::string(m->addr.src_addr)}),
              std::tuple(CCM_MSG_IPC, c.frame.substr(48), "*ID7"));
  }
  classified("00000020QX7:global001NAT", -1);  // shorter than its own header
}

// Overlong fields are cut to 63; a bad source block ends its walk but keeps what it found.
TEST_F(WireTest, OverlongFieldsAreCutAndBadSourceBlocksEndTheirWalk) {
  ch_.flag = CCM_CHFLAG_CONNECTING;
  ccm_msg_t* m = classified(
      frame(entry1(1, Bytes(200, 'N')) + entry1(3, Bytes(255, 'A')) + "\xFE" + u16(1) + "p"));
  EXPECT_EQ(
      (std::tuple{Bytes(m->addr.dst_name), Bytes(m->addr.dst_addr), ch_.flag,
                  m->msg_start != m->buffer1}),              // a NAT payload stays where it is
      std::tuple(Bytes(63, 'N'), Bytes(63, 'A'), 0, true));  // the first frame ends connecting
  const std::tuple<Bytes, const char*, Bytes> cases[] = {
      {entry1(1, "ME") + entry1(9, "zzzz") + entry1(3, "ADDR"), "ME", ""},  // unknown sub-key
      {entry1(1, "ME") + "\003\020AB", "ME", ""},       // sub-entry running past the block
      {"\002\002ab" + entry1(1, "ME"), "", ""},         // value of the wrong size
      {entry1(3, "AD") + entry1(1, "ME"), "ME", "AD"},  // the last entry fits exactly
      {entry1(3, Bytes(251, 'a')) + entry1(1, "ME"), "", Bytes(63, 'a')},  // first 256 bytes only
      {entry1(3, "ADDR") + "\x01", "", "ADDR"},                            // odd trailing byte
      {entry1(1, "ME") + entry1(1, ""), "", ""}};                          // an empty last entry
  for (const auto& [block, src_name, src_addr] : cases) {
    ccm_msg_t* s = classified(frame("\xFD" + u16(block.size()) + block + "\xFE" + u16(2) + "ok"));
    EXPECT_EQ((std::tuple{Bytes(s->addr.src_name), Bytes(s->addr.src_addr), text(s)}),
              std::tuple(src_name, src_addr, "ok"))
        << testing::PrintToString(block);
  }
}

TEST_F(WireTest, NativeGssAndIpcFramesGetTheirHeaders) {
  const struct {
    int (*send)(ccm_context_t*, ccm_msg_t*);
    Bytes body, frame;
    int type;
  } cases[] = {{send_native_message, "\x04\x02hi", frame_header(52, "NAT") + "\x04\x02hi", 0},
               {send_IPC_message, "LOGGING", frame_header(55, "IPC") + "LOGGING", 3},
               {[](ccm_context_t* c, ccm_msg_t* m) { return send_GSS_message(c, m, "KERBEROS5X"); },
                "tok", frame_header(51, "GSS", "KERBEROS") + "tok", 0},
               {[](ccm_context_t* c, ccm_msg_t* m) { return send_GSS_message(c, m, "K5"); }, "tok",
                frame_header(51, "GSS", "K5      ") + "tok", 0}};
  for (const auto& c : cases) {
    ccm_msg_t* m = ccm_msg_alloc(ccm_, &err_);
    message("", false);  // in use after it: the send unlinks it from behind another
    std::memcpy(m->msg_start, c.body.data(), c.body.size());
    m->len = static_cast<int>(c.body.size());
    ASSERT_EQ(c.send(ccm_, m), 0) << c.body;
    EXPECT_EQ((std::tuple{ccm_->msgq_inuse.tail, m->type, ccm_get_sendq_count(ccm_), text(m)}),
              std::tuple(msgs_.front(), c.type, 1, c.frame));
    ccm_msg_free(ccm_, ccm_queue_pop(ccm_->sendq));
  }
  ccm_msg_t* r = ccm_msg_alloc(ccm_, &err_);  // to *SERVER in a routed mode: wrapped, freed
  std::memcpy(r->msg_start, "hi", r->len = 2), std::strcpy(r->addr.dst_addr, "*SERVER");
  ASSERT_EQ(send_NAT_message(ccm_, r), 0);
  const Bytes routed = text(ccm_->sendq.head);
  EXPECT_EQ(routed.substr(48, 8) + routed.substr(routed.size() - 2), "ROUTENAThi");
  ccm_msg_free(ccm_, ccm_queue_pop(ccm_->sendq));
  ccm_msg_t* m = message("abc", false);  // without head room the message stays with the caller
  m->msg_start = m->buffer1 + 20;
  EXPECT_EQ((std::tuple{send_native_message(ccm_, m), send_GSS_message(ccm_, m, "K5"),
                        send_IPC_message(ccm_, m)}),
            std::tuple(-1, -1, -1));
  EXPECT_EQ((std::tuple{send_NAT_message(ccm_, m), (m->msg_start -= 16, cmm_msg_write_sr_data(m))}),
            std::tuple(-1, -1));  // then no room for a source block in front either
  EXPECT_EQ(ccm_forward_NAT_message(ccm_, m, 42, "*CP9", &err_, 1), -1);  // no such channel
  EXPECT_EQ((std::tuple{err_.msgnr, m->msg_start, ccm_get_sendq_count(ccm_)}),
            std::tuple(2003070, m->buffer1 + 4, 0));
  // Unchecked, a copy goes to the channel named, the source block behind its payload.
  ccm_msg_t* job = message("job", false);
  std::strcpy(job->addr.dst_name, "JPAKTJ_R"), std::strcpy(job->addr.src_name, "JOBSRC");
  job->addr.src_acv = 5;
  ccm_msg_t* to_agent = message("r", false);
  std::strcpy(to_agent->addr.dst_addr, "*SERVER");
  const auto pool = std::exchange(ccm_->msg_freeq, {});  // no pool message and no memory
  EXPECT_EQ((FailAllocations("CCMMSG"),
             std::tuple{ccm_forward_NAT_message(ccm_, job, 0, "*CP9", &err_, 0),
                        send_NAT_message(ccm_, to_agent)}),
            std::tuple(-1, -1));
  ccm_->msg_freeq = pool;
  ASSERT_EQ(ccm_forward_NAT_message(ccm_, job, 0, "*CP9", &err_, 0), 0);
  EXPECT_EQ(text(ccm_->sendq.head), frame_header(100) +
                                        "\1\bJPAKTJ_R\3\4*CP9\xFF\3\0\0\0job\xFD\x19\0"s +
                                        "\3\a*SERVER\1\bJOBSRC  \2\4\5\0\0\0"s);
  ccm_msg_free(ccm_, ccm_queue_pop(ccm_->sendq));
}

// Counts and pending output walk every channel, skipping deleted (and type -1) ones.
TEST_F(WireTest, CountsSkipDeletedChannels) {
  const int types[] = {3, 4, -1, 1, 3, 4, 6, 0, 255};  // the first two deleted
  ccm_channel_t channels[std::size(types)] = {};
  for (size_t i = 0; i < std::size(types); ++i) {
    channels[i].type = types[i];
    channels[i].flag = i < 2 ? CCM_CHFLAG_DELETED : 0;
    pthread_spin_init(&channels[i].queue_lock, PTHREAD_PROCESS_PRIVATE);
    channels[i].nxt = i + 1 < std::size(types) ? &channels[i + 1] : nullptr;
  }
  ccm_->channelq = {&channels[0], &channels[std::size(types) - 1]};
  EXPECT_EQ((std::tuple{ccm_get_nof_server_connections(ccm_), ccm_get_nof_connections(ccm_),
                        ccm_get_nof_agent_connections(ccm_), ccm_get_nof_channels(ccm_)}),
            std::tuple(2, 3, 1, 6));
  ccm_msg_t* m = message("", false);
  channels[0].sendq.head = channels[2].sendq.head = m;  // deleted, type -1
  EXPECT_EQ(ccm_is_all_sendq_empty(ccm_), 1);
  channels[5].sendq.head = m;
  EXPECT_EQ(ccm_is_all_sendq_empty(ccm_), 0);
  ccm_->channelq = {nullptr, nullptr};  // the channels go with the stack
}

}  // namespace
}  // namespace ccm_test
