// Latency of typed kelvo topics against iceoryx 2.0.3 and the plain shm_* functions, side by
// side in one run: ping-pong between two processes (one-way latency = round trip / 2) and the
// time of one publish while a reader reads at full speed.
//
//   kelvo_topic_pingpong [options]     (--help lists them)
//
// Every case runs in blocks; each block forks a fresh pair of worker processes per transport,
// the transports taking turns block by block so that all of them see the same machine. The
// payload (64 B or 64 KiB) is written completely by the sender and checked word by word by the
// receiver. "pinned" runs both workers at SCHED_FIFO on two CPUs of their own, "unpinned" at
// the default policy wherever the kernel puts them. The program starts iox-roudi itself (with
// process monitoring off for the pinned cases: RouDi's keep-alive thread starves while both
// workers spin at real-time priority, and RouDi would then remove them) and stops it again.
//
// Nothing waits without a limit: workers give up after --timeout seconds, the orchestrator
// kills a pair that outlives that, and RouDi and every worker die with the orchestrator
// (PR_SET_PDEATHSIG) or are stopped on its way out, interrupted or not. Exit status: 0 when
// every case ran, 1 when one failed, 2 on a bad option, 77 when every requested case needed
// SCHED_FIFO and it is not permitted.
#include "topic_pingpong.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "mosk/kelvo/perf.h"
#include "mosk/kelvo/shm.h"
#include "mosk/kelvo/topic.h"

namespace pingpong {

int fail(Shared* shared, Role role, const std::string& why) {
  char* error = shared->error[static_cast<int>(role)];
  if (error[0] == '\0') std::snprintf(error, sizeof(shared->error[0]), "%s", why.c_str());
  return 1;
}

bool meetPeer(Role role, Shared* shared, double timeoutSeconds) {
  shared->ready[static_cast<int>(role)].store(1);
  Deadline deadline(timeoutSeconds);
  while (shared->ready[1 - static_cast<int>(role)].load() == 0) {
    if (deadline.passed()) return false;
    sleepNanoseconds(100000);
  }
  return true;
}

uint64_t CycleHistogram::percentile(double p) const {
  if (count_ == 0) return 0;
  uint64_t rank = static_cast<uint64_t>(p * static_cast<double>(count_));
  if (rank >= count_) rank = count_ - 1;
  uint64_t seen = 0;
  for (size_t bucket = 0; bucket < kBuckets; ++bucket) {
    seen += counts_[bucket];
    if (seen > rank) return bucket == kBuckets - 1 ? max_ : bucket;
  }
  return max_;
}

PublishFigures CycleHistogram::figures() const {
  return {count_, percentile(0.5), percentile(0.99), percentile(0.999), percentile(0.9999), max_, 0,
          0};
}

}  // namespace pingpong

