#include "sim/portInstruction.h"

#include <algorithm>
#include <array>

namespace {

constexpr uint8_t OPERAND_SIZE = 0x66;
constexpr uint8_t REPEAT = 0xF3;
constexpr uint8_t IN_BYTES = 0x6C;
constexpr uint8_t OUT_BYTES = 0x6E;
constexpr uint8_t IN_DWORD = 0xED; // in eax, dx
// Segment overrides and the address size change nothing here; F2 repeats as well as F3 does.
constexpr std::array<uint8_t, 10> PREFIXES = {0x26, 0x2E,         0x36, 0x3E, 0x64,
                                              0x65, OPERAND_SIZE, 0x67, 0xF2, REPEAT};

bool IsPrefix(uint8_t byte) {
    return std::find(PREFIXES.begin(), PREFIXES.end(), byte) != PREFIXES.end() || (byte & 0xF0) == 0x40;
}

} // namespace

bool PortInstruction_Decode(std::span<const uint8_t> code, uint64_t dx, PortInstruction* instruction) {
    code = code.first(std::min(code.size(), PORT_INSTRUCTION_MAX));
    size_t opcode = 0;
    bool repeated = false;
    bool words = false;
    while (opcode < code.size() && IsPrefix(code[opcode])) {
        repeated = repeated || code[opcode] == REPEAT || code[opcode] == 0xF2;
        words = words || code[opcode] == OPERAND_SIZE;
        ++opcode;
    }
    if (opcode == code.size()) {
        return false;
    }
    uint16_t port = HvPort_Low(dx);
    instruction->length = opcode + 1;
    switch (code[opcode]) {
    case IN_DWORD:
        instruction->kind = Hypervisor_Instruction::In;
        return port == HVPORT_LOW_BANDWIDTH && !words;
    case OUT_BYTES:
        instruction->kind = Hypervisor_Instruction::BulkOut;
        return port == HVPORT_HIGH_BANDWIDTH && repeated;
    case IN_BYTES:
        instruction->kind = Hypervisor_Instruction::BulkIn;
        return port == HVPORT_HIGH_BANDWIDTH && repeated;
    default:
        return false;
    }
}
