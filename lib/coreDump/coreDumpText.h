// The texts and decisions of a crash report, without a system call.
//
// Numbers are those of the system: exception codes, addresses, register contents. Registers print their low
// 32 bits; addresses are printed whole.
#pragma once

#include "misc/diag.h"

#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

// --- The exception and the registers

inline constexpr uint32_t COREDUMP_BREAKPOINT = 0x80000003;
inline constexpr uint32_t COREDUMP_ACCESS_VIOLATION = 0xC0000005;
inline constexpr uint32_t COREDUMP_IN_PAGE_ERROR = 0xC0000006;

// "(access violation)" and the like; empty for a code without a name.
const char* CoreDumpExceptionName(uint32_t code);

struct CoreDumpException {
    uint32_t code = 0;
    uint64_t address = 0; // of the instruction
    uint32_t eflags = 0;
    uint64_t rax = 0, rbx = 0, rcx = 0, rdx = 0, rsi = 0, rdi = 0, rbp = 0, rsp = 0;
    std::span<const uint64_t> parameters = {}; // a memory fault: 0 read or 1 write, then the address
};

// The report's lines for the warning output. Takes nothing from the heap, which may be what broke.
void CoreDumpWarnException(const CoreDumpException& exception);

// --- Who reports

// What the filter does when it is entered for the n-th time on one thread, n counting from 1. A thread that
// fails while it reports comes back as number 2.
enum class CoreDumpEntry {
    Report,       // the whole report
    ReportNoDump, // no second dump
    Loop,         // one message
    Silent,
};
CoreDumpEntry CoreDumpClassifyEntry(uint64_t entries);

// Whether an exception is left to a debugger: `mode` 0 never, 1 when one is attached, anything else always.
bool CoreDumpDefers(uint32_t mode, bool (*debuggerAttached)());

// --- Backtrace

// One line of a backtrace. A longer one is cut, so that it still ends in its "\n".
inline constexpr size_t COREDUMP_LINE_SIZE = 509; // 507 bytes, "\n" and a terminator
using CoreDumpLine = std::array<char, COREDUMP_LINE_SIZE>;
void CoreDumpVFormatLine(CoreDumpLine* line, const char* format, va_list arguments) DIAG_PRINTF(2, 0);
void CoreDumpFormatLine(CoreDumpLine* line, const char* format, ...) DIAG_PRINTF(2, 3);

struct CoreDumpSymbol {
    std::string name; // UTF-8
    uint64_t displacement;
};

// "[C:\\x\\program.exe base 0x140000000 0x0001:0x00001234]"
std::string CoreDumpModulePart(const std::string& file, uint64_t base, uint32_t section, uint32_t offset);
inline constexpr char COREDUMP_NO_MODULE[] = "[no module data]";

// "name + 0x0012 [module part]"; "???" stands for the name when there is no symbol.
std::string CoreDumpDescribeAddress(const std::optional<CoreDumpSymbol>& symbol,
                                    const std::string& modulePart, bool includeModule);

// --- Names of dumps

inline constexpr size_t COREDUMP_NAMES = 5;
using CoreDumpNames = std::array<std::string, COREDUMP_NAMES>;

// The file's name without folder and extension; the whole path when it lacks one of them. Characters that no
// file name may hold become "_".
std::string CoreDumpProgramName(std::string_view modulePath);

// The first five candidates that do not exist yet.
CoreDumpNames CoreDumpChooseNames(const std::string& directory, const std::string& program,
                                  uint32_t processId, bool (*exists)(const char* name));

// --- Reserved address space

// Bytes to reserve for a size in KB: at most 20480 KB, in whole pages.
size_t CoreDumpReservedBytes(uint32_t sizeKB, size_t pageSize);
