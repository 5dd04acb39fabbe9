// Memory dumps and keyed-field formatters. Areas are heap vectors of exactly the bytes given,
// so that a read beyond them is caught under ASan.
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/memdump.h"

namespace {

using Area = std::vector<unsigned char>;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

Area AreaOf(const std::string& bytes) {
  return Area(bytes.begin(), bytes.end());
}

std::string TraceHeading(const std::string& id, const void* addr, const char* length) {
  std::string line = ("----->  TRACE: (" + id + ")" + std::string(66, ' ')).substr(0, 66);
  char address[16];
  snprintf(address, sizeof address, "%.8X",
           static_cast<unsigned>(reinterpret_cast<uintptr_t>(addr)));
  return line + address + " " + length + "\n";
}

std::string PadTo(std::string s, size_t width) {
  if (s.size() < width) s.resize(width, ' ');
  return s;
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
  };
  const Case cases[] = {
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
}

TEST(ZumemTrace, TitleVariants) {
  Area area = AreaOf("a");
  const std::string long_id(80, 'i');
  CaptureStdout();
  MemTrace(long_id.c_str(), area.data(), 0);  // cut where the address starts
  FormMemTrace("name", area.data(), 0);       // right-aligned in 40
  EXPECT_EQ(TraceHeading(long_id, area.data(), "00000") +
                TraceHeading(std::string(36, ' ') + "name : ", area.data(), "00000"),
            GetCapturedStdout());
}

TEST(ZumemTraceStr, PrintsHeadingAndReturnsLastBodyLine) {
  Area area = AreaOf(kLetters + "QRST");
  CaptureStdout();
  const char* text = ZUMEM_TraceStr("S", area.data(), 20);
  EXPECT_EQ(TraceHeading("S", area.data(), "00020"), GetCapturedStdout());
  EXPECT_EQ(PadTo(kIndent + "00000010  51525354", 59) + "  >QRST<\n", text);
  CaptureStdout();
  EXPECT_STREQ("", ZUMEM_TraceStr("S", area.data(), 0));
  GetCapturedStdout();
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
  struct Case {
    int oLen;
    const char* expected;
  };
  for (const Case& c : {Case{64, "00010203 04050607 0809"}, Case{12, "00010203 04"},
                        Case{11, "00010203"}, Case{3, ""}}) {
    std::vector<char> out(c.oLen, 'x');
    EXPECT_STREQ(c.expected, GetMemTrace(bytes.data(), 10, out.data(), c.oLen)) << c.oLen;
  }
}

TEST(GetRestField, WalksFieldsWithinTheGivenLength) {
  const std::string rest = "A=/first/B=,second,C=::";
  struct Case {
    int rest_len;
    char search;
    unsigned ret_size;
    const char* value;  // null: not found
  };
  const Case cases[] = {
      {19, 'B', 16, "second"}, {19, 'A', 16, "first"}, {19, 'C', 16, nullptr},
      {23, 'C', 16, ""},       {10, 'B', 16, nullptr}, {18, 'B', 16, nullptr},
      {19, 'B', 3, "sec"},     {0, 'A', 16, nullptr},
  };
  for (const Case& c : cases) {
    std::vector<char> area(rest.begin(), rest.begin() + c.rest_len);  // not terminated
    std::vector<char> result(c.ret_size + 1, 'x');
    const int found = GetRestField(area.data(), c.rest_len, c.search, result.data(), c.ret_size);
    EXPECT_EQ(c.value != nullptr ? 1 : 0, found) << c.search << " in " << c.rest_len;
    if (found) {
      EXPECT_STREQ(c.value, result.data());
    }
  }
  char result[8];
  EXPECT_EQ(0, GetRestField("AX/first/", 9, 'A', result, 7));  // no "=" after the code
}

TEST(GetAttribute, ValueBehindKeyUpToComma) {
  struct Case {
    const char *area, *search;
    unsigned ret_size;
    const char* value;
  };
  const Case cases[] = {
      {"HOST=alpha,PORT=2217", "PORT", 16, "2217"},
      {"HOST=alpha,PORT=2217", "HOST", 16, "alpha"},
      {"HOST=alpha,PORT=2217", "HOST", 3, "al"},
      {"HOST=alpha,PORT=2217", "USER", 16, ""},
      {"HOST=,PORT=1", "HOST", 16, ""},
      {"HOST", "HOST", 16, ""},
  };
  for (const Case& c : cases) {
    std::vector<char> result(c.ret_size, 'x');
    EXPECT_EQ(c.value[0] != '\0' ? 1 : 0, GetAttribute(c.area, static_cast<int>(strlen(c.area)),
                                                       c.search, result.data(), c.ret_size))
        << c.search << " in " << c.area;
    EXPECT_STREQ(c.value, result.data()) << c.search << " in " << c.area;
  }
}

}  // namespace
