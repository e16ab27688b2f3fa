// The model's own rules: what it answers, and that it finds every register that a guest could get wrong.

#include "sim/hypervisor.h"
#include "sim/portInstruction.h"

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using SubCommand = HostChannel_SubCommand;

constexpr uint64_t MAGIC = HVPORT_MAGIC;

// A guest that writes its registers by hand, and a host that answers with one message.
struct ModelTest : testing::Test {
    ModelTest() {
        hypervisor.memory = Hypervisor_OwnMemory();
        hypervisor.service.fromGuest = [](void* data, uint16_t, std::span<const uint8_t> message) {
            static_cast<ModelTest*>(data)->arrived.emplace_back(message.begin(), message.end());
        };
        hypervisor.service.forGuest = [](void* data, uint16_t, std::vector<uint8_t>* message) {
            auto* self = static_cast<ModelTest*>(data);
            message->assign(self->reply.begin(), self->reply.end());
            return self->answers;
        };
        hypervisor.service.delivered = [](void* data, uint16_t, bool received) {
            static_cast<ModelTest*>(data)->deliveries.push_back(received);
        };
        hypervisor.service.clientData = this;
    }

    HvPort_Registers Block(SubCommand subCommand, uint64_t bx) const {
        HvPort_Registers registers{};
        registers.ax = MAGIC;
        registers.bx = bx;
        registers.cx = HvPort_Word(static_cast<uint16_t>(subCommand), HVPORT_COMMAND_MESSAGE);
        registers.dx = HvPort_Word(id, HVPORT_LOW_BANDWIDTH);
        registers.si = cookieHigh;
        registers.di = cookieLow;
        return registers;
    }

    HvPort_Registers Run(HvPort_Registers registers,
                         Hypervisor_Instruction instruction = Hypervisor_Instruction::In) {
        Hypervisor_Call(&hypervisor, instruction, false, &registers);
        return registers;
    }

    uint8_t Low(SubCommand subCommand, uint64_t bx) {
        last = Run(Block(subCommand, bx));
        return static_cast<uint8_t>(HvPort_High(last.cx));
    }

    void Open(uint32_t protocol = HOSTCHANNEL_TCLO) {
        ASSERT_TRUE(Low(SubCommand::Open, protocol | HOSTCHANNEL_COOKIE_FLAG) & HOSTCHANNEL_SUCCESS);
        id = HvPort_High(last.dx);
        cookieHigh = static_cast<uint32_t>(last.si);
        cookieLow = static_cast<uint32_t>(last.di);
    }

    HvPort_Registers BulkBlock(bool out, const void* buffer, uint64_t length) const {
        HvPort_Registers registers{};
        registers.ax = MAGIC;
        registers.bx = HvPort_Word(1, 0);
        registers.cx = length;
        registers.dx = HvPort_Word(id, HVPORT_HIGH_BANDWIDTH);
        registers.si = out ? reinterpret_cast<uint64_t>(buffer) : cookieHigh;
        registers.di = out ? cookieLow : reinterpret_cast<uint64_t>(buffer);
        registers.bp = out ? cookieHigh : cookieLow;
        return registers;
    }

    Hypervisor hypervisor;
    HvPort_Registers last{};
    uint16_t id = 0;
    uint32_t cookieHigh = 0;
    uint32_t cookieLow = 0;
    bool answers = true;
    std::string reply = "command";
    std::vector<std::string> arrived;
    std::vector<bool> deliveries;
};

struct VersionCase {
    const char* name;
    Hypervisor_Faults faults;
    uint32_t ax;
    uint32_t bx;
};

