#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "controller/hierarchy/hierarchy_records.h"
#include "platform/mutex.h"

namespace tavrel::controller {

/// What a master has ordered and what came of it.
/// Threads: any; mu_ is a leaf lock.
class CommandBook {
 public:
  static constexpr std::size_t kMaxQueued = 1000;   ///< for one sub
  static constexpr std::size_t kMaxResults = 4096;  ///< the oldest are forgotten

  /// False when too many wait for this sub.
  bool issue(const std::string& sub_id, MasterCommand command) TV_EXCLUDES(mu_);
  /// The sub has said that it got the command. It still gets it once more, with the others: it
  /// knows by the id that it has it.
  void markDelivered(const std::string& sub_id, const std::string& command_id) TV_EXCLUDES(mu_);
  /// Hands over what waits for the sub.
  std::vector<MasterCommand> take(const std::string& sub_id) TV_EXCLUDES(mu_);
  /// A sub that begins anew no longer knows what it was given: it is not to get it again.
  void dropDelivered(const std::string& sub_id) TV_EXCLUDES(mu_);
  void forget(const std::string& sub_id) TV_EXCLUDES(mu_);
  std::size_t waiting() const TV_EXCLUDES(mu_);

  /// A later result of the same command replaces the first.
  void storeResult(const CommandResult& result) TV_EXCLUDES(mu_);
  std::optional<CommandResult> result(const std::string& command_id) const TV_EXCLUDES(mu_);

 private:
  struct Issued {
    MasterCommand command;
    bool delivered = false;
  };

  mutable platform::Mutex mu_;
  std::map<std::string, std::vector<Issued>> queues_ TV_GUARDED_BY(mu_);
  std::map<std::string, CommandResult> results_ TV_GUARDED_BY(mu_);
  std::deque<std::string> result_order_ TV_GUARDED_BY(mu_);
};

/// The commands a sub has received and not yet begun. Lets every command in once, however often it
/// comes.
/// Threads: any; mu_ is a leaf lock.
class CommandInbox {
 public:
  static constexpr std::size_t kMaxPending = 1000;
  static constexpr std::size_t kRemembered = 8192;  ///< ids of the last commands

  enum class Receipt { kNew, kKnown, kFull };
  Receipt add(const MasterCommand& command) TV_EXCLUDES(mu_);

  std::vector<MasterCommand> takeAll() TV_EXCLUDES(mu_);
  std::optional<MasterCommand> takeOne() TV_EXCLUDES(mu_);
  std::size_t size() const TV_EXCLUDES(mu_);

 private:
  mutable platform::Mutex mu_;
  std::deque<MasterCommand> pending_ TV_GUARDED_BY(mu_);
  std::set<std::string> known_ TV_GUARDED_BY(mu_);
  std::deque<std::string> known_order_ TV_GUARDED_BY(mu_);
};

}  // namespace tavrel::controller
