// Real crashes of a real program, with the debug-help library of the system and with worse ones: what it
// says, what it leaves behind and how it ends.
#include "crashRun.h"

#include "coreDump/coreDump.h"
#include "coreDump/coreDumpWin32.h"
#include "string/str.h"
#include "support/diagCapture.h"
#include "support/testFolder.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::SizeIs;
using testing::StartsWith;

constexpr char LOOP[] = "Exception loop in CoreDumpExceptionFilter.  Giving up.\n";
constexpr char VERDICT[] = "Exception 0xc0000005 (access violation) has occurred.\n";

TEST(Crash, LeavesLinesBacktraceAndDumpAndEndsAsWithoutThem) {
    struct {
        const char* kind;
        uint32_t code;
        const char* name;
        size_t parameters;
        const char* access;
    } cases[] = {
        {"read", 0xC0000005, "(access violation)", 2, " rwFlags 0000000000 badAddr 0x00000010\n"},
        {"write", 0xC0000005, "(access violation)", 2, " rwFlags 0x00000001 badAddr 0x00000010\n"},
        {"illegal", 0xC000001D, "", 0, " rwFlags 0000000000 badAddr 0000000000\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.kind);
        const CrashResult result = Crash({.arguments = c.kind});
        EXPECT_EQ(result.exitCode, c.code);
        const std::string dump = Str_Format("coreDump_crasher-%u.dmp", result.processId);
        ASSERT_THAT(result.errors, SizeIs(c.parameters == 0 ? 6 : 7 + c.parameters));
        EXPECT_EQ(result.errors[0],
                  Str_Format("----Win32 exception detected, exceptionCode %#010x %s----\n", c.code, c.name));
        EXPECT_THAT(result.errors[1], AllOf(StartsWith(Str_Format("IP %#010I64x eflags 0x", result.address)),
                                            EndsWith(c.access)));
        EXPECT_THAT(result.errors[2], HasSubstr(" rcx 0x00000010 ")); // the function's argument
        EXPECT_EQ(result.errors[result.errors.size() - 2],
                  "CoreDump: Writing minidump to " + result.folder + "\\" + dump + "\n");
        EXPECT_EQ(result.errors.back(), Str_Format("Exception %#010x %s has occurred.\n", c.code, c.name));
        EXPECT_THAT(result.dumps, ElementsAre(Pair(dump, StartsWith("MDMP"))));

        // The innermost frame is the instruction; the functions around it are named.
        const std::string program = result.folder + "\\coreDump_crasher.exe";
        EXPECT_THAT(result.log, Contains(Str_Format("CoreDump: Including thread %u", result.thread)));
        EXPECT_THAT(result.log, Contains("  image file " + program));
        EXPECT_THAT(result.log,
                    Contains(AllOf(StartsWith("backtrace[00] frame "),
                                   HasSubstr(Str_Format(" IP %#010I64x params ", result.address)))));
        EXPECT_THAT(result.log, Contains(AllOf(StartsWith("backtrace[01] frame "), HasSubstr(" Fail + 0x"),
                                               HasSubstr("[" + program + " base 0x"))));
    }
}

TEST(Crash, AMissingPageIsExplained) {
    const CrashResult result = Crash({.arguments = "in-page"});
    EXPECT_EQ(result.exitCode, 0xC0000006u);
    ASSERT_THAT(result.errors, SizeIs(10));
    EXPECT_EQ(result.errors[0],
              "----Win32 exception detected, exceptionCode 0xc0000006 (disk error while paging)----\n");
    EXPECT_THAT(result.errors[1], EndsWith(" rwFlags 0000000000 badAddr 0x100000001\n"));
    EXPECT_EQ(result.errors[7], " -- 0x100000002\n");
    EXPECT_THAT(result.log,
                Contains("Warning: the system was unable to load a page of memory; this can be caused by "
                         "network problems or a failing hard disk drive."));
}

// The report fails at each of its messages in turn, up to and including the dump's.
TEST(Crash, InsideTheReport) {
    for (size_t n = 1; n <= 8; n++) {
        SCOPED_TRACE(n);
        const CrashResult result = Crash({.arguments = "read fault-in-warning " + std::to_string(n)});
        EXPECT_EQ(result.exitCode, 0xC0000005u);
        ASSERT_THAT(result.errors, SizeIs(n));
        EXPECT_EQ(result.errors.back(), LOOP);
    }
}

TEST(Crash, WithoutAHeap) {
    const CrashResult result = Crash({.arguments = "read no-heap"});
    EXPECT_EQ(result.exitCode, 0xC0000005u);
    EXPECT_THAT(result.errors.front(), StartsWith("----Win32 exception detected"));
    EXPECT_EQ(result.errors.back(), VERDICT);
}

TEST(Crash, AFolderThatCannotBeWrittenCostsTheDumpOnly) {
    const CrashResult result = Crash({.arguments = "read", .dumpFolder = "C:\\missing\\deeper"});
    EXPECT_EQ(result.exitCode, 0xC0000005u);
    ASSERT_THAT(result.errors, SizeIs(7 + 5 + 2));
    for (size_t i = 0; i < 5; i++) {
        const char* ends[] = {"", "-0", "-1", "-2", "-3"};
        const std::string name =
            Str_Format("C:\\missing\\deeper\\coreDump_crasher-%u%s.dmp", result.processId, ends[i]);
        EXPECT_THAT(result.errors[7 + i], StartsWith("CoreDump: Cannot open minidump file " + name + ": "));
    }
    EXPECT_EQ(result.errors[12], "CoreDump: No available minidump filename, quitting...\n");
    EXPECT_EQ(result.errors[13], VERDICT);
    EXPECT_THAT(result.log, Contains(StartsWith("backtrace[00] ")));
}

TEST(Crash, WithoutAThreadLocalSlotTheProgramStopsAtOnce) {
    const CrashResult result = Crash({.arguments = "no-slot"});
    EXPECT_EQ(result.exitCode, 255u);
    EXPECT_THAT(result.errors, ElementsAre("NOT_IMPLEMENTED lib/coreDump/coreDumpWin32:723\n"));
}

// --- With a debug-help library that is missing, lacks something or fails

// What follows the seven lines about the exception and its two parameters.
std::vector<std::string> AfterRegisters(const CrashResult& result) {
    const std::vector<std::string>& lines = result.errors;
    EXPECT_THAT(lines.front(), StartsWith("----Win32 exception detected"));
    return {lines.begin() + std::min<ptrdiff_t>(7, static_cast<ptrdiff_t>(lines.size())), lines.end()};
}

size_t Frames(const CrashResult& result) {
    return static_cast<size_t>(
        std::count_if(result.log.begin(), result.log.end(),
                      [](const std::string& line) { return line.starts_with("backtrace["); }));
}

TEST(CrashDegraded, WithoutAUsableLibraryTheRegistersRemain) {
    struct {
        const char* stub;
        const char* mode;
        const char* message;
    } cases[] = {
        {"", "", "CoreDump: No debug provider found!\n"},
        {"NO_NAMES", "", "CoreDump: Failed to resolve dbghelp.dll symbols. No backtrace.----\n"},
        {"COMPLETE", "no-start", "CoreDump: SymInitializeW() failed: 21\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        const CrashResult result =
            Crash({.arguments = "read", .stub = c.stub, .mode = c.mode, .dumpFolder = "-"});
        EXPECT_EQ(result.exitCode, 0xC0000005u);
        EXPECT_THAT(AfterRegisters(result), ElementsAre(c.message, VERDICT));
        EXPECT_EQ(Frames(result), 0u);
    }
}

TEST(CrashDegraded, AnOldLibraryNamesAddressesAndWritesNoDump) {
    const CrashResult result = Crash({.arguments = "read", .stub = "OLD"});
    EXPECT_THAT(AfterRegisters(result), ElementsAre(VERDICT));
    EXPECT_THAT(result.log, Contains(StartsWith("CoreDump: dbghelp.dll missing minidump support: ")));
    EXPECT_THAT(result.log, Contains(AllOf(StartsWith("backtrace[00] "), HasSubstr(" OldName + 0x0021 ["))));
    EXPECT_THAT(result.dumps, IsEmpty());
}

TEST(CrashDegraded, WhatTheDumpWriterIsToldAndAsks) {
    const CrashResult result = Crash({.arguments = "read", .stub = "COMPLETE"});
    for (const char* message : {"CoreDump: including module base 0x0x180000000 size 0x0x00005000",
                                "  checksum 0x00000abc timestamp 0x5e000000",
                                "  image file C:\\m\\St\xC3\xBC"
                                "ck.dll",
                                "  file version 6.1.7601.17514", "CoreDump: Including thread 77",
                                "CoreDump: Including threadex 78"}) {
        EXPECT_THAT(result.log, Contains(message));
    }
    // Type 5, with an exception of this thread whose pointers are this process's own, no streams, everything
    // included.
    const uint32_t expected[] = {5, 1, result.thread, 0, 0, 1};
    ASSERT_EQ(result.dumps.size(), 1u);
    const std::string& dump = result.dumps.begin()->second;
    ASSERT_EQ(dump.size(), sizeof expected);
    EXPECT_EQ(memcmp(dump.data(), expected, sizeof expected), 0);
    // A walk that never ends, and names that are not ASCII.
    EXPECT_EQ(Frames(result), 32u);
    EXPECT_THAT(result.log, Contains(AllOf(StartsWith("backtrace[31] frame "),
                                           HasSubstr(" params 0x8664 0x8665 0x8666 0x8667 St\xC3\xBC"
                                                     "ck + 0x12345 ["))));
}

TEST(CrashDegraded, AWriterThatFailsCostsTheDumpOnly) {
    const CrashResult result = Crash({.arguments = "read", .stub = "COMPLETE", .mode = "dump-fails"});
    EXPECT_THAT(AfterRegisters(result),
                ElementsAre(StartsWith("CoreDump: Writing minidump to "),
                            AllOf(StartsWith("Minidump failed: "), Not("Minidump failed: \n")), VERDICT));
    EXPECT_EQ(Frames(result), 32u);
}

TEST(CrashDegraded, AFaultInTheLibraryIsAFaultInTheReport) {
    for (const char* place : {"fault-in-dump", "fault-in-walk"}) {
        SCOPED_TRACE(place);
        const CrashResult result = Crash({.arguments = "illegal", .stub = "COMPLETE", .mode = place});
        EXPECT_EQ(result.errors.back(), LOOP);
        EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), result.errors.back()), 1);
        EXPECT_GE(result.exitCode, 0xC0000000u);
    }
}