namespace {

using namespace pingpong;  // NOLINT: the program's own namespace

constexpr char kProgram[] = "kelvo_topic_pingpong";

// ---- options --------------------------------------------------------------------------------

struct Options {
  std::vector<Transport> transports{Transport::kKelvo, Transport::kIceoryx, Transport::kShm};
  std::vector<size_t> sizes{64, 65536};
  std::vector<bool> blocking{false, true};
  std::vector<bool> realtime{true, false};
  uint64_t rounds = 50000;
  uint64_t warmup = 2000;
  uint64_t blocks = 4;
  uint64_t publishSamples = 10000000;
  int cpu[2] = {-1, -1};
  int priority = 80;
  double timeoutSeconds = 120;
  uint64_t waitSliceUs = 1000;
  uint32_t kelvoDepth = mosk::kelvo::TopicOptions{}.depth;
  std::string roudi = KELVO_BENCH_IOX_ROUDI;
  std::string roudiConfig = KELVO_BENCH_ROUDI_CONFIG;
};

const char kUsage[] =
    "usage: kelvo_topic_pingpong [options]\n"
    "  --transports LIST      kelvo,iceoryx,shm (default all three)\n"
    "  --sizes LIST           payload bytes: 64,65536 (default both)\n"
    "  --modes LIST           poll,block (default both)\n"
    "  --sched LIST           pinned,unpinned (default both; pinned needs SCHED_FIFO)\n"
    "  --rounds N             measured round trips per case and transport (default 50000)\n"
    "  --warmup N             unmeasured round trips first, per block (default 2000)\n"
    "  --blocks N             blocks per case; transports take turns (default 4)\n"
    "  --publish-samples N    publishes timed under a full-speed reader; 0 skips (default "
    "10000000)\n"
    "  --cpus A,B             CPUs of the pinned workers (default the last two)\n"
    "  --priority P           SCHED_FIFO priority of the pinned workers, 1-99 (default 80)\n"
    "  --timeout SECONDS      time limit of one block (default 120)\n"
    "  --wait-slice-us N      time limit of one blocking wait before it checks again (default "
    "1000)\n"
    "  --kelvo-depth N        TopicOptions::depth of the kelvo topics, 1-65536 (default 16)\n"
    "  --roudi PATH           the iox-roudi program (default " KELVO_BENCH_IOX_ROUDI
    ")\n"
    "  --roudi-config PATH    RouDi configuration (default " KELVO_BENCH_ROUDI_CONFIG ")\n";

[[noreturn]] void badOption(const std::string& option, const std::string& why) {
  std::fprintf(stderr, "%s: %s: %s\n%s", kProgram, option.c_str(), why.c_str(), kUsage);
  std::exit(2);
}

std::vector<std::string> splitList(const std::string& option, const std::string& text) {
  std::vector<std::string> items;
  if (!text.empty() && text.back() == ',') badOption(option, "empty item in '" + text + "'");
  std::stringstream stream(text);
  for (std::string item; std::getline(stream, item, ',');) {
    if (item.empty()) badOption(option, "empty item in '" + text + "'");
    if (std::find(items.begin(), items.end(), item) != items.end()) {
      badOption(option, "'" + item + "' given twice");
    }
    items.push_back(item);
  }
  if (items.empty()) badOption(option, "empty list");
  return items;
}

uint64_t parseNumber(const std::string& option, const std::string& text, uint64_t min,
                     uint64_t max) {
  errno = 0;
  char* end = nullptr;
  unsigned long long value = std::strtoull(text.c_str(), &end, 10);
  if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || value < min || value > max) {
    badOption(option, "'" + text + "' is not a whole number from " + std::to_string(min) + " to " +
                          std::to_string(max));
  }
  return value;
}

// Maps every item of a list option through `choices`; names the first unknown item.
template <typename T>
std::vector<T> parseChoices(const std::string& option, const std::string& text,
                            const std::map<std::string, T>& choices) {
  std::vector<T> values;
  for (const std::string& item : splitList(option, text)) {
    auto found = choices.find(item);
    if (found == choices.end()) {
      std::string known;
      for (const auto& choice : choices) known += (known.empty() ? "" : ", ") + choice.first;
      badOption(option, "'" + item + "' is not one of " + known);
    }
    values.push_back(found->second);
  }
  return values;
}

bool onlineCpu(int cpu) {
  cpu_set_t set;
  return sched_getaffinity(0, sizeof(set), &set) == 0 && cpu >= 0 && cpu < CPU_SETSIZE &&
         CPU_ISSET(cpu, &set);
}

// The last two CPUs this process may run on, or {-1, -1} with fewer than two.
void defaultCpus(int cpu[2]) {
  cpu_set_t set;
  cpu[0] = cpu[1] = -1;
  if (sched_getaffinity(0, sizeof(set), &set) != 0) return;
  for (int c = CPU_SETSIZE - 1; c >= 0 && cpu[0] < 0; --c) {
    if (!CPU_ISSET(c, &set)) continue;
    if (cpu[1] < 0) {
      cpu[1] = c;
    } else {
      cpu[0] = c;
    }
  }
  if (cpu[0] < 0) cpu[1] = -1;
}

