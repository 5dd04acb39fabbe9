// Outgoing connections and the socket options of channels.
#include "ccm/connect.h"

#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "ccm/address.h"
#include "ccm/internal.h"
#include "common/trace_log.h"

namespace {

inline constexpr int CCM_HOST_SIZE = 128;  // ccm_channel_t::host
inline constexpr int CCM_LINGER_SECS = 60;

void trace_channel_entry(const char* fn, const ccm_channel_t* ch) {
  if (!trc_level()) return;
  int flag = ccm_flag_get(ch->flag);
  __trace_text(0,
               "%s(channel(name=%-20s,chID=%d,s=%d,type=%.8X,flag=%.8X,%s,host=%s(%s),port=%d,"
               "sendq=%p)) -->",
               fn, ch->name, ch->ID, ch->s, static_cast<unsigned>(ch->type),
               static_cast<unsigned>(flag), (flag & CCM_CHFLAG_DELETED) ? "deleted" : "active",
               ch->host, ch->addr, ch->port, static_cast<void*>(ch->sendq.head));
}

socklen_t sockaddr_length(const sockaddr_in6& addr) {
  return addr.sin6_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
}

}  // namespace

int ccm_set_nonblocking(ccm_context_t* /*ccm*/, ccm_channel_t* ccmch, ccm_error_t* ccmerr) {
  trace_channel_entry(__func__, ccmch);
  int on = 1;
  if (ioctl(ccmch->s, FIONBIO, &on) != 0) {
    int err = errno;
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "ioctl(...,FIONBIO)|%d-%s", err, strerror(err));
    QX_TRACE("%s <-- (ioctl error, dontblock)", __func__);
    return -1;
  }
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccm_set_linger(ccm_context_t* /*ccm*/, ccm_channel_t* ccmch, int onoff, int ptime,
                   ccm_error_t* ccmerr) {
  trace_channel_entry(__func__, ccmch);
  linger lg{};
  lg.l_onoff = onoff;
  lg.l_linger = ptime;
  if (setsockopt(ccmch->s, SOL_SOCKET, SO_LINGER, &lg, sizeof lg) != 0) {
    int err = errno;
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "setsockopt(SO_LINGER,s=%d,ID=%d)|%d-%s", ccmch->s,
                  ccmch->ID, err, strerror(err));
    QX_TRACE("%s <-- (setting linger error)", __func__);
    return -1;
  }
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccm_connect(ccm_context_t* ccm, const char* host, int port, int type,
                ccm_connect_user_context_t* cuc, int connwait, ccm_error_t* ccmerr) {
  QX_TRACE("%s(connect=%s:%d,type=%d) -->", __func__, host ? host : "(null)", port, type);
  QX_TRACE("%s:      sizeof sockaddr     = %d", __func__, static_cast<int>(sizeof(sockaddr)));
  QX_TRACE("%s:      sizeof sockaddr_in  = %d", __func__, static_cast<int>(sizeof(sockaddr_in)));
  QX_TRACE("%s:      sizeof sockaddr_in6 = %d", __func__, static_cast<int>(sizeof(sockaddr_in6)));

  // Arguments that no channel could carry are refused before anything is made; the connect
  // user context goes with the refusal, as it would with a channel.
  const char* refused = nullptr;
  if (port < 1 || port > 65535) {
    refused = "port";
  } else if (host == nullptr || strnlen(host, CCM_HOST_SIZE) >= CCM_HOST_SIZE) {
    refused = "host";
  }
  if (refused != nullptr) {
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "connect()|%d(%s),%s(%d)|", EINVAL, strerror(EINVAL),
                  refused, port);
    ccm_free(cuc);
    QX_TRACE("%s <-- (invalid %s)", __func__, refused);
    return -1;
  }

  sockaddr_in6 addr{};
  if (ccm_hostname2address(host, CCM_PREFER_IPV4, &addr, ccmerr) != 0) {
    ccm_free(cuc);
    QX_TRACE("%s <-- (error resolve hostname)", __func__);
    return -1;
  }
  ccm_channel_t* ch = nullptr;
  if (ccm_channel_new_entry(ccm, &ch, ccmerr) != 0) {
    ccm_free(cuc);
    QX_TRACE("%s <-- (channel entry create error)", __func__);
    return -1;
  }
  ch->type = type;
  ch->port = port;
  ccm_copy_text(ch->host, sizeof ch->host, host);
  ccm_address2string(&addr, ch->addr, sizeof ch->addr);
  ch->cuc = cuc;
  __log(CCM_MSGNR_CONNECT_LOG, "%s:%d(ID=%d)", host, port, ch->ID);

  // From here on every failure destroys the channel, which closes its socket, frees the
  // connect user context and puts a close notice on the receive queue.
  auto fail = [&](const char* why) {
    ccm_error_t own{};
    ccm_channel_destroy(ccm, ch, &own);
    QX_TRACE("%s <-- (%s)", "ccm_connect", why);
    return -1;
  };

  ch->s = socket(addr.sin6_family, SOCK_STREAM, 0);
  int err = errno;
  QX_TRACE("%s:      socket(...) <-- s=%d", __func__, ch->s);
  if (ch->s < 0) {
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "socket()|%d(%s),S(%d(ID=%d))|", err, strerror(err),
                  ch->s, ch->ID);
    return fail("socket() error");
  }
  if (ccm_set_nonblocking(ccm, ch, ccmerr) != 0) return fail("error set non-blocking mode");
  if (ccm_set_linger(ccm, ch, 1, CCM_LINGER_SECS, ccmerr) != 0) return fail("error set linger");

  sockaddr_in6 local{};
  local.sin6_family = addr.sin6_family;
  QX_TRACE("%s:      bind(%d,ID=%d) -->", __func__, ch->s, ch->ID);
  int rslt = bind(ch->s, reinterpret_cast<sockaddr*>(&local), sockaddr_length(local));
  err = rslt == 0 ? 0 : errno;
  QX_TRACE("%s:      bind(...) <-- rslt=%d,errno=%d-%s", __func__, rslt, err, strerror(err));
  if (rslt != 0) {
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "bind()|%d(%s),S(%d(ID=%d))|", err, strerror(err),
                  ch->s, ch->ID);
    return fail("bind() error");
  }

  // sin_port and sin6_port stand at the same offset.
  addr.sin6_port = htons(static_cast<uint16_t>(port));
  QX_TRACE("%s:      connect(%d(ID=%d), %s:%d) -->", __func__, ch->s, ch->ID, ch->addr, port);
  rslt = connect(ch->s, reinterpret_cast<sockaddr*>(&addr), sockaddr_length(addr));
  err = rslt == 0 ? 0 : errno;
  QX_TRACE("%s:      connect(...) <-- rslt=%d,errno=%d-%s", __func__, rslt, err, strerror(err));
  if (rslt != 0 && err != EINPROGRESS) {
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "connect()|%d(%s),S(%d(ID=%d))|", err, strerror(err),
                  ch->s, ch->ID);
    return fail("connect() error");
  }

  int id = ch->ID;
  ch->connect_timeout_secs = connwait;
  ch->connect_timeout = time(nullptr) + connwait;
  ccm_flag_set(ch->flag, CCM_CHFLAG_CONNECTING);
  // The deadline and bit 0x08 are set before the channel is entered, so that the network
  // thread never sees them change; nothing there reads them.
  ccm_channel_chain(ccm, ch);
  ccm_wakeup_network(ccm);
  QX_TRACE("%s <-- (ID=%d)", __func__, id);
  return id;
}

