// The segment of a typed topic: names, key files, creation, attachment and checks.
#include "topic_segment.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <sstream>
#include <string>

namespace mosk {
namespace kelvo {
namespace internal {
namespace {

constexpr const char* kRoot = "/tmp/topics/";
constexpr const char* kKeyFile = "/shmkey";
// How long a connector waits for a live creator to finish initialising a new segment.
constexpr int64_t kCreatorPatienceNs = 3'000'000'000;
constexpr int64_t kPollNs = 1'000'000;

std::string systemError(int error) { return std::strerror(error); }

// --- key files -----------------------------------------------------------------------------

// Creates every missing directory on the way to `path`'s last component (mode 0777 less the
// umask, as the shm_* topics do). Returns the first directory that could not be made (and sets
// *error), or empty.
std::string createParentDirectories(const std::string& path, int* error) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    const std::string prefix = path.substr(0, slash);
    if (access(prefix.c_str(), F_OK) == 0) continue;
    if (mkdir(prefix.c_str(), 0777) != 0 && errno != EEXIST) {
      *error = errno;
      return prefix;
    }
  }
  return {};
}

key_t keyOf(const std::string& topic, std::string* why) {
  const std::string path = keyFilePath(topic);
  int directoryError = 0;
  const std::string directory = createParentDirectories(path, &directoryError);
  if (!directory.empty()) {
    *why = quotedTopic(topic) + ": cannot create the directory " + directory + ": " +
           systemError(directoryError);
    return -1;
  }
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) {
    *why = quotedTopic(topic) + ": cannot create the key file " + path + ": " + systemError(errno);
    return -1;
  }
  close(fd);
  const key_t key = ftok(path.c_str(), 1);
  if (key == -1) *why = quotedTopic(topic) + ": ftok(" + path + ") failed: " + systemError(errno);
  return key;
}

// --- the process's attachments -------------------------------------------------------------

// One mapping per segment and process, shared by its Publishers and Subscribers: threads of
// one process see the ring at one address (so ThreadSanitizer sees what they share), and a
// process holds one attachment per topic whatever the number of its endpoints.
class Mappings {
 public:
  static Mappings& instance() {
    static Mappings* mappings = new Mappings();  // endpoints may outlive statics
    return *mappings;
  }

  // The mapping of segment `id`, attached now if this process has none. Null on failure
  // (errno set).
  TopicHeader* map(int id, size_t bytes) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = byId_.find(id);
    if (found != byId_.end()) {
      ++found->second.references;
      return found->second.header;
    }
    void* memory = shmat(id, nullptr, 0);
    if (memory == reinterpret_cast<void*>(-1)) return nullptr;
    pretouch(static_cast<const char*>(memory), bytes);
    auto* header = static_cast<TopicHeader*>(memory);
    byId_[id] = Entry{header, 1};
    idOf_[header] = id;
    return header;
  }

  void unmap(TopicHeader* header) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto id = idOf_.find(header);
    if (id == idOf_.end()) return;
    auto entry = byId_.find(id->second);
    if (--entry->second.references > 0) return;
    shmdt(header);
    byId_.erase(entry);
    idOf_.erase(id);
  }

 private:
  struct Entry {
    TopicHeader* header;
    int references;
  };

  Mappings() {
    pthread_atfork(nullptr, nullptr, [] { new (&instance().mutex_) std::mutex(); });
  }

  // Maps every page now, so that the real-time path never takes a page fault on the ring.
  static void pretouch(const char* memory, size_t bytes) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    for (size_t offset = 0; offset < bytes; offset += page) {
      (void)__atomic_load_n(memory + offset, __ATOMIC_RELAXED);
    }
  }

  std::mutex mutex_;
  std::map<int, Entry> byId_;
  std::map<TopicHeader*, int> idOf_;
};

// --- creation ------------------------------------------------------------------------------

void copyName(char* field, size_t fieldSize, const std::string& name) {
  std::memset(field, 0, fieldSize);
  std::memcpy(field, name.data(), std::min(name.size(), fieldSize - 1));
}

// The creator's work on a new, zero-filled segment. Nobody reads these fields before `magic`.
void initialise(TopicHeader* header, const std::string& topic, const TopicTypeInfo& type,
                uint32_t depth) {
  header->layoutVersion = kLayoutVersion;
  header->headerBytes = kHeaderBytes;
  header->slotBytes = static_cast<uint32_t>(slotBytesFor(type.size, type.alignment));
  header->slotCount = depth + 1;
  header->depth = depth;
  header->dataOffset = dataOffsetFor(type.alignment);
  header->valueSize = type.size;
  header->valueAlignment = type.alignment;
  header->typeVersion = type.version;
  header->creatorPid = static_cast<int32_t>(getpid());
  copyName(header->typeName, sizeof header->typeName, type.name);
  copyName(header->topicName, sizeof header->topicName, topic);
  header->magic.store(kTypedMagic, std::memory_order_release);
}