TEST_F(ModelTest, AnswersTheVersionQuery) {
    constexpr uint32_t COMPLEMENT = ~HVPORT_MAGIC;
    Hypervisor_Faults old;
    old.version = 5;
    Hypervisor_Faults silent;
    silent.silent = true;
    Hypervisor_Faults failing;
    failing.failCall = 3;
    failing.failCount = 1;
    for (const VersionCase& test :
         {VersionCase{"ours", {}, 6, HVPORT_MAGIC}, VersionCase{"old", old, 5, HVPORT_MAGIC},
          VersionCase{"failing", failing, 0xFFFFFFFF, COMPLEMENT},
          VersionCase{"silent", silent, HVPORT_MAGIC, COMPLEMENT}}) {
        SCOPED_TRACE(test.name);
        hypervisor.faults = test.faults;
        HvPort_Registers registers{};
        registers.ax = MAGIC;
        registers.bx = ~MAGIC;
        registers.cx = HvPort_Word(0xFFFF, HVPORT_COMMAND_GET_VERSION);
        registers.dx = HVPORT_LOW_BANDWIDTH;
        HvPort_Registers answer = Run(registers);
        EXPECT_EQ(static_cast<uint32_t>(answer.ax), test.ax);
        EXPECT_EQ(static_cast<uint32_t>(answer.bx), test.bx);
        EXPECT_THAT(hypervisor.deviations, IsEmpty());
    }
}

TEST_F(ModelTest, MovesMessagesWordByWord) {
    hypervisor.faults.lowBandwidth = true;
    Open();
    EXPECT_EQ(Low(SubCommand::SendSize, 5), HOSTCHANNEL_SUCCESS);
    EXPECT_EQ(Low(SubCommand::SendPayload, 0x64636261), HOSTCHANNEL_SUCCESS);
    EXPECT_THAT(arrived, IsEmpty());
    EXPECT_EQ(Low(SubCommand::SendPayload, 0x65), HOSTCHANNEL_SUCCESS);
    EXPECT_THAT(arrived, ElementsAre("abcde"));

    EXPECT_EQ(Low(SubCommand::ReceiveSize, 0), HOSTCHANNEL_SUCCESS | HOSTCHANNEL_DO_RECEIVE);
    EXPECT_EQ(static_cast<uint32_t>(last.bx), reply.size());
    EXPECT_EQ(HvPort_High(last.dx), 1);
    EXPECT_EQ(Low(SubCommand::ReceivePayload, 1), HOSTCHANNEL_SUCCESS);
    EXPECT_EQ(static_cast<uint32_t>(last.bx), 0x6D6D6F63U); // "comm"
    EXPECT_EQ(HvPort_High(last.dx), 2);
    EXPECT_EQ(Low(SubCommand::ReceivePayload, 1), HOSTCHANNEL_SUCCESS);
    EXPECT_EQ(static_cast<uint32_t>(last.bx) & 0xFFFFFF, 0x646E61U); // "and"
    EXPECT_THAT(deliveries, IsEmpty());
    EXPECT_EQ(Low(SubCommand::ReceiveStatus, 1), HOSTCHANNEL_SUCCESS);
    EXPECT_THAT(deliveries, ElementsAre(true));

    answers = false;
    EXPECT_EQ(Low(SubCommand::ReceiveSize, 0), HOSTCHANNEL_SUCCESS);
    EXPECT_EQ(Low(SubCommand::Close, 0), HOSTCHANNEL_SUCCESS);
    EXPECT_EQ(Hypervisor_OpenChannels(hypervisor), 0U);
    EXPECT_THAT(hypervisor.deviations, IsEmpty());
}

// Every way to get a register wrong, on an open channel with high bandwidth unless said otherwise.
struct Deviation {
    const char* name;
    const char* said;
    std::function<void(ModelTest&)> commit;
};

void PrintTo(const Deviation& deviation, std::ostream* stream) {
    *stream << deviation.name;
}

HvPort_Registers With(HvPort_Registers registers, uint64_t HvPort_Registers::*word, uint64_t value) {
    registers.*word = value;
    return registers;
}

const std::string BUFFER(64, 'x');

