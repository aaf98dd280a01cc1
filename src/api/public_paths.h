#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace tavrel::api {

/// The paths that the controller serves without credentials, as patterns for matchPath. Generous on
/// purpose: workers join without a key, and the account routes authorise through the browser
/// session themselves.
const std::vector<std::string>& publicPaths();

/// Whether `path` is one that lists models or runs inference: the paths that
/// AuthConfig::protect_inference takes off the public list.
bool isInferencePath(std::string_view path);

/// Whether `path` is one whose routes serve people who are signed in, though it is not public:
/// their browser session passes the gate there as a key does, and the routes judge what it may do.
bool isSessionPath(std::string_view path);

/// Whether a path pattern covers a path: they are equal, or the text before the pattern's first "*"
/// begins and the text after it ends the path, without overlap. Any further "*" is literal.
bool matchPath(std::string_view pattern, std::string_view path);

/// A list of path patterns, prepared so that a look-up costs a hash and a binary search instead of
/// one matchPath for each pattern. The answers are the same.
///
/// Threads: immutable; any thread may ask.
class PathPatterns {
 public:
  PathPatterns() = default;
  explicit PathPatterns(const std::vector<std::string>& patterns);

  /// Whether any pattern covers the path.
  bool match(std::string_view path) const;

 private:
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

  struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const {
      return std::hash<std::string_view>()(text);
    }
  };
  /// All patterns with this text before their "*".
  struct Prefix {
    std::string text;
    std::vector<std::string> suffixes;
    std::size_t shorter = kNone;  ///< the longest other entry whose text begins this one's
  };

  std::unordered_set<std::string, TextHash, std::equal_to<>> exact_;
  std::vector<Prefix> prefixes_;  ///< ascending by text, each text once
};

}  // namespace tavrel::api
