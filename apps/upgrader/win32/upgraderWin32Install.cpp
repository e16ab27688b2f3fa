// Starting the installer and what follows its end.

#include "upgrader/installer.h"
#include "upgrader/win32/resource.h"
#include "upgrader/win32/upgraderWin32.h"

#include "file/file.h"
#include "file/fileIO.h"
#include "log/log.h"
#include "misc/diag.h"
#include "misc/win32Handle.h"
#include "string/str.h"
#include "unicode/unicode.h"

#include <cwchar>
#include <string_view>
#include <vector>
#include <windows.h>

namespace {

// English and the Windows code page 1252: the block that makers of launchers put their description into.
constexpr wchar_t DESCRIPTION_VALUE[] = L"\\StringFileInfo\\040904e4\\FileDescription";

constexpr DWORD PROMPT_SECONDS = 30;
constexpr int PROMPT_MAX_TEXT = 1024; // characters
constexpr UINT PROMPT_STYLE = MB_YESNO | MB_ICONQUESTION;
constexpr DWORD ANSWER_TIMEOUT = 32000; // of WTSSendMessageW: nobody answered in time

enum class RebootAnswer { Yes, No, Silence, NotAsked };

// The way to the person at the console for a program that runs in a session of its own, as services do.
// Either member is null where the system has no such call.
struct ConsoleSession {
    DWORD(WINAPI* activeSession)() = nullptr;
    BOOL(WINAPI* sendMessage)
    (HANDLE server, DWORD session, wchar_t* title, DWORD titleBytes, wchar_t* message, DWORD messageBytes,
     DWORD style, DWORD seconds, DWORD* answer, BOOL wait) = nullptr;
};

struct RebootPrompt {
    std::wstring message;
    std::wstring title;
};

// --- Start ---

bool IsSetupLauncher(const std::string& path) {
    std::optional<std::wstring> wide = Unicode_ToWide(path);
    DWORD ignored = 0;
    DWORD size = wide ? GetFileVersionInfoSizeW(wide->c_str(), &ignored) : 0;
    std::vector<std::byte> info(size);
    if (size == 0 || !GetFileVersionInfoW(wide->c_str(), 0, size, info.data())) {
        return false;
    }
    void* value = nullptr;
    UINT length = 0; // characters
    if (!VerQueryValueW(info.data(), DESCRIPTION_VALUE, &value, &length) || !value) {
        return false;
    }
    std::wstring_view description(static_cast<const wchar_t*>(value), length);
    std::string_view launcher = UPGRADER_LAUNCHER_DESCRIPTION;
    return description.substr(0, launcher.size()) == std::wstring(launcher.begin(), launcher.end());
}

std::string ImageDirectory(const UpgraderData* data) {
    std::string directory;
    File_GetPathName(data->guestFileRoot.value_or(""), &directory, nullptr);
    return directory;
}

void LogPlan(const UpgraderInstallerRequest& request, const UpgraderInstallerCommand& command) {
    if (command.badInput) {
        Log_Level(LOG_ALWAYS, "Bad input: %s\n", request.runArguments->c_str());
    }
    Log_Level(LOG_DETAIL, "SetupArgs [%s]", command.arguments.value_or("").c_str());
    if (command.rebootParameter == UpgraderRebootParameter::AtStart) {
        Debug("Pointer location out of bounds. \n");
    }
    if (command.rebootParameter) {
        Debug("Reboot really suppress parameter %s \n",
              command.rebootParameter == UpgraderRebootParameter::Detected ? "detected."
                                                                           : "not detected or skipped.");
    }
    Debug("Final command line is %s", command.commandLine.c_str());
    Log_Level(LOG_DETAIL, "SetupCmdLine [%s]\n", command.commandLine.c_str());
}

// --- Reboot question ---

std::wstring LoadText(UINT id) {
    wchar_t text[PROMPT_MAX_TEXT];
    int length = LoadStringW(GetModuleHandleW(nullptr), id, text, PROMPT_MAX_TEXT);
    return std::wstring(text, static_cast<size_t>(length));
}

Module LoadSystemLibrary(const wchar_t* name) {
    wchar_t directory[MAX_PATH];
    UINT length = GetSystemDirectoryW(directory, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) {
        return Module();
    }
    return Module(LoadLibraryW((std::wstring(directory, length) + L"\\" + name).c_str()));
}

RebootAnswer AskConsoleSession(const ConsoleSession& console, RebootPrompt prompt) {
    HANDLE thisServer = nullptr;
    DWORD answer = 0;
    DWORD session = console.activeSession();
    if (!console.sendMessage(thisServer, session, prompt.title.data(),
                             static_cast<DWORD>(prompt.title.size() * sizeof(wchar_t)), prompt.message.data(),
                             static_cast<DWORD>(prompt.message.size() * sizeof(wchar_t)), PROMPT_STYLE,
                             PROMPT_SECONDS, &answer, TRUE)) {
        DWORD error = GetLastError();
        Log_Level(LOG_ALWAYS, "Could not ask for a reboot on console session %u, error %u",
                  static_cast<unsigned>(session), static_cast<unsigned>(error));
        return RebootAnswer::NotAsked;
    }
    if (answer == ANSWER_TIMEOUT) {
        return RebootAnswer::Silence;
    }
    return answer == IDYES ? RebootAnswer::Yes : RebootAnswer::No;
}

// Runs inside the message box's own message loop, on the main thread. The quit message ends the box.
void CALLBACK PromptTimedOut(HWND, UINT, UINT_PTR, DWORD) {
    PostQuitMessage(0);
    upgraderRebootPromptQuit = true;
}

RebootAnswer AskHere(const RebootPrompt& prompt) {
    upgraderRebootPromptQuit = false;
    UINT_PTR timer = SetTimer(nullptr, 0, PROMPT_SECONDS * 1000, PromptTimedOut);
    if (timer == 0) { // without it the question could stand for ever
        DWORD error = GetLastError();
        Log_Level(LOG_ALWAYS, "Could not start the timer of the reboot question, error %u",
                  static_cast<unsigned>(error));
        return RebootAnswer::NotAsked;
    }
    int answer = MessageBoxW(nullptr, prompt.message.c_str(), prompt.title.c_str(), PROMPT_STYLE);
    DWORD error = GetLastError();
    if (!KillTimer(nullptr, timer)) {
        Warning("Failed to cancel reboot timer.\n");
    }
    if (upgraderRebootPromptQuit) {
        MSG quit;
        PeekMessageW(&quit, nullptr, WM_QUIT, WM_QUIT, PM_REMOVE);
        return RebootAnswer::Silence;
    }
    if (answer != IDYES && answer != IDNO) {
        Log_Level(LOG_ALWAYS, "Could not show the reboot question, error %u", static_cast<unsigned>(error));
        return RebootAnswer::NotAsked;
    }
    return answer == IDYES ? RebootAnswer::Yes : RebootAnswer::No;
}

const char* DescribeAnswer(RebootAnswer answer) {
    switch (answer) {
    case RebootAnswer::Yes:
        return "yes";
    case RebootAnswer::No:
        return "no";
    case RebootAnswer::Silence:
        return "no answer in time, taken as yes";
    case RebootAnswer::NotAsked:
        break;
    }
    return "could not be asked, taken as no";
}

// Asks whoever sits at the guest whether to reboot now; true for yes. The question goes to the console
// session, or to our own desktop if there is no way there. Nobody's answer within the time is a yes, a
// question that could not be shown is a no; the installer log tells which.
bool AskForReboot() {
    RebootPrompt prompt{LoadText(IDS_REBOOT_MESSAGE), LoadText(IDS_REBOOT_TITLE)};
    ConsoleSession console;
    console.activeSession = Win32_GetProc<decltype(console.activeSession)>(GetModuleHandleW(L"kernel32.dll"),
                                                                           "WTSGetActiveConsoleSessionId");
    Module wts = console.activeSession ? LoadSystemLibrary(L"wtsapi32.dll") : Module();
    if (wts) {
        console.sendMessage = Win32_GetProc<decltype(console.sendMessage)>(wts.Get(), "WTSSendMessageW");
    }
    RebootAnswer answer = console.sendMessage ? AskConsoleSession(console, prompt) : AskHere(prompt);
    Log_Level(LOG_DETAIL, "Reboot now: %s", DescribeAnswer(answer));
    return answer == RebootAnswer::Yes || answer == RebootAnswer::Silence;
}

} // namespace

