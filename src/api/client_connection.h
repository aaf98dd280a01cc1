#pragma once

namespace tavrel::api {

/// The connection a request came in on, as far as a handler may know it. Valid while the handler,
/// or the stream body it returned, runs; used by the thread that runs it only.
class ClientConnection {
 public:
  virtual ~ClientConnection() = default;

  /// The client's socket, to be polled for POLLRDHUP beside other descriptors, so that work for a
  /// client that has left can end. Never to be read, written or closed. The server makes it
  /// readable with a hang-up when it stops. -1 where there is no socket (tests).
  virtual int descriptor() const = 0;

  /// True once the client has hung up (a half-closed connection counts) or the server is stopping.
  /// Does not block.
  virtual bool gone() const = 0;
};

}  // namespace tavrel::api
