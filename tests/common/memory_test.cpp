// Memory helpers, spin-lock integers and the common error record.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "common/atomic_int.h"
#include "common/memory.h"
#include "common/qx7_error.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
constexpr size_t kMoreThanTheLimit = 256u << 20;

// Runs `body` in a child limited to the address space it uses now plus 64 MiB, with stdout
// going into a pipe. Returns the child's wait status and output.
template <typename Body>
std::pair<int, std::string> RunWithLowMemory(Body body) {
  int fds[2];
  EXPECT_EQ(0, pipe(fds));
  fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], STDOUT_FILENO);
    long pages = 0;
    FILE* f = fopen("/proc/self/statm", "r");
    if (f == nullptr || fscanf(f, "%ld", &pages) != 1) _exit(99);
    const rlim_t limit = static_cast<rlim_t>(pages) * sysconf(_SC_PAGESIZE) + (64u << 20);
    const rlimit rl{limit, limit};
    if (setrlimit(RLIMIT_AS, &rl) != 0) _exit(99);
    body();
    fflush(stdout);
    _exit(0);
  }
  close(fds[1]);
  std::string out;
  char buf[512];
  for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;)
    out.append(buf, n);
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  return {status, out};
}

TEST(MemAllocRetArea, EndsProcessWithStatus1WhenAddressSpaceRunsOut) {
  if (kSanitized) GTEST_SKIP() << "sanitizer runtimes reserve terabytes of address space";
  auto [status, out] = RunWithLowMemory([] { MemAllocRetArea(kMoreThanTheLimit); });
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(1, WEXITSTATUS(status));
  EXPECT_EQ(std::string("error on calloc()-call, MemAllocRetArea(), '") + strerror(ENOMEM) + "'\n",
            out);
}

// Runs in every build: a request larger than any address space fails at once. Sanitizer
// runtimes abort on it unless told to give null, so the child is told so. The child's stdout
// goes where the death test looks; its stderr is dropped.
TEST(MemAllocRetAreaDeathTest, ImpossibleRequestEndsProcessWithMessageOnStdout) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  setenv("ASAN_OPTIONS", "allocator_may_return_null=1", 1);
  setenv("TSAN_OPTIONS", "allocator_may_return_null=1", 1);
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
        MemAllocRetArea(SIZE_MAX / 2);
      },
      testing::ExitedWithCode(1),
      "error on calloc\\(\\)-call, MemAllocRetArea\\(\\), 'Cannot allocate memory'\n");
  unsetenv("ASAN_OPTIONS");
  unsetenv("TSAN_OPTIONS");
}

TEST(MemAllocCopy, GivesNullWithoutCopyingWhenMemoryRunsOut) {
  if (kSanitized) GTEST_SKIP() << "sanitizer runtimes reserve terabytes of address space";
  auto [status, out] = RunWithLowMemory([] {
    const char* unreadable = reinterpret_cast<const char*>(16);  // a copy would fault
    char* result = mem_alloc_copy(nullptr, unreadable, static_cast<int>(kMoreThanTheLimit));
    printf("%s", result == nullptr ? "null" : "area");
  });
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
  EXPECT_EQ("null", out);
}

TEST(FreeMallocArea, ClearsPointerAndIsHarmlessTwice) {
  void* area = MemAllocRetArea(0);
  ASSERT_NE(nullptr, area);
  FreeMallocArea(&area, "area");
  EXPECT_EQ(nullptr, area);
  FreeMallocArea(&area, "area");
  FreeMallocArea(nullptr, "no pointer");
}

// The sources are exactly as long as the copy, so a read beyond them is caught under ASan.
TEST(Copies, CopyLengthBytesAndTwoZeroBytes) {
  const char src[5] = {'a', 'b', '\0', 'c', 'd'};
  errno = EINVAL;
  char* copy = MemCopy(src, 4);
  EXPECT_EQ(0, errno);
  EXPECT_EQ(0, memcmp(copy, "ab\0c\0\0", 6));
  FreeMallocArea(reinterpret_cast<void**>(&copy), "copy");
  for (int length : {-5, 0, 6}) {
    char* zeroes = MemCopy(nullptr, length);
    EXPECT_EQ(std::string(length > 0 ? length + 2 : 2, '\0'),
              std::string(zeroes, length > 0 ? length + 2 : 2));
    free(zeroes);
  }

  char* dst = MemCopy("old", 3);
  dst = mem_alloc_copy(dst, src, 2);  // frees the old area; ASan would report a leak
  EXPECT_EQ(0, memcmp(dst, "ab\0\0", 4));
  dst = mem_alloc_copy(dst, nullptr, 2);
  EXPECT_EQ(0, memcmp(dst, "\0\0\0\0", 4));
  dst = mem_alloc_copy(dst, src, -1);
  EXPECT_EQ(0, memcmp(dst, "\0\0", 2));
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

TEST(Qx7Error, FillersSetNumberAndBoundedInsertOnly) {
  qx7_error e;
  memset(&e, 0, sizeof e);
  e.qx_result = 11;
  e.qx_errno = 22;
  FillMessageOnPermissionError(&e, 2, "nobody");
  EXPECT_EQ(2000102, e.qx_msgnr);
  EXPECT_EQ(std::string("getpwnam(nobody)|2 - ") + strerror(2), e.qx_msgInsert);
  FillMessageOnPermissionError(&e, 2, std::string(2000, 'u').c_str());
  EXPECT_EQ("getpwnam(" + std::string(1014, 'u'), e.qx_msgInsert);

  FillMessageOnPasswordError(&e, 13, "%s|%d", "alice", 5);
  EXPECT_EQ(2001007, e.qx_msgnr);
  EXPECT_STREQ("alice|5", e.qx_msgInsert);
  FillMessageOnPasswordError(&e, 0, "%s", std::string(3000, 'p').c_str());
  EXPECT_EQ(std::string(1023, 'p'), e.qx_msgInsert);
  EXPECT_EQ(11, e.qx_result);
  EXPECT_EQ(22, e.qx_errno);
}

}  // namespace
