// The exception filter, and the minidump it writes.
#include "coreDump/coreDumpWin32.h"

#include "coreDump/coreDumpText.h"
#include "err/err.h"
#include "file/file.h"
#include "log/log.h"
#include "misc/win32Handle.h"
#include "unicode/unicode.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <new>

#include <shlobj.h>

CoreDumpSettings coreDumpSettings;

namespace {

constexpr int NO_SLOT_LINE = 723;
// What the report needs on an exhausted stack: the system's own dispatch, a dump writer, two records of 1.2
// KB for each context. Address space only; memory comes behind it when it is touched.
constexpr ULONG RESERVED_STACK_BYTES = 128 * 1024;
constexpr uint32_t DEFAULT_DUMP_TYPE = MiniDumpWithDataSegs | MiniDumpWithHandleData;

DWORD entrySlot = TLS_OUT_OF_INDEXES; // thread-local: how often the filter was entered
bool initialized = false;
void* reservedBlock = nullptr;
CoreDumpNames dumpNames;
std::string lastDump;

// There is no configuration store: each value is its default. The keys are where one would be asked.
uint32_t ConfigNumber(const char* /*key*/, uint32_t defaultValue) {
    return defaultValue;
}
bool ConfigBool(const char* /*key*/, bool defaultValue) {
    return defaultValue;
}

// --- Names of dumps

std::optional<std::string> AppDataDirectory() {
    wchar_t path[MAX_PATH] = {};
    if (FAILED(SHGetFolderPathW(nullptr, CSIDL_APPDATA | CSIDL_FLAG_CREATE, nullptr, SHGFP_TYPE_CURRENT,
                                path))) {
        return std::nullopt;
    }
    return Unicode_FromWide(path);
}

// --- Minidump

void LogModule(const MINIDUMP_MODULE_CALLBACK& module) {
    const VS_FIXEDFILEINFO& version = module.VersionInfo;
    Log_Error("CoreDump: including module base 0x%#010I64x size 0x%#010x\n", module.BaseOfImage,
              static_cast<unsigned>(module.SizeOfImage));
    Log_Error("  checksum %#010x timestamp %#010x\n", static_cast<unsigned>(module.CheckSum),
              static_cast<unsigned>(module.TimeDateStamp));
    // Not by "%S": the C runtime gives up at characters that its own code page lacks.
    Log_Error("  image file %s\n", Unicode_FromWide(module.FullPath).value_or("?").c_str());
    Log_Error("  file version %u.%u.%u.%u\n", HIWORD(version.dwFileVersionMS),
              LOWORD(version.dwFileVersionMS), HIWORD(version.dwFileVersionLS),
              LOWORD(version.dwFileVersionLS));
}

// Everything offered is included.
BOOL CALLBACK OnDumpPart(void* /*argument*/, const PMINIDUMP_CALLBACK_INPUT input,
                         PMINIDUMP_CALLBACK_OUTPUT output) {
    switch (input->CallbackType) {
    case ModuleCallback:
        LogModule(input->Module);
        break;
    case ThreadCallback:
        Log_Error("CoreDump: Including thread %d\n", static_cast<int>(input->Thread.ThreadId));
        break;
    case ThreadExCallback:
        Log_Error("CoreDump: Including threadex %d\n", static_cast<int>(input->ThreadEx.ThreadId));
        break;
    case MemoryCallback:
        output->MemorySize = 0; // no further memory to add
        break;
    case CancelCallback:
        output->CheckCancel = FALSE;
        output->Cancel = FALSE;
        break;
    default:
        break;
    }
    return TRUE;
}

// The first of the names that can be created; it is then in *name.
FileHandle CreateDumpFile(std::string* name) {
    for (const std::string& candidate : dumpNames) {
        const std::wstring wide = Unicode_ToWide(candidate).value_or(L"");
        FileHandle file(
            CreateFileW(wide.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
        const DWORD error = GetLastError();
        if (file) {
            *name = candidate;
            return file;
        }
        Warning("CoreDump: Cannot open minidump file %s: %s\n", candidate.c_str(), Err_ErrString(error));
    }
    Warning("CoreDump: No available minidump filename, quitting...\n");
    return {};
}

decltype(&MiniDumpWriteDump) FindDumpWriter() {
    auto writeDump = Win32_GetProc<decltype(&MiniDumpWriteDump)>(coreDumpDbgHelp.module, "MiniDumpWriteDump");
    const DWORD error = GetLastError();
    if (!writeDump) {
        Log_Error("CoreDump: dbghelp.dll missing minidump support: %s\n", Err_ErrString(error));
    }
    return writeDump;
}

// --- The filter

bool DebuggerAttached() {
    auto isPresent =
        Win32_GetProc<decltype(&IsDebuggerPresent)>(GetModuleHandleW(L"kernel32.dll"), "IsDebuggerPresent");
    return isPresent && isPresent();
}

CoreDumpEntry CountEntry() {
    const auto entries = reinterpret_cast<uint64_t>(TlsGetValue(entrySlot)) + 1;
    TlsSetValue(entrySlot, reinterpret_cast<void*>(entries));
    return CoreDumpClassifyEntry(entries);
}

void WarnException(const EXCEPTION_POINTERS& pointers) {
    const EXCEPTION_RECORD& record = *pointers.ExceptionRecord;
    const CONTEXT& context = *pointers.ContextRecord;
    uint64_t parameters[EXCEPTION_MAXIMUM_PARAMETERS];
    const size_t count = std::min<size_t>(record.NumberParameters, EXCEPTION_MAXIMUM_PARAMETERS);
    std::copy_n(record.ExceptionInformation, count, parameters);
    CoreDumpWarnException({.code = static_cast<uint32_t>(record.ExceptionCode),
                           .address = reinterpret_cast<uint64_t>(record.ExceptionAddress),
                           .eflags = static_cast<uint32_t>(context.EFlags),
                           .rax = context.Rax,
                           .rbx = context.Rbx,
                           .rcx = context.Rcx,
                           .rdx = context.Rdx,
                           .rsi = context.Rsi,
                           .rdi = context.Rdi,
                           .rbp = context.Rbp,
                           .rsp = context.Rsp,
                           .parameters = {parameters, count}});
}

void LogBacktraceLine(void* argument, const char* format, ...) DIAG_PRINTF(2, 3);
void LogBacktraceLine(void* /*argument*/, const char* format, ...) {
    CoreDumpLine line;
    va_list arguments;
    va_start(arguments, format);
    CoreDumpVFormatLine(&line, format, arguments);
    va_end(arguments);
    Log_Error("%s", line.data());
}

// For the parts that need the heap: a program that dies for want of memory gets the rest of its report.
template <typename Part>
void WithoutMemoryFailure(Part part) {
    try {
        part();
    } catch (const std::bad_alloc&) {
        // Nothing that could be said about it would find memory.
    }
}

// Straight to the handle: the C runtime's stream may be locked, or be what broke.
void WriteVerdict(uint32_t code) {
    CoreDumpLine line;
    CoreDumpFormatLine(&line, "Exception %#010x %s has occurred.\n", code, CoreDumpExceptionName(code));
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_ERROR_HANDLE), line.data(), static_cast<DWORD>(strlen(line.data())), &written,
              nullptr);
}

void WriteReport(EXCEPTION_POINTERS* pointers, bool dump) {
    WithoutMemoryFailure([pointers] { WarnException(*pointers); });
    if (dump) {
        WithoutMemoryFailure([pointers] { CoreDump_CoreDump(pointers); });
    }
    WithoutMemoryFailure(
        [pointers] { CoreDump_Backtrace(pointers->ContextRecord, LogBacktraceLine, nullptr); });
    const auto code = static_cast<uint32_t>(pointers->ExceptionRecord->ExceptionCode);
    if (code == COREDUMP_IN_PAGE_ERROR) {
        Log_Error("Warning: the system was unable to load a page of memory; this can be caused by network "
                  "problems or a failing hard disk drive.\n\n");
    }
    WriteVerdict(code);
}

// Makes a stack overflow come early enough for its report. A failure costs that report and nothing else.
void ReserveStack() {
    ULONG reserved = RESERVED_STACK_BYTES;
    if (!SetThreadStackGuarantee(&reserved)) {
        return;
    }
    // Where stacks grow by page faults, that is all. Where a stack is committed as a whole, its guard page
    // already stands at the very end, and the system does not move it: another one goes before the reserve.
    MEMORY_BASIC_INFORMATION stack;
    MEMORY_BASIC_INFORMATION limit;
    const char here = 0;
    if (VirtualQuery(&here, &stack, sizeof stack) == 0) {
        return;
    }
    char* reserve = static_cast<char*>(stack.AllocationBase) + RESERVED_STACK_BYTES;
    if (VirtualQuery(reserve, &limit, sizeof limit) != 0 && limit.BaseAddress == reserve && reserve < &here &&
        limit.State == MEM_COMMIT && limit.Protect == PAGE_READWRITE) {
        DWORD before = 0;
        SYSTEM_INFO system;
        GetSystemInfo(&system);
        VirtualProtect(reserve, system.dwPageSize, PAGE_READWRITE | PAGE_GUARD, &before);
    }
}

} // namespace

