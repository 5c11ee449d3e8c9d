#include "mosk/kelvo/plugin.h"

#include <dirent.h>
#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "mosk/kelvo/thread.h"
#include "plugin_test_support.h"
#include "thread_test_support.h"

// ---------------------------------------------------------------------------------------------
// The hook the test plug-ins report their life cycle through
// ---------------------------------------------------------------------------------------------

namespace {

struct LifeEvent {
  std::string plugin;
  std::string event;
  const void* activator;
  const void* context;
};

// Never destroyed: plug-ins left open report "unmapped" while the process exits.
std::mutex& theEventMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}
std::vector<LifeEvent>& theEvents() {
  static auto* events = new std::vector<LifeEvent>;
  return *events;
}

std::vector<LifeEvent> events() {
  std::lock_guard<std::mutex> lock(theEventMutex());
  return theEvents();
}

void clearEvents() {
  std::lock_guard<std::mutex> lock(theEventMutex());
  theEvents().clear();
}

// "plugin:event" for every event, in order, joined by spaces.
std::string eventTrail() {
  std::string trail;
  for (const LifeEvent& e : events())
    trail += (trail.empty() ? "" : " ") + e.plugin + ":" + e.event;
  return trail;
}

}  // namespace

extern "C" void kelvo_test_record(const char* plugin, const char* event, const void* activator,
                                  const void* context) {
  std::lock_guard<std::mutex> lock(theEventMutex());
  theEvents().push_back({plugin, event, activator, context});
}

namespace mosk::kelvo {
namespace {

using namespace std::chrono_literals;
using test_support::closeCompletely;
using test_support::isMapped;
using test_support::openHandleOf;
using test_support::pluginPath;
using test_support::readFile;
using test_support::ScratchFile;
using test_support::waitFor;

constexpr int kMaster = 2003000;

size_t openDescriptorCount() {
  size_t count = 0;
  if (DIR* directory = opendir("/proc/self/fd")) {
    while (readdir(directory) != nullptr) ++count;
    closedir(directory);
  }
  return count;
}

// The linker's message for opening `path`, found the same way the loader finds it.
std::string linkerMessageFor(const std::string& path) {
  void* handle = dlopen(path.c_str(), RTLD_LAZY);
  EXPECT_EQ(handle, nullptr);
  const char* message = dlerror();
  return message ? message : "";
}

PluginDetails* recordOf(const std::string& path) {
  void* handle = openHandleOf(path);
  return handle ? static_cast<PluginDetails*>(dlsym(handle, "exports")) : nullptr;
}

// A loader whose pool thread is always shut down, so that its destruction returns.
struct LoaderUnderTest : test_support::ShutDownLoader {
  LoaderUnderTest() : ShutDownLoader(kMaster) { clearEvents(); }
};

// What load(path) returned, with everything it printed on standard output meanwhile.
struct CapturedLoad {
  void* handle;
  std::string printed;
};

CapturedLoad loadCapturingStdout(LoaderUnderTest& loader, const std::string& path) {
  testing::internal::CaptureStdout();
  void* handle = nullptr;
  try {
    handle = loader->load(path);
  } catch (...) {
    testing::internal::GetCapturedStdout();  // ends the capture
    throw;
  }
  std::fflush(stdout);
  return {handle, testing::internal::GetCapturedStdout()};
}

struct ContextUnderTest {
  ~ContextUnderTest() { context.shutdown(); }
  PluginContext* operator->() { return &context; }
  PluginContext context;
};

// ---------------------------------------------------------------------------------------------
// Death-test helper: destruction that must (or must not) hang
// ---------------------------------------------------------------------------------------------

constexpr int kStillWaiting = 3;

// Runs in a death-test child. Standard output goes into a pipe read by a watchdog thread.
// `body` runs on this thread; if it returns, the child exits 0 after writing what it printed to
// standard error as "stdout=<text>;events=<trail>\n". Once `settled(text)` holds (checked on
// every read, and at least every 10 ms), the watchdog gives `body` a further second to return,
// then writes the same report and exits with kStillWaiting: the body is still blocked.
[[noreturn]] void runWithWatchdog(const std::function<void()>& body,
                                  const std::function<bool(const std::string&)>& settled) {
  int fds[2];
  if (pipe(fds) != 0) _exit(10);
  std::fflush(stdout);
  dup2(fds[1], STDOUT_FILENO);
  setvbuf(stdout, nullptr, _IONBF, 0);
  auto captured = std::make_shared<std::string>();
  auto capturedMutex = std::make_shared<std::mutex>();
  auto report = [captured, capturedMutex](int code) {
    std::string text;
    {
      std::lock_guard<std::mutex> lock(*capturedMutex);
      text = "stdout=" + *captured + ";events=" + eventTrail() + "\n";
    }
    if (write(STDERR_FILENO, text.data(), text.size()) < 0) _exit(11);
    _exit(code);
  };
  // Moves what is waiting in the pipe into `captured`. Reading and appending happen under one
  // lock, so whoever holds it next sees every byte read so far.
  auto drain = [fd = fds[0], captured, capturedMutex] {
    std::lock_guard<std::mutex> lock(*capturedMutex);
    pollfd readable{fd, POLLIN, 0};
    while (poll(&readable, 1, 0) > 0) {
      char buffer[512];
      const ssize_t n = read(fd, buffer, sizeof(buffer));
      if (n <= 0) break;
      captured->append(buffer, static_cast<size_t>(n));
    }
  };
  std::thread([=] {
    const auto giveUp = std::chrono::steady_clock::now() + 60s;
    std::chrono::steady_clock::time_point settledAt{};
    for (;;) {
      pollfd readable{fds[0], POLLIN, 0};
      if (poll(&readable, 1, 10) > 0) drain();
      const auto now = std::chrono::steady_clock::now();
      bool isSettled;
      {
        std::lock_guard<std::mutex> lock(*capturedMutex);
        isSettled = settled(*captured);
      }
      if (isSettled && settledAt == std::chrono::steady_clock::time_point{}) settledAt = now;
      if ((settledAt != std::chrono::steady_clock::time_point{} && now - settledAt > 1s) ||
          now > giveUp) {
        report(kStillWaiting);
      }
    }
  }).detach();
  body();
  // Take in what the body printed, then report that the body returned.
  drain();
  report(0);
  std::abort();  // report() does not return
}

const auto kAlwaysSettled = [](const std::string&) { return true; };

// ---------------------------------------------------------------------------------------------
// The binary contract
// ---------------------------------------------------------------------------------------------

TEST(PluginDetailsTest, IsTheAggregateOfTheBinaryContract) {
  PluginDetails details{1, 1000000, 1000000, "f", "c", "p", nullptr, nullptr};
  EXPECT_EQ(details.apiVersion, 1);
  EXPECT_EQ(sizeof(PluginDetails), 104u);
}

// ---------------------------------------------------------------------------------------------
// PluginContext: the service registry
// ---------------------------------------------------------------------------------------------

TEST(PluginContextTest, FirstRegistrationOfANameWins) {
  REQUIRE_POOL_THREAD();
  ContextUnderTest context;
  int p = 0, q = 0;
  context->RegisterService("svc", &p);
  context->RegisterService("svc", &q);
  EXPECT_EQ(context->GetService("svc"), &p);
}

TEST(PluginContextTest, UnregisterFreesTheNameForANewRegistration) {
  REQUIRE_POOL_THREAD();
  ContextUnderTest context;
  int p = 0, q = 0;
  context->RegisterService("svc", &p);
  context->UnregisterService("svc");
  EXPECT_EQ(context->GetService("svc"), nullptr);
  context->RegisterService("svc", &q);
  EXPECT_EQ(context->GetService("svc"), &q);
}

TEST(PluginContextTest, UnregisterOfAnUnknownNameDoesNothing) {
  REQUIRE_POOL_THREAD();
  ContextUnderTest context;
  int p = 0;
  context->RegisterService("svc", &p);
  context->UnregisterService("other");
  EXPECT_EQ(context->GetService("svc"), &p);
  EXPECT_EQ(context->dumpSerivces(), std::vector<std::string>{"svc"});
}

TEST(PluginContextTest, NamesAreWholeCaseSensitiveByteStrings) {
  REQUIRE_POOL_THREAD();
  ContextUnderTest context;
  int p = 0;
  context->RegisterService("Clock", &p);
  EXPECT_EQ(context->GetService("clock"), nullptr);
  EXPECT_EQ(context->GetService("Clock "), nullptr);
  EXPECT_EQ(context->GetService("Cloc"), nullptr);
  EXPECT_EQ(context->GetService("Clock"), &p);
}

TEST(PluginContextTest, NullNameYieldsNullForGetButThrowsForRegisterAndUnregister) {
  REQUIRE_POOL_THREAD();
  ContextUnderTest context;
  int p = 0;
  context->RegisterService("svc", &p);
  EXPECT_EQ(context->GetService(nullptr), nullptr);
  for (auto call : {std::function<void()>([&] { context->RegisterService(nullptr, &p); }),
                    std::function<void()>([&] { context->UnregisterService(nullptr); })}) {
    try {
      call();
      ADD_FAILURE() << "no exception";
    } catch (const std::logic_error& e) {
      EXPECT_STREQ(e.what(), "basic_string::_M_construct null not valid");
    }
  }
  EXPECT_EQ(context->dumpSerivces(), std::vector<std::string>{"svc"});
}

TEST(PluginContextTest, ServiceRegisteredAsNullLooksMissing) {
  REQUIRE_POOL_THREAD();
  ContextUnderTest context;
  context->RegisterService("nothing", nullptr);
  EXPECT_EQ(context->GetService("nothing"), nullptr);
  EXPECT_EQ(context->dumpSerivces().size(), 1u);
}

TEST(PluginContextTest, DumpOfAnEmptyRegistryIsEmpty) {
  REQUIRE_POOL_THREAD();
  ContextUnderTest context;
  EXPECT_TRUE(context->dumpSerivces().empty());
}

TEST(PluginContextTest, DumpListsEveryName) {
  REQUIRE_POOL_THREAD();
  ContextUnderTest context;
  int p = 0;
  for (const char* name : {"a", "b", "c"}) context->RegisterService(name, &p);
  const auto names = context->dumpSerivces();
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()),
            (std::set<std::string>{"a", "b", "c"}));
}

