// The messenger in-process: the command line read into the context, SIGUSR1, the logger and
// the EBCDIC 273 / PC 850 tables.
#include "messenger/arguments.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <cctype>
#include <functional>
#include <string>
#include <vector>

#include "common/trace_log.h"
#include "messenger/driver.h"
#include "messenger/hooks.h"

namespace {

// Parses the arguments into a freshly initialised context (argv[0] is added).
PCX Parse(std::vector<std::string> args) {
  PCX ctx;
  initialize_messenger(&ctx);
  args.insert(args.begin(), "qx_jpmd");
  std::vector<char*> argv;
  for (auto& a : args)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  EXPECT_EQ(parse_arguments(&ctx, static_cast<int>(args.size()), argv.data()), 0);
  return ctx;
}

// Each keyword's conversion, bound and fallback; the last occurrence of a key wins.
TEST(Arguments, KeywordsSetTheirFields) {
  using C = const PCX&;
  const struct {
    std::vector<std::string> args;
    std::function<void(C)> check;
  } cases[] = {
      {{},
       [](C c) {
         EXPECT_EQ(std::string() + c.melder_type + c.status + c.output_login, "URN");
         EXPECT_EQ(std::vector<int>({c.IoTimeOut, c.connect_retry, c.connect_wait, c.running_mode}),
                   std::vector<int>({60, 3, 120, 3}));
         EXPECT_EQ(std::string(c.eyec, 8), std::string(8, '\0'));
       }},
      {{"jnr=12abc", "PNR= 4711", "RET=-3"},
       [](C c) {
         EXPECT_EQ(std::vector<int>({c.jobnri, c.portnri, c.reti}),
                   std::vector<int>({12, 4711, -3}));
       }},
      {{"JNR=5", "JNR="}, [](C c) { EXPECT_EQ(c.jobnri, 0); }},
      {{"TXT=a=b", "IPA=Host.Example"},
       [](C c) { EXPECT_EQ(std::string(c.info_text) + c.ipAddr, "a=bHost.Example"); }},
      {{"TYP=E"}, [](C c) { EXPECT_EQ(std::string() + c.melder_type + c.status, "EE"); }},
      {{"TYP=S"}, [](C c) { EXPECT_EQ(std::string() + c.melder_type + c.status, "SR"); }},
      {{"TYP=E", "TYP=e"}, [](C c) { EXPECT_EQ(std::string() + c.melder_type + c.status, "eR"); }},
      {{"TYP="},
       [](C c) { EXPECT_EQ(std::string(1, c.melder_type) + c.status, std::string("\0R", 2)); }},
      {{"TIMEOUT=none"}, [](C c) { EXPECT_EQ(c.IoTimeOut, 0); }},
      {{"TIMEOUT=600"}, [](C c) { EXPECT_EQ(c.IoTimeOut, 600); }},
      {{"TIMEOUT=601"}, [](C c) { EXPECT_EQ(c.IoTimeOut, 60); }},
      {{"TIMEOUT=-5"}, [](C c) { EXPECT_EQ(c.IoTimeOut, -5); }},
      {{"WAIT=5", "RETRY=-2"}, [](C c) { EXPECT_EQ(c.connect_wait * 10 + c.connect_retry, 1198); }},
      {{"ULOGIN=y"}, [](C c) { EXPECT_EQ(c.output_login, 'N'); }},
      {{"ULOGIN=Yes"}, [](C c) { EXPECT_EQ(c.output_login, 'Y'); }},
      {{"MNR=65537"}, [](C c) { EXPECT_EQ(c.client, 1); }},
      {{"VTYPE=Cx", "VALUE=v=1", "OUTFILE=/tmp/o"},
       [](C c) { EXPECT_EQ(c.var_type + std::string(c.var_value) + c.output_file, "Cv=1/tmp/o"); }},
      {{"VTYPE="}, [](C c) { EXPECT_EQ(c.var_type, '\0'); }},
      {{"TXT", "=value", "BOGUS=1", "-V", "txt=ok"},
       [](C c) { EXPECT_EQ(std::string(c.info_text) + std::to_string(c.jobnri), "ok0"); }},
      // A key longer than 63 characters matches no keyword; bytes from 0x80 up are kept.
      {{std::string(100, 'K') + "=1", "TXT=\xe4\x80\xff", "TYP=\xc4", std::string(70, 'A')},
       [](C c) {
         EXPECT_EQ(std::string(c.info_text) + c.melder_type + c.status, "\xe4\x80\xff\xc4R");
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    c.check(Parse(c.args));
  }
}

TEST(Arguments, TextsAreCutToTheirFields) {
  const std::string big(100000, 'x');
  const PCX c = Parse({"TXT=" + std::string(70, 't'), "IPA=" + big, "OUTFILE=" + big,
                       "NAME=" + std::string(300, 'n'), "VALUE=" + big});
  EXPECT_EQ(std::string(c.info_text), std::string(63, 't'));
  EXPECT_EQ(std::string(c.var_name), std::string(200, 'n'));
  EXPECT_EQ(std::vector<size_t>({strlen(c.ipAddr), strlen(c.output_file), strlen(c.var_value)}),
            std::vector<size_t>({63, 1023, 1023}));
  EXPECT_EQ(c.filler1 | c.filler2, 0);
}

// SIGUSR1 only interrupts: it must neither end the process nor stay blocked.
TEST(Driver, Sigusr1IsHarmlessAfterInitialisation) {
  PCX ctx;
  ASSERT_EQ(initialize_messenger(&ctx), 0);
  EXPECT_EQ(raise(SIGUSR1), 0);
  sigset_t mask;
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &mask), 0);
  EXPECT_FALSE(sigismember(&mask, SIGUSR1));
}

TEST(Hooks, OnlyEventMinusOneReachesTheLog) {
  for (int nr : {2000134, -1}) {
    fflush(stdout);
    testing::internal::CaptureStdout();
    __log_set_logger(messenger_logger);
    __log(nr, "%s", "text");
    __log_set_logger(nullptr);
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), nr == -1 ? "-1 - text" : "");
  }
}

