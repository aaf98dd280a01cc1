#pragma once

#include "controller/command_line.h"
#include "controller/services.h"

namespace tavrel::controller {

/// In mode "full" opens the user store, takes over the mail settings of the command line and makes
/// the accounts ready. Without a store that opens the controller runs without accounts.
void startAccounts(Services& services, const Options& options);

}  // namespace tavrel::controller
