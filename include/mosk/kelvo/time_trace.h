// TimeTrace: a low-cost recorder of timestamped events for real-time code, printed later as a
// merged, time-ordered trace.
//
// Every thread that traces owns a ring of 8192 events (TimeTrace::Buffer). Recording stores a
// counter value, a pointer to a constant printf format and four 32-bit arguments: no
// allocation, no formatting, no lock, no system call. Formatting is deferred to print time, so
// the format must stay valid until then (use string literals). When a ring is full the oldest
// event is overwritten. A process-wide registry lists the rings, so that a printer can merge
// them. deleteThreadBuffer() frees a ring that holds no event at once; a ring with events stays
// registered (and printable) until a merge of the whole registry (TimeTrace::getTrace() or
// print()) has read it, and is freed by that merge. A merge of the whole registry holds every
// ring it reads, so a ring is never freed under it. A process that starts and ends many threads
// therefore keeps no ring for a thread that recorded nothing, and about 256 KiB for each ended
// thread whose events no merge has printed yet.
//
// Output: a header "CYCLES_PER_SECOND %f\nSTART_CYCLES %lu\n", then one line per event,
// "%8.1f us (+%6.1f us): <text>" with the event's time since the start and since the previous
// event. In the file form (print()) each line ends with a newline; in the string form
// (getTrace()) lines are separated by a newline and the text does not end with one, which
// leaves an empty line after the header. Without events the output is exactly
// "No time trace events to print". At most 8191 events per ring are printed (the slot about to
// be written is never read). The header is cut to 199 characters, the time prefix and the event
// text to 999 characters each.
//
// Start time: by default (keepOldEvents false) the trace starts at the latest first event among
// the rings, so that every ring has complete history from there on; older events are skipped.
// With keepOldEvents true it starts at the earliest first event and nothing is skipped. Events
// with equal timestamps print in registry (or vector) order.
//
// Output file: print() appends to the file named by setOutputFileName(), or writes to standard
// output when the name is empty. If the file cannot be opened, one line
// "TimeTrace: cannot open <file>: <reason>" goes to standard error and nothing else is output.
//
// Threading rules:
// - Buffer::record() is lock-free and must be called only by the ring's owning thread (the
//   thread whose threadBuffer it is). TimeTrace::record() does this for the calling thread.
// - Printing may run on any thread, concurrently with recording. A printer raises every ring's
//   readerCount while it reads; records that see it raised drop their event (Kept: events
//   arriving during a print are lost). The ring's fields are atomics accessed with relaxed
//   ordering, which compile to the same plain stores as ordinary fields on x86-64, so there is
//   no data race. A record writes its slot first and then publishes it by advancing writeIndex
//   with release ordering; a printer raises readerCount, then reads writeIndex once with acquire
//   ordering and never reads the slot at that index. So a record that passed the readerCount
//   check just before a printer raised it writes into the slot the printer skips, and every
//   event published before the print is seen whole. (Recording takes no fence, so a store
//   buffer may let the owner's next record or two also slip past the check and land in the
//   slot after the one the printer skips: the slot the printer reads first. That print may then
//   show such an event with some fields of the event it overwrites, or, when the ring has not
//   wrapped yet, take the ring for wrapped and show only that event instead of the ring's
//   history. The window is a few nanoseconds at the start of a print and the next print is
//   whole again; there is never undefined behaviour.) The check of readerCount uses acquire
//   ordering, so that slots a printer has read are only overwritten after it is done.
// - `mutex` guards `threadBuffers` and `filename` only; it is never held during the merge, and
//   never taken by recording. Do not call printInternal() while holding it.
// - keepOldEvents is a plain flag: set it before printing, not during a print.
// - reset() may run concurrently with recording without undefined behaviour, but events recorded
//   during a reset may survive it partially; reset a ring when its thread is quiet.
//
// Trace-viewer output: getTraceJson() renders the same merged events (same start-time rule,
// same order) in the Chrome trace-event JSON format, which Perfetto's UI (ui.perfetto.dev) and
// chrome://tracing open. Every ring is one track (tid 1, 2, ... in registry order) named after
// its thread; timestamps are microseconds since the start time, so the first event is at 0;
// each event's formatted text is its name. The periodic thread's events become slices: a pass
// runs from its "Task FRAME ..." event to its last task's end (or the next pass), a task run
// from "Task[i] >>>>>>>> started" to its "<<<<<<<< end" event. A run is named after the task that
// ran, whatever its position i: the loop records the task's identifier in the two arguments these
// formats do not print, and TraceTaskNames (trace_task_names.h) keeps the name the task had when
// it was added to its thread. A TaskNamer, when given, overrides that name wherever it returns
// one; a run recorded without an identifier, or whose task's name is no longer kept, is named
// "Task[i]". A run or pass still open where the ring's events end is closed at its ring's last
// event. Texts are escaped (quotes, backslashes, control characters;
// bytes that are not UTF-8 become U+FFFD). A ring's thread name is read (pthread_getname_np)
// when the ring is created and again when its thread lets go of it, because threads are often
// named just after they start. Reading a trace as JSON suppresses recording like any print.
#ifndef MOSK_KELVO_TIME_TRACE_H_
#define MOSK_KELVO_TIME_TRACE_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "mosk/kelvo/cycles.h"
#include "mosk/kelvo/export.h"

namespace mosk {
namespace kelvo {

class KELVO_EXPORT TimeTrace {
 public:
  TimeTrace() = delete;

  // One thread's ring of events. Large (256 KiB): always allocate it on the heap.
  class KELVO_EXPORT Buffer {
   public:
    static constexpr int32_t kSize = 8192;  // a power of two
    static constexpr int32_t kMask = kSize - 1;