Options parseOptions(int argc, char** argv) {
  Options options;
  defaultCpus(options.cpu);
  for (int i = 1; i < argc; ++i) {
    std::string option = argv[i];
    if (option == "--help" || option == "-h") {
      std::printf("%s", kUsage);
      std::exit(0);
    }
    if (option.rfind("--", 0) != 0) badOption(option, "not an option");
    if (i + 1 >= argc) badOption(option, "needs a value");
    std::string value = argv[++i];
    if (option == "--transports") {
      options.transports = parseChoices<Transport>(option, value,
                                                   {{"kelvo", Transport::kKelvo},
                                                    {"iceoryx", Transport::kIceoryx},
                                                    {"shm", Transport::kShm}});
    } else if (option == "--sizes") {
      options.sizes = parseChoices<size_t>(option, value, {{"64", 64}, {"65536", 65536}});
    } else if (option == "--modes") {
      options.blocking = parseChoices<bool>(option, value, {{"poll", false}, {"block", true}});
    } else if (option == "--sched") {
      options.realtime = parseChoices<bool>(option, value, {{"pinned", true}, {"unpinned", false}});
    } else if (option == "--rounds") {
      options.rounds = parseNumber(option, value, 1, 100000000);
    } else if (option == "--warmup") {
      options.warmup = parseNumber(option, value, 0, 100000000);
    } else if (option == "--blocks") {
      options.blocks = parseNumber(option, value, 1, 1000);
    } else if (option == "--publish-samples") {
      options.publishSamples = parseNumber(option, value, 0, 1000000000);
    } else if (option == "--cpus") {
      std::vector<std::string> cpus = splitList(option, value);
      if (cpus.size() != 2) badOption(option, "'" + value + "' is not two CPUs A,B");
      for (int k = 0; k < 2; ++k) {
        options.cpu[k] = static_cast<int>(parseNumber(option, cpus[k], 0, CPU_SETSIZE - 1));
        if (!onlineCpu(options.cpu[k])) {
          badOption(option, "CPU " + cpus[k] + " is not one this process may run on");
        }
      }
    } else if (option == "--priority") {
      options.priority = static_cast<int>(parseNumber(option, value, 1, 99));
    } else if (option == "--timeout") {
      options.timeoutSeconds = static_cast<double>(parseNumber(option, value, 1, 3600));
    } else if (option == "--wait-slice-us") {
      options.waitSliceUs = parseNumber(option, value, 1, 1000000);
    } else if (option == "--kelvo-depth") {
      options.kelvoDepth = static_cast<uint32_t>(parseNumber(option, value, 1, 65536));
    } else if (option == "--roudi") {
      if (value.empty()) badOption(option, "empty path");
      options.roudi = value;
    } else if (option == "--roudi-config") {
      if (access(value.c_str(), R_OK) != 0) badOption(option, "cannot read '" + value + "'");
      options.roudiConfig = value;
    } else {
      badOption(option, "unknown option");
    }
  }
  return options;
}

// ---- child processes ------------------------------------------------------------------------

// Processes to kill if the orchestrator is interrupted; written only outside the handler.
volatile sig_atomic_t gInterrupted = 0;
volatile pid_t gWorkers[2] = {-1, -1};

void onSignal(int) {
  gInterrupted = 1;
  for (int k = 0; k < 2; ++k) {
    if (gWorkers[k] > 0) kill(gWorkers[k], SIGKILL);
  }
}

