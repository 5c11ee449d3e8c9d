// Measurement helpers and general utilities.
//
// Statistics: computeStatistics reduces an array of unsigned 64-bit samples (cycle counts or any
// unit) to a Statistics record: count, integer mean and standard deviation, minimum, median,
// deciles, the 99th, 99.9th and 99.99th percentiles and the maximum. The samples are sorted in
// place. Percentile p is the sorted sample at index (int)(p * count) (a 64-bit index from 2^31
// samples up, where a 32-bit one would be negative); the median is the sample at index
// count / 2 (the upper middle one for an even count), so p50 equals the median.
// transformStatistics maps a record through a unit conversion (count is kept). printStatistics
// prints a record as a CSV row on standard output, preceded once per process by the header
// "Benchmark,Count,Avg,Stddev,Median,Min,99%,99.9%,99.99%,Max"; its second form also writes the
// sorted raw samples, one per line, to "<dir>/<name>". printHistogram prints fixed-width
// buckets. bench times a function with the time-stamp counter; manualBench lets the function
// store its own measurement.
//
// File-system and version helpers: mkdir_p creates a directory with its missing ancestors,
// ensureParents creates the directories a file path needs, versionIntToString renders an
// encoded version (major * 1000000 + minor * 1000 + patch) as "major.minor.patch".
//
// Threading: no shared state except the "header printed" flag of printStatistics, which is not
// guarded (two threads printing their first rows at once may both print the header). Every
// other function may be called from any thread. None of them belongs in a real-time loop:
// they sort, allocate and print.
#ifndef MOSK_KELVO_PERF_H_
#define MOSK_KELVO_PERF_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "mosk/kelvo/export.h"

namespace mosk {
namespace kelvo {

// Reduction of a sample set. An aggregate: fields in this order, no constructors.
struct KELVO_EXPORT Statistics {
  uint64_t count;
  uint64_t average;  // integer mean (the sum wraps in 64 bits)
  uint64_t stddev;   // integer standard deviation around the integer mean
  uint64_t min;
  uint64_t median;  // sample at index count / 2
  uint64_t p10;
  uint64_t p20;
  uint64_t p30;
  uint64_t p40;
  uint64_t p50;
  uint64_t p60;
  uint64_t p70;
  uint64_t p80;
  uint64_t p90;
  uint64_t p99;
  uint64_t p999;
  uint64_t p9999;
  uint64_t max;
};

// qsort comparator for uint64_t: -1, 0 or 1, ascending.
KELVO_EXPORT int compare(const void* a, const void* b);

// Sorts `samples` ascending in place and reduces them. With count 0 the samples are untouched
// and every field of the result is 0; pass at least one sample for meaningful figures.
KELVO_EXPORT Statistics computeStatistics(uint64_t* samples, size_t count);

// `s` with every field but count replaced by f(field), in field order (average ... max).
KELVO_EXPORT Statistics transformStatistics(Statistics s,
                                            const std::function<uint64_t(uint64_t)>& f);

// Prints "name,count,average,stddev,median,min,p99,p999,p9999,max\n" to standard output, after
// the CSV header if this is the process's first row. Returns printf's result.
KELVO_EXPORT int printStatistics(const char* name, Statistics s);

// computeStatistics (sorting the samples), then the row above. If `dir` is not null, also
// writes the sorted samples as "%lu\n" lines to the file "<dir>/<name>" (path cut to 1023
// characters), creating its parent directories with mode 0700 and truncating the file. A file
// that cannot be opened is skipped silently.
KELVO_EXPORT void printStatistics(const char* name, uint64_t* samples, size_t count,
                                  const char* dir);

// Prints a histogram of `samples` with buckets of `width` from `min` up to `max`:
// "b-b+width: n" for every bucket start b below max, then "max+: n" for the overflow. Samples
// below min count in the first bucket. If (max - min) is not a multiple of width, the last
// bucket shares its counter with the overflow line, which then shows the same number (every
// sample from that bucket's start up). If max <= min, every sample is overflow and only the
// "max+" line is printed. A width of 0 prints nothing.
KELVO_EXPORT void printHistogram(uint64_t* samples, uint64_t count, uint64_t min, uint64_t max,
                                 uint64_t width);

// Calls fn `reps` times, timing each call with Cycles::rdtsc(), and reduces the cycle counts.
// No warm-up: the first call counts. A negative reps throws std::bad_array_new_length.
KELVO_EXPORT Statistics bench(std::function<void()> fn, int reps);

// Calls fn `reps` times with the address of a zeroed slot, in order, for fn to store its own
// measurement; reduces the slots. A negative reps throws std::bad_array_new_length.
KELVO_EXPORT Statistics manualBench(std::function<void(uint64_t*)> fn, int reps);

// Creates `path` and every missing ancestor with `mode`. Returns 0 on success, also when the
// directory exists already; -1 with errno set on failure. An existing non-directory entry on
// the way is accepted by the walk, so the failure surfaces at the next level. Paths longer
// than 4095 characters fail with ENAMETOOLONG and create nothing. An empty path fails with
// errno ENOENT (it is handed to mkdir, which refuses it).
KELVO_EXPORT int mkdir_p(const char* path, uint32_t mode);

// Creates the directories that the file `path` needs: mkdir_p of everything before the last
// '/'. A path without a '/' after its first character is itself created as a directory (so
// "results.csv" becomes a directory), and a trailing '/' counts as the separator ("a/b/"
// creates a/b). Returns mkdir_p's result.
KELVO_EXPORT int ensureParents(const char* path, uint32_t mode);

// "%d.%d.%d" of version / 1000000, (version / 1000) % 1000 and version % 1000, with C++'s
// truncating division: 1002003 gives "1.2.3", 12034 gives "0.12.34", -1 gives "0.0.-1".
KELVO_EXPORT std::string versionIntToString(int version);

}  // namespace kelvo
}  // namespace mosk

#endif  // MOSK_KELVO_PERF_H_
