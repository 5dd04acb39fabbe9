// The network thread: the one thread of a process that does the socket work of a connection
// manager context. Each cycle merges newly entered channels into the active list, moves queued
// outgoing messages to their channels, waits in select for the channels' sockets and the
// network wake-up pipe, serves every ready socket (accept, read, write) and then destroys the
// channels marked deleted.
//
// Ownership: the thread owns `channelq`, `msgq_2dispatch` and the descriptor sets while it
// runs; after the join the caller owns every channel again (`ccm_channel_closeall`).
//
// Threads: `ccm_thread_start` and `ccm_thread_stop` are for the application's thread. Each
// context has its own descriptor sets, so every context of a process may run its own network
// thread. The
// cycle operations run on the network thread (tests call them directly while no thread runs).
// Other threads hand work over through `sendq` and `channel_newq` and wake the thread with
// `ccm_wakeup_network`.
#ifndef QX_CCM_NET_THREAD_H_
#define QX_CCM_NET_THREAD_H_

#include "ccm/channel.h"
#include "ccm/context.h"

inline constexpr int CCM_SELECT_TIMEOUT = 10;     // seconds one cycle waits at most
inline constexpr int CCM_MAX_WATCHED_FD = 65535;  // highest descriptor the select loop watches
inline constexpr int CCM_MSGNR_THREAD_NAME = 2000134;
// Cycles in a row whose select may fail before the thread gives up and ends.
inline constexpr int CCM_SELECT_FAILURES_MAX = 3;

// Creates the wake-up pipes and starts the network thread; 0, or -1 with `ccmerr` filled.
int ccm_thread_start(ccm_context_t* ccm, ccm_error_t* ccmerr);
// The thread's body; `pccm` is the context. Returns null. Every failed cycle is logged; after
// CCM_SELECT_FAILURES_MAX failed cycles in a row the thread ends as after a stop (the last
// sweep still destroys the deleted channels), with that logged too.
void* ccm_thread_run(void* pccm);
// Asks the thread to end after its current cycle and wakes it; returns 0 at once. The caller
// then joins the context's `thread`.
int ccm_thread_stop(ccm_context_t* ccm);

// Appends `channel_newq` to `channelq` in order; the caller holds `channel_lock`. 0.
int ccm_channel_merge_newq(ccm_context_t* ccm);
// Moves every message of the context's `sendq` to the `sendq` of its channel; a message whose
// channel does not exist is freed (unless it carries CCM_MSGFLAG_KEEP). 0.
int ccm_dispatch_send_messages(ccm_context_t* ccm);
// One cycle: merge, dispatch, select for at most `stimeout` seconds, serve. 0, or -1 with
// `ccmerr` filled when select failed. A channel whose socket is above CCM_MAX_WATCHED_FD is
// deleted with its error recorded, not left unwatched. A channel with more unread messages
// than CCM_UNREAD_MAX_* allow is not read in this cycle (CCM_CHFLAG_RECV_HELD).
int ccm_network_select(ccm_context_t* ccm, int stimeout, ccm_error_t* ccmerr);
// Traces its entry and exit; 0.
int ccm_channel_maintenance(ccm_context_t* ccm);
// Makes two entered channels joined by a local stream socket pair, each marked as the other's
// local partner (ccm_channel_set_local_partner). 0 with them in *pch1 and *pch2, or -1 with
// nothing made (both channels are released again).
int ccm_channel_create_pair(ccm_context_t* ccm, ccm_channel_t** pch1, ccm_channel_t** pch2,
                            ccm_error_t* ccmerr);

// The text form "3,5,7" of the members 0..maxfd of a descriptor set of CCM_MAX_WATCHED_FD + 1
// bits, written into `work` of `size` bytes. A list that does not fit is cut after the last
// whole number that leaves room for the marker ",..." . Returns work.
char* ccm_fdset_text(char* work, int size, const void* set, int maxfd);

#endif  // QX_CCM_NET_THREAD_H_
