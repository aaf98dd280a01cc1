#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#include "platform/thread_annotations.h"

namespace tavrel::platform {

/// A std::mutex that clang's thread-safety analysis understands.
class TV_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() TV_ACQUIRE() { mutex_.lock(); }
  void unlock() TV_RELEASE() { mutex_.unlock(); }
  /// False when somebody else holds it.
  bool tryLock() TV_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

 private:
  std::mutex mutex_;
};

/// Holds a Mutex for the length of a scope.
class TV_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) TV_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() TV_RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

/// A std::shared_mutex that clang's thread-safety analysis understands: for tables that are read by
/// every request and seldom changed.
class TV_CAPABILITY("mutex") SharedMutex {
 public:
  SharedMutex() = default;
  SharedMutex(const SharedMutex&) = delete;
  SharedMutex& operator=(const SharedMutex&) = delete;

  void lock() TV_ACQUIRE() { mutex_.lock(); }
  void unlock() TV_RELEASE() { mutex_.unlock(); }
  void lockShared() TV_ACQUIRE_SHARED() { mutex_.lock_shared(); }
  void unlockShared() TV_RELEASE_SHARED() { mutex_.unlock_shared(); }

 private:
  std::shared_mutex mutex_;
};

/// Holds a SharedMutex for reading for the length of a scope.
class TV_SCOPED_CAPABILITY ReaderLock {
 public:
  explicit ReaderLock(SharedMutex& mutex) TV_ACQUIRE_SHARED(mutex) : mutex_(mutex) {
    mutex_.lockShared();
  }
  ~ReaderLock() TV_RELEASE() { mutex_.unlockShared(); }
  ReaderLock(const ReaderLock&) = delete;
  ReaderLock& operator=(const ReaderLock&) = delete;

 private:
  SharedMutex& mutex_;
};

/// Holds a SharedMutex for writing for the length of a scope.
class TV_SCOPED_CAPABILITY WriterLock {
 public:
  explicit WriterLock(SharedMutex& mutex) TV_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~WriterLock() TV_RELEASE() { mutex_.unlock(); }
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;

 private:
  SharedMutex& mutex_;
};

/// A condition variable to be waited on while its Mutex is held (through a MutexLock).
/// Callers loop on their own condition: wake-ups may be spurious.
class CondVar {
 public:
  void wait(Mutex& mutex) TV_REQUIRES(mutex) { condition_.wait(mutex); }

  /// Returns false when the time ran out.
  template <class Duration>
  bool waitFor(Mutex& mutex, Duration timeout) TV_REQUIRES(mutex) {
    return condition_.wait_for(mutex, timeout) == std::cv_status::no_timeout;
  }

  void notifyOne() { condition_.notify_one(); }
  void notifyAll() { condition_.notify_all(); }

 private:
  std::condition_variable_any condition_;
};

}  // namespace tavrel::platform
