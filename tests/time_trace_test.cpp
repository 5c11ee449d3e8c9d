#include "mosk/kelvo/time_trace.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "mosk/kelvo/cycles.h"
#include "periodic_thread_trace.h"

namespace mosk::kelvo {
namespace {

using Buffer = TimeTrace::Buffer;

constexpr char kNoEvents[] = "No time trace events to print";
constexpr char kHeader1000[] = "CYCLES_PER_SECOND 1000000000.000000\nSTART_CYCLES 1000\n";

// Waits for `condition` with a generous time-out; false if it never became true.
template <typename Condition>
bool waitFor(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::stringstream content;
  content << in.rdbuf();
  return content.str();
}

// Every test starts with an empty registry, no output file, the default start-time rule and a
// clock of exactly 1e9 cycles per second; the process's own state is restored afterwards.
class TimeTraceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    savedCyclesPerSec_ = Cycles::cyclesPerSec;
    Cycles::cyclesPerSec = 1e9;
    std::lock_guard<std::mutex> lock(TimeTrace::mutex);
    savedRegistry_.swap(TimeTrace::threadBuffers);
    savedFilename_ = TimeTrace::filename;
    TimeTrace::filename.clear();
    TimeTrace::keepOldEvents = false;
  }

  void TearDown() override {
    TimeTrace::deleteThreadBuffer();
    // A merge frees the rings whose thread deleted them, and forgets them: freed below instead,
    // their addresses would stay marked dead, and a later test's ring there would be freed twice.
    TimeTrace::getTrace();
    {
      std::lock_guard<std::mutex> lock(TimeTrace::mutex);
      // The registry owns the rings that threads created; this test's registry goes away with
      // the test. Rings from newRing() belong to the test itself.
      for (Buffer* ring : TimeTrace::threadBuffers) {
        const bool ownedByTest =
            std::any_of(rings_.begin(), rings_.end(),
                        [ring](const auto& owned) { return owned.get() == ring; });
        if (!ownedByTest) delete ring;
      }
      TimeTrace::threadBuffers.clear();
      TimeTrace::threadBuffers.swap(savedRegistry_);
      TimeTrace::filename = savedFilename_;
    }
    TimeTrace::keepOldEvents = false;
    Cycles::cyclesPerSec = savedCyclesPerSec_;
    if (!tempDir_.empty()) std::filesystem::remove_all(tempDir_);
  }

  // A ring owned by the test and registered after the ones before it.
  Buffer* newRing() {
    rings_.push_back(std::make_unique<Buffer>());
    std::lock_guard<std::mutex> lock(TimeTrace::mutex);
    TimeTrace::threadBuffers.push_back(rings_.back().get());
    return rings_.back().get();
  }

  // A unique directory, removed by TearDown.
  const std::filesystem::path& tempDir() {
    if (tempDir_.empty()) {
      char pattern[] = "/tmp/kelvo_time_trace_XXXXXX";
      EXPECT_NE(mkdtemp(pattern), nullptr);
      tempDir_ = pattern;
    }
    return tempDir_;
  }

  static void recordThree(Buffer* ring) {
    ring->record(1000, "first");
    ring->record(2000, "second %u", 7);
    ring->record(4000, "third");
  }

  std::vector<std::unique_ptr<Buffer>> rings_;

 private:
  double savedCyclesPerSec_ = 0;
  std::vector<Buffer*> savedRegistry_;
  std::string savedFilename_;
  std::filesystem::path tempDir_;
};

constexpr char kThreeEventsString[] =
    "CYCLES_PER_SECOND 1000000000.000000\nSTART_CYCLES 1000\n"
    "\n"
    "     0.0 us (+   0.0 us): first\n"
    "     1.0 us (+   1.0 us): second 7\n"
    "     3.0 us (+   2.0 us): third";

