// What the connection manager's fuzz targets share: one context for the whole fuzzing
// process (opened once, never closed, no network thread and no wake-up pipes, so the
// reader's wake-ups do nothing and no pipe can fill up), and a GSS classifier that takes
// every frame whose protocol field reads "GSS" for a GSS frame, so that path runs too.
#ifndef QX_FUZZ_FUZZ_CONTEXT_H_
#define QX_FUZZ_FUZZ_CONTEXT_H_

#include <cstring>

#include "ccm/context.h"
#include "ccm/message.h"
#include "common/protocol_header.h"

inline ccm_context_t* fuzz_context() {
  static ccm_app_context_head app{"", 3};
  static ccm_context_t* ccm = [] {
    ccm_context_t* c = nullptr;
    ccm_error_t err{};
    ccm_open(&app, &c, &err);
    return c;
  }();
  return ccm;
}

inline int gss_by_protocol(ccm_context_t*, ccm_msg_t* m) {
  return std::memcmp(m->msg_start + kProtoProtocolOffset, "GSS", 3) == 0;
}

#endif  // QX_FUZZ_FUZZ_CONTEXT_H_
