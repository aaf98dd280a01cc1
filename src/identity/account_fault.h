#pragma once

#include <variant>

namespace tavrel::identity {

/// Why an account operation was refused.
enum class AccountFault {
  kEmailTaken,
  kNoSuchOrganization,
  kOrganizationNotCreated,
  kUserNotCreated,
  kWrongCredentials,  ///< unknown address or wrong password: nobody learns which
  kDeactivated,
  kPending,
  kRejected,
  kSessionNotCreated,
  kBadToken,  ///< unknown, expired or used
  kUserGone,
  kWrongPassword,
  kNotStored,
};

/// What an account operation returns, or why it was refused.
template <class Value>
using Outcome = std::variant<Value, AccountFault>;

}  // namespace tavrel::identity
