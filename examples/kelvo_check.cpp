// kelvo-check: a real-time readiness report for the machine it runs on.
//
// Each line starts with OK, WARN or FAIL and, where something is missing, says what to change.
// Exits with 1 when kelvo cannot do its job here: the clock or digest self-test fails, or
// SCHED_FIFO is refused (no periodic thread can be created). A machine that is merely not tuned
// for real-time work exits with 0 and a list of warnings.
#include <dirent.h>
#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "mosk/kelvo/cycles.h"
#include "mosk/kelvo/md5.h"
#include "mosk/kelvo/thread.h"

namespace {

using mosk::kelvo::Cycles;
using mosk::kelvo::PeriodicThread;

int failures = 0;

void report(const char* verdict, const std::string& what) {
  std::printf("%-4s  %s\n", verdict, what.c_str());
  if (std::strcmp(verdict, "FAIL") == 0) ++failures;
}

std::string readFirstLine(const char* path) {
  std::ifstream file(path);
  std::string line;
  if (!file || !std::getline(file, line)) return {};
  return line;
}

double monotonicSeconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void checkClock() {
  char line[200];
  std::snprintf(line, sizeof(line), "TSC calibrated at load: %.3f MHz", Cycles::cyclesPerSec / 1e6);
  report(Cycles::cyclesPerSec > 0 ? "OK" : "FAIL", line);

  // Measure the counter against CLOCK_MONOTONIC over one second.
  const double wallStart = monotonicSeconds();
  const uint64_t tscStart = Cycles::rdtsc();
  const timespec second{1, 0};
  nanosleep(&second, nullptr);
  const double wall = monotonicSeconds() - wallStart;
  const double tscSeconds = Cycles::toSeconds(Cycles::rdtsc() - tscStart);
  const double ppm = (tscSeconds - wall) / wall * 1e6;
  std::snprintf(line, sizeof(line), "TSC vs CLOCK_MONOTONIC over %.3f s: %+.0f ppm", wall, ppm);
  if (std::fabs(ppm) < 1000) {
    report("OK", line);
  } else {
    report("FAIL", std::string(line) +
                       " -> the TSC is not a stable clock here (check constant_tsc/nonstop_tsc "
                       "in /proc/cpuinfo and the BIOS power settings)");
  }
}

void checkKernel() {
  utsname names{};
  uname(&names);
  const std::string realtime = readFirstLine("/sys/kernel/realtime");
  const bool saysPreemptRt = std::strstr(names.version, "PREEMPT_RT") != nullptr;
  if (PeriodicThread::detectPreemptRt()) {
    report("OK", std::string("PREEMPT RT kernel: ") + names.release + " " + names.version);
  } else if (saysPreemptRt) {
    // Current real-time kernels write the tag with an underscore; detectPreemptRt() only
    // accepts "PREEMPT RT" (and /sys/kernel/realtime reading 1).
    report("OK", std::string("PREEMPT_RT kernel: ") + names.release + " " + names.version +
                     " (detectPreemptRt() is false: it looks for \"PREEMPT RT\")");
  } else if (realtime == "1") {
    report("OK", std::string("real-time kernel (/sys/kernel/realtime is 1; its version text ") +
                     names.version +
                     " does not say \"PREEMPT RT\", so detectPreemptRt() is false)");
  } else {
    report("WARN", std::string("not a PREEMPT RT kernel (") + names.release + " " + names.version +
                       ") -> for bounded latency boot a PREEMPT_RT kernel, e.g. Debian's "
                       "linux-image-rt-amd64");
  }
}

void checkScheduling() {
  int priorityResult = -1;
  std::thread([&] { priorityResult = mosk::kelvo::setPriority(80); }).join();
  if (priorityResult == 0) {
    report("OK", "SCHED_FIFO priority 80 allowed");
  } else {
    report("FAIL",
           "SCHED_FIFO refused: kelvo cannot create its periodic threads -> run as root, grant "
           "CAP_SYS_NICE (setcap cap_sys_nice+ep <program>), or raise rtprio in "
           "/etc/security/limits.conf");
  }
  PeriodicThread probe(1000, "kelvo-check", mosk::kelvo::ScheduleMethod::Sequential, -1, 80);
  if (const int error = probe.getCreationError()) {
    report("FAIL", std::string("a periodic thread at priority 80 cannot be created: ") +
                       std::strerror(error));
  } else {
    report("OK", "a periodic thread at priority 80 was created");
  }
  probe.stop();
  probe.join();
  const std::string runtime = readFirstLine("/proc/sys/kernel/sched_rt_runtime_us");
  if (runtime == "-1") {
    report("OK", "real-time throttling off (sched_rt_runtime_us = -1)");
  } else if (!runtime.empty()) {
    report("WARN", "real-time throttling on (sched_rt_runtime_us = " + runtime +
                       "): a runaway SCHED_FIFO loop is paused each second -> keep it as a "
                       "safety net while developing, set -1 for production");
  }
}

void checkCpus() {
  const std::string online = readFirstLine("/sys/devices/system/cpu/online");
  const std::string isolated = readFirstLine("/sys/devices/system/cpu/isolated");
  cpu_set_t set;
  if (mosk::kelvo::cpulist_parse(online.c_str(), &set, sizeof(set), 1) == 0) {
    report("OK", "CPUs online: " + online + " (" + std::to_string(CPU_COUNT(&set)) + ")");
  } else {
    report("WARN", "cannot parse the online CPU list \"" + online + "\"");
  }
  cpu_set_t isolatedSet;
  if (!isolated.empty() &&
      mosk::kelvo::cpulist_parse(isolated.c_str(), &isolatedSet, sizeof(isolatedSet), 1) == 0) {
    report("OK", "isolated CPUs: " + isolated + " -> pin real-time threads there");
  } else {
    report("WARN",
           "no isolated CPUs -> boot with isolcpus=<list> nohz_full=<list> "
           "rcu_nocbs=<list> and pin real-time threads to them");
  }

  cpu_set_t allowed;
  sched_getaffinity(0, sizeof(allowed), &allowed);
  int lastCpu = 0;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (CPU_ISSET(cpu, &allowed)) lastCpu = cpu;
  }
  int pinResult = -1;
  std::thread([&] { pinResult = mosk::kelvo::pinThreadToCore(lastCpu); }).join();
  if (pinResult == 0) {
    report("OK", "threads can be pinned (tried CPU " + std::to_string(lastCpu) + ")");
  } else {
    report("WARN", "pinning a thread to CPU " + std::to_string(lastCpu) +
                       " failed -> check the process's cpuset / container limits");
  }
}

