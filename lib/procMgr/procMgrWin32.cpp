#include "procMgr.h"

#include "procMgrAccessWin32.h"

#include "misc/diag.h"
#include "misc/win32Handle.h"
#include "unicode/unicode.h"

#include <memory>
#include <new>
#include <optional>
#include <string>
#include <windows.h>

struct ProcMgr_AsyncProc {
    KernelHandle process;
    KernelHandle thread;
    DWORD processId = 0;
    DWORD threadId = 0;
    KernelHandle token; // ours; held exactly when a grant waits to be revoked
};

namespace {

constexpr char UNIT[] = "lib/procMgr/procMgrWin32";
constexpr int LINE_NO_OPTIONS = 1452;
constexpr int LINE_NO_APPLICATION = 1453;

// A desktop name in a startup record for as long as one start lasts: the record is the caller's, or shared.
class DesktopName {
public:
    DesktopName(STARTUPINFOW* startup, const wchar_t* name)
        : startup_(startup), previous_(startup->lpDesktop) {
        if (!previous_) {
            startup->lpDesktop = const_cast<wchar_t*>(name); // the system only reads it
        }
    }
    DesktopName(const DesktopName&) = delete;
    DesktopName& operator=(const DesktopName&) = delete;
    ~DesktopName() { startup_->lpDesktop = previous_; }

private:
    STARTUPINFOW* startup_;
    wchar_t* previous_;
};

STARTUPINFOW* BuiltInStartupInfo() {
    static STARTUPINFOW startup = [] {
        STARTUPINFOW info{};
        info.cb = sizeof info;
        info.dwFlags = STARTF_USESHOWWINDOW;
        info.wShowWindow = SW_MINIMIZE;
        return info;
    }();
    return &startup;
}

// What the messages call the child.
std::string NameForLog(const char* commandLine, const ProcMgr_ProcArgs* options) {
    if (commandLine) {
        return commandLine;
    }
    if (!options) {
        Diag_NotImplemented(UNIT, LINE_NO_OPTIONS);
    }
    if (!options->applicationName) {
        Diag_NotImplemented(UNIT, LINE_NO_APPLICATION);
    }
    return Unicode_FromWide(options->applicationName).value_or("");
}

void DuplicateToken(HANDLE token, ProcMgr_AsyncProc* record) {
    if (!DuplicateHandle(GetCurrentProcess(), token, GetCurrentProcess(), record->token.Receive(), 0, FALSE,
                         DUPLICATE_SAME_ACCESS)) {
        DWORD error = GetLastError();
        Warning("ProcMgr_ExecAsync: DuplicateHandle failed token = %#x, result = %d\n",
                static_cast<unsigned>(reinterpret_cast<uintptr_t>(token)), static_cast<int>(error));
    }
}

// The three starts give the Windows error, 0 for success.
DWORD StartAsUser(const ProcMgr_ProcArgs& options, wchar_t* commandLine, ProcMgr_AsyncProc* record,
                  PROCESS_INFORMATION* started) {
    std::optional<ProcMgrStationSwitch> onStation = ProcMgr_GrantInteractiveAccess(options.userToken);
    if (onStation) {
        DuplicateToken(options.userToken, record);
    }
    DesktopName desktop(options.startupInfo, onStation ? L"winsta0\\default" : L"");
    if (CreateProcessAsUserW(options.userToken, options.applicationName, commandLine, options.processSecurity,
                             options.threadSecurity, options.inheritHandles, options.creationFlags,
                             options.environment, options.currentDirectory, options.startupInfo, started)) {
        return ERROR_SUCCESS;
    }
    DWORD error = GetLastError();
    Warning("ProcMgr_ExecAsync: CreateProcessAsUser failed %d\n", static_cast<int>(error));
    return error;
}

DWORD StartAsCaller(const ProcMgr_ProcArgs& options, wchar_t* commandLine, PROCESS_INFORMATION* started) {
    if (CreateProcessW(options.applicationName, commandLine, options.processSecurity, options.threadSecurity,
                       options.inheritHandles, options.creationFlags, options.environment,
                       options.currentDirectory, options.startupInfo, started)) {
        return ERROR_SUCCESS;
    }
    DWORD error = GetLastError();
    Warning("ProcMgr_ExecAsync: CreateProcess failed %d\n", static_cast<int>(error));
    return error;
}

DWORD Start(const char* commandLine, const ProcMgr_ProcArgs& options, ProcMgr_AsyncProc* record) {
    std::optional<std::wstring> wide; // the system may write into it
    if (commandLine) {
        wide = Unicode_ToWide(commandLine);
        if (!wide) {
            Warning("ProcMgr_ExecAsync: Could not convert cmd to UTF-16\n");
            return ERROR_NO_UNICODE_TRANSLATION;
        }
    }
    wchar_t* text = wide ? wide->data() : nullptr;
    PROCESS_INFORMATION started{};
    DWORD error = options.userToken ? StartAsUser(options, text, record, &started)
                                    : StartAsCaller(options, text, &started);
    record->process.Reset(started.hProcess);
    record->thread.Reset(started.hThread);
    record->processId = started.dwProcessId;
    record->threadId = started.dwThreadId;
    return error;
}

} // namespace

ProcMgr_AsyncProc* ProcMgr_ExecAsync(const char* commandLine, ProcMgr_ProcArgs* options) {
    std::string name = NameForLog(commandLine, options);
    Debug("ProcMgr_ExecAsync: Executing async command: %s\n", name.c_str());

    ProcMgr_ProcArgs builtIn;
    builtIn.inheritHandles = TRUE;
    if (!options) {
        options = &builtIn;
    }
    if (!options->startupInfo) {
        options->startupInfo = BuiltInStartupInfo();
    }
    std::unique_ptr<ProcMgr_AsyncProc, void (*)(ProcMgr_AsyncProc*)> record(
        new (std::nothrow) ProcMgr_AsyncProc, ProcMgr_Free);
    DWORD error = record ? Start(commandLine, *options, record.get()) : ERROR_NOT_ENOUGH_MEMORY;
    if (error != ERROR_SUCCESS) {
        record.reset();
        Warning("ProcMgr_ExecAsync: Unable to create async process '%s'\n", name.c_str());
        SetLastError(error);
        return nullptr;
    }
    Debug("Spawned sub-process %d\n", static_cast<int>(reinterpret_cast<intptr_t>(record->process.Get())));
    return record.release();
}

void* ProcMgr_GetAsyncProcSelectable(ProcMgr_AsyncProc* process) {
    return process->process.Get();
}

int ProcMgr_GetExitCode(ProcMgr_AsyncProc* process, int32_t* exitCode) {
    DWORD code = 0;
    if (!GetExitCodeProcess(process->process.Get(), &code)) {
        return -1;
    }
    *exitCode = static_cast<int32_t>(code);
    return 0;
}

bool ProcMgr_Kill(ProcMgr_AsyncProc* process) {
    Warning("Killing tools sub-process %d\n",
            static_cast<int>(reinterpret_cast<intptr_t>(process->process.Get())));
    return TerminateProcess(process->process.Get(), 1);
}

void ProcMgr_Free(ProcMgr_AsyncProc* process) {
    if (process && process->token) {
        ProcMgr_RevokeInteractiveAccess(process->token.Get());
    }
    delete process;
}
