#pragma once

#include <nlohmann/json_fwd.hpp>

#include "load_generator/options.h"

namespace tavrel::load {

/// The kinds of load. Each reads its own options, drives 127.0.0.1 from one thread within a bounded
/// time, and returns its figures. They throw std::invalid_argument for a wrong option and
/// std::runtime_error when what they talk to does not answer as HTTP.

/// Streamed chats opened all at once: time to the first byte, events lost.
nlohmann::json runStream(Options& options);

/// Clients that hang up in the middle of an answer: how long until the backend saw it.
nlohmann::json runLeave(Options& options);

/// Registers workers and repeats their heartbeats, with full metrics, as fast as they are answered.
nlohmann::json runHeartbeats(Options& options);

/// Keep-alive connections that do nothing; prints {"ready": n} once they are all open and holds
/// them until standard input ends or the time is over.
nlohmann::json runIdle(Options& options);

}  // namespace tavrel::load
