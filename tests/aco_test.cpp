// Tests of the shared-stack coroutine runtime: share-stack sizing, coroutine records, resume
// with stack copying, and the context switch's register and floating-point contract.
#include "aco_test_support.h"

// Writes distinct values into every callee-saved register, yields (through a C function, so
// that the switch happens with those values live), and records what it finds afterwards.
extern "C" {
uint64_t kelvo_test_body_registers[6];
__attribute__((used, noinline)) void kelvo_test_yield(void) { aco_yield(); }
void kelvo_test_register_body(void);
void kelvo_test_resume_with_marked_registers(aco_coroutine* co, uint64_t* out);
void kelvo_test_check_body(void);
}
// What kelvo_test_check_body found restored above its stack pointer.
std::string kelvo_test_restored;
extern "C" __attribute__((used, noinline)) void kelvo_test_check_restored(void) {
  aco_coroutine* co = aco_get_co();
  const char* from = static_cast<char*>(co->share_stack->return_slot) - co->save_stack.valid_size;
  kelvo_test_restored.assign(from, co->save_stack.valid_size);
  aco_exit();
}
__asm__(R"(
        .text
        .p2align 4
        .type kelvo_test_register_body, @function
kelvo_test_register_body:
        subq $8, %rsp
1:
        movabsq $0x0101010101010101, %rbx
        movabsq $0x0202020202020202, %rbp
        movabsq $0x0303030303030303, %r12
        movabsq $0x0404040404040404, %r13
        movabsq $0x0505050505050505, %r14
        movabsq $0x0606060606060606, %r15
        call kelvo_test_yield
        movq %rbx, kelvo_test_body_registers+0(%rip)
        movq %rbp, kelvo_test_body_registers+8(%rip)
        movq %r12, kelvo_test_body_registers+16(%rip)
        movq %r13, kelvo_test_body_registers+24(%rip)
        movq %r14, kelvo_test_body_registers+32(%rip)
        movq %r15, kelvo_test_body_registers+40(%rip)
        jmp 1b
        .size kelvo_test_register_body, .-kelvo_test_register_body

        .p2align 4
        .type kelvo_test_resume_with_marked_registers, @function
kelvo_test_resume_with_marked_registers:
        pushq %rbx
        pushq %rbp
        pushq %r12
        pushq %r13
        pushq %r14
        pushq %r15
        pushq %rsi
        movabsq $0x1111111111111111, %rbx
        movabsq $0x2222222222222222, %rbp
        movabsq $0x3333333333333333, %r12
        movabsq $0x4444444444444444, %r13
        movabsq $0x5555555555555555, %r14
        movabsq $0x6666666666666666, %r15
        call aco_resume@PLT
        popq %rsi
        movq %rbx, 0(%rsi)
        movq %rbp, 8(%rsi)
        movq %r12, 16(%rsi)
        movq %r13, 24(%rsi)
        movq %r14, 32(%rsi)
        movq %r15, 40(%rsi)
        popq %r15
        popq %r14
        popq %r13
        popq %r12
        popq %rbp
        popq %rbx
        ret
        .size kelvo_test_resume_with_marked_registers, .-kelvo_test_resume_with_marked_registers

        .p2align 4
        .type kelvo_test_check_body, @function
kelvo_test_check_body:
        andq $-16, %rsp
        call kelvo_test_check_restored
        ud2
        .size kelvo_test_check_body, .-kelvo_test_check_body
)");

namespace {

// Permissions ("r--p", "rw-p", ...) of the mapping that contains `address`, from
// /proc/self/maps.
std::string mappingPermissions(const void* address) {
  const auto target = reinterpret_cast<uintptr_t>(address);
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    std::istringstream fields(line);
    std::string range, perms;
    fields >> range >> perms;
    const size_t dash = range.find('-');
    const uintptr_t begin = std::stoull(range.substr(0, dash), nullptr, 16);
    const uintptr_t end = std::stoull(range.substr(dash + 1), nullptr, 16);
    if (target >= begin && target < end) return perms;
  }
  return "unmapped";
}