constexpr char kThreeEventsFile[] =
    "CYCLES_PER_SECOND 1000000000.000000\nSTART_CYCLES 1000\n"
    "     0.0 us (+   0.0 us): first\n"
    "     1.0 us (+   1.0 us): second 7\n"
    "     3.0 us (+   2.0 us): third\n";

TEST_F(TimeTraceTest, NewBufferIsEmpty) {
  Buffer* ring = newRing();
  EXPECT_EQ(ring->writeIndex.load(), 0);
  EXPECT_EQ(ring->readerCount.load(), 0);
  for (const Buffer::Event& event : ring->events) {
    ASSERT_EQ(event.format.load(), nullptr);
    ASSERT_EQ(event.timestamp.load(), 0u);
  }
  EXPECT_EQ(sizeof(Buffer::Event), 32u);
  EXPECT_EQ(Buffer::kSize, 8192);
}

TEST_F(TimeTraceTest, NoRingsPrintsNoEvents) {
  EXPECT_EQ(TimeTrace::getTrace(), kNoEvents);
  testing::internal::CaptureStdout();
  TimeTrace::print();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), kNoEvents);
}

TEST_F(TimeTraceTest, EmptyRingsPrintNoEvents) {
  newRing();
  newRing();
  EXPECT_EQ(TimeTrace::getTrace(), kNoEvents);
  TimeTrace::keepOldEvents = true;
  EXPECT_EQ(TimeTrace::getTrace(), kNoEvents);
}

TEST_F(TimeTraceTest, ThreeEventsStringForm) {
  recordThree(newRing());
  EXPECT_EQ(TimeTrace::getTrace(), kThreeEventsString);
}

TEST_F(TimeTraceTest, ThreeEventsFileFormOnStandardOutput) {
  recordThree(newRing());
  testing::internal::CaptureStdout();
  TimeTrace::print();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), kThreeEventsFile);
}

TEST_F(TimeTraceTest, PrintAppendsToOutputFile) {
  recordThree(newRing());
  const std::filesystem::path file = tempDir() / "trace.txt";
  TimeTrace::setOutputFileName(file.c_str());
  EXPECT_EQ(TimeTrace::filename, file.string());
  TimeTrace::print();
  TimeTrace::print();
  EXPECT_EQ(readFile(file), std::string(kThreeEventsFile) + kThreeEventsFile);
}

TEST_F(TimeTraceTest, NoEventsInFileHasNoNewline) {
  newRing();
  const std::filesystem::path file = tempDir() / "empty.txt";
  TimeTrace::setOutputFileName(file.c_str());
  TimeTrace::print();
  EXPECT_EQ(readFile(file), kNoEvents);
}

TEST_F(TimeTraceTest, NullOrEmptyFileNameMeansStandardOutput) {
  recordThree(newRing());
  TimeTrace::setOutputFileName("something");
  TimeTrace::setOutputFileName(nullptr);
  EXPECT_EQ(TimeTrace::filename, "");
  testing::internal::CaptureStdout();
  TimeTrace::print();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), kThreeEventsFile);
}

TEST_F(TimeTraceTest, UnopenableFileReportsOnStandardErrorOnly) {
  recordThree(newRing());
  const std::string file = (tempDir() / "missing" / "trace.txt").string();
  TimeTrace::setOutputFileName(file.c_str());
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  TimeTrace::print();
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(err, "TimeTrace: cannot open " + file + ": No such file or directory\n");
  EXPECT_FALSE(std::filesystem::exists(file));
  EXPECT_EQ(rings_[0]->readerCount.load(), 0);
  // The string form does not depend on the file.
  EXPECT_EQ(TimeTrace::getTrace(), kThreeEventsString);
}

TEST_F(TimeTraceTest, AllFourArgumentsAreFormatted) {
  Buffer* ring = newRing();
  ring->record(1000, "%u-%u-%u-%u", 1, 2, 3, 4294967295u);
  EXPECT_EQ(ring->getTrace(),
            std::string(kHeader1000) + "\n     0.0 us (+   0.0 us): 1-2-3-4294967295");
}

