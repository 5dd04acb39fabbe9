// The command line read into the context: keywords, their bounds, and what the trace shows.
#include "messenger/arguments.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <functional>
#include <string>
#include <vector>

#include "common/trace_log.h"
#include "messenger/driver.h"

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

struct KeywordCase {
  std::vector<std::string> args;
  std::function<void(const PCX&)> check;
  const char* what;
};

class Keywords : public testing::TestWithParam<KeywordCase> {};

TEST_P(Keywords, SetTheirFields) {
  const PCX ctx = Parse(GetParam().args);
  GetParam().check(ctx);
}

INSTANTIATE_TEST_SUITE_P(
    Table, Keywords,
    testing::Values(
        KeywordCase{{},
                    [](const PCX& c) {
                      EXPECT_EQ(c.melder_type, 'U');
                      EXPECT_EQ(c.status, 'R');
                      EXPECT_EQ(c.IoTimeOut, 60);
                      EXPECT_EQ(c.connect_retry, 3);
                      EXPECT_EQ(c.connect_wait, 120);
                      EXPECT_EQ(c.output_login, 'N');
                      EXPECT_EQ(c.running_mode, 3);
                      EXPECT_EQ(std::string(c.eyec, 8), std::string(8, '\0'));
                    },
                    "defaults"},
        KeywordCase{{"jnr=12"}, [](const PCX& c) { EXPECT_EQ(c.jobnri, 12); }, "lower-case key"},
        KeywordCase{{"JNR=12abc", "PNR= 4711", "RET=-3"},
                    [](const PCX& c) {
                      EXPECT_EQ(c.jobnri, 12);
                      EXPECT_EQ(c.portnri, 4711);
                      EXPECT_EQ(c.reti, -3);
                    },
                    "atoi numbers"},
        KeywordCase{{"JNR=5", "JNR="}, [](const PCX& c) { EXPECT_EQ(c.jobnri, 0); }, "last wins"},
        KeywordCase{{"TXT=a=b", "IPA=Host.Example"},
                    [](const PCX& c) {
                      EXPECT_STREQ(c.info_text, "a=b");
                      EXPECT_STREQ(c.ipAddr, "Host.Example");
                    },
                    "values keep = and case"},
        KeywordCase{{"TYP=E"},
                    [](const PCX& c) {
                      EXPECT_EQ(c.melder_type, 'E');
                      EXPECT_EQ(c.status, 'E');
                    },
                    "end"},
        KeywordCase{{"TYP=S"},
                    [](const PCX& c) {
                      EXPECT_EQ(c.melder_type, 'S');
                      EXPECT_EQ(c.status, 'R');
                    },
                    "start"},
        KeywordCase{{"TYP=E", "TYP=e"},
                    [](const PCX& c) {
                      EXPECT_EQ(c.melder_type, 'e');
                      EXPECT_EQ(c.status, 'R');
                    },
                    "lower-case end is a restart"},
        KeywordCase{{"TYP="},
                    [](const PCX& c) {
                      EXPECT_EQ(c.melder_type, '\0');
                      EXPECT_EQ(c.status, 'R');
                    },
                    "empty type"},
        KeywordCase{{"TIMEOUT=none"}, [](const PCX& c) { EXPECT_EQ(c.IoTimeOut, 0); }, "none"},
        KeywordCase{{"TIMEOUT=600"}, [](const PCX& c) { EXPECT_EQ(c.IoTimeOut, 600); }, "600"},
        KeywordCase{{"TIMEOUT=601"}, [](const PCX& c) { EXPECT_EQ(c.IoTimeOut, 60); }, "601"},
        KeywordCase{{"TIMEOUT=-5"}, [](const PCX& c) { EXPECT_EQ(c.IoTimeOut, -5); }, "-5"},
        KeywordCase{{"WAIT=5", "RETRY=-2"},
                    [](const PCX& c) {
                      EXPECT_EQ(c.connect_wait, 120);
                      EXPECT_EQ(c.connect_retry, -2);
                    },
                    "wait ignored, retry unbounded"},
        KeywordCase{{"ULOGIN=y"}, [](const PCX& c) { EXPECT_EQ(c.output_login, 'N'); }, "y"},
        KeywordCase{{"ULOGIN=Yes"}, [](const PCX& c) { EXPECT_EQ(c.output_login, 'Y'); }, "Yes"},
        KeywordCase{{"MNR=65537"}, [](const PCX& c) { EXPECT_EQ(c.client, 1); }, "16 bits"},
        KeywordCase{{"VTYPE=Cx", "VALUE=v=1", "OUTFILE=/tmp/out.log"},
                    [](const PCX& c) {
                      EXPECT_EQ(c.var_type, 'C');
                      EXPECT_STREQ(c.var_value, "v=1");
                      EXPECT_STREQ(c.output_file, "/tmp/out.log");
                    },
                    "variable and file"},
        KeywordCase{{"VTYPE="}, [](const PCX& c) { EXPECT_EQ(c.var_type, '\0'); }, "no vtype"},
        KeywordCase{{"TXT", "=value", "BOGUS=1", "-V", "txt=ok"},
                    [](const PCX& c) {
                      EXPECT_STREQ(c.info_text, "ok");
                      EXPECT_EQ(c.jobnri, 0);
                    },
                    "ignored keys"}));

