#include "mosk/kelvo/co.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace co = mosk::kelvo::coroutine;

namespace {

constexpr uint64_t kStackSize = 64 * 1024;

// The scheduler state is thread-local: every test runs on a thread of its own so that it starts
// with no coroutines, ids from 1 and coroutine mode off, and so that the thread's exit frees
// whatever the test leaves behind.
void RunOnFreshThread(const std::function<void()>& body) {
  std::thread thread(body);
  thread.join();
}

// Death-test patterns are regular expressions; the assertion texts are matched literally.
std::string Literal(const std::string& text) {
  std::string pattern;
  for (char c : text) {
    if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) pattern += '\\';
    pattern += c;
  }
  return pattern;
}

std::string AssertionMessage(const std::string& expression, int line) {
  return Literal("Assertion error: " + expression + " (src/co:" + std::to_string(line) + ")");
}

const char kRangeCheck[] = "((id - 1) < ordinator.routines.size()) && (id >= 1)";

TEST(CoTest, FirstIdsAreOneAndTwoAndARecycledIdIsReused) {
  RunOnFreshThread([] {
    EXPECT_EQ(co::create([] {}, kStackSize), 1u);
    EXPECT_EQ(co::create([] {}, kStackSize), 2u);
    co::recycle(1);
    EXPECT_EQ(co::indexes_size(), 1u);
    EXPECT_EQ(co::create([] {}, kStackSize), 1u);
    EXPECT_EQ(co::indexes_size(), 0u);
    EXPECT_EQ(co::routines_size(), 2u);
  });
}

TEST(CoTest, RecycledIdsAreReusedFirstInFirstOut) {
  RunOnFreshThread([] {
    for (int i = 0; i < 3; ++i) co::create([] {}, kStackSize);
    co::recycle(3);
    co::recycle(1);
    EXPECT_EQ(co::create([] {}, kStackSize), 3u);
    EXPECT_EQ(co::create([] {}, kStackSize), 1u);
    EXPECT_EQ(co::create([] {}, kStackSize), 4u);
    EXPECT_EQ(co::routines_size(), 4u);
  });
}

TEST(CoTest, RecycledCoroutineIsFreedWhenItsIdIsReused) {
  RunOnFreshThread([] {
    co::use_coroutine();
    auto token = std::make_shared<int>(0);
    const unsigned id = co::create([token] { co::yield(); }, kStackSize);
    EXPECT_EQ(co::resume(id), 0);
    co::recycle(id);
    EXPECT_EQ(token.use_count(), 2) << "recycle alone frees nothing";
    EXPECT_EQ(co::create([] {}, kStackSize), id);
    EXPECT_EQ(token.use_count(), 1) << "reusing the id frees the old function";
  });
}

TEST(CoTest, CoroutineYieldingTwiceNeedsThreeResumes) {
  RunOnFreshThread([] {
    co::use_coroutine();
    int step = 0;
    const unsigned id = co::create(
        [&step] {
          ++step;
          co::yield();
          ++step;
          co::yield();
          ++step;
        },
        kStackSize);
    EXPECT_EQ(co::routine_status(id), 1);
    EXPECT_EQ(co::resume(id), 0);
    EXPECT_EQ(step, 1);
    EXPECT_EQ(co::routine_status(id), 3);
    EXPECT_FALSE(co::finished(id));
    EXPECT_EQ(co::resume(id), 0);
    EXPECT_EQ(step, 2);
    EXPECT_EQ(co::routine_status(id), 3);
    EXPECT_EQ(co::resume(id), 0);
    EXPECT_EQ(step, 3);
    EXPECT_EQ(co::routine_status(id), 3);
    EXPECT_TRUE(co::finished(id));
    EXPECT_TRUE(co::routine_finish(id));
    EXPECT_EQ(co::resume(id), -2);
    EXPECT_EQ(step, 3);
  });
}

TEST(CoTest, StatusIsTwoDuringTheFirstRunAndStaysThreeAfterAYield) {
  RunOnFreshThread([] {
    co::use_coroutine();
    std::vector<int> seen;
    const unsigned id = co::create(
        [&seen] {
          seen.push_back(co::routine_status(co::current()));
          co::yield();
          seen.push_back(co::routine_status(co::current()));
        },
        kStackSize);
    co::resume(id);
    co::resume(id);
    EXPECT_EQ(seen, (std::vector<int>{2, 3}));
  });
}

TEST(CoTest, CurrentIsTheRunningIdInsideAndZeroOutside) {
  RunOnFreshThread([] {
    co::use_coroutine();
    unsigned inside = 0;
    co::create([] {}, kStackSize);
    const unsigned id = co::create([&inside] { inside = co::current(); }, kStackSize);
    EXPECT_EQ(co::current(), 0u);
    co::resume(id);
    EXPECT_EQ(inside, 2u);
    EXPECT_EQ(co::current(), 0u);
  });
}

