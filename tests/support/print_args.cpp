// Test helper run by CMD commands: writes each of its arguments, followed by a NUL byte, to
// standard output, so that a test sees exactly how many arguments arrived and every byte.
#include <string.h>
#include <unistd.h>

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const size_t len = strlen(argv[i]) + 1;
    if (write(STDOUT_FILENO, argv[i], len) != static_cast<ssize_t>(len)) return 1;
  }
  return 0;
}
