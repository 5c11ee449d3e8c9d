// The parts a periodic thread is made of, each with one job: the task registry and its snapshot
// exchange with the loop, the wake-up counters, and the keeping of deadlines. Private to the
// library (and to the tests that check the parts on their own); everything is inline so that the
// loop's dispatch compiles exactly as if it were written in one place.
#ifndef KELVO_SRC_PERIODIC_THREAD_PARTS_H_
#define KELVO_SRC_PERIODIC_THREAD_PARTS_H_

#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <iterator>
#include <memory>
#include <mutex>
#include <vector>

#include "mosk/kelvo/cycles.h"
#include "mosk/kelvo/thread.h"

namespace mosk {
namespace kelvo {
namespace internal {

using WrapperPtr = std::shared_ptr<RealTimeTaskWrapper>;

// Single-writer counters: the loop thread is the only writer, so a load and a store do the job
// of a locked read-modify-write.
inline void addRelaxed(std::atomic<uint64_t>& counter, uint64_t amount) {
  counter.store(counter.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
}

// The tasks of one periodic thread. Callers change the list under `mutex`; the loop never takes
// it: it runs on an immutable snapshot that callers publish and the loop picks up without
// locking or allocating. Snapshots the loop drops are handed back and freed by the next caller,
// so task wrappers (and their share stacks) die on a caller's thread, and after that caller has
// let go of `mutex` (see Released).
class TaskRegistry {
 public:
  // An immutable copy of the list, handed to the loop thread.
  struct Snapshot {
    std::vector<WrapperPtr> tasks;
    Snapshot* nextRetired = nullptr;
  };

  // What a caller's maintenance took out of the registry, freed when this goes out of scope.
  // Declared before the lock, it frees after the lock is dropped: a dying wrapper runs its task's
  // destructor and may prune the timeline's task names (reading every trace ring), and neither
  // belongs under `mutex`, which getExecuteTask() takes from inside a running task.
  class Released {
   public:
    Released() = default;
    ~Released() {
      while (snapshots_ != nullptr) {
        Snapshot* next = snapshots_->nextRetired;
        delete snapshots_;
        snapshots_ = next;
      }
    }
    Released(const Released&) = delete;
    Released& operator=(const Released&) = delete;

   private:
    friend class TaskRegistry;
    Snapshot* snapshots_ = nullptr;
    std::vector<WrapperPtr> wrappers_;
  };

  explicit TaskRegistry(ScheduleMethod method) : scheduleMethod_(method) {}
  ~TaskRegistry() {
    releaseAll();
    delete loopSnapshot_;
  }
  TaskRegistry(const TaskRegistry&) = delete;
  TaskRegistry& operator=(const TaskRegistry&) = delete;

  // Drops every task and snapshot, once the loop has ended (the owner calls it to control when
  // task wrappers die).
  void releaseAll() {
    Released released;
    collectRetiredLocked(&released);
    delete pending_.exchange(nullptr);
    loopSnapshot_->tasks.clear();
    tasks.clear();
  }

  // --- loop side ----------------------------------------------------------------------------

  // The snapshot the loop runs on; never null.
  const std::vector<WrapperPtr>& loopTasks() const { return loopSnapshot_->tasks; }

  // Takes the latest published snapshot, if any, and hands the old one back for freeing.
  void pickUpSnapshot() {
    Snapshot* fresh = pending_.exchange(nullptr, std::memory_order_acquire);
    if (fresh == nullptr) return;
    Snapshot* old = loopSnapshot_;
    old->nextRetired = retired_.load(std::memory_order_relaxed);
    while (!retired_.compare_exchange_weak(old->nextRetired, old, std::memory_order_release,
                                           std::memory_order_relaxed)) {
    }
    loopSnapshot_ = fresh;
  }

  // Marks flagged tasks as purged: the loop skips them, and callers forget them.
  void purgeFlaggedTasks() {
    for (const WrapperPtr& wrapper : loopSnapshot_->tasks) {
      if (wrapper->deleteFlag.load(std::memory_order_relaxed)) {
        wrapper->purged.store(true, std::memory_order_relaxed);
      }
    }
  }

  void makeEveryTaskReady() {
    for (const WrapperPtr& wrapper : loopSnapshot_->tasks) {
      wrapper->runState.store(RealTimeTaskWrapper::kReady, std::memory_order_relaxed);
    }
  }

  // --- caller side: `mutex` held ------------------------------------------------------------

  // Hands snapshots the loop has dropped and wrappers the loop has purged to `released`.
  void maintainLocked(Released* released) {
    collectRetiredLocked(released);
    const auto purged = std::stable_partition(tasks.begin(), tasks.end(), [](const WrapperPtr& w) {
      return !w->purged.load(std::memory_order_relaxed);
    });
    if (purged == tasks.end()) return;
    std::move(purged, tasks.end(), std::back_inserter(released->wrappers_));
    tasks.erase(purged, tasks.end());
    publishLocked();
  }

  // Hands the snapshots the loop has dropped to `released`.
  void collectRetiredLocked(Released* released) {
    Snapshot* retired = retired_.exchange(nullptr, std::memory_order_acquire);
    while (retired != nullptr) {
      Snapshot* next = retired->nextRetired;
      retired->nextRetired = released->snapshots_;
      released->snapshots_ = retired;
      retired = next;
    }
  }

  // Hands the loop a copy of `tasks`; a copy it has not picked up yet is replaced.
  void publishLocked() {
    auto* fresh = new Snapshot{tasks, nullptr};
    delete pending_.exchange(fresh, std::memory_order_acq_rel);
  }

  // Places a new task by the schedule method; false (the task is dropped) for an unknown one.
  bool insertLocked(const WrapperPtr& wrapper) {
    switch (scheduleMethod_) {
      case ScheduleMethod::Sequential:
        tasks.push_back(wrapper);
        return true;
      case ScheduleMethod::Priority: {
        const int priority = wrapper->task->getPriority();
        const auto position = std::find_if(tasks.begin(), tasks.end(), [&](const WrapperPtr& w) {
          return !w->purged.load(std::memory_order_relaxed) && w->task->getPriority() < priority;
        });
        tasks.insert(position, wrapper);
        return true;
      }
    }
    return false;  // Kept: an unknown method drops every task silently; it never runs.
  }

  mutable std::mutex mutex;
  std::vector<WrapperPtr> tasks;  // guarded by `mutex`

 private:
  const ScheduleMethod scheduleMethod_;
  std::atomic<Snapshot*> pending_{nullptr};  // caller -> loop
  std::atomic<Snapshot*> retired_{nullptr};  // loop -> caller
  Snapshot* loopSnapshot_ = new Snapshot();  // loop thread; never null
};

// The wake-up counters of a periodic thread: written by the loop only, readable from any
// thread. Intervals are TSC cycles.
struct WakeCounters {
  // Counts a wake-up; the first one only starts the interval measurement.
  void recordWakeUp() {
    const uint64_t now = Cycles::rdtsc();
    if (!started.load(std::memory_order_relaxed)) {
      started.store(true, std::memory_order_relaxed);
      lastWakeTsc = now;
      return;
    }
    addRelaxed(wakeCount, 1);
    const uint64_t interval = now - lastWakeTsc;
    lastWakeTsc = now;
    // Kept: a sample that raises the maximum is not compared with the minimum, so the first
    // sample never sets the minimum.
    if (interval > maxInterval.load(std::memory_order_relaxed)) {
      maxInterval.store(interval, std::memory_order_relaxed);
    } else if (interval < minInterval.load(std::memory_order_relaxed)) {
      minInterval.store(interval, std::memory_order_relaxed);
    }
    addRelaxed(sumInterval, interval);
  }

  // Deadlines skipped before the first wake-up are not counted.
  void addMissed(uint64_t skipped) {
    if (skipped != 0 && started.load(std::memory_order_relaxed)) addRelaxed(missed, skipped);
  }

  void recordLatency(int64_t latencyNs) {
    lastLatencyNs.store(latencyNs, std::memory_order_relaxed);
    if (started.load(std::memory_order_relaxed) &&
        latencyNs > maxLatencyNs.load(std::memory_order_relaxed)) {
      maxLatencyNs.store(latencyNs, std::memory_order_relaxed);
    }
  }

  std::atomic<bool> started{false};
  uint64_t lastWakeTsc = 0;  // loop thread
  std::atomic<uint64_t> wakeCount{0};
  std::atomic<uint64_t> minInterval{UINT64_MAX};
  std::atomic<uint64_t> maxInterval{0};
  std::atomic<uint64_t> sumInterval{0};
  std::atomic<uint64_t> missed{0};
  std::atomic<int64_t> lastLatencyNs{0};
  std::atomic<int64_t> maxLatencyNs{0};
};

// The absolute deadlines of a periodic thread on CLOCK_MONOTONIC, and the load of each period.
class DeadlineKeeper {
 public:
  explicit DeadlineKeeper(uint32_t periodMicros) : periodUs(periodMicros) {
    clock_gettime(kClock, &nextWakeup_);
  }

  // Measures the load of the period just ended and moves the deadline one period on, past any
  // deadline already gone (skipped, never caught up). Returns the number skipped.
  uint64_t advance() {
    timespec now;
    clock_gettime(kClock, &now);
    return advanceFrom(now);
  }

  // advance() as if the clock read `now`.
  uint64_t advanceFrom(const timespec& now) {
    // The elapsed part of the period just ended.
    // Kept: a negative value (an early wake-up) turns into a huge load, as readers of this field
    // have always seen it.
    const int32_t seconds =
        static_cast<int32_t>(static_cast<uint32_t>(now.tv_sec - nextWakeup_.tv_sec));
    const int32_t nanos =
        static_cast<int32_t>(static_cast<uint32_t>(now.tv_nsec - nextWakeup_.tv_nsec));
    const int64_t elapsedUs = static_cast<int64_t>(seconds) * 1000000 + nanos / 1000;
    const uint32_t us = periodUs.load(std::memory_order_relaxed);
    load.store(us == 0 ? 0.0 : static_cast<double>(static_cast<uint64_t>(elapsedUs)) / us,
               std::memory_order_relaxed);

    const timespec period = toTimespec(us);
    if (us != 0 && onGrid.load(std::memory_order_acquire)) {
      nextWakeup_ = gridPointAfter(nextWakeup_, us, gridOffsetUs.load(std::memory_order_relaxed));
    } else {
      add(nextWakeup_, period);
    }
    uint64_t skipped = 0;
    while (isLater(now, nextWakeup_)) {
      if (us == 0) {  // a zero period runs cycles back to back
        nextWakeup_ = now;
        break;
      }
      ++skipped;
      add(nextWakeup_, period);  // a grid point plus periods stays on the grid
    }
    return skipped;
  }

  // The first point strictly after `deadline` of the grid made of the multiples of the period
  // on CLOCK_MONOTONIC plus the offset (taken modulo the period, so any offset works). From a
  // point on the grid it is one period on, as without the grid; from elsewhere it is less.
  static timespec gridPointAfter(const timespec& deadline, uint32_t periodUs, int64_t offsetUs) {
    const int64_t periodNs = int64_t{periodUs} * 1000;
    const int64_t offsetNs = ((offsetUs % periodUs + periodUs) % periodUs) * 1000;
    const int64_t deadlineNs = int64_t{deadline.tv_sec} * 1000000000 + deadline.tv_nsec;
    const int64_t pointNs = ((deadlineNs - offsetNs) / periodNs + 1) * periodNs + offsetNs;
    return timespec{static_cast<time_t>(pointNs / 1000000000),
                    static_cast<long>(pointNs % 1000000000)};
  }

  // The deadline the loop sleeps to next (loop thread, or a test).
  const timespec& nextWakeup() const { return nextWakeup_; }

  // Sleeps until the deadline and returns how late the wake-up came, in nanoseconds. A signal
  // handler interrupts the sleep; sleeping again to the same deadline keeps one cycle per
  // period however many signals arrive. The lateness is read through the vDSO (no system call).
  int64_t sleepUntilDeadline() {
    while (clock_nanosleep(kClock, TIMER_ABSTIME, &nextWakeup_, nullptr) == EINTR) {
    }
    timespec woke;
    clock_gettime(kClock, &woke);
    return (static_cast<int64_t>(woke.tv_sec) - nextWakeup_.tv_sec) * 1000000000 +
           (woke.tv_nsec - nextWakeup_.tv_nsec);
  }

  std::atomic<uint32_t> periodUs;
  std::atomic<double> load{0};  // elapsed part of the last period when the loop went to sleep
  // Deadlines on a grid shared with other threads and processes (see gridPointAfter()).
  std::atomic<bool> onGrid{false};
  std::atomic<int64_t> gridOffsetUs{0};

 private:
  static constexpr clockid_t kClock = CLOCK_MONOTONIC;

  static timespec toTimespec(uint32_t periodUs) {
    timespec period;
    period.tv_sec = periodUs / 1000000;
    period.tv_nsec = static_cast<long>((periodUs % 1000000) * 1000);
    return period;
  }

  static void add(timespec& deadline, const timespec& period) {
    deadline.tv_sec += period.tv_sec;
    deadline.tv_nsec += period.tv_nsec;
    while (deadline.tv_nsec > 999999999) {
      deadline.tv_nsec -= 1000000000;
      deadline.tv_sec += 1;
    }
  }

  static bool isLater(const timespec& a, const timespec& b) {
    return a.tv_sec > b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec > b.tv_nsec);
  }

  timespec nextWakeup_{};  // loop thread (set before it starts)
};

}  // namespace internal
}  // namespace kelvo
}  // namespace mosk

#endif  // KELVO_SRC_PERIODIC_THREAD_PARTS_H_
