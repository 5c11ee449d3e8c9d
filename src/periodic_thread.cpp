// The periodic thread: construction, control and the task registry's calls on the callers'
// side, and the cycle loop that runs on the thread itself.
#include <pthread.h>
#include <sched.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "mosk/kelvo/cycles.h"
#include "mosk/kelvo/thread.h"
#include "mosk/kelvo/time_trace.h"
#include "mosk/kelvo/trace_task_names.h"
#include "periodic_thread_private.h"
#include "periodic_thread_trace.h"

namespace mosk {
namespace kelvo {

namespace {

using internal::addRelaxed;
using internal::createCoroutine;
using internal::eager_run;
using internal::is_aco;
using internal::kErrorTextSize;
using internal::kRelaxed;
using internal::nameThread;
using internal::singleCpuSet;
using internal::WrapperPtr;

}  // namespace

// ---------------------------------------------------------------------------------------------
// Cycle loop (runs on the periodic thread)
// ---------------------------------------------------------------------------------------------

void* PeriodicThread::PrivateData::loop(void* arg) {
  auto* handle = static_cast<std::shared_ptr<PrivateData>*>(arg);
  const std::shared_ptr<PrivateData> self = std::move(*handle);
  delete handle;
  self->run();
  return nullptr;
}

void PeriodicThread::PrivateData::run() {
  aco_thread_init(nullptr);
  is_aco = true;
  tid.store(static_cast<int>(gettid()), kRelaxed);
  aco_save_fpucw_mxcsr(&loopFpuControl);  // published with mainCo, which addTask waits for
  mainCo.store(aco_create(nullptr, nullptr, 0, nullptr, nullptr), std::memory_order_release);
  // The constructor names the thread too, but perhaps only after this point: the trace ring
  // takes the thread's name when it is created, so the loop names itself first.
  nameThread(pthread_self(), name);
  TimeTrace::createThreadBuffer();
  while (running.load(kRelaxed)) {
    cyclesBegun.store(cyclesBegun.load(kRelaxed) + 1, std::memory_order_release);
    if (!paused.load(kRelaxed) && !runPasses()) break;
    sleepToNextDeadline();
    counters.recordWakeUp();
    registry.pickUpSnapshot();
    registry.makeEveryTaskReady();
  }
  // The main coroutine stays alive: wrappers still refer to it. It is freed with this record.
  TimeTrace::deleteThreadBuffer();
  loopEnded.store(true, std::memory_order_release);
}

// Starts loading what the next task's run touches (its coroutine, share stack, saved stack
// top and task object) while the current task runs: with many tasks spread over the heap,
// these cache misses, not the switch, dominate a pass.
namespace {
void prefetchTask(const RealTimeTaskWrapper& wrapper) {
  __builtin_prefetch(wrapper.task.get());
  if (const aco_coroutine* co = wrapper.co) {
    __builtin_prefetch(co);
    __builtin_prefetch(co->share_stack);
    __builtin_prefetch(co->saved_regs[5]);
  }
}
}  // namespace

// Runs one period's passes. Returns false if the thread was stopped during an eager pass.
bool PeriodicThread::PrivateData::runPasses() {
  for (;;) {
    registry.pickUpSnapshot();
    registry.purgeFlaggedTasks();
    const uint64_t passStart = Cycles::rdtsc();
    bool allDone = true;
    const std::vector<WrapperPtr>& tasks = registry.loopTasks();
    if (traceEnabled.load(kRelaxed)) {
      const auto live = std::count_if(tasks.begin(), tasks.end(), [](const WrapperPtr& w) {
        return !w->purged.load(kRelaxed);
      });
      trace(internal::kPassStartFormat, static_cast<uint32_t>(live));
    }
    int index = 0;
    for (size_t i = 0; i < tasks.size(); ++i) {
      if (i + 1 < tasks.size()) prefetchTask(*tasks[i + 1]);
      RealTimeTaskWrapper& wrapper = *tasks[i];
      if (wrapper.purged.load(kRelaxed)) continue;
      const int position = index++;
      if (wrapper.runState.load(kRelaxed) != RealTimeTaskWrapper::kReady) continue;
      runTask(wrapper, position, allDone);
    }
    const uint64_t frameUs = Cycles::toMicroseconds(Cycles::rdtsc() - passStart);
    const uint64_t limitUs = frameLimitUs.load(kRelaxed);
    if (limitUs != 0 && frameUs >= limitUs) {
      reportFrameOvershoot(frameUs, limitUs);
      return true;
    }
    if (allDone) return true;
    // Some task asked for another pass in this period (yield1).
    sched_yield();
    if (!running.load(kRelaxed)) return false;
    while (paused.load(kRelaxed)) {
      sched_yield();
      if (!running.load(kRelaxed)) return false;
    }
  }
}

void PeriodicThread::PrivateData::runTask(RealTimeTaskWrapper& wrapper, int index, bool& allDone) {
  RealTimeTask& task = *wrapper.task;
  executingSerial.store(wrapper.serial, kRelaxed);
  {
    // Kept: the task is asked for its name before every run, and the copy is dropped. Tasks may
    // count on the call (and its cost is part of every run's measured time).
    const std::string nameCopy = task.getName();
    (void)nameCopy;
  }
  // The task's serial rides in the two arguments the formats do not print, so that the trace
  // viewer can name the run after the task whatever its position.
  const uint32_t idLow = TraceTaskNames::lowWord(wrapper.serial);
  const uint32_t idHigh = TraceTaskNames::highWord(wrapper.serial);
  const uint64_t t0 = Cycles::rdtsc();
  trace(internal::kTaskStartFormat, static_cast<uint32_t>(index), 0, idLow, idHigh);
  wrapper.runState.store(RealTimeTaskWrapper::kRunning, kRelaxed);
  if (wrapper.co == nullptr) createCoroutine(wrapper);
  aco_resume(wrapper.co);
  if (eager_run) {
    eager_run = false;
    wrapper.runState.store(RealTimeTaskWrapper::kReady, kRelaxed);
  } else {
    wrapper.runState.store(RealTimeTaskWrapper::kDone, kRelaxed);
  }
  const uint64_t runs = wrapper.runCount.load(kRelaxed);
  trace(internal::kTaskEndFormat, static_cast<uint32_t>(index), static_cast<uint32_t>(runs), idLow,
        idHigh);
  wrapper.runCount.store(runs + 1, kRelaxed);
  const uint64_t us = Cycles::toMicroseconds(Cycles::rdtsc() - t0, 0);
  addRelaxed(wrapper.totalRuntimeUs, us);
  if (us > wrapper.maxRuntimeUs.load(kRelaxed)) wrapper.maxRuntimeUs.store(us, kRelaxed);

  const unsigned long limit = task.getExpectedMaxRuntime();
  if (us >= limit) {
    addRelaxed(wrapper.overshootCount, 1);
    const uint64_t average = wrapper.totalRuntimeUs.load(kRelaxed) / (runs + 1);
    char text[kErrorTextSize];
    std::snprintf(text, sizeof(text),
                  "Task %s:%s overshoot: %ldus(limit: %ldus, avg: %ldus) cnt: %ld", name.c_str(),
                  task.getName().c_str(), static_cast<long>(us),
                  static_cast<long>(task.getExpectedMaxRuntime()), static_cast<long>(average),
                  static_cast<long>(wrapper.overshootCount.load(kRelaxed)));
    errors.publish(text);
    // An overshooting task gets no further pass in this period, even after yield1().
    wrapper.runState.store(RealTimeTaskWrapper::kDone, kRelaxed);
  } else if (wrapper.runState.load(kRelaxed) == RealTimeTaskWrapper::kReady) {
    allDone = false;
  }
}

void PeriodicThread::PrivateData::reportFrameOvershoot(uint64_t frameUs, uint64_t limitUs) {
  addRelaxed(threadWarningTimes, 1);
  char text[kErrorTextSize];
  std::snprintf(text, sizeof(text), "Task %s overshoot: %ldus(limit: %ldus) cnt: %ld", name.c_str(),
                static_cast<long>(frameUs), static_cast<long>(limitUs),
                static_cast<long>(threadWarningTimes.load(kRelaxed)));
  errors.publish(text);
}

void PeriodicThread::PrivateData::sleepToNextDeadline() {
  counters.addMissed(deadlines.advance());
  counters.recordLatency(deadlines.sleepUntilDeadline());
}

void PeriodicThread::PrivateData::trace(const char* format, uint32_t arg0, uint32_t arg1,
                                        uint32_t arg2, uint32_t arg3) {
  if (!traceEnabled.load(kRelaxed)) return;
  if (TimeTrace::threadBuffer == nullptr) TimeTrace::createThreadBuffer();
  TimeTrace::threadBuffer->record(Cycles::rdtsc(), format, arg0, arg1, arg2, arg3);
}

void PeriodicThread::PrivateData::prepare(RealTimeTaskWrapper& wrapper) {
  createCoroutine(wrapper);
  // A coroutine starts with its creating thread's FPU control words; this one runs on the loop
  // thread, which wrote its own before publishing its main coroutine (that addTask waited for).
  std::memcpy(&wrapper.co->saved_regs[8], &loopFpuControl, sizeof(loopFpuControl));
}

// ---------------------------------------------------------------------------------------------
// PeriodicThread
// ---------------------------------------------------------------------------------------------

PeriodicThread::PeriodicThread(unsigned int period, const char* name, ScheduleMethod method,
                               int cpu, int priority)
    : d_(std::make_shared<PrivateData>(period, name, method, cpu, priority)) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
  pthread_attr_setschedpolicy(&attributes, SCHED_FIFO);
  sched_param param{};
  param.sched_priority = priority;
  pthread_attr_setschedparam(&attributes, &param);
  if (cpu != -1) {
    const cpu_set_t set = singleCpuSet(cpu);
    pthread_attr_setaffinity_np(&attributes, sizeof(set), &set);
  }
  auto* handle = new std::shared_ptr<PrivateData>(d_);
  const int result = pthread_create(&d_->thread, &attributes, &PrivateData::loop, handle);
  pthread_attr_destroy(&attributes);
  if (result != 0) {
    delete handle;
    d_->creationError = result;
    std::printf("pthread_create FAILED(%d): %s\n", result, std::strerror(result));
    std::fflush(stdout);
    return;
  }
  d_->threadCreated = true;
  nameThread(d_->thread, d_->name);
}

// Kept: neither stops nor joins; the owner calls stop() and join() first. A thread left running
// is detached and keeps its record alive through the loop's own reference.
PeriodicThread::~PeriodicThread() {
  cleanTask();
  if (d_->threadCreated && !d_->threadReleased.exchange(true)) pthread_detach(d_->thread);
}

void PeriodicThread::start(unsigned long limitUs) {
  d_->frameLimitUs.store(limitUs, kRelaxed);
  d_->paused.store(false, kRelaxed);
}

void PeriodicThread::pause() { d_->paused.store(true, kRelaxed); }

void PeriodicThread::resume() { d_->paused.store(false, kRelaxed); }

void PeriodicThread::stop() { d_->running.store(false, kRelaxed); }

void PeriodicThread::join() {
  if (d_->threadCreated && !d_->threadReleased.exchange(true)) pthread_join(d_->thread, nullptr);
}

int PeriodicThread::setPeriod(int periodUs) {
  if (periodUs >= 1) d_->deadlines.periodUs.store(static_cast<uint32_t>(periodUs), kRelaxed);
  return 0;
}

void PeriodicThread::setGridOffset(long offsetUs) {
  d_->deadlines.gridOffsetUs.store(offsetUs, kRelaxed);
  d_->deadlines.onGrid.store(true, std::memory_order_release);  // the loop sees the offset too
}

void PeriodicThread::clearGridOffset() { d_->deadlines.onGrid.store(false, kRelaxed); }

int PeriodicThread::getTid() const { return d_->tid.load(kRelaxed); }

int PeriodicThread::getCreationError() const { return d_->creationError; }

void PeriodicThread::waitForNextCycle() const {
  if (!d_->threadCreated) return;
  if (is_aco && d_->tid.load(kRelaxed) == static_cast<int>(gettid())) return;  // from a task
  const uint64_t seen = d_->cyclesBegun.load(std::memory_order_acquire);
  while (d_->cyclesBegun.load(std::memory_order_acquire) == seen &&
         !d_->loopEnded.load(std::memory_order_acquire)) {
    const timespec pause{0, 200000};
    nanosleep(&pause, nullptr);
  }
}

void PeriodicThread::setPrepareTasksOnAdd(bool enabled) {
  d_->prepareOnAdd.store(enabled, kRelaxed);
}

cpu_set_t PeriodicThread::getCpuAffinity() const {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (d_->threadCreated && !d_->threadReleased.load()) {
    pthread_getaffinity_np(d_->thread, sizeof(set), &set);
  }
  return set;
}

std::shared_ptr<RealTimeTask> PeriodicThread::getExecuteTask() const {
  const uint64_t serial = d_->executingSerial.load(kRelaxed);
  std::lock_guard<std::mutex> lock(d_->registry.mutex);
  for (const WrapperPtr& wrapper : d_->registry.tasks) {
    if (wrapper->serial == serial) return wrapper->task;
  }
  return nullptr;
}

void PeriodicThread::addTask(std::shared_ptr<RealTimeTask> task, bool runOnce) {
  if (task == nullptr) return;  // refused: nothing to insert, nothing to init
  aco_coroutine* mainCo;
  while ((mainCo = d_->mainCo.load(std::memory_order_acquire)) == nullptr) {
    const timespec pause{0, 100000000};
    nanosleep(&pause, nullptr);
  }
  auto wrapper = std::make_shared<RealTimeTaskWrapper>(task, mainCo, runOnce);
  if (d_->prepareOnAdd.load(kRelaxed)) d_->prepare(*wrapper);
  {
    internal::TaskRegistry::Released released;  // freed after the lock is dropped
    std::lock_guard<std::mutex> lock(d_->registry.mutex);
    d_->registry.maintainLocked(&released);
    if (d_->registry.insertLocked(wrapper)) d_->registry.publishLocked();
  }
  task->init(wrapper);
}

std::shared_ptr<RealTimeTask> PeriodicThread::addTask(const std::string& name,
                                                      const std::function<void()>& fn, int priority,
                                                      unsigned long expectedMaxRuntime,
                                                      bool runOnce) {
  auto task = std::make_shared<RealTimeTaskInternal>(name, fn, priority, expectedMaxRuntime);
  addTask(task, runOnce);
  return task;
}

std::shared_ptr<RealTimeTask> PeriodicThread::addTask(const std::string& name,
                                                      std::function<void()>&& fn, int priority,
                                                      unsigned long expectedMaxRuntime,
                                                      bool runOnce) {
  auto task =
      std::make_shared<RealTimeTaskInternal>(name, std::move(fn), priority, expectedMaxRuntime);
  addTask(task, runOnce);
  return task;
}

size_t PeriodicThread::tasksSize() const {
  std::lock_guard<std::mutex> lock(d_->registry.mutex);
  return static_cast<size_t>(
      std::count_if(d_->registry.tasks.begin(), d_->registry.tasks.end(),
                    [](const WrapperPtr& w) { return !w->purged.load(kRelaxed); }));
}

std::string PeriodicThread::getTaskNames() const {
  std::string text = "Task names: \n";
  std::lock_guard<std::mutex> lock(d_->registry.mutex);
  size_t index = 0;
  for (const WrapperPtr& wrapper : d_->registry.tasks) {
    if (wrapper->purged.load(kRelaxed)) continue;
    text += "Task " + std::to_string(index++) + ": " + wrapper->task->getName() + "\n";
  }
  return text;
}

int PeriodicThread::deleteTask(const std::string& name) {
  internal::TaskRegistry::Released released;  // freed after the lock is dropped
  std::lock_guard<std::mutex> lock(d_->registry.mutex);
  d_->registry.maintainLocked(&released);
  for (const WrapperPtr& wrapper : d_->registry.tasks) {
    if (wrapper->purged.load(kRelaxed) || wrapper->task->getName() != name) continue;
    wrapper->deleteFlag.store(true, kRelaxed);
    return 1;
  }
  return -1;
}

void PeriodicThread::cleanTask() {
  internal::TaskRegistry::Released dropped;
  std::vector<WrapperPtr> released;
  {
    std::lock_guard<std::mutex> lock(d_->registry.mutex);
    d_->registry.collectRetiredLocked(&dropped);
    released.swap(d_->registry.tasks);
    d_->registry.publishLocked();
  }
  // Both die here, outside the lock: a wrapper's task may do anything in its destructor.
}

}  // namespace kelvo
}  // namespace mosk
