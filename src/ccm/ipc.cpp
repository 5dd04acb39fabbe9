// Delivery of internal messages to the own processing thread.
#include "ccm/ipc.h"

#include <cstring>

#include "ccm/internal.h"
#include "ccm/locks.h"
#include "ccm/wakeup.h"
#include "common/trace_log.h"

int send_IPC_internal(ccm_context_t* ccm, ccm_msg_t* ccmmsg) {
  if (trc_level()) {
    char type[CCM_IPC_TYPE_SIZE + 1] = {};
    if (ccmmsg->len >= CCM_IPC_TYPE_SIZE)
      ccm_copy_text(type, sizeof type, reinterpret_cast<char*>(ccmmsg->msg_start));
    __trace_text(0, "%s(type=%s,msg(%p,msgID=%lu,addr=%p,len=%d,pos=%d,flag=%.8X)) -->", __func__,
                 type, static_cast<void*>(ccmmsg), ccmmsg->ID,
                 static_cast<void*>(ccmmsg->msg_start), ccmmsg->len, ccmmsg->pos,
                 static_cast<unsigned>(ccmmsg->flag));
  }
  ccmmsg->type = CCM_MSG_IPC;
  if (trc_level()) trcdump(ccmmsg->msg_start, ccmmsg->len, "internal IPC message");
  {
    ccm_queue_guard guard(ccm, ccm_lock_trace::kQuiet);
    ccm_queue_unlink(ccm->msgq_inuse, ccmmsg);
    ccm_queue_append(ccm->recvq, ccmmsg);
  }
  ccm_wakeup_processor(ccm);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccm_close_notice_channelID(const ccm_msg_t* ccmmsg) {
  if (ccmmsg->type != CCM_MSG_IPC) return -1;
  if (ccmmsg->len < static_cast<int>(sizeof(ipcmsg_channel_close_t))) return -1;
  char type[CCM_IPC_TYPE_SIZE] = {};
  std::memcpy(type, ccmmsg->msg_start, sizeof type);
  if (std::memcmp(type, IPCMSG_CHANNEL_CLOSE, sizeof IPCMSG_CHANNEL_CLOSE) != 0) return -1;
  int id;
  std::memcpy(
      &id,
      ccmmsg->msg_start + offsetof(ipcmsg_channel_close_t, ccmch) + offsetof(ccm_channel_t, ID),
      sizeof id);
  return id;
}
