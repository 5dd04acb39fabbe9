// Memory, locks, error records, numbers, code pages, header, host names (this machine) and dumps.
#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <netdb.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "common/convert.h"
#include "common/ebcdic.h"
#include "common/hostname.h"
#include "common/memdump.h"
#include "common/memory.h"
#include "common/protocol_header.h"
#include "common/qx7_error.h"

namespace {

using Bytes = std::string;
using namespace std::string_literals;

// Copies end in two zero bytes; sources are exactly as long as the copy (ASan checks reads).
TEST(Memory, CopiesAndFrees) {
  void* area = MemAllocRetArea(0);
  ASSERT_NE(nullptr, area);
  FreeMallocArea(&area, "area");
  EXPECT_EQ(nullptr, area);
  FreeMallocArea(&area, "area");  // harmless twice
  FreeMallocArea(nullptr, "no pointer");
  const char src[5] = {'a', 'b', '\0', 'c', 'd'};
  errno = EINVAL;
  char* copy = MemCopy(src, 4);
  EXPECT_EQ(std::make_pair(0, Bytes("ab\0c\0\0", 6)), std::make_pair(errno, Bytes(copy, 6)));
  free(copy);
  for (int length : {-5, 0, 6}) {
    char* zeroes = MemCopy(nullptr, length);
    const int n = length > 0 ? length + 2 : 2;
    EXPECT_EQ(Bytes(n, '\0'), Bytes(zeroes, n)) << length;
    free(zeroes);
  }
  char* dst = MemCopy("old", 3);
  Bytes got(dst = mem_alloc_copy(dst, src, 2), 4);  // frees the old area, or ASan reports a leak
  got += Bytes(dst = mem_alloc_copy(dst, nullptr, 2), 4);
  EXPECT_EQ(Bytes("ab\0\0\0\0\0\0\0\0", 10), got + Bytes(dst = mem_alloc_copy(dst, src, -1), 2));
  free(dst);
}

template <typename T>
Bytes BytesOf(T value) {
  return Bytes(reinterpret_cast<const char*>(&value), sizeof value);
}

// Wire order is least significant first; both host branches run here.
TEST(ByteOrder, BothHostOrdersAndInPlaceConverters) {
  ASSERT_EQ(1, iIsIntel()) << "these expectations are for a little-endian host";
  EXPECT_EQ(Bytes("\x67\x12\0\0\x2C\x01", 6), BytesOf(iCnvU32(4711)) + BytesOf(iCnvU16(300)));
  long long i64 = -2;
  unsigned long long u64 = 0x0102030405060708;  // in place, and nothing without an area
  EXPECT_EQ(std::tuple(iCnvI16(-2), iCnvI32(-2), *_CnvInt64(&i64), *_CnvUint64(&u64),
                       _CnvInt64(nullptr), _CnvUint64(nullptr)),
            std::tuple(short{-2}, -2, -2LL, 0x0102030405060708ULL, nullptr, nullptr));
  using namespace qx_byteorder;
  for (bool little : {true, false}) {
    EXPECT_EQ(little ? 0x1234 : 0x3412, ToWire16(0x1234, little));
    EXPECT_EQ(little ? 0x12345678u : 0x78563412u, ToWire32(0x12345678, little));
    EXPECT_EQ(little ? 0x0102030405060708u : 0x0807060504030201u,
              ToWire64(0x0102030405060708, little));
  }
  EXPECT_EQ(-257, static_cast<short>(ToWire16(static_cast<uint16_t>(-2), false)));
  // CNV_Int gives least significant first, CNV_X most significant first.
  const std::tuple<bool, bool, Bytes, Bytes> cases[] = {
      {true, false, "\1\0\0\0"s, "\0\0\0\1"s},
      {true, true, "\1\0\0\0"s, "\1\0\0\0"s},
      {false, true, "\0\0\0\1"s, "\1\0\0\0"s},
      {false, true, "\1\2"s, "\2\1"s},
      {true, false, "\1\2\3\4\5\6\7\10"s, "\10\7\6\5\4\3\2\1"s},
      {true, false, "\1\2\3"s, "\1\2\3"s}};  // other sizes stay as they are
  for (const auto& [host_is_little, want_little, in, out] : cases) {
    Bytes field = in;
    ToOrder(field.data(), static_cast<short>(field.size()), host_is_little, want_little);
    EXPECT_EQ(out, field) << host_is_little << out.size();
  }
  int one = 1;
  const Bytes swapped = (CNV_X(&one, sizeof one), BytesOf(one));
  CNV_Int(&one, sizeof one);
  EXPECT_EQ(Bytes("\0\0\0\1\0\0\0\1", 8), swapped + BytesOf(one));
}

// Signed comparisons at equality and across zero; 4-byte addends are sign- or zero-extended.
TEST(Arithmetic64, SignedComparisonsAndExtension) {
  long long m1 = -1, p1 = 1;
  int i_m1 = -1, i_p1 = 1;
  EXPECT_EQ(std::make_tuple(0, 1, 0, 1, 0, 1, 0),
            std::make_tuple(MyGt8(&m1, &p1), MyGt8(&p1, &m1), MyGt8(&p1, &p1), MyLe8(&m1, &p1),
                            MyLe8(&p1, &m1), MyLe8(&p1, &p1), MyGt4(&i_m1, &i_p1)));
  EXPECT_EQ(std::make_tuple(1, 0, 1, 0, 1),
            std::make_tuple(MyGt4(&i_p1, &i_m1), MyGt4(&i_p1, &i_p1), MyLe4(&i_m1, &i_p1),
                            MyLe4(&i_p1, &i_m1), MyLe4(&i_p1, &i_p1)));
  long long after4 = 0, after8 = 0, wrapped = LLONG_MAX;
  MyAddFrom4(&after4, -1), myAdd8(&after8, 0xFFFFFFFFu), MyAddFrom8(&wrapped, &p1);
  EXPECT_EQ(std::make_tuple(-1LL, 4294967295LL, LLONG_MIN),
            std::make_tuple(after4, after8, wrapped));
}

TEST(NumberTexts, AddressIntegerAndHexWithinTheirAreas) {
  const void* p = reinterpret_cast<const void*>(uintptr_t{0xABC12345678});
  char text[12];
  qx_byteorder::AddrText(p, text, sizeof text, false);
  EXPECT_STREQ("78563412", text);
  memset(text, 'x', sizeof text);
  CnvAddrStr(p, text, 5);
  EXPECT_EQ(Bytes("1234\0xxx", 8), Bytes(text, 8));
  CnvAddrStr(p, text, sizeof text);
  EXPECT_STREQ("12345678", text);
  for (const char* digits : {"18446744073709551615", "4711"}) {
    char area[33];  // right-aligned in a 32-character field
    const char* first = CnvIntToChar(strtoull(digits, nullptr, 10), area, sizeof area);
    EXPECT_STREQ(digits, first);
    EXPECT_EQ(Bytes(32 - strlen(digits), ' '), Bytes(static_cast<const char*>(area), first));
  }
  char area[40];
  EXPECT_EQ(area, CnvIntToChar(0, area, sizeof area));  // 0 stands at the start
  EXPECT_STREQ("0", area);
  EXPECT_STREQ("1234", CnvIntToChar(123456, area, 5));  // too small for the field: cut
  const unsigned char in[4] = {0x00, 0xFF, 0xA5, 0x1C};
  char out[10] = "xxxxxxxx";
  EXPECT_EQ(-2, convert2hex(in, 4, out, 9) + convert2hex(in, -1, out, 9));  // out untouched
  EXPECT_STREQ("xxxxxxxx", out);
  EXPECT_EQ(0, convert2hex(in, 4, out, 10));
  EXPECT_STREQ("00FFA51C", out);
  EXPECT_EQ(0, convert2hex(in, 0, out, 10));  // no bytes: an empty text
  EXPECT_STREQ("", out);
}

// All 256 bytes: 7-bit ones return (not 0x13, 0x7F), 8-bit as 0x07 (Ä Ö Ü as [ \ ]), no clash.
TEST(Ebcdic, KnownPairsAndRoundTripOverAllBytes) {
  EXPECT_EQ(0, iIsEbcdic());
  for (auto [ascii, ebcdic] :
       {std::pair<Bytes, Bytes>{"A1[az09 |\n", "\xC1\xF1\xBB\x81\xA9\xF0\xF9\x40\x4F\x25"},
        {"\\]^`{}~", "\xBC\xBD\x6A\x4A\xFB\xFD\xFF"}}) {
    Bytes text = ascii;
    ToEbcdic(text.data(), static_cast<int>(text.size()));
    EXPECT_EQ(ebcdic, text);
    ToAscii(text.data(), static_cast<int>(text.size()));
    EXPECT_EQ(ascii, text);
  }
  char text[] = "abc";
  ToEbcdic(text, 0), ToAscii(text, -1);
  EXPECT_STREQ("abc", text);
  const std::map<int, int> kBack = {
      {0x13, 0x12}, {0x7F, 7}, {0xC4, '['}, {0xD6, '\\'}, {0xDC, ']'}};
  std::vector<int> preimages(256, 0);
  for (int b = 0; b < 256; ++b) {
    char c = static_cast<char>(b);
    ToEbcdic(&c, 1);
    if (b < 0x7F) ++preimages[static_cast<unsigned char>(c)];
    ToAscii(&c, 1);
    const auto exception = kBack.find(b);
    const int expected = exception != kBack.end() ? exception->second : b < 0x80 ? b : 0x07;
    EXPECT_EQ(expected, static_cast<unsigned char>(c)) << "byte 0x" << std::hex << b;
  }
  for (int e = 0; e < 256; ++e) {
    EXPECT_LE(preimages[e], 1) << "EBCDIC 0x" << std::hex << e;
    EXPECT_TRUE(preimages[e] > 0 || e == 0x07 || ebcdic037_to_ascii[e] == 0xFE) << e;
  }
}

// Valid codes are kept; others get the lowest substitute code, or a blank without one.
TEST(CodeTab, SetCodeTabAndAreaConv) {
  using Entries = std::vector<std::pair<int, unsigned char>>;
  const std::pair<Entries, Entries> cases[] = {
      {{{'a', kCodeValid}}, {{'a', 255 - 'a'}, {'b', ' '}}},
      {{{5, kCodeSubstitute}, {9, kCodeSubstitute | kCodeValid}, {7, kCodeValid}},
       {{5, 250}, {6, 250}, {7, 248}, {9, 246}, {255, 250}}}};
  for (const auto& [attributes, expected] : cases) {
    std::vector<unsigned char> description(kCodeTabDescriptionSize, 0);
    for (int i = 0; i < kCodeTabSize; ++i)
      description[i] = static_cast<unsigned char>(255 - i);
    for (auto [i, a] : attributes)
      description[kCodeTabSize + i] = a;
    unsigned char table[kCodeTabSize + 1];
    table[kCodeTabSize] = '#';  // a guard behind the table
    SetCodeTab(table, nullptr), SetCodeTab(nullptr, description.data());  // nothing to do
    SetCodeTab(table, description.data());
    EXPECT_EQ(table[kCodeTabSize], '#');
    for (auto [i, v] : expected)
      EXPECT_EQ(v, table[i]) << "entry " << i;
  }
  unsigned char upper[kCodeTabSize];
  for (int i = 0; i < kCodeTabSize; ++i)
    upper[i] = static_cast<unsigned char>(toupper(i));
  const char in[3] = {'a', '\xE4', 'z'};  // exactly three readable bytes
  char out[4] = {0, 0, 0, '#'};
  char same[] = "mixed Text";
  EXPECT_EQ(std::make_tuple(3, 10, 0),
            std::make_tuple(AreaConv(out, in, 3, upper), AreaConv(same, same, 10, upper),
                            AreaConv(same, same, -3, upper)));
  EXPECT_EQ("A\xE4Z#|MIXED TEXT", Bytes(out, 4) + "|" + same);
}

// The length is written and read only behind the eye-catcher, as eight digits.
TEST(ProtocolHeader, LengthFieldAndFourByteCopy) {
  unsigned char h[kProtocolHeaderSize + 1];
  h[kProtocolHeaderSize] = 0x5A;  // guard byte behind the header
  EXPECT_EQ(CrProtocolHeader(h), 48);
  EXPECT_EQ(Bytes(reinterpret_cast<char*>(h), 49),
            "00000048QX7:global001NAT" + Bytes(24, ' ') + "\x5A");
  EXPECT_EQ(SetProtocolLength(h, 0) + GetProtocolLength(h) + SetProtocolLength(h, 339), 339);
  EXPECT_EQ(GetProtocolLength(h), 339);
  EXPECT_EQ(SetProtocolLength(h, 100000000), 100000000);  // does not fit: field left alone
  EXPECT_EQ(SetProtocolLength(h, -1), -1);
  EXPECT_EQ(Bytes(reinterpret_cast<char*>(h), 18), "00000339QX7:global");
  EXPECT_EQ((memcpy(h, "0012x999", 8), GetProtocolLength(h)), 12);  // leading digits, as atoi
  EXPECT_EQ((h[kProtoEyeCatchOffset] = 'q', GetProtocolLength(h)), 0);
  EXPECT_EQ(SetProtocolLength(h, 77), 77);
  EXPECT_EQ(Bytes(reinterpret_cast<char*>(h), 8), "0012x999");
  unsigned char four[4] = {0x01, 0x02, 0x03, 0xFF}, out[6] = {};
  i4_memcopy(out + 1, four);  // four bytes, nothing around them
  EXPECT_EQ(Bytes(reinterpret_cast<char*>(out), 6), Bytes("\0\x01\x02\x03\xFF\0", 6));
}

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
constexpr const char* kUnknownName = "no-such-host.invalid";
constexpr const char* kUnnamedAddress = "192.0.2.1";
// Without a name server an unknown name may be "try again"; text and code must agree.
void ExpectLookupFailure(const char* text, int code) {
  EXPECT_TRUE(code == HOST_NOT_FOUND || code == TRY_AGAIN) << code;
  EXPECT_STREQ(code == HOST_NOT_FOUND ? "HOST_NOT_FOUND" : "TRY_AGAIN", text);
}

// Look-ups clear errno on success and cut to the area.
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
    errno = EINVAL, lookup(name, text, size);
    if (want == nullptr) {
      ExpectLookupFailure(text, errno);
    } else {
      EXPECT_STREQ(want, text) << name;
      EXPECT_TRUE(strcmp(want, name) == 0 || errno == 0) << name;  // literals are no look-up
    }
  }
}

