#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "api/auth_middleware.h"
#include "controller/routes/catalogue.h"

namespace tavrel::controller {
namespace {

/// A path that the pattern serves: every parameter and wildcard replaced by a text of its own.
std::string aPathOf(std::string_view pattern) {
  std::string path;
  for (std::size_t at = 0; at < pattern.size();) {
    if (pattern[at] == ':') {
      path += "x1";
      at = std::min(pattern.find('/', at), pattern.size());
    } else {
      path += pattern[at] == '*' ? 'y' : pattern[at];
      ++at;
    }
  }
  return path;
}

TEST(OpenPaths, TheGateLetsThroughExactlyTheRoutesThatTheCatalogueCallsOpen) {
  api::AuthConfig config;
  config.public_paths = api::publicPaths();
  api::AuthMiddleware auth;
  auth.initialize(config);
  int open = 0;
  for (const CatalogueRow& row : catalogue()) {
    if (row.kind == Kind::kStream) continue;  // the gate is not asked
    EXPECT_EQ(auth.isPublicPath(aPathOf(row.pattern)), row.access == Access::kOpen)
        << row.method << ' ' << row.pattern;
    open += row.access == Access::kOpen ? 1 : 0;
  }
  EXPECT_GT(open, 100);
}

}  // namespace
}  // namespace tavrel::controller
