// Typed real-time topics between processes: one publisher, any number of subscribers, the
// newest samples kept in a ring in shared memory.
//
//   struct JointState { double position[6]; double velocity[6]; };
//   KELVO_TOPIC_TYPE(JointState, "robot/JointState", 1);   // beside the struct, once
//
//   Publisher<JointState> out("robot/joints");             // the driver
//   if (!out) { std::puts(out.error().c_str()); return 1; }
//   out.publish(state);                                    // each cycle: wait-free
//
//   Subscriber<JointState> in("robot/joints");             // the controller
//   Sample<JointState> s;
//   if (in.latest(s)) use(s.value, s.sequence, s.publishTimeNs);
//
// What holds:
// - Either side may start first: the first to connect creates the topic, a System V segment
//   whose key comes from the key file "/tmp/topics/<topic>/shmkey" (the one the shm_* topics
//   use, so kelvo-topics lists and removes typed topics too). Samples already published are
//   there for a subscriber that connects later. Two processes may create a topic at the same
//   instant, and a creator killed half-way leaves nothing unusable: the next connector removes
//   the stale segment and creates it anew.
// - publish(): a bounded number of steps, no lock, no allocation, one vDSO clock read, and no
//   system call unless a subscriber sleeps in wait() (then one futex wake, after which the
//   publisher is back to no system call). Nothing a subscriber does slows it down beyond
//   sharing cache lines.
// - latest()/take(): never block the publisher, never return a torn sample, never spin on a
//   publisher that died mid-write, and make at most kTopicReadAttempts tries (see below).
// - One publisher at a time. A second live Publisher, in this or any process, is refused; once
//   the owner has exited or been killed, a new Publisher takes the topic over and the sequence
//   continues where it stopped.
// - A publisher killed at any instruction (inside publish(), between loan() and publishLoaned())
//   leaves subscribers with the last complete sample, and publisherAlive() turns false once the
//   process has gone (a zombie has gone). A subscriber killed anywhere changes nothing for the
//   others, except that one sleeping in wait() costs the publisher one needless wake-up.
// - Mismatches are errors, never aborts: a different type name, version, sizeof(T) or depth, a
//   plain shm_* topic of that name, an empty or over-long name, a segment this user may not
//   open. operator bool() is false and error() says why, in one line naming the topic.
// - Destructors detach: connecting and disconnecting a million times leaks nothing.
//
// How it works (what a user needs to reason about the guarantees):
// - Samples live in a ring of depth + 1 slots, each guarded by its own sequence lock: the
//   slot's version is odd while the publisher writes it and 2 x sequence once the sample is
//   complete. The topic's head (the newest complete sequence) is published after the slot. So
//   `depth` complete samples are always kept, even while the next one is being written.
// - latest() reads the head's slot; take() reads the slot of the next sequence it has not
//   returned. A read copies the slot and checks the version before and after; a copy the
//   publisher overwrote meanwhile is thrown away and tried again (the head moved on). A reader
//   can only fail when the publisher completes `depth` samples during each of its copies (a
//   reader preempted mid-copy, every time): after kTopicReadAttempts tries latest() and take()
//   return false, leave `out` alone and count the failure (readFailures()); the next call
//   starts afresh.
// - Ownership is a robust futex word in the segment, held by a small keeper thread that the
//   library starts in a process while it owns at least one topic ("kelvo-owner": SCHED_OTHER,
//   a 256 KiB stack, all signals blocked; it sleeps except while a Publisher connects or goes).
//   When the process ends, by exit or by any signal, the kernel marks the word "owner died" as the
//   keeper thread exits, before the process can be waited for (a zombie, all of its threads gone,
//   is already marked), and a pid reused later cannot look alive: liveness never looks at a pid.
//   publisherAlive() is one atomic load: no system call, usable every cycle.
// - wait() sleeps on a futex word in the segment (process-shared). A waiter sets a "sleepers
//   present" flag; publish() clears it with the atomic exchange it does anyway and wakes the
//   sleepers only when it found the flag set.
// - Topic headers start with an 8-byte magic that cannot be mistaken for a plain shm_* header
//   (0x1234) and record the type name, version, sample size and alignment, depth and topic
//   name. Do not call shm_connect_by_topic on a typed topic's name: the plain API would take
//   the segment for an uninitialised plain one (when the sizes happen to match) and overwrite
//   its header.
//
// Limits: topic names are 1 to 44 bytes (the key file's path must fit the shm_* topics'
// 64-byte buffer) without empty, "." or ".." components and without a leading or trailing '/';
// type names are 1 to 63 bytes; depth is 1 to 65536; sizeof(T) is at most 64 MiB and
// alignof(T) at most 64. Segments are readable and writable by their creating user only.
//
// Threading rules: each Publisher and each Subscriber is used by one thread at a time (a
// periodic task, typically); publisherAlive(), published() and the statistics may be read
// from any thread. Different objects, in one process or many, need no coordination.
//
// Fork: a child process does not own its parent's topics. Publishers it inherits are
// disconnected in the child (operator bool() false, publish() does nothing, the destructor only
// detaches); inherited Subscribers keep working.
//
// ThreadSanitizer: loan() hands out a plain T& into a slot, and a lagging reader may copy that
// slot while the caller fills it; the version check discards such a copy, but the C++ memory
// model calls the overlap a race. So the one library function that copies a slot's data words
// out is not instrumented (no_sanitize("thread")); the versions, the head and every other
// shared word stay instrumented. The torn-read tests check the data instead.
#ifndef MOSK_KELVO_TOPIC_H_
#define MOSK_KELVO_TOPIC_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>

