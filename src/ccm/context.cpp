// The connection manager context: opening and closing, the three spin locks, the wake-up
// pipes, the allocation seam and error records.
#include "ccm/context.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "ccm/address.h"
#include "ccm/channel.h"
#include "ccm/internal.h"
#include "ccm/message.h"
#include "common/trace_log.h"

void* ccm_alloc_default(size_t size, const char* /*tag*/) {
  return std::calloc(1, size);
}
ccm_alloc_function_t* ccm_alloc = ccm_alloc_default;
void ccm_free(void* area) {
  std::free(area);
}

void ccm_copy_text(char* dst, size_t size, const char* src) {
  if (size == 0) return;
  size_t n = src == nullptr ? 0 : strnlen(src, size - 1);
  std::memcpy(dst, src, n);
  dst[n] = '\0';
}

void ccm_set_error(ccm_error_t* ccmerr, int msgnr, const char* format, ...) {
  if (ccmerr == nullptr) return;
  std::memset(ccmerr, 0, sizeof *ccmerr);
  ccmerr->msgnr = msgnr;
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(ccmerr->msginsert, sizeof ccmerr->msginsert, format, ap);
  va_end(ap);
}

int ccm_fd_set_nonblocking(int s, const char* fn) {
  if (fn != nullptr) QX_TRACE("%s:      ioctl( %d, DONTBLOCK) -->", fn, s);
  int on = 1;
  errno = 0;
  const int rslt = ioctl(s, FIONBIO, &on);
  const int err = rslt == 0 ? 0 : errno;
  if (fn != nullptr) {
    QX_TRACE("%s:      ioctl(...) <-- rslt=%d,errno=%d-%s", fn, rslt, err, std::strerror(err));
  }
  return err;
}

void ccm_log_error(const ccm_error_t& err) {
  if (err.msgnr != 0) __log(err.msgnr, "%s", err.msginsert);
}

void ccm_set_alloc_error(ccm_error_t* ccmerr, const char* tag, const char* file, int line) {
  ccm_set_error(ccmerr, CCM_MSGNR_ALLOC, "%s/%s(%d)", tag, file, line);
}

int ccm_open(void* ppcx, ccm_context_t** pccm, ccm_error_t* ccmerr) {
  QX_TRACE("%s(pcx=%p) -->", __func__, ppcx);
  auto* ccm = static_cast<ccm_context_t*>(ccm_alloc(sizeof(ccm_context_t), "CCM_OPEN"));
  if (ccm == nullptr) {
    ccm_set_alloc_error(ccmerr, "CCM_OPEN", __FILE__, __LINE__);
    QX_TRACE("%s <-- (calloc error)", __func__);
    return -1;
  }
  ccm->app = ppcx;
  std::memcpy(ccm->eyec, "##CCM_CONEXT####", sizeof ccm->eyec);
  pthread_spin_init(&ccm->queue_lock, PTHREAD_PROCESS_PRIVATE);
  pthread_spin_init(&ccm->channel_lock, PTHREAD_PROCESS_PRIVATE);
  ccm->unique_channel_ID = 1;
  ccm->unique_msg_ID = 1;
  ccm->network_wakeup[0] = ccm->network_wakeup[1] = -1;
  ccm->processor_wakeup[0] = ccm->processor_wakeup[1] = -1;
  *pccm = ccm;

  ccm_error_t v6err{};
  if (ccm_check_ipv6_support(&v6err) < 0) {
    __log(v6err.msgnr, "%s", v6err.msginsert);
    __log(CCM_MSGNR_NO_IPV6, "%s", "");
  } else {
    ccm_flag_set(ccm->flag, CCM_FLAG_IPV6);
  }
  QX_TRACE("%s <-- (ccm=%p)", __func__, static_cast<void*>(ccm));
  return 0;
}

int ccm_close(ccm_context_t* ccm, ccm_error_t* /*ccmerr*/) {
  QX_TRACE("%s(ccm=%p) -->", __func__, static_cast<void*>(ccm));
  if (ccm == nullptr) {
    QX_TRACE("%s <-- (ccm == null)", __func__);
    return 0;
  }
  // sendq, recvq and msgq_2dispatch hold messages outside msgq_inuse; detach each list before
  // its messages are freed so that ccm_msg_free never meets a half-walked list.
  for (ccm_msg_queue_t* q : {&ccm->sendq, &ccm->recvq, &ccm->msgq_inuse, &ccm->msgq_2dispatch}) {
    if (q == &ccm->msgq_inuse) {
      ccm_free_queue(ccm, *q);  // ccm_msg_free unlinks each message from msgq_inuse itself
    } else {
      ccm_msg_queue_t detached = *q;
      q->head = q->tail = nullptr;
      ccm_free_queue(ccm, detached);
    }
  }
  {
    ccm_queue_guard guard(ccm, ccm_lock_trace::kQuiet);
    while (ccm_msg_t* m = ccm_queue_pop(ccm->msg_freeq)) {
      QX_TRACE("%s:      free(msg(%p,msgID=%lu,addr=%p,len=%d,pos=%d,flag=%.8X))", __func__,
               static_cast<void*>(m), m->ID, static_cast<void*>(m->msg_start), m->len, m->pos,
               static_cast<unsigned>(m->flag));
      ccm_free(m);
    }
    ccm->nof_freemsg = 0;
  }
  pthread_spin_destroy(&ccm->queue_lock);
  pthread_spin_destroy(&ccm->channel_lock);
  ccm_close_wakeup_pipes(ccm);
  ccm_free(ccm);
  QX_TRACE("%s <-- ()", __func__);
  return 0;
}

