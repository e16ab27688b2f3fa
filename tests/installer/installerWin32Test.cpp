// The Windows side of an installation: version resources, real starts, the installer log, the reboot
// question.
#include "upgrader/win32/upgraderWin32Install.h"

#include "log/log.h"
#include "support/diagCapture.h"
#include "unicode/unicode.h"
#include "versionResource.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>
#include <windows.h>

bool upgraderRebootPromptQuit = false; // of the program's loop

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::StartsWith;

constexpr DWORD LIMIT_MS = 60000;
constexpr size_t LOG_STAMP = 25; // "inst : 01/31/10 23:59:59 "

std::string Narrow(const std::filesystem::path& path) {
    return *Unicode_FromWide(path.wstring());
}

// An extraction directory and a log of our own, in a folder whose name holds blanks and letters beyond ASCII.
class InstallerWin32 : public testing::Test {
protected:
    InstallerWin32() {
        wchar_t temp[MAX_PATH] = {};
        GetTempPathW(MAX_PATH, temp);
        folder = std::filesystem::path(temp) /
                 (L"in st " + std::to_wstring(GetCurrentProcessId()) + L" \x00E9\x65E5\x672C");
        std::filesystem::create_directories(folder);
        setup = folder / L"setup.exe";
        wchar_t self[MAX_PATH] = {};
        GetModuleFileNameW(nullptr, self, MAX_PATH);
        stub = std::filesystem::path(self).parent_path() / L"installerStub.exe";
        std::filesystem::copy_file(stub, setup);
        data.extractionDirectory = Narrow(folder);
        data.guestFileRoot = Narrow(folder / L"windows.iso");
        SetEnvironmentVariableW(L"TMP", folder.c_str());
        Log_Begin("Test");
        DiagCapture_Take();
    }
    ~InstallerWin32() override {
        Log_End();
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }

    void SetRunArguments(const std::string& text) {
        data.runArguments = text;
        data.runArgumentsLength = text.size();
    }

    std::string CommandLine() { return UpgraderGetInstallerCmdLine(&data, Narrow(setup)).value_or("none"); }

    // The messages of the log, each behind its level: "I1:SetupArgs []".
    std::vector<std::string> LogLines() const {
        std::ifstream file(folder / L"rlinst.log", std::ios::binary);
        std::vector<std::string> lines;
        for (std::string line; std::getline(file, line);) {
            line.erase(line.find_last_not_of('\r') + 1);
            if (line.size() > LOG_STAMP) {
                lines.push_back(line.substr(LOG_STAMP));
            }
        }
        return lines;
    }

    std::filesystem::path folder;
    std::filesystem::path setup;
    std::filesystem::path stub;
    UpgraderData data;
};

TEST_F(InstallerWin32, ALauncherIsKnownByItsDescription) {
    struct Row {
        const wchar_t* block;
        const wchar_t* description;
        bool launcher;
    };
    const Row rows[] = {
        {L"040904e4", L"Setup Launcher", true},  {L"040904e4", L"Setup Launcher Unicode", true},
        {L"040904E4", L"Setup Launcher", true},  {L"040904e4", L"Setup Launche", false},
        {L"040904e4", L"setup launcher", false}, {L"040904e4", L" Setup Launcher", false},
        {L"040904e4", L"Tools Setup", false},    {L"040904e4", L"", false},
        {L"040904b0", L"Setup Launcher", false}, {L"040704e4", L"Setup Launcher", false},
    };
    EXPECT_THAT(CommandLine(), EndsWith("setup.exe\" ")); // no resource at all
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << row.block << " " << row.description);
        std::filesystem::copy_file(stub, setup, std::filesystem::copy_options::overwrite_existing);
        ASSERT_TRUE(VersionResource_Write(setup, row.block, row.description));
        EXPECT_THAT(CommandLine(), EndsWith(row.launcher ? "setup.exe\" /w" : "setup.exe\" "));
    }
}

TEST_F(InstallerWin32, WhatCannotBeReadIsNoLauncher) {
    std::ofstream(setup, std::ios::trunc) << "no program";
    EXPECT_THAT(CommandLine(), EndsWith("setup.exe\" "));
    std::filesystem::remove(setup);
    EXPECT_THAT(CommandLine(), EndsWith("setup.exe\" "));
}

