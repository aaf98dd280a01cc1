#include "dev_worker/dev_worker.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <utility>

#include "dev_worker/model_api.h"
#include "dev_worker/worker_pages.h"

namespace tavrel::dev_worker {
namespace {

std::optional<Upstream> upstreamOf(const Options& options) {
  if (options.upstream.empty()) return std::nullopt;
  return Upstream::fromUrl(options.upstream, options.upstream_key);
}

}  // namespace

DevWorker::DevWorker(Options options)
    : options_(std::move(options)), upstream_(upstreamOf(options_)), models_(options_.models) {
  inference_ =
      std::make_unique<InferenceApi>(options_, models_, upstream_, client_, stats_, stopping_);
  inference_->addRoutes(server_);
  addModelApi(server_, options_, models_, client_);
  addWorkerPages(server_, options_, models_, stats_);
}

DevWorker::~DevWorker() {
  stop();
}

std::string DevWorker::start() {
  if (!options_.upstream.empty() && !upstream_) return "Invalid upstream: " + options_.upstream;
  std::string problem = FaultPlan(options_.faults).refusesEverybody() ? holdPort() : listen();
  if (problem.empty() && !options_.controller.empty()) startHeartbeats();
  return problem;
}

std::string DevWorker::listen() {
  api::ServerConfig config;
  config.host = options_.bindAddress();
  config.port = options_.port;
  config.read_timeout_seconds = 300;
  config.stop_grace = std::chrono::milliseconds(300);
  server_.configure(config);
  if (!server_.start()) {
    return "Cannot listen on " + config.host + ":" + std::to_string(config.port);
  }
  port_ = server_.getPort();
  return {};
}

// Bound but not listening: whoever connects is refused, and nobody else can take the port.
std::string DevWorker::holdPort() {
  held_socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(options_.port));
  socklen_t length = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (::bind(held_socket_, generic, length) != 0 ||
      ::getsockname(held_socket_, generic, &length) != 0) {
    return "Cannot hold port " + std::to_string(options_.port);
  }
  port_ = ntohs(address.sin_port);
  return {};
}

void DevWorker::startHeartbeats() {
  Registration::Models models = [this] {
    return options_.models.empty() && upstream_ ? upstream_->models(client_) : models_.names();
  };
  Registration::Shards shards = [this] { return models_.shardReports(); };
  registration_ =
      std::make_unique<Registration>(identityOf(options_, port_), options_.api_key,
                                     std::move(models), std::move(shards), stats_, client_);
  heartbeats_ = std::make_unique<platform::PeriodicTask>(
      "heartbeat", std::chrono::milliseconds(0), options_.heartbeat,
      [this](const std::stop_token&) { registration_->beat(); });
  heartbeats_->start();
}

void DevWorker::stop() {
  stopping_ = true;
  client_.cancelAll();
  server_.stop();
  if (heartbeats_) heartbeats_->stop();
  if (held_socket_ >= 0) ::close(std::exchange(held_socket_, -1));
}

}  // namespace tavrel::dev_worker