std::string describeType(const char* name, uint32_t version, uint32_t size, uint32_t alignment,
                         bool withAlignment) {
  std::string text = std::string(name) + " v" + std::to_string(version) + " (" +
                     std::to_string(size) + "-byte samples";
  if (withAlignment) text += ", aligned to " + std::to_string(alignment);
  return text + ")";
}

// Why an initialised segment does not fit this connector, or empty when it does.
std::string mismatch(const TopicHeader* header, size_t segmentBytes, const std::string& topic,
                     const TopicTypeInfo& type, uint32_t depth) {
  if (header->layoutVersion != kLayoutVersion) {
    return quotedTopic(topic) + " has typed-topic layout " + std::to_string(header->layoutVersion) +
           "; this library reads layout " + std::to_string(kLayoutVersion);
  }
  const std::string storedTopic(header->topicName, strnlen(header->topicName, kTopicNameField));
  if (storedTopic != topic) {
    return quotedTopic(topic) + " shares its System V key with " + quotedTopic(storedTopic) +
           " (ftok collision): rename one of them";
  }
  if (!headerConsistent(header, segmentBytes)) {
    return quotedTopic(topic) + " has a damaged header: remove the topic";
  }
  const std::string storedType(header->typeName, strnlen(header->typeName, kTypeNameField));
  if (storedType != type.name || header->typeVersion != type.version ||
      header->valueSize != type.size || header->valueAlignment != type.alignment) {
    const bool alignmentOnly = storedType == type.name && header->typeVersion == type.version &&
                               header->valueSize == type.size;
    return quotedTopic(topic) + " carries " +
           describeType(storedType.c_str(), header->typeVersion, header->valueSize,
                        header->valueAlignment, alignmentOnly) +
           ", not " +
           describeType(type.name, type.version, type.size, type.alignment, alignmentOnly);
  }
  if (header->depth != depth) {
    return quotedTopic(topic) + " keeps " + std::to_string(header->depth) +
           " samples (depth), not " + std::to_string(depth);
  }
  return {};
}

uint64_t loadMagic(const TopicHeader* header, size_t segmentBytes) {
  return segmentBytes >= sizeof(uint64_t) ? header->magic.load(std::memory_order_acquire) : 0;
}

}  // namespace

// --- shared helpers --------------------------------------------------------------------------

std::string quotedTopic(const std::string& topic) { return "topic '" + topic + "'"; }

std::string keyFilePath(const std::string& topic) { return kRoot + topic + kKeyFile; }

bool headerConsistent(const TopicHeader* header, size_t segmentBytes) {
  return header->headerBytes == kHeaderBytes && header->depth >= 1 && header->depth <= kMaxDepth &&
         header->slotCount == header->depth + 1 && header->valueAlignment >= 1 &&
         header->valueAlignment <= kMaxAlignment && header->valueSize <= kMaxValueSize &&
         header->dataOffset == dataOffsetFor(header->valueAlignment) &&
         header->slotBytes == slotBytesFor(header->valueSize, header->valueAlignment) &&
         segmentBytes >= segmentBytesFor(header->valueSize, header->valueAlignment, header->depth);
}

