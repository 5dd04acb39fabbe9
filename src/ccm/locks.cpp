// The context's queue and channel locks and a channel's queue lock.
#include "ccm/locks.h"

#include <pthread.h>

#include "common/trace_log.h"

int ccm_queue_lock(ccm_context_t* ccm) {
  QX_TRACE("%s() -->", __func__);
  pthread_spin_lock(&ccm->queue_lock);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccm_queue_unlock(ccm_context_t* ccm) {
  QX_TRACE("%s() -->", __func__);
  pthread_spin_unlock(&ccm->queue_lock);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccmch_queue_lock(ccm_context_t* /*ccm*/, ccm_channel_t* ccmch) {
  QX_TRACE("%s() -->", __func__);
  pthread_spin_lock(&ccmch->queue_lock);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccmch_queue_unlock(ccm_context_t* /*ccm*/, ccm_channel_t* ccmch) {
  QX_TRACE("%s() -->", __func__);
  pthread_spin_unlock(&ccmch->queue_lock);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccm_channel_lock(ccm_context_t* ccm) {
  QX_TRACE("%s() -->", __func__);
  pthread_spin_lock(&ccm->channel_lock);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccm_channel_unlock(ccm_context_t* ccm) {
  QX_TRACE("%s() -->", __func__);
  pthread_spin_unlock(&ccm->channel_lock);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}
