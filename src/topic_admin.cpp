// Typed topics seen from outside: removal and the read-only status kelvo-topics shows.
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>

#include "mosk/kelvo/topic.h"
#include "topic_layout.h"
#include "topic_liveness.h"
#include "topic_segment.h"

namespace mosk {
namespace kelvo {
namespace {

using internal::quotedTopic;
using internal::TopicHeader;
using internal::TopicSlot;

bool report(std::string* why, const std::string& text) {
  if (why != nullptr) *why = text;
  return false;
}

enum class Kind { kTyped, kPlain, kUninitialised, kUnknown };

Kind kindOf(const TopicHeader* header, size_t segmentBytes) {
  if (segmentBytes < sizeof(uint64_t)) return Kind::kUnknown;
  const uint64_t magic = header->magic.load(std::memory_order_acquire);
  if (magic == internal::kTypedMagic) {
    return internal::headerConsistent(header, segmentBytes) ? Kind::kTyped : Kind::kUnknown;
  }
  if (static_cast<uint32_t>(magic) == internal::kPlainMagic) return Kind::kPlain;
  return magic == 0 ? Kind::kUninitialised : Kind::kUnknown;
}

// A topic's existing segment: its id and status, found without creating anything.
struct Found {
  int id = -1;
  key_t key = -1;
  bool keyFileOnly = false;  // a key file without a segment
  struct shmid_ds status {};
};

bool findSegment(const std::string& topic, Found* found, std::string* why) {
  const std::string problem = internal::checkTopicName(topic);
  if (!problem.empty()) return report(why, problem);
  const std::string path = internal::keyFilePath(topic);
  if (access(path.c_str(), F_OK) != 0) {
    return report(why, quotedTopic(topic) + " does not exist (no key file " + path + ")");
  }
  found->key = ftok(path.c_str(), 1);
  if (found->key == -1) {
    return report(why, quotedTopic(topic) + ": ftok(" + path + ") failed: " + std::strerror(errno));
  }
  found->id = shmget(found->key, 0, 0);
  if (found->id == -1) {
    found->keyFileOnly = errno == ENOENT;
    return report(why,
                  found->keyFileOnly
                      ? quotedTopic(topic) + " has no segment (key file only)"
                      : quotedTopic(topic) + ": cannot open its segment: " + std::strerror(errno));
  }
  if (shmctl(found->id, IPC_STAT, &found->status) != 0) {
    return report(
        why, quotedTopic(topic) + ": cannot read its segment's status: " + std::strerror(errno));
  }
  return true;
}

// Removes the key file and the directories it leaves empty, up to /tmp/topics.
void removeKeyFile(const std::string& topic) {
  unlink(internal::keyFilePath(topic).c_str());
  std::string directory = topic;
  for (;;) {
    if (rmdir(("/tmp/topics/" + directory).c_str()) != 0) return;
    const size_t slash = directory.rfind('/');
    if (slash == std::string::npos) return;
    directory.resize(slash);
  }
}

// The publish time of `sequence` if its slot still holds it complete.
bool slotTime(const TopicHeader* header, uint64_t sequence, int64_t* time) {
  const char* ring = reinterpret_cast<const char*>(header) + internal::kHeaderBytes;
  const auto* slot =
      reinterpret_cast<const TopicSlot*>(ring + (sequence % header->slotCount) * header->slotBytes);
  return internal::completeSlotTime(*slot, sequence, time);
}

void fillStatus(const TopicHeader* header, TopicStatus& status) {
  status.typeName.assign(header->typeName, strnlen(header->typeName, internal::kTypeNameField));
  status.typeVersion = header->typeVersion;
  status.sampleSize = header->valueSize;
  status.depth = header->depth;
  status.publisherPid = header->owner.pid.load(std::memory_order_relaxed);
  status.publisherAlive = internal::ownerAlive(header->owner);
  status.published = header->head.load(std::memory_order_acquire);
  status.takeovers = header->takeovers.load(std::memory_order_relaxed);
  status.removed = header->removed.load(std::memory_order_relaxed) != 0;
  status.subscribers = 0;
  for (const auto& entry : header->subscribers) {
    if (internal::tokenAlive(entry.load(std::memory_order_relaxed))) ++status.subscribers;
  }
  const uint64_t newest = status.published;
  int64_t newestTime = 0;
  if (newest == 0 || !slotTime(header, newest, &newestTime)) return;
  status.newestAgeNs = internal::monotonicNowNs() - newestTime;
  const uint64_t oldest = newest > header->depth ? newest - header->depth + 1 : 1;
  int64_t oldestTime = 0;
  if (oldest < newest && slotTime(header, oldest, &oldestTime) && newestTime > oldestTime) {
    status.ratePerSecond =
        static_cast<double>(newest - oldest) * 1e9 / static_cast<double>(newestTime - oldestTime);
  }
}

}  // namespace

std::string topicNameError(const std::string& topic) { return internal::checkTopicName(topic); }

int removeTopic(const std::string& topic, std::string* why) {
  Found found;
  std::string problem;
  if (!findSegment(topic, &found, &problem)) {
    // A key file without a segment is a topic half gone: finish the job.
    if (found.keyFileOnly) {
      removeKeyFile(topic);
      return 0;
    }
    report(why, problem);
    return -1;
  }
  void* memory = shmat(found.id, nullptr, 0);
  if (memory == reinterpret_cast<void*>(-1)) {
    report(why, quotedTopic(topic) + ": cannot attach its segment: " + std::strerror(errno));
    return -1;
  }
  auto* header = static_cast<TopicHeader*>(memory);
  const Kind kind = kindOf(header, found.status.shm_segsz);
  if (kind == Kind::kPlain || kind == Kind::kUnknown) {
    shmdt(memory);
    report(why, quotedTopic(topic) + (kind == Kind::kPlain
                                          ? " is a plain shared-memory topic: remove it with "
                                            "kelvo-topics rm or shm_rm_by_topic"
                                          : " holds a segment that is not a typed topic"));
    return -1;
  }
  if (kind == Kind::kTyped) {
    // Waiters see the flag, or the changed wake word makes their futex wait return.
    header->removed.store(1, std::memory_order_release);
    header->wake.fetch_add(1, std::memory_order_acq_rel);
    internal::wakeAllWaiters(&header->wake);
  }
  const int rc = shmctl(found.id, IPC_RMID, nullptr);
  const int error = errno;
  shmdt(memory);
  if (rc != 0) {
    report(why, quotedTopic(topic) + ": cannot remove its segment: " + std::strerror(error));
    return -1;
  }
  removeKeyFile(topic);
  return 0;
}

bool topicStatus(const std::string& topic, TopicStatus& status, std::string* why) {
  Found found;
  if (!findSegment(topic, &found, why)) return false;
  void* memory = shmat(found.id, nullptr, SHM_RDONLY);
  if (memory == reinterpret_cast<void*>(-1)) {
    return report(why, quotedTopic(topic) + ": cannot attach its segment: " + std::strerror(errno));
  }
  const auto* header = static_cast<const TopicHeader*>(memory);
  const Kind kind = kindOf(header, found.status.shm_segsz);
  if (kind != Kind::kTyped) {
    shmdt(memory);
    return report(why,
                  quotedTopic(topic) + (kind == Kind::kPlain ? " is a plain shared-memory topic"
                                        : kind == Kind::kUninitialised
                                            ? " is being created (not initialised yet)"
                                            : " holds a segment that is not a typed topic"));
  }
  status = TopicStatus();
  fillStatus(header, status);
  status.attachments = static_cast<uint32_t>(found.status.shm_nattch);
  status.shmId = found.id;
  status.key = found.key;
  shmdt(memory);
  return true;
}

}  // namespace kelvo
}  // namespace mosk
