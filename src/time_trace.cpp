// TimeTrace: per-thread event rings and the merge that prints them in time order.
#include "mosk/kelvo/time_trace.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <limits>
#include <unordered_map>
#include <unordered_set>

#include "mosk/kelvo/trace_task_names.h"
#include "periodic_thread_trace.h"
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

// ---------------------------------------------------------------------------------------------
// Thread names and the trace-viewer (Chrome trace-event JSON) output
// ---------------------------------------------------------------------------------------------

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

// The periodic thread's loop events become slices; everything else is an instant.
enum class EventKind { kInstant, kPassStart, kTaskStart, kTaskEnd };

EventKind classify(const char* format) {
  if (std::strcmp(format, internal::kPassStartFormat) == 0) return EventKind::kPassStart;
  if (std::strcmp(format, internal::kTaskStartFormat) == 0) return EventKind::kTaskStart;
  if (std::strcmp(format, internal::kTaskEndFormat) == 0) return EventKind::kTaskEnd;
  return EventKind::kInstant;
}

bool isTaskRunEvent(const char* format) {
  const EventKind kind = classify(format);
  return kind == EventKind::kTaskStart || kind == EventKind::kTaskEnd;
}

// The identifier of the task a task-run event belongs to (0 when it was recorded without one).
uint64_t taskIdOf(const EventCopy& event) {
  return isTaskRunEvent(event.format) ? TraceTaskNames::fromWords(event.arg2, event.arg3) : 0;
}

// Length of the valid UTF-8 sequence at `s` (at most `left` bytes), or 0 if it is not one.
size_t utf8SequenceLength(const unsigned char* s, size_t left) {
  size_t length;
  uint32_t lowest;
  if (s[0] < 0x80) return 1;
  if ((s[0] & 0xE0) == 0xC0) {
    length = 2;
    lowest = 0x80;
  } else if ((s[0] & 0xF0) == 0xE0) {
    length = 3;
    lowest = 0x800;
  } else if ((s[0] & 0xF8) == 0xF0) {
    length = 4;
    lowest = 0x10000;
  } else {
    return 0;
  }
  if (length > left) return 0;
  uint32_t code = s[0] & (0x7F >> length);
  for (size_t i = 1; i < length; ++i) {
    if ((s[i] & 0xC0) != 0x80) return 0;
    code = (code << 6) | (s[i] & 0x3F);
  }
  const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
  return code < lowest || code > 0x10FFFF || surrogate ? 0 : length;
}

// Appends `text` as a JSON string: quotes, backslashes and control characters escaped, bytes
// that are not UTF-8 replaced by U+FFFD so that every JSON parser accepts the document.
void appendJsonString(std::string* out, const std::string& text) {
  out->push_back('"');
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  for (size_t i = 0; i < text.size();) {
    const unsigned char c = bytes[i];
    const size_t length = utf8SequenceLength(bytes + i, text.size() - i);
    if (length == 0) {
      out->append("\\ufffd");
      ++i;
      continue;
    }
    if (c == '"' || c == '\\') {
      out->push_back('\\');
      out->push_back(static_cast<char>(c));
    } else if (c == '\n') {
      out->append("\\n");
    } else if (c == '\t') {
      out->append("\\t");
    } else if (c == '\r') {
      out->append("\\r");
    } else if (c < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof(escaped), "\\u%04x", c);
      out->append(escaped);
    } else {
      out->append(text, i, length);
    }
    i += length;
  }
  out->push_back('"');
}

// One ring's track: its slices still open, and the time of its latest event.
struct JsonTrack {
  int tid = 0;
  std::string threadName;
  bool passOpen = false;
  bool taskOpen = false;
  uint32_t openTask = 0;
  uint64_t openTaskId = 0;
  uint32_t tasksInPass = 0;
  double lastUs = 0.0;
};

// Builds the trace-event array in merge order. Slices still open when their ring ends are
// closed at the ring's last event, then everything is ordered by time (stable, so that an end
// stays after the events it follows).
class JsonTraceBuilder {
 public:
  explicit JsonTraceBuilder(const TimeTrace::TaskNamer& namer) : namer_(namer) {}

  void addTrackName(const JsonTrack& track) {
    std::string json =
        "{\"name\":\"thread_name\",\"ph\":\"M\",\"pid\":1,\"tid\":" + std::to_string(track.tid) +
        ",\"args\":{\"name\":";
    appendJsonString(&json, track.threadName);
    json += "}}";
    metadata_.push_back(json);
    metadata_.push_back("{\"name\":\"thread_sort_index\",\"ph\":\"M\",\"pid\":1,\"tid\":" +
                        std::to_string(track.tid) +
                        ",\"args\":{\"sort_index\":" + std::to_string(track.tid) + "}}");
  }

  void addEvent(JsonTrack* track, const EventCopy& event, double us, const char* text) {
    const uint32_t arg0 = event.arg0;
    const uint64_t taskId = taskIdOf(event);
    switch (classify(event.format)) {
      case EventKind::kPassStart:
        closeTask(track);
        closePass(track);
        add(us, track->tid, 'B', text, text);
        track->passOpen = true;
        track->tasksInPass = arg0;
        break;
      case EventKind::kTaskStart:
        closeTask(track);
        add(us, track->tid, 'B', taskName(*track, arg0, taskId, text), text);
        track->taskOpen = true;
        track->openTask = arg0;
        track->openTaskId = taskId;
        break;
      case EventKind::kTaskEnd:
        if (track->taskOpen && track->openTask == arg0 && track->openTaskId == taskId) {
          add(us, track->tid, 'E', "", text);
          track->taskOpen = false;
        } else {  // its start was skipped or overwritten
          add(us, track->tid, 'i', text, "");
        }
        break;
      case EventKind::kInstant:
        add(us, track->tid, 'i', text, "");
        break;
    }
    track->lastUs = us;
  }

