// What the time-trace unit tells the rest of the library about the rings a merge may read.
// Private to the library.
#ifndef KELVO_SRC_TIME_TRACE_RINGS_H_
#define KELVO_SRC_TIME_TRACE_RINGS_H_

#include <cstdint>
#include <unordered_set>

namespace mosk {
namespace kelvo {
namespace internal {

// Of `candidates`, the task identifiers that some task-run event still carries in a ring that a
// merge may read (a registered ring, or one a merge is still reading). Reads every slot of those
// rings under TimeTrace::mutex, without suppressing recording.
std::unordered_set<uint64_t> taskIdsStillInRings(const std::unordered_set<uint64_t>& candidates);

}  // namespace internal
}  // namespace kelvo
}  // namespace mosk

#endif  // KELVO_SRC_TIME_TRACE_RINGS_H_
