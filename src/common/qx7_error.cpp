// Fillers of the common error record.
#include "common/qx7_error.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

namespace {

// The system's text for `code` without touching shared state; copes with both the GNU and
// the XSI shape of strerror_r.
[[maybe_unused]] const char* ErrorText(int (*)(int, char*, size_t), int code, char* buf,
                                       size_t size) {
  return strerror_r(code, buf, size) == 0 ? buf : "Unknown error";
}
[[maybe_unused]] const char* ErrorText(char* (*)(int, char*, size_t), int code, char* buf,
                                       size_t size) {
  return strerror_r(code, buf, size);
}

}  // namespace

void FillMessageOnPermissionError(qx7_error* error, int error_code, const char* user_name) {
  char text[256];
  const char* reason = ErrorText(&strerror_r, error_code, text, sizeof text);
  error->qx_msgnr = kMsgNrSystemCall;
  snprintf(error->qx_msgInsert, sizeof error->qx_msgInsert, "getpwnam(%s)|%i - %s",
           user_name != nullptr ? user_name : "", error_code, reason);
}

void FillMessageOnPasswordError(qx7_error* error, int /*error_code*/, const char* msg_insert_format,
                                ...) {
  error->qx_msgnr = kMsgNrPasswordError;
  if (msg_insert_format == nullptr) {
    error->qx_msgInsert[0] = '\0';
    return;
  }
  va_list ap;
  va_start(ap, msg_insert_format);
  vsnprintf(error->qx_msgInsert, sizeof error->qx_msgInsert, msg_insert_format, ap);
  va_end(ap);
}