TEST(CrashDegraded, TheWalkEndsAtTheFirstFrameWithoutAPlace) {
    struct {
        const char* mode;
        size_t frames;
        const char* last;
    } cases[] = {
        {"zero-frame", 2, "backtrace[01] "},
        {"zero-counter", 1, "backtrace[00] "},
        {"no-symbol", 32, " ??? ["}, // an address without a name is a place all the same
    };
    for (const auto& c : cases) {
        const CrashResult result = Crash({.arguments = "read", .stub = "COMPLETE", .mode = c.mode});
        EXPECT_EQ(Frames(result), c.frames) << c.mode;
        EXPECT_THAT(result.log, Contains(HasSubstr(c.last))) << c.mode;
    }
}

TEST(CrashDegraded, ANameThatIsNoTextStopsTheProgram) {
    const CrashResult result = Crash({.arguments = "read", .stub = "COMPLETE", .mode = "bad-name"});
    EXPECT_EQ(result.exitCode, 255u);
    EXPECT_THAT(result.errors.back(), StartsWith("NOT_IMPLEMENTED lib/coreDump/coreDumpWin32:"));
}

// --- In this process

// The system ends a program after its first unhandled exception; here the filter is asked again.
TEST(CrashLibrary, EachEntryOfAThreadSaysLessAndADumpReplacesNoOther) {
    const TestFolder temporary;
    const std::string folder = TestFolder::Utf8(temporary.Path());
    const std::string stem = Str_Format("%s\\test_crash-%lu", folder.c_str(), GetCurrentProcessId());
    ASSERT_TRUE(CoreDumpInit(folder.c_str()));
    ASSERT_EQ(CoreDump_SetUnhandledExceptionFilter(), CoreDumpExceptionFilter);
    std::vector<std::vector<std::string>> said;
    EXCEPTION_RECORD record = {};
    record.ExceptionCode = 0xE0000003;
    CONTEXT context = {};
    RtlCaptureContext(&context);
    EXCEPTION_POINTERS pointers = {&record, &context};
    DiagCapture_Take();
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(CoreDumpExceptionFilter(&pointers), EXCEPTION_CONTINUE_SEARCH);
        said.push_back(DiagCapture_Take().warning);
    }
    EXPECT_TRUE(CoreDump_CoreDump(&pointers));
    said.push_back(DiagCapture_Take().warning);
    ASSERT_THAT(said[0], SizeIs(5));
    EXPECT_EQ(said[0][4], "CoreDump: Writing minidump to " + stem + ".dmp\n");
    EXPECT_THAT(said[1], ElementsAre(LOOP));
    EXPECT_THAT(said[2], SizeIs(4)); // no dump
    EXPECT_THAT(said[3], IsEmpty());
    EXPECT_THAT(said[4], IsEmpty());
    EXPECT_THAT(said[5], ElementsAre(StartsWith("CoreDump: Cannot open minidump file " + stem + ".dmp: "),
                                     "CoreDump: Writing minidump to " + stem + "-0.dmp\n"));
    EXPECT_EQ(CoreDumpLastDump(), stem + "-0.dmp");
}

