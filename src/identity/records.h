#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

/// What the user store keeps. Plain values; the fields are in the order of the tables' columns.
/// Times are UTC texts, e.g. "2026-01-31T12:00:00Z"; empty means never or unknown.
namespace tavrel::identity {

/// Whether the role is one of the two that govern the whole cluster: `cluster_admin`, and `admin`
/// as it was called once.
bool isClusterAdminRole(const std::string& role);

struct User {
  std::string id;
  std::string email;
  std::string password_hash;
  std::string salt;
  std::string name;
  /// `cluster_admin`, `org_admin`, `user` or `viewer`.
  std::string role = "viewer";
  std::string api_key;  ///< empty: has none
  std::string created_at;
  std::string last_login;
  bool active = true;
  bool email_verified = false;
  std::string org_id;                        ///< empty: in no organization
  std::string approval_status = "approved";  ///< or `pending`, `rejected`
  std::string approved_by;
  std::string approved_at;
  std::string avatar_url;

  /// Password hash and salt never show; the API key only when asked for.
  nlohmann::json toJson(bool include_sensitive = false) const;
};

/// A signed-in browser. Email, role and organization follow those of the user.
struct Session {
  std::string token;
  std::string user_id;
  std::string email;
  std::string role;
  std::string org_id;
  std::string created_at;
  std::string expires_at;

  nlohmann::json toJson() const;
};

struct Organization {
  std::string id;
  std::string name;
  std::string slug;
  std::string description;
  std::string owner_user_id;
  std::int32_t max_users = 10;
  std::int64_t max_storage_bytes = 53'687'091'200;
  std::string plan = "free";
  std::string settings = "{}";  ///< JSON text
  std::string created_at;
  std::string updated_at;
  bool active = true;
  std::string email_domain;  ///< lower case; empty: admits nobody by address

  nlohmann::json toJson() const;
};

struct UserSettingEntry {
  std::int64_t id = 0;
  std::string scope;  ///< "user:" and the user's id
  std::string category;
  std::string key;
  std::string value;
  std::string updated_at;

  nlohmann::json toJson() const;
};

struct Credential {
  std::string id;
  std::string owner_type;  ///< `user` or `org`
  std::string owner_id;
  std::string name;
  std::string service;
  std::string credential_data = "{}";  ///< JSON text
  bool shared = false;                 ///< with the members of the owning organization
  std::string created_at;
  std::string updated_at;
  std::string created_by;

  nlohmann::json toJson(bool include_secret = false) const;
};

struct ResourceQuota {
  std::int64_t id = 0;
  std::string target_type;  ///< `user` or `org`
  std::string target_id;
  std::string metric;
  std::int64_t limit_value = 0;
  std::int64_t current_value = 0;
  std::string reset_interval = "daily";
  std::string last_reset;

  nlohmann::json toJson() const;
};

struct ChatConversation {
  std::string id;
  std::string user_id;
  std::string org_id;
  std::string title = "New Chat";
  std::string model;
  std::string messages = "[]";  ///< JSON text of an array
  std::string created_at;
  std::string updated_at;
  bool pinned = false;
  bool archived = false;

  /// Messages show as JSON, and only when asked for; a text that is no JSON as an empty array.
  nlohmann::json toJson(bool include_messages = false) const;
};

}  // namespace tavrel::identity
