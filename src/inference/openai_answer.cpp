#include "inference/openai_answer.h"

namespace tavrel::inference {

OpenAiAnswer OpenAiAnswer::error(const OpenAiError& error) {
  OpenAiAnswer answer;
  answer.status = error.status;
  answer.body = error.body();
  return answer;
}

}  // namespace tavrel::inference
