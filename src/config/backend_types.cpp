#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "config/backend_profile.h"

namespace tavrel::config {

using nlohmann::json;

namespace {

struct TypeName {
  BackendType type;
  const char* text;
  const char* alias;  ///< another text that means it, or ""
};

/// In the order of the enumeration.
constexpr std::array<TypeName, 23> kNames = {{
    {BackendType::kOllama, "ollama", ""},
    {BackendType::kVllm, "vllm", ""},
    {BackendType::kLlamaCpp, "llama_cpp", "llamacpp"},
    {BackendType::kTgi, "tgi", ""},
    {BackendType::kMlx, "mlx", ""},
    {BackendType::kOpenAi, "openai", ""},
    {BackendType::kAnthropic, "anthropic", ""},
    {BackendType::kGoogleGemini, "google_gemini", "gemini"},
    {BackendType::kAzureOpenAi, "azure_openai", "azure"},
    {BackendType::kAwsBedrock, "aws_bedrock", "bedrock"},
    {BackendType::kTogether, "together", ""},
    {BackendType::kGroq, "groq", ""},
    {BackendType::kXai, "xai", "grok"},
    {BackendType::kFireworks, "fireworks", ""},
    {BackendType::kMistral, "mistral", ""},
    {BackendType::kDeepseek, "deepseek", ""},
    {BackendType::kPerplexity, "perplexity", ""},
    {BackendType::kCohere, "cohere", ""},
    {BackendType::kHuggingface, "huggingface", "huggingface_api"},
    {BackendType::kNvidiaNim, "nvidia_nim", ""},
    {BackendType::kNvidiaNimCloud, "nvidia_nim_cloud", ""},
    {BackendType::kOllamaCloud, "ollama_cloud", ""},
    {BackendType::kOpenAiCompatible, "openai_compatible", "generic"},
}};

/// What a service of a kind needs beside the common members.
enum class Needs {
  kPort,  ///< runs on this machine, on a usual port
  kKey,
  kKeyAndDeployment,
  kAwsCredentials,
  kUrl,
};

struct Entry {
  BackendType type;
  const char* name;
  const char* description;
  Needs needs;
  int default_port;
  const char* url;  ///< public base address, or ""
};

// clang-format off
constexpr Entry kCatalogue[] = {
    {BackendType::kOllama, "Ollama", "Local LLM runtime with broad model support", Needs::kPort, 11434, ""},
    {BackendType::kVllm, "vLLM", "High-performance inference with OpenAI-compatible API", Needs::kPort, 8000, ""},
    {BackendType::kLlamaCpp, "llama.cpp Server", "Native GGUF model serving", Needs::kPort, 8080, ""},
    {BackendType::kTgi, "HuggingFace TGI", "Text Generation Inference server", Needs::kPort, 8080, ""},
    {BackendType::kMlx, "MLX Server", "Apple Silicon optimized inference", Needs::kPort, 8080, ""},
    {BackendType::kNvidiaNim, "NVIDIA NIM", "NVIDIA Inference Microservice", Needs::kPort, 8000, ""},
    {BackendType::kOpenAi, "OpenAI", "GPT-4, GPT-3.5-turbo models", Needs::kKey, 0, "https://api.openai.com/v1"},
    {BackendType::kAnthropic, "Anthropic", "Claude 3, Claude 3.5 models", Needs::kKey, 0, "https://api.anthropic.com"},
    {BackendType::kGoogleGemini, "Google Gemini", "Gemini Pro, Gemini Flash models", Needs::kKey, 0, "https://generativelanguage.googleapis.com"},
    {BackendType::kAzureOpenAi, "Azure OpenAI", "OpenAI models on Azure", Needs::kKeyAndDeployment, 0, ""},
    {BackendType::kAwsBedrock, "AWS Bedrock", "Claude, Llama, Titan models on AWS", Needs::kAwsCredentials, 0, ""},
    {BackendType::kTogether, "Together AI", "Open-weight models with fast inference", Needs::kKey, 0, "https://api.together.xyz/v1"},
    {BackendType::kGroq, "Groq", "Ultra-fast inference on LPU hardware", Needs::kKey, 0, "https://api.groq.com/openai/v1"},
    {BackendType::kFireworks, "Fireworks AI", "Fast and cost-effective model hosting", Needs::kKey, 0, "https://api.fireworks.ai/inference/v1"},
    {BackendType::kMistral, "Mistral AI", "Mistral, Mixtral, Codestral models", Needs::kKey, 0, "https://api.mistral.ai/v1"},
    {BackendType::kDeepseek, "DeepSeek", "DeepSeek chat and coder models", Needs::kKey, 0, "https://api.deepseek.com/v1"},
    {BackendType::kPerplexity, "Perplexity", "Online search-enabled models", Needs::kKey, 0, "https://api.perplexity.ai"},
    {BackendType::kCohere, "Cohere", "Command R, Command R+ models", Needs::kKey, 0, "https://api.cohere.com"},
    {BackendType::kHuggingface, "HuggingFace API", "Inference API for HuggingFace models", Needs::kKey, 0, "https://api-inference.huggingface.co"},
    {BackendType::kOllamaCloud, "Ollama Cloud", "Ollama models hosted in the cloud", Needs::kKey, 0, ""},
    {BackendType::kOpenAiCompatible, "OpenAI-Compatible", "Any OpenAI-compatible API endpoint", Needs::kUrl, 0, ""},
};
// clang-format on

const char* categoryOf(Needs needs) {
  if (needs == Needs::kPort) return "local";
  return needs == Needs::kUrl ? "generic" : "cloud";
}

json describe(const Entry& entry) {
  json object = {{"type", backendTypeToString(entry.type)},
                 {"category", categoryOf(entry.needs)},
                 {"name", entry.name},
                 {"description", entry.description}};
  switch (entry.needs) {
    case Needs::kPort:
      object["default_port"] = entry.default_port;
      object["auto_detectable"] = true;
      break;
    case Needs::kKeyAndDeployment:
      object["requires_deployment_id"] = true;
      [[fallthrough]];
    case Needs::kKey:
      object["requires_api_key"] = true;
      break;
    case Needs::kAwsCredentials:
      object["requires_aws_credentials"] = true;
      break;
    case Needs::kUrl:
      object["configurable_url"] = true;
      break;
  }
  if (*entry.url != '\0') object["url"] = entry.url;
  return object;
}

}  // namespace

std::string backendTypeToString(BackendType type) {
  const auto index = static_cast<std::size_t>(type);
  return index < kNames.size() ? kNames[index].text : "unknown";
}

BackendType backendTypeFromString(std::string_view text) {
  if (text.empty()) return BackendType::kUnknown;
  const auto row = std::find_if(kNames.begin(), kNames.end(), [&](const TypeName& name) {
    return text == name.text || text == name.alias;
  });
  return row == kNames.end() ? BackendType::kUnknown : row->type;
}

json backendTypeCatalogue() {
  json types = json::array();
  for (const Entry& entry : kCatalogue) types.push_back(describe(entry));
  return types;
}

}  // namespace tavrel::config
