// Cross-process wake-up latency: from shm_notify in one process to the return of shm_wait in
// another, against a bare process-shared condition variable and mutex in shared memory used
// the same way (try-lock, broadcast, unlock; lock, wait, unlock). Rounds of the two kinds
// alternate, so both see the same machine.
//
//   kelvo_shm_wakeup [ROUNDS]        (default 4000, half of them each kind)
//
// Each round the notifier waits until the waiter sleeps in the kernel (its /proc state), then
// stamps the TSC and notifies; the waiter stamps the TSC as soon as its wait returns. The
// difference is the wake-up latency. Prints p50 and p99 of each and their ratios.
#include <sched.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <new>
#include <string>
#include <vector>

#include "mosk/kelvo/cycles.h"
#include "mosk/kelvo/perf.h"
#include "mosk/kelvo/shm.h"

namespace {

using mosk::kelvo::Cycles;

enum Kind : uint32_t { kTopic = 0, kBare = 1 };

// Shared between the two processes, in a private segment of its own.
struct Control {
  pthread_mutex_t mutex;
  pthread_cond_t cond;
  std::atomic<uint32_t> round{0};
  std::atomic<uint32_t> kind{kTopic};
  std::atomic<uint32_t> ready{0};
  std::atomic<uint32_t> woken{0};
  std::atomic<uint64_t> wakeTsc{0};
};

Control* makeControl() {
  int id = shmget(IPC_PRIVATE, sizeof(Control), IPC_CREAT | 0600);
  void* memory = shmat(id, nullptr, 0);
  shmctl(id, IPC_RMID, nullptr);  // freed when both processes have detached
  auto* control = new (memory) Control;
  pthread_mutexattr_t mutexAttr;
  pthread_mutexattr_init(&mutexAttr);
  pthread_mutexattr_setpshared(&mutexAttr, PTHREAD_PROCESS_SHARED);
  pthread_mutex_init(&control->mutex, &mutexAttr);
  pthread_condattr_t condAttr;
  pthread_condattr_init(&condAttr);
  pthread_condattr_setpshared(&condAttr, PTHREAD_PROCESS_SHARED);
  pthread_cond_init(&control->cond, &condAttr);
  return control;
}

[[noreturn]] void waiter(Control* control, void* topic) {
  for (uint32_t round = 1;; ++round) {
    while (control->round.load() != round) sched_yield();
    Kind kind = static_cast<Kind>(control->kind.load());
    control->ready.store(round);
    if (kind == kTopic) {
      shm_wait(topic);
    } else {
      pthread_mutex_lock(&control->mutex);
      pthread_cond_wait(&control->cond, &control->mutex);
      pthread_mutex_unlock(&control->mutex);
    }
    control->wakeTsc.store(Cycles::rdtsc());
    control->woken.store(round);
  }
}

bool sleepingInKernel(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(stat, line);
  size_t close = line.rfind(')');
  return close != std::string::npos && close + 2 < line.size() && line[close + 2] == 'S';
}

int notify(Kind kind, Control* control, void* topic) {
  if (kind == kTopic) return shm_notify(topic);
  int rc = pthread_mutex_trylock(&control->mutex);
  if (rc != 0) return rc;
  pthread_cond_broadcast(&control->cond);
  pthread_mutex_unlock(&control->mutex);
  return 0;
}

// One round: the latency in cycles, or 0 if the notify was lost and the round must be redone.
uint64_t measureRound(uint32_t round, Kind kind, Control* control, void* topic, pid_t child) {
  control->kind.store(kind);
  control->round.store(round);
  while (control->ready.load() != round) sched_yield();
  while (!sleepingInKernel(child)) sched_yield();
  uint64_t start = Cycles::rdtsc();
  int rc = notify(kind, control, topic);
  for (int spins = 0; control->woken.load() != round; ++spins) {
    // A lost notify (busy mutex) is retried; its round does not count.
    if (rc != 0 || spins > 1000000) {
      rc = 1;
      notify(kind, control, topic);
      sched_yield();
    }
  }
  return rc == 0 ? control->wakeTsc.load() - start : 0;
}

void printRow(const char* name, std::vector<uint64_t>* ns, const mosk::kelvo::Statistics& s) {
  std::printf("%-40s %8zu %10.1f %10.1f %10.1f\n", name, ns->size(), s.p50 / 1000.0, s.p99 / 1000.0,
              s.max / 1000.0);
}

}  // namespace

int main(int argc, char** argv) {
  long rounds = 4000;
  if (argc > 2 || (argc == 2 && (rounds = std::strtol(argv[1], nullptr, 10)) < 2)) {
    std::fprintf(stderr, "usage: kelvo_shm_wakeup [ROUNDS >= 2]\n");
    return 2;
  }
  std::string topicName = "kb" + std::to_string(getpid()) + "-wakeup";
  void* topic = shm_connect_by_topic(topicName.c_str(), 64);
  Control* control = makeControl();
  pid_t child = fork();
  if (child == 0) waiter(control, topic);

  std::vector<uint64_t> topicNs, bareNs;
  uint32_t round = 0;
  while (static_cast<long>(topicNs.size() + bareNs.size()) < rounds) {
    Kind kind = (round % 2 == 0) ? kTopic : kBare;
    uint64_t cycles = measureRound(++round, kind, control, topic, child);
    if (cycles == 0) continue;
    (kind == kTopic ? topicNs : bareNs).push_back(Cycles::toNanoseconds(cycles));
  }
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  shm_rm_by_topic(topicName.c_str());
  std::string dir = "/tmp/topics/" + topicName;
  unlink((dir + "/shmkey").c_str());
  rmdir(dir.c_str());

  auto topicStats = mosk::kelvo::computeStatistics(topicNs.data(), topicNs.size());
  auto bareStats = mosk::kelvo::computeStatistics(bareNs.data(), bareNs.size());
  std::printf("%-40s %8s %10s %10s %10s\n", "wake-up, notify to wait return (us)", "rounds", "p50",
              "p99", "max");
  printRow("shm_notify -> shm_wait", &topicNs, topicStats);
  printRow("bare pshared cond broadcast -> wait", &bareNs, bareStats);
  std::printf("ratio shm/bare: p50 %.2fx, p99 %.2fx\n",
              static_cast<double>(topicStats.p50) / static_cast<double>(bareStats.p50),
              static_cast<double>(topicStats.p99) / static_cast<double>(bareStats.p99));
  return 0;
}
