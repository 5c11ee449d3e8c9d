// computeStatistics on a million samples, against the obvious hand-written alternative:
// std::sort and the same reductions. Each iteration starts from the same unsorted copy; the
// copy is made outside the timed region.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "mosk/kelvo/perf.h"

namespace {

using mosk::kelvo::Statistics;

constexpr size_t kSamples = 1000000;

// Latency-like samples: a base of about 2000 cycles with a long tail.
const std::vector<uint64_t>& unsortedSamples() {
  static const std::vector<uint64_t> samples = [] {
    std::mt19937_64 random(42);
    std::exponential_distribution<double> tail(1.0 / 300);
    std::vector<uint64_t> v(kSamples);
    for (uint64_t& sample : v) sample = 2000 + static_cast<uint64_t>(tail(random));
    return v;
  }();
  return samples;
}

// What a user would write by hand.
Statistics sortAndReduce(uint64_t* samples, size_t n) {
  std::sort(samples, samples + n);
  Statistics s{};
  uint64_t sum = 0;
  for (size_t i = 0; i < n; ++i) sum += samples[i];
  s.count = n;
  s.average = sum / n;
  uint64_t squares = 0;
  for (size_t i = 0; i < n; ++i) {
    const uint64_t d = samples[i] > s.average ? samples[i] - s.average : s.average - samples[i];
    squares += d * d;
  }
  s.stddev = static_cast<uint64_t>(std::sqrt(static_cast<double>(squares / n)));
  auto at = [&](double f) { return samples[static_cast<size_t>(f * static_cast<double>(n))]; };
  s.min = samples[0];
  s.median = samples[n / 2];
  s.p10 = at(0.1);
  s.p20 = at(0.2);
  s.p30 = at(0.3);
  s.p40 = at(0.4);
  s.p50 = at(0.5);
  s.p60 = at(0.6);
  s.p70 = at(0.7);
  s.p80 = at(0.8);
  s.p90 = at(0.9);
  s.p99 = at(0.99);
  s.p999 = at(0.999);
  s.p9999 = at(0.9999);
  s.max = samples[n - 1];
  return s;
}

template <Statistics (*Reduce)(uint64_t*, size_t)>
void runOnFreshCopy(benchmark::State& state) {
  std::vector<uint64_t> work(kSamples);
  for (auto _ : state) {
    state.PauseTiming();
    std::copy(unsortedSamples().begin(), unsortedSamples().end(), work.begin());
    state.ResumeTiming();
    Statistics s = Reduce(work.data(), work.size());
    benchmark::DoNotOptimize(s);
  }
  state.SetItemsProcessed(state.iterations() * kSamples);
}

void BM_ComputeStatistics(benchmark::State& state) {
  runOnFreshCopy<mosk::kelvo::computeStatistics>(state);
}
BENCHMARK(BM_ComputeStatistics)->Unit(benchmark::kMillisecond);

void BM_StdSortAndReduce(benchmark::State& state) { runOnFreshCopy<sortAndReduce>(state); }
BENCHMARK(BM_StdSortAndReduce)->Unit(benchmark::kMillisecond);

}  // namespace
