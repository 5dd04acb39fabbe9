// Whole messenger runs under memcheck against the agent simulator: no memory error and no
// block left at exit, whether the event is delivered, the agent stays silent or nothing
// listens. qx_jpmd is linked statically, which memcheck cannot follow; these runs use its
// dynamically linked twin. Skipped in sanitizer builds and where valgrind is missing.
#include <gtest/gtest.h>

#include <memory>

#include "support/agent.h"

namespace {

using namespace agent_test;

TEST(AgentValgrind, WholeRunsLeaveNothing) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "sanitizer build";
#endif
  if (access("/usr/bin/valgrind", X_OK) != 0) GTEST_SKIP() << "valgrind missing";
  const struct {
    const char* mode;  // simulator mode; null: nothing listens
    std::vector<std::string> args;
  } cases[] = {
      {"normal", {"TYP=S", "JNR=1", "TXT=valgrind"}},
      {"normal", {"TYP=V", "JNR=2", "NAME=X", "VALUE=1", "VTYPE=C"}},
      {"silent", {"TYP=S", "JNR=3", "TIMEOUT=1"}},
      {nullptr, {"TYP=S", "JNR=4", "RETRY=1"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[1]);
    std::unique_ptr<Simulator> sim;
    int port = refused_port();
    if (c.mode != nullptr) {
      sim = std::make_unique<Simulator>(std::vector<std::string>{"--mode", c.mode});
      port = sim->port();
      ASSERT_GT(port, 0);
    }
    std::vector<std::string> args = {"--leak-check=full",           "--show-leak-kinds=all",
                                     "--errors-for-leak-kinds=all", "--error-exitcode=99",
                                     bin_path("qx_jpmd_dynamic"),   "IPA=127.0.0.1",
                                     "PNR=" + std::to_string(port), "TRC=1"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const RunResult run = run_program("/usr/bin/valgrind", args, 60);
    EXPECT_TRUE(run.exited);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.err.find("ERROR SUMMARY: 0 errors"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("All heap blocks were freed"), std::string::npos) << run.err;
    // memcheck really watched the heap: a run it could not follow shows no allocation.
    EXPECT_EQ(run.err.find("total heap usage: 0 allocs"), std::string::npos) << run.err;
  }
}

}  // namespace
