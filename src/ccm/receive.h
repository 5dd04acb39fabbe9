// Receiving messages and addressing: the main thread's way to take received messages out of
// a connection manager context, the wait on the processor wake-up pipe, the operations that
// fill a message's address record, and counting queries over channels and queues.
//
// Ownership: a message handed out by `ccm_receive_message` belongs to the caller, who gives
// it back with `ccm_msg_free`. The addressing operations change only the message given.
//
// Threads: `ccm_receive_message` and `ccm_wait_processor` are for the main thread (one
// receiver per context). The addressing operations work on a message the caller holds. The
// counting queries may run on any thread; they take the locks they need.
#ifndef QX_CCM_RECEIVE_H_
#define QX_CCM_RECEIVE_H_

#include "ccm/channel.h"
#include "ccm/context.h"
#include "ccm/message.h"

// 1 with the oldest received message in *ccmmsg; 0 with null when none arrived within
// `stimeout` seconds (0 = just look), the wait was interrupted or a left-over wake-up byte
// ended it; -1 with `ccmerr` filled when the wait failed. Waits at most once per call. A
// message taken no longer counts among the unread ones of its channel (CCM_UNREAD_MAX_*); a
// channel left unread for them is read again once it is back within the bounds.
int ccm_receive_message(ccm_context_t* ccm, int stimeout, ccm_msg_t** ccmmsg, ccm_error_t* ccmerr);

// Like ccm_receive_message without a wait, and when nothing was there, waits up to
// `timeout_ms` milliseconds (none when it is 0 or less) for the network thread to announce the
// next message, without taking it: the next call takes it. 1 with the oldest received message
// in *ccmmsg; 0 with null (look again); -1 with `ccmerr` filled when either wait failed. The
// wait itself is not traced. A wait longer than an hour is cut to an hour.
int ccm_receive_message_ms(ccm_context_t* ccm, long long timeout_ms, ccm_msg_t** ccmmsg,
                           ccm_error_t* ccmerr);

// Waits at most `stimeout` seconds for the processor wake-up pipe and takes every byte
// waiting in it. 0 on wake-up, time-out or interruption; -1 (2000102) when select fails or the pipe
// is not open.
int ccm_wait_processor(ccm_context_t* ccm, int stimeout, ccm_error_t* ccmerr);

// Sets the destination: "#CCMADDR", dst_ID = ID, dst_acv = acv, addr and name (cut to 63
// characters). `reply_ID` has no effect. The source is not touched. Returns &ccmmsg->addr.
ccm_addr_t* ccm_setaddr(ccm_msg_t* ccmmsg, int ID, int reply_ID, const char* addr, const char* name,
                        int acv);

// Sets the source address, name and value; src_ID is not touched. Returns &ccmmsg->addr.
ccm_addr_t* ccm_setback(ccm_msg_t* ccmmsg, const char* addr, const char* name, int acv);

// Addresses `ccmd` to the sender of `ccms`; `ccmd`'s own source stays. Returns &ccmd->addr.
ccm_addr_t* ccm_setaddr_reply(ccm_msg_t* ccmd, ccm_msg_t* ccms);

// Live (not deleted) channels of `channelq` by type: 3 or 6; 1, 3 or 6; 4; anything but 255.
int ccm_get_nof_server_connections(ccm_context_t* ccm);
int ccm_get_nof_connections(ccm_context_t* ccm);
int ccm_get_nof_agent_connections(ccm_context_t* ccm);
int ccm_get_nof_channels(ccm_context_t* ccm);

// Messages waiting in the context's `recvq` (received and not yet taken). Traces nothing but
// its use of the queue lock.
int ccm_get_recvq_count(ccm_context_t* ccm);

// Messages waiting in the context's `sendq` (not yet handed to a channel).
int ccm_get_sendq_count(ccm_context_t* ccm);

// 1 when neither the context's `sendq` nor the `sendq` of any live channel holds a message.
int ccm_is_all_sendq_empty(ccm_context_t* ccm);

// Lets the network thread write what is queued, until every send queue is empty (1), channel
// `ID` no longer exists (-1), or `timeout_ms` milliseconds passed (0). Each look is
// ccm_is_all_sendq_empty and then ccm_channel_existbyID; the pauses between looks grow from
// 1 to 50 milliseconds.
int ccm_drain_sendq(ccm_context_t* ccm, int ID, long long timeout_ms);

#endif  // QX_CCM_RECEIVE_H_
