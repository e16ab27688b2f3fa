// Crash reports: what an unhandled exception leaves behind.
//
// The report has three parts: lines with the exception and the registers on the warning output, a symbolic
// backtrace in the installer log, and a minidump in the user's roaming application-data folder. The system's
// own handling follows, so the process still ends as it would have ended without the report. The latter two
// need dbghelp.dll, which is loaded when the first exception comes; without it the lines alone remain.
//
// Everything here runs on the thread that calls it. The one-time set-up is guarded by plain flags: the filter
// is expected to run once, on the thread that failed.
#pragma once

#include "misc/diag.h"

#include <windows.h>

// Takes one line of a backtrace as a printf format and its arguments; the line ends in "\n".
typedef void (*CoreDump_Output)(void* argument, const char* format, ...) DIAG_PRINTF(2, 3);

// Installs the process's exception filter and returns it. Also sets stack aside for the calling thread, so
// that the report of a stack overflow has room; another thread that may run out of stack has to call this
// too. The first call takes a thread-local slot and stops the program (Panic) when there is none.
LPTOP_LEVEL_EXCEPTION_FILTER CoreDump_SetUnhandledExceptionFilter();

// Writes one minidump; `pointers` may be null when there is no exception. False when no dump was written; the
// reason has then been logged. The file is <program>-<pid>.dmp, or the first of <program>-<pid>-0.dmp,
// -1.dmp, ... that is free.
bool CoreDump_CoreDump(EXCEPTION_POINTERS* pointers);

// Passes up to 32 frames, innermost first, to the output. Writes nothing when the debug-help library cannot
// be used. The context is copied and left as it is.
void CoreDump_Backtrace(const CONTEXT* context, CoreDump_Output output, void* argument);