void installSignalHandlers() {
  struct sigaction action {};
  action.sa_handler = onSignal;
  sigemptyset(&action.sa_mask);
  for (int number : {SIGINT, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
}

// In a freshly forked child: receive `deathSignal` when the orchestrator dies, default signal
// handling.
void becomeChild(pid_t orchestrator, int deathSignal) {
  prctl(PR_SET_PDEATHSIG, deathSignal);
  if (getppid() != orchestrator) _exit(1);
  for (int number : {SIGINT, SIGTERM, SIGHUP}) ::signal(number, SIG_DFL);
}

uint64_t monotonicNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

// Reaps `pid` if it has ended: true, with its wait status.
bool reaped(pid_t pid, int* status) { return waitpid(pid, status, WNOHANG) == pid; }

void killAndReap(pid_t pid) {
  kill(pid, SIGKILL);
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

std::string describeStatus(int status) {
  if (WIFEXITED(status)) return "exited with status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return std::string("killed by ") + strsignal(WTERMSIG(status));
  return "ended";
}

// ---- RouDi ----------------------------------------------------------------------------------

class Roudi {
 public:
  Roudi() = default;
  ~Roudi() { stop(); }
  Roudi(const Roudi&) = delete;
  Roudi& operator=(const Roudi&) = delete;

  // Starts RouDi and waits until it accepts clients. False with the reason in *why. Its output
  // goes to a file that is unlinked at once (read through the descriptor), so that nothing is
  // left behind whatever ends this process. RouDi gets SIGTERM if the orchestrator dies: it
  // then removes its shared memory and socket itself.
  bool start(const Options& options, bool monitoring, std::string* why) {
    char path[] = "/tmp/kelvo-pingpong-roudi-XXXXXX";
    log_ = mkstemp(path);
    if (log_ < 0)
      return (*why = std::string("cannot create a log file: ") + strerror(errno), false);
    unlink(path);
    pid_t orchestrator = getpid();
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      becomeChild(orchestrator, SIGTERM);
      dup2(log_, STDOUT_FILENO);
      dup2(log_, STDERR_FILENO);
      execlp(options.roudi.c_str(), "iox-roudi", "-c", options.roudiConfig.c_str(), "-m",
             monitoring ? "on" : "off", "-l", "warning", static_cast<char*>(nullptr));
      std::fprintf(stderr, "cannot run %s: %s\n", options.roudi.c_str(), strerror(errno));
      _exit(127);
    }
    if (pid_ < 0) return (*why = std::string("fork: ") + strerror(errno), false);
    uint64_t deadline = monotonicNs() + 20000000000ull;
    while (monotonicNs() < deadline && !gInterrupted) {
      if (logText().find("RouDi is ready for clients") != std::string::npos) return true;
      int status;
      if (reaped(pid_, &status)) {
        pid_ = -1;
        *why = "iox-roudi " + describeStatus(status) + " before it was ready: " + lastLogLines();
        return false;
      }
      sleepNanoseconds(10000000);
    }
    *why = "iox-roudi was not ready within 20 s: " + lastLogLines();
    stop();
    return false;
  }

  // SIGTERM, which RouDi answers by cleaning up its shared memory; SIGKILL after 5 s.
  void stop() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      uint64_t deadline = monotonicNs() + 5000000000ull;
      int status;
      while (!reaped(pid_, &status)) {
        if (monotonicNs() > deadline) {
          killAndReap(pid_);
          break;
        }
        sleepNanoseconds(5000000);
      }
      pid_ = -1;
    }
    if (log_ >= 0) close(log_);
    log_ = -1;
  }

 private:
  std::string logText() const {
    std::string text;
    char buffer[4096];
    ssize_t got;
    for (off_t at = 0; (got = pread(log_, buffer, sizeof buffer, at)) > 0; at += got) {
      text.append(buffer, static_cast<size_t>(got));
    }
    return text;
  }
  std::string lastLogLines() const {
    std::string text = logText();
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    size_t from = text.size() > 400 ? text.size() - 400 : 0;
    std::string tail = text.substr(from);
    std::replace(tail.begin(), tail.end(), '\n', ' ');
    return tail.empty() ? "(no output)" : tail;
  }

  pid_t pid_ = -1;
  int log_ = -1;
};

