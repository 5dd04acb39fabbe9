// Address resolution: host names and IPv4/IPv6 literals (brackets allowed) to one socket
// address chosen by a fixed preference, socket addresses back to text, bracketed IPv6 text, and
// whether the host can open IPv6 sockets.
//
// Ownership: no state; callers own every area passed in.
//
// Threads: every operation may be called from any thread.
#ifndef QX_CCM_ADDRESS_H_
#define QX_CCM_ADDRESS_H_

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "ccm/context_record.h"

// Preference options of ccm_hostname2address.
inline constexpr int CCM_PREFER_IPV6 = 1;
inline constexpr int CCM_PREFER_IPV4 = 2;

inline constexpr int CCM_HOSTNAME_SIZE = 256;  // names must be shorter than this
inline constexpr int CCM_ADDRSTR_SIZE = 64;    // address texts kept in records
inline constexpr int CCM_MSGNR_ALL_IP = 2000066;

// Resolves `phostname` into `addr` (port left 0). 0, or -1 with `addr` all zero and `ccmerr`
// filled when the resolver fails (an empty answer list leaves `ccmerr` cleared).
int ccm_hostname2address(const char* phostname, int options, struct sockaddr_in6* addr,
                         ccm_error_t* ccmerr);

// The resolver the connection manager asks, with the release of its answers: getaddrinfo and
// freeaddrinfo. A test may put its own pair here (to make a name resolve to the addresses it
// wants) while no other thread resolves, and must put the pair back before others do.
struct ccm_resolver_t {
  int (*resolve)(const char* node, const char* service, const struct addrinfo* hints,
                 struct addrinfo** answers);
  void (*release)(struct addrinfo* answers);
};
extern ccm_resolver_t ccm_resolver;
extern const ccm_resolver_t ccm_resolver_default;

// Resolves `phostname` into up to `max` addresses in `addrs` (ports left 0), in the order of
// preference of ccm_address_choose extended to all answers: the usable answers of a
// preferred family, then the other usable answers, then the unusable ones, each group in the
// resolver's order (so the first is what ccm_hostname2address gives). The number of
// addresses (1 or more), or -1 as ccm_hostname2address fails.
int ccm_hostname2addresses(const char* phostname, int options, struct sockaddr_in6* addrs, int max,
                           ccm_error_t* ccmerr);

// The choice among resolver answers: the first usable answer of a preferred family, else the
// first usable answer, else the first answer. Loopback and link-local answers are unusable.
// Null for an empty list.
const struct addrinfo* ccm_address_choose(const struct addrinfo* answers, int options);

// Writes the numeric text of `addr` (no brackets, no port) into `dst` of `size` bytes.
// 0, or -1 with `dst` empty.
int ccm_address2string(struct sockaddr_in6* addr, char* dst, socklen_t size);

// `in` itself when it holds no ':' or begins with '['; else `out` (256 bytes) holding "[in]".
char* ccm_addressformatted(char* in, char* out);

// 0 when an IPv6 socket can be made; -1 with `ccmerr` filled when not.
int ccm_check_ipv6_support(ccm_error_t* ccmerr);

// This host's address text (64 bytes) in `out`; 0 or -1.
int ccm_getmyIP(int options, char* out, ccm_error_t* ccmerr);

// Logs every address of `hostname` (message 2000066); 0 or -1.
int ccm_log_all_ip(const char* hostname, ccm_error_t* ccmerr);

#endif  // QX_CCM_ADDRESS_H_
