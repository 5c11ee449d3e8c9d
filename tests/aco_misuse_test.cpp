// The coroutine runtime's protector (a body that returns) and the aborts on misuse.
#include "aco_test_support.h"

namespace {

// ---- Protector ----

void returningBody() {}

struct ProtectorRun {
  aco_coroutine* co = nullptr;
};

void resumeReturningBody(void* arg) { aco_resume(static_cast<ProtectorRun*>(arg)->co); }

TEST_F(AcoTest, ReturningBodyPrintsBothDefaultLinesExactlyAndAborts) {
  ProtectorRun run{create(returningBody)};
  int status = 0;
  const std::string err = runInChild(resumeReturningBody, &run, &status);
  char expected[512];
  std::snprintf(expected, sizeof(expected),
                "error: aco_default_protector_last_word triggered\n"
                "error: co:%p should call `aco_exit()` instead of direct `return` in co_fp:%p "
                "to finish its execution\n",
                static_cast<void*>(run.co), reinterpret_cast<void*>(returningBody));
  EXPECT_NE(err.find(expected), std::string::npos) << err;
  EXPECT_EQ(err.find("error: aco_default"), 0u) << err;
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGABRT);
}

TEST_F(AcoDeathTest, ReturningBodyDies) {
  aco_coroutine* co = create(returningBody);
  EXPECT_DEATH(aco_resume(co),
               "^error: aco_default_protector_last_word triggered\n"
               "error: co:0x[0-9a-f]+ should call `aco_exit\\(\\)` instead of direct `return` in "
               "co_fp:0x[0-9a-f]+ to finish its execution\n");
}

void customLastWord() {
  std::fprintf(stderr, "custom last word from %p\n", static_cast<void*>(aco_get_co()));
  std::fflush(stderr);
  _exit(42);
}

void returningLastWord() { std::fprintf(stderr, "last word returns\n"); }

TEST_F(AcoDeathTest, LastWordHandlerSetAtThreadInitRunsInstead) {
  aco_coroutine* co = create(returningBody);
  EXPECT_EXIT(
      {
        aco_thread_init(customLastWord);
        aco_resume(co);
      },
      testing::ExitedWithCode(42), "^custom last word from 0x[0-9a-f]+\n$");
}

TEST_F(AcoDeathTest, LastWordHandlerThatReturnsStillAborts) {
  aco_coroutine* co = create(returningBody);
  EXPECT_EXIT(
      {
        aco_thread_init(returningLastWord);
        aco_resume(co);
      },
      testing::KilledBySignal(SIGABRT), "last word returns\n");
}

TEST_F(AcoDeathTest, NullLastWordFallsBackToTheDefault) {
  aco_coroutine* co = create(returningBody);
  EXPECT_EXIT(
      {
        aco_gtls_last_word_fp = nullptr;
        aco_resume(co);
      },
      testing::KilledBySignal(SIGABRT), "error: aco_default_protector_last_word triggered\n");
}

// ---- Misuse ----

TEST_F(AcoDeathTest, ResumingAnEndedCoroutineAborts) {
  aco_coroutine* co = create(exitAtOnce);
  aco_resume(co);
  ASSERT_EQ(co->is_end, 1);
  EXPECT_EXIT(aco_resume(co), testing::KilledBySignal(SIGABRT), "");
}

TEST_F(AcoDeathTest, ResumingNullOrAMainCoroutineAborts) {
  EXPECT_EXIT(aco_resume(nullptr), testing::KilledBySignal(SIGABRT), "");
  EXPECT_EXIT(aco_resume(main_co_), testing::KilledBySignal(SIGABRT), "");
}

TEST_F(AcoDeathTest, DestroyingNullAborts) {
  EXPECT_EXIT(aco_destroy(nullptr), testing::KilledBySignal(SIGABRT), "");
}

TEST_F(AcoDeathTest, CreatingWithoutShareStackAborts) {
  EXPECT_EXIT(aco_create(main_co_, nullptr, 0, exitAtOnce, nullptr),
              testing::KilledBySignal(SIGABRT), "");
}

