// TraceTaskNames: the names behind the task identifiers of the loop's trace events, which
// names a task keeps, when a gone task's name is dropped, and the bound on the map for a
// program whose tasks come and go.
#include "mosk/kelvo/trace_task_names.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "mosk/kelvo/thread.h"
#include "mosk/kelvo/time_trace.h"
#include "periodic_thread_trace.h"

namespace mosk::kelvo {
namespace {

// The loop's own event texts: only these carry a task's identifier.
constexpr const char* kTaskStart = internal::kTaskStartFormat;
constexpr const char* kTaskEnd = internal::kTaskEndFormat;

// Identifiers far above any wrapper's serial, with a high word, so that they test the split.
constexpr uint64_t kFirstId = 0x7000000100000000ull;

// Every test starts and ends with none of its names kept.
class TraceTaskNamesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TraceTaskNames::prune();
    sizeBefore_ = TraceTaskNames::size();
  }
  void TearDown() override {
    for (uint64_t id : ids_) TraceTaskNames::retire(id);
    TraceTaskNames::prune();
    for (uint64_t id : ids_) EXPECT_FALSE(TraceTaskNames::contains(id)) << id;
  }

  // A fresh identifier named `name`.
  uint64_t addTask(const std::string& name) {
    const uint64_t id = kFirstId + nextId_++;
    ids_.push_back(id);
    TraceTaskNames::add(id, name);
    return id;
  }

  // Names kept beyond those there were when the test started.
  size_t addedSize() const { return TraceTaskNames::size() - sizeBefore_; }

  static void recordRun(TimeTrace::Buffer* ring, uint64_t id, uint32_t index) {
    const uint32_t low = TraceTaskNames::lowWord(id);
    const uint32_t high = TraceTaskNames::highWord(id);
    ring->record(1000, kTaskStart, index, 0, low, high);
    ring->record(2000, kTaskEnd, index, 0, low, high);
  }

 private:
  size_t sizeBefore_ = 0;
  uint64_t nextId_ = 0;
  std::vector<uint64_t> ids_;
};

TEST_F(TraceTaskNamesTest, IdentifiersSplitIntoTwoWordsAndBack) {
  EXPECT_EQ(TraceTaskNames::lowWord(0x0123456789abcdefull), 0x89abcdefu);
  EXPECT_EQ(TraceTaskNames::highWord(0x0123456789abcdefull), 0x01234567u);
  EXPECT_EQ(TraceTaskNames::fromWords(0x89abcdefu, 0x01234567u), 0x0123456789abcdefull);
  EXPECT_EQ(TraceTaskNames::fromWords(0xffffffffu, 0), 0xffffffffull);
}

TEST_F(TraceTaskNamesTest, AddedNamesAreFoundAndZeroIsNoTask) {
  const uint64_t controller = addTask("controller");
  const uint64_t planner = addTask("planner");
  EXPECT_EQ(TraceTaskNames::find(controller), "controller");
  EXPECT_EQ(TraceTaskNames::find(planner), "planner");
  EXPECT_TRUE(TraceTaskNames::contains(planner));
  EXPECT_EQ(addedSize(), 2u);
  EXPECT_EQ(TraceTaskNames::find(kFirstId - 1), "");
  EXPECT_FALSE(TraceTaskNames::contains(kFirstId - 1));
  TraceTaskNames::add(0, "nobody");
  EXPECT_FALSE(TraceTaskNames::contains(0));
  EXPECT_EQ(TraceTaskNames::find(0), "");
}

TEST_F(TraceTaskNamesTest, AddingAnIdentifierAgainReplacesItsNameAndMakesItLive) {
  const uint64_t id = addTask("first");
  TraceTaskNames::retire(id);
  TraceTaskNames::add(id, "second");
  EXPECT_EQ(TraceTaskNames::prune(), 0u);
  EXPECT_EQ(TraceTaskNames::find(id), "second");
  EXPECT_EQ(addedSize(), 1u);
}

TEST_F(TraceTaskNamesTest, ARetiredNameNoRingShowsIsPrunedALiveOneNever) {
  const uint64_t live = addTask("live");
  const uint64_t gone = addTask("gone");
  TraceTaskNames::retire(gone);
  TraceTaskNames::retire(gone);                 // already retired: ignored
  TraceTaskNames::retire(kFirstId - 1);         // unknown: ignored
  EXPECT_TRUE(TraceTaskNames::contains(gone));  // until a prune
  EXPECT_EQ(TraceTaskNames::prune(), 1u);
  EXPECT_FALSE(TraceTaskNames::contains(gone));
  EXPECT_EQ(TraceTaskNames::find(live), "live");
  EXPECT_EQ(TraceTaskNames::prune(), 0u);
}

