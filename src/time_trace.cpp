// TimeTrace: per-thread event rings and the merge that prints them in time order.
#include "mosk/kelvo/time_trace.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <limits>

namespace mosk {
namespace kelvo {

thread_local TimeTrace::Buffer* TimeTrace::threadBuffer = nullptr;
std::vector<TimeTrace::Buffer*> TimeTrace::threadBuffers;
std::mutex TimeTrace::mutex;
std::string TimeTrace::filename;
bool TimeTrace::keepOldEvents = false;

namespace {

// Rings live as long as the process: a thread that is still running while the process exits
// may record into its ring after the registry's destructor has run. When the registry is
// destroyed, its rings are handed to a list that is never freed, so they stay valid (and leak
// checkers see them as reachable, not lost).
struct RingsOutliveTheRegistry {
  ~RingsOutliveTheRegistry() {
    std::lock_guard<std::mutex> lock(TimeTrace::mutex);
    static auto* survivors = new std::vector<TimeTrace::Buffer*>();
    survivors->insert(survivors->end(), TimeTrace::threadBuffers.begin(),
                      TimeTrace::threadBuffers.end());
  }
} ringsOutliveTheRegistry;  // defined after the registry, so destroyed before it

using Buffer = TimeTrace::Buffer;

constexpr size_t kHeaderLength = 200;
constexpr size_t kLineLength = 1000;
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

  // One event line: separated by newlines in a string, terminated by one in a file.
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

// A ring seen by the merge: its events, the read position, and the end (writeIndex read once
// when the print started; that slot is never read).
struct Cursor {
  Buffer* buffer;
  int32_t position;
  int32_t end;

