// The first pass of a periodic thread, with each task's coroutine and 2 MiB share stack created
// lazily on the loop at the task's first run (the default) against created in addTask
// (setPrepareTasksOnAdd(true)), under mlockall(MCL_CURRENT | MCL_FUTURE), where every new
// share stack is faulted in as soon as it is mapped.
//
//   kelvo_first_pass [ROUNDS]        (default 10 rounds of each kind, 1 to 100)
//
// Each round starts a fresh 1 kHz SCHED_FIFO thread (priority 80, on the last CPU) with three
// empty tasks, lets it run 50 periods, stops and joins it. Rounds of the two kinds alternate,
// so both see the same machine. Prints, for each kind, the median and the worst first pass,
// the median of the later passes, the median cost of the three addTask calls and the median
// number of deadlines the loop missed per round, then the ratio of the first passes.
//
// How a pass is timed: with setTraceEnabled(true) the loop records "Task FRAME ... started"
// when a pass begins and "Task[i] <<<<<<<< end" after each task's run, with TSC timestamps,
// into the loop thread's trace ring. A pass lasts from its FRAME event to the last end event
// before the next FRAME event, which covers everything the first pass does (a lazy coroutine
// is created after the task's start event). After the thread is joined, getTrace() merges and
// prints its ring (at 0.1 us resolution) and frees it, so each round reads only its own
// thread's events. The other sources do not fit: the wake statistics' load holds only the
// latest period, and a timestamp taken inside the first task comes after that task's coroutine
// was created, the very cost being measured. The wake statistics' missed count is reported as
// a cross-check against the 1 ms period (its median per round, as a busy machine adds an
// occasional late wake-up to any round).
//
// Needs root (or CAP_SYS_NICE and CAP_IPC_LOCK): exits 1 with a message where mlockall or the
// SCHED_FIFO thread is refused, and 2 on a bad argument.
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "mosk/kelvo/cycles.h"
#include "mosk/kelvo/thread.h"

