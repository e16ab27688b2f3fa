// The real port routines: what the hypervisor would see in the registers, what comes back, and the guard.
#include "hvPort/hvPort.h"

#include "support/diagCapture.h"

#include <cstring>
#include <gtest/gtest.h>
#include <vector>

#include <windows.h>

namespace {

constexpr DWORD PRIVILEGED_INSTRUCTION = 0xC0000096;
constexpr DWORD ILLEGAL_INSTRUCTION = 0xC000001D;

// What the trapped instruction saw, and what it is to leave behind.
struct Trap {
    CONTEXT seen;
    std::vector<uint8_t> instruction;
    HvPort_Registers answer;
} trap;

LONG CALLBACK AnswerTrap(EXCEPTION_POINTERS* pointers) {
    if (pointers->ExceptionRecord->ExceptionCode != PRIVILEGED_INSTRUCTION) {
        return EXCEPTION_CONTINUE_SEARCH;
    }
    CONTEXT* context = pointers->ContextRecord;
    trap.seen = *context;
    size_t length = *reinterpret_cast<uint8_t*>(context->Rip) == 0xF3 ? 2 : 1;
    trap.instruction.resize(length);
    std::memcpy(trap.instruction.data(), reinterpret_cast<void*>(context->Rip), length);
    context->Rax = trap.answer.ax;
    context->Rbx = trap.answer.bx;
    context->Rcx = trap.answer.cx;
    context->Rdx = trap.answer.dx;
    context->Rsi = trap.answer.si;
    context->Rdi = trap.answer.di;
    if (length == 2) {
        context->Rbp = trap.answer.bp; // the low-bandwidth port has nothing to do with it
    }
    context->Rip += length;
    return EXCEPTION_CONTINUE_EXECUTION;
}

LONG CALLBACK TurnIntoIllegalInstruction(EXCEPTION_POINTERS* pointers) {
    if (pointers->ExceptionRecord->ExceptionCode == PRIVILEGED_INSTRUCTION) {
        pointers->ExceptionRecord->ExceptionCode = ILLEGAL_INSTRUCTION;
    }
    return EXCEPTION_CONTINUE_SEARCH;
}

class Handler {
public:
    explicit Handler(PVECTORED_EXCEPTION_HANDLER handler)
        : handle_(AddVectoredExceptionHandler(1, handler)) {}
    ~Handler() { RemoveVectoredExceptionHandler(handle_); }
    Handler(const Handler&) = delete;

private:
    void* handle_;
};

TEST(HvPortWin32, RegistersGoInAndComeBackWhole) {
    struct {
        const char* name;
        void (*routine)(HvPort_Registers*);
        std::vector<uint8_t> instruction;
        uint16_t port;
        bool seven;
    } const cases[] = {
        {"in", HvPort, {0xED}, HVPORT_LOW_BANDWIDTH, false},
        {"out string", HvPort_BulkOut, {0xF3, 0x6E}, HVPORT_HIGH_BANDWIDTH, true},
        {"in string", HvPort_BulkIn, {0xF3, 0x6C}, HVPORT_HIGH_BANDWIDTH, true},
    };
    Handler handler(AnswerTrap);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        HvPort_Registers block{0x1111111122222222, 0xB0B0000000000001, 0xC0C0000000000002, 0xD0D000001234FFFF,
                               0x5151000000000003, 0xD1D1000000000004, 0xBFBF000000000005};
        trap.answer = {0xA1, 0xFFFFFFFF000000B1, 0xC1, 0xFFFFFFFF000000D1, 0xE1, 0xF1, 0x7777777700000001};
        c.routine(&block);

        EXPECT_EQ(trap.instruction, c.instruction);
        EXPECT_EQ(trap.seen.Rax, HVPORT_MAGIC);
        EXPECT_EQ(trap.seen.Rbx, 0xB0B0000000000001u);
        EXPECT_EQ(trap.seen.Rcx, 0xC0C0000000000002u);
        EXPECT_EQ(trap.seen.Rdx, 0xD0D0000012340000u | c.port);
        EXPECT_EQ(trap.seen.Rsi, 0x5151000000000003u);
        EXPECT_EQ(trap.seen.Rdi, 0xD1D1000000000004u);
        EXPECT_EQ(trap.seen.EFlags & 0x400, 0u) << "string direction is upwards";
        if (c.seven) {
            EXPECT_EQ(trap.seen.Rbp, 0xBFBF000000000005u);
        }
        EXPECT_EQ(block.ax, trap.answer.ax);
        EXPECT_EQ(block.bx, trap.answer.bx);
        EXPECT_EQ(block.cx, trap.answer.cx);
        EXPECT_EQ(block.dx, trap.answer.dx);
        EXPECT_EQ(block.si, trap.answer.si);
        EXPECT_EQ(block.di, trap.answer.di);
        EXPECT_EQ(block.bp, c.seven ? trap.answer.bp : 0xBFBF000000000005u);
    }
}

TEST(HvPortWin32, WithoutAHypervisorTheCheckSaysNoAndNothingElse) {
    DiagCapture_Take();
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(Upgrader_CheckVersion());
    }
    EXPECT_TRUE(DiagCapture_Take().debug.empty());
}

TEST(HvPortWin32DeathTest, AnyOtherExceptionPassesTheGuard) {
    auto check = [] {
        SetErrorMode(SEM_NOGPFAULTERRORBOX);
        SetUnhandledExceptionFilter([](EXCEPTION_POINTERS* pointers) -> LONG {
            ExitProcess(pointers->ExceptionRecord->ExceptionCode == ILLEGAL_INSTRUCTION ? 42 : 43);
        });
        Handler handler(TurnIntoIllegalInstruction);
        Upgrader_CheckVersion();
        ExitProcess(44);
    };
    EXPECT_EXIT(check(), testing::ExitedWithCode(42), "");
}

} // namespace
