#pragma once

#include <string>
#include <string_view>

namespace tavrel::inference {

/// Tokens of one request, as the worker counted them. 0 where it did not say.
struct OpenAiUsage {
  int prompt_tokens = 0;
  int completion_tokens = 0;
};

/// The text of the last "usage" object in an answer or a part of one; empty when there is none.
/// Found by its name, without reading the rest: answers may be megabytes of numbers.
std::string_view findUsage(std::string_view answer);

/// Reads what findUsage found. Anything unusable counts as 0.
OpenAiUsage readUsage(std::string_view usage);

/// True when the text can be a JSON object: it begins and ends like one.
bool looksLikeJsonObject(std::string_view text);

}  // namespace tavrel::inference
