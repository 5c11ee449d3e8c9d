// Real-time threads: thread and platform utilities.
//
// Free functions that prepare a thread for real-time work on Linux (SCHED_FIFO priority, name,
// CPU pinning, CPU-list parsing) and the PeriodicThread class's platform queries (PREEMPT RT
// detection, the DMA latency target).
//
// Threading: every function acts on the calling thread or on process-wide kernel state and
// keeps no state of its own; all may be called from any thread.
#ifndef MOSK_KELVO_THREAD_H_
#define MOSK_KELVO_THREAD_H_

#include <sched.h>

#include <cstddef>

#include "mosk/kelvo/export.h"

namespace mosk {
namespace kelvo {

// Gives the calling thread SCHED_FIFO priority `prio`. 0 on success, -1 on failure (usually a
// missing CAP_SYS_NICE or RLIMIT_RTPRIO).
KELVO_EXPORT int setPriority(int prio);

// Names the calling thread (at most 15 characters are kept by the kernel). -1 if `name` is
// null or the kernel refuses, else 0.
KELVO_EXPORT int setThreadName(const char* name);

// The kernel thread id of the calling thread.
KELVO_EXPORT long gettid();

// Pins the calling thread to `core` (0 to 1023; any other value asks for an empty set, which
// the kernel refuses). 0 on success, -1 if the affinity could not be set, -2 if it could not be
// read back afterwards.
KELVO_EXPORT int pinThreadToCore(int core);

// Parses a CPU list such as "0-3,8,10-14:2" into `set` (`setsize` bytes, cleared first).
// Items are A, A-B or A-B:S with unsigned decimal numbers. Returns 0 on success; 1 on a
// syntax error (an empty item, A > B, a stride of 0, or text after the final number, such as a
// trailing newline or a stride without a range in the last item); 2 when `fail` is non-zero and
// a CPU does not fit in the set (bits set before that stay set). With `fail` 0, CPUs beyond the
// set are skipped silently. A null `str` clears the set and returns 0. A range whose next
// step would pass 2^32 - 1 ends there instead of wrapping around.
KELVO_EXPORT int cpulist_parse(const char* str, cpu_set_t* set, size_t setsize, int fail);

class KELVO_EXPORT PeriodicThread {
 public:
  // True only when the kernel's version text contains "PREEMPT RT" (any case) and
  // /sys/kernel/realtime reads 1. Note that current PREEMPT_RT kernels spell the version tag
  // with an underscore, which this test does not accept; kelvo-check reports both facts.
  static bool detectPreemptRt();

  // Asks the kernel to keep CPU wake-up latency at zero by writing a zero to
  // /dev/cpu_dma_latency. The request lasts only while that descriptor stays open, so the
  // descriptor is deliberately left open (and never handed out) whenever the write went
  // through: the function then returns -1 (the kernel reports the 4 written bytes, not 0).
  // Returns -1 if the device is missing or cannot be opened; 0 (descriptor closed) only if the
  // write reported 0 bytes.
  static int setLatencyTarget();

  // Closes a descriptor: close(fd)'s result.
  static int closeLatencyTarget(int fd);

  // Reserved for system-wide real-time preparation; does nothing.
  static void rt_system_init();
};

}  // namespace kelvo
}  // namespace mosk

#endif  // MOSK_KELVO_THREAD_H_
