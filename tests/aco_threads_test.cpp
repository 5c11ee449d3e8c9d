// The coroutine runtime used from several threads (sanitizer builds check that code in
// coroutines is analysed without false reports).
#include "aco_test_support.h"

namespace {

// ---- Threads ----

// Shared between a coroutine on a worker thread and the test's thread. Sanitizer builds check
// that accesses from inside coroutines are attributed and ordered correctly.
struct CrossThread {
  std::mutex mutex;
  std::vector<int> log;  // guarded by mutex
  std::atomic<int> published{0};
  int plain_from_coroutine = 0;  // written in a coroutine before `published` is released
  int plain_from_test = 0;       // written by the test before `go` is released
  std::atomic<bool> go{false};
  int seen_by_coroutine = 0;
};

void crossThreadBody() {
  auto* shared = static_cast<CrossThread*>(aco_get_arg());
  shared->plain_from_coroutine = 7;
  shared->published.store(1, std::memory_order_release);
  aco_yield();
  shared->seen_by_coroutine = shared->plain_from_test;  // ordered by `go`, then the resume
  {
    std::lock_guard<std::mutex> lock(shared->mutex);
    shared->log.push_back(1);
  }
  aco_exit();
}

TEST(AcoThreadsTest, CoroutineOnAWorkerThreadSynchronisesWithOtherThreads) {
  CrossThread shared;
  aco_coroutine* co = nullptr;
  aco_coroutine* main_co = nullptr;
  aco_share_stack* stack = nullptr;
  std::thread worker([&] {
    aco_thread_init(nullptr);
    main_co = aco_create(nullptr, nullptr, 0, nullptr, nullptr);
    stack = aco_share_stack_new(0);
    co = aco_create(main_co, stack, 0, crossThreadBody, &shared);
    aco_resume(co);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!shared.go.load(std::memory_order_acquire) &&
           std::chrono::steady_clock::now() < deadline) {
      std::this_thread::yield();
    }
    aco_resume(co);
  });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (shared.published.load(std::memory_order_acquire) == 0 &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  EXPECT_EQ(shared.plain_from_coroutine, 7);
  shared.plain_from_test = 11;
  shared.go.store(true, std::memory_order_release);
  {
    std::lock_guard<std::mutex> lock(shared.mutex);
    shared.log.push_back(0);
  }
  worker.join();
  EXPECT_EQ(shared.seen_by_coroutine, 11);
  EXPECT_EQ(shared.log.size(), 2u);
  EXPECT_EQ(co->is_end, 1);
  // Destroyed on another thread than the one that ran them, as a periodic thread's owner does.
  aco_destroy(co);
  aco_share_stack_destroy(stack);
  aco_destroy(main_co);
}

void atomicCountingBody() {
  auto* counter = static_cast<std::atomic<int>*>(aco_get_arg());
  for (;;) {
    counter->fetch_add(1, std::memory_order_relaxed);
    aco_yield();
  }
}

TEST(AcoThreadsTest, SeveralThreadsEachRunTheirOwnCoroutines) {
  std::atomic<int> counter{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&counter] {
      aco_thread_init(nullptr);
      aco_coroutine* main_co = aco_create(nullptr, nullptr, 0, nullptr, nullptr);
      aco_share_stack* stack = aco_share_stack_new(64 * 1024);
      std::vector<aco_coroutine*> cos;
      for (int i = 0; i < 4; ++i)
        cos.push_back(aco_create(main_co, stack, 0, atomicCountingBody, &counter));
      for (int round = 0; round < 100; ++round) {
        for (aco_coroutine* co : cos) aco_resume(co);
      }
      for (aco_coroutine* co : cos) aco_destroy(co);
      aco_share_stack_destroy(stack);
      aco_destroy(main_co);
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(counter.load(), 3 * 4 * 100);
}

}  // namespace
