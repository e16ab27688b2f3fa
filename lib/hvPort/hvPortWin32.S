# The port accesses. rcx holds the block; r8 keeps it, because the hypervisor writes none of r8 to r15. Every
# routine has unwind information: outside the hypervisor its port instruction raises an exception.

#define MAGIC 0x5248446B
#define LOW_BANDWIDTH 0x5248
#define HIGH_BANDWIDTH 0x5249

#define AX 0
#define BX 8
#define CX 16
#define DX 24
#define SI 32
#define DI 40
#define BP 48

        .text

.macro load_six
        movq    AX(%r8), %rax
        movq    BX(%r8), %rbx
        movq    CX(%r8), %rcx
        movq    DX(%r8), %rdx
        movq    SI(%r8), %rsi
        movq    DI(%r8), %rdi
.endm

.macro store_six
        movq    %rax, AX(%r8)
        movq    %rbx, BX(%r8)
        movq    %rcx, CX(%r8)
        movq    %rdx, DX(%r8)
        movq    %rsi, SI(%r8)
        movq    %rdi, DI(%r8)
.endm

# Of the registers that the C++ side expects back; rsp alone describes the frame.
.macro save_nonvolatile
        pushq   %rbx
        .seh_pushreg %rbx
        pushq   %rsi
        .seh_pushreg %rsi
        pushq   %rdi
        .seh_pushreg %rdi
.endm

.macro restore_nonvolatile
        popq    %rdi
        popq    %rsi
        popq    %rbx
.endm

        .globl  HvPort
        .def    HvPort; .scl 2; .type 32; .endef
        .seh_proc HvPort
HvPort:
        save_nonvolatile
        .seh_endprologue
        movq    %rcx, %r8
        movq    $MAGIC, AX(%r8)
        movw    $LOW_BANDWIDTH, DX(%r8)
        load_six
        inl     %dx, %eax
        store_six
        restore_nonvolatile
        ret
        .seh_endproc

.macro bulk name, instruction
        .globl  \name
        .def    \name; .scl 2; .type 32; .endef
        .seh_proc \name
\name:
        save_nonvolatile
        pushq   %rbp
        .seh_pushreg %rbp
        .seh_endprologue
        movq    %rcx, %r8
        movq    $MAGIC, AX(%r8)
        movw    $HIGH_BANDWIDTH, DX(%r8)
        load_six
        movq    BP(%r8), %rbp
        cld
        rep \instruction
        store_six
        movq    %rbp, BP(%r8)
        popq    %rbp
        restore_nonvolatile
        ret
        .seh_endproc
.endm

        bulk    HvPort_BulkOut, outsb
        bulk    HvPort_BulkIn, insb
