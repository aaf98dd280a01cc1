#pragma once

#include <sstream>
#include <string>
#include <vector>

namespace tavrel::test {

/// What follows the head of an HTTP message; "" when there is no whole head.
inline std::string bodyOf(const std::string& message) {
  const std::size_t blank = message.find("\r\n\r\n");
  return blank == std::string::npos ? "" : message.substr(blank + 4);
}

/// A request with a JSON body; `headers` are whole lines with their CRLF.
inline std::string postRequest(const std::string& path, const std::string& body,
                               const std::string& headers = "") {
  return "POST " + path + " HTTP/1.1\r\nHost: c\r\nContent-Type: application/json\r\n" + headers +
         "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

/// The words of a command line.
inline std::vector<std::string> words(const std::string& line) {
  std::istringstream text(line);
  std::vector<std::string> list;
  for (std::string word; text >> word;) list.push_back(word);
  return list;
}

}  // namespace tavrel::test
