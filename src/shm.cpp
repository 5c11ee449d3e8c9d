// Shared-memory topics: System V segments by topic name, and the process-shared locks and
// condition in their header.
#include "mosk/kelvo/shm.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "kelvo_assert.h"
#include "shm_header.h"

// The C library's overflow report: "*** buffer overflow detected ***: terminated", then abort.
extern "C" [[noreturn]] void __chk_fail(void);

namespace mosk {
namespace kelvo {
namespace internal {
namespace {

int __assert_failures = 0;

constexpr char kAssertPath[] = "src/shm";
constexpr const char* kKeyFileFormat = "/tmp/topics/%s/shmkey";
constexpr size_t kKeyPathSize = 64;

// Formats the key-file path of `topic` into `path` (kKeyPathSize bytes). A name that does not
// fit ends the process the way the C library's checked sprintf does.
void formatKeyPath(char* path, const char* topic) {
  if (std::strlen(topic) + std::strlen(kKeyFileFormat) - 2 >= kKeyPathSize) __chk_fail();
  std::snprintf(path, kKeyPathSize, kKeyFileFormat, topic);
}

// Creates every missing directory on the way to `path`'s last component. Failures are left to
// the key-file creation that follows, which reports them.
void createParentDirectories(const char* path) {
  char prefix[kKeyPathSize];
  std::memcpy(prefix, path, kKeyPathSize);
  for (char* p = prefix; *p != '\0'; ++p) {
    if (*p != '/') continue;
    *p = '\0';
    if (access(prefix, F_OK) != 0) mkdir(prefix, 0777);
    *p = '/';
  }
}

void ensureKeyFile(const char* pathname) {
  int fd = open(pathname, O_RDONLY);
  if (fd == -1) {
    KELVO_ASSERT((fd = creat(pathname, 0666)) != -1, "fd = creat(pathname, 0666) != -1", __LINE__);
  }
  close(fd);
}

key_t topic_to_key(const char* topic) {
  char path_shm[kKeyPathSize];
  formatKeyPath(path_shm, topic);
  createParentDirectories(path_shm);
  ensureKeyFile(path_shm);
  key_t shm_key;
  KELVO_ASSERT_ERRNO((shm_key = ftok(path_shm, 1)) > 0, "(shm_key = ftok(path_shm, 1)) > 0",
                     __LINE__);
  return shm_key;
}

// Reads one byte per page of the first `size` bytes so that the pages are mapped before any
// real-time use.
void pretouch(const char* segment, size_t size, long page_size) {
  for (size_t offset = 0; offset < size; offset += static_cast<size_t>(page_size)) {
    (void)*static_cast<const volatile char*>(segment + offset);
  }
}

void initialiseSyncObjects(SegmentHeader* h) {
  pthread_mutexattr_t mutex_attr;
  pthread_mutexattr_init(&mutex_attr);
  pthread_mutexattr_setpshared(&mutex_attr, PTHREAD_PROCESS_SHARED);
  std::memset(condMutex(h), 0, sizeof(pthread_mutex_t));
  pthread_mutex_init(condMutex(h), &mutex_attr);
  std::memset(lockMutex(h), 0, sizeof(pthread_mutex_t));
  pthread_mutex_init(lockMutex(h), &mutex_attr);
  pthread_mutexattr_destroy(&mutex_attr);

  pthread_condattr_t cond_attr;
  pthread_condattr_init(&cond_attr);
  pthread_condattr_setpshared(&cond_attr, PTHREAD_PROCESS_SHARED);
  std::memset(condition(h), 0, sizeof(pthread_cond_t));
  pthread_cond_init(condition(h), &cond_attr);
  pthread_condattr_destroy(&cond_attr);

  pthread_rwlockattr_t rwlock_attr;
  pthread_rwlockattr_init(&rwlock_attr);
  pthread_rwlockattr_setpshared(&rwlock_attr, PTHREAD_PROCESS_SHARED);
  std::memset(rwLock(h), 0, sizeof(pthread_rwlock_t));
  pthread_rwlock_init(rwLock(h), &rwlock_attr);
  pthread_rwlockattr_destroy(&rwlock_attr);
}

// First attacher's work.
// Kept: `magic` is published before the data area is zeroed, and nothing guards against a second
// process initialising at the same moment: topics are created during set-up.
void initialiseSegment(int shm_id, SegmentHeader* h, key_t key, size_t size) {
  struct shmid_ds shared_mem_info;
  KELVO_ASSERT_ERRNO(shmctl(shm_id, IPC_STAT, &shared_mem_info) >= 0,
                     "shmctl(shm_id, IPC_STAT, &shared_mem_info) >= 0", __LINE__);
  initialiseSyncObjects(h);
  long page_size = sysconf(_SC_PAGESIZE);
  pretouch(reinterpret_cast<const char*>(h), size, page_size);
  storeWord64(h, offsetof(SegmentHeader, page_size), static_cast<uint64_t>(page_size));
  storeWord(h, offsetof(SegmentHeader, magic), kMagic);
  storeWord64(h, offsetof(SegmentHeader, reserved_b), 0);
  storeWord64(h, offsetof(SegmentHeader, lock_count), 0);
  storeWord64(h, offsetof(SegmentHeader, unlock_count), 0);
  storeWord(h, offsetof(SegmentHeader, owner_tid), 0);
  storeWord(h, offsetof(SegmentHeader, key), static_cast<uint32_t>(key));
  storeWord(h, offsetof(SegmentHeader, size), static_cast<uint32_t>(size));
  storeWord(h, offsetof(SegmentHeader, creator_pid),
            static_cast<uint32_t>(shared_mem_info.shm_cpid));
  std::memset(dataOf(h), 0, size);
}

// Looks a segment up without creating it and reads its status; false (errno set) on failure.
bool statExisting(key_t key, int* shm_id, struct shmid_ds* status) {
  *shm_id = shmget(key, 0, 0666);
  return shmctl(*shm_id, IPC_STAT, status) >= 0;
}

void markForRemoval(int shm_id) { shmctl(shm_id, IPC_RMID, nullptr); }

// The kernel thread id kept per thread. A forked child is a new thread of the same image, so
// the cached id is forgotten in the child (only the forking thread exists there).
__thread uint32_t cachedTid __attribute__((tls_model("initial-exec"))) = 0;

void forgetTidInChild() { cachedTid = 0; }

// The lock functions call this directly rather than through the exported (interposable) symbol.
inline uint32_t cachedThreadId() {
  uint32_t tid = cachedTid;
  if (__builtin_expect(tid == 0, 0)) {
    tid = static_cast<uint32_t>(syscall(SYS_gettid));
    cachedTid = tid;
  }
  return tid;
}

struct ForkHandlerRegistration {
  ForkHandlerRegistration() { pthread_atfork(nullptr, nullptr, forgetTidInChild); }
} forkHandlerRegistration;

// shm_rdlock and shm_wrlock: one try, the error number passed on, bookkeeping on success.
inline int tryReadWriteLock(void* mem, int (*tryLock)(pthread_rwlock_t*)) {
  KELVO_ASSERT_NOT_NULL(mem, "mem", __LINE__);
  uint32_t tid = cachedThreadId();
  SegmentHeader* h = headerOf(mem);
  if (!isUsable(h)) return -1;
  int rc = tryLock(rwLock(h));
  if (rc != 0) return rc;
  noteLocked(h, tid);
  return 0;
}

}  // namespace
}  // namespace internal
}  // namespace kelvo
}  // namespace mosk

