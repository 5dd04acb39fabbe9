// Scoped holds of the connection manager's three kinds of lock (the context's queue lock, its
// channel lock, a channel's queue lock) and of a channel found by a search. Nothing else
// locks or unlocks: a hold releases its lock when it goes, on every path.
//
// A hold is traced through ccm_queue_lock / ccm_channel_lock / ccmch_queue_lock (and their
// unlocks) unless it is made quiet, for the short looks that run for every message or cycle.
//
// Threads: lock order as in context.h: the channel lock may be held while either kind of
// queue lock is taken; the queue locks are leaves.
#ifndef QX_CCM_LOCKS_H_
#define QX_CCM_LOCKS_H_

#include <pthread.h>

#include "ccm/channel.h"
#include "ccm/context.h"

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

// A channel found by ccm_channel_getbyID / ccm_channel_getbyName, held with the channel lock
// that the search keeps on success; the lock is released (ccm_channel_unlock) when the hold
// goes. Empty when nothing was found, and then holds no lock.
class ccm_found_channel {
 public:
  static ccm_found_channel by_ID(ccm_context_t* ccm, int ID) {
    return ccm_found_channel(ccm, ccm_channel_getbyID(ccm, ID));
  }
  static ccm_found_channel by_name(ccm_context_t* ccm, const char* name) {
    return ccm_found_channel(ccm, ccm_channel_getbyName(ccm, name));
  }
  // By ID when `ID` is not 0 and such a channel exists, else by name.
  static ccm_found_channel by_ID_or_name(ccm_context_t* ccm, int ID, const char* name) {
    if (ID != 0) {
      if (ccm_found_channel found = by_ID(ccm, ID)) return found;
    }
    return by_name(ccm, name);
  }
  ccm_found_channel(ccm_found_channel&& other) noexcept : ccm_(other.ccm_), ch_(other.ch_) {
    other.ch_ = nullptr;
  }
  ~ccm_found_channel() {
    if (ch_ != nullptr) ccm_channel_unlock(ccm_);
  }
  ccm_found_channel(const ccm_found_channel&) = delete;
  ccm_found_channel& operator=(const ccm_found_channel&) = delete;
  ccm_found_channel& operator=(ccm_found_channel&&) = delete;

  ccm_channel_t* get() const { return ch_; }
  ccm_channel_t* operator->() const { return ch_; }
  explicit operator bool() const { return ch_ != nullptr; }

 private:
  ccm_found_channel(ccm_context_t* ccm, ccm_channel_t* ch) : ccm_(ccm), ch_(ch) {}
  ccm_context_t* ccm_;
  ccm_channel_t* ch_;
};

#endif  // QX_CCM_LOCKS_H_
