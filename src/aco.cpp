// Shared-stack coroutine runtime: share stacks, coroutine records, resume with stack copying.
//
// The context switch itself is in acosw.S. Everything here runs on the thread that owns the
// coroutines; there is no lock and no atomic anywhere on the resume path.
//
// Sanitizer builds (and only those) add, inside aco_resume():
//  - AddressSanitizer: fiber-switch annotations (__sanitizer_start_switch_fiber /
//    __sanitizer_finish_switch_fiber), so that ASan knows which stack is current (stack
//    bounds for reports, for __asan_handle_no_return on abort and exceptions). The stack copy
//    routine (aco_stack_copy.h) is excluded from instrumentation (no_sanitize_address, and `rep
//    movsb` instead of the intercepted memcpy): it must read whole frames, redzones included. When
//    a share stack changes hands its shadow is cleared, because the frames of the previous owner
//    (or of an exited coroutine) left redzone poison that does not match the incoming frames.
//  - ThreadSanitizer: one TSan fiber per non-main coroutine (__tsan_create_fiber), entered
//    and left with __tsan_switch_to_fiber (synchronising), destroyed with the coroutine.
// Both are done around the acosw() call in aco_resume(): every switch into a coroutine and
// every switch back out of it (yield, exit, both inline in aco.h) passes through that call,
// so the inline helpers need no annotation and the header is the same in every build. (In
// the plain build that call is a tail call instead: see aco_resume.)
#include "mosk/kelvo/aco.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "aco_stack_copy.h"
#include "sanitizer_fiber.h"

#if KELVO_ASAN || KELVO_TSAN
#include <mutex>
#include <unordered_map>
#endif

// Initial-exec, as declared: one %fs-relative access instead of a __tls_get_addr call.
#define KELVO_ACO_TLS __thread __attribute__((tls_model("initial-exec")))
KELVO_ACO_TLS aco_coroutine* aco_gtls_co = nullptr;
KELVO_ACO_TLS uint64_t aco_gtls_fpucw_mxcsr = 0;
KELVO_ACO_TLS aco_cofuncp_t aco_gtls_last_word_fp = aco_default_protector_last_word;

// A hidden twin of acosw (same code, its own copy in acosw.S): aco_resume's switch skips the
// PLT and has an indirect jump of its own, separate from the one coroutines yield through.
extern "C" __attribute__((visibility("hidden"))) void kelvo_acosw_local(aco_coroutine* from,
                                                                        aco_coroutine* to);

