// kelvo-demo: a small control program to copy from.
//
// A 1 kHz periodic thread, pinned to the last CPU this process may use, runs three tasks:
//   - "init", a run-once initialiser (it runs in the first period, then leaves the thread);
//   - "controller", which runs every period and samples the thread's wake-up latency;
//   - "planner", a long computation that yield()s to continue in the next period.
// After a few seconds it prints the thread's status and warnings, the wake-up latency
// percentiles and histogram, and a slice of the time trace, and writes the whole trace as
// Chrome trace-event JSON (open it in ui.perfetto.dev or chrome://tracing).
//
//   kelvo-demo [-o trace.json]     (default: kelvo-demo-trace.json in the current directory)
//
// Run it as root (or with CAP_SYS_NICE) so that the thread may use SCHED_FIFO.
#include <mosk/kelvo.h>
#include <sched.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using mosk::kelvo::Cycles;
using mosk::kelvo::PeriodicThread;
using mosk::kelvo::ScheduleMethod;

namespace {

constexpr unsigned kPeriodUs = 1000;  // 1 kHz
constexpr int kPriority = 80;
constexpr int kSeconds = 3;

int lastAllowedCpu() {
  cpu_set_t allowed;
  sched_getaffinity(0, sizeof(allowed), &allowed);
  int last = 0;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (CPU_ISSET(cpu, &allowed)) last = cpu;
  }
  return last;
}

bool mayUseSchedFifo() {
  // PeriodicThread reports a failed creation on standard output and then has no thread; check
  // first, because addTask() would wait for the thread forever.
  int result = -1;
  std::thread([&] { result = mosk::kelvo::setPriority(kPriority); }).join();
  return result == 0;
}

// The trace's JSON file from the command line: none, or "-o path". Exits with 2 otherwise.
const char* traceJsonPath(int argc, char** argv) {
  if (argc == 1) return "kelvo-demo-trace.json";
  if (argc == 3 && std::string(argv[1]) == "-o" && argv[2][0] != '\0') return argv[2];
  std::fprintf(stderr, "kelvo-demo: bad argument '%s'\nusage: %s [-o trace.json]\n",
               argc == 3 && std::string(argv[1]) == "-o" ? argv[2] : argv[1], argv[0]);
  std::exit(2);
}

}  // namespace

int main(int argc, char** argv) {
  const char* jsonPath = traceJsonPath(argc, argv);
  if (!mayUseSchedFifo()) {
    std::printf("kelvo-demo needs SCHED_FIFO: run it as root or grant CAP_SYS_NICE.\n");
    return 1;
  }
  // Real-time hygiene: no page faults in the loop, no deep idle states between periods (the
  // request holds while the process lives).
  mlockall(MCL_CURRENT | MCL_FUTURE);
  PeriodicThread::setLatencyTarget();
  const int cpu = lastAllowedCpu();
  std::printf("kelvo-demo: 1 kHz SCHED_FIFO thread (priority %d) on CPU %d for %d s\n\n", kPriority,
              cpu, kSeconds);

  PeriodicThread thread(kPeriodUs, "control", ScheduleMethod::Priority, cpu, kPriority);
  if (const int error = thread.getCreationError()) {  // addTask would wait for ever
    std::printf("kelvo-demo: cannot create the thread (CPU %d, priority %d): %s\n", cpu, kPriority,
                std::strerror(error));
    return 1;
  }
  // Create each task's coroutine and share stack here rather than in the first period: under
  // mlockall every 2 MiB stack is faulted in when it is mapped.
  thread.setPrepareTasksOnAdd(true);

  // Preallocated before the loop starts: the real-time path must not allocate.
  std::vector<uint64_t> latencyNs(kSeconds * 1000000 / kPeriodUs + 1000);
  std::atomic<size_t> samples{0};
  double gain = 0;
  double position = 0;

  thread.addTask(
      "init", [&] { gain = 0.5; }, 100, 500, /*runOnce=*/true);
  thread.addTask(
      "controller",
      [&] {
        const auto stats = thread.getWakeStatistics();
        const size_t n = samples.load(std::memory_order_relaxed);
        if (n < latencyNs.size()) {
          latencyNs[n] = static_cast<uint64_t>(std::max<int64_t>(stats.lastLatencyNs, 0));
          samples.store(n + 1, std::memory_order_relaxed);
        }
        position += gain * (1.0 - position);  // a toy proportional controller
      },
      50, 200);
  thread.addTask(
      "planner",
      [] {
        // A plan that takes three periods: each slice does some work, then yields.
        volatile double plan = 0;
        for (int slice = 0; slice < 3; ++slice) {
          for (int i = 0; i < 2000; ++i) plan = plan + i * 0.5;
          PeriodicThread::yield();  // continue in the next period
        }
      },
      10, 500);

  thread.setTraceEnabled(true);
  thread.start(/*limitUs=*/800);
  std::this_thread::sleep_for(std::chrono::seconds(kSeconds));
  // Both renderings of the trace are taken while the loop's ring is still live: once the
  // thread has ended, the first merge that reads its ring also frees it.
  thread.setTraceEnabled(false);
  thread.waitForNextCycle();  // the pass that was under way has recorded its last event
  const std::string trace = thread.getTrace();
  // Every task run in it is named after its task ("init", "controller", "planner").
  const int jsonWritten = mosk::kelvo::TimeTrace::writeTraceJson(jsonPath);
  // Stop and join before reading what the tasks wrote (latency samples, controller state):
  // pause() is only seen at the next period, so a pass may still be running after it returns.
  // The thread's time-trace ring outlives the thread, and the counters stay readable.
  thread.stop();  // always stop and join: the destructor does neither
  thread.join();

  std::printf("status:\n%s", thread.getStatus());
  std::printf("warnings:\n%s", thread.getWarning());
  const std::string error = thread.getErrorString();
  std::printf("last error: %s\n", error.empty() ? "(none)" : error.c_str());
  std::printf("tasks now:\n%s\n", thread.getTaskNames().c_str());

  const size_t count = samples.load();
  const mosk::kelvo::Statistics latency = mosk::kelvo::computeStatistics(latencyNs.data(), count);
  std::printf(
      "wake-up latency over %zu periods (us): min %.1f  p50 %.1f  p99 %.1f  p99.9 %.1f  "
      "max %.1f\n\n",
      count, latency.min / 1e3, latency.p50 / 1e3, latency.p99 / 1e3, latency.p999 / 1e3,
      latency.max / 1e3);
  std::vector<uint64_t> latencyUs(count);
  for (size_t i = 0; i < count; ++i) latencyUs[i] = latencyNs[i] / 1000;
  std::printf("wake-up latency histogram (us):\n");
  mosk::kelvo::printHistogram(latencyUs.data(), count, 0, 100, 10);

  std::printf("\ntime trace (first lines of %zu bytes):\n", trace.size());
  size_t end = 0;
  for (int line = 0; line < 16 && end != std::string::npos; ++line) end = trace.find('\n', end + 1);
  std::printf("%s\n...\n", trace.substr(0, end).c_str());
  std::printf("position reached: %.3f (gain set by the run-once initialiser: %.1f)\n", position,
              gain);
  if (jsonWritten != 0) return 1;
  std::printf("trace for a trace viewer written to %s (open it in ui.perfetto.dev)\n", jsonPath);
  return 0;
}
