// Real child processes: what they are started with, what they inherit, how they end.
#include "procMgr/procMgr.h"

#include "fakeStation.h"
#include "misc/win32Handle.h"
#include "string/str.h"
#include "support/diagCapture.h"
#include "unicode/unicode.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <windows.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr DWORD LIMIT_MS = 60000;

struct Free {
    void operator()(ProcMgr_AsyncProc* process) const { ProcMgr_Free(process); }
};
using Process = std::unique_ptr<ProcMgr_AsyncProc, Free>;

std::wstring Wide(const std::string& text) {
    return *Unicode_ToWide(text);
}

std::wstring OwnFolder() {
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    return std::filesystem::path(self).parent_path().wstring();
}

bool Ended(const Process& process) {
    return WaitForSingleObject(ProcMgr_GetAsyncProcSelectable(process.get()), LIMIT_MS) == WAIT_OBJECT_0;
}

DWORD OwnHandleCount() {
    DWORD count = 0;
    GetProcessHandleCount(GetCurrentProcess(), &count);
    return count;
}

// The program to start, in a folder of its own whose name holds blanks and letters beyond ASCII.
class ProcMgrTest : public testing::Test {
protected:
    ProcMgrTest() {
        wchar_t temp[MAX_PATH] = {};
        GetTempPathW(MAX_PATH, temp);
        // One folder a test: a child that outlives its test still holds the program in it.
        static unsigned folders = 0;
        folder =
            std::filesystem::path(temp) / (L"pm " + std::to_wstring(GetCurrentProcessId()) + L"-" +
                                           std::to_wstring(++folders) + L" \x00E9\x65E5\x672C \xD83D\xDE00");
        std::filesystem::create_directories(folder);
        std::filesystem::copy_file(std::filesystem::path(OwnFolder()) / L"procMgrChild.exe",
                                   folder / L"ch ild.exe", std::filesystem::copy_options::overwrite_existing);
        child = *Unicode_FromWide((folder / L"ch ild.exe").wstring());
        report = *Unicode_FromWide((folder / L"report").wstring());
        DiagCapture_Take();
    }
    ~ProcMgrTest() override {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }

    std::string ReportCommand(const std::string& rest = "") const {
        return "\"" + child + "\" report \"" + report + "\"" + rest;
    }

    // First word of each line of the child's report, and the rest of the line.
    std::map<std::string, std::string> ReadReport() const {
        std::ifstream file(std::filesystem::path(Wide(report)), std::ios::binary);
        std::map<std::string, std::string> lines;
        for (std::string line; std::getline(file, line);) {
            lines[line.substr(0, line.find(' '))] = line.substr(line.find(' ') + 1);
        }
        return lines;
    }

    // Starts a reporting child with `options`, waits for it and gives its report.
    std::map<std::string, std::string> RunReporting(ProcMgr_ProcArgs* options, const std::string& rest = "") {
        Process process(ProcMgr_ExecAsync(ReportCommand(rest).c_str(), options));
        EXPECT_TRUE(process && Ended(process));
        return ReadReport();
    }

    std::filesystem::path folder;
    std::string child;
    std::string report;
};

TEST_F(ProcMgrTest, CommandLinesArriveAsTheyAre) {
    for (const char* rest :
         {"", " ", " /s /v\"/qn /L*v \"C:\\a b\\rlmsi.log\"\" /w", "  two  blanks",
          " \"quoted \\\" inside\" \\\\\" %TEMP% ^ & | > <", " \xC3\xA9\xE6\x97\xA5 \xF0\x9F\x98\x80"}) {
        SCOPED_TRACE(rest);
        EXPECT_EQ(RunReporting(nullptr, rest)["command"], ReportCommand(rest));
    }
}

TEST_F(ProcMgrTest, TheLongestCommandLineArrives) {
    std::string longest(32766 - ReportCommand(" ").size(), 'x');
    EXPECT_EQ(RunReporting(nullptr, " " + longest)["command"].size(),
              ReportCommand(" ").size() + longest.size());
}

TEST_F(ProcMgrTest, WithoutOptionsTheWindowIsMinimised) {
    std::map<std::string, std::string> lines = RunReporting(nullptr);
    EXPECT_EQ(lines["flags"], "1 show 6");
    EXPECT_THAT(DiagCapture_Take().warning, IsEmpty());
}

TEST_F(ProcMgrTest, Messages) {
    std::string command = ReportCommand();
    Process process(ProcMgr_ExecAsync(command.c_str(), nullptr));
    ASSERT_TRUE(process);
    auto handle = reinterpret_cast<intptr_t>(ProcMgr_GetAsyncProcSelectable(process.get()));
    DiagMessages messages = DiagCapture_Take();
    EXPECT_THAT(messages.debug,
                ElementsAre("ProcMgr_ExecAsync: Executing async command: " + command + "\n",
                            Str_Format("Spawned sub-process %d\n", static_cast<int>(handle))));
    EXPECT_THAT(messages.warning, IsEmpty());
    EXPECT_TRUE(Ended(process));
}

