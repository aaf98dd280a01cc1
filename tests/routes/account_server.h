#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "api/auth_middleware.h"
#include "api/route_book.h"
#include "controller/routes/account_access.h"
#include "controller/routes/families.h"
#include "identity/account_upkeep.h"
#include "net/smtp_client.h"
#include "support/json_client.h"
#include "support/process.h"

namespace tavrel::controller {

using AccountReply = test::JsonReply;

/// Account routes behind the gate, on a fresh store that waits for its first user.
class AccountServer {
 public:
  static constexpr const char* kAdminKey = "root-key-0123456789";

  /// Which families there are: those of one's own account behind the gate as it is, or those that
  /// manage the accounts behind a gate that is open, so that only their own guards refuse.
  enum class Families { kOwnAccount, kManagement };

  /// Without a store when `with_store` is false.
  explicit AccountServer(const std::string& auth_mode = "full", bool with_store = true,
                         Families families = Families::kOwnAccount) {
    if (with_store) {
      testing::internal::CaptureStdout();
      EXPECT_TRUE(store->initialize());
      testing::internal::GetCapturedStdout();
      identity::prepareAccounts(*store);
    }
    const AccountAccess access{with_store ? store.get() : nullptr, auth_mode};
    addUserRoutes(book, access, auth_);
    addCredentialRoutes(book, access);
    api::AuthConfig config;
    config.admin_key = kAdminKey;
    if (families == Families::kManagement) {
      config.public_paths = {"/api/v1/*"};
      addOrganizationRoutes(book, access);
      addUserDataRoutes(book, access);
    } else {
      config.public_paths = api::publicPaths();
      if (with_store) auth_.acceptSessions(sessionLookup(access));
      addAuthRoutes(book, auth_, access);
      addAccountRoutes(book, access, smtp);
      addSmtpRoutes(book, access, smtp);
    }
    auth_.initialize(config);
    server_ = std::make_unique<test::TestServer>([&](api::HttpServer& server) {
      server.use(auth_.getMiddleware());
      server.addRoutes(book);
    });
  }

  AccountReply send(httplib::Headers headers, const std::string& method, const std::string& path,
                    const std::string& body = "") const {
    return test::JsonClient(*server_).send(method, path, body, std::move(headers));
  }
  AccountReply get(const std::string& path, const httplib::Headers& headers = {}) const {
    return send(headers, "GET", path);
  }
  AccountReply post(const std::string& path, const nlohmann::json& body,
                    const httplib::Headers& headers = {}) const {
    return send(headers, "POST", path, body.dump());
  }
  AccountReply postText(const std::string& path, const std::string& body,
                        const httplib::Headers& headers = {}) const {
    return send(headers, "POST", path, body);
  }

  AccountReply registerUser(const std::string& email) const {
    return post("/api/v1/auth/register", {{"email", email}, {"password", "password1"}});
  }
  AccountReply login(const std::string& email, const std::string& password = "password1") const {
    return post("/api/v1/auth/login", {{"email", email}, {"password", password}});
  }
  int port() const { return server_->port(); }
  static httplib::Headers signedIn(const std::string& token) {
    return {{"X-Session-Token", token}};
  }

  test::TempDirectory directory;
  const std::unique_ptr<identity::UserStore> store =
      identity::createUserStore("sqlite", directory.file("users.db"));
  net::SmtpClient smtp;
  api::RouteBook book;

 private:
  api::AuthMiddleware auth_;
  std::unique_ptr<test::TestServer> server_;
};

}  // namespace tavrel::controller
