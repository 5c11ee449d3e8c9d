// kelvo-topics: lists the shared-memory topics under /tmp/topics, or removes one.
//
//   kelvo-topics            one line per plain (shm_*) topic: key, segment id, data size,
//                           attachments, creator pid, magic, lock and unlock counts, owner
//                           thread id; then, if there are typed topics (mosk/kelvo/topic.h),
//                           one line per typed topic: type and version, sample size, depth,
//                           publisher pid and alive or dead, samples published, rate over the
//                           samples kept, age of the newest sample, subscribers
//   kelvo-topics rm [--force] [--timeout S] NAME
//                           removes the topic's segment, key file and (empty) directory
//
// The listing reads each header through a read-only attachment and takes no lock, so it works
// while the topic is in use (and shows the counters as they are at that instant) and even when a
// lock is held by a process that died.
//
// Removal destroys the topic's synchronisation objects through shm_rm_by_topic, waking any
// thread that waits on the condition so that the destruction can finish. A process killed while
// it waited never leaves the condition, and the destruction would wait for it for ever: after
// --timeout seconds (default 10) `rm` gives up and says so (exit 1), and `rm --force` then
// removes the topic all the same: it marks the segment for removal and deletes the key file
// without touching the condition (processes still attached keep their memory until they detach
// or exit).
//
// A typed topic is removed with removeTopic() (its waiters are woken through their futex, so
// that removal never waits); --force and --timeout do not apply to it.
#include <dirent.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "mosk/kelvo/shm.h"
#include "mosk/kelvo/topic.h"

