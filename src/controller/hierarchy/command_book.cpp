#include "controller/hierarchy/command_book.h"

#include <iterator>
#include <utility>

namespace tavrel::controller {

using platform::MutexLock;

bool CommandBook::issue(const std::string& sub_id, MasterCommand command) {
  const MutexLock lock(mu_);
  std::vector<Issued>& queue = queues_[sub_id];
  if (queue.size() >= kMaxQueued) return false;
  queue.push_back({std::move(command)});
  return true;
}

void CommandBook::markDelivered(const std::string& sub_id, const std::string& command_id) {
  const MutexLock lock(mu_);
  const auto place = queues_.find(sub_id);
  if (place == queues_.end()) return;
  for (Issued& issued : place->second) {
    if (issued.command.id == command_id) issued.delivered = true;
  }
}

std::vector<MasterCommand> CommandBook::take(const std::string& sub_id) {
  std::vector<Issued> queue;
  {
    const MutexLock lock(mu_);
    const auto place = queues_.find(sub_id);
    if (place == queues_.end()) return {};
    queue = std::move(place->second);
    queues_.erase(place);
  }
  std::vector<MasterCommand> commands;
  commands.reserve(queue.size());
  for (Issued& issued : queue) commands.push_back(std::move(issued.command));
  return commands;
}

void CommandBook::dropDelivered(const std::string& sub_id) {
  const MutexLock lock(mu_);
  const auto place = queues_.find(sub_id);
  if (place == queues_.end()) return;
  std::erase_if(place->second, [](const Issued& issued) { return issued.delivered; });
}

void CommandBook::forget(const std::string& sub_id) {
  const MutexLock lock(mu_);
  queues_.erase(sub_id);
}

std::size_t CommandBook::waiting() const {
  const MutexLock lock(mu_);
  std::size_t count = 0;
  for (const auto& [sub_id, queue] : queues_) count += queue.size();
  return count;
}

void CommandBook::storeResult(const CommandResult& result) {
  const MutexLock lock(mu_);
  const bool added = results_.insert_or_assign(result.command_id, result).second;
  if (!added) return;
  result_order_.push_back(result.command_id);
  if (result_order_.size() <= kMaxResults) return;
  results_.erase(result_order_.front());
  result_order_.pop_front();
}

std::optional<CommandResult> CommandBook::result(const std::string& command_id) const {
  const MutexLock lock(mu_);
  const auto place = results_.find(command_id);
  return place == results_.end() ? std::nullopt : std::optional(place->second);
}

CommandInbox::Receipt CommandInbox::add(const MasterCommand& command) {
  const MutexLock lock(mu_);
  if (known_.contains(command.id)) return Receipt::kKnown;
  if (pending_.size() >= kMaxPending) return Receipt::kFull;
  pending_.push_back(command);
  known_.insert(command.id);
  known_order_.push_back(command.id);
  if (known_order_.size() > kRemembered) {
    known_.erase(known_order_.front());
    known_order_.pop_front();
  }
  return Receipt::kNew;
}

std::vector<MasterCommand> CommandInbox::takeAll() {
  const MutexLock lock(mu_);
  std::vector<MasterCommand> commands(std::make_move_iterator(pending_.begin()),
                                      std::make_move_iterator(pending_.end()));
  pending_.clear();
  return commands;
}

std::optional<MasterCommand> CommandInbox::takeOne() {
  const MutexLock lock(mu_);
  if (pending_.empty()) return std::nullopt;
  MasterCommand command = std::move(pending_.front());
  pending_.pop_front();
  return command;
}

std::size_t CommandInbox::size() const {
  const MutexLock lock(mu_);
  return pending_.size();
}

}  // namespace tavrel::controller
