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

#include "ccm/context.h"

inline constexpr int CCM_MSG_POOL_SIZE = 32768;  // size class of a pool message
inline constexpr int CCM_MSG_POOL_MAX = 64;      // messages kept in the free pool at most
inline constexpr int CCM_MSG_HEADROOM = 256;     // bytes in front of a fresh `msg_start`

// Message types.
inline constexpr int CCM_MSG_NATIVE = 0;
inline constexpr int CCM_MSG_GSS = 1;
inline constexpr int CCM_MSG_NAT = 2;
inline constexpr int CCM_MSG_IPC = 3;

// Message flag bits.
inline constexpr int CCM_MSGFLAG_CHANNEL_02 = 0x02;  // carried over from channel flag 0x02
inline constexpr int CCM_MSGFLAG_KEEP = 0x08;        // not released when no channel is found
inline constexpr int CCM_MSGFLAG_XML = 0x20;         // body is XML text: no code-page conversion
// Counted among the unread messages of the channel it came on (ccm_channel_t::unread_msgs)
// until the application takes it.
inline constexpr int CCM_MSGFLAG_UNREAD = 0x100;

struct ccm_addr_t {
  char eyec[8];  // "#CCMADDR", no terminator
  int type;
  int dst_ID;
  char dst_addr[64];
  char dst_name[64];
  int dst_acv;
  int src_ID;
  char src_addr[64];
  char src_name[64];
  int src_acv;
  int src_type;
};
static_assert(sizeof(ccm_addr_t) == 288);
static_assert(offsetof(ccm_addr_t, dst_addr) == 16 && offsetof(ccm_addr_t, dst_name) == 80);
static_assert(offsetof(ccm_addr_t, dst_acv) == 144 && offsetof(ccm_addr_t, src_ID) == 148);
static_assert(offsetof(ccm_addr_t, src_addr) == 152 && offsetof(ccm_addr_t, src_name) == 216);
static_assert(offsetof(ccm_addr_t, src_acv) == 280 && offsetof(ccm_addr_t, src_type) == 284);

struct ccm_msg_t {
  char eyec[16];  // "##CCM#MESSAGE###", no terminator
  ccm_msg_t* nxt;
  ccm_addr_t addr;
  int type;                    // CCM_MSG_*
  unsigned char protocol_key;  // key byte of a received native body; 0 otherwise
  char filler[7];
  int flag;  // CCM_MSGFLAG_*
  unsigned long ID;
  int size;  // size class; the data area holds twice this many bytes
  int len;   // bytes of message data at `msg_start`
  int pos;   // bytes already handed to the socket
  int passfd;
  int agentID;
  void* pATctx;
  void* pDelegCred;
  size_t control_len;
  unsigned char control_data[256];
  unsigned char* msg_start;
  unsigned char* buffer1;  // start of the data area
  unsigned char* buffer2;  // buffer1 + size
  unsigned long filler2aligne;
  unsigned char buffer[];  // the data area, 2 * size bytes
};
static_assert(offsetof(ccm_msg_t, buffer) % alignof(std::max_align_t) == 0,
              "the data area must be aligned for any record written into it");

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

#endif  // QX_CCM_MESSAGE_H_