TEST(CoTest, EmptyFunctionFinishesOnFirstResume) {
  RunOnFreshThread([] {
    co::use_coroutine();
    const unsigned id = co::create(std::function<void()>(), kStackSize);
    EXPECT_EQ(co::resume(id), 0);
    EXPECT_TRUE(co::finished(id));
    EXPECT_EQ(co::resume(id), -2);
  });
}

TEST(CoTest, FinishedIsFalseForIdZero) {
  RunOnFreshThread([] { EXPECT_FALSE(co::finished(0)); });
}

TEST(CoTest, YieldWithoutCoroutineModeSleepsAboutFiveMilliseconds) {
  RunOnFreshThread([] {
    EXPECT_FALSE(co::check_co());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(co::yield(), 0);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(4));
  });
}

TEST(CoTest, YieldFromTheThreadsOwnContextInCoroutineModeReturnsMinusOne) {
  RunOnFreshThread([] {
    co::Ordinator& ordinator = co::use_coroutine();
    EXPECT_TRUE(co::check_co());
    EXPECT_TRUE(ordinator.use);
    EXPECT_EQ(&ordinator, &co::ordinator);
    EXPECT_EQ(co::yield(), -1);
  });
}

TEST(CoTest, CoroutineModeIsPerThread) {
  RunOnFreshThread([] {
    co::use_coroutine();
    RunOnFreshThread([] { EXPECT_FALSE(co::check_co()); });
    EXPECT_TRUE(co::check_co());
  });
}

TEST(CoTest, WithoutCoroutineModeACoroutineRunsToItsEndInOneResume) {
  RunOnFreshThread([] {
    int step = 0;
    const unsigned id = co::create(
        [&step] {
          ++step;
          EXPECT_EQ(co::yield(), 0);  // a short sleep, no switch
          ++step;
        },
        kStackSize);
    EXPECT_EQ(co::resume(id), 0);
    EXPECT_EQ(step, 2);
    EXPECT_TRUE(co::finished(id));
    EXPECT_EQ(co::current(), 0u);
    EXPECT_EQ(co::resume(id), -2);
  });
}

TEST(CoTest, CoroutinesInterleaveInResumeOrder) {
  RunOnFreshThread([] {
    co::use_coroutine();
    std::string trace;
    std::vector<unsigned> ids;
    for (char name : {'a', 'b', 'c'}) {
      ids.push_back(co::create(
          [&trace, name] {
            for (int round = 0; round < 3; ++round) {
              trace += name;
              co::yield();
            }
          },
          kStackSize));
    }
    bool progressed = true;
    while (progressed) {
      progressed = false;
      for (unsigned id : ids) progressed |= co::resume(id) == 0;
    }
    EXPECT_EQ(trace, "abcabcabc");
    for (unsigned id : ids) EXPECT_TRUE(co::finished(id));
  });
}

TEST(CoTest, EmptySlotGivesMinusOneFromResumeAndMinusTwoFromYield) {
  RunOnFreshThread([] {
    co::use_coroutine();
    const unsigned idle = co::create([] {}, kStackSize);
    co::Routine* parked = co::ordinator.routines[idle - 1];
    co::ordinator.routines[idle - 1] = nullptr;
    EXPECT_EQ(co::resume(idle), -1);
    co::ordinator.routines[idle - 1] = parked;

    int yield_result = 0;
    const unsigned id = co::create(
        [&yield_result] {
          const unsigned self = co::current();
          co::Routine* routine = co::ordinator.routines[self - 1];
          co::ordinator.routines[self - 1] = nullptr;
          yield_result = co::yield();  // does not switch
          co::ordinator.routines[self - 1] = routine;
        },
        kStackSize);
    EXPECT_EQ(co::resume(id), 0);
    EXPECT_EQ(yield_result, -2);
    EXPECT_TRUE(co::finished(id));
  });
}

TEST(CoTest, ThreadExitFreesUnfinishedCoroutines) {
  auto token = std::make_shared<int>(0);
  RunOnFreshThread([token] {
    co::use_coroutine();
    for (int i = 0; i < 4; ++i) {
      const unsigned id = co::create(
          [token] {
            co::yield();
            ADD_FAILURE() << "never resumed again";
          },
          kStackSize);
      co::resume(id);
    }
    co::create([token] {}, kStackSize);  // never started
  });
  EXPECT_EQ(token.use_count(), 1);
}

TEST(CoTest, IdsArePerThread) {
  RunOnFreshThread([] {
    co::create([] {}, kStackSize);
    co::create([] {}, kStackSize);
    unsigned other_thread_id = 0;
    RunOnFreshThread([&other_thread_id] { other_thread_id = co::create([] {}, kStackSize); });
    EXPECT_EQ(other_thread_id, 1u);
    EXPECT_EQ(co::routines_size(), 2u);
  });
}