TEST_F(TimeTraceTest, FullRingPrintsOnlyTheLast8191Events) {
  Buffer* ring = newRing();
  for (uint32_t i = 0; i < 10000; ++i) ring->record(1000 + i * 1000, "e%u", i);
  EXPECT_EQ(ring->writeIndex.load(), 10000 % 8192);
  const std::string trace = TimeTrace::getTrace();
  std::istringstream lines(trace);
  std::string line;
  std::vector<std::string> events;
  while (std::getline(lines, line)) {
    if (line.find(" us (+") != std::string::npos) events.push_back(line);
  }
  ASSERT_EQ(events.size(), 8191u);
  EXPECT_EQ(trace.substr(0, trace.find('\n', trace.find('\n') + 1) + 1),
            "CYCLES_PER_SECOND 1000000000.000000\nSTART_CYCLES 1810000\n");
  EXPECT_EQ(events.front(), "     0.0 us (+   0.0 us): e1809");
  EXPECT_EQ(events[1], "     1.0 us (+   1.0 us): e1810");
  EXPECT_EQ(events.back(), "  8190.0 us (+   1.0 us): e9999");
}

TEST_F(TimeTraceTest, ExactlyFullRingStartsAfterTheWriteSlot) {
  Buffer* ring = newRing();
  for (uint32_t i = 0; i < 8192; ++i) ring->record(1000 + i, "e%u", i);
  EXPECT_EQ(ring->writeIndex.load(), 0);
  const std::string trace = ring->getTrace();
  // Slot 0 is the write slot: it still holds the oldest event, e0, which is never printed.
  EXPECT_NE(trace.find("START_CYCLES 1001\n\n     0.0 us (+   0.0 us): e1\n"), std::string::npos);
  EXPECT_EQ(trace.find(": e0\n"), std::string::npos);
  EXPECT_EQ(trace.substr(trace.rfind('\n') + 1), "     8.2 us (+   0.0 us): e8191");
}

TEST_F(TimeTraceTest, EqualTimestampsPrintTheEarlierRegisteredRingFirst) {
  Buffer* older = newRing();
  Buffer* younger = newRing();
  younger->record(1000, "younger");
  older->record(1000, "older");
  const std::string expected = std::string(kHeader1000) +
                               "\n     0.0 us (+   0.0 us): older"
                               "\n     0.0 us (+   0.0 us): younger";
  EXPECT_EQ(TimeTrace::getTrace(), expected);

  // The order of the vector decides, not the addresses.
  std::vector<Buffer*> reversed{younger, older};
  std::string s;
  TimeTrace::printInternal(&reversed, &s);
  EXPECT_EQ(s, std::string(kHeader1000) +
                   "\n     0.0 us (+   0.0 us): younger"
                   "\n     0.0 us (+   0.0 us): older");
}

TEST_F(TimeTraceTest, MergeIsInTimestampOrder) {
  Buffer* a = newRing();
  Buffer* b = newRing();
  a->record(1000, "a1");
  a->record(3000, "a3");
  b->record(1000, "b1");
  b->record(2000, "b2");
  b->record(4000, "b4");
  EXPECT_EQ(TimeTrace::getTrace(), std::string(kHeader1000) +
                                       "\n     0.0 us (+   0.0 us): a1"
                                       "\n     0.0 us (+   0.0 us): b1"
                                       "\n     1.0 us (+   1.0 us): b2"
                                       "\n     2.0 us (+   1.0 us): a3"
                                       "\n     3.0 us (+   1.0 us): b4");
}

TEST_F(TimeTraceTest, DefaultStartSkipsHistoryOlderThanTheYoungestRing) {
  Buffer* longRunning = newRing();
  Buffer* young = newRing();
  longRunning->record(1000, "old1");
  longRunning->record(2000, "old2");
  longRunning->record(3000, "old3");
  young->record(2500, "young1");
  young->record(3500, "young2");
  EXPECT_EQ(TimeTrace::getTrace(),
            "CYCLES_PER_SECOND 1000000000.000000\nSTART_CYCLES 2500\n"
            "\n     0.0 us (+   0.0 us): young1"
            "\n     0.5 us (+   0.5 us): old3"
            "\n     1.0 us (+   0.5 us): young2");
}

