#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "api/auth_middleware.h"
#include "api/route_book.h"
#include "controller/routes/account_access.h"
#include "controller/routes/families.h"
#include "identity/crypto.h"
#include "identity/user_store.h"
#include "support/json_client.h"
#include "support/process.h"

namespace tavrel::controller {

/// The account routes over HTTP, with a store of their own. Callers are named by the user whose
/// session they send; "" has none.
class AccountRoutesTest : public testing::Test {
 protected:
  explicit AccountRoutesTest(const std::string& mode = "full") {
    testing::internal::CaptureStdout();
    const bool opened = store_->initialize();
    testing::internal::GetCapturedStdout();
    if (!opened) throw std::runtime_error("the store does not open");
    api::AuthConfig config;
    config.admin_key = "root-key-0123456789";
    config.public_paths = {"/api/v1/*"};
    auth_.initialize(config);
    const AccountAccess access{mode == "full" ? store_.get() : nullptr, mode};
    addUserRoutes(book_, access, auth_);
    addOrganizationRoutes(book_, access);
    addUserDataRoutes(book_, access);
    addCredentialRoutes(book_, access);
    server_ = std::make_unique<test::TestServer>([this](api::HttpServer& server) {
      server.use(auth_.getMiddleware());
      server.addRoutes(book_);
    });
    client_ = std::make_unique<httplib::Client>(server_->client());
  }

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
                       const std::string& path, const std::string& body) {
    httplib::Headers headers;
    if (!caller.empty()) headers.emplace("X-Session-Token", "ts_" + caller);
    return sendWith(std::move(headers), method, path, body);
  }
  test::JsonReply send(const std::string& caller, const std::string& method,
                       const std::string& path, const nlohmann::json& body) {
    return send(caller, method, path, body.dump());
  }
  test::JsonReply send(const std::string& caller, const std::string& method,
                       const std::string& path) {
    return send(caller, method, path, std::string());
  }
  test::JsonReply send(const std::string& caller, const std::string& method,
                       const std::string& path, const char* body) {
    return send(caller, method, path, std::string(body));
  }

  test::JsonReply sendWith(httplib::Headers headers, const std::string& method,
                           const std::string& path, const std::string& body = "") {
    httplib::Request request;
    request.method = method;
    request.path = path;
    request.headers = std::move(headers);
    request.body = body;
    if (!body.empty()) request.headers.emplace("Content-Type", "application/json");
    const httplib::Result result = client_->send(request);
    if (!result) throw std::runtime_error("no answer: " + httplib::to_string(result.error()));
    return {result->status, result->body, nlohmann::json::parse(result->body, nullptr, false)};
  }

  /// "status error" of a refusal.
  static std::string refusal(const test::JsonReply& reply) {
    return std::to_string(reply.status) + ' ' + reply.error();
  }

  bool isSignedIn(const std::string& name) {
    return store_->validateSession("ts_" + name).has_value();
  }

  test::TempDirectory directory_;
  const std::unique_ptr<identity::UserStore> store_ =
      identity::createUserStore("sqlite", directory_.file("users.db"));
  api::AuthMiddleware auth_;
  api::RouteBook book_;
  std::unique_ptr<test::TestServer> server_;
  std::unique_ptr<httplib::Client> client_;
};

}  // namespace tavrel::controller
