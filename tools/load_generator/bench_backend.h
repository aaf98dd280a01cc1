#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <queue>
#include <string>
#include <string_view>
#include <vector>

#include "load_generator/measurement.h"
#include "load_generator/socket.h"

namespace tavrel::load {

/// A model worker reduced to what a proxy sees of one: it answers every chat request with the same
/// small completion at once, or streams events at a steady pace, and notes when a client hung up.
/// Ten workers are ten ports of one process, so that the backend takes as little as possible of the
/// machine it shares with the proxy that is measured.
///
/// Threads: one; run() returns when `stop_descriptor` becomes readable.
/// Time: paces within about a millisecond; noted times are monotonicNanoseconds().
/// Failure: a connection that sends what it does not understand is closed.
class BenchBackend {
 public:
  BenchBackend(int port_count, int stop_descriptor);
  ~BenchBackend();

  const std::vector<int>& ports() const { return ports_; }
  void run();

 private:
  struct Connection;
  struct Timer {
    std::int64_t due_ns;
    int fd;
    std::uint64_t serial;  ///< of the connection, since descriptors are used again
    bool operator>(const Timer& other) const { return due_ns > other.due_ns; }
  };
  struct Sighting {
    std::int64_t arrived_ns = 0;
    std::int64_t left_ns = 0;  ///< 0: the client never left before its answer was complete
  };

  void handleEvent(int fd, std::uint32_t events);
  void acceptAll(int listener);
  void readFrom(Connection& connection);
  /// Answers the complete requests that have arrived; false when the connection must be closed.
  bool serve(Connection& connection);
  bool serveOne(Connection& connection, std::string_view head, std::string_view body);
  void startChat(Connection& connection, std::string_view body);
  void fireTimers();
  void continueStream(Connection& connection);
  void finishAnswer(Connection& connection);
  void schedule(const Connection& connection, std::int64_t due_ns);
  int millisecondsToNextTimer() const;
  void flush(Connection& connection);
  void closeConnection(Connection& connection);
  std::string statistics() const;

  int stop_descriptor_;
  std::vector<int> ports_;
  std::vector<Descriptor> listeners_;
  Epoll epoll_;
  std::vector<std::unique_ptr<Connection>> connections_;  // by descriptor
  std::priority_queue<Timer, std::vector<Timer>, std::greater<>> timers_;
  std::map<std::int64_t, Sighting> sightings_;  // by tag
  std::uint64_t accepted_ = 0;
  std::uint64_t requests_ = 0;
};

}  // namespace tavrel::load
