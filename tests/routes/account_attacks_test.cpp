#include <vector>

#include "platform/text.h"
#include "routes/account_routes_fixture.h"

namespace tavrel::controller {
namespace {

using nlohmann::json;

/// A request that works, of every route that takes a body.
struct Sample {
  const char* method;
  const char* pattern;
  const char* path;
  json body;
};

std::vector<Sample> samples() {
  const auto sample = [](const char* method, const char* pattern, const char* path,
                         const char* body) {
    return Sample{method, pattern, path, json::parse(body)};
  };
  const char* const users = "/api/v1/users";
  const char* const orgs = "/api/v1/orgs";
  const char* const settings = "/api/v1/user/settings";
  const char* const conversations = "/api/v1/user/conversations";
  const char* const import = "/api/v1/user/conversations/import";
  const char* const credentials = "/api/v1/credentials";
  return {
      sample("POST", users, users,
             R"({"email": "new@example.org", "password": "long enough", "name": "n",
                 "role": "viewer", "registration_type": "user", "org_id": "org_acme",
                 "org_name": "n"})"),
      sample("PUT", "/api/v1/users/:id", "/api/v1/users/usr_ann",
             R"({"role": "user", "name": "n", "active": true, "email_verified": true,
                 "password": "long enough"})"),
      sample("POST", orgs, orgs,
             R"({"name": "n", "slug": "s", "description": "d", "max_users": 3, "plan": "p",
                 "settings": {}})"),
      sample("PUT", "/api/v1/orgs/:id", "/api/v1/orgs/org_acme",
             R"({"name": "n", "description": "d", "max_users": 3, "plan": "p",
                 "email_domain": "example.org"})"),
      sample("POST", "/api/v1/orgs/:id/invite", "/api/v1/orgs/org_acme/invite",
             R"({"email": "ann@example.org", "role": "user"})"),
      sample("PUT", "/api/v1/orgs/:id/users/:uid/role", "/api/v1/orgs/org_acme/users/usr_bob/role",
             R"({"role": "user"})"),
      sample("PUT", settings, settings, R"({"category": "c", "settings": {"k": "v"}})"),
      sample("POST", conversations, conversations,
             R"({"id": "conv_new", "title": "t", "model": "m", "messages": []})"),
      sample("PUT", "/api/v1/user/conversations/:id", "/api/v1/user/conversations/conv_own",
             R"({"title": "t", "model": "m", "messages": [], "pinned": true, "archived": true})"),
      sample(
          "POST", import, import,
          R"({"conversations": [{"id": "conv_new", "title": "t", "model": "m", "messages": []}]})"),
      sample("POST", credentials, credentials,
             R"({"name": "n", "service": "s", "owner_type": "user", "shared": true})"),
      sample("PUT", "/api/v1/quotas/:uid", "/api/v1/quotas/usr_ann",
             R"({"metric": "m", "limit_value": 3, "reset_interval": "daily"})"),
  };
}

class AccountAttacksTest : public AccountRoutesTest {
 protected:
  AccountAttacksTest() {
    addUser("root", "cluster_admin");
    addUser("ann");
    addUser("bob", "user", "org_acme");
    addOrganization("acme");
    identity::ChatConversation own;
    own.id = "conv_own";
    own.user_id = "usr_root";
    EXPECT_TRUE(store_->createConversation(own));
  }

  /// Everything that the samples could change.
  json everything() {
    json all;
    for (const auto& user : store_->listUsers()) {
      all["users"][user.id] = user.toJson(true);
      all["users"][user.id]["hash"] = user.password_hash;
    }
    for (const auto& one : store_->listOrganizations()) all["orgs"].push_back(one.toJson());
    for (const auto& one : store_->getSettings("user:usr_root", "")) {
      all["settings"].push_back(one.toJson());
    }
    for (const auto& one : store_->listConversations("usr_root", true)) {
      all["conversations"].push_back(store_->getConversation(one.id)->toJson(true));
    }
    for (const auto& one : store_->listCredentials("user", "usr_root")) {
      all["credentials"].push_back(one.toJson(true));
    }
    for (const auto& one : store_->getQuotas("user", "usr_ann")) {
      all["quotas"].push_back(one.toJson());
    }
    return all;
  }
};

TEST_F(AccountAttacksTest, EveryRouteThatTakesABodyHasASample) {
  std::vector<std::string> sampled = {
      // What these get as a body is not read.
      "POST /api/v1/auth/approve/:id", "POST /api/v1/auth/reject/:id",
      "POST /api/v1/orgs/:id/remove/:uid"};
  for (const Sample& one : samples())
    sampled.push_back(one.method + std::string(" ") + one.pattern);
  std::vector<std::string> taking;
  for (const api::Route& route : book_.routes()) {
    if (route.method == "POST" || route.method == "PUT") {
      taking.push_back(route.method + " " + route.pattern);
    }
  }
  EXPECT_THAT(sampled, testing::UnorderedElementsAreArray(taking));
}