std::optional<std::string> UpgraderGetInstallerCmdLine(UpgraderData* data, const std::string& installerPath) {
    UpgraderInstallerRequest request;
    request.installerPath = installerPath;
    request.launcher = IsSetupLauncher(installerPath);
    request.logDirectory = ImageDirectory(data);
    request.setupArguments = data->setupArguments;
    request.runArguments = data->runArguments;
    request.runArgumentsLength = data->runArgumentsLength;

    UpgraderInstallerCommand command = UpgraderPlanInstaller(request);
    LogPlan(request, command);
    data->rebootSuppressed = command.rebootSuppressed;
    if (command.commandLine.empty()) {
        return std::nullopt;
    }
    return command.commandLine;
}

bool UpgraderLaunchInstaller(UpgraderData* data) {
    std::string path = data->extractionDirectory.value_or("") + UPGRADER_SEPARATOR + UPGRADER_SETUP_NAME;
    if (FileIO_Access(path.c_str(), FILEIO_ACCESS_EXISTS) == FileIOResult::Error) {
        Debug("Error in FileIO_Access\n");
        Log_Level(LOG_ALWAYS, "No installer at [%s]", path.c_str());
        return false;
    }
    std::optional<std::string> commandLine = UpgraderGetInstallerCmdLine(data, path);
    if (!commandLine) {
        Debug("Failed to get installer command line\n");
        return false;
    }
    Debug("Attempting to launch \"%s\"\n", commandLine->c_str());
    data->installerProcess.reset(ProcMgr_ExecAsync(commandLine->c_str(), nullptr));
    if (!data->installerProcess) {
        DWORD error = GetLastError();
        Debug("Error creating process\n");
        Log_Level(LOG_ALWAYS, "Could not start the installer, error %u", static_cast<unsigned>(error));
        return false;
    }
    data->extractionDirectory.reset();
    return true;
}

bool UpgraderInstallerFinished(UpgraderData* data) {
    Debug("Setup process returned %d\n", static_cast<int>(data->installerExitCode));
    Log_Level(LOG_DETAIL, "Setup returned [%d]", static_cast<int>(data->installerExitCode));
    UpgraderInstallerVerdict verdict =
        UpgraderJudgeInstaller(data->installerExitCode, data->shutdown, data->rebootSuppressed);
    if (verdict.succeeded) {
        data->sendEnd = false;
    }
    if (verdict.askForReboot) {
        Debug("Reboot is required to complete tools install...\n");
        if (AskForReboot()) {
            data->reboot = true;
        }
    } else if (data->installerExitCode == UPGRADER_EXIT_REBOOT_REQUIRED) {
        Log_Level(LOG_DETAIL, "A reboot is required; nobody is asked, because %s",
                  data->shutdown ? "the guest shuts down" : "the installer was told not to restart");
    }
    data->stop = true;
    return true;
}
