// Ownership of typed topics, and the liveness of their owners.
//
// A topic's owner record holds a robust futex word. The process that owns the topic keeps the
// word on the robust list of a small keeper thread of its own (started while the process owns
// at least one topic, stopped when it owns none). However the process ends, exit or any signal,
// the kernel walks that list as the keeper thread exits, before the process can be waited for
// (its first thread may show "Z" earlier, while the others still exit), and marks every word
// it owns FUTEX_OWNER_DIED. So "alive" is one atomic load, a pid
// reused later can never look alive, and a thread of the owner that exits (the one that made the
// Publisher, say) changes nothing: only the keeper holds the words.
//
// All list operations run on the keeper thread itself, with the kernel's "operation pending"
// slot set around them, so the list is consistent at every instruction where the process may
// be killed.
//
// Threading: claim and release may be called from any thread (they wait for the keeper);
// ownerAlive() from anywhere. A fork child has no keeper: processGeneration() changes in the
// child, and what the parent owned is not the child's.
#ifndef KELVO_SRC_TOPIC_LIVENESS_H_
#define KELVO_SRC_TOPIC_LIVENESS_H_

#include <linux/futex.h>

#include <cstdint>

#include "topic_layout.h"

namespace mosk {
namespace kelvo {
namespace internal {

enum class ClaimResult {
  kClaimed,   // the record had no owner
  kTookOver,  // its owner had died
  kHeld,      // a live owner (in this process or another) holds it
  kNoKeeper,  // the keeper thread could not be started
};

ClaimResult claimOwnership(OwnerRecord& record);
void releaseOwnership(OwnerRecord& record);

// A word names a live owner when it holds a thread id without the died flag.
inline bool ownerWordAlive(uint32_t word) {
  return (word & FUTEX_TID_MASK) != 0 && (word & FUTEX_OWNER_DIED) == 0;
}

inline bool ownerAlive(const OwnerRecord& record) {
  return ownerWordAlive(record.word.load(std::memory_order_acquire));
}

// Changes in every fork child (and never otherwise).
uint64_t processGeneration();

}  // namespace internal
}  // namespace kelvo
}  // namespace mosk

#endif  // KELVO_SRC_TOPIC_LIVENESS_H_
