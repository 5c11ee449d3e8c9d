// The header of a shared-memory segment as every process maps it: its binary layout, pinned by
// static_asserts because processes built apart share it, the addresses of its members, and the
// plain shared words it keeps. Private to the library (shm.cpp).
//
// Threading rules: the bookkeeping words are read and written by every attached process without
// a lock (relaxed atomic accesses, see below); the synchronisation objects are process-shared.
#ifndef KELVO_SRC_SHM_HEADER_H_
#define KELVO_SRC_SHM_HEADER_H_

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "mosk/kelvo/shm.h"

namespace mosk {
namespace kelvo {
namespace internal {

constexpr uint32_t kMagic = 0x1234;
constexpr size_t kTopicNameSize = 128;

// The segment header as every process sees it. The layout is shared between processes (and
// between builds of the library), so it is packed to 4 bytes and pinned by the checks below.
#pragma pack(push, 4)
struct SegmentHeader {
  uint32_t magic;
  uint32_t creator_pid;
  uint32_t reserved_a;
  uint64_t reserved_b;
  uint64_t page_size;
  uint32_t owner_tid;
  uint32_t reserved_c;
  pthread_mutex_t lock_mutex;
  pthread_mutex_t cond_mutex;
  pthread_cond_t cond;
  pthread_rwlock_t rwlock;
  uint64_t lock_count;
  uint64_t unlock_count;
  char topic_name[kTopicNameSize];
  uint32_t key;
  uint32_t size;
};
#pragma pack(pop)

static_assert(sizeof(pthread_mutex_t) == 40, "mutex size is part of the segment layout");
static_assert(sizeof(pthread_cond_t) == 48, "condition size is part of the segment layout");
static_assert(sizeof(pthread_rwlock_t) == 56, "rwlock size is part of the segment layout");
static_assert(offsetof(SegmentHeader, magic) == 0, "segment layout");
static_assert(offsetof(SegmentHeader, creator_pid) == 4, "segment layout");
static_assert(offsetof(SegmentHeader, reserved_a) == 8, "segment layout");
static_assert(offsetof(SegmentHeader, reserved_b) == 12, "segment layout");
static_assert(offsetof(SegmentHeader, page_size) == 20, "segment layout");
static_assert(offsetof(SegmentHeader, owner_tid) == 28, "segment layout");
static_assert(offsetof(SegmentHeader, reserved_c) == 32, "segment layout");
static_assert(offsetof(SegmentHeader, lock_mutex) == 36, "segment layout");
static_assert(offsetof(SegmentHeader, cond_mutex) == 76, "segment layout");
static_assert(offsetof(SegmentHeader, cond) == 116, "segment layout");
static_assert(offsetof(SegmentHeader, rwlock) == 164, "segment layout");
static_assert(offsetof(SegmentHeader, lock_count) == 220, "segment layout");
static_assert(offsetof(SegmentHeader, unlock_count) == 228, "segment layout");
static_assert(offsetof(SegmentHeader, topic_name) == 236, "segment layout");
static_assert(offsetof(SegmentHeader, key) == 364, "segment layout");
static_assert(offsetof(SegmentHeader, size) == 368, "segment layout");
static_assert(sizeof(SegmentHeader) == MEM_HDR_SIZE, "segment layout");

// Member addresses by offset: the members of a packed struct are not naturally aligned, and
// the pthread functions only need the address.
template <typename T>
inline T* member(SegmentHeader* header, size_t offset) {
  return reinterpret_cast<T*>(reinterpret_cast<char*>(header) + offset);
}

inline pthread_mutex_t* lockMutex(SegmentHeader* h) {
  return member<pthread_mutex_t>(h, offsetof(SegmentHeader, lock_mutex));
}
inline pthread_mutex_t* condMutex(SegmentHeader* h) {
  return member<pthread_mutex_t>(h, offsetof(SegmentHeader, cond_mutex));
}
inline pthread_cond_t* condition(SegmentHeader* h) {
  return member<pthread_cond_t>(h, offsetof(SegmentHeader, cond));
}
inline pthread_rwlock_t* rwLock(SegmentHeader* h) {
  return member<pthread_rwlock_t>(h, offsetof(SegmentHeader, rwlock));
}

// The bookkeeping words are plain shared words: other processes read and write them without
// any lock. Relaxed atomic loads and stores compile to the same plain moves on x86-64 and keep
// the concurrent accesses of threads in this process defined.
// Kept: the counters are not incremented atomically (a load and a store): they are diagnostics.
typedef uint64_t Word64 __attribute__((aligned(4)));

inline uint32_t loadWord(SegmentHeader* h, size_t offset) {
  return __atomic_load_n(member<uint32_t>(h, offset), __ATOMIC_RELAXED);
}
inline void storeWord(SegmentHeader* h, size_t offset, uint32_t value) {
  __atomic_store_n(member<uint32_t>(h, offset), value, __ATOMIC_RELAXED);
}
inline uint64_t loadWord64(SegmentHeader* h, size_t offset) {
  return __atomic_load_n(member<Word64>(h, offset), __ATOMIC_RELAXED);
}
inline void storeWord64(SegmentHeader* h, size_t offset, uint64_t value) {
  __atomic_store_n(member<Word64>(h, offset), value, __ATOMIC_RELAXED);
}
inline void incrementWord64(SegmentHeader* h, size_t offset) {
  storeWord64(h, offset, loadWord64(h, offset) + 1);
}

inline bool isUsable(SegmentHeader* h) {
  return loadWord(h, offsetof(SegmentHeader, magic)) == kMagic;
}

inline SegmentHeader* headerOf(void* mem) {
  return reinterpret_cast<SegmentHeader*>(static_cast<char*>(mem) - MEM_HDR_SIZE);
}

inline void* dataOf(void* segment) { return static_cast<char*>(segment) + MEM_HDR_SIZE; }

inline void noteLocked(SegmentHeader* h, uint32_t tid) {
  storeWord(h, offsetof(SegmentHeader, owner_tid), tid);
  incrementWord64(h, offsetof(SegmentHeader, lock_count));
}

inline void noteUnlocking(SegmentHeader* h) {
  incrementWord64(h, offsetof(SegmentHeader, unlock_count));
  storeWord(h, offsetof(SegmentHeader, owner_tid), 0);
}

}  // namespace internal
}  // namespace kelvo
}  // namespace mosk

#endif  // KELVO_SRC_SHM_HEADER_H_
