// Measurement helpers and general utilities: statistics, histograms, micro-benchmarks, and
// file-system and version helpers.
#include "mosk/kelvo/perf.h"

#include <sys/stat.h>

#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>
#include <vector>

#include "mosk/kelvo/cycles.h"

namespace mosk {
namespace kelvo {

namespace {

constexpr size_t kMaxPath = 4096;

// mkdir that accepts an existing entry.
bool makeDirectory(const char* path, uint32_t mode) {
  return mkdir(path, static_cast<mode_t>(mode)) == 0 || errno == EEXIST;
}

// Sorted sample at fraction f of the count. The index is computed in double precision and
// truncated to 32 bits, which covers every count below 2^31; larger counts (16 GiB of samples)
// take a 64-bit index instead of wrapping to a negative one.
// Kept: the index is f x count, truncated, not a rank: of 100 samples p99 is the largest and
// p90 the 91st.
uint64_t percentile(const uint64_t* sorted, size_t count, double f) {
  const double index = f * static_cast<double>(count);
  if (count <= static_cast<size_t>(std::numeric_limits<int32_t>::max())) {
    return sorted[static_cast<int32_t>(index)];
  }
  return sorted[static_cast<size_t>(index)];
}

uint64_t absoluteDifference(uint64_t a, uint64_t b) { return a > b ? a - b : b - a; }

// Zeroed slots for `reps` measurements; `new[]` throws std::bad_array_new_length when reps < 0.
std::unique_ptr<uint64_t[]> allocateSlots(int reps) {
  return std::unique_ptr<uint64_t[]>(new uint64_t[reps]());
}

}  // namespace

int compare(const void* a, const void* b) {
  const uint64_t x = *static_cast<const uint64_t*>(a);
  const uint64_t y = *static_cast<const uint64_t*>(b);
  if (x < y) return -1;
  return x > y ? 1 : 0;
}

Statistics computeStatistics(uint64_t* samples, size_t count) {
  Statistics s{};
  if (count == 0) return s;
  std::qsort(samples, count, sizeof(uint64_t), compare);

  uint64_t sum = 0;
  for (size_t i = 0; i < count; ++i) sum += samples[i];
  s.count = count;
  s.average = sum / count;

  uint64_t sumOfSquares = 0;
  for (size_t i = 0; i < count; ++i) {
    const uint64_t difference = absoluteDifference(samples[i], s.average);
    sumOfSquares += difference * difference;
  }
  s.stddev = static_cast<uint64_t>(std::sqrt(static_cast<double>(sumOfSquares / count)));

  s.min = samples[0];
  s.median = samples[count / 2];
  s.p10 = percentile(samples, count, 0.1);
  s.p20 = percentile(samples, count, 0.2);
  s.p30 = percentile(samples, count, 0.3);
  s.p40 = percentile(samples, count, 0.4);
  s.p50 = percentile(samples, count, 0.5);
  s.p60 = percentile(samples, count, 0.6);
  s.p70 = percentile(samples, count, 0.7);
  s.p80 = percentile(samples, count, 0.8);
  s.p90 = percentile(samples, count, 0.9);
  s.p99 = percentile(samples, count, 0.99);
  s.p999 = percentile(samples, count, 0.999);
  s.p9999 = percentile(samples, count, 0.9999);
  s.max = samples[count - 1];
  return s;
}

Statistics transformStatistics(Statistics s, const std::function<uint64_t(uint64_t)>& f) {
  for (uint64_t* field :
       {&s.average, &s.stddev, &s.min, &s.median, &s.p10, &s.p20, &s.p30, &s.p40, &s.p50, &s.p60,
        &s.p70, &s.p80, &s.p90, &s.p99, &s.p999, &s.p9999, &s.max}) {
    *field = f(*field);
  }
  return s;
}

int printStatistics(const char* name, Statistics s) {
  static bool headerPrinted = false;
  if (!headerPrinted) {
    std::puts("Benchmark,Count,Avg,Stddev,Median,Min,99%,99.9%,99.99%,Max");
    headerPrinted = true;
  }
  return std::printf("%s,%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRIu64
                     ",%" PRIu64 ",%" PRIu64 ",%" PRIu64 "\n",
                     name, s.count, s.average, s.stddev, s.median, s.min, s.p99, s.p999, s.p9999,
                     s.max);
}

void printStatistics(const char* name, uint64_t* samples, size_t count, const char* dir) {
  printStatistics(name, computeStatistics(samples, count));
  if (dir == nullptr) return;
  char path[1024];
  std::snprintf(path, sizeof(path), "%s/%s", dir, name);
  ensureParents(path, 0700);
  FILE* file = std::fopen(path, "w");
  if (file == nullptr) return;
  for (size_t i = 0; i < count; ++i) std::fprintf(file, "%" PRIu64 "\n", samples[i]);
  std::fclose(file);
}

void printHistogram(uint64_t* samples, uint64_t count, uint64_t min, uint64_t max, uint64_t width) {
  if (width == 0) return;
  // Buckets 0 .. k-1, and k: the overflow counter (also the last bucket when the range is not a
  // multiple of the width).
  const uint64_t k = max > min ? (max - min) / width : 0;
  if (k == std::numeric_limits<uint64_t>::max()) throw std::length_error("printHistogram");
  std::vector<uint64_t> counters(k + 1, 0);
  for (uint64_t i = 0; i < count; ++i) {
    const uint64_t v = samples[i];
    if (max <= min) {
      ++counters[k];
    } else if (v < min || v - min < width) {
      ++counters[0];  // Kept: samples below min count in the first bucket, not apart
    } else {
      // The bucket that starts at or below v; overflow once bucket starts reach max.
      const uint64_t bucket = (v - min) / width;
      const uint64_t start = min + bucket * width;
      ++counters[start >= max ? k : bucket];
    }
  }
  for (uint64_t b = min; b < max; b += width) {
    std::printf("%" PRIu64 "-%" PRIu64 ": %" PRIu64 "\n", b, b + width,
                counters[(b - min) / width]);
    if (b > std::numeric_limits<uint64_t>::max() - width) break;  // the next start would wrap
  }
  std::printf("%" PRIu64 "+: %" PRIu64 "\n", max, counters[k]);
}

Statistics bench(std::function<void()> fn, int reps) {
  std::unique_ptr<uint64_t[]> slots = allocateSlots(reps);
  for (int i = 0; i < reps; ++i) {
    const uint64_t start = Cycles::rdtsc();
    fn();
    slots[i] = Cycles::rdtsc() - start;
  }
  return computeStatistics(slots.get(), static_cast<size_t>(reps));
}

Statistics manualBench(std::function<void(uint64_t*)> fn, int reps) {
  std::unique_ptr<uint64_t[]> slots = allocateSlots(reps);
  for (int i = 0; i < reps; ++i) fn(&slots[i]);
  return computeStatistics(slots.get(), static_cast<size_t>(reps));
}

int mkdir_p(const char* path, uint32_t mode) {
  errno = 0;
  const size_t length = std::strlen(path);
  if (length > kMaxPath - 1) {
    errno = ENAMETOOLONG;
    return -1;
  }
  char copy[kMaxPath];
  std::memcpy(copy, path, length + 1);
  // The first character is never a separator: a leading '/' must not create the root.
  for (size_t i = 1; i < length; ++i) {
    if (copy[i] != '/') continue;
    copy[i] = '\0';
    const bool made = makeDirectory(copy, mode);
    copy[i] = '/';
    if (!made) return -1;
  }
  return makeDirectory(copy, mode) ? 0 : -1;
}

// Kept: a path without a '/' after its first character is made a directory itself
// ("results.csv" becomes a directory), as callers of this helper have always had it.
int ensureParents(const char* path, uint32_t mode) {
  char* copy = strdup(path);
  if (copy == nullptr) return -1;
  for (size_t i = std::strlen(copy); i > 1; --i) {
    if (copy[i - 1] == '/') {
      copy[i - 1] = '\0';
      break;
    }
  }
  const int result = mkdir_p(copy, mode);
  std::free(copy);
  return result;
}

std::string versionIntToString(int version) {
  char text[20];
  std::snprintf(text, sizeof(text), "%d.%d.%d", version / 1000000, (version / 1000) % 1000,
                version % 1000);
  return text;
}

}  // namespace kelvo
}  // namespace mosk
