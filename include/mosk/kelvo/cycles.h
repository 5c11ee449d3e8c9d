// Cycles: the library's fine-grained clock, built on the x86-64 time-stamp counter.
//
// Cycles::rdtsc() reads the counter (a few nanoseconds, no system call). The conversions turn
// counter differences into seconds, milliseconds, microseconds and nanoseconds and back. The
// cycles-per-second factor is calibrated against the wall clock once, while the library is
// being loaded (a busy measurement of at least about 20 ms), so it is ready before user code
// runs.
//
// Rounding, by design: toNanoseconds() and the from-conversions round to nearest; toSeconds()
// does not round; toMicroseconds() and toMilliseconds() truncate the already-rounded
// nanosecond count. Every conversion takes a trailing cycles-per-second factor: 0 means the
// calibrated Cycles::cyclesPerSec, anything else is used as given. Counts at or above 2^63
// convert as the unsigned values they are.
//
// The mock fields (mockCyclesPerSec, mockTscValue) are storage for callers' own test doubles:
// no function of this class consults them, and rdtsc() is always a real counter read.
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
  // Test hooks for callers; never consulted by this class.
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

  static double toSeconds(uint64_t cycles, double cyclesPerSec = 0);
  static uint64_t fromSeconds(double seconds, double cyclesPerSec = 0);
  static uint64_t fromMilliseconds(uint64_t ms, double cyclesPerSec = 0);
  static uint64_t fromMicroseconds(uint64_t us, double cyclesPerSec = 0);
  static uint64_t fromNanoseconds(uint64_t ns, double cyclesPerSec = 0);
  static uint64_t toNanoseconds(uint64_t cycles, double cyclesPerSec = 0);
  static uint64_t toMicroseconds(uint64_t cycles, double cyclesPerSec = 0);
  static uint64_t toMilliseconds(uint64_t cycles, double cyclesPerSec = 0);

  // Busy-waits `us` microseconds on the counter: never yields, makes no system call.
  static void sleep(uint64_t us);

  // Microseconds since the library was loaded.
  static uint64_t elapse();
};

}  // namespace kelvo
}  // namespace mosk

#endif  // MOSK_KELVO_CYCLES_H_
