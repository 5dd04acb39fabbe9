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

std::string OutOfMemoryMessage() {
  char buf[256];
  snprintf(buf, sizeof buf, kMemAllocFailureFormat, strerror(ENOMEM));
  return buf;
}

// Runs `body` in a child whose address space is limited to what it uses now plus 64 MiB,
// with standard output going into a pipe. Returns the child's wait status and its output.
template <typename Body>
std::pair<int, std::string> RunWithLowMemory(Body body) {
  int fds[2];
  EXPECT_EQ(0, pipe(fds));
  fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    dup2(fds[1], STDOUT_FILENO);
    long pages = 0;
    if (FILE* f = fopen("/proc/self/statm", "r")) {
      if (fscanf(f, "%ld", &pages) != 1) pages = 0;
      fclose(f);
    }
    const rlim_t limit = static_cast<rlim_t>(pages) * sysconf(_SC_PAGESIZE) + (64u << 20);
    const rlimit rl{limit, limit};
    if (pages == 0 || setrlimit(RLIMIT_AS, &rl) != 0) _exit(99);
    body();
    fflush(stdout);
    _exit(0);
  }
  close(fds[1]);
  std::string out;
  char buf[512];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof buf)) > 0)
    out.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  return {status, out};
}

constexpr size_t kMoreThanTheLimit = 256u << 20;

TEST(MemAllocRetArea, GivesZeroedAreasAlsoForZeroBytes) {
  for (size_t size : {size_t{0}, size_t{1}, size_t{4096}}) {
    auto* area = static_cast<unsigned char*>(MemAllocRetArea(size));
    ASSERT_NE(nullptr, area);
    for (size_t i = 0; i < size; ++i)
      ASSERT_EQ(0, area[i]) << "byte " << i;
    free(area);
  }
}

TEST(MemAllocRetArea, EndsProcessWithStatus1WhenAddressSpaceRunsOut) {
  if (kSanitized) GTEST_SKIP() << "sanitizer runtimes reserve terabytes of address space";
  auto [status, out] = RunWithLowMemory([] { MemAllocRetArea(kMoreThanTheLimit); });
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(1, WEXITSTATUS(status));
  EXPECT_EQ(OutOfMemoryMessage(), out);
}

// Works in every build: a request larger than any address space fails at once. Sanitizer
// runtimes abort on such a request unless told to give null, so the child is told so. The
// child's stdout is sent to where the death test looks and its stderr is dropped.
TEST(MemAllocRetAreaDeathTest, ImpossibleRequestEndsProcessWithMessageOnStdout) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  setenv("ASAN_OPTIONS", "allocator_may_return_null=1", 1);
  setenv("TSAN_OPTIONS", "allocator_may_return_null=1", 1);
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        const int null_fd = open("/dev/null", O_WRONLY);
        dup2(null_fd, STDERR_FILENO);
        MemAllocRetArea(SIZE_MAX / 2);
      },
      testing::ExitedWithCode(1),
      "error on calloc\\(\\)-call, MemAllocRetArea\\(\\), 'Cannot allocate memory'\n");
  unsetenv("ASAN_OPTIONS");
  unsetenv("TSAN_OPTIONS");
}

TEST(FreeMallocArea, ClearsPointerAndIsHarmlessTwice) {
  void* area = MemAllocRetArea(16);
  FreeMallocArea(&area, "area");
  EXPECT_EQ(nullptr, area);
  FreeMallocArea(&area, "area");
  EXPECT_EQ(nullptr, area);
  FreeMallocArea(nullptr, "no pointer");
}

TEST(MemCopy, CopiesIntoZeroedAreaTwoBytesLonger) {
  const char src[5] = {'a', 'b', '\0', 'c', 'd'};  // an embedded NUL is copied too
  errno = EINVAL;
  char* copy = MemCopy(src, 4);
  EXPECT_EQ(0, errno);
  EXPECT_EQ(0, memcmp(copy, "ab\0c\0\0", 6));
  free(copy);

  struct Case {
    const char* src;
    int length;
    size_t zero_bytes;
  };
  for (const Case& c : {Case{nullptr, 6, 8}, Case{"xyz", 0, 2}, Case{"xyz", -5, 2}}) {
    char* area = MemCopy(c.src, c.length);
    for (size_t i = 0; i < c.zero_bytes; ++i)
      EXPECT_EQ(0, area[i]) << c.length << " byte " << i;
    free(area);
  }
}

