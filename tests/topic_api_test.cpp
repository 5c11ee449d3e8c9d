// Typed topics within one process: publish, latest, take, loan, ownership, checks on connect,
// wait, removal, status and trace events.
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "mosk/kelvo/shm.h"
#include "mosk/kelvo/time_trace.h"
#include "mosk/kelvo/topic.h"
#include "topic_test_support.h"

namespace topictest {
namespace {

using mosk::kelvo::Publisher;
using mosk::kelvo::Sample;
using mosk::kelvo::Subscriber;
using mosk::kelvo::TopicOptions;
using mosk::kelvo::TopicStatus;
using namespace std::chrono_literals;

// Same name as Pattern, another version; and another layout under Pattern's name.
struct PatternV2 {
  uint64_t words[8];
};
KELVO_TOPIC_TYPE(PatternV2, "test/Pattern", 2);
struct PatternWider {
  uint64_t words[9];
};
KELVO_TOPIC_TYPE(PatternWider, "test/Pattern", 1);
struct OtherType {
  uint64_t words[8];
};
KELVO_TOPIC_TYPE(OtherType, "test/Other", 1);

// Sizes that are not whole words, and a cache-line alignment.
struct Odd {
  char text[13];
};
KELVO_TOPIC_TYPE(Odd, "test/Odd", 1);
struct alignas(64) Aligned {
  uint64_t words[3];
};
KELVO_TOPIC_TYPE(Aligned, "test/Aligned", 1);

class TopicApiTest : public TopicTest {};

int64_t monotonicNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

TEST_F(TopicApiTest, LatestIsFalseBeforeTheFirstSampleAndLeavesOutAlone) {
  const std::string name = topic();
  Subscriber<Pattern> subscriber(name);
  ASSERT_TRUE(subscriber) << subscriber.error();
  EXPECT_TRUE(subscriber.error().empty());
  Sample<Pattern> out;
  fill(out.value, 77);
  out.sequence = 5;
  out.publishTimeNs = 6;
  EXPECT_FALSE(subscriber.latest(out));
  EXPECT_FALSE(subscriber.take(out));
  EXPECT_EQ(sequenceOf(out.value), 77u);
  EXPECT_EQ(out.sequence, 5u);
  EXPECT_EQ(out.publishTimeNs, 6);
  EXPECT_EQ(subscriber.sequence(), 0u);
  EXPECT_EQ(subscriber.newestAgeNs(), -1);
}

TEST_F(TopicApiTest, ASamplePublishedBeforeASubscriberConnectsIsThereForLatest) {
  const std::string name = topic();
  Publisher<Pattern> publisher(name);
  ASSERT_TRUE(publisher) << publisher.error();
  publisher.publish(patternOf<Pattern>(1));
  publisher.publish(patternOf<Pattern>(2));
  Subscriber<Pattern> subscriber(name);
  ASSERT_TRUE(subscriber) << subscriber.error();
  Sample<Pattern> out;
  ASSERT_TRUE(subscriber.latest(out));
  EXPECT_EQ(out.sequence, 2u);
  EXPECT_EQ(sequenceOf(out.value), 2u);
  EXPECT_GT(out.publishTimeNs, 0);
  EXPECT_LE(out.publishTimeNs, monotonicNs());
}

TEST_F(TopicApiTest, SequencesStartAtOneAndCountEachPublish) {
  const std::string name = topic();
  Publisher<Pattern> publisher(name);
  Subscriber<Pattern> subscriber(name);
  int64_t previousTime = 0;
  for (uint64_t i = 1; i <= 5; ++i) {
    publisher.publish(patternOf<Pattern>(i));
    Sample<Pattern> out;
    ASSERT_TRUE(subscriber.latest(out));
    EXPECT_EQ(out.sequence, i);
    EXPECT_EQ(sequenceOf(out.value), i);
    EXPECT_GE(out.publishTimeNs, previousTime);
    previousTime = out.publishTimeNs;
  }
  EXPECT_EQ(publisher.published(), 5u);
  EXPECT_EQ(publisher.sequence(), 5u);
  EXPECT_EQ(subscriber.sequence(), 5u);
  EXPECT_GE(subscriber.newestAgeNs(), 0);
}

TEST_F(TopicApiTest, TakeReturnsEverySampleInOrder) {
  const std::string name = topic();
  Publisher<Pattern> publisher(name);
  Subscriber<Pattern> subscriber(name);
  for (uint64_t i = 1; i <= 10; ++i) publisher.publish(patternOf<Pattern>(i));
  Sample<Pattern> out;
  uint64_t lost = 99;
  for (uint64_t i = 1; i <= 10; ++i) {
    ASSERT_TRUE(subscriber.take(out, &lost));
    EXPECT_EQ(out.sequence, i);
    EXPECT_EQ(sequenceOf(out.value), i);
    EXPECT_EQ(lost, 0u);
  }
  EXPECT_FALSE(subscriber.take(out, &lost));
  publisher.publish(patternOf<Pattern>(11));
  ASSERT_TRUE(subscriber.take(out));  // lost may be left out
  EXPECT_EQ(out.sequence, 11u);
}

TEST_F(TopicApiTest, TakeCountsWhatTheRingNoLongerHolds) {
  const std::string name = topic();
  Publisher<Pattern> publisher(name, TopicOptions{4});
  Subscriber<Pattern> subscriber(name, TopicOptions{4});
  for (uint64_t i = 1; i <= 10; ++i) publisher.publish(patternOf<Pattern>(i));
  Sample<Pattern> out;
  uint64_t lost = 0;
  ASSERT_TRUE(subscriber.take(out, &lost));
  EXPECT_EQ(out.sequence, 7u);  // the ring keeps the newest 4: 7 to 10
  EXPECT_EQ(lost, 6u);
  ASSERT_TRUE(subscriber.take(out, &lost));
  EXPECT_EQ(out.sequence, 8u);
  EXPECT_EQ(lost, 0u);
}

TEST_F(TopicApiTest, ANewSubscriberTakesFromTheOldestSampleKept) {
  const std::string name = topic();
  Publisher<Pattern> publisher(name, TopicOptions{4});
  for (uint64_t i = 1; i <= 10; ++i) publisher.publish(patternOf<Pattern>(i));
  Subscriber<Pattern> subscriber(name, TopicOptions{4});
  Sample<Pattern> out;
  uint64_t lost = 99;
  ASSERT_TRUE(subscriber.take(out, &lost));
  EXPECT_EQ(out.sequence, 7u);
  EXPECT_EQ(lost, 0u);  // nothing was lost to this subscriber: it came after 1 to 6
}

TEST_F(TopicApiTest, DepthOneKeepsTheNewestSample) {
  const std::string name = topic();
  Publisher<Pattern> publisher(name, TopicOptions{1});
  Subscriber<Pattern> subscriber(name, TopicOptions{1});
  publisher.publish(patternOf<Pattern>(1));
  publisher.publish(patternOf<Pattern>(2));
  Sample<Pattern> out;
  uint64_t lost = 0;
  ASSERT_TRUE(subscriber.take(out, &lost));
  EXPECT_EQ(out.sequence, 2u);
  EXPECT_EQ(lost, 1u);
  ASSERT_TRUE(subscriber.latest(out));
  EXPECT_EQ(sequenceOf(out.value), 2u);
}

TEST_F(TopicApiTest, SubscribersKeepTheirOwnPlaceForTake) {
  const std::string name = topic();
  Publisher<Pattern> publisher(name);
  Subscriber<Pattern> first(name);
  Subscriber<Pattern> second(name);
  publisher.publish(patternOf<Pattern>(1));
  publisher.publish(patternOf<Pattern>(2));
  Sample<Pattern> out;
  ASSERT_TRUE(first.take(out));
  ASSERT_TRUE(first.take(out));
  EXPECT_EQ(out.sequence, 2u);
  ASSERT_TRUE(second.take(out));
  EXPECT_EQ(out.sequence, 1u);
}

TEST_F(TopicApiTest, LoanWritesTheNextSampleInPlace) {
  const std::string name = topic();
  Publisher<Big> publisher(name);
  Subscriber<Big> subscriber(name);
  Big& slot = publisher.loan();
  EXPECT_EQ(&publisher.loan(), &slot);  // again before publishing: the same slot
  fill(slot, 1);
  Sample<Big> out;
  EXPECT_FALSE(subscriber.latest(out));  // not visible before publishLoaned()
  publisher.publishLoaned();
  ASSERT_TRUE(subscriber.latest(out));
  EXPECT_EQ(out.sequence, 1u);
  EXPECT_EQ(sequenceOf(out.value), 1u);
  publisher.publishLoaned();  // no loan: nothing happens
  EXPECT_EQ(publisher.published(), 1u);
  EXPECT_NE(&publisher.loan(), &slot);  // the next sample's slot
}

TEST_F(TopicApiTest, PublishAfterLoanAbandonsTheLoan) {
  const std::string name = topic();
  Publisher<Pattern> publisher(name);
  Subscriber<Pattern> subscriber(name);
  fill(publisher.loan(), 1000);
  publisher.publish(patternOf<Pattern>(1));
  publisher.publishLoaned();  // the loan is gone: nothing more is published
  Sample<Pattern> out;
  ASSERT_TRUE(subscriber.take(out));
  EXPECT_EQ(out.sequence, 1u);
  EXPECT_EQ(sequenceOf(out.value), 1u);
  EXPECT_FALSE(subscriber.take(out));
}

TEST_F(TopicApiTest, SamplesOfAnySizeAndAlignmentRoundTrip) {
  const std::string oddName = topic("odd");
  Publisher<Odd> oddPublisher(oddName);
  Subscriber<Odd> oddSubscriber(oddName);
  Odd odd;
  std::memcpy(odd.text, "thirteen-byte", 13);
  oddPublisher.publish(odd);
  Sample<Odd> oddOut;
  ASSERT_TRUE(oddSubscriber.latest(oddOut));
  EXPECT_EQ(std::memcmp(oddOut.value.text, "thirteen-byte", 13), 0);

  const std::string alignedName = topic("aligned");
  Publisher<Aligned> alignedPublisher(alignedName);
  ASSERT_TRUE(alignedPublisher) << alignedPublisher.error();
  Aligned& slot = alignedPublisher.loan();
  EXPECT_EQ(reinterpret_cast<uintptr_t>(&slot) % 64, 0u);
  slot.words[0] = 1;
  slot.words[1] = 2;
  slot.words[2] = 3;
  alignedPublisher.publishLoaned();
  Subscriber<Aligned> alignedSubscriber(alignedName);
  Sample<Aligned> alignedOut;
  ASSERT_TRUE(alignedSubscriber.latest(alignedOut));
  EXPECT_EQ(alignedOut.value.words[2], 3u);
}

TEST_F(TopicApiTest, ASecondPublisherIsRefusedUntilTheFirstIsGone) {
  const std::string name = topic();
  Subscriber<Pattern> subscriber(name);
  EXPECT_FALSE(subscriber.publisherAlive());  // before one came
  {
    Publisher<Pattern> first(name);
    ASSERT_TRUE(first) << first.error();
    EXPECT_TRUE(subscriber.publisherAlive());
    EXPECT_EQ(subscriber.publisherPid(), getpid());
    first.publish(patternOf<Pattern>(1));
    Publisher<Pattern> second(name);
    EXPECT_FALSE(second);
    EXPECT_EQ(second.error(), "topic '" + name + "' already has a publisher (pid " +
                                  std::to_string(getpid()) + ", this process)");
    second.publish(patternOf<Pattern>(99));  // not connected: does nothing
    fill(second.loan(), 98);                 // a private buffer
    second.publishLoaned();
    EXPECT_EQ(second.published(), 0u);
  }
  EXPECT_FALSE(subscriber.publisherAlive());  // it has gone
  Publisher<Pattern> third(name);
  ASSERT_TRUE(third) << third.error();
  third.publish(patternOf<Pattern>(2));
  Sample<Pattern> out;
  ASSERT_TRUE(subscriber.latest(out));
  EXPECT_EQ(out.sequence, 2u);  // the sequence carries on
  EXPECT_EQ(sequenceOf(out.value), 2u);
}

TEST_F(TopicApiTest, OwnershipDoesNotDependOnTheThreadThatConnected) {
  const std::string name = topic();
  std::unique_ptr<Publisher<Pattern>> publisher;
  std::thread([&] { publisher = std::make_unique<Publisher<Pattern>>(name); }).join();
  ASSERT_TRUE(*publisher) << publisher->error();
  Subscriber<Pattern> subscriber(name);
  EXPECT_TRUE(subscriber.publisherAlive());  // the connecting thread has ended
  EXPECT_FALSE(Publisher<Pattern>(name));
  publisher.reset();
  EXPECT_FALSE(subscriber.publisherAlive());
}

TEST_F(TopicApiTest, ADifferentTypeVersionSizeOrDepthIsAnError) {
  const std::string name = topic();
  Publisher<Pattern> publisher(name);
  ASSERT_TRUE(publisher);
  const std::string prefix = "topic '" + name + "' carries test/Pattern v1 (64-byte samples), not ";
  Subscriber<PatternV2> version(name);
  EXPECT_FALSE(version);
  EXPECT_EQ(version.error(), prefix + "test/Pattern v2 (64-byte samples)");
  Subscriber<PatternWider> wider(name);
  EXPECT_EQ(wider.error(), prefix + "test/Pattern v1 (72-byte samples)");
  Subscriber<OtherType> other(name);
  EXPECT_EQ(other.error(), prefix + "test/Other v1 (64-byte samples)");
  Subscriber<Pattern> deeper(name, TopicOptions{32});
  EXPECT_EQ(deeper.error(), "topic '" + name + "' keeps 16 samples (depth), not 32");
  Publisher<PatternV2> wrongPublisher(name);
  EXPECT_FALSE(wrongPublisher);
  Sample<PatternV2> out;
  EXPECT_FALSE(version.latest(out));
  EXPECT_FALSE(version.wait(1ms));
  EXPECT_FALSE(version.publisherAlive());
}

TEST_F(TopicApiTest, BadNamesAndDepthsAreErrorsNotAborts) {
  struct Case {
    std::string topic;
    std::string error;
  };
  const std::string longest(44, 'n');
  const std::vector<Case> cases = {
      {"", "topic '': the name is empty"},
      {longest + "x", "topic '" + longest + "x': the name is longer than 44 bytes"},
      {"/abs", "topic '/abs': the name starts or ends with '/'"},
      {"dir/", "topic 'dir/': the name starts or ends with '/'"},
      {"a//b", "topic 'a//b': the name has an empty, '.' or '..' component"},
      {"../etc", "topic '../etc': the name has an empty, '.' or '..' component"},
      {"a/./b", "topic 'a/./b': the name has an empty, '.' or '..' component"},
      {"tab\there", "topic 'tab\there': the name holds a control character"},
  };
  for (const Case& c : cases) {
    Subscriber<Pattern> subscriber(c.topic);
    EXPECT_FALSE(subscriber) << c.topic;
    EXPECT_EQ(subscriber.error(), c.error);
    Publisher<Pattern> publisher(c.topic);
    EXPECT_EQ(publisher.error(), c.error);
  }
  const std::string name = topic();
  Subscriber<Pattern> zero(name, TopicOptions{0});
  EXPECT_EQ(zero.error(), "topic '" + name + "': depth 0 is not 1 to 65536");
  Subscriber<Pattern> huge(name, TopicOptions{65537});
  EXPECT_EQ(huge.error(), "topic '" + name + "': depth 65537 is not 1 to 65536");
}

TEST_F(TopicApiTest, TheLongestNameWorks) {
  std::string name = topic();
  name += std::string(mosk::kelvo::kTopicNameMax - name.size(), 'x');
  Publisher<Pattern> publisher(name);
  ASSERT_TRUE(publisher) << publisher.error();
  publisher.publish(patternOf<Pattern>(1));
  EXPECT_EQ(mosk::kelvo::removeTopic(name), 0);
}

TEST_F(TopicApiTest, NamesWithSlashesMakeDirectoriesThatRemovalTakesAway) {
  const std::string parent = topic();
  const std::string name = parent + "/arm/joints";
  {
    Publisher<Pattern> publisher(name);
    ASSERT_TRUE(publisher) << publisher.error();
    EXPECT_TRUE(shmtest::pathExists(shmtest::keyPath(name)));
  }
  std::string why;
  EXPECT_EQ(mosk::kelvo::removeTopic(name, &why), 0) << why;
  EXPECT_FALSE(shmtest::pathExists(shmtest::topicDir(parent)));
}

TEST_F(TopicApiTest, APlainTopicIsNotMistakenForATypedOne) {
  const std::string name = topic();
  void* plain = shm_connect_by_topic(name.c_str(), sizeof(Pattern));
  ASSERT_NE(plain, nullptr);
  Subscriber<Pattern> subscriber(name);
  EXPECT_FALSE(subscriber);
  EXPECT_EQ(subscriber.error(),
            "topic '" + name + "' is a plain shared-memory topic (shm_*), not a typed one");
  Publisher<Pattern> publisher(name);
  EXPECT_EQ(publisher.error(), subscriber.error());
  std::string why;
  EXPECT_EQ(mosk::kelvo::removeTopic(name, &why), -1);
  EXPECT_EQ(why, "topic '" + name +
                     "' is a plain shared-memory topic: remove it with kelvo-topics rm or "
                     "shm_rm_by_topic");
  TopicStatus status;
  EXPECT_FALSE(mosk::kelvo::topicStatus(name, status, &why));
  EXPECT_EQ(why, "topic '" + name + "' is a plain shared-memory topic");
  EXPECT_EQ(shm_rm_by_topic(name.c_str()), 0);
  shmdt(static_cast<char*>(plain) - MEM_HDR_SIZE);
}

TEST_F(TopicApiTest, DestructorsDetach) {
  const std::string name = topic();
  const size_t before = attachedSegmentCount();
  for (int i = 0; i < 200; ++i) {
    Publisher<Pattern> publisher(name);
    ASSERT_TRUE(publisher) << publisher.error();
    Subscriber<Pattern> subscriber(name);
    publisher.publish(patternOf<Pattern>(i));
    EXPECT_EQ(attachedSegmentCount(), before + 1);  // one mapping per process and topic
  }
  Subscriber<Pattern> refused(name, TopicOptions{3});
  EXPECT_FALSE(refused);
  EXPECT_EQ(attachedSegmentCount(), before);
}

TEST_F(TopicApiTest, WaitReturnsAtOnceWhenSomethingIsUnseen) {
  const std::string name = topic();
  Publisher<Pattern> publisher(name);
  Subscriber<Pattern> subscriber(name);
  EXPECT_FALSE(subscriber.wait(0ns));
  EXPECT_FALSE(subscriber.wait(2ms));  // nothing newer: times out
  publisher.publish(patternOf<Pattern>(1));
  // The timed-out wait left the sleepers flag: this publish made one needless wake-up and
  // cleared it.
  EXPECT_EQ(publisher.wakeups(), 1u);
  EXPECT_TRUE(subscriber.wait(0ns));
  EXPECT_TRUE(subscriber.wait(-5ms));
  Sample<Pattern> out;
  ASSERT_TRUE(subscriber.latest(out));
  EXPECT_FALSE(subscriber.wait(1ms));  // seen now
  publisher.publish(patternOf<Pattern>(2));
  EXPECT_EQ(publisher.wakeups(), 2u);  // that wait's flag
  publisher.publish(patternOf<Pattern>(3));
  EXPECT_EQ(publisher.wakeups(), 2u);  // no flag: no system call
}

TEST_F(TopicApiTest, WaitWakesOnPublishAndThePublisherWakesOnlyWhileSomeoneSleeps) {
  const std::string name = topic();
  Publisher<Pattern> publisher(name);
  Subscriber<Pattern> subscriber(name);
  std::atomic<bool> woke{false};
  std::atomic<int> tid{0};
  std::thread waiter([&] {
    tid = static_cast<int>(shm_gettid());
    woke = subscriber.wait(std::chrono::seconds(30));
  });
  while (tid == 0) std::this_thread::yield();
  ASSERT_TRUE(shmtest::sleepsWithin("/proc/self/task/" + std::to_string(tid.load()) + "/stat"));
  publisher.publish(patternOf<Pattern>(1));
  waiter.join();
  EXPECT_TRUE(woke);
  EXPECT_EQ(publisher.wakeups(), 1u);
  publisher.publish(patternOf<Pattern>(2));
  publisher.publish(patternOf<Pattern>(3));
  EXPECT_EQ(publisher.wakeups(), 1u);  // the flag was cleared: no sleeper, no system call
}

TEST_F(TopicApiTest, RemovalWhileAttachedEndsWaitsAndLeavesTheOthersWorking) {
  const std::string name = topic();
  Publisher<Pattern> publisher(name);
  Subscriber<Pattern> subscriber(name);
  publisher.publish(patternOf<Pattern>(1));
  Sample<Pattern> out;
  ASSERT_TRUE(subscriber.latest(out));
  std::atomic<int> tid{0};
  std::atomic<bool> result{true};
  std::thread waiter([&] {
    tid = static_cast<int>(shm_gettid());
    result = subscriber.wait(std::chrono::seconds(30));
  });
  while (tid == 0) std::this_thread::yield();
  ASSERT_TRUE(shmtest::sleepsWithin("/proc/self/task/" + std::to_string(tid.load()) + "/stat"));
  const key_t key = shmtest::existingKey(name);
  std::string why;
  ASSERT_EQ(mosk::kelvo::removeTopic(name, &why), 0) << why;
  waiter.join();
  EXPECT_FALSE(result);
  EXPECT_TRUE(subscriber.removed());
  EXPECT_TRUE(publisher.removed());
  EXPECT_FALSE(shmtest::pathExists(shmtest::keyPath(name)));
  EXPECT_EQ(shmget(key, 0, 0), -1);  // the key no longer finds it
  // The old segment stays usable for those attached.
  publisher.publish(patternOf<Pattern>(2));
  ASSERT_TRUE(subscriber.latest(out));
  EXPECT_EQ(out.sequence, 2u);
  EXPECT_FALSE(subscriber.wait(1ms));  // seen, and removed: nothing newer will come
  // Connecting again makes a fresh topic.
  Subscriber<Pattern> fresh(name);
  ASSERT_TRUE(fresh) << fresh.error();
  EXPECT_EQ(fresh.sequence(), 0u);
  EXPECT_FALSE(fresh.removed());
  EXPECT_FALSE(fresh.publisherAlive());
}

TEST_F(TopicApiTest, RemovingWhatDoesNotExistSaysSo) {
  const std::string name = topic();
  std::string why;
  EXPECT_EQ(mosk::kelvo::removeTopic(name, &why), -1);
  EXPECT_EQ(why,
            "topic '" + name + "' does not exist (no key file /tmp/topics/" + name + "/shmkey)");
  EXPECT_EQ(mosk::kelvo::removeTopic("", &why), -1);
  EXPECT_EQ(why, "topic '': the name is empty");
  EXPECT_EQ(mosk::kelvo::removeTopic(name), -1);  // no reason wanted
}

TEST_F(TopicApiTest, StatusShowsWhatKelvoTopicsPrints) {
  const std::string name = topic();
  TopicStatus status;
  std::string why;
  EXPECT_FALSE(mosk::kelvo::topicStatus(name, status, &why));
  EXPECT_EQ(why,
            "topic '" + name + "' does not exist (no key file /tmp/topics/" + name + "/shmkey)");
  EXPECT_FALSE(shmtest::pathExists(shmtest::topicDir(name)));  // it created nothing
  Publisher<Pattern> publisher(name, TopicOptions{8});
  Subscriber<Pattern> first(name, TopicOptions{8});
  Subscriber<Pattern> second(name, TopicOptions{8});
  ASSERT_TRUE(mosk::kelvo::topicStatus(name, status, &why)) << why;
  EXPECT_EQ(status.typeName, "test/Pattern");
  EXPECT_EQ(status.typeVersion, 1u);
  EXPECT_EQ(status.sampleSize, 64u);
  EXPECT_EQ(status.depth, 8u);
  EXPECT_EQ(status.publisherPid, getpid());
  EXPECT_TRUE(status.publisherAlive);
  EXPECT_EQ(status.published, 0u);
  EXPECT_EQ(status.newestAgeNs, -1);
  EXPECT_EQ(status.ratePerSecond, 0.0);
  EXPECT_EQ(status.attachments, 1u);
  EXPECT_EQ(status.subscribers, 2u);
  for (uint64_t i = 1; i <= 20; ++i) publisher.publish(patternOf<Pattern>(i));
  ASSERT_TRUE(mosk::kelvo::topicStatus(name, status));
  EXPECT_EQ(status.published, 20u);
  EXPECT_GE(status.newestAgeNs, 0);
  EXPECT_GT(status.ratePerSecond, 0.0);
  EXPECT_EQ(status.takeovers, 0u);
  EXPECT_FALSE(status.removed);
}

TEST_F(TopicApiTest, TraceEventsGoToTheCallingThreadsRing) {
  using mosk::kelvo::TimeTrace;
  const std::string name = topic();
  std::string trace;
  std::thread([&] {
    TimeTrace::createThreadBuffer();
    Publisher<Pattern> publisher(name);
    Subscriber<Pattern> subscriber(name);
    publisher.publish(patternOf<Pattern>(1));  // not traced: off by default
    publisher.setTraceEnabled(true);
    subscriber.setTraceEnabled(true);
    publisher.publish(patternOf<Pattern>(2));
    Sample<Pattern> out;
    subscriber.take(out);
    subscriber.latest(out);
    trace = TimeTrace::threadBuffer->getTrace();
    TimeTrace::deleteThreadBuffer();
  }).join();
  char key[16];
  std::snprintf(key, sizeof key, "%08x", static_cast<unsigned>(shmtest::existingKey(name)));
  EXPECT_EQ(trace.find("topic publish seq 1 "), std::string::npos) << trace;
  EXPECT_NE(trace.find(std::string("topic publish seq 2 key ") + key), std::string::npos) << trace;
  EXPECT_NE(trace.find(std::string("topic take seq 1 lost 0 key ") + key), std::string::npos)
      << trace;
  EXPECT_NE(trace.find(std::string("topic latest seq 2 key ") + key), std::string::npos) << trace;
}

}  // namespace
}  // namespace topictest
