// The messenger in-process: arguments, messages without memory, SIGUSR1, logger, code tables.
#include "messenger/arguments.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cctype>
#include <sstream>
#include <string>
#include <vector>

#include "ccm/ccm.h"
#include "ccm/internal.h"
#include "common/trace_log.h"
#include "messenger/agent_session.h"
#include "messenger/driver.h"
#include "messenger/hooks.h"
#include "messenger/job_messages.h"

namespace {
// Each keyword's conversion, bound, cut and fallback; the last occurrence of a key wins.
TEST(Arguments, KeywordsSetTheirFields) {
  const auto ch = [](char x) { return x != 0 ? std::string(1, x) : std::string("NUL"); };
  const auto num = [](int x) { return std::to_string(x); };
  const std::string big(100000, 'x'), t70(70, 't'), n300(300, 'n');
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{}, "typ=U st=R login=N vtype=NUL to=60 retry=3 wait=120 mode=3 jnr=0 txt= eyec="},
      {{"jnr=12abc", "PNR= 4711", "RET=-3"}, "jnr=12 pnr=4711 ret=-3"},
      {{"JNR=5", "JNR="}, "jnr=0"},
      {{"TXT=a=b", "IPA=Host.Example"}, "txt=a=b ipa=Host.Example"},
      {{"TIMEOUT=none", "TYP=", "ULOGIN=y", "VTYPE="}, "to=0 typ=NUL st=R login=N vtype=NUL"},
      {{"TIMEOUT=600", "TYP=S", "ULOGIN=Yes", "MNR=65537"}, "to=600 typ=S st=R login=Y mnr=1"},
      {{"TIMEOUT=601", "TYP=E"}, "to=60 typ=E st=E"},
      {{"TIMEOUT=-5", "TYP=E", "TYP=e"}, "to=-5 typ=e st=R"},
      {{"WAIT=5", "RETRY=-2"}, "wait=120 retry=-2"},
      {{"VTYPE=Cx", "VALUE=v=1", "OUTFILE=/tmp/o"}, "vtype=C value=v=1 file=/tmp/o"},
      {{"TXT=" + t70, "IPA=" + big, "OUTFILE=" + big, "NAME=" + n300, "VALUE=" + big},
       "txt=" + t70.substr(0, 63) + " ipa=" + big.substr(0, 63) + " file=" + big.substr(0, 1023) +
           " name=" + n300.substr(0, 200) + " value=" + big.substr(0, 1023) + " fill=0"},
      {{std::string(100, 'K') + "=1", "TXT=\xe4\x80\xff", "TYP=\xc4", std::string(70, 'A')},
       "txt=\xe4\x80\xff typ=\xc4 st=R"},
  };
  for (auto [args, want] : cases) {  // the fields after parsing, as " key=value " words
    PCX c;
    initialize_messenger(&c);
    args.insert(args.begin(), "qx_jpmd");
    std::vector<char*> argv;
    for (auto& a : args)
      argv.push_back(a.data());
    argv.push_back(nullptr);
    EXPECT_EQ(parse_arguments(&c, static_cast<int>(args.size()), argv.data()), 0);
    const std::string fields =
        " typ=" + ch(c.melder_type) + " st=" + ch(c.status) + " login=" + ch(c.output_login) +
        " vtype=" + ch(c.var_type) + " to=" + num(c.IoTimeOut) + " retry=" + num(c.connect_retry) +
        " wait=" + num(c.connect_wait) + " mode=" + num(c.running_mode) + " jnr=" + num(c.jobnri) +
        " pnr=" + num(c.portnri) + " ret=" + num(c.reti) + " mnr=" + num(c.client) +
        " txt=" + c.info_text + " ipa=" + c.ipAddr + " file=" + c.output_file +
        " name=" + c.var_name + " value=" + c.var_value + " fill=" + num(c.filler1 | c.filler2) +
        " eyec=" + std::string(c.eyec, 8).c_str() + " ";
    std::istringstream words(want);
    for (std::string w; words >> w;)
      EXPECT_NE(fields.find(" " + w + " "), std::string::npos)
          << w.substr(0, 80) << " in" << fields.substr(0, 300);
  }
}

