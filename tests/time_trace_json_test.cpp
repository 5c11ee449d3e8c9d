// TimeTrace's trace-viewer output (Chrome trace-event JSON), parsed with a real JSON library:
// tracks named after threads, microseconds from the first event, time order, slices for the
// periodic loop's passes and task runs, and escaping of event texts.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "mosk/kelvo/cycles.h"
#include "mosk/kelvo/thread.h"
#include "mosk/kelvo/time_trace.h"
#include "mosk/kelvo/trace_task_names.h"
#include "periodic_thread_trace.h"
#include "thread_test_support.h"

namespace mosk::kelvo {
namespace {

using Buffer = TimeTrace::Buffer;
using nlohmann::json;

// The loop's own event texts: the renderer recognises exactly these.
constexpr const char* kPass = internal::kPassStartFormat;
constexpr const char* kTaskStart = internal::kTaskStartFormat;
constexpr const char* kTaskEnd = internal::kTaskEndFormat;

// A clock of exactly 1e9 cycles per second (1000 cycles = 1 us), restored afterwards.
class TraceJsonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    savedCyclesPerSec_ = Cycles::cyclesPerSec;
    Cycles::cyclesPerSec = 1e9;
    TimeTrace::keepOldEvents = false;
  }
  void TearDown() override {
    Cycles::cyclesPerSec = savedCyclesPerSec_;
    TimeTrace::keepOldEvents = false;
  }

  // Rings owned by the test, named as if recorded by threads of those names.
  Buffer* ring(const char* threadName) {
    rings_.push_back(std::make_unique<Buffer>());
    char saved[16] = {};
    pthread_getname_np(pthread_self(), saved, sizeof(saved));
    pthread_setname_np(pthread_self(), threadName);
    rings_.back()->captureThreadName();
    pthread_setname_np(pthread_self(), saved);
    return rings_.back().get();
  }

  json render(std::vector<Buffer*> buffers, const TimeTrace::TaskNamer& namer = nullptr) {
    return json::parse(TimeTrace::traceJsonOf(&buffers, namer));
  }

 private:
  double savedCyclesPerSec_ = 0;
  std::vector<std::unique_ptr<Buffer>> rings_;
};

// The events that are not metadata, in document order.
std::vector<json> timedEvents(const json& trace) {
  std::vector<json> events;
  for (const json& event : trace.at("traceEvents")) {
    if (event.at("ph") != "M") events.push_back(event);
  }
  return events;
}

std::map<int, std::string> trackNames(const json& trace) {
  std::map<int, std::string> names;
  for (const json& event : trace.at("traceEvents")) {
    if (event.at("ph") == "M" && event.at("name") == "thread_name") {
      names[event.at("tid").get<int>()] = event.at("args").at("name").get<std::string>();
    }
  }
  return names;
}

// Checks that begins and ends pair up, properly nested, on every track.
void expectBalancedSlices(const std::vector<json>& events) {
  std::map<int, int> depth;
  for (const json& event : events) {
    const int tid = event.at("tid").get<int>();
    if (event.at("ph") == "B") ++depth[tid];
    if (event.at("ph") == "E") {
      ASSERT_GT(depth[tid], 0) << "end without begin: " << event.dump();
      --depth[tid];
    }
  }
  for (const auto& [tid, open] : depth) EXPECT_EQ(open, 0) << "track " << tid;
}

TEST_F(TraceJsonTest, NoRingsGiveAValidDocumentWithoutEvents) {
  const json trace = render({});
  EXPECT_TRUE(timedEvents(trace).empty());
  EXPECT_TRUE(trackNames(trace).empty());
  const json empty = render({ring("idle")});
  EXPECT_TRUE(timedEvents(empty).empty());
  EXPECT_EQ(trackNames(empty), (std::map<int, std::string>{{1, "idle"}}));
}

TEST_F(TraceJsonTest, MicrosecondsFromTheFirstEventAndTextsAsNames) {
  Buffer* buffer = ring("control");
  buffer->record(1000, "first %d", 1);
  buffer->record(2000, "second %d %d", 2, 3);
  buffer->record(4500, "third");
  const std::vector<json> events = timedEvents(render({buffer}));
  ASSERT_EQ(events.size(), 3u);
  EXPECT_DOUBLE_EQ(events[0].at("ts").get<double>(), 0.0);
  EXPECT_DOUBLE_EQ(events[1].at("ts").get<double>(), 1.0);
  EXPECT_DOUBLE_EQ(events[2].at("ts").get<double>(), 3.5);
  EXPECT_EQ(events[0].at("name"), "first 1");
  EXPECT_EQ(events[1].at("name"), "second 2 3");
  EXPECT_EQ(events[2].at("name"), "third");
  for (const json& event : events) {
    EXPECT_EQ(event.at("ph"), "i");
    EXPECT_EQ(event.at("tid"), 1);
  }
}

