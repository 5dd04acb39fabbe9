// Host name resolution of the older services.
#include "common/hostname.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "common/strutil.h"
#include "common/trace_log.h"

namespace {

// The h_errno names shared by every look-up; index = h_errno value.
constexpr const char* kHerrnoNames[] = {nullptr, "HOST_NOT_FOUND", "TRY_AGAIN", "NO_RECOVERY",
                                        "NO_DATA"};
constexpr const char* kUnknownHerrno = "????";
constexpr int kHostDefSize = 256;

const char* HerrnoName(int herrno) {
  if (herrno >= 1 && herrno <= 4) return kHerrnoNames[herrno];
  return kUnknownHerrno;
}

// The look-ups leave the text empty when the resolver failed without a code.
void PutLookupError(char* area, int size, int herrno) {
  if (herrno != 0) StringCopy(area, size, HerrnoName(herrno));
}

void Clear(char* area, int size) {
  if (area != nullptr && size > 0) memset(area, 0, static_cast<size_t>(size));
}

// The first address of a host entry as dotted decimal text.
void FirstAddress(const hostent* entry, char* area, int size) {
  if (area == nullptr || size <= 0 || entry->h_addr_list[0] == nullptr) return;
  const auto* a = reinterpret_cast<const unsigned char*>(entry->h_addr_list[0]);
  snprintf(area, static_cast<size_t>(size), "%d.%d.%d.%d", a[0], a[1], a[2], a[3]);
}

// True when `text` is a dotted IPv4 address; its value then goes to `*addr`.
bool ParseAddress(const char* text, in_addr_t* addr) {
  *addr = inet_addr(text);
  return *addr != INADDR_NONE;
}

int SocketBuffer(int Socket, int option) {
  if (Socket == 0) return 0;
  int size = 0;
  socklen_t len = sizeof size;
  if (getsockopt(Socket, SOL_SOCKET, option, &size, &len) != 0) return 0;
  return size;
}

// The verifier's steps trace under its name.
constexpr const char* kVerifyName = "verifyHostDef";

// The host name of a numeric address (`host`, parsed into `addr`) into `hostName`; when the
// address has no name, the resolver's error goes into `qx7err` with result 1.
void NameOfAddress(const char* host, in_addr_t addr, char* hostName, int hostSize,
                   qx7_error* qx7err) {
  static constexpr const char* kName = kVerifyName;
  QX_TRACE("%s     TCP/IP address '%s' was accepted.", kName, host);
  QX_TRACE("%s     call gethostbyaddr() function", kName);
  h_errno = 0;
  const hostent* entry = gethostbyaddr(&addr, sizeof addr, AF_INET);
  if (entry != nullptr) {
    StringCopy(hostName, hostSize, entry->h_name);
    QX_TRACE("%s     host entry was successfull determined", kName);
    QX_TRACE("%s     host name '%s' was accepted.", kName, entry->h_name);
    return;
  }
  qx7err->qx_errno = h_errno;
  qx7err->qx_result = 1;
  QX_TRACE("%s     host information for '%s' not found, errno %i", kName, host, qx7err->qx_errno);
  getHerrnoString(qx7err->qx_msgInsert, sizeof qx7err->qx_msgInsert, qx7err->qx_errno);
  QX_TRACE("%s     result '%s' from gethostbyaddr()-call", kName, qx7err->qx_msgInsert);
}

}  // namespace

char* GetHostAddrTh(const char* Host, char* TcpAddr, int oLen) {
  if (Host == nullptr) Host = "";
  QX_TRACE("%s(host=%s) -->", __func__, Host);
  Clear(TcpAddr, oLen);
  in_addr_t addr;
  if (ParseAddress(Host, &addr)) {
    StringCopy(TcpAddr, oLen, Host);
    QX_TRACE("%s <-- (ip=%s, with inet_addr() call)", __func__, Host);
    return TcpAddr;
  }
  h_errno = 0;
  const hostent* entry = gethostbyname(Host);
  if (entry != nullptr) {
    errno = 0;
    FirstAddress(entry, TcpAddr, oLen);
    QX_TRACE("%s <-- (ip=%s, with gethostbyname() call)", __func__,
             TcpAddr != nullptr ? TcpAddr : "");
    return TcpAddr;
  }
  const int herrno = h_errno;
  QX_TRACE("%s:           error '%i' in gethostbyname('%s')' call", __func__, herrno, Host);
  PutLookupError(TcpAddr, oLen, herrno);
  errno = herrno;
  QX_TRACE("%s <-- (error in gethostbyname() call)", __func__);
  return TcpAddr;
}

