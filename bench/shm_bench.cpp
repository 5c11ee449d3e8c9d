// Shared-memory topic locks against the same try-lock and unlock pair on a bare process-shared
// pthread_rwlock_t in shared memory (what a user would write by hand), uncontended; and the
// cost of connecting to a new 1 MiB topic (pre-touch and zeroing) and to an existing one.
//
// The topic locks add a magic check, the caller's thread id (kept per thread, so no system
// call) and the owner and counter bookkeeping in the header.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "mosk/kelvo/shm.h"

namespace {

constexpr size_t kTopicSize = 4096;
constexpr size_t kConnectSize = 1 << 20;

std::string benchTopic(const char* name) { return "kb" + std::to_string(getpid()) + "-" + name; }

// Removes a topic completely: segment, this process's attachment of `mem`, key file, directory.
void dropTopic(const std::string& topic, void* mem) {
  shm_rm_by_topic(topic.c_str());
  if (mem != nullptr) shmdt(static_cast<char*>(mem) - MEM_HDR_SIZE);
  std::string dir = "/tmp/topics/" + topic;
  unlink((dir + "/shmkey").c_str());
  rmdir(dir.c_str());
}

// A process-shared read-write lock at the start of a private System V segment.
struct BareRwlock {
  BareRwlock() {
    id = shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
    memory = shmat(id, nullptr, 0);
    shmctl(id, IPC_RMID, nullptr);  // freed when detached
    lock = static_cast<pthread_rwlock_t*>(memory);
    pthread_rwlockattr_t attr;
    pthread_rwlockattr_init(&attr);
    pthread_rwlockattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    pthread_rwlock_init(lock, &attr);
    pthread_rwlockattr_destroy(&attr);
  }
  ~BareRwlock() {
    pthread_rwlock_destroy(lock);
    shmdt(memory);
  }
  int id;
  void* memory;
  pthread_rwlock_t* lock;
};

void BM_ShmRdlockUnlock(benchmark::State& state) {
  std::string topic = benchTopic("rd");
  void* mem = shm_connect_by_topic(topic.c_str(), kTopicSize);
  for (auto _ : state) {
    benchmark::DoNotOptimize(shm_rdlock(mem));
    benchmark::DoNotOptimize(shm_unlock(mem));
  }
  dropTopic(topic, mem);
}
BENCHMARK(BM_ShmRdlockUnlock);

void BM_BareRwlockTryRdlockUnlock(benchmark::State& state) {
  BareRwlock bare;
  for (auto _ : state) {
    benchmark::DoNotOptimize(pthread_rwlock_tryrdlock(bare.lock));
    benchmark::DoNotOptimize(pthread_rwlock_unlock(bare.lock));
  }
}
BENCHMARK(BM_BareRwlockTryRdlockUnlock);

void BM_ShmWrlockWrunlock(benchmark::State& state) {
  std::string topic = benchTopic("wr");
  void* mem = shm_connect_by_topic(topic.c_str(), kTopicSize);
  for (auto _ : state) {
    benchmark::DoNotOptimize(shm_wrlock(mem));
    benchmark::DoNotOptimize(shm_wrunlock(mem));
  }
  dropTopic(topic, mem);
}
BENCHMARK(BM_ShmWrlockWrunlock);

void BM_BareRwlockTryWrlockUnlock(benchmark::State& state) {
  BareRwlock bare;
  for (auto _ : state) {
    benchmark::DoNotOptimize(pthread_rwlock_trywrlock(bare.lock));
    benchmark::DoNotOptimize(pthread_rwlock_unlock(bare.lock));
  }
}
BENCHMARK(BM_BareRwlockTryWrlockUnlock);

// The thread-id part of every lock call: the cached id against the system call.
void BM_ShmGettid(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(shm_gettid());
}
BENCHMARK(BM_ShmGettid);

void BM_GettidSystemCall(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(::gettid());
}
BENCHMARK(BM_GettidSystemCall);

// A new 1 MiB topic: key file, segment creation, synchronisation objects, pre-touch and
// zeroing. The removal is not timed.
void BM_ConnectNewTopic1MiB(benchmark::State& state) {
  std::string topic = benchTopic("new");
  for (auto _ : state) {
    void* mem = shm_connect_by_topic(topic.c_str(), kConnectSize);
    state.PauseTiming();
    dropTopic(topic, mem);
    state.ResumeTiming();
  }
}
BENCHMARK(BM_ConnectNewTopic1MiB)->Unit(benchmark::kMicrosecond);

// An existing, initialised 1 MiB topic: key lookup, status, attach. Every connect is a new
// attachment, so each is detached again outside the timing.
void BM_ConnectExistingTopic1MiB(benchmark::State& state) {
  std::string topic = benchTopic("old");
  void* first = shm_connect_by_topic(topic.c_str(), kConnectSize);
  for (auto _ : state) {
    void* mem = shm_connect_by_topic(topic.c_str(), kConnectSize);
    state.PauseTiming();
    shmdt(static_cast<char*>(mem) - MEM_HDR_SIZE);
    state.ResumeTiming();
  }
  dropTopic(topic, first);
}
BENCHMARK(BM_ConnectExistingTopic1MiB)->Unit(benchmark::kMicrosecond);

}  // namespace
