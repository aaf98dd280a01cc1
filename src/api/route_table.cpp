#include "api/route_table.h"

#include <algorithm>

namespace tavrel::api {
namespace {

bool hasParameters(const std::string& pattern) {
  return pattern.find("/:") != std::string::npos;
}

bool isPlainPath(const std::string& pattern) {
  return pattern.find_first_of(".*+?^${}()|[]\\") == std::string::npos;
}

/// Cuts the first segment off a path that begins with "/". An empty rest marks the end.
std::string_view takeSegment(std::string_view& rest) {
  rest.remove_prefix(1);
  const std::size_t end = std::min(rest.find('/'), rest.size());
  const std::string_view segment = rest.substr(0, end);
  rest.remove_prefix(end);
  return segment;
}

}  // namespace

void RouteTable::add(Route route) {
  const std::size_t index = routes_.size();
  Method& method = methods_[route.method];
  if (hasParameters(route.pattern)) {
    addSegments(method.segments, route.pattern, index);
  } else if (isPlainPath(route.pattern)) {
    method.plain.emplace(route.pattern, index);
  } else {
    method.expressions.emplace_back(std::regex(route.pattern), index);
  }
  routes_.push_back(std::move(route));
}

void RouteTable::addSegments(Node& root, const std::string& pattern, std::size_t index) {
  Node* node = &root;
  std::string_view rest = pattern;
  while (!rest.empty()) {
    const std::string_view segment = takeSegment(rest);
    auto& child = segment.starts_with(':') ? node->parameter : node->literal[std::string(segment)];
    if (child == nullptr) child = std::make_unique<Node>();
    node = child.get();
  }
  node->route = std::min(node->route, index);
}

void RouteTable::search(const Node& node, std::string_view rest, std::size_t& best) {
  if (rest.empty()) {
    best = std::min(best, node.route);
    return;
  }
  const std::string_view segment = takeSegment(rest);
  const auto literal = node.literal.find(std::string(segment));
  if (literal != node.literal.end()) search(*literal->second, rest, best);
  if (node.parameter != nullptr) search(*node.parameter, rest, best);
}

RouteTable::Params RouteTable::readParams(const std::string& pattern, std::string_view path) {
  Params params;
  std::string_view rest = pattern;
  while (!rest.empty()) {
    const std::string_view name = takeSegment(rest);
    const std::string_view value = takeSegment(path);
    if (name.starts_with(':')) params[std::string(name.substr(1))] = std::string(value);
  }
  return params;
}

const Route* RouteTable::find(const std::string& method, const std::string& path,
                              Params& params) const {
  const auto found = methods_.find(method);
  if (found == methods_.end() || path.empty() || path.front() != '/') return nullptr;
  const Method& table = found->second;

  std::size_t best = kNone;
  if (const auto plain = table.plain.find(path); plain != table.plain.end()) best = plain->second;
  for (const auto& [expression, index] : table.expressions) {
    if (index < best && std::regex_match(path, expression)) best = index;
  }
  if (best != kNone) return &routes_[best];

  search(table.segments, path, best);
  if (best == kNone) return nullptr;
  params = readParams(routes_[best].pattern, path);
  return &routes_[best];
}

}  // namespace tavrel::api