TEST_F(AcoDeathTest, FailedSaveStackAllocationPrintsTheMessage) {
  EXPECT_DEATH(aco_create(main_co_, stack_, size_t{1} << 60, exitAtOnce, nullptr),
               "Aborting: failed to allocate memory: src/aco:355:aco_create\n");
}

// Caps the address space just above what the process maps now, so that the next large
// allocation fails. Only for the child of a death test.
void capAddressSpace() {
  long pages = 0;
  std::FILE* statm = std::fopen("/proc/self/statm", "r");
  if (statm == nullptr || std::fscanf(statm, "%ld", &pages) != 1) std::_Exit(3);
  std::fclose(statm);
  const rlim_t limit = static_cast<rlim_t>(pages) * kPage + 256 * 1024;
  const rlimit cap{limit, limit};
  if (setrlimit(RLIMIT_AS, &cap) != 0) std::_Exit(4);
}

TEST_F(AcoDeathTest, FailedSaveStackGrowthPrintsTheMessage) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers reserve more address space than any cap allows";
#endif
  // An owner with 1 MiB live below the return slot: copying it out needs a 1 MiB save stack.
  aco_coroutine* victim = create(exitAtOnce);
  aco_coroutine* other = create(yieldForever);
  constexpr size_t kLive = 1024 * 1024;
  victim->saved_regs[5] = static_cast<char*>(stack_->return_slot) - kLive;
  stack_->owner = victim;
  stack_->valid_size = kLive + 8;
  EXPECT_DEATH(
      {
        capAddressSpace();
        aco_resume(other);
      },
      "Aborting: failed to allocate memory: src/aco:414:aco_resume\n");
  stack_->owner = nullptr;
  stack_->valid_size = 0;
}

TEST_F(AcoDeathTest, YieldingOrExitingFromTheMainCoroutineAborts) {
  EXPECT_EXIT(aco_yield1(main_co_), testing::KilledBySignal(SIGABRT), "");
  EXPECT_EXIT(aco_exit1(main_co_), testing::KilledBySignal(SIGABRT), "");
  EXPECT_EXIT(aco_yield(), testing::KilledBySignal(SIGABRT), "");  // no current coroutine
}

void exitWithoutOwningTheStack() {
  aco_get_co()->share_stack->owner = nullptr;
  aco_exit();
}

TEST_F(AcoDeathTest, ExitingWithoutOwningTheShareStackAborts) {
  aco_coroutine* co = create(exitWithoutOwningTheStack);
  EXPECT_EXIT(aco_resume(co), testing::KilledBySignal(SIGABRT), "");
}

TEST_F(AcoDeathTest, OwnerStackPointerOutsideTheShareStackAborts) {
  aco_coroutine* victim = create(exitAtOnce);
  aco_coroutine* other = create(yieldForever);
  stack_->owner = victim;
  victim->saved_regs[5] = static_cast<char*>(stack_->return_slot) + 16;  // above the slot
  EXPECT_EXIT(aco_resume(other), testing::KilledBySignal(SIGABRT), "");
  victim->saved_regs[5] = static_cast<char*>(stack_->top) - stack_->limit - 8;  // too deep
  EXPECT_EXIT(aco_resume(other), testing::KilledBySignal(SIGABRT), "");
  stack_->owner = nullptr;
}

TEST_F(AcoDeathTest, OwnerFromAnotherShareStackAborts) {
  aco_share_stack* elsewhere = aco_share_stack_new(8192);
  aco_coroutine* stranger = create(exitAtOnce, nullptr, 0, elsewhere);
  aco_coroutine* other = create(yieldForever);
  stack_->owner = stranger;
  EXPECT_EXIT(aco_resume(other), testing::KilledBySignal(SIGABRT), "");
  stack_->owner = nullptr;
  aco_destroy(stranger);
  created_.erase(std::find(created_.begin(), created_.end(), stranger));
  aco_share_stack_destroy(elsewhere);
}

TEST_F(AcoDeathTest, SavedBytesLargerThanTheStackAllowsAbort) {
  aco_coroutine* co = create(exitAtOnce);
  co->save_stack.valid_size = stack_->limit - 7;
  EXPECT_EXIT(aco_resume(co), testing::KilledBySignal(SIGABRT), "");
  co->save_stack.valid_size = 0;
}

}  // namespace
