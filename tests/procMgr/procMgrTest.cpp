// Real child processes: what they are started with, what they inherit, how they end.
#include "procMgr/procMgr.h"

#include "fakeStation.h"
#include "misc/win32Handle.h"
#include "string/str.h"
#include "support/diagCapture.h"
#include "support/testFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <windows.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr DWORD LIMIT_MS = 60000;

struct Free {
    void operator()(ProcMgr_AsyncProc* process) const { ProcMgr_Free(process); }
};
using Process = std::unique_ptr<ProcMgr_AsyncProc, Free>;

bool IsSet(HANDLE object, DWORD milliseconds = 0) {
    return WaitForSingleObject(object, milliseconds) == WAIT_OBJECT_0;
}

bool Ended(const Process& process) {
    return IsSet(ProcMgr_GetAsyncProcSelectable(process.get()), LIMIT_MS);
}

int HandleForLog(const Process& process) {
    return static_cast<int>(reinterpret_cast<intptr_t>(ProcMgr_GetAsyncProcSelectable(process.get())));
}

int32_t ExitCode(const Process& process) {
    int32_t code = 77;
    EXPECT_EQ(ProcMgr_GetExitCode(process.get(), &code), 0);
    return code;
}

DWORD OwnHandleCount() {
    DWORD count = 0;
    GetProcessHandleCount(GetCurrentProcess(), &count);
    return count;
}

// The program to start, in a folder of its own.
class ProcMgrTest : public testing::Test {
protected:
    ProcMgrTest() {
        std::filesystem::copy_file(TestFolder::OfPrograms() / "procMgrChild.exe", Path("ch ild.exe"));
        DiagCapture_Take();
    }

    std::filesystem::path Path(const char* name) const { return folder.Path() / name; }

    // What a child told to do something is started with.
    std::string Command(const std::string& rest) const { return "\"" + child + "\" " + rest; }

    // Starts a reporting child, waits for it and gives its report: the first word of each line, and the rest.
    std::map<std::string, std::string> RunReporting(ProcMgr_ProcArgs* options, const std::string& rest = "") {
        Process process(ProcMgr_ExecAsync((reportCommand + rest).c_str(), options));
        EXPECT_TRUE(process && Ended(process));
        std::map<std::string, std::string> lines;
        std::ifstream file(Path("report"), std::ios::binary);
        for (std::string line; std::getline(file, line);) {
            lines[line.substr(0, line.find(' '))] = line.substr(line.find(' ') + 1);
        }
        return lines;
    }

    TestFolder folder;
    const std::string child = TestFolder::Utf8(Path("ch ild.exe"));
    const std::string reportCommand = Command("report \"" + TestFolder::Utf8(Path("report")) + "\"");
};

TEST_F(ProcMgrTest, CommandLinesArriveAsTheyAre) {
    for (const char* rest : {"", " ", " /s /v\"/qn /L*v \"C:\\a b\\rlmsi.log\"\" /w",
                             "  two  blanks \"quoted \\\" inside\" \\\\\" %TEMP% ^ & | > < "
                             "\xC3\xA9\xE6\x97\xA5 \xF0\x9F\x98\x80"}) {
        EXPECT_EQ(RunReporting(nullptr, rest)["command"], reportCommand + rest);
    }
}

TEST_F(ProcMgrTest, OptionsReachTheChild) {
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESHOWWINDOW;
    startup.wShowWindow = SW_MAXIMIZE;
    ProcMgr_ProcArgs options;
    options.currentDirectory = folder.Path().c_str();
    options.startupInfo = &startup;
    std::map<std::string, std::string> lines = RunReporting(&options);
    EXPECT_EQ(lines["directory"], TestFolder::Utf8(folder.Path()));
    EXPECT_EQ(lines["flags"], "1 show 3");
}

TEST_F(ProcMgrTest, AnApplicationNameServesWithoutACommandLine) {
    ProcMgr_ProcArgs options;
    const std::wstring program = Path("ch ild.exe").wstring();
    options.applicationName = program.c_str();
    Process process(ProcMgr_ExecAsync(nullptr, &options));
    ASSERT_TRUE(process && Ended(process));
    EXPECT_EQ(ExitCode(process), 99); // it was given no arguments
    DiagCapture_Take();
    options.applicationName = L"C:\\nowhere\\\u65E5.exe";
    EXPECT_EQ(ProcMgr_ExecAsync(nullptr, &options), nullptr);
    EXPECT_THAT(
        DiagCapture_Take().warning,
        ElementsAre(StartsWith("ProcMgr_ExecAsync: CreateProcess failed "),
                    "ProcMgr_ExecAsync: Unable to create async process 'C:\\nowhere\\\xE6\x97\xA5.exe'\n"));
}

