// Starts a command line as an asynchronous child process; waits, exit code, kill. Main thread only.
#pragma once

#include <cstdint>

struct ProcMgr_ProcArgs;  // creation options; null means the built-in ones
struct ProcMgr_AsyncProc; // owned by the caller until ProcMgr_Free

// commandLine is UTF-8. Null on failure, which has then been logged.
ProcMgr_AsyncProc* ProcMgr_ExecAsync(const char* commandLine, ProcMgr_ProcArgs* options);
void* ProcMgr_GetAsyncProcSelectable(ProcMgr_AsyncProc* process); // process handle, for waiting; not owned
int ProcMgr_GetExitCode(ProcMgr_AsyncProc* process, int32_t* exitCode); // 0, or -1
bool ProcMgr_Kill(ProcMgr_AsyncProc* process);
void ProcMgr_Free(ProcMgr_AsyncProc* process);
