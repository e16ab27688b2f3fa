// That the model finds every register that a guest could get wrong. What it answers to a guest that gets them
// right is tested with the real channel.

#include "sim/hypervisor.h"
#include "sim/portInstruction.h"

#include <array>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::HasSubstr;
using enum Hypervisor_Instruction;
using enum HostChannel_SubCommand;
using Registers = HvPort_Registers;

constexpr uint64_t UPPER = uint64_t{1} << 40; // a bit of a register's upper half
constexpr char MESSAGE[] = "command";         // waits for the guest
constexpr size_t LENGTH = sizeof MESSAGE - 1;

// An access with every register as it should be, but for the bits that are flipped.
struct Access {
    Hypervisor_Instruction instruction;
    HostChannel_SubCommand subCommand;
    uint64_t argument; // the bytes of a bulk access
    Registers flipped{};
    bool backwards = false;

    Access Flip(uint64_t Registers::*word, uint64_t bits) const {
        Access access = *this;
        access.flipped.*word = bits;
        return access;
    }
};

Access Low(HostChannel_SubCommand subCommand, uint64_t bx = 0) {
    return {In, subCommand, bx};
}
Access Bulk(Hypervisor_Instruction instruction, uint64_t length, bool backwards = false) {
    return {instruction, Open, length, {}, backwards};
}

// A guest that writes its registers by hand, on an open channel.
struct Guest {
    explicit Guest(const Hypervisor_Faults& faults) {
        hypervisor.faults = faults;
        hypervisor.service.forGuest = [](void*, uint16_t, std::vector<uint8_t>* message) {
            message->assign(MESSAGE, MESSAGE + LENGTH);
            return true;
        };
        hypervisor.memory.read = [](void* data, uint64_t address, uint8_t* bytes, size_t length) {
            std::memset(bytes, 'x', length);
            return static_cast<Guest*>(data)->Has(address);
        };
        hypervisor.memory.write = [](void* data, uint64_t address, const uint8_t*, size_t) {
            return static_cast<Guest*>(data)->Has(address);
        };
        hypervisor.memory.clientData = this;
        Registers answer = Make(Low(Open, HOSTCHANNEL_TCLO | HOSTCHANNEL_COOKIE_FLAG));
        id = HvPort_High(answer.dx);
        cookieHigh = static_cast<uint32_t>(answer.si);
        cookieLow = static_cast<uint32_t>(answer.di);
    }

    bool Has(uint64_t address) const { return address == reinterpret_cast<uint64_t>(buffer.data()); }

    Registers Make(const Access& access) {
        bool low = access.instruction == In;
        bool out = access.instruction == BulkOut;
        auto address = reinterpret_cast<uint64_t>(buffer.data());
        Registers registers{};
        registers.ax = HVPORT_MAGIC;
        registers.bx = low ? access.argument : HvPort_Word(1, 0);
        registers.cx = low ? HvPort_Word(static_cast<uint16_t>(access.subCommand), HVPORT_COMMAND_MESSAGE)
                           : access.argument;
        registers.dx = HvPort_Word(id, low ? HVPORT_LOW_BANDWIDTH : HVPORT_HIGH_BANDWIDTH);
        registers.si = out ? address : cookieHigh;
        registers.di = low || out ? cookieLow : address;
        registers.bp = out ? cookieHigh : cookieLow;
        for (auto word : {&Registers::ax, &Registers::bx, &Registers::cx, &Registers::dx, &Registers::si,
                          &Registers::di, &Registers::bp}) {
            registers.*word ^= access.flipped.*word;
        }
        Hypervisor_Call(&hypervisor, access.instruction, access.backwards, &registers);
        return registers;
    }

    Hypervisor hypervisor;
    std::array<uint8_t, 64> buffer{};
    uint16_t id = 0;
    uint32_t cookieHigh = 0;
    uint32_t cookieLow = 0;
};

