// Shared pieces of kelvo_topic_pingpong: what one measurement asks of its two worker processes,
// the block of shared memory through which they report, and the loops that both processes run
// for every transport, so that kelvo topics, iceoryx and the plain shm_* functions are timed by
// the same code.
//
// A transport is a "link": one writer and one reader end in each process. Its interface is
//   uint64_t* loan();                 where the next outgoing payload is written, in place
//   void send();                      make the loaned payload visible to the peer (and wake it)
//   const uint64_t* poll();           the next incoming payload, or null when none is there
//   void release();                   done reading what poll() returned
//   bool wait(uint64_t ns);           sleep until something may have come; false on time-out
//   uint64_t* local();                a private buffer for publish-under-load ...
//   uint64_t publishLocal();          ... published by copy; returns the retries it needed
//   const uint64_t* pollLatest();     newest payload for a reader at full speed, or null
//   uint64_t retries() const;         retries the link needed beyond publishLocal's (shm_* locks)
//
// Threading: each worker process is single-threaded; the shared block is written by both
// workers and read by the orchestrator only after both have exited, except the few atomic
// flags.
#ifndef KELVO_BENCH_TOPIC_PINGPONG_H_
#define KELVO_BENCH_TOPIC_PINGPONG_H_

#include <time.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "mosk/kelvo/cycles.h"

namespace pingpong {

using mosk::kelvo::Cycles;

enum class Transport { kKelvo, kIceoryx, kShm };
enum class Role { kPing = 0, kPong = 1 };  // publish-under-load: ping publishes, pong reads
enum class Measure { kPingPong, kPublishUnderLoad };

// One measurement block, as both workers see it.
struct CaseConfig {
  Transport transport = Transport::kKelvo;
  Measure measure = Measure::kPingPong;
  size_t payloadBytes = 64;  // 64 or 65536
  bool blocking = false;     // sleep in the transport's wait instead of spinning
  bool realtime = false;     // SCHED_FIFO at `priority`, ping on cpu[0], pong on cpu[1]
  int priority = 80;
  int cpu[2] = {0, 1};
  uint64_t rounds = 0;             // measured round trips, or publishes
  uint64_t warmup = 0;             // unmeasured ones first
  uint32_t kelvoDepth = 16;        // TopicOptions::depth of the kelvo topics
  uint64_t waitSliceNs = 1000000;  // one wait's time limit; the loop re-checks then
  double timeoutSeconds = 60;      // the worker gives up after this
  std::string name;                // unique per block: topic and service names derive from it
};

// Percentiles of a publish-time histogram, in cycles.
struct PublishFigures {
  uint64_t count, p50, p99, p999, p9999, max;
  uint64_t retries, worstRetries;  // summed over all publishes, and in one publish
};

// Anonymous shared mapping made by the orchestrator before it forks the two workers.
struct Shared {
  std::atomic<uint32_t> ready[2];
  std::atomic<uint32_t> stop;              // ping is done: pong leaves its loop
  std::atomic<uint32_t> rest;              // ping rests: pong sleeps too (see restIfAsked)
  std::atomic<uint64_t> missedWakeups[2];  // waits that timed out with data already there
  std::atomic<uint64_t> retries[2];        // lock and notify retries of the shm_* link
  std::atomic<uint64_t> reads, torn;       // publish under load: reader's counts
  PublishFigures publish;
  PublishFigures timerOnly;  // the same timing with nothing between the two stamps
  char error[2][256];
  uint64_t cycles[1];  // `rounds` round-trip times follow (the mapping is sized for them)

  static size_t bytesFor(uint64_t rounds) {
    return sizeof(Shared) + sizeof(uint64_t) * (rounds > 0 ? rounds - 1 : 0);
  }
};

// Runs one worker of one block; returns the process's exit code (0 ok, 1 failed with the reason
// in shared->error[role]). Defined per transport.
int runKelvoWorker(const CaseConfig& config, Role role, Shared* shared);
int runIceoryxWorker(const CaseConfig& config, Role role, Shared* shared);
int runShmWorker(const CaseConfig& config, Role role, Shared* shared);

// Records why this worker failed (the first reason only) and returns 1.
int fail(Shared* shared, Role role, const std::string& why);

// Payload: word i of round r is (r << 20) | i. Every word is written by the sender and checked
// by the receiver, so a torn or stale payload is caught and no transport skips the data.
constexpr unsigned kRoundShift = 20;  // payloads up to 2^20 words
inline void fillPayload(uint64_t* words, size_t count, uint64_t round) {
  const uint64_t base = round << kRoundShift;
  for (size_t i = 0; i < count; ++i) words[i] = base | i;
}
// The round the payload carries, or 0 when any word disagrees with the first.
inline uint64_t checkPayload(const uint64_t* words, size_t count) {
  const uint64_t base = words[0];
  uint64_t bad = base & ((uint64_t{1} << kRoundShift) - 1);
  for (size_t i = 0; i < count; ++i) bad |= words[i] ^ (base | i);
  return bad == 0 ? base >> kRoundShift : 0;
}

// Time limit of a worker, on the time-stamp counter (cheap enough to test inside spin loops).
class Deadline {
 public:
  explicit Deadline(double seconds) : end_(Cycles::rdtsc() + Cycles::fromSeconds(seconds)) {}
  bool passed() const { return Cycles::rdtsc() > end_; }

