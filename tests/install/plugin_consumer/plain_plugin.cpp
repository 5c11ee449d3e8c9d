// A plug-in of an outside project that writes its record the plain way, with no macro and no
// visibility attribute (in the one-line form without braces, about which GCC warns "initialized
// and declared 'extern'"): kelvo_add_plugin exports "exports" all the same. It uses the service
// "host.factor" that the host publishes, and publishes "plain.answer" (7 times the factor).
#include <mosk/kelvo/plugin.h>

namespace {

int answer = 0;

class PlainActivator : public mosk::kelvo::PluginActivator {
 public:
  int start(mosk::kelvo::PluginContext* context) override {
    const auto* factor = static_cast<const int*>(context->GetService("host.factor"));
    answer = factor == nullptr ? -1 : 7 * *factor;
    context->RegisterService("plain.answer", &answer);
    return 0;
  }
  int stop(mosk::kelvo::PluginContext* context) override {
    context->UnregisterService("plain.answer");
    return 0;
  }
};

mosk::kelvo::PluginActivator* createPlain() { return new PlainActivator; }
void destroyPlain(mosk::kelvo::PluginActivator* activator) { delete activator; }

}  // namespace

extern "C" mosk::kelvo::PluginDetails exports{
    1,       1002000,     2003000,     "libplain_plugin.so", "PlainActivator",
    "plain", createPlain, destroyPlain};
