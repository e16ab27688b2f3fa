// The Windows front: process entry, usage box, console handler, the one loop and the completion event.

#include "upgrader/win32/upgraderWin32.h"
#include "upgrader/argumentTable.h"
#include "upgrader/usageText.h"
#include "upgrader/win32/resource.h"

#include "coreDump/coreDump.h"
#include "file/file.h"
#include "log/log.h"
#include "misc/diag.h"
#include "misc/win32Handle.h"
#include "unicode/unicode.h"

#include <algorithm>
#include <exception>
#include <new>
#include <string>

#include <windows.h>
// After windows.h.
#include <ntsecapi.h>

namespace {

constexpr wchar_t COMPLETE_EVENT[] = L"Global\\ToolsUpgradeComplete";
constexpr char UNIT[] = "apps/upgrader/win32/upgraderWin32";
constexpr int OUT_OF_MEMORY_LINE = 101;
constexpr int UNCAUGHT_LINE = 102;
constexpr size_t LOADED_TEXT_UNITS = 1024; // most of one string resource
constexpr uint64_t MICROSECONDS_PER_MILLISECOND = 1000;
constexpr uint32_t SIGNAL_NONE = 0;
constexpr size_t LONGEST_PATH = 32768; // UTF-16 units, the system's own limit

// Nothing in the program throws but the allocator, where no other outcome is documented.
[[noreturn]] void OnUncaught() {
    if (std::exception_ptr current = std::current_exception()) {
        try {
            std::rethrow_exception(current);
        } catch (const std::bad_alloc&) {
            Diag_OutOfMemory(UNIT, OUT_OF_MEMORY_LINE);
        } catch (...) {
            Diag_NotReached(UNIT, UNCAUGHT_LINE);
        }
    }
    Diag_NotReached(UNIT, UNCAUGHT_LINE);
}

BOOL WINAPI UpgraderCtrlHandler(DWORD event) {
    // The first event counts. Ctrl+C is event 0 and so leaves no trace: it does not stop an upgrade.
    if (upgraderConsoleSignal == SIGNAL_NONE) {
        upgraderConsoleSignal = event;
    }
    return TRUE;
}

void LoadText(UINT id, std::string* text) {
    wchar_t loaded[LOADED_TEXT_UNITS];
    int length = LoadStringW(GetModuleHandleW(nullptr), id, loaded, LOADED_TEXT_UNITS);
    if (length > 0) {
        if (auto converted = Unicode_FromWide({loaded, static_cast<size_t>(length)})) {
            *text = *converted;
        }
    }
}

// Milliseconds to wait for the next event; never the value that stands for "for ever".
DWORD WaitTime(uint64_t sleep) {
    return static_cast<DWORD>(std::min<uint64_t>(sleep / MICROSECONDS_PER_MILLISECOND, INFINITE - 1));
}

// Waits until something is due. True when the installer has ended. The wait is alertable.
bool WaitForInstaller(ProcMgr_AsyncProc* installer, DWORD milliseconds) {
    if (!installer) {
        SleepEx(milliseconds, TRUE);
        return false;
    }
    HANDLE handle = ProcMgr_GetAsyncProcSelectable(installer);
    return WaitForSingleObjectEx(handle, milliseconds, TRUE) == WAIT_OBJECT_0;
}

// One turn of the loop with its wait; false ends it.
bool TurnAndWait(UpgraderData* data) {
    uint64_t sleep = 0;
    if (!UpgraderTurn(data, &sleep)) {
        return false;
    }
    ProcMgr_AsyncProc* installer = data->installerProcess.get();
    if (!WaitForInstaller(installer, WaitTime(sleep))) {
        return true;
    }
    if (ProcMgr_GetExitCode(installer, &data->installerExitCode) != 0) {
        DWORD error = GetLastError();
        Debug("Error getting exit code from process\n");
        Log_Level(LOG_ALWAYS, "Could not get the installer's exit code, error %u",
                  static_cast<unsigned>(error));
        return false;
    }
    data->installerProcess.reset();
    return true;
}

void SignalCompletion() {
    KernelHandle event(CreateEventW(nullptr, TRUE, FALSE, COMPLETE_EVENT));
    DWORD error = GetLastError();
    if (!event) {
        Log_Level(LOG_DETAIL, "Could not create upgrade complete event, Error 0x%x",
                  static_cast<unsigned>(error));
        return;
    }
    Debug("Upgrader finished execution, now signalling event.\n");
    SetEvent(event.Get());
}

uint32_t RunUpgrader(std::optional<std::string> commandLine, std::string* programPath) {
    if (!commandLine) {
        Warning("The command line is no valid UTF-16; nothing was done.\n");
        return 1;
    }
    ArgumentTable table;
    if (!ArgumentTable_Split(commandLine->data(), programPath->data(), &table)) {
        Warning("The command line holds more than %d arguments; nothing was done.\n",
                ARGUMENT_TABLE_MAX_ARGUMENTS);
        return 1;
    }
    return UpgraderMain(table.count, table.arguments.data());
}

} // namespace

