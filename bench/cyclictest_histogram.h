// Latency histogram in cyclictest's -h format, so that the plotting scripts people already use
// for cyclictest read kelvo-latency's output unchanged.
//
// One line per microsecond bucket, "%06u %06u" (bucket, count), for buckets 0 to buckets - 1,
// after a "# Histogram" line; then cyclictest's summary lines for one thread: the total of the
// counted samples, the minimum, average and maximum latency in whole microseconds, the number
// of samples beyond the last bucket, and the cycle numbers (sample indexes from 0) of the first
// `buckets` of those, followed by " # NNNNN others" when there are more. Latencies are cut to
// whole microseconds, as cyclictest's are; the average is the mean of those, rounded down.
// Writing happens after the measurement, never in the real-time path.
#ifndef KELVO_BENCH_CYCLICTEST_HISTOGRAM_H_
#define KELVO_BENCH_CYCLICTEST_HISTOGRAM_H_

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <vector>

namespace kelvo_bench {

// Writes the histogram of `n` latencies (nanoseconds, in cycle order) with `buckets` buckets.
inline void writeCyclictestHistogram(std::FILE* out, const uint64_t* latencyNs, size_t n,
                                     size_t buckets) {
  std::vector<uint64_t> counts(buckets, 0);
  std::vector<size_t> overflowCycles;
  uint64_t counted = 0;
  uint64_t sumUs = 0;
  uint64_t minUs = n > 0 ? UINT64_MAX : 0;
  uint64_t maxUs = 0;
  for (size_t cycle = 0; cycle < n; ++cycle) {
    const uint64_t us = latencyNs[cycle] / 1000;
    sumUs += us;
    minUs = std::min(minUs, us);
    maxUs = std::max(maxUs, us);
    if (us < buckets) {
      ++counts[us];
      ++counted;
    } else {
      overflowCycles.push_back(cycle);
    }
  }
  std::fprintf(out, "# Histogram\n");
  for (size_t bucket = 0; bucket < buckets; ++bucket) {
    std::fprintf(out, "%06zu %06llu\n", bucket, static_cast<unsigned long long>(counts[bucket]));
  }
  std::fprintf(out, "# Total: %09llu\n", static_cast<unsigned long long>(counted));
  std::fprintf(out, "# Min Latencies: %05llu\n", static_cast<unsigned long long>(minUs));
  std::fprintf(out, "# Avg Latencies: %05llu\n",
               static_cast<unsigned long long>(n > 0 ? sumUs / n : 0));
  std::fprintf(out, "# Max Latencies: %05llu\n", static_cast<unsigned long long>(maxUs));
  std::fprintf(out, "# Histogram Overflows: %05zu\n", overflowCycles.size());
  std::fprintf(out, "# Histogram Overflow at cycle number:\n# Thread 0:");
  const size_t listed = std::min(overflowCycles.size(), buckets);
  for (size_t i = 0; i < listed; ++i) std::fprintf(out, " %05zu", overflowCycles[i]);
  if (overflowCycles.size() > listed) {
    std::fprintf(out, " # %05zu others", overflowCycles.size() - listed);
  }
  std::fprintf(out, "\n\n");
}

}  // namespace kelvo_bench

#endif  // KELVO_BENCH_CYCLICTEST_HISTOGRAM_H_