TEST_F(TraceJsonTest, OneTrackPerRingNamedAfterItsThreadInTimeOrder) {
  Buffer* a = ring("sensor");
  Buffer* b = ring("actuator");
  a->record(1000, "a0");
  b->record(1500, "b0");
  a->record(3000, "a1");
  b->record(2000, "b1");
  b->record(3000, "b2");  // same time as a1: the earlier-registered ring first
  const json trace = render({a, b});
  EXPECT_EQ(trackNames(trace), (std::map<int, std::string>{{1, "sensor"}, {2, "actuator"}}));
  const std::vector<json> events = timedEvents(trace);
  std::vector<std::string> order;
  double previous = -1;
  for (const json& event : events) {
    order.push_back(event.at("name").get<std::string>());
    EXPECT_GE(event.at("ts").get<double>(), previous);
    previous = event.at("ts").get<double>();
    EXPECT_EQ(event.at("tid").get<int>(), order.back()[0] == 'a' ? 1 : 2);
  }
  // The default start is the younger ring's first event: a0 is older and left out.
  EXPECT_EQ(order, (std::vector<std::string>{"b0", "b1", "a1", "b2"}));
  TimeTrace::keepOldEvents = true;
  EXPECT_EQ(timedEvents(render({a, b})).size(), 5u);
}

TEST_F(TraceJsonTest, PassesAndTaskRunsAreSlicesNamedAfterTheirTasks) {
  Buffer* buffer = ring("loop");
  buffer->record(1000, kPass, 2);
  buffer->record(1100, kTaskStart, 0);
  buffer->record(1300, kTaskEnd, 0, 0);
  buffer->record(1400, kTaskStart, 1);
  buffer->record(1900, kTaskEnd, 1, 0);
  buffer->record(2000, kPass, 1);  // "b" left the thread: "a" alone now
  buffer->record(2100, kTaskStart, 0);
  buffer->record(2200, kTaskEnd, 0, 1);
  const auto namer = [](const std::string& thread, uint32_t index, uint32_t tasks) {
    EXPECT_EQ(thread, "loop");
    const std::vector<std::string> names =
        tasks == 2 ? std::vector<std::string>{"a", "b"} : std::vector<std::string>{"a"};
    return index < names.size() ? names[index] : std::string();
  };
  const std::vector<json> events = timedEvents(render({buffer}, namer));
  expectBalancedSlices(events);
  std::vector<std::string> shape;
  for (const json& event : events) {
    shape.push_back(event.at("ph").get<std::string>() + "@" +
                    std::to_string(static_cast<int>(event.at("ts").get<double>() * 10)) +
                    (event.contains("name") ? " " + event.at("name").get<std::string>() : ""));
  }
  EXPECT_EQ(shape,
            (std::vector<std::string>{
                "B@0 Task FRAME ++++++++++ started, 2 tasks", "B@1 a", "E@3", "B@4 b", "E@9", "E@9",
                "B@10 Task FRAME ++++++++++ started, 1 tasks", "B@11 a", "E@12", "E@12"}));
  EXPECT_EQ(events[1].at("args").at("text"), "Task[0] >>>>>>>> started");
  EXPECT_EQ(events[2].at("args").at("text"), "Task[0] <<<<<<<< end 0");
}

TEST_F(TraceJsonTest, RunsRecordedWithoutATaskAndWithoutANamerAreNamedByPosition) {
  Buffer* buffer = ring("loop");
  buffer->record(1000, kPass, 1);
  buffer->record(1100, kTaskStart, 0);
  buffer->record(1200, kTaskEnd, 0, 4);
  const std::vector<json> events = timedEvents(render({buffer}));
  ASSERT_EQ(events.size(), 4u);
  EXPECT_EQ(events[1].at("ph"), "B");
  EXPECT_EQ(events[1].at("name"), "Task[0]");
}