LPTOP_LEVEL_EXCEPTION_FILTER CoreDump_SetUnhandledExceptionFilter() {
    if (entrySlot == TLS_OUT_OF_INDEXES) {
        entrySlot = TlsAlloc();
        if (entrySlot == TLS_OUT_OF_INDEXES) {
            Diag_NotImplemented(COREDUMP_UNIT, NO_SLOT_LINE);
        }
    }
    ReserveStack();
    SetUnhandledExceptionFilter(CoreDumpExceptionFilter);
    return CoreDumpExceptionFilter;
}

LONG WINAPI CoreDumpExceptionFilter(EXCEPTION_POINTERS* pointers) {
    if (CoreDumpDefers(coreDumpSettings.breakOnException, DebuggerAttached)) {
        return EXCEPTION_CONTINUE_SEARCH;
    }
    switch (CountEntry()) {
    case CoreDumpEntry::Report:
        WriteReport(pointers, true);
        break;
    case CoreDumpEntry::ReportNoDump:
        WriteReport(pointers, false);
        break;
    case CoreDumpEntry::Loop:
        Warning("Exception loop in CoreDumpExceptionFilter.  Giving up.\n");
        break;
    case CoreDumpEntry::Silent:
        break;
    }
    return EXCEPTION_CONTINUE_SEARCH;
}