TEST(Hooks, SwapcodeKnownPairsBothWays) {
  const unsigned char pairs[][2] = {{0xC1, 'A'},  {0x81, 'a'},  {0xF0, '0'},  {0x40, ' '},
                                    {0x4B, '.'},  {0xC0, 0x84}, {0x4A, 0x8E}, {0xA1, 0xE1},
                                    {0x7C, 0xF5}, {0xBC, 0xEE}};
  for (const auto& p : pairs) {
    unsigned char b = p[0];
    Swapcode(kCodeEbcdic, kCodeAscii, &b, 1);
    EXPECT_EQ(b, p[1]) << std::hex << int(p[0]);
    Swapcode(kCodeAscii, kCodeEbcdic, &b, 1);
    EXPECT_EQ(b, p[0]) << std::hex << int(p[1]);
  }
  unsigned char area[] = {0xC1, 0xC2, 0};
  Swapcode(kCodeEbcdic, kCodeEbcdic, area, 2);  // equal codes: untouched
  Swapcode(kCodeEbcdic, kCodeAscii, area, 2);
  EXPECT_STREQ(reinterpret_cast<char*>(area), "AB");
}

TEST(Hooks, TablesInvertEachOtherWhereBothSidesExist) {
  int without_counterpart = 0;
  for (int x = 0; x < 256; ++x) {
    const unsigned char pc = ebcdic2ascii[x], e = ascii2ebcdic[x];
    without_counterpart += pc == 0xFF;
    EXPECT_TRUE(pc == 0xFF || ascii2ebcdic[pc] == x) << "EBCDIC 0x" << std::hex << x;
    EXPECT_TRUE(e == 0xFF || ebcdic2ascii[e] == x) << "PC 0x" << std::hex << x;
  }
  EXPECT_LT(without_counterpart, 64);
  for (int c = '0'; c <= 'z'; ++c)
    EXPECT_TRUE(!isalnum(c) || ascii2ebcdic[c] != 0xFF) << char(c);
}

// The committed tables are what the generator makes of the system's iconv code pages today.
TEST(Hooks, CommittedTablesMatchTheGenerator) {
  if (system("command -v python3 >/dev/null 2>&1 && command -v iconv >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "python3 or iconv missing";
  EXPECT_EQ(system("python3 " QX_SOURCE_DIR "/scripts/gen_codepages.py --check >/dev/null 2>&1"), 0)
      << "regenerate with python3 scripts/gen_codepages.py";
}

}  // namespace
