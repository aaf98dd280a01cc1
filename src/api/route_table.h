#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "api/route_book.h"

namespace tavrel::api {

/// Finds the route of a request.
///
/// A pattern containing "/:" matches segment by segment: ":name" takes one segment (up to the next
/// "/"), everything else is literal. Any other pattern is a regular expression over the whole path;
/// one without special characters is just a path. Among the routes of a method the first registered
/// match wins, except that a pattern without parameters goes before one with.
///
/// Threads: add before serving, find from any thread afterwards.
class RouteTable {
 public:
  using Params = std::map<std::string, std::string>;

  /// Keeps the route; its address stays valid.
  void add(Route route);

  /// The route that serves the request, its parameters in `params`; null when there is none.
  const Route* find(const std::string& method, const std::string& path, Params& params) const;

  const std::vector<Route>& routes() const { return routes_; }

 private:
  /// A tree over path segments: a child for each literal text, one for a parameter.
  struct Node {
    std::unordered_map<std::string, std::unique_ptr<Node>> literal;
    std::unique_ptr<Node> parameter;
    std::size_t route = kNone;  ///< the first registered pattern that ends here
  };
  struct Method {
    std::unordered_map<std::string, std::size_t> plain;
    std::vector<std::pair<std::regex, std::size_t>> expressions;
    Node segments;
  };
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

  void addSegments(Node& root, const std::string& pattern, std::size_t index);
  static void search(const Node& node, std::string_view rest, std::size_t& best);
  static Params readParams(const std::string& pattern, std::string_view path);

  std::vector<Route> routes_;
  std::unordered_map<std::string, Method> methods_;
};

}  // namespace tavrel::api
