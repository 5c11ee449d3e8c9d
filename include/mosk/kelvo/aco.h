/* Shared-stack coroutines: a minimal asymmetric coroutine runtime with its own context switch.
 *
 * Every thread that uses coroutines has one main coroutine (it runs on the thread's own stack)
 * and any number of non-main coroutines. Non-main coroutines have no stack of their own: they
 * run on a share stack, one large execution stack that several coroutines take turns on. When a
 * coroutine is resumed on a share stack that another coroutine occupies, the occupant's live
 * stack bytes are copied into its private save stack (a heap buffer sized to what it actually
 * used) and the resumed coroutine's bytes are copied back. Thousands of suspended coroutines
 * therefore cost only their used stack depth. A coroutine that keeps a share stack to itself
 * (one coroutine per share stack) never copies anything.
 *
 * The switch, acosw(), saves and restores only the callee-saved registers (rbx, rbp, r12-r15),
 * the stack and instruction pointers, the x87 control word and MXCSR. It is an ordinary call
 * for the side that switches away.
 *
 * Typical use:
 *
 *   aco_thread_init(NULL);
 *   aco_coroutine* main_co = aco_create(NULL, NULL, 0, NULL, NULL);
 *   aco_share_stack* stack = aco_share_stack_new(0);      // 2 MiB + read-only guard page
 *   aco_coroutine* co = aco_create(main_co, stack, 0, body, &state);
 *   aco_resume(co);                                       // runs body until it yields
 *   ...
 *   void body(void) { ... aco_yield(); ... aco_exit(); }  // never `return` from a body
 *
 * Misuse (resuming a null, ended or main coroutine, a corrupt share stack, destroying NULL)
 * calls abort() without a message. An allocation failure prints
 * "Aborting: failed to allocate memory: src/aco:<line>:<function>" and aborts. A body that
 * returns instead of calling aco_exit() ends in the thread's last-word handler (by default two
 * "error: ..." lines on standard error, then abort()).
 *
 * Threading: a coroutine, its main coroutine and its share stack belong to one thread. The
 * current-coroutine pointer, the captured floating-point control state and the last-word
 * handler are thread-local. Nothing here takes a lock or uses atomics; never resume a coroutine
 * on a thread other than the one whose main coroutine it was created with. aco_resume(),
 * aco_yield() and aco_exit() allocate nothing and make no system call, except that
 * aco_resume() grows a save stack (malloc) the first time its coroutine is copied out with
 * more live bytes than the save stack holds.
 *
 * Sanitizers: built with AddressSanitizer or ThreadSanitizer, the library tells the sanitizer
 * about every switch (inside aco_resume(), through which every switch into a coroutine and
 * back out of it passes), so code running in coroutines is analysed correctly. The inline
 * helpers below are the same in every build.
 *
 * This header is C11 and C++17.
 */
#ifndef MOSK_KELVO_ACO_H_
#define MOSK_KELVO_ACO_H_

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include "mosk/kelvo/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A coroutine body: takes no argument (use aco_get_arg()) and must finish with aco_exit(). */
typedef void (*aco_cofuncp_t)(void);

typedef struct aco_coroutine aco_coroutine;

/* Private copy of a coroutine's stack while it is off its share stack. */
typedef struct aco_save_stack {
  char* buffer;           /* heap buffer holding the saved stack bytes */
  uint64_t capacity;      /* size of buffer in bytes */
  uint64_t valid_size;    /* live stack bytes currently saved; 0 for a fresh coroutine */
  uint64_t max_copied;    /* statistic: largest valid_size ever copied out or in */
  uint64_t save_count;    /* statistic: copy-outs performed */
  uint64_t restore_count; /* statistic: copy-ins performed */
} aco_save_stack;

/* An execution stack that several coroutines take turns on. */
typedef struct aco_share_stack {
  char* base;            /* lowest usable address (above the guard page, if any) */
  uint64_t size;         /* usable size in bytes */
  void* top;             /* (base + size - 16) rounded down to a multiple of 16 */
  void* return_slot;     /* top - 8: holds aco_funcp_protector_asm; every body's first stack
                            pointer */
  uint64_t valid_size;   /* bytes in use by the owner from return_slot up (owner's save-stack
                            valid_size + 8); 0 without owner */
  uint64_t limit;        /* size - 32: the deepest stack use allowed */
  aco_coroutine* owner;  /* coroutine whose bytes are on the stack now; NULL if none */
  char guard_enabled;    /* the area is a mapping whose lowest page is read-only */
  void* mapping_base;    /* whole mapping, guard page included (guard_enabled only) */
  uint64_t mapping_size; /* length of the whole mapping (guard_enabled only) */
} aco_share_stack;

/* A coroutine. saved_regs is the switch's register save area, addressed by position:
 * 0 r12, 1 r13, 2 r14, 3 r15, 4 instruction pointer, 5 stack pointer, 6 rbx, 7 rbp,
 * 8 x87 control word (byte 64) and MXCSR (byte 68). */
