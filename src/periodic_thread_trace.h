// The texts of the events a periodic thread's loop records in its time trace, defined once: the
// loop records them, the trace-viewer JSON recognises them (by their text, with strcmp) to turn
// passes and task runs into slices, and the tests record them to drive that renderer. Private
// to the library and its tests. Changing a text changes the trace's output format.
//
// Threading rules: constants only.
#ifndef KELVO_SRC_PERIODIC_THREAD_TRACE_H_
#define KELVO_SRC_PERIODIC_THREAD_TRACE_H_

namespace mosk {
namespace kelvo {
namespace internal {

// A pass begins. arg0: the number of tasks in the pass.
inline constexpr char kPassStartFormat[] = "Task FRAME ++++++++++ started, %d tasks";
// A task's run begins. arg0: the task's position in the pass; arg2 and arg3, which the text does
// not print: the low and high words of the task's serial (TraceTaskNames).
inline constexpr char kTaskStartFormat[] = "Task[%d] >>>>>>>> started";
// A task's run ends. arg0: the position; arg1: the runs the task had completed before this one;
// arg2 and arg3: the serial, as above.
inline constexpr char kTaskEndFormat[] = "Task[%d] <<<<<<<< end %d";

}  // namespace internal
}  // namespace kelvo
}  // namespace mosk

#endif  // KELVO_SRC_PERIODIC_THREAD_TRACE_H_