std::optional<std::string> UpgraderOwnPath(DWORD* error) {
    std::wstring path(LONGEST_PATH, L'\0');
    DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    *error = GetLastError();
    if (length == 0) {
        return std::nullopt;
    }
    path.resize(length);
    std::optional<std::string> converted = Unicode_FromWide(path);
    if (!converted) {
        *error = ERROR_NO_UNICODE_TRANSLATION;
    }
    return converted;
}

void UpgraderUsage(const char* programPath) {
    UsageTexts texts;
    LoadText(IDS_USAGE_HEADING, &texts.heading);
    LoadText(IDS_USAGE_INSTALLER_ARGS, &texts.passArguments);
    LoadText(IDS_USAGE_DELETE_FILES, &texts.deleteFiles);
    LoadText(IDS_USAGE_SHUTDOWN, &texts.shutDown);
    LoadText(IDS_USAGE_HELP, &texts.help);
    LoadText(IDS_USAGE_TITLE, &texts.usage);
    LoadText(IDS_USAGE_OPTIONS, &texts.options);

    std::string programName;
    File_GetPathName(programPath, nullptr, &programName);
    auto text = Unicode_ToWide(UsageText_Format(texts, programName));
    auto title = Unicode_ToWide(texts.usage);
    if (text && title) {
        MessageBoxW(GetDesktopWindow(), text->c_str(), title->c_str(), MB_OK);
    }
}

void UpgraderLoop(UpgraderData* data) {
    if (!SetConsoleCtrlHandler(UpgraderCtrlHandler, TRUE)) {
        Warning("Failed to install Control event handler.\n");
        return;
    }
    while (TurnAndWait(data)) {
    }
    // When the session or the system ends, the installer is left to finish; otherwise nobody waits for it any
    // more.
    uint32_t signal = upgraderConsoleSignal;
    if (data->installerProcess && (signal == SIGNAL_NONE || signal == CTRL_BREAK_EVENT)) {
        if (!ProcMgr_Kill(data->installerProcess.get())) {
            DWORD error = GetLastError();
            Log_Level(LOG_ALWAYS, "Could not end the installer, error %u", static_cast<unsigned>(error));
        }
    }
    data->installerProcess.reset();
    if (!SetConsoleCtrlHandler(UpgraderCtrlHandler, FALSE)) {
        Warning("Failed to uninstall Control event handler.\n");
    }
}

uint32_t UpgraderRandom() {
    uint32_t random = 0;
    if (!RtlGenRandom(&random, sizeof random)) {
        // A name that somebody guesses is taken already and costs one attempt, no more.
        LARGE_INTEGER counter{};
        QueryPerformanceCounter(&counter);
        random = static_cast<uint32_t>(counter.QuadPart) * 2654435761U ^ GetCurrentProcessId();
    }
    return random;
}

int WINAPI wWinMain(HINSTANCE /*instance*/, HINSTANCE /*previous*/, PWSTR wideCommandLine, int /*show*/) {
    std::set_terminate(OnUncaught);
    Unicode_Startup(nullptr);
    std::optional<std::string> commandLine = Unicode_FromWide(wideCommandLine);
    DWORD error = 0;
    std::optional<std::string> programPath = UpgraderOwnPath(&error);

    Log_Begin("Upgrader");
    Log_Level(LOG_DETAIL, "Upgrader [%s]", programPath.value_or("").c_str());
    Log_Level(LOG_DETAIL, "Upgrader cmdLine [%s]", commandLine.value_or("").c_str());

    CoreDump_SetUnhandledExceptionFilter();

    if (!programPath) {
        Log_Level(LOG_ALWAYS, "No path of the program itself, error %u", static_cast<unsigned>(error));
        return static_cast<int>(error);
    }
    uint32_t exitCode = RunUpgrader(std::move(commandLine), &*programPath);
    SignalCompletion();
    Log_Level(LOG_DETAIL, "Upgrader returning [%d]\n", static_cast<int>(exitCode));
    Log_End();
    return static_cast<int>(exitCode);
}
