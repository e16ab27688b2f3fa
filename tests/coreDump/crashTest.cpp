// Real crashes of a real program: what it says, what it leaves behind and how it ends.
#include "crashRun.h"

#include "coreDump/coreDump.h"
#include "coreDump/coreDumpWin32.h"

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <shlobj.h>

namespace fs = std::filesystem;

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

constexpr uint32_t READ = 0;
constexpr uint32_t WRITE = 1;

// What the program said of its crash beforehand.
struct Announced {
    uint64_t address = 0; // 0 when it could not be known
    uint32_t thread = 0;
};

Announced ReadAnnounced(const std::string& output) {
    Announced announced;
    std::istringstream stream(output);
    for (std::string word; stream >> word;) {
        if (word == "at") {
            stream >> std::hex >> announced.address >> std::dec;
        } else if (word == "thread") {
            stream >> announced.thread;
        }
    }
    return announced;
}

// The module that the address lies in.
std::u16string ModuleOf(const Minidump& dump, uint64_t address) {
    for (const MinidumpModule& module : dump.modules) {
        if (address >= module.base && address - module.base < module.size) {
            return module.name;
        }
    }
    return u"(none)";
}

void ExpectThreadWithItsStack(const Minidump& dump, uint32_t id, uint64_t stackPointer) {
    const auto thread = std::find_if(dump.threads.begin(), dump.threads.end(),
                                     [id](const MinidumpThread& candidate) { return candidate.id == id; });
    ASSERT_NE(thread, dump.threads.end()) << id;
    EXPECT_LE(thread->stackStart, stackPointer);
    EXPECT_GT(thread->stackStart + thread->stackBytes, stackPointer);
}

std::string Format(const char* format, unsigned long long number) {
    char text[200];
    snprintf(text, sizeof text, format, number);
    return text;
}

struct Case {
    const char* arguments;
    uint32_t code;
    const char* name; // of the exception, with its blank
    std::vector<uint64_t> parameters;
};

// Everything that holds for each crash whose place is known.
void ExpectFullReport(const Case& c) {
    SCOPED_TRACE(c.arguments);
    const CrashFolder folder;
    const CrashResult result = folder.Crash(c.arguments);
    const Announced announced = ReadAnnounced(result.output);
    ASSERT_NE(announced.address, 0u);
    EXPECT_EQ(result.exitCode, c.code);

    ASSERT_GE(result.errors.size(), 6u);
    EXPECT_EQ(result.errors[0],
              Format("----Win32 exception detected, exceptionCode %#010I64x ", c.code) + c.name + "----\n");
    EXPECT_THAT(result.errors[1], StartsWith(Format("IP %#010I64x eflags 0x", announced.address)));
    EXPECT_THAT(result.errors[2], HasSubstr(" rcx 0x00000010 ")); // the function's argument
    EXPECT_THAT(result.errors[3], HasSubstr(" rsp 0x"));
    const std::string dumpName = "coreDump_crasher-" + std::to_string(result.processId) + ".dmp";
    EXPECT_THAT(result.errors,
                Contains("CoreDump: Writing minidump to " + (folder.Path() / dumpName).string() + "\n"));
    EXPECT_EQ(result.errors.back(), Format("Exception %#010I64x ", c.code) + c.name + " has occurred.\n");

    const Minidump dump = ReadOnlyDump(result);
    EXPECT_EQ(result.dumps[0].filename().string(), dumpName);
    EXPECT_EQ(dump.architecture, 9); // AMD64
    EXPECT_EQ(dump.flags, 5u);
    ASSERT_TRUE(dump.exception);
    EXPECT_EQ(dump.exception->threadId, announced.thread);
    EXPECT_EQ(dump.exception->code, c.code);
    EXPECT_EQ(dump.exception->address, announced.address);
    EXPECT_EQ(dump.exception->parameters, c.parameters);
    ExpectThreadWithItsStack(dump, announced.thread, dump.exception->rsp);
    EXPECT_EQ(ModuleOf(dump, announced.address), folder.Program().u16string());

    // The innermost frame is the instruction; the functions around it are named.
    EXPECT_THAT(result.log, Contains("CoreDump: Including thread " + std::to_string(announced.thread)));
    EXPECT_THAT(result.log, Contains("  image file " + folder.Program().string()));
    EXPECT_THAT(result.log,
                Contains(testing::AllOf(StartsWith("backtrace[00] frame "),
                                        HasSubstr(Format(" IP %#010I64x params ", announced.address)))));
    EXPECT_THAT(result.log,
                Contains(testing::AllOf(StartsWith("backtrace[01] frame "), HasSubstr(" Fail + 0x"),
                                        HasSubstr("[" + folder.Program().string() + " base 0x"))));
}

