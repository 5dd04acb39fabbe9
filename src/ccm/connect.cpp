// Outgoing connections and the socket options of channels.
#include "ccm/connect.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "ccm/address.h"
#include "ccm/internal.h"
#include "common/trace_log.h"

namespace {

inline constexpr int CCM_HOST_SIZE = 128;  // ccm_channel_t::host

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

// Failures of one address after which the connection moves on to the next address: the
// partner refused, or that address (or its whole family) cannot be reached from here.
bool try_next_after(int err) {
  switch (err) {
    case ECONNREFUSED:
    case ENETUNREACH:
    case EHOSTUNREACH:
    case ENETDOWN:
    case EHOSTDOWN:
    case EADDRNOTAVAIL:
    case EAFNOSUPPORT:
      return true;
    default:
      return false;
  }
}

// Makes the channel's socket for `addr` (non-blocking, bound to the wildcard
// address of its family) and starts the connection: null when it came about or is under way;
// else what failed, with `ccmerr` filled and `*failed_errno` set to the error of a failed
// system call (0 for the others). A socket made stays in `ch->s`.
const char* start_connection(ccm_context_t* ccm, ccm_channel_t* ch, sockaddr_in6 addr,
                             int* failed_errno, ccm_error_t* ccmerr) {
  ccm_address2string(&addr, ch->addr, sizeof ch->addr);
  *failed_errno = 0;
  ch->s = socket(addr.sin6_family, SOCK_STREAM, 0);
  int err = errno;
  QX_TRACE("%s:      socket(...) <-- s=%d", "ccm_connect", ch->s);
  if (ch->s < 0) {
    *failed_errno = err;
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "socket()|%d(%s),S(%d(ID=%d))|", err, strerror(err),
                  ch->s, ch->ID);
    return "socket() error";
  }
  if (ccm_set_nonblocking(ccm, ch, ccmerr) != 0) return "error set non-blocking mode";
  // No linger time is set: a close must never wait for a partner that does not read
  // (ccm_channel_destroy).

  sockaddr_in6 local{};
  local.sin6_family = addr.sin6_family;
  QX_TRACE("%s:      bind(%d,ID=%d) -->", "ccm_connect", ch->s, ch->ID);
  int rslt = bind(ch->s, reinterpret_cast<sockaddr*>(&local), sockaddr_length(local));
  err = rslt == 0 ? 0 : errno;
  QX_TRACE("%s:      bind(...) <-- rslt=%d,errno=%d-%s", "ccm_connect", rslt, err, strerror(err));
  if (rslt != 0) {
    *failed_errno = err;
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "bind()|%d(%s),S(%d(ID=%d))|", err, strerror(err),
                  ch->s, ch->ID);
    return "bind() error";
  }

  // sin_port and sin6_port stand at the same offset.
  addr.sin6_port = htons(static_cast<uint16_t>(ch->port));
  QX_TRACE("%s:      connect(%d(ID=%d), %s:%d) -->", "ccm_connect", ch->s, ch->ID, ch->addr,
           ch->port);
  rslt = connect(ch->s, reinterpret_cast<sockaddr*>(&addr), sockaddr_length(addr));
  err = rslt == 0 ? 0 : errno;
  QX_TRACE("%s:      connect(...) <-- rslt=%d,errno=%d-%s", "ccm_connect", rslt, err,
           strerror(err));
  if (rslt != 0 && err != EINPROGRESS) {
    *failed_errno = err;
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "connect()|%d(%s),S(%d(ID=%d))|", err, strerror(err),
                  ch->s, ch->ID);
    return "connect() error";
  }
  return nullptr;
}

// Starts the connection with the channel's next addresses, from `next_addr_pos` on, as long
// as each fails at once in a way that lets the next one be tried. Null once one is under
// way; else what failed last (its socket stays in `ch->s`, `ccmerr` tells why).
const char* start_with_next_address(ccm_context_t* ccm, ccm_channel_t* ch, ccm_error_t* ccmerr) {
  const char* why = "connect() error";
  while (ch->next_addr_pos < ch->next_addr_count) {
    if (ch->s >= 0) close(ch->s);
    ch->s = -1;
    int failed = 0;
    why = start_connection(ccm, ch, ch->next_addr[ch->next_addr_pos++], &failed, ccmerr);
    if (why == nullptr) return nullptr;
    if (!try_next_after(failed)) break;
  }
  ch->next_addr_pos = ch->next_addr_count;
  return why;
}

// What no channel could carry: "port" or "host", or null when both are fine.
const char* refused_argument(const char* host, int port) {
  if (port < 1 || port > 65535) return "port";
  if (host == nullptr || strnlen(host, CCM_HOST_SIZE) >= CCM_HOST_SIZE) return "host";
  return nullptr;
}

