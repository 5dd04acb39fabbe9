// Memory helpers, spin-lock integers, error records, byte order and numbers, code pages and the
// protocol header.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <map>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "common/atomic_int.h"
#include "common/convert.h"
#include "common/ebcdic.h"
#include "common/memory.h"
#include "common/protocol_header.h"
#include "common/qx7_error.h"

namespace {

using Bytes = std::string;
using namespace std::string_literals;

// In a death test's child: limits the address space to what is used now plus 64 MiB and
// sends standard output, and only it, where the death test looks.
void LowerAddressSpace() {
  dup2(STDERR_FILENO, STDOUT_FILENO);
  dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
  long pages = 0;
  FILE* f = fopen("/proc/self/statm", "r");
  if (f == nullptr || fscanf(f, "%ld", &pages) != 1) _exit(99);
  const rlim_t limit = static_cast<rlim_t>(pages) * sysconf(_SC_PAGESIZE) + (64u << 20);
  const rlimit rl{limit, limit};
  if (setrlimit(RLIMIT_AS, &rl) != 0) _exit(99);
}

// MemAllocRetArea ends the process with status 1 and its message on stdout; mem_alloc_copy
// gives null without touching the source.
TEST(MemoryDeathTest, RunningOutOfMemory) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "sanitizer runtimes reserve terabytes of address space";
#endif
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  constexpr size_t kTooMuch = 256u << 20;
  EXPECT_EXIT(
      {
        LowerAddressSpace();
        MemAllocRetArea(kTooMuch);
      },
      testing::ExitedWithCode(1),
      "\nerror on calloc\\(\\)-call, MemAllocRetArea\\(\\), 'Cannot allocate memory'\n$");
  EXPECT_EXIT(
      {
        LowerAddressSpace();
        const char* unreadable = reinterpret_cast<const char*>(16);  // a copy would fault
        printf("%s", mem_alloc_copy(nullptr, unreadable, int{kTooMuch}) ? "area" : "null");
        fflush(stdout);
        _exit(0);
      },
      testing::ExitedWithCode(0), "\nnull$");
}

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
  EXPECT_EQ(0, errno);
  EXPECT_EQ(Bytes("ab\0c\0\0", 6), Bytes(copy, 6));
  free(copy);
  for (int length : {-5, 0, 6}) {
    char* zeroes = MemCopy(nullptr, length);
    const int n = length > 0 ? length + 2 : 2;
    EXPECT_EQ(Bytes(n, '\0'), Bytes(zeroes, n)) << length;
    free(zeroes);
  }
  char* dst = MemCopy("old", 3);
  dst = mem_alloc_copy(dst, src, 2);  // frees the old area, or ASan reports a leak
  EXPECT_EQ(Bytes("ab\0\0", 4), Bytes(dst, 4));
  dst = mem_alloc_copy(dst, nullptr, 2);
  EXPECT_EQ(Bytes(4, '\0'), Bytes(dst, 4));
  dst = mem_alloc_copy(dst, src, -1);
  EXPECT_EQ(Bytes(2, '\0'), Bytes(dst, 2));
  free(dst);
}

TEST(AtomicInt, LockKeepsIncrementsOfTwoThreadsWhole) {
  atomic_int_t ai;
  ASSERT_EQ(0, atomic_lock_init(&ai));
  EXPECT_EQ(-7, atomic_int_set(&ai, -7));
  EXPECT_EQ(0, atomic_int_init(&ai));
  constexpr int kRounds = 200000;
  auto worker = [&ai] {
    for (int i = 0; i < kRounds; ++i) {
      AtomicLockGuard guard(&ai);
      ai.value = ai.value + 1;
    }
  };
  std::thread a(worker), b(worker);
  a.join();
  b.join();
  EXPECT_EQ(2 * kRounds, atomic_int_get(&ai));
  EXPECT_EQ(0, atomic_lock_destroy(&ai));
}

