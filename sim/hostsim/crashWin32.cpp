#include "sim/hostsim/crashWin32.h"

#include <initializer_list>
#include <iterator>
#include <span>
#include <vector>

namespace {

constexpr uint8_t READ[] = {0x8B, 0x04, 0x25, 0x10, 0, 0, 0};        // mov eax, [0x10]
constexpr uint8_t ILLEGAL[] = {0x0F, 0x0B};                          // ud2
constexpr uint8_t BREAKPOINT[] = {0xCC};                             // int3
constexpr uint8_t OVERFLOW_STACK[] = {0xE8, 0xFB, 0xFF, 0xFF, 0xFF}; // call: itself

std::span<const uint8_t> Code(Options_Crash kind) {
    switch (kind) {
    case Options_Crash::Illegal:
        return ILLEGAL;
    case Options_Crash::Breakpoint:
        return BREAKPOINT;
    case Options_Crash::Overflow:
        return OVERFLOW_STACK;
    default:
        return READ;
    }
}

bool Write(HANDLE process, void* address, std::span<const uint8_t> code) {
    DWORD before = 0;
    return VirtualProtectEx(process, address, code.size(), PAGE_EXECUTE_READWRITE, &before) &&
           WriteProcessMemory(process, address, code.data(), code.size(), nullptr) &&
           VirtualProtectEx(process, address, code.size(), before, &before) &&
           FlushInstructionCache(process, address, code.size());
}

// Where a function of kernel32 is in the guest: the system loads that library at one address everywhere.
uint64_t Kernel32(const char* name) {
    return reinterpret_cast<uint64_t>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), name));
}

// Starts a thread that fails and waits for ever. Not started from outside: a thread that Wine makes while
// this one stands in a fault cannot have a fault of its own.
std::vector<uint8_t> ThreadCode(uint64_t address) {
    std::vector<uint8_t> code;
    auto bytes = [&code](std::initializer_list<uint8_t> more) { code.insert(code.end(), more); };
    auto number = [&code](uint64_t value) {
        for (int shift = 0; shift < 64; shift += 8) {
            code.push_back(static_cast<uint8_t>(value >> shift));
        }
    };
    constexpr uint64_t SIZE = 64;                            // up to the failing instruction
    bytes({0x48, 0x83, 0xE4, 0xF0, 0x48, 0x83, 0xEC, 0x30}); // and rsp, -16; sub rsp, 48
    bytes({0x31, 0xC9, 0x31, 0xD2, 0x49, 0xB8});             // xor ecx, ecx; xor edx, edx;
    number(address + SIZE);                                  // mov r8, failing instruction
    bytes({0x45, 0x31, 0xC9});                               // xor r9d, r9d
    bytes(
        {0x48, 0x89, 0x4C, 0x24, 0x20, 0x48, 0x89, 0x4C, 0x24, 0x28}); // mov [rsp+32], rcx; mov [rsp+40], rcx
    bytes({0x48, 0xB8});
    number(Kernel32("CreateThread"));
    bytes({0xFF, 0xD0});                   // call
    bytes({0xB9, 0xFF, 0xFF, 0xFF, 0xFF}); // mov ecx, INFINITE
    bytes({0x48, 0xB8});
    number(Kernel32("Sleep"));
    bytes({0xFF, 0xD0}); // call
    code.resize(SIZE, 0xCC);
    code.insert(code.end(), std::begin(READ), std::end(READ));
    return code;
}

bool FailOnThread(HANDLE process, HANDLE thread) {
    constexpr size_t ROOM = 4096;
    void* room = VirtualAllocEx(process, nullptr, ROOM, MEM_RESERVE | MEM_COMMIT, PAGE_EXECUTE_READ);
    CONTEXT context = {};
    context.ContextFlags = CONTEXT_CONTROL;
    if (!room || !Write(process, room, ThreadCode(reinterpret_cast<uint64_t>(room))) ||
        !GetThreadContext(thread, &context)) {
        return false;
    }
    context.Rip = reinterpret_cast<uint64_t>(room);
    return SetThreadContext(thread, &context) != FALSE;
}

} // namespace

bool Crash_Inject(Options_Crash kind, HANDLE process, HANDLE thread, uint64_t address) {
    return kind == Options_Crash::Thread ? FailOnThread(process, thread)
                                         : Write(process, reinterpret_cast<void*>(address), Code(kind));
}