namespace mosk {
namespace kelvo {
namespace internal {
namespace {

constexpr size_t kDefaultShareStackSize = 2 * 1024 * 1024;
constexpr size_t kMinShareStackSize = 4096;
constexpr size_t kDefaultSaveStackSize = 64;

// Source lines reported by the allocation-failure message, one per allocation site. Frozen (the
// line rule of kelvo_assert.h): they are part of the message users see and match in their logs,
// so they stay as they are whatever moves in this file.
constexpr int kLineShareStackRecord = 248;
constexpr int kLineShareStackMapping = 255;
constexpr int kLineShareStackArea = 267;
constexpr int kLineCoroutineRecord = 317;
constexpr int kLineSaveStackBuffer = 355;
constexpr int kLineSaveStackGrowth = 414;

[[noreturn]] void allocationFailed(int line, const char* function) {
  std::fprintf(stderr, "Aborting: failed to allocate memory: %s:%d:%s\n", "src/aco", line,
               function);
  std::abort();
}

// Misuse and broken invariants abort without a message.
inline void abortUnless(bool condition) {
  if (__builtin_expect(!condition, 0)) std::abort();
}

// ---- Sanitizer bookkeeping (sanitizer builds only) ----

#if KELVO_ASAN || KELVO_TSAN
// What a sanitizer needs to remember per non-main coroutine. The record layout is public and
// fixed, so this lives beside it, keyed by the record's address. Coroutines may be destroyed on
// another thread than the one running them, hence the mutex.
struct SanitizerFiber {
  void* tsanFiber = nullptr;      // TSan's context for code running in the coroutine
  void* asanFakeStack = nullptr;  // ASan's fake stack of the coroutine while suspended
};

std::mutex& fiberMutex() {
  static std::mutex mutex;
  return mutex;
}

std::unordered_map<const aco_coroutine*, SanitizerFiber>& fibers() {
  static auto* map = new std::unordered_map<const aco_coroutine*, SanitizerFiber>();
  return *map;
}

void registerFiber(const aco_coroutine* co) {
  SanitizerFiber fiber;
  fiber.tsanFiber = createFiber("aco coroutine");
  std::lock_guard<std::mutex> lock(fiberMutex());
  fibers()[co] = fiber;
}

SanitizerFiber* findFiber(const aco_coroutine* co) {
  std::lock_guard<std::mutex> lock(fiberMutex());
  auto it = fibers().find(co);
  return it == fibers().end() ? nullptr : &it->second;
}

void unregisterFiber(const aco_coroutine* co) {
  SanitizerFiber fiber;
  {
    std::lock_guard<std::mutex> lock(fiberMutex());
    auto it = fibers().find(co);
    if (it == fibers().end()) return;
    fiber = it->second;
    fibers().erase(it);
  }
  destroyFiber(fiber.tsanFiber);
}
#endif

#if KELVO_ASAN
// LeakSanitizer scans thread stacks and the heap, not anonymous mappings: without this, what a
// suspended coroutine's frames point to (on a mapped share stack) would be reported as leaked.
void registerRootRegion(aco_share_stack* s) {
  if (s->guard_enabled != 0) __lsan_register_root_region(s->base, s->size);
}
void unregisterRootRegion(aco_share_stack* s) {
  if (s->guard_enabled != 0) __lsan_unregister_root_region(s->base, s->size);
}

// The share stack is changing hands: forget the redzones the previous frames left on it.
void clearShareStackShadow(aco_share_stack* s) { __asan_unpoison_memory_region(s->base, s->size); }
#endif

#if KELVO_ASAN || KELVO_TSAN
// Switches from co's main coroutine into co and back, telling the sanitizers in use.
inline void switchInto(aco_coroutine* main_co, aco_coroutine* co) {
  SanitizerFiber* state = findFiber(co);
  abortUnless(state != nullptr);
  // Announce and complete the switch to the share stack before jumping: nothing instrumented
  // runs between here and the body, and coming back is announced the same way below.
  void* main_fake_stack = nullptr;
  const void* main_bottom = nullptr;
  size_t main_size = 0;
  startSwitch(&main_fake_stack, co->share_stack->base, co->share_stack->size);
  finishSwitch(state->asanFakeStack, &main_bottom, &main_size);
  void* main_fiber = currentFiber();
  switchToFiber(state->tsanFiber);

  kelvo_acosw_local(main_co, co);

  switchToFiber(main_fiber);
  // An ended coroutine's fake stack is released (null save pointer); a suspended one keeps it.
  startSwitch(co->is_end ? nullptr : &state->asanFakeStack, main_bottom, main_size);
  finishSwitch(main_fake_stack, nullptr, nullptr);
}
#endif

size_t checkedPageSize() {
  const long page = sysconf(_SC_PAGESIZE);
  abortUnless(page >= 1 && (page & (page - 1)) == 0);
  return static_cast<size_t>(page);
}

// Length of the mapping for `size` usable bytes plus the guard page below them: whole pages,
// at least two. Any overflow aborts.
size_t guardedMappingLength(size_t size, size_t page) {
  size_t length = 0;
  if (size <= page) {
    abortUnless(!__builtin_mul_overflow(page, size_t{2}, &length));
  } else if ((size & (page - 1)) == 0) {
    abortUnless(!__builtin_add_overflow(size, page, &length));
  } else {
    size_t two_pages = 0;
    abortUnless(!__builtin_mul_overflow(page, size_t{2}, &two_pages));
    abortUnless(!__builtin_add_overflow(size & ~(page - 1), two_pages, &length));
  }
  abortUnless((length & (page - 1)) == 0 && length / page >= 2 && length > size);
  return length;
}

// Copy-out: moves the bytes that `owner` has in use on its share stack into its save stack.
void saveOwnerStack(aco_coroutine* owner, aco_share_stack* s) {
  char* const return_slot = static_cast<char*>(s->return_slot);
  char* const sp = static_cast<char*>(owner->saved_regs[5]);
  abortUnless(owner->share_stack == s);
  abortUnless(sp >= static_cast<char*>(s->top) - s->limit && sp <= return_slot);

  aco_save_stack& save = owner->save_stack;
  save.valid_size = static_cast<uint64_t>(return_slot - sp);
  if (__builtin_expect(save.valid_size > save.capacity, 0)) {
    // The old bytes are stale: they are overwritten right below, so no realloc.
    std::free(save.buffer);
    save.buffer = nullptr;
    uint64_t capacity = save.capacity;
    while (capacity < save.valid_size) {
      capacity <<= 1;
      abortUnless(capacity != 0);
    }
    save.buffer = static_cast<char*>(std::malloc(capacity));
    if (save.buffer == nullptr) allocationFailed(kLineSaveStackGrowth, "aco_resume");
    save.capacity = capacity;
  }
  if (save.valid_size != 0) {
    copyStack(save.buffer, sp, save.valid_size);
    ++save.save_count;
    if (save.valid_size > save.max_copied) save.max_copied = save.valid_size;
  }
  s->owner = nullptr;
  s->valid_size = 0;
}

// Copy-in: puts co's saved bytes back below the return slot and makes co the owner.
void restoreStack(aco_coroutine* co, aco_share_stack* s) {
  aco_save_stack& save = co->save_stack;
  abortUnless(s->owner == nullptr);
  abortUnless(save.valid_size <= s->limit - 8);
  if (save.valid_size != 0) {
    copyStack(static_cast<char*>(s->return_slot) - save.valid_size, save.buffer, save.valid_size);
    ++save.restore_count;
    if (save.valid_size > save.max_copied) save.max_copied = save.valid_size;
  }
  s->owner = co;
  s->valid_size = save.valid_size + 8;
}

// Gives `co` its share stack: copy-out of the current owner, if any, then copy-in. Kept out
// of line so that resuming the owner of a share stack stays a short call.
__attribute__((noinline)) void handOverShareStack(aco_coroutine* co, aco_share_stack* s) {
  if (s->owner != nullptr) saveOwnerStack(s->owner, s);
#if KELVO_ASAN
  clearShareStackShadow(s);
#endif
  restoreStack(co, s);
}

#if !(KELVO_ASAN || KELVO_TSAN)
// aco_resume's path for a coroutine that does not own its share stack yet. Out of line, so
// that the common path (the owner resumed again) needs no stack frame at all.
__attribute__((noinline)) void handOverAndSwitch(aco_coroutine* co) {
  handOverShareStack(co, co->share_stack);
  kelvo_acosw_local(co->main_co, co);
}
#endif

}  // namespace
}  // namespace internal
}  // namespace kelvo
}  // namespace mosk