void expectCommonShareStackFields(const aco_share_stack* s) {
  const auto base = reinterpret_cast<uintptr_t>(s->base);
  const uintptr_t top = (base + s->size - 16) & ~uintptr_t{15};
  EXPECT_EQ(reinterpret_cast<uintptr_t>(s->top), top);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(s->return_slot), top - 8);
  EXPECT_EQ(s->limit, s->size - 32);
  EXPECT_EQ(s->owner, nullptr);
  EXPECT_EQ(s->valid_size, 0u);
  void* in_slot = nullptr;
  std::memcpy(&in_slot, s->return_slot, sizeof(in_slot));
  EXPECT_EQ(in_slot, reinterpret_cast<void*>(&aco_funcp_protector_asm));
}

void expectGuardedLayout(size_t requested, size_t mapped, size_t usable) {
  aco_share_stack* s = aco_share_stack_new(requested);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->guard_enabled, 1);
  EXPECT_EQ(s->mapping_size, mapped) << "requested " << requested;
  EXPECT_EQ(s->size, usable) << "requested " << requested;
  EXPECT_EQ(s->base, static_cast<char*>(s->mapping_base) + kPage);
  EXPECT_EQ(mappingPermissions(s->mapping_base), "r--p");
  EXPECT_EQ(mappingPermissions(s->base), "rw-p");
  EXPECT_EQ(mappingPermissions(s->base + s->size - 1), "rw-p");
  expectCommonShareStackFields(s);
  aco_share_stack_destroy(s);
}

// ---- Share stacks ----

TEST(AcoShareStack, ZeroSizeGivesTwoMiBPlusGuardPage) {
  ASSERT_EQ(static_cast<size_t>(sysconf(_SC_PAGESIZE)), kPage);
  expectGuardedLayout(0, 2 * 1024 * 1024 + kPage, 2 * 1024 * 1024);
}

TEST(AcoShareStack, SizeNotAPageMultipleIsRoundedUp) { expectGuardedLayout(5000, 12288, 8192); }

TEST(AcoShareStack, SizeAPageMultipleGetsOneGuardPage) { expectGuardedLayout(8192, 12288, 8192); }

TEST(AcoShareStack, SmallSizesGetOnePageAndTheGuard) {
  expectGuardedLayout(1, 8192, 4096);
  expectGuardedLayout(100, 8192, 4096);
  expectGuardedLayout(4096, 8192, 4096);
  expectGuardedLayout(4097, 12288, 8192);
}

TEST(AcoShareStack, WithoutGuardPageSmallSizeIsRaisedTo4096AndMalloced) {
  aco_share_stack* s = aco_share_stack_new2(100, 0);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->guard_enabled, 0);
  EXPECT_EQ(s->size, 4096u);
  EXPECT_EQ(s->mapping_base, nullptr);
  EXPECT_EQ(s->mapping_size, 0u);
  expectCommonShareStackFields(s);
  std::memset(s->base, 0x5a, 64);  // the area is ours to write
  aco_share_stack_destroy(s);
}

TEST(AcoShareStack, WithoutGuardPageKeepsTheRequestedSize) {
  aco_share_stack* s = aco_share_stack_new2(5000, 0);
  EXPECT_EQ(s->size, 5000u);
  expectCommonShareStackFields(s);
  aco_share_stack_destroy(s);
  s = aco_share_stack_new2(0, 0);
  EXPECT_EQ(s->size, 2u * 1024 * 1024);
  aco_share_stack_destroy(s);
}

TEST(AcoShareStackDeathTest, WritingIntoTheGuardPageFaults) {
  aco_share_stack* s = aco_share_stack_new(0);
  EXPECT_DEATH(*(static_cast<volatile char*>(s->mapping_base) + 100) = 1, "");
  aco_share_stack_destroy(s);
}

