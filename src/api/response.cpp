#include "api/response.h"

#include <nlohmann/json.hpp>
#include <utility>

namespace tavrel::api {

Response Response::json(const nlohmann::json& value, int status) {
  Response response;
  response.status = status;
  response.body = value.dump();
  return response;
}

Response Response::ok(const nlohmann::json& value) {
  return json(value, 200);
}
Response Response::created(const nlohmann::json& value) {
  return json(value, 201);
}

Response Response::error(int status, std::string_view message) {
  Response response;
  response.status = status;
  response.body = nlohmann::json{{"code", status}, {"error", std::string(message)}}.dump(
      -1, ' ', false, nlohmann::json::error_handler_t::replace);
  return response;
}

Response Response::text(std::string body, std::string content_type) {
  Response response;
  response.body = std::move(body);
  response.content_type = std::move(content_type);
  return response;
}

}  // namespace tavrel::api
