// Drives an arbitrary byte stream through what a connection reader does with it: cut frames
// by their announced length, reject invalid lengths, and classify and parse each frame.
// Every frame is placed at the very end of its message's data area, so that a read past the
// frame leaves the allocation and is caught.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "ccm/channel.h"
#include "ccm/context.h"
#include "ccm/message.h"
#include "ccm/wire.h"
#include "fuzz_context.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ccm_context_t* ccm = fuzz_context();
  if (ccm == nullptr) return 0;
  ccm_set_gss_classifier(ccm, gss_by_protocol);

  ccm_channel_t ch{};
  std::strcpy(ch.name, "*FUZZ");
  ch.s = -1;
  // A trusted local partner, so that internal frames are classified too.
  ch.flag = CCM_CHFLAG_CONNECTING | CCM_CHFLAG_LOCAL_PARTNER;

  while (size > 9) {
    ccm_error_t err{};
    const int length = ccm_get_valid_msg_length(ccm, &ch, data, &err);
    if (length < 0 || static_cast<size_t>(length) > size) break;

    ccm_msg_t* m = length <= CCM_MSG_POOL_SIZE ? ccm_msg_alloc(ccm, &err)
                                               : ccm_msg_alloc_huge(ccm, length, &err);
    if (m == nullptr) break;
    m->msg_start = m->buffer1 + 2 * static_cast<size_t>(m->size) - length;
    std::memcpy(m->msg_start, data, length);
    m->len = length;
    const int rslt = ccm_classify_message(ccm, &ch, m, &err);
    if (rslt == 0) {
      // What a receiver would touch: the payload as msg_start/len describe it.
      if (m->len < 0 || m->msg_start < m->buffer1 ||
          m->msg_start + m->len > m->buffer1 + 2 * static_cast<size_t>(m->size)) {
        __builtin_trap();
      }
      volatile unsigned sum = 0;
      for (int i = 0; i < m->len; ++i)
        sum = sum + m->msg_start[i];
    }
    ccm_msg_free(ccm, m);
    if (rslt != 0) break;
    data += length;
    size -= length;
  }
  return 0;
}
