#include "ccm/send.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "ccm/internal.h"
#include "ccm/ipc.h"
#include "ccm/receive.h"
#include "ccm/wire.h"
#include "common/trace_log.h"

namespace {

constexpr int kHdr = kProtocolHeaderSize;
// Longest prefix a NAT body gets in front of its payload (0xFF entry, "*CP" address of 63
// characters, name, value) plus the header, and longest source block behind it.
constexpr int kNatFrontMax = 5 + 65 + 10 + 6 + kHdr;
constexpr int kNatBackMax = 3 + 65 + 10 + 6;

// "ROUTENAT" record: type name, the routed message's address record, its payload length
// (host order: the partner runs on the same host) and the payload.
constexpr int kRouteTypeOffset = 0;
constexpr int kRouteAddrOffset = 16;
constexpr int kRouteLenOffset = kRouteAddrOffset + static_cast<int>(sizeof(ccm_addr_t));
constexpr int kRouteFixedSize = kRouteLenOffset + 4;
static_assert(kRouteLenOffset == 304 && kRouteFixedSize == 308);

constexpr int kMsgnrForward = 2003070;

// Unlinks a message from `msgq_inuse` (if it stands there) and appends it to `q`. The caller
// holds the context's queue lock.
void move_to(ccm_context_t* ccm, ccm_msg_t* m, ccm_msg_queue_t& q) {
  ccm_msg_queue_t& inuse = ccm->msgq_inuse;
  ccm_msg_t* prev = nullptr;
  for (ccm_msg_t* cur = inuse.head; cur != nullptr; prev = cur, cur = cur->nxt) {
    if (cur != m) continue;
    if (prev == nullptr) {
      inuse.head = cur->nxt;
      if (inuse.head == nullptr) inuse.tail = nullptr;
    } else {
      prev->nxt = cur->nxt;
      if (inuse.tail == cur) inuse.tail = prev;
    }
    break;
  }
  m->nxt = nullptr;
  if (q.head == nullptr) {
    q.head = m;
  } else {
    q.tail->nxt = m;
  }
  q.tail = m;
}

int headroom(const ccm_msg_t* m) {
  return static_cast<int>(m->msg_start - m->buffer1);
}

void trace_msg_entry(const char* fn, const ccm_msg_t* m) {
  QX_TRACE("%s(msg(%p,msgID=%u,addr=%p,len=%d,pos=%d,flag=%.8X)) -->", fn, (const void*)m,
           (unsigned)m->ID, (const void*)m->msg_start, m->len, m->pos, (unsigned)m->flag);
}

// Puts a header of `protocol` in front of the data at msg_start. False, with the message
// unchanged, when there is no head room for it or the frame would exceed the largest frame.
bool prepend_header(ccm_msg_t* m, const char* protocol) {
  if (m->len < 0 || headroom(m) < kHdr || m->len > kMaxFrameSize - kHdr) return false;
  m->msg_start -= kHdr;
  m->len += kHdr;
  ccm_msg_set_protocol_header(m, protocol);
  return true;
}

// The running mode of the application that opened the connection manager; without one,
// nothing is routed.
int running_mode(const ccm_context_t* ccm) {
  const auto* app = static_cast<const ccm_app_context_head*>(ccm->app);
  return app != nullptr ? app->running_mode : 0;
}

}  // namespace

int ccm_send_message_common(ccm_context_t* ccm, ccm_msg_t* ccmmsg, const char* text) {
  if (trc_level()) trcdump(ccmmsg->msg_start, ccmmsg->len, "%s", text);
  {
    ccm_queue_guard lock(ccm);
    move_to(ccm, ccmmsg, ccm->sendq);
  }
  ccm_wakeup_network(ccm);
  return 0;
}