struct aco_coroutine {
  void* saved_regs[9];
  aco_coroutine* main_co; /* the main coroutine this one returns to; NULL for a main one */
  void* arg;              /* user argument given at creation */
  char is_end;            /* set by aco_exit(); an ended coroutine may not be resumed */
  aco_cofuncp_t co_fp;    /* the body */
  aco_save_stack save_stack;
  aco_share_stack* share_stack; /* NULL for a main coroutine */
};

#ifdef __cplusplus
#define ACO_STATIC_ASSERT(condition, message) static_assert(condition, message)
#else
#define ACO_STATIC_ASSERT(condition, message) _Static_assert(condition, message)
#endif

/* acosw and the copy routines address these records by byte offset. */
ACO_STATIC_ASSERT(sizeof(void*) == 8, "x86-64 only");
ACO_STATIC_ASSERT(offsetof(aco_coroutine, saved_regs) == 0, "saved_regs first");
ACO_STATIC_ASSERT(sizeof(((aco_coroutine*)0)->saved_regs) == 72, "nine register slots");
ACO_STATIC_ASSERT(offsetof(aco_coroutine, main_co) == 72, "aco_coroutine layout");
ACO_STATIC_ASSERT(offsetof(aco_coroutine, arg) == 80, "aco_coroutine layout");
ACO_STATIC_ASSERT(offsetof(aco_coroutine, is_end) == 88, "aco_coroutine layout");
ACO_STATIC_ASSERT(offsetof(aco_coroutine, co_fp) == 96, "aco_coroutine layout");
ACO_STATIC_ASSERT(offsetof(aco_coroutine, save_stack) == 104, "aco_coroutine layout");
ACO_STATIC_ASSERT(offsetof(aco_coroutine, share_stack) == 152, "aco_coroutine layout");
ACO_STATIC_ASSERT(sizeof(aco_coroutine) == 160, "aco_coroutine layout");
ACO_STATIC_ASSERT(offsetof(aco_save_stack, buffer) == 0, "aco_save_stack layout");
ACO_STATIC_ASSERT(offsetof(aco_save_stack, capacity) == 8, "aco_save_stack layout");
ACO_STATIC_ASSERT(offsetof(aco_save_stack, valid_size) == 16, "aco_save_stack layout");
ACO_STATIC_ASSERT(offsetof(aco_save_stack, max_copied) == 24, "aco_save_stack layout");
ACO_STATIC_ASSERT(offsetof(aco_save_stack, save_count) == 32, "aco_save_stack layout");
ACO_STATIC_ASSERT(offsetof(aco_save_stack, restore_count) == 40, "aco_save_stack layout");
ACO_STATIC_ASSERT(sizeof(aco_save_stack) == 48, "aco_save_stack layout");
ACO_STATIC_ASSERT(offsetof(aco_share_stack, base) == 0, "aco_share_stack layout");
ACO_STATIC_ASSERT(offsetof(aco_share_stack, size) == 8, "aco_share_stack layout");
ACO_STATIC_ASSERT(offsetof(aco_share_stack, top) == 16, "aco_share_stack layout");
ACO_STATIC_ASSERT(offsetof(aco_share_stack, return_slot) == 24, "aco_share_stack layout");
ACO_STATIC_ASSERT(offsetof(aco_share_stack, valid_size) == 32, "aco_share_stack layout");
ACO_STATIC_ASSERT(offsetof(aco_share_stack, limit) == 40, "aco_share_stack layout");
ACO_STATIC_ASSERT(offsetof(aco_share_stack, owner) == 48, "aco_share_stack layout");
ACO_STATIC_ASSERT(offsetof(aco_share_stack, guard_enabled) == 56, "aco_share_stack layout");
ACO_STATIC_ASSERT(offsetof(aco_share_stack, mapping_base) == 64, "aco_share_stack layout");
ACO_STATIC_ASSERT(offsetof(aco_share_stack, mapping_size) == 72, "aco_share_stack layout");
ACO_STATIC_ASSERT(sizeof(aco_share_stack) == 80, "aco_share_stack layout");

/* Thread-locals. Initial-exec: reached with one %fs-relative access, no __tls_get_addr call,
 * which keeps resume and yield on the fast path. */
/* The coroutine running on this thread: acosw() sets it to the coroutine it continues, so it
 * names the resumed coroutine inside a body and the main coroutine once aco_resume() has
 * returned. NULL before the thread's first resume. */
KELVO_EXPORT extern __thread aco_coroutine* aco_gtls_co __attribute__((tls_model("initial-exec")));
/* This thread's x87 control word (bytes 0-1) and MXCSR (bytes 4-7), captured by
 * aco_thread_init() and given to every non-main coroutine created afterwards. */
KELVO_EXPORT extern __thread uint64_t aco_gtls_fpucw_mxcsr
    __attribute__((tls_model("initial-exec")));
/* Called when a body returns instead of calling aco_exit(); default
 * aco_default_protector_last_word. */
KELVO_EXPORT extern __thread aco_cofuncp_t aco_gtls_last_word_fp
    __attribute__((tls_model("initial-exec")));

