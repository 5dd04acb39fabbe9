// Scoped holds of the connection manager's three kinds of lock (the context's queue lock, its
// channel lock, a channel's queue lock); a channel found by a search is held through
// ccm_found_channel (channel.h). Nothing else locks or unlocks: a hold releases its lock when it
// goes, on every path.
//
// A hold is traced through ccm_queue_lock / ccm_channel_lock / ccmch_queue_lock (and their
// unlocks) unless it is made quiet, for the short looks that run for every message or cycle.
//
// Threads: lock order as in context.h (the order is also noted there): the channel lock may be held
// while either kind of queue lock is taken; the queue locks are leaves.
#ifndef QX_CCM_LOCKS_H_
#define QX_CCM_LOCKS_H_

#include <pthread.h>

#include "ccm/channel_record.h"
#include "ccm/context_record.h"

// Lock operations; all return 0.
int ccm_queue_lock(ccm_context_t* ccm);
int ccm_queue_unlock(ccm_context_t* ccm);
int ccmch_queue_lock(ccm_context_t* ccm, ccm_channel_t* ccmch);
int ccmch_queue_unlock(ccm_context_t* ccm, ccm_channel_t* ccmch);
int ccm_channel_lock(ccm_context_t* ccm);
int ccm_channel_unlock(ccm_context_t* ccm);

enum class ccm_lock_trace { kTraced, kQuiet };

class ccm_queue_guard {
 public:
  explicit ccm_queue_guard(ccm_context_t* ccm, ccm_lock_trace t = ccm_lock_trace::kTraced)
      : ccm_(ccm), traced_(t == ccm_lock_trace::kTraced) {
    if (traced_) {
      ccm_queue_lock(ccm_);
    } else {
      pthread_spin_lock(&ccm_->queue_lock);
    }
  }
  ~ccm_queue_guard() {
    if (traced_) {
      ccm_queue_unlock(ccm_);
    } else {
      pthread_spin_unlock(&ccm_->queue_lock);
    }
  }
  ccm_queue_guard(const ccm_queue_guard&) = delete;
  ccm_queue_guard& operator=(const ccm_queue_guard&) = delete;

 private:
  ccm_context_t* ccm_;
  bool traced_;
};

class ccm_channel_guard {
 public:
  explicit ccm_channel_guard(ccm_context_t* ccm, ccm_lock_trace t = ccm_lock_trace::kTraced)
      : ccm_(ccm), traced_(t == ccm_lock_trace::kTraced) {
    if (traced_) {
      ccm_channel_lock(ccm_);
    } else {
      pthread_spin_lock(&ccm_->channel_lock);
    }
  }
  ~ccm_channel_guard() {
    if (traced_) {
      ccm_channel_unlock(ccm_);
    } else {
      pthread_spin_unlock(&ccm_->channel_lock);
    }
  }
  ccm_channel_guard(const ccm_channel_guard&) = delete;
  ccm_channel_guard& operator=(const ccm_channel_guard&) = delete;

 private:
  ccm_context_t* ccm_;
  bool traced_;
};

class ccmch_queue_guard {
 public:
  ccmch_queue_guard(ccm_context_t* ccm, ccm_channel_t* ch,
                    ccm_lock_trace t = ccm_lock_trace::kTraced)
      : ccm_(ccm), ch_(ch), traced_(t == ccm_lock_trace::kTraced) {
    if (traced_) {
      ccmch_queue_lock(ccm_, ch_);
    } else {
      pthread_spin_lock(&ch_->queue_lock);
    }
  }
  ~ccmch_queue_guard() {
    if (traced_) {
      ccmch_queue_unlock(ccm_, ch_);
    } else {
      pthread_spin_unlock(&ch_->queue_lock);
    }
  }
  ccmch_queue_guard(const ccmch_queue_guard&) = delete;
  ccmch_queue_guard& operator=(const ccmch_queue_guard&) = delete;

 private:
  ccm_context_t* ccm_;
  ccm_channel_t* ch_;
  bool traced_;
};

#endif  // QX_CCM_LOCKS_H_