TEST(Bounds, TextsAreCutToTheirFields) {
  const std::string big(100000, 'x');
  const PCX c = Parse({"TXT=" + std::string(70, 't'), "IPA=" + big, "OUTFILE=" + big,
                       "NAME=" + std::string(300, 'n'), "VALUE=" + big});
  EXPECT_EQ(std::string(c.info_text), std::string(63, 't'));
  EXPECT_EQ(strlen(c.ipAddr), 63u);
  EXPECT_EQ(strlen(c.output_file), 1023u);
  EXPECT_EQ(std::string(c.var_name), std::string(200, 'n'));
  EXPECT_EQ(strlen(c.var_value), 1023u);
  EXPECT_EQ(c.filler1, 0);
  EXPECT_EQ(c.filler2, 0);
}

TEST(Bounds, LongKeysAndHighBytes) {
  // A key longer than 63 characters cannot match any keyword.
  const PCX c = Parse(
      {std::string(100, 'K') + "=1", "TXT=\xe4\xf6\xfc\x80\xff", "TYP=\xc4", std::string(70, 'A')});
  EXPECT_STREQ(c.info_text, "\xe4\xf6\xfc\x80\xff");
  EXPECT_EQ(c.melder_type, '\xc4');
  EXPECT_EQ(c.status, 'R');
}

// Collects what parse_arguments writes while tracing is as given by the arguments.
std::string TraceOf(std::vector<std::string> args) {
  const int old = trcFlag;
  fflush(stdout);
  testing::internal::CaptureStdout();
  Parse(std::move(args));
  fflush(stdout);
  std::string out = testing::internal::GetCapturedStdout();
  trcFlag = old;
  return out;
}

TEST(Trace, StartsAfterTheTrcArgumentAndEndsWithTheSummary) {
  const std::string out = TraceOf({"JNR=7", "TRC=1", "txt=Hello World", "MNR=3"});
  EXPECT_EQ(out.find("argument-01"), std::string::npos);
  EXPECT_EQ(out.find("argument-02"), std::string::npos);
  EXPECT_NE(out.find("parse_arguments:      argument-03 : txt=Hello World\n"), std::string::npos);
  EXPECT_NE(out.find("parse_arguments:      key(TXT) = value(Hello World)\n"), std::string::npos);
  const char* summary[] = {"parse_arguments:      TCP/IP address                 : ''\n",
                           "parse_arguments:      port number                    : '0'\n",
                           "parse_arguments:      job number                     : '7'\n",
                           "parse_arguments:      client                         : '3'\n",
                           "parse_arguments:      result                         : '0'\n",
                           "parse_arguments:      information                    : 'Hello World'\n",
                           "parse_arguments:      type                           : 'R'\n",
                           "parse_arguments <-- (OK)\n"};
  size_t at = out.find("argument-04");
  ASSERT_NE(at, std::string::npos);
  for (const char* line : summary) {
    const size_t next = out.find(line, at);
    ASSERT_NE(next, std::string::npos) << line;
    at = next;
  }
}

TEST(Trace, NothingWithoutTrc) {
  EXPECT_EQ(TraceOf({"JNR=7", "TRC=0", "TXT=x"}), "");
}

TEST(Cmd, RunsTheCommandAndEndsTheProcess) {
  EXPECT_EXIT(Parse({"CMD=exit 0", "JNR=1"}), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(Parse({"CMD=exit 3"}), testing::ExitedWithCode(1), "");
}

}  // namespace