// The functions below are the runtime's C interface; their helpers are this file's own.
using namespace mosk::kelvo::internal;  // NOLINT(build/namespaces)

extern "C" {

void aco_runtime_test(void) {}

void aco_thread_init(aco_cofuncp_t last_word_co_fp) {
  aco_save_fpucw_mxcsr(&aco_gtls_fpucw_mxcsr);
  if (last_word_co_fp != nullptr) aco_gtls_last_word_fp = last_word_co_fp;
}

void aco_default_protector_last_word(void) {
  aco_coroutine* co = aco_gtls_co;
  std::fprintf(stderr, "error: aco_default_protector_last_word triggered\n");
  std::fprintf(stderr,
               "error: co:%p should call `aco_exit()` instead of direct `return` in co_fp:%p "
               "to finish its execution\n",
               static_cast<void*>(co),
               co == nullptr ? nullptr : reinterpret_cast<void*>(co->co_fp));
  std::abort();
}

void aco_funcp_protector(void) {
  aco_cofuncp_t last_word = aco_gtls_last_word_fp;
  if (last_word != nullptr) {
    last_word();
  } else {
    aco_default_protector_last_word();
  }
  std::abort();
}

aco_share_stack* aco_share_stack_new(size_t size) { return aco_share_stack_new2(size, 1); }

aco_share_stack* aco_share_stack_new2(size_t size, char guard_page_enabled) {
  if (size == 0) size = kDefaultShareStackSize;
  if (size < kMinShareStackSize) size = kMinShareStackSize;

  auto* s = static_cast<aco_share_stack*>(std::calloc(1, sizeof(aco_share_stack)));
  if (s == nullptr) allocationFailed(kLineShareStackRecord, "aco_share_stack_new2");

  if (guard_page_enabled != 0) {
    const size_t page = checkedPageSize();
    const size_t length = guardedMappingLength(size, page);
    void* mapping =
        mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_ANONYMOUS | MAP_PRIVATE, -1, 0);
    if (mapping == MAP_FAILED) allocationFailed(kLineShareStackMapping, "aco_share_stack_new2");
    s->guard_enabled = 1;
    s->mapping_base = mapping;
    s->mapping_size = length;
    // Kept: the guard page is read-only rather than inaccessible; an overflowing stack writes,
    // and the write faults.
    abortUnless(mprotect(mapping, page, PROT_READ) == 0);
    abortUnless(length >= 2 * page);
    s->base = static_cast<char*>(mapping) + page;
    s->size = length - page;
  } else {
    s->size = size;
    s->base = static_cast<char*>(std::malloc(size));
    if (s->base == nullptr) allocationFailed(kLineShareStackArea, "aco_share_stack_new2");
  }

  s->owner = nullptr;
  const uintptr_t top = (reinterpret_cast<uintptr_t>(s->base) + s->size - 16) & ~uintptr_t{15};
  s->top = reinterpret_cast<void*>(top);
  s->return_slot = reinterpret_cast<void*>(top - 8);
  // A body that returns pops this slot and lands in the protector.
  void (*protector)(void) = aco_funcp_protector_asm;
  std::memcpy(s->return_slot, &protector, sizeof(protector));
  abortUnless(s->size > 40);
  s->limit = s->size - 32;
#if KELVO_ASAN
  registerRootRegion(s);
#endif
  return s;
}

