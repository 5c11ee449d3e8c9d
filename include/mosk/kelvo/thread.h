// Real-time periodic threads: tasks, the periodic thread and its cycle loop, cooperative
// yielding, diagnostics, and thread and platform utilities.
//
// A PeriodicThread owns one SCHED_FIFO thread, optionally pinned to a CPU, that wakes on
// absolute CLOCK_MONOTONIC deadlines and runs its tasks once per period. Every task runs in a
// coroutine of its own on a share stack of its own, created on the task's first run, so a task
// may call PeriodicThread::yield() to continue in the next period, or yield1() to get another
// pass in the same period. Each run is timed with the TSC; runs that reach a task's expected
// maximum and passes that reach the thread's limit are counted and described in the thread's
// error text. Deadlines already past are skipped and counted as missed, never caught up.
//
//   PeriodicThread thread(1000, "control", ScheduleMethod::Priority, 1, 80);
//   thread.addTask("controller", [] { step(); }, 10, 200, false);
//   thread.start(800);
//   ...
//   thread.stop();
//   thread.join();   // always: the destructor neither stops nor joins
//
// Threading rules:
// - Control operations (start, pause, resume, stop, setPeriod, setTraceEnabled) are single
//   relaxed atomic writes that the loop samples at fixed points: stop() is seen at the top of
//   the next cycle (or while the loop waits in an eager pass), never between two tasks.
// - The task registry (addTask, deleteTask, cleanTask, tasksSize, getTaskNames) may be used
//   from any thread while the loop runs. Callers serialise among themselves on a mutex; the loop
//   never takes it: it runs on an immutable snapshot of the registry that it picks up, without
//   locking or allocating, at the top of each pass. Snapshots the loop drops are freed by the
//   next registry call, so task wrappers (and their share stacks) die on a caller's thread.
// - Diagnostics may be read from any thread; counters are relaxed atomics.
// - Only the loop thread runs tasks. yield(), yield1() and check_co() act on the calling
//   thread.
// - The loop sleeps with clock_nanosleep(TIMER_ABSTIME) and sleeps again to the same deadline
//   when a signal handler interrupts it (EINTR), so signals never add cycles nor push later
//   deadlines away; the wake-up that follows is measured against that deadline as usual.
// - deleteTask() and cleanTask() return while the current pass may still run the removed task.
//   Before freeing anything a removed task uses, call waitForNextCycle(): once it returns, the
//   loop has begun a new cycle and removed tasks never run again.
#ifndef MOSK_KELVO_THREAD_H_
#define MOSK_KELVO_THREAD_H_

#include <sched.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "mosk/kelvo/aco.h"
#include "mosk/kelvo/export.h"

namespace mosk {
namespace kelvo {

// Gives the calling thread SCHED_FIFO priority `prio`. 0 on success, -1 on failure (usually a
// missing CAP_SYS_NICE or RLIMIT_RTPRIO).
KELVO_EXPORT int setPriority(int prio);

// Names the calling thread (at most 15 characters are kept by the kernel). -1 if `name` is
// null or the kernel refuses, else 0.
KELVO_EXPORT int setThreadName(const char* name);

// The kernel thread id of the calling thread.
KELVO_EXPORT long gettid();

// Pins the calling thread to `core` (0 to 1023; any other value asks for an empty set, which
// the kernel refuses). 0 on success, -1 if the affinity could not be set, -2 if it could not be
// read back afterwards.
KELVO_EXPORT int pinThreadToCore(int core);

// Parses a CPU list such as "0-3,8,10-14:2" into `set` (`setsize` bytes, cleared first).
// Items are A, A-B or A-B:S with unsigned decimal numbers. Returns 0 on success; 1 on a
// syntax error (an empty item, A > B, a stride of 0, or text after the final number, such as a
// trailing newline or a stride without a range in the last item); 2 when `fail` is non-zero and
// a CPU does not fit in the set (bits set before that stay set). With `fail` 0, CPUs beyond the
// set are skipped silently. A null `str` clears the set and returns 0. A range whose next
// step would pass 2^32 - 1 ends there instead of wrapping around.
KELVO_EXPORT int cpulist_parse(const char* str, cpu_set_t* set, size_t setsize, int fail);

// Where addTask places a new task. It does not change the operating-system policy (always
// SCHED_FIFO). Any other value makes addTask drop tasks silently.
enum class ScheduleMethod : int32_t {
  Sequential = 0,  // append
  Priority = 1,    // descending priority; a newcomer goes after tasks of equal priority
};

// A task's view of its own bookkeeping, handed to RealTimeTask::init.
class KELVO_EXPORT RealTimeTaskApi {
 public:
  virtual ~RealTimeTaskApi();
  // Longest measured run in microseconds.
  virtual unsigned long getMaxRuntime() const = 0;
  // Always empty: reserved for task-level errors.
  virtual std::string getErrorString() const = 0;
};

// A unit of periodic work. Implement it directly, or pass a callable to addTask.
class KELVO_EXPORT RealTimeTask {
 public:
  virtual ~RealTimeTask();
  // Called once when the task is added to a thread, with the task's own bookkeeping. Keep it
  // as a std::weak_ptr: the bookkeeping owns the task, so a shared_ptr would be a cycle.
  virtual void init(std::shared_ptr<RealTimeTaskApi> api) = 0;
  virtual std::string getName() const = 0;
  // Larger runs earlier on a thread that orders by priority.
  virtual int getPriority() const = 0;
  // Run-time limit of one run in microseconds; a run that reaches it counts as an overshoot.
  virtual unsigned long getExpectedMaxRuntime() = 0;
  // One run of the task's work, on the periodic thread, inside the task's coroutine.
  virtual void execute() = 0;
};

// Adapts a plain callable to RealTimeTask. An empty callable is allowed and runs as a no-op.
class KELVO_EXPORT RealTimeTaskInternal : public RealTimeTask {
 public:
  RealTimeTaskInternal(const std::string& name, std::function<void()> body, int priority,
                       unsigned long expectedMaxRuntime);
  ~RealTimeTaskInternal() override;