TEST(PluginContextTest, ManyNamesOfEveryLengthSurviveGrowthAndRemoval) {
  REQUIRE_POOL_THREAD();
  ContextUnderTest context;
  std::vector<std::string> names;
  for (int i = 0; i < 2000; ++i) names.push_back(std::string(i % 23, 'x') + std::to_string(i));
  names.push_back("");
  std::vector<int> values(names.size());
  for (size_t i = 0; i < names.size(); ++i) context->RegisterService(names[i].c_str(), &values[i]);
  for (size_t i = 0; i < names.size(); i += 2) context->UnregisterService(names[i].c_str());
  for (size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(context->GetService(names[i].c_str()), i % 2 == 0 ? nullptr : &values[i]) << i;
  }
  EXPECT_EQ(context->dumpSerivces().size(), names.size() / 2);
  // Removed names can come back; remaining names keep their first pointer.
  for (size_t i = 0; i < names.size(); ++i) context->RegisterService(names[i].c_str(), &values[0]);
  for (size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(context->GetService(names[i].c_str()), i % 2 == 0 ? &values[0] : &values[i]) << i;
  }
  const auto listed = context->dumpSerivces();
  EXPECT_EQ(std::set<std::string>(listed.begin(), listed.end()),
            std::set<std::string>(names.begin(), names.end()));
  EXPECT_EQ(listed.size(), names.size());
  // Churn: register and unregister one name many times (removed slots must not pile up).
  for (int i = 0; i < 10000; ++i) {
    context->RegisterService("churn", &values[1]);
    context->UnregisterService("churn");
  }
  EXPECT_EQ(context->GetService("churn"), nullptr);
  EXPECT_EQ(context->dumpSerivces().size(), names.size());
}