// ---- one block ------------------------------------------------------------------------------

const char* transportName(Transport transport) {
  switch (transport) {
    case Transport::kKelvo:
      return "kelvo";
    case Transport::kIceoryx:
      return "iceoryx";
    case Transport::kShm:
      return "shm_*";
  }
  return "?";
}

struct BlockResult {
  std::string error;  // empty when the block ran
  std::vector<uint64_t> cycles;
  uint64_t missedWakeups = 0;
  uint64_t retries = 0;
  PublishFigures publish{};
  PublishFigures timerOnly{};
  uint64_t reads = 0, torn = 0;
};

std::string shmSegmentName(const CaseConfig& config, Role role) {
  return directionName(config, role);
}

// The shm_* segments are made here, before the workers start, since two first connectors of one
// segment may both initialise it.
void createShmSegments(const CaseConfig& config) {
  for (Role role : {Role::kPing, Role::kPong}) {
    void* data =
        shm_connect_by_topic(shmSegmentName(config, role).c_str(), config.payloadBytes + 12);
    if (data != nullptr) shmdt(static_cast<char*>(data) - MEM_HDR_SIZE);
  }
}

void removeKeyFile(const std::string& topic) {
  std::string directory = "/tmp/topics/" + topic;
  unlink((directory + "/shmkey").c_str());
  rmdir(directory.c_str());
}

void removeBlockTopics(const CaseConfig& config) {
  for (Role role : {Role::kPing, Role::kPong}) {
    std::string name = directionName(config, role);
    if (config.transport == Transport::kShm) shm_rm_by_topic(name.c_str());
    if (config.transport == Transport::kKelvo) mosk::kelvo::removeTopic(name);
    if (config.transport == Transport::kShm) removeKeyFile(name);
  }
}

int runWorker(const CaseConfig& config, Role role, Shared* shared) {
  if (config.realtime) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(config.cpu[static_cast<int>(role)], &set);
    sched_param param{};
    param.sched_priority = config.priority;
    if (sched_setaffinity(0, sizeof(set), &set) != 0 ||
        sched_setscheduler(0, SCHED_FIFO, &param) != 0) {
      return fail(shared, role, std::string("cannot pin at SCHED_FIFO: ") + strerror(errno));
    }
  }
  switch (config.transport) {
    case Transport::kKelvo:
      return runKelvoWorker(config, role, shared);
    case Transport::kIceoryx:
      return runIceoryxWorker(config, role, shared);
    case Transport::kShm:
      return runShmWorker(config, role, shared);
  }
  return 1;
}

pid_t forkWorker(const CaseConfig& config, Role role, Shared* shared) {
  pid_t orchestrator = getpid();
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid != 0) return pid;
  becomeChild(orchestrator, SIGKILL);
  // shm_timedwait reports every time-out on standard output: keep the table readable.
  int null = open("/dev/null", O_WRONLY);
  if (null >= 0) dup2(null, STDOUT_FILENO);
  std::exit(runWorker(config, role, shared));
}

// Waits for both workers, within the block's time limit; kills the other when one fails.
std::string awaitWorkers(pid_t pids[2], Shared* shared, double timeoutSeconds) {
  uint64_t deadline = monotonicNs() + static_cast<uint64_t>((timeoutSeconds + 10) * 1e9);
  bool done[2] = {false, false};
  std::string error;
  while (!done[0] || !done[1]) {
    for (int k = 0; k < 2; ++k) {
      int status;
      if (done[k] || !reaped(pids[k], &status)) continue;
      done[k] = true;
      gWorkers[k] = -1;
      if (WIFEXITED(status) && WEXITSTATUS(status) == 0) continue;
      const char* role = k == 0 ? "ping" : "pong";
      error = error.empty()
                  ? std::string(role) + " " +
                        (shared->error[k][0] != '\0' ? shared->error[k] : describeStatus(status))
                  : error;
      if (!done[1 - k]) {
        killAndReap(pids[1 - k]);
        done[1 - k] = true;
        gWorkers[1 - k] = -1;
      }
    }
    if (done[0] && done[1]) break;
    if (gInterrupted || monotonicNs() > deadline) {
      for (int k = 0; k < 2; ++k) {
        if (!done[k]) killAndReap(pids[k]);
        gWorkers[k] = -1;
      }
      return gInterrupted ? "interrupted" : "timed out";
    }
    sleepNanoseconds(2000000);
  }
  return error;
}

