#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "controller/hierarchy/hierarchy_records.h"
#include "platform/mutex.h"

namespace tavrel::controller {

/// What a master has ordered and what came of it.
/// Threads: any; mu_ is a leaf lock.
/// Sizes are those of the JSON text. However large the orders, one answer has room for what is
/// handed over at once, and can be read: a sub that could not read it would lose every command in
/// it.
class CommandBook {
 public:
  static constexpr std::size_t kMaxCommandBytes = std::size_t{1} << 20;
  static constexpr std::size_t kMaxHandedOverBytes = std::size_t{1} << 20;
  static constexpr std::size_t kMaxQueued = 1000;                        ///< for one sub
  static constexpr std::size_t kMaxQueuedBytes = std::size_t{16} << 20;  ///< for all subs
  static constexpr std::size_t kMaxResults = 4096;                       ///< the oldest are
  static constexpr std::size_t kMaxResultBytes = std::size_t{64} << 20;  ///< forgotten

  explicit CommandBook(std::size_t max_result_bytes = kMaxResultBytes)
      : max_result_bytes_(max_result_bytes) {}

  /// False when the command is too large or nested too deeply, or too many wait.
  bool issue(const std::string& sub_id, MasterCommand command) TV_EXCLUDES(mu_);
  /// The sub has said that it got the command. It still gets it once more, with the others: it
  /// knows by the id that it has it.
  void markDelivered(const std::string& sub_id, const std::string& command_id) TV_EXCLUDES(mu_);
  /// Hands over what waits for the sub, the oldest first; what is too much for once keeps waiting.
  std::vector<MasterCommand> take(const std::string& sub_id) TV_EXCLUDES(mu_);
  /// A sub that begins anew no longer knows what it was given: it is not to get it again.
  void dropDelivered(const std::string& sub_id) TV_EXCLUDES(mu_);
  void forget(const std::string& sub_id) TV_EXCLUDES(mu_);
  std::size_t waiting() const TV_EXCLUDES(mu_);

  /// A later result of the same command replaces the first. Who tells it had the command.
  void storeResult(const CommandResult& result) TV_EXCLUDES(mu_);
  /// As CommandResult::toJson gave it.
  std::optional<nlohmann::json> result(const std::string& command_id) const TV_EXCLUDES(mu_);

 private:
  struct Issued {
    MasterCommand command;
    std::size_t bytes = 0;
    bool delivered = false;
  };

  void markDeliveredLocked(const std::string& sub_id, const std::string& command_id)
      TV_REQUIRES(mu_);
  void erase(std::vector<Issued>& queue, std::size_t count) TV_REQUIRES(mu_);

  const std::size_t max_result_bytes_;

  mutable platform::Mutex mu_;
  std::map<std::string, std::vector<Issued>> queues_ TV_GUARDED_BY(mu_);
  std::size_t queued_bytes_ TV_GUARDED_BY(mu_) = 0;
  std::map<std::string, std::string> results_ TV_GUARDED_BY(mu_);  ///< as text: a tenth of the size
  std::size_t result_bytes_ TV_GUARDED_BY(mu_) = 0;
  std::deque<std::string> result_order_ TV_GUARDED_BY(mu_);
};

/// The commands a sub has received and not yet begun. Lets every command in once, however often it
/// comes.
/// Threads: any; mu_ is a leaf lock.
class CommandInbox {
 public:
  static constexpr std::size_t kMaxPending = 1000;
  static constexpr std::size_t kMaxPendingBytes = std::size_t{64} << 20;
  static constexpr std::size_t kMaxIdBytes = 256;
  static constexpr std::size_t kRemembered = 8192;  ///< ids of the last commands

  /// kFull: too many commands wait, or this one is too large.
  enum class Receipt { kNew, kKnown, kFull };
  Receipt add(const MasterCommand& command) TV_EXCLUDES(mu_);

  std::vector<MasterCommand> takeAll() TV_EXCLUDES(mu_);
  std::optional<MasterCommand> takeOne() TV_EXCLUDES(mu_);
  std::size_t size() const TV_EXCLUDES(mu_);

 private:
  struct Pending {
    MasterCommand command;
    std::size_t bytes = 0;
  };

  mutable platform::Mutex mu_;
  std::deque<Pending> pending_ TV_GUARDED_BY(mu_);
  std::size_t pending_bytes_ TV_GUARDED_BY(mu_) = 0;
  std::set<std::string> known_ TV_GUARDED_BY(mu_);
  std::deque<std::string> known_order_ TV_GUARDED_BY(mu_);
};

}  // namespace tavrel::controller
