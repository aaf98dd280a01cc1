#include "identity/new_organization.h"

#include <utility>

#include "identity/crypto.h"

namespace tavrel::identity {

Organization newOrganization(std::string name, std::string description, std::string owner_user_id) {
  Organization organization;
  organization.id = crypto::generateOrganizationId();
  organization.name = std::move(name);
  organization.description = std::move(description);
  organization.owner_user_id = std::move(owner_user_id);
  organization.created_at = crypto::nowISO8601();
  organization.updated_at = organization.created_at;
  return organization;
}

}  // namespace tavrel::identity