BlockResult runBlock(const CaseConfig& config) {
  BlockResult result;
  size_t bytes = Shared::bytesFor(config.measure == Measure::kPingPong ? config.rounds : 0);
  void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return (result.error = "mmap failed", result);
  auto* shared = new (memory) Shared();
  if (config.transport == Transport::kShm) createShmSegments(config);
  pid_t pids[2];
  for (int k = 0; k < 2; ++k)
    gWorkers[k] = pids[k] = forkWorker(config, static_cast<Role>(k), shared);
  result.error = awaitWorkers(pids, shared, config.timeoutSeconds);
  removeBlockTopics(config);
  if (result.error.empty()) {
    if (config.measure == Measure::kPingPong) {
      result.cycles.assign(shared->cycles, shared->cycles + config.rounds);
    }
    result.missedWakeups = shared->missedWakeups[0].load() + shared->missedWakeups[1].load();
    result.retries = shared->retries[0].load() + shared->retries[1].load();
    result.publish = shared->publish;
    result.timerOnly = shared->timerOnly;
    result.reads = shared->reads.load();
    result.torn = shared->torn.load();
  }
  munmap(memory, bytes);
  return result;
}

// ---- reports --------------------------------------------------------------------------------

struct Figures {
  double p50, p99, p999, max;  // microseconds, one way
};

Figures oneWay(std::vector<uint64_t>* cycles) {
  mosk::kelvo::Statistics s = mosk::kelvo::computeStatistics(cycles->data(), cycles->size());
  auto us = [](uint64_t roundTrip) {
    return static_cast<double>(Cycles::toNanoseconds(roundTrip)) / 2000.0;
  };
  return {us(s.p50), us(s.p99), us(s.p999), us(s.max)};
}

double nanoseconds(uint64_t cycles) { return static_cast<double>(Cycles::toNanoseconds(cycles)); }

std::string caseTitle(bool realtime, bool blocking, size_t bytes, const Options& options) {
  std::string sched = realtime ? "pinned FIFO " + std::to_string(options.priority) : "unpinned";
  return sched + ", " + (blocking ? "blocking" : "busy-poll") + ", " +
         (bytes == 64 ? "64 B" : "64 KiB");
}

void printRatio(const char* name, const Figures& kelvo, const std::map<Transport, Figures>& all,
                Transport other) {
  auto found = all.find(other);
  if (found == all.end()) return;
  std::printf("    kelvo / %-8s p50 %.2fx  p99 %.2fx  p99.9 %.2fx  max %.2fx\n", name,
              kelvo.p50 / found->second.p50, kelvo.p99 / found->second.p99,
              kelvo.p999 / found->second.p999, kelvo.max / found->second.max);
}