// The fillers set the number and a bounded insert, and leave result and errno alone.
TEST(Qx7Error, FillersSetNumberAndBoundedInsertOnly) {
  qx7_error e{};
  e.qx_result = 11;
  e.qx_errno = 22;
  FillMessageOnPermissionError(&e, 2, "nobody");
  EXPECT_EQ(2000102, e.qx_msgnr);
  EXPECT_EQ("getpwnam(nobody)|2 - " + Bytes(strerror(2)), e.qx_msgInsert);
  FillMessageOnPermissionError(&e, 2, Bytes(2000, 'u').c_str());
  EXPECT_EQ("getpwnam(" + Bytes(1014, 'u'), e.qx_msgInsert);
  FillMessageOnPasswordError(&e, 13, "%s|%d", "alice", 5);
  EXPECT_EQ(2001007, e.qx_msgnr);
  EXPECT_STREQ("alice|5", e.qx_msgInsert);
  FillMessageOnPasswordError(&e, 0, "%s", Bytes(3000, 'p').c_str());
  EXPECT_EQ(Bytes(1023, 'p'), e.qx_msgInsert);
  EXPECT_EQ(11, e.qx_result);
  EXPECT_EQ(22, e.qx_errno);
}

template <typename T>
Bytes BytesOf(T value) {
  return Bytes(reinterpret_cast<const char*>(&value), sizeof value);
}

// Wire order is least significant first; both host branches run here.
TEST(ByteOrder, BothHostOrdersAndInPlaceConverters) {
  ASSERT_EQ(1, iIsIntel()) << "these expectations are for a little-endian host";
  EXPECT_EQ(Bytes("\x67\x12\0\0", 4), BytesOf(iCnvU32(4711)));
  EXPECT_EQ(Bytes("\x2C\x01", 2), BytesOf(iCnvU16(300)));
  EXPECT_EQ(Bytes("\xFE\xFF\xFF\xFF", 4), BytesOf(iCnvI32(-2)));
  long long i64 = 0x0102030405060708LL;
  EXPECT_EQ(0x0102030405060708LL, *_CnvInt64(&i64));
  using namespace qx_byteorder;
  for (bool little : {true, false}) {
    EXPECT_EQ(little ? 0x1234 : 0x3412, ToWire16(0x1234, little));
    EXPECT_EQ(little ? 0x12345678u : 0x78563412u, ToWire32(0x12345678, little));
    EXPECT_EQ(little ? 0x0102030405060708u : 0x0807060504030201u,
              ToWire64(0x0102030405060708, little));
  }
  EXPECT_EQ(-257, static_cast<short>(ToWire16(static_cast<uint16_t>(-2), false)));

  struct Case {  // CNV_Int gives least significant first, CNV_X most significant first
    bool host_is_little, want_little;
    Bytes in, out;
  } cases[] = {{true, false, "\1\0\0\0"s, "\0\0\0\1"s},
               {true, true, "\1\0\0\0"s, "\1\0\0\0"s},
               {false, true, "\0\0\0\1"s, "\1\0\0\0"s},
               {false, true, "\1\2"s, "\2\1"s},
               {true, false, "\1\2\3\4\5\6\7\10"s, "\10\7\6\5\4\3\2\1"s},
               {true, false, "\1\2\3"s, "\1\2\3"s}};  // other sizes stay as they are
  for (Case& c : cases) {
    Bytes field = c.in;
    ToOrder(field.data(), static_cast<short>(field.size()), c.host_is_little, c.want_little);
    EXPECT_EQ(c.out, field) << c.host_is_little << c.out.size();
  }
  int one = 1;
  CNV_X(&one, sizeof one);
  EXPECT_EQ(Bytes("\0\0\0\1", 4), BytesOf(one));
  CNV_Int(&one, sizeof one);
  EXPECT_EQ(Bytes("\0\0\0\1", 4), BytesOf(one));
}

// Signed comparisons at equality and across zero; 4-byte addends are sign- or zero-extended.
TEST(Arithmetic64, SignedComparisonsAndExtension) {
  long long m1 = -1, p1 = 1, sum = 0;
  int i_m1 = -1, i_p1 = 1;
  EXPECT_EQ(std::make_tuple(0, 1, 0, 1, 0, 1, 0),
            std::make_tuple(MyGt8(&m1, &p1), MyGt8(&p1, &m1), MyGt8(&p1, &p1), MyLe8(&m1, &p1),
                            MyLe8(&p1, &m1), MyLe8(&p1, &p1), MyGt4(&i_m1, &i_p1)));
  EXPECT_EQ(std::make_tuple(1, 0, 1),
            std::make_tuple(MyGt4(&i_p1, &i_m1), MyGt4(&i_p1, &i_p1), MyLe4(&i_m1, &i_p1)));
  MyAddFrom4(&sum, -1);
  EXPECT_EQ(-1, sum);
  sum = 0;
  myAdd8(&sum, 0xFFFFFFFFu);
  EXPECT_EQ(4294967295LL, sum);
  sum = LLONG_MAX;
  MyAddFrom8(&sum, &p1);
  EXPECT_EQ(LLONG_MIN, sum);  // wraps
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
  EXPECT_EQ(-1, convert2hex(in, 4, out, 9));  // one short of the terminator: untouched
  EXPECT_EQ(-1, convert2hex(in, -1, out, 9));
  EXPECT_STREQ("xxxxxxxx", out);
  EXPECT_EQ(0, convert2hex(in, 4, out, 10));
  EXPECT_STREQ("00FFA51C", out);
}

