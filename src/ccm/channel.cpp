// The channel table: creating, entering, finding, deleting and destroying channels.
#include "ccm/channel.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ccm/address.h"
#include "ccm/internal.h"
#include "ccm/ipc.h"
#include "ccm/message.h"
#include "common/trace_log.h"

namespace {

void trace_channel_line(const char* fn, const char* fmt_suffix, const ccm_channel_t* ch) {
  if (!trc_level()) return;
  int flag = ccm_flag_get(ch->flag);
  __trace_text(0,
               "%s%s(name=%-20s,chID=%d,s=%d,type=%.8X,flag=%.8X,%s,host=%s(%s),port=%d,"
               "sendq=%p)",
               fn, fmt_suffix, ch->name, ch->ID, ch->s, static_cast<unsigned>(ch->type),
               static_cast<unsigned>(flag), (flag & CCM_CHFLAG_DELETED) ? "deleted" : "active",
               ch->host, ch->addr, ch->port, static_cast<void*>(ch->sendq.head));
}

bool is_live(const ccm_channel_t* ch) {
  return (ccm_flag_get(ch->flag) & CCM_CHFLAG_DELETED) == 0;
}

// Walks `q` for the first live channel that `match` accepts. The caller holds channel_lock.
template <class Match>
ccm_channel_t* find_in(const ccm_channel_queue_t& q, Match match) {
  for (ccm_channel_t* ch = q.head; ch != nullptr; ch = ch->nxt) {
    if (is_live(ch) && match(ch)) return ch;
  }
  return nullptr;
}

// Takes channel_lock and searches; keeps the lock only when a channel is found.
template <class Match>
ccm_channel_t* search(ccm_context_t* ccm, bool include_newq, Match match) {
  pthread_spin_lock(&ccm->channel_lock);
  ccm_channel_t* ch = find_in(ccm->channelq, match);
  if (ch == nullptr && include_newq) ch = find_in(ccm->channel_newq, match);
  if (ch == nullptr) pthread_spin_unlock(&ccm->channel_lock);
  return ch;
}

bool same_name(const ccm_channel_t* ch, const char* name) {
  return name != nullptr && strncmp(ch->name, name, sizeof ch->name) == 0 &&
         strnlen(name, sizeof ch->name) < sizeof ch->name;
}

}  // namespace

int ccm_channel_new_entry(ccm_context_t* ccm, ccm_channel_t** ccmch, ccm_error_t* ccmerr) {
  QX_TRACE("%s(ccm=%p) -->", __func__, static_cast<void*>(ccm));
  auto* ch = static_cast<ccm_channel_t*>(ccm_alloc(sizeof(ccm_channel_t), "CREATE_CHANNEL"));
  if (ch == nullptr) {
    ccm_set_alloc_error(ccmerr, "CREATE_CHANNEL", __FILE__, __LINE__);
    QX_TRACE("%s <-- (calloc error, message queue)", __func__);
    return -1;
  }
  std::memcpy(ch->eyec, "##CCM#CHANNEL###", sizeof ch->eyec);
  pthread_spin_init(&ch->queue_lock, PTHREAD_PROCESS_PRIVATE);
  {
    ccm_channel_guard guard(ccm, ccm_lock_trace::kQuiet);
    ch->ID = ccm->unique_channel_ID++;
  }
  // No socket yet: -1, so that destroying a channel that never got one closes nothing.
  ch->s = -1;
  std::snprintf(ch->name, sizeof ch->name, "*ID%d", ch->ID);
  *ccmch = ch;
  QX_TRACE("%s <-- (channel=%p)", __func__, static_cast<void*>(ch));
  return 0;
}