// Runs one ping-pong case for every transport; false if any block failed.
bool runPingPongCase(const Options& options, bool realtime, bool blocking, size_t bytes,
                     const std::vector<Transport>& transports, uint64_t* blockCounter) {
  std::map<Transport, std::vector<uint64_t>> cycles;
  std::map<Transport, uint64_t> missed, retries;
  std::map<Transport, std::string> errors;
  for (uint64_t block = 0; block < options.blocks && !gInterrupted; ++block) {
    for (Transport transport : transports) {
      if (!errors[transport].empty()) continue;
      CaseConfig config;
      config.transport = transport;
      config.payloadBytes = bytes;
      config.blocking = blocking;
      config.realtime = realtime;
      config.priority = options.priority;
      config.cpu[0] = options.cpu[0];
      config.cpu[1] = options.cpu[1];
      config.rounds = options.rounds / options.blocks + (block < options.rounds % options.blocks);
      config.warmup = options.warmup;
      config.waitSliceNs = options.waitSliceUs * 1000;
      config.kelvoDepth = options.kelvoDepth;
      config.timeoutSeconds = options.timeoutSeconds;
      config.name = "kb" + std::to_string(getpid()) + "x" + std::to_string(++*blockCounter);
      if (config.rounds == 0) continue;
      BlockResult result = runBlock(config);
      if (!result.error.empty()) {
        errors[transport] = result.error;
        continue;
      }
      auto& all = cycles[transport];
      all.insert(all.end(), result.cycles.begin(), result.cycles.end());
      missed[transport] += result.missedWakeups;
      retries[transport] += result.retries;
    }
  }
  std::printf("%s\n", caseTitle(realtime, blocking, bytes, options).c_str());
  std::map<Transport, Figures> figures;
  bool ok = true;
  for (Transport transport : transports) {
    if (!errors[transport].empty() || gInterrupted) {
      std::printf("  %-8s FAILED: %s\n", transportName(transport),
                  errors[transport].empty() ? "interrupted" : errors[transport].c_str());
      ok = false;
      continue;
    }
    Figures f = figures[transport] = oneWay(&cycles[transport]);
    std::printf("  %-8s %9zu %9.2f %9.2f %9.2f %9.2f %9lu %9lu\n", transportName(transport),
                cycles[transport].size(), f.p50, f.p99, f.p999, f.max,
                static_cast<unsigned long>(missed[transport]),
                static_cast<unsigned long>(retries[transport]));
  }
  auto kelvo = figures.find(Transport::kKelvo);
  if (kelvo != figures.end()) {
    printRatio("iceoryx", kelvo->second, figures, Transport::kIceoryx);
    printRatio("shm_*", kelvo->second, figures, Transport::kShm);
  }
  std::fflush(stdout);
  return ok;
}

// Publish of a 64 B sample while a reader reads at full speed, for every transport.
bool runPublishCase(const Options& options, bool realtime, const std::vector<Transport>& transports,
                    uint64_t* blockCounter) {
  std::printf("%s: publish of a 64 B sample while a reader reads at full speed (ns)\n",
              realtime ? ("pinned FIFO " + std::to_string(options.priority)).c_str() : "unpinned");
  std::printf("  %-8s %9s %9s %9s %9s %9s %9s %9s %9s %11s %6s\n", "", "publishes", "p50", "p99",
              "p99.9", "p99.99", "max", "retries", "worst", "reads", "torn");
  bool ok = true;
  PublishFigures timer{};
  for (Transport transport : transports) {
    if (gInterrupted) break;
    CaseConfig config;
    config.transport = transport;
    config.measure = Measure::kPublishUnderLoad;
    config.payloadBytes = 64;
    config.realtime = realtime;
    config.priority = options.priority;
    config.cpu[0] = options.cpu[0];
    config.cpu[1] = options.cpu[1];
    config.rounds = options.publishSamples;
    config.warmup = std::min<uint64_t>(options.warmup, options.publishSamples);
    config.timeoutSeconds = options.timeoutSeconds;
    config.kelvoDepth = options.kelvoDepth;
    config.name = "kb" + std::to_string(getpid()) + "x" + std::to_string(++*blockCounter);
    BlockResult result = runBlock(config);
    if (!result.error.empty()) {
      std::printf("  %-8s FAILED: %s\n", transportName(transport), result.error.c_str());
      ok = false;
      continue;
    }
    const PublishFigures& p = result.publish;
    std::printf("  %-8s %9lu %9.0f %9.0f %9.0f %9.0f %9.0f %9lu %9lu %11lu %6lu\n",
                transportName(transport), static_cast<unsigned long>(p.count), nanoseconds(p.p50),
                nanoseconds(p.p99), nanoseconds(p.p999), nanoseconds(p.p9999), nanoseconds(p.max),
                static_cast<unsigned long>(p.retries), static_cast<unsigned long>(p.worstRetries),
                static_cast<unsigned long>(result.reads), static_cast<unsigned long>(result.torn));
    if (result.torn != 0) ok = false;
    timer = result.timerOnly;
  }
  if (timer.count != 0) {
    std::printf("  %-8s %9lu %9.0f %9.0f %9.0f %9.0f %9.0f   (two time stamps, nothing between)\n",
                "timer", static_cast<unsigned long>(timer.count), nanoseconds(timer.p50),
                nanoseconds(timer.p99), nanoseconds(timer.p999), nanoseconds(timer.p9999),
                nanoseconds(timer.max));
  }
  std::fflush(stdout);
  return ok;
}

