// Run by CMD commands of the tests: writes each argument followed by a NUL byte.
#include <string.h>
#include <unistd.h>

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i)
    if (write(1, argv[i], strlen(argv[i]) + 1) != static_cast<ssize_t>(strlen(argv[i]) + 1))
      return 1;
  return 0;
}
