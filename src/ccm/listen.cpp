// Listening sockets and the acceptance of connections on them.
#include "ccm/listen.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "ccm/address.h"
#include "ccm/connect.h"
#include "ccm/internal.h"
#include "ccm/ipc.h"
#include "ccm/ipc_dispatch.h"
#include "ccm/message.h"
#include "common/trace_log.h"

namespace {

constexpr char kListenName[] = "*LISTEN";
constexpr long kShortagePauseNs = 50 * 1000 * 1000;

void trace_channel_exit(const char* fn, const char* what, const ccm_channel_t* ch) {
  if (!trc_level()) return;
  const int flag = ccm_flag_get(ch->flag);
  __trace_text(0,
               "%s <-- (%schannel(name=%-20s,chID=%d,s=%d,type=%.8X,flag=%.8X,%s,host=%s(%s),"
               "port=%d,sendq=%p))",
               fn, what, ch->name, ch->ID, ch->s, static_cast<unsigned>(ch->type),
               static_cast<unsigned>(flag), (flag & CCM_CHFLAG_DELETED) ? "deleted" : "active",
               ch->host, ch->addr, ch->port, static_cast<void*>(ch->sendq.head));
}

// The port of a socket address of either family, in host byte order.
int port_of(const sockaddr_in6& a) {
  // sin_port and sin6_port stand at the same offset.
  return ntohs(a.sin6_port);
}

// Releases an accepted channel that was never announced: no log and no close notice, since
// the processing thread never heard of it; its socket is closed with it.
void discard_unannounced(ccm_context_t* ccm, ccm_channel_t* ch) {
  ch->type = CCM_CHTYPE_SILENT;
  ccm_error_t own{};
  ccm_channel_destroy(ccm, ch, &own);
  ccm_log_error(own);
}

// A descriptor held in reserve for accepting: with none left to the process (EMFILE) or the
// system (ENFILE), the waiting connection cannot be accepted and stays ready, so the network
// thread would be woken for it again and again. The reserve is given up for a moment to take
// that connection and close it at once (its client sees the close and may try again later),
// then taken again. Opened with the first listening socket, kept for the life of the process.
std::atomic<int> spare_descriptor{-1};

void reserve_spare_descriptor() {
  if (spare_descriptor.load() >= 0) return;
  const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  int none = -1;
  if (fd >= 0 && !spare_descriptor.compare_exchange_strong(none, fd)) close(fd);
}

// After accept failed for want of descriptors or memory: turns the waiting connection away
// through the reserve. When that is not possible either, the network thread pauses briefly,
// so that a listener that stays ready costs little until descriptors are free again.
void turn_away_after_shortage(int listener) {
  const int spare = spare_descriptor.exchange(-1);
  bool turned_away = false;
  if (spare >= 0) {
    close(spare);
    const int s = accept(listener, nullptr, nullptr);
    if (s >= 0) {
      close(s);
      turned_away = true;
    }
    reserve_spare_descriptor();
  }
  if (!turned_away) {
    timespec pause{0, kShortagePauseNs};
    nanosleep(&pause, nullptr);
  }
}

constexpr const char* kListenFn = "ccm_create_listen";

// The address may be reused at once; an IPv6 socket takes IPv4 clients too. Failures are
// traced and otherwise ignored: the socket still listens.
void set_listen_options(int s, int family) {
  const int on = 1;
  QX_TRACE("%s:         setsockopt(s=%d,SOL_SOCKET,SO_REUSEADDR)", kListenFn, s);
  int rslt = setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  QX_TRACE("%s:         setsockopt() <-- rslt=%d", kListenFn, rslt);
  if (family == AF_INET6) {
    const int off = 0;
    QX_TRACE("%s:         setsockopt(s=%d,SOL_SOCKET,SO_REUSEADDR)", kListenFn, s);
    rslt = setsockopt(s, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    QX_TRACE("%s:         setsockopt() <-- rslt=%d", kListenFn, rslt);
  }
}

// The listening socket of ccm_create_listen for `addr` (family set) and `port`: made,
// reusable, bound, listening and non-blocking. The socket, or -1 with `ccmerr` filled and the
// socket closed again; traced as steps of ccm_create_listen, with its exit line on failure.
int open_listen_socket(sockaddr_in6 addr, int port, int listen_count, ccm_error_t* ccmerr) {
  const int family = addr.sin6_family;
  QX_TRACE("%s:         socket(family=%d) -->", kListenFn, family);
  const int s = socket(family, SOCK_STREAM, 0);
  int err = errno;
  QX_TRACE("%s:         socket(...) <-- s=%d", kListenFn, s);
  if (s < 0) {
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "socket(family=%d,addr=)|%d(%s)", family, err,
                  std::strerror(err));
    QX_TRACE("%s <-- (socket() error)", kListenFn);
    return -1;
  }
  // From here on every failure closes the socket.
  auto fail = [&](const char* why) {
    close(s);
    QX_TRACE("%s <-- (%s)", kListenFn, why);
    return -1;
  };

  set_listen_options(s, family);

  addr.sin6_port = htons(static_cast<uint16_t>(port));
  char text[CCM_ADDRSTR_SIZE];
  ccm_address2string(&addr, text, sizeof text);
  QX_TRACE("%s:         bind(%d,family=%d,addr=%s,port=%d) -->", kListenFn, s, family, text, port);
  // The length of the larger address serves either family.
  if (bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    err = errno;
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "bind(%s:%d)|%d(%s)", text, port, err,
                  std::strerror(err));
    return fail("bind() error");
  }

