// Host name resolution of the older services. Every look-up stays on this machine: literal
// addresses, "localhost" from the hosts file, and names in the reserved ".invalid" domain.
#include <errno.h>
#include <netdb.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/hostname.h"
#include "common/trace_log.h"

namespace {

constexpr const char* kUnknownName = "no-such-host.invalid";

// Without a name server in reach an unknown name may come back as "try again" instead of
// "not found"; either way the text and errno must name the same h_errno code.
void ExpectLookupFailure(const char* text, int err) {
  if (err == HOST_NOT_FOUND) {
    EXPECT_STREQ("HOST_NOT_FOUND", text);
  } else {
    EXPECT_EQ(TRY_AGAIN, err) << text;
    EXPECT_STREQ("TRY_AGAIN", text);
  }
}

TEST(GetHerrnoString, NamesCodesOneToFourOnly) {
  struct Case {
    int code;
    const char* name;
  };
  for (const Case& c : {Case{1, "HOST_NOT_FOUND"}, Case{2, "TRY_AGAIN"}, Case{3, "NO_RECOVERY"},
                        Case{4, "NO_DATA"}, Case{0, "????"}, Case{5, "????"}, Case{-1, "????"}}) {
    char text[32];
    EXPECT_EQ(text, getHerrnoString(text, sizeof text, c.code));
    EXPECT_STREQ(c.name, text) << c.code;
  }
  char small[4];
  EXPECT_STREQ("NO_", getHerrnoString(small, sizeof small, 4));
}

TEST(GetHostAddrTh, ResolvesLiteralsAndLocalNames) {
  struct Case {
    const char* host;
    const char* address;
  };
  for (const Case& c : {Case{"10.1.2.3", "10.1.2.3"}, Case{"localhost", "127.0.0.1"}}) {
    char text[16];
    memset(text, 'x', sizeof text);
    errno = EINVAL;
    EXPECT_EQ(text, GetHostAddrTh(c.host, text, sizeof text));
    EXPECT_STREQ(c.address, text);
    if (strcmp(c.host, "localhost") == 0) {
      EXPECT_EQ(0, errno);  // cleared after a successful look-up
    }
  }
  char cut[5];
  EXPECT_STREQ("10.1", GetHostAddrTh("10.1.2.3", cut, sizeof cut));
  EXPECT_STREQ("127.", GetHostAddrTh("localhost", cut, sizeof cut));
}

TEST(GetHostAddrTh, UnknownNameGivesErrorNameAndErrno) {
  char text[16];
  GetHostAddrTh(kUnknownName, text, sizeof text);
  ExpectLookupFailure(text, errno);
}

TEST(GetHostNameTh, NameStaysAddressIsLookedUp) {
  char name[64];
  errno = EINVAL;
  EXPECT_STREQ("myhost", GetHostNameTh("myhost", name, sizeof name));
  EXPECT_EQ(0, errno);
  errno = EINVAL;
  EXPECT_STREQ("localhost", GetHostNameTh("127.0.0.1", name, sizeof name));
  EXPECT_EQ(0, errno);
  char cut[4];
  EXPECT_STREQ("loc", GetHostNameTh("127.0.0.1", cut, sizeof cut));
}

TEST(GetHostNameTh, AddressWithoutNameGivesErrorNameAndErrno) {
  char name[64];
  GetHostNameTh("192.0.2.1", name, sizeof name);  // documentation range: never assigned
  ExpectLookupFailure(name, errno);
}

TEST(VerifyHostDef, SplitsPortAndResolvesBothWays) {
  struct Case {
    const char* def;
    int port;
    const char* host;
    const char* ip;
  };
  for (const Case& c : {Case{"127.0.0.1:2217", 2217, "localhost", "127.0.0.1"},
                        Case{"localhost", 0, "localhost", "127.0.0.1"},
                        Case{"localhost:80", 80, "localhost", "127.0.0.1"}}) {
    char host[64], ip[16];
    qx7_error err;
    memset(&err, 0x55, sizeof err);
    EXPECT_EQ(c.port, verifyHostDef(c.def, host, sizeof host, ip, sizeof ip, &err)) << c.def;
    EXPECT_STREQ(c.host, host) << c.def;
    EXPECT_STREQ(c.ip, ip) << c.def;
    EXPECT_EQ(0, err.qx_result) << c.def;
    EXPECT_EQ(0, err.qx_errno) << c.def;
    EXPECT_EQ(0, err.qx_msgnr) << c.def;
    EXPECT_STREQ("", err.qx_msgInsert) << c.def;
  }
}

TEST(VerifyHostDef, ReportsAddressWithoutNameAndUnknownName) {
  char host[64], ip[16];
  qx7_error err;
  EXPECT_EQ(2217, verifyHostDef("192.0.2.1:2217", host, sizeof host, ip, sizeof ip, &err));
  EXPECT_STREQ("192.0.2.1", ip);
  EXPECT_STREQ("", host);
  EXPECT_EQ(1, err.qx_result);
  ExpectLookupFailure(err.qx_msgInsert, err.qx_errno);

  const std::string def = std::string(kUnknownName) + ":99";
  EXPECT_EQ(99, verifyHostDef(def.c_str(), host, sizeof host, ip, sizeof ip, &err));
  EXPECT_STREQ(kUnknownName, host);
  EXPECT_STREQ("", ip);
  EXPECT_EQ(-1, err.qx_result);
  EXPECT_EQ(0, err.qx_msgnr);
  ExpectLookupFailure(err.qx_msgInsert, err.qx_errno);
}

TEST(VerifyHostDef, LongDefinitionIsCutAndAreasStayBounded) {
  const std::string def = std::string(300, 'h') + ".invalid:1";  // ":1" lies past 255 bytes
  char host[8], ip[4];
  qx7_error err;
  EXPECT_EQ(0, verifyHostDef(def.c_str(), host, sizeof host, ip, sizeof ip, &err));
  EXPECT_STREQ("hhhhhhh", host);
  EXPECT_STREQ("", ip);
  EXPECT_EQ(-1, err.qx_result);
}

TEST(TraceLines, LookUpTracesEntryAndExitWhenTracingIsOn) {
  char text[16];
  trcFlag = 1;
  testing::internal::CaptureStdout();
  GetHostAddrTh("10.1.2.3", text, sizeof text);
  const std::string out = testing::internal::GetCapturedStdout();
  trcFlag = 0;
  EXPECT_NE(std::string::npos, out.find(" - GetHostAddrTh(host=10.1.2.3) -->\n")) << out;
  EXPECT_NE(std::string::npos,
            out.find(" - GetHostAddrTh <-- (ip=10.1.2.3, with inet_addr() call)\n"))
      << out;
}

TEST(SocketBuffers, ReadFromARealSocketAndZeroOtherwise) {
  const int s = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(s, 0);
  const int rcv = GetRecvSocketBuffer(s);
  const int snd = GetSendSocketBuffer(s);
  EXPECT_GT(rcv, 0);
  EXPECT_GT(snd, 0);
  const int wanted = 4 * snd;
  ASSERT_EQ(0, setsockopt(s, SOL_SOCKET, SO_SNDBUF, &wanted, sizeof wanted));
  EXPECT_GT(GetSendSocketBuffer(s), snd);  // the changed size is what is read
  close(s);

  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  EXPECT_EQ(0, GetRecvSocketBuffer(fds[0]));  // not a socket
  close(fds[0]);
  close(fds[1]);
  EXPECT_EQ(0, GetRecvSocketBuffer(0));
  EXPECT_EQ(0, GetSendSocketBuffer(-1));
}

}  // namespace
