// Listening and accepting: a listening TCP socket entered as a channel of type 1 named
// "*LISTEN", and the acceptance of one connection whenever the network thread finds that
// socket readable. Each accepted connection becomes a channel of its own and is announced to
// the processing thread with a "CHANNEL_ACCEPT" internal message.
//
// Ownership: the listening channel and every accepted channel belong to the context from the
// moment they are entered; they live and die like any other channel.
//
// Threads: `ccm_create_listen` may run on any thread (the channel joins the select loop at the
// next cycle; it does not wake the network thread). `ccm_signal_on_listen` runs on the network
// thread only.
#ifndef QX_CCM_LISTEN_H_
#define QX_CCM_LISTEN_H_

#include "ccm/channel.h"
#include "ccm/context.h"

// Listens on `pbind_addr` (host name or address text of at most 255 characters; "" for every
// local address; "*LOCAL" for the loopback address) and `port` (host byte order; 0 lets the
// system choose) with a backlog of `listen_count`. 0, or -1 with `ccmerr` filled and no
// socket left open.
int ccm_create_listen(ccm_context_t* ccm, const char* pbind_addr, int port, int listen_count,
                      ccm_error_t* ccmerr);

// Accepts one connection on the listening channel `ccmch`, enters it as a new channel and
// queues a "CHANNEL_ACCEPT" message with the new channel's ID. 0, or -1 with `ccmerr` filled
// (the listening channel is kept; a connection that could not be set up or announced is
// closed again).
int ccm_signal_on_listen(ccm_context_t* ccm, ccm_channel_t* ccmch, ccm_error_t* ccmerr);

#endif  // QX_CCM_LISTEN_H_
