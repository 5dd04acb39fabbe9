// Outgoing connections: starting a non-blocking TCP connection on a new channel, the socket
// options that connecting and accepting set, and whether a connection to a server is under way.
//
// Ownership: on success the new channel is entered and belongs to the context (the network
// thread watches it from its next cycle on). A connect user context passed in (allocated with
// malloc or calloc) belongs to the connection manager from the call on: the channel frees it
// when it is destroyed, and a call that fails frees it at once.
//
// Threads: `ccm_connect` and `ccm_is_cp_connecting` may be called from any thread; the option
// operations by whoever owns the channel's socket at that moment.
#ifndef QX_CCM_CONNECT_H_
#define QX_CCM_CONNECT_H_

#include "ccm/channel.h"
#include "ccm/context.h"

inline constexpr int CCM_MSGNR_CONNECT_LOG = 2000348;

// Starts a connection to host:port on a new channel of `type`. The channel ID (1 or more)
// once the connection is established or under way; -1 with `ccmerr` filled on failure.
// `host` must be shorter than 128 bytes and `port` within 1..65535.
int ccm_connect(ccm_context_t* ccm, const char* host, int port, int type,
                ccm_connect_user_context_t* cuc, int connwait, ccm_error_t* ccmerr);

// For the network thread, when the socket of an outgoing connection that still has further
// addresses to try is ready: 0 when the connection came about (the channel is served as
// usual, and no further address is tried from then on); 1 when it failed, and then the
// connection is under way to the next address that does not fail at once, or, when the
// failure was neither a refusal nor unreachability or no address is left, the channel is
// deleted with the error recorded. A channel without further addresses gives 0 at once.
int ccm_connect_next_address(ccm_context_t* ccm, ccm_channel_t* ccmch);

// Puts the channel's socket into non-blocking mode; 0 or -1.
int ccm_set_nonblocking(ccm_context_t* ccm, ccm_channel_t* ccmch, ccm_error_t* ccmerr);
// Sets SO_LINGER on the channel's socket; 0 or -1.
int ccm_set_linger(ccm_context_t* ccm, ccm_channel_t* ccmch, int onoff, int ptime,
                   ccm_error_t* ccmerr);

// 1 when a live type 6 channel to that address and port exists, 0 when none does, -1 when
// `host` cannot be resolved.
int ccm_is_cp_connecting(ccm_context_t* ccm, const char* host, int port, ccm_error_t* ccmerr);

#endif  // QX_CCM_CONNECT_H_
