# int HvPortGuardedAskVersion(uint32_t* version, uint32_t* type): HvPortAskVersion inside the guard.

#define HVPORT_GUARD_FAULT 2

        .text
        .globl  HvPortGuardedAskVersion
        .def    HvPortGuardedAskVersion; .scl 2; .type 32; .endef
        .seh_proc HvPortGuardedAskVersion
HvPortGuardedAskVersion:
        subq    $40, %rsp
        .seh_stackalloc 40
        .seh_endprologue
        .seh_handler __C_specific_handler, @except
        .seh_handlerdata
        .long   1
        .rva    .Lguarded, .Lguarded_end, HvPortGuardFilter, .Lfault
        .text
.Lguarded:
        call    HvPortAskVersion
        nop                             # the return address must lie inside the guarded range
.Lguarded_end:
        addq    $40, %rsp
        ret
.Lfault:
        movl    $HVPORT_GUARD_FAULT, %eax
        addq    $40, %rsp
        ret
        .seh_endproc