char* GetHostNameTh(const char* IpAddr, char* HostName, int oLen) {
  if (IpAddr == nullptr) IpAddr = "";
  QX_TRACE("%s(ip=%s) -->", __func__, IpAddr);
  Clear(HostName, oLen);
  in_addr_t addr;
  if (!ParseAddress(IpAddr, &addr)) {
    QX_TRACE("%s:      'IpAddr' parameter was as host name accepted.", __func__);
    StringCopy(HostName, oLen, IpAddr);
  } else {
    QX_TRACE("%s:      TCP/IP address was accepted.", __func__);
    QX_TRACE("%s:      call gethostbyaddr function", __func__);
    h_errno = 0;
    const hostent* entry = gethostbyaddr(&addr, sizeof addr, AF_INET);
    if (entry == nullptr) {
      const int herrno = h_errno;
      QX_TRACE("%s:      result from gethostbyaddr()-call, h_errno '%i'", __func__, herrno);
      PutLookupError(HostName, oLen, herrno);
      errno = herrno;
      QX_TRACE("%s <-- (error in gethostbyaddr())", __func__);
      return HostName;
    }
    QX_TRACE("%s:      Host entry was successfull determined", __func__);
    StringCopy(HostName, oLen, entry->h_name);
  }
  errno = 0;
  QX_TRACE("%s <-- (hostname=%s)", __func__, HostName != nullptr ? HostName : "");
  return HostName;
}

int verifyHostDef(const char* HostDef, char* hostName, int hostSize, char* ipAddr, int ipSize,
                  qx7_error* qx7err) {
  static constexpr const char* kName = kVerifyName;
  qx7_error scratch;
  if (qx7err == nullptr) qx7err = &scratch;
  if (HostDef == nullptr) HostDef = "";
  QX_TRACE("%s --> started, host definition '%s'", kName, HostDef);
  Clear(hostName, hostSize);
  Clear(ipAddr, ipSize);
  qx7err->qx_result = 0;
  qx7err->qx_errno = 0;
  qx7err->qx_msgnr = 0;
  qx7err->qx_msgInsert[0] = '\0';

  char host[kHostDefSize];
  StringCopy(host, sizeof host, HostDef);
  int port = 0;
  if (char* colon = strchr(host, ':'); colon != nullptr) {
    *colon = '\0';
    port = atoi(colon + 1);
    QX_TRACE("%s   determine port number '%i'", kName, port);
  }

  in_addr_t addr;
  if (ParseAddress(host, &addr)) {
    StringCopy(ipAddr, ipSize, host);
    NameOfAddress(host, addr, hostName, hostSize, qx7err);
    QX_TRACE("%s <-- terminated normally, tcp/ip address '%s'", kName, host);
    return port;
  }

  StringCopy(hostName, hostSize, host);
  QX_TRACE("%s     It was '%s' as a hostname accepted", kName, host);
  QX_TRACE("%s     call gethostbyname(%s) function", kName, host);
  h_errno = 0;
  const hostent* entry = gethostbyname(host);
  if (entry != nullptr) {
    FirstAddress(entry, ipAddr, ipSize);
    QX_TRACE("%s     Hostentry was successfull determined, tcp/ip address '%s'", kName,
             ipAddr != nullptr ? ipAddr : "");
    QX_TRACE("%s <-- terminated normally", kName);
  } else {
    qx7err->qx_errno = h_errno;
    qx7err->qx_result = -1;
    QX_TRACE("%s     host information for '%s' not found, errno %i", kName, host, qx7err->qx_errno);
    getHerrnoString(qx7err->qx_msgInsert, sizeof qx7err->qx_msgInsert, qx7err->qx_errno);
    QX_TRACE("%s     result '%s' from gethostbyname(%s)-call", kName, qx7err->qx_msgInsert, host);
    QX_TRACE("%s <-- terminated abnormally", kName);
  }
  return port;
}

char* getHerrnoString(char* resString, int resLen, int herrno) {
  StringCopy(resString, resLen, HerrnoName(herrno));
  return resString;
}

int GetRecvSocketBuffer(int Socket) {
  return SocketBuffer(Socket, SO_RCVBUF);
}

int GetSendSocketBuffer(int Socket) {
  errno = 0;
  return SocketBuffer(Socket, SO_SNDBUF);
}
