// What the sources of the thread unit share: the periodic thread's private record, the
// thread-local state of cooperative tasks, and the few helpers more than one source calls.
// Private to the library; nothing here is exported.
//
// Threading rules: those of PeriodicThread (thread.h). The record's fields are atomics where the
// loop and callers share them; the rest belongs to one side, as marked.
#ifndef KELVO_SRC_PERIODIC_THREAD_PRIVATE_H_
#define KELVO_SRC_PERIODIC_THREAD_PRIVATE_H_

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "mosk/kelvo/aco.h"
#include "mosk/kelvo/thread.h"
#include "periodic_thread_parts.h"
#include "thread_error_mailbox.h"

namespace mosk {
namespace kelvo {
namespace internal {

#pragma GCC visibility push(hidden)

constexpr auto kRelaxed = std::memory_order_relaxed;

// True on a periodic thread's loop thread.
extern __thread bool is_aco;
// Set by yield1(), consumed by the loop after each resumption.
extern __thread bool eager_run;

// Creates a task's share stack and the coroutine that runs RealTimeTaskWrapper::execute_aco on
// it: on the loop thread at the task's first run, or on the caller's thread when tasks are
// prepared on add (thread_task.cpp).
void createCoroutine(RealTimeTaskWrapper& wrapper);

// A 1024-CPU set holding only `cpu`, or an empty one (which the kernel refuses) when `cpu` is
// outside 0..1023 (thread_platform.cpp).
cpu_set_t singleCpuSet(int cpu);

// Names `thread` after `name`. The kernel keeps 15 characters of a thread name; longer names
// are cut rather than refused (thread_platform.cpp).
void nameThread(pthread_t thread, const std::string& name);

#pragma GCC visibility pop

}  // namespace internal

// Hidden although nested in an exported class: its members are the loop's internals, not part of
// the library's interface.
struct __attribute__((visibility("hidden"))) PeriodicThread::PrivateData {
  PrivateData(unsigned int period, const char* threadName, ScheduleMethod method, int cpuIndex,
              int fifoPriority)
      : cpu(cpuIndex),
        priority(fifoPriority),
        name(threadName ? threadName : ""),
        registry(method),
        deadlines(period) {}

  ~PrivateData() {
    registry.releaseAll();  // task coroutines go before the main coroutine they refer to
    if (aco_coroutine* main = mainCo.load()) aco_destroy(main);
  }

  // Entry of the thread; `arg` is a heap-allocated std::shared_ptr<PrivateData>.
  static void* loop(void* arg);

  // --- loop side -----------------------------------------------------------------------------
  void run();
  bool runPasses();
  void runTask(RealTimeTaskWrapper& wrapper, int index, bool& allDone);
  void reportFrameOvershoot(uint64_t frameUs, uint64_t limitUs);
  void sleepToNextDeadline();
  void trace(const char* format, uint32_t arg0 = 0, uint32_t arg1 = 0, uint32_t arg2 = 0,
             uint32_t arg3 = 0);

  // --- caller side ---------------------------------------------------------------------------
  // Creates a new task's coroutine and share stack on the caller's thread, before the loop can
  // see the task.
  void prepare(RealTimeTaskWrapper& wrapper);

  const int cpu;
  const int priority;
  const std::string name;
  std::atomic<int> tid{0};
  std::atomic<uint64_t> executingSerial{0};
  std::atomic<bool> traceEnabled{false};
  std::atomic<bool> paused{true};
  std::atomic<bool> running{true};
  std::atomic<uint64_t> frameLimitUs{0};
  std::atomic<uint64_t> threadWarningTimes{0};
  std::atomic<uint64_t> taskWarningTimes{0};
  pthread_t thread{};
  bool threadCreated = false;
  int creationError = 0;  // pthread_create's result
  // Counts the tops of the loop's cycles: a caller that sees it move knows that the pass that
  // was running when it looked has ended.
  std::atomic<uint64_t> cyclesBegun{0};
  std::atomic<bool> loopEnded{false};
  std::atomic<bool> prepareOnAdd{false};
  uint64_t loopFpuControl = 0;  // the loop thread's FPU control words, written before mainCo
  std::atomic<bool> threadReleased{false};  // joined or detached

  internal::TaskRegistry registry;
  internal::WakeCounters counters;
  internal::DeadlineKeeper deadlines;
  std::atomic<aco_coroutine*> mainCo{nullptr};
  internal::ErrorMailbox errors;
};

}  // namespace kelvo
}  // namespace mosk

#endif  // KELVO_SRC_PERIODIC_THREAD_PRIVATE_H_