TEST_F(ProcMgrTest, OptionsReachTheChild) {
    std::wstring environment = L"PROCMGR_VARIABLE=mine ";
    environment += L'\xE9';
    environment += L'\0';
    environment += L"SystemRoot=" + std::wstring(_wgetenv(L"SystemRoot")) + L'\0' + L'\0';
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESHOWWINDOW;
    startup.wShowWindow = SW_MAXIMIZE;
    std::wstring directory = folder.wstring();
    ProcMgr_ProcArgs options;
    options.creationFlags = CREATE_UNICODE_ENVIRONMENT;
    options.environment = environment.data();
    options.currentDirectory = directory.c_str();
    options.startupInfo = &startup;
    std::map<std::string, std::string> lines = RunReporting(&options);
    EXPECT_EQ(lines["variable"], "mine \xC3\xA9");
    EXPECT_EQ(lines["directory"], *Unicode_FromWide(directory));
    EXPECT_EQ(lines["flags"], "1 show 3");
    EXPECT_EQ(options.startupInfo, &startup);
}

TEST_F(ProcMgrTest, OptionsWithoutAStartupRecordGetTheBuiltInOne) {
    ProcMgr_ProcArgs options;
    EXPECT_EQ(RunReporting(&options)["flags"], "1 show 6");
    ASSERT_NE(options.startupInfo, nullptr);
    EXPECT_EQ(options.startupInfo->lpDesktop, nullptr);
}

TEST_F(ProcMgrTest, AnApplicationNameServesWithoutACommandLine) {
    std::wstring application = Wide(child);
    ProcMgr_ProcArgs options;
    options.applicationName = application.c_str();
    Process process(ProcMgr_ExecAsync(nullptr, &options));
    ASSERT_TRUE(process && Ended(process));
    int32_t code = 0;
    EXPECT_EQ(ProcMgr_GetExitCode(process.get(), &code), 0);
    EXPECT_EQ(code, 99); // it was given no arguments
    application = L"C:\\nowhere\\plain.exe";
    DiagCapture_Take();
    options.applicationName = application.c_str();
    EXPECT_EQ(ProcMgr_ExecAsync(nullptr, &options), nullptr);
    EXPECT_THAT(DiagCapture_Take().warning,
                ElementsAre(StartsWith("ProcMgr_ExecAsync: CreateProcess failed "),
                            "ProcMgr_ExecAsync: Unable to create async process 'C:\\nowhere\\plain.exe'\n"));
}