  QX_TRACE("%s:         listen(socket=%d,count=%d) -->", kListenFn, s, listen_count);
  errno = 0;
  const int rslt = listen(s, listen_count);
  err = errno;
  QX_TRACE("%s:         listen(...) <-- rslt=%d,errno=%d(%s)", kListenFn, rslt, err,
           std::strerror(err));
  if (rslt != 0) {
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "listen()|%d(%s)", err, std::strerror(err));
    return fail("listen() error");
  }

  err = ccm_fd_set_nonblocking(s, kListenFn);
  if (err != 0) {
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "listen()|%d(%s)", err, std::strerror(err));
    return fail("ioctl error, dontblock");
  }

  return s;
}

// The "CHANNEL_ACCEPT" notice of channel `id`; null when no message could be had, which is
// logged and put in `ccmerr`.
ccm_msg_t* accept_notice(ccm_context_t* ccm, int id, ccm_error_t* ccmerr) {
  ccm_error_t alloc_err{};
  ccm_msg_t* msg = ccm_msg_alloc(ccm, &alloc_err);
  if (msg == nullptr) {
    ccm_log_error(alloc_err);
    ccm_set_error(ccmerr, alloc_err.msgnr, "%s", alloc_err.msginsert);
    return nullptr;
  }
  unsigned char* p = msg->msg_start;
  std::memset(p, 0, sizeof(ipcmsg_channel_accept_t));
  std::memcpy(p + offsetof(ipcmsg_channel_accept_t, head), IPCMSG_CHANNEL_ACCEPT,
              sizeof IPCMSG_CHANNEL_ACCEPT);
  std::memcpy(p + offsetof(ipcmsg_channel_accept_t, ID), &id, sizeof id);
  msg->len = static_cast<int>(sizeof(ipcmsg_channel_accept_t));
  return msg;
}

}  // namespace

