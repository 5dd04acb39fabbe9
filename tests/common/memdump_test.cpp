// Memory dumps and keyed-field formatters.
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/memdump.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

// An area of exactly the given bytes on the heap, so that any read beyond it is caught.
std::vector<unsigned char> Area(const std::string& bytes) {
  return std::vector<unsigned char>(bytes.begin(), bytes.end());
}

std::string TraceHeading(const std::string& id, const void* addr, const char* length) {
  std::string line = "----->  TRACE: (" + id + ")";
  line.resize(66, ' ');
  char address[16];
  snprintf(address, sizeof address, "%.8X",
           static_cast<unsigned>(reinterpret_cast<uintptr_t>(addr)));
  return line + address + " " + length + "\n";
}

const std::string kIndent(14, ' ');

TEST(ZumemTrace, FullLineShowsOffsetGroupsAndCharacters) {
  auto area = Area("ABCDEFGHIJKLMNOP");
  CaptureStdout();
  EXPECT_EQ(0, ZUMEM_Trace("T1", area.data(), 16));
  EXPECT_EQ(TraceHeading("T1", area.data(), "00016") + kIndent +
                "00000000  41424344 45464748 494A4B4C 4D4E4F50  >ABCDEFGHIJKLMNOP<\n",
            GetCapturedStdout());
}

TEST(ZumemTrace, ShortLastLineIsPaddedAndUnprintablesAreDots) {
  auto area = Area(std::string("ABCDEFGHIJKLMNOP\x01 z\xFF", 20));
  CaptureStdout();
  ZUMEM_Trace("T2", area.data(), 20);
  const std::string second = kIndent + "00000010  01207AFF";
  EXPECT_EQ(59u, (second + std::string(59 - second.size(), ' ')).size());
  EXPECT_EQ(TraceHeading("T2", area.data(), "00020") + kIndent +
                "00000000  41424344 45464748 494A4B4C 4D4E4F50  >ABCDEFGHIJKLMNOP<\n" + second +
                std::string(59 - second.size(), ' ') + "  >. z.<\n",
            GetCapturedStdout());
}

TEST(ZumemTrace, RepeatedLinesAreLeftOutButTheLastIsShown) {
  auto area = Area(std::string(48, 'x'));
  const std::string groups = " 78787878 78787878 78787878 78787878  >xxxxxxxxxxxxxxxx<\n";
  CaptureStdout();
  ZUMEM_Trace("rep", area.data(), 48);
  EXPECT_EQ(TraceHeading("rep", area.data(), "00048") + kIndent + "00000000=" + groups + kIndent +
                "00000020 " + groups,
            GetCapturedStdout());

  // Two equal lines and nothing behind them: both are shown.
  CaptureStdout();
  ZUMEM_Trace("rep", area.data(), 32);
  EXPECT_EQ(TraceHeading("rep", area.data(), "00032") + kIndent + "00000000 " + groups + kIndent +
                "00000010 " + groups,
            GetCapturedStdout());
}

TEST(ZumemTrace, EmptyAndNegativeLengthsGiveHeadingOnly) {
  auto area = Area("abc");
  struct Case {
    int len;
    const char* shown;
  };
  for (const Case& c : {Case{0, "00000"}, Case{-5, "-0005"}}) {
    CaptureStdout();
    ZUMEM_Trace("none", area.data(), c.len);
    EXPECT_EQ(TraceHeading("none", area.data(), c.shown), GetCapturedStdout());
  }
}

TEST(ZumemTrace, LongTitleIsCutWhereTheAddressStarts) {
  auto area = Area("a");
  const std::string id(80, 'i');
  CaptureStdout();
  MemTrace(id.c_str(), area.data(), 0);
  const std::string heading = GetCapturedStdout();
  EXPECT_EQ(("----->  TRACE: (" + id).substr(0, 66), heading.substr(0, 66));
  EXPECT_EQ(TraceHeading(id, area.data(), "00000").substr(66), heading.substr(66));
}

TEST(FormMemTrace, TitleIsRightAlignedIn40) {
  auto area = Area("a");
  CaptureStdout();
  FormMemTrace("name", area.data(), 0);
  EXPECT_EQ(TraceHeading(std::string(36, ' ') + "name : ", area.data(), "00000"),
            GetCapturedStdout());
}

