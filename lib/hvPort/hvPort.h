// The hypervisor's I/O port, one access at a time: a block of register values goes in, the hypervisor's
// answer comes back in the same block.
//
// Outside the hypervisor the port instruction raises the privileged-instruction exception 0xC0000096; only
// Upgrader_CheckVersion is prepared for that. The calls keep no state: any thread, each with its own block.
#pragma once

#include <cstddef>
#include <cstdint>

// The general registers that the hypervisor reads or writes, whole 64-bit words, in the order in which the
// port routines load and store them.
struct HvPort_Registers {
    uint64_t ax; // in: magic, set by the call itself
    uint64_t bx;
    uint64_t cx;
    uint64_t dx; // in: bits 0 to 15 port number, set by the call itself; bits 16 to 31 channel id
    uint64_t si;
    uint64_t di;
    uint64_t bp; // high-bandwidth calls only
};
static_assert(sizeof(HvPort_Registers) == 56 && offsetof(HvPort_Registers, bp) == 48,
              "the port routines address the block by these offsets");

inline constexpr uint32_t HVPORT_MAGIC = 0x5248446B;
inline constexpr uint16_t HVPORT_LOW_BANDWIDTH = 0x5248;   // 32-bit port input
inline constexpr uint16_t HVPORT_HIGH_BANDWIDTH = 0x5249;  // repeated byte input and output
inline constexpr uint16_t HVPORT_COMMAND_GET_VERSION = 10; // cx bits 0 to 15
inline constexpr uint16_t HVPORT_COMMAND_MESSAGE = 30;     // cx bits 0 to 15
inline constexpr uint32_t HVPORT_VERSION = 6;              // the one version that this program speaks

// Bits 16 to 31 of a register, and a register made of two halves.
constexpr uint16_t HvPort_High(uint64_t word) {
    return static_cast<uint16_t>(word >> 16);
}
constexpr uint16_t HvPort_Low(uint64_t word) {
    return static_cast<uint16_t>(word);
}
constexpr uint64_t HvPort_Word(uint16_t high, uint16_t low) {
    return static_cast<uint64_t>(high) << 16 | low;
}

extern "C" {
// One 32-bit port input on the low-bandwidth port with ax, bx, cx, dx, si and di; bp is neither read nor
// written.
void HvPort(HvPort_Registers* registers);
// cx bytes from the address in si to the high-bandwidth port; all seven words go in and come back.
void HvPort_BulkOut(HvPort_Registers* registers);
// cx bytes from the high-bandwidth port to the address in di; all seven words go in and come back.
void HvPort_BulkIn(HvPort_Registers* registers);
}

// Asks the hypervisor for its version and type. Returns false, leaving the outputs alone, when none answered.
// Raises 0xC0000096 where the port is not intercepted at all.
bool HvPort_GetVersion(uint32_t* version, uint32_t* type);

// True when the program may run: a hypervisor answers with HVPORT_VERSION. A mismatch writes its message with
// Debug; the privileged-instruction exception counts as "no" without a message, every other one passes
// through.
bool Upgrader_CheckVersion();
