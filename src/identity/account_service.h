#pragma once

#include <optional>
#include <string>

#include "identity/account_fault.h"
#include "identity/mailer.h"
#include "identity/records.h"
#include "identity/user_store.h"

namespace tavrel::identity {

/// The part of an address after its only at sign, in lower case; empty when there is none or
/// several.
std::string domainOf(const std::string& email);

struct RegistrationForm {
  enum class Kind { kUser, kOrganization, kUserOrganization };

  Kind kind = Kind::kUser;
  std::string email;
  std::string password;
  std::string name;
  std::string org_name;         ///< of the organization to be made
  std::string org_description;  ///< likewise
  std::string org_id;           ///< of the organization a plain user wants to join; may be empty
};

struct Registration {
  enum class Reason {
    kFirst,         ///< the first account of all
    kOrganization,  ///< came with an organization of its own
    kUser,
  };

  User user;
  Reason reason = Reason::kUser;
  std::string org_name;            ///< empty: in no organization
  std::optional<Session> session;  ///< approved accounts only
  std::string verification_token;  ///< empty: could not be stored
  bool verification_mailed = false;

  bool approved() const { return user.approval_status == "approved"; }
};

struct Login {
  User user;
  Session session;
  std::string org_name;  ///< empty: in no organization
};

/// What people do with their own accounts. Has no state of its own: everything is in the store.
///
/// Threads: any. Registering and asking for a reset may send a mail, which blocks.
/// Passwords are taken as they are: their length is the caller's business.
class AccountService {
 public:
  AccountService(UserStore& store, net::SmtpClient& smtp) : store_(store), mailer_(store, smtp) {}

  /// The first account becomes the cluster's administrator and its domain the cluster's. Later
  /// ones are approved when they bring an organization or when their domain is the cluster's or an
  /// organization's; others wait for an administrator. Approved ones are sent a verification mail.
  Outcome<Registration> registerAccount(const RegistrationForm& form);

  /// Uses the token and returns the user with the address verified.
  Outcome<User> verifyEmail(const std::string& token);

  /// Takes as long for an unknown address as for a wrong password.
  Outcome<Login> login(const std::string& email, const std::string& password);

  /// Both end every session of the user, who is returned.
  Outcome<User> changePassword(const std::string& user_id, const std::string& old_password,
                               const std::string& new_password);
  Outcome<User> resetPassword(const std::string& token, const std::string& new_password);

  /// Mails the user a token; without a mail server it is shown on the console. Does nothing for an
  /// unknown address.
  void requestPasswordReset(const std::string& email);
  bool isResetToken(const std::string& token);

  /// The name of an organization that exists, else empty.
  std::string organizationName(const std::string& org_id);

 private:
  std::optional<AccountFault> joinOrganization(const RegistrationForm& form, Registration& made);
  std::optional<AccountFault> createAccount(const RegistrationForm& form, Registration& made);
  void admit(const std::string& domain, Registration& made);
  void sendVerification(Registration& made);
  std::optional<Session> openSession(const User& user);
  /// `checked` is the record whose password the caller has proved to know; null when a token has
  /// proved who it is.
  Outcome<User> setPassword(const std::string& user_id, const std::string& password,
                            const User* checked);

  UserStore& store_;
  Mailer mailer_;
};

}  // namespace tavrel::identity
