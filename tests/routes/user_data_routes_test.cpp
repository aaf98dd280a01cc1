#include <map>

#include "routes/account_routes_fixture.h"

namespace tavrel::controller {
namespace {

using nlohmann::json;

constexpr const char* kSettings = "/api/v1/user/settings";
constexpr const char* kConversations = "/api/v1/user/conversations";
constexpr const char* kImport = "/api/v1/user/conversations/import";

class UserDataRoutesTest : public AccountRoutesTest {
 protected:
  UserDataRoutesTest() {
    addUser("ann", "user", "org_acme");
    addUser("bob");
    addUser("root", "cluster_admin");
  }
};

TEST_F(UserDataRoutesTest, SettingsBelongToTheirUser) {
  EXPECT_EQ(send("ann", "PUT", kSettings,
                 json{{"category", "ui"}, {"settings", {{"theme", "dark"}, {"width", 3}}}})
                .json,
            json({{"status", "saved"}, {"count", 2}}));
  send("ann", "PUT", kSettings, json{{"category", "chat"}, {"settings", {{"model", {"a", 1}}}}});
  send("ann", "PUT", kSettings, json{{"category", "ui"}, {"settings", {{"theme", "light"}}}});
  const json mine = send("ann", "GET", kSettings).json;
  EXPECT_EQ(mine.at("scope"), "user:usr_ann");
  std::map<std::string, std::string> values;
  for (const json& entry : mine.at("settings")) values[entry.at("key")] = entry.at("value");
  EXPECT_EQ(values, (std::map<std::string, std::string>{
                        {"model", R"(["a",1])"}, {"theme", "light"}, {"width", "3"}}));
  EXPECT_EQ(send("ann", "GET", std::string(kSettings) + "?category=chat").json["settings"].size(),
            1U);
  EXPECT_EQ(send("bob", "GET", kSettings).json.at("settings"), json::array());

  EXPECT_EQ(refusal(send("ann", "PUT", kSettings, "{")), "400 Invalid JSON body");
  EXPECT_EQ(refusal(send("ann", "PUT", kSettings, "{}")), "400 category is required");
  for (const char* body : {R"({"category": "ui"})", R"({"category": "ui", "settings": []})"}) {
    EXPECT_EQ(refusal(send("ann", "PUT", kSettings, body)), "400 settings object is required");
  }
}

TEST_F(UserDataRoutesTest, AConversationLives) {
  const json messages = {{{"role", "user"}, {"content", "h\u00e9llo"}}};
  const auto made =
      send("ann", "POST", kConversations, json{{"model", "m"}, {"messages", messages}});
  ASSERT_EQ(made.status, 201) << made.body;
  const std::string id = made.json.at("id");
  EXPECT_EQ(id.size(), 17U);
  EXPECT_EQ(made.json.at("title"), "New Chat");
  EXPECT_EQ(made.json.at("user_id"), "usr_ann");
  EXPECT_EQ(made.json.at("org_id"), "org_acme");
  const std::string path = kConversations + ("/" + id);
  EXPECT_EQ(send("ann", "GET", path).json.at("messages"), messages);
  const json listed = send("ann", "GET", kConversations).json;
  EXPECT_EQ(listed.at("count"), 1);
  EXPECT_EQ(listed["conversations"][0], made.json);

  EXPECT_EQ(send("ann", "PUT", path, R"({"title": "Better", "pinned": true})").status, 200);
  json now = send("ann", "GET", path).json;
  EXPECT_EQ(now.at("messages"), messages);
  EXPECT_EQ(now.at("title"), "Better");
  EXPECT_EQ(now.at("pinned"), true);
  send("ann", "PUT", path, R"({"messages": [], "archived": true, "user_id": "usr_bob"})");
  now = send("ann", "GET", path).json;
  EXPECT_EQ(now.at("messages"), json::array());
  EXPECT_EQ(now.at("user_id"), "usr_ann");
  EXPECT_EQ(send("ann", "GET", kConversations).json.at("count"), 0);

  EXPECT_EQ(send("ann", "DELETE", path).json,
            json({{"status", "deleted"}, {"conversation_id", id}}));
  for (const char* method : {"GET", "PUT", "DELETE"}) {
    EXPECT_EQ(refusal(send("ann", method, path, "{}")), "404 Conversation not found");
  }
}

TEST_F(UserDataRoutesTest, NobodyReachesTheConversationOfAnother) {
  send("ann", "POST", kConversations, R"({"id": "conv_ann", "messages": ["secret"]})");
  const std::string path = std::string(kConversations) + "/conv_ann";
  for (const std::string caller : {"bob", "root"}) {
    for (const char* method : {"GET", "PUT", "DELETE"}) {
      const auto reply = send(caller, method, path, R"({"title": "mine", "messages": []})");
      EXPECT_EQ(refusal(reply), "403 Access denied");
    }
    EXPECT_EQ(refusal(send(caller, "POST", kConversations, R"({"id": "conv_ann"})")),
              "409 Conversation already exists");
    EXPECT_EQ(send(caller, "POST", kImport, R"({"conversations": [{"id": "conv_ann"}]})")
                  .json.at("count"),
              0);
    EXPECT_EQ(send(caller, "GET", kConversations).json.at("count"), 0);
  }
  const auto stored = store_->getConversation("conv_ann");
  EXPECT_EQ(stored->user_id, "usr_ann");
  EXPECT_EQ(stored->title, "New Chat");
  EXPECT_EQ(stored->messages, R"(["secret"])");
}

TEST_F(UserDataRoutesTest, AnImportTakesWhatItCan) {
  const json elements = {{{"id", "c1"}, {"created_at", "2020-01-01T00:00:00Z"}, {"model", "m"}},
                         {{"title", "Kept"}, {"messages", {1, 2}}},
                         {{"id", "c1"}, {"title", "twice"}},
                         {{"messages", "none"}},
                         {{"created_at", 7}},
                         "text",
                         nullptr};
  EXPECT_EQ(send("ann", "POST", kImport, json{{"conversations", elements}}).json,
            json({{"status", "imported"}, {"count", 2}}));
  const json first = send("ann", "GET", std::string(kConversations) + "/c1").json;
  EXPECT_EQ(first.at("title"), "Imported Chat");
  EXPECT_EQ(first.at("created_at"), "2020-01-01T00:00:00Z");
  EXPECT_EQ(first.at("messages"), json::array());
  EXPECT_EQ(send("ann", "GET", kConversations).json.at("count"), 2);
  const json many = {{"conversations", json::array_t(1000, json::object())}};
  EXPECT_EQ(send("ann", "POST", kImport, many).json.at("count"), 1000);
  EXPECT_EQ(send("ann", "GET", kConversations).json.at("count"), 1002);
  for (const char* body : {"{}", R"({"conversations": {}})"}) {
    EXPECT_EQ(refusal(send("ann", "POST", kImport, body)), "400 conversations array is required");
  }
}

}  // namespace
}  // namespace tavrel::controller