  void closeTrack(JsonTrack* track) {
    closeTask(track);
    closePass(track);
  }

  std::string finish() {
    std::stable_sort(entries_.begin(), entries_.end(),
                     [](const Entry& a, const Entry& b) { return a.us < b.us; });
    std::string out = "{\"displayTimeUnit\":\"ns\",\"traceEvents\":[";
    bool first = true;
    auto append = [&](const std::string& json) {
      if (!first) out += ",\n";
      out += json;
      first = false;
    };
    append(
        "{\"name\":\"process_name\",\"ph\":\"M\",\"pid\":1,\"tid\":0,"
        "\"args\":{\"name\":\"kelvo time trace\"}}");
    for (const std::string& json : metadata_) append(json);
    for (const Entry& entry : entries_) append(entry.json);
    out += "]}\n";
    return out;
  }

 private:
  struct Entry {
    double us;
    std::string json;
  };

  // The namer's name if it gives one, else the name of the task that ran, else the position
  // ("Task[i]").
  std::string taskName(const JsonTrack& track, uint32_t index, uint64_t taskId, const char* text) {
    if (namer_) {
      std::string name = namer_(track.threadName, index, track.tasksInPass);
      if (!name.empty()) return name;
    }
    if (taskId != 0) {
      auto known = names_.find(taskId);
      if (known == names_.end()) known = names_.emplace(taskId, TraceTaskNames::find(taskId)).first;
      if (!known->second.empty()) return known->second;
    }
    const std::string eventText(text);
    const size_t bracket = eventText.find(']');
    return bracket == std::string::npos ? eventText : eventText.substr(0, bracket + 1);
  }

  void closeTask(JsonTrack* track) {
    if (!track->taskOpen) return;
    add(track->lastUs, track->tid, 'E', "", "");
    track->taskOpen = false;
  }

  void closePass(JsonTrack* track) {
    if (!track->passOpen) return;
    add(track->lastUs, track->tid, 'E', "", "");
    track->passOpen = false;
  }

  // phase 'B' (begin), 'E' (end) or 'i' (instant); `name` is ignored for an end; `text` is
  // the event's own text, kept in args when the name differs from it.
  void add(double us, int tid, char phase, const std::string& name, const std::string& text) {
    char head[128];
    std::snprintf(head, sizeof(head), "{\"ph\":\"%c\",\"ts\":%.3f,\"pid\":1,\"tid\":%d", phase, us,
                  tid);
    std::string json = head;
    if (phase != 'E') {
      json += ",\"cat\":\"kelvo\",\"name\":";
      appendJsonString(&json, name);
    }
    if (phase == 'i') json += ",\"s\":\"t\"";
    if (!text.empty() && text != name) {
      json += ",\"args\":{\"text\":";
      appendJsonString(&json, text);
      json += "}";
    }
    json += "}";
    entries_.push_back(Entry{us, std::move(json)});
  }

  const TimeTrace::TaskNamer& namer_;
  std::unordered_map<uint64_t, std::string> names_;  // task names looked up so far
  std::vector<std::string> metadata_;
  std::vector<Entry> entries_;
};

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

std::unordered_set<uint64_t> detail::taskIdsStillInRings(
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

std::string TimeTrace::traceJsonOf(std::vector<Buffer*>* buffers, const TaskNamer& taskNamer) {
  ReadingGuard reading(buffers);
  std::vector<Cursor> cursors;
  std::vector<JsonTrack> tracks(buffers->size());
  JsonTraceBuilder builder(taskNamer);
  for (size_t i = 0; i < buffers->size(); ++i) {
    cursors.push_back(openCursor((*buffers)[i]));
    tracks[i].tid = static_cast<int>(i) + 1;
    tracks[i].threadName = (*buffers)[i]->threadName();
    builder.addTrackName(tracks[i]);
  }
  mergeEvents(&cursors,
              [&](int index, const EventCopy& event, double us, uint64_t, const char* text) {
                builder.addEvent(&tracks[index], event, us, text);
              });
  for (JsonTrack& track : tracks) builder.closeTrack(&track);
  return builder.finish();
}

std::string TimeTrace::getTraceJson(const TaskNamer& taskNamer) {
  RegistryHold hold;
  return traceJsonOf(&hold.rings, taskNamer);
}

int TimeTrace::writeTraceJson(const char* path, const TaskNamer& taskNamer) {
  const std::string json = getTraceJson(taskNamer);
  FILE* file = std::fopen(path != nullptr ? path : "", "w");
  if (file == nullptr) {
    std::fprintf(stderr, "TimeTrace: cannot open %s: %s\n", path != nullptr ? path : "(null)",
                 std::strerror(errno));
    return -1;
  }
  const bool written = std::fwrite(json.data(), 1, json.size(), file) == json.size();
  const bool closed = std::fclose(file) == 0;
  if (!written || !closed) {
    std::fprintf(stderr, "TimeTrace: cannot write %s\n", path);
    return -1;
  }
  return 0;
}

}  // namespace kelvo
}  // namespace mosk
