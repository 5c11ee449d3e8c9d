// A second process for the shared-memory tests, started fresh with exec so that it shares
// nothing with the test process but the segment. Usage: kelvo_shm_helper COMMAND TOPIC SIZE.
// It reports on standard output, one line per step, and reads its instructions from standard
// input.
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "mosk/kelvo/shm.h"

namespace {

void report(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

// Blocks until the test closes our standard input.
void waitForEndOfInput() {
  std::string ignored;
  while (std::getline(std::cin, ignored)) {
  }
}

int run(const std::string& command, void* mem) {
  if (command == "attach") {
    report("ready");
    waitForEndOfInput();
    return 0;
  }
  if (command == "wait") {
    report("ready");
    report("woken " + std::to_string(shm_wait(mem)));
    return 0;
  }
  if (command == "probe") {
    int trylock = shm_trylock(mem);
    int rdlock = shm_rdlock(mem);
    int wrlock = shm_wrlock(mem);
    report("trylock " + std::to_string(trylock) + " rdlock " + std::to_string(rdlock) + " wrlock " +
           std::to_string(wrlock));
    return 0;
  }
  // Take a lock and die holding it, without any clean-up.
  if (command == "die-holding-wrlock" || command == "die-holding-lock") {
    int rc = command == "die-holding-wrlock" ? shm_wrlock(mem) : shm_trylock(mem);
    report("locked " + std::to_string(rc));
    raise(SIGKILL);
  }
  if (command == "tid") {
    report(std::to_string(shm_gettid()) + " " + std::to_string(syscall(SYS_gettid)));
    return 0;
  }
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s COMMAND TOPIC SIZE\n", argv[0]);
    return 2;
  }
  void* mem = shm_connect_by_topic(argv[2], std::strtoul(argv[3], nullptr, 10));
  return run(argv[1], mem);
}
