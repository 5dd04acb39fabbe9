// The descriptor sets of the connection manager's select waits, and the state one network
// thread keeps across its cycles.
#ifndef QX_CCM_FDSET_H_
#define QX_CCM_FDSET_H_

#include <sys/select.h>

#include <cstddef>
#include <cstring>

// A descriptor set for descriptors 0..CCM_FDSET_MAX, for every select of the connection
// manager: the bit layout of fd_set (descriptor d is bit d % bits-per-word of word
// d / bits-per-word), which the kernel reads for as many bits as select's first argument says.
// fd_set itself and its macros stop at FD_SETSIZE (1024), which a process that inherited many
// descriptors passes at once. Only the words up to the highest descriptor in use need clearing.
inline constexpr int CCM_FDSET_MAX = 65535;
struct alignas(fd_set) ccm_fdset {
  static constexpr int kWordBits = 8 * static_cast<int>(sizeof(unsigned long));
  unsigned long words[(CCM_FDSET_MAX + 1) / kWordBits];

  static bool holds(int fd) { return fd >= 0 && fd <= CCM_FDSET_MAX; }
  // Clears the words that hold descriptors 0..maxfd; the words above are left as they are.
  void clear_upto(int maxfd) {
    std::memset(words, 0, (static_cast<size_t>(maxfd) / kWordBits + 1) * sizeof(unsigned long));
  }
  void add(int fd) { words[fd / kWordBits] |= 1UL << (fd % kWordBits); }
  bool has(int fd) const { return (words[fd / kWordBits] >> (fd % kWordBits)) & 1UL; }
  fd_set* as_fd_set() { return reinterpret_cast<fd_set*>(words); }
};
static_assert(sizeof(ccm_fdset) == 8192);

inline constexpr int CCM_FDSET_TEXT_SIZE = 1024;  // text form of a descriptor set

// What the network thread of one context keeps from cycle to cycle: its three sets, the
// highest descriptor any of them held in the last cycle and the work areas of its trace
// lines. No bit above `highest` is ever set (select writes back only the bits below its first
// argument), so each cycle clears just the words up to it instead of the whole 24 KiB. The
// sets start empty.
struct ccm_select_sets_t {
  ccm_fdset read;
  ccm_fdset write;
  ccm_fdset error;
  int highest;
  char read_text[CCM_FDSET_TEXT_SIZE];
  char write_text[CCM_FDSET_TEXT_SIZE];
};

#endif  // QX_CCM_FDSET_H_
