// The context's two wake-up pipes: the network thread waits on the read end of
// `network_wakeup`, the application's thread on that of `processor_wakeup`; each side wakes the
// other with one byte.
#ifndef QX_CCM_WAKEUP_H_
#define QX_CCM_WAKEUP_H_

#include "ccm/context_record.h"

// Creates both wake-up pipes, closing any still open first; both ends of each are
// non-blocking and closed on exec. 0, or -1 with `ccmerr` filled.
int ccm_create_wakeup_pipes(ccm_context_t* ccm, ccm_error_t* ccmerr);
// Closes both wake-up pipes; 0.
int ccm_close_wakeup_pipes(ccm_context_t* ccm);
// Writes 'N' to the network wake-up pipe; a null context does nothing; 0. Never blocks: a
// full pipe already holds a wake-up that the thread has not taken yet.
int ccm_wakeup_network(ccm_context_t* ccm);
// Writes 'P' to the processor wake-up pipe, like ccm_wakeup_network.
int ccm_wakeup_processor(ccm_context_t* ccm);

#endif  // QX_CCM_WAKEUP_H_
