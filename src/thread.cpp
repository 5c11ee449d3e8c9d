// Real-time periodic threads: the task model, the periodic thread and its cycle loop,
// cooperative tasks, the task registry, diagnostics and platform utilities.
#include "mosk/kelvo/thread.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "kelvo_assert.h"
#include "mosk/kelvo/cycles.h"
#include "mosk/kelvo/time_trace.h"
#include "mosk/kelvo/trace_task_names.h"
#include "periodic_thread_parts.h"
#include "thread_error_mailbox.h"

namespace mosk {
namespace kelvo {

int setPriority(int prio) {
  sched_param param{};
  param.sched_priority = prio;
  return sched_setscheduler(0, SCHED_FIFO, &param) == 0 ? 0 : -1;
}

int setThreadName(const char* name) {
  if (name == nullptr) return -1;
  return prctl(PR_SET_NAME, name) == 0 ? 0 : -1;
}

long gettid() { return syscall(SYS_gettid); }

namespace {

// A 1024-CPU set holding only `cpu`, or an empty one (which the kernel refuses) when `cpu` is
// outside 0..1023.
cpu_set_t singleCpuSet(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (cpu >= 0 && cpu <= 1023) CPU_SET(cpu, &set);
  return set;
}

// Names `thread` after `name`. The kernel keeps 15 characters of a thread name; longer names
// are cut rather than refused.
void nameThread(pthread_t thread, const std::string& name) {
  char shortName[16] = {};
  std::strncpy(shortName, name.c_str(), sizeof(shortName) - 1);
  pthread_setname_np(thread, shortName);
}

}  // namespace

int pinThreadToCore(int core) {
  cpu_set_t set = singleCpuSet(core);
  if (sched_setaffinity(0, sizeof(set), &set) != 0) return -1;
  CPU_ZERO(&set);
  return sched_getaffinity(0, sizeof(set), &set) == 0 ? 0 : -2;
}

namespace {

// The start of the item after the next comma, or null when this is the last item.
const char* nextItem(const char* p) {
  const char* comma = std::strchr(p, ',');
  return comma ? comma + 1 : nullptr;
}

// A marker found at `marker` belongs to the current item only if it precedes the item's comma.
bool inItem(const char* marker, const char* comma) {
  return marker != nullptr && (comma == nullptr || marker < comma);
}

}  // namespace

int cpulist_parse(const char* str, cpu_set_t* set, size_t setsize, int fail) {
  auto* bytes = reinterpret_cast<unsigned char*>(set);  // bit n is bit n % 8 of byte n / 8
  std::memset(bytes, 0, setsize);
  if (str == nullptr) return 0;
  int lastRead = 0;  // conversions of the last "%u%c": 2 means text followed the number
  for (const char *p = str, *q = nextItem(str); p != nullptr;
       p = q, q = q ? nextItem(q) : nullptr) {
    unsigned first, last, stride = 1;
    char after;
    if ((lastRead = std::sscanf(p, "%u%c", &first, &after)) < 1) return 1;
    last = first;
    const char* comma = std::strchr(p, ',');
    const char* dash = std::strchr(p, '-');
    if (inItem(dash, comma)) {
      if ((lastRead = std::sscanf(dash + 1, "%u%c", &last, &after)) < 1) return 1;
      const char* colon = std::strchr(dash, ':');
      if (inItem(colon, comma)) {
        if ((lastRead = std::sscanf(colon + 1, "%u%c", &stride, &after)) < 1) return 1;
        if (stride == 0) return 1;
      }
    }
    if (first > last) return 1;
    for (uint32_t cpu = first;; cpu += stride) {
      if (fail && cpu >= 8 * setsize) return 2;
      // Byte by byte, not CPU_SET_S: that macro reads and writes whole 64-bit words, which
      // reaches past a set whose size is not a multiple of 8 bytes.
      if (cpu / 8 < setsize) bytes[cpu / 8] |= static_cast<unsigned char>(1u << (cpu % 8));
      if (last - cpu < stride) break;  // the next step would pass `last` (or wrap)
    }
  }
  return lastRead == 2 ? 1 : 0;
}

bool PeriodicThread::detectPreemptRt() {
  utsname names{};
  if (uname(&names) != 0 || strcasestr(names.version, "PREEMPT RT") == nullptr) return false;
  FILE* file = std::fopen("/sys/kernel/realtime", "r");
  if (file == nullptr) return false;
  int value = 0;
  const bool isRealtime = std::fscanf(file, "%d", &value) == 1 && value == 1;
  std::fclose(file);
  return isRealtime;
}

int PeriodicThread::setLatencyTarget() {
  struct stat info;
  if (stat("/dev/cpu_dma_latency", &info) != 0) return -1;
  const int fd = open("/dev/cpu_dma_latency", O_RDWR);
  if (fd < 0) return -1;
  const int32_t target = 0;
  if (write(fd, &target, sizeof(target)) != 0) return -1;  // keeps the request alive
  close(fd);
  return 0;
}

int PeriodicThread::closeLatencyTarget(int fd) { return close(fd); }

void PeriodicThread::rt_system_init() {}

}  // namespace kelvo
}  // namespace mosk

