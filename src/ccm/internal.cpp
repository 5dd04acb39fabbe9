// Helpers shared by the connection manager's own files: the allocation seam, error records,
// non-blocking sockets, draining a wake-up pipe and bounded text copies.
#include "ccm/internal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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

void ccm_drain_wakeup(int fd) {
  char bytes[4096];
  for (;;) {
    const ssize_t n = read(fd, bytes, sizeof bytes);
    if (n == static_cast<ssize_t>(sizeof bytes) || (n < 0 && errno == EINTR)) continue;
    return;  // empty (EAGAIN), a short read that took the rest, or a closed pipe
  }
}
