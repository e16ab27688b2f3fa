// A dbghelp.dll that lacks or breaks what its build asks for:
//
//   STUB_NO_NAMES   names no addresses
//   STUB_OLD        names addresses the old way and writes no dumps
//   STUB_COMPLETE   has everything; the environment variable STUB_MODE says what goes wrong
#include <cstring>
#include <cwchar>

#include <windows.h>
// After windows.h.
#include <dbghelp.h>

// The header declares them as imported.
#pragma GCC diagnostic ignored "-Wattributes"
#define EXPORT extern "C" __declspec(dllexport)

namespace {

bool ModeIs(const char* mode) {
    char value[64] = "";
    GetEnvironmentVariableA("STUB_MODE", value, sizeof value);
    return strcmp(value, mode) == 0;
}

void Fault() {
    *reinterpret_cast<volatile int*>(0x30) = 1;
}

} // namespace

EXPORT BOOL WINAPI SymInitializeW(HANDLE, PCWSTR, BOOL) {
    SetLastError(ERROR_NOT_READY);
    return !ModeIs("no-start");
}

EXPORT BOOL WINAPI StackWalk64(DWORD machine, HANDLE, HANDLE, LPSTACKFRAME64 frame, void*,
                               PREAD_PROCESS_MEMORY_ROUTINE64, PFUNCTION_TABLE_ACCESS_ROUTINE64,
                               PGET_MODULE_BASE_ROUTINE64, PTRANSLATE_ADDRESS_ROUTINE64) {
    if (ModeIs("fault-in-walk")) {
        Fault();
    }
    // A stack without an end.
    frame->AddrFrame.Offset += 0x10;
    for (int i = 0; i < 4; i++) {
        frame->Params[i] = machine + static_cast<DWORD64>(i);
    }
    const DWORD64 walked = frame->Reserved[0]++;
    if (ModeIs("zero-frame") && walked == 2) {
        frame->AddrFrame.Offset = 0;
    }
    if (ModeIs("zero-counter") && walked == 1) {
        frame->AddrPC.Offset = 0;
    }
    return TRUE;
}

EXPORT void* WINAPI SymFunctionTableAccess64(HANDLE, DWORD64) {
    return nullptr;
}
EXPORT DWORD64 WINAPI SymGetModuleBase64(HANDLE, DWORD64) {
    return 0;
}
EXPORT BOOL WINAPI SymCleanup(HANDLE) {
    return TRUE;
}
EXPORT DWORD64 WINAPI SymLoadModuleExW(HANDLE, HANDLE, PCWSTR, PCWSTR, DWORD64 base, DWORD, PMODLOAD_DATA,
                                       DWORD) {
    return base;
}
EXPORT DWORD WINAPI SymGetOptions() {
    return 0;
}
EXPORT DWORD WINAPI SymSetOptions(DWORD options) {
    return options;
}
EXPORT BOOL WINAPI SymSetSearchPathW(HANDLE, PCWSTR) {
    return TRUE;
}

#ifdef STUB_OLD
EXPORT BOOL WINAPI SymGetSymFromAddr64(HANDLE, DWORD64, PDWORD64 displacement, PIMAGEHLP_SYMBOL64 symbol) {
    *displacement = 0x21;
    strncpy(symbol->Name, "OldName", symbol->MaxNameLength);
    return TRUE;
}
#endif

#ifdef STUB_COMPLETE
EXPORT BOOL WINAPI SymFromAddrW(HANDLE, DWORD64, PDWORD64 displacement, PSYMBOL_INFOW symbol) {
    *displacement = 0x12345;
    wcscpy(symbol->Name, ModeIs("bad-name") ? L"\xD800" : L"St\u00fcck"); // half a character, or whole ones
    return !ModeIs("no-symbol");
}

EXPORT BOOL WINAPI MiniDumpWriteDump(HANDLE, DWORD, HANDLE file, MINIDUMP_TYPE type,
                                     const PMINIDUMP_EXCEPTION_INFORMATION exception,
                                     const PMINIDUMP_USER_STREAM_INFORMATION streams,
                                     const PMINIDUMP_CALLBACK_INFORMATION callback) {
    if (ModeIs("fault-in-dump")) {
        Fault();
    }
    if (ModeIs("dump-fails")) {
        SetLastError(ERROR_DISK_FULL);
        return FALSE;
    }
    wchar_t path[] = L"C:\\m\\St\u00fcck.dll";
    bool included = true;
    for (ULONG kind = ModuleCallback; kind <= VmPostReadCallback; kind++) {
        MINIDUMP_CALLBACK_INPUT input = {};
        input.CallbackType = kind;
        if (kind == ModuleCallback) {
            input.Module.FullPath = path;
            input.Module.BaseOfImage = 0x180000000;
            input.Module.SizeOfImage = 0x5000;
            input.Module.CheckSum = 0xABC;
            input.Module.TimeDateStamp = 0x5E000000;
            input.Module.VersionInfo.dwFileVersionMS = 6 << 16 | 1;
            input.Module.VersionInfo.dwFileVersionLS = 7601 << 16 | 17514;
        } else if (kind == ThreadCallback) {
            input.Thread.ThreadId = 77;
        } else if (kind == ThreadExCallback) {
            input.ThreadEx.ThreadId = 78;
        }
        MINIDUMP_CALLBACK_OUTPUT output;
        memset(&output, 0xFF, sizeof output);
        included = callback->CallbackRoutine(callback->CallbackParam, &input, &output) && included &&
                   (kind != MemoryCallback || output.MemorySize == 0) &&
                   (kind != CancelCallback || !output.Cancel);
    }
    DWORD written = 0;
    const DWORD seen[] = {static_cast<DWORD>(type),
                          exception != nullptr,
                          exception ? exception->ThreadId : 0,
                          exception ? static_cast<DWORD>(exception->ClientPointers) : 0,
                          streams != nullptr,
                          included};
    return WriteFile(file, seen, sizeof seen, &written, nullptr);
}
#endif
