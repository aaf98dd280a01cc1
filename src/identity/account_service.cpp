#include "identity/account_service.h"

#include "identity/crypto.h"
#include "platform/console.h"

namespace tavrel::identity {
namespace {

constexpr std::int64_t kSessionSeconds = 86400;
constexpr std::int64_t kResetSeconds = 3600;

/// Of nobody: a password checked against it takes the time of any check and never fits.
constexpr const char* kNobodysSalt = "00000000000000000000000000000000";
constexpr const char* kNobodysHash =
    "0000000000000000000000000000000000000000000000000000000000000000";

std::optional<AccountFault> barFor(const User& user) {
  if (!user.active) return AccountFault::kDeactivated;
  if (user.approval_status == "pending") return AccountFault::kPending;
  if (user.approval_status == "rejected") return AccountFault::kRejected;
  return std::nullopt;
}

}  // namespace

Outcome<Login> AccountService::login(const std::string& email, const std::string& password) {
  const auto user = store_.findByEmail(email);
  if (!user) {
    crypto::verifyPassword(password, kNobodysSalt, kNobodysHash);
    return AccountFault::kWrongCredentials;
  }
  if (const auto bar = barFor(*user)) return *bar;
  if (!crypto::verifyPassword(password, user->salt, user->password_hash)) {
    return AccountFault::kWrongCredentials;
  }
  const auto session = openSession(*user);
  if (!session) return AccountFault::kSessionNotCreated;

  // A password changed since it was checked has ended the sessions that were open then, but perhaps
  // not this one.
  bool outdated = false;
  const auto current = store_.changeUser(user->id, [&](User& now) {
    outdated = now.password_hash != user->password_hash;
    if (!outdated) now.last_login = session->created_at;
  });
  if (outdated) {
    store_.deleteSession(session->token);
    return AccountFault::kWrongCredentials;
  }
  const User& known = current ? *current : *user;
  return Login{known, *session, organizationName(known.org_id)};
}

Outcome<User> AccountService::verifyEmail(const std::string& token) {
  const auto user_id = store_.validateToken(token, "verify_email");
  if (!user_id) return AccountFault::kBadToken;
  if (!store_.findById(*user_id)) return AccountFault::kUserGone;
  if (!store_.deleteToken(token)) return AccountFault::kBadToken;
  const auto user = store_.changeUser(*user_id, [](User& one) { one.email_verified = true; });
  if (!user) return AccountFault::kNotStored;
  return *user;
}

Outcome<User> AccountService::changePassword(const std::string& user_id,
                                             const std::string& old_password,
                                             const std::string& new_password) {
  const auto user = store_.findById(user_id);
  if (!user) return AccountFault::kUserGone;
  if (!crypto::verifyPassword(old_password, user->salt, user->password_hash)) {
    return AccountFault::kWrongPassword;
  }
  return setPassword(user_id, new_password, &*user);
}

Outcome<User> AccountService::resetPassword(const std::string& token,
                                            const std::string& new_password) {
  const auto user_id = store_.validateToken(token, "reset_password");
  if (!user_id) return AccountFault::kBadToken;
  if (!store_.findById(*user_id)) return AccountFault::kUserGone;
  if (!store_.deleteToken(token)) return AccountFault::kBadToken;
  return setPassword(*user_id, new_password, nullptr);
}

void AccountService::requestPasswordReset(const std::string& email) {
  const auto user = store_.findByEmail(email);
  const std::string token = crypto::generateToken();
  if (!user || !store_.storeToken(token, user->id, "reset_password", kResetSeconds)) return;
  if (mailer_.isConfigured()) {
    mailer_.sendPasswordReset(user->email, token);
  } else {
    platform::printLine("[Auth] Password reset token for " + user->email + ": " + token);
  }
}

bool AccountService::isResetToken(const std::string& token) {
  return store_.validateToken(token, "reset_password").has_value();
}

std::string AccountService::organizationName(const std::string& org_id) {
  if (org_id.empty()) return "";
  const auto organization = store_.getOrganization(org_id);
  return organization ? organization->name : "";
}

std::optional<Session> AccountService::openSession(const User& user) {
  Session session{crypto::generateSessionToken(),
                  user.id,
                  user.email,
                  user.role,
                  user.org_id,
                  crypto::nowISO8601(),
                  crypto::futureISO8601(kSessionSeconds)};
  if (!store_.createSession(session)) return std::nullopt;
  return session;
}

Outcome<User> AccountService::setPassword(const std::string& user_id, const std::string& password,
                                          const User* checked) {
  const std::string salt = crypto::generateSalt();
  const std::string hash = crypto::hashPassword(password, salt);
  bool outdated = false;
  const auto user = store_.changeUser(user_id, [&](User& one) {
    outdated = checked != nullptr && one.password_hash != checked->password_hash;
    if (outdated) return;
    one.salt = salt;
    one.password_hash = hash;
  });
  if (outdated) return AccountFault::kWrongPassword;
  if (!user) return AccountFault::kNotStored;
  return *user;
}

}  // namespace tavrel::identity
