#include "identity/crypto.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace tavrel::identity::crypto {
namespace {

using ::testing::MatchesRegex;

TEST(Crypto, HashesSaltThenPassword) {
  // The digest of "saltpassword".
  const std::string hash = "13601bda4ea78e55a07b98866d2be6be0744e3866f13c00c811cab608a28f322";
  EXPECT_EQ(hashPassword("password", "salt"), hash);
  EXPECT_TRUE(verifyPassword("password", "salt", hash));
  EXPECT_FALSE(verifyPassword("Password", "salt", hash));
  EXPECT_FALSE(verifyPassword("password", "pepper", hash));
  EXPECT_FALSE(verifyPassword("password", "salt", hash.substr(0, 63)));
  EXPECT_FALSE(verifyPassword("password", "salt", ""));
}

TEST(Crypto, DrawsIdentifiersOfTheirForms) {
  EXPECT_THAT(generateUserId(), MatchesRegex("usr_[0-9a-f]{12}"));
  EXPECT_THAT(generateOrganizationId(), MatchesRegex("org_[0-9a-f]{12}"));
  EXPECT_THAT(generateConversationId(), MatchesRegex("conv_[0-9a-f]{12}"));
  EXPECT_THAT(generateCredentialId(), MatchesRegex("cred_[0-9a-f]{12}"));
  EXPECT_THAT(generateSessionToken(), MatchesRegex("ts_[0-9a-f]{64}"));
  EXPECT_THAT(generateApiKey(), MatchesRegex("tk_[0-9a-f]{48}"));
  EXPECT_THAT(generateToken(), MatchesRegex("[0-9a-f]{64}"));
  EXPECT_THAT(generateSalt(), MatchesRegex("[0-9a-f]{32}"));
  std::set<std::string> ids;
  for (int i = 0; i < 1000; ++i) ids.insert(generateUserId());
  EXPECT_EQ(ids.size(), 1000U);
}

TEST(Crypto, StampsExpireWhenTheirSecondIsOver) {
  const platform::WallTime now{std::chrono::seconds(1'769'860'800)};  // 2026-01-31T12:00:00Z
  EXPECT_FALSE(isExpired("2026-01-31T12:00:00Z", now));
  EXPECT_FALSE(isExpired("2026-02-01T00:00:00Z", now));
  EXPECT_FALSE(isExpired("2026-01-31T12:00:01", now));
  EXPECT_TRUE(isExpired("2026-01-31T11:59:59Z", now));
  for (const char* none : {"", "tomorrow", "2026-13-31T12:00:00Z", "2126-01-31", "1769860900"}) {
    EXPECT_TRUE(isExpired(none, now)) << none;
  }
  EXPECT_TRUE(isExpired(futureISO8601(-2)));
  EXPECT_FALSE(isExpired(futureISO8601(60)));
  EXPECT_LT(nowISO8601(), futureISO8601(86400)) << "stamps must compare as text";
}

}  // namespace
}  // namespace tavrel::identity::crypto
