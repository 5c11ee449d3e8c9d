// A plug-in that publishes a service and adds a pool task: a counter that ticks every 5 ms.
#include <mosk/kelvo/plugin.h>

#include "tick_counter.h"

using mosk::kelvo::PluginContext;

class TickCounterActivator : public mosk::kelvo::PluginActivator {
 public:
  int start(PluginContext* context) override {
    context->RegisterService("example.ticks", &counter_);
    context->addThreadTask("tick", [this] { counter_.ticks.fetch_add(1); });
    return 0;
  }
  int stop(PluginContext* context) override {
    context->removeThreadTask("tick");  // the library is closed right after stop()
    context->UnregisterService("example.ticks");
    return 0;
  }

 private:
  TickCounter counter_;
};

KELVO_PLUGIN(TickCounterActivator, "tick-counter", 1000000, 1000000);