TEST(MemAllocCopy, FreesOldAreaAndTerminatesCopyTwice) {
  char* dst = MemCopy("old", 3);
  const char src[3] = {'x', 'y', 'z'};  // not terminated: exactly three readable bytes
  dst = mem_alloc_copy(dst, src, 3);    // the old area is freed (ASan would report a leak)
  ASSERT_NE(nullptr, dst);
  EXPECT_EQ(0, memcmp(dst, "xyz\0\0", 5));
  dst = mem_alloc_copy(dst, src, 0);
  ASSERT_NE(nullptr, dst);
  EXPECT_EQ(0, memcmp(dst, "\0\0", 2));
  dst = mem_alloc_copy(dst, nullptr, 2);
  ASSERT_NE(nullptr, dst);
  EXPECT_EQ(0, memcmp(dst, "\0\0\0\0", 4));
  free(dst);
}

TEST(MemAllocCopy, GivesNullWithoutCopyingWhenMemoryRunsOut) {
  if (kSanitized) GTEST_SKIP() << "sanitizer runtimes reserve terabytes of address space";
  auto [status, out] = RunWithLowMemory([] {
    // The source is never read: a copy would fault on it.
    const char* src = reinterpret_cast<const char*>(16);
    char* result = mem_alloc_copy(nullptr, src, static_cast<int>(kMoreThanTheLimit));
    printf("%s", result == nullptr ? "null" : "area");
  });
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
  EXPECT_EQ("null", out);
}

TEST(AtomicInt, SetGetAndInit) {
  atomic_int_t ai;
  ASSERT_EQ(0, atomic_lock_init(&ai));
  EXPECT_EQ(-7, atomic_int_set(&ai, -7));
  EXPECT_EQ(-7, atomic_int_get(&ai));
  EXPECT_EQ(0, atomic_int_init(&ai));
  EXPECT_EQ(0, atomic_int_get(&ai));
  EXPECT_EQ(0, atomic_lock_destroy(&ai));
}

TEST(AtomicInt, LockKeepsIncrementsOfTwoThreadsWhole) {
  atomic_int_t ai;
  ASSERT_EQ(0, atomic_lock_init(&ai));
  atomic_int_init(&ai);
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
  atomic_lock_destroy(&ai);
}

qx7_error MarkedError() {
  qx7_error e;
  memset(&e, 0, sizeof e);
  e.qx_result = 11;
  e.qx_errno = 22;
  return e;
}

TEST(Qx7Error, PermissionErrorNamesUserCodeAndSystemText) {
  qx7_error e = MarkedError();
  FillMessageOnPermissionError(&e, 2, "nobody");
  EXPECT_EQ(2000102, e.qx_msgnr);
  EXPECT_EQ(std::string("getpwnam(nobody)|2 - ") + strerror(2), e.qx_msgInsert);
  EXPECT_EQ(11, e.qx_result);
  EXPECT_EQ(22, e.qx_errno);

  const std::string long_name(2000, 'u');
  FillMessageOnPermissionError(&e, 2, long_name.c_str());
  EXPECT_EQ(1023u, strlen(e.qx_msgInsert));
  EXPECT_EQ("getpwnam(" + long_name.substr(0, 1014), e.qx_msgInsert);
}

TEST(Qx7Error, PasswordErrorFormatsInsertAndLeavesOtherFields) {
  qx7_error e = MarkedError();
  FillMessageOnPasswordError(&e, 13, "%s|%d", "alice", 5);
  EXPECT_EQ(2001007, e.qx_msgnr);
  EXPECT_STREQ("alice|5", e.qx_msgInsert);
  EXPECT_EQ(11, e.qx_result);
  EXPECT_EQ(22, e.qx_errno);

  const std::string long_text(3000, 'p');
  FillMessageOnPasswordError(&e, 0, "%s", long_text.c_str());
  EXPECT_EQ(long_text.substr(0, 1023), e.qx_msgInsert);
}

}  // namespace