// A task's run as the loop records it: its position and its identifier.
void recordRun(Buffer* buffer, uint64_t start, uint64_t end, uint32_t index, uint64_t taskId) {
  const uint32_t low = TraceTaskNames::lowWord(taskId);
  const uint32_t high = TraceTaskNames::highWord(taskId);
  buffer->record(start, kTaskStart, index, 0, low, high);
  buffer->record(end, kTaskEnd, index, 0, low, high);
}

// A pass at `at` running `taskIds` in that order, 0.1 us apart.
void recordPass(Buffer* buffer, uint64_t at, const std::vector<uint64_t>& taskIds) {
  buffer->record(at, kPass, static_cast<uint32_t>(taskIds.size()));
  for (uint32_t i = 0; i < taskIds.size(); ++i) {
    recordRun(buffer, at + 100 + 200 * i, at + 200 + 200 * i, i, taskIds[i]);
  }
}

// Names of the begun slices, in order.
std::vector<std::string> sliceNames(const std::vector<json>& events) {
  std::vector<std::string> names;
  for (const json& event : events) {
    if (event.at("ph") == "B") names.push_back(event.at("name").get<std::string>());
  }
  return names;
}

// Task names for the identifiers of one test, taken back when it ends.
class NamedTasks {
 public:
  ~NamedTasks() {
    for (uint64_t id : ids_) TraceTaskNames::retire(id);
    TraceTaskNames::prune();
  }
  uint64_t add(const std::string& name) {
    ids_.push_back(0x5000000000000000ull + next_++ * 0x100000001ull);
    TraceTaskNames::add(ids_.back(), name);
    return ids_.back();
  }

 private:
  uint64_t next_ = 1;
  std::vector<uint64_t> ids_;
};

TEST_F(TraceJsonTest, WithoutANamerTaskSlicesAreNamedAfterTheTaskThatRan) {
  NamedTasks tasks;
  const uint64_t a = tasks.add("a");
  const uint64_t b = tasks.add("b");
  const uint64_t urgent = tasks.add("urgent");
  Buffer* buffer = ring("loop");
  recordPass(buffer, 1000, {a, b});
  recordPass(buffer, 2000, {urgent, a, b});  // "urgent" in front: the others move on
  recordPass(buffer, 3000, {urgent, b});     // "a" left: same length as the first pass
  const std::vector<json> events = timedEvents(render({buffer}));
  expectBalancedSlices(events);
  EXPECT_EQ(sliceNames(events),
            (std::vector<std::string>{"Task FRAME ++++++++++ started, 2 tasks", "a", "b",
                                      "Task FRAME ++++++++++ started, 3 tasks", "urgent", "a", "b",
                                      "Task FRAME ++++++++++ started, 2 tasks", "urgent", "b"}));
  // The event's own text, with the position, stays in the slice's arguments.
  EXPECT_EQ(events[1].at("args").at("text"), "Task[0] >>>>>>>> started");
  EXPECT_EQ(events[2].at("args").at("text"), "Task[0] <<<<<<<< end 0");
}

TEST_F(TraceJsonTest, ANamerOverridesTheTaskNameWhereItGivesOne) {
  NamedTasks tasks;
  const uint64_t a = tasks.add("a");
  const uint64_t b = tasks.add("b");
  Buffer* buffer = ring("loop");
  recordPass(buffer, 1000, {a, b});
  const auto namer = [](const std::string&, uint32_t index, uint32_t) {
    return index == 0 ? std::string("from namer") : std::string();
  };
  EXPECT_EQ(
      sliceNames(timedEvents(render({buffer}, namer))),
      (std::vector<std::string>{"Task FRAME ++++++++++ started, 2 tasks", "from namer", "b"}));
}

TEST_F(TraceJsonTest, RunsWithoutAKnownTaskAreNamedByPosition) {
  NamedTasks tasks;
  const uint64_t unnamed = tasks.add("");
  Buffer* buffer = ring("loop");
  // Recorded without an identifier, with one that has no name kept, with an empty name.
  recordPass(buffer, 1000, {0, 0x4fffffffffffffffull, unnamed});
  EXPECT_EQ(sliceNames(timedEvents(render({buffer}))),
            (std::vector<std::string>{"Task FRAME ++++++++++ started, 3 tasks", "Task[0]",
                                      "Task[1]", "Task[2]"}));
}

