// Whatever the body of a worker's answer holds: reading it gives an answer or an ordinary
// exception, and the completion made of it is always JSON with the members that clients rely on.

#include <cstdint>
#include <cstdlib>
#include <exception>
#include <nlohmann/json.hpp>
#include <string>

#include "inference/worker_answer.h"
#include "net/http_response_parser.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

void checkCompletion(std::string_view body) {
  tavrel::inference::WorkerAnswer answer;
  try {
    answer = tavrel::inference::parseWorkerAnswer(body);
  } catch (const std::exception&) {
    return;
  }
  const std::string text = tavrel::inference::completionJson(answer, {.request_id = "req-0",
                                                                      .created = 1,
                                                                      .model = body.substr(0, 20),
                                                                      .worker = "w",
                                                                      .worker_host = "h:1",
                                                                      .strategy = "s",
                                                                      .reason = body.substr(0, 5)});
  const auto completion = nlohmann::json::parse(text);
  require(completion.at("choices").at(0).at("message").at("content").is_string());
  const auto& usage = completion.at("usage");
  require(usage.at("total_tokens").get<std::int64_t>() >=
          usage.at("prompt_tokens").get<std::int64_t>());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  checkCompletion(bytes);

  tavrel::net::HttpResponseParser parser;
  std::string body;
  parser.consume(bytes, body);
  parser.finish();
  checkCompletion(body);
  return 0;
}