// ---------------------------------------------------------------------------------------------
// PluginContext: the pool thread
// ---------------------------------------------------------------------------------------------

TEST(PluginContextTest, FreshContextRunsOnePoolThreadAsSpecified) {
  REQUIRE_POOL_THREAD();
  ContextUnderTest context;
  std::shared_ptr<PeriodicThread> pool = context->getPoolThread();
  ASSERT_NE(pool, nullptr);
  EXPECT_EQ(pool->tasksSize(), 0u);
  struct Seen {
    std::atomic<int> runs{0};
    std::atomic<int> policy{-1};
    std::atomic<int> priority{-1};
    std::atomic<uint64_t> firstNs{0}, lastNs{0};
    char name[16] = {};
    std::atomic<bool> named{false};
  } seen;
  EXPECT_TRUE(context->addThreadTask("inspect", [&seen] {
    const uint64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                             std::chrono::steady_clock::now().time_since_epoch())
                             .count();
    if (seen.runs.load() == 0) {
      seen.policy = sched_getscheduler(0);
      sched_param param{};
      sched_getparam(0, &param);
      seen.priority = param.sched_priority;
      prctl(PR_GET_NAME, seen.name);
      seen.named = true;
      seen.firstNs = now;
    }
    seen.lastNs = now;
    seen.runs.fetch_add(1);
  }));
  ASSERT_TRUE(waitFor([&] { return seen.runs.load() >= 11; }));
  EXPECT_EQ(context->removeThreadTask("inspect"), 1);
  EXPECT_EQ(seen.policy.load(), SCHED_FIFO);
  EXPECT_EQ(seen.priority.load(), 80);
  ASSERT_TRUE(seen.named.load());
  EXPECT_STREQ(seen.name, "ThreadInPoolWit") << "the kernel keeps 15 characters";
  cpu_set_t process;
  ASSERT_EQ(sched_getaffinity(0, sizeof(process), &process), 0);
  const cpu_set_t affinity = pool->getCpuAffinity();
  EXPECT_TRUE(CPU_EQUAL(&process, &affinity)) << "not pinned";
  // At least ten 5 ms periods lie between the first and the eleventh run (a loaded machine
  // only makes it longer; a lower bound with room for a late start).
  EXPECT_GE(seen.lastNs.load() - seen.firstNs.load(), 40000000u);
}

TEST(PluginContextTest, ThreadTaskWithEmptyNameIsRefused) {
  REQUIRE_POOL_THREAD();
  ContextUnderTest context;
  bool ran = false;
  std::function<void()> task = [&ran] { ran = true; };
  EXPECT_FALSE(context->addThreadTask("", std::move(task)));
  EXPECT_EQ(context->getPoolThread()->tasksSize(), 0u);
  EXPECT_TRUE(static_cast<bool>(task)) << "the task is left with the caller";
}

TEST(PluginContextTest, ThreadTaskGetsPriorityMinusOneNoTimeBudgetAndRunsRepeatedly) {
  REQUIRE_POOL_THREAD();
  ContextUnderTest context;
  std::atomic<int> runs{0};
  EXPECT_TRUE(context->addThreadTask("repeat", [&runs] { runs.fetch_add(1); }));
  auto pool = context->getPoolThread();
  EXPECT_EQ(pool->tasksSize(), 1u);
  EXPECT_EQ(pool->getTaskNames(), "Task names: \nTask 0: repeat\n");
  ASSERT_TRUE(waitFor([&] { return runs.load() >= 3; })) << "not run-once";
  std::shared_ptr<RealTimeTask> task = pool->getExecuteTask();
  ASSERT_NE(task, nullptr);
  EXPECT_EQ(task->getName(), "repeat");
  EXPECT_EQ(task->getPriority(), -1);
  EXPECT_EQ(task->getExpectedMaxRuntime(), 0u);
  task.reset();
  // Every run reaches an expected maximum of 0 us: an overshoot each time.
  ASSERT_TRUE(waitFor([&] { return !pool->getErrorString().empty(); }));
  context->removeThreadTask("repeat");
}

TEST(PluginContextTest, ThreadTasksAddedAndRemovedWhileThePoolRuns) {
  REQUIRE_POOL_THREAD();
  ContextUnderTest context;
  constexpr int kTasks = 8;
  std::atomic<int> runs[kTasks] = {};
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < kTasks; ++i) {
      EXPECT_TRUE(
          context->addThreadTask("task" + std::to_string(i), [&runs, i] { runs[i].fetch_add(1); }));
    }
    for (int i = 0; i < kTasks; ++i) {
      const int before = runs[i].load();
      ASSERT_TRUE(waitFor([&] { return runs[i].load() > before; }));
    }
    for (int i = 0; i < kTasks; ++i) {
      EXPECT_EQ(context->removeThreadTask("task" + std::to_string(i)), 1);
    }
    EXPECT_EQ(context->getPoolThread()->tasksSize(), 0u);
  }
}

TEST(PluginContextTest, RemoveThreadTaskReturnsOnceTheCallableIsDestroyed) {
  REQUIRE_POOL_THREAD();
  ContextUnderTest context;
  auto sentinel = std::make_shared<int>(0);
  std::atomic<int> runs{0};
  context->addThreadTask("holder", [sentinel, &runs] { runs.fetch_add(1); });
  ASSERT_TRUE(waitFor([&] { return runs.load() > 0; }));
  EXPECT_EQ(context->removeThreadTask("holder"), 1);
  EXPECT_EQ(sentinel.use_count(), 1) << "the task's copy is gone";
  const int after = runs.load();
  // Proof that it cannot run again: its callable no longer exists.
  EXPECT_EQ(context->removeThreadTask("holder"), 0);
  EXPECT_EQ(runs.load(), after);
}

TEST(PluginContextTest, RemoveThreadTaskTakesEveryTaskOfThatName) {
  REQUIRE_POOL_THREAD();
  ContextUnderTest context;
  context->addThreadTask("twin", [] {});
  context->addThreadTask("twin", [] {});
  context->addThreadTask("other", [] {});
  EXPECT_EQ(context->removeThreadTask("twin"), 2);
  EXPECT_EQ(context->getPoolThread()->getTaskNames(), "Task names: \nTask 0: other\n");
}

