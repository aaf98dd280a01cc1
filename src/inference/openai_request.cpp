#include "inference/openai_request.h"

#include <cstdint>
#include <iterator>
#include <nlohmann/json.hpp>

namespace tavrel::inference {

namespace {

using nlohmann::json;

/// Walks the body for the JSON reader and tells how far that has come, which it does not tell
/// itself. Right after a text it has read exactly to the closing quote.
class TrackingIterator {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char*;
  using reference = const char&;

  TrackingIterator(const char* at, const char** reached) : at_(at), reached_(reached) {}

  reference operator*() const { return *at_; }
  TrackingIterator& operator++() {
    *reached_ = ++at_;
    return *this;
  }
  TrackingIterator operator++(int) {
    TrackingIterator before = *this;
    ++*this;
    return before;
  }
  bool operator==(const TrackingIterator& other) const { return at_ == other.at_; }
  bool operator!=(const TrackingIterator& other) const { return at_ != other.at_; }

 private:
  const char* at_;
  const char** reached_;
};

/// How a member of the outermost object was given.
enum class Given { kAbsent, kNull, kText, kEmptyList, kList, kOther };

/// Notes the members of the outermost object that matter and checks the rest for being JSON. A
/// repeated member counts with its last value, as with the readers that workers use.
class BodyReader {
 public:
  BodyReader(const char* const* reached, std::string_view input_name)
      : reached_(reached), input_name_(input_name) {}

  bool null() { return scalar(Given::kNull); }
  bool boolean(bool value) {
    if (member() == Member::kStream) stream_ = value;
    return scalar(Given::kOther);
  }
  bool number_integer(std::int64_t) { return scalar(Given::kOther); }
  bool number_unsigned(std::uint64_t) { return scalar(Given::kOther); }
  bool number_float(double, const std::string&) { return scalar(Given::kOther); }
  bool binary(json::binary_t&) { return false; }

  bool string(std::string& value) {
    if (member() == Member::kModel) {
      model_ = value;
      model_end_ = *reached_;
    }
    return scalar(Given::kText);
  }

  bool key(std::string& name) {
    if (depth_ != 1) return true;
    member_ = name == "model"       ? Member::kModel
              : name == "stream"    ? Member::kStream
              : name == input_name_ ? Member::kInput
                                    : Member::kOther;
    if (member_ == Member::kModel) model_begin_ = *reached_;
    if (member_ == Member::kStream) stream_ = false;
    return true;
  }

  bool start_object(std::size_t) {
    is_object_ = is_object_ || depth_ == 0;
    return open(Given::kOther);
  }
  bool start_array(std::size_t) { return open(Given::kEmptyList); }
  bool end_object() { return close(); }
  bool end_array() { return close(); }

  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) {
    return false;
  }

  bool isObject() const { return is_object_; }
  bool stream() const { return stream_; }
  Given modelGiven() const { return model_given_; }
  Given inputGiven() const { return input_given_; }
  const std::string& model() const { return model_; }
  /// Right after the closing quote of the model's name, and of its value.
  const char* modelBegin() const { return model_begin_; }
  const char* modelEnd() const { return model_end_; }

 private:
  enum class Member { kNone, kModel, kStream, kInput, kOther };

  Member member() const { return depth_ == 1 ? member_ : Member::kNone; }

  bool scalar(Given how) {
    if (depth_ == 1) note(how);
    if (depth_ == 2 && member_ == Member::kInput && input_given_ == Given::kEmptyList) {
      input_given_ = Given::kList;
    }
    return true;
  }

  bool open(Given how) {
    scalar(how);
    return ++depth_ <= OpenAiRequest::kMaxDepth;
  }

  bool close() {
    --depth_;
    return true;
  }

  void note(Given how) {
    if (member_ == Member::kModel) model_given_ = how;
    if (member_ == Member::kInput) input_given_ = how;
  }

