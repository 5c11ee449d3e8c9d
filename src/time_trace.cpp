// TimeTrace: per-thread event rings, their registry, and the merged text output. The
// trace-viewer JSON output is in time_trace_json.cpp.
#include "mosk/kelvo/time_trace.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <unordered_set>

#include "mosk/kelvo/trace_task_names.h"
#include "time_trace_merge.h"
#include "time_trace_rings.h"

namespace mosk {
namespace kelvo {

thread_local TimeTrace::Buffer* TimeTrace::threadBuffer = nullptr;
std::vector<TimeTrace::Buffer*> TimeTrace::threadBuffers;
std::mutex TimeTrace::mutex;
std::string TimeTrace::filename;
bool TimeTrace::keepOldEvents = false;

namespace {

// Set, under TimeTrace::mutex, just before the registry is destroyed at exit: from then on it
// must not be read.
bool registryDestroyed = false;

// Rings live as long as the process: a thread that is still running while the process exits
// may record into its ring after the registry's destructor has run. When the registry is
// destroyed, its rings are handed to a list that is never freed, so they stay valid (and leak
// checkers see them as reachable, not lost).
struct RingsOutliveTheRegistry {
  ~RingsOutliveTheRegistry() {
    std::lock_guard<std::mutex> lock(TimeTrace::mutex);
    registryDestroyed = true;
    static auto* survivors = new std::vector<TimeTrace::Buffer*>();
    survivors->insert(survivors->end(), TimeTrace::threadBuffers.begin(),
                      TimeTrace::threadBuffers.end());
  }
} ringsOutliveTheRegistry;  // defined after the registry, so destroyed before it

using internal::Buffer;
using internal::Cursor;
using internal::EventCopy;
using internal::isTaskRunEvent;
using internal::kLineLength;
using internal::mergeEvents;
using internal::openCursor;
using internal::ReadingGuard;
using internal::RegistryHold;

constexpr size_t kHeaderLength = 200;
constexpr char kNoEvents[] = "No time trace events to print";

// Where the merged text goes: a string, or a stream (standard output or an opened file).
class TraceOutput {
 public:
  explicit TraceOutput(std::string* s) : string_(s) {}
  ~TraceOutput() {
    if (file_ != nullptr && file_ != stdout) std::fclose(file_);
  }
  TraceOutput(const TraceOutput&) = delete;
  TraceOutput& operator=(const TraceOutput&) = delete;

  // Selects the stream when writing to a file. False (after one line on standard error) if the
  // named file cannot be opened.
  bool open() {
    if (string_ != nullptr) return true;
    std::string name;
    {
      std::lock_guard<std::mutex> lock(TimeTrace::mutex);
      name = TimeTrace::filename;
    }
    if (name.empty()) {
      file_ = stdout;
      return true;
    }
    file_ = std::fopen(name.c_str(), "a");
    if (file_ == nullptr) {
      std::fprintf(stderr, "TimeTrace: cannot open %s: %s\n", name.c_str(), std::strerror(errno));
      return false;
    }
    return true;
  }

  void write(const char* text) {
    if (string_ != nullptr) {
      string_->append(text);
    } else {
      std::fputs(text, file_);
    }
  }

  // One event line.
  // Kept: lines are separated by newlines in a string but terminated by one in a file, so the
  // string form has an empty line after the header and no newline at its end.
  void writeEvent(const char* prefix, const char* text) {
    if (string_ != nullptr) {
      if (!string_->empty()) string_->push_back('\n');
      string_->append(prefix);
      string_->append(text);
    } else {
      std::fputs(prefix, file_);
      std::fputs(text, file_);
      std::fputc('\n', file_);
    }
  }