TEST(AcoShareStackDeathTest, SizeArithmeticOverflowAborts) {
  EXPECT_EXIT(aco_share_stack_new(SIZE_MAX), testing::KilledBySignal(SIGABRT), "");
  EXPECT_EXIT(aco_share_stack_new(SIZE_MAX & ~(kPage - 1)), testing::KilledBySignal(SIGABRT), "");
}

TEST(AcoShareStackDeathTest, FailedMappingPrintsTheAllocationMessage) {
  EXPECT_DEATH(aco_share_stack_new2(size_t{1} << 60, 1),
               "Aborting: failed to allocate memory: src/aco:255:aco_share_stack_new2\n");
}

TEST(AcoShareStackDeathTest, FailedMallocPrintsTheAllocationMessage) {
  EXPECT_DEATH(aco_share_stack_new2(size_t{1} << 60, 0),
               "Aborting: failed to allocate memory: src/aco:267:aco_share_stack_new2\n");
}

TEST(AcoShareStackDeathTest, DestroyingNullOrEmptyAborts) {
  EXPECT_EXIT(aco_share_stack_destroy(nullptr), testing::KilledBySignal(SIGABRT), "");
  aco_share_stack empty{};
  EXPECT_EXIT(aco_share_stack_destroy(&empty), testing::KilledBySignal(SIGABRT), "");
}

TEST_F(AcoTest, MainCoroutineRecord) {
  int value = 0;
  aco_coroutine* m = aco_create(nullptr, stack_, 128, exitAtOnce, &value);
  EXPECT_TRUE(aco_is_main_co(m));
  EXPECT_EQ(m->main_co, nullptr);
  EXPECT_EQ(m->share_stack, nullptr);
  EXPECT_EQ(m->save_stack.buffer, nullptr);
  EXPECT_EQ(m->arg, &value);
  EXPECT_EQ(m->co_fp, exitAtOnce);
  EXPECT_EQ(m->is_end, 0);
  aco_destroy(m);
}

TEST_F(AcoTest, NonMainCoroutineRecord) {
  int value = 0;
  aco_coroutine* co = create(exitAtOnce, &value);
  EXPECT_FALSE(aco_is_main_co(co));
  EXPECT_EQ(co->main_co, main_co_);
  EXPECT_EQ(co->share_stack, stack_);
  EXPECT_EQ(co->arg, &value);
  EXPECT_EQ(co->co_fp, exitAtOnce);
  EXPECT_EQ(co->is_end, 0);
  EXPECT_EQ(co->saved_regs[4], reinterpret_cast<void*>(exitAtOnce));
  EXPECT_EQ(co->saved_regs[5], stack_->return_slot);
  for (int slot : {0, 1, 2, 3, 6, 7}) EXPECT_EQ(co->saved_regs[slot], nullptr) << slot;
  uint64_t fpu_word;
  std::memcpy(&fpu_word, &co->saved_regs[8], sizeof(fpu_word));
  EXPECT_EQ(fpu_word, aco_gtls_fpucw_mxcsr);
  EXPECT_NE(co->save_stack.buffer, nullptr);
  EXPECT_EQ(co->save_stack.capacity, 64u);
  EXPECT_EQ(co->save_stack.valid_size, 0u);
  EXPECT_EQ(co->save_stack.max_copied, 0u);
  EXPECT_EQ(co->save_stack.save_count, 0u);
  EXPECT_EQ(co->save_stack.restore_count, 0u);
  // The body starts with the stack pointer 8 below a 16-byte boundary, as after a call.
  EXPECT_EQ(reinterpret_cast<uintptr_t>(co->saved_regs[5]) % 16, 8u);
}

TEST_F(AcoTest, ExplicitSaveStackSizeIsTheInitialCapacity) {
  aco_coroutine* co = create(exitAtOnce, nullptr, 1000);
  EXPECT_EQ(co->save_stack.capacity, 1000u);
}

