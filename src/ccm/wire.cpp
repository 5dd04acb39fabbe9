#include "ccm/wire.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

#include "ccm/internal.h"
#include "ccm/ipc.h"
#include "common/convert.h"
#include "common/strutil.h"
#include "common/trace_log.h"

namespace {

constexpr int kHdr = kProtocolHeaderSize;
// Source blocks are walked in a work area of this size; longer blocks are read only as far.
constexpr size_t kSourceBlockMax = 256;
// Message number of a receive error; a malformed frame is reported as one (EBADMSG).
constexpr int kMsgnrReceiveError = 2002036;

// One entry as found in a body: `header` bytes of key and length, then `n` data bytes.
struct Entry {
  size_t header;
  size_t n;
  size_t size() const { return header + n; }
};

// The length form of a key, 0 for a key that no body may hold.
int key_form(unsigned char key) {
  switch (key) {
    case kKeyDstName:
    case kKeyDstAcv:
    case kKeyDstAddr:
    case kKeyNative4:
    case kKeyNative7:
      return kFormShort;
    case kKeyNativeSemi:
    case kKeyNativeF9:
    case kKeySrcBlock:
    case kKeyNat16:
      return kFormU16;
    case kKeyNat32:
      return kFormU32;
    case kKeyNativeA:
    case kKeyNativeD:
      return kFormDecimal;
    default:
      return 0;
  }
}

uint16_t read_u16(const unsigned char* p) {
  uint16_t v;
  std::memcpy(&v, p, sizeof v);
  return iCnvU16(v);
}

uint32_t read_u32(const unsigned char* p) {
  uint32_t v;
  std::memcpy(&v, p, sizeof v);
  return iCnvU32(v);
}

void write_u16(unsigned char* p, uint16_t v) {
  v = iCnvU16(v);
  std::memcpy(p, &v, sizeof v);
}

void write_u32(unsigned char* p, uint32_t v) {
  v = iCnvU32(v);
  std::memcpy(p, &v, sizeof v);
}

// Length field of the entry whose key is at `src`; no bounds known, see decode_entry.
std::optional<Entry> read_length(const unsigned char* src, int keylen) {
  switch (keylen) {
    case kFormShort:
      return Entry{2, src[1]};
    case kFormU16:
      return Entry{3, read_u16(src + 1)};
    case kFormU32:
      return Entry{5, read_u32(src + 1)};
    case kFormDecimal: {
      size_t n = 0;
      for (int i = 1; i <= 7 && src[i] >= '0' && src[i] <= '9'; ++i)
        n = n * 10 + (src[i] - '0');
      return Entry{8, n};
    }
    default:
      return std::nullopt;
  }
}

// The entry at the start of `rest` when its length field and its data lie inside `rest`.
std::optional<Entry> decode_entry(std::span<const unsigned char> rest, int keylen) {
  const size_t field = keylen == kFormDecimal ? 7 : static_cast<size_t>(keylen);
  if (rest.size() < 1 + field) return std::nullopt;
  if (keylen == kFormDecimal) {
    for (size_t i = 1; i <= 7; ++i) {
      if (rest[i] < '0' || rest[i] > '9') return std::nullopt;
    }
  }
  auto e = read_length(rest.data(), keylen);
  if (!e || e->n > rest.size() - e->header) return std::nullopt;
  return e;
}

// Copies n bytes into a text field of `size` bytes, cut to size - 1 and terminated.
void copy_text(char* field, size_t size, const unsigned char* data, size_t n) {
  const size_t k = std::min(n, size - 1);
  std::memcpy(field, data, k);
  field[k] = '\0';
}

// Writes a name as exactly 8 bytes: its first 8 characters, blank-padded.
void put_name8(unsigned char* p, const char* name, size_t field_size) {
  const size_t k = std::min<size_t>(strnlen(name, field_size), 8);
  std::memset(p, ' ', 8);
  std::memcpy(p, name, k);
}

void trace_msg_entry(const char* fn, const ccm_msg_t* m) {
  QX_TRACE("%s(msg(%p,msgID=%u,addr=%p,len=%d,pos=%d,flag=%.8X)) -->", fn, (const void*)m,
           (unsigned)m->ID, (const void*)m->msg_start, m->len, m->pos, (unsigned)m->flag);
}

void trace_channel_entry(const char* fn, ccm_channel_t* ch) {
  if (ch == nullptr) {
    QX_TRACE("%s(channel(%p,s=%d/chID=%d,%s,flag=%.8X)) -->", fn, (const void*)ch, -1, 0, "", 0u);
    return;
  }
  QX_TRACE("%s(channel(%p,s=%d/chID=%d,%s,flag=%.8X)) -->", fn, (const void*)ch, ch->s, ch->ID,
           ch->name, (unsigned)std::atomic_ref<int>(ch->flag).load());
}

// A malformed frame ends the channel it came on: it is recorded as a receive error with
// EBADMSG, in the channel (logged when the channel is destroyed) and in the caller's record.
void record_frame_error(ccm_channel_t* ccmch, ccm_error_t* ccmerr) {
  char insert[sizeof(ccmerr->msginsert)];
  std::snprintf(insert, sizeof insert, "%s|%d(%s),S(%d(ID=%d))|", ccmch ? ccmch->name : "", EBADMSG,
                std::strerror(EBADMSG), ccmch ? ccmch->s : -1, ccmch ? ccmch->ID : 0);
  if (ccmch != nullptr) {
    ccmch->msgnr = kMsgnrReceiveError;
    StringCopy(ccmch->msginsert, sizeof(ccmch->msginsert), insert);
  }
  ccm_set_error(ccmerr, kMsgnrReceiveError, "%s", insert);
}

// Walks a source block: short entries 0x01 name, 0x02 value, 0x03 address. Names keep their
// blanks. An unknown sub-key or a sub-entry that does not fit the block ends the walk; the
// frame itself stays valid.
void parse_source_block(ccm_msg_t* ccmmsg, const unsigned char* data, size_t n) {
  unsigned char work[kSourceBlockMax];
  const size_t limit = std::min(n, kSourceBlockMax);
  std::memcpy(work, data, limit);
  ccm_addr_t& a = ccmmsg->addr;
  for (size_t p = 0; p + 2 <= limit;) {
    const unsigned char sub = work[p];
    const size_t sn = work[p + 1];
    if (sub != kKeyDstName && sub != kKeyDstAcv && sub != kKeyDstAddr) {
      __log(-1, "invalid kz");
      return;
    }
    if (sn > limit - p - 2) return;
    const unsigned char* sd = work + p + 2;
    if (sub == kKeyDstName) {
      copy_text(a.src_name, sizeof a.src_name, sd, sn);
    } else if (sub == kKeyDstAddr) {
      copy_text(a.src_addr, sizeof a.src_addr, sd, sn);
    } else if (sn == sizeof a.src_acv) {
      std::memcpy(&a.src_acv, sd, sizeof a.src_acv);
    } else {
      return;
    }
    p += 2 + sn;
  }
}

// Whether an internal message body names the type of a notice that only the process itself
// makes: its type field (16 bytes, or what the body has of them) read up to its first NUL.
bool claims_internal_notice(const unsigned char* body, int len) {
  const size_t field = std::min<size_t>(len > 0 ? static_cast<size_t>(len) : 0, 16);
  const std::string_view type(reinterpret_cast<const char*>(body),
                              strnlen(reinterpret_cast<const char*>(body), field));
  return type == IPCMSG_CHANNEL_CLOSE || type == IPCMSG_CHANNEL_ACCEPT;
}

// Takes one entry of a native or NAT body into the message: an address field, a native
// payload (gathered at the start of `body`, which is `body_len` bytes), the source block or the NAT
// payload. True when a native payload was gathered and must move to the message's buffer.
bool take_entry(ccm_msg_t* ccmmsg, ccm_channel_t* ccmch, unsigned char key, int form,
                const Entry& e, unsigned char* body, unsigned char* entry, size_t body_len) {
  unsigned char* const data = entry + e.header;
  ccm_addr_t& a = ccmmsg->addr;
  bool moved = false;
  switch (key) {
    case kKeyDstName:
      copy_text(a.dst_name, sizeof a.dst_name, data, e.n);
      strip(a.dst_name);
      break;
    case kKeyDstAcv:
      std::memcpy(&a.dst_acv, data, sizeof a.dst_acv);
      break;
    case kKeyDstAddr:
      copy_text(a.dst_addr, sizeof a.dst_addr, data, e.n);
      strip(a.dst_addr);
      break;
    case kKeyNative4:
    case kKeyNative7:
      // The short native forms stand alone in their body; their length is the body's.
      extract_protocol_data(entry, form, body);
      ccmmsg->protocol_key = key;
      ccmmsg->msg_start = body;
      ccmmsg->len = static_cast<int>(body_len - 2);
      moved = true;
      break;
    case kKeyNativeSemi:
    case kKeyNativeF9:
    case kKeyNativeA:
    case kKeyNativeD:
      extract_protocol_data(entry, form, body);
      ccmmsg->protocol_key = key;
      ccmmsg->msg_start = body;
      ccmmsg->len = static_cast<int>(e.n);
      moved = true;
      break;
    case kKeySrcBlock:
      parse_source_block(ccmmsg, data, e.n);
      break;
    case kKeyNat16:
    case kKeyNat32:
      ccmmsg->type = CCM_MSG_NAT;
      ccmmsg->msg_start = data;
      ccmmsg->len = static_cast<int>(e.n);
      if (ccmch != nullptr) std::atomic_ref<int>(ccmch->flag).fetch_and(~CCM_CHFLAG_CONNECTING);
      break;
  }
  return moved;
}

// Appends the source block (key 0x03) behind the payload: the source address, name and value
// that are set, each as an entry.
void append_source_block(ccm_msg_t* ccmmsg, size_t src_addr_len) {
  const ccm_addr_t& a = ccmmsg->addr;
  unsigned char* blk = ccmmsg->msg_start + ccmmsg->len;
  unsigned char* q = blk + 3;
  if (src_addr_len > 0) {
    q[0] = kKeyDstAddr;
    q[1] = static_cast<unsigned char>(src_addr_len);
    std::memcpy(q + 2, a.src_addr, src_addr_len);
    q += src_addr_len + 2;
  }
  if (a.src_name[0] != '\0') {
    q[0] = kKeyDstName;
    q[1] = 8;
    put_name8(q + 2, a.src_name, sizeof a.src_name);
    q += 10;
  }
  if (a.src_acv != 0) {
    q[0] = kKeyDstAcv;
    q[1] = 4;
    std::memcpy(q + 2, &a.src_acv, 4);
    q += 6;
  }
  blk[0] = kKeySrcBlock;
  write_u16(blk + 1, static_cast<uint16_t>(q - blk - 3));
  ccmmsg->len += static_cast<int>(q - blk);
}

}  // namespace

