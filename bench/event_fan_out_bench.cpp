#include <benchmark/benchmark.h>

#include <vector>

#include "events/event_stream_service.h"

// What a publisher pays for the readers of the event stream.
namespace tavrel::events {
namespace {

Event sample() {
  const platform::WallTime now = platform::wallNow();
  return {generateId(now),
          EventType::kWorkerOnline,
          "worker-1",
          "worker",
          now,
          {{"name", "gpu-box"}, {"ip", "10.0.0.17"}, {"backends", {"vllm"}}},
          "Worker worker-1 came online"};
}

/// Readers whose takers sleep between two records: each one costs a wake-up.
void publishToIdleReaders(benchmark::State& state) {
  EventStreamService service;
  std::vector<EventSubscription> readers;
  for (std::int64_t i = 0; i < state.range(0); ++i) readers.push_back(service.openReader({}));
  std::vector<SharedText> batch;
  for (auto _ : state) {
    service.publishEvent(sample());
    state.PauseTiming();
    for (const EventSubscription& reader : readers) reader.reader().take(batch);
    state.ResumeTiming();
  }
}
BENCHMARK(publishToIdleReaders)->Arg(0)->Arg(10)->Arg(1000);

/// Readers that already have something queued: each one costs a pointer.
void publishToBusyReaders(benchmark::State& state) {
  EventStreamService service;
  std::vector<EventSubscription> readers;
  for (std::int64_t i = 0; i < state.range(0); ++i) readers.push_back(service.openReader({}));
  std::vector<SharedText> batch;
  std::size_t queued = 0;
  for (auto _ : state) {
    service.publishEvent(sample());
    if (++queued < EventReader::kMaxRecords / 2) continue;
    queued = 0;
    state.PauseTiming();
    for (const EventSubscription& reader : readers) reader.reader().take(batch);
    state.ResumeTiming();
  }
}
BENCHMARK(publishToBusyReaders)->Arg(0)->Arg(10)->Arg(1000);

}  // namespace
}  // namespace tavrel::events