TEST(CrashLibrary, AnExceptionIsLeftToADebuggerAsAsked) {
    coreDumpSettings.breakOnException = 2;
    EXPECT_EQ(CoreDumpExceptionFilter(nullptr), EXCEPTION_CONTINUE_SEARCH); // not even looked at
    coreDumpSettings.breakOnException = 0;
}

TEST(CrashLibrary, NamesAddresses) {
    const auto inside = reinterpret_cast<uint64_t>(&Crash);
    const std::string named = CoreDumpSymbolName(inside, true).value();
    EXPECT_THAT(named, HasSubstr("\\test_crash.exe base 0x"));
    EXPECT_THAT(named, HasSubstr(" 0x0001:0x")); // code is in the first section
    EXPECT_THAT(CoreDumpSymbolName(inside, false).value(), Not(HasSubstr("[")));
    const int onStack = 0;
    for (uint64_t address : {uint64_t{0}, uint64_t{0x10}, reinterpret_cast<uint64_t>(&onStack), UINT64_MAX}) {
        EXPECT_EQ(CoreDumpSymbolName(address, true), "??? [no module data]") << address;
    }
}

TEST(CrashLibrary, ReservesAddressSpace) {
    EXPECT_EQ(CoreDumpReserveAddressSpace(0, false), nullptr); // as the program asks
    for (bool commit : {false, true}) {
        void* block = CoreDumpReserveAddressSpace(999999, commit);
        MEMORY_BASIC_INFORMATION region;
        ASSERT_NE(VirtualQuery(block, &region, sizeof region), 0u);
        EXPECT_EQ(region.State, static_cast<DWORD>(commit ? MEM_COMMIT : MEM_RESERVE));
        EXPECT_EQ(region.AllocationProtect, static_cast<DWORD>(PAGE_NOACCESS));
        EXPECT_EQ(region.RegionSize, 20480u * 1024);
        VirtualFree(block, 0, MEM_RELEASE);
    }
}

} // namespace
