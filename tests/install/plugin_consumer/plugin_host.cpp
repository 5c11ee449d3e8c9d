// Loads the plug-in named on the command line, checks what it published and unloads it.
#include <mosk/kelvo/plugin.h>

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  mosk::kelvo::PluginLoader loader(2003000);
  void* handle = loader.load(argv[1]);
  if (handle == nullptr) return 3;
  const std::string dump = loader.dump();
  std::fputs(dump.c_str(), stdout);
  const std::string expected =
      "fileName: libhello_plugin.so, className: HelloActivator, pluginName: hello, "
      "pluginVersion: 1.0.0 \nservices: 1 \nhello.greeting \n";
  if (dump != expected) return 4;
  loader.unload(handle);
  if (loader.dump() != "services: 0 \n \n") return 5;
  loader.shutdown();
  return 0;
}
