// Cost of a counter read through Cycles against a bare __rdtsc(), and of each conversion.
#include <benchmark/benchmark.h>
#include <x86intrin.h>

#include "mosk/kelvo/cycles.h"

namespace {

using mosk::kelvo::Cycles;

void BM_BareRdtsc(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(__rdtsc());
}
BENCHMARK(BM_BareRdtsc);

void BM_CyclesRdtsc(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(Cycles::rdtsc());
}
BENCHMARK(BM_CyclesRdtsc);

template <uint64_t (*Convert)(uint64_t, double)>
void BM_Convert(benchmark::State& state) {
  uint64_t value = 123456789;
  for (auto _ : state) {
    benchmark::DoNotOptimize(value);
    benchmark::DoNotOptimize(Convert(value, 0));
  }
}
BENCHMARK_TEMPLATE(BM_Convert, Cycles::toNanoseconds)->Name("BM_ToNanoseconds");
BENCHMARK_TEMPLATE(BM_Convert, Cycles::toMicroseconds)->Name("BM_ToMicroseconds");
BENCHMARK_TEMPLATE(BM_Convert, Cycles::toMilliseconds)->Name("BM_ToMilliseconds");
BENCHMARK_TEMPLATE(BM_Convert, Cycles::fromNanoseconds)->Name("BM_FromNanoseconds");
BENCHMARK_TEMPLATE(BM_Convert, Cycles::fromMicroseconds)->Name("BM_FromMicroseconds");
BENCHMARK_TEMPLATE(BM_Convert, Cycles::fromMilliseconds)->Name("BM_FromMilliseconds");

void BM_ToSeconds(benchmark::State& state) {
  uint64_t value = 123456789;
  for (auto _ : state) {
    benchmark::DoNotOptimize(value);
    benchmark::DoNotOptimize(Cycles::toSeconds(value));
  }
}
BENCHMARK(BM_ToSeconds);

void BM_FromSeconds(benchmark::State& state) {
  double value = 0.001234;
  for (auto _ : state) {
    benchmark::DoNotOptimize(value);
    benchmark::DoNotOptimize(Cycles::fromSeconds(value));
  }
}
BENCHMARK(BM_FromSeconds);

}  // namespace
