#include "ai/moe_router.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace tavrel::ai {
namespace {

using nlohmann::json;

json expert(const char* id, std::vector<std::string> keywords) {
  return {{"id", id}, {"model", std::string("model-") + id}, {"keywords", std::move(keywords)}};
}

TEST(MoeRouter, TheExpertWithMostKeywordsAnswersAndTiesGoToTheEarlier) {
  MoeRouter router;
  EXPECT_EQ(router.route("python").dump(),
            R"({"default_expert":"","reason":"MoE routing is disabled","routed":false})");
  EXPECT_FALSE(router.chooseForChat("python"));

  router.update({{"enabled", true},
                 {"experts",
                  {expert("code", {"Python", "bug"}), expert("snake", {"python", "art"}),
                   expert("late", {"python"})}}});
  EXPECT_EQ(
      router.route("Fix my PYTHON Bug").dump(),
      R"({"expert_id":"code","model":"model-code","query_preview":"Fix my PYTHON Bug","routed":true,"score":2})");
  EXPECT_EQ(router.route("python python")["expert_id"], "code");
  EXPECT_EQ(router.route("python python")["score"], 1);
  EXPECT_EQ(router.route("start a python")["expert_id"], "snake") << "art is part of start";
  EXPECT_EQ(router.route("cooking").dump(),
            R"({"expert_id":"","model":"","query_preview":"cooking","routed":false,"score":0})");
  EXPECT_EQ(router.route(std::string(99, 'x') + "\u00e9\u00e9")["query_preview"],
            std::string(99, 'x') + "\u00e9");
}

TEST(MoeRouter, WithoutAMatchTheDefaultExpertStepsIn) {
  MoeRouter router;
  router.update({{"enabled", true},
                 {"default_expert", "b"},
                 {"experts", {expert("a", {"x"}), expert("b", {}), expert("b", {"q"})}}});
  EXPECT_EQ(
      router.route("hello").dump(),
      R"({"expert_id":"b","model":"model-b","query_preview":"hello","routed":true,"score":0})");
  EXPECT_EQ(router.chooseForChat("hello")->id, "b");
  router.update({{"default_expert", "gone"}});
  EXPECT_FALSE(router.chooseForChat("hello"));
}

TEST(MoeRouter, ADisabledExpertIsNeverChosen) {
  MoeRouter router;
  json off = expert("off", {"x"});
  off["enabled"] = false;
  router.update({{"enabled", true}, {"default_expert", "off"}, {"experts", json::array({off})}});
  EXPECT_EQ(router.route("x")["routed"], false);
  EXPECT_FALSE(router.chooseForChat("x"));
}

TEST(MoeRouter, ExpertsAreAppendedAndTheFirstOfAnIdIsRemoved) {
  MoeRouter router;
  router.addExpert(expert("a", {"x"}));
  router.addExpert(expert("a", {"y"}));
  EXPECT_FALSE(router.removeExpert("b"));
  EXPECT_TRUE(router.removeExpert("a"));
  const json left = router.config()["experts"];
  ASSERT_EQ(left.size(), 1U);
  EXPECT_EQ(left[0]["keywords"][0], "y");
}

TEST(MoeRouter, UnknownMembersOfAnUpdateAreIgnored) {
  MoeRouter router;
  router.update({{"router_model", "m"}, {"other", 1}});
  EXPECT_EQ(router.config().dump(),
            R"({"default_expert":"","enabled":false,"experts":[],"router_model":"m"})");
}

// Whatever is stored, matching a chat message with it must not throw.
TEST(MoeRouter, DocumentsOfTheWrongShapeAreHarmless) {
  const json right = expert("ok", {"x"});
  const json wrong_parts = {{"id", 1},
                            {"model", json::array()},
                            {"keywords", {1, nullptr, "", "X"}},
                            {"categories", "science"},
                            {"enabled", "no"}};
  for (const json& experts :
       {json(7), json("x"), json(nullptr), json::object({{"a", 1}}),
        json::array({1, nullptr, "x", json::array(), wrong_parts}), json::array({7, right})}) {
    MoeRouter router;
    router.update({{"enabled", true}, {"default_expert", {{"a", 1}}}, {"experts", experts}});
    EXPECT_NO_THROW({
      const auto choice = router.chooseForChat("x x");
      EXPECT_TRUE(!choice || choice->id != "ok" || choice->score == 2U);
      static_cast<void>(router.route("x").dump());
      router.removeExpert("nobody");
      router.addExpert(right);
    }) << experts;
    EXPECT_TRUE(router.chooseForChat("x")) << "the added expert counts: " << experts;
  }
}

}  // namespace
}  // namespace tavrel::ai
