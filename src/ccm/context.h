// Connection manager context: one instance of the connection manager, opened and closed. Its
// record and the error record are in context_record.h, its locks in locks.h, its wake-up pipes
// in wakeup.h; this header brings all three.
//
// Ownership: `ccm_open` allocates the context and `ccm_close` frees it together with every
// message it still holds. Channels are not freed by `ccm_close`; the caller destroys them first
// with `ccm_channel_closeall` (channel.h) after the network thread has ended.
//
// Threads: the main (processing) thread and the network thread share one context. The lists
// and counters are guarded by the locks (locks.h); waiting is done only on the wake-up pipes.
// Lock order: `channel_lock` may be held while taking the context's `queue_lock` or a channel's
// `queue_lock`; the two kinds of queue lock are leaves and are never held together.
#ifndef QX_CCM_CONTEXT_H_
#define QX_CCM_CONTEXT_H_

#include "ccm/context_record.h"
#include "ccm/locks.h"
#include "ccm/wakeup.h"

// Opens a context. `ppcx` is the application context (it begins with ccm_app_context_head).
// 0 with the context in *pccm, or -1 with `ccmerr` filled and nothing stored.
int ccm_open(void* ppcx, ccm_context_t** pccm, ccm_error_t* ccmerr);

// Frees every message of the context, the locks, the pipes and the context; null is accepted.
// Always 0; `ccmerr` is not used.
int ccm_close(ccm_context_t* ccm, ccm_error_t* ccmerr);

#endif  // QX_CCM_CONTEXT_H_