TEST_F(AcoTest, ThreadInitCapturesTheControlWordsInTheirBytes) {
  uint16_t cw = 0;
  uint32_t mxcsr = 0;
  __asm__ volatile("fnstcw %0" : "=m"(cw));
  __asm__ volatile("stmxcsr %0" : "=m"(mxcsr));
  aco_thread_init(nullptr);
  EXPECT_EQ(aco_gtls_fpucw_mxcsr, uint64_t{cw} | (uint64_t{mxcsr} << 32));
  uint64_t word = 0;
  aco_save_fpucw_mxcsr(&word);
  EXPECT_EQ(word, aco_gtls_fpucw_mxcsr);
}

TEST_F(AcoTest, ThreadInitWithNullKeepsTheLastWordHandler) {
  EXPECT_EQ(aco_gtls_last_word_fp, aco_default_protector_last_word);
  aco_thread_init(nullptr);
  EXPECT_EQ(aco_gtls_last_word_fp, aco_default_protector_last_word);
}

struct Trace {
  std::vector<int> steps;
  aco_coroutine* seen_co = nullptr;
  void* seen_arg = nullptr;
};

void tracingBody() {
  auto* trace = static_cast<Trace*>(aco_get_arg());
  trace->seen_co = aco_get_co();
  trace->seen_arg = aco_get_arg();
  trace->steps.push_back(1);
  aco_yield();
  trace->steps.push_back(2);
  aco_yield();
  trace->steps.push_back(3);
  aco_exit();
}

TEST_F(AcoTest, ResumeRunsUntilYieldAndExitEndsTheCoroutine) {
  Trace trace;
  aco_coroutine* co = create(tracingBody, &trace);
  EXPECT_EQ(aco_get_co(), nullptr);
  aco_resume(co);
  EXPECT_EQ(trace.steps, std::vector<int>({1}));
  EXPECT_EQ(trace.seen_co, co);
  EXPECT_EQ(trace.seen_arg, &trace);
  EXPECT_EQ(aco_get_co(), main_co_);  // set back to the main coroutine after every resume
  EXPECT_EQ(stack_->owner, co);
  aco_resume(co);
  EXPECT_EQ(trace.steps, std::vector<int>({1, 2}));
  EXPECT_EQ(co->is_end, 0);
  aco_resume(co);
  EXPECT_EQ(trace.steps, std::vector<int>({1, 2, 3}));
  EXPECT_EQ(co->is_end, 1);
  EXPECT_EQ(stack_->owner, nullptr);
  EXPECT_EQ(stack_->valid_size, 0u);
  EXPECT_EQ(co->save_stack.valid_size, 0u);
}

void yieldWithPlainAcosw() {
  for (;;) {
    aco_coroutine* self = aco_get_co();
    acosw(self, self->main_co);
  }
}

TEST_F(AcoTest, PlainAcoswYieldAlsoLeavesTheMainCoroutineCurrent) {
  aco_coroutine* co = create(yieldWithPlainAcosw);
  for (int i = 0; i < 3; ++i) {
    aco_resume(co);
    EXPECT_EQ(aco_get_co(), main_co_);
  }
}

TEST_F(AcoTest, ResumingTheOwnerOfItsShareStackCopiesNothing) {
  aco_coroutine* co = create(yieldForever);
  for (int i = 0; i < 100; ++i) {
    aco_resume(co);
    EXPECT_EQ(stack_->owner, co);
  }
  EXPECT_EQ(co->save_stack.save_count, 0u);
  EXPECT_EQ(co->save_stack.restore_count, 0u);
  EXPECT_EQ(co->save_stack.max_copied, 0u);
  EXPECT_EQ(co->save_stack.valid_size, 0u);
  EXPECT_EQ(stack_->valid_size, 8u);  // just the return slot
}

// Counts upward, keeping its state in locals (a buffer and a checksum) across yields.
struct Counter {
  int id = 0;
  int count = 0;
  bool intact = true;
};

__attribute__((noinline)) void countWithLocals(Counter* counter) {
  volatile unsigned char pattern[48];
  for (size_t i = 0; i < sizeof(pattern); ++i)
    pattern[i] = static_cast<unsigned char>(counter->id + i);
  for (int local = 0;; ++local) {
    counter->count = local;
    aco_yield();
    for (size_t i = 0; i < sizeof(pattern); ++i) {
      if (pattern[i] != static_cast<unsigned char>(counter->id + i)) counter->intact = false;
    }
    if (counter->count != local) counter->intact = false;
  }
}

