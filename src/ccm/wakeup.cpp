// The context's two wake-up pipes.
#include "ccm/wakeup.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <initializer_list>

#include "ccm/internal.h"
#include "common/trace_log.h"

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
