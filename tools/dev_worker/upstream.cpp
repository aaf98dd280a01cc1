#include "dev_worker/upstream.h"

#include <charconv>
#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "dev_worker/wire.h"
#include "net/worker_connection.h"

namespace tavrel::dev_worker {
namespace {

using net::WorkerConnection;
using net::WorkerIo;
using std::chrono::milliseconds;

constexpr milliseconds kConnectLimit{5000};
constexpr milliseconds kAnswerLimit{600'000};  // a large model may think for minutes
constexpr std::size_t kMaxAnswerBytes = std::size_t{64} << 20;

api::Response badGateway(std::string_view message) {
  api::Response answer;
  answer.status = 502;
  answer.body = errorBody(message, "server_error", "upstream_failed");
  return answer;
}

/// "host:port", "[v6]:port" or "host"; false when it is none of them.
bool readAuthority(std::string_view text, net::WorkerAddress& address) {
  std::size_t port_colon = text.rfind(':');
  const std::size_t bracket = text.rfind(']');
  if (port_colon != std::string_view::npos && bracket != std::string_view::npos &&
      port_colon < bracket) {
    port_colon = std::string_view::npos;  // a colon of the address itself
  }
  std::string_view host = text.substr(0, port_colon);
  if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
  address.host = host;
  address.port = 80;
  if (port_colon != std::string_view::npos) {
    const std::string_view port = text.substr(port_colon + 1);
    const char* const end = port.data() + port.size();
    const auto [stop, error] = std::from_chars(port.data(), end, address.port);
    if (error != std::errc{} || stop != end) return false;
  }
  return !address.host.empty() && address.port > 0 && address.port <= 65535;
}

void relay(WorkerConnection& connection, ClientWatch& watch, api::StreamWriter& writer) {
  std::string piece;
  for (bool end = false; !end;) {
    piece.clear();
    const WorkerIo outcome = connection.readBody(piece, end, kAnswerLimit);
    if (outcome == WorkerIo::kClientGone || (!piece.empty() && !writer.write(piece))) {
      watch.noteGone();
      return;
    }
    if (outcome != WorkerIo::kOk) return;
  }
}

}  // namespace

std::optional<Upstream> Upstream::fromUrl(const std::string& url, const std::string& key) {
  constexpr std::string_view kScheme = "http://";
  if (!url.starts_with(kScheme)) return std::nullopt;
  const std::string_view rest = std::string_view(url).substr(kScheme.size());
  const std::size_t slash = rest.find('/');
  Upstream upstream;
  if (!readAuthority(rest.substr(0, slash), upstream.address_)) return std::nullopt;
  if (slash != std::string_view::npos) upstream.base_path_ = rest.substr(slash);
  upstream.base_url_ = url;
  upstream.key_ = key;
  return upstream;
}

std::string Upstream::postHead(const api::Request& request) const {
  std::string head = net::workerPostHead(address_, base_path_ + request.path, request.body.size(),
                                         /*keep_alive=*/false);
  if (!key_.empty()) {
    head.insert(head.size() - 2, "Authorization: Bearer " + key_ + "\r\n");
  }
  return head;
}

api::Response Upstream::forwardPost(ClientWatch watch, const api::Request& request) const {
  auto connection = std::make_shared<WorkerConnection>(watch.descriptor());
  net::HttpResponseHead head;
  WorkerIo outcome = connection->connect(address_, kConnectLimit);
  if (outcome == WorkerIo::kOk) {
    outcome = connection->send(postHead(request), request.body, kAnswerLimit);
  }
  if (outcome == WorkerIo::kOk) outcome = connection->readHead(head, kAnswerLimit);
  if (outcome == WorkerIo::kClientGone) watch.noteGone();
  if (outcome != WorkerIo::kOk) return badGateway("The upstream server did not answer");

  api::Response answer;
  answer.status = head.status;
  answer.content_type = head.header("Content-Type");
  if (answer.content_type.starts_with("text/event-stream")) {
    answer.stream = [connection, watch](api::StreamWriter& writer) mutable {
      relay(*connection, watch, writer);
    };
    return answer;
  }
  outcome = connection->readWholeBody(answer.body, kMaxAnswerBytes, kAnswerLimit);
  if (outcome == WorkerIo::kClientGone) watch.noteGone();
  if (outcome != WorkerIo::kOk) return badGateway("The upstream server's answer broke off");
  return answer;
}

net::HttpResult Upstream::get(net::HttpClient& client, const std::string& path) const {
  net::HttpCall call;
  call.url = base_url_ + path;
  if (!key_.empty()) call.headers.emplace_back("Authorization", "Bearer " + key_);
  return client.send(call, {.connect = milliseconds(1000), .total = milliseconds(5000)});
}

api::Response Upstream::forwardGet(net::HttpClient& client, const std::string& path) const {
  net::HttpResult result = get(client, path);
  if (!result.transport_error.empty()) return badGateway(result.transport_error);
  api::Response answer;
  answer.status = result.status;
  answer.content_type = result.content_type;
  answer.body = std::move(result.body);
  return answer;
}

std::vector<std::string> Upstream::models(net::HttpClient& client) const {
  const net::HttpResult result = get(client, "/v1/models");
  const nlohmann::json list = nlohmann::json::parse(result.body, nullptr, false);
  std::vector<std::string> models;
  if (!result.ok() || !list.is_object() || !list.contains("data")) return models;
  for (const nlohmann::json& entry : list["data"]) {
    if (entry.is_object() && entry.contains("id") && entry["id"].is_string()) {
      models.push_back(entry["id"].get<std::string>());
    }
  }
  return models;
}

}  // namespace tavrel::dev_worker
