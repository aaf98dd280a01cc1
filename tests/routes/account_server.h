#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "api/auth_middleware.h"
#include "controller/routes/account_access.h"
#include "controller/routes/families.h"
#include "identity/account_upkeep.h"
#include "net/smtp_client.h"
#include "support/process.h"
#include "support/test_server.h"

namespace tavrel::controller {

/// What a route answered, with the text of its error.
struct AccountReply {
  int status = 0;
  nlohmann::json json;
  std::string body;
  httplib::Headers headers;

  std::string refusal() const { return std::to_string(status) + ' ' + json.value("error", ""); }
  std::string header(const std::string& name) const {
    const auto found = headers.find(name);
    return found == headers.end() ? "" : found->second;
  }
};

/// The account routes behind the gate, on a fresh store that waits for its first user.
class AccountServer {
 public:
  static constexpr const char* kAdminKey = "root-key-0123456789";

  /// Without a store when `with_store` is false.
  explicit AccountServer(const std::string& auth_mode = "full", bool with_store = true) {
    if (with_store) {
      testing::internal::CaptureStdout();
      store->initialize();
      testing::internal::GetCapturedStdout();
      identity::prepareAccounts(*store);
    }
    const AccountAccess access{with_store ? store.get() : nullptr, auth_mode};
    server_ = std::make_unique<test::TestServer>([&](api::HttpServer& server) {
      api::AuthConfig config;
      config.admin_key = kAdminKey;
      config.public_paths = api::publicPaths();
      auth_.initialize(config);
      if (with_store) auth_.acceptSessions(sessionLookup(access));
      server.use(auth_.getMiddleware());
      api::RouteBook book;
      addAuthRoutes(book, auth_, access);
      addAccountRoutes(book, access, smtp);
      addSmtpRoutes(book, access, smtp);
      addUserRoutes(book, access, auth_);
      addCredentialRoutes(book, access);
      server.addRoutes(book);
    });
  }

  AccountReply get(const std::string& path, const httplib::Headers& headers = {}) const {
    return replyOf(server_->client().Get(path, headers));
  }
  AccountReply post(const std::string& path, const nlohmann::json& body,
                    const httplib::Headers& headers = {}) const {
    return postText(path, body.dump(), headers);
  }
  AccountReply postText(const std::string& path, const std::string& body,
                        const httplib::Headers& headers = {}) const {
    return replyOf(server_->client().Post(path, headers, body, "application/json"));
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

 private:
  static AccountReply replyOf(const httplib::Result& result) {
    if (!result) throw std::runtime_error("no answer: " + httplib::to_string(result.error()));
    return {result->status, nlohmann::json::parse(result->body, nullptr, false), result->body,
            result->headers};
  }

  api::AuthMiddleware auth_;
  std::unique_ptr<test::TestServer> server_;
};

}  // namespace tavrel::controller