TEST(PluginContextTest, ShutdownStopsThePoolAndDropsLaterTasks) {
  REQUIRE_POOL_THREAD();
  PluginContext context;
  auto sentinel = std::make_shared<int>(0);
  context.addThreadTask("before", [sentinel] {});
  std::weak_ptr<PeriodicThread> pool = context.getPoolThread();
  context.shutdown();
  EXPECT_EQ(sentinel.use_count(), 1) << "tasks are released by shutdown";
  EXPECT_TRUE(pool.expired());
  EXPECT_EQ(context.getPoolThread(), nullptr);
  EXPECT_TRUE(context.addThreadTask("after", [sentinel] {}));
  EXPECT_EQ(sentinel.use_count(), 1) << "a task added after shutdown is dropped";
  EXPECT_EQ(context.removeThreadTask("after"), 0);
  context.shutdown();  // twice is fine
  int p = 0;
  context.RegisterService("still", &p);  // the registry outlives the pool
  EXPECT_EQ(context.GetService("still"), &p);
}  // destruction returns at once

TEST(PluginContextDeathTest, DestructionWithoutShutdownWaitsForThePoolThread) {
  REQUIRE_POOL_THREAD();
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(runWithWatchdog([] { delete new PluginContext; }, kAlwaysSettled),
              testing::ExitedWithCode(kStillWaiting), "^stdout=;events=\n$");
}

TEST(PluginContextDeathTest, DestructionAfterShutdownReturns) {
  REQUIRE_POOL_THREAD();
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(runWithWatchdog(
                  [] {
                    auto* context = new PluginContext;
                    context->addThreadTask("t", [] {});
                    context->shutdown();
                    delete context;
                  },
                  [](const std::string&) { return false; }),
              testing::ExitedWithCode(0), "^stdout=;events=\n$");
}

// ---------------------------------------------------------------------------------------------
// PluginLoader: failures of load
// ---------------------------------------------------------------------------------------------

void expectCannotLoad(const std::string& path) {
  const std::string expected = "Cannot load library: " + linkerMessageFor(path);
  LoaderUnderTest loader;
  try {
    loader->load(path);
    ADD_FAILURE() << "no exception for " << path;
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()), expected);
  }
  EXPECT_EQ(loader->error(), expected);
  EXPECT_EQ(loader->dump(), "services: 0 \n \n");
}

TEST(PluginLoaderTest, MissingFileThrowsWithTheLinkersMessage) {
  REQUIRE_POOL_THREAD();
  expectCannotLoad("/nonexistent/kelvo/libnothing.so");
  EXPECT_NE(linkerMessageFor("/nonexistent/kelvo/libnothing.so").find("No such file"),
            std::string::npos);
}

TEST(PluginLoaderTest, FileThatIsNotElfThrows) {
  REQUIRE_POOL_THREAD();
  ScratchFile text("this is not a shared object\n");
  expectCannotLoad(text.path());
}

TEST(PluginLoaderTest, ElfTooShortForItsHeaderThrowsWithTheLinkersMessage) {
  REQUIRE_POOL_THREAD();
  const std::string whole = readFile(pluginPath("good"));
  for (size_t length : {size_t{16}, size_t{63}}) {
    ScratchFile truncated(whole.substr(0, length));
    expectCannotLoad(truncated.path());
  }
}

// The linker would map segments past the end of such a file and die of SIGBUS touching them:
// the loader refuses the file first, in the linker's words.
TEST(PluginLoaderTest, ElfTruncatedInsideItsSegmentsThrowsInsteadOfCrashing) {
  REQUIRE_POOL_THREAD();
  const std::string whole = readFile(pluginPath("good"));
  ASSERT_GT(whole.size(), 4096u);
  // Cut inside the header table, just after it, and in the middle of the last loaded segment.
  Elf64_Ehdr header;
  std::memcpy(&header, whole.data(), sizeof(header));
  size_t insideLastSegment = 0;
  for (unsigned i = 0; i < header.e_phnum; ++i) {
    Elf64_Phdr segment;
    std::memcpy(&segment, whole.data() + header.e_phoff + i * sizeof(segment), sizeof(segment));
    if (segment.p_type == PT_LOAD) insideLastSegment = segment.p_offset + segment.p_filesz / 2;
  }
  ASSERT_GT(insideLastSegment, 1024u);
  for (size_t length : {size_t{64}, size_t{200}, size_t{1024}, insideLastSegment}) {
    ScratchFile truncated(whole.substr(0, length));
    const std::string expected = "Cannot load library: " + truncated.path() + ": file too short";
    LoaderUnderTest loader;
    try {
      loader->load(truncated.path());
      ADD_FAILURE() << "no exception for " << length << " bytes";
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(std::string(e.what()), expected) << length << " bytes";
    }
    EXPECT_EQ(loader->error(), expected);
  }
}

TEST(PluginLoaderTest, ErrorIsEmptyBeforeAnyFailure) {
  REQUIRE_POOL_THREAD();
  LoaderUnderTest loader;
  EXPECT_EQ(loader->error(), "");
}

TEST(PluginLoaderTest, SetErrorAppendsThePendingLinkerMessage) {
  REQUIRE_POOL_THREAD();
  LoaderUnderTest loader;
  const std::string message = linkerMessageFor("/nonexistent/kelvo/other.so");
  ASSERT_EQ(dlopen("/nonexistent/kelvo/other.so", RTLD_LAZY), nullptr);
  try {
    loader->setError("What failed");
    ADD_FAILURE() << "setError returned";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()), "What failed: " + message);
  }
  EXPECT_EQ(loader->error(), "What failed: " + message);
}