// ---------------------------------------------------------------------------------------------
// Task model
// ---------------------------------------------------------------------------------------------

namespace mosk {
namespace kelvo {

namespace {

int __assert_failures = 0;

// True on a periodic thread's loop thread.
thread_local bool is_aco = false;
// Set by yield1(), consumed by the loop after each resumption.
thread_local bool eager_run = false;

std::atomic<uint64_t> nextWrapperSerial{1};

constexpr auto kRelaxed = std::memory_order_relaxed;

using detail::addRelaxed;

}  // namespace

RealTimeTaskApi::~RealTimeTaskApi() = default;
RealTimeTask::~RealTimeTask() = default;

RealTimeTaskInternal::RealTimeTaskInternal(const std::string& name, std::function<void()> body,
                                           int priority, unsigned long expectedMaxRuntime)
    : name(name),
      body(std::move(body)),
      priority(priority),
      expectedMaxRuntime(expectedMaxRuntime) {}

RealTimeTaskInternal::~RealTimeTaskInternal() = default;

void RealTimeTaskInternal::init(std::shared_ptr<RealTimeTaskApi>) {}
std::string RealTimeTaskInternal::getName() const { return name; }
int RealTimeTaskInternal::getPriority() const { return priority; }
unsigned long RealTimeTaskInternal::getExpectedMaxRuntime() { return expectedMaxRuntime; }

void RealTimeTaskInternal::execute() {
  if (body) body();
}

RealTimeTaskWrapper::RealTimeTaskWrapper(std::shared_ptr<RealTimeTask> task, aco_coroutine* mainCo,
                                         bool runOnce)
    : task(std::move(task)),
      runOnce(runOnce),
      mainCo(mainCo),
      serial(nextWrapperSerial.fetch_add(1, kRelaxed)) {
  // The trace viewer names this task's runs from here on; the loop records only the serial.
  TraceTaskNames::add(serial, this->task != nullptr ? this->task->getName() : std::string());
}

RealTimeTaskWrapper::~RealTimeTaskWrapper() {
  TraceTaskNames::retire(serial);
  if (!useCoroutine || shareStack == nullptr) return;
  // A share stack is only ever created together with its coroutine; one without the other
  // means the record is corrupt, and destroying a null coroutine aborts.
  aco_destroy(co);
  aco_share_stack_destroy(shareStack);
}

unsigned long RealTimeTaskWrapper::getMaxRuntime() const { return maxRuntimeUs.load(kRelaxed); }

std::string RealTimeTaskWrapper::getErrorString() const { return errorString; }

// ---------------------------------------------------------------------------------------------
// Cooperative tasks
// ---------------------------------------------------------------------------------------------

void RealTimeTaskWrapper::execute_aco() {
  aco_coroutine* this_co = aco_get_co();
  KELVO_ASSERT_AT(!aco_is_main_co(this_co), "!aco_is_main_co(this_co)", "src/thread", 302);
  KELVO_ASSERT_AT(this_co->is_end == 0, "this_co->is_end == 0", "src/thread", 303);
  auto* wrapper = static_cast<RealTimeTaskWrapper*>(aco_get_arg());
  if (wrapper->runOnce) {
    wrapper->task->execute();
    wrapper->deleteFlag.store(true, kRelaxed);
    aco_exit();
  }
  for (;;) {
    wrapper->task->execute();
    aco_yield();
  }
}

void PeriodicThread::yield() {
  if (!is_aco) {
    sched_yield();
    return;
  }
  aco_yield();
}

void PeriodicThread::yield1() {
  eager_run = true;
  yield();
}

bool PeriodicThread::check_co() { return is_aco; }

// ---------------------------------------------------------------------------------------------
// The thread's private record
// ---------------------------------------------------------------------------------------------

namespace {

using detail::WrapperPtr;

using internal::ErrorMailbox;
using internal::kErrorTextSize;

}  // namespace

namespace {
// What the loop does on a task's first run; a prepared task skips it.
void createCoroutine(RealTimeTaskWrapper& wrapper) {
  wrapper.shareStack = aco_share_stack_new(0);
  KELVO_ASSERT_AT(wrapper.shareStack != nullptr, "sstk_", "src/thread", 295);
  wrapper.co = aco_create(wrapper.mainCo, wrapper.shareStack, 0, &RealTimeTaskWrapper::execute_aco,
                          &wrapper);
}
}  // namespace

// Hidden although nested in an exported class: its members are the loop's internals, not part of
// the library's interface.
struct __attribute__((visibility("hidden"))) PeriodicThread::PrivateData {
  PrivateData(unsigned int period, const char* threadName, ScheduleMethod method, int cpu,
              int priority)
      : cpu(cpu),
        priority(priority),
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

