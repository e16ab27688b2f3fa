// A dbghelp.dll that lacks or breaks what its build asks for:
//
//   STUB_DOES_NOT_LOAD      refuses to be loaded
//   STUB_EMPTY              has no entry points that matter
//   STUB_NO_NAMES           names no addresses
//   STUB_OLD                names addresses the old way and writes no dumps
//   STUB_NO_START           fails to start
//   (none of these)         complete; the environment variable STUB_MODE then says what goes wrong
#include <cstring>
#include <cwchar>
#include <iterator>

#include <windows.h>
// After windows.h.
#include <dbghelp.h>

// The header declares them as imported.
#pragma GCC diagnostic ignored "-Wattributes"
#define EXPORT extern "C" __declspec(dllexport)

namespace {

[[maybe_unused]] bool ModeIs(const char* mode) {
    char value[64] = "";
    GetEnvironmentVariableA("STUB_MODE", value, sizeof value);
    return strcmp(value, mode) == 0;
}

[[maybe_unused]] void Fault() {
    *reinterpret_cast<volatile int*>(0x30) = 1;
}

} // namespace

BOOL WINAPI DllMain(HINSTANCE, DWORD, void*) {
#ifdef STUB_DOES_NOT_LOAD
    return FALSE;
#else
    return TRUE;
#endif
}

#if !defined(STUB_DOES_NOT_LOAD) && !defined(STUB_EMPTY)

EXPORT BOOL WINAPI SymInitializeW(HANDLE, PCWSTR, BOOL) {
#ifdef STUB_NO_START
    SetLastError(ERROR_NOT_READY);
    return FALSE;
#else
    return TRUE;
#endif
}

EXPORT BOOL WINAPI StackWalk64(DWORD machine, HANDLE, HANDLE, LPSTACKFRAME64 frame, void*,
                               PREAD_PROCESS_MEMORY_ROUTINE64, PFUNCTION_TABLE_ACCESS_ROUTINE64,
                               PGET_MODULE_BASE_ROUTINE64, PTRANSLATE_ADDRESS_ROUTINE64) {
    if (ModeIs("fault-in-walk")) {
        Fault();
    }
    // A stack without an end.
    frame->AddrFrame.Offset += 0x10;
    frame->AddrPC.Offset = frame->AddrFrame.Offset == 0 ? 1 : frame->AddrPC.Offset;
    for (int i = 0; i < 4; i++) {
        frame->Params[i] = machine + static_cast<DWORD64>(i);
    }
    if (ModeIs("zero-frame") && frame->Reserved[0]++ == 2) {
        frame->AddrFrame.Offset = 0;
    }
    if (ModeIs("zero-counter") && frame->Reserved[0]++ == 1) {
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
#elif !defined(STUB_NO_NAMES)
EXPORT BOOL WINAPI SymFromAddrW(HANDLE, DWORD64, PDWORD64 displacement, PSYMBOL_INFOW symbol) {
    if (ModeIs("no-symbol")) {
        SetLastError(ERROR_NOT_FOUND);
        return FALSE;
    }
    *displacement = 0x12345;
    if (ModeIs("bad-name")) {
        symbol->Name[0] = static_cast<wchar_t>(0xD800); // half a character
        symbol->Name[1] = 0;
        return TRUE;
    }
    const bool isLong = ModeIs("long-name");
    const wchar_t* unit = isLong ? L"L" : L"St\u00fcck";
    symbol->Name[0] = 0;
    for (ULONG i = 0; i < (isLong ? symbol->MaxNameLen - 1 : 1); i++) {
        wcscat(symbol->Name, unit);
    }
    return TRUE;
}

EXPORT BOOL WINAPI MiniDumpWriteDump(HANDLE process, DWORD processId, HANDLE file, MINIDUMP_TYPE type,
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
    MINIDUMP_CALLBACK_INPUT input = {};
    MINIDUMP_CALLBACK_OUTPUT output = {};
    input.ProcessId = processId;
    input.ProcessHandle = process;
    wchar_t path[] = L"C:\\m\\some.dll";
    input.CallbackType = ModuleCallback;
    input.Module.FullPath = path;
    input.Module.BaseOfImage = 0x180000000;
    input.Module.SizeOfImage = 0x5000;
    input.Module.CheckSum = 0xABC;
    input.Module.TimeDateStamp = 0x5E000000;
    input.Module.VersionInfo.dwFileVersionMS = 6 << 16 | 1;
    input.Module.VersionInfo.dwFileVersionLS = 7601 << 16 | 17514;
    bool included = callback->CallbackRoutine(callback->CallbackParam, &input, &output) != FALSE;
    input.CallbackType = ThreadCallback;
    input.Thread.ThreadId = 77;
    included = callback->CallbackRoutine(callback->CallbackParam, &input, &output) && included;
    input.CallbackType = ThreadExCallback;
    input.ThreadEx.ThreadId = 78;
    included = callback->CallbackRoutine(callback->CallbackParam, &input, &output) && included;
    for (ULONG kind = IncludeThreadCallback; kind <= VmPostReadCallback; kind++) {
        memset(&output, 0xFF, sizeof output);
        input.CallbackType = kind;
        included = callback->CallbackRoutine(callback->CallbackParam, &input, &output) && included;
        if (kind == MemoryCallback) {
            included = included && output.MemorySize == 0;
        } else if (kind == CancelCallback) {
            included = included && !output.Cancel;
        }
    }
    DWORD written = 0;
    struct {
        DWORD type, hasException, threadId, clientPointers, hasStreams, included;
    } seen = {static_cast<DWORD>(type),
              exception != nullptr,
              exception ? exception->ThreadId : 0,
              exception ? static_cast<DWORD>(exception->ClientPointers) : 0,
              streams != nullptr,
              included};
    return WriteFile(file, &seen, sizeof seen, &written, nullptr);
}
#endif

#endif
