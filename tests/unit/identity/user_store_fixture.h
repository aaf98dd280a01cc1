#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "identity/crypto.h"
#include "identity/user_store.h"
#include "support/process.h"

namespace tavrel::identity {

inline User userNamed(const std::string& name) {
  User user;
  user.id = "usr_" + name;
  user.email = name + "@example.org";
  user.password_hash = "hash of " + name;
  user.salt = "salt";
  user.name = name;
  user.role = "user";
  user.api_key = "tk_" + name;
  user.created_at = "2026-01-01T00:00:00Z";
  return user;
}

inline Session sessionOf(const User& user, const std::string& token) {
  return {token,
          user.id,
          user.email,
          user.role,
          user.org_id,
          crypto::nowISO8601(),
          crypto::futureISO8601(3600)};
}

/// A fresh store; its lines on standard output are of no interest.
class UserStoreTest : public testing::Test {
 protected:
  void SetUp() override {
    testing::internal::CaptureStdout();
    const bool initialized = store_->initialize();
    testing::internal::GetCapturedStdout();
    ASSERT_TRUE(initialized);
  }

  test::TempDirectory directory_;
  const std::string path_ = directory_.file("users.db");
  const std::unique_ptr<UserStore> store_ = createUserStore("sqlite", path_);
};

}  // namespace tavrel::identity
