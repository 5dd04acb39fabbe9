// Host name resolution and memory dumps. Look-ups stay on this machine: literals, "localhost",
// an address of the documentation range and a name in the reserved ".invalid" domain. Dumped
// areas are heap vectors of exactly the bytes given, so that ASan catches a read beyond them.
#include <errno.h>
#include <netdb.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "common/hostname.h"
#include "common/memdump.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
constexpr const char* kUnknownName = "no-such-host.invalid";
constexpr const char* kUnnamedAddress = "192.0.2.1";

// Without a name server an unknown name may come back as "try again" rather than "not found";
// either way the text and the code must agree.
void ExpectLookupFailure(const char* text, int code) {
  EXPECT_TRUE(code == HOST_NOT_FOUND || code == TRY_AGAIN) << code;
  EXPECT_STREQ(code == HOST_NOT_FOUND ? "HOST_NOT_FOUND" : "TRY_AGAIN", text);
}

// Each look-up clears errno on success and cuts its answer to the area.
TEST(Lookups, BothDirectionsWithErrorNamesAndErrno) {
  const char* names[] = {"????", "HOST_NOT_FOUND", "TRY_AGAIN", "NO_RECOVERY", "NO_DATA", "????"};
  char text[32];
  for (int code = 0; code <= 5; ++code)
    EXPECT_STREQ(names[code], getHerrnoString(text, sizeof text, code)) << code;
  EXPECT_STREQ("NO_", getHerrnoString(text, 4, 4));
  using Lookup = char* (*)(const char*, char*, int);
  const std::tuple<Lookup, const char*, int, const char*> cases[] = {
      {GetHostAddrTh, "10.1.2.3", 16, "10.1.2.3"}, {GetHostAddrTh, "localhost", 16, "127.0.0.1"},
      {GetHostAddrTh, "localhost", 5, "127."},     {GetHostAddrTh, kUnknownName, 16, nullptr},
      {GetHostNameTh, "myhost", 16, "myhost"},     {GetHostNameTh, "127.0.0.1", 16, "localhost"},
      {GetHostNameTh, "127.0.0.1", 4, "loc"},      {GetHostNameTh, kUnnamedAddress, 16, nullptr}};
  for (const auto& [lookup, name, size, want] : cases) {
    errno = EINVAL;
    lookup(name, text, size);
    if (want == nullptr) {
      ExpectLookupFailure(text, errno);
    } else {
      EXPECT_STREQ(want, text) << name;
      EXPECT_TRUE(strcmp(want, name) == 0 || errno == 0) << name;  // literals are no look-up
    }
  }
  // The socket buffer sizes as set, and 0 for a descriptor that is no socket.
  const int s = socket(AF_INET, SOCK_STREAM, 0), wanted = 4 * GetSendSocketBuffer(s);
  ASSERT_EQ(0, setsockopt(s, SOL_SOCKET, SO_SNDBUF, &wanted, sizeof wanted));
  EXPECT_GE(GetSendSocketBuffer(s), wanted);
  EXPECT_GT(GetRecvSocketBuffer(s), 0);
  close(s);
  EXPECT_EQ(0, GetRecvSocketBuffer(-1) + GetSendSocketBuffer(-1));
}

