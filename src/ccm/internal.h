// Helpers shared by the connection manager's own files: the allocation seam, list operations on
// head/tail queues, atomic access to flag words and error records. Not for applications.
//
// Threads: `ccm_alloc` is read by every allocating thread; change it only while no other thread
// uses the connection manager (tests replace it to make allocations fail).
#ifndef QX_CCM_INTERNAL_H_
#define QX_CCM_INTERNAL_H_

#include <pthread.h>

#include <cstddef>
#include <cstring>

#include "ccm/context_record.h"
#include "common/trace_log.h"

// Every record of the connection manager (context, channel, message) is allocated through
// this pointer: `size` zero-filled bytes, or null. `tag` names the area ("CCM_OPEN",
// "CREATE_CHANNEL", "CCMMSG").
typedef void* ccm_alloc_function_t(size_t size, const char* tag);
extern ccm_alloc_function_t* ccm_alloc;
void* ccm_alloc_default(size_t size, const char* tag);
void ccm_free(void* area);

// Fills an error record (a null record is ignored): clears it, sets `msgnr` and formats the
// insert, cut to fit.
void ccm_set_error(ccm_error_t* ccmerr, int msgnr, const char* format, ...) QX_PRINTF(3, 4);
// Logs through __log a record that no caller can take (a failure on the network thread or in
// a clean-up step); a record without an error logs nothing.
void ccm_log_error(const ccm_error_t& err);
// The 3301 record of a failed allocation: "<tag>/<file>(<line>)".
void ccm_set_alloc_error(ccm_error_t* ccmerr, const char* tag, const char* file, int line);

// Appends `item` to a head/tail queue. The head decides emptiness: a taker may move the head
// on without resetting the tail.
template <class Queue, class Item>
inline void ccm_queue_append(Queue& q, Item* item) {
  item->nxt = nullptr;
  if (q.head == nullptr) {
    q.head = item;
  } else {
    q.tail->nxt = item;
  }
  q.tail = item;
}

// Appends every item of `from` to `q` in one step and leaves `from` empty.
template <class Queue>
inline void ccm_queue_splice(Queue& q, Queue& from) {
  if (from.head == nullptr) return;
  if (q.head == nullptr) {
    q.head = from.head;
  } else {
    q.tail->nxt = from.head;
  }
  q.tail = from.tail;
  from = {};
}

// Pushes `item` at the head of a queue.
template <class Queue, class Item>
inline void ccm_queue_push(Queue& q, Item* item) {
  item->nxt = q.head;
  if (q.head == nullptr) q.tail = item;
  q.head = item;
}

// Takes the head of a queue, or null.
template <class Queue>
inline auto ccm_queue_pop(Queue& q) -> decltype(q.head) {
  auto* item = q.head;
  if (item == nullptr) return nullptr;
  q.head = item->nxt;
  if (q.head == nullptr) q.tail = nullptr;
  item->nxt = nullptr;
  return item;
}

// Unlinks `item` from a queue; false when it is not there. Its `nxt` is left as it was.
template <class Queue, class Item>
inline bool ccm_queue_unlink(Queue& q, Item* item) {
  Item* prev = nullptr;
  for (Item* cur = q.head; cur != nullptr; prev = cur, cur = cur->nxt) {
    if (cur != item) continue;
    if (prev == nullptr) {
      q.head = cur->nxt;
      if (q.head == nullptr) q.tail = nullptr;
    } else {
      prev->nxt = cur->nxt;
      if (q.tail == cur) q.tail = prev;
    }
    return true;
  }
  return false;
}

// Flag words that one thread sets while another reads them without a lock.
inline int ccm_flag_get(const int& flag) {
  return __atomic_load_n(&flag, __ATOMIC_ACQUIRE);
}
inline void ccm_flag_set(int& flag, int bits) {
  __atomic_fetch_or(&flag, bits, __ATOMIC_ACQ_REL);
}
inline void ccm_flag_clear(int& flag, int bits) {
  __atomic_fetch_and(&flag, ~bits, __ATOMIC_ACQ_REL);
}

// The one way the connection manager makes a socket non-blocking (ioctl FIONBIO; the wake-up
// pipes are made non-blocking when they are created). With `fn`, the call is traced as a
// progress step of that function. 0, or the error of the call, saved before any trace runs.
int ccm_fd_set_nonblocking(int s, const char* fn = nullptr);

// Takes every byte waiting in a non-blocking wake-up pipe (`fd`, its read end): each byte
// announces work that the caller looks at next, so one look serves them all.
void ccm_drain_wakeup(int fd);

// Copies at most size - 1 bytes of `src` into `dst` and terminates it.
void ccm_copy_text(char* dst, size_t size, const char* src);

#endif  // QX_CCM_INTERNAL_H_
