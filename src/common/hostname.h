// Host name resolution of the older services (IPv4 only): a host name or dotted address to
// dotted address text, an address back to a host name, a host definition "host" or
// "host:port" checked and split, the name of a resolver error code, and the buffer sizes of a
// socket.
//
// Resolver failures are reported by the names of the h_errno codes ("HOST_NOT_FOUND",
// "TRY_AGAIN", "NO_RECOVERY", "NO_DATA", "????" for any other code), written in place of the
// result text, and by errno set to the h_errno value.
//
// Ownership: results go into text areas of the caller, of the size the caller gives. Nothing
// is allocated.
//
// Threads: the look-ups go through gethostbyname and gethostbyaddr, which hand back static
// storage, so GetHostAddrTh, GetHostNameTh and verifyHostDef are for one thread at a time.
// getHerrnoString and the socket buffer queries may run in several threads at once.
#ifndef QX_COMMON_HOSTNAME_H_
#define QX_COMMON_HOSTNAME_H_

#include "common/qx7_error.h"

// Clears `oLen` bytes of `TcpAddr` and writes into it the address text of `Host`: `Host`
// itself when it is a dotted address, else the first address of its host entry as
// "%d.%d.%d.%d" (16 bytes hold every one). On failure the h_errno name goes there instead and
// errno is set to the h_errno value; on success errno is 0 after a look-up. Returns `TcpAddr`.
char* GetHostAddrTh(const char* Host, char* TcpAddr, int oLen);

// Clears `oLen` bytes of `HostName` and writes into it the official host name of the dotted
// address `IpAddr`, or `IpAddr` itself when it is no address. On failure the h_errno name goes
// there instead and errno is set to the h_errno value; on success errno is 0. Returns
// `HostName`.
char* GetHostNameTh(const char* IpAddr, char* HostName, int oLen);

// Splits "host" or "host:port" (at most 255 characters are looked at), fills `hostName` and
// `ipAddr` (both cleared first) from the resolver, and returns the port (0 without ":").
// `qx7err` gets qx_result 0 (resolved), 1 (a valid address without a host name) or -1 (a name
// that cannot be resolved), qx_errno the h_errno value and qx_msgInsert its name; qx_msgnr is
// set to 0.
int verifyHostDef(const char* HostDef, char* hostName, int hostSize, char* ipAddr, int ipSize,
                  qx7_error* qx7err);

// The name of the h_errno value `herrno` ("????" for every value outside 1 to 4) into
// `resString`, at most `resLen` bytes, terminator included. Returns `resString`.
char* getHerrnoString(char* resString, int resLen, int herrno);

// SO_RCVBUF / SO_SNDBUF of the socket in bytes; 0 for descriptor 0 or when the query fails.
// GetSendSocketBuffer sets errno to 0 first.
int GetRecvSocketBuffer(int Socket);
int GetSendSocketBuffer(int Socket);

#endif  // QX_COMMON_HOSTNAME_H_