TEST_F(TimeTraceTest, KeepOldEventsPrintsTheWholeHistory) {
  Buffer* longRunning = newRing();
  Buffer* young = newRing();
  longRunning->record(1000, "old1");
  longRunning->record(2000, "old2");
  longRunning->record(3000, "old3");
  young->record(2500, "young1");
  young->record(3500, "young2");
  TimeTrace::keepOldEvents = true;
  EXPECT_EQ(TimeTrace::getTrace(), std::string(kHeader1000) +
                                       "\n     0.0 us (+   0.0 us): old1"
                                       "\n     1.0 us (+   1.0 us): old2"
                                       "\n     1.5 us (+   0.5 us): young1"
                                       "\n     2.0 us (+   0.5 us): old3"
                                       "\n     2.5 us (+   0.5 us): young2");
}

TEST_F(TimeTraceTest, EmptyRingsDoNotMoveTheStart) {
  newRing();
  recordThree(newRing());
  newRing();
  EXPECT_EQ(TimeTrace::getTrace(), kThreeEventsString);
  TimeTrace::keepOldEvents = true;
  EXPECT_EQ(TimeTrace::getTrace(), kThreeEventsString);
}

TEST_F(TimeTraceTest, EventRecordedDuringAPrintIsDropped) {
  Buffer* ring = newRing();
  ring->record(1000, "before");
  const std::filesystem::path fifo = tempDir() / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  TimeTrace::setOutputFileName(fifo.c_str());

  // The printer raises readerCount, then blocks opening the FIFO until we read it.
  std::thread printer([] { TimeTrace::print(); });
  const bool printing = waitFor([&] { return ring->readerCount.load() > 0; });
  ring->record(2000, "during");
  std::string output;
  {
    std::ifstream in(fifo);
    std::stringstream content;
    content << in.rdbuf();
    output = content.str();
  }
  printer.join();
  ASSERT_TRUE(printing);
  EXPECT_EQ(output, std::string(kHeader1000) + "     0.0 us (+   0.0 us): before\n");
  EXPECT_EQ(ring->readerCount.load(), 0);
  EXPECT_EQ(ring->getTrace(), std::string(kHeader1000) + "\n     0.0 us (+   0.0 us): before");

  ring->record(3000, "after");
  EXPECT_EQ(ring->getTrace(), std::string(kHeader1000) +
                                  "\n     0.0 us (+   0.0 us): before"
                                  "\n     2.0 us (+   2.0 us): after");
}

TEST_F(TimeTraceTest, RecordWhileReaderCountIsRaisedIsDropped) {
  Buffer* ring = newRing();
  ring->readerCount.fetch_add(1);
  ring->record(1000, "dropped");
  ring->readerCount.fetch_sub(1);
  EXPECT_EQ(ring->writeIndex.load(), 0);
  EXPECT_EQ(ring->getTrace(), kNoEvents);
}

TEST_F(TimeTraceTest, CreateThreadBufferTwiceRegistersOneRing) {
  EXPECT_EQ(TimeTrace::threadBuffer, nullptr);
  TimeTrace::createThreadBuffer();
  Buffer* ring = TimeTrace::threadBuffer;
  ASSERT_NE(ring, nullptr);
  TimeTrace::createThreadBuffer();
  EXPECT_EQ(TimeTrace::threadBuffer, ring);
  ASSERT_EQ(TimeTrace::threadBuffers.size(), 1u);
  EXPECT_EQ(TimeTrace::threadBuffers[0], ring);
}