std::set<int> latencyDescriptors() {
  std::set<int> fds;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return fds;
  while (dirent* entry = readdir(dir)) {
    char target[64] = {};
    const std::string link = std::string("/proc/self/fd/") + entry->d_name;
    if (readlink(link.c_str(), target, sizeof(target) - 1) > 0 &&
        std::strcmp(target, "/dev/cpu_dma_latency") == 0) {
      fds.insert(std::atoi(entry->d_name));
    }
  }
  closedir(dir);
  return fds;
}

void checkLatencyTarget() {
  if (access("/dev/cpu_dma_latency", F_OK) != 0) {
    report("WARN",
           "/dev/cpu_dma_latency missing -> the kernel has no PM QoS interface; "
           "disable deep C-states with processor.max_cstate=1 intel_idle.max_cstate=0");
    return;
  }
  const std::set<int> before = latencyDescriptors();
  PeriodicThread::setLatencyTarget();
  std::set<int> held = latencyDescriptors();
  for (int fd : before) held.erase(fd);
  if (held.empty()) {
    report("WARN",
           "the DMA latency target cannot be held (/dev/cpu_dma_latency is not "
           "writable) -> run as root or give the program write access to it");
    return;
  }
  report("OK",
         "DMA latency target of 0 us can be held (keep setLatencyTarget()'s descriptor "
         "open for the life of the process)");
  for (int fd : held) PeriodicThread::closeLatencyTarget(fd);
}

void checkDigest() {
  const unsigned char input[] = "abc";
  MD5Context context;
  MD5Init(&context);
  MD5Update(&context, input, 3);
  unsigned char digest[16];
  MD5Final(digest, &context);
  char hex[33];
  for (int i = 0; i < 16; ++i) std::snprintf(hex + 2 * i, 3, "%02x", digest[i]);
  const bool good = std::strcmp(hex, "900150983cd24fb0d6963f7d28e17f72") == 0;
  report(good ? "OK" : "FAIL", std::string("MD5 self-test: md5(\"abc\") = ") + hex);
}

}  // namespace

int main() {
  std::printf("kelvo-check: real-time readiness of this machine\n\n");
  checkClock();
  checkKernel();
  checkScheduling();
  checkCpus();
  checkLatencyTarget();
  checkDigest();
  std::printf("\n%s\n", failures == 0 ? "kelvo works on this machine; see WARN lines for tuning."
                                      : "kelvo does NOT work correctly on this machine.");
  return failures == 0 ? 0 : 1;
}
