// The segment of a typed topic: names and key files, creating or attaching (and checking) the
// segment, removal and the read-only status used by kelvo-topics (topic_segment.cpp), and which
// processes are alive (topic_process.cpp).
//
// Threading: every function may be called from any thread; they make system calls and are for
// set-up and tear-down, never for a real-time loop.
#ifndef KELVO_SRC_TOPIC_SEGMENT_H_
#define KELVO_SRC_TOPIC_SEGMENT_H_

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <string>

#include "mosk/kelvo/topic.h"
#include "topic_layout.h"

namespace mosk {
namespace kelvo {
namespace internal {

// Why `topic` cannot name a topic, or empty when it can.
std::string checkTopicName(const std::string& topic);

// Why a sample type or depth cannot make a topic, or empty when they can.
std::string checkTypeAndDepth(const std::string& topic, const TopicTypeInfo& type, uint32_t depth);

struct Attachment {
  TopicHeader* header = nullptr;  // null on failure
  key_t key = -1;
};

// Attaches to the topic's segment, creating and initialising it if it is missing (or stale:
// left half-initialised by a creator that died), and checks that it carries `type` with
// `depth`. On failure the header is null and *why says why in one line naming the topic.
Attachment attachTopic(const std::string& topic, const TopicTypeInfo& type, uint32_t depth,
                       std::string* why);

void detachTopic(TopicHeader* header);

// What /proc/<pid>/stat says about a process.
struct ProcessState {
  bool exists = false;
  bool gone = false;        // a zombie, or dead
  uint64_t startTicks = 0;  // field 22: start time in clock ticks after boot
};
ProcessState processState(pid_t pid);

// A process token names one process for good: its start time and its pid, so that a pid reused
// by a later process is another token. 0 names nobody.
constexpr int kTokenPidBits = 22;  // pid_max is at most 2^22
uint64_t processToken(pid_t pid);
uint64_t selfToken();  // this process's (renewed after fork)
bool tokenAlive(uint64_t token);

// True when the process that created a segment at `createdAt` (seconds since the epoch) is
// certainly gone: no such process, a zombie, or a process started after the segment was
// made (its pid was reused).
bool creatorGone(pid_t pid, time_t createdAt);

// "topic '<topic>'": how every message about a topic names it.
std::string quotedTopic(const std::string& topic);

// "/tmp/topics/<topic>/shmkey".
std::string keyFilePath(const std::string& topic);

// True when an initialised header's geometry is one this library wrote and fits the segment.
bool headerConsistent(const TopicHeader* header, size_t segmentBytes);

// Wakes every thread of every process sleeping on `word` (a shared futex).
void wakeAllWaiters(std::atomic<uint32_t>* word);

// The current CLOCK_MONOTONIC time in nanoseconds (the time base of samples).
int64_t monotonicNowNs();

}  // namespace internal
}  // namespace kelvo
}  // namespace mosk

#endif  // KELVO_SRC_TOPIC_SEGMENT_H_
