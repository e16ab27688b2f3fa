#include "sim/hostsim/debuggerWin32.h"

#include "sim/hostsim/crashWin32.h"
#include "sim/hostsim/textWin32.h"
#include "sim/portContextWin32.h"
#include "sim/portInstruction.h"
#include "string/str.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {

constexpr DWORD TURN = 50;         // milliseconds
constexpr DWORD END_LIMIT = 10000; // for a guest that was ended
constexpr size_t MAX_SAID = size_t{64} * 1024;
constexpr uint32_t CXX_EXCEPTION = 0x20474343;

struct ExceptionName {
    DWORD code;
    const char* name;
};
constexpr std::array<ExceptionName, 9> EXCEPTION_NAMES = {{
    {EXCEPTION_ACCESS_VIOLATION, "access violation"},
    {EXCEPTION_PRIV_INSTRUCTION, "privileged instruction"},
    {EXCEPTION_ILLEGAL_INSTRUCTION, "illegal instruction"},
    {EXCEPTION_STACK_OVERFLOW, "stack overflow"},
    {EXCEPTION_INT_DIVIDE_BY_ZERO, "division by zero"},
    {EXCEPTION_IN_PAGE_ERROR, "page that cannot be read"},
    {EXCEPTION_BREAKPOINT, "breakpoint"},
    {CXX_EXCEPTION, "C++ exception"},
    {0xC0000374, "damaged heap"},
}};

// An address of the guest, never to be followed here.
void* Theirs(uint64_t address) {
    return reinterpret_cast<void*>(address); // NOLINT(performance-no-int-to-ptr)
}

template <typename Value>
bool ReadValue(HANDLE process, uint64_t address, Value* value) {
    SIZE_T read = 0;
    return ReadProcessMemory(process, Theirs(address), value, sizeof *value, &read) && read == sizeof *value;
}

// As many of the bytes at an address as can be read; an instruction may stand at the end of its page.
std::vector<uint8_t> ReadCode(HANDLE process, uint64_t address, size_t wanted) {
    std::vector<uint8_t> code(wanted);
    SIZE_T read = 0;
    while (wanted > 0 &&
           !(ReadProcessMemory(process, Theirs(address), code.data(), wanted, &read) && read == wanted)) {
        --wanted;
    }
    code.resize(wanted);
    return code;
}

// ---- Modules ----

uint64_t ModuleSize(HANDLE process, uint64_t base) {
    IMAGE_DOS_HEADER dos{};
    IMAGE_NT_HEADERS64 headers{};
    bool read = ReadValue(process, base, &dos) &&
                ReadValue(process, base + static_cast<uint64_t>(dos.e_lfanew), &headers);
    return read ? headers.OptionalHeader.SizeOfImage : 0;
}

// The name of the module's file, or else the one that the system has noted for it.
std::string ModuleName(HANDLE process, HANDLE file, LPVOID nameAddress, bool wide) {
    std::wstring path;
    using FinalPath = DWORD(WINAPI*)(HANDLE, LPWSTR, DWORD, DWORD);
    auto finalPath = Win32_GetProc<FinalPath>(GetModuleHandleW(L"kernel32"), "GetFinalPathNameByHandleW");
    if (file && finalPath) {
        path.resize(32768);
        path.resize(finalPath(file, path.data(), static_cast<DWORD>(path.size()), 0));
    }
    uint64_t text = 0;
    if (path.empty() && nameAddress && ReadValue(process, reinterpret_cast<uint64_t>(nameAddress), &text) &&
        text != 0) {
        std::vector<uint8_t> bytes = ReadCode(process, text, MAX_PATH * (wide ? 2 : 1));
        if (wide) {
            path.resize(bytes.size() / 2);
            std::memcpy(path.data(), bytes.data(), path.size() * 2);
        } else {
            path.assign(bytes.begin(), bytes.end());
        }
        path.resize(std::min(path.find(L'\0'), path.size()));
    }
    return Text_FromWide(path.substr(path.find_last_of(L"\\/") + 1));
}

