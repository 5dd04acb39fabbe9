#include "ccm/receive.h"

#include <poll.h>
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "ccm/internal.h"
#include "common/dates.h"
#include "common/strutil.h"
#include "common/trace_log.h"

namespace {

constexpr char kAddrEyec[] = "#CCMADDR";

bool is_deleted(ccm_channel_t* ch) {
  return (std::atomic_ref<int>(ch->flag).load() & CCM_CHFLAG_DELETED) != 0;
}

// Takes the head of `recvq`. The tail is left as it is: appenders look at the head first.
ccm_msg_t* take_head(ccm_context_t* ccm) {
  ccm_queue_guard lock(ccm);
  ccm_msg_t* m = ccm->recvq.head;
  if (m != nullptr) {
    ccm->recvq.head = m->nxt;
    m->nxt = nullptr;
  }
  return m;
}

bool within_unread_bounds(ccm_channel_t* ch) {
  return __atomic_load_n(&ch->unread_msgs, __ATOMIC_SEQ_CST) < CCM_UNREAD_MAX_MSGS &&
         __atomic_load_n(&ch->unread_bytes, __ATOMIC_SEQ_CST) < CCM_UNREAD_MAX_BYTES;
}

// A message the application takes no longer counts among the unread ones of its channel.
// When the network thread left that channel unread for them and it is now within the bounds,
// the thread is woken to read it again. The channel is looked up under the channel lock, which
// keeps it from being destroyed meanwhile; one that is gone needs nothing.
void release_unread(ccm_context_t* ccm, ccm_msg_t* m) {
  if (!(m->flag & CCM_MSGFLAG_UNREAD)) return;
  m->flag &= ~CCM_MSGFLAG_UNREAD;
  bool wake = false;
  {
    ccm_channel_guard lock(ccm, ccm_lock_trace::kQuiet);  // untraced: one look per message taken
    ccm_channel_t* ch = ccm->channelq.head;
    while (ch != nullptr && ch->ID != m->addr.src_ID)
      ch = ch->nxt;
    if (ch != nullptr) {
      __atomic_fetch_sub(&ch->unread_msgs, 1, __ATOMIC_SEQ_CST);
      __atomic_fetch_sub(&ch->unread_bytes, static_cast<long>(ccm_msg_footprint(m)),
                         __ATOMIC_SEQ_CST);
      // The network thread sets the bit before it looks at the counts: either it sees these
      // counts, or this clears the bit it set and wakes it.
      wake = within_unread_bounds(ch) &&
             (__atomic_fetch_and(&ch->flag, ~CCM_CHFLAG_RECV_HELD, __ATOMIC_SEQ_CST) &
              CCM_CHFLAG_RECV_HELD) != 0;
    }
  }
  if (wake) ccm_wakeup_network(ccm);
}

// Live channels of `channelq` whose type `counts`, under the channel lock.
template <typename Pred>
int count_channels(ccm_context_t* ccm, Pred counts) {
  ccm_channel_guard lock(ccm);
  int n = 0;
  for (ccm_channel_t* ch = ccm->channelq.head; ch != nullptr; ch = ch->nxt) {
    if (!is_deleted(ch) && counts(ch->type)) ++n;
  }
  return n;
}

// Copies one 64-byte text field into another, bounded even if the source lacks its
// terminator.
void copy_field(char (&dst)[64], const char (&src)[64]) {
  const size_t n = strnlen(src, sizeof src - 1);
  std::memmove(dst, src, n);
  dst[n] = '\0';
}

void set_eyec(ccm_addr_t* a) {
  std::memcpy(a->eyec, kAddrEyec, sizeof a->eyec);
}

}  // namespace

int ccm_receive_message(ccm_context_t* ccm, int stimeout, ccm_msg_t** ccmmsg, ccm_error_t* ccmerr) {
  QX_TRACE("%s(ccm=%p) -->", __func__, (void*)ccm);
  *ccmmsg = nullptr;
  ccm_msg_t* m = take_head(ccm);
  if (m == nullptr) {
    if (ccm_wait_processor(ccm, stimeout, ccmerr) != 0) {
      QX_TRACE("%s <-- (waiting condition error)", __func__);
      return -1;
    }
    m = take_head(ccm);
    if (m == nullptr) {
      QX_TRACE("%s <-- (empty queue)", __func__);
      return 0;
    }
  }
  release_unread(ccm, m);
  *ccmmsg = m;
  QX_TRACE("%s <-- (OK(ccmmsg=%p))", __func__, (void*)m);
  return 1;
}

