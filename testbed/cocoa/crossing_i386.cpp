// The two pieces of the border that no compiler writes: calling with any number of words while
// keeping whatever the callee answers (edx:eax or st(0)) untouched, and a table of thunks that
// native code may call. Both have unwind information, so that a native throw passes through them.

#include "testbed/cocoa/marks.h"

#include <cstddef>

// The assembly below knows these numbers.
static_assert(sizeof(marks::bundle_mark) <= 176);
static_assert(offsetof(marks::bundle_mark, environment) == 16);

asm(R"(
    .text
    .p2align 4
    .globl crossing_enter
    .type crossing_enter, @function
    .globl crossing_enter_fp
    .type crossing_enter_fp, @function
crossing_enter:
crossing_enter_fp:
.Lcrossing_enter:
    .cfi_startproc
    pushl %ebp
    .cfi_def_cfa_offset 8
    .cfi_offset %ebp, -8
    movl %esp, %ebp
    .cfi_def_cfa_register %ebp
    pushl %ebx
    .cfi_offset %ebx, -12
    pushl %esi
    .cfi_offset %esi, -16
    pushl %edi
    .cfi_offset %edi, -20
    # -188(%ebp): the bundle mark; -192 and -196: eax and edx while the mark is taken off
    subl $204, %esp
    andl $-16, %esp
    call 1f
1:  popl %ebx
    addl $_GLOBAL_OFFSET_TABLE_+(.-1b), %ebx
    leal -188(%ebp), %eax
    movl %eax, (%esp)
    call crossing_bundle_push
    leal -172(%ebp), %eax
    movl %eax, (%esp)
    call _setjmp@PLT
    testl %eax, %eax
    jne 2f
    movl 16(%ebp), %ecx
    leal 15(,%ecx,4), %eax
    andl $-16, %eax
    subl %eax, %esp
    movl %esp, %edi
    movl 12(%ebp), %esi
    rep movsl
    call *8(%ebp)
    movl %eax, -192(%ebp)
    movl %edx, -196(%ebp)
    leal -216(%ebp), %esp
    andl $-16, %esp
    leal -188(%ebp), %eax
    movl %eax, (%esp)
    call crossing_bundle_pop
    movl -192(%ebp), %eax
    movl -196(%ebp), %edx
    leal -12(%ebp), %esp
    popl %edi
    popl %esi
    popl %ebx
    popl %ebp
    .cfi_remember_state
    .cfi_def_cfa %esp, 4
    ret
2:  .cfi_restore_state
    leal -188(%ebp), %eax
    movl %eax, (%esp)
    call crossing_bundle_rethrow
    ud2
    .cfi_endproc
    .size crossing_enter, .-crossing_enter
    .size crossing_enter_fp, .-crossing_enter_fp

    .p2align 4
    .type crossing_thunk_common, @function
crossing_thunk_common:
    .cfi_startproc
    pushl %ebp
    .cfi_def_cfa_offset 8
    .cfi_offset %ebp, -8
    movl %esp, %ebp
    .cfi_def_cfa_register %ebp
    subl $24, %esp
    andl $-16, %esp
    call 1f
1:  popl %edx
    addl $_GLOBAL_OFFSET_TABLE_+(.-1b), %edx
    movl crossing_thunk_targets@GOTOFF(%edx,%ecx,4), %ecx
    leal 8(%ebp), %eax
    movl %ecx, (%esp)
    movl %eax, 4(%esp)
    movl $12, 8(%esp)
    call .Lcrossing_enter
    leave
    .cfi_def_cfa %esp, 4
    ret
    .cfi_endproc
    .size crossing_thunk_common, .-crossing_thunk_common

    # Slot n: the number n for the common part, in 16 bytes.
    .p2align 4
    .globl crossing_thunk_slots
    .hidden crossing_thunk_slots
    .type crossing_thunk_slots, @function
crossing_thunk_slots:
    .cfi_startproc
    .set slot, 0
    .rept 1024
    .p2align 4
    movl $slot, %ecx
    jmp crossing_thunk_common
    .set slot, slot + 1
    .endr
    .cfi_endproc
    .size crossing_thunk_slots, .-crossing_thunk_slots
)");