TEST(Crash, LeavesLinesBacktraceAndDumpAndEndsAsWithoutThem) {
    ExpectFullReport({"read", 0xC0000005, "(access violation)", {READ, 0x10}});
    ExpectFullReport({"write", 0xC0000005, "(access violation)", {WRITE, 0x10}});
    ExpectFullReport({"illegal", 0xC000001D, "", {}});
    ExpectFullReport({"breakpoint", 0x80000003, "(debug breakpoint)", {0}});
    ExpectFullReport({"divide", 0xC0000094, "", {}});
}

TEST(Crash, OnAnotherThread) {
    ExpectFullReport({"read --thread", 0xC0000005, "(access violation)", {READ, 0x10}});
    ExpectFullReport({"illegal --thread", 0xC000001D, "", {}});
}

TEST(Crash, AStackOverflowHasRoomForItsReport) {
    const CrashFolder folder;
    const CrashResult result = folder.Crash("overflow");
    EXPECT_EQ(result.exitCode, 0xC00000FDu);
    EXPECT_EQ(result.errors.back(), "Exception 0xc00000fd  has occurred.\n");
    const Minidump dump = ReadOnlyDump(result);
    ASSERT_TRUE(dump.exception);
    EXPECT_EQ(dump.exception->code, 0xC00000FDu);
    EXPECT_EQ(dump.exception->threadId, ReadAnnounced(result.output).thread);
    EXPECT_EQ(ModuleOf(dump, dump.exception->address), folder.Program().u16string());
    ExpectThreadWithItsStack(dump, dump.exception->threadId, dump.exception->rsp);
    // No more than 32 frames of an endless recursion.
    EXPECT_THAT(result.log,
                Contains(testing::AllOf(StartsWith("backtrace[31] "), HasSubstr("CrashOverflow"))));
    EXPECT_THAT(result.log, Not(Contains(StartsWith("backtrace[32] "))));
}

TEST(Crash, AMissingPageIsExplained) {
    const CrashFolder folder;
    const CrashResult result = folder.Crash("in-page");
    EXPECT_EQ(result.exitCode, 0xC0000006u);
    EXPECT_EQ(result.errors[0],
              "----Win32 exception detected, exceptionCode 0xc0000006 (disk error while paging)----\n");
    EXPECT_THAT(result.errors[1], HasSubstr(" rwFlags 0x100000000 badAddr 0x100000001\n"));
    EXPECT_THAT(result.log,
                Contains("Warning: the system was unable to load a page of memory; this can be caused by "
                         "network problems or a failing hard disk drive."));
    EXPECT_EQ(ReadOnlyDump(result).exception.value().parameters.size(), 3u);
}

TEST(Crash, ListsTheParametersOfTheException) {
    const CrashFolder folder;
    const CrashResult none = folder.Crash("bare");
    EXPECT_THAT(none.errors, Not(Contains("The following data was delivered with the exception:\n")));
    EXPECT_THAT(none.errors[1], HasSubstr(" rwFlags 0000000000 badAddr 0000000000\n"));
    const CrashFolder another;
    const CrashResult many = another.Crash("many");
    const auto heading = std::find(many.errors.begin(), many.errors.end(),
                                   "The following data was delivered with the exception:\n");
    ASSERT_GE(many.errors.end() - heading, 16);
    EXPECT_EQ(heading[1], " -- 0x100000000\n");
    EXPECT_EQ(heading[15], " -- 0x10000000e\n");
}

