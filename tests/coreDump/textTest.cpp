// The texts of a report, and the names of dumps.
#include "coreDump/coreDumpText.h"
#include "support/diagCapture.h"

#include <cstring>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;

TEST(CoreDumpText, AReportOfAnAccessViolation) {
    const uint64_t parameters[] = {1, 0xFFFFFFFF80001234};
    DiagCapture_Take();
    CoreDumpWarnException({.code = 0xC0000005,
                           .address = 0x7FF612345678,
                           .eflags = 0x10246,
                           .rax = 0xAAAAAAAA00000001,
                           .rbx = 2,
                           .rcx = 0x123456789,
                           .rdx = 4,
                           .rsi = 5,
                           .rdi = 6,
                           .rbp = 0,
                           .rsp = 0xFFFFFFFFFFFFFFFF,
                           .parameters = parameters});
    EXPECT_THAT(
        DiagCapture_Take().warning,
        ElementsAre("----Win32 exception detected, exceptionCode 0xc0000005 (access violation)----\n",
                    "IP 0x7ff612345678 eflags 0x00010246 rwFlags 0x00000001 badAddr 0xffffffff80001234\n",
                    "rax 0x00000001 rbx 0x00000002 rcx 0x23456789 rdx 0x00000004\n",
                    "rsi 0x00000005 rdi 0x00000006 rbp 0000000000 rsp 0xffffffff\n",
                    "The following data was delivered with the exception:\n", " -- 0x00000001\n",
                    " -- 0xffffffff80001234\n"));
}

TEST(CoreDumpText, MissingParametersReadAsZero) {
    DiagCapture_Take();
    CoreDumpWarnException({.code = 0xC000001D, .address = 0x140001000});
    const auto none = DiagCapture_Take().warning;
    ASSERT_EQ(none.size(), 4u); // and no list of parameters
    EXPECT_EQ(none[0], "----Win32 exception detected, exceptionCode 0xc000001d ----\n");
    EXPECT_EQ(none[1], "IP 0x140001000 eflags 0000000000 rwFlags 0000000000 badAddr 0000000000\n");

    const uint64_t one[] = {7};
    CoreDumpWarnException({.code = 0x80000003, .parameters = one});
    const auto breakpoint = DiagCapture_Take().warning;
    ASSERT_EQ(breakpoint.size(), 6u);
    EXPECT_EQ(breakpoint[1], "IP 0000000000 eflags 0000000000 rwFlags 0x00000007 badAddr 0000000000\n");
}

TEST(CoreDumpText, LeavesAnExceptionToADebuggerAsAsked) {
    const auto attached = [] { return true; };
    const auto alone = [] { return false; };
    EXPECT_FALSE(CoreDumpDefers(0, attached));
    EXPECT_TRUE(CoreDumpDefers(1, attached));
    EXPECT_FALSE(CoreDumpDefers(1, alone));
    EXPECT_TRUE(CoreDumpDefers(2, alone));
}

std::string Line(const std::string& text) {
    CoreDumpLine line;
    line.fill('?');
    CoreDumpFormatLine(&line, "%s", text.c_str());
    EXPECT_NE(memchr(line.data(), '\0', line.size()), nullptr);
    return line.data();
}

TEST(CoreDumpText, ALineEndsInOneLineEndHoweverLongItIs) {
    EXPECT_EQ(Line(""), "\n");
    EXPECT_EQ(Line("a\n"), "a\n");
    for (size_t length : {size_t{506}, size_t{507}, size_t{508}, size_t{509}, size_t{510}, size_t{4000}}) {
        const std::string text(length, 'x');
        const std::string cut(std::min<size_t>(length, 507), 'x');
        EXPECT_EQ(Line(text), cut + "\n") << length;
        EXPECT_EQ(Line(text + "\n"), cut + "\n") << length;
    }
}

TEST(CoreDumpText, DescribesAnAddress) {
    const std::string module = CoreDumpModulePart("C:\\x y\\rlupgrader.exe", 0x140000000, 1, 0x5F8);
    EXPECT_EQ(module, "[C:\\x y\\rlupgrader.exe base 0x140000000 0x0001:0x000005f8]");
    const CoreDumpSymbol symbol = {"UpgraderMain", 0x1C};
    EXPECT_EQ(CoreDumpDescribeAddress(symbol, module, true), "UpgraderMain + 0x001c " + module);
    EXPECT_EQ(CoreDumpDescribeAddress(symbol, module, false), "UpgraderMain + 0x001c");
    EXPECT_EQ(CoreDumpDescribeAddress(std::nullopt, COREDUMP_NO_MODULE, true), "??? [no module data]");
    EXPECT_EQ(CoreDumpDescribeAddress(std::nullopt, module, false), "???");
}

TEST(CoreDumpText, ProgramNames) {
    struct {
        const char* path;
        const char* name;
    } cases[] = {
        {"C:\\Temp\\rl.up.grader.exe", "rl.up.grader"},
        {"C:\\Temp\\J\xC3\xBCrgen.exe", "J\xC3\xBCrgen"},
        {"C:\\Temp.d\\rlupgrader", "C__Temp.d_rlupgrader"}, // no extension: the whole path
        {"C:\\Temp\\rlupgrader", "C__Temp_rlupgrader"},
        {"rlupgrader.exe", "rlupgrader.exe"}, // no folder: the whole path
        {"\\\\?\\C:\\a?b\x01.exe", "a_b_"},
        {"", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(CoreDumpProgramName(c.path), c.name) << c.path;
    }
}

TEST(CoreDumpText, DumpsTakeTheFirstFreeNames) {
    static std::set<std::string> taken;
    const auto isTaken = [](const char* name) { return taken.count(name) != 0; };
    EXPECT_THAT(CoreDumpChooseNames("C:\\d", "prog", 42, isTaken),
                ElementsAre("C:\\d\\prog-42.dmp", "C:\\d\\prog-42-0.dmp", "C:\\d\\prog-42-1.dmp",
                            "C:\\d\\prog-42-2.dmp", "C:\\d\\prog-42-3.dmp"));
    taken = {"C:\\d\\prog-42-0.dmp", "C:\\d\\prog-42-2.dmp"};
    EXPECT_THAT(CoreDumpChooseNames("C:\\d", "prog", 42, isTaken),
                ElementsAre("C:\\d\\prog-42.dmp", "C:\\d\\prog-42-1.dmp", "C:\\d\\prog-42-3.dmp",
                            "C:\\d\\prog-42-4.dmp", "C:\\d\\prog-42-5.dmp"));
}

TEST(CoreDumpText, AFolderThatClaimsToHoldEveryNameIsGivenUp) {
    const auto names = CoreDumpChooseNames("C:\\d", "prog", 1, [](const char*) { return true; });
    EXPECT_NE(names.front(), names.back());
}

TEST(CoreDumpText, ReservesWholePagesUpToTwentyMegabytes) {
    EXPECT_EQ(CoreDumpReservedBytes(1, 4096), 4096u);
    EXPECT_EQ(CoreDumpReservedBytes(4, 4096), 4096u);
    EXPECT_EQ(CoreDumpReservedBytes(5, 4096), 8192u);
    EXPECT_EQ(CoreDumpReservedBytes(UINT32_MAX, 4096), 20480u * 1024);
}

} // namespace
