// Crashes with a debug-help library that is missing, lacks something or fails.
#include "crashRun.h"

#include <algorithm>
#include <string>

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
using testing::SizeIs;
using testing::StartsWith;

constexpr char VERDICT[] = "Exception 0xc0000005 (access violation) has occurred.\n";

// The complete stub, set to fail in one way while this object lives.
struct Mode {
    explicit Mode(const char* mode) { SetEnvironmentVariableA("STUB_MODE", mode); }
    ~Mode() { SetEnvironmentVariableA("STUB_MODE", nullptr); }
    Mode(const Mode&) = delete;
    Mode& operator=(const Mode&) = delete;
};

// What follows the seven lines about the exception and its two parameters.
std::vector<std::string> AfterRegisters(const CrashResult& result) {
    EXPECT_GE(result.errors.size(), 7u);
    EXPECT_THAT(result.errors.front(), StartsWith("----Win32 exception detected"));
    return {result.errors.begin() + std::min<ptrdiff_t>(7, static_cast<ptrdiff_t>(result.errors.size())),
            result.errors.end()};
}

size_t Frames(const CrashResult& result) {
    return static_cast<size_t>(
        std::count_if(result.log.begin(), result.log.end(),
                      [](const std::string& line) { return line.starts_with("backtrace["); }));
}

TEST(CrashDegraded, WithoutAUsableLibraryTheRegistersRemain) {
    struct {
        const char* stub;
        const char* message;
    } cases[] = {
        {"", "CoreDump: No debug provider found!\n"},
        {"DOES_NOT_LOAD", "CoreDump: No debug provider found!\n"},
        {"EMPTY", "CoreDump: Failed to resolve dbghelp.dll symbols. No backtrace.----\n"},
        {"NO_NAMES", "CoreDump: Failed to resolve dbghelp.dll symbols. No backtrace.----\n"},
        {"NO_START", "CoreDump: SymInitializeW() failed: 21\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.stub);
        const CrashFolder folder(c.stub);
        const CrashResult result = folder.CrashByDefault("read");
        EXPECT_EQ(result.exitCode, 0xC0000005u);
        EXPECT_THAT(AfterRegisters(result), ElementsAre(c.message, VERDICT));
        EXPECT_THAT(result.dumps, IsEmpty());
        EXPECT_EQ(Frames(result), 0u);
    }
}

TEST(CrashDegraded, AnOldLibraryNamesAddressesAndWritesNoDump) {
    const CrashFolder folder("OLD");
    const CrashResult result = folder.Crash("read");
    EXPECT_THAT(AfterRegisters(result), ElementsAre(VERDICT));
    EXPECT_THAT(result.log, Contains(StartsWith("CoreDump: dbghelp.dll missing minidump support: ")));
    EXPECT_THAT(result.log, Contains(AllOf(StartsWith("backtrace[00] "), HasSubstr(" OldName + 0x0021 ["))));
    EXPECT_THAT(result.dumps, IsEmpty());
}

TEST(CrashDegraded, WhatTheDumpWriterIsToldAndAsks) {
    const CrashFolder folder("COMPLETE");
    const CrashResult result = folder.Crash("read");
    for (const char* message : {"CoreDump: including module base 0x0x180000000 size 0x0x00005000",
                                "  checksum 0x00000abc timestamp 0x5e000000", "  image file C:\\m\\some.dll",
                                "  file version 6.1.7601.17514", "CoreDump: Including thread 77",
                                "CoreDump: Including threadex 78"}) {
        EXPECT_THAT(result.log, Contains(message));
    }
    unsigned thread = 0;
    EXPECT_EQ(sscanf(result.output.c_str(), "at %*s thread %u", &thread), 1);
    // Type 5, with an exception of this thread whose pointers are this process's own, no streams; all
    // included.
    const std::vector<uint32_t> expected = {5, 1, thread, 0, 0, 1};
    ASSERT_THAT(result.dumps, SizeIs(1));
    FILE* file = _wfopen(result.dumps[0].c_str(), L"rb");
    std::vector<uint32_t> seen(expected.size() + 1);
    seen.resize(fread(seen.data(), sizeof(uint32_t), seen.size(), file));
    fclose(file);
    EXPECT_EQ(seen, expected);
    // A walk that never ends, and names that are not ASCII.
    EXPECT_EQ(Frames(result), 32u);
    EXPECT_THAT(result.log, Contains(AllOf(StartsWith("backtrace[31] frame "),
                                           HasSubstr(" params 0x8664 0x8665 0x8666 0x8667 St\xC3\xBC"
                                                     "ck + 0x12345 ["))));
}

TEST(CrashDegraded, AWriterThatFailsCostsTheDumpOnly) {
    const Mode mode("dump-fails");
    const CrashFolder folder("COMPLETE");
    const CrashResult result = folder.Crash("read");
    const auto lines = AfterRegisters(result);
    ASSERT_THAT(lines, SizeIs(3));
    EXPECT_THAT(lines[0], StartsWith("CoreDump: Writing minidump to "));
    EXPECT_THAT(lines[1], AllOf(StartsWith("Minidump failed: "), Not(EndsWith(".\n"))));
    EXPECT_GT(lines[1].size(), sizeof "Minidump failed: \n"); // with a text of the system
    EXPECT_EQ(lines[2], VERDICT);
    EXPECT_EQ(Frames(result), 32u);
}

TEST(CrashDegraded, AFaultInTheLibraryIsAFaultInTheReport) {
    for (const char* place : {"fault-in-dump", "fault-in-walk"}) {
        SCOPED_TRACE(place);
        const Mode mode(place);
        const CrashFolder folder("COMPLETE");
        const CrashResult result = folder.Crash("illegal");
        EXPECT_EQ(result.errors.back(), "Exception loop in CoreDumpExceptionFilter.  Giving up.\n");
        EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), result.errors.back()), 1);
        EXPECT_GE(result.exitCode, 0xC0000000u);
    }
}

TEST(CrashDegraded, TheWalkEndsAtTheFirstFrameWithoutAPlace) {
    struct {
        const char* mode;
        size_t frames;
    } cases[] = {{"zero-frame", 2}, {"zero-counter", 1}};
    for (const auto& c : cases) {
        const Mode mode(c.mode);
        const CrashFolder folder("COMPLETE");
        EXPECT_EQ(Frames(folder.Crash("read")), c.frames) << c.mode;
    }
}

TEST(CrashDegraded, AnAddressWithoutAName) {
    const Mode mode("no-symbol");
    const CrashFolder folder("COMPLETE");
    const CrashResult result = folder.Crash("read");
    EXPECT_THAT(result.log, Contains(AllOf(StartsWith("backtrace[00] "), HasSubstr(" ??? ["))));
}

TEST(CrashDegraded, ALongNameIsCut) {
    const Mode mode("long-name");
    const CrashFolder folder("COMPLETE");
    const CrashResult result = folder.Crash("read");
    const auto line = std::find_if(result.log.begin(), result.log.end(),
                                   [](const std::string& text) { return text.starts_with("backtrace[00]"); });
    ASSERT_NE(line, result.log.end());
    EXPECT_EQ(line->size(), 507u);
    EXPECT_THAT(*line, EndsWith("LLLL"));
}

TEST(CrashDegraded, ANameThatIsNoTextStopsTheProgram) {
    const Mode mode("bad-name");
    const CrashFolder folder("COMPLETE");
    const CrashResult result = folder.Crash("read");
    EXPECT_EQ(result.exitCode, 255u);
    EXPECT_THAT(result.errors.back(), StartsWith("NOT_IMPLEMENTED lib/coreDump/coreDumpWin32:"));
}

} // namespace
