// The network thread: start and stop, the merge of new channels, the dispatch of outgoing
// messages and the select cycle.
#include "ccm/net_thread.h"

#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ccm/connect.h"
#include "ccm/internal.h"
#include "ccm/io.h"
#include "ccm/listen.h"
#include "ccm/message.h"
#include "common/trace_log.h"

namespace {

static_assert(CCM_MAX_WATCHED_FD == CCM_FDSET_MAX);

bool watchable(int fd) {
  return ccm_fdset::holds(fd);
}

const char* thread_name(const ccm_context_t* ccm) {
  const auto* app = static_cast<const ccm_app_context_head*>(ccm->app);
  switch (app != nullptr ? app->running_mode : -1) {
    case 0:
      return "AGENT/CCM";
    case 1:
      return "LISTENER/CCM";
    case 2:
      return "FTX/CCM";
    default:
      return "";
  }
}

void trace_channel(const char* fn, const ccm_channel_t* ch) {
  if (!trc_level()) return;
  const int flag = ccm_flag_get(ch->flag);
  __trace_text(0,
               "%s:        ==> channel(name=%-20s,chID=%d,s=%d,type=%.8X,flag=%.8X,%s,host=%s(%s),"
               "port=%d,sendq=%p)",
               fn, ch->name, ch->ID, ch->s, static_cast<unsigned>(ch->type),
               static_cast<unsigned>(flag), (flag & CCM_CHFLAG_DELETED) ? "deleted" : "active",
               ch->host, ch->addr, ch->port, static_cast<void*>(ch->sendq.head));
}

bool is_deleted(const ccm_channel_t* ch) {
  return (ccm_flag_get(ch->flag) & CCM_CHFLAG_DELETED) != 0;
}

bool sendq_empty(ccm_context_t* ccm, ccm_channel_t* ch) {
  ccmch_queue_guard guard(ccm, ch, ccm_lock_trace::kQuiet);
  return ch->sendq.head == nullptr;
}

// Whether the channel may be read in this cycle: not while the application has more of it
// unread than CCM_UNREAD_MAX_* allow. The bit is set before the counts are looked at, so that
// the receiver, which lowers the counts and then clears the bit, either is seen here or wakes
// the thread (receive.cpp).
bool may_read(ccm_channel_t* ch) {
  __atomic_fetch_or(&ch->flag, CCM_CHFLAG_RECV_HELD, __ATOMIC_SEQ_CST);
  if (__atomic_load_n(&ch->unread_msgs, __ATOMIC_SEQ_CST) < CCM_UNREAD_MAX_MSGS &&
      __atomic_load_n(&ch->unread_bytes, __ATOMIC_SEQ_CST) < CCM_UNREAD_MAX_BYTES) {
    ccm_flag_clear(ch->flag, CCM_CHFLAG_RECV_HELD);
    return true;
  }
  QX_TRACE("ccm_network_select:      channel %d not read: %d messages unread", ch->ID,
           __atomic_load_n(&ch->unread_msgs, __ATOMIC_SEQ_CST));
  return false;
}

// Serves one channel that select found ready: an outgoing connection refused at one address
// moves on to the next one; a listener accepts; others are read, then written. What fails is
// in `own`.
void serve_channel(ccm_context_t* ccm, ccm_channel_t* ch, const ccm_select_sets_t& sets,
                   ccm_error_t* own) {
  if ((sets.read.has(ch->s) || sets.error.has(ch->s)) && ccm_connect_next_address(ccm, ch) != 0)
    return;
  if (sets.read.has(ch->s)) {
    if (ch->type == CCM_CHTYPE_LISTEN) {
      ccm_signal_on_listen(ccm, ch, own);
      return;
    }
    if (ccm_read_channel(ccm, ch, own) != 0) return;
  }
  if (!is_deleted(ch) && sets.write.has(ch->s)) ccm_write_channel(ccm, ch, own);
}

}  // namespace

