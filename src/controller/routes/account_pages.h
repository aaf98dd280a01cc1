#pragma once

#include <string>

#include "api/response.h"

// The pages that links in mails lead to: each complete in itself, nothing is fetched for it. What
// is handed in is escaped; no script but the page's own may run. No state; any thread.
namespace tavrel::controller {

/// A heading and a sentence that tell why a link does not work.
api::Response problemPage(const std::string& heading, const std::string& sentence);

/// `approved`: the account can be used now, else it waits for an administrator.
api::Response emailVerifiedPage(const std::string& email, bool approved);

/// The form for a new password. `token` goes back with it.
api::Response resetPasswordPage(const std::string& token);

}  // namespace tavrel::controller