  detail::TaskRegistry registry;
  detail::WakeCounters counters;
  detail::DeadlineKeeper deadlines;
  std::atomic<aco_coroutine*> mainCo{nullptr};
  ErrorMailbox errors;
};

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
      trace("Task FRAME ++++++++++ started, %d tasks", static_cast<uint32_t>(live));
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
    const std::string nameCopy = task.getName();  // asked before every run, by design
    (void)nameCopy;
  }
  // The task's serial rides in the two arguments the formats do not print, so that the trace
  // viewer can name the run after the task whatever its position.
  const uint32_t idLow = TraceTaskNames::lowWord(wrapper.serial);
  const uint32_t idHigh = TraceTaskNames::highWord(wrapper.serial);
  const uint64_t t0 = Cycles::rdtsc();
  trace("Task[%d] >>>>>>>> started", static_cast<uint32_t>(index), 0, idLow, idHigh);
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
  trace("Task[%d] <<<<<<<< end %d", static_cast<uint32_t>(index), static_cast<uint32_t>(runs),
        idLow, idHigh);
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
    std::lock_guard<std::mutex> lock(d_->registry.mutex);
    d_->registry.maintainLocked();
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
  std::lock_guard<std::mutex> lock(d_->registry.mutex);
  d_->registry.maintainLocked();
  for (const WrapperPtr& wrapper : d_->registry.tasks) {
    if (wrapper->purged.load(kRelaxed) || wrapper->task->getName() != name) continue;
    wrapper->deleteFlag.store(true, kRelaxed);
    return 1;
  }
  return -1;
}

void PeriodicThread::cleanTask() {
  std::vector<WrapperPtr> released;
  {
    std::lock_guard<std::mutex> lock(d_->registry.mutex);
    d_->registry.collectRetiredLocked();
    released.swap(d_->registry.tasks);
    d_->registry.publishLocked();
  }
  // `released` dies here, outside the lock: a wrapper's task may do anything in its destructor.
}

