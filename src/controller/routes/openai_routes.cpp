#include <string>
#include <utility>

#include "api/context.h"
#include "api/request.h"
#include "api/response.h"
#include "api/route_book.h"
#include "controller/routes/families.h"
#include "inference/openai_gateway.h"

namespace tavrel::controller {

using api::Context;
using api::Request;
using api::Response;
using inference::OpenAiEndpoint;

namespace {

struct OpenAiRoutes {
  inference::OpenAiGateway& gateway;

  /// The body counts whatever its content type says: so do the servers that clients are used to.
  Response ask(OpenAiEndpoint endpoint, const Context& context, const Request& request) const {
    const int client = context.client == nullptr ? -1 : context.client->descriptor();
    inference::OpenAiAnswer answer = gateway.answer({endpoint, request.body, client});
    Response response;
    response.status = answer.status;
    response.content_type = std::move(answer.content_type);
    for (auto& [name, value] : answer.headers) response.headers[name] = std::move(value);
    response.body = std::move(answer.body);
    if (answer.stream) {
      response.stream = [stream = std::move(answer.stream)](api::StreamWriter& writer) {
        stream([&writer](std::string_view bytes) { return writer.write(bytes); });
      };
    }
    return response;
  }
};

}  // namespace

void addOpenAiRoutes(api::RouteBook& book, inference::OpenAiGateway& gateway) {
  const OpenAiRoutes h{gateway};
  const auto post = [&book, h](OpenAiEndpoint endpoint) {
    book.post(std::string(inference::openAiPath(endpoint)),
              [h, endpoint](Context& context, const Request& request) {
                return h.ask(endpoint, context, request);
              });
  };
  post(OpenAiEndpoint::kChatCompletions);
  post(OpenAiEndpoint::kCompletions);
  post(OpenAiEndpoint::kEmbeddings);
}

}  // namespace tavrel::controller
