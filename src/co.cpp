// Coroutine scheduler on getcontext/makecontext/swapcontext.
//
// The public `Routine` record is allocated as the first part of an internal `RoutineRecord`
// that also carries the sanitizer bookkeeping of sanitized builds, so the public layout is the
// same in every build and only this file knows about the extra state.
#include "mosk/kelvo/co.h"

#include <unistd.h>

#include <cstddef>
#include <utility>

#include "kelvo_assert.h"
#include "sanitizer_fiber.h"

namespace mosk {
namespace kelvo {
namespace coroutine {

thread_local Ordinator ordinator;

namespace {

int __assert_failures = 0;
constexpr char kAssertPath[] = "src/co";

// Lines reported by the scheduler's checks. Frozen: users and tests match them in the messages,
// so they stay as they are whatever moves in this file.
constexpr int kLineRecycledSlotEmptied = 68;
constexpr int kLineRecycledRoutineExists = 77;
constexpr int kLineResumeFromScheduler = 85;
constexpr int kLineResumeIdInRange = 86;
constexpr int kLineYieldWithinStack = 176;
constexpr int kLineStatusIdInRange = 201;
constexpr int kLineStatusRoutineExists = 202;
constexpr int kLineFinishIdInRange = 208;
constexpr int kLineFinishRoutineExists = 209;
constexpr useconds_t kPlainThreadYieldSleepUs = 5000;

constexpr int32_t kStatusCreated = 1;
constexpr int32_t kStatusStarted = 2;
constexpr int32_t kStatusYielded = 3;

// Switch bookkeeping that AddressSanitizer and ThreadSanitizer need to follow a context
// switch onto another stack. Empty (and every hook a no-op) in normal builds.
struct FiberState {
#if KELVO_ASAN
  void* fake_stack = nullptr;
#endif
#if KELVO_TSAN
  void* tsan_fiber = nullptr;
#endif
};

struct RoutineRecord : Routine {
  FiberState fiber;
};

// The scheduler side of the switches of this thread. Trivially destructible on purpose: it
// must stay usable while the thread-local Ordinator is being destroyed.
struct SchedulerFiber {
#if KELVO_ASAN
  void* fake_stack = nullptr;
  const void* stack_bottom = nullptr;
  size_t stack_size = 0;
#endif
#if KELVO_TSAN
  void* tsan_fiber = nullptr;
#endif
};
[[maybe_unused]] thread_local SchedulerFiber scheduler_fiber;

RoutineRecord* recordOf(Routine* routine) { return static_cast<RoutineRecord*>(routine); }

void prepareFiber([[maybe_unused]] RoutineRecord* record) {
#if KELVO_TSAN
  record->fiber.tsan_fiber = internal::createFiber("coroutine");
#endif
}

void destroyFiber([[maybe_unused]] RoutineRecord* record) {
#if KELVO_TSAN
  internal::destroyFiber(record->fiber.tsan_fiber);
#endif
}

// Called by the scheduler right before it switches into `record`.
void leaveScheduler([[maybe_unused]] RoutineRecord* record) {
#if KELVO_ASAN
  internal::startSwitch(&scheduler_fiber.fake_stack, record->stack, record->stack_size);
#endif
#if KELVO_TSAN
  scheduler_fiber.tsan_fiber = internal::currentFiber();
  internal::switchToFiber(record->fiber.tsan_fiber);
#endif
}

// Called by the scheduler once control is back from a coroutine.
void enterScheduler() {
#if KELVO_ASAN
  internal::finishSwitch(scheduler_fiber.fake_stack, nullptr, nullptr);
#endif
}

// Called by a coroutine right before it switches back to the scheduler. A coroutine that will
// never run again releases its sanitizer state here.
void leaveRoutine([[maybe_unused]] RoutineRecord* record, [[maybe_unused]] bool final_switch) {
#if KELVO_ASAN
  internal::startSwitch(final_switch ? nullptr : &record->fiber.fake_stack,
                        scheduler_fiber.stack_bottom, scheduler_fiber.stack_size);
#endif
#if KELVO_TSAN
  internal::switchToFiber(scheduler_fiber.tsan_fiber);
#endif
}

// Called by a coroutine when it starts or continues after a switch from the scheduler.
void enterRoutine([[maybe_unused]] RoutineRecord* record) {
#if KELVO_ASAN
  internal::finishSwitch(record == nullptr ? nullptr : record->fiber.fake_stack,
                         &scheduler_fiber.stack_bottom, &scheduler_fiber.stack_size);
#endif
}

void freeRoutine(Routine* routine) {
  RoutineRecord* record = recordOf(routine);
  delete[] record->stack;
  destroyFiber(record);
  delete record;
}

Routine* newRoutine(std::function<void()> f, uint64_t stack_size) {
  // Default-initialised: the context is filled by getcontext() on the first resume, so the
  // kilobyte of ucontext_t is not zeroed here.
  RoutineRecord* record = new RoutineRecord;
  record->func = std::move(f);
  record->stack = nullptr;
  record->stack_size = stack_size;
  record->finished = false;
  record->status = kStatusCreated;
  return record;
}

void switchToRoutine(Ordinator& ord, Routine* routine) {
  leaveScheduler(recordOf(routine));
  swapcontext(&ord.ctx, &routine->ctx);
  enterScheduler();
}

void startRoutine(Ordinator& ord, Routine* routine, uint32_t id) {
  getcontext(&routine->ctx);
  routine->stack = new char[routine->stack_size];
  routine->ctx.uc_stack.ss_sp = routine->stack;
  routine->ctx.uc_stack.ss_size = routine->stack_size;
  routine->ctx.uc_link = &ord.ctx;
  routine->status = kStatusStarted;
  ord.current = id;
  prepareFiber(recordOf(routine));
  makecontext(&routine->ctx, &entry, 0);
  switchToRoutine(ord, routine);
}

}  // namespace

Ordinator::~Ordinator() {
  for (Routine* routine : routines) {
    if (routine != nullptr) freeRoutine(routine);
  }
  routines.clear();
  indexes.clear();
}

unsigned int create(std::function<void()> f, uint64_t stack_size) {
  Ordinator* ord = &ordinator;
  Routine* fresh = newRoutine(std::move(f), stack_size);
  if (ord->indexes.empty()) {
    ord->routines.push_back(fresh);
    return static_cast<unsigned int>(ord->routines.size());
  }
  const uint32_t id = ord->indexes.front();
  // An id that was never handed out (recycle(0), or one beyond the table) has no routine:
  // it fails the same check as an empty slot instead of reading outside the table.
  const bool inTable = id >= 1 && id - 1 < ord->routines.size();
  Routine* routine = inTable ? ord->routines[id - 1] : nullptr;
  KELVO_ASSERT(routine != nullptr, "routine != nullptr", kLineRecycledRoutineExists);
  freeRoutine(routine);
  ord->routines[id - 1] = nullptr;
  ord->indexes.pop_front();
  KELVO_ASSERT(ord->routines[id - 1] == nullptr, "ord->routines[id - 1] == nullptr",
               kLineRecycledSlotEmptied);
  ord->routines[id - 1] = fresh;
  return id;
}

int resume(unsigned int id) {
  // One thread-local lookup per call: every access to `ordinator` from this shared library
  // goes through the TLS resolver.
  Ordinator& ord = ordinator;
  KELVO_ASSERT(ord.current == 0, "ordinator.current == 0", kLineResumeFromScheduler);
  KELVO_ASSERT(((id - 1) < ord.routines.size()) && (id >= 1),
               "((id - 1) < ordinator.routines.size()) && (id >= 1)", kLineResumeIdInRange);
  Routine* routine = ord.routines[id - 1];
  if (routine == nullptr) return -1;
  if (routine->finished) return -2;
  if (routine->stack != nullptr) {
    // A coroutine that has run before continues where it yielded.
    // Kept: its status stays 3 (yielded) while it runs again, not 2 (started).
    ord.current = id;
    switchToRoutine(ord, routine);
  } else {
    startRoutine(ord, routine, id);
  }
  return 0;
}

int yield() {
  Ordinator& ord = ordinator;
  if (!ord.use) {
    usleep(kPlainThreadYieldSleepUs);
    return 0;
  }
  if (ord.current == 0) return -1;
  Routine* routine = ord.routines[ord.current - 1];
  if (routine == nullptr) return -2;

#if KELVO_ASAN
  // How deep the coroutine is in its stack, measured at this frame. With use-after-return
  // detection a local may live on AddressSanitizer's separate fake stack, so use the real frame.
  const char* stack_bottom = static_cast<const char*>(__builtin_frame_address(0));
#else
  // How deep the coroutine is in its stack, measured at this frame.
  char stack_bottom_marker = 0;
  const char* stack_bottom = &stack_bottom_marker;
#endif
  const char* stack_top = routine->stack + routine->stack_size;
  // Kept: the message's text names `&stack_bottom`, as users match it, whatever the code reads.
  KELVO_ASSERT(size_t(stack_top - stack_bottom) <= routine->stack_size,
               "size_t(stack_top - &stack_bottom) <= routine->stack_size", kLineYieldWithinStack);

  routine->status = kStatusYielded;
  ord.current = 0;
  RoutineRecord* record = recordOf(routine);
  leaveRoutine(record, routine->finished);
  swapcontext(&routine->ctx, &ord.ctx);
  enterRoutine(record);
  return 0;
}

unsigned int current() { return ordinator.current; }

bool finished(unsigned int id) {
  if (id == 0) return false;
  // Kept: no range check; callers pass ids that create() returned.
  Routine* routine = ordinator.routines[id - 1];
  return routine != nullptr && routine->finished;
}

void recycle(unsigned int id) { ordinator.indexes.push_back(id); }

int routine_status(unsigned int id) {
  const Ordinator& ord = ordinator;
  KELVO_ASSERT(((id - 1) < ord.routines.size()) && (id >= 1),
               "((id - 1) < ordinator.routines.size()) && (id >= 1)", kLineStatusIdInRange);
  KELVO_ASSERT(ord.routines[id - 1] != nullptr, "ordinator.routines[id - 1] != nullptr",
               kLineStatusRoutineExists);
  return ord.routines[id - 1]->status;
}

bool routine_finish(unsigned int id) {
  const Ordinator& ord = ordinator;
  KELVO_ASSERT(((id - 1) < ord.routines.size()) && (id >= 1),
               "((id - 1) < ordinator.routines.size()) && (id >= 1)", kLineFinishIdInRange);
  KELVO_ASSERT(ord.routines[id - 1] != nullptr, "ordinator.routines[id - 1] != nullptr",
               kLineFinishRoutineExists);
  return ord.routines[id - 1]->finished;
}

size_t routines_size() { return ordinator.routines.size(); }

size_t indexes_size() { return ordinator.indexes.size(); }

Ordinator& use_coroutine() {
  ordinator.use = true;
  return ordinator;
}

bool check_co() { return ordinator.use; }

void entry() {
  enterRoutine(nullptr);
  Ordinator& ord = ordinator;
  Routine* routine = ord.routines[ord.current - 1];
  if (routine->func) routine->func();
  routine->finished = true;
  yield();
  // Only reached outside coroutine mode, where yield() does not switch. Returning continues in
  // the scheduler through the context's successor link, so leave the scheduler's state as a
  // switch back would have left it.
  ord.current = 0;
  leaveRoutine(recordOf(routine), true);
}

}  // namespace coroutine
}  // namespace kelvo
}  // namespace mosk