TEST_F(TimeTraceTest, DeleteThreadBufferKeepsTheRegistryEntry) {
  TimeTrace::deleteThreadBuffer();  // no ring: nothing happens
  Buffer* ring = nullptr;
  std::thread worker([&] {
    TimeTrace::createThreadBuffer();
    ring = TimeTrace::threadBuffer;
    TimeTrace::record("on worker");
    TimeTrace::deleteThreadBuffer();
    EXPECT_EQ(TimeTrace::threadBuffer, nullptr);
  });
  worker.join();
  EXPECT_NE(ring, nullptr);
  EXPECT_EQ(TimeTrace::threadBuffer, nullptr);  // thread-local: the test thread has none
  ASSERT_EQ(TimeTrace::threadBuffers.size(), 1u);
  EXPECT_EQ(TimeTrace::threadBuffers[0], ring);
  // The ring outlives its thread, so merging stays safe and keeps the thread's events.
  const std::string trace = TimeTrace::getTrace();
  EXPECT_NE(trace.find("on worker"), std::string::npos) << trace;
}

TEST_F(TimeTraceTest, EachThreadGetsItsOwnRingInCreationOrder) {
  TimeTrace::createThreadBuffer();
  Buffer* mine = TimeTrace::threadBuffer;
  TimeTrace::threadBuffer->record(1000, "main");
  std::thread worker([] {
    TimeTrace::createThreadBuffer();
    TimeTrace::threadBuffer->record(1000, "worker");
  });
  worker.join();
  ASSERT_EQ(TimeTrace::threadBuffers.size(), 2u);
  EXPECT_EQ(TimeTrace::threadBuffers[0], mine);
  EXPECT_EQ(TimeTrace::getTrace(), std::string(kHeader1000) +
                                       "\n     0.0 us (+   0.0 us): main"
                                       "\n     0.0 us (+   0.0 us): worker");
}

TEST_F(TimeTraceTest, ConvenienceRecordUsesTheCallingThreadsRing) {
  TimeTrace::record("no ring: ignored %u", 1);  // must not crash
  TimeTrace::createThreadBuffer();
  Buffer* ring = TimeTrace::threadBuffer;
  const uint64_t before = Cycles::rdtsc();
  TimeTrace::record("value %u %u %u %u", 1, 2, 3, 4);
  const uint64_t after = Cycles::rdtsc();
  EXPECT_EQ(ring->writeIndex.load(), 1);
  EXPECT_GE(ring->events[0].timestamp.load(), before);
  EXPECT_LE(ring->events[0].timestamp.load(), after);
  const std::string trace = TimeTrace::getTrace();
  EXPECT_EQ(trace.substr(trace.rfind('\n') + 1), "     0.0 us (+   0.0 us): value 1 2 3 4");
}

TEST_F(TimeTraceTest, BufferResetForgetsEveryEvent) {
  Buffer* ring = newRing();
  for (uint32_t i = 0; i < 100; ++i) ring->record(1000 + i, "e%u", i);
  ring->reset();
  EXPECT_EQ(ring->writeIndex.load(), 0);
  for (int i = 0; i < 101; ++i) EXPECT_EQ(ring->events[i].format.load(), nullptr);
  EXPECT_EQ(ring->getTrace(), kNoEvents);
  recordThree(ring);
  EXPECT_EQ(ring->getTrace(), kThreeEventsString);
}

TEST_F(TimeTraceTest, ResetOfAFullRingClearsEverySlot) {
  Buffer* ring = newRing();
  for (uint32_t i = 0; i < 9000; ++i) ring->record(1000 + i, "e%u", i);
  ring->reset();
  for (const Buffer::Event& event : ring->events) ASSERT_EQ(event.format.load(), nullptr);
  recordThree(ring);
  EXPECT_EQ(ring->getTrace(), kThreeEventsString);
}

TEST_F(TimeTraceTest, ResetForgetsEveryRegisteredRing) {
  recordThree(newRing());
  recordThree(newRing());
  TimeTrace::reset();
  EXPECT_EQ(TimeTrace::getTrace(), kNoEvents);
}

