#include "controller/hierarchy/command_book.h"

#include <algorithm>
#include <utility>

#include "platform/json_text.h"

namespace tavrel::controller {

using platform::MutexLock;

namespace {

/// Objects and arrays around a command's payload in the answer that hands it over.
constexpr int kDepthAroundPayload = 3;

}  // namespace

bool CommandBook::issue(const std::string& sub_id, MasterCommand command) {
  const std::string payload = platform::dumpJson(command.payload);
  const std::size_t bytes = command.type.size() + payload.size();
  if (bytes > kMaxCommandBytes ||
      !platform::jsonWithinLimits(payload, platform::kMaxForeignJsonDepth - kDepthAroundPayload)) {
    return false;
  }
  const MutexLock lock(mu_);
  if (queued_bytes_ + bytes > kMaxQueuedBytes) return false;
  std::vector<Issued>& queue = queues_[sub_id];
  if (queue.size() >= kMaxQueued) return false;
  queue.push_back({std::move(command), bytes});
  queued_bytes_ += bytes;
  return true;
}

void CommandBook::markDelivered(const std::string& sub_id, const std::string& command_id) {
  const MutexLock lock(mu_);
  markDeliveredLocked(sub_id, command_id);
}

void CommandBook::markDeliveredLocked(const std::string& sub_id, const std::string& command_id) {
  const auto place = queues_.find(sub_id);
  if (place == queues_.end()) return;
  for (Issued& issued : place->second) {
    if (issued.command.id == command_id) issued.delivered = true;
  }
}

std::vector<MasterCommand> CommandBook::take(const std::string& sub_id) {
  std::vector<MasterCommand> commands;
  const MutexLock lock(mu_);
  const auto place = queues_.find(sub_id);
  if (place == queues_.end()) return commands;
  std::size_t bytes = 0;
  for (Issued& issued : place->second) {
    bytes += issued.bytes;
    if (!commands.empty() && bytes > kMaxHandedOverBytes) break;
    commands.push_back(std::move(issued.command));
  }
  erase(place->second, commands.size());
  if (place->second.empty()) queues_.erase(place);
  return commands;
}

void CommandBook::erase(std::vector<Issued>& queue, std::size_t count) {
  const auto end = queue.begin() + static_cast<std::ptrdiff_t>(count);
  for (auto issued = queue.begin(); issued != end; ++issued) queued_bytes_ -= issued->bytes;
  queue.erase(queue.begin(), end);
}

void CommandBook::dropDelivered(const std::string& sub_id) {
  const MutexLock lock(mu_);
  const auto place = queues_.find(sub_id);
  if (place == queues_.end()) return;
  std::vector<Issued>& queue = place->second;
  const auto kept = std::stable_partition(queue.begin(), queue.end(),
                                          [](const Issued& issued) { return issued.delivered; });
  erase(queue, static_cast<std::size_t>(kept - queue.begin()));
}

void CommandBook::forget(const std::string& sub_id) {
  const MutexLock lock(mu_);
  const auto place = queues_.find(sub_id);
  if (place == queues_.end()) return;
  erase(place->second, place->second.size());
  queues_.erase(place);
}

std::size_t CommandBook::waiting() const {
  const MutexLock lock(mu_);
  std::size_t count = 0;
  for (const auto& [sub_id, queue] : queues_) count += queue.size();
  return count;
}

void CommandBook::storeResult(const CommandResult& result) {
  std::string text = platform::dumpJson(result.toJson());
  const MutexLock lock(mu_);
  markDeliveredLocked(result.sub_id, result.command_id);
  const auto [place, added] = results_.try_emplace(result.command_id);
  if (added) result_order_.push_back(result.command_id);
  result_bytes_ += text.size();
  result_bytes_ -= place->second.size();
  place->second = std::move(text);
  while (results_.size() > kMaxResults ||
         (result_bytes_ > max_result_bytes_ && results_.size() > 1)) {
    const auto oldest = results_.find(result_order_.front());
    result_bytes_ -= oldest->second.size();
    results_.erase(oldest);
    result_order_.pop_front();
  }
}

std::optional<nlohmann::json> CommandBook::result(const std::string& command_id) const {
  std::string text;
  {
    const MutexLock lock(mu_);
    const auto place = results_.find(command_id);
    if (place == results_.end()) return std::nullopt;
    text = place->second;
  }
  return nlohmann::json::parse(text);
}

CommandInbox::Receipt CommandInbox::add(const MasterCommand& command) {
  const std::size_t bytes = command.type.size() + platform::dumpJson(command.payload).size();
  const MutexLock lock(mu_);
  if (known_.contains(command.id)) return Receipt::kKnown;
  if (command.id.size() > kMaxIdBytes || pending_.size() >= kMaxPending ||
      pending_bytes_ + bytes > kMaxPendingBytes) {
    return Receipt::kFull;
  }
  pending_.push_back({command, bytes});
  pending_bytes_ += bytes;
  known_.insert(command.id);
  known_order_.push_back(command.id);
  if (known_order_.size() > kRemembered) {
    known_.erase(known_order_.front());
    known_order_.pop_front();
  }
  return Receipt::kNew;
}

std::vector<MasterCommand> CommandInbox::takeAll() {
  std::vector<MasterCommand> commands;
  while (auto command = takeOne()) commands.push_back(std::move(*command));
  return commands;
}

std::optional<MasterCommand> CommandInbox::takeOne() {
  const MutexLock lock(mu_);
  if (pending_.empty()) return std::nullopt;
  MasterCommand command = std::move(pending_.front().command);
  pending_bytes_ -= pending_.front().bytes;
  pending_.pop_front();
  return command;
}

std::size_t CommandInbox::size() const {
  const MutexLock lock(mu_);
  return pending_.size();
}

}  // namespace tavrel::controller