void aco_share_stack_destroy(aco_share_stack* s) {
  abortUnless(s != nullptr && s->base != nullptr);
#if KELVO_ASAN
  unregisterRootRegion(s);
#endif
  if (s->guard_enabled != 0) {
    abortUnless(munmap(s->mapping_base, s->mapping_size) == 0);
  } else {
    std::free(s->base);
  }
  std::free(s);
}

aco_coroutine* aco_create(aco_coroutine* main_co, aco_share_stack* share_stack,
                          size_t save_stack_size, aco_cofuncp_t co_fp, void* arg) {
  auto* co = static_cast<aco_coroutine*>(std::calloc(1, sizeof(aco_coroutine)));
  if (co == nullptr) allocationFailed(kLineCoroutineRecord, "aco_create");

  if (main_co == nullptr) {
    // The thread's main coroutine runs on the thread's own stack; its register slots are
    // filled by its first switch away.
    co->main_co = nullptr;
    co->arg = arg;
    co->co_fp = co_fp;
    co->share_stack = nullptr;
    co->save_stack.buffer = nullptr;
    return co;
  }

  abortUnless(share_stack != nullptr);
  co->share_stack = share_stack;
  // First switch in: jump to the body with the stack pointer on the return slot, exactly as
  // if the protector had called it.
  co->saved_regs[4] = reinterpret_cast<void*>(co_fp);
  co->saved_regs[5] = share_stack->return_slot;
  co->main_co = main_co;
  co->arg = arg;
  std::memcpy(&co->saved_regs[8], &aco_gtls_fpucw_mxcsr, sizeof(aco_gtls_fpucw_mxcsr));
  co->co_fp = co_fp;

  const size_t capacity = save_stack_size == 0 ? kDefaultSaveStackSize : save_stack_size;
  co->save_stack.buffer = static_cast<char*>(std::malloc(capacity));
  if (co->save_stack.buffer == nullptr) allocationFailed(kLineSaveStackBuffer, "aco_create");
  co->save_stack.capacity = capacity;
  co->save_stack.valid_size = 0;
#if KELVO_ASAN || KELVO_TSAN
  registerFiber(co);
#endif
  return co;
}

void aco_resume(aco_coroutine* co) {
  abortUnless(co != nullptr && co->main_co != nullptr && co->is_end == 0);
  aco_share_stack* s = co->share_stack;
#if KELVO_ASAN || KELVO_TSAN
  if (s->owner != co) handOverShareStack(co, s);
  aco_coroutine* main_co = co->main_co;
  aco_gtls_co = co;
  switchInto(main_co, co);
  aco_gtls_co = main_co;
#else
  // acosw makes `co` current, and the switch back to the main coroutine (yield, exit, or a
  // plain acosw) makes the main coroutine current again: nothing is left to do afterwards, so
  // both paths end in a tail call and the coroutine's switch back lands directly in our caller.
  if (__builtin_expect(s->owner != co, 0)) return handOverAndSwitch(co);
  kelvo_acosw_local(co->main_co, co);
#endif
}

void aco_destroy(aco_coroutine* co) {
  abortUnless(co != nullptr);
  if (co->main_co != nullptr) {
    aco_share_stack* s = co->share_stack;
    if (s->owner == co) {
      s->owner = nullptr;
      s->valid_size = 0;
    }
    std::free(co->save_stack.buffer);
#if KELVO_ASAN || KELVO_TSAN
    unregisterFiber(co);
#endif
  }
  std::free(co);
}

}  // extern "C"
