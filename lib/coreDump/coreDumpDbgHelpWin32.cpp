// The debug-help library: loading it, naming addresses and walking the stack.
#include "coreDump/coreDumpWin32.h"

#include "coreDump/coreDumpModule.h"
#include "coreDump/coreDumpText.h"
#include "misc/win32Handle.h"
#include "unicode/unicode.h"

#include <cstddef>
#include <string_view>

CoreDumpDbgHelp coreDumpDbgHelp;

namespace {

constexpr int NAME_NOT_UNICODE_LINE = 401;
constexpr int MAX_FRAMES = 32;
constexpr size_t MAX_SYMBOL_NAME = 512; // characters of the wide form, bytes of the other
constexpr DWORD MAX_PATH_UNITS = 32768; // no Windows path is longer
constexpr int MAX_HEADER_REGIONS = 64;  // regions of one module; each section is one, or a few

template <typename Function>
bool Resolve(HMODULE module, const char* name, Function* function) {
    *function = Win32_GetProc<Function>(module, name);
    return *function != nullptr;
}

bool ResolveAll(CoreDumpDbgHelp* help) {
    HMODULE module = help->module;
    return Resolve(module, "SymInitializeW", &help->symInitialize) &&
           Resolve(module, "StackWalk64", &help->stackWalk) &&
           Resolve(module, "SymFunctionTableAccess64", &help->symFunctionTableAccess) &&
           Resolve(module, "SymGetModuleBase64", &help->symGetModuleBase) &&
           Resolve(module, "SymCleanup", &help->symCleanup) &&
           Resolve(module, "SymLoadModuleExW", &help->symLoadModule) &&
           Resolve(module, "SymGetOptions", &help->symGetOptions) &&
           Resolve(module, "SymSetOptions", &help->symSetOptions) &&
           Resolve(module, "SymSetSearchPathW", &help->symSetSearchPath) &&
           (Resolve(module, "SymFromAddrW", &help->symFromAddr) ||
            Resolve(module, "SymGetSymFromAddr64", &help->symGetSymFromAddr));
}

bool LoadOnce(CoreDumpDbgHelp* help) {
    help->module = LoadLibraryW(L"dbghelp.dll");
    if (!help->module) {
        Warning("CoreDump: No debug provider found!\n");
        return false;
    }
    if (!ResolveAll(help)) {
        Warning("CoreDump: Failed to resolve dbghelp.dll symbols. No backtrace.----\n");
        return false;
    }
    if (!help->symInitialize(GetCurrentProcess(), nullptr, FALSE)) {
        DWORD error = GetLastError();
        Warning("CoreDump: SymInitializeW() failed: %d\n", static_cast<int>(error));
        return false;
    }
    HMODULE kernel = LoadLibraryW(L"kernel32.dll");
    if (!kernel || !Resolve(kernel, "RtlCaptureStackBackTrace", &help->captureStackBackTrace)) {
        Warning("CoreDump: Can't find RtlCaptureStackBackTrace!\n");
    }
    return true;
}

bool IsReadable(const MEMORY_BASIC_INFORMATION& region) {
    constexpr DWORD UNREADABLE = PAGE_NOACCESS | PAGE_GUARD | PAGE_EXECUTE;
    return region.State == MEM_COMMIT && (region.Protect & UNREADABLE) == 0;
}

// The module's memory from its base to where it stops being readable.
std::span<const uint8_t> ReadableModule(const void* base) {
    const auto* start = static_cast<const uint8_t*>(base);
    size_t size = 0;
    for (int i = 0; i < MAX_HEADER_REGIONS; i++) {
        MEMORY_BASIC_INFORMATION region;
        if (VirtualQuery(start + size, &region, sizeof region) == 0 || region.AllocationBase != base ||
            !IsReadable(region)) {
            break;
        }
        size =
            static_cast<size_t>(static_cast<const uint8_t*>(region.BaseAddress) - start) + region.RegionSize;
    }
    return {start, size};
}

// Symbols come from the module itself or from a file beside it.
void LoadModuleSymbols(const std::wstring& file, uint64_t base) {
    const std::wstring directory = file.substr(0, file.find_last_of(L'\\'));
    coreDumpDbgHelp.symSetSearchPath(GetCurrentProcess(), directory.c_str());
    coreDumpDbgHelp.symLoadModule(GetCurrentProcess(), nullptr, file.c_str(), nullptr, base, 0, nullptr, 0);
}

std::string ModulePart(uint64_t address) {
    MEMORY_BASIC_INFORMATION region;
    if (VirtualQuery(reinterpret_cast<const void*>(address), &region, sizeof region) == 0 ||
        !region.AllocationBase) {
        return COREDUMP_NO_MODULE;
    }
    const std::wstring file = CoreDumpModuleFileName(static_cast<HMODULE>(region.AllocationBase));
    if (file.empty()) {
        return COREDUMP_NO_MODULE;
    }
    const auto base = reinterpret_cast<uint64_t>(region.AllocationBase);
    const auto section = CoreDumpFindSection(ReadableModule(region.AllocationBase), address - base);
    if (!section) {
        return COREDUMP_NO_MODULE;
    }
    LoadModuleSymbols(file, base);
    return CoreDumpModulePart(Unicode_FromWide(file).value_or("?"), base, section->number, section->offset);
}

std::optional<CoreDumpSymbol> WideSymbol(uint64_t address) {
    struct {
        SYMBOL_INFOW info;
        wchar_t more[MAX_SYMBOL_NAME];
    } symbol = {};
    symbol.info.SizeOfStruct = sizeof symbol.info;
    symbol.info.MaxNameLen = MAX_SYMBOL_NAME;
    DWORD64 displacement = 0;
    if (!coreDumpDbgHelp.symFromAddr(GetCurrentProcess(), address, &displacement, &symbol.info)) {
        return std::nullopt;
    }
    auto name = Unicode_FromWide(symbol.info.Name);
    if (!name) {
        Diag_NotImplemented(COREDUMP_UNIT, NAME_NOT_UNICODE_LINE);
    }
    return CoreDumpSymbol{*name, displacement};
}

std::optional<CoreDumpSymbol> NarrowSymbol(uint64_t address) {
    struct {
        IMAGEHLP_SYMBOL64 info;
        char more[MAX_SYMBOL_NAME];
    } symbol = {};
    symbol.info.SizeOfStruct = sizeof symbol.info;
    symbol.info.MaxNameLength = MAX_SYMBOL_NAME;
    DWORD64 displacement = 0;
    if (!coreDumpDbgHelp.symGetSymFromAddr(GetCurrentProcess(), address, &displacement, &symbol.info)) {
        return std::nullopt;
    }
    return CoreDumpSymbol{symbol.info.Name, displacement};
}

ADDRESS64 FlatAddress(DWORD64 offset) {
    ADDRESS64 address = {};
    address.Offset = offset;
    address.Mode = AddrModeFlat;
    return address;
}

} // namespace