// Starts the connection at the first of `naddrs` addresses and keeps the others on the
// channel for later; when the first is refused at once, moves on to the next ones now. Null,
// or what failed (with `ccmerr` filled).
const char* start_at_first_usable(ccm_context_t* ccm, ccm_channel_t* ch, const sockaddr_in6* addrs,
                                  int naddrs, ccm_error_t* ccmerr) {
  int failed = 0;
  ch->s = -1;
  if (const char* why = start_connection(ccm, ch, addrs[0], &failed, ccmerr); why != nullptr) {
    if (naddrs == 1 || !try_next_after(failed)) return why;
  }
  for (int k = 1; k < naddrs; ++k)
    ch->next_addr[k - 1] = addrs[k];
  ch->next_addr_count = naddrs - 1;
  ch->next_addr_pos = 0;
  if (failed != 0) return start_with_next_address(ccm, ch, ccmerr);
  return nullptr;
}

// Gives a new outgoing channel its partner: type, port, host, the first address, the connect
// user context; the attempt is logged.
void describe_partner(ccm_channel_t* ch, const char* host, int port, int type, sockaddr_in6 first,
                      ccm_connect_user_context_t* cuc) {
  ch->type = type;
  ch->port = port;
  ccm_copy_text(ch->host, sizeof ch->host, host);
  ccm_address2string(&first, ch->addr, sizeof ch->addr);
  ch->cuc = cuc;
  __log(CCM_MSGNR_CONNECT_LOG, "%s:%d(ID=%d)", host, port, ch->ID);
}

}  // namespace

int ccm_set_nonblocking(ccm_context_t* /*ccm*/, ccm_channel_t* ccmch, ccm_error_t* ccmerr) {
  trace_channel_entry(__func__, ccmch);
  if (const int err = ccm_fd_set_nonblocking(ccmch->s); err != 0) {
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
  if (const char* refused = refused_argument(host, port); refused != nullptr) {
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "connect()|%d(%s),%s(%d)|", EINVAL, strerror(EINVAL),
                  refused, port);
    ccm_free(cuc);
    QX_TRACE("%s <-- (invalid %s)", __func__, refused);
    return -1;
  }

  // Every usable address of the partner, in the order of preference; the connection starts
  // with the first, and moves on to the next when one is refused or unreachable, here or
  // later in the network thread.
  sockaddr_in6 addrs[CCM_CONNECT_ADDRESSES_MAX];
  const int naddrs =
      ccm_hostname2addresses(host, CCM_PREFER_IPV4, addrs, CCM_CONNECT_ADDRESSES_MAX, ccmerr);
  if (naddrs < 1) {
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
  describe_partner(ch, host, port, type, addrs[0], cuc);

  // From here on every failure destroys the channel, which closes its socket, frees the
  // connect user context and puts a close notice on the receive queue.
  auto fail = [&](const char* why) {
    ccm_error_t own{};
    ccm_channel_destroy(ccm, ch, &own);
    ccm_log_error(own);
    QX_TRACE("%s <-- (%s)", "ccm_connect", why);
    return -1;
  };

  if (const char* why = start_at_first_usable(ccm, ch, addrs, naddrs, ccmerr); why != nullptr)
    return fail(why);

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

int ccm_connect_next_address(ccm_context_t* ccm, ccm_channel_t* ccmch) {
  if (ccmch->next_addr_pos >= ccmch->next_addr_count) return 0;
  int err = 0;
  socklen_t len = sizeof err;
  if (getsockopt(ccmch->s, SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = errno;
  if (err == 0 || !try_next_after(err)) {
    // The connection came about (or failed otherwise): no further address will be tried.
    ccmch->next_addr_pos = ccmch->next_addr_count;
    if (err == 0) return 0;
    // The error was taken from the socket; it is recorded here as reading would have.
    ccmch->msgnr = CCM_MSGNR_SYSCALL;
    std::snprintf(ccmch->msginsert, sizeof ccmch->msginsert, "connect()|%d(%s),S(%d(ID=%d))|", err,
                  strerror(err), ccmch->s, ccmch->ID);
    ccm_channel_delete(ccm, ccmch);
    return 1;
  }
  QX_TRACE("%s:      connection of channel %d to %s:%d failed (%d-%s): next address", __func__,
           ccmch->ID, ccmch->addr, ccmch->port, err, strerror(err));
  ccm_error_t own{};
  if (start_with_next_address(ccm, ccmch, &own) != nullptr) {
    ccmch->msgnr = own.msgnr;
    ccm_copy_text(ccmch->msginsert, sizeof ccmch->msginsert, own.msginsert);
    ccm_channel_delete(ccm, ccmch);
  }
  return 1;
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
    ccm_channel_guard guard(ccm, ccm_lock_trace::kQuiet);
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
