// The connection manager context: opening and closing.
#include "ccm/context.h"

#include <cstring>
#include <initializer_list>

#include "ccm/address.h"
#include "ccm/channel.h"
#include "ccm/internal.h"
#include "ccm/message.h"
#include "common/trace_log.h"

int ccm_open(void* ppcx, ccm_context_t** pccm, ccm_error_t* ccmerr) {
  QX_TRACE("%s(pcx=%p) -->", __func__, ppcx);
  auto* ccm = static_cast<ccm_context_t*>(ccm_alloc(sizeof(ccm_context_t), "CCM_OPEN"));
  if (ccm == nullptr) {
    ccm_set_alloc_error(ccmerr, "CCM_OPEN", __FILE__, __LINE__);
    QX_TRACE("%s <-- (calloc error)", __func__);
    return -1;
  }
  ccm->app = ppcx;
  std::memcpy(ccm->eyec, "##CCM_CONEXT####", sizeof ccm->eyec);
  pthread_spin_init(&ccm->queue_lock, PTHREAD_PROCESS_PRIVATE);
  pthread_spin_init(&ccm->channel_lock, PTHREAD_PROCESS_PRIVATE);
  ccm->unique_channel_ID = 1;
  ccm->unique_msg_ID = 1;
  ccm->network_wakeup[0] = ccm->network_wakeup[1] = -1;
  ccm->processor_wakeup[0] = ccm->processor_wakeup[1] = -1;
  *pccm = ccm;

  ccm_error_t v6err{};
  if (ccm_check_ipv6_support(&v6err) < 0) {
    __log(v6err.msgnr, "%s", v6err.msginsert);
    __log(CCM_MSGNR_NO_IPV6, "%s", "");
  } else {
    ccm_flag_set(ccm->flag, CCM_FLAG_IPV6);
  }
  QX_TRACE("%s <-- (ccm=%p)", __func__, static_cast<void*>(ccm));
  return 0;
}

int ccm_close(ccm_context_t* ccm, ccm_error_t* /*ccmerr*/) {
  QX_TRACE("%s(ccm=%p) -->", __func__, static_cast<void*>(ccm));
  if (ccm == nullptr) {
    QX_TRACE("%s <-- (ccm == null)", __func__);
    return 0;
  }
  // sendq, recvq and msgq_2dispatch hold messages outside msgq_inuse; detach each list before
  // its messages are freed so that ccm_msg_free never meets a half-walked list.
  for (ccm_msg_queue_t* q : {&ccm->sendq, &ccm->recvq, &ccm->msgq_inuse, &ccm->msgq_2dispatch}) {
    if (q == &ccm->msgq_inuse) {
      ccm_free_queue(ccm, *q);  // ccm_msg_free unlinks each message from msgq_inuse itself
    } else {
      ccm_msg_queue_t detached = *q;
      q->head = q->tail = nullptr;
      ccm_free_queue(ccm, detached);
    }
  }
  {
    ccm_queue_guard guard(ccm, ccm_lock_trace::kQuiet);
    while (ccm_msg_t* m = ccm_queue_pop(ccm->msg_freeq)) {
      QX_TRACE("%s:      free(msg(%p,msgID=%lu,addr=%p,len=%d,pos=%d,flag=%.8X))", __func__,
               static_cast<void*>(m), m->ID, static_cast<void*>(m->msg_start), m->len, m->pos,
               static_cast<unsigned>(m->flag));
      ccm_free(m);
    }
    ccm->nof_freemsg = 0;
  }
  pthread_spin_destroy(&ccm->queue_lock);
  pthread_spin_destroy(&ccm->channel_lock);
  ccm_close_wakeup_pipes(ccm);
  ccm_free(ccm);
  QX_TRACE("%s <-- ()", __func__);
  return 0;
}