TEST_F(InstallerWin32, TheWayToTheCommandLineIsLogged) {
    ASSERT_TRUE(VersionResource_Write(setup, L"040904e4", L"Setup Launcher"));
    SetRunArguments(" -q");
    std::string directory = Narrow(folder);
    std::string arguments = "/s /v\"/qn /L*v \"" + directory + "\\rlmsi.log\"\"";
    std::string line = "\"" + directory + "\\setup.exe\" " + arguments + " /w";
    EXPECT_EQ(CommandLine(), line);
    EXPECT_THAT(DiagCapture_Take().debug,
                ElementsAre("Reboot really suppress parameter not detected or skipped. \n",
                            "Final command line is " + line));
    EXPECT_THAT(LogLines(),
                ElementsAre("I1:SetupArgs [" + arguments + "]", "I1:SetupCmdLine [" + line + "]"));
    EXPECT_FALSE(data.rebootSuppressed);
}

TEST_F(InstallerWin32, SuppressionIsLoggedExceptForTheTemplateThatAsksItself) {
    std::string line = "\"" + Narrow(setup) + "\" ";
    data.setupArguments = "REBOOT=R";
    CommandLine();
    EXPECT_THAT(DiagCapture_Take().debug,
                ElementsAre("Pointer location out of bounds. \n",
                            "Reboot really suppress parameter not detected or skipped. \n",
                            "Final command line is " + line + "REBOOT=R"));
    data.setupArguments = "/qn REBOOT=R";
    CommandLine();
    EXPECT_THAT(DiagCapture_Take().debug, ElementsAre("Reboot really suppress parameter detected. \n",
                                                      "Final command line is " + line + "/qn REBOOT=R"));
    EXPECT_TRUE(data.rebootSuppressed);
    data.setupArguments.reset();
    SetRunArguments(" -s");
    CommandLine();
    EXPECT_THAT(DiagCapture_Take().debug, ElementsAre(StartsWith("Final command line is ")));
    EXPECT_FALSE(data.rebootSuppressed);
}

TEST_F(InstallerWin32, BadInputIsLoggedWhole) {
    SetRunArguments(" abc %s -s");
    EXPECT_THAT(CommandLine(), EndsWith("setup.exe\" "));
    std::string line = "I1:SetupCmdLine [\"" + Narrow(setup) + "\" ]";
    EXPECT_THAT(LogLines(), ElementsAre("E1:Bad input:  abc %s -s", "I1:SetupArgs []", line));
}

TEST_F(InstallerWin32, StartsTheInstallerWithExactlyThisLine) {
    SetRunArguments(" -s");
    ASSERT_TRUE(UpgraderLaunchInstaller(&data));
    ASSERT_TRUE(data.installerProcess);
    EXPECT_FALSE(data.extractionDirectory);
    std::vector<std::string> debug = DiagCapture_Take().debug;
    ASSERT_GE(debug.size(), 2u);
    std::string line = debug[0].substr(std::string("Final command line is ").size());
    EXPECT_EQ(debug[1], "Attempting to launch \"" + line + "\"\n");

    HANDLE process = ProcMgr_GetAsyncProcSelectable(data.installerProcess.get());
    ASSERT_EQ(WaitForSingleObject(process, LIMIT_MS), WAIT_OBJECT_0);
    std::ifstream file(std::filesystem::path(setup.wstring() + L".line"), std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(file), {}};
    std::wstring received(bytes.size() / sizeof(wchar_t), L'\0');
    bytes.copy(reinterpret_cast<char*>(received.data()), bytes.size());
    EXPECT_EQ(Unicode_FromWide(received), line);
}

TEST_F(InstallerWin32, AMissingInstaller) {
    std::filesystem::remove(setup);
    EXPECT_FALSE(UpgraderLaunchInstaller(&data));
    EXPECT_FALSE(data.installerProcess);
    EXPECT_THAT(DiagCapture_Take().debug, ElementsAre("Error in FileIO_Access\n"));
    EXPECT_THAT(LogLines(), ElementsAre("E1:No installer at [" + Narrow(setup) + "]"));
}

TEST_F(InstallerWin32, AnInstallerThatIsNoProgram) {
    std::ofstream(setup, std::ios::trunc) << "no program";
    EXPECT_FALSE(UpgraderLaunchInstaller(&data));
    EXPECT_FALSE(data.installerProcess);
    DiagMessages messages = DiagCapture_Take();
    EXPECT_EQ(messages.debug.back(), "Error creating process\n");
    EXPECT_THAT(messages.warning,
                ElementsAre("ProcMgr_ExecAsync: CreateProcess failed 193\n",
                            StartsWith("ProcMgr_ExecAsync: Unable to create async process")));
    EXPECT_EQ(LogLines().back(), "E1:Could not start the installer, error 193");
}

