// kelvo-plugin-host: loads the plug-ins named on its command line, prints the loader's dump()
// every second for a given time, unloads them and exits.
//
//   kelvo-plugin-host [--seconds N] [--master VERSION] PLUGIN.so...
//
// --seconds  how long to run (default 3; 0 loads, dumps once and unloads)
// --master   the host's encoded version, major*1000000+minor*1000+patch (default 1000000)
// Exits 0 when every plug-in loaded and was unloaded, 1 when one could not be loaded (the
// others are unloaded cleanly), 2 on a bad argument.
#include <mosk/kelvo/plugin.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Options {
  long seconds = 3;
  int master = 1000000;
  std::vector<std::string> plugins;
};

[[noreturn]] void usageError(const std::string& message) {
  std::fprintf(stderr, "kelvo-plugin-host: %s\n", message.c_str());
  std::fprintf(stderr, "usage: kelvo-plugin-host [--seconds N] [--master VERSION] PLUGIN.so...\n");
  std::exit(2);
}

long parseNumber(const char* option, const char* text, long max) {
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || value < 0 || value > max) {
    usageError(std::string("bad value for ") + option + ": '" + text + "'");
  }
  return value;
}

Options parseOptions(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "--seconds" || argument == "--master") {
      if (i + 1 >= argc) usageError("missing value for " + argument);
      const long value =
          parseNumber(argv[i], argv[i + 1], argument == "--master" ? 2147483647 : 86400);
      if (argument == "--seconds")
        options.seconds = value;
      else
        options.master = static_cast<int>(value);
      ++i;
    } else if (argument.rfind("-", 0) == 0) {
      usageError("unknown option '" + argument + "'");
    } else {
      options.plugins.push_back(argument);
    }
  }
  if (options.plugins.empty()) usageError("no plug-in given");
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parseOptions(argc, argv);
  mosk::kelvo::PluginLoader loader(options.master);
  int status = 0;
  for (const std::string& path : options.plugins) {
    try {
      if (loader.load(path) == nullptr) {
        std::printf("%s: not loaded\n", path.c_str());
        status = 1;
      }
    } catch (const std::exception& failure) {
      std::printf("%s: %s\n", path.c_str(), failure.what());
      status = 1;
    }
  }
  for (long second = 0; status == 0 && second <= options.seconds; ++second) {
    std::printf("--- %lds\n%s", second, loader.dump().c_str());
    std::fflush(stdout);
    if (second < options.seconds) std::this_thread::sleep_for(std::chrono::seconds(1));
  }
  // Stops the pool thread and unloads everything; the destructor then returns at once.
  loader.shutdown();
  return status;
}
