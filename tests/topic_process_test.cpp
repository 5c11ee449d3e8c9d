// Typed topics between processes: either side first, one publisher at a time, a publisher
// killed or exiting, zombies and reused pids, racing and dying creators, killed subscribers,
// fork children and permissions. Peers are freshly exec'd helpers (kelvo_topic_helper) where a
// clean process matters, forks elsewhere.
#include <dirent.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "mosk/kelvo/topic.h"
#include "topic_test_support.h"

namespace topictest {
namespace {

using mosk::kelvo::Publisher;
using mosk::kelvo::Sample;
using mosk::kelvo::Subscriber;
using mosk::kelvo::TopicStatus;
using shmtest::Child;
using namespace std::chrono_literals;

class TopicProcessTest : public TopicTest {};

// Starts the helper in `role` on `topic` and checks that it connected.
void startHelper(Child& child, const std::string& role, const std::string& topic) {
  child.exec({KELVO_TOPIC_HELPER, role, topic});
  ASSERT_EQ(child.readLine(), "connected");
}

// Waits until the child `pid` is a zombie: every one of its threads has exited and only the
// reaping is left (waitid with WNOWAIT leaves it unreaped). The first thread's "Z" in
// /proc/<pid>/stat comes earlier, while the other threads may still be exiting.
bool becomesZombie(pid_t pid) {
  siginfo_t info{};
  return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) == 0 &&
         processStateOf(pid) == 'Z';
}

// How many System V segments carry `key`.
size_t segmentsWithKey(key_t key) {
  size_t count = 0;
  for (const shmtest::SegmentInfo& info : shmtest::systemSegments()) {
    if (info.key == key) ++count;
  }
  return count;
}

TEST_F(TopicProcessTest, TheSubscriberMayStartFirst) {
  const std::string name = topic();
  Child subscriber;
  startHelper(subscriber, "subscriber", name);
  subscriber.writeLine("latest");
  EXPECT_EQ(subscriber.readLine(), "latest none");
  Publisher<Pattern> publisher(name);
  ASSERT_TRUE(publisher) << publisher.error();
  publisher.publish(patternOf<Pattern>(1));
  subscriber.writeLine("latest");
  EXPECT_EQ(subscriber.readLine(), "latest 1 1");
  subscriber.closeInput();
  EXPECT_EQ(subscriber.wait(), 0);
}

TEST_F(TopicProcessTest, ThePublisherMayStartFirst) {
  const std::string name = topic();
  Child publisher;
  startHelper(publisher, "publisher", name);
  publisher.writeLine("publish 3");
  ASSERT_EQ(publisher.readLine(), "published 3");
  Subscriber<Pattern> subscriber(name);
  ASSERT_TRUE(subscriber) << subscriber.error();
  EXPECT_TRUE(subscriber.publisherAlive());
  EXPECT_EQ(subscriber.publisherPid(), publisher.pid());
  Sample<Pattern> out;
  ASSERT_TRUE(subscriber.latest(out));
  EXPECT_EQ(out.sequence, 3u);
  EXPECT_EQ(sequenceOf(out.value), 3u);
  publisher.writeLine("exit");
  EXPECT_EQ(publisher.wait(), 0);
  EXPECT_FALSE(subscriber.publisherAlive());
}

TEST_F(TopicProcessTest, ASecondPublisherInAnotherProcessIsRefused) {
  const std::string name = topic();
  Child first;
  startHelper(first, "publisher", name);
  Publisher<Pattern> second(name);
  EXPECT_FALSE(second);
  EXPECT_EQ(second.error(), "topic '" + name + "' already has a publisher (pid " +
                                std::to_string(first.pid()) + ")");
  Child third;
  third.exec({KELVO_TOPIC_HELPER, "publisher", name});
  EXPECT_EQ(third.readLine(), "refused: " + second.error());
  EXPECT_EQ(third.wait(), 3);
  first.closeInput();
  EXPECT_EQ(first.wait(), 0);
}

// Killed while a loaned sample was half written: subscribers keep the last complete one, the
// publisher is dead as soon as it is reaped, and a new publisher carries the sequence on.
TEST_F(TopicProcessTest, APublisherKilledMidLoanLeavesTheLastCompleteSample) {
  const std::string name = topic();
  Child publisher;
  startHelper(publisher, "publisher", name);
  publisher.writeLine("publish 5");
  ASSERT_EQ(publisher.readLine(), "published 5");
  publisher.writeLine("loan");
  ASSERT_EQ(publisher.readLine(), "loaned");
  Subscriber<Pattern> subscriber(name);
  EXPECT_TRUE(subscriber.publisherAlive());
  publisher.killAndWait();
  EXPECT_FALSE(subscriber.publisherAlive());
  Sample<Pattern> out;
  ASSERT_TRUE(subscriber.latest(out));
  EXPECT_EQ(out.sequence, 5u);
  EXPECT_EQ(sequenceOf(out.value), 5u);
  for (uint64_t expected = 1; expected <= 5; ++expected) {
    uint64_t lost = 99;
    ASSERT_TRUE(subscriber.take(out, &lost));
    EXPECT_EQ(out.sequence, expected);
    EXPECT_EQ(sequenceOf(out.value), expected);
    EXPECT_EQ(lost, 0u);
  }
  EXPECT_FALSE(subscriber.take(out));

  Publisher<Pattern> successor(name);
  ASSERT_TRUE(successor) << successor.error();
  EXPECT_TRUE(subscriber.publisherAlive());
  successor.publish(patternOf<Pattern>(6));
  ASSERT_TRUE(subscriber.take(out));
  EXPECT_EQ(out.sequence, 6u);
  EXPECT_EQ(sequenceOf(out.value), 6u);
  TopicStatus status;
  ASSERT_TRUE(mosk::kelvo::topicStatus(name, status));
  EXPECT_EQ(status.takeovers, 1u);
  EXPECT_EQ(status.publisherPid, getpid());
}

TEST_F(TopicProcessTest, AZombiePublisherIsDead) {
  const std::string name = topic();
  Child publisher;
  startHelper(publisher, "publisher", name);
  Subscriber<Pattern> subscriber(name);
  EXPECT_TRUE(subscriber.publisherAlive());
  kill(publisher.pid(), SIGKILL);
  ASSERT_TRUE(becomesZombie(publisher.pid()));
  EXPECT_FALSE(subscriber.publisherAlive());
  Publisher<Pattern> successor(name);  // and it may be taken over before the reaping
  EXPECT_TRUE(successor) << successor.error();
  EXPECT_EQ(publisher.wait(), 128 + SIGKILL);
}

TEST_F(TopicProcessTest, APublisherThatExitsWithoutItsDestructorIsDead) {
  const std::string name = topic();
  Child publisher;
  startHelper(publisher, "publisher", name);
  Subscriber<Pattern> subscriber(name);
  EXPECT_TRUE(subscriber.publisherAlive());
  publisher.writeLine("abandon");
  EXPECT_EQ(publisher.wait(), 0);
  EXPECT_FALSE(subscriber.publisherAlive());
  EXPECT_TRUE(Publisher<Pattern>(name));
}

// The dead owner's recorded pid is 1 (it ran in a pid namespace of its own), and pid 1 is alive
// here: liveness never trusts a pid.
TEST_F(TopicProcessTest, AReusedPidDoesNotMakeADeadPublisherAlive) {
  if (geteuid() != 0) GTEST_SKIP() << "a pid namespace needs root (CAP_SYS_ADMIN)";
  const std::string name = topic();
  Child outer;
  outer.fork([&] {
    if (unshare(CLONE_NEWPID) != 0) return 77;
    const pid_t inner = fork();
    if (inner == 0) {
      Publisher<Pattern> publisher(name);
      if (!publisher) _exit(3);
      publisher.publish(patternOf<Pattern>(1));
      shmtest::report("pid " + std::to_string(getpid()));
      _exit(0);
    }
    int status = 0;
    waitpid(inner, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
  });
  const std::string line = outer.readLine();
  const int result = outer.wait();
  if (result == 77) GTEST_SKIP() << "unshare(CLONE_NEWPID) is not permitted here";
  ASSERT_EQ(result, 0);
  ASSERT_EQ(line, "pid 1");
  Subscriber<Pattern> subscriber(name);
  EXPECT_EQ(subscriber.publisherPid(), 1);
  EXPECT_EQ(kill(1, 0), 0);  // a process with that pid lives
  EXPECT_FALSE(subscriber.publisherAlive());
  Publisher<Pattern> successor(name);
  ASSERT_TRUE(successor) << successor.error();
  successor.publish(patternOf<Pattern>(2));
  EXPECT_EQ(successor.sequence(), 2u);
}

// Processes that create the same topic at the same instant all connect, to one segment.
TEST_F(TopicProcessTest, RacingCreatorsAllConnectToOneSegment) {
  constexpr int kRounds = 10;
  constexpr int kProcesses = 6;
  for (int round = 0; round < kRounds; ++round) {
    const std::string name = topic("r" + std::to_string(round));
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    std::vector<std::unique_ptr<Child>> children;
    for (int i = 0; i < kProcesses; ++i) {
      children.push_back(std::make_unique<Child>());
      children.back()->fork([&, i] {
        close(gate[1]);
        char byte;
        (void)read(gate[0], &byte, 1);  // returns once the gate closes
        std::string error;
        if (i == 0) {
          Publisher<Pattern> publisher(name);
          error = publisher.error();
          publisher.publish(patternOf<Pattern>(1));
          shmtest::report(error.empty() ? "ok" : error);
          std::string ignored;
          while (std::getline(std::cin, ignored)) {
          }
        } else {
          Subscriber<Pattern> subscriber(name);
          shmtest::report(subscriber ? "ok" : subscriber.error());
        }
        return 0;
      });
    }
    close(gate[0]);
    close(gate[1]);
    for (auto& child : children) EXPECT_EQ(child->readLine(), "ok") << name;
    EXPECT_EQ(segmentsWithKey(shmtest::existingKey(name)), 1u);
    Subscriber<Pattern> subscriber(name);
    Sample<Pattern> out;
    ASSERT_TRUE(subscriber.latest(out))
        << name << " sequence " << subscriber.sequence() << " alive " << subscriber.publisherAlive()
        << " pid " << subscriber.publisherPid() << " publisher " << children[0]->pid();
    EXPECT_EQ(sequenceOf(out.value), 1u);
    for (auto& child : children) {
      child->closeInput();
      EXPECT_EQ(child->wait(), 0);
    }
  }
}

// Makes the topic's key file and a bare segment under its key, as a creator that died (or
// stalled) before initialising leaves it, from a child that then exits (or stays).
key_t makeKeyFile(const std::string& name) {
  mkdir("/tmp/topics", 0777);
  mkdir(shmtest::topicDir(name).c_str(), 0777);
  close(creat(shmtest::keyPath(name).c_str(), 0666));
  return ftok(shmtest::keyPath(name).c_str(), 1);
}

TEST_F(TopicProcessTest, ACreatorThatDiedBeforeInitialisingIsReplaced) {
  const std::string name = topic();
  const key_t key = makeKeyFile(name);
  Child creator;
  creator.fork([&] { return shmget(key, 8192, IPC_CREAT | IPC_EXCL | 0600) >= 0 ? 0 : 1; });
  ASSERT_EQ(creator.wait(), 0);
  ASSERT_EQ(segmentsWithKey(key), 1u);
  Subscriber<Pattern> subscriber(name);
  ASSERT_TRUE(subscriber) << subscriber.error();
  Publisher<Pattern> publisher(name);
  ASSERT_TRUE(publisher) << publisher.error();
  EXPECT_EQ(segmentsWithKey(key), 1u);
}

TEST_F(TopicProcessTest, ACreatorThatStallsIsReportedThenReplacedOnceGone) {
  const std::string name = topic();
  const key_t key = makeKeyFile(name);
  Child creator;
  creator.fork([&] {
    shmtest::report(shmget(key, 8192, IPC_CREAT | IPC_EXCL | 0600) >= 0 ? "made" : "failed");
    std::string ignored;
    while (std::getline(std::cin, ignored)) {
    }
    return 0;
  });
  ASSERT_EQ(creator.readLine(), "made");
  Subscriber<Pattern> waited(name);
  EXPECT_FALSE(waited);
  EXPECT_EQ(waited.error(), "topic '" + name + "': its creator (pid " +
                                std::to_string(creator.pid()) +
                                ") has not finished initialising it after 3 s");
  creator.closeInput();
  EXPECT_EQ(creator.wait(), 0);
  Subscriber<Pattern> later(name);
  EXPECT_TRUE(later) << later.error();
}

TEST_F(TopicProcessTest, ASubscriberKilledInWaitCostsOneWakeUp) {
  const std::string name = topic();
  Publisher<Pattern> publisher(name);
  Subscriber<Pattern> other(name);
  Child waiter;
  startHelper(waiter, "wait", name);
  ASSERT_EQ(waiter.readLine(), "ready");
  ASSERT_TRUE(waiter.waitUntilSleeping());
  waiter.killAndWait();
  for (uint64_t i = 1; i <= 3; ++i) publisher.publish(patternOf<Pattern>(i));
  EXPECT_EQ(publisher.wakeups(), 1u);
  Sample<Pattern> out;
  ASSERT_TRUE(other.latest(out));
  EXPECT_EQ(out.sequence, 3u);
  TopicStatus status;
  ASSERT_TRUE(mosk::kelvo::topicStatus(name, status));
  EXPECT_EQ(status.subscribers, 1u);  // the killed one no longer counts
}

TEST_F(TopicProcessTest, AWaitInAnotherProcessWakesOnPublish) {
  const std::string name = topic();
  Publisher<Pattern> publisher(name);
  Child waiter;
  startHelper(waiter, "wait", name);
  ASSERT_EQ(waiter.readLine(), "ready");
  ASSERT_TRUE(waiter.waitUntilSleeping());
  publisher.publish(patternOf<Pattern>(1));
  EXPECT_EQ(waiter.readLine(), "woken 1");
  EXPECT_EQ(waiter.wait(), 0);
}

TEST_F(TopicProcessTest, AForkChildDoesNotOwnItsParentsTopics) {
  const std::string name = topic();
  auto publisher = std::make_unique<Publisher<Pattern>>(name);
  ASSERT_TRUE(*publisher) << publisher->error();
  publisher->publish(patternOf<Pattern>(1));
  Child child;
  child.fork([&] {
    if (*publisher) return 10;
    publisher->publish(patternOf<Pattern>(99));
    fill(publisher->loan(), 98);
    publisher->publishLoaned();
    publisher.reset();  // must not let the parent's ownership go
    return 0;
  });
  EXPECT_EQ(child.wait(), 0);
  Subscriber<Pattern> subscriber(name);
  Sample<Pattern> out;
  ASSERT_TRUE(subscriber.latest(out));
  EXPECT_EQ(out.sequence, 1u);
  EXPECT_TRUE(subscriber.publisherAlive());
  EXPECT_FALSE(Publisher<Pattern>(name));
  publisher->publish(patternOf<Pattern>(2));
  ASSERT_TRUE(subscriber.latest(out));
  EXPECT_EQ(out.sequence, 2u);
}

// The thread id of this process's thread named `name`, or 0.
pid_t threadNamed(const std::string& name) {
  DIR* tasks = opendir("/proc/self/task");
  if (tasks == nullptr) return 0;
  pid_t found = 0;
  while (const dirent* entry = readdir(tasks)) {
    std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
    std::string line;
    if (std::getline(comm, line) && line == name) found = std::atoi(entry->d_name);
  }
  closedir(tasks);
  return found;
}

// How a control process sets up: memory locked, the loop's thread SCHED_FIFO, and the
// Publisher made on that thread. The keeper thread it starts must not inherit the real-time
// policy, and publishing must work with every page locked.
TEST_F(TopicProcessTest, APublisherMadeOnAFifoThreadUnderMlockallHasAnOrdinaryKeeper) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "mlockall would lock the sanitizer's reserved shadow memory";
#endif
  const std::string name = topic();
  Subscriber<Pattern> subscriber(name);
  ASSERT_TRUE(subscriber) << subscriber.error();
  Child child;
  child.fork([&name] {
    if (mlockall(MCL_CURRENT | MCL_FUTURE) != 0) return 77;
    int result = 1;
    std::thread([&] {
      sched_param fifo{};
      fifo.sched_priority = 10;
      if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &fifo) != 0) {
        result = 78;
        return;
      }
      Publisher<Pattern> publisher(name);
      const pid_t keeper = threadNamed("kelvo-owner");
      if (!publisher) {
        result = 2;
      } else if (keeper <= 0) {
        result = 3;
      } else if (sched_getscheduler(keeper) != SCHED_OTHER) {
        result = 4;
      } else {
        publisher.publish(patternOf<Pattern>(1));
        result = 0;
      }
    }).join();
    return result;
  });
  const int result = child.wait();
  if (result == 77) GTEST_SKIP() << "mlockall is not permitted here";
  if (result == 78) GTEST_SKIP() << "SCHED_FIFO is not permitted here";
  ASSERT_EQ(result, 0) << "2: not connected, 3: no keeper thread, 4: the keeper is not SCHED_OTHER";
  Sample<Pattern> out;
  ASSERT_TRUE(subscriber.latest(out));
  EXPECT_EQ(out.sequence, 1u);
  EXPECT_EQ(sequenceOf(out.value), 1u);
  EXPECT_FALSE(subscriber.publisherAlive());
}