  void init(std::shared_ptr<RealTimeTaskApi> api) override;
  std::string getName() const override;
  int getPriority() const override;
  unsigned long getExpectedMaxRuntime() override;
  void execute() override;

  std::string name;
  std::function<void()> body;
  int priority;
  unsigned long expectedMaxRuntime;  // microseconds
};

// The per-task record a PeriodicThread keeps for every added task: the task, its coroutine and
// share stack (created on the first run), its run state and its statistics. Statistics are
// written by the loop thread and may be read from any thread.
class KELVO_EXPORT RealTimeTaskWrapper : public RealTimeTaskApi {
 public:
  enum RunState : int32_t { kReady = 0, kRunning = 1, kDone = 2 };

  // Asks the task for getName() once, and keeps that name for the trace viewer under `serial`
  // (TraceTaskNames): the task's runs are named after it on the timeline.
  RealTimeTaskWrapper(std::shared_ptr<RealTimeTask> task, aco_coroutine* mainCo, bool runOnce);
  // Frees the task's coroutine and share stack. A task that was suspended in the middle of
  // execute() is discarded without unwinding its stack. Retires the task's trace name, which
  // stays while a time-trace ring still shows the task's runs.
  ~RealTimeTaskWrapper() override;
  RealTimeTaskWrapper(const RealTimeTaskWrapper&) = delete;
  RealTimeTaskWrapper& operator=(const RealTimeTaskWrapper&) = delete;

  unsigned long getMaxRuntime() const override;
  std::string getErrorString() const override;

  // The body of every task coroutine: runs execute() once per resumption (run-once tasks run
  // it once, flag themselves for removal and exit).
  static void execute_aco();

  const bool useCoroutine = true;
  std::atomic<int32_t> runState{kDone};
  const std::shared_ptr<RealTimeTask> task;
  std::atomic<uint64_t> totalRuntimeUs{0};  // starts at 0, so the first average is exact
  std::atomic<uint64_t> overshootCount{0};
  std::atomic<uint64_t> maxRuntimeUs{0};
  std::atomic<uint64_t> runCount{0};
  const std::string errorString;
  const bool runOnce;
  aco_coroutine* const mainCo;
  aco_share_stack* shareStack = nullptr;  // loop thread only
  aco_coroutine* co = nullptr;            // loop thread only
  std::atomic<bool> deleteFlag{false};
  // Set by the loop when it purges a flagged wrapper; registry calls then forget it.
  std::atomic<bool> purged{false};
  // Unique per process, never reused: names the task the loop ran last, and the task of every
  // run in the time trace.
  const uint64_t serial;
};

// A consistent-enough copy of a periodic thread's counters (each field is read atomically;
// the set is not taken at one instant). Intervals are in TSC cycles (see Cycles).
struct WakeStatistics {
  uint64_t wakeCount;           // wake-ups since the first one
  uint64_t minInterval;         // shortest interval between wake-ups (all ones before any)
  uint64_t maxInterval;         // longest interval between wake-ups
  uint64_t sumInterval;         // sum of the intervals
  uint64_t missed;              // deadlines skipped because a cycle ran past them
  uint64_t threadWarningTimes;  // passes that reached the per-pass limit
  double load;                  // elapsed part of the last period when the loop went to sleep
                                // (0 before the first cycle and for a period of 0)
  int64_t lastLatencyNs;        // how late the latest wake-up came after its deadline
  int64_t maxLatencyNs;         // the worst lateness of any wake-up so far
};

// One periodic real-time thread and its tasks. Not copyable, not movable.
class KELVO_EXPORT PeriodicThread {
 public:
  struct PrivateData;