// A task's name is the one it had when it was added to its thread, even if it renames itself.
TEST_F(TraceJsonTest, ARunCarriesTheNameItsTaskHadWhenAdded) {
  auto task = std::make_shared<RealTimeTaskInternal>("as added", nullptr, 0, 100);
  auto wrapper = std::make_shared<RealTimeTaskWrapper>(task, nullptr, false);
  task->name = "renamed later";
  Buffer* buffer = ring("loop");
  recordPass(buffer, 1000, {wrapper->serial});
  EXPECT_EQ(sliceNames(timedEvents(render({buffer}))),
            (std::vector<std::string>{"Task FRAME ++++++++++ started, 1 tasks", "as added"}));
}

TEST_F(TraceJsonTest, AnEndClosesOnlyTheRunOfTheSameTask) {
  NamedTasks tasks;
  const uint64_t a = tasks.add("a");
  const uint64_t b = tasks.add("b");
  Buffer* buffer = ring("loop");
  buffer->record(1000, kTaskStart, 0, 0, TraceTaskNames::lowWord(a), TraceTaskNames::highWord(a));
  // Same position, another task: its start was overwritten, so this end is an instant.
  buffer->record(1100, kTaskEnd, 0, 5, TraceTaskNames::lowWord(b), TraceTaskNames::highWord(b));
  buffer->record(1200, kTaskEnd, 0, 6, TraceTaskNames::lowWord(a), TraceTaskNames::highWord(a));
  const std::vector<json> events = timedEvents(render({buffer}));
  expectBalancedSlices(events);
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[0].at("name"), "a");
  EXPECT_EQ(events[1].at("ph"), "i");
  EXPECT_EQ(events[1].at("name"), "Task[0] <<<<<<<< end 5");
  EXPECT_EQ(events[2].at("ph"), "E");
  EXPECT_DOUBLE_EQ(events[2].at("ts").get<double>(), 0.2);
}

TEST_F(TraceJsonTest, SlicesOpenAtTheEndOfTheRingAreClosedAtItsLastEvent) {
  Buffer* buffer = ring("loop");
  buffer->record(1000, kPass, 1);
  buffer->record(1500, kTaskStart, 0);
  const std::vector<json> events = timedEvents(render({buffer}));
  expectBalancedSlices(events);
  ASSERT_EQ(events.size(), 4u);
  EXPECT_EQ(events[2].at("ph"), "E");
  EXPECT_DOUBLE_EQ(events[2].at("ts").get<double>(), 0.5);
  EXPECT_EQ(events[3].at("ph"), "E");
}

TEST_F(TraceJsonTest, AnEndWhoseStartIsMissingIsAnInstant) {
  Buffer* buffer = ring("loop");
  buffer->record(1000, kTaskEnd, 3, 7);
  buffer->record(1100, kTaskStart, 0);
  buffer->record(1200, kTaskEnd, 1, 0);  // another task's end: the open run is not closed
  const std::vector<json> events = timedEvents(render({buffer}));
  expectBalancedSlices(events);
  EXPECT_EQ(events[0].at("ph"), "i");
  EXPECT_EQ(events[0].at("name"), "Task[3] <<<<<<<< end 7");
  EXPECT_EQ(events[2].at("ph"), "i");
}

TEST_F(TraceJsonTest, QuotesBackslashesControlCharactersAndBadBytesAreEscaped) {
  Buffer* buffer = ring("esc\"ape\\");
  static const char kNasty[] = "say \"hi\" \\ tab\there\nline\r\x01\x1f\x7f bell\a %d";
  static const char kUtf8[] = "caf\xc3\xa9 \xe2\x82\xac";
  static const char kBroken[] = "bad \xff\xc3 end";
  buffer->record(1000, kNasty, 5);
  buffer->record(2000, kUtf8);
  buffer->record(3000, kBroken);
  std::vector<Buffer*> buffers{buffer};
  const std::string text = TimeTrace::traceJsonOf(&buffers, nullptr);
  for (char c : text) EXPECT_FALSE(static_cast<unsigned char>(c) < 0x20 && c != '\n') << text;
  const json trace = json::parse(text);
  const std::vector<json> events = timedEvents(trace);
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[0].at("name"), "say \"hi\" \\ tab\there\nline\r\x01\x1f\x7f bell\a 5");
  EXPECT_EQ(events[1].at("name"), kUtf8);
  EXPECT_EQ(events[2].at("name"), "bad \xef\xbf\xbd\xef\xbf\xbd end");
  EXPECT_EQ(trackNames(trace).at(1), "esc\"ape\\");
}

