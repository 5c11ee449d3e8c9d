/* The coroutine context switch and the entry that catches a returning coroutine body.
 *
 * Register save area of an aco_coroutine (saved_regs, at the start of the record):
 *   0 r12   8 r13   16 r14   24 r15   32 instruction pointer   40 stack pointer
 *   48 rbx  56 rbp  64 x87 control word (16 bits)   68 MXCSR (32 bits)
 *
 * Only what the System V x86-64 calling convention obliges a callee to preserve is saved:
 * caller-saved registers, vector registers and flags are dead across a call anyway. The two
 * control words are callee-saved too ("control bits" of MXCSR and the x87 control word), and
 * each coroutine may run with its own rounding mode and exception masks.
 */
        .text

/* void acosw(aco_coroutine* from, aco_coroutine* to)
 *
 * Saves the caller's context into `from`, sets aco_gtls_co to `to`, continues `to`.
 *
 * No prologue: for the side that switches away this is an ordinary call, so its return
 * address and the stack pointer it will have after returning are what gets saved. The side
 * that continues is entered by an indirect jump, either after its own acosw call or, for a
 * fresh coroutine, at the start of its body with the stack pointer on the share stack's
 * return slot.
 *
 * The code is emitted twice: as acosw, which coroutines call to yield or exit, and as the
 * hidden kelvo_acosw_local, which aco_resume tail-calls (a direct jump, no PLT). Two copies
 * give the two directions of a resume/yield round trip an indirect jump each: each one then
 * goes to the same place every time (into the coroutine, back to the resumer) and the branch
 * predictor gets it right, where one shared jump alternating between the two targets is
 * mispredicted whenever the history does not tell the directions apart. */
        .macro  ACO_SWITCH
        movq    (%rsp), %rcx            /* return address of this call */
        leaq    8(%rsp), %rdx           /* caller's stack pointer once we have returned */
        movq    %r12, 0(%rdi)
        movq    %r13, 8(%rdi)
        movq    %r14, 16(%rdi)
        movq    %r15, 24(%rdi)
        movq    %rcx, 32(%rdi)
        movq    %rdx, 40(%rdi)
        movq    %rbx, 48(%rdi)
        movq    %rbp, 56(%rdi)
        fnstcw  64(%rdi)
        stmxcsr 68(%rdi)

        /* The coroutine about to run becomes the thread's current one (aco_gtls_co). Doing it
         * here rather than in aco_resume after the switch returns lets aco_resume end with a
         * tail call: the yielding side then jumps straight back to aco_resume's caller, and no
         * `ret` is left whose return-stack-buffer prediction the switch would have spoilt. */
        movq    aco_gtls_co@GOTTPOFF(%rip), %rax
        movq    %rsi, %fs:(%rax)

        movq    0(%rsi), %r12
        movq    8(%rsi), %r13
        movq    16(%rsi), %r14
        movq    24(%rsi), %r15
        movq    32(%rsi), %rcx          /* where to continue */
        movq    40(%rsi), %rdx          /* with this stack pointer */
        movq    48(%rsi), %rbx
        movq    56(%rsi), %rbp
        fldcw   64(%rsi)
        ldmxcsr 68(%rsi)

        movq    %rdx, %rsp
        jmpq    *%rcx
        .endm

        .globl  acosw
        .type   acosw, @function
        .p2align 4
acosw:
        .cfi_startproc
        ACO_SWITCH
        .cfi_endproc
        .size   acosw, .-acosw

        .globl  kelvo_acosw_local
        .hidden kelvo_acosw_local
        .type   kelvo_acosw_local, @function
        .p2align 4
kelvo_acosw_local:
        .cfi_startproc
        ACO_SWITCH
        .cfi_endproc
        .size   kelvo_acosw_local, .-kelvo_acosw_local

/* void aco_save_fpucw_mxcsr(void* p): x87 control word at byte 0, MXCSR at byte 4. */
        .globl  aco_save_fpucw_mxcsr
        .type   aco_save_fpucw_mxcsr, @function
        .p2align 4
aco_save_fpucw_mxcsr:
        .cfi_startproc
        fnstcw  0(%rdi)
        stmxcsr 4(%rdi)
        ret
        .cfi_endproc
        .size   aco_save_fpucw_mxcsr, .-aco_save_fpucw_mxcsr

/* void aco_funcp_protector_asm(void)
 *
 * Its address sits in every share stack's return slot, so a body that returns instead of
 * calling aco_exit() lands here, with the stack pointer just above the return slot. There is
 * no caller to go back to: realign the stack for a call and hand over to the last-word
 * handler, which must not return. The frame is marked outermost for unwinders. */
        .globl  aco_funcp_protector_asm
        .type   aco_funcp_protector_asm, @function
        .p2align 4
aco_funcp_protector_asm:
        .cfi_startproc
        .cfi_undefined rip
        andq    $-16, %rsp
        call    aco_funcp_protector@PLT
        call    abort@PLT
        .cfi_endproc
        .size   aco_funcp_protector_asm, .-aco_funcp_protector_asm

        .section .note.GNU-stack,"",@progbits