TEST_F(TimeTraceTest, BufferOutputsShowOnlyThatRing) {
  Buffer* mine = newRing();
  Buffer* other = newRing();
  recordThree(mine);
  other->record(1500, "other");
  EXPECT_EQ(mine->getTrace(), kThreeEventsString);
  testing::internal::CaptureStdout();
  mine->print();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), kThreeEventsFile);
}

TEST_F(TimeTraceTest, EventTextIsCutTo999Characters) {
  static const std::string kLong(1500, 'x');
  Buffer* ring = newRing();
  ring->record(1000, kLong.c_str());
  const std::string trace = ring->getTrace();
  const std::string prefix = "     0.0 us (+   0.0 us): ";
  EXPECT_EQ(trace, std::string(kHeader1000) + "\n" + prefix + std::string(999, 'x'));
}

TEST_F(TimeTraceTest, HeaderIsCutTo199Characters) {
  Cycles::cyclesPerSec = 1e250;  // "%f" of it is 251 digits and a fraction
  Buffer* ring = newRing();
  ring->record(1000, "e");
  const std::string trace = ring->getTrace();
  const size_t newline = trace.find('\n');
  ASSERT_NE(newline, std::string::npos);
  EXPECT_EQ(newline, 199u);
  EXPECT_EQ(trace.substr(0, 18), "CYCLES_PER_SECOND ");
  EXPECT_EQ(trace.substr(newline), "\n     0.0 us (+   0.0 us): e");
}

TEST_F(TimeTraceTest, PrintRestoresReaderCounts) {
  Buffer* a = newRing();
  Buffer* b = newRing();
  recordThree(a);
  TimeTrace::getTrace();
  testing::internal::CaptureStdout();
  TimeTrace::print();
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(a->readerCount.load(), 0);
  EXPECT_EQ(b->readerCount.load(), 0);
}

// A pass of the periodic loop as it records it: the formats and arguments it has always
// printed, plus, when `taskIds` is set, the running task's identifier in the two arguments the
// formats leave unprinted (arg2 low word, arg3 high word).
void recordLoopPass(Buffer* ring, bool taskIds) {
  const uint32_t low = taskIds ? 0x89abcdefu : 0;
  const uint32_t high = taskIds ? 0x01234567u : 0;
  ring->record(1000, "Task FRAME ++++++++++ started, %d tasks", 2);
  ring->record(1250, "Task[%d] >>>>>>>> started", 0, 0, low, high);
  ring->record(1500, "marker %u", 7);
  ring->record(2750, "Task[%d] <<<<<<<< end %d", 0, 41, low, high);
  ring->record(3000, "Task[%d] >>>>>>>> started", 1, 0, low + 1, high);
  ring->record(12345, "Task[%d] <<<<<<<< end %d", 1, 4294967295u, low + 1, high);
}

constexpr char kLoopPassText[] =
    "CYCLES_PER_SECOND 1000000000.000000\nSTART_CYCLES 1000\n"
    "\n"
    "     0.0 us (+   0.0 us): Task FRAME ++++++++++ started, 2 tasks\n"
    "     0.2 us (+   0.2 us): Task[0] >>>>>>>> started\n"
    "     0.5 us (+   0.2 us): marker 7\n"
    "     1.8 us (+   1.2 us): Task[0] <<<<<<<< end 41\n"
    "     2.0 us (+   0.2 us): Task[1] >>>>>>>> started\n"
    "    11.3 us (+   9.3 us): Task[1] <<<<<<<< end -1";

constexpr char kLoopPassFile[] =
    "CYCLES_PER_SECOND 1000000000.000000\nSTART_CYCLES 1000\n"
    "     0.0 us (+   0.0 us): Task FRAME ++++++++++ started, 2 tasks\n"
    "     0.2 us (+   0.2 us): Task[0] >>>>>>>> started\n"
    "     0.5 us (+   0.2 us): marker 7\n"
    "     1.8 us (+   1.2 us): Task[0] <<<<<<<< end 41\n"
    "     2.0 us (+   0.2 us): Task[1] >>>>>>>> started\n"
    "    11.3 us (+   9.3 us): Task[1] <<<<<<<< end -1\n";