  const Buffer::Event& event() const { return buffer->events[position]; }
  bool hasEvent() const {
    return position != end && event().format.load(std::memory_order_relaxed) != nullptr;
  }
  uint64_t timestamp() const { return event().timestamp.load(std::memory_order_relaxed); }
  void advance() { position = (position + 1) & Buffer::kMask; }
};

// Oldest readable slot: the one after writeIndex once the ring has wrapped, else slot 0.
Cursor openCursor(Buffer* buffer) {
  const int32_t end = buffer->writeIndex.load(std::memory_order_acquire) & Buffer::kMask;
  int32_t position = (end + 1) & Buffer::kMask;
  if (buffer->events[position].format.load(std::memory_order_relaxed) == nullptr) position = 0;
  return Cursor{buffer, position, end};
}

// Latest first timestamp (default rule, 0 without events) or earliest (keepOldEvents, the
// largest value without events).
uint64_t chooseStartTime(const std::vector<Cursor>& cursors, bool keepOld) {
  uint64_t start = keepOld ? std::numeric_limits<uint64_t>::max() : 0;
  for (const Cursor& cursor : cursors) {
    if (!cursor.hasEvent()) continue;
    const uint64_t first = cursor.timestamp();
    if (keepOld ? first < start : first > start) start = first;
  }
  return start;
}

void skipEventsBefore(uint64_t start, std::vector<Cursor>* cursors) {
  for (Cursor& cursor : *cursors) {
    while (cursor.hasEvent() && cursor.timestamp() < start) cursor.advance();
  }
}

// Index of the cursor holding the oldest pending event (the first one on ties), or -1.
int pickOldest(const std::vector<Cursor>& cursors) {
  int oldest = -1;
  uint64_t oldestTime = 0;
  for (size_t i = 0; i < cursors.size(); ++i) {
    if (!cursors[i].hasEvent()) continue;
    const uint64_t time = cursors[i].timestamp();
    if (oldest < 0 || time < oldestTime) {
      oldest = static_cast<int>(i);
      oldestTime = time;
    }
  }
  return oldest;
}

// One event as read once from its slot: a reset on another thread may clear the slot at any
// moment, so the format that is checked must be the one that is formatted.
struct EventCopy {
  uint64_t timestamp;
  const char* format;
  uint32_t arg0, arg1, arg2, arg3;
};

EventCopy copyEvent(const Buffer::Event& event) {
  constexpr auto kRelaxed = std::memory_order_relaxed;
  return EventCopy{event.timestamp.load(kRelaxed), event.format.load(kRelaxed),
                   event.arg0.load(kRelaxed),      event.arg1.load(kRelaxed),
                   event.arg2.load(kRelaxed),      event.arg3.load(kRelaxed)};
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void formatEventText(const EventCopy& event, char (&text)[kLineLength]) {
  std::snprintf(text, sizeof(text), event.format, event.arg0, event.arg1, event.arg2, event.arg3);
}
#pragma GCC diagnostic pop

void mergeAndFormat(std::vector<Cursor>* cursors, TraceOutput* output) {
  const uint64_t start = chooseStartTime(*cursors, TimeTrace::keepOldEvents);
  if (!TimeTrace::keepOldEvents) skipEventsBefore(start, cursors);

  bool first = true;
  double previousUs = 0.0;
  for (int index = pickOldest(*cursors); index >= 0; index = pickOldest(*cursors)) {
    Cursor& cursor = (*cursors)[index];
    const EventCopy event = copyEvent(cursor.event());
    cursor.advance();
    if (event.format == nullptr) continue;  // cleared by a concurrent reset
    if (first) {
      char header[kHeaderLength];
      std::snprintf(header, sizeof(header), "CYCLES_PER_SECOND %f\nSTART_CYCLES %" PRIu64 "\n",
                    Cycles::cyclesPerSec, start);
      output->write(header);
      first = false;
    }
    const double us = Cycles::toSeconds(event.timestamp - start) * 1e6;
    char text[kLineLength];
    formatEventText(event, text);
    char prefix[kLineLength];
    std::snprintf(prefix, sizeof(prefix), "%8.1f us (+%6.1f us): ", us, us - previousUs);
    output->writeEvent(prefix, text);
    previousUs = us;
  }
  if (first) output->write(kNoEvents);
}

// Raises readerCount of every ring for its lifetime, so that recording into them stops, even
// if formatting throws.
class ReadingGuard {
 public:
  explicit ReadingGuard(std::vector<Buffer*>* buffers) : buffers_(buffers) {
    for (Buffer* buffer : *buffers_) buffer->readerCount.fetch_add(1, std::memory_order_acq_rel);
  }
  ~ReadingGuard() {
    for (Buffer* buffer : *buffers_) buffer->readerCount.fetch_sub(1, std::memory_order_release);
  }
  ReadingGuard(const ReadingGuard&) = delete;
  ReadingGuard& operator=(const ReadingGuard&) = delete;

 private:
  std::vector<Buffer*>* buffers_;
};

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

// A copy of the registry whose rings cannot be freed until releaseRegistry(): their readerCount
// is raised under the mutex that the freeing side holds too.
std::vector<Buffer*> holdRegistry() {
  std::lock_guard<std::mutex> lock(TimeTrace::mutex);
  for (Buffer* ring : TimeTrace::threadBuffers) {
    ring->readerCount.fetch_add(1, std::memory_order_acq_rel);
  }
  return TimeTrace::threadBuffers;
}

// Lets go of the rings of holdRegistry() after they were merged: dead rings have now been
// printed, so they are freed (or left to the last merge still reading them).
void releaseRegistry(const std::vector<Buffer*>& held) {
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

// Holds the registry for one merge, and lets go of it even if formatting throws.
class RegistryHold {
 public:
  RegistryHold() : rings(holdRegistry()) {}
  ~RegistryHold() { releaseRegistry(rings); }
  RegistryHold(const RegistryHold&) = delete;
  RegistryHold& operator=(const RegistryHold&) = delete;
  std::vector<Buffer*> rings;
};

}  // namespace

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
  threadBuffers.push_back(threadBuffer);
  // A ring freed behind the registry's back (by code that manages threadBuffers itself) may
  // have had this address: it is not dead.
  erase(&deadRings, threadBuffer);
}

void TimeTrace::deleteThreadBuffer() {
  Buffer* ring = threadBuffer;
  if (ring == nullptr) return;
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

}  // namespace kelvo
}  // namespace mosk
