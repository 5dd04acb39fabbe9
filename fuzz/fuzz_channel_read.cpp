// Feeds an arbitrary byte stream through a real socket pair into the channel reader, cut into
// chunks whose sizes come from the input itself, so that frames arrive whole, split at any
// byte, or several in one read. Every queued message must describe bytes inside its own data
// area, and the receive buffer must always start at a frame boundary with the rest held.
//
// Input: the first two bytes choose the chunk sizes; the rest is the stream.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ccm/channel.h"
#include "ccm/context.h"
#include "ccm/internal.h"
#include "ccm/io.h"
#include "ccm/message.h"
#include "ccm/wire.h"
#include "fuzz_context.h"

namespace {

void check_and_free_received(ccm_context_t* ccm) {
  for (;;) {
    ccm_msg_t* m = nullptr;
    {
      ccm_queue_guard guard(ccm, ccm_lock_trace::kQuiet);
      m = ccm_queue_pop(ccm->recvq);
    }
    if (m == nullptr) return;
    const unsigned char* area_end = m->buffer1 + 2 * static_cast<size_t>(m->size);
    if (m->len < 0 || m->msg_start < m->buffer1 || m->msg_start > area_end ||
        static_cast<size_t>(m->len) > static_cast<size_t>(area_end - m->msg_start)) {
      std::abort();
    }
    ccm_msg_free(ccm, m);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ccm_context_t* ccm = fuzz_context();
  if (ccm == nullptr || size < 2) return 0;
  ccm_set_gss_classifier(ccm, gss_by_protocol);
  uint32_t rng = (static_cast<uint32_t>(data[0]) << 8 | data[1]) * 2654435761u + 1;
  data += 2;
  size -= 2;

  int sv[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return 0;
  ccm_channel_t* ch = nullptr;
  ccm_error_t err{};
  if (ccm_channel_new_entry(ccm, &ch, &err) != 0) {
    close(sv[0]);
    close(sv[1]);
    return 0;
  }
  ch->s = sv[0];
  // The first two bytes also decide whether the channel is a trusted local partner, from which
  // internal frames are taken, or a channel that refuses them.
  if (rng & 0x10000) ccm_channel_set_local_partner(ccm, ch, &err);

  size_t off = 0;
  while (off < size && !(ch->flag & CCM_CHFLAG_DELETED)) {
    rng = rng * 1103515245u + 12345u;
    // Mostly small chunks (split frames), now and then a large one (several frames at once).
    size_t chunk = (rng >> 16) % 8 == 0 ? 1 + (rng >> 8) % 4096 : 1 + (rng >> 8) % 64;
    if (chunk > size - off) chunk = size - off;
    if (write(sv[1], data + off, chunk) != static_cast<ssize_t>(chunk)) break;
    off += chunk;
    // Read until the socket is empty, as the select loop would call the reader again.
    int n = 0;
    while (!(ch->flag & CCM_CHFLAG_DELETED) && recv(sv[0], &n, 1, MSG_PEEK | MSG_DONTWAIT) > 0) {
      ccm_error_t rerr{};
      ccm_read_channel(ccm, ch, &rerr);
      check_and_free_received(ccm);
    }
    if (ch->recv_pos < 0 || ch->recv_pos > ch->recv_size) std::abort();
    // What stays buffered is one incomplete frame whose length, once visible, is valid.
    if (!(ch->flag & CCM_CHFLAG_DELETED) && ch->recv_pos > CCM_LENGTH_VISIBLE) {
      const int len = ccm_check_msg_length(ch->recv_buffer);
      if (len < 0 || len <= ch->recv_pos) std::abort();
    }
  }

  close(sv[1]);
  ch->type = CCM_CHTYPE_SILENT;  // never entered: no close notice
  ccm_channel_destroy(ccm, ch, &err);
  check_and_free_received(ccm);
  return 0;
}
