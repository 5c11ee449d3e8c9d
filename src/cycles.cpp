// The time-stamp-counter clock: load-time calibration, the busy-wait and the load-time origin.
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
// Kept: storage for callers' test doubles that nothing in this class reads.
double Cycles::mockCyclesPerSec = 0;
uint64_t Cycles::mockTscValue = 0;

namespace {

// Lines reported when the wall clock cannot be read during calibration, at the start and at the
// stop of a measurement. Frozen (the line rule of kelvo_assert.h): users and tests match them in
// the message, so they stay as they are whatever moves in this file.
constexpr int kLineStartClockRead = 136;
constexpr int kLineStopClockRead = 142;

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
    if (gettimeofday(&startTime, nullptr) != 0) clockFailed(kLineStartClockRead);
    const uint64_t startCycles = rdtsc();
    uint64_t stopCycles, micros;
    do {
      if (gettimeofday(&stopTime, nullptr) != 0) clockFailed(kLineStopClockRead);
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

// Kept: spins rather than sleeps, trading a busy core for microsecond precision.
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
