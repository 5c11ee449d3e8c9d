// TimeTrace costs. Recording an event (timestamp passed in, so the counter read is excluded)
// is compared with what a user would write without a recorder: formatting the same event with
// snprintf into a local buffer. Merging and printing is measured on four full rings, and so is
// a prune of the task names (TraceTaskNames), which reads the same rings.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "mosk/kelvo/cycles.h"
#include "mosk/kelvo/time_trace.h"
#include "mosk/kelvo/trace_task_names.h"

namespace {

using mosk::kelvo::Cycles;
using mosk::kelvo::TimeTrace;

void BM_BufferRecord(benchmark::State& state) {
  auto ring = std::make_unique<TimeTrace::Buffer>();
  uint64_t timestamp = Cycles::rdtsc();
  uint32_t value = 0;
  for (auto _ : state) {
    ring->record(timestamp, "cycle %u took %u cycles", value, value + 7);
    timestamp += 100;
    ++value;
  }
  benchmark::DoNotOptimize(ring->writeIndex.load());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BufferRecord);

// The alternative: format the event text at once.
void BM_SnprintfEvent(benchmark::State& state) {
  char text[128];
  uint64_t timestamp = Cycles::rdtsc();
  uint32_t value = 0;
  for (auto _ : state) {
    std::snprintf(text, sizeof(text), "%lu: cycle %u took %u cycles",
                  static_cast<unsigned long>(timestamp), value, value + 7);
    benchmark::DoNotOptimize(text);
    benchmark::ClobberMemory();
    timestamp += 100;
    ++value;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SnprintfEvent);

// The convenience recorder, counter read and thread-local lookup included.
void BM_TimeTraceRecordWithCounter(benchmark::State& state) {
  TimeTrace::createThreadBuffer();
  uint32_t value = 0;
  for (auto _ : state) {
    TimeTrace::record("cycle %u took %u cycles", value, value + 7);
    ++value;
  }
  state.SetItemsProcessed(state.iterations());
  TimeTrace::threadBuffer->reset();
}
BENCHMARK(BM_TimeTraceRecordWithCounter);

// Four rings of 8191 events each, interleaved in time, merged and formatted into a string.
void BM_MergeFourFullRingsToString(benchmark::State& state) {
  constexpr int kRings = 4;
  constexpr uint32_t kEvents = TimeTrace::Buffer::kSize - 1;
  std::vector<std::unique_ptr<TimeTrace::Buffer>> owned;
  std::vector<TimeTrace::Buffer*> rings;
  for (int r = 0; r < kRings; ++r) {
    owned.push_back(std::make_unique<TimeTrace::Buffer>());
    rings.push_back(owned.back().get());
  }
  for (uint32_t i = 0; i < kEvents; ++i) {
    for (int r = 0; r < kRings; ++r) {
      rings[r]->record(1000000 + uint64_t{i} * 4000 + r * 1000, "ring %u event %u", r, i);
    }
  }
  size_t length = 0;
  for (auto _ : state) {
    std::string text;
    TimeTrace::printInternal(&rings, &text);
    length = text.size();
    benchmark::DoNotOptimize(text.data());
  }
  state.SetItemsProcessed(state.iterations() * kRings * kEvents);
  state.counters["bytes_out"] = static_cast<double>(length);
}
BENCHMARK(BM_MergeFourFullRingsToString)->Unit(benchmark::kMillisecond);

// A prune of the task names behind four registered rings full of task runs (a loop's start and
// end events with their task's identifier), with 63 retired names that no ring shows: what
// retire() pays about once every 64 removed tasks.
void BM_PruneTaskNamesOverFourFullRings(benchmark::State& state) {
  using mosk::kelvo::TraceTaskNames;
  constexpr int kRings = 4;
  constexpr int kRetired = 63;  // one fewer than makes retire() prune by itself
  std::vector<std::unique_ptr<TimeTrace::Buffer>> owned;
  for (int r = 0; r < kRings; ++r) {
    owned.push_back(std::make_unique<TimeTrace::Buffer>());
    for (uint32_t i = 0; i < TimeTrace::Buffer::kSize; ++i) {
      const uint64_t taskId = 1000 + i % 8;  // eight live tasks
      owned.back()->record(i, i % 2 == 0 ? "Task[%d] >>>>>>>> started" : "Task[%d] <<<<<<<< end %d",
                           i % 8, i, TraceTaskNames::lowWord(taskId),
                           TraceTaskNames::highWord(taskId));
    }
    std::lock_guard<std::mutex> lock(TimeTrace::mutex);
    TimeTrace::threadBuffers.push_back(owned.back().get());
  }
  uint64_t nextId = uint64_t{1} << 40;
  size_t dropped = 0;
  for (auto _ : state) {
    state.PauseTiming();
    for (int i = 0; i < kRetired; ++i) {
      TraceTaskNames::add(nextId, "gone");
      TraceTaskNames::retire(nextId++);
    }
    state.ResumeTiming();
    dropped = TraceTaskNames::prune();
  }
  state.counters["dropped"] = static_cast<double>(dropped);
  std::lock_guard<std::mutex> lock(TimeTrace::mutex);
  for (const auto& ring : owned) {
    TimeTrace::threadBuffers.erase(
        std::find(TimeTrace::threadBuffers.begin(), TimeTrace::threadBuffers.end(), ring.get()));
  }
}
BENCHMARK(BM_PruneTaskNamesOverFourFullRings)->Unit(benchmark::kMicrosecond);

}  // namespace