TEST_F(TraceJsonTest, ReadingRestoresReaderCountsSoRecordingGoesOn) {
  Buffer* buffer = ring("loop");
  buffer->record(1000, "kept");
  render({buffer});
  EXPECT_EQ(buffer->readerCount.load(), 0);
  buffer->record(2000, "after");
  EXPECT_EQ(timedEvents(render({buffer})).size(), 2u);
}

TEST_F(TraceJsonTest, WriteTraceJsonReplacesTheFileAndReportsFailures) {
  const auto path = std::filesystem::temp_directory_path() /
                    ("kelvo-trace-json-" + std::to_string(getpid()) + ".json");
  {
    std::ofstream old(path);
    old << "old content that must go";
  }
  ASSERT_EQ(TimeTrace::writeTraceJson(path.c_str()), 0);
  std::ifstream in(path);
  const json trace = json::parse(in);
  EXPECT_TRUE(trace.contains("traceEvents"));
  std::filesystem::remove(path);

  testing::internal::CaptureStderr();
  EXPECT_EQ(TimeTrace::writeTraceJson("/nonexistent-dir/kelvo/trace.json"), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "TimeTrace: cannot open /nonexistent-dir/kelvo/trace.json: No such file or "
            "directory\n");
}

TEST(TraceJsonThreadNameTest, ReadWhenTheRingIsCreatedAndWhenTheThreadLetsGoOfIt) {
  std::string atCreation;
  std::string atRelease;
  std::thread([&] {
    pthread_setname_np(pthread_self(), "first-name");
    TimeTrace::createThreadBuffer();
    Buffer* buffer = TimeTrace::threadBuffer;
    atCreation = buffer->threadName();
    // A ring that holds events outlives its thread until a merge has read it.
    TimeTrace::record("named");
    pthread_setname_np(pthread_self(), "second-name");
    TimeTrace::deleteThreadBuffer();
    atRelease = buffer->threadName();
  }).join();
  TimeTrace::getTrace();  // the merge that lets the dead ring go
  EXPECT_EQ(atCreation, "first-name");
  EXPECT_EQ(atRelease, "second-name");
}

// Whether this process may run SCHED_FIFO threads (asked on a scratch thread).
bool mayUseSchedFifo() {
  bool allowed = false;
  std::thread([&] { allowed = setPriority(10) == 0; }).join();
  return allowed;
}

TEST(TraceJsonPeriodicThreadTest, ALoopsTraceShowsPassesAndTaskRunsOnItsThreadsTrack) {
  if (!mayUseSchedFifo()) GTEST_SKIP() << "this process may not create SCHED_FIFO threads";
  std::atomic<int> runs{0};
  {
    PeriodicThread thread(1000, "json-loop", ScheduleMethod::Sequential, -1, 10);
    thread.addTask(
        "alpha", [&] { runs.fetch_add(1); }, 0, 1000000);
    thread.addTask(
        "beta", [] {}, 0, 1000000);
    thread.setTraceEnabled(true);
    thread.start(0);
    test_support::waitFor([&] { return runs.load() >= 5; });  // checked once the loop ended
    thread.stop();
    thread.join();
  }
  ASSERT_GE(runs.load(), 5);
  const auto namer = [](const std::string& threadName, uint32_t index, uint32_t tasks) {
    if (threadName != "json-loop" || tasks != 2 || index > 1) return std::string();
    return std::string(index == 0 ? "alpha" : "beta");
  };
  const json trace = json::parse(TimeTrace::getTraceJson(namer));
  int tid = 0;
  for (const auto& [id, name] : trackNames(trace)) {
    if (name == "json-loop") tid = id;
  }
  ASSERT_NE(tid, 0) << trace.dump();
  const std::vector<json> events = timedEvents(trace);
  expectBalancedSlices(events);
  std::map<std::string, int> begins;
  for (const json& event : events) {
    if (event.at("tid") == tid && event.at("ph") == "B") ++begins[event.at("name")];
  }
  EXPECT_GE(begins["alpha"], 4);
  EXPECT_GE(begins["beta"], 4);
  EXPECT_GE(begins["Task FRAME ++++++++++ started, 2 tasks"], 4);
}

