// kelvo-shm-subscriber: waits for the samples of kelvo-shm-publisher, reads each one under the
// read lock and reports the publish-to-read latency percentiles and the samples it missed.
//
//   kelvo-shm-subscriber [--topic NAME] [--seconds N]
//
// It ends when the publisher removes the topic (the wait returns -1) or after N seconds
// (default 5). Each wait is bounded (100 ms), so the subscriber never blocks for ever; while no
// publisher runs the library prints "pthread_cond_timedwait: 110" after each empty wait.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

#include "mosk/kelvo/cycles.h"
#include "mosk/kelvo/perf.h"
#include "mosk/kelvo/shm.h"
#include "shm_sample.h"

namespace {

using mosk::kelvo::Cycles;
using shm_example::Sample;

constexpr int kWaitUs = 100000;
constexpr int kTopicRemoved = -1;

struct Tally {
  std::vector<uint64_t> latencyCycles;
  uint64_t lastSequence = 0;
  uint64_t missed = 0;
  uint64_t repeated = 0;
  uint64_t lockBusy = 0;
};

// Copies the current sample out under the read lock; false if a writer holds it.
bool readSample(void* mem, Sample* sample) {
  if (shm_rdlock(mem) != 0) return false;
  std::memcpy(sample, mem, sizeof *sample);
  shm_unlock(mem);
  return true;
}

void account(const Sample& sample, uint64_t nowTsc, Tally* tally) {
  if (sample.sequence == 0) return;  // nothing published yet
  if (sample.sequence == tally->lastSequence) {
    ++tally->repeated;  // woken without a new sample (a spurious wake-up)
    return;
  }
  if (tally->lastSequence != 0 && sample.sequence > tally->lastSequence + 1) {
    tally->missed += sample.sequence - tally->lastSequence - 1;
  }
  tally->lastSequence = sample.sequence;
  if (tally->latencyCycles.size() < tally->latencyCycles.capacity()) {
    tally->latencyCycles.push_back(nowTsc - sample.tsc);
  }
}

void printReport(Tally* tally) {
  size_t count = tally->latencyCycles.size();
  std::printf("received %zu samples, missed %llu, repeated %llu, read lock busy %llu\n", count,
              static_cast<unsigned long long>(tally->missed),
              static_cast<unsigned long long>(tally->repeated),
              static_cast<unsigned long long>(tally->lockBusy));
  if (count == 0) return;
  auto s = mosk::kelvo::computeStatistics(tally->latencyCycles.data(), count);
  auto us = [](uint64_t cycles) { return Cycles::toNanoseconds(cycles) / 1000.0; };
  std::printf(
      "publish-to-read latency (us): min %.1f  p50 %.1f  p90 %.1f  p99 %.1f  p99.9 %.1f  "
      "max %.1f\n",
      us(s.min), us(s.p50), us(s.p90), us(s.p99), us(s.p999), us(s.max));
}

}  // namespace

int main(int argc, char** argv) {
  shm_example::Options options;
  if (!shm_example::parseOptions("kelvo-shm-subscriber", argc, argv, &options)) return 2;
  void* mem = shm_connect_by_topic(options.topic.c_str(), sizeof(Sample));
  std::printf("kelvo-shm-subscriber: topic '%s', up to %d s\n", options.topic.c_str(),
              options.seconds);
  std::fflush(stdout);

  Tally tally;
  tally.latencyCycles.reserve(static_cast<size_t>(options.seconds) * 1000 + 1000);
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(options.seconds);
  bool removed = false;
  while (std::chrono::steady_clock::now() < end) {
    int rc = shm_timedwait(mem, kWaitUs);
    if (rc == kTopicRemoved) {
      removed = true;
      break;
    }
    if (rc != 0) continue;  // timed out, or the condition's mutex was busy
    uint64_t now = Cycles::rdtsc();
    Sample sample;
    if (!readSample(mem, &sample)) {
      ++tally.lockBusy;
      continue;
    }
    account(sample, now, &tally);
  }
  std::printf("%s\n", removed ? "topic removed by the publisher" : "time is up");
  printReport(&tally);
  return 0;
}
