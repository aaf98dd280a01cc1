#pragma once

#include <string>
#include <vector>

#include "net/http_client.h"

namespace tavrel::inference {

/// True when an expert of these categories is to be given scientific sources.
bool wantsScience(const std::vector<std::string>& categories);

/// Asks the science worker at `worker_url` what is known about the question and words it as a
/// system message; "" when it could not be asked or knows nothing. Blocks for at most 30 s; prints
/// what it does; never throws for what the worker sends.
std::string scienceContext(net::HttpClient& http, const std::string& worker_url,
                           const std::string& question);

}  // namespace tavrel::inference