int ccm_queue_lock(ccm_context_t* ccm) {
  QX_TRACE("%s() -->", __func__);
  pthread_spin_lock(&ccm->queue_lock);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccm_queue_unlock(ccm_context_t* ccm) {
  QX_TRACE("%s() -->", __func__);
  pthread_spin_unlock(&ccm->queue_lock);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccmch_queue_lock(ccm_context_t* /*ccm*/, ccm_channel_t* ccmch) {
  QX_TRACE("%s() -->", __func__);
  pthread_spin_lock(&ccmch->queue_lock);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccmch_queue_unlock(ccm_context_t* /*ccm*/, ccm_channel_t* ccmch) {
  QX_TRACE("%s() -->", __func__);
  pthread_spin_unlock(&ccmch->queue_lock);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccm_channel_lock(ccm_context_t* ccm) {
  QX_TRACE("%s() -->", __func__);
  pthread_spin_lock(&ccm->channel_lock);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccm_channel_unlock(ccm_context_t* ccm) {
  QX_TRACE("%s() -->", __func__);
  pthread_spin_unlock(&ccm->channel_lock);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccm_close_wakeup_pipes(ccm_context_t* ccm) {
  QX_TRACE("%s() -->", __func__);
  for (int* fd : {&ccm->network_wakeup[0], &ccm->network_wakeup[1], &ccm->processor_wakeup[0],
                  &ccm->processor_wakeup[1]}) {
    if (*fd != -1) close(*fd);
    *fd = -1;
  }
  QX_TRACE("%s <-- ()", __func__);
  return 0;
}

int ccm_create_wakeup_pipes(ccm_context_t* ccm, ccm_error_t* ccmerr) {
  QX_TRACE("%s() -->", __func__);
  ccm_close_wakeup_pipes(ccm);
  // Both ends are non-blocking: a writer that finds the pipe full knows a wake-up is already
  // pending and goes on, so neither thread ever waits on the other through a pipe. Programs
  // that the application starts do not inherit them.
  constexpr int kFlags = O_NONBLOCK | O_CLOEXEC;
  if (pipe2(ccm->network_wakeup, kFlags) != 0 || pipe2(ccm->processor_wakeup, kFlags) != 0) {
    // A failed pipe2() leaves its pair at -1; a network pipe already made stays open.
    int err = errno;
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "pipe(wakeups)|%d-%s|", err, strerror(err));
    QX_TRACE("%s <-- (pipe() error)", __func__);
    return -1;
  }
  QX_TRACE("%s:      network wakeup FDs=%d,%d", __func__, ccm->network_wakeup[0],
           ccm->network_wakeup[1]);
  QX_TRACE("%s:      processor wakeup FDs=%d,%d", __func__, ccm->processor_wakeup[0],
           ccm->processor_wakeup[1]);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

namespace {

// One wake-up byte; a full pipe (EAGAIN) already holds a wake-up that the reader has not yet
// taken, which serves this one too.
void wake(int fd, char byte) {
  if (fd < 0) return;
  const int saved = errno;  // callers report their own errors after a wake-up
  while (write(fd, &byte, 1) < 0 && errno == EINTR) {
  }
  errno = saved;
}

}  // namespace

void ccm_drain_wakeup(int fd) {
  char bytes[4096];
  for (;;) {
    const ssize_t n = read(fd, bytes, sizeof bytes);
    if (n == static_cast<ssize_t>(sizeof bytes) || (n < 0 && errno == EINTR)) continue;
    return;  // empty (EAGAIN), a short read that took the rest, or a closed pipe
  }
}

int ccm_wakeup_network(ccm_context_t* ccm) {
  QX_TRACE("%s() -->", __func__);
  if (ccm != nullptr) wake(ccm->network_wakeup[1], 'N');
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccm_wakeup_processor(ccm_context_t* ccm) {
  if (ccm != nullptr) wake(ccm->processor_wakeup[1], 'P');
  return 0;
}
