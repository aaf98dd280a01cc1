#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tavrel::controller {

enum class Tier { kPrimary = 0, kSecondary = 1, kTertiary = 2 };

/// What the command line and the environment ask for. A plain value.
struct Options {
  int port = 8080;
  std::string bind_address = "0.0.0.0";
  std::string cluster_id = "tavrel-cluster";
  std::string node_id;  ///< empty: a new one at every start
  std::vector<std::string> seeds;
  std::vector<std::string> peers;
  int node_type = 0;  ///< 0 controller, 1 worker, 2 router, 3 LLM backend
  bool cluster_enabled = true;
  Tier tier = Tier::kPrimary;
  std::string parent_url;
  bool router_mode = false;
  std::string controller_url;
  int sync_interval_ms = 30000;

  bool sub_controller = false;
  std::string master_url;
  std::string master_api_key;

  std::vector<std::string> scan_subnets;
  std::string ssh_user = "root";
  std::string ssh_key_path;

  std::string api_key;  ///< empty: the environment's TAVREL_API_KEY is asked
  bool require_auth = false;
  std::string auth_mode = "none";
  std::string auth_db = "sqlite";
  std::string auth_db_url;

  std::string smtp_server;
  int smtp_port = 587;
  std::string smtp_user;
  std::string smtp_password;
  std::string smtp_from;
  std::string smtp_tls = "starttls";

  std::string packages_dir = "/var/lib/tavrel/packages";
  std::string agent_catalog_url = "https://catalog.tavrel.invalid/v1/agents.json";

  // Added options.
  int max_threads = 4096;
  int max_connections = 16384;
  int max_body_mb = 256;
  int worker_stall_seconds = 120;   ///< a worker that sends nothing for so long has stalled
  int stream_comment_seconds = 15;  ///< between comments while a stream waits for its first token
  std::string local_model_server = "http://localhost:11434";
  bool protect_inference = false;
  int guest_requests_per_minute = 60;
  int key_requests_per_minute = 1000;
  std::string cluster_key;        ///< empty: the environment's TAVREL_CLUSTER_KEY is asked
  std::string advertise_address;  ///< empty: a specific bind address, else the first local one
};

/// What to do after reading the command line: run with `options`, or print `text` and exit.
struct CommandLine {
  Options options;
  std::optional<int> exit_status;
  std::string text;  ///< for standard output when the status is 0, else a line for standard error
};

/// Reads the arguments (without the program's name). Never fails on what it does not know: unknown
/// arguments, an option without its value at the end, and numbers that are none are let pass.
CommandLine parseCommandLine(const std::vector<std::string>& arguments);

/// Overwrites the values of options that are secrets where the system keeps the command line, which
/// everybody on the machine can read. To be called when the arguments have been copied.
void hideSecrets(int argc, char** argv);

/// "primary", "secondary" or "tertiary".
std::string tierName(Tier tier);

}  // namespace tavrel::controller
