#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "cluster/node_info.h"
#include "platform/mutex.h"

namespace tavrel::cluster {

/// A rule of the controller's own list. The controller keeps it for those who route; it applies
/// none itself. A plain value.
struct RoutingRule : RouterRule {
  std::string target_model;
  bool detect_theme = false;  ///< the theme of a request it matches is to be found out

  nlohmann::json toJson() const;
};

/// The list, highest priority first. Lives in memory only.
/// Threads: any; mu_ is a leaf lock.
class RoutingRules {
 public:
  /// Adds the rule, whether or not there is one of its id.
  void add(RoutingRule rule) TV_EXCLUDES(mu_);
  /// Removes every rule of that id; false when there is none.
  bool remove(const std::string& id) TV_EXCLUDES(mu_);
  std::vector<RoutingRule> all() const TV_EXCLUDES(mu_);

 private:
  mutable platform::Mutex mu_;
  std::vector<RoutingRule> rules_ TV_GUARDED_BY(mu_);
};

}  // namespace tavrel::cluster
