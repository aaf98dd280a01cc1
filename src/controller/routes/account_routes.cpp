#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <variant>

#include "api/route_book.h"
#include "controller/routes/account_access.h"
#include "controller/routes/account_body.h"
#include "controller/routes/account_pages.h"
#include "controller/routes/families.h"
#include "identity/account_service.h"
#include "platform/text.h"

namespace tavrel::controller {
namespace {

using api::Context;
using api::Request;
using api::Response;
using identity::AccountFault;
using identity::AccountService;
using identity::Registration;
using identity::RegistrationForm;
using nlohmann::json;

/// Of any text in a registration: anybody may register, and what is registered is kept.
constexpr std::size_t kMostTextBytes = 4096;
constexpr const char* kCookie = "tavrel_session=";
constexpr const char* kCookieTerms = "; Path=/; HttpOnly; SameSite=Lax; Max-Age=86400";
constexpr const char* kClearingCookie = "tavrel_session=; Path=/; HttpOnly; Max-Age=0";

Response refusalOf(AccountFault fault, const char* bad_token = "") {
  switch (fault) {
    case AccountFault::kEmailTaken:
      return Response::error(409, "Email already registered");
    case AccountFault::kNoSuchOrganization:
      return Response::error(404, "Organization not found");
    case AccountFault::kOrganizationNotCreated:
      return Response::error(500, "Failed to create organization");
    case AccountFault::kUserNotCreated:
      return Response::error(500, "Failed to create user");
    case AccountFault::kWrongCredentials:
      return Response::error(401, "Invalid email or password");
    case AccountFault::kDeactivated:
      return Response::error(401, "Account is deactivated");
    case AccountFault::kPending:
      return Response::error(403, "Account is pending admin approval");
    case AccountFault::kRejected:
      return Response::error(403, "Account registration was rejected");
    case AccountFault::kSessionNotCreated:
      return Response::error(500, "Failed to create session");
    case AccountFault::kBadToken:
      return Response::error(400, bad_token);
    case AccountFault::kUserGone:
      return Response::error(404, "User not found");
    case AccountFault::kWrongPassword:
      return Response::error(401, "Current password is incorrect");
    default:
      return Response::error(500, "Failed to update user");
  }
}

/// Bytes of a body: what is read before anybody is known stays small. The longest registration has
/// a third of it.
constexpr std::size_t kMaxBody = std::size_t{64} << 10;

/// Why the body is no JSON object. Here members of a wrong type count as empty.
std::optional<Response> refusedObject(const Request& req) {
  return refusedBody(req, {}, "Invalid JSON body", kMaxBody);
}

RegistrationForm formOf(const json& body) {
  RegistrationForm form;
  form.email = textOr(body, "email");
  form.password = textOr(body, "password");
  form.name = textOr(body, "name");
  form.org_name = textOr(body, "org_name");
  form.org_description = textOr(body, "org_description");
  form.org_id = textOr(body, "org_id");
  return form;
}

std::optional<Response> checkForm(RegistrationForm& form, const std::string& type) {
  using Kind = RegistrationForm::Kind;
  if (form.email.empty() || form.password.empty()) {
    return Response::error(400, "email and password are required");
  }
  if (isTooShort(form.password)) return passwordTooShort();
  if (type == "organization") {
    form.kind = Kind::kOrganization;
  } else if (type == "user_organization") {
    form.kind = Kind::kUserOrganization;
  } else if (type != "user") {
    return Response::error(
        400, "registration_type must be 'user', 'organization', or 'user_organization'");
  }
  if (form.kind != Kind::kUser && form.org_name.empty()) {
    return Response::error(400, "org_name is required for organization registration");
  }
  if (platform::hasControls(form.email)) return invalidEmail();
  for (const auto& [name, text] :
       {std::pair("email", &form.email), std::pair("password", &form.password),
        std::pair("name", &form.name), std::pair("org_name", &form.org_name),
        std::pair("org_description", &form.org_description)}) {
    if (text->size() > kMostTextBytes) {
      return Response::error(400, std::string(name) + " is too long");
    }
  }
  return std::nullopt;
}

const char* messageFor(const Registration& made) {
  if (made.reason == Registration::Reason::kFirst) return "Cluster administrator account created.";
  if (made.reason == Registration::Reason::kOrganization) {
    return "Organization and administrator account created.";
  }
  return made.approved() ? "Account created and approved."
                         : "Account created. Awaiting admin approval.";
}

struct AccountRoutes {
  AccountAccess access;
  net::SmtpClient& smtp;