int ccm_receive_message_ms(ccm_context_t* ccm, long long timeout_ms, ccm_msg_t** ccmmsg,
                           ccm_error_t* ccmerr) {
  const int r = ccm_receive_message(ccm, 0, ccmmsg, ccmerr);
  if (r != 0 || timeout_ms <= 0) return r;
  // The network thread announces each queued message with one byte on the processor wake-up
  // pipe; the byte stays for the next look, which takes it together with the message.
  static constexpr long long kLongestWaitMs = 1000LL * 3600;
  pollfd pfd{ccm->processor_wakeup[0], POLLIN, 0};
  if (poll(&pfd, 1, static_cast<int>(std::min(timeout_ms, kLongestWaitMs))) < 0) {
    const int err = errno;
    if (err == EINTR) return 0;
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "poll(processor_wakeup(%d))|%d-%s", pfd.fd, err,
                  std::strerror(err));
    return -1;
  }
  return 0;
}

int ccm_wait_processor(ccm_context_t* ccm, int stimeout, ccm_error_t* ccmerr) {
  QX_TRACE("%s(ccm=%p) -->", __func__, (void*)ccm);
  const int fd = ccm->processor_wakeup[0];
  int rslt;
  int err = 0;
  if (!ccm_fdset::holds(fd)) {
    // A pipe that is not open cannot be waited on.
    err = EBADF;
    rslt = -1;
  } else {
    // The set reaches every descriptor the network thread can watch: a process that
    // inherited a thousand descriptors gets its pipes above FD_SETSIZE.
    ccm_fdset rset;
    rset.clear_upto(fd);
    rset.add(fd);
    timeval tv{stimeout > 0 ? stimeout : 0, 0};
    rslt = select(fd + 1, rset.as_fd_set(), nullptr, nullptr, &tv);
    err = errno;
  }
  if (rslt == 0) {
    QX_TRACE("%s <-- (timeout)", __func__);
    return 0;
  }
  if (rslt < 0) {
    if (err == EINTR) {
      QX_TRACE("%s <-- (interrupt by system call)", __func__);
      return 0;
    }
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "select(processor_wakeup(%d))|%d-%s", fd, err,
                  strerror(err));
    QX_TRACE("%s <-- (select error: %d-%s)", __func__, err, strerror(err));
    return -1;
  }
  // Every waiting byte is taken; the caller then looks at the receive queue, which holds
  // every message whose byte was written before this point.
  ccm_drain_wakeup(fd);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

ccm_addr_t* ccm_setaddr(ccm_msg_t* ccmmsg, int ID, int /*reply_ID*/, const char* addr,
                        const char* name, int acv) {
  QX_TRACE("%s(ID=%d,addr=%s,name=%s,acv=%.8X) -->", __func__, ID, addr ? addr : "",
           name ? name : "", (unsigned)acv);
  ccm_addr_t* a = &ccmmsg->addr;
  set_eyec(a);
  a->dst_ID = ID;
  a->dst_acv = acv;
  StringCopy(a->dst_addr, sizeof a->dst_addr, addr);
  StringCopy(a->dst_name, sizeof a->dst_name, name);
  QX_TRACE("%s <-- (ccma=%p)", __func__, (void*)a);
  return a;
}

ccm_addr_t* ccm_setback(ccm_msg_t* ccmmsg, const char* addr, const char* name, int acv) {
  QX_TRACE("%s(addr=%s,name=%s,acv=%.8X) -->", __func__, addr ? addr : "", name ? name : "",
           (unsigned)acv);
  ccm_addr_t* a = &ccmmsg->addr;
  set_eyec(a);
  a->src_acv = acv;
  StringCopy(a->src_addr, sizeof a->src_addr, addr);
  StringCopy(a->src_name, sizeof a->src_name, name);
  QX_TRACE("%s <-- (ccma=%p)", __func__, (void*)a);
  return a;
}

