// Two coroutines taking turns on one share stack: each resume copies the other's live stack
// bytes out to its save stack and its own back in, so both keep their locals.
#include <mosk/kelvo/aco.h>

#include <cstdio>

namespace {

void worker() {
  int* counter = static_cast<int*>(aco_get_arg());
  int calls = 0;  // lives on the share stack; survives every switch
  for (;;) {
    *counter = ++calls;
    aco_yield();
  }
}

}  // namespace

int main() {
  aco_thread_init(nullptr);
  aco_coroutine* main_co = aco_create(nullptr, nullptr, 0, nullptr, nullptr);
  aco_share_stack* stack = aco_share_stack_new(0);  // 2 MiB with a read-only guard page
  int a = 0, b = 0;
  aco_coroutine* first = aco_create(main_co, stack, 0, worker, &a);
  aco_coroutine* second = aco_create(main_co, stack, 0, worker, &b);
  for (int i = 0; i < 3; ++i) {
    aco_resume(first);
    aco_resume(second);
  }
  std::printf(
      "a=%d b=%d, %llu copy-outs and %llu copy-ins of at most %llu bytes\n", a, b,
      static_cast<unsigned long long>(first->save_stack.save_count + second->save_stack.save_count),
      static_cast<unsigned long long>(first->save_stack.restore_count +
                                      second->save_stack.restore_count),
      static_cast<unsigned long long>(first->save_stack.max_copied));
  // Suspended coroutines are simply discarded: nothing on their stacks is unwound.
  aco_destroy(first);
  aco_destroy(second);
  aco_share_stack_destroy(stack);
  aco_destroy(main_co);
  return a == 3 && b == 3 ? 0 : 1;
}
