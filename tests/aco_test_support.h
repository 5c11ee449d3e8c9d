// Helpers shared by the coroutine runtime's test files: sanitizer options for the allocation
// failure tests, thread-safe death tests, a forked child with captured standard error, and a
// fixture with a main coroutine and a default share stack. Include it from one source file per
// test program (it defines the sanitizers' option hooks).
#ifndef KELVO_TESTS_ACO_TEST_SUPPORT_H_
#define KELVO_TESTS_ACO_TEST_SUPPORT_H_

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cfenv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "mosk/kelvo/aco.h"

#if defined(__SANITIZE_ADDRESS__)
// Let malloc report failure with NULL instead of dying, so that the runtime's own
// allocation-failure message can be checked.
extern "C" __attribute__((used, visibility("default"))) const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}
#endif
#if defined(__SANITIZE_THREAD__)
extern "C" __attribute__((used, visibility("default"))) const char* __tsan_default_options() {
  return "allocator_may_return_null=1";
}
#endif

namespace {

// Death tests re-execute the binary: safe with the threads some tests start. Set from a test
// environment, once gtest's own flags exist.
class ThreadsafeDeathTests : public testing::Environment {
 public:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};
testing::Environment* const kThreadsafeDeathTests =
    testing::AddGlobalTestEnvironment(new ThreadsafeDeathTests);

constexpr size_t kPage = 4096;

// Runs `fn` in a forked child whose standard error is captured; returns what it wrote and its
// wait status. Used where a message contains pointers, which differ in a re-executed child.
inline std::string runInChild(void (*fn)(void*), void* arg, int* status) {
  int fds[2];
  if (pipe(fds) != 0) return "pipe failed";
  std::fflush(stderr);
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    dup2(fds[1], STDERR_FILENO);
    fn(arg);
    _exit(0);
  }
  close(fds[1]);
  std::string out;
  char buf[512];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof(buf))) > 0) out.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  waitpid(pid, status, 0);
  return out;
}

// ---- Coroutines ----

// Every coroutine test starts from a freshly initialised thread with a main coroutine and a
// default share stack.
class AcoTest : public testing::Test {
 protected:
  void SetUp() override {
    aco_thread_init(nullptr);
    main_co_ = aco_create(nullptr, nullptr, 0, nullptr, nullptr);
    stack_ = aco_share_stack_new(0);
  }
  void TearDown() override {
    for (aco_coroutine* co : created_) aco_destroy(co);
    aco_share_stack_destroy(stack_);
    aco_destroy(main_co_);
    aco_gtls_co = nullptr;  // it names the main coroutine after every resume
  }
  aco_coroutine* create(aco_cofuncp_t body, void* arg = nullptr, size_t save_size = 0,
                        aco_share_stack* stack = nullptr) {
    aco_coroutine* co = aco_create(main_co_, stack ? stack : stack_, save_size, body, arg);
    created_.push_back(co);
    return co;
  }

  aco_coroutine* main_co_ = nullptr;
  aco_share_stack* stack_ = nullptr;
  std::vector<aco_coroutine*> created_;
};
using AcoDeathTest = AcoTest;

inline void exitAtOnce() { aco_exit(); }

inline void yieldForever() {
  for (;;) aco_yield();
}

}  // namespace

#endif  // KELVO_TESTS_ACO_TEST_SUPPORT_H_
