// kelvo-topic-driver: the hardware side of a robot cell. A 1 kHz PeriodicThread publishes the
// joint states (simulated here) and reads the newest joint command each cycle.
//
//   kelvo-topic-driver [--seconds 1..3600] [--prefix NAME] [--offset-us 0..999|none]
//                      [--cpu N|-1] [--priority 1..99] [--trace FILE.json]
//
// --offset-us puts the loop's deadlines on the grid shared by every process (multiples of the
// period on CLOCK_MONOTONIC plus the offset; default 0); "none" leaves them where the thread's
// constructor put them. At the end it prints what it read of the commands: their age at read
// (p50, p99, max) and commands missed or seen twice, counted only while the controller is alive.
// --trace writes the loop's time trace, with its publish events, as trace-viewer JSON. Needs
// SCHED_FIFO (root or CAP_SYS_NICE); exits with 77 without it.
#include <cmath>
#include <cstdio>
#include <string>

#include "mosk/kelvo/thread.h"
#include "mosk/kelvo/time_trace.h"
#include "mosk/kelvo/topic.h"
#include "robot_topics.h"

namespace {

using mosk::kelvo::PeriodicThread;
using mosk::kelvo::Publisher;
using mosk::kelvo::Sample;
using mosk::kelvo::ScheduleMethod;
using mosk::kelvo::Subscriber;

// Splits "--trace FILE" off the arguments (the loop options parser knows the others).
std::string takeTraceOption(int* argc, char** argv) {
  std::string path;
  int kept = 1;
  for (int i = 1; i < *argc; ++i) {
    if (std::string(argv[i]) == "--trace" && i + 1 < *argc) {
      path = argv[++i];
    } else {
      argv[kept++] = argv[i];
    }
  }
  *argc = kept;
  return path;
}

}  // namespace

int main(int argc, char** argv) {
  const char* program = "kelvo-topic-driver";
  const std::string tracePath = takeTraceOption(&argc, argv);
  const robot::LoopOptions options = robot::parseLoopOptions(program, argc, argv, "0");
  robot::requireSchedFifo(program, options.priority);

  Publisher<robot::JointState> states(robot::jointStateTopic(options.prefix),
                                      robot::kJointStateOptions);
  Subscriber<robot::JointCommand> commands(robot::commandTopic(options.prefix),
                                           robot::kCommandOptions);
  if (robot::unconnected(program, states, commands)) return 1;
  robot::ReadFigures figures(static_cast<size_t>(options.seconds) * 1000 + 1000);
  robot::JointState state{};

  PeriodicThread thread(robot::kPeriodUs, "driver", ScheduleMethod::Sequential, options.cpu,
                        options.priority);
  if (thread.getCreationError() != 0) return robot::kNotRunnable;
  if (!tracePath.empty()) {
    thread.setTraceEnabled(true);
    states.setTraceEnabled(true);
  }
  thread.addTask(
      "io",
      [&] {
        // Read the newest command, then publish this cycle's joint state.
        Sample<robot::JointCommand> command;
        if (commands.latest(command) && commands.publisherAlive()) {
          figures.record(command.sequence, robot::monotonicNs() - command.publishTimeNs);
        }
        ++state.cycle;
        for (int j = 0; j < robot::kJoints; ++j) {
          const double phase = static_cast<double>(state.cycle) * 1e-3 + j;
          state.position[j] = std::sin(phase);
          state.velocity[j] = std::cos(phase);
          state.effort[j] = 0.1 * j;
        }
        states.publish(state);
      },
      0, 500);
  robot::runLoop(program, "publishing", thread, options);

  std::printf("%s: published %llu joint states; %s\n", program,
              static_cast<unsigned long long>(states.published()),
              figures.summary("commands").c_str());
  if (!tracePath.empty() && mosk::kelvo::TimeTrace::writeTraceJson(tracePath.c_str()) != 0) {
    return 1;
  }
  return 0;
}