namespace {

using mosk::kelvo::Cycles;
using mosk::kelvo::PeriodicThread;

constexpr unsigned kPeriodUs = 1000;
constexpr int kTasks = 3;
constexpr uint64_t kPassesPerRound = 50;
constexpr int kPriority = 80;

struct RoundResult {
  double firstPassUs = 0;
  std::vector<double> laterPassesUs;
  double addTasksUs = 0;
  uint64_t missed = 0;
};

// Pass durations in microseconds, in order, from a trace of one periodic thread.
std::vector<double> passDurations(const std::string& trace) {
  std::vector<double> passes;
  std::istringstream lines(trace);
  std::string line;
  bool inPass = false;
  double passStart = 0, lastEnd = 0;
  while (std::getline(lines, line)) {
    double us = 0, delta = 0;
    int textAt = 0;
    if (std::sscanf(line.c_str(), "%lf us (+%lf us): %n", &us, &delta, &textAt) < 2 || textAt == 0)
      continue;  // header or empty line
    const char* text = line.c_str() + textAt;
    if (std::strncmp(text, "Task FRAME", 10) == 0) {
      if (inPass) passes.push_back(lastEnd - passStart);
      inPass = true;
      passStart = lastEnd = us;
    } else if (inPass && std::strstr(text, "<<<<<<<< end") != nullptr) {
      lastEnd = us;
    }
  }
  // The last pass may have been cut short by stop(): it is not counted.
  return passes;
}

double median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const size_t mid = values.size() / 2;
  return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

// Waits until the loop has woken `count` times in all; false after a generous time-out.
bool waitForWakeUps(const PeriodicThread& thread, uint64_t count) {
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (thread.getWakeStatistics().wakeCount < count) {
    if (std::chrono::steady_clock::now() > giveUp) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// One round on a fresh thread. Exits the process with a message where the thread cannot be
// created or does not run; every thread it starts is stopped and joined before it returns.
RoundResult runRound(bool prepared, int cpu) {
  PeriodicThread thread(kPeriodUs, "first-pass", mosk::kelvo::ScheduleMethod::Sequential, cpu,
                        kPriority);
  if (const int error = thread.getCreationError()) {  // addTask would wait for ever
    std::fprintf(stderr,
                 "kelvo_first_pass: cannot create a SCHED_FIFO thread (priority %d, CPU %d): %s; "
                 "run as root\n",
                 kPriority, cpu, std::strerror(error));
    std::exit(1);
  }
  // The paused loop wakes every period: after its first wake-up addTask no longer waits for it
  // to start, so the timing below is the calls' own cost.
  if (!waitForWakeUps(thread, 1)) {
    thread.stop();
    thread.join();
    std::fprintf(stderr, "kelvo_first_pass: the periodic thread did not wake within 10 s\n");
    std::exit(1);
  }
  thread.setPrepareTasksOnAdd(prepared);
  RoundResult result;
  const uint64_t addBegin = Cycles::rdtsc();
  for (int i = 0; i < kTasks; ++i)
    thread.addTask(
        "empty" + std::to_string(i), [] {}, 0, 1000000);
  result.addTasksUs = Cycles::toSeconds(Cycles::rdtsc() - addBegin) * 1e6;
  thread.setTraceEnabled(true);
  const mosk::kelvo::WakeStatistics before = thread.getWakeStatistics();
  thread.start(0);
  const bool ran = waitForWakeUps(thread, before.wakeCount + kPassesPerRound);
  thread.stop();
  thread.join();
  if (!ran) {
    std::fprintf(stderr, "kelvo_first_pass: the periodic thread stalled (no %lu periods in 10 s)\n",
                 static_cast<unsigned long>(kPassesPerRound));
    std::exit(1);
  }
  result.missed = thread.getWakeStatistics().missed - before.missed;
  const std::vector<double> passes = passDurations(thread.getTrace());
  if (passes.size() < 2) {
    std::fprintf(stderr, "kelvo_first_pass: the trace holds %zu complete passes, expected more\n",
                 passes.size());
    std::exit(1);
  }
  result.firstPassUs = passes.front();
  result.laterPassesUs.assign(passes.begin() + 1, passes.end());
  return result;
}

struct Summary {
  std::vector<double> firstPassUs, laterPassesUs, addTasksUs, missed;

  void add(const RoundResult& round) {
    firstPassUs.push_back(round.firstPassUs);
    laterPassesUs.insert(laterPassesUs.end(), round.laterPassesUs.begin(),
                         round.laterPassesUs.end());
    addTasksUs.push_back(round.addTasksUs);
    missed.push_back(static_cast<double>(round.missed));
  }

  void print(const char* kind) const {
    std::printf("%-9s %12.1f %10.1f %15.1f %16.1f %16.1f\n", kind, median(firstPassUs),
                *std::max_element(firstPassUs.begin(), firstPassUs.end()), median(laterPassesUs),
                median(addTasksUs), median(missed));
  }
};

}  // namespace

int main(int argc, char** argv) {
  long rounds = 10;
  if (argc > 2 || (argc == 2 && ((rounds = std::strtol(argv[1], nullptr, 10)) < 1 || rounds > 100 ||
                                 std::strspn(argv[1], "0123456789") != std::strlen(argv[1])))) {
    std::fprintf(stderr, "kelvo_first_pass: bad argument '%s' (expected ROUNDS, 1 to 100)\n",
                 argv[argc > 2 ? 2 : 1]);
    return 2;
  }
  if (mlockall(MCL_CURRENT | MCL_FUTURE) != 0) {
    std::fprintf(stderr,
                 "kelvo_first_pass: mlockall(MCL_CURRENT | MCL_FUTURE) failed: %s; "
                 "run as root\n",
                 std::strerror(errno));
    return 1;
  }
  const int cpu = static_cast<int>(std::thread::hardware_concurrency()) - 1;
  Summary lazy, prepared;
  for (long i = 0; i < rounds; ++i) {
    lazy.add(runRound(false, cpu));
    prepared.add(runRound(true, cpu));
  }
  std::printf(
      "1 kHz SCHED_FIFO thread, %d empty tasks, mlockall, %ld fresh threads of each kind, %lu "
      "periods each\n(times in us: medians, and the worst first pass)\n",
      kTasks, rounds, static_cast<unsigned long>(kPassesPerRound));
  std::printf("%-9s %12s %10s %15s %16s %16s\n", "tasks", "first pass", "worst", "later passes",
              "3 addTask calls", "missed / round");
  lazy.print("lazy");
  prepared.print("prepared");
  const double ratio = median(lazy.firstPassUs) / median(prepared.firstPassUs);
  std::printf("first pass, lazy / prepared: %.1fx; prepared first / later passes: %.2fx\n", ratio,
              median(prepared.firstPassUs) / median(prepared.laterPassesUs));
  return 0;
}
