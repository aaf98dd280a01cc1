#pragma once

#include <string_view>

#include "api/request.h"

namespace tavrel::api {

/// Reads the head of a plain request, as nearly every client sends them: HTTP/1.1, nothing escaped
/// in target and fields, no coding of the body. It costs a tenth of what the HTTP library takes.
///
/// `head` has passed scanRequestHead and says nothing of chunks or of "100 Continue". False for
/// whatever two readers could take differently: the library then reads the same bytes, and what
/// `request` has got by then is void. Sets all of `request` but body, address and path parameters,
/// and `asks_to_close` when the connection shall end with the answer.
bool readPlainRequest(std::string_view head, Request& request, bool& asks_to_close);

/// Whether requests with this method have their bodies read.
bool methodTakesBody(std::string_view method);

}  // namespace tavrel::api
