#include "dev_worker/options.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>
#include <utility>

namespace tavrel::dev_worker {
namespace {

constexpr std::string_view kDefaultModel = "dev-echo";

template <class Number>
bool readNumber(const std::string& text, Number lowest, Number highest, Number& value) {
  Number read{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), read);
  const bool whole = error == std::errc{} && end == text.data() + text.size();
  // Written so that a value that is not a number fails it.
  if (!whole || !(read >= lowest && read <= highest)) return false;
  value = read;
  return true;
}

bool readMilliseconds(const std::string& text, int lowest, std::chrono::milliseconds& value) {
  int count = 0;
  if (!readNumber(text, lowest, 3'600'000, count)) return false;
  value = std::chrono::milliseconds(count);
  return true;
}

bool readUrl(std::string text, std::string& url) {
  if (!text.starts_with("http://") && !text.starts_with("https://")) return false;
  while (text.ends_with('/')) text.pop_back();
  url = std::move(text);
  return true;
}

bool readLabel(const std::string& text, std::map<std::string, std::string>& labels) {
  const std::size_t equals = text.find('=');
  if (equals == 0 || equals == std::string::npos) return false;
  labels[text.substr(0, equals)] = text.substr(equals + 1);
  return true;
}

/// Options plus what only the whole command line settles.
struct Draft {
  Options options;
  double default_fault_rate = 1;
  std::vector<std::string> fault_texts;
};

struct OptionEntry {
  std::string_view name;
  std::string_view value_name;
  std::string_view help;
  bool (*read)(const std::string& value, Draft& draft);  ///< false: the value is refused
};

bool keep(const std::string& value, std::string& member) {
  member = value;
  return true;
}

constexpr std::array kOptions{
    OptionEntry{"--controller", "URL", "register and heartbeat there (default: nowhere)",
                [](const std::string& v, Draft& d) { return readUrl(v, d.options.controller); }},
    OptionEntry{
        "--heartbeat-ms", "MS", "time between heartbeats (default: 5000)",
        [](const std::string& v, Draft& d) { return readMilliseconds(v, 1, d.options.heartbeat); }},
    OptionEntry{"--api-key", "KEY", "sent to the controller as X-API-Key",
                [](const std::string& v, Draft& d) { return keep(v, d.options.api_key); }},
    OptionEntry{"--id", "ID", "worker id (default: dev-worker-<port>)",
                [](const std::string& v, Draft& d) { return keep(v, d.options.id); }},
    OptionEntry{"--name", "NAME", "worker name (default: the id)",
                [](const std::string& v, Draft& d) { return keep(v, d.options.name); }},
    OptionEntry{"--label", "K=V", "label of the worker (repeatable)",
                [](const std::string& v, Draft& d) { return readLabel(v, d.options.labels); }},
    OptionEntry{"--host", "ADDR", "advertised address (default: 127.0.0.1)",
                [](const std::string& v, Draft& d) { return keep(v, d.options.host); }},
    OptionEntry{
        "--port", "PORT", "port to listen on, 0 for any (default: 8090)",
        [](const std::string& v, Draft& d) { return readNumber(v, 0, 65535, d.options.port); }},
    OptionEntry{"--model", "NAME",
                "model it has (repeatable; default: dev-echo, or the upstream's)",
                [](const std::string& v, Draft& d) {
                  d.options.models.push_back(v);
                  return !v.empty();
                }},
    OptionEntry{"--upstream", "URL", "pass requests on to an OpenAI-compatible server (http)",
                [](const std::string& v, Draft& d) {
                  return v.starts_with("http://") && readUrl(v, d.options.upstream);
                }},
    OptionEntry{"--upstream-key", "KEY", "sent to that server as a bearer token",
                [](const std::string& v, Draft& d) { return keep(v, d.options.upstream_key); }},
    OptionEntry{"--answer", "TEXT", "the text of every answer (default: echoes the request)",
                [](const std::string& v, Draft& d) { return keep(v, d.options.answer); }},
    OptionEntry{"--tokens", "N", "tokens per answer (default: as many as the text has)",
                [](const std::string& v, Draft& d) {
                  return readNumber(v, 0, 1'000'000, d.options.tokens);
                }},
    OptionEntry{"--tokens-per-second", "N", "speed of answers, 0 for no limit (default: 0)",
                [](const std::string& v, Draft& d) {
                  return readNumber(v, 0.0, 1e9, d.options.tokens_per_second);
                }},
    OptionEntry{
        "--latency-ms", "MS", "time before the first token (default: 0)",
        [](const std::string& v, Draft& d) { return readMilliseconds(v, 0, d.options.latency); }},
    OptionEntry{
        "--pull-ms", "MS", "time that pulling a model takes (default: 0)",
        [](const std::string& v, Draft& d) { return readMilliseconds(v, 0, d.options.pull_time); }},
    OptionEntry{"--fault", "KIND[:RATE]", "misbehave (repeatable), see below",
                [](const std::string& v, Draft& d) {
                  d.fault_texts.push_back(v);
                  return true;
                }},
    OptionEntry{"--fault-rate", "RATE", "share of requests, 0 to 1, for faults without their own",
                [](const std::string& v, Draft& d) {
                  return readNumber(v, 0.0, 1.0, d.default_fault_rate);
                }},
};

const OptionEntry* findOption(std::string_view name) {
  for (const OptionEntry& entry : kOptions) {
    if (entry.name == name) return &entry;
  }
  return nullptr;
}

std::string finish(Draft& draft) {
  for (const std::string& text : draft.fault_texts) {
    const std::optional<FaultRule> rule = parseFaultRule(text, draft.default_fault_rate);
    if (!rule) return "Unknown fault: " + text;
    draft.options.faults.push_back(*rule);
  }
  if (draft.options.models.empty() && draft.options.upstream.empty()) {
    draft.options.models.emplace_back(kDefaultModel);
  }
  return {};
}

}  // namespace

std::string Options::bindAddress() const {
  if (host == "::1") return host;
  if (host.find(':') != std::string::npos) return "::";
  const bool loopback = host.starts_with("127.") || host == "localhost";
  return loopback ? "127.0.0.1" : "0.0.0.0";
}

ParsedOptions parseOptions(const std::vector<std::string>& arguments) {
  ParsedOptions parsed;
  Draft draft;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (arguments[i] == "-h" || arguments[i] == "--help") {
      parsed.help = true;
      return parsed;
    }
    const OptionEntry* entry = findOption(arguments[i]);
    if (entry == nullptr) {
      parsed.error = "Unknown option: " + arguments[i];
      return parsed;
    }
    if (++i == arguments.size()) {
      parsed.error = "Missing value of " + std::string(entry->name);
      return parsed;
    }
    if (!entry->read(arguments[i], draft)) {
      parsed.error = "Invalid value of " + std::string(entry->name) + ": " + arguments[i];
      return parsed;
    }
  }
  parsed.error = finish(draft);
  parsed.options = std::move(draft.options);
  return parsed;
}

std::string helpText() {
  std::string text = "Usage: tavrel-dev-worker [options]\nOptions:\n";
  for (const OptionEntry& entry : kOptions) {
    std::string line = "  " + std::string(entry.name) + " <" + std::string(entry.value_name) + ">";
    line.resize(std::max<std::size_t>(line.size() + 1, 32), ' ');
    text += line + std::string(entry.help) + "\n";
  }
  return text + "Faults:\n" + faultHelp();
}

}  // namespace tavrel::dev_worker