TEST(VerifyHostDef, SplitsPortAndResolves) {
  EXPECT_EQ(GetRecvSocketBuffer(-1) + GetSendSocketBuffer(-1), 0);  // no socket, no size
  const std::tuple<Bytes, int, int, const char*, const char*, int> cases[] = {
      {"127.0.0.1:2217", 2217, 0, "localhost", "127.0.0.1", 64},
      {"localhost", 0, 0, "localhost", "127.0.0.1", 64},
      {std::string(kUnnamedAddress) + ":2217", 2217, 1, "", kUnnamedAddress, 64},
      {std::string(kUnknownName) + ":99", 99, -1, kUnknownName, "", 64},
      {std::string(300, 'h') + ":1", 0, -1, "hhhhhhh", "", 8}};  // ":1" lies past 255 bytes
  for (const auto& [def, port, result, want_host, want_ip, host_size] : cases) {
    std::vector<char> host(host_size, 'x');
    char ip[16];
    qx7_error err;  // any bytes at all before the call
    memset(&err, 0x55, sizeof err);
    const int got = verifyHostDef(def.c_str(), host.data(), host_size, ip, 16, &err);
    EXPECT_EQ(std::make_tuple(port, Bytes(want_host), Bytes(want_ip), result, 0),
              std::make_tuple(got, Bytes(host.data()), Bytes(ip), err.qx_result, err.qx_msgnr))
        << def;
    if (result != 0)
      ExpectLookupFailure(err.qx_msgInsert, err.qx_errno);
    else
      EXPECT_EQ(std::make_pair(0, Bytes()), std::make_pair(err.qx_errno, Bytes(err.qx_msgInsert)));
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
  const std::tuple<std::string, std::string, int, const char*, std::string> cases[] = {
      {"full line", kLetters, 16, "00016", kIndent + "00000000" + kLettersLine},
      {"short last line padded", kLetters + std::string("\x01 z\xFF", 4), 20, "00020",
       kIndent + "00000000" + kLettersLine + PadTo(kIndent + "00000010  01207AFF", 59) +
           "  >. z.<\n"},
      {"repeats left out, last shown", std::string(48, 'x'), 48, "00048",
       kIndent + "00000000=" + kXLine + kIndent + "00000020 " + kXLine},
      {"two equal lines both shown", std::string(32, 'x'), 32, "00032",
       kIndent + "00000000 " + kXLine + kIndent + "00000010 " + kXLine},
      {"empty", "abc", 0, "00000", ""},
      {"negative", "abc", -5, "-0005", ""}};
  for (const auto& [name, bytes, len, shown_len, body] : cases) {
    Area area = AreaOf(bytes);
    CaptureStdout();
    EXPECT_EQ(0, ZUMEM_Trace("T", area.data(), len));
    EXPECT_EQ(TraceHeading("T", area.data(), shown_len) + body, GetCapturedStdout()) << name;
  }
  // MemTrace cuts a long title where the address starts; FormMemTrace right-aligns it in 40.
  const std::string long_id(80, 'i');
  CaptureStdout();
  MemTrace(long_id.c_str(), kLetters.data(), 0);
  FormMemTrace("name", kLetters.data(), 0);
  EXPECT_EQ(TraceHeading(long_id, kLetters.data(), "00000") +
                TraceHeading(std::string(36, ' ') + "name : ", kLetters.data(), "00000"),
            GetCapturedStdout());
  Area area = AreaOf(kLetters + "QRST");
  CaptureStdout();
  const char* text = ZUMEM_TraceStr("S", area.data(), 20);  // prints heading, returns last line
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
  Area mixed = AreaOf("!./\\a_[-Zz");         // the ends of the shown ranges; "[" is not shown
  CaptureStdout();
  iPrtMem(equal.data(), 32, "t");
  iPrtMem(mixed.data(), 10, "u");
  std::string repeated =
      PadTo(PrtLineStart(equal.data(), 0) + "7e7e7e7e 7e7e7e7e 7e7e7e7e 7e7e7e7e<", 60) + ">" +
      std::string(16, '~') + "<\n";
  repeated[1] = '=';
  EXPECT_EQ(
      PadTo("t", 61) + " 0x000020 (00032)\n" + repeated + PadTo("u", 61) + " 0x00000a (00010)\n" +
          PadTo(PrtLineStart(mixed.data(), 0) + "212e2f5c 615f5b2d 5a7a<", 60) + ">!./\\a_.-Zz<\n",
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
  EXPECT_EQ(GetMemTrace(bytes.data(), 10, nullptr, 8), nullptr);
}

TEST(KeyedFields, GetRestFieldAndGetAttribute) {
  const std::string rest = "A=/first/B=,second,C=::";
  // Area length, code, result size, value (null: not found).
  const std::tuple<int, char, unsigned, const char*> cases[] = {
      {19, 'B', 16, "second"}, {19, 'A', 16, "first"}, {19, 'C', 16, nullptr},
      {23, 'C', 16, ""},       {10, 'B', 16, nullptr}, {18, 'B', 16, nullptr},
      {19, 'B', 3, "sec"},     {0, 'A', 16, nullptr}};
  for (const auto& [rest_len, search, ret_size, value] : cases) {
    std::vector<char> area(rest.begin(), rest.begin() + rest_len);  // not terminated
    std::vector<char> result(ret_size + 1, 'x');
    const int found = GetRestField(area.data(), rest_len, search, result.data(), ret_size);
    EXPECT_EQ(value != nullptr, found) << search << " in " << rest_len;
    EXPECT_STREQ(found ? value : "", found ? result.data() : "");
  }
  char result[8] = "xxxxxxx";
  // No "=" after the code, or a value the area cuts short: not found, yet terminated.
  EXPECT_EQ(
      0, GetRestField("AX/first/", 9, 'A', result, 7) + GetRestField("A=/x/", 5, 'A', nullptr, 7));
  EXPECT_EQ(0, GetRestField("B=,sec", 6, 'B', result, 7));
  EXPECT_STREQ("sec", result);
  const std::tuple<const char*, const char*, unsigned, const char*> attributes[] = {
      {"HOST=alpha,PORT=2217", "PORT", 16, "2217"},
      {"HOST=alpha,PORT=2217", "HOST", 3, "al"},
      {"HOST=alpha,PORT=2217", "USER", 16, ""},
      {"HOST=,PORT=1", "HOST", 16, ""},
      {"HOST", "HOST", 16, ""}};
  for (const auto& [area, search, ret_size, value] : attributes) {
    std::vector<char> out(ret_size, 'x');
    const int found =
        GetAttribute(area, static_cast<int>(strlen(area)), search, out.data(), ret_size);
    EXPECT_EQ(std::make_pair(int{value[0] != '\0'}, Bytes(value)),
              std::make_pair(found, Bytes(out.data())))
        << search << " in " << area;
  }
  char out[8] = "x";  // without an area, a key or a result area: nothing found, nothing written
  EXPECT_EQ(
      GetAttribute("HOST=a", 6, "HOST", out, 0) + GetAttribute("HOST=a", 6, "HOST", nullptr, 8), 0);
  EXPECT_EQ(out[0], 'x');
  EXPECT_EQ(0,
            GetAttribute(nullptr, 0, "HOST", out, 8) + GetAttribute("HOST=a", 6, nullptr, out, 8));
  EXPECT_STREQ("", out);
}

}  // namespace
