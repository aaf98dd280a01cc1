#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "identity/crypto.h"
#include "routes/account_server.h"

namespace tavrel::controller {

/// The routes that manage accounts, with a store of their own. Callers are named by the user whose
/// session they send; "" has none.
class AccountRoutesTest : public testing::Test {
 protected:
  explicit AccountRoutesTest(const std::string& mode = "full")
      : server_(mode, mode == "full", AccountServer::Families::kManagement) {}

  /// A stored user "usr_NAME", signed in.
  identity::User addUser(const std::string& name, const std::string& role = "user",
                         const std::string& org_id = "") {
    identity::User user;
    user.id = "usr_" + name;
    user.email = name + "@example.org";
    user.salt = "salt";
    user.password_hash = identity::crypto::hashPassword("old password", user.salt);
    user.name = name;
    user.role = role;
    user.api_key = "tk_" + name;
    user.created_at = identity::crypto::nowISO8601();
    user.org_id = org_id;
    EXPECT_TRUE(store_->createUser(user));
    signIn(user);
    return user;
  }

  void signIn(const identity::User& user) {
    EXPECT_TRUE(
        store_->createSession({"ts_" + user.name, user.id, user.email, user.role, user.org_id,
                               user.created_at, identity::crypto::futureISO8601(3600)}));
  }

  /// A stored organization "org_NAME".
  void addOrganization(const std::string& name) {
    identity::Organization organization;
    organization.id = "org_" + name;
    organization.name = name;
    organization.created_at = "2026-01-01T00:00:00Z";
    EXPECT_TRUE(store_->createOrganization(organization));
  }

  test::JsonReply send(const std::string& caller, const std::string& method,
                       const std::string& path, const std::string& body = "") {
    return server_.send(
        caller.empty() ? httplib::Headers() : AccountServer::signedIn("ts_" + caller), method, path,
        body);
  }
  test::JsonReply send(const std::string& caller, const std::string& method,
                       const std::string& path, const nlohmann::json& body) {
    return send(caller, method, path, body.dump());
  }
  test::JsonReply send(const std::string& caller, const std::string& method,
                       const std::string& path, const char* body) {
    return send(caller, method, path, std::string(body));
  }
  static std::string refusal(const test::JsonReply& reply) { return reply.refusal(); }

  bool isSignedIn(const std::string& name) {
    return store_->validateSession("ts_" + name).has_value();
  }

  AccountServer server_;
  const std::unique_ptr<identity::UserStore>& store_ = server_.store;
  const api::RouteBook& book_ = server_.book;
};

}  // namespace tavrel::controller
