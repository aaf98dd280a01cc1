#pragma once

#include "api/auth_middleware.h"
#include "api/route_book.h"
#include "controller/routes/account_access.h"

namespace tavrel::net {
class WorkerClient;
}
namespace tavrel::worker {
class TypedWorkerRegistry;
}

// The families of the user accounts. What they get must outlive the server; AccountAccess is
// copied.
namespace tavrel::controller {

/// Users, the approval of registrations and the administrators' overview. Without user accounts
/// the users are the API keys of `auth`.
void addUserRoutes(api::RouteBook& book, const AccountAccess& access,
                   const api::AuthMiddleware& auth);
void addOrganizationRoutes(api::RouteBook& book, const AccountAccess& access);
/// Personal settings and conversations.
void addUserDataRoutes(api::RouteBook& book, const AccountAccess& access);
/// Credentials and quotas.
void addCredentialRoutes(api::RouteBook& book, const AccountAccess& access);
/// Tenants live on the data workers, who are asked.
void addTenantRoutes(api::RouteBook& book, const worker::TypedWorkerRegistry& data_workers,
                     net::WorkerClient& client);

}  // namespace tavrel::controller
