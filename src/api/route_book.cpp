#include "api/route_book.h"

#include <algorithm>
#include <utility>

namespace tavrel::api {

void RouteBook::add(std::string method, std::string pattern, Handler handler,
                    std::size_t max_body_bytes) {
  routes_.push_back(
      {std::move(method), std::move(pattern), std::move(handler), nullptr, {}, max_body_bytes});
}

void RouteBook::getStream(std::string pattern, StreamHandler handler) {
  routes_.push_back({"GET", std::move(pattern), nullptr, std::move(handler), {}});
}

void RouteBook::postStream(std::string pattern, StreamHandler handler) {
  routes_.push_back({"POST", std::move(pattern), nullptr, std::move(handler), {}});
}

const Route* RouteBook::find(const std::string& method, const std::string& pattern) const {
  const auto found = std::find_if(routes_.begin(), routes_.end(), [&](const Route& route) {
    return route.method == method && route.pattern == pattern;
  });
  return found == routes_.end() ? nullptr : &*found;
}

}  // namespace tavrel::api
