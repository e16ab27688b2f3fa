// What the library's Windows units share.
#pragma once

#include "coreDump/coreDump.h"

#include <cstdint>
#include <optional>
#include <string>

#include <windows.h>
// After windows.h.
#include <dbghelp.h>

inline constexpr char COREDUMP_UNIT[] = "lib/coreDump/coreDumpWin32";

// dbghelp.dll, loaded on demand and never given back.
struct CoreDumpDbgHelp {
    bool attempted = false;
    bool succeeded = false;
    HMODULE module = nullptr;
    decltype(&SymInitializeW) symInitialize = nullptr;
    decltype(&StackWalk64) stackWalk = nullptr;
    decltype(&SymFunctionTableAccess64) symFunctionTableAccess = nullptr;
    decltype(&SymGetModuleBase64) symGetModuleBase = nullptr;
    decltype(&SymCleanup) symCleanup = nullptr;
    decltype(&SymLoadModuleExW) symLoadModule = nullptr;
    decltype(&SymGetOptions) symGetOptions = nullptr;
    decltype(&SymSetOptions) symSetOptions = nullptr;
    decltype(&SymSetSearchPathW) symSetSearchPath = nullptr;
    decltype(&SymFromAddrW) symFromAddr = nullptr;                       // this one
    decltype(&SymGetSymFromAddr64) symGetSymFromAddr = nullptr;          // or that one
    decltype(&RtlCaptureStackBackTrace) captureStackBackTrace = nullptr; // may be missing
};
extern CoreDumpDbgHelp coreDumpDbgHelp;

// True when coreDumpDbgHelp can be used. The work is done, and a failure logged, by the first call only.
bool CoreDumpLoadDbgHelp();

// The module's full path, of the program itself when it is null; empty when it has none.
std::wstring CoreDumpModuleFileName(HMODULE module);

// What an address stands for: symbol, displacement and, on request, module, section and offset. Loads the
// symbols of its module. Null without the debug-help library.
std::optional<std::string> CoreDumpSymbolName(uint64_t address, bool includeModule);

// Chooses the names for this process's dumps, in `directory` (UTF-8) or, when that is null, in the user's
// roaming application-data folder. Success is final: later calls change nothing. False, with the reason
// logged, when the debug-help library cannot be used or there is no such folder.
bool CoreDumpInit(const char* directory);

// Takes a block of address space of at most 20480 KB that nobody may touch, with memory behind it if
// `commit`. Null when none was asked for or none is to be had.
void* CoreDumpReserveAddressSpace(uint32_t sizeKB, bool commit);

// UTF-8 name of the last dump written, empty when there is none.
const std::string& CoreDumpLastDump();

LONG WINAPI CoreDumpExceptionFilter(EXCEPTION_POINTERS* pointers);

// Nothing in the program changes these.
struct CoreDumpSettings {
    uint32_t dumpType = 0;         // MINIDUMP_TYPE flags; 0 stands for data segments and handles
    uint32_t breakOnException = 0; // see CoreDumpDefers
};
extern CoreDumpSettings coreDumpSettings;
