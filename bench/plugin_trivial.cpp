// The trivial plug-in the load/unload benchmark opens: an activator that does nothing.
#include <mosk/kelvo/plugin.h>

class TrivialActivator : public mosk::kelvo::PluginActivator {
 public:
  int start(mosk::kelvo::PluginContext*) override { return 0; }
  int stop(mosk::kelvo::PluginContext*) override { return 0; }
};

KELVO_PLUGIN(TrivialActivator, "trivial", 1000000, 1000000);
