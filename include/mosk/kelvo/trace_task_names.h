// TraceTaskNames: which task a periodic thread's task-run events belong to, so that the
// trace-viewer output (TimeTrace::getTraceJson()) names every run after the task that ran.
//
// The periodic loop records "Task[%d] >>>>>>>> started" and "Task[%d] <<<<<<<< end %d" around
// every run. The %d after "Task" is the task's position in its pass, which shifts whenever a task
// is added or removed, so the loop also records the running task's identifier: its
// RealTimeTaskWrapper's serial, unique in the process and never reused, split over the two
// arguments these formats do not print (arg2 the low 32 bits, arg3 the high 32 bits). The text
// trace stays byte for byte what it was. This map turns identifiers back into names.
//
// Which name a run carries: the name the task's getName() returned when the task was added to
// its thread (when its wrapper was made). The loop asks getName() again before every run, but
// handing that answer over to the renderer would cost the real-time path an allocation or a
// lock, so a task that later returns another name keeps, on the timeline, the name it was added
// under. To show a new name, remove the task and add it again, or pass a TimeTrace::TaskNamer
// (which overrides these names).
//
// Lifetime and bound: a wrapper adds its task's name when it is made and retires it when it is
// destroyed (the task has left its thread for good and records nothing more). A retired name is
// kept while a ring that a merge may read (a registered ring, or one a merge is still reading)
// holds an event that names it, and dropped by the first prune after that. retire() prunes once
// the retired names reach max(64, twice the number the rings kept at the previous prune). So the
// map holds the live tasks, the retired tasks that the rings still show (a ring holds 8192
// events, so at most 8192 per ring) and fewer than as many again: a program that adds and
// removes tasks for days keeps it bounded. A prune reads every ring's slots (tens of
// microseconds per ring) under TimeTrace::mutex; recording goes on meanwhile. Rings outside the
// registry (a Buffer of your own given to TimeTrace::traceJsonOf()) are not consulted: the
// names of retired tasks that only such a ring shows may be gone.
//
// Threading rules: every function may be called from any thread. They take an internal mutex
// (prune() also TimeTrace::mutex), so none of them belongs in a real-time path; the loop never
// calls them, it only records the identifier.
#ifndef MOSK_KELVO_TRACE_TASK_NAMES_H_
#define MOSK_KELVO_TRACE_TASK_NAMES_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "mosk/kelvo/export.h"

namespace mosk {
namespace kelvo {

class KELVO_EXPORT TraceTaskNames {
 public:
  TraceTaskNames() = delete;

  // The identifier's halves as a task-run event carries them (arg2, arg3), and back.
  static constexpr uint32_t lowWord(uint64_t taskId) { return static_cast<uint32_t>(taskId); }
  static constexpr uint32_t highWord(uint64_t taskId) {
    return static_cast<uint32_t>(taskId >> 32);
  }
  static constexpr uint64_t fromWords(uint32_t low, uint32_t high) {
    return static_cast<uint64_t>(high) << 32 | low;
  }

  // Names the task `taskId`. 0 identifies no task (events recorded without an identifier carry
  // it) and is ignored. Adding a known identifier again replaces its name and makes it live.
  static void add(uint64_t taskId, const std::string& name);
  // The task will record no more events. Its name stays while a ring still names it (see
  // above); may prune. An unknown or already retired identifier is ignored.
  static void retire(uint64_t taskId);
  // The name of `taskId`, or an empty string when none is known.
  static std::string find(uint64_t taskId);
  // Whether a name is kept for `taskId`.
  static bool contains(uint64_t taskId);
  // The number of names kept, live and retired.
  static size_t size();
  // Drops every retired name that no ring a merge may read still names; returns how many.
  static size_t prune();
};

}  // namespace kelvo
}  // namespace mosk

#endif  // MOSK_KELVO_TRACE_TASK_NAMES_H_
