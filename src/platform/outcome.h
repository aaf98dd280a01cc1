#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <utility>

namespace tavrel::platform {

/// What a caller is told: a JSON answer, or an error text. A plain value.
struct Outcome {
  int status = 200;
  nlohmann::json body;  ///< holds when `error` is empty
  std::string error;

  static Outcome ok(nlohmann::json body) { return {200, std::move(body), {}}; }
  static Outcome refused(int status, std::string error) {
    return {status, nullptr, std::move(error)};
  }
};

}  // namespace tavrel::platform
