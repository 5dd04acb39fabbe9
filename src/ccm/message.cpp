// Message allocation and the free pool of standard-size messages.
#include "ccm/message.h"

#include <algorithm>
#include <cstring>

#include "ccm/channel_record.h"
#include "ccm/internal.h"
#include "ccm/locks.h"
#include "common/trace_log.h"

// The message line of the traces.
#define QX_MSG_FMT "msg(%p,msgID=%lu,addr=%p,len=%d,pos=%d,flag=%.8X)"
#define QX_MSG_ARGS(m)                                                                    \
  static_cast<void*>(m), (m)->ID, static_cast<void*>((m)->msg_start), (m)->len, (m)->pos, \
      static_cast<unsigned>((m)->flag)

ccm_msg_t* ccm_msg_alloc(ccm_context_t* ccm, ccm_error_t* ccmerr) {
  return ccm_msg_alloc_huge(ccm, CCM_MSG_POOL_SIZE, ccmerr);
}

namespace {

// A message whose data area holds 2 * size bytes: from the pool for the pool size, else
// allocated anew. `fn` names the caller in the traces.
ccm_msg_t* make_message(ccm_context_t* ccm, int size, ccm_error_t* ccmerr, const char* fn) {
  ccm_msg_t* msg = nullptr;
  if (size == CCM_MSG_POOL_SIZE) {
    ccm_queue_guard guard(ccm, ccm_lock_trace::kQuiet);
    msg = ccm_queue_pop(ccm->msg_freeq);
    if (msg != nullptr) ccm->nof_freemsg--;
  }
  if (msg == nullptr) {
    // The allocation (and the zero fill of a large data area) runs outside the queue lock,
    // so that the other thread never spins while memory is being handed out.
    size_t total = sizeof(ccm_msg_t) + 2 * static_cast<size_t>(size);
    msg = static_cast<ccm_msg_t*>(ccm_alloc(total, "CCMMSG"));
    if (msg == nullptr) {
      ccm_set_alloc_error(ccmerr, "CCMMSG", __FILE__, __LINE__);
      QX_TRACE("%s <-- (malloc error, message queue)", fn);
      return nullptr;
    }
  }
  // Clear the record only: a reused pool message keeps its old data bytes.
  std::memset(static_cast<void*>(msg), 0, sizeof(ccm_msg_t));
  std::memcpy(msg->eyec, "##CCM#MESSAGE###", sizeof msg->eyec);
  msg->size = size;
  msg->buffer1 = msg->buffer;
  msg->buffer2 = msg->buffer1 + size;
  msg->msg_start = msg->buffer1 + std::min(CCM_MSG_HEADROOM, 2 * size);
  {
    ccm_queue_guard guard(ccm, ccm_lock_trace::kQuiet);
    msg->ID = static_cast<unsigned long>(ccm->unique_msg_ID++);
    ccm_queue_push(ccm->msgq_inuse, msg);
  }
  QX_TRACE("%s <-- (" QX_MSG_FMT ")", fn, QX_MSG_ARGS(msg));
  return msg;
}

}  // namespace

ccm_msg_t* ccm_msg_alloc_huge(ccm_context_t* ccm, int size, ccm_error_t* ccmerr) {
  QX_TRACE("%s(size=%d) -->", __func__, size);
  // The data area must hold the head room; 2 * size must not overflow an int.
  if (size < CCM_MSG_HEADROOM || size > (1 << 29)) {
    ccm_set_error(ccmerr, CCM_MSGNR_ALLOC, "%s/%s(%d)|size=%d", "CCMMSG", __FILE__, __LINE__, size);
    QX_TRACE("%s <-- (invalid size)", __func__);
    return nullptr;
  }
  return make_message(ccm, size, ccmerr, __func__);
}

ccm_msg_t* ccm_msg_alloc_frame(ccm_context_t* ccm, int len, ccm_error_t* ccmerr) {
  QX_TRACE("%s(len=%d) -->", __func__, len);
  if (len < 1 || len > (1 << 30)) {
    ccm_set_error(ccmerr, CCM_MSGNR_ALLOC, "%s/%s(%d)|len=%d", "CCMMSG", __FILE__, __LINE__, len);
    QX_TRACE("%s <-- (invalid size)", __func__);
    return nullptr;
  }
  // A received frame needs no head room. Pool messages are kept for the frames that fill
  // more than half of their area; a small frame never holds a 64 KiB area.
  const bool pooled = len > CCM_MSG_POOL_SIZE && len <= 2 * CCM_MSG_POOL_SIZE;
  ccm_msg_t* msg = make_message(ccm, pooled ? CCM_MSG_POOL_SIZE : (len + 1) / 2, ccmerr, __func__);
  if (msg != nullptr) msg->msg_start = msg->buffer1;
  return msg;
}

