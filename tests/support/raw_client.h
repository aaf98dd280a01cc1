#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace tavrel::test {

/// A TCP client that sends exactly what a test says, for what a well-behaved client never does.
class RawClient {
 public:
  explicit RawClient(int port);
  ~RawClient();
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  /// False once the peer has closed.
  bool send(std::string_view bytes) const;
  /// Ends the sending side; answers can still be read.
  void halfClose() const;
  void close();

  /// Reads until `text` has arrived (everything read is returned), the peer closes, or time is up.
  std::string readUntil(std::string_view text,
                        std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
  /// Everything until the peer closes.
  std::string readAll(std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
  /// True when the peer closes within the time; what it sends before is dropped.
  bool closedWithin(std::chrono::milliseconds timeout) const;

 private:
  int socket_;
};

}  // namespace tavrel::test