void AddModule(Debugger* debugger, LPVOID address, HANDLE file, LPVOID nameAddress, bool wide) {
    HANDLE process = debugger->guest->process.Get();
    auto base = reinterpret_cast<uint64_t>(address);
    debugger->modules.push_back(
        {base, ModuleSize(process, base), ModuleName(process, file, nameAddress, wide)});
    if (file) {
        CloseHandle(file);
    }
}

std::string Place(const Debugger& debugger, uint64_t address) {
    for (const Debugger_Module& module : debugger.modules) {
        if (address >= module.base && address - module.base < module.size) {
            return Str_Format("%s+0x%" DIAG_I64 "x", module.name.c_str(), address - module.base);
        }
    }
    return Str_Format("0x%" DIAG_I64 "x", address);
}

const Debugger_Module* FindModule(const Debugger& debugger, const char* name) {
    for (const Debugger_Module& module : debugger.modules) {
        if (lstrcmpiA(module.name.c_str(), name) == 0) {
            return &module;
        }
    }
    return nullptr;
}

// ---- Exceptions ----

std::string DescribeException(const Debugger& debugger, const EXCEPTION_RECORD& record) {
    std::string text = Str_Format("exception 0x%08x", static_cast<unsigned>(record.ExceptionCode));
    for (const ExceptionName& name : EXCEPTION_NAMES) {
        if (name.code == record.ExceptionCode) {
            text += Str_Format(" (%s)", name.name);
        }
    }
    text += " at " + Place(debugger, reinterpret_cast<uint64_t>(record.ExceptionAddress));
    if (record.ExceptionCode == EXCEPTION_ACCESS_VIOLATION && record.NumberParameters >= 2) {
        constexpr std::array<const char*, 2> ACCESS = {"reading", "writing"};
        const char* access = record.ExceptionInformation[0] < ACCESS.size()
                                 ? ACCESS[record.ExceptionInformation[0]]
                                 : "executing";
        text += Str_Format(", %s 0x%" DIAG_I64 "x", access,
                           static_cast<uint64_t>(record.ExceptionInformation[1]));
    }
    return text;
}

bool AnswerPort(Debugger* debugger, DWORD threadId, uint64_t address) {
    auto thread = debugger->threads.find(threadId);
    CONTEXT context{};
    context.ContextFlags = CONTEXT_CONTROL | CONTEXT_INTEGER; // NOLINT(misc-redundant-expression)
    if (thread == debugger->threads.end() || !GetThreadContext(thread->second, &context)) {
        return false;
    }
    // Reading the guest's memory stops it once more. The few instructions that it executes do not change.
    std::vector<uint8_t>& code = debugger->code[address];
    if (code.empty()) {
        code = ReadCode(debugger->guest->process.Get(), address, PORT_INSTRUCTION_MAX);
    }
    PortInstruction instruction{};
    if (!PortInstruction_Decode(code, context.Rdx, &instruction)) {
        debugger->code.erase(address);
        return false;
    }
    HvPort_Registers registers = PortContext_Load(context);
    bool backwards = (context.EFlags & PORT_CONTEXT_DIRECTION_FLAG) != 0;
    if (!debugger->events.port(debugger->events.clientData, instruction.kind, backwards, &registers)) {
        return false;
    }
    PortContext_Store(registers, instruction.length, &context);
    return SetThreadContext(thread->second, &context) != FALSE;
}

// Whether the instruction that failed, executed once more, fails in the same way.
bool IsRepeatable(DWORD code) {
    return code == EXCEPTION_ACCESS_VIOLATION || code == EXCEPTION_ILLEGAL_INSTRUCTION ||
           code == EXCEPTION_PRIV_INSTRUCTION || code == EXCEPTION_INT_DIVIDE_BY_ZERO ||
           code == EXCEPTION_IN_PAGE_ERROR;
}

// Crashes the guest in place of a port access, if it is time for that.
bool CrashNow(Debugger* debugger, DWORD threadId, uint64_t address) {
    auto thread = debugger->threads.find(threadId);
    if (++debugger->portCalls != debugger->crashCall || thread == debugger->threads.end()) {
        return false;
    }
    debugger->crashed =
        Crash_Inject(debugger->crash, debugger->guest->process.Get(), thread->second, address);
    return debugger->crashed;
}

