#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/mutex.h"

namespace tavrel::ai {

/// The expert that a text was matched with.
struct ExpertChoice {
  std::string id;
  std::string model;
  std::size_t score = 0;
  std::vector<std::string> categories;
};

/// The mixture-of-experts configuration: one JSON document that operators edit, and the keyword
/// rule that matches a text with one of its experts. Lives in memory only.
///
/// Threads: any; mu_ is a leaf lock. Matching works on a snapshot that is prepared when the
/// document changes, and holds no lock. Failure: members of a wrong type in the document
/// count as missing when matching, and never throw there.
class MoeRouter {
 public:
  MoeRouter();
  ~MoeRouter();

  /// The whole document.
  nlohmann::json config() const TV_EXCLUDES(mu_);
  /// Replaces the members that `changes` (an object) has, and returns the whole document.
  nlohmann::json update(const nlohmann::json& changes) TV_EXCLUDES(mu_);
  /// Appends the expert, whether or not there is one of its id.
  void addExpert(nlohmann::json expert) TV_EXCLUDES(mu_);
  /// Removes the first expert of that id; false when there is none.
  bool removeExpert(const std::string& id) TV_EXCLUDES(mu_);

  /// What the routing route answers: every keyword counts once.
  nlohmann::json route(const std::string& query) const TV_EXCLUDES(mu_);

  /// True when routing is on. Costs one load.
  bool enabled() const { return enabled_.load(std::memory_order_acquire); }
  /// The expert for a chat message: every occurrence of a keyword counts. Empty when routing is off
  /// or no expert applies.
  std::optional<ExpertChoice> chooseForChat(std::string_view text) const TV_EXCLUDES(mu_);

 private:
  struct Snapshot;

  std::shared_ptr<const Snapshot> snapshot() const TV_EXCLUDES(mu_);
  void publish(nlohmann::json document) TV_REQUIRES(mu_);

  std::atomic<bool> enabled_{false};
  mutable platform::Mutex mu_;
  std::shared_ptr<const Snapshot> snapshot_ TV_GUARDED_BY(mu_);
};

}  // namespace tavrel::ai