bool CoreDumpLoadDbgHelp() {
    if (!coreDumpDbgHelp.attempted) {
        coreDumpDbgHelp.attempted = true;
        coreDumpDbgHelp.succeeded = LoadOnce(&coreDumpDbgHelp);
    }
    return coreDumpDbgHelp.succeeded;
}

std::wstring CoreDumpModuleFileName(HMODULE module) {
    std::wstring name(MAX_PATH_UNITS, L'\0');
    name.resize(GetModuleFileNameW(module, name.data(), MAX_PATH_UNITS));
    return name;
}

std::optional<std::string> CoreDumpSymbolName(uint64_t address, bool includeModule) {
    if (!CoreDumpLoadDbgHelp()) {
        return std::nullopt;
    }
    // First, because it loads the symbols.
    const std::string modulePart = ModulePart(address);
    const auto symbol = coreDumpDbgHelp.symFromAddr ? WideSymbol(address) : NarrowSymbol(address);
    return CoreDumpDescribeAddress(symbol, modulePart, includeModule);
}

void CoreDump_Backtrace(const CONTEXT* context, CoreDump_Output output, void* argument) {
    if (!CoreDumpInit(nullptr)) {
        return;
    }
    CONTEXT walked = *context;
    STACKFRAME64 frame = {};
    frame.AddrPC = FlatAddress(walked.Rip);
    frame.AddrFrame = FlatAddress(walked.Rbp);
    frame.AddrStack = FlatAddress(walked.Rsp);
    for (int i = 0; i < MAX_FRAMES; i++) {
        // The walker finds the unwind data of a frame only when the symbols of its module are loaded.
        ModulePart(i == 0 ? walked.Rip : frame.AddrReturn.Offset);
        if (!coreDumpDbgHelp.stackWalk(IMAGE_FILE_MACHINE_AMD64, GetCurrentProcess(), GetCurrentThread(),
                                       &frame, &walked, nullptr, coreDumpDbgHelp.symFunctionTableAccess,
                                       coreDumpDbgHelp.symGetModuleBase, nullptr) ||
            frame.AddrFrame.Offset == 0 || frame.AddrPC.Offset == 0) {
            break;
        }
        const auto name = CoreDumpSymbolName(frame.AddrPC.Offset, true);
        output(argument,
               "backtrace[%02d] frame %#010I64x IP %#010I64x params %#I64x %#I64x %#I64x %#I64x %s\n", i,
               frame.AddrFrame.Offset, frame.AddrPC.Offset, frame.Params[0], frame.Params[1], frame.Params[2],
               frame.Params[3], name.value_or("").c_str());
    }
}
