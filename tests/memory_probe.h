// What memory tests look at: the process's resident memory and the trace-ring registry, and
// whether a sanitizer (whose quarantine and shadow memory blur resident figures) is present.
#ifndef KELVO_TESTS_MEMORY_PROBE_H_
#define KELVO_TESTS_MEMORY_PROBE_H_

#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <mutex>

#include "mosk/kelvo/time_trace.h"

namespace mosk::kelvo::test_support {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// Resident memory of this process in bytes.
inline long residentBytes() {
  long pages = 0, resident = 0;
  if (FILE* file = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(file, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(file);
  }
  return resident * sysconf(_SC_PAGESIZE);
}

// Number of rings in the trace registry.
inline size_t registeredRings() {
  std::lock_guard<std::mutex> lock(TimeTrace::mutex);
  return TimeTrace::threadBuffers.size();
}

}  // namespace mosk::kelvo::test_support

#endif  // KELVO_TESTS_MEMORY_PROBE_H_
