// Typed topics: the publish and read paths over a topic's ring of sequence-locked slots.
#include "mosk/kelvo/topic.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

#include "mosk/kelvo/time_trace.h"
#include "topic_layout.h"
#include "topic_liveness.h"
#include "topic_segment.h"

namespace mosk {
namespace kelvo {
namespace internal {
namespace {

constexpr auto kAcquire = std::memory_order_acquire;
constexpr auto kRelease = std::memory_order_release;
constexpr auto kRelaxed = std::memory_order_relaxed;

std::atomic<uint64_t>* wordsOf(TopicSlot* slot, uint32_t dataOffset) {
  return reinterpret_cast<std::atomic<uint64_t>*>(reinterpret_cast<char*>(slot) + dataOffset);
}

// How a slot's data is copied. Every copy sits between two checks of the slot's version (a
// sequence lock), which is what keeps a torn copy from ever reaching a caller; the copy itself
// only has to be ordered against those checks. Plain memcpy between fences does that and is
// vectorised: atomic word copies are not, and made a 64 KiB ping-pong a third slower
// (bench/topic_pingpong.cpp). Under ThreadSanitizer, which intercepts memcpy and would report
// the overlap that the version check discards, the copies are word by word with atomic accesses.
#if defined(__SANITIZE_THREAD__)
#define KELVO_TOPIC_WORDWISE_COPIES 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KELVO_TOPIC_WORDWISE_COPIES 1
#endif
#endif

// Writes `size` bytes into a slot's words, after the slot's odd version: a release fence, or
// release stores word by word, keep the version store ahead of every data store (plain moves on
// x86-64 either way).
void copyIn(std::atomic<uint64_t>* words, const void* value, uint32_t size) {
#ifdef KELVO_TOPIC_WORDWISE_COPIES
  const auto* bytes = static_cast<const unsigned char*>(value);
  const uint32_t whole = size / 8;
  for (uint32_t i = 0; i < whole; ++i) {
    uint64_t word;
    std::memcpy(&word, bytes + 8 * i, sizeof word);
    words[i].store(word, kRelease);
  }
  if (const uint32_t tail = size % 8) {
    uint64_t word = 0;
    std::memcpy(&word, bytes + 8 * whole, tail);
    words[whole].store(word, kRelease);
  }
#else
  std::atomic_thread_fence(kRelease);
  std::memcpy(static_cast<void*>(words), value, size);
#endif
}

// Copies a slot's words (the value padded to whole words) into `out`. An acquire fence, or
// acquire loads word by word, keep the version check after the copy from being done before it.
// Not instrumented by ThreadSanitizer: a lagging reader may copy a slot while a loan()'s plain
// stores fill it; the version check discards that copy (see topic.h).
__attribute__((no_sanitize("thread"))) void copyOut(const std::atomic<uint64_t>* words,
                                                    uint64_t* out, uint32_t wordCount) {
#ifdef KELVO_TOPIC_WORDWISE_COPIES
  const auto* raw = reinterpret_cast<const uint64_t*>(words);
  for (uint32_t i = 0; i < wordCount; ++i) out[i] = __atomic_load_n(raw + i, __ATOMIC_ACQUIRE);
#else
  std::memcpy(out, static_cast<const void*>(words), size_t{wordCount} * 8);
  std::atomic_thread_fence(kAcquire);
#endif
}

// Sleeps while `*word` is `expected`, at most `timeoutNs`. A shared futex: the word is in a
// segment that other processes map at other addresses.
void futexWait(std::atomic<uint32_t>* word, uint32_t expected, int64_t timeoutNs) {
  const timespec timeout{static_cast<time_t>(timeoutNs / 1'000'000'000),
                         static_cast<long>(timeoutNs % 1'000'000'000)};
  syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAIT, expected, &timeout, nullptr, 0);
}

}  // namespace

// --- endpoint ------------------------------------------------------------------------------

TopicEndpoint::TopicEndpoint(const std::string& topic, const TopicTypeInfo& type, uint32_t depth)
    : topic_(topic) {
  const Attachment attachment = attachTopic(topic, type, depth, &error_);
  if (attachment.header == nullptr) return;
  header_ = attachment.header;
  ring_ = reinterpret_cast<char*>(header_) + kHeaderBytes;
  slotBytes_ = header_->slotBytes;
  slotCount_ = header_->slotCount;
  depth_ = header_->depth;
  valueSize_ = header_->valueSize;
  dataOffset_ = header_->dataOffset;
  traceKey_ = static_cast<uint32_t>(attachment.key);
}

TopicEndpoint::~TopicEndpoint() { detach(); }

void TopicEndpoint::fail(const std::string& why) {
  error_ = why;
  detach();
}

void TopicEndpoint::detach() {
  detachTopic(header_);
  header_ = nullptr;
}

TopicSlot* TopicEndpoint::slot(uint64_t sequence) const {
  return reinterpret_cast<TopicSlot*>(ring_ + (sequence % slotCount_) * slotBytes_);
}

bool TopicEndpoint::publisherAlive() const {
  return header_ != nullptr && ownerAlive(header_->owner);
}

int32_t TopicEndpoint::publisherPid() const {
  return header_ == nullptr ? 0 : header_->owner.pid.load(kRelaxed);
}

uint64_t TopicEndpoint::newestSequence() const {
  return header_ == nullptr ? 0 : header_->head.load(kAcquire);
}

bool TopicEndpoint::removed() const {
  return header_ != nullptr && header_->removed.load(kRelaxed) != 0;
}

// --- writer --------------------------------------------------------------------------------

TopicWriter::TopicWriter(const std::string& topic, const TopicTypeInfo& type, uint32_t depth)
    : TopicEndpoint(topic, type, depth) {
  // loan()'s target while not connected: room for the value, aligned as the value.
  const size_t alignment = std::max<size_t>(type.alignment, 8);
  size_t room = roundUp(type.size, 8) + alignment;
  scratch_.reset(new unsigned char[room]());
  scratchAligned_ = scratch_.get();
  std::align(alignment, roundUp(type.size, 8), scratchAligned_, room);
  if (header_ == nullptr) return;

  const ClaimResult claim = claimOwnership(header_->owner);
  if (claim == ClaimResult::kHeld) {
    const int32_t pid = header_->owner.pid.load(kRelaxed);
    fail(quotedTopic(topic) + " already has a publisher (pid " + std::to_string(pid) +
         (pid == getpid() ? ", this process)" : ")"));
    return;
  }
  if (claim == ClaimResult::kNoKeeper) {
    fail(quotedTopic(topic) + ": cannot start the thread that holds its ownership");
    return;
  }
  if (claim == ClaimResult::kTookOver) header_->takeovers.fetch_add(1, kRelaxed);
  header_->owner.pid.store(static_cast<int32_t>(getpid()), kRelaxed);
  owner_ = true;
  ownedGeneration_ = processGeneration();
  next_ = header_->head.load(kAcquire) + 1;
  nextIndex_ = static_cast<uint32_t>(next_ % slotCount_);
}

TopicWriter::~TopicWriter() {
  if (owning()) releaseOwnership(header_->owner);
}

bool TopicWriter::owning() const { return owner_ && ownedGeneration_ == processGeneration(); }

// Marks the next slot as being written (odd version) and returns it.
void* TopicWriter::beginSlot() {
  auto* target = reinterpret_cast<TopicSlot*>(ring_ + size_t{nextIndex_} * slotBytes_);
  if (!loaned_) {
    target->version.store(2 * next_ - 1, kRelaxed);
    // Keeps the compiler from moving later stores of the value above this one; x86-64 keeps
    // stores in order, so the odd version is visible before any of them.
    std::atomic_signal_fence(std::memory_order_seq_cst);
  }
  return target;
}

// Stamps and completes the slot, publishes it as the head, and wakes sleepers if there are.
void TopicWriter::completeSlot() {
  auto* target = reinterpret_cast<TopicSlot*>(ring_ + size_t{nextIndex_} * slotBytes_);
  target->publishTimeNs.store(monotonicNowNs(), kRelease);
  target->version.store(2 * next_, kRelease);
  header_->head.store(next_, kRelease);
  const uint32_t before =
      header_->wake.exchange(static_cast<uint32_t>(next_) & kWakeSequenceMask, kRelease);
  if ((before & kSleepersFlag) != 0) {
    wakeAllWaiters(&header_->wake);
    ++wakeups_;
  }
  if (trace_) {
    TimeTrace::record("topic publish seq %u key %08x", static_cast<uint32_t>(next_), traceKey_);
  }
  ++next_;
  ++published_;
  nextIndex_ = nextIndex_ + 1 == slotCount_ ? 0 : nextIndex_ + 1;
  loaned_ = false;
}

void TopicWriter::publish(const void* value) {
  if (!owning()) return;
  auto* target = static_cast<TopicSlot*>(beginSlot());
  copyIn(wordsOf(target, dataOffset_), value, valueSize_);
  completeSlot();
}

void* TopicWriter::loan() {
  if (!owning()) return scratchAligned_;
  auto* target = static_cast<TopicSlot*>(beginSlot());
  loaned_ = true;
  return reinterpret_cast<char*>(target) + dataOffset_;
}

void TopicWriter::publishLoaned() {
  if (!owning() || !loaned_) return;
  completeSlot();
}

// --- reader --------------------------------------------------------------------------------

TopicReader::TopicReader(const std::string& topic, const TopicTypeInfo& type, uint32_t depth)
    : TopicEndpoint(topic, type, depth) {
  if (header_ == nullptr) return;
  scratch_.reset(new uint64_t[roundUp(valueSize_, 8) / 8]());
  const uint64_t head = header_->head.load(kAcquire);
  cursor_ = head > depth_ ? head - depth_ : 0;
  lastSeen_ = cursor_;
  registerSubscriber();
}

TopicReader::~TopicReader() {
  if (header_ != nullptr && entry_ >= 0 && selfToken() == token_) {
    uint64_t mine = token_;
    header_->subscribers[entry_].compare_exchange_strong(mine, 0, kRelaxed);
  }
}

// Takes a free entry of the header's subscriber table (one whose process has gone is free),
// so that kelvo-topics can count subscribers. A full table only leaves this one uncounted.
void TopicReader::registerSubscriber() {
  token_ = selfToken();
  if (token_ == 0) return;
  for (size_t i = 0; i < kSubscriberEntries; ++i) {
    uint64_t current = header_->subscribers[i].load(kRelaxed);
    if (current == token_ || (current != 0 && tokenAlive(current))) continue;
    if (header_->subscribers[i].compare_exchange_strong(current, token_, kRelaxed)) {
      entry_ = static_cast<int>(i);
      return;
    }
  }
}

// Copies sample `sequence` into scratch_ if its slot still holds it, complete, before and
// after the copy.
bool TopicReader::readSlot(uint64_t sequence, int64_t* publishTimeNs) const {
  TopicSlot* source = slot(sequence);
  const uint64_t complete = 2 * sequence;
  if (source->version.load(kAcquire) != complete) return false;
  const int64_t stamp = source->publishTimeNs.load(kAcquire);
  copyOut(wordsOf(source, dataOffset_), scratch_.get(),
          static_cast<uint32_t>(roundUp(valueSize_, 8) / 8));
  if (source->version.load(kRelaxed) != complete) return false;
  *publishTimeNs = stamp;
  return true;
}

// The first sequence the ring still keeps once `head` is complete: the publisher may be
// writing head + 1, which takes the slot of head - depth.
static uint64_t oldestKept(uint64_t head, uint32_t depth) {
  return head > depth ? head - depth + 1 : 1;
}

bool TopicReader::latest(void* value, uint64_t* sequence, int64_t* publishTimeNs) {
  if (header_ == nullptr) return false;
  for (int attempt = 0; attempt < kTopicReadAttempts; ++attempt) {
    const uint64_t head = header_->head.load(kAcquire);
    if (head == 0) return false;
    int64_t stamp;
    if (!readSlot(head, &stamp)) continue;  // lapped: the head has moved on
    std::memcpy(value, scratch_.get(), valueSize_);
    *sequence = head;
    *publishTimeNs = stamp;
    lastSeen_ = std::max(lastSeen_, head);
    if (trace_)
      TimeTrace::record("topic latest seq %u key %08x", static_cast<uint32_t>(head), traceKey_);
    return true;
  }
  ++readFailures_;
  return false;
}

bool TopicReader::take(void* value, uint64_t* sequence, int64_t* publishTimeNs, uint64_t* lost) {
  if (header_ == nullptr) return false;
  uint64_t head = header_->head.load(kAcquire);
  if (head <= cursor_) return false;
  uint64_t want = std::max(cursor_ + 1, oldestKept(head, depth_));
  for (int attempt = 0; attempt < kTopicReadAttempts; ++attempt) {
    int64_t stamp;
    if (readSlot(want, &stamp)) {
      std::memcpy(value, scratch_.get(), valueSize_);
      *sequence = want;
      *publishTimeNs = stamp;
      if (lost != nullptr) *lost = want - cursor_ - 1;
      if (trace_) {
        TimeTrace::record("topic take seq %u lost %u key %08x", static_cast<uint32_t>(want),
                          static_cast<uint32_t>(want - cursor_ - 1), traceKey_);
      }
      cursor_ = want;
      lastSeen_ = std::max(lastSeen_, want);
      return true;
    }
    // The slot was overwritten: that sample is gone. Go on from the oldest still kept.
    head = header_->head.load(kAcquire);
    want = std::max(want + 1, oldestKept(head, depth_));
  }
  ++readFailures_;
  return false;
}

bool TopicReader::wait(std::chrono::nanoseconds timeout) {
  if (header_ == nullptr) return false;
  const int64_t deadline = monotonicNowNs() + std::max<int64_t>(timeout.count(), 0);
  for (;;) {
    uint32_t word = header_->wake.load(kAcquire);
    // Read after the wake word: a publish that changed the word after this load makes the
    // futex wait below return at once; one before it is seen here.
    if (header_->head.load(kAcquire) > lastSeen_) return true;
    if (header_->removed.load(kAcquire) != 0) return false;
    const int64_t left = deadline - monotonicNowNs();
    if (left <= 0) return false;
    if ((word & kSleepersFlag) == 0) {
      if (!header_->wake.compare_exchange_strong(word, word | kSleepersFlag, kAcquire)) continue;
      word |= kSleepersFlag;
    }
    futexWait(&header_->wake, word, left);
  }
}

int64_t TopicReader::newestAgeNs() const {
  if (header_ == nullptr) return -1;
  for (int attempt = 0; attempt < kTopicReadAttempts; ++attempt) {
    const uint64_t head = header_->head.load(kAcquire);
    if (head == 0) return -1;
    int64_t stamp;
    if (completeSlotTime(*slot(head), head, &stamp)) return monotonicNowNs() - stamp;
  }
  return -1;
}

}  // namespace internal
}  // namespace kelvo
}  // namespace mosk
