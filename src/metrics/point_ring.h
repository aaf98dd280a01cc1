#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

namespace tavrel::metrics {

/// The newest points of one series, oldest first, in one piece of memory that grows with the
/// series up to its limit. Not synchronised: the owner locks.
template <class Point>
class PointRing {
 public:
  /// Appends; the oldest points leave so that at most `limit` (at least 1) remain.
  void push(const Point& point, std::size_t limit) {
    while (size_ >= limit) popFront();
    if (size_ == slots_.size()) grow(limit);
    slots_[(head_ + size_) % slots_.size()] = point;
    ++size_;
  }

  void popFront() {
    head_ = (head_ + 1) % slots_.size();
    --size_;
  }

  bool empty() const { return size_ == 0; }
  std::size_t size() const { return size_; }
  const Point& operator[](std::size_t index) const {
    return slots_[(head_ + index) % slots_.size()];
  }
  const Point& front() const { return (*this)[0]; }
  const Point& back() const { return (*this)[size_ - 1]; }

 private:
  void grow(std::size_t limit) {
    std::vector<Point> larger(std::min(limit, std::max<std::size_t>(8, 2 * size_)));
    for (std::size_t i = 0; i < size_; ++i) larger[i] = (*this)[i];
    slots_ = std::move(larger);
    head_ = 0;
  }

  std::vector<Point> slots_;
  std::size_t head_ = 0;
  std::size_t size_ = 0;
};

}  // namespace tavrel::metrics