bool CoreDump_CoreDump(EXCEPTION_POINTERS* pointers) {
    if (!CoreDumpInit(nullptr)) {
        return false;
    }
    const auto writeDump = FindDumpWriter();
    if (!writeDump) {
        return false;
    }
    std::string name;
    const FileHandle file = CreateDumpFile(&name);
    if (!file) {
        return false;
    }
    MINIDUMP_EXCEPTION_INFORMATION exception = {GetCurrentThreadId(), pointers, FALSE};
    MINIDUMP_CALLBACK_INFORMATION callback = {OnDumpPart, nullptr};
    const uint32_t type = coreDumpSettings.dumpType ? coreDumpSettings.dumpType : DEFAULT_DUMP_TYPE;
    Warning("CoreDump: Writing minidump to %s\n", name.c_str());
    const bool written =
        writeDump(GetCurrentProcess(), GetCurrentProcessId(), file.Get(), static_cast<MINIDUMP_TYPE>(type),
                  pointers ? &exception : nullptr, nullptr, &callback) != FALSE;
    const DWORD error = GetLastError();
    if (!written) {
        Warning("Minidump failed: %s\n", Err_ErrString(error));
        return false;
    }
    lastDump = name;
    return true;
}

bool CoreDumpInit(const char* directory) {
    if (initialized) {
        return true;
    }
    if (!CoreDumpLoadDbgHelp()) {
        return false;
    }
    if (!reservedBlock) {
        reservedBlock = CoreDumpReserveAddressSpace(ConfigNumber("panic.addrSpaceReservedKB", 0),
                                                    ConfigBool("panic.commitAddrSpaceReserved", false));
    }
    const auto appData = AppDataDirectory();
    if (!appData) {
        Log_Error("CoreDump: unable to determine app data path\n");
        return false;
    }
    const std::string program = Unicode_FromWide(CoreDumpModuleFileName(nullptr)).value_or("");
    dumpNames = CoreDumpChooseNames(directory ? directory : *appData, CoreDumpProgramName(program),
                                    GetCurrentProcessId(), File_Exists);
    initialized = true;
    return true;
}

void* CoreDumpReserveAddressSpace(uint32_t sizeKB, bool commit) {
    constexpr size_t bytesPerKB = 1024;
    constexpr size_t leastReported = 1024;
    if (sizeKB == 0) {
        return nullptr;
    }
    SYSTEM_INFO system;
    GetSystemInfo(&system);
    const size_t size = CoreDumpReservedBytes(sizeKB, system.dwPageSize);
    void* block = VirtualAlloc(nullptr, size, commit ? MEM_COMMIT | MEM_RESERVE : MEM_RESERVE, PAGE_NOACCESS);
    if (block && size >= leastReported) {
        Log_Error("Reserved virtual address space for CoreDump(addr:%p, size:%I64uKB)\n", block,
                  static_cast<uint64_t>(size / bytesPerKB));
    }
    return block;
}

const std::string& CoreDumpLastDump() {
    return lastDump;
}
