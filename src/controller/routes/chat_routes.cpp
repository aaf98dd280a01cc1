#include <nlohmann/json.hpp>
#include <utility>

#include "api/route_book.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"
#include "inference/chat_proxy.h"

namespace tavrel::controller {
namespace {

using api::Context;
using api::Request;
using api::Response;

inference::ChatCaller callerOf(const Context& context) {
  return {.request_id = context.request_id,
          .client_descriptor = context.client == nullptr ? -1 : context.client->descriptor()};
}

struct ChatRoutes {
  inference::ChatProxy& chat;

  Response complete(const Context& context, const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    inference::ChatReply reply = chat.complete(*req.json(), req.body, callerOf(context));
    if (reply.status != 200) return Response::error(reply.status, reply.error);
    Response response;
    response.body = std::move(reply.body);
    return response;
  }

  void stream(const Context& context, const Request& req, api::StreamWriter& writer) const {
    const auto& body = req.json();
    chat.stream(body ? &*body : nullptr, callerOf(context),
                [&writer](std::string_view bytes) { return writer.write(bytes); });
  }
};

}  // namespace

void addChatRoutes(api::RouteBook& book, inference::ChatProxy& chat) {
  const ChatRoutes h{chat};
  book.post("/api/v1/chat/completions", [h](auto& c, auto& req) { return h.complete(c, req); });
  book.postStream("/api/v1/chat/completions/stream",
                  [h](auto& c, auto& req, auto& writer) { h.stream(c, req, writer); });
}

}  // namespace tavrel::controller
