// Memory cost of suspended coroutines: 10,000 coroutines on one share stack, each suspended
// with under 200 bytes of live stack. Reports, per coroutine, the runtime's own accounting
// (record + save-stack capacity), the heap growth seen by malloc (mallinfo2) and the growth of
// the resident set (/proc/self/statm). Exits non-zero if any figure reaches 1 KiB.
#include <malloc.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <vector>

#include "mosk/kelvo/aco.h"

namespace {

constexpr int kCoroutines = 10000;
constexpr double kBudgetBytes = 1024.0;

// Resident pages of this process.
long residentPages() {
  long size = 0, resident = 0;
  std::FILE* f = std::fopen("/proc/self/statm", "r");
  if (f == nullptr) return -1;
  if (std::fscanf(f, "%ld %ld", &size, &resident) != 2) resident = -1;
  std::fclose(f);
  return resident;
}

size_t heapInUse() { return mallinfo2().uordblks; }

// A frame with some live locals at the yield: well under 200 bytes in all.
__attribute__((noinline)) void holdLocalsAndYield() {
  volatile char locals[112];
  for (char& c : const_cast<char(&)[112]>(locals)) c = 7;
  for (;;) aco_yield();
}

void body() { holdLocalsAndYield(); }

}  // namespace

int main() {
  aco_thread_init(nullptr);
  aco_coroutine* main_co = aco_create(nullptr, nullptr, 0, nullptr, nullptr);
  aco_share_stack* stack = aco_share_stack_new(0);
  std::vector<aco_coroutine*> cos;
  cos.reserve(kCoroutines);
  {  // Warm-up: touch the share stack pages a coroutine uses, outside the measurement.
    aco_coroutine* warm = aco_create(main_co, stack, 0, body, nullptr);
    aco_resume(warm);
    aco_destroy(warm);
  }

  const size_t heap_before = heapInUse();
  const long pages_before = residentPages();

  for (int i = 0; i < kCoroutines; ++i) {
    cos.push_back(aco_create(main_co, stack, 0, body, nullptr));
    aco_resume(cos.back());  // suspends it, copying the previous one out
  }

  const size_t heap_after = heapInUse();
  const long pages_after = residentPages();

  uint64_t accounted = 0, max_live = 0;
  for (aco_coroutine* co : cos) {
    accounted += sizeof(aco_coroutine) + co->save_stack.capacity;
    // The last one still owns the share stack: its live bytes are there, not saved.
    const uint64_t live = co == stack->owner ? stack->valid_size - 8 : co->save_stack.valid_size;
    if (live > max_live) max_live = live;
  }
  const double per_accounted = static_cast<double>(accounted) / kCoroutines;
  const double per_heap = static_cast<double>(heap_after - heap_before) / kCoroutines;
  const double per_rss =
      static_cast<double>(pages_after - pages_before) * sysconf(_SC_PAGESIZE) / kCoroutines;

  std::printf("coroutines: %d suspended on one share stack, max live stack %llu bytes\n",
              kCoroutines, static_cast<unsigned long long>(max_live));
  std::printf("record + save stack capacity: %.1f bytes per coroutine (record %zu)\n",
              per_accounted, sizeof(aco_coroutine));
  std::printf("heap growth (mallinfo2):      %.1f bytes per coroutine\n", per_heap);
  std::printf("resident set growth (statm):  %.1f bytes per coroutine\n", per_rss);

  for (aco_coroutine* co : cos) aco_destroy(co);
  aco_share_stack_destroy(stack);
  aco_destroy(main_co);

  const bool ok = max_live < 200 && per_accounted < kBudgetBytes && per_heap < kBudgetBytes &&
                  per_rss < kBudgetBytes;
  std::printf("%s: budget %.0f bytes per coroutine\n", ok ? "PASS" : "FAIL", kBudgetBytes);
  return ok ? 0 : 1;
}