TEST_F(TopicProcessTest, ATopicThisUserMayNotOpenIsAnError) {
  if (geteuid() != 0) GTEST_SKIP() << "switching to another user needs root";
  const std::string name = topic();
  Publisher<Pattern> publisher(name);  // a segment only its creator (root) may open
  ASSERT_TRUE(publisher);
  const std::string locked = name + "x";  // a directory nobody may write in
  ASSERT_EQ(mkdir(shmtest::topicDir(locked).c_str(), 0755), 0);
  Child child;
  child.fork([&] {
    if (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
        setresuid(65534, 65534, 65534) != 0) {
      return 77;
    }
    shmtest::report(Subscriber<Pattern>(name).error());
    shmtest::report(Publisher<Pattern>(name).error());
    shmtest::report(Subscriber<Pattern>(locked + "/inner").error());
    std::string why;
    mosk::kelvo::removeTopic(name, &why);
    shmtest::report(why);
    return 0;
  });
  std::vector<std::string> lines;
  for (int i = 0; i < 4; ++i) lines.push_back(child.readLine());
  const int result = child.wait();
  rmdir(shmtest::topicDir(locked).c_str());
  if (result == 77) GTEST_SKIP() << "cannot switch to user nobody here";
  const std::string denied = "topic '" + name + "': cannot open its segment: Permission denied";
  EXPECT_EQ(lines[0], denied);
  EXPECT_EQ(lines[1], denied);
  EXPECT_EQ(lines[2], "topic '" + locked + "/inner': cannot create the directory /tmp/topics/" +
                          locked + "/inner: Permission denied");
  EXPECT_EQ(lines[3], "topic '" + name + "': cannot read its segment's status: Permission denied");
}

}  // namespace
}  // namespace topictest
