// Tells the hypervisor's port instructions from every other privileged one.
#pragma once

#include "sim/hypervisor.h"

#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr size_t PORT_INSTRUCTION_MAX = 15; // bytes; no x86 instruction is longer

struct PortInstruction {
    Hypervisor_Instruction kind;
    size_t length; // bytes, prefixes included
};

// Decodes the instruction at the start of `code`. True when it is a 32-bit port input, or a repeated
// byte-string input or output, on the port that belongs to it; `dx` is the register's value.
bool PortInstruction_Decode(std::span<const uint8_t> code, uint64_t dx, PortInstruction* instruction);