TEST_F(TraceTaskNamesTest, ARetiredNameStaysWhileARegisteredRingShowsIt) {
  const uint64_t started = addTask("started");
  const uint64_t ended = addTask("ended");
  const uint64_t mentioned = addTask("mentioned");
  TimeTrace::createThreadBuffer();
  TimeTrace::Buffer* ring = TimeTrace::threadBuffer;
  const uint32_t low = TraceTaskNames::lowWord(started);
  ring->record(1000, kTaskStart, 0, 0, low, TraceTaskNames::highWord(started));
  ring->record(2000, kTaskEnd, 1, 9, TraceTaskNames::lowWord(ended),
               TraceTaskNames::highWord(ended));
  // Another event with the same arguments does not name a task.
  ring->record(3000, "mentioned %u %u %u %u", 0, 0, TraceTaskNames::lowWord(mentioned),
               TraceTaskNames::highWord(mentioned));
  for (uint64_t id : {started, ended, mentioned}) TraceTaskNames::retire(id);
  EXPECT_EQ(TraceTaskNames::prune(), 1u);
  EXPECT_EQ(TraceTaskNames::find(started), "started");
  EXPECT_EQ(TraceTaskNames::find(ended), "ended");
  EXPECT_FALSE(TraceTaskNames::contains(mentioned));
  ring->reset();
  EXPECT_EQ(TraceTaskNames::prune(), 2u);
  EXPECT_FALSE(TraceTaskNames::contains(started));
  EXPECT_FALSE(TraceTaskNames::contains(ended));
  TimeTrace::deleteThreadBuffer();  // empty: freed at once
}

TEST_F(TraceTaskNamesTest, AnEndedThreadsUnprintedRingKeepsNamesUntilAMergeFreesIt) {
  const uint64_t id = addTask("worker task");
  std::thread([&] {
    TimeTrace::createThreadBuffer();
    recordRun(TimeTrace::threadBuffer, id, 0);
    TimeTrace::deleteThreadBuffer();  // holds events: stays registered until printed
  }).join();
  TraceTaskNames::retire(id);
  EXPECT_EQ(TraceTaskNames::prune(), 0u);
  EXPECT_EQ(TraceTaskNames::find(id), "worker task");
  TimeTrace::getTrace();  // the merge that prints the ring frees it
  EXPECT_EQ(TraceTaskNames::prune(), 1u);
  EXPECT_FALSE(TraceTaskNames::contains(id));
}

TEST_F(TraceTaskNamesTest, AWrapperKeepsTheNameItsTaskHadWhenAddedAndRetiresIt) {
  auto task = std::make_shared<RealTimeTaskInternal>("old name", nullptr, 0, 100);
  auto wrapper = std::make_shared<RealTimeTaskWrapper>(task, nullptr, false);
  const uint64_t serial = wrapper->serial;
  EXPECT_EQ(TraceTaskNames::find(serial), "old name");
  task->name = "new name";  // the loop would see it, the timeline keeps the name it was added with
  EXPECT_EQ(TraceTaskNames::find(serial), "old name");
  EXPECT_EQ(TraceTaskNames::prune(), 0u);  // live
  wrapper.reset();
  EXPECT_TRUE(TraceTaskNames::contains(serial));  // retired, not yet pruned
  EXPECT_EQ(TraceTaskNames::prune(), 1u);
  EXPECT_FALSE(TraceTaskNames::contains(serial));
  // A wrapper without a task (never made by a thread) has an empty name.
  RealTimeTaskWrapper empty(nullptr, nullptr, false);
  EXPECT_TRUE(TraceTaskNames::contains(empty.serial));
  EXPECT_EQ(TraceTaskNames::find(empty.serial), "");
}

// Tasks that come and go for days: retire() prunes by itself once 64 retired names pile up,
// so the map never holds more than that beyond the live tasks.
TEST_F(TraceTaskNamesTest, TasksThatComeAndGoKeepTheMapBounded) {
  const uint64_t live = addTask("always there");
  size_t largest = 0;
  for (int i = 0; i < 20000; ++i) {
    auto task = std::make_shared<RealTimeTaskInternal>("transient", nullptr, 0, 100);
    { RealTimeTaskWrapper wrapper(task, nullptr, false); }
    largest = std::max(largest, addedSize());
  }
  EXPECT_LE(largest, 1u + 64u);
  EXPECT_EQ(TraceTaskNames::find(live), "always there");
}

// Names a ring still shows are kept, and raise the threshold to twice their number, so that
// prunes stay rare: the map holds them and at most twice as many retired ones beyond.
TEST_F(TraceTaskNamesTest, NamesARingShowsRaiseThePruneThreshold) {
  TimeTrace::createThreadBuffer();
  std::vector<uint64_t> shown;
  for (uint32_t i = 0; i < 100; ++i) {
    shown.push_back(addTask("shown"));
    recordRun(TimeTrace::threadBuffer, shown.back(), i);
  }
  for (uint64_t id : shown) TraceTaskNames::retire(id);
  TraceTaskNames::prune();
  EXPECT_EQ(addedSize(), 100u);
  size_t largest = 0;
  for (int i = 0; i < 5000; ++i) {
    TraceTaskNames::retire(addTask("transient"));
    largest = std::max(largest, addedSize());
  }
  EXPECT_LE(largest, 200u);
  for (uint64_t id : shown) EXPECT_EQ(TraceTaskNames::find(id), "shown");
  TimeTrace::threadBuffer->reset();
  TimeTrace::deleteThreadBuffer();
}

}  // namespace
}  // namespace mosk::kelvo