TEST(PluginLoaderTest, SetErrorWithoutALinkerMessageThrowsLogicErrorAndKeepsTheText) {
  REQUIRE_POOL_THREAD();
  LoaderUnderTest loader;
  EXPECT_THROW(loader->load("/nonexistent/kelvo/x.so"), std::runtime_error);
  const std::string before = loader->error();
  dlerror();  // nothing pending any more
  try {
    loader->setError("Again");
    ADD_FAILURE() << "setError returned";
  } catch (const std::logic_error& e) {
    EXPECT_STREQ(e.what(), "basic_string::_M_construct null not valid");
  }
  EXPECT_EQ(loader->error(), before);
}

TEST(PluginLoaderTest, LibraryWithoutExportsGivesNullSilentlyAndStaysOpen) {
  REQUIRE_POOL_THREAD();
  const std::string path = pluginPath("no_exports");
  {
    LoaderUnderTest loader;
    const CapturedLoad load = loadCapturingStdout(loader, path);
    EXPECT_EQ(load.handle, nullptr);
    EXPECT_EQ(load.printed, "");
    EXPECT_EQ(loader->error(), "");
    EXPECT_EQ(loader->dump(), "services: 0 \n \n");
  }
  EXPECT_TRUE(isMapped(path)) << "left open on purpose";
  closeCompletely(path);
  EXPECT_FALSE(isMapped(path));
}

// A plug-in that defines its record the plain way, `extern "C" PluginDetails exports{...};`,
// with no visibility attribute: kelvo_add_plugin exports it all the same.
TEST(PluginLoaderTest, PlainRecordBuiltWithKelvoAddPluginLoads) {
  REQUIRE_POOL_THREAD();
  LoaderUnderTest loader;
  void* handle = loader->load(pluginPath("plain"));
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(eventTrail(), "plain:create plain:start");
  EXPECT_EQ(loader->dump(),
            "fileName: test_plugin_plain.so, className: TestActivator, pluginName: plain, "
            "pluginVersion: 1.2.3 \nservices: 0 \n \n");
  loader->unload(handle);
  EXPECT_FALSE(isMapped(pluginPath("plain")));
}

// The same record in a module compiled with hidden visibility is hidden: to the loader that is
// a library without "exports" (kelvo-plugin-check says why).
TEST(PluginLoaderTest, PlainRecordHiddenByTheBuildGivesNullSilently) {
  REQUIRE_POOL_THREAD();
  const std::string path = pluginPath("hidden_exports");
  {
    LoaderUnderTest loader;
    const CapturedLoad load = loadCapturingStdout(loader, path);
    EXPECT_EQ(load.handle, nullptr);
    EXPECT_EQ(load.printed, "");
    EXPECT_EQ(loader->error(), "");
    EXPECT_EQ(eventTrail(), "");
  }
  closeCompletely(path);
  EXPECT_FALSE(isMapped(path));
}

TEST(PluginLoaderTest, ApiVersionTwoIsRejectedWithItsMessage) {
  REQUIRE_POOL_THREAD();
  const std::string path = pluginPath("api2");
  {
    LoaderUnderTest loader;
    const CapturedLoad load = loadCapturingStdout(loader, path);
    EXPECT_EQ(load.handle, nullptr);
    EXPECT_EQ(load.printed, "Api version 2 is invalid!\n");
    EXPECT_EQ(loader->error(), "");
    EXPECT_EQ(eventTrail(), "") << "nothing created";
  }
  EXPECT_TRUE(isMapped(path));
  closeCompletely(path);
}

TEST(PluginLoaderTest, CompatibleTargetVersionsAreAccepted) {
  REQUIRE_POOL_THREAD();
  for (const char* name : {"target_2002009", "target_2003999", "good"}) {
    LoaderUnderTest loader;
    const CapturedLoad load = loadCapturingStdout(loader, pluginPath(name));
    EXPECT_EQ(load.printed, "") << name;
    ASSERT_NE(load.handle, nullptr) << name;
    loader->unload(load.handle);
    EXPECT_FALSE(isMapped(pluginPath(name))) << name;
  }
}

TEST(PluginLoaderTest, IncompatibleTargetVersionsAreRejectedWithTheirMessage) {
  REQUIRE_POOL_THREAD();
  const std::pair<const char*, const char*> cases[] = {{"target_2004000", "2.4.0"},
                                                       {"target_1003000", "1.3.0"}};
  for (const auto& [name, shown] : cases) {
    {
      LoaderUnderTest loader;
      const CapturedLoad load = loadCapturingStdout(loader, pluginPath(name));
      EXPECT_EQ(load.handle, nullptr);
      EXPECT_EQ(load.printed, std::string("Master version 2.3.0 does not match ") + name +
                                  " with version " + shown + "!\n");
      EXPECT_EQ(loader->error(), "");
      EXPECT_EQ(eventTrail(), "");
    }
    EXPECT_TRUE(isMapped(pluginPath(name)));
    closeCompletely(pluginPath(name));
  }
}

TEST(PluginLoaderTest, EmptyCreateThrowsBadFunctionCallAndLeavesTheLibraryOpen) {
  REQUIRE_POOL_THREAD();
  const std::string path = pluginPath("empty_create");
  {
    LoaderUnderTest loader;
    EXPECT_THROW(loader->load(path), std::bad_function_call);
    EXPECT_EQ(loader->error(), "");
    EXPECT_EQ(loader->dump(), "services: 0 \n \n");
  }
  EXPECT_TRUE(isMapped(path));
  closeCompletely(path);
}

TEST(PluginLoaderTest, ThrowingStartIsNotEnteredNorStoppedNorDestroyed) {
  REQUIRE_POOL_THREAD();
  const std::string path = pluginPath("throwing_start");
  {
    LoaderUnderTest loader;
    try {
      loader->load(path);
      ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "start failed");
    }
    EXPECT_EQ(loader->dump(), "services: 0 \n \n");
  }
  EXPECT_EQ(eventTrail(), "throwing_start:create throwing_start:start");
  EXPECT_TRUE(isMapped(path));
  // Clean up what the loader deliberately left: the activator and the open library.
  const LifeEvent created = events().front();
  recordOf(path)->destroy(
      const_cast<PluginActivator*>(static_cast<const PluginActivator*>(created.activator)));
  closeCompletely(path);
  EXPECT_FALSE(isMapped(path));
}

