#include "metrics/metrics_collector.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <utility>

#include "metrics/exposition.h"

namespace tavrel::metrics {
namespace {

constexpr const char* kHttpRequests = "tavrel_http_requests_total";
constexpr const char* kHttpDuration = "tavrel_http_request_duration_seconds";
constexpr const char* kLlmRequests = "tavrel_llm_requests_total";
constexpr const char* kLlmTokens = "tavrel_llm_tokens_total";
constexpr const char* kLlmDuration = "tavrel_llm_inference_duration_seconds";
constexpr const char* kImages = "tavrel_image_generations_total";
constexpr const char* kImageDuration = "tavrel_image_generation_duration_seconds";
constexpr const char* kWorkers = "tavrel_workers_total";
constexpr const char* kModels = "tavrel_models_loaded";

std::vector<LabelView> viewsOf(const Labels& labels) {
  return {labels.begin(), labels.end()};
}

/// The value of the series, made by `make` when it is new; null when the family is full.
template <class Series, class Query, class Make>
auto* seriesFor(Series& series, const Query& query, Make make) {
  auto found = series.find(query);
  if (found == series.end()) {
    if (series.size() >= MetricsCollector::kMaxSeries) {
      return static_cast<typename Series::mapped_type*>(nullptr);
    }
    found = series.emplace(std::make_shared<const LabelSet>(query.labels), make()).first;
  }
  return &found->second;
}

template <class Series>
auto sorted(const Series& series) {
  std::vector<std::pair<LabelKey, typename Series::mapped_type>> list(series.begin(), series.end());
  std::sort(list.begin(), list.end(),
            [](const auto& a, const auto& b) { return a.first->labels < b.first->labels; });
  return list;
}

}  // namespace

void HistogramBuckets::observe(double value) {
  for (std::size_t i = 0; i < bounds.size(); ++i) {
    if (value <= bounds[i]) ++counts[i];
  }
  sum += value;
  ++count;
}

LabelSet::LabelSet(std::span<const LabelView> views)
    : labels(views.begin(), views.end()), hash(hashOf(views)) {}

bool LabelSet::equals(std::span<const LabelView> views) const {
  return std::equal(
      labels.begin(), labels.end(), views.begin(), views.end(),
      [](const auto& a, const LabelView& b) { return a.first == b.first && a.second == b.second; });
}

std::size_t hashOf(std::span<const LabelView> labels) {
  const std::hash<std::string_view> hash;
  std::size_t result = labels.size();
  for (const auto& [name, value] : labels) {
    result = result * 31 + hash(name);
    result = result * 31 + hash(value);
  }
  return result;
}

MetricsCollector& MetricsCollector::getInstance() {
  static MetricsCollector collector;
  return collector;
}

MetricsCollector::MetricsCollector() {
  registerDefaultMetrics();
}

void MetricsCollector::registerDefaultMetrics() {
  const std::vector<double> long_running = {1, 2.5, 5, 10, 30, 60, 120, 300};
  registerCounter(kHttpRequests, "Total number of HTTP requests", {"method", "path", "status"});
  registerHistogram(kHttpDuration, "HTTP request duration in seconds", {"method", "path"},
                    {0.001, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 5, 10});
  registerCounter(kLlmRequests, "Total number of LLM inference requests", {"model", "backend"});
  registerCounter(kLlmTokens, "Total number of tokens processed", {"model", "backend", "type"});
  registerHistogram(kLlmDuration, "LLM inference duration in seconds", {"model", "backend"},
                    {0.1, 0.25, 0.5, 1, 2.5, 5, 10, 30, 60, 120});
  registerCounter(kImages, "Total number of image generations", {"backend", "operation", "status"});
  registerHistogram(kImageDuration, "Image generation duration in seconds",
                    {"backend", "operation"}, long_running);
  registerCounter("tavrel_workflow_executions_total", "Total number of workflow executions",
                  {"workflow", "status"});
  registerHistogram("tavrel_workflow_duration_seconds", "Workflow execution duration in seconds",
                    {"workflow"}, long_running);
  registerGauge(kWorkers, "Total number of workers", {"status"});
  registerGauge(kModels, "Number of loaded models", {"backend"});
  registerGauge("tavrel_cluster_nodes_total", "Total number of cluster nodes", {"role"});
  registerGauge("tavrel_info", "Tavrel Controller information", {"version", "platform"});
  registerGauge("tavrel_uptime_seconds", "Process uptime in seconds", {});
  registerGauge("tavrel_memory_bytes", "Memory usage in bytes", {"type"});
}

void MetricsCollector::registerFamily(MetricInfo info, std::vector<double> bounds) {
  platform::MutexLock lock(mutex_);
  Family& family = families_[info.name];
  if (family.info.type != info.type) {
    family.values.clear();
    family.histograms.clear();
  }
  family.info = std::move(info);
  family.bounds = std::move(bounds);
}

void MetricsCollector::registerCounter(const std::string& name, const std::string& help,
                                       std::vector<std::string> labels) {
  registerFamily({name, help, MetricType::kCounter, std::move(labels)}, {});
}

void MetricsCollector::registerGauge(const std::string& name, const std::string& help,
                                     std::vector<std::string> labels) {
  registerFamily({name, help, MetricType::kGauge, std::move(labels)}, {});
}

void MetricsCollector::registerHistogram(const std::string& name, const std::string& help,
                                         std::vector<std::string> labels,
                                         std::vector<double> bounds) {
  registerFamily({name, help, MetricType::kHistogram, std::move(labels)}, std::move(bounds));
}

MetricsCollector::Family* MetricsCollector::find(std::string_view name, MetricType type) {
  const auto found = families_.find(name);
  if (found == families_.end() || found->second.info.type != type) return nullptr;
  return &found->second;
}

void MetricsCollector::add(std::string_view name, MetricType type, double value,
                           LabelsView labels) {
  const Query query(labels);
  platform::MutexLock lock(mutex_);
  Family* family = find(name, type);
  if (family == nullptr) return;
  double* series = seriesFor(family->values, query, [] { return 0.0; });
  if (series != nullptr) *series += value;
}

void MetricsCollector::set(std::string_view name, double value, LabelsView labels) {
  const Query query(labels);
  platform::MutexLock lock(mutex_);
  Family* family = find(name, MetricType::kGauge);
  if (family == nullptr) return;
  double* series = seriesFor(family->values, query, [] { return 0.0; });
  if (series != nullptr) *series = value;
}

void MetricsCollector::observe(std::string_view name, double value, LabelsView labels) {
  if (std::isnan(value)) return;  // would make the sum useless for good
  const Query query(labels);
  platform::MutexLock lock(mutex_);
  Family* family = find(name, MetricType::kHistogram);
  if (family == nullptr) return;
  HistogramBuckets* series =
      seriesFor(family->histograms, query, [family] { return HistogramBuckets(family->bounds); });
  if (series != nullptr) series->observe(value);
}

void MetricsCollector::counterAdd(std::string_view name, double value, const Labels& labels) {
  if (value >= 0) add(name, MetricType::kCounter, value, viewsOf(labels));
}

void MetricsCollector::gaugeSet(std::string_view name, double value, const Labels& labels) {
  set(name, value, viewsOf(labels));
}

void MetricsCollector::gaugeInc(std::string_view name, const Labels& labels) {
  add(name, MetricType::kGauge, 1, viewsOf(labels));
}

void MetricsCollector::gaugeDec(std::string_view name, const Labels& labels) {
  add(name, MetricType::kGauge, -1, viewsOf(labels));
}

void MetricsCollector::histogramObserve(std::string_view name, double value, const Labels& labels) {
  observe(name, value, viewsOf(labels));
}

// The recorders list their labels in the order of the names, as Labels would.

void MetricsCollector::recordHttpRequest(std::string_view method, std::string_view path, int status,
                                         double duration_seconds) {
  char digits[16];
  const auto end = std::to_chars(std::begin(digits), std::end(digits), status).ptr;
  const std::string_view status_text(digits, static_cast<std::size_t>(end - digits));
  const LabelView labels[] = {{"method", method}, {"path", path}, {"status", status_text}};
  add(kHttpRequests, MetricType::kCounter, 1, labels);
  observe(kHttpDuration, duration_seconds, LabelsView(labels).first(2));
}

void MetricsCollector::recordLlmInference(std::string_view model, std::string_view backend,
                                          std::int64_t prompt_tokens,
                                          std::int64_t completion_tokens, double duration_seconds) {
  const auto addTokens = [&](std::string_view type, std::int64_t tokens) {
    const LabelView labels[] = {{"backend", backend}, {"model", model}, {"type", type}};
    add(kLlmTokens, MetricType::kCounter, static_cast<double>(std::max<std::int64_t>(tokens, 0)),
        labels);
  };
  const LabelView labels[] = {{"backend", backend}, {"model", model}};
  add(kLlmRequests, MetricType::kCounter, 1, labels);
  addTokens("prompt", prompt_tokens);
  addTokens("completion", completion_tokens);
  observe(kLlmDuration, duration_seconds, labels);
}

void MetricsCollector::recordImageGeneration(std::string_view backend, std::string_view operation,
                                             bool success, double duration_seconds) {
  const LabelView labels[] = {
      {"backend", backend}, {"operation", operation}, {"status", success ? "success" : "error"}};
  add(kImages, MetricType::kCounter, 1, labels);
  observe(kImageDuration, duration_seconds, LabelsView(labels).first(2));
}

void MetricsCollector::setWorkerCount(std::size_t count, std::string_view status) {
  const LabelView labels[] = {{"status", status}};
  set(kWorkers, static_cast<double>(count), labels);
}

void MetricsCollector::setModelCount(std::size_t count, std::string_view backend) {
  const LabelView labels[] = {{"backend", backend}};
  set(kModels, static_cast<double>(count), labels);
}

std::vector<FamilySnapshot> MetricsCollector::snapshot() const {
  std::map<std::string, Family, std::less<>> families;
  {
    platform::MutexLock lock(mutex_);
    families = families_;
  }
  std::vector<FamilySnapshot> result;
  for (const auto& [name, family] : families) {
    result.push_back({family.info, sorted(family.values), sorted(family.histograms)});
  }
  return result;
}

std::string MetricsCollector::getPrometheusMetrics() const {
  return toPrometheusText(snapshot());
}

std::string MetricsCollector::getJsonMetrics() const {
  return toJsonText(snapshot());
}

}  // namespace tavrel::metrics
