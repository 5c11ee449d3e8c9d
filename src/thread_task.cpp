// The task model (the task classes and the per-task record a periodic thread keeps) and the
// body of every task's coroutine, with the cooperative yields that suspend it.
#include <sched.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <utility>

#include "kelvo_assert.h"
#include "mosk/kelvo/thread.h"
#include "mosk/kelvo/trace_task_names.h"
#include "periodic_thread_private.h"

namespace mosk {
namespace kelvo {

namespace internal {

__thread bool is_aco = false;
__thread bool eager_run = false;

}  // namespace internal

namespace {

int __assert_failures = 0;
constexpr char kAssertPath[] = "src/thread";

// Lines reported by the thread unit's checks. Frozen: users and tests match them in the
// messages, so they stay as they are whatever moves in this file.
constexpr int kLineShareStackCreated = 295;
constexpr int kLineNotMainCoroutine = 302;
constexpr int kLineCoroutineNotEnded = 303;

std::atomic<uint64_t> nextWrapperSerial{1};

using internal::eager_run;
using internal::is_aco;
using internal::kRelaxed;

}  // namespace

RealTimeTaskApi::~RealTimeTaskApi() = default;
RealTimeTask::~RealTimeTask() = default;

RealTimeTaskInternal::RealTimeTaskInternal(const std::string& taskName,
                                           std::function<void()> taskBody, int taskPriority,
                                           unsigned long maxRuntime)
    : name(taskName),
      body(std::move(taskBody)),
      priority(taskPriority),
      expectedMaxRuntime(maxRuntime) {}

RealTimeTaskInternal::~RealTimeTaskInternal() = default;

void RealTimeTaskInternal::init(std::shared_ptr<RealTimeTaskApi>) {}
std::string RealTimeTaskInternal::getName() const { return name; }
int RealTimeTaskInternal::getPriority() const { return priority; }
unsigned long RealTimeTaskInternal::getExpectedMaxRuntime() { return expectedMaxRuntime; }

void RealTimeTaskInternal::execute() {
  if (body) body();
}

RealTimeTaskWrapper::RealTimeTaskWrapper(std::shared_ptr<RealTimeTask> wrappedTask,
                                         aco_coroutine* mainCoroutine, bool once)
    : task(std::move(wrappedTask)),
      runOnce(once),
      mainCo(mainCoroutine),
      serial(nextWrapperSerial.fetch_add(1, kRelaxed)) {
  // The trace viewer names this task's runs from here on; the loop records only the serial.
  TraceTaskNames::add(serial, task != nullptr ? task->getName() : std::string());
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
  KELVO_ASSERT(!aco_is_main_co(this_co), "!aco_is_main_co(this_co)", kLineNotMainCoroutine);
  KELVO_ASSERT(this_co->is_end == 0, "this_co->is_end == 0", kLineCoroutineNotEnded);
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

namespace internal {

void createCoroutine(RealTimeTaskWrapper& wrapper) {
  wrapper.shareStack = aco_share_stack_new(0);
  // Kept: the message names the check "sstk_", as users match it.
  KELVO_ASSERT(wrapper.shareStack != nullptr, "sstk_", kLineShareStackCreated);
  wrapper.co = aco_create(wrapper.mainCo, wrapper.shareStack, 0, &RealTimeTaskWrapper::execute_aco,
                          &wrapper);
}

}  // namespace internal

}  // namespace kelvo
}  // namespace mosk
