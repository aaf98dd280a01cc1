#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <vector>

namespace tavrel::platform {

/// Runs the jobs on at most `at_once` threads, the calling one among them, and returns when all
/// that were begun are done. They are begun in order; with `begin_within`, none but the first is
/// begun after that time. Jobs must not throw.
void runSideBySide(const std::vector<std::function<void()>>& jobs, std::size_t at_once,
                   std::optional<std::chrono::milliseconds> begin_within = std::nullopt);

}  // namespace tavrel::platform
