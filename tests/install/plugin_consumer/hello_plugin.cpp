// A plug-in of an outside project: one activator and the one-line "exports" record.
#include <mosk/kelvo/plugin.h>

namespace {
int greeting = 42;
}

class HelloActivator : public mosk::kelvo::PluginActivator {
 public:
  int start(mosk::kelvo::PluginContext* context) override {
    context->RegisterService("hello.greeting", &greeting);
    return 0;
  }
  int stop(mosk::kelvo::PluginContext* context) override {
    context->UnregisterService("hello.greeting");
    return 0;
  }
};

KELVO_PLUGIN(HelloActivator, "hello", 1000000, 2003000);
