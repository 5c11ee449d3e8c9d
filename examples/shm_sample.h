// The sample that kelvo-shm-publisher writes and kelvo-shm-subscriber reads, and the options
// both accept.
//
// The data area of a topic starts 372 bytes into the segment, so it is aligned to 4 bytes only:
// the sample is copied in and out with memcpy rather than used in place.
#ifndef KELVO_EXAMPLES_SHM_SAMPLE_H_
#define KELVO_EXAMPLES_SHM_SAMPLE_H_

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace shm_example {

struct Sample {
  uint64_t sequence;  // 1 for the first sample
  uint64_t tsc;       // time-stamp counter when it was written
  char payload[48];
};

constexpr const char* kDefaultTopic = "kelvo_samples";

struct Options {
  std::string topic = kDefaultTopic;
  int seconds = 5;
};

// Parses "--topic NAME" and "--seconds N" (1..3600); prints a message naming the bad argument
// and returns false on anything else.
inline bool parseOptions(const char* program, int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if ((arg == "--topic" || arg == "--seconds") && i + 1 == argc) {
      std::fprintf(stderr, "%s: %s needs a value\n", program, arg.c_str());
      return false;
    }
    if (arg == "--topic") {
      options->topic = argv[++i];
      if (options->topic.empty() || options->topic.size() > 44) {
        std::fprintf(stderr, "%s: invalid topic '%s' (1 to 44 bytes)\n", program, argv[i]);
        return false;
      }
    } else if (arg == "--seconds") {
      char* end = nullptr;
      long seconds = std::strtol(argv[++i], &end, 10);
      if (*argv[i] == '\0' || *end != '\0' || seconds < 1 || seconds > 3600) {
        std::fprintf(stderr, "%s: invalid --seconds '%s' (1 to 3600)\n", program, argv[i]);
        return false;
      }
      options->seconds = static_cast<int>(seconds);
    } else {
      std::fprintf(stderr, "%s: unknown argument '%s'\nusage: %s [--topic NAME] [--seconds N]\n",
                   program, arg.c_str(), program);
      return false;
    }
  }
  return true;
}

}  // namespace shm_example

#endif  // KELVO_EXAMPLES_SHM_SAMPLE_H_