// Two events: one marked inheritable, one not. The child sets both handle values; only the first may be a
// handle.
TEST_F(ProcMgrTest, OnlyInheritableHandlesAreInherited) {
    SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
    KernelHandle shared(CreateEventW(&inheritable, TRUE, FALSE, nullptr));
    KernelHandle own(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    std::wstring values = std::to_wstring(reinterpret_cast<uintptr_t>(shared.Get())) + L" " +
                          std::to_wstring(reinterpret_cast<uintptr_t>(own.Get()));
    SetEnvironmentVariableW(L"PROCMGR_SET", values.c_str());

    RunReporting(nullptr);
    EXPECT_EQ(WaitForSingleObject(shared.Get(), 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(own.Get(), 0), static_cast<DWORD>(WAIT_TIMEOUT));

    ResetEvent(shared.Get());
    ProcMgr_ProcArgs options; // inherits nothing
    RunReporting(&options);
    EXPECT_EQ(WaitForSingleObject(shared.Get(), 0), static_cast<DWORD>(WAIT_TIMEOUT));
    SetEnvironmentVariableW(L"PROCMGR_SET", nullptr);
}

TEST_F(ProcMgrTest, OurHandlesOfAChildAreNotInheritableAndAreClosed) {
    RunReporting(nullptr); // whatever the first start loads
    DWORD before = OwnHandleCount();
    {
        Process process(ProcMgr_ExecAsync(ReportCommand().c_str(), nullptr));
        ASSERT_TRUE(process);
        DWORD flags = HANDLE_FLAG_INHERIT;
        EXPECT_TRUE(GetHandleInformation(ProcMgr_GetAsyncProcSelectable(process.get()), &flags));
        EXPECT_EQ(flags & HANDLE_FLAG_INHERIT, 0u);
        EXPECT_TRUE(Ended(process));
    }
    EXPECT_EQ(OwnHandleCount(), before);
}

TEST_F(ProcMgrTest, ExitCodes) {
    for (int32_t expected : {0, 1, 259, 1603, 1641, 3010, -1, INT32_MIN}) {
        Process process(
            ProcMgr_ExecAsync(Str_Format("\"%s\" exit %d", child.c_str(), expected).c_str(), nullptr));
        ASSERT_TRUE(process && Ended(process));
        int32_t code = 77;
        EXPECT_EQ(ProcMgr_GetExitCode(process.get(), &code), 0);
        EXPECT_EQ(code, expected);
    }
}

// The events that a waiting child uses.
struct WaitEvents {
    explicit WaitEvents(const std::wstring& name)
        : go(CreateEventW(nullptr, TRUE, FALSE, name.c_str())),
          done(CreateEventW(nullptr, TRUE, FALSE, (name + L"-done").c_str())) {}
    KernelHandle go;
    KernelHandle done;
};

TEST_F(ProcMgrTest, ARunningChildReadsAsStillActiveAndKillMakesItOne) {
    WaitEvents events(L"procMgr-kill");
    Process process(ProcMgr_ExecAsync(("\"" + child + "\" wait procMgr-kill").c_str(), nullptr));
    ASSERT_TRUE(process);
    int32_t code = 0;
    EXPECT_EQ(ProcMgr_GetExitCode(process.get(), &code), 0);
    EXPECT_EQ(code, static_cast<int32_t>(STILL_ACTIVE));
    DiagCapture_Take();
    EXPECT_TRUE(ProcMgr_Kill(process.get()));
    auto handle = reinterpret_cast<intptr_t>(ProcMgr_GetAsyncProcSelectable(process.get()));
    EXPECT_THAT(DiagCapture_Take().warning,
                ElementsAre(Str_Format("Killing tools sub-process %d\n", static_cast<int>(handle))));
    ASSERT_TRUE(Ended(process));
    EXPECT_EQ(ProcMgr_GetExitCode(process.get(), &code), 0);
    EXPECT_EQ(code, 1);
    EXPECT_EQ(WaitForSingleObject(events.done.Get(), 0), static_cast<DWORD>(WAIT_TIMEOUT));
}

TEST_F(ProcMgrTest, LettingGoLeavesTheChildRunning) {
    WaitEvents events(L"procMgr-free");
    ProcMgr_Free(ProcMgr_ExecAsync(("\"" + child + "\" wait procMgr-free").c_str(), nullptr));
    SetEvent(events.go.Get());
    EXPECT_EQ(WaitForSingleObject(events.done.Get(), LIMIT_MS), WAIT_OBJECT_0);
}

TEST_F(ProcMgrTest, AChildOutlivesItsParent) {
    WaitEvents events(L"procMgr-outlive");
    Process parent(ProcMgr_ExecAsync(("\"" + child + "\" spawn procMgr-outlive").c_str(), nullptr));
    ASSERT_TRUE(parent && Ended(parent));
    int32_t code = 77;
    EXPECT_EQ(ProcMgr_GetExitCode(parent.get(), &code), 0);
    EXPECT_EQ(code, 0);
    SetEvent(events.go.Get());
    EXPECT_EQ(WaitForSingleObject(events.done.Get(), LIMIT_MS), WAIT_OBJECT_0);
}

TEST_F(ProcMgrTest, AFailedStartIsLoggedAndLeavesNothing) {
    DWORD before = OwnHandleCount();
    EXPECT_EQ(ProcMgr_ExecAsync("\"C:\\nowhere\\setup.exe\" /w", nullptr), nullptr);
    DWORD error = GetLastError();
    EXPECT_TRUE(error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) << error;
    EXPECT_EQ(OwnHandleCount(), before);
    DiagMessages messages = DiagCapture_Take();
    EXPECT_THAT(messages.debug,
                ElementsAre("ProcMgr_ExecAsync: Executing async command: \"C:\\nowhere\\setup.exe\" /w\n"));
    EXPECT_THAT(
        messages.warning,
        ElementsAre(Str_Format("ProcMgr_ExecAsync: CreateProcess failed %d\n", static_cast<int>(error)),
                    "ProcMgr_ExecAsync: Unable to create async process '\"C:\\nowhere\\setup.exe\" /w'\n"));
}

TEST_F(ProcMgrTest, ACommandLineThatIsNotUtf8IsRefused) {
    EXPECT_EQ(ProcMgr_ExecAsync("\xFF.exe", nullptr), nullptr);
    EXPECT_THAT(DiagCapture_Take().warning,
                ElementsAre("ProcMgr_ExecAsync: Could not convert cmd to UTF-16\n",
                            "ProcMgr_ExecAsync: Unable to create async process '\xFF.exe'\n"));
}

TEST_F(ProcMgrTest, NothingToStartIsFatal) {
    auto panicOf = [](ProcMgr_ProcArgs* options) -> std::string {
        try {
            ProcMgr_ExecAsync(nullptr, options);
        } catch (const DiagPanic& panic) {
            return panic.what();
        }
        return "none";
    };
    ProcMgr_ProcArgs options;
    EXPECT_EQ(panicOf(nullptr), "NOT_IMPLEMENTED lib/procMgr/procMgrWin32:1452\n");
    EXPECT_EQ(panicOf(&options), "NOT_IMPLEMENTED lib/procMgr/procMgrWin32:1453\n");
}

KernelHandle OwnToken() {
    KernelHandle token;
    EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, token.Receive()));
    return token;
}

