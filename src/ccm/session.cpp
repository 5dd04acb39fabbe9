// Opening and taking down a connection manager session.
#include "ccm/session.h"

#include <pthread.h>

#include "ccm/channel.h"
#include "ccm/internal.h"
#include "ccm/net_thread.h"

int ccm_session_open(void* ppcx, ccm_context_t** pccm, ccm_error_t* ccmerr) {
  *pccm = nullptr;
  ccm_context_t* ccm = nullptr;
  if (ccm_open(ppcx, &ccm, ccmerr) != 0) return -1;
  *pccm = ccm;
  return ccm_thread_start(ccm, ccmerr);
}

int ccm_thread_join(ccm_context_t* ccm) {
  if (ccm == nullptr || !ccm->thread_started) return -1;
  pthread_join(ccm->thread, nullptr);
  ccm->thread_started = 0;
  return 0;
}

int ccm_session_close(ccm_context_t* ccm, ccm_error_t* ccmerr) {
  if (ccm == nullptr) return 0;
  if (ccm->thread_started) {
    ccm_thread_stop(ccm);
    ccm_thread_join(ccm);
    // The main thread owns every channel now; those entered after the thread's last merge
    // join the list, so that closing all of them reaches them too.
    {
      ccm_channel_guard lock(ccm);
      ccm_channel_merge_newq(ccm);
    }
    ccm_channel_closeall(ccm);
  } else {
    bool any = false;
    {
      ccm_channel_guard guard(ccm, ccm_lock_trace::kQuiet);
      ccm_channel_merge_newq(ccm);
      any = ccm->channelq.head != nullptr;
    }
    if (any) ccm_channel_closeall(ccm);
  }
  return ccm_close(ccm, ccmerr);
}