const Deviation DEVIATIONS[] = {
    {"magic", "magic in ax",
     [](ModelTest& t) { t.Run(With(t.Block(SubCommand::SendSize, 1), &HvPort_Registers::ax, 1)); }},
    {"upper half of the magic", "magic in ax",
     [](ModelTest& t) {
         t.Run(With(t.Block(SubCommand::SendSize, 1), &HvPort_Registers::ax, MAGIC | uint64_t{1} << 32));
     }},
    {"low port", "port is",
     [](ModelTest& t) {
         t.Run(With(t.Block(SubCommand::SendSize, 1), &HvPort_Registers::dx,
                    HvPort_Word(t.id, HVPORT_HIGH_BANDWIDTH)));
     }},
    {"upper half of dx", "upper half of dx",
     [](ModelTest& t) {
         HvPort_Registers block = t.Block(SubCommand::SendSize, 1);
         t.Run(With(block, &HvPort_Registers::dx, block.dx | uint64_t{1} << 40));
     }},
    {"upper half of cx", "upper half of cx",
     [](ModelTest& t) {
         HvPort_Registers block = t.Block(SubCommand::SendSize, 1);
         t.Run(With(block, &HvPort_Registers::cx, block.cx | uint64_t{1} << 40));
     }},
    {"command", "unknown command",
     [](ModelTest& t) { t.Run(With(t.Block(SubCommand::SendSize, 1), &HvPort_Registers::cx, 31)); }},
    {"sub-command", "unknown sub-command", [](ModelTest& t) { t.Low(static_cast<SubCommand>(7), 0); }},
    {"protocol", "unknown protocol", [](ModelTest& t) { t.Low(SubCommand::Open, HOSTCHANNEL_TCLO ^ 1); }},
    {"upper half of the protocol", "upper half of bx",
     [](ModelTest& t) { t.Low(SubCommand::Open, HOSTCHANNEL_TCLO | uint64_t{1} << 33); }},
    {"version query", "version query: bx",
     [](ModelTest& t) {
         HvPort_Registers block = t.Block(static_cast<SubCommand>(0xFFFF), static_cast<uint32_t>(~MAGIC));
         t.Run(With(block, &HvPort_Registers::cx, HvPort_Word(0xFFFF, HVPORT_COMMAND_GET_VERSION)));
     }},
    {"channel", "is not open",
     [](ModelTest& t) {
         t.Run(With(t.Block(SubCommand::SendSize, 1), &HvPort_Registers::dx,
                    HvPort_Word(static_cast<uint16_t>(t.id + 1), HVPORT_LOW_BANDWIDTH)));
     }},
    {"first cookie", "cookies",
     [](ModelTest& t) { t.Run(With(t.Block(SubCommand::SendSize, 1), &HvPort_Registers::si, t.cookieLow)); }},
    {"second cookie", "cookies",
     [](ModelTest& t) { t.Run(With(t.Block(SubCommand::SendSize, 1), &HvPort_Registers::di, 0)); }},
    {"cookie with an upper half", "cookies",
     [](ModelTest& t) {
         t.Run(With(t.Block(SubCommand::Close, 0), &HvPort_Registers::si, t.cookieHigh | 0xFFFFFFFF00000000));
     }},
    {"size", "too many", [](ModelTest& t) { t.Low(SubCommand::SendSize, HYPERVISOR_MAX_MESSAGE + 1); }},
    {"payload without size", "no size was announced",
     [](ModelTest& t) { t.Low(SubCommand::SendPayload, 0x61); }},
    {"payload beyond the size", "no size was announced",
     [](ModelTest& t) {
         t.hypervisor.faults.lowBandwidth = true;
         t.Low(SubCommand::SendSize, 4);
         t.Low(SubCommand::SendPayload, 0x61);
         t.Low(SubCommand::SendPayload, 0x61);
     }},
    {"bytes beyond the size", "holds more than",
     [](ModelTest& t) {
         t.hypervisor.faults.lowBandwidth = true;
         t.Low(SubCommand::SendSize, 2);
         t.Low(SubCommand::SendPayload, 0x636261);
     }},
    {"words in place of bulk", "although high bandwidth",
     [](ModelTest& t) {
         t.Low(SubCommand::SendSize, 4);
         t.Low(SubCommand::SendPayload, 0x61);
     }},
    {"second size", "send size while",
     [](ModelTest& t) {
         t.Low(SubCommand::SendSize, 4);
         t.Low(SubCommand::SendSize, 4);
     }},
    {"receive inside a send", "receive size while",
     [](ModelTest& t) {
         t.Low(SubCommand::SendSize, 4);
         t.Low(SubCommand::ReceiveSize, 0);
     }},
    {"bulk that was not offered", "bulk out that was not offered",
     [](ModelTest& t) {
         t.hypervisor.faults.lowBandwidth = true;
         t.Low(SubCommand::SendSize, 4);
         t.Run(t.BulkBlock(true, BUFFER.data(), 4), Hypervisor_Instruction::BulkOut);
     }},
    {"bulk of more than announced", "where 4 were announced",
     [](ModelTest& t) {
         t.Low(SubCommand::SendSize, 4);
         t.Run(t.BulkBlock(true, BUFFER.data(), 5), Hypervisor_Instruction::BulkOut);
     }},
    {"bulk bx", "bx of a bulk call",
     [](ModelTest& t) {
         t.Low(SubCommand::SendSize, 4);
         t.Run(With(t.BulkBlock(true, BUFFER.data(), 4), &HvPort_Registers::bx, 0),
               Hypervisor_Instruction::BulkOut);
     }},
    {"bulk port", "port is",
     [](ModelTest& t) {
         t.Low(SubCommand::SendSize, 4);
         t.Run(With(t.BulkBlock(true, BUFFER.data(), 4), &HvPort_Registers::dx,
                    HvPort_Word(t.id, HVPORT_LOW_BANDWIDTH)),
               Hypervisor_Instruction::BulkOut);
     }},
    {"bulk cookies of the other direction", "cookies",
     [](ModelTest& t) {
         t.Low(SubCommand::SendSize, 4);
         HvPort_Registers block = t.BulkBlock(true, BUFFER.data(), 4);
         std::swap(block.di, block.bp);
         t.Run(block, Hypervisor_Instruction::BulkOut);
     }},
    {"direction flag", "direction flag",
     [](ModelTest& t) {
         t.Low(SubCommand::SendSize, 4);
         HvPort_Registers block = t.BulkBlock(true, BUFFER.data(), 4);
         Hypervisor_Call(&t.hypervisor, Hypervisor_Instruction::BulkOut, true, &block);
     }},
    {"acknowledgement", "acknowledgement in bx",
     [](ModelTest& t) {
         t.hypervisor.faults.lowBandwidth = true;
         t.Low(SubCommand::ReceiveSize, 0);
         t.Low(SubCommand::ReceivePayload, 2);
     }},
    {"status too early", "no whole message",
     [](ModelTest& t) {
         t.Low(SubCommand::ReceiveSize, 0);
         t.Low(SubCommand::ReceiveStatus, 1);
     }},
    {"payload without a receive", "no bytes are left",
     [](ModelTest& t) { t.Low(SubCommand::ReceivePayload, 1); }},
    {"no acknowledgement", "before the message received",
     [](ModelTest& t) {
         std::string buffer(t.reply.size(), '\0');
         t.Low(SubCommand::ReceiveSize, 0);
         t.Run(t.BulkBlock(false, buffer.data(), buffer.size()), Hypervisor_Instruction::BulkIn);
         t.Low(SubCommand::Close, 0);
     }},
    {"notice with the wrong sub-command", "failure notice with",
     [](ModelTest& t) {
         t.Low(SubCommand::ReceiveSize, 0);
         t.Low(SubCommand::ReceiveStatus, 0);
     }},
    {"notice without a receive", "failure notice without",
     [](ModelTest& t) { t.Low(SubCommand::ReceiveStatus, 0); }},
    {"missing notice", "in place of the failure notice",
     [](ModelTest& t) {
         t.Low(SubCommand::ReceiveSize, 0);
         t.hypervisor.faults.failCall = t.hypervisor.counts.calls + 1;
         std::string buffer(t.reply.size(), '\0');
         t.Run(t.BulkBlock(false, buffer.data(), buffer.size()), Hypervisor_Instruction::BulkIn);
         t.Low(SubCommand::Close, 0);
     }},
    {"use after close", "is not open",
     [](ModelTest& t) {
         t.Low(SubCommand::Close, 0);
         t.Low(SubCommand::SendSize, 1);
     }},
};