namespace {

const std::string kRoot = "/tmp/topics";
const std::string kKeyFile = "shmkey";

// Header offsets of the fields shown (the header layout is fixed and shared by all processes).
constexpr size_t kMagicOffset = 0;
constexpr size_t kCreatorPidOffset = 4;
constexpr size_t kOwnerTidOffset = 28;
constexpr size_t kLockCountOffset = 220;
constexpr size_t kUnlockCountOffset = 228;
constexpr size_t kCondOffset = 116;
constexpr long kDefaultRemoveTimeLimitSeconds = 10;
constexpr long kMaxRemoveTimeLimitSeconds = 3600;

struct RemoveOptions {
  bool force = false;
  std::chrono::seconds timeLimit{kDefaultRemoveTimeLimitSeconds};
};

void usage(FILE* out) {
  std::fprintf(out,
               "usage: kelvo-topics            list the topics under /tmp/topics\n"
               "       kelvo-topics rm [--force] [--timeout S] NAME\n"
               "                               remove topic NAME (segment and key file);\n"
               "                               waits up to S seconds (default 10) for\n"
               "                               waiters to leave; --force removes it even\n"
               "                               when they do not (a killed waiter)\n");
}

int badUsage(const std::string& message) {
  std::fprintf(stderr, "kelvo-topics: %s\n", message.c_str());
  usage(stderr);
  return 2;
}

// Topic names of every key file below the root, found depth first (a topic may contain '/').
void findTopics(const std::string& relative, std::vector<std::string>* topics) {
  std::string dir = relative.empty() ? kRoot : kRoot + "/" + relative;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return;
  while (dirent* entry = readdir(d)) {
    std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    std::string child = relative.empty() ? name : relative + "/" + name;
    struct stat st;
    if (lstat((kRoot + "/" + child).c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      findTopics(child, topics);
    } else if (name == kKeyFile && !relative.empty()) {
      topics->push_back(relative);
    }
  }
  closedir(d);
}

template <typename T>
T fieldAt(const void* header, size_t offset) {
  T value;
  std::memcpy(&value, static_cast<const char*>(header) + offset, sizeof value);
  return value;
}

std::string keyFileOf(const std::string& topic) { return kRoot + "/" + topic + "/" + kKeyFile; }

void listTopic(const std::string& topic) {
  key_t key = ftok(keyFileOf(topic).c_str(), 1);
  int id = shmget(key, 0, 0);
  if (id == -1) {
    if (errno == ENOENT) {
      std::printf("%-32s 0x%08x %10s  no segment (key file only)\n", topic.c_str(),
                  static_cast<unsigned>(key), "-");
    } else {
      std::printf("%-32s 0x%08x %10s  segment not accessible by this user: %s\n", topic.c_str(),
                  static_cast<unsigned>(key), "-", std::strerror(errno));
    }
    return;
  }
  struct shmid_ds status;
  if (shmctl(id, IPC_STAT, &status) != 0) {
    std::printf("%-32s 0x%08x %10d  segment status not readable by this user: %s\n", topic.c_str(),
                static_cast<unsigned>(key), id, std::strerror(errno));
    return;
  }
  void* header = shmat(id, nullptr, SHM_RDONLY);
  if (header == reinterpret_cast<void*>(-1)) {
    std::printf("%-32s 0x%08x %10d  segment not readable by this user: %s\n", topic.c_str(),
                static_cast<unsigned>(key), id, std::strerror(errno));
    return;
  }
  long dataSize = static_cast<long>(status.shm_segsz) - MEM_HDR_SIZE;
  std::printf("%-32s 0x%08x %10d %10ld %6lu %8d 0x%04x %12llu %12llu %8u\n", topic.c_str(),
              static_cast<unsigned>(key), id, dataSize,
              static_cast<unsigned long>(status.shm_nattch),
              fieldAt<uint32_t>(header, kCreatorPidOffset), fieldAt<uint32_t>(header, kMagicOffset),
              static_cast<unsigned long long>(fieldAt<uint64_t>(header, kLockCountOffset)),
              static_cast<unsigned long long>(fieldAt<uint64_t>(header, kUnlockCountOffset)),
              fieldAt<uint32_t>(header, kOwnerTidOffset));
  shmdt(header);
}

// "0.4 ms", "12 us", "3.2 s"; "-" before the first sample.
std::string formatAge(int64_t ns) {
  char text[32];
  if (ns < 0) return "-";
  if (ns < 1000000) {
    std::snprintf(text, sizeof text, "%lld us", static_cast<long long>(ns / 1000));
  } else if (ns < 1000000000) {
    std::snprintf(text, sizeof text, "%.1f ms", static_cast<double>(ns) / 1e6);
  } else {
    std::snprintf(text, sizeof text, "%.1f s", static_cast<double>(ns) / 1e9);
  }
  return text;
}

void listTypedTopic(const std::string& topic, const mosk::kelvo::TopicStatus& status) {
  const std::string type = status.typeName + " v" + std::to_string(status.typeVersion);
  std::string publisher = "-";
  if (status.publisherPid != 0) {
    publisher = std::to_string(status.publisherPid) + (status.publisherAlive ? " alive" : " dead");
  }
  std::printf("%-32s %-28s %8u %6u %-14s %12llu %10.1f %10s %5u%s\n", topic.c_str(), type.c_str(),
              status.sampleSize, status.depth, publisher.c_str(),
              static_cast<unsigned long long>(status.published), status.ratePerSecond,
              formatAge(status.newestAgeNs).c_str(), status.subscribers,
              status.removed ? "  (removed)" : "");
}

int list() {
  std::vector<std::string> topics;
  findTopics("", &topics);
  std::printf("%-32s %-10s %10s %10s %6s %8s %6s %12s %12s %8s\n", "TOPIC", "KEY", "SHMID", "SIZE",
              "NATTCH", "CPID", "MAGIC", "LOCKS", "UNLOCKS", "OWNER");
  std::vector<std::pair<std::string, mosk::kelvo::TopicStatus>> typed;
  for (const std::string& topic : topics) {
    mosk::kelvo::TopicStatus status;
    if (mosk::kelvo::topicStatus(topic, status)) {
      typed.emplace_back(topic, status);
    } else {
      listTopic(topic);
    }
  }
  if (typed.empty()) return 0;
  std::printf("\n%-32s %-28s %8s %6s %-14s %12s %10s %10s %5s\n", "TYPED TOPIC", "TYPE", "SIZE",
              "DEPTH", "PUBLISHER", "SAMPLES", "RATE/s", "AGE", "SUBS");
  for (const auto& [topic, status] : typed) listTypedTopic(topic, status);
  return 0;
}

// Marks the segment for removal and deletes the key file and directory without touching the
// synchronisation objects: the way out when a waiter will never leave the condition.
void removeWithoutCondition(const std::string& topic, int id) {
  if (shmctl(id, IPC_RMID, nullptr) != 0) {
    std::fprintf(stderr, "kelvo-topics: cannot remove the segment of '%s': %s\n", topic.c_str(),
                 std::strerror(errno));
    std::fflush(stderr);
    _exit(1);
  }
  unlink(keyFileOf(topic).c_str());
  rmdir((kRoot + "/" + topic).c_str());
}

// shm_rm_by_topic destroys the segment's condition, which waits until every thread inside
// shm_wait or shm_timedwait on it has left. It clears the magic word first, so no new wait
// starts; the waiters already inside are woken here by broadcasts until the removal is through.
// A waiter that was killed never leaves: then the remover thread is stuck for good and only the
// end of this process ends it, so every way out after the time limit is _exit.
int removeSegment(const std::string& topic, int id, const RemoveOptions& options) {
  void* segment = shmat(id, nullptr, 0);
  if (segment == reinterpret_cast<void*>(-1)) {
    std::fprintf(stderr, "kelvo-topics: cannot attach the segment of '%s': %s\n", topic.c_str(),
                 std::strerror(errno));
    return 1;
  }
  // Only a plain header has a condition there; a segment that is not initialised has none yet.
  pthread_cond_t* cond = nullptr;
  if (fieldAt<uint32_t>(segment, kMagicOffset) == 0x1234) {
    cond = reinterpret_cast<pthread_cond_t*>(static_cast<char*>(segment) + kCondOffset);
  }
  std::atomic<bool> removed{false};
  int rc = -1;
  std::thread remover([&] {
    rc = shm_rm_by_topic(topic.c_str());
    removed = true;
  });
  auto deadline = std::chrono::steady_clock::now() + options.timeLimit;
  while (!removed && std::chrono::steady_clock::now() < deadline) {
    if (cond != nullptr) pthread_cond_broadcast(cond);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (!removed) {
    long long seconds = static_cast<long long>(options.timeLimit.count());
    if (!options.force) {
      std::fprintf(stderr,
                   "kelvo-topics: waiters on '%s' did not leave within %lld s; not removed "
                   "(a process killed while waiting never leaves: 'kelvo-topics rm --force %s' "
                   "removes the topic without its condition)\n",
                   topic.c_str(), seconds, topic.c_str());
      std::fflush(stderr);
      _exit(1);
    }
    removeWithoutCondition(topic, id);
    std::printf(
        "kelvo-topics: removed '%s' without destroying its condition: waiters did not leave "
        "within %lld s (a process killed while waiting on it); attached processes keep the "
        "memory until they detach\n",
        topic.c_str(), seconds);
    std::fflush(stdout);
    _exit(0);
  }
  remover.join();
  shmdt(segment);
  return rc == 0 ? 0 : 1;
}

// Removes the segment through the library (which also invalidates it for processes still
// attached), then the key file and the topic's directory, which the library leaves.
int removeTopic(const std::string& topic, const RemoveOptions& options) {
  if (topic.empty() || topic.size() > 44 || topic.find("..") != std::string::npos) {
    return badUsage("invalid topic name '" + topic + "'");
  }
  std::string keyFile = keyFileOf(topic);
  if (access(keyFile.c_str(), F_OK) != 0) {
    std::fprintf(stderr, "kelvo-topics: no topic '%s' (no key file %s)\n", topic.c_str(),
                 keyFile.c_str());
    return 1;
  }
  mosk::kelvo::TopicStatus status;
  if (mosk::kelvo::topicStatus(topic, status)) {
    std::string why;
    if (mosk::kelvo::removeTopic(topic, &why) != 0) {
      std::fprintf(stderr, "kelvo-topics: %s\n", why.c_str());
      return 1;
    }
    return 0;
  }
  int id = shmget(ftok(keyFile.c_str(), 1), 0, 0);
  if (id == -1) {
    std::fprintf(stderr, "kelvo-topics: topic '%s' has no segment; removing its key file\n",
                 topic.c_str());
  } else if (removeSegment(topic, id, options) != 0) {
    return 1;
  }
  unlink(keyFile.c_str());
  rmdir((kRoot + "/" + topic).c_str());
  return 0;
}

// Parses `rm [--force] [--timeout S] NAME` (argv[2] onwards).
int removeCommand(int argc, char** argv) {
  RemoveOptions options;
  std::string name;
  for (int i = 2; i < argc; ++i) {
    std::string argument = argv[i];
    if (argument == "--force") {
      options.force = true;
    } else if (argument == "--timeout") {
      if (i + 1 == argc) return badUsage("--timeout needs a number of seconds");
      char* end = nullptr;
      errno = 0;
      long seconds = std::strtol(argv[++i], &end, 10);
      if (errno != 0 || end == argv[i] || *end != '\0' || seconds < 1 ||
          seconds > kMaxRemoveTimeLimitSeconds) {
        return badUsage("--timeout must be whole seconds from 1 to " +
                        std::to_string(kMaxRemoveTimeLimitSeconds) + ", not '" + argv[i] + "'");
      }
      options.timeLimit = std::chrono::seconds(seconds);
    } else if (argument.size() > 1 && argument[0] == '-') {
      return badUsage("unknown argument '" + argument + "'");
    } else if (name.empty()) {
      name = argument;
    } else {
      return badUsage("unexpected argument '" + argument + "'");
    }
  }
  if (name.empty()) return badUsage("rm needs a topic NAME");
  return removeTopic(name, options);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 1) return list();
  std::string command = argv[1];
  if (command == "-h" || command == "--help") {
    usage(stdout);
    return 0;
  }
  if (command != "rm") return badUsage("unknown argument '" + command + "'");
  return removeCommand(argc, argv);
}
