#include "controller/command_line.h"

#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string_view>
#include <variant>

namespace tavrel::controller {
namespace {

constexpr const char* kUsage = R"(Usage: tavrel-controller [options]
Options:
  -p, --port <port>      Server port (default: 8080)
  -b, --bind <addr>      Bind address (default: 0.0.0.0)
  --cluster-id <id>      Cluster identifier (default: tavrel-cluster)
  --node-id <id>         Node identifier (auto-generated if not set)
  --seed <host:port>     Seed node to join (can be repeated)
  --peer <host:port>     Peer controller for HA (can be repeated)
  --worker               Run as worker node
  --llm-backend          Run as LLM backend node
  --tier <tier>          Controller tier: primary, secondary, tertiary
  --parent <url>         Parent controller URL (for secondary/tertiary)
  --router-mode          Run as router (syncs workers from controller)
  --controller <url>     Controller URL for worker sync (router mode)
  --sync-interval <ms>   Worker sync interval in ms (default: 30000)
  --no-cluster           Disable cluster mode

Controller Hierarchy:
  --master               Run as master controller (default)
  --sub                  Run as sub-controller
  --master-url <url>     Master controller URL (required for --sub)
  --master-api-key <key> API key for master authentication

API Authentication:
  --api-key <key>        Admin API key (or set TAVREL_API_KEY env var)
  --require-auth         Require authentication for all API requests
  --auth-mode <mode>     Auth mode: none (default), admin (single key), full (users)
  --auth-db <backend>    User store backend: sqlite (default), postgresql
  --auth-db-url <url>    Database URL or file path for user store

SMTP (for --auth-mode full):
  --smtp-server <host>   SMTP server hostname (e.g., smtp.example.com)
  --smtp-port <port>     SMTP port (default: 587)
  --smtp-user <user>     SMTP username
  --smtp-password <pass> SMTP password or app password
  --smtp-from <email>    From address (default: smtp-user)
  --smtp-tls <mode>      TLS mode: none, starttls (default), ssl

Auto-Discovery:
  --scan-subnet <cidr>   Subnet to scan (can be repeated, e.g., 10.19.0.0/24)
  --ssh-user <user>      SSH user for deployment (default: root)
  --ssh-key <path>       SSH private key path

Package Management:
  --packages-dir <path>  Package directory (default: /var/lib/tavrel/packages)

Agent Catalog:
  --agent-catalog-url <url>  Remote catalog URL (default: https://catalog.tavrel.invalid/v1/agents.json)

  -h, --help             Show this help
)";

constexpr const char* kAddedUsage = R"(
Limits, timeouts and access:
  --max-threads <n>          Threads that may serve requests at once (default: 4096)
  --max-connections <n>      Open client connections (default: 16384)
  --max-body-mb <n>          Largest request body in MiB (default: 256)
  --worker-stall <seconds>   A worker silent for so long has stalled (default: 120)
  --stream-comment <seconds> Pause between comments on a stream that waits for its
                             first token (default: 15)
  --local-model-server <url> Model server asked for models no worker has
                             (default: http://localhost:11434)
  --protect-inference        Chat, completion, embedding and model-list paths need
                             credentials too, when authentication is required
  --guest-rpm <n>            Requests per minute of all guests together (default: 60)
  --key-rpm <n>              Requests per minute of each key or token (default: 1000)

Cluster:
  --cluster-key <key>        Sent as X-API-Key on calls to other nodes
                             (or set TAVREL_CLUSTER_KEY env var)
  --advertise <addr>         Address under which other nodes reach this one
                             (default: the bind address if it is a specific one,
                             else the first local address)

  --help-all                 Show this help and the options above it
)";

/// Where an option's value goes. A flag is a function without a value.
using Target = std::variant<std::string Options::*, int Options::*,
                            std::vector<std::string> Options::*, std::function<void(Options&)>>;

const std::map<std::string, Target>& optionTable() {
  using Flag = std::function<void(Options&)>;
  static const std::map<std::string, Target> table = {
      {"-p", &Options::port},
      {"--port", &Options::port},
      {"-b", &Options::bind_address},
      {"--bind", &Options::bind_address},
      {"--cluster-id", &Options::cluster_id},
      {"--node-id", &Options::node_id},
      {"--seed", &Options::seeds},
      {"--peer", &Options::peers},
      {"--worker", Flag([](Options& o) { o.node_type = 1; })},
      {"--llm-backend", Flag([](Options& o) { o.node_type = 3; })},
      {"--parent", &Options::parent_url},
      {"--router-mode", Flag([](Options& o) {
         o.node_type = 2;
         o.router_mode = true;
       })},
      {"--controller", &Options::controller_url},
      {"--sync-interval", &Options::sync_interval_ms},
      {"--no-cluster", Flag([](Options& o) { o.cluster_enabled = false; })},
      {"--master", Flag([](Options& o) { o.sub_controller = false; })},
      {"--sub", Flag([](Options& o) { o.sub_controller = true; })},
      {"--master-url", &Options::master_url},
      {"--master-api-key", &Options::master_api_key},
      {"--api-key", &Options::api_key},
      {"--require-auth", Flag([](Options& o) { o.require_auth = true; })},
      {"--auth-mode", &Options::auth_mode},
      {"--auth-db", &Options::auth_db},
      {"--auth-db-url", &Options::auth_db_url},
      {"--smtp-server", &Options::smtp_server},
      {"--smtp-port", &Options::smtp_port},
      {"--smtp-user", &Options::smtp_user},
      {"--smtp-password", &Options::smtp_password},
      {"--smtp-from", &Options::smtp_from},
      {"--smtp-tls", &Options::smtp_tls},
      {"--scan-subnet", &Options::scan_subnets},
      {"--ssh-user", &Options::ssh_user},
      {"--ssh-key", &Options::ssh_key_path},
      {"--packages-dir", &Options::packages_dir},
      {"--agent-catalog-url", &Options::agent_catalog_url},
      {"--max-threads", &Options::max_threads},
      {"--max-connections", &Options::max_connections},
      {"--max-body-mb", &Options::max_body_mb},
      {"--worker-stall", &Options::worker_stall_seconds},
      {"--stream-comment", &Options::stream_comment_seconds},
      {"--local-model-server", &Options::local_model_server},
      {"--protect-inference", Flag([](Options& o) { o.protect_inference = true; })},
      {"--guest-rpm", &Options::guest_requests_per_minute},
      {"--key-rpm", &Options::key_requests_per_minute},
      {"--cluster-key", &Options::cluster_key},
      {"--advertise", &Options::advertise_address},
  };
  return table;
}

void store(const Target& target, const std::string& value, Options& options) {
  if (const auto* text = std::get_if<std::string Options::*>(&target)) {
    options.*(*text) = value;
  } else if (const auto* number = std::get_if<int Options::*>(&target)) {
    options.*(*number) = std::atoi(value.c_str());
  } else if (const auto* list = std::get_if<std::vector<std::string> Options::*>(&target)) {
    (options.*(*list)).push_back(value);
  }
}

bool readTier(const std::string& text, Tier& tier) {
  for (const Tier candidate : {Tier::kPrimary, Tier::kSecondary, Tier::kTertiary}) {
    if (tierName(candidate) == text) {
      tier = candidate;
      return true;
    }
  }
  return false;
}

CommandLine exitWith(int status, std::string text) {
  CommandLine result;
  result.exit_status = status;
  result.text = std::move(text);
  return result;
}

}  // namespace

std::string tierName(Tier tier) {
  switch (tier) {
    case Tier::kSecondary:
      return "secondary";
    case Tier::kTertiary:
      return "tertiary";
    default:
      return "primary";
  }
}

CommandLine parseCommandLine(const std::vector<std::string>& arguments) {
  CommandLine result;
  Options& options = result.options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (argument == "-h" || argument == "--help") return exitWith(0, kUsage);
    if (argument == "--help-all") return exitWith(0, std::string(kUsage) + kAddedUsage);

    const auto option = optionTable().find(argument);
    if (option == optionTable().end() && argument != "--tier") continue;
    if (option != optionTable().end()) {
      if (const auto* flag = std::get_if<std::function<void(Options&)>>(&option->second)) {
        (*flag)(options);
        continue;
      }
    }
    if (++i == arguments.size()) break;  // an option without its value ends the reading
    const std::string& value = arguments[i];
    if (argument == "--tier") {
      if (!readTier(value, options.tier)) return exitWith(1, "Invalid tier: " + value);
    } else {
      store(option->second, value, options);
      if (argument == "--auth-mode" && (value == "admin" || value == "full")) {
        options.require_auth = true;
      }
    }
  }
  return result;
}

void hideSecrets(int argc, char** argv) {
  static const std::set<std::string_view> kSecret = {"--api-key", "--smtp-password",
                                                     "--cluster-key", "--master-api-key"};
  for (int i = 1; i + 1 < argc; ++i) {
    if (kSecret.count(argv[i]) == 0) continue;
    ++i;
    std::memset(argv[i], '*', std::strlen(argv[i]));
  }
}

}  // namespace tavrel::controller
