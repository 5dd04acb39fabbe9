// The messenger's hooks: logger, character set and the EBCDIC 273 / PC 850 translation.
#include "messenger/hooks.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

#include "common/trace_log.h"

namespace {

std::string LoggedOutput(int msgnr, const char* text) {
  fflush(stdout);
  testing::internal::CaptureStdout();
  __log_set_logger(messenger_logger);
  __log(msgnr, "%s", text);
  __log_set_logger(nullptr);
  fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

TEST(MessengerLogger, OnlyMinusOneReachesTheLog) {
  EXPECT_EQ(LoggedOutput(2000134, "dropped"), "");
  EXPECT_EQ(LoggedOutput(-1, "invalid kz"), "-1 - invalid kz");
  EXPECT_EQ(messenger_logger(3301, "x"), 0);
}

TEST(Hooks, OwnCodeAndGss) {
  EXPECT_EQ(OwnCode(), 1);
  int dummy = 0;
  EXPECT_EQ(is_gss_message(&dummy, &dummy), 0);
}

TEST(Swapcode, KnownPairsBothWays) {
  struct {
    unsigned char ebcdic, pc;
  } pairs[] = {{0xC1, 'A'},
               {0x81, 'a'},
               {0xF0, '0'},
               {0x40, ' '},
               {0x4B, '.'},
               {0xC0, 0x84 /* a umlaut */},
               {0x4A, 0x8E /* A umlaut */},
               {0xA1, 0xE1 /* sharp s */},
               {0x7C, 0xF5 /* section */},
               {0xBC, 0xEE /* overline / macron */}};
  for (const auto& p : pairs) {
    unsigned char b = p.ebcdic;
    Swapcode(kCodeEbcdic, kCodeAscii, &b, 1);
    EXPECT_EQ(b, p.pc) << std::hex << int(p.ebcdic);
    Swapcode(kCodeAscii, kCodeEbcdic, &b, 1);
    EXPECT_EQ(b, p.ebcdic) << std::hex << int(p.pc);
  }
}

TEST(Swapcode, EqualCodesLeaveTheArea) {
  unsigned char area[] = {0xC1, 0xC2, 0x00};
  Swapcode(kCodeEbcdic, kCodeEbcdic, area, 3);
  EXPECT_EQ(area[0], 0xC1);
  Swapcode(kCodeEbcdic, kCodeAscii, area, 2);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(area)), "AB");
  Swapcode(kCodeAscii, kCodeEbcdic, area, 0);
  EXPECT_EQ(area[0], 'A');
}

TEST(Tables, InvertEachOtherWhereBothSidesExist) {
  int without_counterpart = 0;
  for (int e = 0; e < 256; ++e) {
    const unsigned char pc = ebcdic2ascii[e];
    if (pc == 0xFF) {
      ++without_counterpart;
      continue;
    }
    EXPECT_EQ(ascii2ebcdic[pc], e) << "EBCDIC 0x" << std::hex << e;
  }
  for (int a = 0; a < 256; ++a) {
    const unsigned char e = ascii2ebcdic[a];
    if (e != 0xFF) {
      EXPECT_EQ(ebcdic2ascii[e], a) << "PC 0x" << std::hex << a;
    }
  }
  // Every letter and digit of both code pages has a counterpart.
  EXPECT_LT(without_counterpart, 64);
  for (int c = '0'; c <= '9'; ++c)
    EXPECT_NE(ascii2ebcdic[c], 0xFF);
  for (int c = 'A'; c <= 'Z'; ++c)
    EXPECT_EQ(ebcdic2ascii[ascii2ebcdic[c + 32]], c + 32);
}

}  // namespace

namespace {

// The committed tables are what the generator makes of the system's iconv code pages today.
TEST(Tables, CommittedFilesMatchTheGenerator) {
  if (system("command -v python3 >/dev/null 2>&1 && command -v iconv >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "python3 or iconv missing";
  }
  const std::string cmd =
      "python3 " QX_SOURCE_DIR "/scripts/gen_codepages.py --check >/dev/null 2>&1";
  EXPECT_EQ(system(cmd.c_str()), 0) << "regenerate with python3 scripts/gen_codepages.py";
}

}  // namespace