// True if this process may use SCHED_FIFO at `priority`; its own policy is left as it was.
bool fifoPermitted(int priority, std::string* why) {
  int policy = sched_getscheduler(0);
  sched_param saved{};
  sched_getparam(0, &saved);
  sched_param param{};
  param.sched_priority = priority;
  if (sched_setscheduler(0, SCHED_FIFO, &param) != 0) {
    *why = std::string("SCHED_FIFO is not permitted (") + strerror(errno) +
           "): run as root or with CAP_SYS_NICE";
    return false;
  }
  sched_setscheduler(0, policy, &saved);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  Options options = parseOptions(argc, argv);
  installSignalHandlers();
  bool wantsIceoryx = std::find(options.transports.begin(), options.transports.end(),
                                Transport::kIceoryx) != options.transports.end();
  std::printf(
      "one-way latency = round trip / 2 (us), %lu round trips per case and transport in %lu "
      "blocks, after %lu unmeasured per block\n"
      "columns: transport, round trips, p50, p99, p99.9, max, missed wake-ups, lock/notify "
      "retries\n",
      static_cast<unsigned long>(options.rounds), static_cast<unsigned long>(options.blocks),
      static_cast<unsigned long>(options.warmup));
  uint64_t blockCounter = 0;
  bool ok = true;
  int ran = 0, skipped = 0;
  for (bool realtime : options.realtime) {
    if (gInterrupted) break;
    std::string why;
    if (realtime && options.cpu[0] < 0) {
      why = "fewer than two CPUs to pin the workers on";
    }
    if (realtime && why.empty()) fifoPermitted(options.priority, &why);
    if (!why.empty()) {
      std::printf("skipping the pinned cases: %s\n", why.c_str());
      ++skipped;
      continue;
    }
    std::vector<Transport> transports = options.transports;
    Roudi roudi;
    if (wantsIceoryx && !roudi.start(options, !realtime, &why)) {
      std::printf("iceoryx left out of the %s cases: %s\n", realtime ? "pinned" : "unpinned",
                  why.c_str());
      transports.erase(std::remove(transports.begin(), transports.end(), Transport::kIceoryx),
                       transports.end());
      ok = false;
    }
    if (transports.empty()) continue;
    ++ran;
    for (size_t bytes : options.sizes) {
      for (bool blocking : options.blocking) {
        if (gInterrupted) break;
        ok = runPingPongCase(options, realtime, blocking, bytes, transports, &blockCounter) && ok;
      }
    }
    if (options.publishSamples > 0 && !gInterrupted) {
      ok = runPublishCase(options, realtime, transports, &blockCounter) && ok;
    }
  }
  if (gInterrupted) {
    std::fprintf(stderr, "%s: interrupted\n", kProgram);
    return 130;
  }
  if (ran == 0 && skipped > 0) return 77;
  return ok ? 0 : 1;
}