 private:
  uint64_t end_;
};

inline void sleepNanoseconds(uint64_t ns) {
  timespec t{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
  while (nanosleep(&t, &t) != 0) {
  }
}

// A SCHED_FIFO thread that spins for 950 ms of a second is stopped by the kernel's real-time
// throttling (sched_rt_runtime_us) for the rest of that second, which would show as one 50 ms
// sample. Spinners therefore rest 20 ms after every 200 ms of spinning, outside the
// measurement: ping sets `rest`, pong sleeps while it is set.
constexpr double kSpinSeconds = 0.2;
constexpr uint64_t kRestNs = 20000000;

inline void restIfAsked(Shared* shared) {
  while (shared->rest.load(std::memory_order_relaxed) != 0 &&
         shared->stop.load(std::memory_order_relaxed) == 0) {
    sleepNanoseconds(1000000);
  }
}

// Waits for the next payload: spinning on poll(), or sleeping in the link's wait between polls.
// Null when the deadline passed or ping said stop.
template <typename Link>
const uint64_t* receive(Link& link, const CaseConfig& config, Role role, Shared* shared,
                        const Deadline& deadline) {
  for (uint32_t spins = 1;; ++spins) {
    if (const uint64_t* payload = link.poll()) return payload;
    if (config.blocking) {
      bool woken = link.wait(config.waitSliceNs);
      if (const uint64_t* payload = link.poll()) {
        // A wait that timed out although the payload was there missed its wake-up.
        if (!woken) shared->missedWakeups[static_cast<int>(role)].fetch_add(1);
        return payload;
      }
    } else if (spins % 256 != 0) {
      continue;
    } else if (role == Role::kPong) {
      restIfAsked(shared);
    }
    if (deadline.passed() || shared->stop.load(std::memory_order_relaxed) != 0) return nullptr;
  }
}

// Ping: sends round r, waits for pong's answer carrying r, and stores the round-trip time.
template <typename Link>
int runPing(Link& link, const CaseConfig& config, Shared* shared) {
  const size_t words = config.payloadBytes / sizeof(uint64_t);
  const uint64_t restAfter = Cycles::fromSeconds(kSpinSeconds);
  Deadline deadline(config.timeoutSeconds);
  uint64_t spinStart = Cycles::rdtsc();
  uint64_t measured = 0;
  bool skipNext = false;  // the round after a rest wakes pong up; it is not measured
  for (uint64_t round = 1; measured < config.rounds; ++round) {
    uint64_t start = Cycles::rdtsc();
    fillPayload(link.loan(), words, round);
    link.send();
    const uint64_t* reply = receive(link, config, Role::kPing, shared, deadline);
    if (reply == nullptr) {
      return fail(shared, Role::kPing, "no reply to round " + std::to_string(round) + " in time");
    }
    uint64_t answered = checkPayload(reply, words);
    link.release();
    uint64_t end = Cycles::rdtsc();
    if (answered != round) {
      return fail(shared, Role::kPing, "round " + std::to_string(round) + ": wrong or torn reply");
    }
    if (round > config.warmup && !skipNext) shared->cycles[measured++] = end - start;
    skipNext = false;
    if (config.realtime && !config.blocking && end - spinStart > restAfter) {
      shared->rest.store(1);
      sleepNanoseconds(kRestNs);
      shared->rest.store(0);
      spinStart = Cycles::rdtsc();
      skipNext = true;
    }
  }
  shared->stop.store(1);
  return 0;
}

// Pong: answers every payload with the round it carried, until ping says stop.
template <typename Link>
int runPong(Link& link, const CaseConfig& config, Shared* shared) {
  const size_t words = config.payloadBytes / sizeof(uint64_t);
  Deadline deadline(config.timeoutSeconds);
  uint64_t last = 0;
  for (;;) {
    const uint64_t* payload = receive(link, config, Role::kPong, shared, deadline);
    if (payload == nullptr) {
      if (shared->stop.load() != 0) return 0;
      return fail(shared, Role::kPong, "no payload after round " + std::to_string(last));
    }
    uint64_t round = checkPayload(payload, words);
    link.release();
    if (round <= last) {
      return fail(shared, Role::kPong, "after round " + std::to_string(last) + ": torn or stale");
    }
    last = round;
    fillPayload(link.loan(), words, round);
    link.send();
  }
}

// Publish-time histogram with one bucket per cycle up to kBuckets; longer ones only count in
// max. Exact percentiles without storing ten million samples.
class CycleHistogram {
 public:
  static constexpr size_t kBuckets = size_t{1} << 20;
  CycleHistogram() : counts_(new uint32_t[kBuckets]()) {}
  ~CycleHistogram() { delete[] counts_; }
  CycleHistogram(const CycleHistogram&) = delete;
  CycleHistogram& operator=(const CycleHistogram&) = delete;

  void add(uint64_t cycles) {
    ++counts_[cycles < kBuckets ? cycles : kBuckets - 1];
    if (cycles > max_) max_ = cycles;
    ++count_;
  }
  PublishFigures figures() const;

 private:
  uint64_t percentile(double p) const;
  uint32_t* counts_;
  uint64_t max_ = 0;
  uint64_t count_ = 0;
};

// Publisher under load: publishes `rounds` samples back to back while pong reads at full
// speed, timing each publish on its own; rests like ping when real-time.
template <typename Link>
int runPublisher(Link& link, const CaseConfig& config, Shared* shared) {
  const size_t words = config.payloadBytes / sizeof(uint64_t);
  const uint64_t restAfter = Cycles::fromSeconds(kSpinSeconds);
  CycleHistogram times, timerOnly;
  uint64_t retries = 0, worstRetries = 0;
  uint64_t spinStart = Cycles::rdtsc();
  for (uint64_t round = 1; round <= config.warmup + config.rounds; ++round) {
    fillPayload(link.local(), words, round);
    uint64_t start = Cycles::rdtsc();
    uint64_t tries = link.publishLocal();
    uint64_t end = Cycles::rdtsc();
    uint64_t empty = Cycles::rdtsc();
    empty = Cycles::rdtsc() - empty;
    if (round <= config.warmup) continue;
    times.add(end - start);
    timerOnly.add(empty);
    retries += tries;
    if (tries > worstRetries) worstRetries = tries;
    if (config.realtime && end - spinStart > restAfter) {
      shared->rest.store(1);
      sleepNanoseconds(kRestNs);
      shared->rest.store(0);
      spinStart = Cycles::rdtsc();
    }
  }
  shared->stop.store(1);
  shared->publish = times.figures();
  shared->publish.retries = retries + link.retries();
  shared->publish.worstRetries = worstRetries;
  shared->timerOnly = timerOnly.figures();
  return 0;
}

// Reader at full speed: checks every sample it gets until the publisher stops.
template <typename Link>
int runReader(Link& link, const CaseConfig& config, Shared* shared) {
  const size_t words = config.payloadBytes / sizeof(uint64_t);
  Deadline deadline(config.timeoutSeconds);
  uint64_t reads = 0, torn = 0;
  for (uint32_t spins = 1; shared->stop.load(std::memory_order_relaxed) == 0; ++spins) {
    if (const uint64_t* payload = link.pollLatest()) {
      ++reads;
      if (checkPayload(payload, words) == 0) ++torn;
      link.release();
    }
    if (spins % 1024 != 0) continue;
    if (deadline.passed()) return fail(shared, Role::kPong, "the publisher did not finish in time");
    restIfAsked(shared);
  }
  shared->reads.store(reads);
  shared->torn.store(torn);
  return 0;
}

// Runs the side of the measurement that `role` names on a connected link.
template <typename Link>
int runRole(Link& link, const CaseConfig& config, Role role, Shared* shared) {
  if (config.measure == Measure::kPingPong) {
    return role == Role::kPing ? runPing(link, config, shared) : runPong(link, config, shared);
  }
  return role == Role::kPing ? runPublisher(link, config, shared) : runReader(link, config, shared);
}

// Base of the links whose publish of a prepared value is a copy into a loaned payload, and
// whose reader at full speed simply polls (CRTP: Link provides loan, send, poll, retries).
template <typename Link>
class CopyPublishing {
 public:
  explicit CopyPublishing(size_t bytes) : local_(bytes / sizeof(uint64_t)) {}

  uint64_t* local() { return local_.data(); }
  uint64_t publishLocal() {
    Link& link = static_cast<Link&>(*this);
    uint64_t before = link.retries();
    std::memcpy(link.loan(), local_.data(), local_.size() * sizeof(uint64_t));
    link.send();
    return link.retries() - before;
  }
  const uint64_t* pollLatest() { return static_cast<Link&>(*this).poll(); }

 private:
  std::vector<uint64_t> local_;
};

// Both workers have connected their ends: each marks itself ready and waits for the other, so
// that nothing is sent before the peer listens. False on time-out.
bool meetPeer(Role role, Shared* shared, double timeoutSeconds);

// Topic, segment and service names of one direction of a block ("<name>a": ping to pong, "<name>b":
// pong to ping).
inline std::string directionName(const CaseConfig& config, Role writer) {
  return config.name + (writer == Role::kPing ? "a" : "b");
}

}  // namespace pingpong

#endif  // KELVO_BENCH_TOPIC_PINGPONG_H_