// Over all 256 bytes: 7-bit bytes come back but 0x13 (as 0x12) and 0x7F (as 0x07); 8-bit
// bytes come back as 0x07, except Ä, Ö and Ü, which come back as "[", "\" and "]". No two
// 7-bit bytes share an EBCDIC byte, and an EBCDIC byte no 7-bit byte lands on gives 0xFE.
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
  ToEbcdic(text, 0);
  ToAscii(text, -1);
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
  struct Case {
    std::vector<std::pair<int, unsigned char>> attributes, expected;
  } cases[] = {{{{'a', kCodeValid}}, {{'a', 255 - 'a'}, {'b', ' '}}},
               {{{5, kCodeSubstitute}, {9, kCodeSubstitute | kCodeValid}, {7, kCodeValid}},
                {{5, 250}, {6, 250}, {7, 248}, {9, 246}, {255, 250}}}};
  for (const Case& c : cases) {
    std::vector<unsigned char> description(kCodeTabDescriptionSize, 0);
    for (int i = 0; i < kCodeTabSize; ++i)
      description[i] = static_cast<unsigned char>(255 - i);
    for (auto [i, a] : c.attributes)
      description[kCodeTabSize + i] = a;
    unsigned char table[kCodeTabSize];
    SetCodeTab(table, description.data());
    for (auto [i, v] : c.expected)
      EXPECT_EQ(v, table[i]) << "entry " << i;
  }
  unsigned char upper[kCodeTabSize];
  for (int i = 0; i < kCodeTabSize; ++i)
    upper[i] = static_cast<unsigned char>(toupper(i));
  const char in[3] = {'a', '\xE4', 'z'};  // exactly three readable bytes
  char out[3];
  EXPECT_EQ(3, AreaConv(out, in, 3, upper));
  EXPECT_EQ("A\xE4Z", Bytes(out, 3));
  char same[] = "mixed Text";
  EXPECT_EQ(10, AreaConv(same, same, 10, upper));
  EXPECT_STREQ("MIXED TEXT", same);
  EXPECT_EQ(0, AreaConv(same, same, -3, upper));
}

// The length is written and read only behind the eye-catcher, as eight digits.
TEST(ProtocolHeader, LengthFieldAndFourByteCopy) {
  unsigned char h[kProtocolHeaderSize + 1];
  h[kProtocolHeaderSize] = 0x5A;  // guard byte behind the header
  EXPECT_EQ(CrProtocolHeader(h), 48);
  EXPECT_EQ(Bytes(reinterpret_cast<char*>(h), 49),
            "00000048QX7:global001NAT" + Bytes(24, ' ') + "\x5A");
  EXPECT_EQ(SetProtocolLength(h, 339), 339);
  EXPECT_EQ(GetProtocolLength(h), 339);
  EXPECT_EQ(SetProtocolLength(h, 100000000), 100000000);  // does not fit: field left alone
  EXPECT_EQ(SetProtocolLength(h, -1), -1);
  EXPECT_EQ(Bytes(reinterpret_cast<char*>(h), 18), "00000339QX7:global");
  memcpy(h, "0012x999", 8);  // leading digits only, as atoi reads them
  EXPECT_EQ(GetProtocolLength(h), 12);
  h[kProtoEyeCatchOffset] = 'q';
  EXPECT_EQ(GetProtocolLength(h), 0);
  EXPECT_EQ(SetProtocolLength(h, 77), 77);
  EXPECT_EQ(Bytes(reinterpret_cast<char*>(h), 8), "0012x999");

  unsigned char four[4] = {0x01, 0x02, 0x03, 0xFF}, out[6] = {};
  i4_memcopy(out + 1, four);
  EXPECT_EQ(Bytes(reinterpret_cast<char*>(out), 6), Bytes("\0\x01\x02\x03\xFF\0", 6));
}

}  // namespace
