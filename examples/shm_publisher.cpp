// kelvo-shm-publisher: writes a sample (sequence number, TSC stamp, payload) into a topic at
// 1 kHz from a PeriodicThread task and wakes the topic's waiters after each one.
//
//   kelvo-shm-publisher [--topic NAME] [--seconds N]
//
// The task only tries the write lock: when a reader holds it, that period's sample is skipped
// (and counted) rather than waiting in the real-time loop. At the end the publisher removes the
// topic, which is how subscribers learn that it is gone (their next wait returns -1). Needs
// SCHED_FIFO (root or CAP_SYS_NICE); exits with 77 without it.
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "mosk/kelvo/cycles.h"
#include "mosk/kelvo/shm.h"
#include "mosk/kelvo/thread.h"
#include "shm_sample.h"

namespace {

using mosk::kelvo::Cycles;
using mosk::kelvo::PeriodicThread;
using mosk::kelvo::ScheduleMethod;
using shm_example::Sample;

constexpr unsigned kPeriodUs = 1000;
constexpr int kPriority = 80;
constexpr int kNotRunnable = 77;

std::atomic<bool> interrupted{false};

void onSignal(int) { interrupted = true; }

bool mayUseSchedFifo() {
  // Without the privilege PeriodicThread has no thread and addTask() would wait for ever.
  int result = -1;
  std::thread([&] { result = mosk::kelvo::setPriority(kPriority); }).join();
  return result == 0;
}

// Runs on the real-time thread: no allocation, no system call beyond the notify's futex.
struct Publisher {
  void* mem;
  uint64_t sequence = 0;
  std::atomic<uint64_t> published{0};
  std::atomic<uint64_t> skippedBusy{0};
  std::atomic<uint64_t> notifyLost{0};

  void publishOne() {
    if (shm_wrlock(mem) != 0) {
      skippedBusy.fetch_add(1, std::memory_order_relaxed);
      return;
    }
    Sample sample;
    sample.sequence = ++sequence;
    std::snprintf(sample.payload, sizeof sample.payload, "sample %llu",
                  static_cast<unsigned long long>(sample.sequence));
    sample.tsc = Cycles::rdtsc();
    std::memcpy(mem, &sample, sizeof sample);
    shm_wrunlock(mem);
    published.fetch_add(1, std::memory_order_relaxed);
    if (shm_notify(mem) != 0) notifyLost.fetch_add(1, std::memory_order_relaxed);
  }
};

// Removes the topic, its key file and directory; subscribers still attached see it go.
void removeTopic(const std::string& topic) {
  shm_rm_by_topic(topic.c_str());
  std::string dir = "/tmp/topics/" + topic;
  unlink((dir + "/shmkey").c_str());
  rmdir(dir.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  shm_example::Options options;
  if (!shm_example::parseOptions("kelvo-shm-publisher", argc, argv, &options)) return 2;
  if (!mayUseSchedFifo()) {
    std::printf("kelvo-shm-publisher needs SCHED_FIFO: run it as root or grant CAP_SYS_NICE.\n");
    return kNotRunnable;
  }
  signal(SIGINT, onSignal);
  signal(SIGTERM, onSignal);

  Publisher publisher{shm_connect_by_topic(options.topic.c_str(), sizeof(Sample))};
  std::printf("kelvo-shm-publisher: topic '%s', 1 kHz for %d s\n", options.topic.c_str(),
              options.seconds);
  std::fflush(stdout);

  PeriodicThread thread(kPeriodUs, "publisher", ScheduleMethod::Sequential, -1, kPriority);
  thread.addTask(
      "publish", [&publisher] { publisher.publishOne(); }, 0, 500);
  thread.start(/*limitUs=*/900);
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(options.seconds);
  while (!interrupted && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  thread.stop();  // always stop and join: the destructor does neither
  thread.join();

  removeTopic(options.topic);
  std::printf(
      "published %llu samples, %llu periods skipped (reader held the lock), %llu notifies "
      "lost (a waiter was entering its wait)\n",
      static_cast<unsigned long long>(publisher.published.load()),
      static_cast<unsigned long long>(publisher.skippedBusy.load()),
      static_cast<unsigned long long>(publisher.notifyLost.load()));
  return 0;
}
