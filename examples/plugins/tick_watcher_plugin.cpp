// A plug-in that uses another plug-in's service: it looks the tick counter up in start() and
// reads it from its own pool task, publishing the largest step it saw between two of its runs
// as "example.max_step" (1 while the two tasks keep pace).
#include <mosk/kelvo/plugin.h>

#include <cstdio>

#include "tick_counter.h"

using mosk::kelvo::PluginContext;

class TickWatcherActivator : public mosk::kelvo::PluginActivator {
 public:
  int start(PluginContext* context) override {
    // Look services up here, on the host's thread: the registry is not for pool tasks.
    counter_ = static_cast<TickCounter*>(context->GetService("example.ticks"));
    if (counter_ == nullptr) {
      std::printf("tick-watcher: no \"example.ticks\" service; load tick-counter first\n");
      return -1;
    }
    context->RegisterService("example.max_step", &maxStep_);
    context->addThreadTask("watch", [this] { watch(); });
    return 0;
  }
  int stop(PluginContext* context) override {
    context->removeThreadTask("watch");
    context->UnregisterService("example.max_step");
    return 0;
  }

 private:
  void watch() {
    const uint64_t now = counter_->ticks.load();
    if (last_ != 0 && now - last_ > maxStep_.load()) maxStep_.store(now - last_);
    last_ = now;
  }

  TickCounter* counter_ = nullptr;
  uint64_t last_ = 0;  // pool thread only
  std::atomic<uint64_t> maxStep_{0};
};

KELVO_PLUGIN(TickWatcherActivator, "tick-watcher", 1000000, 1000000);