  AccountService accounts() const { return {*access.store, smtp}; }

  Response registerAccount(const Request& req) const {
    if (!access.full()) return Response::error(403, "Registration requires --auth-mode full");
    if (access.store == nullptr) return noUserStore();
    if (auto refusal = refusedObject(req)) return *refusal;
    const json& body = *req.json();
    RegistrationForm form = formOf(body);
    const std::string type = textOr(body, "registration_type", "user");
    if (auto refusal = checkForm(form, type)) return *refusal;

    const auto outcome = accounts().registerAccount(form);
    if (const auto* fault = std::get_if<AccountFault>(&outcome)) return refusalOf(*fault);
    const auto& made = std::get<Registration>(outcome);
    json answer = {{"user_id", made.user.id},   {"email", made.user.email},
                   {"role", made.user.role},    {"approval_status", made.user.approval_status},
                   {"registration_type", type}, {"message", messageFor(made)}};
    if (!made.user.org_id.empty()) {
      answer["org_id"] = made.user.org_id;
      answer["org_name"] = made.org_name;
    }
    if (made.session) {
      answer["token"] = made.session->token;
      answer["api_key"] = made.user.api_key;
    }
    if (!made.verification_mailed && !made.verification_token.empty()) {
      answer["verify_token"] = made.verification_token;
    }
    return Response::created(answer);
  }

  Response verifyFromLink(const Request& req) const {
    if (access.store == nullptr) return noUserStore();
    const std::string token = req.getQuery("token");
    if (token.empty()) return problemPage("Missing Token", "No verification token provided.");
    const auto outcome = accounts().verifyEmail(token);
    if (const auto* user = std::get_if<identity::User>(&outcome)) {
      return emailVerifiedPage(user->email, user->approval_status == "approved");
    }
    switch (std::get<AccountFault>(outcome)) {
      case AccountFault::kUserGone:
        return problemPage("User Not Found", "This account does not exist any more.");
      case AccountFault::kBadToken:
        return problemPage("Invalid or Expired Token",
                           "This verification link has expired or was already used.");
      default:
        return refusalOf(std::get<AccountFault>(outcome));
    }
  }

  Response verify(const Request& req) const {
    if (access.store == nullptr) return noUserStore();
    if (auto refusal = refusedObject(req)) return *refusal;
    const json& body = *req.json();
    const std::string token = textOr(body, "token");
    if (token.empty()) return Response::error(400, "token is required");
    const auto outcome = accounts().verifyEmail(token);
    if (const auto* fault = std::get_if<AccountFault>(&outcome)) {
      return refusalOf(*fault, "Invalid or expired verification token");
    }
    return Response::ok(
        {{"status", "verified"}, {"email", std::get<identity::User>(outcome).email}});
  }

  Response login(const Request& req) const {
    if (!access.full()) return Response::error(403, "Login requires --auth-mode full");
    if (access.store == nullptr) return noUserStore();
    if (auto refusal = refusedObject(req)) return *refusal;
    const json& body = *req.json();
    const std::string email = textOr(body, "email");
    const std::string password = textOr(body, "password");
    if (email.empty() || password.empty()) {
      return Response::error(400, "email and password are required");
    }
    const auto outcome = accounts().login(email, password);
    if (const auto* fault = std::get_if<AccountFault>(&outcome)) return refusalOf(*fault);
    const auto& login = std::get<identity::Login>(outcome);
    json answer = {{"token", login.session.token},
                   {"user", login.user.toJson(false)},
                   {"expires_at", login.session.expires_at}};
    if (!login.org_name.empty()) answer["org_name"] = login.org_name;
    Response response = Response::ok(answer);
    response.headers["Set-Cookie"] = kCookie + login.session.token + kCookieTerms;
    return response;
  }

  Response session(const Request& req) const {
    const auto session = access.getSessionFromRequest(req);
    if (!session) return Response::error(401, "Invalid or expired session");
    json shown = {{"user_id", session->user_id},
                  {"email", session->email},
                  {"role", session->role},
                  {"org_id", session->org_id}};
    const std::string org_name = accounts().organizationName(session->org_id);
    if (!org_name.empty()) shown["org_name"] = org_name;
    json answer = {{"valid", true}, {"session", std::move(shown)}};
    if (const auto user = access.store->findById(session->user_id)) answer["user"] = user->toJson();
    return Response::ok(answer);
  }