// The loop records its events with the texts defined in periodic_thread_trace.h; they are part
// of the trace's output format, which users' tools parse, so they are spelled out here once more.
TEST(LoopEventTextsTest, AreTheTextsTheTraceHasAlwaysShown) {
  EXPECT_STREQ(internal::kPassStartFormat, "Task FRAME ++++++++++ started, %d tasks");
  EXPECT_STREQ(internal::kTaskStartFormat, "Task[%d] >>>>>>>> started");
  EXPECT_STREQ(internal::kTaskEndFormat, "Task[%d] <<<<<<<< end %d");
}

// The task identifiers the loop records for the trace viewer change nothing in the text trace:
// both forms are byte for byte what they were without them.
TEST_F(TimeTraceTest, TaskIdentifiersLeaveTheTextTraceUnchanged) {
  Buffer* plain = newRing();
  recordLoopPass(plain, false);
  EXPECT_EQ(plain->getTrace(), kLoopPassText);
  Buffer* identified = newRing();
  recordLoopPass(identified, true);
  EXPECT_EQ(identified->getTrace(), kLoopPassText);
  testing::internal::CaptureStdout();
  plain->print();
  identified->print();
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_EQ(printed, std::string(kLoopPassFile) + kLoopPassFile);
}

// Recording and printing on different threads at once: every print is well formed and shows
// each ring's events in recording order. Run under ThreadSanitizer, this also shows that the
// protocol has no data race.
TEST_F(TimeTraceTest, ConcurrentRecordingAndPrinting) {
  constexpr int kRecorders = 2;
  std::atomic<bool> stop{false};
  std::atomic<int> ready{0};
  std::vector<std::thread> recorders;
  for (int r = 0; r < kRecorders; ++r) {
    recorders.emplace_back([&, r] {
      TimeTrace::createThreadBuffer();
      ready.fetch_add(1);
      for (uint32_t i = 0; !stop.load(std::memory_order_relaxed); ++i) {
        TimeTrace::record(r == 0 ? "r0 %u" : "r1 %u", i);
      }
    });
  }
  ASSERT_TRUE(waitFor([&] { return ready.load() == kRecorders; }));
  for (int print = 0; print < 20; ++print) {
    const std::string trace = TimeTrace::getTrace();
    if (trace == kNoEvents) continue;
    ASSERT_EQ(trace.rfind("CYCLES_PER_SECOND ", 0), 0u);
    std::istringstream lines(trace);
    std::string line;
    int64_t last[kRecorders] = {-1, -1};
    int outOfOrder = 0;
    int lineNumber = 0;
    while (std::getline(lines, line)) {
      if (++lineNumber <= 3) continue;  // header and empty line
      const size_t colon = line.find(" us): r");
      ASSERT_NE(colon, std::string::npos) << line;
      const int ring = line[colon + 7] - '0';
      ASSERT_TRUE(ring == 0 || ring == 1) << line;
      const int64_t value = std::strtoll(line.c_str() + colon + 9, nullptr, 10);
      // A store-buffered record racing with the start of the print may appear out of place.
      if (last[ring] >= 0 && value != last[ring] + 1) ++outOfOrder;
      last[ring] = value;
    }
    EXPECT_LE(outOfOrder, 2 * kRecorders);
  }
  stop.store(true);
  for (std::thread& recorder : recorders) recorder.join();
  std::lock_guard<std::mutex> lock(TimeTrace::mutex);
  for (Buffer* ring : TimeTrace::threadBuffers) delete ring;
  TimeTrace::threadBuffers.clear();
}

}  // namespace
}  // namespace mosk::kelvo
