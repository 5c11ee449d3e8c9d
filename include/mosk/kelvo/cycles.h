// Cycles: the library's fine-grained clock, built on the x86-64 time-stamp counter.
//
// Cycles::rdtsc() reads the counter (a few nanoseconds, no system call). The conversions turn
// counter differences into seconds, milliseconds, microseconds and nanoseconds and back. The
// cycles-per-second factor is calibrated against the wall clock once, while the library is
// being loaded (a busy measurement of at least about 20 ms), so it is ready before user code
// runs.
//
// Kept: rounding differs by conversion: toNanoseconds() and the from-conversions round to nearest;
// toSeconds() does not round; toMicroseconds() and toMilliseconds() truncate the already-rounded
// nanosecond count. Every conversion takes a trailing cycles-per-second factor: 0 means the
// calibrated Cycles::cyclesPerSec, anything else is used as given. Counts at or above 2^63
// convert as the unsigned values they are.
//
// The mock fields (mockCyclesPerSec, mockTscValue) are storage for callers' own test doubles:
// no function of this class consults them, and rdtsc() is always a real counter read.
//
// Requires an x86-64 processor whose time-stamp counter runs at a constant rate and is
// synchronised across cores (an "invariant TSC", as on current processors): counter values
// read on different cores are compared directly, and there is no fallback clock for processors
// without one.
//
// Threading: after load-time calibration every field is read-only, so every function may be
// called from any thread, including real-time loops (no allocation, no lock, no system call).
#ifndef MOSK_KELVO_CYCLES_H_
#define MOSK_KELVO_CYCLES_H_

#include <cstdint>

#include "mosk/kelvo/export.h"

namespace mosk {
namespace kelvo {

class KELVO_EXPORT Cycles {
 public:
  Cycles() = delete;

  // Counter value at the start of calibration (library load); the origin of elapse().
  static uint64_t startTick;
  // Calibrated counter cycles per second; 0 until calibration.
  static double cyclesPerSec;
  // Kept: test hooks for callers, never consulted by this class.
  static double mockCyclesPerSec;
  static uint64_t mockTscValue;

  // Calibrates cyclesPerSec once per process; later calls return at once.
  static void init();

  // Reads the time-stamp counter. Not serialising: it may be reordered with neighbouring
  // instructions by a few cycles, which is below anything this library measures.
  static inline uint64_t rdtsc() {
    uint32_t low, high;
    __asm__ __volatile__("rdtsc" : "=a"(low), "=d"(high));
    return (static_cast<uint64_t>(high) << 32) | low;
  }

  // The conversions are inline: each is a handful of floating-point instructions, and a call
  // into the shared library would cost as much again.
  static double toSeconds(uint64_t cycles, double cyclesPerSec = 0) {
    return static_cast<double>(cycles) / factor(cyclesPerSec);
  }
  static uint64_t fromSeconds(double seconds, double cyclesPerSec = 0) {
    return toUnsigned(seconds * factor(cyclesPerSec) + 0.5);
  }
  static uint64_t fromMilliseconds(uint64_t ms, double cyclesPerSec = 0) {
    return toUnsigned(factor(cyclesPerSec) * static_cast<double>(ms) / 1e3 + 0.5);
  }
  static uint64_t fromMicroseconds(uint64_t us, double cyclesPerSec = 0) {
    return toUnsigned(factor(cyclesPerSec) * static_cast<double>(us) / 1e6 + 0.5);
  }
  static uint64_t fromNanoseconds(uint64_t ns, double cyclesPerSec = 0) {
    return toUnsigned(factor(cyclesPerSec) * static_cast<double>(ns) / 1e9 + 0.5);
  }
  static uint64_t toNanoseconds(uint64_t cycles, double cyclesPerSec = 0) {
    return toUnsigned(static_cast<double>(cycles) * 1e9 / factor(cyclesPerSec) + 0.5);
  }
  static uint64_t toMicroseconds(uint64_t cycles, double cyclesPerSec = 0) {
    return toNanoseconds(cycles, cyclesPerSec) / 1000;
  }
  static uint64_t toMilliseconds(uint64_t cycles, double cyclesPerSec = 0) {
    const uint64_t ns = toNanoseconds(cycles, cyclesPerSec);
    // Below 2^53 the nanosecond count is exact as a double and the truncated double quotient
    // equals the integer quotient, which costs a multiplication instead of a division.
    if (ns < (UINT64_C(1) << 53)) return ns / 1000000;
    return toUnsigned(static_cast<double>(ns) / 1e6);
  }

  // Busy-waits `us` microseconds on the counter: never yields, makes no system call.
  static void sleep(uint64_t us);

  // Microseconds since the library was loaded.
  static uint64_t elapse();

 private:
  // The factor a conversion uses: the calibrated rate when the argument is 0.
  static double factor(double cyclesPerSec) {
    return cyclesPerSec == 0 ? Cycles::cyclesPerSec : cyclesPerSec;
  }

  // Double to unsigned 64-bit as the hardware conversion sequence does it: values at or above
  // 2^63 lose 2^63, are truncated and get the top bit back; smaller values truncate through
  // the signed conversion (so a small negative value wraps). Values no conversion can hold
  // (NaN, below -2^63, at or above 2^64) give 2^63, the processor's "integer indefinite",
  // instead of undefined behaviour.
  static uint64_t toUnsigned(double value) {
    constexpr double kTwoToThe63 = 9223372036854775808.0;
    constexpr uint64_t kTopBit = UINT64_C(1) << 63;
    if (value >= kTwoToThe63) {
      if (value >= 2 * kTwoToThe63) return kTopBit;
      return static_cast<uint64_t>(static_cast<int64_t>(value - kTwoToThe63)) | kTopBit;
    }
    if (!(value > -kTwoToThe63)) return kTopBit;
    return static_cast<uint64_t>(static_cast<int64_t>(value));
  }
};

}  // namespace kelvo
}  // namespace mosk

#endif  // MOSK_KELVO_CYCLES_H_