int ccm_create_listen(ccm_context_t* ccm, const char* pbind_addr, int port, int listen_count,
                      ccm_error_t* ccmerr) {
  QX_TRACE("%s(bind_addr=%s,port=%d,listen=%d) -->", __func__, pbind_addr ? pbind_addr : "", port,
           listen_count);
  // A port that 16 bits cannot hold would silently listen on another one.
  if (port < 0 || port > 65535) {
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "bind(%s:%d)|%d(%s)", pbind_addr ? pbind_addr : "",
                  port, EINVAL, std::strerror(EINVAL));
    QX_TRACE("%s <-- (invalid port)", __func__);
    return -1;
  }
  const bool ipv6 = (ccm_flag_get(ccm->flag) & CCM_FLAG_IPV6) != 0;
  char bind_addr[CCM_HOSTNAME_SIZE];
  ccm_copy_text(bind_addr, sizeof bind_addr, pbind_addr ? pbind_addr : "");
  if (std::strcmp(bind_addr, "*LOCAL") == 0) {
    ccm_copy_text(bind_addr, sizeof bind_addr, ipv6 ? "::1" : "127.0.0.1");
  }
  sockaddr_in6 addr{};
  addr.sin6_family = ipv6 ? AF_INET6 : AF_INET;
  if (bind_addr[0] != '\0') {
    QX_TRACE("%s:      using bindaddr = %s", __func__, bind_addr);
    if (ccm_hostname2address(bind_addr, CCM_PREFER_IPV4, &addr, ccmerr) != 0) {
      QX_TRACE("%s <-- (ccm_hostname2address error)", __func__);
      return -1;
    }
  }
  const int s = open_listen_socket(addr, port, listen_count, ccmerr);
  if (s < 0) return -1;
  ccm_channel_t* ch = nullptr;
  if (ccm_channel_new_entry(ccm, &ch, ccmerr) != 0) {
    close(s);
    QX_TRACE("%s <-- (%s)", __func__, "channel entry create error");
    return -1;
  }
  reserve_spare_descriptor();
  ch->s = s;
  ch->type = CCM_CHTYPE_LISTEN;
  ccm_copy_text(ch->name, sizeof ch->name, kListenName);
  trace_channel_exit(__func__, "OK,", ch);
  ccm_channel_chain(ccm, ch);
  return 0;
}

int ccm_signal_on_listen(ccm_context_t* ccm, ccm_channel_t* ccmch, ccm_error_t* ccmerr) {
  QX_TRACE("%s(channel(%p,s=%d/chID=%d,%s,flag=%.8X)) -->", __func__, static_cast<void*>(ccmch),
           ccmch->s, ccmch->ID, ccmch->name, static_cast<unsigned>(ccm_flag_get(ccmch->flag)));
  sockaddr_in6 peer{};
  socklen_t peer_len = sizeof peer;
  QX_TRACE("%s:         accept(...) -->", __func__);
  const int s = accept(ccmch->s, reinterpret_cast<sockaddr*>(&peer), &peer_len);
  const int err = errno;
  QX_TRACE("%s:         accept(...) <--", __func__);
  if (s < 0) {
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "accept(...,FIONBIO)|%d-%s", err, std::strerror(err));
    if (err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM) {
      turn_away_after_shortage(ccmch->s);
    }
    QX_TRACE("%s <-- (accept error)", __func__);
    return -1;
  }

  ccm_channel_t* ch = nullptr;
  if (ccm_channel_new_entry(ccm, &ch, ccmerr) != 0) {
    close(s);
    QX_TRACE("%s <-- (unable to allocate new socket entry for LISTEN)", __func__);
    return -1;
  }
  ccm_address2string(&peer, ch->addr, sizeof ch->addr);
  ch->s = s;
  ch->port = port_of(peer);

  if (ccm_set_nonblocking(ccm, ch, ccmerr) != 0) {
    discard_unannounced(ccm, ch);
    QX_TRACE("%s <-- (error set non-blocking mode)", __func__);
    return -1;
  }
  // No linger time is set: a close must never wait for a partner that does not read
  // (ccm_channel_destroy).

  // Without the notice the processing thread would never learn of the connection: it could
  // neither address it nor tell apart what arrives on it. Such a connection is closed again
  // at once (the partner sees the close and may try again) and the shortage is logged.
  ccm_msg_t* msg = accept_notice(ccm, ch->ID, ccmerr);
  if (msg == nullptr) {
    discard_unannounced(ccm, ch);
    QX_TRACE("%s <-- (no message for the accept notice, connection closed)", __func__);
    return -1;
  }

  trace_channel_exit(__func__, "new channel created: ", ch);
  ccm_channel_chain(ccm, ch);
  send_IPC_internal(ccm, msg);
  return 0;
}