  // Creates the thread at once, paused: SCHED_FIFO at `priority` (explicit scheduling, not
  // inherited), pinned to `cpu` unless it is -1, named after the first 15 characters of `name`
  // (the kernel's limit). `period` is in microseconds; a period of 0 runs cycles back to back.
  // The name is copied (a null name counts as empty). If the thread cannot be
  // created (usually: no permission for SCHED_FIFO, or a CPU outside 0..1023), the constructor
  // prints "pthread_create FAILED(<errno>): <text>" to standard output and the object stays
  // without a thread (and unnamed: there is nothing to name): addTask then waits forever, so
  // check getCreationError() right after construction.
  PeriodicThread(unsigned int period, const char* name, ScheduleMethod method, int cpu,
                 int priority);
  // Kept: releases the tasks but neither stops nor joins the thread: call stop() and join() first.
  // A thread left running keeps waking every period, with no tasks, until the process ends
  // (it is detached, and its state stays alive as long as it runs).
  ~PeriodicThread();
  PeriodicThread(const PeriodicThread&) = delete;
  PeriodicThread& operator=(const PeriodicThread&) = delete;

  // Runs tasks from the next period on. `limitUs` is the per-pass run-time limit (0: none).
  void start(unsigned long limitUs);
  // The thread keeps its period and wake-up statistics but runs no task.
  void pause();
  // Like start() but keeps the current per-pass limit (0 if start() was never called).
  void resume();
  // The loop ends at its next check; then join().
  void stop();
  // Waits for the thread to end. Does nothing if there is no thread or it was joined already.
  void join();
  // New period in microseconds, used from the next deadline on. Values below 1 are ignored.
  // Returns 0 either way.
  int setPeriod(int periodUs);
  // Puts the deadlines on a grid that threads of any process can share: the multiples of the
  // period on CLOCK_MONOTONIC plus `offsetUs` (taken modulo the period; negative values count
  // back from the next multiple). Two loops with the same period then keep a fixed phase, e.g.
  // a driver at offset 0 publishing and a controller at offset 300 reading 300 us later, instead
  // of phases set by when each constructor ran. Off by default. Takes effect at the next
  // deadline: the first deadline on the grid is the first grid point after the current one, so
  // that period is shortened, never lengthened (and counts nothing as missed). Any later
  // setPeriod() keeps the grid, with the new period.
  void setGridOffset(long offsetUs);
  // Back to deadlines one period apart from wherever the current one is.
  void clearGridOffset();
  // Kernel thread id of the loop thread (0 until the thread has started).
  int getTid() const;
  // 0 when the constructor created the thread, else pthread_create's error number (EPERM: no
  // privilege for SCHED_FIFO; EINVAL: a priority outside 1..99 or a CPU that does not exist).
  // Check it before addTask, which waits for ever on a thread that does not exist.
  int getCreationError() const;
  // Returns once the loop has begun a new cycle after this call: then the pass that may have
  // been running a task removed with deleteTask() or cleanTask() has ended, and removed tasks
  // never run again, so what they use may be freed. Returns at once when there is no thread or
  // its loop has ended, and when called from one of this thread's own tasks (the loop cannot
  // begin a new cycle while it waits). Polls every 0.2 ms: it waits for the rest of the
  // current pass and the sleep to the next deadline, about a period.
  void waitForNextCycle() const;
  // Off by default: each task's coroutine and 2 MiB share stack are created on the loop thread
  // at the task's first run (an mmap, an mprotect and two allocations, and under
  // mlockall(MCL_FUTURE) the whole stack is faulted in there and then). When enabled, addTask
  // creates them on the caller's thread before the loop can see the task, so a task's first
  // run costs what its later runs cost. Affects tasks added afterwards.
  void setPrepareTasksOnAdd(bool enabled);
  // The loop thread's CPU affinity (empty if there is no thread).
  cpu_set_t getCpuAffinity() const;
  // The task being run or run last; empty before the first run and once that task has left
  // the registry.
  std::shared_ptr<RealTimeTask> getExecuteTask() const;

