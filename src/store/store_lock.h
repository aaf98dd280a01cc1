#pragma once

#include "platform/blocking.h"
#include "platform/mutex.h"

namespace tavrel::store {

/// Holds the mutex around a Database for the length of a scope. Whoever has it may be writing to
/// the disk, so waiting for it is announced as blocking; an uncontended lock costs no more than
/// any.
class TV_SCOPED_CAPABILITY StoreLock {
 public:
  explicit StoreLock(platform::Mutex& mutex) TV_ACQUIRE(mutex) TV_NO_ANALYSIS : mutex_(mutex) {
    if (mutex_.tryLock()) return;
    const platform::BlockingScope waiting;
    mutex_.lock();
  }
  ~StoreLock() TV_RELEASE() { mutex_.unlock(); }
  StoreLock(const StoreLock&) = delete;
  StoreLock& operator=(const StoreLock&) = delete;

 private:
  platform::Mutex& mutex_;
};

}  // namespace tavrel::store
