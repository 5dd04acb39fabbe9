// Channel reading and writing: the network thread's work on a socket that select reported
// ready. The reader cuts complete frames out of the channel's receive buffer, classifies each
// into a message and queues it for the processing thread; the writer hands the messages of the
// channel's send queue to the socket in order, as far as the socket takes them. Both carry
// socket control data (a passed descriptor) with the data.
//
// Ownership: a frame read becomes a message on the context's `recvq` (the processing thread
// takes it from there). A message written whole is freed; a message written in part stays at
// the head of the channel's `sendq` with its progress in `pos`. The receive buffer belongs to
// the channel and only grows while the channel lives.
//
// Threads: the network thread only. The context's queue lock guards the hand-over to `recvq`,
// the channel's queue lock guards its `sendq`; the socket, the receive buffer and `pos` are the
// network thread's alone.
#ifndef QX_CCM_IO_H_
#define QX_CCM_IO_H_

#include "ccm/channel.h"
#include "ccm/context.h"

inline constexpr int CCM_RECV_GROW_STEP = 8192;  // receive buffer sizes are multiples of this
inline constexpr int CCM_CONTROL_AREA = 256;     // control data taken with one read
inline constexpr int CCM_SEND_CHUNK = 32768;     // bytes handed to one sendmsg at most
inline constexpr int CCM_LENGTH_VISIBLE = 9;     // a frame length is read once more is buffered

inline constexpr int CCM_MSGNR_RECEIVE_ERROR = 2002036;
inline constexpr int CCM_MSGNR_SEND_ERROR = 2002002;

// Reads what the socket has and queues every frame completed by it. 0 when the read went well
// (whether or not a frame was completed); -1 when the channel was deleted (partner closed,
// receive error, invalid frame length, frame that cannot be classified) or a resource ran out
// (receive buffer or message; the channel then stays and keeps what it has buffered).
int ccm_read_channel(ccm_context_t* ccm, ccm_channel_t* ccmch, ccm_error_t* ccmerr);

// Writes the queued messages of the channel until the queue is empty or the socket takes less
// than it was given. 0, also when the socket would block; -1 when a send failed and the channel
// was deleted.
int ccm_write_channel(ccm_context_t* ccm, ccm_channel_t* ccmch, ccm_error_t* ccmerr);

#endif  // QX_CCM_IO_H_
