// Loads each plug-in named on the command line (libhello_plugin.so, written with KELVO_PLUGIN,
// then libplain_plugin.so, written the plain way), checks what it published and unloads it.
// The host shares services with the plug-ins through the loader's own context: it publishes
// "host.factor", which the plain plug-in uses, and reads what the plug-ins publish.
// Exits 0 when all is as expected, otherwise with a code that says which step failed.
#include <mosk/kelvo/plugin.h>

#include <cstdio>
#include <string>

namespace {

constexpr int kMaster = 2003000;

void* loadAndDump(mosk::kelvo::PluginLoader& loader, const char* path, std::string& dump) {
  void* handle = loader.load(path);
  if (handle == nullptr) {
    std::printf("%s: not loaded\n", path);
    return nullptr;
  }
  dump = loader.dump();
  std::fputs(dump.c_str(), stdout);
  return handle;
}

int checkHello(mosk::kelvo::PluginLoader& loader, const char* path) {
  std::string dump;
  void* handle = loadAndDump(loader, path, dump);
  if (handle == nullptr) return 3;
  if (dump !=
      "fileName: libhello_plugin.so, className: HelloActivator, pluginName: hello, "
      "pluginVersion: 1.0.0 \nservices: 1 \nhello.greeting \n")
    return 4;
  const auto* greeting = static_cast<const int*>(loader.getContext().GetService("hello.greeting"));
  if (greeting == nullptr || *greeting != 42) return 5;
  loader.unload(handle);
  if (loader.dump() != "services: 0 \n \n") return 6;
  return 0;
}

int checkPlain(mosk::kelvo::PluginLoader& loader, const char* path) {
  static const int factor = 6;
  loader.getContext().RegisterService("host.factor", const_cast<int*>(&factor));
  std::string dump;
  void* handle = loadAndDump(loader, path, dump);
  if (handle == nullptr) return 13;
  const std::string line =
      "fileName: libplain_plugin.so, className: PlainActivator, pluginName: plain, "
      "pluginVersion: 1.2.0 \nservices: 2 \n";
  if (dump != line + "host.factor, plain.answer \n" &&
      dump != line + "plain.answer, host.factor \n")
    return 14;
  const auto* answer = static_cast<const int*>(loader.getContext().GetService("plain.answer"));
  if (answer == nullptr || *answer != 42) return 15;
  loader.unload(handle);
  loader.getContext().UnregisterService("host.factor");
  if (loader.dump() != "services: 0 \n \n") return 16;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  mosk::kelvo::PluginLoader loader(kMaster);
  int status = checkHello(loader, argv[1]);
  if (status == 0) status = checkPlain(loader, argv[2]);
  loader.shutdown();  // then destruction returns at once
  return status;
}
