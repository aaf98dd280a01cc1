#include <algorithm>

#include "identity/sqlite_user_store.h"
#include "store/store_lock.h"

namespace tavrel::identity {

using store::Database;
using store::StoreLock;

namespace {

constexpr const char* kConversationById =
    "SELECT id, user_id, org_id, title, model, messages, created_at, updated_at, pinned, archived "
    "FROM chat_history WHERE id=?";
// Without the messages, which would be sorted along: gigabytes, for somebody who has stored them.
const std::string kSelectConversations =
    "SELECT id, user_id, org_id, title, model, '', created_at, updated_at, pinned, archived "
    "FROM chat_history WHERE user_id=?";
const std::string kConversationsOfUser =
    kSelectConversations + " ORDER BY pinned DESC, updated_at DESC";
const std::string kCurrentConversationsOfUser =
    kSelectConversations + " AND archived=0 ORDER BY pinned DESC, updated_at DESC";

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

const std::string kInsertedConversation =
    "INTO chat_history (id, user_id, org_id, title, model, messages, created_at, updated_at, "
    "pinned, archived) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
const std::string kInsertConversation = "INSERT " + kInsertedConversation;
const std::string kInsertConversationIfNew = "INSERT OR IGNORE " + kInsertedConversation;

std::optional<std::int64_t> insertConversation(Database& db, const std::string& sql,
                                               const ChatConversation& conversation) {
  return db.change(sql, conversation.id, conversation.user_id, conversation.org_id,
                   conversation.title, conversation.model, conversation.messages,
                   conversation.created_at, conversation.updated_at, conversation.pinned,
                   conversation.archived);
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
  return insertConversation(db_, kInsertConversation, conversation).has_value();
}

std::optional<std::size_t> SqliteUserStore::importConversations(
    const std::vector<ChatConversation>& conversations) {
  const StoreLock lock(mu_);
  std::size_t count = 0;
  const bool stored = db_.atomically([&](Database& db) {
    return std::all_of(conversations.begin(), conversations.end(), [&](const auto& one) {
      const auto inserted = insertConversation(db, kInsertConversationIfNew, one);
      count += inserted == 1 ? 1 : 0;
      return inserted.has_value();
    });
  });
  return stored ? std::optional(count) : std::nullopt;
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
