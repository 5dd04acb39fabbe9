// Spin-lock integers.
#include "common/atomic_int.h"

int atomic_lock_init(atomic_int_t* ai) {
  return pthread_spin_init(&ai->lock, PTHREAD_PROCESS_PRIVATE);
}

int atomic_lock_destroy(atomic_int_t* ai) {
  return pthread_spin_destroy(&ai->lock);
}

int atomic_lock(atomic_int_t* ai) {
  return pthread_spin_lock(&ai->lock);
}

int atomic_unlock(atomic_int_t* ai) {
  return pthread_spin_unlock(&ai->lock);
}

int atomic_int_init(atomic_int_t* ai) {
  AtomicLockGuard guard(ai);
  ai->value = 0;
  return 0;
}

int atomic_int_set(atomic_int_t* ai, int pvalue) {
  AtomicLockGuard guard(ai);
  ai->value = pvalue;
  return ai->value;
}

int atomic_int_get(atomic_int_t* ai) {
  AtomicLockGuard guard(ai);
  return ai->value;
}