// Two events, of which one is marked inheritable. The child sets both handle values.
TEST_F(ProcMgrTest, TheBuiltInOptionsInheritAndMinimise) {
    SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
    KernelHandle shared(CreateEventW(&inheritable, TRUE, FALSE, nullptr));
    KernelHandle own(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const std::wstring values = std::to_wstring(reinterpret_cast<uintptr_t>(shared.Get())) + L" " +
                                std::to_wstring(reinterpret_cast<uintptr_t>(own.Get()));
    SetEnvironmentVariableW(L"PROCMGR_SET", values.c_str());
    EXPECT_EQ(RunReporting(nullptr)["flags"], "1 show 6");
    EXPECT_TRUE(IsSet(shared.Get()));
    EXPECT_FALSE(IsSet(own.Get()));

    ResetEvent(shared.Get());
    ProcMgr_ProcArgs options; // inherit nothing, and bring no startup record
    EXPECT_EQ(RunReporting(&options)["flags"], "1 show 6");
    EXPECT_FALSE(IsSet(shared.Get()));
    EXPECT_NE(options.startupInfo, nullptr);
    SetEnvironmentVariableW(L"PROCMGR_SET", nullptr);
}

TEST_F(ProcMgrTest, SaysWhatItStartsAndClosesWhatItOpened) {
    RunReporting(nullptr); // whatever the first start loads
    DiagCapture_Take();
    const DWORD before = OwnHandleCount();
    {
        Process process(ProcMgr_ExecAsync(reportCommand.c_str(), nullptr));
        ASSERT_TRUE(process && Ended(process));
        const DiagMessages messages = DiagCapture_Take();
        EXPECT_THAT(messages.debug,
                    ElementsAre("ProcMgr_ExecAsync: Executing async command: " + reportCommand + "\n",
                                Str_Format("Spawned sub-process %d\n", HandleForLog(process))));
        EXPECT_THAT(messages.warning, IsEmpty());
        DWORD flags = HANDLE_FLAG_INHERIT; // children that follow do not get it
        EXPECT_TRUE(GetHandleInformation(ProcMgr_GetAsyncProcSelectable(process.get()), &flags));
        EXPECT_EQ(flags & HANDLE_FLAG_INHERIT, 0u);
    }
    EXPECT_EQ(OwnHandleCount(), before);
}

TEST_F(ProcMgrTest, ExitCodes) {
    for (int32_t expected : {0, 3010, -1, INT32_MIN}) {
        Process process(ProcMgr_ExecAsync(Command(Str_Format("exit %d", expected)).c_str(), nullptr));
        ASSERT_TRUE(process && Ended(process));
        EXPECT_EQ(ExitCode(process), expected);
    }
}

TEST_F(ProcMgrTest, ARunningChildReadsAsStillActiveAndKillMakesItOne) {
    KernelHandle go(CreateEventW(nullptr, TRUE, FALSE, L"procMgr-kill"));
    Process process(ProcMgr_ExecAsync(Command("wait procMgr-kill").c_str(), nullptr));
    ASSERT_TRUE(process);
    EXPECT_EQ(ExitCode(process), static_cast<int32_t>(STILL_ACTIVE));
    DiagCapture_Take();
    EXPECT_TRUE(ProcMgr_Kill(process.get()));
    EXPECT_THAT(DiagCapture_Take().warning,
                ElementsAre(Str_Format("Killing tools sub-process %d\n", HandleForLog(process))));
    ASSERT_TRUE(Ended(process));
    EXPECT_EQ(ExitCode(process), 1);
}

TEST_F(ProcMgrTest, LettingGoLeavesTheChildRunning) {
    KernelHandle go(CreateEventW(nullptr, TRUE, FALSE, L"procMgr-free"));
    KernelHandle done(CreateEventW(nullptr, TRUE, FALSE, L"procMgr-free-done"));
    ProcMgr_Free(ProcMgr_ExecAsync(Command("wait procMgr-free").c_str(), nullptr));
    SetEvent(go.Get());
    EXPECT_TRUE(IsSet(done.Get(), LIMIT_MS));
}

TEST_F(ProcMgrTest, AFailedStartIsLoggedAndLeavesNothing) {
    const DWORD before = OwnHandleCount();
    EXPECT_EQ(ProcMgr_ExecAsync("\"C:\\nowhere\\setup.exe\" /w", nullptr), nullptr);
    const DWORD error = GetLastError();
    EXPECT_TRUE(error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) << error;
    EXPECT_EQ(OwnHandleCount(), before);
    EXPECT_THAT(
        DiagCapture_Take().warning,
        ElementsAre(Str_Format("ProcMgr_ExecAsync: CreateProcess failed %d\n", static_cast<int>(error)),
                    "ProcMgr_ExecAsync: Unable to create async process '\"C:\\nowhere\\setup.exe\" /w'\n"));
    EXPECT_EQ(ProcMgr_ExecAsync("\xFF.exe", nullptr), nullptr);
    EXPECT_THAT(DiagCapture_Take().warning,
                ElementsAre("ProcMgr_ExecAsync: Could not convert cmd to UTF-16\n",
                            "ProcMgr_ExecAsync: Unable to create async process '\xFF.exe'\n"));
}

TEST_F(ProcMgrTest, NothingToStartIsFatal) {
    ProcMgr_ProcArgs options;
    EXPECT_THROW(ProcMgr_ExecAsync(nullptr, nullptr), DiagPanic);
    EXPECT_THROW(ProcMgr_ExecAsync(nullptr, &options), DiagPanic);
    EXPECT_THAT(DiagCapture_Take().warning, ElementsAre("NOT_IMPLEMENTED lib/procMgr/procMgrWin32:1452\n",
                                                        "NOT_IMPLEMENTED lib/procMgr/procMgrWin32:1453\n"));
}

// Starts as the user of this process, on a station of the test's.
class ProcMgrAsUser : public ProcMgrTest {
protected:
    ProcMgrAsUser() { options.userToken = station.token.Get(); }
    ~ProcMgrAsUser() override {
        EXPECT_TRUE(station.onOwnStation);
        EXPECT_EQ(station.openStations, 0);
    }

    FakeStation station;
    ProcMgr_ProcArgs options;
};

TEST_F(ProcMgrAsUser, OnTheInteractiveDesktopUntilTheRecordIsFreed) {
    Process process(ProcMgr_ExecAsync(reportCommand.c_str(), &options));
    ASSERT_TRUE(process && Ended(process));
    EXPECT_EQ(station.trace, "station! desktop! ");
    EXPECT_EQ(options.startupInfo->lpDesktop, nullptr); // named for this start only
    station.token.Reset();                              // the record has one of its own
    station.trace.clear();
    process.reset();
    EXPECT_EQ(station.trace, "delete 1 desktop! delete 2 delete 2 station! ");
    EXPECT_THAT(DiagCapture_Take().warning, IsEmpty());
}

TEST_F(ProcMgrAsUser, TheDesktopDependsOnTheGrantAndTheCaller) {
    EXPECT_EQ(RunReporting(&options)["desktop"], "[winsta0\\default]");
    station.tokenHasLogonSession = false;
    station.trace.clear();
    EXPECT_EQ(RunReporting(&options)["desktop"], "[]");
    EXPECT_EQ(station.trace, "");
    wchar_t desktop[] = L"WinSta0\\Default";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.lpDesktop = desktop;
    options.startupInfo = &startup;
    EXPECT_EQ(RunReporting(&options)["desktop"], "[WinSta0\\Default]");
    EXPECT_EQ(startup.lpDesktop, desktop);
}

TEST_F(ProcMgrAsUser, AFailedStartRevokesTheGrant) {
    const DWORD before = OwnHandleCount();
    EXPECT_EQ(ProcMgr_ExecAsync("C:\\nowhere\\setup.exe", &options), nullptr);
    EXPECT_EQ(station.trace, "station! desktop! delete 1 desktop! delete 2 delete 2 station! ");
    EXPECT_EQ(OwnHandleCount(), before);
    EXPECT_THAT(DiagCapture_Take().warning,
                ElementsAre(StartsWith("ProcMgr_ExecAsync: CreateProcessAsUser failed "),
                            "ProcMgr_ExecAsync: Unable to create async process 'C:\\nowhere\\setup.exe'\n"));
}

// A token that is no handle: the grant was made by then, stays, and only the log knows.
TEST_F(ProcMgrAsUser, ATokenThatCannotBeDuplicatedIsLogged) {
    station.anyTokenServes = true;
    options.userToken = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x7770));
    EXPECT_EQ(ProcMgr_ExecAsync(reportCommand.c_str(), &options), nullptr);
    EXPECT_THAT(DiagCapture_Take().warning,
                ElementsAre("ProcMgr_ExecAsync: DuplicateHandle failed token = 0x7770, result = 6\n",
                            StartsWith("ProcMgr_ExecAsync: CreateProcessAsUser failed "),
                            StartsWith("ProcMgr_ExecAsync: Unable to create async process ")));
    EXPECT_EQ(station.trace, "station! desktop! ");
}

} // namespace
