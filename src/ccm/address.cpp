// Address resolution and address texts.
#include "ccm/address.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "ccm/internal.h"
#include "common/trace_log.h"

namespace {

// The text of an answer's address, upper-cased; empty when it cannot be converted.
void answer_text(const addrinfo* ai, char* text, socklen_t size) {
  sockaddr_in6 work{};
  std::memcpy(&work, ai->ai_addr, std::min<size_t>(ai->ai_addrlen, sizeof work));
  ccm_address2string(&work, text, size);
  for (char* p = text; *p != '\0'; ++p)
    *p = static_cast<char>(std::toupper(*p));
}

// Loopback and link-local answers are never preferred and never the second choice.
bool unusable(std::string_view upper) {
  return upper == "127.0.0.1" || upper == "::1" || upper.starts_with("FE80:");
}

bool preferred(const addrinfo* ai, int options) {
  return ((options & CCM_PREFER_IPV4) && ai->ai_family == AF_INET) ||
         ((options & CCM_PREFER_IPV6) && ai->ai_family == AF_INET6);
}

// Asks the resolver for the stream addresses of `host`; the answers (to be released with
// freeaddrinfo), or null with the error recorded and `fn`'s exit traced.
addrinfo* resolve(const char* fn, const char* host, ccm_error_t* ccmerr) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* answers = nullptr;
  errno = 0;
  if (ccm_resolver.resolve(host, nullptr, &hints, &answers) != 0) {
    int err = errno;
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "getaddrinfo|%d(%s)", err, strerror(err));
    QX_TRACE("%s <-- (getaddrinfo error)", fn);
    return nullptr;
  }
  if (answers == nullptr) QX_TRACE("%s <-- (nothing found)", fn);
  return answers;
}

// Copies the resolver's `host` into `area` without brackets and surrounding blanks.
// False when it does not fit.
bool clean_hostname(const char* host, char (&area)[CCM_HOSTNAME_SIZE]) {
  if (host == nullptr) host = "";
  size_t n = strnlen(host, CCM_HOSTNAME_SIZE);
  if (n >= CCM_HOSTNAME_SIZE) return false;
  std::string_view v(host, n);
  auto blank = [](char c) { return c == ' ' || c == '[' || c == ']'; };
  while (!v.empty() && blank(v.front()))
    v.remove_prefix(1);
  while (!v.empty() && blank(v.back()))
    v.remove_suffix(1);
  size_t k = 0;
  for (char c : v)
    area[k++] = (c == '[' || c == ']') ? ' ' : c;
  area[k] = '\0';
  return true;
}

// An answer's address in a zeroed record: 16 bytes for IPv4, 28 otherwise.
void copy_answer(const addrinfo* ai, sockaddr_in6* addr) {
  std::memset(addr, 0, sizeof *addr);
  size_t want = ai->ai_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
  std::memcpy(addr, ai->ai_addr, std::min<size_t>(want, ai->ai_addrlen));
}

void trace_result(const char* fn, sockaddr_in6* addr) {
  if (!trc_level()) return;
  char text[256];
  if (ccm_address2string(addr, text, sizeof text) != 0) {
    ccm_copy_text(text, sizeof text, "error resolve address");
  }
  __trace_text(0, "%s <-- (OK,family=%d,address=%s)", fn, addr->sin6_family, text);
}

// The look-up that both resolving operations begin with: the cleaned name's answers (to be
// released through ccm_resolver), or null with the failure recorded and traced.
addrinfo* clean_and_resolve(const char* fn, const char* phostname, ccm_error_t* ccmerr) {
  QX_TRACE("%s(hostname=%s) -->", fn, phostname ? phostname : "(null)");
  if (ccmerr != nullptr) std::memset(ccmerr, 0, sizeof *ccmerr);
  char host[CCM_HOSTNAME_SIZE];
  if (!clean_hostname(phostname, host)) {
    // The name cannot be a host name; refuse it as the resolver would.
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "getaddrinfo|%d(%s)", ENAMETOOLONG,
                  strerror(ENAMETOOLONG));
    QX_TRACE("%s <-- (getaddrinfo error)", fn);
    return nullptr;
  }
  QX_TRACE("%s:      hostname without brackets=%s", fn, host);
  return resolve(fn, host, ccmerr);
}

}  // namespace

const ccm_resolver_t ccm_resolver_default = {getaddrinfo, freeaddrinfo};
ccm_resolver_t ccm_resolver = ccm_resolver_default;

const addrinfo* ccm_address_choose(const addrinfo* answers, int options) {
  const addrinfo* second = nullptr;
  for (const addrinfo* ai = answers; ai != nullptr; ai = ai->ai_next) {
    char text[256];
    answer_text(ai, text, sizeof text);
    QX_TRACE("%s:      sockaddr(%p): nxt=%p, addr=%p, family=%d, addrstr=%s",
             "ccm_hostname2address", static_cast<const void*>(ai), static_cast<void*>(ai->ai_next),
             static_cast<void*>(ai->ai_addr), ai->ai_family, text);
    if (unusable(text)) continue;
    if (second == nullptr) second = ai;
    if (preferred(ai, options)) {
      QX_TRACE("%s:      preferred found", "ccm_hostname2address");
      return ai;
    }
  }
  return second != nullptr ? second : answers;
}

