#include "api/api_key_table.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "platform/files.h"
#include "platform/random.h"

namespace tavrel::api {
namespace {

constexpr std::size_t kApiKeyCharacters = 32;

void readStrings(const nlohmann::json& object, const char* name, std::vector<std::string>& to) {
  const auto member = object.find(name);
  if (member != object.end() && member->is_array()) to = member->get<std::vector<std::string>>();
}

ApiKeyEntry readEntry(const nlohmann::json& object) {
  ApiKeyEntry entry;
  entry.key = object.value("key", "");
  entry.name = object.value("name", "");
  entry.type = object.value("type", entry.type);
  entry.revoked = object.value("revoked", false);
  readStrings(object, "roles", entry.roles);
  readStrings(object, "permissions", entry.permissions);
  readStrings(object, "allowed_ips", entry.allowed_ips);
  return entry;
}

std::vector<ApiKeyEntry> readEntries(const std::string& text) {
  const nlohmann::json document = nlohmann::json::parse(text);
  std::vector<ApiKeyEntry> entries;
  const nlohmann::json list = document.value("api_keys", nlohmann::json::array());
  for (const nlohmann::json& object : list.get_ref<const nlohmann::json::array_t&>()) {
    ApiKeyEntry entry = readEntry(object);
    if (!entry.key.empty()) entries.push_back(std::move(entry));
  }
  return entries;
}

}  // namespace

ApiKey::ApiKey(ApiKeyEntry entry)
    : entry_(std::move(entry)),
      identity_{entry_.name,
                entry_.type,
                entry_.roles,
                entry_.permissions,
                {{"api_key_name", entry_.name}}},
      revoked_(entry_.revoked),
      request_count_(entry_.request_count),
      last_used_(entry_.last_used) {}

bool ApiKey::isUsable(const std::string& client_ip, platform::WallTime now) const {
  if (revoked_.load()) return false;
  if (entry_.expires_at != platform::WallTime{} && now >= entry_.expires_at) return false;
  const std::vector<std::string>& ips = entry_.allowed_ips;
  return ips.empty() || std::any_of(ips.begin(), ips.end(), [&](const std::string& ip) {
           return ip == "*" || ip == client_ip;
         });
}

void ApiKey::countUse(platform::WallTime now) {
  request_count_.fetch_add(1, std::memory_order_relaxed);
  last_used_.store(now, std::memory_order_relaxed);
}

ApiKeyEntry ApiKey::entry() const {
  ApiKeyEntry copy = entry_;
  copy.revoked = revoked_.load();
  copy.request_count = request_count_.load(std::memory_order_relaxed);
  copy.last_used = last_used_.load(std::memory_order_relaxed);
  return copy;
}

void ApiKeyTable::add(ApiKeyEntry entry) {
  ApiKeyPtr key = std::make_shared<ApiKey>(std::move(entry));
  const platform::WriterLock lock(mu_);
  keys_[key->key()] = key;
}

ApiKeyPtr ApiKeyTable::find(const std::string& key) const {
  const platform::ReaderLock lock(mu_);
  const auto found = keys_.find(key);
  return found == keys_.end() ? nullptr : found->second;
}

bool ApiKeyTable::revoke(const std::string& key) {
  const ApiKeyPtr found = find(key);
  if (found == nullptr) return false;
  found->revoke();
  return true;
}

bool ApiKeyTable::remove(const std::string& key) {
  const platform::WriterLock lock(mu_);
  return keys_.erase(key) > 0;
}

std::vector<ApiKeyEntry> ApiKeyTable::list() const {
  std::vector<ApiKeyEntry> entries;
  {
    const platform::ReaderLock lock(mu_);
    entries.reserve(keys_.size());
    for (const auto& [text, key] : keys_) entries.push_back(key->entry());
  }
  std::sort(entries.begin(), entries.end(),
            [](const ApiKeyEntry& a, const ApiKeyEntry& b) { return a.key < b.key; });
  return entries;
}

std::size_t ApiKeyTable::size() const {
  const platform::ReaderLock lock(mu_);
  return keys_.size();
}

std::string generateSecureToken(std::size_t length) {
  return platform::secureRandomText(
      length, "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz");
}

std::string generateApiKeyText(const std::string& type) {
  std::string prefix = "tk_";
  if (type == "admin") prefix = "tk_admin_";
  if (type == "service") prefix = "tk_svc_";
  if (type == "sub-controller") prefix = "tk_sub_";
  return prefix + generateSecureToken(kApiKeyCharacters);
}

std::optional<std::vector<ApiKeyEntry>> readApiKeyFile(const std::string& path) {
  const std::optional<std::string> text = platform::readFile(path);
  if (!text) return std::nullopt;
  try {
    return readEntries(*text);
  } catch (const nlohmann::json::parse_error& failure) {
    // The library's own text would show the bytes before the mistake, perhaps a key.
    throw std::runtime_error("API key file " + path + " is not JSON: mistake at byte " +
                             std::to_string(failure.byte));
  } catch (const nlohmann::json::exception& failure) {
    throw std::runtime_error("API key file " + path + " is malformed: " + failure.what());
  }
}

bool writeApiKeyFile(const std::string& path, const std::vector<ApiKeyEntry>& keys) {
  nlohmann::json list = nlohmann::json::array();
  for (const ApiKeyEntry& key : keys) {
    nlohmann::json object = {{"key", key.key},
                             {"name", key.name},
                             {"type", key.type},
                             {"roles", key.roles},
                             {"permissions", key.permissions},
                             {"revoked", key.revoked},
                             {"request_count", key.request_count}};
    if (!key.allowed_ips.empty()) object["allowed_ips"] = key.allowed_ips;
    list.push_back(std::move(object));
  }
  const nlohmann::json document = {{"api_keys", std::move(list)}};
  return platform::writeFileAtomically(path, document.dump(2));
}

}  // namespace tavrel::api