TEST(CoTest, ManyCreateResumeRecycleCyclesKeepTheTableSmall) {
  RunOnFreshThread([] {
    co::use_coroutine();
    int runs = 0;
    for (int i = 0; i < 1000; ++i) {
      const unsigned id = co::create(
          [&runs] {
            co::yield();
            ++runs;
          },
          kStackSize);
      while (co::resume(id) == 0) {
      }
      co::recycle(id);
    }
    EXPECT_EQ(runs, 1000);
    EXPECT_EQ(co::routines_size(), 1u);
  });
}

class CoDeathTest : public testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(CoDeathTest, ResumeOfIdZeroAborts) {
  EXPECT_DEATH(RunOnFreshThread([] { co::resume(0); }), AssertionMessage(kRangeCheck, 86));
}

TEST_F(CoDeathTest, ResumeBeyondRoutinesSizeAborts) {
  EXPECT_DEATH(RunOnFreshThread([] {
                 co::create([] {}, kStackSize);
                 co::resume(2);
               }),
               AssertionMessage(kRangeCheck, 86));
}

TEST_F(CoDeathTest, ResumeFromInsideACoroutineAborts) {
  EXPECT_DEATH(RunOnFreshThread([] {
                 co::use_coroutine();
                 const unsigned other = co::create([] {}, kStackSize);
                 const unsigned id = co::create([other] { co::resume(other); }, kStackSize);
                 co::resume(id);
               }),
               AssertionMessage("ordinator.current == 0", 85));
}

TEST_F(CoDeathTest, RoutineStatusChecksRangeAndSlot) {
  EXPECT_DEATH(RunOnFreshThread([] { co::routine_status(0); }), AssertionMessage(kRangeCheck, 201));
  EXPECT_DEATH(RunOnFreshThread([] { co::routine_status(1); }), AssertionMessage(kRangeCheck, 201));
  EXPECT_DEATH(RunOnFreshThread([] {
                 co::ordinator.routines.push_back(nullptr);
                 co::routine_status(1);
               }),
               AssertionMessage("ordinator.routines[id - 1] != nullptr", 202));
}

TEST_F(CoDeathTest, RoutineFinishChecksRangeAndSlot) {
  EXPECT_DEATH(RunOnFreshThread([] { co::routine_finish(0); }), AssertionMessage(kRangeCheck, 208));
  EXPECT_DEATH(RunOnFreshThread([] {
                 co::create([] {}, kStackSize);
                 co::routine_finish(2);
               }),
               AssertionMessage(kRangeCheck, 208));
  EXPECT_DEATH(RunOnFreshThread([] {
                 co::ordinator.routines.push_back(nullptr);
                 co::routine_finish(1);
               }),
               AssertionMessage("ordinator.routines[id - 1] != nullptr", 209));
}

TEST_F(CoDeathTest, ReusingTheIdOfAnEmptySlotAborts) {
  EXPECT_DEATH(RunOnFreshThread([] {
                 co::ordinator.routines.push_back(nullptr);
                 co::recycle(1);
                 co::create([] {}, kStackSize);
               }),
               AssertionMessage("routine != nullptr", 77));
}

TEST_F(CoDeathTest, ReusingAnIdThatWasNeverHandedOutAborts) {
  for (unsigned int id : {0u, 7u}) {
    EXPECT_DEATH(RunOnFreshThread([id] {
                   co::create([] {}, kStackSize);
                   co::recycle(id);
                   co::create([] {}, kStackSize);
                 }),
                 AssertionMessage("routine != nullptr", 77));
  }
}

// A real overrun would write into memory beside the stack before the check can run (and under
// the sanitizers it faults first), so the test moves the recorded stack base up by a whole
// stack size instead: the running coroutine then sits deeper below the recorded top than its
// stack size allows, exactly as after an overrun, while every access stays in real stack memory.
TEST_F(CoDeathTest, StackOverrunAbortsAtTheNextYield) {
  EXPECT_DEATH(RunOnFreshThread([] {
                 co::use_coroutine();
                 const unsigned id = co::create(
                     [] {
                       co::Routine* self = co::ordinator.routines[co::current() - 1];
                       self->stack += self->stack_size;
                       co::yield();
                     },
                     kStackSize);
                 co::resume(id);
               }),
               AssertionMessage("size_t(stack_top - &stack_bottom) <= routine->stack_size", 176));
}

TEST(CoTest, DeepCallsWithinTheStackPassTheOverrunCheck) {
  RunOnFreshThread([] {
    co::use_coroutine();
    const unsigned id = co::create(
        [] {
          volatile char frame[32 * 1024];
          frame[0] = 1;
          frame[sizeof(frame) - 1] = 1;
          EXPECT_EQ(co::yield(), 0);
        },
        kStackSize);
    EXPECT_EQ(co::resume(id), 0);
    EXPECT_EQ(co::resume(id), 0);
    EXPECT_TRUE(co::finished(id));
  });
}

}  // namespace
