// The time-stamp-counter clock: load-time calibration and unit conversions.
#include "mosk/kelvo/cycles.h"

#include <sys/time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace mosk {
namespace kelvo {

uint64_t Cycles::startTick = 0;
double Cycles::cyclesPerSec = 0;
double Cycles::mockCyclesPerSec = 0;
uint64_t Cycles::mockTscValue = 0;

namespace {

constexpr double kTwoToThe63 = 9223372036854775808.0;

// Double to unsigned 64-bit as the hardware conversion sequence does it: values at or above
// 2^63 lose 2^63, are truncated and get the top bit back; smaller values truncate through the
// signed conversion (so a small negative value wraps). Values no signed conversion can hold
// (NaN, below -2^63) give the processor's "integer indefinite", 2^63, instead of undefined
// behaviour.
uint64_t toUnsigned(double value) {
  if (value >= kTwoToThe63) {
    if (value >= 2 * kTwoToThe63) return UINT64_C(1) << 63;
    return static_cast<uint64_t>(static_cast<int64_t>(value - kTwoToThe63)) | (UINT64_C(1) << 63);
  }
  if (!(value > -kTwoToThe63)) return UINT64_C(1) << 63;
  return static_cast<uint64_t>(static_cast<int64_t>(value));
}

double factor(double cyclesPerSec) {
  return cyclesPerSec == 0 ? Cycles::cyclesPerSec : cyclesPerSec;
}

[[noreturn]] void clockFailed(int line) {
  std::fprintf(stderr, "Cycles::init couldn't read clock: %s", std::strerror(errno));
  std::fprintf(stderr, "%s:%d\n", "src/cycles", line);
  std::abort();
}

}  // namespace

void Cycles::init() {
  if (cyclesPerSec != 0.0) return;
  startTick = rdtsc();
  double previous = 0.0;
  for (;;) {
    timeval startTime, stopTime;
    if (gettimeofday(&startTime, nullptr) != 0) clockFailed(136);
    const uint64_t startCycles = rdtsc();
    uint64_t stopCycles, micros;
    do {
      if (gettimeofday(&stopTime, nullptr) != 0) clockFailed(142);
      stopCycles = rdtsc();
      micros = static_cast<uint64_t>(stopTime.tv_sec - startTime.tv_sec) * 1000000 +
               static_cast<uint64_t>(stopTime.tv_usec) - static_cast<uint64_t>(startTime.tv_usec);
    } while (micros <= 10000);
    const double estimate =
        1e6 * static_cast<double>(stopCycles - startCycles) / static_cast<double>(micros);
    cyclesPerSec = estimate;
    const double delta = estimate / 1000.0;
    if (previous > estimate - delta && previous < estimate + delta) return;
    previous = estimate;
  }
}

double Cycles::toSeconds(uint64_t cycles, double cyclesPerSec) {
  return static_cast<double>(cycles) / factor(cyclesPerSec);
}

uint64_t Cycles::fromSeconds(double seconds, double cyclesPerSec) {
  return toUnsigned(seconds * factor(cyclesPerSec) + 0.5);
}

uint64_t Cycles::fromMilliseconds(uint64_t ms, double cyclesPerSec) {
  return toUnsigned(factor(cyclesPerSec) * static_cast<double>(ms) / 1e3 + 0.5);
}

uint64_t Cycles::fromMicroseconds(uint64_t us, double cyclesPerSec) {
  return toUnsigned(factor(cyclesPerSec) * static_cast<double>(us) / 1e6 + 0.5);
}

uint64_t Cycles::fromNanoseconds(uint64_t ns, double cyclesPerSec) {
  return toUnsigned(factor(cyclesPerSec) * static_cast<double>(ns) / 1e9 + 0.5);
}

uint64_t Cycles::toNanoseconds(uint64_t cycles, double cyclesPerSec) {
  return toUnsigned(static_cast<double>(cycles) * 1e9 / factor(cyclesPerSec) + 0.5);
}

uint64_t Cycles::toMicroseconds(uint64_t cycles, double cyclesPerSec) {
  return toNanoseconds(cycles, cyclesPerSec) / 1000;
}

uint64_t Cycles::toMilliseconds(uint64_t cycles, double cyclesPerSec) {
  return toUnsigned(static_cast<double>(toNanoseconds(cycles, cyclesPerSec)) / 1e6);
}

void Cycles::sleep(uint64_t us) {
  const uint64_t stop = rdtsc() + fromNanoseconds(us * 1000, 0);
  while (rdtsc() < stop) {
  }
}

uint64_t Cycles::elapse() { return toMicroseconds(rdtsc() - startTick, 0); }

namespace {
// Calibrates while the library is loaded, before any user code can ask for a conversion.
[[maybe_unused]] const bool calibrated = (Cycles::init(), true);
}  // namespace

}  // namespace kelvo
}  // namespace mosk