DWORD OnException(Debugger* debugger, DWORD threadId, const EXCEPTION_DEBUG_INFO& info) {
    const EXCEPTION_RECORD& record = info.ExceptionRecord;
    bool first = info.dwFirstChance != 0;
    if (debugger->ended) {
        return DBG_EXCEPTION_NOT_HANDLED; // on its way out
    }
    if (record.ExceptionCode == EXCEPTION_BREAKPOINT && first && !debugger->started) {
        debugger->started = true;
        return DBG_CONTINUE;
    }
    if (record.ExceptionCode == EXCEPTION_PRIV_INSTRUCTION && first) {
        auto address = reinterpret_cast<uint64_t>(record.ExceptionAddress);
        if (CrashNow(debugger, threadId, address) || AnswerPort(debugger, threadId, address)) {
            return DBG_CONTINUE;
        }
    }
    constexpr DWORD ERROR_SEVERITY = 0xC0000000;
    if (!first || debugger->crashed || record.ExceptionCode >= ERROR_SEVERITY) {
        debugger->events.exception(debugger->events.clientData, DescribeException(*debugger, record),
                                   !first || debugger->crashed);
    }
    // The crash that was asked for is known to be one at its first chance. Any other is one when nobody has
    // handled it; the guest then has to fail again to get its own report.
    debugger->letGo = debugger->crashed || (!first && IsRepeatable(record.ExceptionCode));
    return !first && debugger->letGo ? DBG_CONTINUE : DBG_EXCEPTION_NOT_HANDLED;
}

// ---- Debug output ----

void OnDebugString(Debugger* debugger, const OUTPUT_DEBUG_STRING_INFO& info) {
    // The length counts 16 bits, terminator included.
    size_t size = info.nDebugStringLength * (info.fUnicode ? sizeof(wchar_t) : 1);
    std::vector<uint8_t> bytes =
        ReadCode(debugger->guest->process.Get(), reinterpret_cast<uint64_t>(info.lpDebugStringData),
                 std::min(size, MAX_SAID));
    std::string text;
    if (info.fUnicode) {
        std::wstring wide(bytes.size() / sizeof(wchar_t), L'\0');
        std::memcpy(wide.data(), bytes.data(), wide.size() * sizeof(wchar_t));
        text = Text_FromWide(wide);
    } else {
        text.assign(bytes.begin(), bytes.end());
    }
    text.resize(std::min(text.find('\0'), text.size()));
    debugger->events.said(debugger->events.clientData, text);
}

// ---- The loop ----

DWORD OnEvent(Debugger* debugger, const DEBUG_EVENT& event, std::optional<uint32_t>* exitCode) {
    switch (event.dwDebugEventCode) {
    case CREATE_PROCESS_DEBUG_EVENT: {
        const CREATE_PROCESS_DEBUG_INFO& info = event.u.CreateProcessInfo;
        debugger->threads[event.dwThreadId] = info.hThread;
        AddModule(debugger, info.lpBaseOfImage, info.hFile, info.lpImageName, info.fUnicode != 0);
        break;
    }
    case CREATE_THREAD_DEBUG_EVENT:
        debugger->threads[event.dwThreadId] = event.u.CreateThread.hThread;
        break;
    case EXIT_THREAD_DEBUG_EVENT:
        debugger->threads.erase(event.dwThreadId);
        break;
    case LOAD_DLL_DEBUG_EVENT: {
        const LOAD_DLL_DEBUG_INFO& info = event.u.LoadDll;
        AddModule(debugger, info.lpBaseOfDll, info.hFile, info.lpImageName, info.fUnicode != 0);
        break;
    }
    case UNLOAD_DLL_DEBUG_EVENT:
        debugger->code.clear();
        std::erase_if(debugger->modules, [&event](const Debugger_Module& module) {
            return module.base == reinterpret_cast<uint64_t>(event.u.UnloadDll.lpBaseOfDll);
        });
        break;
    case OUTPUT_DEBUG_STRING_EVENT:
        OnDebugString(debugger, event.u.DebugString);
        break;
    case EXCEPTION_DEBUG_EVENT:
        return OnException(debugger, event.dwThreadId, event.u.Exception);
    case EXIT_PROCESS_DEBUG_EVENT:
        *exitCode = event.u.ExitProcess.dwExitCode;
        break;
    default:
        break;
    }
    return DBG_CONTINUE;
}

