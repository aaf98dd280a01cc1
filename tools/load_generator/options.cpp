#include "load_generator/options.h"

#include <charconv>
#include <sstream>
#include <stdexcept>

namespace tavrel::load {
namespace {

constexpr int kHighestPort = 65535;

int toNumber(const std::string& name, const std::string& text, int least, int most) {
  int value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end || value < least || value > most) {
    throw std::invalid_argument(name + " takes a number from " + std::to_string(least) + " to " +
                                std::to_string(most) + ", not '" + text + "'");
  }
  return value;
}

}  // namespace

Options::Options(int argc, char** argv, int first) {
  for (int i = first; i < argc; i += 2) {
    const std::string name = argv[i];
    if (!name.starts_with("--")) throw std::invalid_argument("not an option: " + name);
    if (i + 1 == argc) throw std::invalid_argument(name + " needs a value");
    unread_[name] = argv[i + 1];
  }
}

std::string Options::text(const std::string& name, const std::string& fallback) {
  const auto given = unread_.extract(name);
  return given.empty() ? fallback : given.mapped();
}

int Options::number(const std::string& name, int fallback, int least, int most) {
  const auto given = unread_.extract(name);
  return given.empty() ? fallback : toNumber(name, given.mapped(), least, most);
}

int Options::port(const std::string& name) {
  return ports(name).front();
}

std::vector<int> Options::ports(const std::string& name) {
  std::istringstream list(text(name, ""));
  std::vector<int> found;
  for (std::string one; std::getline(list, one, ',');) {
    found.push_back(toNumber(name, one, 1, kHighestPort));
  }
  if (found.empty()) throw std::invalid_argument(name + " is required");
  return found;
}

void Options::refuseUnread() const {
  if (!unread_.empty()) throw std::invalid_argument("unknown option: " + unread_.begin()->first);
}

}  // namespace tavrel::load