struct DeviationTest : ModelTest, testing::WithParamInterface<Deviation> {};

TEST_P(DeviationTest, IsFound) {
    Open();
    GetParam().commit(*this);
    ASSERT_GE(hypervisor.deviations.size(), 1U);
    EXPECT_THAT(hypervisor.deviations.front(), HasSubstr(GetParam().said));
}

INSTANTIATE_TEST_SUITE_P(All, DeviationTest, testing::ValuesIn(DEVIATIONS));

TEST_F(ModelTest, KeepsABoundedNumberOfDeviations) {
    Open();
    for (size_t i = 0; i < HYPERVISOR_MAX_DEVIATIONS + 10; ++i) {
        Low(SubCommand::SendPayload, 0);
    }
    EXPECT_EQ(hypervisor.deviations.size(), HYPERVISOR_MAX_DEVIATIONS);
    EXPECT_EQ(hypervisor.deviationCount, HYPERVISOR_MAX_DEVIATIONS + 10);
}

TEST_F(ModelTest, HasEightChannelsAndCountsTheOnesLeftOpen) {
    for (size_t i = 0; i < HYPERVISOR_CHANNELS; ++i) {
        Open(HOSTCHANNEL_RPCI);
    }
    EXPECT_EQ(Low(SubCommand::Open, HOSTCHANNEL_RPCI), 0);
    EXPECT_EQ(Hypervisor_OpenChannels(hypervisor), HYPERVISOR_CHANNELS);
}