 private:
  std::string* string_;
  FILE* file_ = nullptr;
};

void mergeAndFormat(std::vector<Cursor>* cursors, TraceOutput* output) {
  bool first = true;
  double previousUs = 0.0;
  mergeEvents(cursors, [&](int, const EventCopy&, double us, uint64_t start, const char* text) {
    if (first) {
      char header[kHeaderLength];
      std::snprintf(header, sizeof(header), "CYCLES_PER_SECOND %f\nSTART_CYCLES %" PRIu64 "\n",
                    Cycles::cyclesPerSec, start);
      output->write(header);
      first = false;
    }
    char prefix[kLineLength];
    std::snprintf(prefix, sizeof(prefix), "%8.1f us (+%6.1f us): ", us, us - previousUs);
    output->writeEvent(prefix, text);
    previousUs = us;
  });
  if (first) output->write(kNoEvents);
}

// Rings whose thread has deleted them but which still hold unprinted events: they stay
// registered until a merge of the whole registry has read them, then they are freed. Guarded by
// TimeTrace::mutex, like the two lists below.
// Both lists are never destroyed: threads may still end while the process exits.
std::vector<Buffer*>& deadRings = *new std::vector<Buffer*>();
// Rings taken out of the registry while a merge was still reading them: the last merge to let
// go of a ring frees it.
std::vector<Buffer*>& unregisteredRings = *new std::vector<Buffer*>();

bool contains(const std::vector<Buffer*>& rings, const Buffer* ring) {
  return std::find(rings.begin(), rings.end(), ring) != rings.end();
}

void erase(std::vector<Buffer*>* rings, const Buffer* ring) {
  rings->erase(std::remove(rings->begin(), rings->end(), ring), rings->end());
}

// Takes `ring` out of the registry and frees it, at once if no merge holds it, else when the
// last one lets go. TimeTrace::mutex held.
void unregisterAndFreeLocked(Buffer* ring) {
  erase(&TimeTrace::threadBuffers, ring);
  erase(&deadRings, ring);
  if (ring->readerCount.load(std::memory_order_acquire) == 0) {
    delete ring;
  } else {
    unregisteredRings.push_back(ring);
  }
}

}  // namespace

std::vector<Buffer*> internal::holdRegistry() {
  std::lock_guard<std::mutex> lock(TimeTrace::mutex);
  for (Buffer* ring : TimeTrace::threadBuffers) {
    ring->readerCount.fetch_add(1, std::memory_order_acq_rel);
  }
  return TimeTrace::threadBuffers;
}

void internal::releaseRegistry(const std::vector<Buffer*>& held) {
  std::lock_guard<std::mutex> lock(TimeTrace::mutex);
  for (Buffer* ring : held) ring->readerCount.fetch_sub(1, std::memory_order_acq_rel);
  for (Buffer* ring : held) {
    if (contains(deadRings, ring) && contains(TimeTrace::threadBuffers, ring)) {
      unregisterAndFreeLocked(ring);
    }
  }
  for (Buffer* ring : std::vector<Buffer*>(unregisteredRings)) {
    if (ring->readerCount.load(std::memory_order_acquire) != 0) continue;
    erase(&unregisteredRings, ring);
    delete ring;
  }
}

TimeTrace::Buffer::Buffer() = default;
TimeTrace::Buffer::~Buffer() = default;

void TimeTrace::Buffer::reset() {
  for (Event& event : events) {
    if (event.format.load(std::memory_order_relaxed) == nullptr) break;
    event.format.store(nullptr, std::memory_order_relaxed);
  }
  writeIndex.store(0, std::memory_order_release);
}

std::string TimeTrace::Buffer::getTrace() {
  std::vector<Buffer*> buffers{this};
  std::string s;
  printInternal(&buffers, &s);
  return s;
}

void TimeTrace::Buffer::print() {
  std::vector<Buffer*> buffers{this};
  printInternal(&buffers, nullptr);
}

void TimeTrace::createThreadBuffer() {
  std::lock_guard<std::mutex> lock(mutex);
  if (threadBuffer != nullptr) return;
  threadBuffer = new Buffer();
  threadBuffer->captureThreadName();
  threadBuffers.push_back(threadBuffer);
  // A ring freed behind the registry's back (by code that manages threadBuffers itself) may
  // have had this address: it is not dead.
  erase(&deadRings, threadBuffer);
}

void TimeTrace::deleteThreadBuffer() {
  Buffer* ring = threadBuffer;
  if (ring == nullptr) return;
  // The thread's name is read again: it was often given after the ring was created.
  ring->captureThreadName();
  threadBuffer = nullptr;
  std::lock_guard<std::mutex> lock(mutex);
  if (!contains(threadBuffers, ring)) return;  // not ours to free
  // Recording fills slot 0 first, so a ring whose slot 0 is empty holds no event: nothing is
  // lost by freeing it now. A ring with events stays printable until a merge has read it.
  if (ring->events[0].format.load(std::memory_order_relaxed) == nullptr) {
    unregisterAndFreeLocked(ring);
  } else {
    deadRings.push_back(ring);
  }
}

void TimeTrace::reset() {
  std::lock_guard<std::mutex> lock(mutex);
  for (Buffer* buffer : threadBuffers) buffer->reset();
}

std::string TimeTrace::getTrace() {
  RegistryHold hold;
  std::string s;
  printInternal(&hold.rings, &s);
  return s;
}

void TimeTrace::print() {
  RegistryHold hold;
  printInternal(&hold.rings, nullptr);
}

void TimeTrace::setOutputFileName(const char* name) {
  std::lock_guard<std::mutex> lock(mutex);
  filename = name != nullptr ? name : "";
}

void TimeTrace::printInternal(std::vector<Buffer*>* buffers, std::string* s) {
  ReadingGuard reading(buffers);
  TraceOutput output(s);
  if (!output.open()) return;
  std::vector<Cursor> cursors;
  cursors.reserve(buffers->size());
  for (Buffer* buffer : *buffers) cursors.push_back(openCursor(buffer));
  mergeAndFormat(&cursors, &output);
}

// The thread's name goes with its ring, for the trace viewer's tracks.
void TimeTrace::Buffer::captureThreadName() {
  char name[16] = {};
  if (pthread_getname_np(pthread_self(), name, sizeof(name)) != 0) name[0] = '\0';
  uint64_t words[2];
  std::memcpy(words, name, sizeof(words));
  threadNameWords[0].store(words[0], std::memory_order_relaxed);
  threadNameWords[1].store(words[1], std::memory_order_relaxed);
}

std::string TimeTrace::Buffer::threadName() const {
  const uint64_t words[2] = {threadNameWords[0].load(std::memory_order_relaxed),
                             threadNameWords[1].load(std::memory_order_relaxed)};
  char name[17] = {};
  std::memcpy(name, words, sizeof(words));
  return std::string(name);
}

namespace {

// Whether formats name task runs, remembered per format pointer: a ring holds only a few
// distinct formats, so a scan compares strings a few times instead of once per slot.
class TaskRunFormats {
 public:
  bool isTaskRun(const char* format) {
    for (const Known& known : known_) {
      if (known.format == format) return known.taskRun;
    }
    Known& slot = known_[next_++ % kKnown];
    slot = Known{format, isTaskRunEvent(format)};
    return slot.taskRun;
  }