  // Adds a task; waits (polling every 100 ms) until the loop thread has started. A null task is
  // refused at once: nothing is inserted and nothing waits. Sequential
  // threads append; priority threads insert before the first task of lower priority. The
  // task's init() is called after insertion. A run-once task is removed after its first
  // complete run. Registry calls ask tasks for getName() and getPriority() while holding the
  // registry's mutex: those getters must not call back into the registry.
  void addTask(std::shared_ptr<RealTimeTask> task, bool runOnce = false);
  // Wraps `fn` in a RealTimeTaskInternal, adds it and returns it. `expectedMaxRuntime` is in
  // microseconds (0 flags every run as an overshoot).
  std::shared_ptr<RealTimeTask> addTask(const std::string& name, const std::function<void()>& fn,
                                        int priority, unsigned long expectedMaxRuntime,
                                        bool runOnce = false);
  std::shared_ptr<RealTimeTask> addTask(const std::string& name, std::function<void()>&& fn,
                                        int priority, unsigned long expectedMaxRuntime,
                                        bool runOnce = false);
  // Number of tasks, counting those flagged for removal until the loop has purged them.
  size_t tasksSize() const;
  // "Task names: \n" followed by "Task <index>: <name>\n" for each task in order.
  std::string getTaskNames() const;
  // Flags the first task named `name` for removal at the loop's next pass: 1, or -1 if none.
  int deleteTask(const std::string& name);
  // Removes every task at once.
  void cleanTask();

  // Wake-up statistics, appended to a process-wide 200-byte buffer that is never cleared:
  // "avg: <us>\nmin: <us>\nmax: <us>\nmissed: <n>\n". Each call appends four more lines,
  // and the process is terminated (like a fortified sprintf) once the text would not fit:
  // read it a few times per process, not in a loop. The average is 0 before two wake-ups.
  const char* getStatus() const;
  // "taskwaringtimes: 0\nthreadwarningtimes: <n>\n", appended to its own 200-byte buffer
  // in the same way.
  const char* getWarning() const;
  // The thread's counters as numbers (an addition to getStatus()/getWarning(), which format
  // them into accumulating text).
  WakeStatistics getWakeStatistics() const;
  // The latest overshoot message, once: the read clears it. Empty if there is none. Never waits
  // for the loop (a reader at a higher priority on the loop's CPU cannot stall it): it makes a
  // few attempts and returns empty if the loop completed two newer messages during each; the
  // next call then reads the newest.
  std::string getErrorString();
  // Records "Task FRAME ..." and "Task[i] ..." events into the thread's time-trace ring. Each
  // "Task[i]" event also carries the running task's serial in two arguments its text does not
  // print, so that TimeTrace::getTraceJson() names the run after its task.
  void setTraceEnabled(bool enabled);
  // The merged time trace of every ring in the process (TimeTrace::getTrace()).
  std::string getTrace() const;
  // Appends the task list to `path`, then prints the merged time trace there.
  void printTrace(const char* path) const;

  // On a periodic thread's task: suspends the task until the next period. Elsewhere:
  // sched_yield().
  static void yield();
  // On a periodic thread's task: gives the task another pass in this period. Elsewhere:
  // sched_yield().
  static void yield1();
  // True on a periodic thread's loop thread.
  static bool check_co();

  // True only when the kernel's version text contains "PREEMPT RT" (any case) and
  // /sys/kernel/realtime reads 1. Note that current PREEMPT_RT kernels spell the version tag
  // with an underscore, which this test does not accept; kelvo-check reports both facts.
  static bool detectPreemptRt();

  // Asks the kernel to keep CPU wake-up latency at zero by writing a zero to
  // /dev/cpu_dma_latency. The request lasts only while that descriptor stays open.
  // Kept: the descriptor is left open (and never handed out) whenever the write went through,
  // and the function then returns -1 (the kernel reports the 4 written bytes, not 0).
  // Returns -1 if the device is missing or cannot be opened; 0 (descriptor closed) only if the
  // write reported 0 bytes.
  static int setLatencyTarget();

  // Closes a descriptor: close(fd)'s result.
  static int closeLatencyTarget(int fd);

  // Reserved for system-wide real-time preparation; does nothing.
  static void rt_system_init();

 private:
  std::shared_ptr<PrivateData> d_;
};

}  // namespace kelvo
}  // namespace mosk

#endif  // MOSK_KELVO_THREAD_H_
