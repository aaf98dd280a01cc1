#include "cluster/controller_transport.h"

namespace tavrel::cluster {

net::HttpResult HttpControllerTransport::send(const ControllerCall& call) {
  if (!net::isHttpUrl(call.url)) return {"Not a usable address", 0, 0, {}, {}};
  net::HttpCall request;
  request.url = call.url;
  request.headers = call.headers;
  if (!call.body.empty()) {
    request.method = "POST";
    request.headers.emplace_back("Content-Type", "application/json");
    request.body = call.body;
  }
  if (call.with_key && !key_.empty()) request.headers.emplace_back("X-API-Key", key_);
  request.max_answer_bytes = call.max_answer_bytes;
  return http_.send(request, call.timeouts);
}

}  // namespace tavrel::cluster
