// Crashes with a debug-help library that is missing, lacks something or fails.
#include "crashRun.h"

#include <algorithm>
#include <cstring>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr char VERDICT[] = "Exception 0xc0000005 (access violation) has occurred.\n";

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
        EXPECT_EQ(result.errors.back(), "Exception loop in CoreDumpExceptionFilter.  Giving up.\n");
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

} // namespace