int ccm_channel_chain(ccm_context_t* ccm, ccm_channel_t* ccmch) {
  QX_TRACE("%s(ccm=%p,channel=(%p,%d,%s)) -->", __func__, static_cast<void*>(ccm),
           static_cast<void*>(ccmch), ccmch->ID, ccmch->name);
  char eyec[32];
  std::snprintf(eyec, sizeof eyec, "#CCMSOCK%.8d", ccmch->ID);
  std::memcpy(ccmch->eyec, eyec, sizeof ccmch->eyec);
  {
    ccm_channel_guard guard(ccm, ccm_lock_trace::kQuiet);
    ccm_queue_append(ccm->channel_newq, ccmch);
  }
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

ccm_channel_t* ccm_channel_getbyID(ccm_context_t* ccm, int ID) {
  QX_TRACE("%s(searchID=%d) -->", __func__, ID);
  ccm_channel_t* ch = search(ccm, true, [ID](const ccm_channel_t* c) { return c->ID == ID; });
  QX_TRACE("%s <-- (channel=%p)", __func__, static_cast<void*>(ch));
  return ch;
}

ccm_channel_t* ccm_channel_getbyRemoteID(ccm_context_t* ccm, int ID) {
  QX_TRACE("%s(remoteID=%d) -->", __func__, ID);
  ccm_channel_t* ch =
      search(ccm, false, [ID](const ccm_channel_t* c) { return c->remoteID == ID; });
  QX_TRACE("%s <-- (channel=%p)", __func__, static_cast<void*>(ch));
  return ch;
}

ccm_channel_t* ccm_channel_getbyName(ccm_context_t* ccm, const char* name) {
  QX_TRACE("%s(name=%s) -->", __func__, name ? name : "(null)");
  ccm_channel_t* ch = nullptr;
  if (name != nullptr) {
    ch = search(ccm, true, [name](const ccm_channel_t* c) { return same_name(c, name); });
  }
  QX_TRACE("%s <-- (channel=%p)", __func__, static_cast<void*>(ch));
  return ch;
}

int ccm_channel_existbyID(ccm_context_t* ccm, int ID) {
  QX_TRACE("%s(ID=%d) -->", __func__, ID);
  if (ccm_found_channel::by_ID(ccm, ID)) {
    QX_TRACE("%s <-- (AGENT[ID=%i] EXISTS)", __func__, ID);
    return 1;
  }
  QX_TRACE("%s <-- (AGENT[ID=%i] does NOT exists)", __func__, ID);
  return 0;
}

int ccm_channel_existbyName(ccm_context_t* ccm, const char* name) {
  QX_TRACE("%s(name=%s) -->", __func__, name ? name : "(null)");
  if (ccm_found_channel::by_name(ccm, name)) {
    QX_TRACE("%s <-- (AGENT[name=%s] EXISTS)", __func__, name);
    return 1;
  }
  QX_TRACE("%s <-- (AGENT[name=%s] does NOT exists)", __func__, name ? name : "(null)");
  return 0;
}

// Delivers the partner's numeric address (`addr`): the text that the connection was made to
// and that the channel table compares, and the one that every kind of channel has.
int ccm_channel_get_ip(ccm_context_t* ccm, int ID, const char* name, char* ip,
                       ccm_error_t* /*ccmerr*/) {
  QX_TRACE("%s(ID=%d,name=%s) -->", __func__, ID, name ? name : "(null)");
  {
    const ccm_found_channel ch = ccm_found_channel::by_ID_or_name(ccm, ID >= 1 ? ID : 0, name);
    if (!ch) {
      QX_TRACE("%s <-- (channel not found, ID=%d, name=%s)", __func__, ID, name ? name : "(null)");
      return -1;
    }
    ccm_copy_text(ip, CCM_ADDRSTR_SIZE, ch->addr);
  }
  QX_TRACE("%s <-- (ip=%s)", __func__, ip);
  return 0;
}

int ccm_channel_delete(ccm_context_t* ccm, ccm_channel_t* ccmch) {
  QX_TRACE("%s(ccm=%p,channel=(%p,%d,%s)) -->", __func__, static_cast<void*>(ccm),
           static_cast<void*>(ccmch), ccmch->ID, ccmch->name);
  ccm_flag_set(ccmch->flag, CCM_CHFLAG_DELETED);
  ccm_flag_set(ccm->flag, CCM_FLAG_CHANNEL_DELETED);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccm_channel_deletebyID(ccm_context_t* ccm, int ID) {
  QX_TRACE("%s(ID=%d) -->", __func__, ID);
  ccm_channel_t* ch = nullptr;
  if (const ccm_found_channel found = ccm_found_channel::by_ID(ccm, ID)) {
    ch = found.get();
    ccm_channel_delete(ccm, ch);
  }
  QX_TRACE("%s <-- (channel=%p deleted)", __func__, static_cast<void*>(ch));
  return 0;
}

int ccm_channel_deletebyName(ccm_context_t* ccm, const char* name) {
  QX_TRACE("%s(name=%s) -->", __func__, name ? name : "(null)");
  ccm_channel_t* ch = nullptr;
  if (const ccm_found_channel found = ccm_found_channel::by_name(ccm, name)) {
    ch = found.get();
    ccm_channel_delete(ccm, ch);
  }
  QX_TRACE("%s <-- (channel=%p deleted)", __func__, static_cast<void*>(ch));
  return 0;
}

namespace {

void log_closing(const ccm_channel_t* ch) {
  switch (ch->type) {
    case CCM_CHTYPE_SILENT:
      break;
    case CCM_CHTYPE_LISTEN:
      __log(CCM_MSGNR_CLOSE_OTHER, "s=%d,ID=%d|%s", ch->s, ch->ID, "*LISTEN");
      break;
    case CCM_CHTYPE_SERVER:
    case CCM_CHTYPE_CP:
      __log(CCM_MSGNR_CLOSE_SERVER, "%s(s=%d,ID=%d)", ch->name, ch->s, ch->ID);
      break;
    case CCM_CHTYPE_AGENT:
      __log(CCM_MSGNR_CLOSE_AGENT, "%s(s=%d,ID=%d)", ch->name, ch->s, ch->ID);
      break;
    default:
      __log(CCM_MSGNR_CLOSE_OTHER, "s=%d,ID=%d|%s", ch->s, ch->ID, ch->name);
      break;
  }
}

// Puts a "CHANNEL_CLOSE" notice for `ch` on the context's receive queue. Without a message
// no notice is sent.
void send_close_notice(ccm_context_t* ccm, const ccm_channel_t* ch) {
  ccm_error_t err{};
  ccm_msg_t* msg = ccm_msg_alloc(ccm, &err);
  if (msg == nullptr) {
    ccm_log_error(err);
    QX_TRACE("%s:      no message for the close notice of channel %d", __func__, ch->ID);
    return;
  }
  unsigned char* p = msg->msg_start;
  std::memset(p, 0, sizeof(ipcmsg_channel_close_t));
  std::memcpy(p + offsetof(ipcmsg_channel_close_t, head), IPCMSG_CHANNEL_CLOSE,
              sizeof IPCMSG_CHANNEL_CLOSE);
  std::memcpy(p + offsetof(ipcmsg_channel_close_t, ccmch), static_cast<const void*>(ch),
              sizeof(ccm_channel_t));
  if (ch->cuc != nullptr) {
    std::memcpy(p + offsetof(ipcmsg_channel_close_t, cuc), static_cast<const void*>(ch->cuc),
                CCM_CUC_FIXED_SIZE);
  }
  msg->len = static_cast<int>(sizeof(ipcmsg_channel_close_t));
  send_IPC_internal(ccm, msg);
}

}  // namespace

int ccm_channel_destroy(ccm_context_t* ccm, ccm_channel_t* ccmch, ccm_error_t* /*ccmerr*/) {
  QX_TRACE("%s(channel(%p,s=%d/chID=%d,%s,flag=%.8X)) -->", __func__, static_cast<void*>(ccmch),
           ccmch->s, ccmch->ID, ccmch->name, static_cast<unsigned>(ccm_flag_get(ccmch->flag)));
  if (ccmch->msgnr != 0) __log(ccmch->msgnr, "%s", ccmch->msginsert);
  log_closing(ccmch);
  if (ccmch->type != CCM_CHTYPE_NOSOCKET && ccmch->type != CCM_CHTYPE_SILENT) {
    send_close_notice(ccm, ccmch);
  }
  ccm_channel_emptying_msg_queue(ccm, ccmch);
  ccm_free(ccmch->recv_buffer);
  ccm_free(ccmch->send_buffer);
  ccm_free(ccmch->cuc);
  if (ccmch->s >= 0) {
    QX_TRACE("%s:      closing socket = %d", __func__, ccmch->s);
    // A close never waits: whatever linger time the socket carries (one an application set,
    // or one a passed socket brought along) is turned off first, so that the system delivers
    // what is still unsent in the background instead of holding this thread until a partner
    // that does not read takes it. (For a descriptor that is no socket the call fails
    // harmlessly.)
    linger off{};
    setsockopt(ccmch->s, SOL_SOCKET, SO_LINGER, &off, sizeof off);
    close(ccmch->s);
    ccmch->s = -1;
  }
  QX_TRACE("%s:      destroy queue lock = %p", __func__,
           static_cast<void*>(const_cast<int*>(&ccmch->queue_lock)));
  pthread_spin_destroy(&ccmch->queue_lock);
  std::memset(static_cast<void*>(ccmch), 0, sizeof *ccmch);
  ccm_free(ccmch);
  QX_TRACE("%s <-- (destroyed)", __func__);
  return 0;
}

int ccm_channel_closeall(ccm_context_t* ccm) {
  QX_TRACE("%s(ccm=%p) -->", __func__, static_cast<void*>(ccm));
  if (ccm == nullptr) {
    QX_TRACE("%s <-- (ccm == null)", __func__);
    return 0;
  }
  {
    ccm_channel_guard guard(ccm, ccm_lock_trace::kQuiet);
    ccm_channel_t* next = nullptr;
    for (ccm_channel_t* ch = ccm->channelq.head; ch != nullptr; ch = next) {
      next = ch->nxt;
      ccm_error_t err{};
      ccm_channel_destroy(ccm, ch, &err);
      ccm_log_error(err);
    }
    ccm->channelq = {};
  }
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccm_destroy_deleted_channels(ccm_context_t* ccm, int* ndestroyed) {
  QX_TRACE("%s(ccm=%p) -->", __func__, static_cast<void*>(ccm));
  ccm_channel_queue_t doomed{};
  int count = 0;
  {
    ccm_channel_guard guard(ccm, ccm_lock_trace::kQuiet);
    ccm_channel_queue_t all = ccm->channelq;
    ccm->channelq = {};
    while (ccm_channel_t* ch = ccm_queue_pop(all)) {
      trace_channel_line(__func__, ":      channel", ch);
      if (is_live(ch)) {
        ccm_queue_append(ccm->channelq, ch);
      } else {
        ccm_queue_append(doomed, ch);
        count++;
      }
    }
    ccm_flag_clear(ccm->flag, CCM_FLAG_CHANNEL_DELETED);
  }
  while (ccm_channel_t* ch = ccm_queue_pop(doomed)) {
    ccm_error_t err{};
    ccm_channel_destroy(ccm, ch, &err);
    ccm_log_error(err);
  }
  if (ndestroyed != nullptr) *ndestroyed = count;
  QX_TRACE("%s <-- (number of deleted channels = %d)", __func__, count);
  return 0;
}

int ccm_channel_set_local_partner(ccm_context_t* /*ccm*/, ccm_channel_t* ccmch,
                                  ccm_error_t* ccmerr) {
  QX_TRACE("%s(channel(%p,s=%d/chID=%d,%s)) -->", __func__, static_cast<void*>(ccmch), ccmch->s,
           ccmch->ID, ccmch->name);
  int domain = -1;
  socklen_t len = sizeof domain;
  if (getsockopt(ccmch->s, SOL_SOCKET, SO_DOMAIN, &domain, &len) != 0 || domain != AF_UNIX) {
    // A network peer can be anybody: internal messages are for programs of this host only.
    const int err = domain == -1 ? errno : EPROTOTYPE;
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "local partner(s=%d,ID=%d)|%d-%s", ccmch->s, ccmch->ID,
                  err, strerror(err));
    QX_TRACE("%s <-- (no local-domain socket)", __func__);
    return -1;
  }
  ccm_flag_set(ccmch->flag, CCM_CHFLAG_LOCAL_PARTNER);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccm_channel_bindaddr_inquire(ccm_context_t* ccm, ccm_channel_t* ccmch, ccm_error_t* ccmerr) {
  QX_TRACE("%s(channel(%p,s=%d/chID=%d,%s,flag=%.8X)) -->", __func__, static_cast<void*>(ccmch),
           ccmch->s, ccmch->ID, ccmch->name, static_cast<unsigned>(ccm_flag_get(ccmch->flag)));
  if (std::strncmp(ccmch->name, "*IPC", 4) == 0) {
    ccm_flag_set(ccmch->flag, CCM_CHFLAG_BINDADDR);
    QX_TRACE("%s <-- (IPC channel, no bind addr)", __func__);
    return 0;
  }
  sockaddr_in6 local{};
  socklen_t len = sizeof local;
  QX_TRACE("%s:      getsockname(%d,...,len=%d) -->", __func__, ccmch->s, static_cast<int>(len));
  errno = 0;
  int rslt = getsockname(ccmch->s, reinterpret_cast<sockaddr*>(&local), &len);
  int err = errno;
  QX_TRACE("%s:      getsockname(...) <-- rslt=%d,errno=%d-%s", __func__, rslt, err, strerror(err));
  if (rslt != 0) {
    ccm_channel_delete(ccm, ccmch);
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "getsockname()|%d(%s),S(%d(ID=%d))|", err,
                  strerror(err), ccmch->s, ccmch->ID);
    QX_TRACE("%s <-- (getsockname() error, bind address)", __func__);
    return -1;
  }
  if (err != 0) {
    QX_TRACE("%s <-- (try it later)", __func__);
    return 0;
  }
  ccm_address2string(&local, ccmch->bind_addr, sizeof ccmch->bind_addr);
  ccm_flag_set(ccmch->flag, CCM_CHFLAG_BINDADDR);
  QX_TRACE("%s <-- (OK, bind address = %s)", __func__, ccmch->bind_addr);
  return 0;
}
