#include "identity/sqlite_user_store.h"
#include "platform/random.h"
#include "store/store_lock.h"

namespace tavrel::identity {

using store::Database;
using store::StoreLock;

namespace {

constexpr std::size_t kMaxSlugLength = 64;

const std::string kSelectOrganizations =
    "SELECT id, name, slug, description, owner_user_id, max_users, max_storage_bytes, plan, "
    "settings, created_at, updated_at, active, email_domain FROM organizations";
const std::string kOrganizationById = kSelectOrganizations + " WHERE id=?";
const std::string kActiveOrganizations =
    kSelectOrganizations + " WHERE active=1 ORDER BY created_at DESC";
const std::string kOrganizationByDomain =
    kSelectOrganizations + " WHERE email_domain=? AND active=1 LIMIT 1";

Organization readOrganization(store::Statement& row) {
  Organization organization{.id = row.nextText(),
                            .name = row.nextText(),
                            .slug = row.nextText(),
                            .description = row.nextText(),
                            .owner_user_id = row.nextText(),
                            .max_users = static_cast<std::int32_t>(row.nextInteger()),
                            .max_storage_bytes = row.nextInteger(),
                            .plan = row.nextText(),
                            .settings = row.nextText(),
                            .created_at = row.nextText(),
                            .updated_at = row.nextText(),
                            .active = row.nextFlag(),
                            .email_domain = row.nextText()};
  if (organization.plan.empty()) organization.plan = "free";
  return organization;
}

bool writeOrganization(Database& db, const Organization& organization) {
  return db.change(
             "UPDATE organizations SET name=?, slug=?, description=?, owner_user_id=?, "
             "max_users=?, max_storage_bytes=?, plan=?, settings=?, updated_at=?, active=?, "
             "email_domain=? WHERE id=?",
             organization.name, organization.slug, organization.description,
             organization.owner_user_id, organization.max_users, organization.max_storage_bytes,
             organization.plan, organization.settings, organization.updated_at, organization.active,
             organization.email_domain, organization.id) > 0;
}

/// "Acme & Sons" becomes "acme-sons"; a name without ASCII letters and digits "org".
std::string slugOf(const std::string& name) {
  std::string slug;
  for (const char character : name) {
    if (slug.size() == kMaxSlugLength) break;
    const char lower =
        character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
    if ((lower >= 'a' && lower <= 'z') || (lower >= '0' && lower <= '9')) {
      slug += lower;
    } else if (!slug.empty() && slug.back() != '-') {
      slug += '-';
    }
  }
  if (!slug.empty() && slug.back() == '-') slug.pop_back();
  return slug.empty() ? "org" : slug;
}

std::string freeSlug(Database& db, const std::string& name) {
  const auto taken = [&db](const std::string& slug) {
    const auto any = [](store::Statement& /*row*/) { return true; };
    return db.findOne(any, "SELECT 1 FROM organizations WHERE slug=?", slug).has_value();
  };
  const std::string wanted = slugOf(name);
  std::string slug = wanted;
  // Random, not counted: a thousand organizations of one name cost no thousand look-ups.
  while (taken(slug)) slug = wanted + "-" + platform::randomHex(6);
  return slug;
}

}  // namespace

bool SqliteUserStore::createOrganization(const Organization& organization) {
  const StoreLock lock(mu_);
  return db_.atomically([&](Database& db) {
    const std::string slug =
        organization.slug.empty() ? freeSlug(db, organization.name) : organization.slug;
    return db
        .change(
            "INSERT INTO organizations (id, name, slug, description, owner_user_id, max_users, "
            "max_storage_bytes, plan, settings, created_at, updated_at, active, email_domain) "
            "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
            organization.id, organization.name, slug, organization.description,
            organization.owner_user_id, organization.max_users, organization.max_storage_bytes,
            organization.plan, organization.settings, organization.created_at,
            organization.updated_at, organization.active, organization.email_domain)
        .has_value();
  });
}

std::optional<Organization> SqliteUserStore::getOrganization(const std::string& id) {
  const StoreLock lock(mu_);
  return db_.findOne(readOrganization, kOrganizationById, id);
}

std::vector<Organization> SqliteUserStore::listOrganizations() {
  const StoreLock lock(mu_);
  return db_.findAll(readOrganization, kActiveOrganizations);
}

bool SqliteUserStore::updateOrganization(const Organization& organization) {
  const StoreLock lock(mu_);
  return writeOrganization(db_, organization);
}

std::optional<Organization> SqliteUserStore::changeOrganization(
    const std::string& id, const std::function<void(Organization&)>& change) {
  const StoreLock lock(mu_);
  std::optional<Organization> organization;
  const bool stored = db_.atomically([&](Database& db) {
    organization = db.findOne(readOrganization, kOrganizationById, id);
    if (!organization) return false;
    change(*organization);
    organization->id = id;
    return writeOrganization(db, *organization);
  });
  return stored ? organization : std::nullopt;
}

bool SqliteUserStore::deleteOrganization(const std::string& id) {
  const StoreLock lock(mu_);
  return db_.change("UPDATE organizations SET active=0 WHERE id=?", id) > 0;
}

std::optional<Organization> SqliteUserStore::findOrganizationByDomain(const std::string& domain) {
  if (domain.empty()) return std::nullopt;
  const StoreLock lock(mu_);
  return db_.findOne(readOrganization, kOrganizationByDomain, domain);
}

}  // namespace tavrel::identity
