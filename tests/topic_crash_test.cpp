// The crash drill: a publisher process is killed with SIGKILL at random instants (while it
// connects, claims the topic, publishes or holds a loan), over and over. After every kill the
// subscriber must find publisherAlive() false as soon as the publisher is reaped, read no torn
// sample, and the next publisher must take the topic over with the sequence going on.
//
// 1,000 kills by default (a few seconds). For a longer drill:
//   KELVO_TOPIC_DRILL_KILLS=10000 build/default/tests/kelvo_topic_crash_test
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include "mosk/kelvo/topic.h"
#include "topic_test_support.h"

namespace topictest {
namespace {

using mosk::kelvo::Publisher;
using mosk::kelvo::Sample;
using mosk::kelvo::Subscriber;
using mosk::kelvo::TopicOptions;

class TopicCrashTest : public TopicTest {};

constexpr TopicOptions kOptions{8};

int drillKills() {
  const char* text = std::getenv("KELVO_TOPIC_DRILL_KILLS");
  const int kills = text == nullptr ? 0 : std::atoi(text);
  return kills > 0 ? kills : 1000;
}

// The publisher: takes the topic over, says so on `ready`, then publishes until killed,
// alternating publish() and a loan() filled word by word.
[[noreturn]] void publishUntilKilled(const std::string& name, int ready) {
  Publisher<Pattern> publisher(name, kOptions);
  if (!publisher) _exit(3);
  const char byte = 'c';
  (void)!write(ready, &byte, 1);
  for (uint64_t sequence = publisher.sequence() + 1;; ++sequence) {
    if (sequence % 2 == 0) {
      publisher.publish(patternOf<Pattern>(sequence));
    } else {
      Pattern& slot = publisher.loan();
      for (size_t i = 0; i < 8; ++i) slot.words[i] = wordFor(sequence, i);
      publisher.publishLoaned();
    }
  }
}

TEST_F(TopicCrashTest, KilledPublishersNeverLeaveATornSampleOrALiveLookingOwner) {
  const int kills = drillKills();
  const std::string name = topic();
  Subscriber<Pattern> latestReader(name, kOptions);
  Subscriber<Pattern> takeReader(name, kOptions);
  ASSERT_TRUE(latestReader) << latestReader.error();
  const unsigned seed = static_cast<unsigned>(getpid());
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> microseconds(0, 2000);
  std::uniform_int_distribution<int> percent(0, 99);
  uint64_t torn = 0, refused = 0, aliveAfterReap = 0, backwards = 0, miscounted = 0;
  uint64_t lastTaken = 0, lastLatest = 0, killedBeforeReady = 0;
  Sample<Pattern> sample;

  auto readBoth = [&] {
    if (latestReader.latest(sample)) {
      if (sequenceOf(sample.value) != sample.sequence) ++torn;
      if (sample.sequence < lastLatest) ++backwards;
      lastLatest = sample.sequence;
    }
    uint64_t lost = 0;
    if (takeReader.take(sample, &lost)) {
      if (sequenceOf(sample.value) != sample.sequence) ++torn;
      if (sample.sequence != lastTaken + lost + 1) ++miscounted;
      lastTaken = sample.sequence;
    }
  };

  for (int kill = 0; kill < kills; ++kill) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    std::fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      close(ready[0]);
      publishUntilKilled(name, ready[1]);
    }
    close(ready[1]);
    // One kill in five lands while the child connects and claims the topic; the others while
    // it publishes, after a random spell of reading.
    const bool early = percent(random) < 20;
    if (!early) {
      char byte;
      if (read(ready[0], &byte, 1) == 1) {  // else it exited: counted below
        const auto until =
            std::chrono::steady_clock::now() + std::chrono::microseconds(microseconds(random));
        while (std::chrono::steady_clock::now() < until) readBoth();
      }
    } else {
      const auto until =
          std::chrono::steady_clock::now() + std::chrono::microseconds(microseconds(random) / 4);
      while (std::chrono::steady_clock::now() < until) {
      }
      ++killedBeforeReady;
    }
    close(ready[0]);
    ::kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 3) ++refused;
    if (latestReader.publisherAlive()) ++aliveAfterReap;
    readBoth();
  }
  // Whatever the last kill left: one more publisher must take over and carry the sequence on.
  const uint64_t before = takeReader.sequence();
  {
    Publisher<Pattern> last(name, kOptions);
    ASSERT_TRUE(last) << last.error();
    last.publish(patternOf<Pattern>(before + 1));
  }
  ASSERT_TRUE(latestReader.latest(sample));
  EXPECT_EQ(sample.sequence, before + 1);
  EXPECT_EQ(sequenceOf(sample.value), before + 1);
  while (takeReader.take(sample)) {
  }
  EXPECT_EQ(sample.sequence, before + 1);

  std::printf("seed %u: %d kills (%llu while connecting), %llu samples published\n", seed, kills,
              static_cast<unsigned long long>(killedBeforeReady),
              static_cast<unsigned long long>(before + 1));
  EXPECT_EQ(torn, 0u);
  EXPECT_EQ(backwards, 0u);
  EXPECT_EQ(miscounted, 0u);
  EXPECT_EQ(refused, 0u);
  EXPECT_EQ(aliveAfterReap, 0u);
  mosk::kelvo::TopicStatus status;
  ASSERT_TRUE(mosk::kelvo::topicStatus(name, status));
  EXPECT_GE(status.takeovers, static_cast<uint64_t>(kills) - killedBeforeReady);
}

}  // namespace
}  // namespace topictest