// The report fails at each of its messages in turn.
TEST(Crash, InsideTheReport) {
    const size_t messages = 8; // up to and including the dump's
    for (size_t n = 1; n <= messages; n++) {
        SCOPED_TRACE(n);
        const CrashFolder folder;
        const CrashResult result = folder.Crash("read --fault-in-warning " + std::to_string(n));
        EXPECT_EQ(result.exitCode, 0xC0000005u);
        ASSERT_THAT(result.errors, SizeIs(n));
        EXPECT_EQ(result.errors.back(), "Exception loop in CoreDumpExceptionFilter.  Giving up.\n");
    }
}

TEST(Crash, WithoutAHeap) {
    const CrashFolder folder;
    const CrashResult result = folder.Crash("read --no-heap");
    EXPECT_EQ(result.exitCode, 0xC0000005u);
    EXPECT_EQ(result.errors.front(),
              "----Win32 exception detected, exceptionCode 0xc0000005 (access violation)----\n");
    EXPECT_EQ(result.errors.back(), "Exception 0xc0000005 (access violation) has occurred.\n");
}

TEST(Crash, EachEntryOfAThreadSaysLess) {
    const CrashFolder folder;
    const CrashResult result = folder.Crash("twice");
    EXPECT_EQ(result.output.substr(result.output.find("result")),
              "result 0\r\nresult 0\r\nresult 0\r\nresult 0\r\nresult 0\r\n");
    std::vector<std::vector<std::string>> entries(1);
    for (const std::string& line : result.errors) {
        if (line.starts_with("--- ")) {
            entries.emplace_back();
        } else {
            entries.back().push_back(line);
        }
    }
    ASSERT_THAT(entries, SizeIs(6));
    const std::string verdict = "Exception 0xe0000003  has occurred.\n";
    EXPECT_THAT(entries[0], Contains(StartsWith("CoreDump: Writing minidump")));
    EXPECT_EQ(entries[0].back(), verdict);
    EXPECT_THAT(entries[1], ElementsAre("Exception loop in CoreDumpExceptionFilter.  Giving up.\n"));
    EXPECT_THAT(entries[2], SizeIs(5)); // no dump
    EXPECT_EQ(entries[2].back(), verdict);
    EXPECT_THAT(entries[3], IsEmpty());
    EXPECT_THAT(entries[4], IsEmpty());
    EXPECT_THAT(result.dumps, SizeIs(1));
}

TEST(Crash, IsLeftToADebuggerAsAsked) {
    const CrashFolder folder;
    const CrashResult always = folder.Crash("read --defer 2");
    EXPECT_THAT(always.errors, IsEmpty());
    EXPECT_THAT(always.dumps, IsEmpty());
    EXPECT_EQ(always.exitCode, 0xC0000005u);
    const CrashFolder another;
    const CrashResult alone = another.Crash("read --defer 1"); // no debugger is attached
    EXPECT_THAT(alone.errors, Not(IsEmpty()));
}

TEST(Crash, DumpsGoToTheApplicationDataByDefault) {
    wchar_t appData[MAX_PATH];
    ASSERT_HRESULT_SUCCEEDED(SHGetFolderPathW(nullptr, CSIDL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, appData));
    const CrashFolder folder;
    const CrashResult result = folder.CrashByDefault("read");
    const fs::path dump =
        fs::path(appData) / ("coreDump_crasher-" + std::to_string(result.processId) + ".dmp");
    EXPECT_THAT(result.errors, Contains("CoreDump: Writing minidump to " + dump.string() + "\n"));
    EXPECT_TRUE(fs::exists(dump));
    fs::remove(dump);
}

TEST(Crash, ADumpWithoutAnException) {
    const CrashFolder folder;
    const CrashResult result = folder.Crash("dump-only");
    EXPECT_EQ(result.exitCode, 0u);
    EXPECT_THAT(result.output, HasSubstr("dump 1 "));
    const Minidump dump = ReadOnlyDump(result);
    EXPECT_THAT(result.output, HasSubstr(result.dumps[0].string()));
    EXPECT_FALSE(dump.exception);
    EXPECT_THAT(dump.threads, Not(IsEmpty()));
}

