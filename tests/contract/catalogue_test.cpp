#include "controller/routes/catalogue.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>

#include "controller/services.h"
#include "support/test_server.h"

namespace tavrel::controller {
namespace {

api::Response nothing(api::Context&, const api::Request&) {
  return {};
}

TEST(Catalogue, EveryRouteIsOfferedOrListedAndInOrder) {
  Services services{Options{}};
  services.createHierarchy({});
  api::RouteBook book;
  addAllRoutes(book, services);
  api::HttpServer server;
  registerCatalogue(server, book);  // throws where table and code disagree
  ASSERT_EQ(server.routes().size(), catalogue().size());
  for (std::size_t i = 0; i < catalogue().size(); ++i) {
    EXPECT_EQ(server.routes()[i].method, catalogue()[i].method);
    EXPECT_EQ(server.routes()[i].pattern, catalogue()[i].pattern);
    EXPECT_EQ(server.routes()[i].stream_handler != nullptr, catalogue()[i].kind == Kind::kStream);
  }
}

TEST(Catalogue, ATableThatDisagreesWithTheCodeIsRefused) {
  api::HttpServer server;
  api::RouteBook stranger;
  stranger.get("/not/in/the/catalogue", nothing);
  EXPECT_THROW(registerCatalogue(server, stranger), std::logic_error);
  api::RouteBook empty;
  EXPECT_THROW(registerCatalogue(server, empty), std::logic_error);
}

TEST(Catalogue, EveryRouteIsReachedUnderItsPath) {
  Services services{Options{}};
  services.createHierarchy({});
  api::RouteBook book;
  addAllRoutes(book, services);
  // What the handlers do is tested elsewhere: here each only says which route it stands for.
  const test::TestServer server([&](api::HttpServer& s) {
    for (const CatalogueRow& row : catalogue()) {
      const std::string name = std::string(row.method) + ' ' + std::string(row.pattern);
      s.addRoute({std::string(row.method),
                  std::string(row.pattern),
                  [name](api::Context&, const api::Request&) {
                    return api::Response::text(name, "text/plain");
                  },
                  nullptr,
                  {}});
    }
  });
  auto client = server.client();
  std::set<std::string> missed;
  for (const CatalogueRow& row : catalogue()) {
    httplib::Request request;
    request.method = std::string(row.method);
    request.path = std::regex_replace(std::string(row.pattern), std::regex(":[a-z_]+"), "p");
    const auto answer = client.send(request);
    const std::string name = std::string(row.method) + ' ' + std::string(row.pattern);
    if (!answer || answer->body != name) missed.insert(name);
  }
  EXPECT_TRUE(missed.empty()) << *missed.begin();
}

}  // namespace
}  // namespace tavrel::controller