int ccm_is_cp_connecting(ccm_context_t* ccm, const char* host, int port, ccm_error_t* ccmerr) {
  QX_TRACE("%s(host=%s,port=%d) -->", __func__, host ? host : "(null)", port);
  sockaddr_in6 addr{};
  if (ccm_hostname2address(host, CCM_PREFER_IPV4, &addr, ccmerr) != 0) {
    QX_TRACE("%s <-- (error resolve hostname)", __func__);
    return -1;
  }
  char text[CCM_ADDRSTR_SIZE];
  ccm_address2string(&addr, text, sizeof text);
  QX_TRACE("%s:      host(%s) ==> addr(%s)", __func__, host, text);

  auto matches = [&](const ccm_channel_t* ch) {
    return (ccm_flag_get(ch->flag) & CCM_CHFLAG_DELETED) == 0 && ch->type == CCM_CHTYPE_CP &&
           ch->port == port && std::strncmp(ch->addr, text, sizeof ch->addr) == 0;
  };
  bool found = false;
  {
    ccm_spin_guard guard(ccm->channel_lock);
    for (ccm_channel_t* ch = ccm->channelq.head; ch != nullptr && !found; ch = ch->nxt) {
      QX_TRACE("%s:         --> type=%d,%s:%d", __func__, ch->type, ch->addr, ch->port);
      found = matches(ch);
    }
    for (ccm_channel_t* ch = ccm->channel_newq.head; ch != nullptr && !found; ch = ch->nxt) {
      QX_TRACE("%s:         --> (newq)type=%d,%s:%d", __func__, ch->type, ch->addr, ch->port);
      found = matches(ch);
    }
  }
  if (found) {
    QX_TRACE("%s <-- (already connecting to that CP)", __func__);
    return 1;
  }
  QX_TRACE("%s <-- (CP not found in channel list)", __func__);
  return 0;
}
