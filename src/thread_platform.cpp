// Thread and real-time platform utilities: scheduling, names, affinity and CPU lists, and the
// kernel's real-time facts and latency request.
#include <fcntl.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "mosk/kelvo/thread.h"
#include "periodic_thread_private.h"

namespace mosk {
namespace kelvo {

int setPriority(int prio) {
  sched_param param{};
  param.sched_priority = prio;
  return sched_setscheduler(0, SCHED_FIFO, &param) == 0 ? 0 : -1;
}

int setThreadName(const char* name) {
  if (name == nullptr) return -1;
  return prctl(PR_SET_NAME, name) == 0 ? 0 : -1;
}

long gettid() { return syscall(SYS_gettid); }

namespace internal {

cpu_set_t singleCpuSet(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (cpu >= 0 && cpu <= 1023) CPU_SET(cpu, &set);
  return set;
}

void nameThread(pthread_t thread, const std::string& name) {
  char shortName[16] = {};
  std::strncpy(shortName, name.c_str(), sizeof(shortName) - 1);
  pthread_setname_np(thread, shortName);
}

}  // namespace internal

int pinThreadToCore(int core) {
  cpu_set_t set = internal::singleCpuSet(core);
  if (sched_setaffinity(0, sizeof(set), &set) != 0) return -1;
  CPU_ZERO(&set);
  return sched_getaffinity(0, sizeof(set), &set) == 0 ? 0 : -2;
}

namespace {

// The start of the item after the next comma, or null when this is the last item.
const char* nextItem(const char* p) {
  const char* comma = std::strchr(p, ',');
  return comma ? comma + 1 : nullptr;
}

// A marker found at `marker` belongs to the current item only if it precedes the item's comma.
bool inItem(const char* marker, const char* comma) {
  return marker != nullptr && (comma == nullptr || marker < comma);
}

}  // namespace

int cpulist_parse(const char* str, cpu_set_t* set, size_t setsize, int fail) {
  auto* bytes = reinterpret_cast<unsigned char*>(set);  // bit n is bit n % 8 of byte n / 8
  std::memset(bytes, 0, setsize);
  if (str == nullptr) return 0;
  int lastRead = 0;  // conversions of the last "%u%c": 2 means text followed the number
  for (const char *p = str, *q = nextItem(str); p != nullptr;
       p = q, q = q ? nextItem(q) : nullptr) {
    unsigned first, last, stride = 1;
    char after;
    if ((lastRead = std::sscanf(p, "%u%c", &first, &after)) < 1) return 1;
    last = first;
    const char* comma = std::strchr(p, ',');
    const char* dash = std::strchr(p, '-');
    if (inItem(dash, comma)) {
      if ((lastRead = std::sscanf(dash + 1, "%u%c", &last, &after)) < 1) return 1;
      const char* colon = std::strchr(dash, ':');
      if (inItem(colon, comma)) {
        if ((lastRead = std::sscanf(colon + 1, "%u%c", &stride, &after)) < 1) return 1;
        if (stride == 0) return 1;
      }
    }
    if (first > last) return 1;
    for (uint32_t cpu = first;; cpu += stride) {
      if (fail && cpu >= 8 * setsize) return 2;
      // Byte by byte, not CPU_SET_S: that macro reads and writes whole 64-bit words, which
      // reaches past a set whose size is not a multiple of 8 bytes.
      if (cpu / 8 < setsize) bytes[cpu / 8] |= static_cast<unsigned char>(1u << (cpu % 8));
      if (last - cpu < stride) break;  // the next step would pass `last` (or wrap)
    }
  }
  return lastRead == 2 ? 1 : 0;
}

bool PeriodicThread::detectPreemptRt() {
  utsname names{};
  if (uname(&names) != 0 || strcasestr(names.version, "PREEMPT RT") == nullptr) return false;
  FILE* file = std::fopen("/sys/kernel/realtime", "r");
  if (file == nullptr) return false;
  int value = 0;
  const bool isRealtime = std::fscanf(file, "%d", &value) == 1 && value == 1;
  std::fclose(file);
  return isRealtime;
}

int PeriodicThread::setLatencyTarget() {
  struct stat info;
  if (stat("/dev/cpu_dma_latency", &info) != 0) return -1;
  const int fd = open("/dev/cpu_dma_latency", O_RDWR);
  if (fd < 0) return -1;
  const int32_t target = 0;
  // Kept: any result but 0 (the 4 bytes written, too) returns -1 and leaves the descriptor open,
  // which is what keeps the latency request alive: the kernel drops it when the file closes.
  if (write(fd, &target, sizeof(target)) != 0) return -1;
  close(fd);
  return 0;
}

int PeriodicThread::closeLatencyTarget(int fd) { return close(fd); }

void PeriodicThread::rt_system_init() {}
}  // namespace kelvo
}  // namespace mosk