int ccm_hostname2address(const char* phostname, int options, sockaddr_in6* addr,
                         ccm_error_t* ccmerr) {
  std::memset(addr, 0, sizeof *addr);
  addrinfo* answers = clean_and_resolve(__func__, phostname, ccmerr);
  if (answers == nullptr) return -1;
  copy_answer(ccm_address_choose(answers, options), addr);
  ccm_resolver.release(answers);
  trace_result(__func__, addr);
  return 0;
}

int ccm_hostname2addresses(const char* phostname, int options, sockaddr_in6* addrs, int max,
                           ccm_error_t* ccmerr) {
  if (max < 1) return -1;
  addrinfo* answers = clean_and_resolve(__func__, phostname, ccmerr);
  if (answers == nullptr) return -1;
  // Three walks in the resolver's order: usable answers of a preferred family, the other
  // usable ones, the unusable ones. An address the resolver gave twice is taken once.
  int n = 0;
  for (int group = 0; group < 3; ++group) {
    for (const addrinfo* ai = answers; ai != nullptr && n < max; ai = ai->ai_next) {
      char text[256];
      answer_text(ai, text, sizeof text);
      const int in_group = unusable(text) ? 2 : preferred(ai, options) ? 0 : 1;
      if (in_group != group) continue;
      sockaddr_in6 addr;
      copy_answer(ai, &addr);
      bool seen = false;
      for (int k = 0; k < n && !seen; ++k)
        seen = std::memcmp(&addrs[k], &addr, sizeof addr) == 0;
      if (!seen) addrs[n++] = addr;
    }
  }
  ccm_resolver.release(answers);
  trace_result(__func__, &addrs[0]);
  QX_TRACE("%s:      %d address(es) in the order they are tried", __func__, n);
  return n;
}

int ccm_address2string(sockaddr_in6* addr, char* dst, socklen_t size) {
  QX_TRACE("%s(addr at %p,family=%d) -->", __func__, static_cast<void*>(addr), addr->sin6_family);
  if (size > 0) dst[0] = '\0';
  const char* r = nullptr;
  if (addr->sin6_family == AF_INET6) {
    r = inet_ntop(AF_INET6, &addr->sin6_addr, dst, size);
  } else {
    auto* v4 = reinterpret_cast<sockaddr_in*>(addr);
    r = inet_ntop(v4->sin_family, &v4->sin_addr, dst, size);
  }
  if (r == nullptr) {
    int err = errno;
    if (size > 0) dst[0] = '\0';
    QX_TRACE("%s <-- (ERROR,%d-%s)", __func__, err, strerror(err));
    return -1;
  }
  QX_TRACE("%s <-- (OK,%s)", __func__, dst);
  return 0;
}

char* ccm_addressformatted(char* in, char* out) {
  if (std::strchr(in, ':') == nullptr || in[0] == '[') return in;
  std::snprintf(out, 256, "[%s]", in);
  return out;
}

int ccm_check_ipv6_support(ccm_error_t* ccmerr) {
  QX_TRACE("%s() -->", __func__);
  int s = socket(AF_INET6, SOCK_STREAM, 0);
  if (s < 0) {
    int err = errno;
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "socket(AF_INET6/IPv6)|%d(%s)", err, strerror(err));
    QX_TRACE("%s <-- (socket() error)", __func__);
    return -1;
  }
  close(s);
  QX_TRACE("%s <-- (OK - IPv6 supported)", __func__);
  return 0;
}

int ccm_getmyIP(int /*options*/, char* out, ccm_error_t* ccmerr) {
  QX_TRACE("%s() -->", __func__);
  char name[CCM_HOSTNAME_SIZE] = {};
  if (gethostname(name, sizeof name - 1) != 0) {
    int err = errno;
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "getmyIP/gethostname()|%d(%s)", err, strerror(err));
    QX_TRACE("%s <-- (gethostname error)", __func__);
    return -1;
  }
  sockaddr_in6 addr{};
  if (ccm_hostname2address(name, CCM_PREFER_IPV4, &addr, ccmerr) != 0) {
    QX_TRACE("%s <-- (ccm_hostname2address error)", __func__);
    return -1;
  }
  ccm_address2string(&addr, out, CCM_ADDRSTR_SIZE);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int ccm_log_all_ip(const char* hostname, ccm_error_t* ccmerr) {
  QX_TRACE("%s(hostname=%s) -->", __func__, hostname ? hostname : "(null)");
  if (ccmerr != nullptr) std::memset(ccmerr, 0, sizeof *ccmerr);
  if (hostname == nullptr || strnlen(hostname, CCM_HOSTNAME_SIZE) >= CCM_HOSTNAME_SIZE) {
    ccm_set_error(ccmerr, CCM_MSGNR_SYSCALL, "getaddrinfo|%d(%s)", ENAMETOOLONG,
                  strerror(ENAMETOOLONG));
    QX_TRACE("%s <-- (getaddrinfo error)", __func__);
    return -1;
  }
  addrinfo* answers = resolve(__func__, hostname, ccmerr);
  if (answers == nullptr) return -1;
  for (const addrinfo* ai = answers; ai != nullptr; ai = ai->ai_next) {
    sockaddr_in6 work{};
    std::memcpy(&work, ai->ai_addr, std::min<size_t>(ai->ai_addrlen, sizeof work));
    char text[CCM_ADDRSTR_SIZE];
    char bracketed[256];
    ccm_address2string(&work, text, sizeof text);
    __log(CCM_MSGNR_ALL_IP, "%s|%s", hostname, ccm_addressformatted(text, bracketed));
  }
  ccm_resolver.release(answers);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}