// Without an output file or memory for a message nothing is queued and each sender fails.
TEST(JobMessages, NothingQueuedOnFailure) {
  PCX ctx;
  initialize_messenger(&ctx);
  ccm_error_t err{};
  ASSERT_EQ(ccm_open(&ctx, &ccm, &err), 0);
  EXPECT_EQ(SendOutputViewMsg(ccm, &ctx), -1);
  ctx.var_name[0] = 'X';
  strcpy(ctx.output_file, "/tmp/out");
  ccm_alloc = [](size_t size, const char* tag) -> void* {
    return strcmp(tag, "CCMMSG") == 0 ? nullptr : ccm_alloc_default(size, tag);
  };
  EXPECT_EQ(std::vector<int>(
                {SendJpMd(ccm, &ctx), SendOutputViewMsg(ccm, &ctx), SendRegVariableMsg(ccm, &ctx)}),
            std::vector<int>({-1, -1, -1}));
  ccm_alloc = ccm_alloc_default;
  EXPECT_EQ(ccm->sendq.head, nullptr);
  ccm_session_close(ccm, &err);
  ccm = nullptr;
}

// SIGUSR1 neither ends the process nor stays blocked; only event -1 reaches the log.
TEST(Driver, Sigusr1IsHarmlessAndOnlyEventMinusOneIsLogged) {
  PCX ctx;
  ASSERT_EQ(initialize_messenger(&ctx), 0);
  EXPECT_EQ(raise(SIGUSR1), 0);
  sigset_t mask;
  EXPECT_TRUE(pthread_sigmask(SIG_BLOCK, nullptr, &mask) == 0 && !sigismember(&mask, SIGUSR1));
  fflush(stdout);
  testing::internal::CaptureStdout();
  __log_set_logger(messenger_logger);
  __log(2000134, "%s", "other");
  __log(-1, "%s", std::string(3000, 't').c_str());  // cut to 2,047 bytes
  __log_set_logger(nullptr);
  __log(-1, "%s", "dropped without a logger");
  fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "-1 - " + std::string(2047, 't'));
}

// Known pairs both ways, equal codes untouched, and the tables invert each other.
TEST(Hooks, SwapcodeTables) {
  const unsigned char pairs[][2] = {{0xC1, 'A'},  {0x81, 'a'},  {0xF0, '0'},  {0x40, ' '},
                                    {0x4B, '.'},  {0xC0, 0x84}, {0x4A, 0x8E}, {0xA1, 0xE1},
                                    {0x7C, 0xF5}, {0xBC, 0xEE}};
  for (const auto& p : pairs) {
    unsigned char b = p[0];
    Swapcode(kCodeEbcdic, kCodeAscii, &b, 1);
    const unsigned char pc = b;
    Swapcode(kCodeAscii, kCodeEbcdic, &b, 1);
    EXPECT_EQ(std::make_pair(pc, b), std::make_pair(p[1], p[0])) << std::hex << int(p[0]);
  }
  unsigned char area[] = {0xC1, 0xC2, 0};  // equal codes untouched
  Swapcode(kCodeEbcdic, kCodeEbcdic, area, 2);
  Swapcode(kCodeEbcdic, kCodeAscii, area, 2);
  EXPECT_STREQ(reinterpret_cast<char*>(area), "AB");
  int without_counterpart = 0;
  for (int x = 0; x < 256; ++x) {
    const unsigned char pc = ebcdic2ascii[x], e = ascii2ebcdic[x];
    without_counterpart += pc == 0xFF;
    EXPECT_TRUE((pc == 0xFF || ascii2ebcdic[pc] == x) && (e == 0xFF || ebcdic2ascii[e] == x) &&
                (!isalnum(x) || e != 0xFF))
        << "0x" << std::hex << x;
  }
  EXPECT_LT(without_counterpart, 64);
}

}  // namespace
