#include <algorithm>

#include "identity/crypto.h"
#include "identity/sqlite_user_store.h"
#include "store/store_lock.h"

namespace tavrel::identity {

using store::StoreLock;

namespace {

const std::string kSelectSettings =
    "SELECT id, scope, category, key, value, updated_at FROM user_settings WHERE scope=?";
const std::string kSettingsOfScope = kSelectSettings + " ORDER BY category, key";
const std::string kSettingsOfCategory = kSelectSettings + " AND category=? ORDER BY category, key";

const std::string kSelectCredentials =
    "SELECT id, owner_type, owner_id, name, service, credential_data, shared, created_at, "
    "updated_at, created_by FROM credentials";
const std::string kCredentialById = kSelectCredentials + " WHERE id=?";
const std::string kCredentialsOfOwner = kSelectCredentials + " WHERE owner_type=? AND owner_id=?";
const std::string kSharedCredentials =
    kSelectCredentials + " WHERE owner_type='org' AND owner_id=? AND shared=1";

UserSettingEntry readSetting(store::Statement& row) {
  return {.id = row.nextInteger(),
          .scope = row.nextText(),
          .category = row.nextText(),
          .key = row.nextText(),
          .value = row.nextText(),
          .updated_at = row.nextText()};
}

Credential readCredential(store::Statement& row) {
  return {.id = row.nextText(),
          .owner_type = row.nextText(),
          .owner_id = row.nextText(),
          .name = row.nextText(),
          .service = row.nextText(),
          .credential_data = row.nextText(),
          .shared = row.nextFlag(),
          .created_at = row.nextText(),
          .updated_at = row.nextText(),
          .created_by = row.nextText()};
}

ResourceQuota readQuota(store::Statement& row) {
  return {.id = row.nextInteger(),
          .target_type = row.nextText(),
          .target_id = row.nextText(),
          .metric = row.nextText(),
          .limit_value = row.nextInteger(),
          .current_value = row.nextInteger(),
          .reset_interval = row.nextText(),
          .last_reset = row.nextText()};
}

bool putSetting(store::Database& db, const std::string& scope, const std::string& category,
                const std::string& key, const std::string& value) {
  return db
      .change(
          "INSERT OR REPLACE INTO user_settings (scope, category, key, value, updated_at) "
          "VALUES (?, ?, ?, ?, ?)",
          scope, category, key, value, crypto::nowISO8601())
      .has_value();
}

}  // namespace

std::vector<UserSettingEntry> SqliteUserStore::getSettings(const std::string& scope,
                                                           const std::string& category) {
  const StoreLock lock(mu_);
  if (category.empty()) return db_.findAll(readSetting, kSettingsOfScope, scope);
  return db_.findAll(readSetting, kSettingsOfCategory, scope, category);
}

bool SqliteUserStore::setSetting(const std::string& scope, const std::string& category,
                                 const std::string& key, const std::string& value) {
  const StoreLock lock(mu_);
  return putSetting(db_, scope, category, key, value);
}

bool SqliteUserStore::setSettings(const std::string& scope, const std::string& category,
                                  const std::map<std::string, std::string>& values) {
  const StoreLock lock(mu_);
  // One transaction also because each would wait for the disk.
  return db_.atomically([&](store::Database& db) {
    return std::all_of(values.begin(), values.end(), [&](const auto& item) {
      return putSetting(db, scope, category, item.first, item.second);
    });
  });
}

bool SqliteUserStore::deleteSettingsByScope(const std::string& scope) {
  const StoreLock lock(mu_);
  return db_.change("DELETE FROM user_settings WHERE scope=?", scope).has_value();
}

bool SqliteUserStore::createCredential(const Credential& credential) {
  const StoreLock lock(mu_);
  return db_
      .change(
          "INSERT INTO credentials (id, owner_type, owner_id, name, service, credential_data, "
          "shared, created_at, updated_at, created_by) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
          credential.id, credential.owner_type, credential.owner_id, credential.name,
          credential.service, credential.credential_data, credential.shared, credential.created_at,
          credential.updated_at, credential.created_by)
      .has_value();
}

std::optional<Credential> SqliteUserStore::getCredential(const std::string& id) {
  const StoreLock lock(mu_);
  return db_.findOne(readCredential, kCredentialById, id);
}

std::vector<Credential> SqliteUserStore::listCredentials(const std::string& owner_type,
                                                         const std::string& owner_id) {
  const StoreLock lock(mu_);
  return db_.findAll(readCredential, kCredentialsOfOwner, owner_type, owner_id);
}

std::vector<Credential> SqliteUserStore::listSharedCredentials(const std::string& org_id) {
  if (org_id.empty()) return {};
  const StoreLock lock(mu_);
  return db_.findAll(readCredential, kSharedCredentials, org_id);
}

bool SqliteUserStore::deleteCredential(const std::string& id) {
  const StoreLock lock(mu_);
  return db_.change("DELETE FROM credentials WHERE id=?", id) > 0;
}

std::vector<ResourceQuota> SqliteUserStore::getQuotas(const std::string& target_type,
                                                      const std::string& target_id) {
  const StoreLock lock(mu_);
  return db_.findAll(readQuota,
                     "SELECT id, target_type, target_id, metric, limit_value, current_value, "
                     "reset_interval, last_reset FROM resource_quotas WHERE target_type=? AND "
                     "target_id=?",
                     target_type, target_id);
}

bool SqliteUserStore::setQuota(const ResourceQuota& quota) {
  const StoreLock lock(mu_);
  return db_
      .change(
          "INSERT OR REPLACE INTO resource_quotas (target_type, target_id, metric, limit_value, "
          "current_value, reset_interval, last_reset) VALUES (?, ?, ?, ?, ?, ?, ?)",
          quota.target_type, quota.target_id, quota.metric, quota.limit_value, quota.current_value,
          quota.reset_interval, quota.last_reset)
      .has_value();
}

bool SqliteUserStore::incrementQuotaUsage(const std::string& target_type,
                                          const std::string& target_id, const std::string& metric,
                                          std::int64_t amount) {
  const StoreLock lock(mu_);
  return db_
      .change(
          "UPDATE resource_quotas SET current_value = current_value + ? WHERE target_type=? AND "
          "target_id=? AND metric=?",
          amount, target_type, target_id, metric)
      .has_value();
}

bool SqliteUserStore::checkQuota(const std::string& target_type, const std::string& target_id,
                                 const std::string& metric) {
  const StoreLock lock(mu_);
  store::Statement quota = db_.prepare(
      "SELECT limit_value, current_value FROM resource_quotas WHERE target_type=? AND "
      "target_id=? AND metric=?");
  quota.bind(target_type, target_id, metric);
  switch (quota.step()) {
    case store::StepResult::kRow: {
      const std::int64_t limit = quota.nextInteger();
      return quota.nextInteger() < limit;
    }
    case store::StepResult::kDone:
      return true;
    case store::StepResult::kFailed:
      break;
  }
  return false;
}

void SqliteUserStore::resetDailyQuotas() {
  const StoreLock lock(mu_);
  db_.change(
      "UPDATE resource_quotas SET current_value=0, last_reset=? WHERE reset_interval='daily'",
      crypto::nowISO8601());
}

}  // namespace tavrel::identity