TEST(VerifyHostDef, SplitsPortAndResolves) {
  struct Case {
    std::string def;
    int port, result;
    const char *host, *ip;
    int host_size = 64;
  } cases[] = {
      {"127.0.0.1:2217", 2217, 0, "localhost", "127.0.0.1"},
      {"localhost", 0, 0, "localhost", "127.0.0.1"},
      {std::string(kUnnamedAddress) + ":2217", 2217, 1, "", kUnnamedAddress},
      {std::string(kUnknownName) + ":99", 99, -1, kUnknownName, ""},
      {std::string(300, 'h') + ":1", 0, -1, "hhhhhhh", "", 8},  // ":1" lies past 255 bytes
  };
  for (const Case& c : cases) {
    std::vector<char> host(c.host_size, 'x');
    char ip[16];
    qx7_error err;
    memset(&err, 0x55, sizeof err);
    EXPECT_EQ(c.port, verifyHostDef(c.def.c_str(), host.data(), c.host_size, ip, 16, &err));
    EXPECT_STREQ(c.host, host.data()) << c.def;
    EXPECT_STREQ(c.ip, ip) << c.def;
    EXPECT_EQ(c.result, err.qx_result) << c.def;
    EXPECT_EQ(0, err.qx_msgnr) << c.def;
    if (c.result != 0) {
      ExpectLookupFailure(err.qx_msgInsert, err.qx_errno);
    } else {
      EXPECT_EQ(std::make_pair(0, std::string()),
                std::make_pair(err.qx_errno, std::string(err.qx_msgInsert)));
    }
  }
}

using Area = std::vector<unsigned char>;
Area AreaOf(const std::string& bytes) {
  return Area(bytes.begin(), bytes.end());
}

std::string PadTo(std::string s, size_t width) {
  if (s.size() < width) s.resize(width, ' ');
  return s;
}

std::string TraceHeading(const std::string& id, const void* addr, const char* length) {
  char address[16];
  snprintf(address, sizeof address, "%.8X",
           static_cast<unsigned>(reinterpret_cast<uintptr_t>(addr)));
  return PadTo("----->  TRACE: (" + id + ")", 66).substr(0, 66) + address + " " + length + "\n";
}

const std::string kIndent(14, ' ');
const std::string kLetters = "ABCDEFGHIJKLMNOP";
const std::string kLettersLine = "  41424344 45464748 494A4B4C 4D4E4F50  >ABCDEFGHIJKLMNOP<\n";
const std::string kXLine = " 78787878 78787878 78787878 78787878  >xxxxxxxxxxxxxxxx<\n";

TEST(ZumemTrace, LayoutsByteForByte) {
  struct Case {
    std::string name, bytes;
    int len;
    const char* shown_len;
    std::string body;
  } cases[] = {
      {"full line", kLetters, 16, "00016", kIndent + "00000000" + kLettersLine},
      {"short last line padded", kLetters + std::string("\x01 z\xFF", 4), 20, "00020",
       kIndent + "00000000" + kLettersLine + PadTo(kIndent + "00000010  01207AFF", 59) +
           "  >. z.<\n"},
      {"repeats left out, last shown", std::string(48, 'x'), 48, "00048",
       kIndent + "00000000=" + kXLine + kIndent + "00000020 " + kXLine},
      {"two equal lines both shown", std::string(32, 'x'), 32, "00032",
       kIndent + "00000000 " + kXLine + kIndent + "00000010 " + kXLine},
      {"empty", "abc", 0, "00000", ""},
      {"negative", "abc", -5, "-0005", ""},
  };
  for (const Case& c : cases) {
    Area area = AreaOf(c.bytes);
    CaptureStdout();
    EXPECT_EQ(0, ZUMEM_Trace("T", area.data(), c.len));
    EXPECT_EQ(TraceHeading("T", area.data(), c.shown_len) + c.body, GetCapturedStdout()) << c.name;
  }
  // MemTrace cuts a long title where the address starts; FormMemTrace right-aligns it in 40.
  const std::string long_id(80, 'i');
  CaptureStdout();
  MemTrace(long_id.c_str(), kLetters.data(), 0);
  FormMemTrace("name", kLetters.data(), 0);
  EXPECT_EQ(TraceHeading(long_id, kLetters.data(), "00000") +
                TraceHeading(std::string(36, ' ') + "name : ", kLetters.data(), "00000"),
            GetCapturedStdout());
  // ZUMEM_TraceStr prints the heading and returns the last body line.
  Area area = AreaOf(kLetters + "QRST");
  CaptureStdout();
  const char* text = ZUMEM_TraceStr("S", area.data(), 20);
  EXPECT_EQ(TraceHeading("S", area.data(), "00020"), GetCapturedStdout());
  EXPECT_EQ(PadTo(kIndent + "00000010  51525354", 59) + "  >QRST<\n", text);
}