// The console session as a test has it: what was asked, and what is answered.
struct Question {
    DWORD session = 0;
    std::wstring title = {};
    std::wstring message = {};
    DWORD style = 0;
    DWORD seconds = 0;
    BOOL wait = FALSE;
    int count = 0;

    BOOL success = TRUE;
    DWORD answer = 0;
};
Question question;

UpgraderConsoleSession FakeConsole() {
    UpgraderConsoleSession console;
    console.activeSession = []() -> DWORD { return 7; };
    console.sendMessage = [](HANDLE server, DWORD session, wchar_t* title, DWORD titleBytes, wchar_t* message,
                             DWORD messageBytes, DWORD style, DWORD seconds, DWORD* answer,
                             BOOL wait) -> BOOL {
        EXPECT_EQ(server, nullptr);
        question.session = session;
        question.title = std::wstring(title, titleBytes / sizeof(wchar_t));
        question.message = std::wstring(message, messageBytes / sizeof(wchar_t));
        question.style = style;
        question.seconds = seconds;
        question.wait = wait;
        question.count++;
        *answer = question.answer;
        SetLastError(ERROR_CTX_WINSTATION_NOT_FOUND);
        return question.success;
    };
    return console;
}

TEST_F(InstallerWin32, TheQuestionGoesToTheConsoleSession) {
    question = {.answer = IDYES};
    EXPECT_TRUE(UpgraderAskForRebootOn(FakeConsole()));
    EXPECT_EQ(question.session, 7u);
    EXPECT_EQ(question.style, 36u);
    EXPECT_EQ(question.seconds, 30u);
    EXPECT_TRUE(question.wait);
    EXPECT_EQ(question.title, L"Ravlin Tools Setup");
    EXPECT_EQ(question.message,
              L"Setup needs to reboot the system in order to complete the install. Do you want to "
              L"reboot now? The system will be rebooted shortly unless you cancel the reboot by "
              L"answering 'No'.");
}

TEST_F(InstallerWin32, AnswersOfTheConsoleSession) {
    struct Row {
        BOOL success;
        DWORD answer;
        bool reboot;
        const char* logged;
    };
    const Row rows[] = {
        {TRUE, IDYES, true, "I1:Reboot now: yes"},
        {TRUE, IDNO, false, "I1:Reboot now: no"},
        {TRUE, 32000, true, "I1:Reboot now: no answer in time, taken as yes"},
        {TRUE, 32001, false, "I1:Reboot now: no"}, // answered asynchronously
        {TRUE, 0, false, "I1:Reboot now: no"},
        {FALSE, IDYES, false, "I1:Reboot now: could not be asked, taken as no"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.logged);
        question = {.success = row.success, .answer = row.answer};
        EXPECT_EQ(UpgraderAskForRebootOn(FakeConsole()), row.reboot);
        EXPECT_EQ(question.count, 1);
        EXPECT_EQ(LogLines().back(), row.logged);
    }
    std::vector<std::string> lines = LogLines();
    EXPECT_EQ(lines[lines.size() - 2], "E1:Could not ask for a reboot on console session 7, error 7022");
}

// What an exit code leads to without the question: this system's console session cannot be asked.
TEST_F(InstallerWin32, AfterTheInstallersEnd) {
    struct Row {
        int32_t exitCode;
        bool shutdown;
        bool suppressed;
        bool sendEnd;
        bool asks;
    };
    const Row rows[] = {
        {0, false, false, false, false},   {1641, false, false, false, false},
        {3010, true, false, false, false}, {3010, false, true, false, false},
        {3010, false, false, false, true}, {1603, false, false, true, false},
        {-1, false, false, true, false},   {259, false, false, true, false},
        {1, true, true, true, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.exitCode);
        UpgraderData run;
        run.installerExitCode = row.exitCode;
        run.shutdown = row.shutdown;
        run.rebootSuppressed = row.suppressed;
        DiagCapture_Take();
        EXPECT_TRUE(UpgraderInstallerFinished(&run));
        EXPECT_TRUE(run.stop);
        EXPECT_EQ(run.sendEnd, row.sendEnd);
        EXPECT_FALSE(run.reboot);
        std::vector<std::string> debug = DiagCapture_Take().debug;
        ASSERT_EQ(debug.size(), row.asks ? 2u : 1u);
        EXPECT_EQ(debug[0], "Setup process returned " + std::to_string(row.exitCode) + "\n");
        if (row.asks) {
            EXPECT_EQ(debug[1], "Reboot is required to complete tools install...\n");
        }
    }
    EXPECT_EQ(LogLines()[0], "I1:Setup returned [0]");
}

} // namespace