TEST_F(AccountAttacksTest, WrongTypesAreRefusedAndChangeNothing) {
  const json before = everything();
  const std::vector<json> values = {nullptr, 7, "text", true, json::array(), json::object()};
  for (const Sample& one : samples()) {
    for (const auto& member : one.body.items()) {
      for (const json& value : values) {
        if (value.type_name() == std::string(member.value().type_name())) continue;
        json body = one.body;
        body[member.key()] = value;
        const auto reply = send("root", one.method, one.path, body);
        EXPECT_EQ(reply.status, 400) << one.method << one.path << body << reply.body;
      }
    }
    for (const char* body : {"[]", "\"text\"", "7", "null", "[[[[", "{\"name\":\"\xff\"}"}) {
      EXPECT_EQ(send("root", one.method, one.path, body).status, 400) << one.path << body;
    }
    const std::string deep =
        R"({"settings":)" + std::string(300, '[') + std::string(300, ']') + "}";
    EXPECT_EQ(send("root", one.method, one.path, deep).status, 400) << one.path;
  }
  EXPECT_EQ(everything(), before);
}

TEST_F(AccountAttacksTest, OversizeRecordsAreRefused) {
  const json before = everything();
  const std::string filling(std::size_t{1} << 20, 'x');
  for (Sample& one : samples()) {
    one.body["filling"] = filling;
    const bool conversation = std::string(one.pattern).find("/conversations") != std::string::npos;
    if (conversation) continue;  // as long as the server takes
    EXPECT_EQ(send("root", one.method, one.path, one.body).status, 413) << one.path;
  }
  EXPECT_EQ(everything(), before);
}

TEST_F(AccountAttacksTest, SqlIsTextLikeAnyOther) {
  const std::vector<std::string> texts = {"x'); DROP TABLE users; --", "' OR '1'='1",
                                          "\"; DELETE FROM organizations; --",
                                          std::string("nul\0' --", 8)};
  for (const std::string& text : texts) {
    for (const Sample& one : samples()) {
      for (const auto& member : one.body.items()) {
        if (!member.value().is_string()) continue;
        json body = one.body;
        body[member.key()] = text;
        const json before = everything();
        const auto reply = send("root", one.method, one.path, body);
        const json after = everything();
        ASSERT_EQ(after.at("users").size() - before.at("users").size(),
                  one.path == std::string("/api/v1/users") && reply.status == 201 ? 1U : 0U);
        ASSERT_GE(after.at("orgs").size(), before.at("orgs").size());
        const bool kept =
            reply.status < 300 && member.key() != "password" && member.key() != "org_name";
        // Besides what succeeds there are unknown objects, unknown kinds and names already taken.
        EXPECT_TRUE(kept ? after.dump().find(
                               json(member.key() == "email_domain" ? platform::toLower(text) : text)
                                   .dump()) != std::string::npos
                         : reply.status < 500 || reply.error() == "Failed to create organization")
            << one.path << body << reply.body;
      }
    }
  }
}

TEST_F(AccountAttacksTest, SqlInPathsQueriesAndTokensFindsNothing) {
  const json before = everything();
  for (const std::string text : {"' OR '1'='1", "x'; DROP TABLE users; --", "%", "\xff\xfe", "_"}) {
    const std::string id = platform::percentEncode(text);
    for (const api::Route& route : book_.routes()) {
      if (route.pattern.find(':') == std::string::npos) continue;
      if (route.pattern == "/api/v1/quotas/:uid") continue;  // needs no such user
      std::string path = route.pattern;
      for (const std::string name : {":id", ":uid"}) {
        const auto at = path.find(name);
        if (at != std::string::npos) path.replace(at, name.size(), id);
      }
      const auto reply =
          send("root", route.method, path, R"({"email": "ann@example.org", "role": "user"})");
      const bool lists = route.pattern == "/api/v1/orgs/:id/users";
      EXPECT_EQ(reply.status, lists ? 200 : 404) << route.method << path << reply.body;
      if (lists) {
        EXPECT_EQ(reply.json.at("count"), 0);
      }
    }
    EXPECT_EQ(send("root", "GET", "/api/v1/user/settings?category=" + id).json.at("settings"),
              json::array());
    EXPECT_EQ(send("root", "GET", "/api/v1/quotas/" + id).json.at("quotas"), json::array());
    const auto quota = send("root", "PUT", "/api/v1/quotas/" + id, R"({"metric": "m"})");
    EXPECT_EQ(quota.status, text == "\xff\xfe" ? 400 : 200);
    EXPECT_EQ(send(text, "GET", "/api/v1/credentials").status, 401);
  }
  EXPECT_EQ(everything(), before);
}

TEST_F(AccountAttacksTest, NobodyReachesPersonalDataWithoutASession) {
  for (const api::Route& route : book_.routes()) {
    const bool personal = route.pattern.starts_with("/api/v1/user/") ||
                          route.pattern.starts_with("/api/v1/credentials") ||
                          (route.pattern.starts_with("/api/v1/quotas") && route.method == "GET");
    if (!personal) continue;
    for (const httplib::Headers& headers :
         {httplib::Headers(), httplib::Headers{{"X-API-Key", "root-key-0123456789"}},
          httplib::Headers{{"X-Session-Token", "usr_root"}},
          httplib::Headers{{"Cookie", "tavrel_session=; ts_root"}}}) {
      EXPECT_EQ(refusal(server_.send(headers, route.method, route.pattern, "{}")),
                "401 Not authenticated")
          << route.pattern;
    }
  }
}

}  // namespace
}  // namespace tavrel::controller
