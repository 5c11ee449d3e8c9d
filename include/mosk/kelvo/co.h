// Coroutine scheduler: per-thread stackful coroutines on the platform's user contexts.
//
// Each coroutine (`Routine`) wraps a callable without arguments or result and runs on its own
// heap stack, allocated on its first resume, of the size given to create(). Coroutines are
// named by small ids starting at 1. The thread's own context is the scheduler: it resumes one
// coroutine at a time with resume(id), and the coroutine hands control back with yield().
//
//   auto& ord = mosk::kelvo::coroutine::use_coroutine();  // enable coroutine mode
//   unsigned id = coroutine::create([] { step1(); coroutine::yield(); step2(); }, 64 * 1024);
//   while (coroutine::resume(id) == 0 && !coroutine::finished(id)) { /* other work */ }
//   coroutine::recycle(id);  // the id (and, lazily, the memory) is reused by a later create()
//
// Ids and memory: recycle(id) only queues the id; the old coroutine's stack and record are
// freed when a later create() reuses the id (oldest recycled id first), or at thread exit.
// Recycling a coroutine that has not finished abandons it at its last yield: nothing on its
// stack is unwound (no destructors run).
//
// Stack size: the stack is exactly `stack_size` bytes and is not guarded. The body's deepest
// call chain (including library calls such as printf) must fit in it; an overrun is detected
// only at the coroutine's next yield(), which then aborts, after memory beside the stack may
// already have been overwritten. Use generous sizes (64 KiB or more for code that calls into
// the C library).
//
// Exceptions: a coroutine body must not let an exception escape; there is no caller frame to
// unwind into, so the process ends in std::terminate.
//
// Outside coroutine mode (use_coroutine() not called on this thread) yield() does not switch:
// it sleeps 5 ms and returns 0, so that code written for coroutines still progresses on a plain
// thread. A coroutine resumed on such a thread therefore runs to its end within one resume().
//
// Broken preconditions abort with "Assertion error: <expression> (src/co:<line>)": resume()
// from inside a coroutine, resume() or routine_status()/routine_finish() with an id outside
// 1..routines_size(), and a stack overrun seen by yield(). Non-fatal conditions are reported by
// the results -1 and -2 documented on each function.
//
// Threading: everything is per thread. The scheduler state is the thread-local `ordinator`; a
// coroutine id means something only on the thread that created it and coroutines never migrate.
// No function takes a lock. create() and the first resume() of a coroutine allocate; later
// resume()/yield() pairs do not allocate and make no system call beyond the signal-mask update
// that swapcontext performs.
#ifndef MOSK_KELVO_CO_H_
#define MOSK_KELVO_CO_H_

#include <ucontext.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <vector>

#include "mosk/kelvo/export.h"

namespace mosk {
namespace kelvo {
namespace coroutine {

// One coroutine. Owned by the thread's Ordinator; created by create(), freed lazily after
// recycle() or at thread exit.
struct KELVO_EXPORT Routine {
  std::function<void()> func;  // the body; may be empty
  char* stack;                 // private stack, allocated on the first resume; null before
  uint64_t stack_size;         // stack size in bytes, as passed to create()
  bool finished;               // set once the body has returned
  ucontext_t ctx;              // the coroutine's saved context
  int32_t status;              // 1 created, 2 first resumed, 3 has yielded (stays 3)
};

// The per-thread scheduler state (see `ordinator`).
struct KELVO_EXPORT Ordinator {
  Ordinator() = default;
  Ordinator(const Ordinator&) = delete;
  Ordinator& operator=(const Ordinator&) = delete;
  // Frees every coroutine still held (stack, function and record); runs at thread exit.
  ~Ordinator();

  std::vector<Routine*> routines;  // slot id - 1 holds coroutine id; a slot may be null
  std::list<uint32_t> indexes;     // ids handed back by recycle(), oldest first
  uint32_t current = 0;            // id of the running coroutine; 0 in the thread's own context
  ucontext_t ctx{};                // the thread's (scheduler's) saved context
  bool use = false;                // coroutine mode, enabled by use_coroutine()
};

// This thread's scheduler state, destroyed at thread exit.
KELVO_EXPORT extern thread_local Ordinator ordinator;

// Creates a coroutine running `f` on a private stack of `stack_size` bytes (allocated on its
// first resume) and returns its id: the oldest recycled id if any, else routines_size() + 1.
// Status 1, not finished. Reusing a recycled id frees the coroutine that held it.
KELVO_EXPORT unsigned int create(std::function<void()> f, uint64_t stack_size);

// Runs coroutine `id` until it yields or finishes. Returns 0, -1 if its slot is empty, -2 if it
// has already finished. Aborts when called from inside a coroutine or with an id outside
// 1..routines_size(). The first resume allocates the stack and sets status 2; a later resume
// leaves the status as it is (3 after a yield).
KELVO_EXPORT int resume(unsigned int id);

// Returns from the running coroutine to the scheduler (status 3); returns 0 once resumed.
// Exceptions: a coroutine body must not let an exception escape; there is no caller frame to
// unwind into, so the process ends in std::terminate.
//
// Outside coroutine mode: sleeps 5 ms and returns 0. In coroutine mode: -1 when no coroutine is
// running (called from the thread's own context), -2 when the running coroutine's slot is empty.
// Aborts if the running coroutine has overrun its stack.
KELVO_EXPORT int yield();

// The running coroutine's id; 0 in the thread's own context.
KELVO_EXPORT unsigned int current();

// Whether coroutine `id` has finished; false for id 0. Not range checked: `id` must be at most
// routines_size().
KELVO_EXPORT bool finished(unsigned int id);

// Queues `id` for reuse by a later create() (first in, first out). The coroutine is freed only
// then. Recycle an id once, and only an id of this thread: when create() reaches an id that
// has no coroutine (already reused, never handed out, or 0) it aborts with the
// "routine != nullptr" assertion.
KELVO_EXPORT void recycle(unsigned int id);

// Status of coroutine `id` (1, 2 or 3); aborts when `id` is out of range or its slot is empty.
KELVO_EXPORT int routine_status(unsigned int id);

// Finished flag of coroutine `id`; aborts when `id` is out of range or its slot is empty.
KELVO_EXPORT bool routine_finish(unsigned int id);

// Number of coroutine slots on this thread (the highest id handed out).
KELVO_EXPORT size_t routines_size();

// Number of recycled ids waiting to be reused.
KELVO_EXPORT size_t indexes_size();

// Enables coroutine mode on this thread and returns its scheduler state.
KELVO_EXPORT Ordinator& use_coroutine();

// Whether coroutine mode is enabled on this thread.
KELVO_EXPORT bool check_co();

// The start function of every coroutine context: runs the body of the current coroutine,
// marks it finished and parks it with a final yield(). Not meant to be called directly.
KELVO_EXPORT void entry();

}  // namespace coroutine
}  // namespace kelvo
}  // namespace mosk

#endif  // MOSK_KELVO_CO_H_
