// The version query behind a structured-exception guard. The compiler has no __try, so the guard is a few
// lines of assembler (hvPortGuardWin32.S) with a scope table for the C runtime's handler.
#pragma once

#include <cstdint>

inline constexpr int HVPORT_GUARD_SILENT = 0;   // no hypervisor answered
inline constexpr int HVPORT_GUARD_ANSWERED = 1; // the outputs are valid
inline constexpr int HVPORT_GUARD_FAULT = 2;    // the port instruction raised 0xC0000096

extern "C" {
// HvPort_GetVersion with a number as its result: SILENT or ANSWERED.
int HvPortAskVersion(uint32_t* version, uint32_t* type);
// The same inside the guard: FAULT for the privileged-instruction exception; any other passes through.
int HvPortGuardedAskVersion(uint32_t* version, uint32_t* type);
// Filter of the guard, called by the C runtime's handler: 1 to take an exception, 0 to let it pass.
int HvPortGuardFilter(void* exceptionPointers, void* frame);
}
