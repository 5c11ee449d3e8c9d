// How a merge reads the time-trace rings, shared by the text output (time_trace.cpp) and the
// trace-viewer JSON (time_trace_json.cpp): cursors over the rings, the start-time rule, the
// walk over every event in time order, what keeps rings alive and quiet while a merge reads
// them, and which events are the periodic loop's. Private to the library.
//
// Threading rules: those of TimeTrace (time_trace.h). A merge runs on any thread; it never holds
// TimeTrace::mutex while it reads the rings.
#ifndef KELVO_SRC_TIME_TRACE_MERGE_H_
#define KELVO_SRC_TIME_TRACE_MERGE_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <vector>

#include "mosk/kelvo/cycles.h"
#include "mosk/kelvo/time_trace.h"
#include "periodic_thread_trace.h"

namespace mosk {
namespace kelvo {
namespace internal {

using Buffer = TimeTrace::Buffer;

constexpr size_t kLineLength = 1000;

// A ring seen by the merge: its events, the read position, and the end (writeIndex read once
// when the print started).
// Kept: the slot at the end is never read, so a full ring prints 8191 of its 8192 events; a
// record racing the start of the print writes there.
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
inline Cursor openCursor(Buffer* buffer) {
  const int32_t end = buffer->writeIndex.load(std::memory_order_acquire) & Buffer::kMask;
  int32_t position = (end + 1) & Buffer::kMask;
  if (buffer->events[position].format.load(std::memory_order_relaxed) == nullptr) position = 0;
  return Cursor{buffer, position, end};
}

// Latest first timestamp (default rule, 0 without events) or earliest (keepOldEvents, the
// largest value without events).
inline uint64_t chooseStartTime(const std::vector<Cursor>& cursors, bool keepOld) {
  uint64_t start = keepOld ? std::numeric_limits<uint64_t>::max() : 0;
  for (const Cursor& cursor : cursors) {
    if (!cursor.hasEvent()) continue;
    const uint64_t first = cursor.timestamp();
    if (keepOld ? first < start : first > start) start = first;
  }
  return start;
}

inline void skipEventsBefore(uint64_t start, std::vector<Cursor>* cursors) {
  for (Cursor& cursor : *cursors) {
    while (cursor.hasEvent() && cursor.timestamp() < start) cursor.advance();
  }
}

// Index of the cursor holding the oldest pending event (the first one on ties), or -1.
inline int pickOldest(const std::vector<Cursor>& cursors) {
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

inline EventCopy copyEvent(const Buffer::Event& event) {
  constexpr auto kRelaxed = std::memory_order_relaxed;
  return EventCopy{event.timestamp.load(kRelaxed), event.format.load(kRelaxed),
                   event.arg0.load(kRelaxed),      event.arg1.load(kRelaxed),
                   event.arg2.load(kRelaxed),      event.arg3.load(kRelaxed)};
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
inline void formatEventText(const EventCopy& event, char (&text)[kLineLength]) {
  std::snprintf(text, sizeof(text), event.format, event.arg0, event.arg1, event.arg2, event.arg3);
}
#pragma GCC diagnostic pop

// Chooses the start time by TimeTrace::keepOldEvents, skips what lies before it, then hands every
// remaining event to `visit(index, event, us, start, text)` in time order (`index` is the event's
// cursor, `us` its time since the start).
template <typename Visit>
void mergeEvents(std::vector<Cursor>* cursors, Visit&& visit) {
  const uint64_t start = chooseStartTime(*cursors, TimeTrace::keepOldEvents);
  if (!TimeTrace::keepOldEvents) skipEventsBefore(start, cursors);
  for (int index = pickOldest(*cursors); index >= 0; index = pickOldest(*cursors)) {
    Cursor& cursor = (*cursors)[index];
    const EventCopy event = copyEvent(cursor.event());
    cursor.advance();
    if (event.format == nullptr) continue;  // cleared by a concurrent reset
    const double us = Cycles::toSeconds(event.timestamp - start) * 1e6;
    char text[kLineLength];
    formatEventText(event, text);
    visit(index, event, us, start, text);
  }
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

// A copy of the registry whose rings cannot be freed until releaseRegistry(): their readerCount
// is raised under the mutex that the freeing side holds too.
std::vector<Buffer*> holdRegistry();

// Lets go of the rings of holdRegistry() after they were merged: dead rings have now been
// printed, so they are freed (or left to the last merge still reading them).
void releaseRegistry(const std::vector<Buffer*>& held);

// Holds the registry for one merge, and lets go of it even if formatting throws.
class RegistryHold {
 public:
  RegistryHold() : rings(holdRegistry()) {}
  ~RegistryHold() { releaseRegistry(rings); }
  RegistryHold(const RegistryHold&) = delete;
  RegistryHold& operator=(const RegistryHold&) = delete;
  std::vector<Buffer*> rings;
};

// The periodic thread's loop events become slices; everything else is an instant.
enum class EventKind { kInstant, kPassStart, kTaskStart, kTaskEnd };

inline EventKind classify(const char* format) {
  if (std::strcmp(format, internal::kPassStartFormat) == 0) return EventKind::kPassStart;
  if (std::strcmp(format, internal::kTaskStartFormat) == 0) return EventKind::kTaskStart;
  if (std::strcmp(format, internal::kTaskEndFormat) == 0) return EventKind::kTaskEnd;
  return EventKind::kInstant;
}

inline bool isTaskRunEvent(const char* format) {
  const EventKind kind = classify(format);
  return kind == EventKind::kTaskStart || kind == EventKind::kTaskEnd;
}

}  // namespace internal
}  // namespace kelvo
}  // namespace mosk

#endif  // KELVO_SRC_TIME_TRACE_MERGE_H_