void countingBody() { countWithLocals(static_cast<Counter*>(aco_get_arg())); }

TEST_F(AcoTest, TwoCoroutinesAlternatingKeepTheirLocalsAndCountEveryCopy) {
  Counter a{1}, b{2};
  aco_coroutine* ca = create(countingBody, &a);
  aco_coroutine* cb = create(countingBody, &b);
  aco_resume(ca);  // fresh: nothing to copy in, nobody to copy out
  EXPECT_EQ(ca->save_stack.save_count + ca->save_stack.restore_count, 0u);
  aco_resume(cb);  // a copied out, b fresh
  EXPECT_EQ(ca->save_stack.save_count, 1u);
  EXPECT_EQ(cb->save_stack.restore_count, 0u);
  for (uint64_t round = 1; round <= 50; ++round) {
    aco_resume(ca);
    EXPECT_EQ(cb->save_stack.save_count, round);
    EXPECT_EQ(ca->save_stack.restore_count, round);
    EXPECT_EQ(stack_->owner, ca);
    EXPECT_EQ(stack_->valid_size, ca->save_stack.valid_size + 8);
    aco_resume(cb);
    EXPECT_EQ(ca->save_stack.save_count, round + 1);
    EXPECT_EQ(cb->save_stack.restore_count, round);
  }
  EXPECT_EQ(a.count, 50);
  EXPECT_EQ(b.count, 50);
  EXPECT_TRUE(a.intact);
  EXPECT_TRUE(b.intact);
  // Bytes saved: exactly the used depth below the return slot, 8 more than a multiple of 16.
  EXPECT_GT(ca->save_stack.valid_size, 48u);
  EXPECT_EQ(ca->save_stack.valid_size % 16, 8u);
  EXPECT_EQ(ca->save_stack.max_copied, ca->save_stack.valid_size);
}

TEST_F(AcoTest, ManyCoroutinesOnOneShareStack) {
  constexpr int kCount = 64;
  std::vector<Counter> counters(kCount);
  std::vector<aco_coroutine*> cos;
  for (int i = 0; i < kCount; ++i) {
    counters[i].id = i;
    cos.push_back(create(countingBody, &counters[i]));
  }
  for (int round = 0; round < 10; ++round) {
    for (aco_coroutine* co : cos) aco_resume(co);
  }
  for (const Counter& c : counters) {
    EXPECT_EQ(c.count, 9);
    EXPECT_TRUE(c.intact);
  }
}

// A deep frame: forces save-stack growth well past the default 64 bytes and the memcpy path.
__attribute__((noinline)) void deepFrame(Counter* counter) {
  volatile unsigned char big[3000];
  for (size_t i = 0; i < sizeof(big); ++i) big[i] = static_cast<unsigned char>(i * 7 + counter->id);
  for (;;) {
    ++counter->count;
    aco_yield();
    for (size_t i = 0; i < sizeof(big); ++i) {
      if (big[i] != static_cast<unsigned char>(i * 7 + counter->id)) counter->intact = false;
    }
  }
}

void deepBody() { deepFrame(static_cast<Counter*>(aco_get_arg())); }

TEST_F(AcoTest, SaveStackGrowsByDoublingToTheUsedDepth) {
  Counter deep{3}, shallow{4};
  aco_coroutine* cd = create(deepBody, &deep);
  aco_coroutine* cs = create(countingBody, &shallow);
  aco_resume(cd);
  aco_resume(cs);  // copy-out of the deep coroutine
  const aco_save_stack& save = cd->save_stack;
  EXPECT_GE(save.valid_size, 3000u);
  EXPECT_GE(save.capacity, save.valid_size);
  EXPECT_LT(save.capacity, 2 * save.valid_size);
  EXPECT_EQ(save.capacity % 64, 0u);
  EXPECT_EQ(save.capacity & (save.capacity - 1), 0u);  // 64 doubled
  for (int i = 0; i < 5; ++i) {
    aco_resume(cd);
    aco_resume(cs);
  }
  EXPECT_EQ(deep.count, 6);
  EXPECT_TRUE(deep.intact);
  EXPECT_TRUE(shallow.intact);
}

