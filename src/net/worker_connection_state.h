#pragma once

#include <string>

#include "net/http_response_parser.h"
#include "net/worker_connection.h"
#include "platform/clock.h"

namespace tavrel::net {

struct SocketAddress;

/// The inside of a WorkerConnection, seen by it and by the pool. Owns the socket. Holds no buffer
/// between calls: ten thousand connections that wait cost little memory.
struct WorkerConnection::State {
  explicit State(int watched_client) : client(watched_client) {}
  ~State();
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  void closeSocket();
  void beginExchange();
  WorkerIo connectTo(const SocketAddress& address, platform::SteadyTime deadline);
  void sendWithoutDelay(std::size_t bytes);
  WorkerIo receive(std::string& body, platform::SteadyTime deadline);
  WorkerIo readMore(std::string& body, platform::SteadyTime deadline);

  bool reusable() const;
  /// The worker has neither closed nor said anything unasked. Does not block.
  bool openAndSilent() const;

  int socket = -1;
  int client;
  HttpResponseParser parser;
  std::string decoded;               // body that came together with the head, not handed out yet
  WorkerIo failure = WorkerIo::kOk;  // the one that ended the reading
  bool request_sent = false;         // to its last byte
  bool answer_begun = false;
  bool input_likely = false;  // the last read may have left something
  bool no_delay = false;      // TCP_NODELAY is set
};

}  // namespace tavrel::net
