// Option parsing and shutdown signals shared by the TCP examples: every option is
// "--name value", validated, and a bad one ends the program with a message naming it.
#ifndef KELVO_EXAMPLES_TCP_EXAMPLE_OPTIONS_H_
#define KELVO_EXAMPLES_TCP_EXAMPLE_OPTIONS_H_

#include <signal.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <thread>

namespace tcp_example {

inline std::atomic<bool>& stopRequested() {
  static std::atomic<bool> requested{false};
  return requested;
}

// SIGINT and SIGTERM ask the program to end cleanly; SIGPIPE is ignored (see blockSigpipe).
inline void installSignalHandlers() {
  struct sigaction action {};
  action.sa_handler = [](int) { stopRequested().store(true); };
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

// Calls update() every 100 ms until SIGINT/SIGTERM or, unless `seconds` is 0, the time is up.
template <class Server>
void updateUntilStopped(Server* server, long seconds) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!stopRequested().load() && (seconds == 0 || std::chrono::steady_clock::now() < deadline)) {
    server->update();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
}

class Options {
 public:
  // `known` maps each option name (without "--") to its default value.
  Options(const char* program, int argc, char** argv, std::map<std::string, std::string> known,
          const char* usage)
      : program_(program), values_(std::move(known)), usage_(usage) {
    for (int i = 1; i < argc; ++i) {
      std::string arg = argv[i];
      if (arg == "--help" || arg == "-h") {
        std::printf("usage: %s %s\n", program_, usage_);
        std::exit(0);
      }
      if (arg.rfind("--", 0) != 0 || values_.count(arg.substr(2)) == 0) {
        fail("unknown option '" + arg + "'");
      }
      if (i + 1 >= argc) fail("option '" + arg + "' needs a value");
      values_[arg.substr(2)] = argv[++i];
    }
  }
  std::string text(const std::string& name) const { return values_.at(name); }
  // The option as an integer within [min, max], or the program ends naming it.
  long integer(const std::string& name, long min, long max) const {
    const std::string& value = values_.at(name);
    char* end = nullptr;
    errno = 0;
    long number = std::strtol(value.c_str(), &end, 10);
    if (value.empty() || *end != '\0' || errno != 0 || number < min || number > max) {
      fail("--" + name + " must be an integer from " + std::to_string(min) + " to " +
           std::to_string(max) + ", got '" + value + "'");
    }
    return number;
  }
  [[noreturn]] void fail(const std::string& message) const {
    std::fprintf(stderr, "%s: %s\nusage: %s %s\n", program_, message.c_str(), program_, usage_);
    std::exit(2);
  }

 private:
  const char* program_;
  std::map<std::string, std::string> values_;
  const char* usage_;
};

}  // namespace tcp_example

#endif  // KELVO_EXAMPLES_TCP_EXAMPLE_OPTIONS_H_