TEST_F(AcoTest, FirstCopyOutOf200BytesGrowsTheDefaultSaveStackTo256) {
  // Put `victim` on the share stack by hand as an owner using exactly 200 bytes below the
  // return slot, then let another coroutine take the stack over.
  aco_coroutine* victim = create(exitAtOnce);
  aco_coroutine* other = create(yieldForever);
  char* const sp = static_cast<char*>(stack_->return_slot) - 200;
  for (int i = 0; i < 200; ++i) sp[i] = static_cast<char>(i);
  victim->saved_regs[5] = sp;
  stack_->owner = victim;
  stack_->valid_size = 208;
  ASSERT_EQ(victim->save_stack.capacity, 64u);

  aco_resume(other);

  EXPECT_EQ(victim->save_stack.valid_size, 200u);
  EXPECT_EQ(victim->save_stack.capacity, 256u);
  EXPECT_EQ(victim->save_stack.save_count, 1u);
  EXPECT_EQ(victim->save_stack.max_copied, 200u);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(victim->save_stack.buffer[i], static_cast<char>(i));
  EXPECT_EQ(stack_->owner, other);
  EXPECT_EQ(stack_->valid_size, 8u);
}

TEST_F(AcoTest, CopiesOfEveryShapeMoveTheExactBytesOutAndBackIn) {
  // Sizes on the 16-byte path (16k + 8, up to 136) and off it (longer, or not 16k + 8).
  for (size_t size : {8u, 24u, 40u, 120u, 136u, 152u, 200u, 72u, 100u, 33u, 1000u}) {
    aco_coroutine* victim = create(exitAtOnce);
    aco_coroutine* other = create(yieldForever);
    char* const sp = static_cast<char*>(stack_->return_slot) - size;
    std::string pattern(size, '\0');
    for (size_t i = 0; i < size; ++i) pattern[i] = static_cast<char>(i * 13 + size);
    std::memcpy(sp, pattern.data(), size);
    victim->saved_regs[5] = sp;
    stack_->owner = victim;
    stack_->valid_size = size + 8;

    aco_resume(other);  // copy-out of the victim
    aco_save_stack& save = victim->save_stack;
    ASSERT_EQ(save.valid_size, size);
    EXPECT_EQ(std::string(save.buffer, size), pattern) << size;
    std::memset(sp, 0, size);  // `other` ran there; make sure the bytes come from the buffer

    // Copy-in: continue the victim in a checker that reads the restored bytes above its
    // stack pointer without disturbing them.
    victim->saved_regs[4] = reinterpret_cast<void*>(kelvo_test_check_body);
    aco_resume(victim);
    EXPECT_EQ(save.restore_count, 1u);
    EXPECT_EQ(kelvo_test_restored, pattern) << size;
    EXPECT_EQ(victim->is_end, 1);
  }
}

TEST_F(AcoTest, SwitchPreservesCalleeSavedRegistersOnBothSides) {
  aco_coroutine* co = create(kelvo_test_register_body);
  uint64_t main_side[6] = {};
  for (int i = 0; i < 3; ++i) {
    kelvo_test_resume_with_marked_registers(co, main_side);
    for (int r = 0; r < 6; ++r) {
      EXPECT_EQ(main_side[r], 0x1111111111111111ull * static_cast<uint64_t>(r + 1)) << r;
    }
    if (i > 0) {
      for (int r = 0; r < 6; ++r) {
        EXPECT_EQ(kelvo_test_body_registers[r],
                  0x0101010101010101ull * static_cast<uint64_t>(r + 1))
            << r;
      }
    }
  }
}

