// Sending messages: the operations that put the wire prefix of their kind in front of a
// finished payload and hand the frame to the network thread, the short cut for internal
// messages to the own main thread, and the forwarding of a received NAT message.
//
// Ownership: a message handed to a send operation that succeeds belongs to the connection
// manager from then on (the network thread frees it once written or when its channel is
// gone); the caller must not touch it again. When an operation returns -1 the message is
// unchanged and still the caller's. `ccm_forward_NAT_message` sends a copy and leaves the
// given message with the caller.
//
// Threads: any thread may send; the queues are touched only under the context's queue lock,
// and the woken thread is woken after the lock is released.
#ifndef QX_CCM_SEND_H_
#define QX_CCM_SEND_H_

#include "ccm/channel.h"
#include "ccm/context.h"
#include "ccm/message.h"

// Moves a finished frame from `msgq_inuse` to the end of the context's `sendq` and wakes the
// network thread. `text` titles the trace dump. 0.
int ccm_send_message_common(ccm_context_t* ccm, ccm_msg_t* ccmmsg, const char* text);

// Header "NAT" in front of a body the caller has keyed (e.g. ccm_msg_write_native_data).
int send_native_message(ccm_context_t* ccm, ccm_msg_t* ccmmsg);

// Header "GSS" with `coding` (first 8 characters, blank-padded) in cCoding.
int send_GSS_message(ccm_context_t* ccm, ccm_msg_t* ccmmsg, const char* coding);

// Address entries, the 0xFF payload entry and the source block from the message's address,
// then header "NAT"; type 2. A message for "*SERVER" from any running mode but 0 is routed to
// the local agent process instead (send_NAT_message_route).
int send_NAT_message(ccm_context_t* ccm, ccm_msg_t* ccmmsg);

// Wraps the message into a "ROUTENAT" internal message for "*IPC(AGENT)" and sends that; the
// given message is freed. -1 when no wrapper can be allocated: the given message is then
// left unchanged with the caller.
int send_NAT_message_route(ccm_context_t* ccm, ccm_msg_t* ccmmsg);

// Code-page hook for outgoing NAT payloads: payloads are carried byte for byte. Returns 0.
int msgconv_ToLan(ccm_context_t* ccm, ccm_msg_t* ccmmsg);

// Header "IPC" in front of an internal message record; type 3.
int send_IPC_message(ccm_context_t* ccm, ccm_msg_t* ccmmsg);

// Sends a copy of the received NAT message `ccmmsg` to the channel `channelID` (when not 0)
// or `channelName`, from "*SERVER" with the original source name and value. With
// `check_channel` the channel must exist now (-1, 2003070 otherwise). -1 (2003070) also when
// the copy cannot be allocated.
int ccm_forward_NAT_message(ccm_context_t* ccm, ccm_msg_t* ccmmsg, int channelID,
                            const char* channelName, ccm_error_t* ccmerr, int check_channel);

#endif  // QX_CCM_SEND_H_
