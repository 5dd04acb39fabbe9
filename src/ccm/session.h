// A connection manager session: a context with its network thread running, opened in one
// call and taken down in one call, in the order the two threads need: stop the network thread,
// join it, close every channel that is left, close the context.
//
// Ownership: `ccm_session_open` makes the context; `ccm_session_close` destroys every channel
// and message of it and the context itself.
//
// Threads: both calls are for the application's thread that owns the context; no other
// thread may use the context once `ccm_session_close` began.
#ifndef QX_CCM_SESSION_H_
#define QX_CCM_SESSION_H_

#include "ccm/context.h"

// Opens a context (ccm_open) and starts its network thread (ccm_thread_start). 0 with the
// context in *pccm. -1 with `ccmerr` filled otherwise: *pccm is null when the context could
// not be opened; it holds the context when the thread could not be started, which the caller
// then takes down with ccm_session_close (so that what it reports about the failure comes
// before the context's own closing).
int ccm_session_open(void* ppcx, ccm_context_t** pccm, ccm_error_t* ccmerr);

// Takes a context down: when its network thread runs, stops and joins it, gathers the
// channels entered after the thread's last cycle and closes all of them; then closes the
// context. A context whose thread never ran (or was joined already) only has its channels
// closed, when it has any, and is closed. A null context is accepted. Returns 0.
int ccm_session_close(ccm_context_t* ccm, ccm_error_t* ccmerr);

// Joins the network thread after ccm_thread_stop; 0, or -1 when no thread runs.
int ccm_thread_join(ccm_context_t* ccm);

#endif  // QX_CCM_SESSION_H_