  const char* const* reached_;
  std::string_view input_name_;
  std::size_t depth_ = 0;
  Member member_ = Member::kNone;
  bool is_object_ = false;
  bool stream_ = false;
  Given model_given_ = Given::kAbsent;
  Given input_given_ = Given::kAbsent;
  std::string model_;
  const char* model_begin_ = nullptr;
  const char* model_end_ = nullptr;
};

/// The member that carries what the model is to work on.
std::string_view inputName(OpenAiEndpoint endpoint) {
  switch (endpoint) {
    case OpenAiEndpoint::kChatCompletions:
      return "messages";
    case OpenAiEndpoint::kCompletions:
      return "prompt";
    case OpenAiEndpoint::kEmbeddings:
      break;
  }
  return "input";
}

OpenAiError missing(const std::string& name) {
  return OpenAiError::invalidRequest("Missing required parameter: '" + name + "'", name,
                                     "missing_required_parameter");
}

OpenAiError wrongType(const std::string& name, const std::string& expected) {
  return OpenAiError::invalidRequest("Invalid type for '" + name + "': expected " + expected, name,
                                     "invalid_type");
}

std::optional<OpenAiError> judge(OpenAiEndpoint endpoint, const BodyReader& read) {
  if (read.modelGiven() == Given::kAbsent || read.modelGiven() == Given::kNull) {
    return missing("model");
  }
  if (read.modelGiven() != Given::kText) return wrongType("model", "a string");
  if (read.model().empty()) return missing("model");

  const std::string input(inputName(endpoint));
  const Given given = read.inputGiven();
  if (given == Given::kAbsent || given == Given::kNull) return missing(input);
  if (given == Given::kEmptyList) {
    return OpenAiError::invalidRequest(
        "Invalid '" + input + "': expected at least one element, but got an empty array", input,
        "empty_array");
  }
  const bool chat = endpoint == OpenAiEndpoint::kChatCompletions;
  if (chat && given != Given::kList) return wrongType(input, "an array of messages");
  if (!chat && given == Given::kOther) return wrongType(input, "a string or an array");
  return std::nullopt;
}

}  // namespace

std::string_view openAiPath(OpenAiEndpoint endpoint) {
  switch (endpoint) {
    case OpenAiEndpoint::kChatCompletions:
      return "/v1/chat/completions";
    case OpenAiEndpoint::kCompletions:
      return "/v1/completions";
    case OpenAiEndpoint::kEmbeddings:
      break;
  }
  return "/v1/embeddings";
}

std::string_view openAiName(OpenAiEndpoint endpoint) {
  switch (endpoint) {
    case OpenAiEndpoint::kChatCompletions:
      return "chat_completions";
    case OpenAiEndpoint::kCompletions:
      return "completions";
    case OpenAiEndpoint::kEmbeddings:
      break;
  }
  return "embeddings";
}

std::optional<OpenAiError> OpenAiRequest::parse(OpenAiEndpoint endpoint, std::string_view body) {
  const char* const begin = body.data();
  const char* const end = begin + body.size();
  const char* reached = begin;
  BodyReader reader(&reached, inputName(endpoint));
  const bool parsed =
      json::sax_parse(TrackingIterator(begin, &reached), TrackingIterator(end, &reached), &reader);
  if (!parsed || !reader.isObject()) {
    return OpenAiError::invalidRequest(
        parsed ? "The request body must be a JSON object" : "The request body is not valid JSON",
        "", "");
  }
  if (auto refusal = judge(endpoint, reader)) return refusal;

  model_ = reader.model();
  stream_ = reader.stream();
  // Between a name and its value only blanks and the colon may stand.
  model_begin_ = body.find('"', static_cast<std::size_t>(reader.modelBegin() - begin));
  model_end_ = static_cast<std::size_t>(reader.modelEnd() - begin);
  return std::nullopt;
}

std::string OpenAiRequest::withModel(std::string_view body, const std::string& model) const {
  const std::string value = json(model).dump(-1, ' ', false, json::error_handler_t::replace);
  std::string changed;
  changed.reserve(body.size() + value.size());
  changed.append(body.substr(0, model_begin_)).append(value).append(body.substr(model_end_));
  return changed;
}

}  // namespace tavrel::inference
