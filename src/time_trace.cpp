// TimeTrace: per-thread event rings and the merge that prints them in time order.
#include "mosk/kelvo/time_trace.h"

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

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void formatEventText(const Buffer::Event& event, char (&text)[kLineLength]) {
  std::snprintf(
      text, sizeof(text), event.format.load(std::memory_order_relaxed),
      event.arg0.load(std::memory_order_relaxed), event.arg1.load(std::memory_order_relaxed),
      event.arg2.load(std::memory_order_relaxed), event.arg3.load(std::memory_order_relaxed));
}
#pragma GCC diagnostic pop

void mergeAndFormat(std::vector<Cursor>* cursors, TraceOutput* output) {
  const uint64_t start = chooseStartTime(*cursors, TimeTrace::keepOldEvents);
  if (!TimeTrace::keepOldEvents) skipEventsBefore(start, cursors);

  bool first = true;
  double previousUs = 0.0;
  for (int index = pickOldest(*cursors); index >= 0; index = pickOldest(*cursors)) {
    Cursor& cursor = (*cursors)[index];
    if (first) {
      char header[kHeaderLength];
      std::snprintf(header, sizeof(header), "CYCLES_PER_SECOND %f\nSTART_CYCLES %" PRIu64 "\n",
                    Cycles::cyclesPerSec, start);
      output->write(header);
      first = false;
    }
    const Buffer::Event& event = cursor.event();
    cursor.advance();
    const double us =
        Cycles::toSeconds(event.timestamp.load(std::memory_order_relaxed) - start) * 1e6;
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

std::vector<Buffer*> copyRegistry() {
  std::lock_guard<std::mutex> lock(TimeTrace::mutex);
  return TimeTrace::threadBuffers;
}

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
}

void TimeTrace::deleteThreadBuffer() {
  // The registry keeps the ring: a printer on another thread may be merging it right now, and
  // any later merge still walks it. Freeing it here would leave the registry dangling.
  threadBuffer = nullptr;
}

void TimeTrace::reset() {
  std::lock_guard<std::mutex> lock(mutex);
  for (Buffer* buffer : threadBuffers) buffer->reset();
}

std::string TimeTrace::getTrace() {
  std::vector<Buffer*> buffers = copyRegistry();
  std::string s;
  printInternal(&buffers, &s);
  return s;
}

void TimeTrace::print() {
  std::vector<Buffer*> buffers = copyRegistry();
  printInternal(&buffers, nullptr);
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
