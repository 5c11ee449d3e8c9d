// Dispatch cost of the periodic loop: one pass over 100 empty tasks, each resumed in its own
// coroutine, timed with the TSC and yielded back, against calling 100 std::function objects in
// a plain loop (what a hand-written cyclic executor does, without coroutines or timing).
//
// Needs SCHED_FIFO (root or CAP_SYS_NICE); without it the periodic benchmark is skipped.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "mosk/kelvo/cycles.h"
#include "mosk/kelvo/thread.h"

namespace {

using mosk::kelvo::Cycles;
using mosk::kelvo::PeriodicThread;

constexpr int kTasks = 100;

bool mayUseSchedFifo() {
  int result = -1;
  std::thread([&] { result = mosk::kelvo::setPriority(1); }).join();
  return result == 0;
}

// Per-task cost of one pass: the time from a marker task before the 100 empty tasks to a
// marker task after them, divided by 100. Each iteration is one period.
void BM_PeriodicThreadPassPerTask(benchmark::State& state) {
  if (!mayUseSchedFifo()) {
    state.SkipWithError("needs SCHED_FIFO (run as root)");
    return;
  }
  // The loop on the last CPU, this thread on the first: the waiting below must not share a
  // core (and its caches) with the loop.
  const int loopCpu = static_cast<int>(std::thread::hardware_concurrency()) - 1;
  mosk::kelvo::pinThreadToCore(0);
  // As a real-time set-up would: keep the CPUs out of deep idle states between periods.
  PeriodicThread::setLatencyTarget();
  PeriodicThread thread(1000, "bench-dispatch", mosk::kelvo::ScheduleMethod::Sequential, loopCpu,
                        80);
  if (const int error = thread.getCreationError()) {  // addTask would wait for ever
    state.SkipWithError(
        ("cannot create the thread on CPU " + std::to_string(loopCpu) + ": " + std::strerror(error))
            .c_str());
    return;
  }
  std::atomic<uint64_t> passBegin{0}, passCycles{0};
  std::atomic<uint64_t> passes{0};
  thread.addTask(
      "begin", [&] { passBegin.store(Cycles::rdtsc()); }, 0, 1000000);
  for (int i = 0; i < kTasks; ++i)
    thread.addTask(
        "empty", [] {}, 0, 1000000);
  thread.addTask(
      "end",
      [&] {
        passCycles.store(Cycles::rdtsc() - passBegin.load());
        passes.fetch_add(1);
      },
      0, 1000000);
  thread.start(0);
  // Warm up: every task's coroutine and share stack exist after the first pass.
  while (passes.load() < 3) std::this_thread::sleep_for(std::chrono::microseconds(100));
  for (auto _ : state) {
    const uint64_t seen = passes.load();
    while (passes.load() == seen) std::this_thread::sleep_for(std::chrono::microseconds(100));
    state.SetIterationTime(Cycles::toSeconds(passCycles.load()) / (kTasks + 1));
  }
  thread.stop();
  thread.join();
}
BENCHMARK(BM_PeriodicThreadPassPerTask)
    ->UseManualTime()
    ->Iterations(2000)
    ->Unit(benchmark::kNanosecond);

// The alternative: a plain loop over callables, no coroutine, no timing.
void BM_StdFunctionLoopPerTask(benchmark::State& state) {
  std::vector<std::function<void()>> tasks(kTasks, [] {});
  for (auto _ : state) {
    for (auto& task : tasks) task();
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kTasks);
  state.counters["per_task_ns"] =
      benchmark::Counter(static_cast<double>(state.iterations() * kTasks),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_StdFunctionLoopPerTask);

}  // namespace
