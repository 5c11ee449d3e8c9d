// A second process for the typed-topic tests, started fresh with exec so that it shares nothing
// with the test process but the topic. Usage: kelvo_topic_helper ROLE TOPIC [ARGS]. It reports
// on standard output, one line per step, and takes commands from standard input.
//
//   publisher TOPIC         connects a Publisher<Pattern>; commands:
//                             publish N   publishes N samples ("published <sequence>")
//                             loan        loans the next slot and fills half of it ("loaned")
//                             exit        returns from main (destructors run)
//                             abandon     _exit(0) without destructors
//   subscriber TOPIC        connects a Subscriber<Pattern>; commands:
//                             latest      "latest <sequence> <intact 0|1>" or "latest none"
//                             alive       "alive <0|1>"
//   wait TOPIC              a Subscriber that reports "ready", then waits up to 60 s for a
//                           sample ("woken <0|1>")
//   blast TOPIC N CPU       pinned to CPU, publishes N samples as fast as it can, alternating
//                           publish() and loan(); "connected", then "done <sequence>"
//   hold TOPIC N            publishes N samples, one per millisecond, then holds the topic until
//                           standard input closes (for kelvo-topics)
// A role that cannot connect reports "refused: <error>" and exits 3.
#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>

#include "mosk/kelvo/topic.h"
#include "topic_samples.h"

namespace {

using mosk::kelvo::Publisher;
using mosk::kelvo::Sample;
using mosk::kelvo::Subscriber;
using topictest::Pattern;

void report(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

template <typename Endpoint>
bool connected(const Endpoint& endpoint) {
  if (endpoint) {
    report("connected");
    return true;
  }
  report("refused: " + endpoint.error());
  return false;
}

int publisher(const std::string& topic) {
  Publisher<Pattern> out(topic);
  if (!connected(out)) return 3;
  std::string command;
  while (std::cin >> command) {
    if (command == "publish") {
      int count = 0;
      std::cin >> count;
      for (int i = 0; i < count; ++i) {
        out.publish(topictest::patternOf<Pattern>(out.sequence() + 1));
      }
      report("published " + std::to_string(out.sequence()));
    } else if (command == "loan") {
      Pattern& slot = out.loan();
      const Pattern next = topictest::patternOf<Pattern>(out.sequence() + 1);
      for (size_t i = 0; i < 4; ++i) slot.words[i] = next.words[i];
      report("loaned");
    } else if (command == "exit") {
      return 0;
    } else if (command == "abandon") {
      std::fflush(stdout);
      _exit(0);
    }
  }
  return 0;
}

int subscriber(const std::string& topic) {
  Subscriber<Pattern> in(topic);
  if (!connected(in)) return 3;
  std::string command;
  while (std::cin >> command) {
    if (command == "latest") {
      Sample<Pattern> sample;
      if (in.latest(sample)) {
        const bool intact = topictest::sequenceOf(sample.value) == sample.sequence;
        report("latest " + std::to_string(sample.sequence) + " " + (intact ? "1" : "0"));
      } else {
        report("latest none");
      }
    } else if (command == "alive") {
      report(std::string("alive ") + (in.publisherAlive() ? "1" : "0"));
    }
  }
  return 0;
}

int waitOnce(const std::string& topic) {
  Subscriber<Pattern> in(topic);
  if (!connected(in)) return 3;
  report("ready");
  report(std::string("woken ") + (in.wait(std::chrono::seconds(60)) ? "1" : "0"));
  return 0;
}

int blast(const std::string& topic, uint64_t count, int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  sched_setaffinity(0, sizeof set, &set);
  Publisher<Pattern> out(topic);
  if (!connected(out)) return 3;
  uint64_t sequence = out.sequence();
  for (uint64_t i = 0; i < count; ++i) {
    ++sequence;
    if (sequence % 2 == 0) {
      out.publish(topictest::patternOf<Pattern>(sequence));
    } else {
      topictest::fill(out.loan(), sequence);
      out.publishLoaned();
    }
  }
  report("done " + std::to_string(out.sequence()));
  return 0;
}

int hold(const std::string& topic, int count) {
  Publisher<Pattern> out(topic);
  if (!connected(out)) return 3;
  for (int i = 0; i < count; ++i) {
    out.publish(topictest::patternOf<Pattern>(out.sequence() + 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  report("ready");
  std::string ignored;
  while (std::getline(std::cin, ignored)) {
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: kelvo_topic_helper ROLE TOPIC [ARGS]\n");
    return 2;
  }
  const std::string role = argv[1];
  const std::string topic = argv[2];
  if (role == "publisher") return publisher(topic);
  if (role == "subscriber") return subscriber(topic);
  if (role == "wait") return waitOnce(topic);
  if (role == "blast" && argc == 5) {
    return blast(topic, std::strtoull(argv[3], nullptr, 10), std::atoi(argv[4]));
  }
  if (role == "hold" && argc == 4) return hold(topic, std::atoi(argv[3]));
  std::fprintf(stderr, "kelvo_topic_helper: unknown role or arguments '%s'\n", role.c_str());
  return 2;
}
