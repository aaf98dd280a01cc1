#pragma once

#include <sys/epoll.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace tavrel::load {

/// A file descriptor that is closed with its owner.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() { reset(); }
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }

  int get() const { return fd_; }
  bool open() const { return fd_ >= 0; }
  void reset();

 private:
  int fd_ = -1;
};

/// Every function below talks to 127.0.0.1 only and throws std::system_error when the machine
/// refuses (descriptors used up, nobody listens).

/// A listening, non-blocking socket; port 0 lets the system choose.
Descriptor listenOnLoopback(int port, int& bound_port);

/// A connection that blocks for at most `kIoSeconds` in connect, send and receive.
Descriptor connectToLoopback(int port);

/// A non-blocking connection that may still be under way: writable means decided.
Descriptor startConnecting(int port);

constexpr int kIoSeconds = 10;

/// Sends the whole text; false when the peer is gone.
bool sendWhole(int fd, std::string_view text);

/// An HTTP/1.1 request with a JSON body; the connection is kept.
std::string httpPost(int port, std::string_view path, std::string_view body);
std::string httpGet(int port, std::string_view path);

/// A set of descriptors to wait on, each known by a number of the caller's choice.
class Epoll {
 public:
  Epoll();
  void add(int fd, std::uint32_t events, std::uint64_t id);
  void change(int fd, std::uint32_t events, std::uint64_t id);

  /// Waits at most `timeout_ms` and calls handle(id, events) for each that is ready.
  template <typename Handle>
  void wait(int timeout_ms, Handle handle) {
    epoll_event ready[kBatch];
    const int count = epoll_wait(epoll_.get(), ready, kBatch, timeout_ms);
    for (int i = 0; i < count; ++i) handle(ready[i].data.u64, ready[i].events);
  }

 private:
  static constexpr int kBatch = 256;
  Descriptor epoll_;
};

}  // namespace tavrel::load