 private:
  static constexpr size_t kKnown = 8;
  struct Known {
    const char* format = nullptr;
    bool taskRun = false;
  };
  Known known_[kKnown];
  size_t next_ = 0;
};

// Adds to `found` the candidates that the task-run events of `ring` carry.
void collectTaskIds(const Buffer& ring, const std::unordered_set<uint64_t>& candidates,
                    TaskRunFormats* formats, std::unordered_set<uint64_t>* found) {
  uint64_t previous = 0;  // a run's start and end carry the same task: look it up once
  for (const Buffer::Event& slot : ring.events) {
    const char* format = slot.format.load(std::memory_order_relaxed);
    if (format == nullptr || !formats->isTaskRun(format)) continue;
    const uint64_t taskId = TraceTaskNames::fromWords(slot.arg2.load(std::memory_order_relaxed),
                                                      slot.arg3.load(std::memory_order_relaxed));
    if (taskId == previous) continue;
    previous = taskId;
    if (candidates.count(taskId) != 0) found->insert(taskId);
  }
}

}  // namespace

std::unordered_set<uint64_t> internal::taskIdsStillInRings(
    const std::unordered_set<uint64_t>& candidates) {
  std::unordered_set<uint64_t> found;
  TaskRunFormats formats;
  // Under the registry's mutex no ring is freed; rings a merge still reads after they left the
  // registry are read too. Once the process has destroyed the registry (tasks may still die
  // while it exits), every candidate counts as shown: nothing is dropped then.
  std::lock_guard<std::mutex> lock(TimeTrace::mutex);
  if (registryDestroyed) return candidates;
  for (const Buffer* ring : TimeTrace::threadBuffers) {
    collectTaskIds(*ring, candidates, &formats, &found);
  }
  for (const Buffer* ring : unregisteredRings) collectTaskIds(*ring, candidates, &formats, &found);
  return found;
}

}  // namespace kelvo
}  // namespace mosk
