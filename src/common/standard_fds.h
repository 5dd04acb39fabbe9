// Standard input, output and error made sure to be open before a program opens anything.
//
// A program started with descriptor 0, 1 or 2 closed would hand that number to the next pipe
// or socket it makes; its report and trace lines would then be written into that pipe or
// socket. Each closed one of the three is opened on /dev/null (reading and writing), or, on
// a host without /dev/null, on a pipe: for input a pipe whose writing end is closed (at once
// end of file), for output a pipe whose reading end is closed (every write fails with EPIPE,
// which the program must not take as a signal).
//
// Threads: call first thing in main, before any other thread exists.
#ifndef QX_COMMON_STANDARD_FDS_H_
#define QX_COMMON_STANDARD_FDS_H_

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

// Opens each closed one of descriptors 0, 1 and 2. 0, or -1 when one stays closed.
inline int ensure_standard_descriptors() {
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
    // The lowest free number is `fd` itself: every number below it is open by now.
    int got = open("/dev/null", O_RDWR);
    if (got < 0) {
      int ends[2];
      if (pipe(ends) != 0) return -1;
      // The end this descriptor needs is kept; the other end is closed at once.
      const int keep = fd == 0 ? ends[0] : ends[1];
      close(fd == 0 ? ends[1] : ends[0]);
      got = keep;
    }
    if (got != fd) {
      const int moved = dup2(got, fd);
      close(got);
      if (moved != fd) return -1;
    }
  }
  return 0;
}

#endif  // QX_COMMON_STANDARD_FDS_H_