    // One ring slot. A null format means the slot is unused since the last reset.
    struct Event {
      std::atomic<uint64_t> timestamp{0};
      std::atomic<const char*> format{nullptr};
      std::atomic<uint32_t> arg0{0};
      std::atomic<uint32_t> arg1{0};
      std::atomic<uint32_t> arg2{0};
      std::atomic<uint32_t> arg3{0};
    };

    Buffer();
    ~Buffer();
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    // Appends one event; dropped while a printer reads this ring. Owning thread only. A few
    // plain stores: usable inside a real-time cycle.
    void record(uint64_t timestamp, const char* format, uint32_t arg0 = 0, uint32_t arg1 = 0,
                uint32_t arg2 = 0, uint32_t arg3 = 0) {
      // Kept: an event recorded while a printer reads this ring is lost, so that recording
      // never waits for a print.
      if (readerCount.load(std::memory_order_acquire) > 0) return;
      const int32_t index = writeIndex.load(std::memory_order_relaxed) & kMask;
      Event& event = events[index];
      event.timestamp.store(timestamp, std::memory_order_relaxed);
      event.format.store(format, std::memory_order_relaxed);
      event.arg0.store(arg0, std::memory_order_relaxed);
      event.arg1.store(arg1, std::memory_order_relaxed);
      event.arg2.store(arg2, std::memory_order_relaxed);
      event.arg3.store(arg3, std::memory_order_relaxed);
      writeIndex.store((index + 1) & kMask, std::memory_order_release);
    }

    // Forgets every event of this ring.
    void reset();
    // The text of this ring alone (string form).
    std::string getTrace();
    // Prints this ring alone to the output file, or standard output (file form).
    void print();

    // The owning thread's name (up to 15 characters), for the JSON output's track names.
    std::string threadName() const;
    // Stores the calling thread's current name as this ring's thread name.
    void captureThreadName();

    // Slot that the next event is written to.
    std::atomic<int32_t> writeIndex{0};
    // Number of printers reading this ring; recording is suppressed while above 0.
    std::atomic<int32_t> readerCount{0};
    // The thread name's 16 bytes (NUL-padded): written by the owning thread, read by printers.
    std::atomic<uint64_t> threadNameWords[2] = {};
    // Cache-line aligned so that no event straddles two lines.
    alignas(64) Event events[kSize];
  };

  // Records an event into the calling thread's ring, stamped with Cycles::rdtsc(). Does nothing
  // if the calling thread has no ring (see createThreadBuffer()). Inline, no allocation.
  static void record(const char* format, uint32_t arg0 = 0, uint32_t arg1 = 0, uint32_t arg2 = 0,
                     uint32_t arg3 = 0) {
    Buffer* buffer = threadBuffer;
    if (buffer != nullptr) buffer->record(Cycles::rdtsc(), format, arg0, arg1, arg2, arg3);
  }

  // Gives the calling thread a ring if it has none, and registers it.
  static void createThreadBuffer();
  // Detaches the calling thread from its ring and frees it: at once if it holds no event, else
  // once a merge of the whole registry has printed it (see above). Buffer::getTrace()/print()
  // called on a ring do not hold it: call them only on a ring whose thread has not deleted it.
  static void deleteThreadBuffer();
  // Forgets the events of every registered ring.
  static void reset();
  // The merged text of every registered ring (string form).
  static std::string getTrace();
  // Prints the merged trace of every registered ring (file form).
  static void print();
  // Sets the file that print() appends to; null or empty means standard output.
  static void setOutputFileName(const char* name);

  // Overrides the name of a task run in getTraceJson(): given the recording thread's name, the
  // task's position among the tasks of its pass (the i of "Task[i]") and the number of tasks in
  // that pass, returns a name, or an empty string to keep the default (the name of the task that
  // ran, see above). Positions shift when tasks are added or removed, and two lists of the same
  // length look alike: without a namer every run is named after its own task already.
  using TaskNamer = std::function<std::string(const std::string& threadName, uint32_t taskIndex,
                                              uint32_t tasksInPass)>;
  // The merged trace of every registered ring as Chrome trace-event JSON (see above).
  static std::string getTraceJson(const TaskNamer& taskNamer = nullptr);
  // Writes getTraceJson() to `path`, replacing the file. 0 on success; -1 after one line on
  // standard error, "TimeTrace: cannot open <file>: <reason>" or "TimeTrace: cannot write
  // <file>". Like every output here it allocates: call it outside the real-time path.
  static int writeTraceJson(const char* path, const TaskNamer& taskNamer = nullptr);
  // The JSON of `buffers` alone (the engine behind getTraceJson()).
  static std::string traceJsonOf(std::vector<Buffer*>* buffers,
                                 const TaskNamer& taskNamer = nullptr);

  // Merges and formats `buffers`: appends to *s when s is not null, otherwise prints to the
  // output file (or standard output).
  static void printInternal(std::vector<Buffer*>* buffers, std::string* s);

  // The calling thread's ring, or null.
  static thread_local Buffer* threadBuffer;
  // The registered rings, in creation order. Guarded by `mutex`.
  static std::vector<Buffer*> threadBuffers;
  // Guards threadBuffers and filename.
  static std::mutex mutex;
  // File that print() appends to; empty means standard output. Guarded by `mutex`.
  static std::string filename;
  // Start-time rule of printing (see above). Default false.
  static bool keepOldEvents;
};

}  // namespace kelvo
}  // namespace mosk

#endif  // MOSK_KELVO_TIME_TRACE_H_