// ---------------------------------------------------------------------------------------------
// PluginLoader: the life cycle
// ---------------------------------------------------------------------------------------------

TEST(PluginLoaderTest, LoadCreatesThenStartsOnceAndReturnsTheDlopenHandle) {
  REQUIRE_POOL_THREAD();
  const std::string path = pluginPath("good");
  LoaderUnderTest loader;
  void* handle = loader->load(path);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(handle, openHandleOf(path));
  const auto seen = events();
  ASSERT_EQ(eventTrail(), "good:create good:start");
  EXPECT_EQ(seen[1].activator, seen[0].activator);
  EXPECT_NE(seen[1].context, nullptr);
  EXPECT_EQ(loader->dump(),
            "fileName: test_plugin_good.so, className: TestActivator, pluginName: good, "
            "pluginVersion: 1.2.3 \nservices: 0 \n \n");
  loader->unload(handle);
}

TEST(PluginLoaderTest, LibraryIsOpenedLazilyAndLocally) {
  REQUIRE_POOL_THREAD();
  LoaderUnderTest loader;
  void* handle = loader->load(pluginPath("good"));
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "exports"), nullptr) << "not in the global scope";
  EXPECT_NE(dlsym(handle, "exports"), nullptr);
  loader->unload(handle);
}

TEST(PluginLoaderTest, UnloadStopsDestroysThenClosesAndUnmaps) {
  REQUIRE_POOL_THREAD();
  const std::string path = pluginPath("good");
  LoaderUnderTest loader;
  void* handle = loader->load(path);
  ASSERT_NE(handle, nullptr);
  EXPECT_TRUE(isMapped(path));
  loader->unload(handle);
  EXPECT_EQ(eventTrail(),
            "good:create good:start good:stop good:destroy-call good:destroy good:unmapped");
  const auto seen = events();
  for (const LifeEvent& e : {seen[1], seen[2], seen[3], seen[4]}) {
    EXPECT_EQ(e.activator, seen[0].activator) << e.event;
  }
  EXPECT_EQ(seen[2].context, seen[1].context) << "stop gets the same context";
  EXPECT_FALSE(isMapped(path));
  EXPECT_EQ(openHandleOf(path), nullptr);
  EXPECT_EQ(loader->dump(), "services: 0 \n \n");
}

TEST(PluginLoaderTest, SecondUnloadOfAHandleOnlyAddsAnEmptyEntry) {
  REQUIRE_POOL_THREAD();
  LoaderUnderTest loader;
  void* handle = loader->load(pluginPath("good"));
  loader->unload(handle);
  const std::string trail = eventTrail();
  loader->unload(handle);
  loader->unload(reinterpret_cast<void*>(0x1234));  // never loaded
  loader->unload(nullptr);
  EXPECT_EQ(eventTrail(), trail) << "nothing stopped, destroyed or closed";
  EXPECT_EQ(loader->dump(), "services: 0 \n \n") << "empty entries are not listed";
}  // shutdown() drops the empty entries; see the death test for destruction without it

TEST(PluginLoaderDeathTest, EmptyEntryKeepsDestructionFromFinishing) {
  REQUIRE_POOL_THREAD();
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(runWithWatchdog(
                  [] {
                    auto* loader = new PluginLoader(kMaster);
                    loader->unload(reinterpret_cast<void*>(0x1234));
                    delete loader;
                  },
                  kAlwaysSettled),
              testing::ExitedWithCode(kStillWaiting), "^stdout=;events=\n$");
}

TEST(PluginLoaderTest, SameLibraryTwiceSharesTheHandleAndForgetsTheFirstActivator) {
  REQUIRE_POOL_THREAD();
  const std::string path = pluginPath("good");
  LoaderUnderTest loader;
  void* first = loader->load(path);
  void* second = loader->load(path);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first, second);
  const auto created = events();
  ASSERT_EQ(eventTrail(), "good:create good:start good:create good:start");
  EXPECT_NE(created[0].activator, created[2].activator);
  loader->unload(first);
  const auto all = events();
  ASSERT_EQ(all.size(), 7u);
  EXPECT_EQ(all[4].event, "stop");
  EXPECT_EQ(all[4].activator, created[2].activator) << "the second activator is stopped";
  EXPECT_EQ(all[6].event, "destroy");
  EXPECT_EQ(all[6].activator, created[2].activator);
  EXPECT_TRUE(isMapped(path)) << "still open by the first load's reference";
  EXPECT_EQ(loader->dump(), "services: 0 \n \n");
  // The first activator was forgotten: dispose of it and of the remaining reference by hand.
  recordOf(path)->destroy(
      const_cast<PluginActivator*>(static_cast<const PluginActivator*>(created[0].activator)));
  closeCompletely(path);
  EXPECT_FALSE(isMapped(path));
}

TEST(PluginLoaderTest, EmptyDestroyThrowsAndKeepsTheEntryUntilShutdown) {
  REQUIRE_POOL_THREAD();
  const std::string path = pluginPath("empty_destroy");
  clearEvents();
  {
    PluginLoader loader(kMaster);
    void* handle = loader.load(path);
    ASSERT_NE(handle, nullptr);
    EXPECT_THROW(loader.unload(handle), std::bad_function_call);
    EXPECT_NE(loader.dump().find("pluginName: empty_destroy"), std::string::npos);
    EXPECT_TRUE(isMapped(path));
    EXPECT_THROW(loader.shutdown(), std::bad_function_call) << "shutdown reports it";
    EXPECT_EQ(loader.dump(), "services: 0 \n \n") << "and drops the entry";
  }  // destruction returns
  EXPECT_EQ(eventTrail(),
            "empty_destroy:create empty_destroy:start empty_destroy:stop "
            "empty_destroy:stop");
  EXPECT_TRUE(isMapped(path));
  delete static_cast<PluginActivator*>(const_cast<void*>(events().front().activator));
  closeCompletely(path);
  EXPECT_FALSE(isMapped(path));
}

