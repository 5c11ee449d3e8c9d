// Coroutine scheduler costs against the same operations written directly on the user-context
// calls (getcontext/makecontext/swapcontext with a malloc'd stack): what the scheduler's ids,
// bookkeeping and checks add on top of the platform switch.
#include <benchmark/benchmark.h>
#include <ucontext.h>

#include <cstdlib>

#include "mosk/kelvo/co.h"

namespace co = mosk::kelvo::coroutine;

namespace {

constexpr size_t kStackSize = 64 * 1024;

// --- kelvo scheduler ---

// Create, run to the end and hand the id back; the next create() reuses the id and frees the
// previous coroutine, so each iteration pays one allocation and one release of stack and record.
void BM_KelvoCreateResumeToFinish(benchmark::State& state) {
  co::use_coroutine();
  int runs = 0;
  for (auto _ : state) {
    const unsigned id = co::create([&runs] { ++runs; }, kStackSize);
    co::resume(id);
    co::recycle(id);
  }
  benchmark::DoNotOptimize(runs);
}
BENCHMARK(BM_KelvoCreateResumeToFinish);

// One resume() and the coroutine's yield() back: two context switches.
void BM_KelvoResumeYieldRoundTrip(benchmark::State& state) {
  co::use_coroutine();
  const unsigned id = co::create(
      [] {
        for (;;) co::yield();
      },
      kStackSize);
  for (auto _ : state) co::resume(id);
  co::recycle(id);  // freed by a later create() or when the thread ends
}
BENCHMARK(BM_KelvoResumeYieldRoundTrip);

// --- the same on raw user contexts ---

ucontext_t raw_main;
ucontext_t raw_co;
int raw_runs = 0;

void RawBodyToFinish() { ++raw_runs; }

void BM_RawCreateResumeToFinish(benchmark::State& state) {
  for (auto _ : state) {
    char* stack = static_cast<char*>(std::malloc(kStackSize));
    getcontext(&raw_co);
    raw_co.uc_stack.ss_sp = stack;
    raw_co.uc_stack.ss_size = kStackSize;
    raw_co.uc_link = &raw_main;
    makecontext(&raw_co, &RawBodyToFinish, 0);
    swapcontext(&raw_main, &raw_co);
    std::free(stack);
  }
  benchmark::DoNotOptimize(raw_runs);
}
BENCHMARK(BM_RawCreateResumeToFinish);

void RawBodyYieldForever() {
  for (;;) swapcontext(&raw_co, &raw_main);
}

void BM_RawResumeYieldRoundTrip(benchmark::State& state) {
  char* stack = static_cast<char*>(std::malloc(kStackSize));
  getcontext(&raw_co);
  raw_co.uc_stack.ss_sp = stack;
  raw_co.uc_stack.ss_size = kStackSize;
  raw_co.uc_link = &raw_main;
  makecontext(&raw_co, &RawBodyYieldForever, 0);
  for (auto _ : state) swapcontext(&raw_main, &raw_co);
  std::free(stack);  // the parked context is simply abandoned
}
BENCHMARK(BM_RawResumeYieldRoundTrip);

}  // namespace
