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
  static BlockingObserver*& ofThisThread();
};

/// Put around every wait for a peer, a program or an event that blocks the thread of a request
/// handler. Scopes may nest; only the outermost counts. A fiber that is in one is not suspended.
class BlockingScope {
 public:
  BlockingScope();
  ~BlockingScope();
  BlockingScope(const BlockingScope&) = delete;
  BlockingScope& operator=(const BlockingScope&) = delete;

  /// True while the calling thread is in one.
  static bool active();
};

}  // namespace tavrel::platform
