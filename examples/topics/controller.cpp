// kelvo-topic-controller: the control side of a robot cell. A 1 kHz PeriodicThread reads the
// newest joint state with latest() each cycle and publishes a joint command.
//
//   kelvo-topic-controller [--seconds 1..3600] [--prefix NAME] [--offset-us 0..999|none]
//                          [--cpu N|-1] [--priority 1..99]
//
// --offset-us puts the loop's deadlines on the grid shared by every process (default 300: a
// driver at offset 0 has published 300 us before each read); "none" leaves them where the
// thread's constructor put them. At the end it prints what it read: the age of each joint state
// at read (p50, p99, max) and states missed or seen twice, counted only while the driver is
// alive. Needs SCHED_FIFO (root or CAP_SYS_NICE); exits with 77 without it.
#include <cstdio>
#include <string>

#include "mosk/kelvo/thread.h"
#include "mosk/kelvo/topic.h"
#include "robot_topics.h"

namespace {

using mosk::kelvo::PeriodicThread;
using mosk::kelvo::Publisher;
using mosk::kelvo::Sample;
using mosk::kelvo::ScheduleMethod;
using mosk::kelvo::Subscriber;

// A proportional step towards a fixed pose: enough to make a command out of a state.
robot::JointCommand control(const Sample<robot::JointState>& state) {
  robot::JointCommand command{};
  command.stateSequence = state.sequence;
  for (int j = 0; j < robot::kJoints; ++j) {
    command.position[j] = 0.5 * state.value.position[j];
    command.velocity[j] = -2.0 * state.value.position[j];
  }
  return command;
}

}  // namespace

int main(int argc, char** argv) {
  const char* program = "kelvo-topic-controller";
  const robot::LoopOptions options = robot::parseLoopOptions(program, argc, argv, "300");
  robot::requireSchedFifo(program, options.priority);

  Subscriber<robot::JointState> states(robot::jointStateTopic(options.prefix),
                                       robot::kJointStateOptions);
  Publisher<robot::JointCommand> commands(robot::commandTopic(options.prefix),
                                          robot::kCommandOptions);
  if (robot::unconnected(program, states, commands)) return 1;
  robot::ReadFigures figures(static_cast<size_t>(options.seconds) * 1000 + 1000);

  PeriodicThread thread(robot::kPeriodUs, "controller", ScheduleMethod::Sequential, options.cpu,
                        options.priority);
  if (thread.getCreationError() != 0) return robot::kNotRunnable;
  thread.addTask(
      "control",
      [&] {
        Sample<robot::JointState> state;
        // publisherAlive() is one atomic load: cheap enough for every cycle.
        if (!states.latest(state) || !states.publisherAlive()) return;
        figures.record(state.sequence, robot::monotonicNs() - state.publishTimeNs);
        commands.publish(control(state));
      },
      0, 500);
  robot::runLoop(program, "reading", thread, options);

  std::printf("%s: %s; published %llu commands\n", program, figures.summary("joint states").c_str(),
              static_cast<unsigned long long>(commands.published()));
  return 0;
}
