// Spin-lock integers: an int guarded by a POSIX spin lock private to the process, for short
// critical sections between threads of one process.
//
// Ownership: the record belongs to the caller; `atomic_lock_init` must come before any other
// call and `atomic_lock_destroy` after the last one.
//
// Threads: after initialisation every operation but `atomic_lock_destroy` may run in several
// threads at once. A holder of the lock must not block while holding it.
#ifndef QX_COMMON_ATOMIC_INT_H_
#define QX_COMMON_ATOMIC_INT_H_

#include <pthread.h>

typedef struct __atomic_int {
  int value;                // the guarded integer
  pthread_spinlock_t lock;  // guards value (a volatile int in the threads library)
} atomic_int_t;

// Result of pthread_spin_init (PTHREAD_PROCESS_PRIVATE): 0 on success.
int atomic_lock_init(atomic_int_t* ai);
// Results of pthread_spin_destroy, pthread_spin_lock and pthread_spin_unlock.
int atomic_lock_destroy(atomic_int_t* ai);
int atomic_lock(atomic_int_t* ai);
int atomic_unlock(atomic_int_t* ai);

// Under the lock: sets the value to 0 and returns 0; stores `pvalue` and returns it; reads the
// value.
int atomic_int_init(atomic_int_t* ai);
int atomic_int_set(atomic_int_t* ai, int pvalue);
int atomic_int_get(atomic_int_t* ai);

// Holds the record's lock for the lifetime of the guard.
class AtomicLockGuard {
 public:
  explicit AtomicLockGuard(atomic_int_t* ai) : ai_(ai) { atomic_lock(ai_); }
  ~AtomicLockGuard() { atomic_unlock(ai_); }
  AtomicLockGuard(const AtomicLockGuard&) = delete;
  AtomicLockGuard& operator=(const AtomicLockGuard&) = delete;

 private:
  atomic_int_t* ai_;
};

#endif  // QX_COMMON_ATOMIC_INT_H_