ccm_addr_t* ccm_setaddr_reply(ccm_msg_t* ccmd, ccm_msg_t* ccms) {
  const ccm_addr_t& s = ccms->addr;
  QX_TRACE(
      "%s(msg(%p,msgID=%u,addr=%p,len=%d,pos=%d,flag=%.8X),addr(src=(ID=%d,addr=%s,name=%s,"
      "acv=%.8X),dst=(ID=%d,addr=%s,name=%s,acv=%.8X))) -->",
      __func__, (void*)ccms, (unsigned)ccms->ID, (void*)ccms->msg_start, ccms->len, ccms->pos,
      (unsigned)ccms->flag, s.src_ID, s.src_addr, s.src_name, (unsigned)s.src_acv, s.dst_ID,
      s.dst_addr, s.dst_name, (unsigned)s.dst_acv);
  ccm_addr_t* d = &ccmd->addr;
  set_eyec(d);
  d->dst_ID = s.src_ID;
  d->dst_acv = s.src_acv;
  copy_field(d->dst_addr, s.src_addr);
  copy_field(d->dst_name, s.src_name);
  QX_TRACE("%s <-- (OK)", __func__);
  return d;
}

int ccm_get_nof_server_connections(ccm_context_t* ccm) {
  QX_TRACE("%s(ccm=%p) -->", __func__, (void*)ccm);
  const int n =
      count_channels(ccm, [](int t) { return t == CCM_CHTYPE_SERVER || t == CCM_CHTYPE_CP; });
  QX_TRACE("%s <-- (nof server connections=%d)", __func__, n);
  return n;
}

int ccm_get_nof_connections(ccm_context_t* ccm) {
  QX_TRACE("%s(ccm=%p) -->", __func__, (void*)ccm);
  const int n = count_channels(ccm, [](int t) {
    return t == CCM_CHTYPE_LISTEN || t == CCM_CHTYPE_SERVER || t == CCM_CHTYPE_CP;
  });
  QX_TRACE("%s <-- (nof connections=%d)", __func__, n);
  return n;
}

int ccm_get_nof_agent_connections(ccm_context_t* ccm) {
  QX_TRACE("%s(ccm=%p) -->", __func__, (void*)ccm);
  const int n = count_channels(ccm, [](int t) { return t == CCM_CHTYPE_AGENT; });
  QX_TRACE("%s <-- (nof agent connections=%d)", __func__, n);
  return n;
}

int ccm_get_nof_channels(ccm_context_t* ccm) {
  QX_TRACE("%s(ccm=%p) -->", __func__, (void*)ccm);
  const int n = count_channels(ccm, [](int t) { return t != CCM_CHTYPE_NOSOCKET; });
  QX_TRACE("%s <-- (nof channels=%d)", __func__, n);
  return n;
}

int ccm_get_recvq_count(ccm_context_t* ccm) {
  int n = 0;
  ccm_queue_guard lock(ccm);
  for (ccm_msg_t* m = ccm->recvq.head; m != nullptr; m = m->nxt)
    ++n;
  return n;
}

int ccm_drain_sendq(ccm_context_t* ccm, int ID, long long timeout_ms) {
  const long long deadline = MonotonicMs() + timeout_ms;
  long long step = 1;
  while (!ccm_is_all_sendq_empty(ccm)) {
    if (!ccm_channel_existbyID(ccm, ID)) return -1;
    const long long left = deadline - MonotonicMs();
    if (left <= 0) return 0;
    SleepMs(std::min(step, left));
    step = std::min(step * 2, 50LL);
  }
  return 1;
}

int ccm_get_sendq_count(ccm_context_t* ccm) {
  QX_TRACE("%s(ccm=%p) -->", __func__, (void*)ccm);
  int n = 0;
  {
    ccm_queue_guard lock(ccm);
    for (ccm_msg_t* m = ccm->sendq.head; m != nullptr; m = m->nxt)
      ++n;
  }
  QX_TRACE("%s <-- (nof msgs=%d)", __func__, n);
  return n;
}

int ccm_is_all_sendq_empty(ccm_context_t* ccm) {
  QX_TRACE("%s(ccm=%p) -->", __func__, (void*)ccm);
  int empty = 1;
  {
    ccm_queue_guard lock(ccm);
    if (ccm->sendq.head != nullptr) empty = 0;
  }
  if (empty) {
    // Each channel's queue is looked at under its own lock, taken inside the channel lock:
    // the one order in which two of these locks may be held.
    ccm_channel_guard lock(ccm);
    for (ccm_channel_t* ch = ccm->channelq.head; ch != nullptr && empty; ch = ch->nxt) {
      if (is_deleted(ch) || ch->type == CCM_CHTYPE_SILENT) continue;
      ccmch_queue_guard queue(ccm, ch);
      if (ch->sendq.head != nullptr) empty = 0;
    }
  }
  QX_TRACE("%s <-- (empty=%d)", __func__, empty);
  return empty;
}