/* Captures the calling thread's FPU control word and MXCSR; installs last_word_co_fp as the
 * thread's last-word handler unless it is NULL. Call on a thread before creating non-main
 * coroutines there: without it, aco_gtls_fpucw_mxcsr is still 0 and new coroutines start with
 * every floating-point exception unmasked (the first inexact result raises SIGFPE). */
KELVO_EXPORT void aco_thread_init(aco_cofuncp_t last_word_co_fp);

/* aco_share_stack_new2(size, 1). */
KELVO_EXPORT aco_share_stack* aco_share_stack_new(size_t size);
/* A share stack of at least `size` usable bytes (0: 2 MiB; below 4096: 4096). With
 * guard_page_enabled, the area is an anonymous mapping rounded up to whole pages whose lowest
 * page (below `base`) is read-only, so that an overflow faults; without, it is malloc(size). */
KELVO_EXPORT aco_share_stack* aco_share_stack_new2(size_t size, char guard_page_enabled);
/* Frees a share stack. Destroy every coroutine on it first. */
KELVO_EXPORT void aco_share_stack_destroy(aco_share_stack* s);

/* With main_co NULL: creates the calling thread's main coroutine (other arguments but arg and
 * co_fp are ignored). Otherwise creates a coroutine that will run co_fp on share_stack and
 * return to main_co; save_stack_size is the initial save-stack capacity (0: 64 bytes; it
 * grows on demand). Nothing runs until aco_resume(). */
KELVO_EXPORT aco_coroutine* aco_create(aco_coroutine* main_co, aco_share_stack* share_stack,
                                       size_t save_stack_size, aco_cofuncp_t co_fp, void* arg);
/* Switches from co's main coroutine into co; returns when co yields or exits. Call it from
 * the main coroutine (the thread's own stack), never from inside a coroutine. */
KELVO_EXPORT void aco_resume(aco_coroutine* co);
/* Frees co and its save stack. A suspended coroutine is discarded as is: nothing on its stack
 * is unwound or destroyed. */
KELVO_EXPORT void aco_destroy(aco_coroutine* co);

/* The context switch: saves the caller's context into `from`, makes `to` the current
 * coroutine (aco_gtls_co) and continues it. Returns when someone switches back to `from`. */
KELVO_EXPORT void acosw(aco_coroutine* from, aco_coroutine* to);
/* Stores the x87 control word at byte 0 and MXCSR at byte 4 of the 64-bit word at p. */
KELVO_EXPORT void aco_save_fpucw_mxcsr(void* p);
/* Where a returning body lands: aligns the stack and calls aco_funcp_protector(). */
KELVO_EXPORT void aco_funcp_protector_asm(void) __attribute__((noreturn));
/* Calls the thread's last-word handler (the default one if NULL), then abort(). */
KELVO_EXPORT void aco_funcp_protector(void) __attribute__((noreturn));
/* Prints which coroutine returned from which body, then abort(). */
KELVO_EXPORT void aco_default_protector_last_word(void) __attribute__((noreturn));
/* Self-test entry point; does nothing. */
KELVO_EXPORT void aco_runtime_test(void);

/* ---- Inline helpers, for use inside coroutine bodies and by their resumers. ---- */

/* The coroutine running on this thread (see aco_gtls_co). */
static inline aco_coroutine* aco_get_co(void) { return aco_gtls_co; }

/* The argument of the running coroutine. Only valid inside a coroutine body. */
static inline void* aco_get_arg(void) { return aco_gtls_co->arg; }

/* Non-zero for a main coroutine (one that has no main coroutine to return to). */
static inline int aco_is_main_co(const aco_coroutine* co) { return co->main_co == NULL; }

/* Suspends `co` (the running coroutine) and returns to the aco_resume() that resumed it; the
 * call returns when co is resumed again. Aborts if co is NULL or a main coroutine. */
static inline void aco_yield1(aco_coroutine* co) {
  if (co == NULL || co->main_co == NULL) abort();
  acosw(co, co->main_co);
}

/* Suspends the running coroutine (see aco_yield1). */
static inline void aco_yield(void) { aco_yield1(aco_gtls_co); }

/* Ends `co` (the running coroutine): marks it ended, gives its share stack up and returns to
 * its resumer for good. Never returns. Aborts if co is NULL, a main coroutine, or does not own
 * its share stack. */
__attribute__((noreturn)) static inline void aco_exit1(aco_coroutine* co) {
  if (co == NULL || co->main_co == NULL) abort();
  co->is_end = 1;
  if (co->share_stack->owner != co) abort();
  co->share_stack->owner = NULL;
  co->share_stack->valid_size = 0;
  acosw(co, co->main_co);
  abort(); /* an ended coroutine is never switched back to */
}

/* Ends the running coroutine (see aco_exit1). The only correct way for a body to finish. */
__attribute__((noreturn)) static inline void aco_exit(void) { aco_exit1(aco_gtls_co); }

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* MOSK_KELVO_ACO_H_ */
