#include <map>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "api/route_book.h"
#include "controller/routes/account_body.h"
#include "controller/routes/account_guards.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"
#include "identity/crypto.h"
#include "platform/json_fields.h"

namespace tavrel::controller {
namespace {

using api::Request;
using api::Response;
using identity::ChatConversation;
using identity::Session;
using nlohmann::json;
namespace crypto = identity::crypto;

constexpr const char* kNotJson = "Invalid JSON body";

constexpr std::initializer_list<BodyMember> kConversationMembers = {
    {"id", MemberType::kText},
    {"title", MemberType::kText},
    {"model", MemberType::kText},
    {"messages", MemberType::kArray}};

/// Conversations of an import that are stored in one go: each alone would wait for the disk, all
/// together would let everybody else wait.
constexpr std::size_t kImportedAtOnce = 256;

std::string scopeOf(const Session& session) {
  return "user:" + session.user_id;
}

Response conversationNotFound() {
  return Response::error(404, "Conversation not found");
}

Response accessDenied() {
  return Response::error(403, "Access denied");
}

Response notImported() {
  return Response::error(500, "Failed to import conversations");
}

/// A conversation of the caller as the body describes it; `title` when it tells none.
ChatConversation newConversation(const Session& session, const json& body, const char* title) {
  ChatConversation made;
  made.id = textOr(body, "id");
  if (made.id.empty()) made.id = crypto::generateConversationId();
  made.user_id = session.user_id;
  made.org_id = session.org_id;
  made.title = textOr(body, "title");
  if (made.title.empty()) made.title = title;
  made.model = textOr(body, "model");
  made.messages = jsonTextOr(body, "messages", "[]");
  made.created_at = crypto::nowISO8601();
  made.updated_at = made.created_at;
  return made;
}

struct UserDataRoutes {
  identity::UserStore* store;

  Response settings(const Session& session, const Request& request) const {
    return Response::ok({{"scope", scopeOf(session)},
                         {"settings", platform::jsonArray(store->getSettings(
                                          scopeOf(session), request.getQuery("category")))}});
  }

  Response saveSettings(const Session& session, const Request& request) const {
    if (auto refusal = refusedBody(request, {{"category", MemberType::kText}})) return *refusal;
    const json& body = *request.json();
    const std::string category = textOr(body, "category");
    if (category.empty()) return Response::error(400, "category is required");
    const json* settings = platform::jsonMember(body, "settings");
    if (settings == nullptr || !settings->is_object()) {
      return Response::error(400, "settings object is required");
    }
    std::map<std::string, std::string> values;
    for (const auto& item : settings->items()) values[item.key()] = jsonText(item.value());
    if (!store->setSettings(scopeOf(session), category, values)) {
      return Response::error(500, "Failed to save settings");
    }
    return Response::ok({{"status", "saved"}, {"count", settings->size()}});
  }

  Response conversations(const Session& session) const {
    return counted("conversations",
                   platform::jsonArray(store->listConversations(session.user_id, false)));
  }

  Response create(const Session& session, const Request& request) const {
    if (auto refusal = refusedBody(request, kConversationMembers, kNotJson, kAnyLength)) {
      return *refusal;
    }
    const ChatConversation made = newConversation(session, *request.json(), "New Chat");
    if (store->createConversation(made)) return Response::created(made.toJson());
    if (store->getConversation(made.id)) {
      return Response::error(409, "Conversation already exists");
    }
    return Response::error(500, "Failed to create conversation");
  }

  Response show(const Session& session, const Request& request) const {
    const auto found = store->getConversation(request.getPathParam("id"));
    if (!found) return conversationNotFound();
    if (found->user_id != session.user_id) return accessDenied();
    return Response::ok(found->toJson(/*include_messages=*/true));
  }