// Answers the event and leaves the guest to itself. Its thread stands still in between, so that it finds no
// debugger.
void LetGo(const DEBUG_EVENT& event, DWORD status) {
    const KernelHandle thread(OpenThread(THREAD_SUSPEND_RESUME, FALSE, event.dwThreadId));
    SuspendThread(thread.Get());
    ContinueDebugEvent(event.dwProcessId, event.dwThreadId, status);
    DebugActiveProcessStop(event.dwProcessId);
    ResumeThread(thread.Get());
}

// One debug event, or a while without one.
void Step(Debugger* debugger, std::optional<uint32_t>* exitCode) {
    DEBUG_EVENT event{};
    if (debugger->letGo) {
        HANDLE process = debugger->guest->process.Get();
        DWORD code = 0;
        if (WaitForSingleObject(process, TURN) == WAIT_OBJECT_0 && GetExitCodeProcess(process, &code)) {
            *exitCode = code;
        }
    } else if (WaitForDebugEvent(&event, TURN)) {
        DWORD status = OnEvent(debugger, event, exitCode);
        if (debugger->letGo) {
            LetGo(event, status);
        } else {
            ContinueDebugEvent(event.dwProcessId, event.dwThreadId, status);
        }
    }
}

} // namespace

std::optional<uint32_t> Debugger_Run(Debugger* debugger) {
    std::optional<uint32_t> exitCode;
    DWORD endedAt = 0;
    while (!exitCode && !(debugger->ended && GetTickCount() - endedAt > END_LIMIT)) {
        Step(debugger, &exitCode);
        if (!debugger->ended && !exitCode && !debugger->events.turn(debugger->events.clientData)) {
            debugger->ended = true;
            endedAt = GetTickCount();
            TerminateProcess(debugger->guest->process.Get(), 1);
        }
    }
    return debugger->ended ? std::nullopt : exitCode;
}

Hypervisor_Memory Debugger_Memory(const GuestProcess* guest) {
    Hypervisor_Memory memory;
    memory.read = [](void* data, uint64_t address, uint8_t* bytes, size_t length) {
        SIZE_T done = 0;
        HANDLE process = static_cast<const GuestProcess*>(data)->process.Get();
        return ReadProcessMemory(process, Theirs(address), bytes, length, &done) && done == length;
    };
    memory.write = [](void* data, uint64_t address, const uint8_t* bytes, size_t length) {
        SIZE_T done = 0;
        HANDLE process = static_cast<const GuestProcess*>(data)->process.Get();
        return WriteProcessMemory(process, Theirs(address), bytes, length, &done) && done == length;
    };
    memory.clientData = const_cast<GuestProcess*>(guest);
    return memory;
}

bool Debugger_RaiseConsoleEvent(const Debugger& debugger, unsigned event) {
    // The system starts this routine on a new thread of a process that gets a console event. The guest has no
    // console, so the event cannot come from one.
    for (const char* name : {"kernelbase.dll", "kernel32.dll"}) {
        HMODULE module = GetModuleHandleA(name);
        FARPROC routine = module ? GetProcAddress(module, "CtrlRoutine") : nullptr;
        const Debugger_Module* theirs = FindModule(debugger, name);
        if (!routine || !theirs) {
            continue;
        }
        uint64_t offset = reinterpret_cast<uint64_t>(routine) - reinterpret_cast<uint64_t>(module);
        auto start = reinterpret_cast<LPTHREAD_START_ROUTINE>(Theirs(theirs->base + offset));
        KernelHandle thread(
            CreateRemoteThread(debugger.guest->process.Get(), nullptr, 0, start, Theirs(event), 0, nullptr));
        return static_cast<bool>(thread);
    }
    return false;
}

std::string Debugger_Where(const Debugger& debugger) {
    HANDLE thread = debugger.guest->mainThread.Get();
    CONTEXT context{};
    context.ContextFlags = CONTEXT_CONTROL;
    if (SuspendThread(thread) == static_cast<DWORD>(-1)) {
        return {};
    }
    bool known = GetThreadContext(thread, &context) != FALSE;
    ResumeThread(thread);
    return known ? Place(debugger, context.Rip) : std::string();
}
