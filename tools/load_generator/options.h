#pragma once

#include <map>
#include <string>
#include <vector>

namespace tavrel::load {

/// `--name value` pairs of a command line. Throws std::invalid_argument, with a text for the user,
/// on anything else: a misspelt option must not measure something other than what was asked.
class Options {
 public:
  Options(int argc, char** argv, int first);

  std::string text(const std::string& name, const std::string& fallback);
  /// A number from `least` to `most`.
  int number(const std::string& name, int fallback, int least, int most);
  /// A TCP port; must be given.
  int port(const std::string& name);
  /// TCP ports separated by commas; at least one.
  std::vector<int> ports(const std::string& name);

  /// Call when everything has been read: refuses options nobody asked for.
  void refuseUnread() const;

 private:
  std::map<std::string, std::string> unread_;
};

}  // namespace tavrel::load
