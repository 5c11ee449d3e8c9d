/* Compiles the coroutine runtime's header as C11 (-std=c11 -Wall -Wextra -Werror): the record
 * layout as C sees it, every declaration, and the inline helpers. Never run, only compiled. */
#include <stddef.h>
#include <stdint.h>

#include "mosk/kelvo/aco.h"

_Static_assert(sizeof(aco_coroutine) == 160, "aco_coroutine size seen from C");
_Static_assert(sizeof(aco_save_stack) == 48, "aco_save_stack size seen from C");
_Static_assert(sizeof(aco_share_stack) == 80, "aco_share_stack size seen from C");
_Static_assert(offsetof(aco_coroutine, saved_regs) == 0, "saved_regs first");
_Static_assert(offsetof(aco_coroutine, save_stack) + offsetof(aco_save_stack, valid_size) == 120,
               "embedded save stack");
_Static_assert(sizeof(char) == sizeof(((aco_coroutine*)0)->is_end), "booleans are bytes");

static void kelvo_c_body(void) {
  int* counter = (int*)aco_get_arg();
  ++*counter;
  aco_yield();
  if (!aco_is_main_co(aco_get_co())) aco_yield1(aco_get_co());
  aco_exit();
}

static void kelvo_c_last_word(void) { aco_exit1(aco_get_co()); }

int kelvo_aco_header_is_c11(void) {
  int counter = 0;
  uint64_t fpu = 0;
  aco_thread_init(kelvo_c_last_word);
  aco_save_fpucw_mxcsr(&fpu);
  aco_coroutine* main_co = aco_create(NULL, NULL, 0, NULL, NULL);
  aco_share_stack* stack = aco_share_stack_new2(0, 1);
  aco_share_stack* plain = aco_share_stack_new(4096);
  aco_coroutine* co = aco_create(main_co, stack, 0, kelvo_c_body, &counter);
  while (!co->is_end) aco_resume(co);
  aco_cofuncp_t entries[] = {aco_funcp_protector_asm, aco_funcp_protector,
                             aco_default_protector_last_word, aco_runtime_test};
  void (*sw)(aco_coroutine*, aco_coroutine*) = acosw;
  aco_destroy(co);
  aco_share_stack_destroy(plain);
  aco_share_stack_destroy(stack);
  aco_destroy(main_co);
  return counter + (int)(aco_gtls_fpucw_mxcsr != fpu) + (entries[0] == NULL) + (sw == NULL) +
         (aco_gtls_last_word_fp == NULL) + (aco_gtls_co != NULL);
}