  Response me(const Context& context, const Request& req) const {
    if (const auto session = access.getSessionFromRequest(req)) {
      if (const auto user = access.store->findById(session->user_id)) {
        return Response::ok(user->toJson());
      }
    }
    if (!context.identity) return notSignedIn();
    const api::AuthIdentity& caller = *context.identity;
    return Response::ok({{"id", caller.id},
                         {"type", caller.type},
                         {"roles", caller.roles},
                         {"permissions", caller.permissions}});
  }

  Response logout(const Request& req) const {
    Response response = Response::ok({{"status", "logged_out"}});
    const std::string token = sessionTokenOf(req);
    if (access.store != nullptr && !access.store->deleteSession(token) &&
        access.store->validateSession(token)) {
      response = Response::error(500, "Failed to end session");
    }
    response.headers["Set-Cookie"] = kClearingCookie;
    return response;
  }

  Response changePassword(const Request& req) const {
    if (access.store == nullptr) return noUserStore();
    const auto session = access.getSessionFromRequest(req);
    if (!session) return notSignedIn();
    if (auto refusal = refusedObject(req)) return *refusal;
    const json& body = *req.json();
    const std::string old_password = textOr(body, "old_password");
    const std::string new_password = textOr(body, "new_password");
    if (old_password.empty() || new_password.empty()) {
      return Response::error(400, "old_password and new_password are required");
    }
    if (isTooShort(new_password)) {
      return Response::error(400, "New password must be at least 8 characters");
    }
    const auto outcome = accounts().changePassword(session->user_id, old_password, new_password);
    if (const auto* fault = std::get_if<AccountFault>(&outcome)) return refusalOf(*fault);
    return Response::ok({{"status", "password_changed"}});
  }

  Response forgotPassword(const Request& req) const {
    if (access.store == nullptr) return Response::error(503, "Not available");
    if (auto refusal = refusedObject(req)) return *refusal;
    const json& body = *req.json();
    const std::string email = textOr(body, "email");
    if (email.empty()) return Response::error(400, "email is required");
    accounts().requestPasswordReset(email);
    return Response::ok({{"status", "If the email exists, a reset link has been sent."}});
  }

  Response resetForm(const Request& req) const {
    if (access.store == nullptr) return noUserStore();
    const std::string token = req.getQuery("token");
    if (token.empty()) return problemPage("Missing Token", "No reset token provided.");
    if (!accounts().isResetToken(token)) {
      return problemPage("Invalid or Expired Token",
                         "This reset link has expired or was already used.");
    }
    return resetPasswordPage(token);
  }

  Response resetPassword(const Request& req) const {
    if (access.store == nullptr) return noUserStore();
    if (auto refusal = refusedObject(req)) return *refusal;
    const json& body = *req.json();
    const std::string token = textOr(body, "token");
    const std::string new_password = textOr(body, "new_password");
    if (token.empty() || new_password.empty()) {
      return Response::error(400, "token and new_password are required");
    }
    if (isTooShort(new_password)) return passwordTooShort();
    const auto outcome = accounts().resetPassword(token, new_password);
    if (const auto* fault = std::get_if<AccountFault>(&outcome)) {
      return refusalOf(*fault, "Invalid or expired reset token");
    }
    return Response::ok({{"status", "password_reset"}});
  }
};

}  // namespace

void addAccountRoutes(api::RouteBook& book, const AccountAccess& access, net::SmtpClient& smtp) {
  const AccountRoutes h{access, smtp};
  const auto post = [&](const char* path, api::Handler handler) {
    book.post(path, std::move(handler), kMaxBody);
  };
  post("/api/v1/auth/register", [h](auto&, auto& req) { return h.registerAccount(req); });
  book.get("/api/v1/auth/verify-email", [h](auto&, auto& req) { return h.verifyFromLink(req); });
  post("/api/v1/auth/verify-email", [h](auto&, auto& req) { return h.verify(req); });
  post("/api/v1/auth/login", [h](auto&, auto& req) { return h.login(req); });
  book.get("/api/v1/auth/session", [h](auto&, auto& req) { return h.session(req); });
  book.get("/api/v1/auth/me", [h](auto& context, auto& req) { return h.me(context, req); });
  post("/api/v1/auth/logout", [h](auto&, auto& req) { return h.logout(req); });
  post("/api/v1/auth/change-password", [h](auto&, auto& req) { return h.changePassword(req); });
  post("/api/v1/auth/forgot-password", [h](auto&, auto& req) { return h.forgotPassword(req); });
  book.get("/api/v1/auth/reset-password", [h](auto&, auto& req) { return h.resetForm(req); });
  post("/api/v1/auth/reset-password", [h](auto&, auto& req) { return h.resetPassword(req); });
}

}  // namespace tavrel::controller
