// Host name resolution of the older services. Every look-up stays on this machine: literal
// addresses, "localhost" from the hosts file, an address of the documentation range and a
// name in the reserved ".invalid" domain.
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
constexpr const char* kUnnamedAddress = "192.0.2.1";

// Without a name server in reach an unknown name may come back as "try again" rather than
// "not found"; either way the text and the code must agree.
void ExpectLookupFailure(const char* text, int code) {
  EXPECT_TRUE(code == HOST_NOT_FOUND || code == TRY_AGAIN) << code;
  EXPECT_STREQ(code == HOST_NOT_FOUND ? "HOST_NOT_FOUND" : "TRY_AGAIN", text);
}

TEST(GetHerrnoString, NamesCodesOneToFourOnly) {
  const char* names[] = {"????", "HOST_NOT_FOUND", "TRY_AGAIN", "NO_RECOVERY", "NO_DATA", "????"};
  char text[32];
  for (int code = 0; code <= 5; ++code) {
    EXPECT_STREQ(names[code], getHerrnoString(text, sizeof text, code)) << code;
  }
  EXPECT_STREQ("NO_", getHerrnoString(text, 4, 4));
}

TEST(Lookups, BothDirectionsWithErrorNamesAndErrno) {
  char text[16];
  EXPECT_STREQ("10.1.2.3", GetHostAddrTh("10.1.2.3", text, sizeof text));
  errno = EINVAL;
  EXPECT_STREQ("127.0.0.1", GetHostAddrTh("localhost", text, sizeof text));
  EXPECT_EQ(0, errno);
  EXPECT_STREQ("127.", GetHostAddrTh("localhost", text, 5));
  GetHostAddrTh(kUnknownName, text, sizeof text);
  ExpectLookupFailure(text, errno);

  EXPECT_STREQ("myhost", GetHostNameTh("myhost", text, sizeof text));
  errno = EINVAL;
  EXPECT_STREQ("localhost", GetHostNameTh("127.0.0.1", text, sizeof text));
  EXPECT_EQ(0, errno);
  EXPECT_STREQ("loc", GetHostNameTh("127.0.0.1", text, 4));
  GetHostNameTh(kUnnamedAddress, text, sizeof text);
  ExpectLookupFailure(text, errno);
}

TEST(VerifyHostDef, SplitsPortAndResolves) {
  struct Case {
    std::string def;
    int port, result;
    const char *host, *ip;
    int host_size = 64;
  };
  const Case cases[] = {
      {"127.0.0.1:2217", 2217, 0, "localhost", "127.0.0.1"},
      {"localhost", 0, 0, "localhost", "127.0.0.1"},
      {std::string(kUnnamedAddress) + ":2217", 2217, 1, "", kUnnamedAddress},
      {std::string(kUnknownName) + ":99", 99, -1, kUnknownName, ""},
      {std::string(300, 'h') + ":1", 0, -1, "hhhhhhh", "", 8},  // ":1" lies past 255 bytes
  };
  for (const Case& c : cases) {
    std::vector<char> host_area(c.host_size, 'x');
    char* host = host_area.data();
    char ip[16];
    qx7_error err;
    memset(&err, 0x55, sizeof err);
    EXPECT_EQ(c.port, verifyHostDef(c.def.c_str(), host, c.host_size, ip, sizeof ip, &err));
    EXPECT_STREQ(c.host, host) << c.def;
    EXPECT_STREQ(c.ip, ip) << c.def;
    EXPECT_EQ(c.result, err.qx_result) << c.def;
    EXPECT_EQ(0, err.qx_msgnr) << c.def;
    if (c.result == 0) {
      EXPECT_EQ(0, err.qx_errno);
      EXPECT_STREQ("", err.qx_msgInsert);
    } else {
      ExpectLookupFailure(err.qx_msgInsert, err.qx_errno);
    }
  }
}

TEST(Lookups, TraceEntryAndExitWhenTracingIsOn) {
  char text[16];
  trcFlag = 1;
  testing::internal::CaptureStdout();
  GetHostAddrTh("10.1.2.3", text, sizeof text);
  const std::string out = testing::internal::GetCapturedStdout();
  trcFlag = 0;
  EXPECT_NE(std::string::npos, out.find(" - GetHostAddrTh(host=10.1.2.3) -->\n"));
  EXPECT_NE(std::string::npos,
            out.find(" - GetHostAddrTh <-- (ip=10.1.2.3, with inet_addr() call)\n"));
}

TEST(SocketBuffers, ReadFromARealSocketAndZeroOtherwise) {
  const int s = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(s, 0);
  EXPECT_GT(GetRecvSocketBuffer(s), 0);
  const int snd = GetSendSocketBuffer(s);
  const int wanted = 4 * snd;
  ASSERT_EQ(0, setsockopt(s, SOL_SOCKET, SO_SNDBUF, &wanted, sizeof wanted));
  EXPECT_GT(GetSendSocketBuffer(s), snd);  // the changed size is what is read
  close(s);
  EXPECT_EQ(0, GetRecvSocketBuffer(0));
  EXPECT_EQ(0, GetSendSocketBuffer(-1));
}

}  // namespace