TEST(Hypervisor, FindsEveryDeviation) {
    const Hypervisor_Faults high;
    Hypervisor_Faults low;
    low.lowBandwidth = true;
    Hypervisor_Faults failing; // what comes behind a size
    failing.failCall = 3;
    Hypervisor_Faults unclosed;
    unclosed.failCall = 2;
    const Access size = Low(SendSize, 4);
    const Access out = Bulk(BulkOut, 4);
    const Access in = Bulk(BulkIn, LENGTH);
    const Access version = Low(static_cast<HostChannel_SubCommand>(0xFFFF), ~uint64_t{HVPORT_MAGIC})
                               .Flip(&Registers::cx, HVPORT_COMMAND_MESSAGE ^ HVPORT_COMMAND_GET_VERSION);
    const struct {
        const char* said;
        Hypervisor_Faults faults;
        std::vector<Access> accesses;
    } cases[] = {
        {"magic in ax", high, {size.Flip(&Registers::ax, 1)}},
        {"magic in ax", high, {size.Flip(&Registers::ax, UPPER)}},
        {"port is", high, {size.Flip(&Registers::dx, 1)}},
        {"upper half of dx", high, {size.Flip(&Registers::dx, UPPER)}},
        {"is not open", high, {size.Flip(&Registers::dx, 0x10000)}},
        {"is not open", high, {Low(Close), size}},
        {"is used after its close", unclosed, {Low(Close), size}},
        {"upper half of cx", high, {size.Flip(&Registers::cx, UPPER)}},
        {"unknown command", high, {size.Flip(&Registers::cx, 1)}},
        {"unknown sub-command", high, {Low(static_cast<HostChannel_SubCommand>(7))}},
        {"cookies", high, {size.Flip(&Registers::si, 1)}},
        {"cookies", high, {size.Flip(&Registers::di, UPPER)}},
        {"unknown protocol", high, {Low(Open, HOSTCHANNEL_TCLO ^ 1)}},
        {"upper half of bx", high, {Low(Open, HOSTCHANNEL_TCLO | UPPER)}},
        {"all 8 channels", high, std::vector(HYPERVISOR_CHANNELS, Low(Open, HOSTCHANNEL_RPCI))},
        {"version query: bx", high, {version.Flip(&Registers::bx, UPPER)}},
        {"too many", high, {Low(SendSize, HYPERVISOR_MAX_MESSAGE + 1)}},
        {"no size was announced", high, {Low(SendPayload, 1)}},
        {"no size was announced", low, {size, Low(SendPayload, 1), Low(SendPayload, 1)}},
        {"holds more than", low, {Low(SendSize, 2), Low(SendPayload, 0x10000)}},
        {"although high bandwidth", high, {size, Low(SendPayload, 1)}},
        {"although high bandwidth", high, {Low(ReceiveSize), Low(ReceivePayload, 1)}},
        {"send size while", high, {size, size}},
        {"receive size while", high, {size, Low(ReceiveSize)}},
        {"bulk out that was not", low, {size, out}},
        {"bulk in that was not", low, {Low(ReceiveSize), in}},
        {"where 4 were announced", high, {size, Bulk(BulkOut, 5)}},
        {"where 7 are waiting", high, {Low(ReceiveSize), Bulk(BulkIn, 8)}},
        {"no 4 bytes at", high, {size, out.Flip(&Registers::si, 1)}},
        {"no room for 7 bytes", high, {Low(ReceiveSize), in.Flip(&Registers::di, 1)}},
        {"bx of a bulk call", high, {size, out.Flip(&Registers::bx, 0x10000)}},
        {"port is", high, {size, out.Flip(&Registers::dx, 1)}},
        {"cookies", high, {size, out.Flip(&Registers::bp, 1)}},
        {"cookies", high, {Low(ReceiveSize), in.Flip(&Registers::bp, 1)}},
        {"direction flag", high, {size, Bulk(BulkOut, 4, true)}},
        {"acknowledgement in bx", low, {Low(ReceiveSize), Low(ReceivePayload, 2)}},
        {"no whole message", high, {Low(ReceiveSize), Low(ReceiveStatus, 1)}},
        {"no bytes are left", high, {Low(ReceivePayload, 1)}},
        {"before the message received", high, {Low(ReceiveSize), in, Low(Close)}},
        {"failure notice with", high, {Low(ReceiveSize), Low(ReceiveStatus, 0)}},
        {"failure notice with", failing, {Low(ReceiveSize), in, Low(ReceiveStatus, 0)}},
        {"failure notice without", high, {Low(ReceiveStatus, 0)}},
        {"in place of the failure notice", failing, {Low(ReceiveSize), in, Low(Close)}},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(testing::Message() << test.said << ", case " << &test - cases);
        Guest guest(test.faults);
        for (const Access& access : test.accesses) {
            EXPECT_TRUE(guest.hypervisor.deviations.empty());
            guest.Make(access);
        }
        ASSERT_EQ(guest.hypervisor.deviations.size(), 1U);
        EXPECT_THAT(guest.hypervisor.deviations.front(), HasSubstr(test.said));
    }
}

TEST(PortInstruction, IsToldFromOthers) {
    const struct {
        std::vector<uint8_t> code;
        uint64_t dx;
        size_t length; // 0: none of ours
        Hypervisor_Instruction kind = In;
    } cases[] = {
        {{0xED, 0x90, 0x90}, 0x80015248, 1, In},
        {{0xF3, 0x6E, 0x90}, 0x80015249, 2, BulkOut},
        {{0xF3, 0x6C, 0x90}, 0x80015249, 2, BulkIn},
        {{0x48, 0xED}, 0x5248, 2, In},           // a REX prefix changes nothing
        {{0x2E, 0xF3, 0x6C}, 0x5249, 3, BulkIn}, // nor does a segment
        {{0xED}, 0x5249, 0},                     // the other port
        {{0xF3, 0x6E}, 0x5248, 0},               //
        {{0x66, 0xED}, 0x5248, 0},               // 16 bits
        {{0xEF}, 0x5248, 0},                     // output
        {{0x6E}, 0x5249, 0},                     // once
        {{0xFA}, 0x5248, 0},                     // cli is privileged too
        {{0xF3}, 0x5249, 0},                     // cut off
        {{}, 0x5248, 0},
        {std::vector<uint8_t>(20, 0x66), 0x5248, 0},
    };
    for (const auto& test : cases) {
        PortInstruction instruction{};
        SCOPED_TRACE(testing::PrintToString(test.code));
        ASSERT_EQ(PortInstruction_Decode(test.code, test.dx, &instruction), test.length != 0);
        if (test.length != 0) {
            EXPECT_EQ(instruction.kind, test.kind);
            EXPECT_EQ(instruction.length, test.length);
        }
    }
}

} // namespace
