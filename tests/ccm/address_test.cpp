#include <arpa/inet.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/trace_log.h"
#include "support/ccm.h"

namespace ccm_test {
namespace {

// A resolver answer list built from literals, in the given order.
class Answers {
 public:
  explicit Answers(const std::vector<const char*>& literals) : nodes_(literals.size()) {
    addrs_.resize(literals.size());
    for (size_t i = 0; i < literals.size(); ++i) {
      addrinfo& ai = nodes_[i];
      sockaddr_in6& sa = addrs_[i];
      if (inet_pton(AF_INET6, literals[i], &sa.sin6_addr) == 1) {
        sa.sin6_family = AF_INET6;
        ai.ai_addrlen = sizeof(sockaddr_in6);
      } else {
        auto* v4 = reinterpret_cast<sockaddr_in*>(&sa);
        EXPECT_EQ(inet_pton(AF_INET, literals[i], &v4->sin_addr), 1) << literals[i];
        v4->sin_family = AF_INET;
        ai.ai_addrlen = sizeof(sockaddr_in);
      }
      ai.ai_family = sa.sin6_family;
      ai.ai_addr = reinterpret_cast<sockaddr*>(&sa);
      ai.ai_next = i + 1 < literals.size() ? &nodes_[i + 1] : nullptr;
    }
  }
  const addrinfo* head() const { return nodes_.empty() ? nullptr : &nodes_[0]; }
  int index_of(const addrinfo* ai) const { return ai ? static_cast<int>(ai - &nodes_[0]) : -1; }

 private:
  std::vector<addrinfo> nodes_;
  std::vector<sockaddr_in6> addrs_;
};

TEST(AddressChoose, PreferenceRules) {
  const int v4 = CCM_PREFER_IPV4, v6 = CCM_PREFER_IPV6;
  struct Case {
    std::vector<const char*> answers;
    int options;
    int chosen;
  } cases[] = {
      {{"2001:db8::1", "192.0.2.1"}, v4, 1},  // preferred family later
      {{"2001:db8::1", "192.0.2.1"}, v6, 0},
      {{"2001:db8::1", "192.0.2.1"}, 0, 0},        // second choice: first usable
      {{"192.0.2.1", "2001:db8::1"}, v4 | v6, 0},  // earlier usable wins
      {{"2001:db8::1", "192.0.2.1"}, v4 | v6, 0},
      {{"::1", "127.0.0.1"}, v4, 0},          // nothing usable: first answer
      {{"127.0.0.1", "2001:db8::1"}, v4, 1},  // second choice skips loopback
      {{"fe80::1", "192.0.2.1"}, v6, 1},      // link-local never chosen
      {{"FE80::abcd", "127.0.0.1", "2001:db8::2"}, v4, 2},
      {{"fe80::1"}, v6, 0},
      {{"192.0.2.7"}, v6, 0},
  };
  for (const Case& c : cases) {
    Answers list(c.answers);
    EXPECT_EQ(list.index_of(ccm_address_choose(list.head(), c.options)), c.chosen)
        << c.answers.front() << " options " << c.options;
  }
  EXPECT_EQ(ccm_address_choose(nullptr, v4), nullptr);
}

std::string text_of(sockaddr_in6& addr) {
  char text[64];
  EXPECT_EQ(ccm_address2string(&addr, text, sizeof text), 0);
  return text;
}

TEST(HostnameToAddress, LiteralsBracketsAndLocalhost) {
  struct Case {
    const char* host;
    int family;
    const char* text;
  } cases[] = {
      {"127.0.0.1", AF_INET, "127.0.0.1"},
      {"[127.0.0.1]", AF_INET, "127.0.0.1"},
      {" 10.1.2.3 ", AF_INET, "10.1.2.3"},
      {"[::1]", AF_INET6, "::1"},
      {"::1", AF_INET6, "::1"},
      {"[2001:DB8::5]", AF_INET6, "2001:db8::5"},
      {"[[192.0.2.9]]", AF_INET, "192.0.2.9"},
  };
  for (const Case& c : cases) {
    sockaddr_in6 addr;
    std::memset(&addr, 0xAB, sizeof addr);
    ccm_error_t err{};
    ASSERT_EQ(ccm_hostname2address(c.host, CCM_PREFER_IPV4, &addr, &err), 0) << c.host;
    EXPECT_EQ(addr.sin6_family, c.family) << c.host;
    EXPECT_EQ(addr.sin6_port, 0) << c.host;
    EXPECT_EQ(text_of(addr), c.text);
    if (c.family == AF_INET) {
      const unsigned char* rest = reinterpret_cast<unsigned char*>(&addr) + sizeof(sockaddr_in);
      EXPECT_EQ(std::vector<unsigned char>(rest, rest + 12), std::vector<unsigned char>(12, 0));
    }
  }
  sockaddr_in6 addr{};
  ccm_error_t err{};
  ASSERT_EQ(ccm_hostname2address("localhost", CCM_PREFER_IPV4, &addr, &err), 0);
  std::string t = text_of(addr);
  EXPECT_TRUE(t == "127.0.0.1" || t == "::1") << t;
}

TEST(HostnameToAddress, BadNamesFailWithResolverErrorAndZeroAddress) {
  const std::string long255(255, 'a');
  const std::string long256(256, 'b');
  const std::string long4000(4000, 'c');
  const char* hosts[] = {"",
                         "[]",
                         "[",
                         "  ",
                         "12[7.0.0.1",
                         "1.2.3.4]5",
                         "no-such-host.invalid",
                         long255.c_str(),
                         long256.c_str(),
                         long4000.c_str()};
  for (const char* h : hosts) {
    sockaddr_in6 addr;
    std::memset(&addr, 0xAB, sizeof addr);
    ccm_error_t err{};
    EXPECT_EQ(ccm_hostname2address(h, CCM_PREFER_IPV4, &addr, &err), -1) << h;
    EXPECT_EQ(err.msgnr, 2000102) << h;
    EXPECT_EQ(std::strncmp(err.msginsert, "getaddrinfo|", 12), 0) << err.msginsert;
    EXPECT_EQ(std::vector<unsigned char>(reinterpret_cast<unsigned char*>(&addr),
                                         reinterpret_cast<unsigned char*>(&addr) + sizeof addr),
              std::vector<unsigned char>(sizeof addr, 0));
  }
}

std::vector<std::string>* logged = nullptr;
int capture(int msgnr, const char* insert) {
  if (logged) logged->push_back(std::to_string(msgnr) + " " + insert);
  return 0;
}

TEST(LogAllIp, LogsEveryAnswerBracketed) {
  std::vector<std::string> lines;
  logged = &lines;
  __log_set_logger(capture);
  ccm_error_t err{};
  EXPECT_EQ(ccm_log_all_ip("::1", &err), 0);
  EXPECT_EQ(ccm_log_all_ip("no-such-host.invalid", &err), -1);
  EXPECT_EQ(std::strncmp(err.msginsert, "getaddrinfo|", 12), 0);
  __log_set_logger(nullptr);
  logged = nullptr;
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], "2000066 ::1|[::1]");
}

}  // namespace
}  // namespace ccm_test
