#pragma once

#include <span>
#include <string_view>

#include "api/http_server.h"

namespace tavrel::controller {

enum class Access {
  kOpen,     ///< served without credentials, also when authentication is required
  kGuarded,  ///< behind the authentication middleware
};

enum class Kind { kPlain, kStream };

/// One route of the API. The order of the catalogue is the order of registration, which decides
/// among routes that match the same path.
struct CatalogueRow {
  std::string_view method;
  std::string_view pattern;
  Kind kind;
  Access access;
};

/// Every route of the API.
std::span<const CatalogueRow> catalogue();

/// Routes of the catalogue that answer 501 until their subsystem has joined, as "METHOD pattern".
/// A route is either here or offered by a family.
std::span<const std::string_view> notImplementedYet();

/// Puts the routes that the families offer in `book` on the server, in catalogue order. Throws
/// std::logic_error when a row has no handler, a handler no row, or a route is both offered and
/// listed as not implemented: the table and the code must agree.
void registerCatalogue(api::HttpServer& server, const api::RouteBook& book);

}  // namespace tavrel::controller
