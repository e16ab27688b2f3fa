// Starts a command line as an asynchronous child process; waits, exit code, kill.
//
// Main thread only: a start as another user switches the window station of the whole process while it lasts.
#pragma once

#include <cstdint>

// The system's own records.
struct _SECURITY_ATTRIBUTES; // NOLINT(bugprone-reserved-identifier)
struct _STARTUPINFOW;        // NOLINT(bugprone-reserved-identifier)

struct ProcMgr_AsyncProc; // owned by the caller until ProcMgr_Free

// Creation options. Nothing in it is owned. Handles and records are the system's; texts are UTF-16.
struct ProcMgr_ProcArgs {
    void* userToken = nullptr;                // start as that user; null: as the caller
    const wchar_t* applicationName = nullptr; // needed when there is no command line
    _SECURITY_ATTRIBUTES* processSecurity = nullptr;
    _SECURITY_ATTRIBUTES* threadSecurity = nullptr;
    int32_t inheritHandles = 0; // the child gets every handle that is marked inheritable
    uint32_t creationFlags = 0;
    void* environment = nullptr;               // null: the caller's
    const wchar_t* currentDirectory = nullptr; // null: the caller's
    _STARTUPINFOW* startupInfo = nullptr;      // null: the built-in one, which shows a window minimised
};

// Starts `commandLine` (UTF-8; may be null if `options` carry an application name, anything else stops the
// program). A null `options` means: as the caller, inheriting handles, minimised; options without a startup
// record are given the built-in one. With a user token the user's logon session is granted the interactive
// window station and desktop until ProcMgr_Free. Null on failure, which has then been logged; the thread's
// last error is that of the start.
ProcMgr_AsyncProc* ProcMgr_ExecAsync(const char* commandLine, ProcMgr_ProcArgs* options);

// The process handle, signalled when the process has ended; stays owned by `process`.
void* ProcMgr_GetAsyncProcSelectable(ProcMgr_AsyncProc* process);

// 0, or -1 with *exitCode untouched if the system cannot tell. A process that still runs reads 259.
int ProcMgr_GetExitCode(ProcMgr_AsyncProc* process, int32_t* exitCode);

// Ends the process, but none that it started, with exit code 1. False when the system refuses.
bool ProcMgr_Kill(ProcMgr_AsyncProc* process);

// Lets go of the process, running or not, and revokes what was granted for it. Null is allowed.
void ProcMgr_Free(ProcMgr_AsyncProc* process);