TEST(Crash, ADumpDoesNotReplaceAnother) {
    const CrashFolder folder;
    const CrashResult result = folder.Crash("read --take-names");
    EXPECT_THAT(result.dumps, SizeIs(5));
    for (const fs::path& dump : result.dumps) {
        EXPECT_EQ(fs::file_size(dump), 0u) << dump;
    }
    const std::string stem =
        (folder.Path() / "coreDump_crasher-").string() + std::to_string(result.processId);
    std::vector<std::string> expected;
    for (const char* end : {"", "-0", "-1", "-2", "-3"}) {
        expected.push_back("CoreDump: Cannot open minidump file " + stem + end +
                           ".dmp: " + "File already exists\n");
    }
    expected.push_back("CoreDump: No available minidump filename, quitting...\n");
    const auto first = std::find_if(result.errors.begin(), result.errors.end(), [](const std::string& line) {
        return line.starts_with("CoreDump: Cannot open");
    });
    ASSERT_EQ(result.errors.end() - first, 7);
    for (size_t i = 0; i < 5; i++) {
        EXPECT_THAT(first[static_cast<ptrdiff_t>(i)],
                    StartsWith(expected[i].substr(0, expected[i].find(": F") + 2)));
    }
    EXPECT_EQ(first[5], expected[5]);
    EXPECT_THAT(result.log, Contains(StartsWith("backtrace[00] ")));
}

TEST(Crash, AFolderThatCannotBeWrittenCostsTheDumpOnly) {
    const CrashFolder folder;
    const CrashResult result =
        folder.CrashByDefault("read --dir \"" + (folder.Path() / "missing" / "deeper").string() + "\"");
    EXPECT_EQ(result.exitCode, 0xC0000005u);
    EXPECT_EQ(std::count_if(result.errors.begin(), result.errors.end(),
                            [](const std::string& line) {
                                return line.starts_with("CoreDump: Cannot open minidump file ");
                            }),
              5);
    EXPECT_THAT(result.errors, Contains("CoreDump: No available minidump filename, quitting...\n"));
    EXPECT_THAT(result.log, Contains(StartsWith("backtrace[00] ")));
    EXPECT_EQ(result.errors.back(), "Exception 0xc0000005 (access violation) has occurred.\n");
}

TEST(Crash, WithoutAThreadLocalSlotTheProgramStopsAtOnce) {
    const CrashFolder folder;
    const CrashResult result = folder.Crash("no-slot");
    EXPECT_EQ(result.exitCode, 255u);
    EXPECT_THAT(result.errors, ElementsAre("NOT_IMPLEMENTED lib/coreDump/coreDumpWin32:723\n"));
}

// --- In this process

TEST(CrashLibrary, NamesAnAddressOfThisProgram) {
    const auto address = reinterpret_cast<uint64_t>(&ExpectFullReport);
    const auto name = CoreDumpSymbolName(address, true);
    ASSERT_TRUE(name);
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    EXPECT_THAT(*name, HasSubstr("[" + fs::path(path).string() + " base 0x"));
    EXPECT_THAT(*name, HasSubstr(" 0x0001:0x")); // code is in the first section
    EXPECT_THAT(CoreDumpSymbolName(address, false).value(), Not(HasSubstr("[")));
}

TEST(CrashLibrary, AddressesOutsideModules) {
    const int onStack = 0;
    for (uint64_t address : {uint64_t{0}, uint64_t{0x10}, reinterpret_cast<uint64_t>(&onStack), UINT64_MAX}) {
        EXPECT_EQ(CoreDumpSymbolName(address, true), "??? [no module data]") << address;
    }
}

TEST(CrashLibrary, ReservesAddressSpace) {
    EXPECT_EQ(CoreDumpReserveAddressSpace(0, false), nullptr); // as the program asks
    struct {
        bool commit;
        DWORD state;
    } cases[] = {{false, MEM_RESERVE}, {true, MEM_COMMIT}};
    for (const auto& c : cases) {
        void* block = CoreDumpReserveAddressSpace(999999, c.commit);
        MEMORY_BASIC_INFORMATION region;
        ASSERT_NE(VirtualQuery(block, &region, sizeof region), 0u);
        EXPECT_EQ(region.AllocationBase, block);
        EXPECT_EQ(region.State, c.state);
        EXPECT_EQ(region.AllocationProtect, static_cast<DWORD>(PAGE_NOACCESS));
        EXPECT_EQ(region.RegionSize, 20480u * 1024);
        VirtualFree(block, 0, MEM_RELEASE);
    }
}

} // namespace