#include "mosk/kelvo/export.h"

namespace mosk {
namespace kelvo {

// Identity of a sample type, stored in the topic and checked by everyone who connects.
struct TopicTypeInfo {
  const char* name;  // e.g. "robot/JointState", 1 to 63 bytes
  uint32_t version;
  uint32_t size;
  uint32_t alignment;
};

// Longest type name (bytes, without the terminator).
constexpr size_t kTopicTypeNameMax = 63;
// Longest topic name (bytes): "/tmp/topics/<topic>/shmkey" must fit 64 bytes.
constexpr size_t kTopicNameMax = 44;
// How many times latest() and take() try before they give up on a publisher that laps them.
constexpr int kTopicReadAttempts = 8;

}  // namespace kelvo
}  // namespace mosk

// At namespace scope, once per sample type, in the namespace that declares T (the library
// finds it by argument-dependent lookup). T: trivially copyable, standard layout, no pointers
// (an address means nothing in another process). The name and version are stored in the topic
// and checked by everyone who connects: raise the version when the layout of T changes.
#define KELVO_TOPIC_TYPE(T, NAME, VERSION)                                                 \
  static_assert(std::is_trivially_copyable<T>::value, #T " must be trivially copyable");   \
  static_assert(std::is_standard_layout<T>::value, #T " must have standard layout");       \
  static_assert(!std::is_pointer<T>::value, #T " must not be a pointer");                  \
  static_assert(sizeof(NAME) >= 2 && sizeof(NAME) <= ::mosk::kelvo::kTopicTypeNameMax + 1, \
                "a topic type name is 1 to 63 bytes");                                     \
  inline ::mosk::kelvo::TopicTypeInfo kelvoTopicTypeOf(const T*) {                         \
    return ::mosk::kelvo::TopicTypeInfo{NAME, static_cast<uint32_t>(VERSION),              \
                                        static_cast<uint32_t>(sizeof(T)),                  \
                                        static_cast<uint32_t>(alignof(T))};                \
  }                                                                                        \
  static_assert(true, "")

namespace mosk {
namespace kelvo {

struct TopicOptions {
  uint32_t depth = 16;  // samples kept for take(); used by whoever creates, checked by the rest
};

template <typename T>
struct Sample {
  T value;
  uint64_t sequence;      // 1 for the first sample the topic ever carried, +1 per publish (also
                          // across a takeover)
  int64_t publishTimeNs;  // CLOCK_MONOTONIC at publish
};

// What kelvo-topics shows about a typed topic (topicStatus()).
struct TopicStatus {
  std::string typeName;
  uint32_t typeVersion = 0;
  uint32_t sampleSize = 0;
  uint32_t depth = 0;
  int32_t publisherPid = 0;     // the owner's pid, or of the last owner; 0 if there never was one
  bool publisherAlive = false;  // see Subscriber::publisherAlive()
  uint64_t published = 0;       // sequence of the newest sample (samples ever published)
  uint64_t takeovers = 0;       // publishers that took the topic over from a dead one
  double ratePerSecond = 0;     // over the samples still kept (0 with fewer than two)
  int64_t newestAgeNs = -1;     // age of the newest sample; -1 before the first
  uint32_t attachments = 0;     // processes attached (one attachment per process and topic)
  uint32_t subscribers = 0;     // live Subscriber objects, in all processes (counted up to 64)
  bool removed = false;         // removeTopic() ran while this segment was attached
  int shmId = -1;
  int key = -1;
};

// Removes a typed topic: its segment (marked for removal; processes still attached keep their
// memory, their Subscribers' wait() returns false at once and removed() turns true), the key
// file and the topic's directory (with parents under /tmp/topics that it leaves empty). Safe
// while others are attached. Connecting again afterwards creates a fresh topic. 0 on success;
// -1 with the reason in *why (no such topic, a plain shm_* topic, no permission).
KELVO_EXPORT int removeTopic(const std::string& topic, std::string* why = nullptr);

// Reads a typed topic's header without connecting to it (a read-only attachment, no lock, no
// key file created). True for a typed topic; false with the reason in *why otherwise (no key
// file, no segment, a plain shm_* topic, no permission).
KELVO_EXPORT bool topicStatus(const std::string& topic, TopicStatus& status,
                              std::string* why = nullptr);

// Why `topic` cannot name a topic, in one line naming it; empty when it can (to check names
// from a configuration before connecting).
KELVO_EXPORT std::string topicNameError(const std::string& topic);

namespace internal {

struct TopicHeader;
struct TopicSlot;

// The attachment to a topic's segment that every Publisher and Subscriber holds: connects
// (creating the topic when it is missing), checks the type, detaches on destruction.
class KELVO_EXPORT TopicEndpoint {
 public:
  TopicEndpoint(const std::string& topic, const TopicTypeInfo& type, uint32_t depth);
  ~TopicEndpoint();
  TopicEndpoint(const TopicEndpoint&) = delete;
  TopicEndpoint& operator=(const TopicEndpoint&) = delete;

  bool attached() const { return header_ != nullptr; }
  const std::string& error() const { return error_; }
  const std::string& topic() const { return topic_; }
  bool publisherAlive() const;
  int32_t publisherPid() const;
  uint64_t newestSequence() const;
  bool removed() const;
  void setTraceEnabled(bool enabled) { trace_ = enabled; }

 protected:
  void fail(const std::string& why);
  void detach();
  TopicSlot* slot(uint64_t sequence) const;

  std::string topic_;
  std::string error_;
  TopicHeader* header_ = nullptr;
  char* ring_ = nullptr;
  uint32_t slotBytes_ = 0;
  uint32_t slotCount_ = 0;
  uint32_t depth_ = 0;
  uint32_t valueSize_ = 0;
  uint32_t dataOffset_ = 0;
  uint32_t traceKey_ = 0;
  bool trace_ = false;
};

class KELVO_EXPORT TopicWriter : public TopicEndpoint {
 public:
  TopicWriter(const std::string& topic, const TopicTypeInfo& type, uint32_t depth);
  ~TopicWriter();

  bool owning() const;
  void publish(const void* value);
  void* loan();
  void publishLoaned();
  uint64_t published() const { return published_; }
  uint64_t wakeups() const { return wakeups_; }

 private:
  void* beginSlot();
  void completeSlot();

  uint64_t next_ = 0;       // sequence the next sample gets
  uint32_t nextIndex_ = 0;  // its slot
  uint64_t ownedGeneration_ = 0;
  bool owner_ = false;
  bool loaned_ = false;
  uint64_t published_ = 0;
  uint64_t wakeups_ = 0;
  std::unique_ptr<unsigned char[]> scratch_;  // loan() target while not connected
  void* scratchAligned_ = nullptr;
};

class KELVO_EXPORT TopicReader : public TopicEndpoint {
 public:
  TopicReader(const std::string& topic, const TopicTypeInfo& type, uint32_t depth);
  ~TopicReader();

  // Both fill `value` (valueSize bytes), *sequence and *publishTimeNs on success only.
  bool latest(void* value, uint64_t* sequence, int64_t* publishTimeNs);
  bool take(void* value, uint64_t* sequence, int64_t* publishTimeNs, uint64_t* lost);
  bool wait(std::chrono::nanoseconds timeout);
  int64_t newestAgeNs() const;
  uint64_t readFailures() const { return readFailures_; }

 private:
  bool readSlot(uint64_t sequence, int64_t* publishTimeNs) const;
  void registerSubscriber();

  uint64_t cursor_ = 0;    // last sequence take() returned (or skipped to at connect)
  uint64_t lastSeen_ = 0;  // newest sequence latest() or take() returned
  uint64_t readFailures_ = 0;
  std::unique_ptr<uint64_t[]> scratch_;  // a read lands here first: `out` only gets whole samples
  uint64_t token_ = 0;                   // this process, in the header's subscriber table
  int entry_ = -1;
};

// The type identity of T, found through KELVO_TOPIC_TYPE by argument-dependent lookup.
template <typename T, typename = void>
struct HasTopicType : std::false_type {};
template <typename T>
struct HasTopicType<T, decltype((void)kelvoTopicTypeOf(static_cast<const T*>(nullptr)))>
    : std::true_type {};

template <typename T>
TopicTypeInfo topicTypeOf() {
  static_assert(HasTopicType<T>::value,
                "declare the sample type with KELVO_TOPIC_TYPE(T, \"name\", version) in the "
                "namespace that declares T");
  static_assert(alignof(T) <= 64, "a topic sample type may be aligned to at most 64 bytes");
  return kelvoTopicTypeOf(static_cast<const T*>(nullptr));
}

}  // namespace internal

// The one writer of a topic.
template <typename T>
class Publisher {
 public:
  explicit Publisher(const std::string& topic, TopicOptions options = {})
      : core_(topic, internal::topicTypeOf<T>(), options.depth) {}
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;

  // Connected and owning the topic (false in a fork child that inherited this object).
  explicit operator bool() const { return core_.owning(); }
  // Why not, in one line naming the topic (empty when ok).
  const std::string& error() const { return core_.error(); }

  // Wait-free; never fails. Does nothing when not connected.
  void publish(const T& sample) { core_.publish(&sample); }
  // The next sample's slot, to write in place (zero-copy for large samples). It holds an older
  // sample's bytes: write every field. Calling loan() again before publishLoaned() returns the
  // same slot; publish() instead of publishLoaned() abandons the loan and publishes its own
  // argument in that slot. While not connected, a private buffer.
  T& loan() { return *static_cast<T*>(core_.loan()); }
  // Makes the loaned sample visible. Does nothing without a loan.
  void publishLoaned() { core_.publishLoaned(); }
  // Samples this Publisher has published.
  uint64_t published() const { return core_.published(); }

  // --- additions --------------------------------------------------------------------------
  // The topic's newest sequence (also samples published by earlier owners).
  uint64_t sequence() const { return core_.newestSequence(); }
  // futex wake-ups this Publisher made for subscribers sleeping in wait().
  uint64_t wakeups() const { return core_.wakeups(); }
  // removeTopic() ran while this Publisher was attached (its samples reach nobody new).
  bool removed() const { return core_.removed(); }
  // Records "topic publish ..." events into the calling thread's TimeTrace ring (off by
  // default; nothing is recorded on a thread without a ring).
  void setTraceEnabled(bool enabled) { core_.setTraceEnabled(enabled); }

 private:
  internal::TopicWriter core_;
};

// A reader of a topic. Each Subscriber has its own position for take().
template <typename T>
class Subscriber {
 public:
  explicit Subscriber(const std::string& topic, TopicOptions options = {})
      : core_(topic, internal::topicTypeOf<T>(), options.depth) {}
  Subscriber(const Subscriber&) = delete;
  Subscriber& operator=(const Subscriber&) = delete;

  explicit operator bool() const { return core_.attached(); }
  const std::string& error() const { return core_.error(); }

  // The newest complete sample; false before the first (and after kTopicReadAttempts tries
  // lapped by the publisher, see readFailures()). `out` is untouched when false.
  bool latest(Sample<T>& out) {
    return core_.latest(&out.value, &out.sequence, &out.publishTimeNs);
  }
  // The next sample this Subscriber has not taken, in order; false when there is none (or
  // after kTopicReadAttempts lapped tries). *lost: samples skipped before it because the ring
  // no longer held them. A new Subscriber starts with the oldest sample the ring still keeps.
  bool take(Sample<T>& out, uint64_t* lost = nullptr) {
    return core_.take(&out.value, &out.sequence, &out.publishTimeNs, lost);
  }
  // For non-real-time threads: sleeps until the topic has a sample newer than the newest that
  // latest() or take() returned, or the time-out passes, or the topic is removed. True when
  // there is something newer (at once if there already is).
  bool wait(std::chrono::nanoseconds timeout) { return core_.wait(timeout); }
  // False once the publisher has exited or been killed, or before one came. One atomic load.
  bool publisherAlive() const { return core_.publisherAlive(); }

  // --- additions --------------------------------------------------------------------------
  // The publisher's pid (the last one's after it died); 0 before any.
  int32_t publisherPid() const { return core_.publisherPid(); }
  // Sequence of the newest sample on the topic (0 before the first).
  uint64_t sequence() const { return core_.newestSequence(); }
  // Age of the newest sample on CLOCK_MONOTONIC in nanoseconds; -1 before the first.
  int64_t newestAgeNs() const { return core_.newestAgeNs(); }
  // Reads that gave up after kTopicReadAttempts lapped tries.
  uint64_t readFailures() const { return core_.readFailures(); }
  // removeTopic() ran while this Subscriber was attached: nothing new will come; connect anew.
  bool removed() const { return core_.removed(); }
  // Records "topic take ..." and "topic latest ..." events into the calling thread's
  // TimeTrace ring (off by default).
  void setTraceEnabled(bool enabled) { core_.setTraceEnabled(enabled); }

 private:
  internal::TopicReader core_;
};

}  // namespace kelvo
}  // namespace mosk

#endif  // MOSK_KELVO_TOPIC_H_