TEST(ZumemTraceStr, PrintsHeadingAndReturnsLastBodyLine) {
  auto area = Area("ABCDEFGHIJKLMNOPQRST");
  CaptureStdout();
  const char* text = ZUMEM_TraceStr("S", area.data(), 20);
  EXPECT_EQ(TraceHeading("S", area.data(), "00020"), GetCapturedStdout());
  const std::string line = kIndent + "00000010  51525354";
  EXPECT_EQ(line + std::string(59 - line.size(), ' ') + "  >QRST<\n", text);

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

std::string PadTo60(std::string s) {
  if (s.size() < 60) s.resize(60, ' ');
  return s;
}

TEST(IPrtMem, ShortLineShowsOnlyItsCharacterClass) {
  auto area = Area("[.\\a");
  CaptureStdout();
  iPrtMem(area.data(), 4, "title");
  EXPECT_EQ(std::string("title") + std::string(56, ' ') + " 0x000004 (00004)\n" +
                PadTo60(PrtLineStart(area.data(), 0) + "5b2e5c61<") + ">..\\a<\n",
            GetCapturedStdout());
}

TEST(IPrtMem, RepeatedLinesMarkedInColumnOne) {
  auto area = Area(std::string(32, '~') + "ABCDE");
  const std::string hex16 = "7e7e7e7e 7e7e7e7e 7e7e7e7e 7e7e7e7e<";
  CaptureStdout();
  iPrtMem(area.data(), 37, "t");
  std::string first =
      PadTo60(PrtLineStart(area.data(), 0) + hex16) + ">" + std::string(16, '~') + "<\n";
  first[1] = '=';
  EXPECT_EQ(PadTo60("t") + "  0x000025 (00037)\n" + first +
                PadTo60(PrtLineStart(area.data() + 32, 32) + "41424344 45<") + ">ABCDE<\n",
            GetCapturedStdout());
}

TEST(GetMemTrace, GroupsOfFourWithinTheArea) {
  auto bytes = Area(std::string("\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09", 10));
  struct Case {
    int oLen;
    const char* expected;
  };
  for (const Case& c : {Case{64, "00010203 04050607 0809"}, Case{12, "00010203 04"},
                        Case{11, "00010203"}, Case{4, "00"}, Case{3, ""}}) {
    std::vector<char> out(static_cast<size_t>(c.oLen), 'x');
    EXPECT_EQ(out.data(), GetMemTrace(bytes.data(), 10, out.data(), c.oLen));
    EXPECT_STREQ(c.expected, out.data()) << "oLen " << c.oLen;
  }
  char out[8] = "xxxxxxx";
  GetMemTrace(bytes.data(), 0, out, sizeof out);
  EXPECT_STREQ("", out);
}

TEST(GetRestField, WalksFieldsWithinTheGivenLength) {
  const std::string rest = "A=/first/B=,second,C=::";
  struct Case {
    int rest_len;
    char search;
    unsigned ret_size;
    int found;
    const char* value;
  };
  const std::vector<Case> cases = {
      {19, 'B', 16, 1, "second"}, {19, 'A', 16, 1, "first"}, {19, 'C', 16, 0, nullptr},
      {23, 'C', 16, 1, ""},       {10, 'B', 16, 0, nullptr}, {18, 'B', 16, 0, nullptr},
      {19, 'B', 3, 1, "sec"},     {19, 'B', 6, 1, "second"}, {0, 'A', 16, 0, nullptr},
  };
  for (const Case& c : cases) {
    // Exactly rest_len bytes, not terminated.
    std::vector<char> area(rest.begin(), rest.begin() + c.rest_len);
    std::vector<char> result(c.ret_size + 1, 'x');
    EXPECT_EQ(c.found, GetRestField(area.data(), c.rest_len, c.search, result.data(), c.ret_size))
        << c.search << " in " << c.rest_len;
    if (c.value != nullptr) {
      EXPECT_STREQ(c.value, result.data());
    }
  }
  char result[8];
  EXPECT_EQ(0, GetRestField("AX/first/", 9, 'A', result, 7));  // no "=" after the code
}

TEST(GetAttribute, ValueBehindKeyUpToComma) {
  struct Case {
    const char* area;
    const char* search;
    unsigned ret_size;
    int found;
    const char* value;
  };
  const std::vector<Case> cases = {
      {"HOST=alpha,PORT=2217", "PORT", 16, 1, "2217"},
      {"HOST=alpha,PORT=2217", "HOST", 16, 1, "alpha"},
      {"HOST=alpha,PORT=2217", "HOST", 3, 1, "al"},
      {"HOST=alpha,PORT=2217", "USER", 16, 0, ""},
      {"HOST=,PORT=1", "HOST", 16, 0, ""},
      {"HOST", "HOST", 16, 0, ""},
      {"HOST=alpha", "HOST", 1, 0, ""},
  };
  for (const Case& c : cases) {
    std::vector<char> result(c.ret_size, 'x');
    EXPECT_EQ(c.found, GetAttribute(c.area, static_cast<int>(strlen(c.area)), c.search,
                                    result.data(), c.ret_size))
        << c.search << " in " << c.area;
    EXPECT_STREQ(c.value, result.data()) << c.search << " in " << c.area;
  }
}

}  // namespace