struct FpuSeen {
  int rounding = -1;
  uint16_t cw = 0;
  uint32_t mxcsr = 0;
};

void fpuBody() {
  auto* seen = static_cast<FpuSeen*>(aco_get_arg());
  seen->rounding = std::fegetround();
  __asm__ volatile("fnstcw %0" : "=m"(seen->cw));
  __asm__ volatile("stmxcsr %0" : "=m"(seen->mxcsr));
  std::fesetround(FE_TOWARDZERO);  // the coroutine's own setting, not the resumer's
  aco_yield();
  seen->rounding = std::fegetround();
  aco_exit();
}

TEST_F(AcoTest, BodySeesTheFloatingPointControlCapturedAtThreadInit) {
  ASSERT_EQ(std::fesetround(FE_UPWARD), 0);
  aco_thread_init(nullptr);
  const uint64_t captured = aco_gtls_fpucw_mxcsr;
  ASSERT_EQ(std::fesetround(FE_TONEAREST), 0);

  FpuSeen seen;
  aco_coroutine* co = create(fpuBody, &seen);
  aco_resume(co);
  EXPECT_EQ(seen.rounding, FE_UPWARD);
  EXPECT_EQ(seen.cw, static_cast<uint16_t>(captured & 0xffff));
  EXPECT_EQ(seen.mxcsr, static_cast<uint32_t>(captured >> 32));
  EXPECT_EQ(std::fegetround(), FE_TONEAREST);  // the resumer's own control words came back
  aco_resume(co);
  EXPECT_EQ(seen.rounding, FE_TOWARDZERO);  // and the coroutine keeps its own
  EXPECT_EQ(std::fegetround(), FE_TONEAREST);
  aco_thread_init(nullptr);
}

// Throws at depth 0, catches at depth 1 (100), each outer level adds its own frame's 1.
__attribute__((noinline)) int throwAndCatch(int depth) {
  volatile char frame[64];
  frame[0] = 1;
  if (depth == 0) throw std::runtime_error("inside a coroutine");
  try {
    return throwAndCatch(depth - 1) + frame[0];
  } catch (const std::runtime_error&) {
    return 100;
  }
}

void exceptionBody() {
  auto* result = static_cast<int*>(aco_get_arg());
  *result = throwAndCatch(3);
  aco_yield();
  *result = throwAndCatch(2);
  aco_exit();
}

TEST_F(AcoTest, ExceptionsThrownAndCaughtInsideACoroutine) {
  int result = 0;
  aco_coroutine* co = create(exceptionBody, &result);
  aco_coroutine* other = create(countingBody, new Counter{9});
  aco_resume(co);
  EXPECT_EQ(result, 102);
  aco_resume(other);  // the exception's frames are copied out and back in
  aco_resume(co);
  EXPECT_EQ(result, 101);
  EXPECT_EQ(co->is_end, 1);
  delete static_cast<Counter*>(other->arg);
}

TEST_F(AcoTest, DestroyingTheOwnerReleasesTheShareStack) {
  aco_coroutine* co = aco_create(main_co_, stack_, 0, yieldForever, nullptr);
  aco_resume(co);
  EXPECT_EQ(stack_->owner, co);
  aco_destroy(co);  // suspended: simply discarded
  EXPECT_EQ(stack_->owner, nullptr);
  EXPECT_EQ(stack_->valid_size, 0u);
  aco_coroutine* next = create(exitAtOnce);
  aco_resume(next);
  EXPECT_EQ(next->is_end, 1);
}

TEST_F(AcoTest, DestroyingANonOwnerLeavesTheOwnerInPlace) {
  aco_coroutine* a = create(yieldForever);
  aco_coroutine* b = aco_create(main_co_, stack_, 0, yieldForever, nullptr);
  aco_resume(b);
  aco_resume(a);
  aco_destroy(b);
  EXPECT_EQ(stack_->owner, a);
  aco_resume(a);
}

TEST_F(AcoTest, RuntimeSelfTestDoesNothing) { aco_runtime_test(); }

}  // namespace
