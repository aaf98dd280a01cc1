#include "identity/account_service.h"
#include "identity/crypto.h"
#include "identity/new_organization.h"
#include "platform/text.h"

namespace tavrel::identity {
namespace {

constexpr std::int64_t kVerificationSeconds = 86400;

bool bringsOrganization(const RegistrationForm& form) {
  return form.kind != RegistrationForm::Kind::kUser;
}

User newUser(const RegistrationForm& form) {
  User user;
  user.id = crypto::generateUserId();
  user.email = form.email;
  user.salt = crypto::generateSalt();
  user.password_hash = crypto::hashPassword(form.password, user.salt);
  user.name = form.name;
  user.role = "user";
  user.api_key = crypto::generateApiKey();
  user.created_at = crypto::nowISO8601();
  user.approval_status = "pending";
  return user;
}

}  // namespace

std::string domainOf(const std::string& email) {
  const std::size_t at = email.find('@');
  if (at == std::string::npos || email.find('@', at + 1) != std::string::npos) return "";
  return platform::toLower(email.substr(at + 1));
}

Outcome<Registration> AccountService::registerAccount(const RegistrationForm& form) {
  if (store_.findByEmail(form.email)) return AccountFault::kEmailTaken;
  Registration made;
  made.user = newUser(form);
  if (const auto fault = joinOrganization(form, made)) return *fault;
  if (const auto fault = createAccount(form, made)) {
    if (bringsOrganization(form)) store_.deleteOrganization(made.user.org_id);
    // Somebody may have taken the address since it was looked up.
    return store_.findByEmail(form.email) ? AccountFault::kEmailTaken : *fault;
  }
  if (made.approved()) made.session = openSession(made.user);
  sendVerification(made);
  return made;
}

/// Makes the organization that the form brings, or looks up the one that it wishes for.
std::optional<AccountFault> AccountService::joinOrganization(const RegistrationForm& form,
                                                             Registration& made) {
  if (bringsOrganization(form)) {
    const Organization organization =
        newOrganization(form.org_name, form.org_description, made.user.id);
    if (!store_.createOrganization(organization)) return AccountFault::kOrganizationNotCreated;
    made.user.org_id = organization.id;
    made.org_name = organization.name;
  } else if (!form.org_id.empty()) {
    const auto wished = store_.getOrganization(form.org_id);
    if (!wished || !wished->active) return AccountFault::kNoSuchOrganization;
    made.user.org_id = wished->id;
    made.org_name = wished->name;
  }
  return std::nullopt;
}

std::optional<AccountFault> AccountService::createAccount(const RegistrationForm& form,
                                                          Registration& made) {
  const std::string domain = domainOf(form.email);
  User first = made.user;
  first.role = "cluster_admin";
  first.approval_status = "approved";
  const FirstUser outcome = store_.createFirstUser(first, domain);
  if (outcome == FirstUser::kFailed) return AccountFault::kUserNotCreated;
  if (outcome == FirstUser::kCreated) {
    made.user = std::move(first);
    made.reason = Registration::Reason::kFirst;
    return std::nullopt;
  }
  if (!bringsOrganization(form)) {
    admit(domain, made);
  } else {
    made.reason = Registration::Reason::kOrganization;
    made.user.role = "org_admin";
    made.user.approval_status = "approved";
  }
  if (!store_.createUser(made.user)) return AccountFault::kUserNotCreated;
  if (bringsOrganization(form) && !domain.empty()) {
    store_.changeOrganization(made.user.org_id,
                              [&](Organization& own) { own.email_domain = domain; });
  }
  return std::nullopt;
}

/// Decides whether a plain user gets in at once, and where.
void AccountService::admit(const std::string& domain, Registration& made) {
  if (domain.empty()) return;
  if (domain == platform::toLower(store_.getSetting("cluster_domain", ""))) {
    made.user.approval_status = "approved";
  } else if (const auto matched = store_.findOrganizationByDomain(domain)) {
    made.user.approval_status = "approved";
    made.user.org_id = matched->id;
    made.org_name = matched->name;
  }
}

void AccountService::sendVerification(Registration& made) {
  const std::string token = crypto::generateToken();
  if (!store_.storeToken(token, made.user.id, "verify_email", kVerificationSeconds)) return;
  made.verification_token = token;
  made.verification_mailed =
      made.approved() && mailer_.isConfigured() && mailer_.sendVerification(made.user.email, token);
}

}  // namespace tavrel::identity
