// How the shared-stack coroutine runtime copies stack bytes between a share stack and a
// coroutine's save stack (aco.cpp): the short copies of a shallow yield without a call, and
// every copy without AddressSanitizer's checks, which would trip over the redzones inside the
// frames being moved. Private to the library.
//
// Threading rules: none; callers copy the stacks of their own thread's coroutines.
#ifndef KELVO_SRC_ACO_STACK_COPY_H_
#define KELVO_SRC_ACO_STACK_COPY_H_

#include <emmintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "sanitizer_fiber.h"

namespace mosk {
namespace kelvo {
namespace internal {

// A plain forward copy. Under ASan it must not go through the intercepted memcpy, which would
// check the source range and trip over the redzones inside the frames being saved.
KELVO_NO_ASAN inline void copyBytes(void* dst, const void* src, size_t n) {
#if KELVO_ASAN
  __asm__ volatile("rep movsb" : "+D"(dst), "+S"(src), "+c"(n) : : "memory");
#else
  std::memcpy(dst, src, n);
#endif
}

// Copies a saved stack. A shallow yield leaves a region that starts 8 bytes below a 16-byte
// boundary (the return slot is 8 below the aligned top): 16k + 8 bytes between two 16-byte
// aligned addresses. Those up to 136 bytes are moved with aligned 16-byte loads and stores
// plus one final 8-byte move, without a call; everything else goes to memcpy.
KELVO_NO_ASAN inline void copyStack(void* dst, const void* src, size_t n) {
  const uintptr_t alignment = reinterpret_cast<uintptr_t>(dst) | reinterpret_cast<uintptr_t>(src);
  if ((alignment & 15) == 0 && n <= 136 && (n & 15) == 8) {
    __m128i* d = static_cast<__m128i*>(dst);
    const __m128i* s = static_cast<const __m128i*>(src);
    switch (n >> 4) {
      case 8:
        _mm_store_si128(d + 7, _mm_load_si128(s + 7));
        [[fallthrough]];
      case 7:
        _mm_store_si128(d + 6, _mm_load_si128(s + 6));
        [[fallthrough]];
      case 6:
        _mm_store_si128(d + 5, _mm_load_si128(s + 5));
        [[fallthrough]];
      case 5:
        _mm_store_si128(d + 4, _mm_load_si128(s + 4));
        [[fallthrough]];
      case 4:
        _mm_store_si128(d + 3, _mm_load_si128(s + 3));
        [[fallthrough]];
      case 3:
        _mm_store_si128(d + 2, _mm_load_si128(s + 2));
        [[fallthrough]];
      case 2:
        _mm_store_si128(d + 1, _mm_load_si128(s + 1));
        [[fallthrough]];
      case 1:
        _mm_store_si128(d + 0, _mm_load_si128(s + 0));
        [[fallthrough]];
      default:
        break;
    }
    const size_t tail = n - 8;
    uint64_t last;
    __builtin_memcpy(&last, static_cast<const char*>(src) + tail, 8);
    __builtin_memcpy(static_cast<char*>(dst) + tail, &last, 8);
    return;
  }
  copyBytes(dst, src, n);
}

}  // namespace internal
}  // namespace kelvo
}  // namespace mosk

#endif  // KELVO_SRC_ACO_STACK_COPY_H_
