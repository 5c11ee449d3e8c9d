// Torn-read stress: a publisher at full speed writes samples whose every word derives from their
// sequence, alternating publish() and loan(); subscribers on the other CPU check every sample
// latest() and take() return. Across processes (the publisher is a freshly exec'd helper) and
// across threads of one process (what ThreadSanitizer can watch).
//
// Sizes: 10 million samples across processes and 2 million across threads in the plain build;
// under the sanitizers, whose instrumentation slows every shared access tens of times, 1 million
// and 200,000 (AddressSanitizer) or 300,000 and 100,000 (ThreadSanitizer).
// KELVO_TOPIC_STRESS_SAMPLES=N runs N across processes instead (N/5 across threads).
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "mosk/kelvo/topic.h"
#include "topic_test_support.h"

namespace topictest {
namespace {

using mosk::kelvo::Publisher;
using mosk::kelvo::Sample;
using mosk::kelvo::Subscriber;
using mosk::kelvo::TopicOptions;

#if defined(__SANITIZE_THREAD__)
constexpr uint64_t kProcessSamples = 300'000;
constexpr uint64_t kThreadSamples = 100'000;
constexpr uint64_t kBigSamples = 3'000;
#elif defined(__SANITIZE_ADDRESS__)
constexpr uint64_t kProcessSamples = 1'000'000;
constexpr uint64_t kThreadSamples = 200'000;
constexpr uint64_t kBigSamples = 10'000;
#else
constexpr uint64_t kProcessSamples = 10'000'000;
constexpr uint64_t kThreadSamples = 2'000'000;
constexpr uint64_t kBigSamples = 50'000;
#endif

class TopicStressTest : public TopicTest {};

uint64_t processSamples() {
  const char* text = std::getenv("KELVO_TOPIC_STRESS_SAMPLES");
  const uint64_t samples = text == nullptr ? 0 : std::strtoull(text, nullptr, 10);
  return samples > 0 ? samples : kProcessSamples;
}

uint64_t threadSamples() {
  return std::getenv("KELVO_TOPIC_STRESS_SAMPLES") == nullptr ? kThreadSamples
                                                              : processSamples() / 5 + 1;
}

// Pins the calling thread to `cpu` when the machine has it.
void pinTo(int cpu) {
  if (cpu >= static_cast<int>(std::thread::hardware_concurrency())) return;
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

// Checks what one subscriber's latest() and take() return.
template <typename T>
struct Checker {
  explicit Checker(const std::string& topic, uint32_t depth = 16)
      : latestReader(topic, TopicOptions{depth}), takeReader(topic, TopicOptions{depth}) {}

  // One latest() and one take(); false when neither had anything.
  bool step() {
    Sample<T> sample;
    bool any = false;
    if (latestReader.latest(sample)) {
      any = true;
      ++latestReads;
      if (sequenceOf(sample.value) != sample.sequence) ++torn;
      if (sample.sequence < lastLatest) ++backwards;
      lastLatest = sample.sequence;
    }
    uint64_t lost = 0;
    if (takeReader.take(sample, &lost)) {
      any = true;
      ++taken;
      if (sequenceOf(sample.value) != sample.sequence) ++torn;
      if (sample.sequence != lastTaken + lost + 1) ++miscounted;
      lostTotal += lost;
      lastTaken = sample.sequence;
    }
    return any;
  }

  // Once the publisher has stopped: take() the rest, and latest() the newest.
  void drain() {
    for (int i = 0; i < 10'000'000 && lastTaken < takeReader.sequence(); ++i) step();
    step();
  }

  void expectClean(uint64_t published) {
    EXPECT_EQ(torn, 0u);
    EXPECT_EQ(backwards, 0u);
    EXPECT_EQ(miscounted, 0u);
    EXPECT_EQ(lastTaken, published);
    EXPECT_EQ(lastLatest, published);
    EXPECT_EQ(taken + lostTotal, published);
    EXPECT_GT(latestReads, 0u);
    std::printf(
        "%llu published; latest() read %llu, take() %llu (lost %llu); read failures %llu\n",
        static_cast<unsigned long long>(published), static_cast<unsigned long long>(latestReads),
        static_cast<unsigned long long>(taken), static_cast<unsigned long long>(lostTotal),
        static_cast<unsigned long long>(latestReader.readFailures() + takeReader.readFailures()));
  }

  Subscriber<T> latestReader;
  Subscriber<T> takeReader;
  uint64_t latestReads = 0, taken = 0, lostTotal = 0, torn = 0, backwards = 0, miscounted = 0;
  uint64_t lastLatest = 0, lastTaken = 0;
};

template <typename T>
void publishAlternating(Publisher<T>& publisher, uint64_t count) {
  for (uint64_t sequence = 1; sequence <= count; ++sequence) {
    if (sequence % 2 == 0) {
      publisher.publish(patternOf<T>(sequence));
    } else {
      fill(publisher.loan(), sequence);
      publisher.publishLoaned();
    }
  }
}

TEST_F(TopicStressTest, NoTornSampleAcrossProcesses) {
  const std::string name = topic();
  Checker<Pattern> checker(name);
  ASSERT_TRUE(checker.latestReader) << checker.latestReader.error();
  pinTo(1);
  shmtest::Child publisher;
  publisher.exec({KELVO_TOPIC_HELPER, "blast", name, std::to_string(processSamples()), "0"});
  ASSERT_EQ(publisher.readLine(), "connected");
  // Read until the last sample has come (or the publisher has ended without it).
  const uint64_t last = processSamples();
  for (uint64_t steps = 1; checker.takeReader.sequence() < last; ++steps) {
    checker.step();
    if (steps % 65536 == 0 && processEnded(publisher.pid())) break;
  }
  EXPECT_EQ(publisher.readLine(), "done " + std::to_string(processSamples()));
  EXPECT_EQ(publisher.wait(), 0);
  checker.drain();
  checker.expectClean(processSamples());
}

// A publisher thread on CPU 0 publishes `count` samples while a reader thread on CPU 1 checks
// them; then the reader takes the rest.
template <typename T>
void publishAndCheckInThreads(const std::string& name, uint32_t depth, uint64_t count) {
  Publisher<T> publisher(name, TopicOptions{depth});
  ASSERT_TRUE(publisher) << publisher.error();
  std::atomic<bool> done{false};
  Checker<T> checker(name, depth);
  std::thread reader([&] {
    pinTo(1);
    while (!done.load(std::memory_order_acquire)) checker.step();
    checker.drain();
  });
  std::thread writer([&] {
    pinTo(0);
    publishAlternating(publisher, count);
    done.store(true, std::memory_order_release);
  });
  writer.join();
  reader.join();
  checker.expectClean(count);
}

TEST_F(TopicStressTest, NoTornSampleAcrossThreads) {
  publishAndCheckInThreads<Pattern>(topic(), 16, threadSamples());
}

// Large samples in a ring of one: the publisher laps the readers all the time, and every lapped
// copy must be thrown away, never returned.
TEST_F(TopicStressTest, LappedReadersNeverReturnATornSample) {
  publishAndCheckInThreads<Big>(topic(), 1, kBigSamples);
}

}  // namespace
}  // namespace topictest
