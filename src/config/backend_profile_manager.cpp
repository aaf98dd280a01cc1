#include "config/backend_profile_manager.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "platform/files.h"
#include "platform/json_text.h"
#include "platform/random.h"

namespace tavrel::config {

using nlohmann::json;
using platform::MutexLock;

namespace {

constexpr std::size_t kIdDigits = 12;

template <class Value>
std::optional<Value> valueOf(const std::map<std::string, Value>& values, const std::string& id) {
  const auto found = values.find(id);
  if (found == values.end()) return std::nullopt;
  return found->second;
}

}  // namespace

void BackendProfileManager::addProfile(BackendProfile profile) {
  const MutexLock lock(mu_);
  std::string id = profile.id;
  profiles_[std::move(id)] = std::move(profile);
}

std::optional<BackendProfile> BackendProfileManager::updateProfile(BackendProfile profile) {
  const MutexLock lock(mu_);
  const auto known = profiles_.find(profile.id);
  if (known == profiles_.end()) return std::nullopt;
  profile.created_at = known->second.created_at;
  known->second = profile;
  return profile;
}

bool BackendProfileManager::removeProfile(const std::string& id) {
  const MutexLock lock(mu_);
  return profiles_.erase(id) == 1;
}

std::optional<BackendProfile> BackendProfileManager::getProfile(const std::string& id) const {
  const MutexLock lock(mu_);
  return valueOf(profiles_, id);
}

std::vector<BackendProfile> BackendProfileManager::getAllProfiles() const {
  const MutexLock lock(mu_);
  std::vector<BackendProfile> all;
  for (const auto& [id, profile] : profiles_) all.push_back(profile);
  return all;
}

void BackendProfileManager::assignProfilesToWorker(WorkerBackendAssignment assignment) {
  const MutexLock lock(mu_);
  std::string worker = assignment.worker_id;
  assignments_[std::move(worker)] = std::move(assignment);
}

std::optional<WorkerBackendAssignment> BackendProfileManager::getWorkerAssignment(
    const std::string& worker_id) const {
  const MutexLock lock(mu_);
  return valueOf(assignments_, worker_id);
}

std::vector<BackendProfile> BackendProfileManager::getProfilesForWorker(
    const std::string& worker_id) const {
  std::vector<BackendProfile> found;
  {
    const MutexLock lock(mu_);
    const auto assignment = assignments_.find(worker_id);
    if (assignment == assignments_.end()) return found;
    for (const std::string& id : assignment->second.profile_ids) {
      const auto profile = profiles_.find(id);
      if (profile != profiles_.end() && profile->second.enabled) found.push_back(profile->second);
    }
  }
  std::stable_sort(
      found.begin(), found.end(),
      [](const BackendProfile& a, const BackendProfile& b) { return a.priority < b.priority; });
  return found;
}

bool BackendProfileManager::saveProfiles() {
  // Whoever writes last has read last: the file never falls behind.
  const MutexLock saving(save_mu_);
  json profiles = json::array();
  json assignments = json::array();
  {
    const MutexLock lock(mu_);
    for (const auto& [id, profile] : profiles_) {
      profiles.push_back(profile.toJson(/*include_secrets=*/true));
    }
    for (const auto& [id, assignment] : assignments_) assignments.push_back(assignment.toJson());
  }
  const json document = {{"profiles", std::move(profiles)},
                         {"worker_assignments", std::move(assignments)}};
  const std::size_t slash = path_.rfind('/');
  if (slash != std::string::npos && !platform::ensureDirectory(path_.substr(0, slash)))
    return false;
  return platform::writeFileAtomically(path_, document.dump(2));
}

bool BackendProfileManager::loadProfiles(const std::string& path) {
  const auto text = platform::readFile(path);
  if (!text) return false;
  std::vector<BackendProfile> profiles;
  std::vector<WorkerBackendAssignment> assignments;
  try {
    const json document = platform::parseForeignJson(*text);
    for (const json& one : document.value("profiles", json::array())) {
      profiles.push_back(BackendProfile::fromJson(one));
    }
    for (const json& one : document.value("worker_assignments", json::array())) {
      assignments.push_back(WorkerBackendAssignment::fromJson(one));
    }
  } catch (const std::exception&) {
    return false;
  }
  for (BackendProfile& profile : profiles) addProfile(std::move(profile));
  for (WorkerBackendAssignment& one : assignments) assignProfilesToWorker(std::move(one));
  return true;
}

std::string BackendProfileManager::generateProfileId() {
  return "bp-" + platform::randomHex(kIdDigits);
}

}  // namespace tavrel::config