char* ccm_fdset_text(char* work, int size, const void* set, int maxfd) {
  if (size <= 0) return work;
  work[0] = '\0';
  const auto* s = static_cast<const ccm_fdset*>(set);
  static constexpr char kCut[] = ",...";
  int used = 0;
  if (maxfd > CCM_MAX_WATCHED_FD) maxfd = CCM_MAX_WATCHED_FD;
  for (int fd = 0; fd <= maxfd; ++fd) {
    if (!s->has(fd)) continue;
    char number[16];
    const int n = std::snprintf(number, sizeof number, used == 0 ? "%d" : ",%d", fd);
    // Room must stay for the marker, should a later number not fit.
    if (used + n + static_cast<int>(sizeof kCut) > size) {
      if (used + static_cast<int>(sizeof kCut) <= size) std::memcpy(work + used, kCut, sizeof kCut);
      return work;
    }
    std::memcpy(work + used, number, static_cast<size_t>(n) + 1);
    used += n;
  }
  return work;
}

int ccm_thread_start(ccm_context_t* ccm, ccm_error_t* ccmerr) {
  QX_TRACE("%s(ccm=%p) -->", __func__, static_cast<void*>(ccm));
  pthread_attr_init(&ccm->thread_attr);
  pthread_attr_setdetachstate(&ccm->thread_attr, PTHREAD_CREATE_JOINABLE);
  if (ccm_create_wakeup_pipes(ccm, ccmerr) != 0) {
    pthread_attr_destroy(&ccm->thread_attr);
    QX_TRACE("%s <-- (error creating wakeup pipes)", __func__);
    return -1;
  }
  // Set before the thread exists and never by the thread: a stop requested at any time after
  // this function returned is never lost.
  __atomic_store_n(&ccm->loop, 1, __ATOMIC_RELEASE);
  QX_TRACE("%s:      pthread_create() -->", __func__);
  const int rslt = pthread_create(&ccm->thread, &ccm->thread_attr, ccm_thread_run, ccm);
  QX_TRACE("%s:      pthread_create() <-- (rslt=%d)", __func__, rslt);
  pthread_attr_destroy(&ccm->thread_attr);
  if (rslt != 0) {
    // pthread_create reports its error as its result, not in errno.
    __atomic_store_n(&ccm->loop, 0, __ATOMIC_RELEASE);
    ccm_set_error(ccmerr, CCM_MSGNR_THREAD, "%s|%s=%d(%d-%s)", "CCM-thread", "pthread_create()",
                  rslt, rslt, std::strerror(rslt));
    QX_TRACE("%s <-- (pthread_create() error)", __func__);
    return -1;
  }
  ccm->thread_started = 1;
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

void* ccm_thread_run(void* pccm) {
  auto* ccm = static_cast<ccm_context_t*>(pccm);
  QX_TRACE("%s(ccm=%p) -->", __func__, pccm);
  __log(CCM_MSGNR_THREAD_NAME, "%s", thread_name(ccm));
  int failures = 0;
  while (__atomic_load_n(&ccm->loop, __ATOMIC_ACQUIRE) != 0) {
    ccm_error_t err{};
    if (ccm_network_select(ccm, CCM_SELECT_TIMEOUT, &err) != 0) {
      // Nobody waits for the thread's record: it is logged. A select that keeps failing
      // (a descriptor closed behind the connection manager's back, no memory) would
      // otherwise make the loop spin without ever waiting; the thread ends instead.
      __log(err.msgnr, "%s", err.msginsert);
      if (++failures >= CCM_SELECT_FAILURES_MAX) {
        __log(CCM_MSGNR_THREAD, "%s|%s", "CCM-thread", "select keeps failing, thread ends");
        break;
      }
    } else {
      failures = 0;
    }
    if (ccm_flag_get(ccm->flag) & CCM_FLAG_CHANNEL_DELETED) ccm_destroy_deleted_channels(ccm);
  }
  // A stop may come before any cycle saw a channel that was deleted just before it (still in
  // channel_newq, or deleted while the last cycle was serving): one last sweep destroys every
  // channel deleted before the stop, so that its close notice is queued before the join.
  {
    ccm_channel_guard guard(ccm, ccm_lock_trace::kQuiet);
    ccm_channel_merge_newq(ccm);
  }
  ccm_destroy_deleted_channels(ccm);
  QX_TRACE("%s:      ccm_thread_run <-- (BYE-BYE)", __func__);
  return nullptr;
}

int ccm_thread_stop(ccm_context_t* ccm) {
  QX_TRACE("%s(ccm=%p) -->", __func__, static_cast<void*>(ccm));
  __atomic_store_n(&ccm->loop, 0, __ATOMIC_RELEASE);
  ccm_wakeup_network(ccm);
  QX_TRACE("%s:      stopping network thread initiated", __func__);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccm_channel_merge_newq(ccm_context_t* ccm) {
  while (ccm_channel_t* ch = ccm_queue_pop(ccm->channel_newq)) {
    ccm_queue_append(ccm->channelq, ch);
  }
  return 0;
}

int ccm_dispatch_send_messages(ccm_context_t* ccm) {
  QX_TRACE("%s() -->", __func__);
  {
    ccm_queue_guard guard(ccm, ccm_lock_trace::kQuiet);
    ccm->msgq_2dispatch = ccm->sendq;
    ccm->sendq = {};
  }
  int count = 0;
  while (ccm_msg_t* msg = ccm_queue_pop(ccm->msgq_2dispatch)) {
    count++;
    QX_TRACE("%s:        ==> msg(%p,msgID=%lu,addr=%p,len=%d,pos=%d,flag=%.8X)", __func__,
             static_cast<void*>(msg), msg->ID, static_cast<void*>(msg->msg_start), msg->len,
             msg->pos, static_cast<unsigned>(msg->flag));
    ccm_addr_t& a = msg->addr;
    if (std::strncmp(a.dst_addr, "*CP", 3) == 0)
      ccm_copy_text(a.dst_addr, sizeof a.dst_addr, "*SERVER");
    // The channel lock is held from the search on, while the message joins the channel.
    const ccm_found_channel ch = a.dst_ID != 0 ? ccm_found_channel::by_ID(ccm, a.dst_ID)
                                               : ccm_found_channel::by_name(ccm, a.dst_addr);
    if (!ch) {
      // A message marked to be kept belongs to someone else; it only leaves the list.
      if (!(msg->flag & CCM_MSGFLAG_KEEP)) ccm_msg_free(ccm, msg);
      continue;
    }
    QX_TRACE("%s:      send to the partner (name : '%s' function : '%s', call back :'%08X')",
             __func__, ch->name, a.dst_name, static_cast<unsigned>(a.dst_ID));
    {
      ccmch_queue_guard guard(ccm, ch.get(), ccm_lock_trace::kQuiet);
      ccm_queue_append(ch->sendq, msg);
    }
    msg->pATctx = ch->pATctx;
    if ((ccm_flag_get(ch->flag) & CCM_CHFLAG_NAT_02) && msg->type == CCM_MSG_NAT) {
      msg->flag |= CCM_MSGFLAG_CHANNEL_02;
    }
  }
  ccm->msgq_2dispatch = {};
  QX_TRACE("%s <-- (number of dispatched messages = %d)", __func__, count);
  return 0;
}

namespace {

// The select cycle's steps trace under the cycle's name.
constexpr const char* kSelectFn = "ccm_network_select";

// Step 3 of a cycle: the sets for every live channel with a watchable socket (read unless the
// channel is not to be read or holds too much unread, error always, write with a non-empty
// send queue) and the network wake-up pipe. Deleted channels are noted for the sweep; a socket
// above the sets' reach deletes its channel. Returns the highest descriptor in the sets.
int fill_sets(ccm_context_t* ccm, ccm_select_sets_t& sets) {
  sets.read.clear_upto(sets.highest);
  sets.write.clear_upto(sets.highest);
  sets.error.clear_upto(sets.highest);
  int highest = 0;
  // Other threads never change channelq while the thread runs: no lock for the walk.
  for (ccm_channel_t* ch = ccm->channelq.head; ch != nullptr; ch = ch->nxt) {
    trace_channel(kSelectFn, ch);
    if (is_deleted(ch)) {
      ccm_flag_set(ccm->flag, CCM_FLAG_CHANNEL_DELETED);
      continue;
    }
    if (ch->type == CCM_CHTYPE_NOSOCKET) continue;
    if (!watchable(ch->s)) {
      // A socket the sets cannot hold would never be served: the channel ends with its error
      // recorded rather than hang unwatched.
      ch->msgnr = CCM_MSGNR_SYSCALL;
      std::snprintf(ch->msginsert, sizeof ch->msginsert, "select(s=%d)|%d-%s|%s(ID=%d)", ch->s,
                    EBADF, std::strerror(EBADF), ch->name, ch->ID);
      QX_TRACE("%s:      socket %d of channel %d cannot be watched", kSelectFn, ch->s, ch->ID);
      ccm_channel_delete(ccm, ch);
      continue;
    }
    if (!(ccm_flag_get(ch->flag) & CCM_CHFLAG_NOREAD) && may_read(ch)) sets.read.add(ch->s);
    sets.error.add(ch->s);
    if (!sendq_empty(ccm, ch)) sets.write.add(ch->s);
    if (ch->s > highest) highest = ch->s;
  }
  const int wakeup = ccm->network_wakeup[0];
  if (watchable(wakeup)) {
    sets.read.add(wakeup);
    if (wakeup > highest) highest = wakeup;
  }
  sets.highest = highest;
  return highest;
}

// Step 4: the wait of at most `stimeout` seconds, traced with the sets before and after.
// Returns select's result; *err is its errno, saved before the trace runs.
int wait_ready(ccm_select_sets_t& sets, int highest, int stimeout, int* err) {
  timeval tv{};
  tv.tv_sec = stimeout;
  tv.tv_usec = 0;
  if (trc_level()) {
    __trace_text(0, "%s:         select(maxfd=%d,READ[%s],WRITE[%s]) -->", kSelectFn, highest + 1,
                 ccm_fdset_text(sets.read_text, CCM_FDSET_TEXT_SIZE, &sets.read, highest),
                 ccm_fdset_text(sets.write_text, CCM_FDSET_TEXT_SIZE, &sets.write, highest));
  }
  const int rslt = select(highest + 1, sets.read.as_fd_set(), sets.write.as_fd_set(),
                          sets.error.as_fd_set(), &tv);
  *err = errno;
  if (trc_level()) {
    __trace_text(0, "%s:         select(...) <-- (rslt=%d,READ[%s],WRITE[%s])", kSelectFn, rslt,
                 ccm_fdset_text(sets.read_text, CCM_FDSET_TEXT_SIZE, &sets.read, highest),
                 ccm_fdset_text(sets.write_text, CCM_FDSET_TEXT_SIZE, &sets.write, highest));
  }
  return rslt;
}

// Step 5: the wake-up pipe is emptied when it was ready, then every ready channel is served.
void serve_ready(ccm_context_t* ccm, const ccm_select_sets_t& sets) {
  const int wakeup = ccm->network_wakeup[0];
  if (watchable(wakeup) && sets.read.has(wakeup)) {
    QX_TRACE("%s:      network woken up by other thread", kSelectFn);
    // Every byte waiting is taken: each cycle dispatches the whole send queue and looks at
    // every channel, so the work that the bytes before this point announced is all served.
    ccm_drain_wakeup(wakeup);
  }
  ccm_channel_t* next = nullptr;
  for (ccm_channel_t* ch = ccm->channelq.head; ch != nullptr; ch = next) {
    next = ch->nxt;
    if (is_deleted(ch) || ch->type == CCM_CHTYPE_NOSOCKET || !watchable(ch->s)) continue;
    ccm_error_t own{};
    serve_channel(ccm, ch, sets, &own);
    ccm_log_error(own);
  }
}

}  // namespace

int ccm_network_select(ccm_context_t* ccm, int stimeout, ccm_error_t* ccmerr) {
  ccm_select_sets_t& sets = ccm->select_sets;
  QX_TRACE("%s(ccm=%p, sizeof(fd_read) = %d) -->", __func__, static_cast<void*>(ccm),
           static_cast<int>(sizeof sets.read));
  // Steps 1 and 2: channels entered since the last cycle join the list; queued messages go to
  // their channels.
  {
    ccm_channel_guard guard(ccm, ccm_lock_trace::kQuiet);
    if (ccm->channel_newq.head != nullptr) ccm_channel_merge_newq(ccm);
  }
  ccm_dispatch_send_messages(ccm);
  const int highest = fill_sets(ccm, sets);
  int err = 0;
  const int rslt = wait_ready(sets, highest, stimeout, &err);
  if (rslt == 0) {
    QX_TRACE("%s <-- (timeout)", __func__);
    return 0;
  }
  if (rslt < 0) {
    if (err == EINTR) {
      QX_TRACE("%s <-- (signal wakeup)", __func__);
      return 0;
    }
    // Each set text gets a share of the insert, so that the error behind them is never cut.
    char rtext[400];
    char wtext[400];
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "select(%d,RSET[%s],WSET[%s])|%d-%s", highest + 1,
                  ccm_fdset_text(rtext, sizeof rtext, &sets.read, highest),
                  ccm_fdset_text(wtext, sizeof wtext, &sets.write, highest), err,
                  std::strerror(err));
    QX_TRACE("%s <-- (select error: %d-%s)", __func__, err, std::strerror(err));
    return -1;
  }
  serve_ready(ccm, sets);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccm_channel_maintenance(ccm_context_t* ccm) {
  QX_TRACE("%s(ccm=%p) -->", __func__, static_cast<void*>(ccm));
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccm_channel_create_pair(ccm_context_t* ccm, ccm_channel_t** pch1, ccm_channel_t** pch2,
                            ccm_error_t* ccmerr) {
  QX_TRACE("%s() -->", __func__);
  ccm_channel_t* ch[2] = {nullptr, nullptr};
  // Channels that were never entered are released without a trace in the logs or the
  // receive queue: nobody has heard of them, so no close notice may announce them. Their
  // sockets (when they got any) are closed with them.
  auto release = [&](const char* why) {
    for (ccm_channel_t* c : ch) {
      if (c == nullptr) continue;
      c->type = CCM_CHTYPE_SILENT;
      ccm_error_t own{};
      ccm_channel_destroy(ccm, c, &own);
      ccm_log_error(own);
    }
    QX_TRACE("%s <-- (%s)", "ccm_channel_create_pair", why);
    return -1;
  };
  if (ccm_channel_new_entry(ccm, &ch[0], ccmerr) != 0 ||
      ccm_channel_new_entry(ccm, &ch[1], ccmerr) != 0) {
    return release("channel entry create error");
  }
  int sv[2] = {-1, -1};
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) {
    const int err = errno;
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "socketpair()|%d-%s", err, std::strerror(err));
    return release("error creating socket pair");
  }
  ch[0]->s = sv[0];
  ch[1]->s = sv[1];
  for (ccm_channel_t* c : ch) {
    if (const int err = ccm_fd_set_nonblocking(c->s, __func__); err != 0) {
      ccm_set_error(ccmerr, -1, "ioctl(%d,FIONBIO)|%d-%s", c->s, err, std::strerror(err));
      return release("ioctl error, dontblock");
    }
    // A pair joins two parts of the application: each is the other's local partner.
    ccm_flag_set(c->flag, CCM_CHFLAG_LOCAL_PARTNER);
  }
  *pch1 = ch[0];
  *pch2 = ch[1];
  ccm_channel_chain(ccm, ch[0]);
  ccm_channel_chain(ccm, ch[1]);
  QX_TRACE(
      "%s <-- (WAKEUP=channel(%p,s=%d/chID=%d,%s,flag=%.8X) / "
      "SIGNAL=channel(%p,s=%d/chID=%d,%s,flag=%.8X))",
      __func__, static_cast<void*>(ch[0]), ch[0]->s, ch[0]->ID, ch[0]->name,
      static_cast<unsigned>(ccm_flag_get(ch[0]->flag)), static_cast<void*>(ch[1]), ch[1]->s,
      ch[1]->ID, ch[1]->name, static_cast<unsigned>(ccm_flag_get(ch[1]->flag)));
  return 0;
}
