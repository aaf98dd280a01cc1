#pragma once

namespace tavrel::platform {

/// Told when the current thread is about to wait for something outside this process and when it has
/// stopped waiting. A thread pool installs one per thread, so that it can keep enough other threads
/// running meanwhile.
class BlockingObserver {
 public:
  virtual ~BlockingObserver() = default;
  virtual void enterBlocking() = 0;
  virtual void leaveBlocking() = 0;

  /// The observer of the calling thread; null where nobody wants to know.
  static BlockingObserver*& ofThisThread() {
    thread_local BlockingObserver* observer = nullptr;
    return observer;
  }
};

/// Put around every wait for a peer, a program or an event that a request handler makes. Scopes may
/// nest; only the outermost counts.
class BlockingScope {
 public:
  BlockingScope() {
    if (depth()++ == 0 && BlockingObserver::ofThisThread() != nullptr) {
      BlockingObserver::ofThisThread()->enterBlocking();
    }
  }
  ~BlockingScope() {
    if (--depth() == 0 && BlockingObserver::ofThisThread() != nullptr) {
      BlockingObserver::ofThisThread()->leaveBlocking();
    }
  }
  BlockingScope(const BlockingScope&) = delete;
  BlockingScope& operator=(const BlockingScope&) = delete;

 private:
  static int& depth() {
    thread_local int value = 0;
    return value;
  }
};

}  // namespace tavrel::platform
