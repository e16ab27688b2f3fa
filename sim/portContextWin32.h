// The register block of a port access in a Windows thread context.
#pragma once

#include "hvPort/hvPort.h"

#include <windows.h>

inline constexpr DWORD PORT_CONTEXT_DIRECTION_FLAG = 0x400; // of EFlags

inline HvPort_Registers PortContext_Load(const CONTEXT& context) {
    return {context.Rax, context.Rbx, context.Rcx, context.Rdx, context.Rsi, context.Rdi, context.Rbp};
}

// Stores the answer and steps over the instruction.
inline void PortContext_Store(const HvPort_Registers& registers, size_t instructionLength, CONTEXT* context) {
    context->Rax = registers.ax;
    context->Rbx = registers.bx;
    context->Rcx = registers.cx;
    context->Rdx = registers.dx;
    context->Rsi = registers.si;
    context->Rdi = registers.di;
    context->Rbp = registers.bp;
    context->Rip += instructionLength;
}