// Addresses outside the guest's memory are the guest's mistake, and it must be told in both directions.
TEST_F(ModelTest, RefusesMemoryThatTheGuestDoesNotHave) {
    hypervisor.memory.read = [](void*, uint64_t, uint8_t*, size_t) { return false; };
    hypervisor.memory.write = [](void*, uint64_t, const uint8_t*, size_t) { return false; };
    Open();
    Low(SubCommand::SendSize, 4);
    HvPort_Registers out = Run(BulkBlock(true, BUFFER.data(), 4), Hypervisor_Instruction::BulkOut);
    EXPECT_EQ(HvPort_High(out.bx) & HOSTCHANNEL_SUCCESS, 0);
    Low(SubCommand::ReceiveSize, 0);
    HvPort_Registers in = Run(BulkBlock(false, nullptr, reply.size()), Hypervisor_Instruction::BulkIn);
    EXPECT_EQ(HvPort_High(in.bx) & HOSTCHANNEL_SUCCESS, 0);
    Low(SubCommand::ReceivePayload, 0); // the notice that is owed now
    EXPECT_THAT(hypervisor.deviations,
                ElementsAre(HasSubstr("no 4 bytes at"), HasSubstr("no room for 7 bytes at")));
    EXPECT_THAT(arrived, IsEmpty());
}

struct InstructionCase {
    std::vector<uint8_t> code;
    uint64_t dx;
    bool ours;
    Hypervisor_Instruction kind;
    size_t length;
};

TEST(PortInstruction, IsToldFromOthers) {
    using enum Hypervisor_Instruction;
    const InstructionCase cases[] = {
        {{0xED, 0x90, 0x90}, 0x80015248, true, In, 1},
        {{0xF3, 0x6E, 0x90}, 0x80015249, true, BulkOut, 2},
        {{0xF3, 0x6C, 0x90}, 0x80015249, true, BulkIn, 2},
        {{0x48, 0xED}, 0x5248, true, In, 2},           // a REX prefix changes nothing
        {{0x2E, 0xF3, 0x6C}, 0x5249, true, BulkIn, 3}, // nor does a segment
        {{0xED}, 0x5249, false, In, 1},                // the other port
        {{0xF3, 0x6E}, 0x5248, false, BulkOut, 2},     //
        {{0x66, 0xED}, 0x5248, false, In, 2},          // 16 bits
        {{0xEC}, 0x5248, false, In, 1},                // 8 bits
        {{0xEF}, 0x5248, false, In, 1},                // output
        {{0x6E}, 0x5249, false, BulkOut, 1},           // once
        {{0xFA}, 0x5248, false, In, 1},                // cli is privileged too
        {{0xF3}, 0x5249, false, In, 0},                // cut off
        {{}, 0x5248, false, In, 0},
        {std::vector<uint8_t>(20, 0x66), 0x5248, false, In, 0},
    };
    for (const InstructionCase& test : cases) {
        PortInstruction instruction{};
        SCOPED_TRACE(testing::PrintToString(test.code));
        ASSERT_EQ(PortInstruction_Decode(test.code, test.dx, &instruction), test.ours);
        if (test.ours) {
            EXPECT_EQ(instruction.kind, test.kind);
            EXPECT_EQ(instruction.length, test.length);
        }
    }
}

} // namespace
