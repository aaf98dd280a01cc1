#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "config/backend_profile.h"
#include "platform/mutex.h"

namespace tavrel::config {

/// The catalogue of backend profiles and which worker uses which. Begins empty at every start;
/// every change is written to a file, which nothing reads back by itself.
///
/// Threads: any. mu_ is a leaf lock; save_mu_ orders the writing of the file and is held meanwhile.
class BackendProfileManager {
 public:
  /// `path`: the file of saveProfiles.
  explicit BackendProfileManager(std::string path) : path_(std::move(path)) {}

  /// Adds the profile, or replaces the one of its id.
  void addProfile(BackendProfile profile) TV_EXCLUDES(mu_);
  /// Replaces the profile of that id, which keeps the time it was made at; nothing, and no
  /// change, when there is none.
  std::optional<BackendProfile> updateProfile(BackendProfile profile) TV_EXCLUDES(mu_);
  /// Assignments keep the id; it is skipped from now on.
  bool removeProfile(const std::string& id) TV_EXCLUDES(mu_);
  std::optional<BackendProfile> getProfile(const std::string& id) const TV_EXCLUDES(mu_);
  std::vector<BackendProfile> getAllProfiles() const TV_EXCLUDES(mu_);  ///< in id order

  /// Replaces what the worker had.
  void assignProfilesToWorker(WorkerBackendAssignment assignment) TV_EXCLUDES(mu_);
  std::optional<WorkerBackendAssignment> getWorkerAssignment(const std::string& worker_id) const
      TV_EXCLUDES(mu_);
  /// The worker's profiles that exist and are enabled, the preferred ones first.
  std::vector<BackendProfile> getProfilesForWorker(const std::string& worker_id) const
      TV_EXCLUDES(mu_);

  /// Writes everything, secrets included, to the file (mode 0600). False when that fails; the file
  /// is then as it was.
  bool saveProfiles() TV_EXCLUDES(mu_, save_mu_);
  /// Adds what a file written by saveProfiles has. False, and no change, when it cannot be read.
  bool loadProfiles(const std::string& path) TV_EXCLUDES(mu_);

  /// "bp-" and 12 hexadecimal digits.
  static std::string generateProfileId();

 private:
  const std::string path_;
  platform::Mutex save_mu_;
  mutable platform::Mutex mu_;
  std::map<std::string, BackendProfile> profiles_ TV_GUARDED_BY(mu_);
  std::map<std::string, WorkerBackendAssignment> assignments_ TV_GUARDED_BY(mu_);
};

}  // namespace tavrel::config
