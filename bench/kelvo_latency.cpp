// kelvo-latency: wake-up latency of a PeriodicThread, measured the way cyclictest measures its
// own threads (how late each wake-up comes after its absolute deadline), with the same set-up:
// memory locked and the DMA latency target held at 0 (PeriodicThread::setLatencyTarget()).
//
//   kelvo-latency [-i period_us] [-p priority] [-a cpu] [-D seconds] [-h buckets]
//
// Prints the sample count and min, p50, p99, p99.9 and max in microseconds, one line:
//   kelvo  samples=9999 min=2.1 p50=3.4 p99=6.0 p99.9=9.8 max=21.3 (us)
// With -h, standard output carries instead the histogram in cyclictest's -h format (one line
// per microsecond bucket, then cyclictest's summary lines; see cyclictest_histogram.h), and the
// line above goes to standard error.
#include <getopt.h>
#include <mosk/kelvo.h>
#include <sched.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "cyclictest_histogram.h"

namespace {

struct Options {
  unsigned periodUs = 1000;
  int priority = 80;
  int cpu = -1;
  int seconds = 10;
  size_t histogramBuckets = 0;  // 0: no histogram
};

const char* program = "kelvo-latency";

[[noreturn]] void usage() {
  std::fprintf(stderr,
               "usage: %s [-i period_us] [-p priority] [-a cpu] [-D seconds] [-h buckets]\n",
               program);
  std::exit(2);
}

// The whole of `text` as a decimal number within [low, high]; otherwise names the option and
// its accepted range, and exits with 2.
long parseNumber(char option, const char* text, long low, long high, const char* what) {
  errno = 0;
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || value < low || value > high) {
    std::fprintf(stderr, "%s: invalid -%c '%s': %s must be a whole number from %ld to %ld\n",
                 program, option, text, what, low, high);
    std::exit(2);
  }
  return value;
}

bool cpuIsAllowed(int cpu) {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  return sched_getaffinity(0, sizeof(allowed), &allowed) == 0 && cpu < CPU_SETSIZE &&
         CPU_ISSET(cpu, &allowed);
}

Options parse(int argc, char** argv) {
  Options options;
  int option;
  while ((option = getopt(argc, argv, "i:p:a:D:h:")) != -1) {
    switch (option) {
      case 'i':
        options.periodUs =
            static_cast<unsigned>(parseNumber('i', optarg, 1, 1000000, "the period in us"));
        break;
      case 'p':
        options.priority =
            static_cast<int>(parseNumber('p', optarg, 1, 99, "the SCHED_FIFO priority"));
        break;
      case 'a':
        options.cpu = static_cast<int>(parseNumber('a', optarg, 0, CPU_SETSIZE - 1, "the CPU"));
        if (!cpuIsAllowed(options.cpu)) {
          std::fprintf(stderr,
                       "%s: invalid -a '%s': CPU %d does not exist or is not allowed "
                       "for this process (see taskset -p $$)\n",
                       program, optarg, options.cpu);
          std::exit(2);
        }
        break;
      case 'D':
        options.seconds =
            static_cast<int>(parseNumber('D', optarg, 1, 86400, "the duration in seconds"));
        break;
      case 'h':
        options.histogramBuckets = static_cast<size_t>(
            parseNumber('h', optarg, 1, 1000000, "the number of histogram buckets"));
        break;
      default:
        usage();
    }
  }
  if (optind != argc) {
    std::fprintf(stderr, "%s: unexpected argument '%s'\n", program, argv[optind]);
    usage();
  }
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  using mosk::kelvo::PeriodicThread;
  const Options options = parse(argc, argv);
  int allowed = -1;
  std::thread([&] { allowed = mosk::kelvo::setPriority(options.priority); }).join();
  if (allowed != 0) {
    std::fprintf(stderr, "kelvo-latency needs SCHED_FIFO: run it as root or grant CAP_SYS_NICE\n");
    return 1;
  }
  mlockall(MCL_CURRENT | MCL_FUTURE);  // as cyclictest -m does
  // Hold the CPUs out of deep idle states for the whole run, as cyclictest does by default:
  // the descriptor stays open inside the library until the process exits.
  PeriodicThread::setLatencyTarget();

  std::vector<uint64_t> samples(
      static_cast<size_t>(options.seconds) * 1000000 / std::max(options.periodUs, 1u) + 16);
  std::atomic<size_t> count{0};
  PeriodicThread thread(options.periodUs, "kelvo-latency", mosk::kelvo::ScheduleMethod::Sequential,
                        options.cpu, options.priority);
  if (const int error = thread.getCreationError()) {
    std::fprintf(stderr, "%s: cannot create the thread (priority -p %d, CPU -a %d): %s\n", program,
                 options.priority, options.cpu, std::strerror(error));
    return 1;
  }
  thread.addTask(
      "sample",
      [&] {
        const size_t n = count.load(std::memory_order_relaxed);
        if (n >= samples.size()) return;
        const int64_t latency = thread.getWakeStatistics().lastLatencyNs;
        samples[n] = static_cast<uint64_t>(std::max<int64_t>(latency, 0));
        count.store(n + 1, std::memory_order_relaxed);
      },
      0, 1000000);
  thread.start(0);
  std::this_thread::sleep_for(std::chrono::seconds(options.seconds));
  thread.stop();
  thread.join();

  const size_t n = std::min(count.load(), samples.size());
  if (n == 0) {
    std::printf("kelvo  samples=0\n");
    return 1;
  }
  // Before the statistics, which sort the samples: the histogram lists overflows by cycle.
  if (options.histogramBuckets > 0) {
    kelvo_bench::writeCyclictestHistogram(stdout, samples.data(), n, options.histogramBuckets);
  }
  const mosk::kelvo::Statistics s = mosk::kelvo::computeStatistics(samples.data(), n);
  std::FILE* summary = options.histogramBuckets > 0 ? stderr : stdout;
  std::fprintf(summary,
               "kelvo       samples=%zu min=%.1f p50=%.1f p99=%.1f p99.9=%.1f max=%.1f (us)\n", n,
               s.min / 1e3, s.p50 / 1e3, s.p99 / 1e3, s.p999 / 1e3, s.max / 1e3);

  return 0;
}
