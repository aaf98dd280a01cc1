#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/mutex.h"

namespace tavrel::test {

/// Something a test lets happen and a script waits for. Any thread.
class Gate {
 public:
  Gate();
  ~Gate();
  Gate(const Gate&) = delete;
  Gate& operator=(const Gate&) = delete;

  void open();
  bool waitUntilOpen() const;
  /// Readable once open.
  int descriptor() const { return descriptor_; }

 private:
  const int descriptor_;
};

class MockPeer;

/// One connection to a MockPeer, in the hands of the script.
class MockConnection {
 public:
  /// The next request, its body by Content-Length included; "" when the other side hung up or the
  /// peer is going away.
  std::string readRequest();
  /// False when the other side has gone.
  bool send(std::string_view bytes);
  /// True once the gate is open, false when the other side hung up before or the peer goes away.
  bool waitFor(const Gate& gate);

  /// Reads nothing until the gate is open, so that the other side's sending comes to a stop.
  void ignoreUntil(const Gate& gate);
  void closeSending();  ///< half-close: the other side reads the end, and may go on sending
  void close();
  void reset();  ///< the other side gets an error instead of an end

 private:
  friend class MockPeer;
  enum class Event { kData, kGate, kEnd };

  MockConnection(MockPeer& peer, int socket, std::size_t index)
      : peer_(peer), socket_(socket), index_(index) {}
  Event waitForEvent(int gate);
  Event takeBytes();
  void untilHangUp();

  MockPeer& peer_;
  int socket_;
  const std::size_t index_;
  std::string unread_;  // received, not yet handed out by readRequest
};

/// A TCP server for tests that does to its clients whatever a script says, and remembers what they
/// did.
///
/// Listens on 127.0.0.1 on a port of the system's choice. Every connection has a thread of its own
/// that runs the script and then, unless the script closed it, keeps it open until the other side
/// hangs up: an empty script is a peer that accepts and stays silent. Nothing here sleeps; every
/// wait of the test is bounded (ten seconds).
class MockPeer {
 public:
  using Script = std::function<void(MockConnection&)>;

  explicit MockPeer(Script script);
  ~MockPeer();
  MockPeer(const MockPeer&) = delete;
  MockPeer& operator=(const MockPeer&) = delete;

  /// Answers every request with `answer`, until the other side hangs up.
  static Script answering(std::string answer);
  /// Reads a request, answers it and hangs up.
  static Script answeringOnce(std::string answer);

  int port() const { return port_; }
  /// "http://127.0.0.1:<port>" and `path`.
  std::string url(std::string_view path) const;

  std::size_t connections() const TV_EXCLUDES(mutex_);
  /// Every byte that came on a connection (they count from 0).
  std::string received(std::size_t connection) const TV_EXCLUDES(mutex_);
  /// The requests that scripts read, in that order.
  std::vector<std::string> requests() const TV_EXCLUDES(mutex_);
  bool waitForRequests(std::size_t count) TV_EXCLUDES(mutex_);
  bool waitForConnections(std::size_t count) TV_EXCLUDES(mutex_);
  /// When the other side of a connection hung up; nothing when it has not within ten seconds.
  std::optional<platform::SteadyTime> waitForHangUp(std::size_t connection) TV_EXCLUDES(mutex_);

 private:
  friend class MockConnection;
  struct Record {
    std::string received;
    std::optional<platform::SteadyTime> hung_up;
  };

  void acceptConnections();
  void serve(int socket, std::size_t index);
  template <class Condition>
  bool waitUntilLocked(const Condition& condition) TV_REQUIRES(mutex_);

  const Script script_;
  Gate stop_;
  int listener_ = -1;
  int port_ = 0;

  mutable platform::Mutex mutex_;
  platform::CondVar changed_;
  std::vector<Record> records_ TV_GUARDED_BY(mutex_);
  std::vector<std::string> requests_ TV_GUARDED_BY(mutex_);

  std::vector<std::thread> workers_;  // touched by the acceptor, joined after it
  std::thread acceptor_;
};

/// A port of 127.0.0.1 on which every connection is refused, for as long as this lives.
class RefusingPort {
 public:
  RefusingPort();
  ~RefusingPort();
  RefusingPort(const RefusingPort&) = delete;
  RefusingPort& operator=(const RefusingPort&) = delete;
  int port() const { return port_; }

 private:
  int socket_ = -1;
  int port_ = 0;
};

/// A port of 127.0.0.1 on which connections are neither accepted nor refused: its queue is full.
class UnansweringPort {
 public:
  UnansweringPort();
  ~UnansweringPort();
  UnansweringPort(const UnansweringPort&) = delete;
  UnansweringPort& operator=(const UnansweringPort&) = delete;
  int port() const { return port_; }

 private:
  int listener_ = -1;
  std::vector<int> queued_;
  int port_ = 0;
};

/// An answer in HTTP/1.1 with a Content-Length; `headers` are whole lines with their CRLF.
std::string httpAnswer(int status, std::string_view body, std::string_view headers = "");

}  // namespace tavrel::test