void wakeAllWaiters(std::atomic<uint32_t>* word) {
  syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

// --- names ---------------------------------------------------------------------------------

std::string checkTopicName(const std::string& topic) {
  if (topic.empty()) return "topic '': the name is empty";
  if (topic.size() > kTopicNameMax) {
    return quotedTopic(topic) + ": the name is longer than " + std::to_string(kTopicNameMax) +
           " bytes";
  }
  for (unsigned char c : topic) {
    if (c < 0x20 || c == 0x7f) return quotedTopic(topic) + ": the name holds a control character";
  }
  if (topic.front() == '/' || topic.back() == '/') {
    return quotedTopic(topic) + ": the name starts or ends with '/'";
  }
  std::istringstream components(topic);
  std::string component;
  while (std::getline(components, component, '/')) {
    if (component.empty() || component == "." || component == "..") {
      return quotedTopic(topic) + ": the name has an empty, '.' or '..' component";
    }
  }
  return {};
}

std::string checkTypeAndDepth(const std::string& topic, const TopicTypeInfo& type, uint32_t depth) {
  const size_t nameLength = type.name == nullptr ? 0 : std::strlen(type.name);
  if (nameLength == 0 || nameLength > kTopicTypeNameMax) {
    return quotedTopic(topic) + ": the type name must be 1 to 63 bytes";
  }
  if (type.size == 0 || type.size > kMaxValueSize) {
    return quotedTopic(topic) + ": samples of " + std::to_string(type.size) +
           " bytes (at most 64 MiB)";
  }
  if (type.alignment == 0 || type.alignment > kMaxAlignment ||
      (type.alignment & (type.alignment - 1)) != 0) {
    return quotedTopic(topic) + ": samples aligned to " + std::to_string(type.alignment) +
           " bytes (at most 64)";
  }
  if (depth < 1 || depth > kMaxDepth) {
    return quotedTopic(topic) + ": depth " + std::to_string(depth) + " is not 1 to " +
           std::to_string(kMaxDepth);
  }
  return {};
}

// --- attaching -----------------------------------------------------------------------------

Attachment attachTopic(const std::string& topic, const TopicTypeInfo& type, uint32_t depth,
                       std::string* why) {
  Attachment result;
  *why = checkTopicName(topic);
  if (why->empty()) *why = checkTypeAndDepth(topic, type, depth);
  if (!why->empty()) return result;
  const key_t key = keyOf(topic, why);
  if (key == -1) return result;
  const uint64_t bytes = segmentBytesFor(type.size, type.alignment, depth);
  const int64_t giveUpAt = monotonicNowNs() + kCreatorPatienceNs;
  Mappings& mappings = Mappings::instance();
  for (;;) {
    int id = shmget(key, bytes, IPC_CREAT | IPC_EXCL | 0600);
    if (id >= 0) {
      TopicHeader* header = mappings.map(id, bytes);
      if (header == nullptr) {
        const int error = errno;
        shmctl(id, IPC_RMID, nullptr);
        *why = quotedTopic(topic) + ": cannot attach its new segment: " + systemError(error);
        return result;
      }
      initialise(header, topic, type, depth);
      result.header = header;
      result.key = key;
      return result;
    }
    if (errno != EEXIST) {
      *why = quotedTopic(topic) + ": cannot create its segment (" + std::to_string(bytes) +
             " bytes): " + systemError(errno);
      return result;
    }
    id = shmget(key, 0, 0);
    struct shmid_ds status;
    if (id < 0 || shmctl(id, IPC_STAT, &status) != 0) {
      if (errno == ENOENT || errno == EIDRM || errno == EINVAL) continue;  // removed meanwhile
      *why = quotedTopic(topic) + ": cannot open its segment: " + systemError(errno);
      return result;
    }
    const size_t segmentBytes = status.shm_segsz;
    TopicHeader* header = mappings.map(id, segmentBytes);
    if (header == nullptr) {
      if (errno == EIDRM || errno == EINVAL) continue;
      *why = quotedTopic(topic) + ": cannot attach its segment: " + systemError(errno);
      return result;
    }
    uint64_t magic = loadMagic(header, segmentBytes);
    // Not initialised yet: its creator is at work, or died at work. The magic is read again
    // once the creator is known to be gone: it may have finished just before it went.
    bool stale = false;
    if (magic == 0 && creatorGone(status.shm_cpid, status.shm_ctime)) {
      magic = loadMagic(header, segmentBytes);
      stale = magic == 0;
    }
    if (magic == kTypedMagic) {
      *why = mismatch(header, segmentBytes, topic, type, depth);
      if (!why->empty()) {
        mappings.unmap(header);
        return result;
      }
      result.header = header;
      result.key = key;
      return result;
    }
    mappings.unmap(header);
    if (static_cast<uint32_t>(magic) == kPlainMagic) {
      *why = quotedTopic(topic) + " is a plain shared-memory topic (shm_*), not a typed one";
      return result;
    }
    if (magic != 0) {
      char first[32];
      std::snprintf(first, sizeof first, "0x%016" PRIx64, magic);
      *why = quotedTopic(topic) + " holds a segment of an unknown kind (first word " + first + ")";
      return result;
    }
    if (stale) {
      shmctl(id, IPC_RMID, nullptr);  // by id: never a newer segment under the same key
      continue;
    }
    if (monotonicNowNs() > giveUpAt) {
      *why = quotedTopic(topic) + ": its creator (pid " + std::to_string(status.shm_cpid) +
             ") has not finished initialising it after 3 s";
      return result;
    }
    const timespec pause{0, kPollNs};
    nanosleep(&pause, nullptr);
  }
}

void detachTopic(TopicHeader* header) {
  if (header != nullptr) Mappings::instance().unmap(header);
}

int64_t monotonicNowNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

}  // namespace internal
}  // namespace kelvo
}  // namespace mosk
