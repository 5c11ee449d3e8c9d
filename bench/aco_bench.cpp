// Cost of a coroutine switch: resume + yield of a coroutine that owns its share stack, against
// the same round trip with Boost.Context (jump_fcontext) and with ucontext (swapcontext); and
// the extra cost of two coroutines taking turns on one share stack (copy-out + copy-in of
// about 100 live bytes each) against the same two on their own stacks.
#include <benchmark/benchmark.h>
#include <ucontext.h>

#include <boost/context/detail/fcontext.hpp>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "mosk/kelvo/aco.h"

namespace {

namespace fctx = boost::context::detail;

constexpr size_t kForeignStackSize = 64 * 1024;

// A thread's coroutine environment: main coroutine plus the share stacks it hands out.
class AcoThread {
 public:
  AcoThread() {
    aco_thread_init(nullptr);
    main_co_ = aco_create(nullptr, nullptr, 0, nullptr, nullptr);
  }
  ~AcoThread() {
    for (aco_coroutine* co : cos_) aco_destroy(co);
    for (aco_share_stack* s : stacks_) aco_share_stack_destroy(s);
    aco_destroy(main_co_);
    aco_gtls_co = nullptr;
  }
  aco_share_stack* newStack() {
    stacks_.push_back(aco_share_stack_new(0));
    return stacks_.back();
  }
  aco_coroutine* newCoroutine(aco_share_stack* s, aco_cofuncp_t body) {
    cos_.push_back(aco_create(main_co_, s, 0, body, nullptr));
    return cos_.back();
  }

 private:
  aco_coroutine* main_co_ = nullptr;
  std::vector<aco_share_stack*> stacks_;
  std::vector<aco_coroutine*> cos_;
};

void yieldForever() {
  for (;;) aco_yield();
}

void BM_AcoResumeYield(benchmark::State& state) {
  AcoThread thread;
  aco_coroutine* co = thread.newCoroutine(thread.newStack(), yieldForever);
  aco_resume(co);  // first entry out of the loop: from here on, co owns its share stack
  for (auto _ : state) aco_resume(co);
  state.counters["copies"] = static_cast<double>(co->save_stack.save_count);
}
BENCHMARK(BM_AcoResumeYield);

void fcontextBody(fctx::transfer_t t) {
  for (;;) t = fctx::jump_fcontext(t.fctx, nullptr);
}

void BM_BoostFcontextRoundTrip(benchmark::State& state) {
  std::vector<char> stack(kForeignStackSize);
  fctx::fcontext_t ctx =
      fctx::make_fcontext(stack.data() + stack.size(), stack.size(), fcontextBody);
  fctx::transfer_t t = fctx::jump_fcontext(ctx, nullptr);
  for (auto _ : state) t = fctx::jump_fcontext(t.fctx, nullptr);
}
BENCHMARK(BM_BoostFcontextRoundTrip);

ucontext_t g_caller_context;
ucontext_t g_callee_context;

void swapcontextBody() {
  for (;;) swapcontext(&g_callee_context, &g_caller_context);
}

void BM_SwapcontextRoundTrip(benchmark::State& state) {
  std::vector<char> stack(kForeignStackSize);
  getcontext(&g_callee_context);
  g_callee_context.uc_stack.ss_sp = stack.data();
  g_callee_context.uc_stack.ss_size = stack.size();
  g_callee_context.uc_link = nullptr;
  makecontext(&g_callee_context, swapcontextBody, 0);
  for (auto _ : state) swapcontext(&g_caller_context, &g_callee_context);
}
BENCHMARK(BM_SwapcontextRoundTrip);

// About 100 bytes of live stack at the yield: this frame's locals plus the return addresses.
__attribute__((noinline)) void yieldWithLiveLocals() {
  volatile char locals[64];
  for (char& c : const_cast<char(&)[64]>(locals)) c = 1;
  for (;;) {
    aco_yield();
    benchmark::DoNotOptimize(locals[0]);
  }
}

void liveLocalsBody() { yieldWithLiveLocals(); }

// One iteration = two round trips (resume a, resume b). With one share stack each resume
// copies the other coroutine out and this one in; with two share stacks nothing is copied.
void twoCoroutines(benchmark::State& state, bool share_one_stack) {
  AcoThread thread;
  aco_share_stack* first = thread.newStack();
  aco_share_stack* second = share_one_stack ? first : thread.newStack();
  aco_coroutine* a = thread.newCoroutine(first, liveLocalsBody);
  aco_coroutine* b = thread.newCoroutine(second, liveLocalsBody);
  aco_resume(a);
  aco_resume(b);
  for (auto _ : state) {
    aco_resume(a);
    aco_resume(b);
  }
  state.counters["bytes_per_copy"] = static_cast<double>(a->save_stack.max_copied);
  state.counters["copies_per_iter"] = benchmark::Counter(
      static_cast<double>(a->save_stack.save_count + a->save_stack.restore_count +
                          b->save_stack.save_count + b->save_stack.restore_count),
      benchmark::Counter::kAvgIterations);
}

void BM_AcoTwoCoroutinesOwnStacks(benchmark::State& state) { twoCoroutines(state, false); }
BENCHMARK(BM_AcoTwoCoroutinesOwnStacks);

void BM_AcoTwoCoroutinesOneShareStack(benchmark::State& state) { twoCoroutines(state, true); }
BENCHMARK(BM_AcoTwoCoroutinesOneShareStack);

}  // namespace
