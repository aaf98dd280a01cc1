#include "identity/sqlite_user_store.h"
#include "store/store_lock.h"

namespace tavrel::identity {

using store::Database;
using store::StoreLock;

namespace {

const std::string kSelectConversations =
    "SELECT id, user_id, org_id, title, model, messages, created_at, updated_at, pinned, archived "
    "FROM chat_history";
const std::string kConversationById = kSelectConversations + " WHERE id=?";
const std::string kConversationsOfUser =
    kSelectConversations + " WHERE user_id=? ORDER BY pinned DESC, updated_at DESC";
const std::string kCurrentConversationsOfUser =
    kSelectConversations + " WHERE user_id=? AND archived=0 ORDER BY pinned DESC, updated_at DESC";

ChatConversation readConversation(store::Statement& row) {
  ChatConversation conversation{.id = row.nextText(),
                                .user_id = row.nextText(),
                                .org_id = row.nextText(),
                                .title = row.nextText(),
                                .model = row.nextText(),
                                .messages = row.nextText(),
                                .created_at = row.nextText(),
                                .updated_at = row.nextText(),
                                .pinned = row.nextFlag(),
                                .archived = row.nextFlag()};
  if (conversation.title.empty()) conversation.title = "New Chat";
  return conversation;
}

bool writeConversation(Database& db, const ChatConversation& conversation) {
  return db.change(
             "UPDATE chat_history SET title=?, model=?, messages=?, updated_at=?, pinned=?, "
             "archived=? WHERE id=?",
             conversation.title, conversation.model, conversation.messages, conversation.updated_at,
             conversation.pinned, conversation.archived, conversation.id) > 0;
}

}  // namespace

bool SqliteUserStore::createConversation(const ChatConversation& conversation) {
  const StoreLock lock(mu_);
  return db_
      .change(
          "INSERT INTO chat_history (id, user_id, org_id, title, model, messages, created_at, "
          "updated_at, pinned, archived) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
          conversation.id, conversation.user_id, conversation.org_id, conversation.title,
          conversation.model, conversation.messages, conversation.created_at,
          conversation.updated_at, conversation.pinned, conversation.archived)
      .has_value();
}

std::optional<ChatConversation> SqliteUserStore::getConversation(const std::string& id) {
  const StoreLock lock(mu_);
  return db_.findOne(readConversation, kConversationById, id);
}

std::vector<ChatConversation> SqliteUserStore::listConversations(const std::string& user_id,
                                                                 bool include_archived) {
  const StoreLock lock(mu_);
  return db_.findAll(readConversation,
                     include_archived ? kConversationsOfUser : kCurrentConversationsOfUser,
                     user_id);
}

bool SqliteUserStore::updateConversation(const ChatConversation& conversation) {
  const StoreLock lock(mu_);
  return writeConversation(db_, conversation);
}

std::optional<ChatConversation> SqliteUserStore::changeConversation(
    const std::string& id, const std::function<void(ChatConversation&)>& change) {
  const StoreLock lock(mu_);
  std::optional<ChatConversation> conversation;
  const bool stored = db_.atomically([&](Database& db) {
    conversation = db.findOne(readConversation, kConversationById, id);
    if (!conversation) return false;
    change(*conversation);
    conversation->id = id;
    return writeConversation(db, *conversation);
  });
  return stored ? conversation : std::nullopt;
}

bool SqliteUserStore::deleteConversation(const std::string& id) {
  const StoreLock lock(mu_);
  return db_.change("DELETE FROM chat_history WHERE id=?", id) > 0;
}

}  // namespace tavrel::identity
