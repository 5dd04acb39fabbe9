// Messages of the connection manager: the message record with its data area in one
// allocation, its address record, and a bounded pool of standard-size messages.
//
// Ownership: a message belongs to the context from allocation on. While a caller builds it, it
// stands in the context's `msgq_inuse`; a send operation takes it over. A received message
// belongs to the caller of `ccm_receive_message` until it calls `ccm_msg_free`. Messages of the
// pool size (CCM_MSG_POOL_SIZE) go back to the pool when freed (at most CCM_MSG_POOL_MAX of
// them); every other size is released at once.
//
// Threads: allocation and freeing may happen on any thread; both take the context's
// `queue_lock`. The emptying operations are for the owner of a channel or of the context.
#ifndef QX_CCM_MESSAGE_H_
#define QX_CCM_MESSAGE_H_

#include <cstddef>

#include "ccm/context_record.h"
#include "ccm/message_record.h"

// A pool message; the same as ccm_msg_alloc_huge(ccm, CCM_MSG_POOL_SIZE, ccmerr).
ccm_msg_t* ccm_msg_alloc(ccm_context_t* ccm, ccm_error_t* ccmerr);
// A message whose data area holds 2 * size bytes; null with `ccmerr` filled on failure.
// A size below CCM_MSG_HEADROOM, which could not hold the head room, is refused.
ccm_msg_t* ccm_msg_alloc_huge(ccm_context_t* ccm, int size, ccm_error_t* ccmerr);
// A message for a received frame of `len` bytes (48 to kMaxFrameSize), with `msg_start` at
// the start of its data area and the memory in proportion to the frame: a frame that needs
// more than half of a pool message's area takes a pool message, any other gets an area of its
// own size (rounded up to an even number; `size` is half of it), which is released when it is
// freed. Null with `ccmerr` filled on failure.
ccm_msg_t* ccm_msg_alloc_frame(ccm_context_t* ccm, int len, ccm_error_t* ccmerr);
// The bytes that a message's allocation holds: the record and its data area.
inline size_t ccm_msg_footprint(const ccm_msg_t* m) {
  return sizeof(ccm_msg_t) + 2 * static_cast<size_t>(m->size);
}
// Gives a message back; it must stand in no queue but `msgq_inuse`. Always 0.
int ccm_msg_free(ccm_context_t* ccm, ccm_msg_t* ccmmsg);
// Frees every message of the channel's `sendq` and `recvq`; the caller owns the channel. 0.
int ccm_channel_emptying_msg_queue(ccm_context_t* ccm, ccm_channel_t* ccmch);
// Frees the messages of the context's `recvq`, `msgq_inuse` and `msgq_2dispatch` and of every
// live channel of `channelq`. 0.
int ccm_msg_emptying_queues(ccm_context_t* ccm);

// Returns every message of `q` through ccm_msg_free and leaves the queue empty. The caller
// owns `q` (a detached queue, or one no other thread touches).
void ccm_free_queue(ccm_context_t* ccm, ccm_msg_queue_t& q);

#endif  // QX_CCM_MESSAGE_H_
