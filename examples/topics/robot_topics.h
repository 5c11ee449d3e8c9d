// What the topic examples share: the sample types of a small robot cell (joint states from the
// driver, joint commands from the controller), their topics, and the figures each real-time
// loop keeps about what it read: the age of each sample at read, and samples missed or seen
// twice.
#ifndef KELVO_EXAMPLES_TOPICS_ROBOT_TOPICS_H_
#define KELVO_EXAMPLES_TOPICS_ROBOT_TOPICS_H_

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "mosk/kelvo/thread.h"
#include "mosk/kelvo/topic.h"
#include "tcp_example_options.h"  // Options and the shutdown signals (not TCP-specific)

namespace robot {

constexpr int kJoints = 6;

struct JointState {
  uint64_t cycle;
  double position[kJoints];
  double velocity[kJoints];
  double effort[kJoints];
};
KELVO_TOPIC_TYPE(JointState, "robot/JointState", 1);

struct JointCommand {
  uint64_t stateSequence;  // the joint state it answers
  double position[kJoints];
  double velocity[kJoints];
};
KELVO_TOPIC_TYPE(JointCommand, "robot/JointCommand", 1);

// Every process uses the same depths: whoever starts first creates the topic with them.
constexpr mosk::kelvo::TopicOptions kJointStateOptions{64};  // room for the logger
constexpr mosk::kelvo::TopicOptions kCommandOptions{16};

constexpr unsigned kPeriodUs = 1000;
constexpr int kNotRunnable = 77;

inline std::string jointStateTopic(const std::string& prefix) { return prefix + "/joints"; }
inline std::string commandTopic(const std::string& prefix) { return prefix + "/commands"; }

inline int64_t monotonicNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// What a loop saw of one topic, recorded on the real-time thread without allocating (the room
// is reserved before the loop starts; reads beyond it are counted but their ages dropped).
class ReadFigures {
 public:
  explicit ReadFigures(size_t capacity) { agesNs_.reserve(capacity); }

  // One read of the sample with `sequence`, published `ageNs` ago.
  void record(uint64_t sequence, int64_t ageNs) {
    ++reads_;
    if (agesNs_.size() < agesNs_.capacity()) agesNs_.push_back(ageNs);
    if (sequence == last_) {
      ++seenTwice_;
    } else if (last_ != 0 && sequence > last_ + 1) {
      missed_ += sequence - last_ - 1;
    }
    last_ = sequence;
  }

  // "read N <what>: age at read p50 X us, p99 Y us, max Z us; missed A, seen twice B"
  std::string summary(const char* what) const {
    char text[256];
    if (agesNs_.empty()) {
      std::snprintf(text, sizeof text, "read no %s", what);
      return text;
    }
    std::vector<int64_t> sorted = agesNs_;
    std::sort(sorted.begin(), sorted.end());
    auto percentile = [&sorted](double p) {
      return static_cast<double>(sorted[static_cast<size_t>(p * (sorted.size() - 1))]) / 1000.0;
    };
    std::snprintf(text, sizeof text,
                  "read %llu %s: age at read p50 %.0f us, p99 %.0f us, max %.0f us; missed %llu, "
                  "seen twice %llu",
                  static_cast<unsigned long long>(reads_), what, percentile(0.5), percentile(0.99),
                  static_cast<double>(sorted.back()) / 1000.0,
                  static_cast<unsigned long long>(missed_),
                  static_cast<unsigned long long>(seenTwice_));
    return text;
  }

 private:
  std::vector<int64_t> agesNs_;
  uint64_t reads_ = 0;
  uint64_t last_ = 0;
  uint64_t missed_ = 0;
  uint64_t seenTwice_ = 0;
};

// Whether this process may run a SCHED_FIFO thread: without it PeriodicThread has no thread.
inline bool mayUseSchedFifo(int priority) {
  int result = -1;
  std::thread([&] { result = mosk::kelvo::setPriority(priority); }).join();
  return result == 0;
}

// The options every loop takes, validated. --offset-us is the loop's place on the shared grid
// ("none": deadlines wherever the constructor put them).
struct LoopOptions {
  long seconds;
  std::string prefix;
  bool aligned;
  long offsetUs;
  int cpu;
  int priority;
};

inline LoopOptions parseLoopOptions(const char* program, int argc, char** argv,
                                    const char* defaultOffset) {
  static const char* usage =
      "[--seconds 1..3600] [--prefix NAME] [--offset-us 0..999|none] [--cpu N|-1] "
      "[--priority 1..99]";
  tcp_example::Options options(program, argc, argv,
                               {{"seconds", "10"},
                                {"prefix", "robot"},
                                {"offset-us", defaultOffset},
                                {"cpu", "-1"},
                                {"priority", "80"}},
                               usage);
  LoopOptions loop;
  loop.seconds = options.integer("seconds", 1, 3600);
  loop.prefix = options.text("prefix");
  const std::string why = mosk::kelvo::topicNameError(jointStateTopic(loop.prefix));
  if (!why.empty()) options.fail("bad --prefix '" + loop.prefix + "': " + why);
  loop.aligned = options.text("offset-us") != "none";
  loop.offsetUs = loop.aligned ? options.integer("offset-us", 0, kPeriodUs - 1) : 0;
  const long cpus = static_cast<long>(std::thread::hardware_concurrency());
  loop.cpu = static_cast<int>(options.integer("cpu", -1, cpus - 1));
  loop.priority = static_cast<int>(options.integer("priority", 1, 99));
  return loop;
}

// Sleeps until the time is up or SIGINT/SIGTERM arrives.
inline void runFor(long seconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!tcp_example::stopRequested().load() && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

// Ends the program with kNotRunnable when it may not run a SCHED_FIFO thread at `priority`;
// otherwise installs the shutdown signals.
inline void requireSchedFifo(const char* program, int priority) {
  if (!mayUseSchedFifo(priority)) {
    std::printf("%s needs SCHED_FIFO: run it as root or grant CAP_SYS_NICE.\n", program);
    std::exit(kNotRunnable);
  }
  tcp_example::installSignalHandlers();
}

// True (after saying why on standard error) when either endpoint did not connect.
template <typename First, typename Second>
bool unconnected(const char* program, const First& first, const Second& second) {
  if (first && second) return false;
  std::fprintf(stderr, "%s: %s\n", program, (!first ? first.error() : second.error()).c_str());
  return true;
}

// Runs the loop (its tasks added) for the options' time, on the grid if asked, then stops and
// joins it (the destructor does neither).
inline void runLoop(const char* program, const char* doing, mosk::kelvo::PeriodicThread& thread,
                    const LoopOptions& options) {
  if (options.aligned) thread.setGridOffset(options.offsetUs);
  const std::string where =
      options.aligned ? "on the grid at offset " + std::to_string(options.offsetUs) + " us"
                      : "not aligned";
  std::printf("%s: %s %s at 1 kHz for %ld s, %s\n", program, doing,
              jointStateTopic(options.prefix).c_str(), options.seconds, where.c_str());
  std::fflush(stdout);
  thread.start(900);
  runFor(options.seconds);
  thread.stop();
  thread.join();
}

}  // namespace robot

#endif  // KELVO_EXAMPLES_TOPICS_ROBOT_TOPICS_H_
