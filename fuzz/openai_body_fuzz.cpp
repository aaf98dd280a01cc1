// The bodies that clients post to the OpenAI surface: read in one pass, without a document. The
// JSON library's own documents tell what the right answers are.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "inference/openai_request.h"

namespace {

using nlohmann::json;
using tavrel::inference::OpenAiEndpoint;
using tavrel::inference::OpenAiRequest;

void require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  OpenAiRequest request;
  const auto refusal = request.parse(OpenAiEndpoint::kEmbeddings, body);
  if (refusal) {
    require(refusal->status == 400 && json::accept(refusal->body()));
    return 0;
  }
  json document = json::parse(body);
  require(document.at("model") == request.model() && !request.model().empty());
  require(request.stream() == (document.contains("stream") && document["stream"] == true));
  const std::string changed = request.withModel(body, "an\"other");
  document["model"] = "an\"other";
  require(json::parse(changed) == document);
  return 0;
}
