// Dispatch of received internal messages, the IPC logger and descriptor passing.
#include "ccm/ipc_dispatch.h"

#include <sys/socket.h>

#include <atomic>
#include <cstring>

#include "ccm/internal.h"
#include "ccm/receive.h"
#include "ccm/send.h"
#include "common/trace_log.h"

const sr_function_t ipc_function_list[] = {
    {"CHANNEL_CLOSE", process_ipc_channel_close},
    {"", process_ipc_unknown},
};

const char control_data_type_text[8][16] = {
    "DATA", "FILE_OPEN", "FILE_CLOSE", "SYNC", "CMDNOP", "RESTART INFO", "CREATE DIR", "",
};

namespace {

// The application context of the last dispatch, for ipc_logger.
std::atomic<void*> remembered_pcx{nullptr};

// The message's type name, terminated, for traces and logs.
struct type_text {
  char text[CCM_IPC_TYPE_SIZE + 1] = {};
  explicit type_text(const ccm_msg_t* m) {
    if (m->len > 0) {
      const size_t n = m->len < CCM_IPC_TYPE_SIZE ? static_cast<size_t>(m->len) : CCM_IPC_TYPE_SIZE;
      std::memcpy(text, m->msg_start, n);
    }
  }
};

int log_and_refuse(const char* fn, const char* what, ccm_msg_t* ccmmsg) {
  QX_TRACE("%s() -->", fn);
  __log(-1, "IPC message (%s) is %s", type_text(ccmmsg).text, what);
  __log(CCM_MSGNR_IPC_SOURCE, "%s|", ccmmsg->addr.src_name);
  QX_TRACE("%s <-- (ERROR)", fn);
  return -1;
}

}  // namespace

int process_IPC_message(void* pcx, ccm_context_t* /*ccm*/, ccm_msg_t* ccmmsg) {
  if (trc_level()) {
    __trace_text(0, "%s(%s,msg(%p,msgID=%lu,addr=%p,len=%d,pos=%d,flag=%.8X)) -->", __func__,
                 type_text(ccmmsg).text, static_cast<void*>(ccmmsg), ccmmsg->ID,
                 static_cast<void*>(ccmmsg->msg_start), ccmmsg->len, ccmmsg->pos,
                 static_cast<unsigned>(ccmmsg->flag));
    trcdump(ccmmsg->msg_start, ccmmsg->len, "IPC message to process ");
  }
  remembered_pcx.store(pcx);
  const sr_function_t* entry = ipc_function_list;
  // All 16 bytes of the type field take part; a message too short to hold them is unknown.
  const bool whole_type = ccmmsg->len >= CCM_IPC_TYPE_SIZE;
  for (; entry->name[0] != '\0'; ++entry) {
    if (whole_type && std::memcmp(entry->name, ccmmsg->msg_start, CCM_IPC_TYPE_SIZE) == 0) break;
  }
  const int rslt = entry->function_addr(pcx, ccmmsg);
  QX_TRACE("%s <-- (function rslt=%d)", __func__, rslt);
  return rslt;
}

int process_ipc_channel_close(void* /*pcx*/, ccm_msg_t* /*ccmmsg*/) {
  return 0;
}

int process_ipc_unknown(void* /*pcx*/, ccm_msg_t* ccmmsg) {
  return log_and_refuse(__func__, "not known", ccmmsg);
}

int process_ipc_not_implemented(void* /*pcx*/, ccm_msg_t* ccmmsg) {
  return log_and_refuse(__func__, "not implemented", ccmmsg);
}

int ipc_logger(int msgnr, const char* msginsert) {
  const auto* app = static_cast<const ccm_app_context_head*>(remembered_pcx.load());
  auto* ccm = app != nullptr ? static_cast<ccm_context_t*>(app->ccm) : nullptr;
  if (ccm == nullptr) return -1;
  ccm_error_t err{};
  ccm_msg_t* msg = ccm_msg_alloc(ccm, &err);
  if (msg == nullptr) return -1;
  unsigned char* p = msg->msg_start;
  std::memset(p, 0, sizeof(ipcmsg_logging_t));
  std::memcpy(p + offsetof(ipcmsg_logging_t, head), IPCMSG_LOGGING, sizeof IPCMSG_LOGGING);
  std::memcpy(p + offsetof(ipcmsg_logging_t, msgnr), &msgnr, sizeof msgnr);
  ccm_copy_text(reinterpret_cast<char*>(p + offsetof(ipcmsg_logging_t, msginsert)),
                sizeof(ipcmsg_logging_t::msginsert), msginsert);
  msg->len = static_cast<int>(sizeof(ipcmsg_logging_t));
  ccm_setaddr(msg, 0, 0, IPC_AGENT_DESTINATION, "", 0);
  if (send_IPC_message(ccm, msg) != 0) {
    ccm_msg_free(ccm, msg);
    return -1;
  }
  return 0;
}

int send_file_descriptor(ccm_context_t* ccm, const char* destination, int fd, int listenerID,
                         int agentID, const char* name) {
  if (destination == nullptr) destination = "";
  QX_TRACE("%s(passing fd=%d to partner %s) -->", __func__, fd, destination);
  __log(CCM_MSGNR_PASSFD, "%d/ID=%d", fd, listenerID);
  ccm_error_t err{};
  ccm_msg_t* msg = ccm_msg_alloc(ccm, &err);
  if (msg == nullptr) {
    ccm_log_error(err);
    QX_TRACE("%s <-- (no message, %d|%s)", __func__, err.msgnr, err.msginsert);
    return -1;
  }
  unsigned char* p = msg->msg_start;
  std::memset(p, 0, sizeof(ipcmsg_passfd_t));
  std::memcpy(p + offsetof(ipcmsg_passfd_t, head), IPCMSG_PASSFD, sizeof IPCMSG_PASSFD);
  std::memcpy(p + offsetof(ipcmsg_passfd_t, fd), &fd, sizeof fd);
  std::memcpy(p + offsetof(ipcmsg_passfd_t, agentID), &agentID, sizeof agentID);
  std::memcpy(p + offsetof(ipcmsg_passfd_t, listenerID), &listenerID, sizeof listenerID);
  ccm_copy_text(reinterpret_cast<char*>(p + offsetof(ipcmsg_passfd_t, name)),
                sizeof(ipcmsg_passfd_t::name), name);
  msg->len = static_cast<int>(sizeof(ipcmsg_passfd_t));

  // One SCM_RIGHTS control message carrying the descriptor, laid out as this platform's
  // cmsghdr requires (built in an aligned area, then copied into the message).
  union {
    cmsghdr align;
    unsigned char bytes[CMSG_SPACE(sizeof(int))];
  } control{};
  msghdr mh{};
  mh.msg_control = control.bytes;
  mh.msg_controllen = sizeof control.bytes;
  cmsghdr* c = CMSG_FIRSTHDR(&mh);
  c->cmsg_len = CMSG_LEN(sizeof(int));
  c->cmsg_level = SOL_SOCKET;
  c->cmsg_type = SCM_RIGHTS;
  std::memcpy(CMSG_DATA(c), &fd, sizeof fd);
  static_assert(sizeof control.bytes <= sizeof(ccm_msg_t::control_data));
  std::memcpy(msg->control_data, control.bytes, sizeof control.bytes);
  msg->control_len = sizeof control.bytes;

  ccm_setaddr(msg, 0, 0, destination, "", 0);
  if (send_IPC_message(ccm, msg) != 0) {
    ccm_msg_free(ccm, msg);
    QX_TRACE("%s <-- (not sent)", __func__);
    return -1;
  }
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}