// The functions below are the unit's interface, in the global namespace (C names, and the global
// gettid()); their helpers are this file's own.
using namespace mosk::kelvo::internal;  // NOLINT(build/namespaces)

uint32_t shm_gettid() { return cachedThreadId(); }

extern "C" {

void* shm_connect_by_key(key_t key, size_t size) {
  int shm_id = shmget(key, size + MEM_HDR_SIZE, IPC_CREAT | 0600);
  KELVO_ASSERT(shm_id > 0, "shm_id > 0", __LINE__);  // Kept: identifier 0, valid, fails too
  struct shmid_ds buf;
  std::memset(&buf, 0, sizeof buf);
  shmctl(shm_id, IPC_STAT, &buf);
  KELVO_ASSERT((size + MEM_HDR_SIZE) == buf.shm_segsz, "(size + MEM_HDR_SIZE) == buf.shm_segsz",
               __LINE__);
  void* mem = shmat(shm_id, nullptr, 0);
  // Kept: shmat fails with (void*)-1, not null, which this check lets through.
  KELVO_ASSERT_NOT_NULL_ERRNO(mem, "mem", __LINE__);
  auto* header = static_cast<SegmentHeader*>(mem);
  if (!isUsable(header)) initialiseSegment(shm_id, header, key, size);
  return dataOf(mem);
}

void* shm_connect_by_topic(const char* topic, size_t size) {
  KELVO_ASSERT_NOT_NULL(topic, "topic_name", __LINE__);
  void* mem = shm_connect_by_key(topic_to_key(topic), size);
  SegmentHeader* header = headerOf(mem);
  if (!isUsable(header)) return nullptr;
  if (std::strlen(topic) >= kTopicNameSize) __chk_fail();
  std::strcpy(header->topic_name, topic);
  return mem;
}

uint64_t shm_nattch_by_topic(const char* topic) {
  KELVO_ASSERT_NOT_NULL(topic, "topic_name", __LINE__);
  int shm_id;
  struct shmid_ds status;
  if (!statExisting(topic_to_key(topic), &shm_id, &status)) {
    // Kept: the message names "tlx_shm_nattch", as readers of standard error match it.
    std::fprintf(stderr, "tlx_shm_nattch: shmctl failed: %s\n", std::strerror(errno));
    return 0;
  }
  return status.shm_nattch;
}

int shm_rm_by_topic(const char* topic) {
  KELVO_ASSERT_NOT_NULL(topic, "topic_name", __LINE__);
  int shm_id;
  struct shmid_ds status;
  if (!statExisting(topic_to_key(topic), &shm_id, &status)) {
    std::fprintf(stderr, "shm_rm_by_topic: shmctl failed: %s\n", std::strerror(errno));
    return -1;
  }
  auto* header = static_cast<SegmentHeader*>(shmat(shm_id, nullptr, 0));
  if (isUsable(header)) {
    storeWord(header, offsetof(SegmentHeader, magic), 0);
    pthread_mutex_destroy(lockMutex(header));
    pthread_mutex_destroy(condMutex(header));
    pthread_cond_destroy(condition(header));
    pthread_rwlock_destroy(rwLock(header));
  }
  markForRemoval(shm_id);
  char path[kKeyPathSize];
  formatKeyPath(path, topic);
  // Kept: only descriptor 0 counts as a successful open here (the key file is then removed);
  // any other descriptor stays open and the file stays.
  int fd = open(path, O_RDONLY);
  if (fd == 0) {
    close(fd);
    unlink(path);
  }
  return 0;
}

int shm_rm_by_key(key_t key) {
  int shm_id;
  struct shmid_ds status;
  if (!statExisting(key, &shm_id, &status)) {
    // Kept: the same text as shm_rm_by_topic's, function name included.
    std::fprintf(stderr, "shm_rm_by_topic: shmctl failed: %s\n", std::strerror(errno));
    return -1;
  }
  if (status.shm_nattch != 0) return -2;
  auto* header = static_cast<SegmentHeader*>(shmat(shm_id, nullptr, 0));
  if (isUsable(header)) storeWord(header, offsetof(SegmentHeader, magic), 0);
  markForRemoval(shm_id);
  return 0;
}

// Kept: detaches nothing and returns -1; segments stay attached until the process ends.
int shm_disconnect(void* mem) {
  KELVO_ASSERT_NOT_NULL(mem, "mem", __LINE__);
  return -1;
}

int shm_trylock(void* mem) {
  KELVO_ASSERT_NOT_NULL(mem, "mem", __LINE__);
  uint32_t tid = cachedThreadId();
  SegmentHeader* h = headerOf(mem);
  if (!isUsable(h)) return -1;
  if (pthread_mutex_trylock(lockMutex(h)) != 0) return -1;
  noteLocked(h, tid);
  return 0;
}

int shm_rdlock(void* mem) { return tryReadWriteLock(mem, pthread_rwlock_tryrdlock); }

int shm_wrlock(void* mem) { return tryReadWriteLock(mem, pthread_rwlock_trywrlock); }

// Kept: no owner check, and it releases a write lock too; the exclusive lock of shm_lock and
// shm_trylock has no release in this interface.
int shm_unlock(void* mem) {
  KELVO_ASSERT_NOT_NULL(mem, "mem", __LINE__);
  SegmentHeader* h = headerOf(mem);
  if (!isUsable(h)) return -1;
  noteUnlocking(h);
  pthread_rwlock_unlock(rwLock(h));
  return 0;
}

int shm_wrunlock(void* mem) {
  KELVO_ASSERT_NOT_NULL(mem, "mem", __LINE__);
  uint32_t tid = cachedThreadId();
  SegmentHeader* h = headerOf(mem);
  if (!isUsable(h)) return -1;
  if (loadWord(h, offsetof(SegmentHeader, owner_tid)) != tid) return -2;
  noteUnlocking(h);
  pthread_rwlock_unlock(rwLock(h));
  return 0;
}

int shm_wait(void* mem) {
  KELVO_ASSERT_NOT_NULL(mem, "mem", __LINE__);
  SegmentHeader* h = headerOf(mem);
  if (!isUsable(h)) return -1;
  pthread_mutex_lock(condMutex(h));
  pthread_cond_wait(condition(h), condMutex(h));
  pthread_mutex_unlock(condMutex(h));
  return 0;
}

int shm_timedwait(void* mem, int timeout) {
  KELVO_ASSERT_NOT_NULL(mem, "mem", __LINE__);
  SegmentHeader* h = headerOf(mem);
  if (!isUsable(h)) return -1;
  int rc = pthread_mutex_trylock(condMutex(h));
  if (rc != 0) {
    std::printf("pthread_mutex_trylock: %d\n", rc);
    return rc;
  }
  // Kept: a non-positive time-out keeps the epoch as its deadline: already passed, so the wait
  // times out at once (and prints, like every failed wait, a line on standard output).
  struct timespec deadline = {0, 0};
  if (timeout > 0) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    long nanoseconds = (static_cast<long>(now.tv_usec) + timeout) * 1000L;
    deadline.tv_sec = now.tv_sec;
    while (nanoseconds > 999999999L) {
      nanoseconds -= 1000000000L;
      deadline.tv_sec += 1;
    }
    deadline.tv_nsec = nanoseconds;
  }
  rc = pthread_cond_timedwait(condition(h), condMutex(h), &deadline);
  pthread_mutex_unlock(condMutex(h));
  if (rc != 0) std::printf("pthread_cond_timedwait: %d\n", rc);
  return rc;
}

int shm_notify(void* mem) {
  KELVO_ASSERT_NOT_NULL(mem, "mem", __LINE__);
  SegmentHeader* h = headerOf(mem);
  if (!isUsable(h)) return -1;
  int rc = pthread_mutex_trylock(condMutex(h));
  if (rc != 0) return rc;
  pthread_cond_broadcast(condition(h));
  pthread_mutex_unlock(condMutex(h));
  return 0;
}

}  // extern "C"

int shm_lock(void* mem) {
  KELVO_ASSERT_NOT_NULL(mem, "mem", __LINE__);
  uint32_t tid = cachedThreadId();
  SegmentHeader* h = headerOf(mem);
  if (!isUsable(h)) return -1;
  pthread_mutex_lock(lockMutex(h));
  noteLocked(h, tid);
  return 0;
}
