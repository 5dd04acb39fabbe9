// One run of the driver in-process: version answer, exit status, signal disposition.
#include "messenger/driver.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "common/trace_log.h"

namespace {

struct DriverRun {
  int status;
  std::string out;
};

DriverRun Drive(std::vector<std::string> args) {
  // These runs are about the driver: no connection attempts (no 120-second pauses).
  if (args.size() != 2 || args[1] != "-V") args.push_back("RETRY=0");
  std::vector<char*> argv;
  for (auto& a : args)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  const int old = trcFlag;
  fflush(stdout);
  testing::internal::CaptureStdout();
  const int status = run_messenger(static_cast<int>(args.size()), argv.data());
  fflush(stdout);
  trcFlag = old;
  __log_set_logger(nullptr);
  return {status, testing::internal::GetCapturedStdout()};
}

TEST(Driver, VersionAnswerUsesTheProgramName) {
  const DriverRun r = Drive({"/usr/local/bin/qx_jpmd_test", "-V"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "QX7 Agent \"qx_jpmd_test\" version 12.2.0+build.2108, changelist '1530016094'\n");
  EXPECT_STREQ(pcx->program_name, "qx_jpmd_test");
  EXPECT_EQ(pcx, &spcx);
}

TEST(Driver, ExitStatusByEventType) {
  EXPECT_EQ(Drive({"qx_jpmd", "TYP=E", "RET=5"}).status, 5);
  EXPECT_EQ(Drive({"qx_jpmd", "TYP=E", "RET=300"}).status, 300);  // the system keeps 44
  EXPECT_EQ(Drive({"qx_jpmd", "TYP=S", "RET=5"}).status, 0);
  EXPECT_EQ(Drive({"qx_jpmd", "TYP=O", "RET=5"}).status, 0);
}

TEST(Driver, EachRunStartsFromTheDefaults) {
  Drive({"qx_jpmd", "TYP=E", "JNR=9", "TXT=first"});
  const DriverRun second = Drive({"qx_jpmd"});
  EXPECT_EQ(spcx.melder_type, 'U');
  EXPECT_EQ(spcx.jobnri, 0);
  EXPECT_STREQ(spcx.info_text, "");
  EXPECT_NE(second.out.find("RESTART AT"), std::string::npos);
}

TEST(Driver, Sigusr1IsHarmlessAfterInitialisation) {
  PCX ctx;
  ASSERT_EQ(initialize_messenger(&ctx), 0);
  EXPECT_EQ(raise(SIGUSR1), 0);  // would end the process with the default disposition
  struct sigaction now;
  ASSERT_EQ(sigaction(SIGUSR1, nullptr, &now), 0);
  EXPECT_EQ(now.sa_handler, signal_handler_common);
  sigset_t mask;
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &mask), 0);
  EXPECT_FALSE(sigismember(&mask, SIGUSR1));
}

}  // namespace