// A priority thread whose task list changes while it is traced: a task added in front, one
// removed, another added in its place (so two lists of the same length follow each other). Each
// task records a marker inside its run, and every marker must lie inside a slice named after the
// task that recorded it.
TEST(TraceJsonPeriodicThreadTest, EveryRunIsNamedAfterItsTaskWhileTheListChanges) {
  KELVO_REQUIRE_SCHED_FIFO();
  TraceTaskNames::prune();
  const size_t namesBefore = TraceTaskNames::size();
  static const char kMarker[] = "marker of %u";
  const std::vector<std::string> names = {"alpha", "beta", "gamma", "urgent", "delta"};
  enum : uint32_t { kAlpha, kBeta, kGamma, kUrgent, kDelta };
  std::atomic<int> runs[5] = {};
  {
    PeriodicThread thread(2000, "names-loop", ScheduleMethod::Priority, -1, 10);
    ASSERT_EQ(thread.getCreationError(), 0);
    const auto add = [&](uint32_t task, int priority) {
      thread.addTask(
          names[task],
          [&runs, task] {
            TimeTrace::record(kMarker, task);
            runs[task].fetch_add(1);
          },
          priority, 1000000);
    };
    const auto runsOf = [&](uint32_t task, int atLeast) {
      return test_support::waitFor([&] { return runs[task].load() >= atLeast; });
    };
    add(kAlpha, 50);
    add(kBeta, 30);
    add(kGamma, 10);
    thread.setTraceEnabled(true);
    thread.start(0);
    bool ran = runsOf(kGamma, 3);  // alpha, beta, gamma
    add(kUrgent, 90);
    ran = ran && runsOf(kUrgent, 3);  // urgent, alpha, beta, gamma
    EXPECT_EQ(thread.deleteTask("beta"), 1);
    thread.waitForNextCycle();
    const int alphaRuns = runs[kAlpha].load();
    ran = ran && runsOf(kAlpha, alphaRuns + 3);  // urgent, alpha, gamma
    add(kDelta, 30);
    ran = ran && runsOf(kDelta, 3);  // urgent, alpha, delta, gamma
    thread.stop();
    thread.join();
    ASSERT_TRUE(ran) << "the tasks did not run in time";
  }
  // Every task has left (the thread is gone), but the loop's ring still shows them all.
  TraceTaskNames::prune();
  const json trace = json::parse(TimeTrace::getTraceJson());
  int tid = 0;
  for (const auto& [id, name] : trackNames(trace)) {
    if (name == "names-loop") tid = id;
  }
  ASSERT_NE(tid, 0) << trace.dump();
  std::vector<json> events;
  for (const json& event : timedEvents(trace)) {
    if (event.at("tid") == tid) events.push_back(event);
  }
  expectBalancedSlices(events);

  std::vector<std::string> open;  // names of the slices open at each event
  std::map<std::string, int> markers;
  std::map<std::string, std::set<std::string>> positions;  // task -> "Task[i]" texts it ran as
  for (const json& event : events) {
    const std::string phase = event.at("ph");
    if (phase == "B") {
      const std::string name = event.at("name");
      open.push_back(name);
      ASSERT_EQ(name.rfind("Task[", 0), std::string::npos) << "a run named by position";
      if (name.rfind("Task FRAME", 0) != 0) positions[name].insert(event.at("args").at("text"));
    } else if (phase == "E") {
      open.pop_back();
    } else if (event.at("name").get<std::string>().rfind("marker of ", 0) == 0) {
      const std::string task = names.at(std::stoul(event.at("name").get<std::string>().substr(10)));
      ASSERT_FALSE(open.empty()) << "marker of " << task << " outside every slice";
      EXPECT_EQ(open.back(), task) << "at " << event.at("ts");
      ++markers[task];
    }
  }
  for (const std::string& name : names) EXPECT_GE(markers[name], 3) << name;
  // Positions shifted under the names: alpha ran first, then second; beta and delta both ran
  // third in a pass of four.
  EXPECT_EQ(positions["alpha"],
            (std::set<std::string>{"Task[0] >>>>>>>> started", "Task[1] >>>>>>>> started"}));
  EXPECT_EQ(positions["beta"],
            (std::set<std::string>{"Task[1] >>>>>>>> started", "Task[2] >>>>>>>> started"}));
  EXPECT_EQ(positions["delta"], (std::set<std::string>{"Task[2] >>>>>>>> started"}));
  // The merge has printed and freed the ended thread's ring: nothing shows the tasks now.
  TraceTaskNames::prune();
  EXPECT_EQ(TraceTaskNames::size(), namesBefore);
}

}  // namespace
}  // namespace mosk::kelvo
