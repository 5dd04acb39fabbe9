// Internal ("IPC") messages: records that begin with a 16-character type name, and their
// delivery to the own processing thread through the context's receive queue.
//
// Ownership: `send_IPC_internal` takes over the message it is given; the processing thread
// receives it with `ccm_receive_message` and frees it.
//
// Threads: any thread may deliver an internal message; it takes the context's `queue_lock`
// and wakes the processing thread after releasing it.
#ifndef QX_CCM_IPC_H_
#define QX_CCM_IPC_H_

#include <cstddef>

#include "ccm/channel_record.h"
#include "ccm/context_record.h"
#include "ccm/message_record.h"

inline constexpr int CCM_IPC_TYPE_SIZE = 16;

struct ipcmsg_header_t {
  char msgtype[CCM_IPC_TYPE_SIZE];  // type name, NUL-padded
};
static_assert(sizeof(ipcmsg_header_t) == 16);

inline constexpr char IPCMSG_CHANNEL_CLOSE[] = "CHANNEL_CLOSE";
inline constexpr char IPCMSG_CHANNEL_ACCEPT[] = "CHANNEL_ACCEPT";  // record in ipc_dispatch.h

// "CHANNEL_CLOSE": the notice that a channel was destroyed, with the whole channel record as
// it was at that moment and the fixed part of its connect user context (zeros when none).
struct ipcmsg_channel_close_t {
  ipcmsg_header_t head;
  ccm_channel_t ccmch;
  unsigned char cuc[CCM_CUC_FIXED_SIZE];  // a ccm_connect_user_context_t without its token
};
static_assert(offsetof(ipcmsg_channel_close_t, ccmch) == 16);
static_assert(offsetof(ipcmsg_channel_close_t, ccmch) % alignof(ccm_channel_t) == 0);
static_assert(offsetof(ipcmsg_channel_close_t, cuc) == 16 + sizeof(ccm_channel_t));
static_assert(sizeof(ipcmsg_channel_close_t) <= 2 * CCM_MSG_POOL_SIZE - CCM_MSG_HEADROOM,
              "a close notice must fit in a pool message");

// Delivers an internal message to the own processing thread: type 3, no header; moves it from
// `msgq_inuse` to the end of `recvq` and wakes the processing thread. 0.
int send_IPC_internal(ccm_context_t* ccm, ccm_msg_t* ccmmsg);

// The ID of the channel a received "CHANNEL_CLOSE" notice is about (the ID in the channel
// record it carries); -1 for any other message, and for a notice too short to hold the record.
int ccm_close_notice_channelID(const ccm_msg_t* ccmmsg);

#endif  // QX_CCM_IPC_H_