// ---------------------------------------------------------------------------------------------
// Diagnostics
// ---------------------------------------------------------------------------------------------

namespace {

constexpr size_t kSummarySize = 200;

// Appends one formatted line to a summary buffer; like a fortified sprintf, terminates the
// process rather than write past the buffer.
void appendChecked(char (&buffer)[kSummarySize], const char* format, long value) {
  const size_t used = strnlen(buffer, kSummarySize);
  char line[64];
  const int length = std::snprintf(line, sizeof(line), format, value);
  if (length < 0 || used + static_cast<size_t>(length) >= kSummarySize) {
    std::fputs("*** buffer overflow detected ***: terminated\n", stderr);
    std::fflush(stderr);
    std::abort();
  }
  std::memcpy(buffer + used, line, static_cast<size_t>(length) + 1);
}

std::mutex summaryMutex;

}  // namespace

const char* PeriodicThread::getStatus() const {
  static char status[kSummarySize];
  std::lock_guard<std::mutex> lock(summaryMutex);
  const uint64_t wakes = d_->counters.wakeCount.load(kRelaxed);
  const uint64_t averageCycles = wakes == 0 ? 0 : d_->counters.sumInterval.load(kRelaxed) / wakes;
  appendChecked(status, "avg: %ld\n", static_cast<long>(Cycles::toMicroseconds(averageCycles)));
  appendChecked(status, "min: %ld\n",
                static_cast<long>(Cycles::toMicroseconds(d_->counters.minInterval.load(kRelaxed))));
  appendChecked(status, "max: %ld\n",
                static_cast<long>(Cycles::toMicroseconds(d_->counters.maxInterval.load(kRelaxed))));
  appendChecked(status, "missed: %ld\n", static_cast<long>(d_->counters.missed.load(kRelaxed)));
  return status;
}

const char* PeriodicThread::getWarning() const {
  static char warning[kSummarySize];
  std::lock_guard<std::mutex> lock(summaryMutex);
  appendChecked(warning, "taskwaringtimes: %ld\n",
                static_cast<long>(d_->taskWarningTimes.load(kRelaxed)));
  appendChecked(warning, "threadwarningtimes: %ld\n",
                static_cast<long>(d_->threadWarningTimes.load(kRelaxed)));
  return warning;
}

WakeStatistics PeriodicThread::getWakeStatistics() const {
  WakeStatistics statistics;
  statistics.wakeCount = d_->counters.wakeCount.load(kRelaxed);
  statistics.minInterval = d_->counters.minInterval.load(kRelaxed);
  statistics.maxInterval = d_->counters.maxInterval.load(kRelaxed);
  statistics.sumInterval = d_->counters.sumInterval.load(kRelaxed);
  statistics.missed = d_->counters.missed.load(kRelaxed);
  statistics.threadWarningTimes = d_->threadWarningTimes.load(kRelaxed);
  statistics.load = d_->deadlines.load.load(kRelaxed);
  statistics.lastLatencyNs = d_->counters.lastLatencyNs.load(kRelaxed);
  statistics.maxLatencyNs = d_->counters.maxLatencyNs.load(kRelaxed);
  return statistics;
}

std::string PeriodicThread::getErrorString() { return d_->errors.take(); }

void PeriodicThread::setTraceEnabled(bool enabled) { d_->traceEnabled.store(enabled, kRelaxed); }

std::string PeriodicThread::getTrace() const { return TimeTrace::getTrace(); }

void PeriodicThread::printTrace(const char* path) const {
  TimeTrace::setOutputFileName(path);
  if (FILE* file = std::fopen(path, "a")) {
    std::fputs(getTaskNames().c_str(), file);  // "Task names: \n", then "Task %zu: %s\n" each
    std::fclose(file);
  }
  TimeTrace::print();
}

}  // namespace kelvo
}  // namespace mosk
