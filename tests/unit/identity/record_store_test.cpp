#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>

#include "store/database.h"
#include "user_store_fixture.h"

namespace tavrel::identity {
namespace {

using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

using Records = UserStoreTest;

Organization organizationNamed(const std::string& name) {
  Organization organization;
  organization.id = "org_" + name;
  organization.name = name;
  organization.created_at = "2026-01-01T00:00:00Z";
  return organization;
}

template <class Record>
std::vector<std::string> idsOf(const std::vector<Record>& records) {
  std::vector<std::string> ids;
  for (const Record& record : records) ids.push_back(record.id);
  return ids;
}

TEST_F(Records, AnOrganizationIsFoundWithEveryField) {
  Organization acme = organizationNamed("acme");
  acme.slug = "the-acme";
  acme.description = "Anvils";
  acme.owner_user_id = "usr_a";
  acme.max_users = 3;
  acme.max_storage_bytes = std::int64_t{1} << 60;
  acme.plan = "pro";
  acme.settings = R"({"a":1})";
  acme.updated_at = "2026-02-01T00:00:00Z";
  acme.email_domain = "acme.example";
  ASSERT_TRUE(store_->createOrganization(acme));
  EXPECT_EQ(store_->getOrganization("org_acme")->toJson(), acme.toJson());
  EXPECT_EQ(store_->findOrganizationByDomain("acme.example")->id, "org_acme");

  acme.name = "Acme";
  acme.plan = "";
  acme.max_users = 4;
  ASSERT_TRUE(store_->updateOrganization(acme));
  acme.plan = "free";
  EXPECT_EQ(store_->getOrganization("org_acme")->toJson(), acme.toJson());
  const auto changed = store_->changeOrganization(
      "org_acme", [](Organization& organization) { organization.description = "Rockets"; });
  ASSERT_TRUE(changed);
  EXPECT_EQ(changed->name, "Acme");
  EXPECT_EQ(store_->getOrganization("org_acme")->description, "Rockets");

  EXPECT_TRUE(store_->deleteOrganization("org_acme"));
  EXPECT_FALSE(store_->getOrganization("org_acme")->active);
  EXPECT_FALSE(store_->findOrganizationByDomain("acme.example"));
  EXPECT_THAT(store_->listOrganizations(), IsEmpty());
  for (const bool done :
       {store_->deleteOrganization("org_none"),
        store_->updateOrganization(organizationNamed("none")),
        store_->changeOrganization("org_none", [](Organization& /*none*/) {}).has_value()}) {
    EXPECT_FALSE(done);
  }
}

TEST_F(Records, SlugsAreMadeFromNamesAndUnlike) {
  const auto slugOf = [&](const std::string& id, const std::string& name) {
    Organization organization = organizationNamed(id);
    organization.name = name;
    EXPECT_TRUE(store_->createOrganization(organization)) << name;
    return store_->getOrganization(organization.id)->slug;
  };
  EXPECT_EQ(slugOf("1", "  Acme & Sons, Ltd. "), "acme-sons-ltd");
  EXPECT_EQ(slugOf("2", "日本"), "org");
  EXPECT_FALSE(store_->findOrganizationByDomain("")) << "without a domain it admits nobody";
  EXPECT_EQ(slugOf("3", std::string(1000, 'x')).size(), 64U);
  std::set<std::string> slugs;
  for (int i = 0; i < 20; ++i) slugs.insert(slugOf("same" + std::to_string(i), "Same"));
  EXPECT_EQ(slugs.size(), 20U);
  EXPECT_TRUE(slugs.contains("same"));
  Organization taken = organizationNamed("taken");
  taken.slug = "same";
  EXPECT_FALSE(store_->createOrganization(taken)) << "a given slug is not bent";
}

TEST_F(Records, WhatOneCallStoresIsStoredTogetherOrNotAtAll) {
  ASSERT_TRUE(store_->setSettings("user:a", "ui", {{"theme", "dark"}, {"font", "serif"}}));
  store::Database other("");
  ASSERT_TRUE(other.open(path_));
  ASSERT_TRUE(
      other.exec("CREATE TRIGGER refuse BEFORE INSERT ON user_settings "
                 "WHEN NEW.key='theme' BEGIN SELECT RAISE(ABORT, 'no'); END"));
  EXPECT_FALSE(store_->setSettings("user:a", "ui", {{"font", "sans"}, {"theme", "light"}}));
  EXPECT_THAT(store_->getSettings("user:a", "ui"),
              ElementsAre(Field(&UserSettingEntry::value, "serif"),
                          Field(&UserSettingEntry::value, "dark")));
  ASSERT_TRUE(store_->setSettings("user:b", "ui", {{"font", "mono"}}));
  EXPECT_TRUE(store_->deleteSettingsByScope("user:a"));
  EXPECT_THAT(store_->getSettings("user:a", ""), IsEmpty());
  EXPECT_THAT(store_->getSettings("user:b", ""),
              ElementsAre(Field(&UserSettingEntry::value, "mono")));

  ASSERT_TRUE(
      other.exec("CREATE TRIGGER refuse2 BEFORE INSERT ON settings "
                 "WHEN NEW.key='smtp_user' BEGIN SELECT RAISE(ABORT, 'no'); END"));
  EXPECT_FALSE(store_->setSettings({{"smtp_server", "mail"}, {"smtp_user", "us"}}));
  EXPECT_EQ(store_->getSetting("smtp_server", "none"), "none");
  EXPECT_TRUE(store_->setSettings({{"smtp_server", "mail"}, {"smtp_tls", "ssl"}}));
  EXPECT_EQ(store_->getSetting("smtp_tls", ""), "ssl");

  ASSERT_TRUE(
      other.exec("CREATE TRIGGER refuse3 BEFORE INSERT ON chat_history "
                 "WHEN NEW.id='bad' BEGIN SELECT RAISE(ABORT, 'no'); END"));
  const auto import = [&](const std::vector<std::string>& ids) {
    std::vector<ChatConversation> conversations(ids.size());
    for (std::size_t i = 0; i < ids.size(); ++i) conversations[i].id = ids[i];
    return store_->importConversations(conversations);
  };
  EXPECT_EQ(import({"c1", "c2", "c1"}), 2U) << "an id that is taken is passed over";
  EXPECT_EQ(import({"c3", "bad"}), std::nullopt);
  EXPECT_FALSE(store_->getConversation("c3"));
  EXPECT_EQ(import({}), 0U);
}

TEST_F(Records, ACredentialIsKeptWithEveryField) {
  const Credential credential{.id = "c1",
                              .owner_type = "user",
                              .owner_id = "usr_a",
                              .name = "key",
                              .service = "registry",
                              .credential_data = R"({"token":"s"})",
                              .shared = true,
                              .created_at = "2026-01-01T00:00:00Z",
                              .updated_at = "2026-01-02T00:00:00Z",
                              .created_by = "usr_a"};
  ASSERT_TRUE(store_->createCredential(credential));
  EXPECT_FALSE(store_->createCredential(credential)) << "the id is taken";
  EXPECT_EQ(store_->getCredential("c1")->toJson(true),
            nlohmann::json::parse(R"({"id":"c1","owner_type":"user","owner_id":"usr_a",
                "name":"key","service":"registry","credential_data":"{\"token\":\"s\"}",
                "shared":true,"created_at":"2026-01-01T00:00:00Z",
                "updated_at":"2026-01-02T00:00:00Z","created_by":"usr_a"})"));
  EXPECT_TRUE(store_->deleteCredential("c1"));
  EXPECT_FALSE(store_->deleteCredential("c1"));
}

TEST_F(Records, QuotasAreUsedUpAndResetDaily) {
  ResourceQuota tokens;
  tokens.target_type = "user";
  tokens.target_id = "usr_a";
  tokens.metric = "tokens";
  tokens.limit_value = 10;
  ResourceQuota storage = tokens;
  storage.metric = "storage";
  storage.reset_interval = "never";
  ASSERT_TRUE(store_->setQuota(tokens) && store_->setQuota(storage));
  EXPECT_TRUE(store_->incrementQuotaUsage("user", "usr_a", "tokens", 9));
  EXPECT_TRUE(store_->checkQuota("user", "usr_a", "tokens"));
  EXPECT_TRUE(store_->incrementQuotaUsage("user", "usr_a", "tokens", 1));
  EXPECT_FALSE(store_->checkQuota("user", "usr_a", "tokens"));
  EXPECT_TRUE(store_->checkQuota("user", "usr_b", "tokens"));
  EXPECT_TRUE(store_->incrementQuotaUsage("user", "usr_b", "tokens", 1)) << "not limited";
  EXPECT_TRUE(store_->incrementQuotaUsage("user", "usr_a", "storage", 20));
  store_->resetDailyQuotas();
  EXPECT_TRUE(store_->checkQuota("user", "usr_a", "tokens"));
  EXPECT_FALSE(store_->checkQuota("user", "usr_a", "storage"));
  tokens.limit_value = std::int64_t{1} << 40;
  ASSERT_TRUE(store_->setQuota(tokens));
  EXPECT_THAT(store_->getQuotas("user", "usr_a"),
              UnorderedElementsAre(Field(&ResourceQuota::limit_value, std::int64_t{1} << 40),
                                   Field(&ResourceQuota::current_value, 20)));
  EXPECT_THAT(store_->getQuotas("org", "usr_a"), IsEmpty());
}

TEST_F(Records, ConversationsAreListedByPinAndTime) {
  const auto add = [&](const std::string& id, const std::string& updated, bool pinned,
                       bool archived) {
    ChatConversation conversation;
    conversation.id = id;
    conversation.user_id = "usr_a";
    conversation.title = "";
    conversation.created_at = conversation.updated_at = updated;
    conversation.pinned = pinned;
    conversation.archived = archived;
    return store_->createConversation(conversation);
  };
  ASSERT_TRUE(add("old", "2026-01-01T00:00:00Z", false, false) &&
              add("pinned", "2025-01-01T00:00:00Z", true, false) &&
              add("new", "2026-01-02T00:00:00Z", false, false) &&
              add("put away", "2026-01-03T00:00:00Z", false, true));
  EXPECT_FALSE(add("old", "2026-01-01T00:00:00Z", false, false));
  EXPECT_THAT(idsOf(store_->listConversations("usr_a", false)),
              ElementsAre("pinned", "new", "old"));
  EXPECT_THAT(idsOf(store_->listConversations("usr_a", true)),
              ElementsAre("pinned", "put away", "new", "old"));
  EXPECT_THAT(store_->listConversations("usr_b", true), IsEmpty());

  EXPECT_EQ(store_->getConversation("old")->title, "New Chat");
  const auto changed = store_->changeConversation("old", [](ChatConversation& conversation) {
    conversation.messages = R"([{"role":"user","content":"hé"}])";
    conversation.user_id = "usr_b";
  });
  ASSERT_TRUE(changed);
  const auto stored = store_->getConversation("old");
  EXPECT_EQ(stored->user_id, "usr_a") << "a conversation stays with its owner";
  EXPECT_FALSE(stored->toJson().contains("messages"));
  EXPECT_EQ(stored->toJson(true)["messages"][0]["content"], "hé");
  for (const bool archived : {true, false}) {
    for (const ChatConversation& listed : store_->listConversations("usr_a", archived)) {
      EXPECT_EQ(listed.messages, "") << "they can be gigabytes";
    }
  }
  ChatConversation torn = *stored;
  torn.messages = "[{";
  ASSERT_TRUE(store_->updateConversation(torn));
  EXPECT_EQ(store_->getConversation("old")->toJson(true)["messages"], nlohmann::json::array());
  EXPECT_TRUE(store_->deleteConversation("old"));
  EXPECT_FALSE(store_->deleteConversation("old"));
  EXPECT_FALSE(store_->updateConversation(torn));
}

}  // namespace
}  // namespace tavrel::identity