TEST_F(ProcMgrTest, AsAUserOnTheInteractiveDesktop) {
    FakeStation station;
    KernelHandle token = OwnToken();
    ProcMgr_ProcArgs options;
    options.userToken = token.Get();
    Process process(ProcMgr_ExecAsync(ReportCommand(" \xE6\x97\xA5").c_str(), &options));
    ASSERT_TRUE(process);
    EXPECT_EQ(station.trace, "station! desktop! ");
    EXPECT_TRUE(station.onOwnStation);
    EXPECT_EQ(station.openStations, 0);
    EXPECT_EQ(options.startupInfo->lpDesktop, nullptr); // named for this start only
    EXPECT_TRUE(Ended(process));
    std::map<std::string, std::string> lines = ReadReport();
    EXPECT_EQ(lines["desktop"], "[winsta0\\default]");
    EXPECT_EQ(lines["command"], ReportCommand(" \xE6\x97\xA5"));

    token.Reset(); // the record has one of its own
    station.trace.clear();
    process.reset();
    EXPECT_EQ(station.trace, "delete 1 desktop! delete 2 delete 2 station! ");
    EXPECT_THAT(DiagCapture_Take().warning, IsEmpty());
}

TEST_F(ProcMgrTest, AsAUserWithoutALogonSession) {
    FakeStation station;
    station.tokenHasLogonSession = false;
    KernelHandle token = OwnToken();
    ProcMgr_ProcArgs options;
    options.userToken = token.Get();
    EXPECT_EQ(RunReporting(&options)["desktop"], "[]");
    EXPECT_EQ(station.trace, "");
}

TEST_F(ProcMgrTest, AsAUserOnADesktopOfTheCallersChoice) {
    FakeStation station;
    KernelHandle token = OwnToken();
    wchar_t desktop[] = L"WinSta0\\Default";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.lpDesktop = desktop;
    ProcMgr_ProcArgs options;
    options.userToken = token.Get();
    options.startupInfo = &startup;
    EXPECT_EQ(RunReporting(&options)["desktop"], "[WinSta0\\Default]");
    EXPECT_EQ(startup.lpDesktop, desktop);
}

TEST_F(ProcMgrTest, AFailedStartAsAUserRevokesTheGrant) {
    FakeStation station;
    KernelHandle token = OwnToken();
    DWORD before = OwnHandleCount();
    ProcMgr_ProcArgs options;
    options.userToken = token.Get();
    EXPECT_EQ(ProcMgr_ExecAsync("C:\\nowhere\\setup.exe", &options), nullptr);
    EXPECT_EQ(station.trace, "station! desktop! delete 1 desktop! delete 2 delete 2 station! ");
    EXPECT_TRUE(station.onOwnStation);
    EXPECT_EQ(OwnHandleCount(), before);
    EXPECT_THAT(DiagCapture_Take().warning,
                ElementsAre(StartsWith("ProcMgr_ExecAsync: CreateProcessAsUser failed "),
                            "ProcMgr_ExecAsync: Unable to create async process 'C:\\nowhere\\setup.exe'\n"));
}

// A token that is no handle: the grant was made by then, stays, and only the log knows.
TEST_F(ProcMgrTest, ATokenThatCannotBeDuplicatedIsLogged) {
    FakeStation station;
    ProcMgr_ProcArgs options;
    options.userToken = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x7770));
    EXPECT_EQ(ProcMgr_ExecAsync(ReportCommand().c_str(), &options), nullptr);
    std::vector<std::string> warnings = DiagCapture_Take().warning;
    ASSERT_EQ(warnings.size(), 3u);
    EXPECT_EQ(warnings[0], "ProcMgr_ExecAsync: DuplicateHandle failed token = 0x7770, result = 6\n");
    EXPECT_THAT(warnings[1], HasSubstr("CreateProcessAsUser failed"));
    EXPECT_EQ(station.trace, "station! desktop! ");
}

} // namespace
