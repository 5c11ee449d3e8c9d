// Loads each plug-in named on the command line (libhello_plugin.so, written with KELVO_PLUGIN,
// then libplain_plugin.so, written the plain way), checks what it published and unloads it.
// Exits 0 when all is as expected, otherwise with a code that says which step failed.
#include <mosk/kelvo/plugin.h>

#include <cstdio>
#include <string>

namespace {

// Loads `path`, compares the loader's dump with `expected`, unloads. 0, or the failing step.
int loadCheckUnload(mosk::kelvo::PluginLoader& loader, const char* path,
                    const std::string& expected) {
  void* handle = loader.load(path);
  if (handle == nullptr) {
    std::printf("%s: not loaded\n", path);
    return 3;
  }
  const std::string dump = loader.dump();
  std::fputs(dump.c_str(), stdout);
  if (dump != expected) return 4;
  loader.unload(handle);
  if (loader.dump() != "services: 0 \n \n") return 5;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  mosk::kelvo::PluginLoader loader(2003000);
  int status =
      loadCheckUnload(loader, argv[1],
                      "fileName: libhello_plugin.so, className: HelloActivator, pluginName: hello, "
                      "pluginVersion: 1.0.0 \nservices: 1 \nhello.greeting \n");
  if (status == 0) {
    status = loadCheckUnload(
        loader, argv[2],
        "fileName: libplain_plugin.so, className: PlainActivator, pluginName: plain, "
        "pluginVersion: 1.2.0 \nservices: 1 \nplain.answer \n");
    if (status != 0) status += 10;
  }
  loader.shutdown();
  return status;
}