int send_native_message(ccm_context_t* ccm, ccm_msg_t* ccmmsg) {
  trace_msg_entry(__func__, ccmmsg);
  if (!prepend_header(ccmmsg, "NAT")) {
    QX_TRACE("%s <-- (no room for the header)", __func__);
    return -1;
  }
  ccm_send_message_common(ccm, ccmmsg, "native message");
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int send_GSS_message(ccm_context_t* ccm, ccm_msg_t* ccmmsg, const char* coding) {
  trace_msg_entry(__func__, ccmmsg);
  if (!prepend_header(ccmmsg, "GSS")) {
    QX_TRACE("%s <-- (no room for the header)", __func__);
    return -1;
  }
  unsigned char* c = ccmmsg->msg_start + kProtoCodingOffset;
  std::memset(c, ' ', kProtoCodingSize);
  if (coding != nullptr) std::memcpy(c, coding, strnlen(coding, kProtoCodingSize));
  ccm_send_message_common(ccm, ccmmsg, "GSS protocol message");
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int send_NAT_message(ccm_context_t* ccm, ccm_msg_t* ccmmsg) {
  const ccm_addr_t& a = ccmmsg->addr;
  QX_TRACE(
      "%s(msg(%p,msgID=%u,addr=%p,len=%d,pos=%d,flag=%.8X),addr(src=(ID=%d,addr=%s,name=%s,"
      "acv=%.8X),dst=(ID=%d,addr=%s,name=%s,acv=%.8X))) -->",
      __func__, (void*)ccmmsg, (unsigned)ccmmsg->ID, (void*)ccmmsg->msg_start, ccmmsg->len,
      ccmmsg->pos, (unsigned)ccmmsg->flag, a.src_ID, a.src_addr, a.src_name, (unsigned)a.src_acv,
      a.dst_ID, a.dst_addr, a.dst_name, (unsigned)a.dst_acv);

  if (running_mode(ccm) != 0 && std::strcmp(a.dst_addr, "*SERVER") == 0) {
    const int rslt = send_NAT_message_route(ccm, ccmmsg);
    QX_TRACE("%s <-- (routed)", __func__);
    return rslt;
  }
  if (!(ccmmsg->flag & CCM_MSGFLAG_XML) && msgconv_ToLan(ccm, ccmmsg) != 0) {
    QX_TRACE("%s <-- (msgconv ToLAN() error)", __func__);
    return -1;
  }
  if (ccmmsg->len < 0 || headroom(ccmmsg) < kNatFrontMax ||
      ccmmsg->len > kMaxFrameSize - kNatFrontMax - kNatBackMax) {
    QX_TRACE("%s <-- (no room for the address entries)", __func__);
    return -1;
  }
  if (trc_level()) {
    char head[9] = {};
    std::memcpy(head, ccmmsg->msg_start, std::min(ccmmsg->len, 8));
    QX_TRACE("%s:      %8.8s send %8.8s  to  %s b-acv: %.8X  c-acv: %.8X", __func__, a.src_name,
             head, a.dst_addr, (unsigned)a.src_acv, (unsigned)a.dst_acv);
  }
  if (cmm_msg_write_sr_data(ccmmsg) != 0) {
    QX_TRACE("%s <-- (no room for the source block)", __func__);
    return -1;
  }
  prepend_header(ccmmsg, "NAT");
  ccmmsg->type = CCM_MSG_NAT;
  ccm_send_message_common(ccm, ccmmsg, "NAT message");
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int send_NAT_message_route(ccm_context_t* ccm, ccm_msg_t* ccmmsg) {
  trace_msg_entry(__func__, ccmmsg);
  // The wrapper holds the fixed part and the whole payload; a payload longer than a pool
  // message can take behind the fixed part gets a message of a larger size class.
  const int need = kRouteFixedSize + std::max(ccmmsg->len, 0);
  ccm_error_t err{};
  ccm_msg_t* r = need <= 2 * CCM_MSG_POOL_SIZE - CCM_MSG_HEADROOM
                     ? ccm_msg_alloc(ccm, &err)
                     : ccm_msg_alloc_huge(ccm, (need + CCM_MSG_HEADROOM + 1) / 2, &err);
  if (r == nullptr) {
    // The given message stays with the caller, as after any other failed send.
    ccm_log_error(err);
    QX_TRACE("%s <-- (alloc error, %d|%s)", __func__, err.msgnr, err.msginsert);
    return -1;
  }
  unsigned char* p = r->msg_start;
  std::memset(p, 0, kRouteFixedSize);
  std::memcpy(p + kRouteTypeOffset, "ROUTENAT", 8);
  std::memcpy(p + kRouteAddrOffset, &ccmmsg->addr, sizeof(ccm_addr_t));
  const int len = std::max(ccmmsg->len, 0);
  std::memcpy(p + kRouteLenOffset, &len, sizeof len);
  if (len > 0) std::memcpy(p + kRouteFixedSize, ccmmsg->msg_start, len);
  r->len = kRouteFixedSize + len;

  ccm_setaddr(r, 0, 0, "*IPC(AGENT)", "", 0);
  if (send_IPC_message(ccm, r) != 0) {
    ccm_msg_free(ccm, r);
    QX_TRACE("%s <-- (wrapper not sent)", __func__);
    return -1;
  }
  ccm_msg_free(ccm, ccmmsg);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int msgconv_ToLan(ccm_context_t* /*ccm*/, ccm_msg_t* ccmmsg) {
  trace_msg_entry(__func__, ccmmsg);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int send_IPC_message(ccm_context_t* ccm, ccm_msg_t* ccmmsg) {
  QX_TRACE("%s(%.16s,msg(%p,msgID=%u,addr=%p,len=%d,pos=%d,flag=%.8X)) -->", __func__,
           ccmmsg->len >= 16 ? (const char*)ccmmsg->msg_start : "", (void*)ccmmsg,
           (unsigned)ccmmsg->ID, (void*)ccmmsg->msg_start, ccmmsg->len, ccmmsg->pos,
           (unsigned)ccmmsg->flag);
  if (!prepend_header(ccmmsg, "IPC")) {
    QX_TRACE("%s <-- (no room for the header)", __func__);
    return -1;
  }
  ccmmsg->type = CCM_MSG_IPC;
  ccm_send_message_common(ccm, ccmmsg, "IPC message");
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccm_forward_NAT_message(ccm_context_t* ccm, ccm_msg_t* ccmmsg, int channelID,
                            const char* channelName, ccm_error_t* ccmerr, int check_channel) {
  if (channelName == nullptr) channelName = "";
  QX_TRACE("%s(foward to ID=%d,name=%s) -->", __func__, channelID, channelName);
  // Without a check the copy goes to the channel the caller names, by ID when one is given;
  // the dispatcher drops it if that channel is gone by then.
  int target_ID = check_channel ? 0 : channelID;
  char target_name[sizeof(ccm_channel_t::name)];
  std::snprintf(target_name, sizeof target_name, "%s", check_channel ? "" : channelName);

  if (check_channel) {
    const ccm_found_channel ch = ccm_found_channel::by_ID_or_name(ccm, channelID, channelName);
    if (!ch) {
      ccm_set_error(ccmerr, kMsgnrForward, "%d/%s|channel not found|", channelID, channelName);
      QX_TRACE("%s <-- (ftx ipc channel not found)", __func__);
      return -1;
    }
    target_ID = ch->ID;
    std::snprintf(target_name, sizeof target_name, "%s", ch->name);
  }

  // The copy needs room for the payload and, behind it, the source block it gets.
  const int len = std::max(ccmmsg->len, 0);
  const int need = len + kNatBackMax;
  ccm_error_t err{};
  ccm_msg_t* f = need <= 2 * CCM_MSG_POOL_SIZE - CCM_MSG_HEADROOM
                     ? ccm_msg_alloc(ccm, &err)
                     : ccm_msg_alloc_huge(ccm, (need + CCM_MSG_HEADROOM + 1) / 2, &err);
  if (f == nullptr) {
    ccm_set_error(ccmerr, kMsgnrForward, "%d/%s|alloc error|", channelID, channelName);
    QX_TRACE("%s <-- (alloc error)", __func__);
    return -1;
  }
  const ccm_addr_t& a = ccmmsg->addr;
  if (channelID != 0) {
    ccm_setaddr(f, target_ID, 0, "", a.dst_name, a.dst_acv);
  } else {
    ccm_setaddr(f, 0, 0, channelName, a.dst_name, a.dst_acv);
  }
  ccm_setback(f, "*SERVER", a.src_name, a.src_acv);
  if (len > 0) std::memcpy(f->msg_start, ccmmsg->msg_start, len);
  f->len = len;

  if (send_NAT_message(ccm, f) != 0) {
    ccm_msg_free(ccm, f);
    QX_TRACE("%s <-- (copy not sent)", __func__);
    return -1;
  }
  QX_TRACE("%s <-- (fowarded to ID=%d,name='%s')", __func__, target_ID, target_name);
  return 0;
}