TEST(PluginLoaderTest, DumpOfAnEmptyLoaderIsTwoLines) {
  REQUIRE_POOL_THREAD();
  LoaderUnderTest loader;
  EXPECT_EQ(loader->dump(), "services: 0 \n \n");
}

TEST(PluginLoaderTest, DumpListsPluginsThenTheServiceCountThenTheNames) {
  REQUIRE_POOL_THREAD();
  LoaderUnderTest loader;
  void* provider = loader->load(pluginPath("provider"));
  void* consumer = loader->load(pluginPath("consumer"));
  ASSERT_NE(provider, nullptr);
  ASSERT_NE(consumer, nullptr);
  const std::string text = loader->dump();
  const std::string providerLine =
      "fileName: test_plugin_provider.so, className: TestActivator, pluginName: provider, "
      "pluginVersion: 1.2.3 \n";
  const std::string consumerLine =
      "fileName: test_plugin_consumer.so, className: TestActivator, pluginName: consumer, "
      "pluginVersion: 1.2.3 \n";
  const std::string services = "services: 2 \n";
  const std::set<std::string> expected = {
      providerLine + consumerLine + services + "test.counter, test.consumer.seen \n",
      providerLine + consumerLine + services + "test.consumer.seen, test.counter \n",
      consumerLine + providerLine + services + "test.counter, test.consumer.seen \n",
      consumerLine + providerLine + services + "test.consumer.seen, test.counter \n"};
  EXPECT_EQ(expected.count(text), 1u) << text;
  loader->unload(consumer);
  loader->unload(provider);
}

TEST(PluginLoaderTest, DumpEndsAtANullFileName) {
  REQUIRE_POOL_THREAD();
  LoaderUnderTest loader;
  void* handle = loader->load(pluginPath("null_file_name"));
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(loader->dump(), "fileName: ");
  loader->unload(handle);
}

TEST(PluginLoaderTest, SecondPluginUsesTheFirstsServiceFromItsPoolTask) {
  REQUIRE_POOL_THREAD();
  LoaderUnderTest loader;
  ASSERT_NE(loader->load(pluginPath("provider")), nullptr);
  ASSERT_NE(loader->load(pluginPath("consumer")), nullptr);
  // Both plug-ins share one context: the consumer's task copies the provider's counter into
  // its own service, which the host reads here.
  PluginContext* context = static_cast<PluginContext*>(const_cast<void*>(events()[1].context));
  auto* seen = static_cast<std::atomic<long>*>(context->GetService("test.consumer.seen"));
  auto* counter = static_cast<std::atomic<long>*>(context->GetService("test.counter"));
  ASSERT_NE(seen, nullptr);
  ASSERT_NE(counter, nullptr);
  ASSERT_TRUE(waitFor([&] { return seen->load() >= 5; }));
  EXPECT_LE(seen->load(), counter->load());
  loader->shutdown();
  EXPECT_EQ(loader->dump(), "services: 0 \n \n") << "both unregistered in stop";
  EXPECT_FALSE(isMapped(pluginPath("provider")));
  EXPECT_FALSE(isMapped(pluginPath("consumer")));
}

TEST(PluginLoaderTest, GetContextIsTheContextEveryPluginGets) {
  REQUIRE_POOL_THREAD();
  LoaderUnderTest loader;
  void* good = loader->load(pluginPath("good"));
  void* provider = loader->load(pluginPath("provider"));
  ASSERT_NE(good, nullptr);
  ASSERT_NE(provider, nullptr);
  loader->unload(provider);
  loader->unload(good);
  // Both plug-ins were started and stopped, and every call was given the loader's context.
  int calls = 0;
  for (const LifeEvent& e : events()) {
    if (e.event == "start" || e.event == "stop") {
      EXPECT_EQ(e.context, &loader->getContext()) << e.plugin << ":" << e.event;
      ++calls;
    }
  }
  EXPECT_EQ(calls, 4) << eventTrail();
}

TEST(PluginLoaderTest, HostLooksUpAServiceAPluginRegistered) {
  REQUIRE_POOL_THREAD();
  LoaderUnderTest loader;
  PluginContext& context = loader->getContext();
  EXPECT_EQ(context.GetService("test.counter"), nullptr);
  void* provider = loader->load(pluginPath("provider"));
  ASSERT_NE(provider, nullptr);
  // The provider's pool task counts on the loader's own pool thread.
  auto* counter = static_cast<std::atomic<long>*>(context.GetService("test.counter"));
  ASSERT_NE(counter, nullptr);
  const long seen = counter->load();
  ASSERT_TRUE(waitFor([&] { return counter->load() > seen; }));
  EXPECT_EQ(context.dumpSerivces(), std::vector<std::string>{"test.counter"});
  loader->unload(provider);
  EXPECT_EQ(context.GetService("test.counter"), nullptr) << "unregistered in stop";
}

TEST(PluginLoaderTest, PluginUsesAServiceTheHostRegistered) {
  REQUIRE_POOL_THREAD();
  LoaderUnderTest loader;
  // The consumer looks "test.counter" up in its start and copies it into its own service from
  // its pool task: here the host publishes that counter.
  std::atomic<long> hostCounter{42};
  loader->getContext().RegisterService("test.counter", &hostCounter);
  void* consumer = loader->load(pluginPath("consumer"));
  ASSERT_NE(consumer, nullptr);
  auto* seen =
      static_cast<std::atomic<long>*>(loader->getContext().GetService("test.consumer.seen"));
  ASSERT_NE(seen, nullptr);
  ASSERT_TRUE(waitFor([&] { return seen->load() == 42; }));
  hostCounter.store(43);
  ASSERT_TRUE(waitFor([&] { return seen->load() == 43; }));
  loader->unload(consumer);
  loader->getContext().UnregisterService("test.counter");
  EXPECT_TRUE(loader->getContext().dumpSerivces().empty());
}

