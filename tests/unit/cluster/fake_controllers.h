#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "cluster/controller_transport.h"
#include "platform/mutex.h"

namespace tavrel::test {

inline net::HttpResult answerWith(const nlohmann::json& body, int status = 200) {
  return {"", 0, status, body.dump(), "application/json"};
}
inline net::HttpResult noAnswer() {
  return {"Couldn't connect to server", 7, 0, "", ""};
}

/// Other controllers, as a function from a call to its answer. Keeps the calls.
class FakeControllers : public cluster::ControllerTransport {
 public:
  using Answer = std::function<net::HttpResult(const cluster::ControllerCall&)>;

  net::HttpResult send(const cluster::ControllerCall& call) override {
    {
      const platform::MutexLock lock(mu_);
      calls_.push_back(call);
    }
    return answer ? answer(call) : noAnswer();
  }
  /// The calls since the last time.
  std::vector<cluster::ControllerCall> take() {
    const platform::MutexLock lock(mu_);
    return std::exchange(calls_, {});
  }

  Answer answer;  ///< empty: nobody answers

 private:
  platform::Mutex mu_;
  std::vector<cluster::ControllerCall> calls_ TV_GUARDED_BY(mu_);
};

}  // namespace tavrel::test