void ccm_set_gss_classifier(ccm_context_t* ccm, ccm_gss_classifier_t hook) {
  ccm->gss_classifier = hook;
}

int ccm_msg_set_protocol_header(ccm_msg_t* ccmmsg, const char* protocol) {
  QX_TRACE("%s(protocol=%.3s,len=%d) -->", __func__, protocol, ccmmsg->len);
  if (ccmmsg->len < 0 || ccmmsg->len > 99999999) {
    QX_TRACE("%s <-- (length does not fit the header)", __func__);
    return -1;
  }
  unsigned char* h = ccmmsg->msg_start;
  std::memset(h, ' ', kHdr);
  char digits[kProtoLengthSize + 1];
  std::snprintf(digits, sizeof digits, "%.8d", ccmmsg->len);
  std::memcpy(h + kProtoLengthOffset, digits, kProtoLengthSize);
  std::memcpy(h + kProtoEyeCatchOffset, kProtoEyeCatch, kProtoEyeCatchSize);
  std::memcpy(h + kProtoVersionOffset, kProtoVersion, kProtoVersionSize);
  std::memcpy(h + kProtoProtocolOffset, protocol, strnlen(protocol, kProtoProtocolSize));
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

char* ccm_msg_write_native_data(ccm_msg_t* ccmmsg, char key, char* data, int len) {
  QX_TRACE("%s(key=%d,len=%d) -->", __func__, key, len);
  if (key == kKeyNative4 && len >= 0 && len <= 255) {
    ccmmsg->msg_start[0] = kKeyNative4;
    ccmmsg->msg_start[1] = static_cast<unsigned char>(len);
    if (len > 0) std::memmove(ccmmsg->msg_start + 2, data, len);
    ccmmsg->len = len + 2;
  }
  QX_TRACE("%s <-- (OK)", __func__);
  return nullptr;
}

int cmm_msg_write_sr_data(ccm_msg_t* ccmmsg) {
  trace_msg_entry(__func__, ccmmsg);
  const ccm_addr_t& a = ccmmsg->addr;
  const size_t addr_len = strnlen(a.dst_addr, sizeof a.dst_addr - 1);
  const bool put_addr = addr_len > 0 && std::strncmp(a.dst_addr, "*CP", 3) == 0;
  const bool put_name = a.dst_name[0] != '\0';
  const bool put_acv = a.dst_acv != 0;
  const size_t src_addr_len = strnlen(a.src_addr, sizeof a.src_addr - 1);
  const bool src_block = src_addr_len > 0 || a.src_name[0] != '\0' || a.src_acv != 0;

  const size_t front = 5 + (put_addr ? addr_len + 2 : 0) + (put_name ? 10 : 0) + (put_acv ? 6 : 0);
  const size_t back = src_block ? 3 + (src_addr_len > 0 ? src_addr_len + 2 : 0) +
                                      (a.src_name[0] != '\0' ? 10 : 0) + (a.src_acv != 0 ? 6 : 0)
                                : 0;
  const unsigned char* area_end = ccmmsg->buffer1 + 2 * static_cast<size_t>(ccmmsg->size);
  if (ccmmsg->len < 0 || static_cast<size_t>(ccmmsg->msg_start - ccmmsg->buffer1) < front ||
      static_cast<size_t>(area_end - ccmmsg->msg_start) < ccmmsg->len + back) {
    QX_TRACE("%s <-- (no room for the address entries)", __func__);
    return -1;
  }

  unsigned char* p = ccmmsg->msg_start - 5;
  p[0] = kKeyNat32;
  write_u32(p + 1, static_cast<uint32_t>(ccmmsg->len));
  if (put_addr) {
    p -= addr_len + 2;
    p[0] = kKeyDstAddr;
    p[1] = static_cast<unsigned char>(addr_len);
    std::memcpy(p + 2, a.dst_addr, addr_len);
  }
  if (put_name) {
    p -= 10;
    p[0] = kKeyDstName;
    p[1] = 8;
    put_name8(p + 2, a.dst_name, sizeof a.dst_name);
  }
  if (put_acv) {
    p -= 6;
    p[0] = kKeyDstAcv;
    p[1] = 4;
    std::memcpy(p + 2, &a.dst_acv, 4);
  }
  ccmmsg->len += static_cast<int>(ccmmsg->msg_start - p);
  ccmmsg->msg_start = p;

  if (src_block) append_source_block(ccmmsg, src_addr_len);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccm_msg_set_ipc_header(ccm_msg_t* /*ccmmsg*/, size_t /*len*/) {
  return 0;
}

size_t ccm_get_msg_length(ccm_context_t* /*ccm*/, ccm_channel_t* ccmch, unsigned char* buffer) {
  if (ccmch != nullptr) {
    QX_TRACE("%s(channel(%p,s=%d/chID=%d,%s,flag=%.8X),pos=%d) -->", __func__, (void*)ccmch,
             ccmch->s, ccmch->ID, ccmch->name, (unsigned)std::atomic_ref<int>(ccmch->flag).load(),
             ccmch->recv_pos);
  }
  char digits[kProtoLengthSize + 1];
  std::memcpy(digits, buffer, kProtoLengthSize);
  digits[kProtoLengthSize] = '\0';
  const long v = std::strtol(digits, nullptr, 10);
  const size_t length = v > 0 ? static_cast<size_t>(v) : 0;
  QX_TRACE("%s <-- (length=%d)", __func__, (int)length);
  return length;
}

int ccm_check_msg_length(const unsigned char* buffer) {
  int v = 0;
  for (int i = 0; i < kProtoLengthSize; ++i) {
    if (buffer[i] < '0' || buffer[i] > '9') return -1;
    v = v * 10 + (buffer[i] - '0');
  }
  return v >= kHdr && v <= kMaxFrameSize ? v : -1;
}

int ccm_get_valid_msg_length(ccm_context_t* /*ccm*/, ccm_channel_t* ccmch,
                             const unsigned char* buffer, ccm_error_t* ccmerr) {
  trace_channel_entry(__func__, ccmch);
  const int length = ccm_check_msg_length(buffer);
  if (length < 0) {
    QX_TRACE("%s <-- (invalid frame length '%.8s')", __func__, (const char*)buffer);
    record_frame_error(ccmch, ccmerr);
    return -1;
  }
  QX_TRACE("%s <-- (length=%d)", __func__, length);
  return length;
}

int extract_protocol_data(const unsigned char* src, int keylen, unsigned char* dst) {
  QX_TRACE("%s(src=%p,keylen=%d) -->", __func__, (const void*)src, keylen);
  const auto e = read_length(src, keylen);
  if (!e) {
    QX_TRACE("%s <-- (invalid length form)", __func__);
    return -1;
  }
  if (trc_level()) trcdump(const_cast<unsigned char*>(src + e->header), (int)e->n, "extracted");
  if (dst != nullptr && e->n > 0) std::memmove(dst, src + e->header, e->n);
  QX_TRACE("%s <-- (len=%d)", __func__, (int)e->size());
  return static_cast<int>(e->size());
}

int ccm_parse_native_message(ccm_context_t* /*ccm*/, ccm_channel_t* ccmch, ccm_msg_t* ccmmsg,
                             ccm_error_t* ccmerr) {
  trace_channel_entry(__func__, ccmch);
  ccmmsg->type = CCM_MSG_NATIVE;
  if (ccmmsg->len < 0) {
    record_frame_error(ccmch, ccmerr);
    QX_TRACE("%s <-- (negative length)", __func__);
    return -1;
  }
  // Native payloads are gathered at the start of the body; NAT payloads stay where they are.
  unsigned char* const body = ccmmsg->msg_start;
  const size_t body_len = static_cast<size_t>(ccmmsg->len);
  ccm_addr_t& a = ccmmsg->addr;
  bool moved = false;

  for (size_t off = 0; off < body_len;) {
    const unsigned char key = body[off];
    QX_TRACE("%s:      protocol key = %d(0x%.2X)", __func__, key, key);
    const int form = key_form(key);
    if (form == 0) {
      record_frame_error(ccmch, ccmerr);
      QX_TRACE("%s <-- (invalid key %d(0x%.2X))", __func__, key, key);
      return -1;
    }
    const auto e = decode_entry(std::span<const unsigned char>(body + off, body_len - off), form);
    if (!e || (key == kKeyDstAcv && e->n != sizeof a.dst_acv)) {
      record_frame_error(ccmch, ccmerr);
      QX_TRACE("%s <-- (entry of key %d(0x%.2X) does not fit the frame)", __func__, key, key);
      return -1;
    }
    moved |= take_entry(ccmmsg, ccmch, key, form, *e, body, body + off, body_len);
    off += e->size();
  }

  if (moved) {
    std::memmove(ccmmsg->buffer1, ccmmsg->msg_start, ccmmsg->len);
    ccmmsg->msg_start = ccmmsg->buffer1;
  }
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccm_classify_message(ccm_context_t* ccm, ccm_channel_t* ccmch, ccm_msg_t* ccmmsg,
                         ccm_error_t* ccmerr) {
  trace_channel_entry(__func__, ccmch);
  if (ccmmsg->len < kHdr) {
    record_frame_error(ccmch, ccmerr);
    QX_TRACE("%s <-- (frame shorter than its header)", __func__);
    return -1;
  }
  if (std::memcmp(ccmmsg->msg_start + kProtoProtocolOffset, "IPC", kProtoProtocolSize) == 0) {
    // Internal messages come only from a local partner that the application trusts; any
    // other peer (every network peer) could forge them. The notices of a closed or accepted
    // channel are made inside the process alone: a frame that claims to be one is forged.
    const char* refused = nullptr;
    if (ccmch == nullptr ||
        !(std::atomic_ref<int>(ccmch->flag).load() & CCM_CHFLAG_LOCAL_PARTNER)) {
      refused = "IPC frame from a channel that is no local partner";
    } else if (claims_internal_notice(ccmmsg->msg_start + kHdr, ccmmsg->len - kHdr)) {
      refused = "IPC frame claiming an internal notice";
    }
    if (refused != nullptr) {
      record_frame_error(ccmch, ccmerr);
      QX_TRACE("%s <-- (%s)", __func__, refused);
      return -1;
    }
    ccmmsg->type = CCM_MSG_IPC;
    ccmmsg->msg_start += kHdr;
    ccmmsg->len -= kHdr;
    if (ccmch != nullptr) {
      StringCopy(ccmmsg->addr.src_addr, sizeof ccmmsg->addr.src_addr, ccmch->name);
    }
    QX_TRACE("%s <-- (IPC message)", __func__);
    return 0;
  }
  const ccm_gss_classifier_t hook = ccm->gss_classifier;
  if (hook != nullptr && hook(ccm, ccmmsg)) {
    ccmmsg->type = CCM_MSG_GSS;
    QX_TRACE("%s <-- (GSS protocol message)", __func__);
    return 0;
  }
  ccmmsg->len -= kHdr;
  ccmmsg->msg_start += kHdr;
  if (ccm_parse_native_message(ccm, ccmch, ccmmsg, ccmerr) != 0) {
    QX_TRACE("%s <-- (error parsing message)", __func__);
    return -1;
  }
  if (ccmmsg->len >= 5 && std::memcmp(ccmmsg->msg_start, "<?xml", 5) == 0) {
    ccmmsg->flag |= CCM_MSGFLAG_XML;
  }
  if (ccmmsg->type == CCM_MSG_NAT && !(ccmmsg->flag & CCM_MSGFLAG_XML) &&
      msgconv_ToHost(ccm, ccmmsg) != 0) {
    QX_TRACE("%s <-- (msgconv ToHost error)", __func__);
    return -1;
  }
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int msgconv_ToHost(ccm_context_t* /*ccm*/, ccm_msg_t* ccmmsg) {
  trace_msg_entry(__func__, ccmmsg);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}