TEST(PluginLoaderTest, PluginUnloadedWhileItsTaskRunsTakesTheTaskAlong) {
  REQUIRE_POOL_THREAD();
  LoaderUnderTest loader;
  for (int round = 0; round < 20; ++round) {
    void* handle = loader->load(pluginPath("provider"));
    ASSERT_NE(handle, nullptr);
    PluginContext* context = static_cast<PluginContext*>(const_cast<void*>(events()[1].context));
    auto* counter = static_cast<std::atomic<long>*>(context->GetService("test.counter"));
    const long before = counter->load();
    ASSERT_TRUE(waitFor([&] { return counter->load() > before; }));
    loader->unload(handle);
    EXPECT_FALSE(isMapped(pluginPath("provider")));
    clearEvents();
  }
}

TEST(PluginLoaderTest, LoadAndUnloadWhileAnotherPluginsTaskRuns) {
  REQUIRE_POOL_THREAD();
  LoaderUnderTest loader;
  void* provider = loader->load(pluginPath("provider"));
  ASSERT_NE(provider, nullptr);
  PluginContext* context = static_cast<PluginContext*>(const_cast<void*>(events()[1].context));
  auto* counter = static_cast<std::atomic<long>*>(context->GetService("test.counter"));
  const long start = counter->load();
  for (int i = 0; i < 50; ++i) {
    void* handle = loader->load(pluginPath("good"));
    ASSERT_NE(handle, nullptr);
    loader->unload(handle);
  }
  EXPECT_FALSE(isMapped(pluginPath("good")));
  ASSERT_TRUE(waitFor([&] { return counter->load() > start + 3; }));
  loader->unload(provider);
}

TEST(PluginLoaderTest, ThousandLoadUnloadCyclesLeaveNothingBehind) {
  REQUIRE_POOL_THREAD();
  const std::string path = pluginPath("good");
  LoaderUnderTest loader;
  const size_t descriptors = openDescriptorCount();
  for (int i = 0; i < 1000; ++i) {
    void* handle = loader->load(path);
    ASSERT_NE(handle, nullptr);
    loader->unload(handle);
    clearEvents();
  }
  EXPECT_EQ(openHandleOf(path), nullptr);
  EXPECT_FALSE(isMapped(path));
  EXPECT_EQ(openDescriptorCount(), descriptors);
  EXPECT_EQ(loader->dump(), "services: 0 \n \n");
}

TEST(PluginLoaderDeathTest, UnresolvedFunctionLoadsAndKillsTheProcessWhenFirstCalled) {
  REQUIRE_POOL_THREAD();
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string path = pluginPath("unresolved");
  {
    LoaderUnderTest loader;
    void* handle = loader->load(path);
    ASSERT_NE(handle, nullptr) << "lazy binding: the missing function does not stop the load";
    auto* call = reinterpret_cast<void (*)()>(loader->getContext().GetService("test.call_missing"));
    ASSERT_NE(call, nullptr);
    EXPECT_EXIT(call(), testing::ExitedWithCode(127),
                "symbol lookup error: .*unresolved\\.so: undefined symbol: "
                "kelvo_test_missing_function");
    loader->unload(handle);
  }
  EXPECT_FALSE(isMapped(path));
}

// ---------------------------------------------------------------------------------------------
// PluginLoader: destruction
// ---------------------------------------------------------------------------------------------

const auto kUnloadedLinePrinted = [](const std::string& text) {
  return text.find("All the plugins have been unloaded.\n") != std::string::npos;
};

TEST(PluginLoaderDeathTest, DestructionUnloadsEveryPluginPrintsOnceThenWaitsForThePool) {
  REQUIRE_POOL_THREAD();
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(runWithWatchdog(
                  [] {
                    auto* loader = new PluginLoader(kMaster);
                    loader->load(pluginPath("good"));
                    loader->load(pluginPath("good_copy"));
                    delete loader;
                  },
                  kUnloadedLinePrinted),
              testing::ExitedWithCode(kStillWaiting),
              "^stdout=All the plugins have been unloaded\\.\n;events="
              "good(_copy)?:create good(_copy)?:start good(_copy)?:create good(_copy)?:start "
              "(good(_copy)?:stop good(_copy)?:destroy-call good(_copy)?:destroy "
              "good(_copy)?:unmapped ?){2}\n$");
}

TEST(PluginLoaderDeathTest, DestructionWithNoPluginsPrintsTheLineToo) {
  REQUIRE_POOL_THREAD();
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(runWithWatchdog([] { delete new PluginLoader(kMaster); }, kUnloadedLinePrinted),
              testing::ExitedWithCode(kStillWaiting),
              "^stdout=All the plugins have been unloaded\\.\n;events=\n$");
}

TEST(PluginLoaderDeathTest, DestructionAfterShutdownReturnsAtOnce) {
  REQUIRE_POOL_THREAD();
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(runWithWatchdog(
                  [] {
                    auto* loader = new PluginLoader(kMaster);
                    loader->load(pluginPath("provider"));
                    loader->load(pluginPath("consumer"));
                    loader->unload(reinterpret_cast<void*>(0x1234));
                    loader->shutdown();
                    delete loader;
                  },
                  [](const std::string&) { return false; }),
              testing::ExitedWithCode(0),
              "^stdout=All the plugins have been unloaded\\.\n;events=");
}

TEST(PluginLoaderTest, ShutdownStopsThePoolBeforeUnloading) {
  REQUIRE_POOL_THREAD();
  LoaderUnderTest loader;
  ASSERT_NE(loader->load(pluginPath("provider")), nullptr);
  PluginContext* context = static_cast<PluginContext*>(const_cast<void*>(events()[1].context));
  std::weak_ptr<PeriodicThread> pool = context->getPoolThread();
  loader->shutdown();
  EXPECT_TRUE(pool.expired());
  EXPECT_FALSE(isMapped(pluginPath("provider")));
  EXPECT_EQ(eventTrail(),
            "provider:create provider:start provider:stop provider:destroy-call provider:destroy "
            "provider:unmapped");
  // Loading after shutdown still works; the plug-in's tasks just never run.
  void* handle = loader->load(pluginPath("provider"));
  ASSERT_NE(handle, nullptr);
  loader->unload(handle);
}

}  // namespace
}  // namespace mosk::kelvo
