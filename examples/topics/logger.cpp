// kelvo-topic-logger: takes every joint state in order, sleeping in wait() between them (an
// ordinary thread: wait() is for threads that may block).
//
//   kelvo-topic-logger [--seconds 1..3600] [--prefix NAME] [--csv FILE]
//
// At the end it prints how many states it took and how many the ring no longer held when it
// came to them (lost). --csv writes one line per state: sequence, publish time (ns), first
// joint's position.
#include <cstdio>
#include <memory>
#include <string>

#include "mosk/kelvo/topic.h"
#include "robot_topics.h"

int main(int argc, char** argv) {
  const char* program = "kelvo-topic-logger";
  tcp_example::Options options(program, argc, argv,
                               {{"seconds", "10"}, {"prefix", "robot"}, {"csv", ""}},
                               "[--seconds 1..3600] [--prefix NAME] [--csv FILE]");
  const long seconds = options.integer("seconds", 1, 3600);
  const std::string prefix = options.text("prefix");
  const std::string why = mosk::kelvo::topicNameError(robot::jointStateTopic(prefix));
  if (!why.empty()) options.fail("bad --prefix '" + prefix + "': " + why);
  std::unique_ptr<FILE, int (*)(FILE*)> csv(nullptr, &std::fclose);
  if (!options.text("csv").empty()) {
    csv.reset(std::fopen(options.text("csv").c_str(), "w"));
    if (!csv) options.fail("cannot write --csv '" + options.text("csv") + "'");
  }
  tcp_example::installSignalHandlers();

  mosk::kelvo::Subscriber<robot::JointState> states(robot::jointStateTopic(prefix),
                                                    robot::kJointStateOptions);
  if (!states) {
    std::fprintf(stderr, "%s: %s\n", program, states.error().c_str());
    return 1;
  }
  std::printf("%s: taking %s for %ld s\n", program, robot::jointStateTopic(prefix).c_str(),
              seconds);
  std::fflush(stdout);
  uint64_t taken = 0, lostTotal = 0, wakeUps = 0, last = 0;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!tcp_example::stopRequested().load() && std::chrono::steady_clock::now() < end) {
    if (!states.wait(std::chrono::milliseconds(100))) continue;
    ++wakeUps;
    mosk::kelvo::Sample<robot::JointState> state;
    uint64_t lost = 0;
    while (states.take(state, &lost)) {
      ++taken;
      lostTotal += lost;
      last = state.sequence;
      if (csv) {
        std::fprintf(csv.get(), "%llu,%lld,%.6f\n", static_cast<unsigned long long>(state.sequence),
                     static_cast<long long>(state.publishTimeNs), state.value.position[0]);
      }
    }
  }
  std::printf("%s: took %llu joint states in %llu wake-ups, lost %llu, last sequence %llu\n",
              program, static_cast<unsigned long long>(taken),
              static_cast<unsigned long long>(wakeUps), static_cast<unsigned long long>(lostTotal),
              static_cast<unsigned long long>(last));
  return 0;
}
