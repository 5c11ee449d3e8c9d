// Which processes are alive, from /proc: a process's state and start time, the process tokens
// that name one process for good, and whether a segment's creator is gone.
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>

#include "topic_segment.h"

namespace mosk {
namespace kelvo {
namespace internal {

ProcessState processState(pid_t pid) {
  ProcessState state;
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string all;
  if (!std::getline(file, all)) return state;
  // The command name may hold spaces and parentheses: fields restart after the last ')'.
  const size_t close = all.rfind(')');
  if (close == std::string::npos) return state;
  std::istringstream fields(all.substr(close + 2));
  std::string field;
  char status = '?';
  fields >> status;
  // After the state (field 3) come fields 4 to 21; the start time is field 22.
  for (int index = 4; index <= 21 && fields >> field; ++index) {
  }
  uint64_t startTicks = 0;
  if (!(fields >> startTicks)) return state;
  state.exists = true;
  state.gone = status == 'Z' || status == 'X' || status == 'x';
  state.startTicks = startTicks;
  return state;
}

uint64_t processToken(pid_t pid) {
  const ProcessState state = processState(pid);
  if (!state.exists) return 0;
  return (state.startTicks << kTokenPidBits) | static_cast<uint64_t>(pid);
}

uint64_t selfToken() {
  static std::atomic<uint64_t> cached{0};
  static std::atomic<pid_t> cachedFor{0};
  const pid_t pid = getpid();
  if (cachedFor.load(std::memory_order_acquire) != pid) {
    cached.store(processToken(pid), std::memory_order_relaxed);
    cachedFor.store(pid, std::memory_order_release);
  }
  return cached.load(std::memory_order_relaxed);
}

bool tokenAlive(uint64_t token) {
  if (token == 0) return false;
  const auto pid = static_cast<pid_t>(token & ((uint64_t{1} << kTokenPidBits) - 1));
  const ProcessState state = processState(pid);
  return state.exists && !state.gone && state.startTicks == (token >> kTokenPidBits);
}

namespace {

// Reads "btime" from /proc/stat: the boot time in seconds since the epoch.
int64_t bootTimeSeconds() {
  std::ifstream stat("/proc/stat");
  std::string word;
  while (stat >> word) {
    if (word == "btime") {
      int64_t seconds = 0;
      stat >> seconds;
      return seconds;
    }
  }
  return 0;
}

}  // namespace

bool creatorGone(pid_t pid, time_t createdAt) {
  if (pid <= 0) return false;  // not visible from here: cannot tell
  if (pid == getpid()) return false;
  ProcessState state = processState(pid);
  if (!state.exists || state.gone) return true;
  const int64_t ticks = sysconf(_SC_CLK_TCK);
  const int64_t startedAt = bootTimeSeconds() + static_cast<int64_t>(state.startTicks) / ticks;
  return startedAt > static_cast<int64_t>(createdAt) + 1;
}

}  // namespace internal
}  // namespace kelvo
}  // namespace mosk
