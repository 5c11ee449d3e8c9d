// The shared layout of a typed topic's segment: a header, then a ring of slots. Every process
// that attaches sees the same bytes, so the layout is fixed (and checked below); a change to it
// raises kLayoutVersion, which connectors compare.
//
// Threading: the identity fields are written once by the creator before it publishes `magic`
// (release) and only read after `magic` has been read (acquire). Everything that changes later
// is a std::atomic (lock-free, address-free, so it works across processes).
#ifndef KELVO_SRC_TOPIC_LAYOUT_H_
#define KELVO_SRC_TOPIC_LAYOUT_H_

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace mosk {
namespace kelvo {
namespace internal {

// "KLVTOPIC" in memory order; its first four bytes can never be a plain topic's 0x1234.
constexpr uint64_t kTypedMagic = 0x4349504f54564c4bULL;
constexpr uint32_t kPlainMagic = 0x1234;
constexpr uint32_t kLayoutVersion = 1;
constexpr uint32_t kHeaderBytes = 1024;
constexpr uint32_t kSlotHeaderBytes = 16;
constexpr uint32_t kMaxDepth = 65536;
constexpr uint32_t kMaxValueSize = 64u << 20;
constexpr uint32_t kMaxAlignment = 64;
constexpr size_t kTopicNameField = 48;
constexpr size_t kTypeNameField = 64;
constexpr size_t kSubscriberEntries = 64;

// The wake word: the low 31 bits follow the head's sequence, the top bit says that a
// subscriber is (or was) asleep in wait().
constexpr uint32_t kSleepersFlag = 0x80000000u;
constexpr uint32_t kWakeSequenceMask = 0x7fffffffu;

// The owner's robust futex: a link in the keeper thread's robust list, then the futex word
// (the keeper's thread id, or FUTEX_OWNER_DIED once the kernel has seen it die). The kernel
// finds the word 8 bytes after the link.
struct OwnerRecord {
  std::atomic<uint64_t> link;  // the owning process's list pointer (meaningless elsewhere)
  std::atomic<uint32_t> word;
  std::atomic<int32_t> pid;  // informational: the owning (or last) process
};
constexpr long kOwnerWordOffset = 8;

struct alignas(64) TopicHeader {
  // --- identity: written by the creator before `magic` --------------------------------------
  std::atomic<uint64_t> magic;  // 0 while the creator initialises, kTypedMagic after
  uint32_t layoutVersion;
  uint32_t headerBytes;
  uint32_t slotBytes;  // distance between slots
  uint32_t slotCount;  // depth + 1
  uint32_t depth;
  uint32_t dataOffset;  // of the value inside a slot
  uint32_t valueSize;
  uint32_t valueAlignment;
  uint32_t typeVersion;
  int32_t creatorPid;
  char typeName[kTypeNameField];
  char topicName[kTopicNameField];

  // --- ownership ------------------------------------------------------------------------------
  alignas(64) OwnerRecord owner;
  std::atomic<uint64_t> takeovers;
  std::atomic<uint32_t> removed;  // set by removeTopic() before it marks the segment

  // --- the publisher's line: written on every publish ----------------------------------------
  alignas(64) std::atomic<uint64_t> head;  // newest complete sequence, 0 before the first
  std::atomic<uint32_t> wake;              // futex word of wait(), see kSleepersFlag

  // --- who subscribes: one entry per Subscriber, for kelvo-topics -----------------------------
  // A process token (see processToken()) or 0. An entry whose process has gone is free again.
  alignas(64) std::atomic<uint64_t> subscribers[kSubscriberEntries];
};

// One ring slot; the value follows at TopicHeader::dataOffset.
struct TopicSlot {
  std::atomic<uint64_t> version;  // 2 x sequence when complete, odd while written
  std::atomic<int64_t> publishTimeNs;
};

static_assert(sizeof(TopicHeader) <= kHeaderBytes, "topic header layout");
static_assert(offsetof(TopicHeader, magic) == 0, "topic header layout");
static_assert(offsetof(TopicHeader, owner) == 192, "topic header layout");
static_assert(offsetof(OwnerRecord, word) == kOwnerWordOffset, "robust futex layout");
static_assert(offsetof(TopicHeader, head) == 256, "topic header layout");
static_assert(offsetof(TopicHeader, subscribers) == 320, "topic header layout");
static_assert(sizeof(TopicSlot) == kSlotHeaderBytes, "topic slot layout");
static_assert(std::atomic<uint64_t>::is_always_lock_free, "shared atomics must be lock-free");
static_assert(std::atomic<uint32_t>::is_always_lock_free, "shared atomics must be lock-free");

constexpr uint64_t roundUp(uint64_t value, uint64_t multiple) {
  return (value + multiple - 1) / multiple * multiple;
}

// Where a slot's value starts: after the slot header, aligned for the value.
constexpr uint32_t dataOffsetFor(uint32_t alignment) {
  return alignment > kSlotHeaderBytes ? alignment : kSlotHeaderBytes;
}

// Slot stride: the value padded to whole 8-byte words (the copy moves words), then to cache
// lines so that neighbouring slots never share one.
constexpr uint64_t slotBytesFor(uint32_t valueSize, uint32_t alignment) {
  return roundUp(dataOffsetFor(alignment) + roundUp(valueSize, 8), 64);
}

constexpr uint64_t segmentBytesFor(uint32_t valueSize, uint32_t alignment, uint32_t depth) {
  return kHeaderBytes + slotBytesFor(valueSize, alignment) * (uint64_t{depth} + 1);
}

// The publish time of `sequence` if `slot` holds it complete both before and after the time is
// read (the publisher may be rewriting the slot meanwhile). Lock-free: one acquire load each.
inline bool completeSlotTime(const TopicSlot& slot, uint64_t sequence, int64_t* publishTimeNs) {
  const uint64_t complete = 2 * sequence;
  if (slot.version.load(std::memory_order_acquire) != complete) return false;
  const int64_t stamp = slot.publishTimeNs.load(std::memory_order_acquire);
  if (slot.version.load(std::memory_order_relaxed) != complete) return false;
  *publishTimeNs = stamp;
  return true;
}

}  // namespace internal
}  // namespace kelvo
}  // namespace mosk

#endif  // KELVO_SRC_TOPIC_LAYOUT_H_
