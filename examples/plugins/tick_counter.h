// The service the tick-counter plug-in publishes as "example.ticks" and the tick-watcher
// plug-in uses. Plain atomics: the pool thread writes, anyone may read.
#ifndef KELVO_EXAMPLES_PLUGINS_TICK_COUNTER_H_
#define KELVO_EXAMPLES_PLUGINS_TICK_COUNTER_H_

#include <atomic>
#include <cstdint>

struct TickCounter {
  std::atomic<uint64_t> ticks{0};  // one per 5 ms period of the pool thread
};

#endif  // KELVO_EXAMPLES_PLUGINS_TICK_COUNTER_H_