std::string PrtLineStart(const void* addr, unsigned offset) {
  char buf[64];
  snprintf(buf, sizeof buf, "  0x%.8lx (%.6x)  >",
           static_cast<unsigned long>(reinterpret_cast<uintptr_t>(addr)), offset);
  return buf;
}

TEST(IPrtMem, CharacterClassPaddingAndRepeatMark) {
  Area equal = AreaOf(std::string(32, '~'));  // the last 16 bytes are left out too
  Area mixed = AreaOf("[.\\a_");
  CaptureStdout();
  iPrtMem(equal.data(), 32, "t");
  iPrtMem(mixed.data(), 5, "u");
  std::string repeated =
      PadTo(PrtLineStart(equal.data(), 0) + "7e7e7e7e 7e7e7e7e 7e7e7e7e 7e7e7e7e<", 60) + ">" +
      std::string(16, '~') + "<\n";
  repeated[1] = '=';
  EXPECT_EQ(PadTo("t", 61) + " 0x000020 (00032)\n" + repeated + PadTo("u", 61) +
                " 0x000005 (00005)\n" + PadTo(PrtLineStart(mixed.data(), 0) + "5b2e5c61 5f<", 60) +
                ">..\\a_<\n",
            GetCapturedStdout());
}

TEST(GetMemTrace, GroupsOfFourWithinTheArea) {
  Area bytes = AreaOf(std::string("\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09", 10));
  const std::pair<int, const char*> cases[] = {
      {64, "00010203 04050607 0809"}, {12, "00010203 04"}, {11, "00010203"}, {3, ""}};
  for (auto [size, expected] : cases) {
    std::vector<char> out(size, 'x');
    EXPECT_STREQ(expected, GetMemTrace(bytes.data(), 10, out.data(), size)) << size;
  }
}

TEST(KeyedFields, GetRestFieldAndGetAttribute) {
  const std::string rest = "A=/first/B=,second,C=::";
  struct Case {
    int rest_len;
    char search;
    unsigned ret_size;
    const char* value;  // null: not found
  } cases[] = {{19, 'B', 16, "second"}, {19, 'A', 16, "first"}, {19, 'C', 16, nullptr},
               {23, 'C', 16, ""},       {10, 'B', 16, nullptr}, {18, 'B', 16, nullptr},
               {19, 'B', 3, "sec"},     {0, 'A', 16, nullptr}};
  for (const Case& c : cases) {
    std::vector<char> area(rest.begin(), rest.begin() + c.rest_len);  // not terminated
    std::vector<char> result(c.ret_size + 1, 'x');
    const int found = GetRestField(area.data(), c.rest_len, c.search, result.data(), c.ret_size);
    EXPECT_EQ(c.value != nullptr, found) << c.search << " in " << c.rest_len;
    EXPECT_STREQ(found ? c.value : "", found ? result.data() : "");
  }
  char result[8];
  EXPECT_EQ(0, GetRestField("AX/first/", 9, 'A', result, 7));  // no "=" after the code

  struct {
    const char *area, *search;
    unsigned ret_size;
    const char* value;
  } attributes[] = {{"HOST=alpha,PORT=2217", "PORT", 16, "2217"},
                    {"HOST=alpha,PORT=2217", "HOST", 3, "al"},
                    {"HOST=alpha,PORT=2217", "USER", 16, ""},
                    {"HOST=,PORT=1", "HOST", 16, ""},
                    {"HOST", "HOST", 16, ""}};
  for (const auto& c : attributes) {
    std::vector<char> out(c.ret_size, 'x');
    EXPECT_EQ(c.value[0] != '\0', GetAttribute(c.area, static_cast<int>(strlen(c.area)), c.search,
                                               out.data(), c.ret_size))
        << c.search << " in " << c.area;
    EXPECT_STREQ(c.value, out.data()) << c.search << " in " << c.area;
  }
}

}  // namespace
