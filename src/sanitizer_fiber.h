// Telling AddressSanitizer and ThreadSanitizer about switches between stacks, for both
// coroutine runtimes (aco.cpp and co.cpp). Detects the sanitizers once, for GCC and Clang
// alike, and wraps their fiber interfaces in functions that are empty in plain builds, so that
// callers need no conditional code around them.
//
// AddressSanitizer: a switch is announced with startSwitch() on the old stack and completed with
// finishSwitch() on the new one. The fake-stack slot given to startSwitch() keeps the leaving
// side's fake stack while it is away (null: the leaving side never comes back); finishSwitch()
// restores the arriving side's and reports the bounds of the stack just left.
// ThreadSanitizer: each coroutine runs as a fiber of its own, entered with switchToFiber().
#ifndef KELVO_SRC_SANITIZER_FIBER_H_
#define KELVO_SRC_SANITIZER_FIBER_H_

#include <cstddef>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) && !defined(__SANITIZE_ADDRESS__)
#define __SANITIZE_ADDRESS__ 1
#endif
#if __has_feature(thread_sanitizer) && !defined(__SANITIZE_THREAD__)
#define __SANITIZE_THREAD__ 1
#endif
#endif

#if defined(__SANITIZE_ADDRESS__)
#define KELVO_ASAN 1
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#include <sanitizer/lsan_interface.h>
// For code that must read memory ASan considers out of bounds (whole stack frames).
#define KELVO_NO_ASAN __attribute__((no_sanitize_address))
#else
#define KELVO_ASAN 0
#define KELVO_NO_ASAN
#endif

#if defined(__SANITIZE_THREAD__)
#define KELVO_TSAN 1
#include <sanitizer/tsan_interface.h>
#else
#define KELVO_TSAN 0
#endif

namespace mosk {
namespace kelvo {
namespace internal {

inline void startSwitch([[maybe_unused]] void** fakeStackSave, [[maybe_unused]] const void* bottom,
                        [[maybe_unused]] size_t size) {
#if KELVO_ASAN
  __sanitizer_start_switch_fiber(fakeStackSave, bottom, size);
#endif
}

inline void finishSwitch([[maybe_unused]] void* fakeStack, [[maybe_unused]] const void** oldBottom,
                         [[maybe_unused]] size_t* oldSize) {
#if KELVO_ASAN
  __sanitizer_finish_switch_fiber(fakeStack, oldBottom, oldSize);
#endif
}

// A new ThreadSanitizer fiber (null in other builds).
inline void* createFiber([[maybe_unused]] const char* name) {
#if KELVO_TSAN
  void* fiber = __tsan_create_fiber(0);
  __tsan_set_fiber_name(fiber, name);
  return fiber;
#else
  return nullptr;
#endif
}

inline void destroyFiber([[maybe_unused]] void* fiber) {
#if KELVO_TSAN
  if (fiber != nullptr) __tsan_destroy_fiber(fiber);
#endif
}

inline void* currentFiber() {
#if KELVO_TSAN
  return __tsan_get_current_fiber();
#else
  return nullptr;
#endif
}

// Synchronising switch: what the leaving fiber did happens before what the arriving one does.
inline void switchToFiber([[maybe_unused]] void* fiber) {
#if KELVO_TSAN
  __tsan_switch_to_fiber(fiber, 0);
#endif
}

}  // namespace internal
}  // namespace kelvo
}  // namespace mosk

#endif  // KELVO_SRC_SANITIZER_FIBER_H_