int ccm_msg_free(ccm_context_t* ccm, ccm_msg_t* ccmmsg) {
  QX_TRACE("%s(" QX_MSG_FMT ") -->", __func__, QX_MSG_ARGS(ccmmsg));
  const char* how = nullptr;
  bool release = true;
  {
    ccm_queue_guard guard(ccm, ccm_lock_trace::kQuiet);
    ccm_queue_unlink(ccm->msgq_inuse, ccmmsg);  // a received message stands in no queue
    ccmmsg->nxt = nullptr;
    if (ccmmsg->size != CCM_MSG_POOL_SIZE) {
      how = "huge message is freed";
    } else if (ccm->nof_freemsg >= CCM_MSG_POOL_MAX) {
      how = "normal message freed";
    } else {
      ccm_queue_push(ccm->msg_freeq, ccmmsg);
      ccm->nof_freemsg++;
      how = "put back to freeq";
      release = false;
    }
  }
  // Memory goes back to the system outside the queue lock; the message is in no queue now.
  if (release) ccm_free(ccmmsg);
  QX_TRACE("%s <-- (%s)", __func__, how);
  return 0;
}

void ccm_free_queue(ccm_context_t* ccm, ccm_msg_queue_t& q) {
  ccm_msg_t* next = nullptr;
  for (ccm_msg_t* m = q.head; m != nullptr; m = next) {
    next = m->nxt;
    ccm_msg_free(ccm, m);
  }
  q.head = q.tail = nullptr;
}

int ccm_channel_emptying_msg_queue(ccm_context_t* ccm, ccm_channel_t* ccmch) {
  QX_TRACE("%s(channel=%p) -->", __func__, static_cast<void*>(ccmch));
  ccm_free_queue(ccm, ccmch->sendq);
  ccm_free_queue(ccm, ccmch->recvq);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccm_msg_emptying_queues(ccm_context_t* ccm) {
  QX_TRACE("%s() -->", __func__);
  QX_TRACE("%s:      empty global RECV queue", __func__);
  // Detach each list under the lock, then free its messages one by one.
  ccm_msg_queue_t recvq{}, dispatch{};
  {
    ccm_queue_guard guard(ccm, ccm_lock_trace::kQuiet);
    recvq = ccm->recvq;
    dispatch = ccm->msgq_2dispatch;
    ccm->recvq = {};
    ccm->msgq_2dispatch = {};
  }
  ccm_free_queue(ccm, recvq);
  for (;;) {
    ccm_msg_t* m = nullptr;
    {
      ccm_queue_guard guard(ccm, ccm_lock_trace::kQuiet);
      m = ccm->msgq_inuse.head;
    }
    if (m == nullptr) break;
    ccm_msg_free(ccm, m);
  }
  ccm_free_queue(ccm, dispatch);
  for (ccm_channel_t* ch = ccm->channelq.head; ch != nullptr; ch = ch->nxt) {
    QX_TRACE("%s:      empty RECV/SENDQ queue of channel(%p,s=%d/chID=%d,%s,flag=%.8X)", __func__,
             static_cast<void*>(ch), ch->s, ch->ID, ch->name,
             static_cast<unsigned>(ccm_flag_get(ch->flag)));
    if (ccm_flag_get(ch->flag) & CCM_CHFLAG_DELETED) continue;
    ccm_msg_queue_t sendq{}, chrecvq{};
    {
      ccmch_queue_guard guard(ccm, ch, ccm_lock_trace::kQuiet);
      ch->recv_pos = 0;
      sendq = ch->sendq;
      chrecvq = ch->recvq;
      ch->sendq = {};
      ch->recvq = {};
    }
    ccm_free_queue(ccm, sendq);
    ccm_free_queue(ccm, chrecvq);
  }
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}