  Response update(const Session& session, const Request& request) const {
    const std::string id = request.getPathParam("id");
    if (auto refusal = denied(session, id)) return *refusal;
    if (auto refusal = refusedBody(request,
                                   {{"title", MemberType::kText},
                                    {"model", MemberType::kText},
                                    {"messages", MemberType::kArray},
                                    {"pinned", MemberType::kFlag},
                                    {"archived", MemberType::kFlag}},
                                   kNotJson, kAnyLength)) {
      return *refusal;
    }
    const json& body = *request.json();
    const std::string messages = jsonTextOr(body, "messages", "");
    const auto changed = store->changeConversation(id, [&](ChatConversation& conversation) {
      // Meanwhile it may have gone, and its id be another's.
      if (conversation.user_id != session.user_id) return;
      platform::readField(body, "title", conversation.title);
      platform::readField(body, "model", conversation.model);
      if (!messages.empty()) conversation.messages = messages;
      platform::readField(body, "pinned", conversation.pinned);
      platform::readField(body, "archived", conversation.archived);
      conversation.updated_at = crypto::nowISO8601();
    });
    if (!changed) {
      return store->getConversation(id) ? Response::error(500, "Failed to update conversation")
                                        : conversationNotFound();
    }
    if (changed->user_id != session.user_id) return accessDenied();
    return Response::ok(changed->toJson());
  }

  Response remove(const Session& session, const Request& request) const {
    const std::string id = request.getPathParam("id");
    if (auto refusal = denied(session, id)) return *refusal;
    if (!store->deleteConversation(id)) return conversationNotFound();
    return Response::ok({{"status", "deleted"}, {"conversation_id", id}});
  }

  /// Takes over what can be: elements that are no conversations, and ids that exist, are passed
  /// over.
  Response import(const Session& session, const Request& request) const {
    if (auto refusal = refusedBody(request, {}, kNotJson, kAnyLength)) return *refusal;
    const json* elements = platform::jsonMember(*request.json(), "conversations");
    if (elements == nullptr || !elements->is_array()) {
      return Response::error(400, "conversations array is required");
    }
    std::size_t count = 0;
    std::vector<ChatConversation> batch;
    const auto store_batch = [&] {
      const auto stored = store->importConversations(batch);
      count += stored.value_or(0);
      batch.clear();
      return stored.has_value();
    };
    for (const json& element : *elements) {
      if (!element.is_object() || !hasTypes(element, kConversationMembers) ||
          !hasTypes(element, {{"created_at", MemberType::kText}})) {
        continue;
      }
      ChatConversation made = newConversation(session, element, "Imported Chat");
      made.created_at = textOr(element, "created_at", made.created_at);
      batch.push_back(std::move(made));
      if (batch.size() == kImportedAtOnce && !store_batch()) return notImported();
    }
    if (!store_batch()) return notImported();
    return Response::ok({{"status", "imported"}, {"count", count}});
  }

 private:
  std::optional<Response> denied(const Session& session, const std::string& id) const {
    const auto found = store->getConversation(id);
    if (!found) return conversationNotFound();
    if (found->user_id != session.user_id) return accessDenied();
    return std::nullopt;
  }
};

}  // namespace

void addUserDataRoutes(api::RouteBook& book, const AccountAccess& access) {
  const UserDataRoutes h{access.store};
  const auto user = [&](SignedInHandler handler) { return signedIn(access, std::move(handler)); };
  book.get("/api/v1/user/settings",
           user([h](auto& s, auto&, auto& r) { return h.settings(s, r); }));
  book.put("/api/v1/user/settings",
           user([h](auto& s, auto&, auto& r) { return h.saveSettings(s, r); }));
  book.get("/api/v1/user/conversations",
           user([h](auto& s, auto&, auto&) { return h.conversations(s); }));
  book.post("/api/v1/user/conversations",
            user([h](auto& s, auto&, auto& r) { return h.create(s, r); }));
  book.get("/api/v1/user/conversations/:id",
           user([h](auto& s, auto&, auto& r) { return h.show(s, r); }));
  book.put("/api/v1/user/conversations/:id",
           user([h](auto& s, auto&, auto& r) { return h.update(s, r); }));
  book.del("/api/v1/user/conversations/:id",
           user([h](auto& s, auto&, auto& r) { return h.remove(s, r); }));
  book.post("/api/v1/user/conversations/import",
            user([h](auto& s, auto&, auto& r) { return h.import(s, r); }));
}

}  // namespace tavrel::controller
