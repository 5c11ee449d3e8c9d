// The trace-viewer output of TimeTrace: the merged events as Chrome trace-event JSON, with the
// periodic loop's passes and task runs as named slices.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "mosk/kelvo/time_trace.h"
#include "mosk/kelvo/trace_task_names.h"
#include "time_trace_merge.h"

namespace mosk {
namespace kelvo {

namespace {

using internal::Buffer;
using internal::classify;
using internal::Cursor;
using internal::EventCopy;
using internal::EventKind;
using internal::mergeEvents;
using internal::openCursor;
using internal::ReadingGuard;
using internal::RegistryHold;

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
    const EventKind kind = classify(event.format);
    // The task a run belongs to (0 when it was recorded without one).
    const uint64_t taskId = kind == EventKind::kTaskStart || kind == EventKind::kTaskEnd
                                ? TraceTaskNames::fromWords(event.arg2, event.arg3)
                                : 0;
    switch (kind) {
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

}  // namespace

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
