#include <set>
#include <stdexcept>
#include <string>

#include "controller/routes/catalogue.h"

namespace tavrel::controller {
namespace {

api::Response notImplemented(api::Context&, const api::Request&) {
  return api::Response::error(501, "Not implemented");
}

std::string keyOf(std::string_view method, std::string_view pattern) {
  return std::string(method) + ' ' + std::string(pattern);
}

}  // namespace

void registerCatalogue(api::HttpServer& server, const api::RouteBook& book) {
  std::set<std::string> pending(notImplementedYet().begin(), notImplementedYet().end());
  std::set<std::string> known;
  for (const CatalogueRow& row : catalogue()) {
    const std::string key = keyOf(row.method, row.pattern);
    known.insert(key);
    const api::Route* offered = book.find(std::string(row.method), std::string(row.pattern));
    const bool listed = pending.count(key) > 0;
    if ((offered != nullptr) == listed) {
      throw std::logic_error(
          key + (listed ? " is offered and listed as not implemented" : " has no handler"));
    }
    if (offered == nullptr) {
      server.addRoute(
          {std::string(row.method), std::string(row.pattern), notImplemented, nullptr, {}});
      continue;
    }
    if ((offered->stream_handler != nullptr) != (row.kind == Kind::kStream)) {
      throw std::logic_error(key + " streams in one of table and code only");
    }
    server.addRoute(*offered);
  }
  for (const api::Route& route : book.routes()) {
    const std::string key = keyOf(route.method, route.pattern);
    if (known.count(key) == 0) throw std::logic_error(key + " is not in the catalogue");
  }
  for (const std::string& key : pending) {
    if (known.count(key) == 0) throw std::logic_error(key + " is listed but not in the catalogue");
  }
}

}  // namespace tavrel::controller
