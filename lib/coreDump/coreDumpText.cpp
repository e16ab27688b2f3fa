#include "coreDump/coreDumpText.h"

#include "string/str.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

constexpr uint32_t MAX_RESERVED_KB = 20480;
constexpr size_t BYTES_PER_KB = 1024;

// Candidates looked at for one process before one is taken as it comes: a folder that claims to hold every
// name must not keep a crashing program alive.
constexpr int MAX_CANDIDATES = 10000;

uint64_t Parameter(const CoreDumpException& exception, size_t index) {
    return index < exception.parameters.size() ? exception.parameters[index] : 0;
}

std::string CandidateName(const std::string& directory, const std::string& program, uint32_t processId,
                          int k) {
    const int id = static_cast<int>(processId);
    if (k == 0) {
        return Str_Format("%s\\%s-%d.dmp", directory.c_str(), program.c_str(), id);
    }
    return Str_Format("%s\\%s-%d-%d.dmp", directory.c_str(), program.c_str(), id, k - 1);
}

} // namespace

const char* CoreDumpExceptionName(uint32_t code) {
    switch (code) {
    case COREDUMP_BREAKPOINT:
        return "(debug breakpoint)";
    case COREDUMP_ACCESS_VIOLATION:
        return "(access violation)";
    case COREDUMP_IN_PAGE_ERROR:
        return "(disk error while paging)";
    default:
        return "";
    }
}

void CoreDumpWarnException(const CoreDumpException& exception) {
    const auto low = [](uint64_t value) { return static_cast<uint32_t>(value); };
    Warning("----Win32 exception detected, exceptionCode %#010x %s----\n", exception.code,
            CoreDumpExceptionName(exception.code));
    Warning("IP %#010" DIAG_I64 "x eflags %#010x rwFlags %#010" DIAG_I64 "x badAddr %#010" DIAG_I64 "x\n",
            exception.address, exception.eflags, Parameter(exception, 0), Parameter(exception, 1));
    Warning("rax %#010x rbx %#010x rcx %#010x rdx %#010x\n", low(exception.rax), low(exception.rbx),
            low(exception.rcx), low(exception.rdx));
    Warning("rsi %#010x rdi %#010x rbp %#010x rsp %#010x\n", low(exception.rsi), low(exception.rdi),
            low(exception.rbp), low(exception.rsp));
    if (exception.parameters.empty()) {
        return;
    }
    Warning("The following data was delivered with the exception:\n");
    for (uint64_t parameter : exception.parameters) {
        Warning(" -- %#010" DIAG_I64 "x\n", parameter);
    }
}

CoreDumpEntry CoreDumpClassifyEntry(uint64_t entries) {
    switch (entries) {
    case 1:
        return CoreDumpEntry::Report;
    case 2:
        return CoreDumpEntry::Loop;
    case 3:
        return CoreDumpEntry::ReportNoDump;
    default:
        return CoreDumpEntry::Silent;
    }
}

bool CoreDumpDefers(uint32_t mode, bool (*debuggerAttached)()) {
    constexpr uint32_t NEVER = 0;
    constexpr uint32_t IF_ATTACHED = 1;
    return mode != NEVER && (mode != IF_ATTACHED || debuggerAttached());
}

void CoreDumpVFormatLine(CoreDumpLine* line, const char* format, va_list arguments) {
    char* text = line->data();
    text[0] = '\0';
#ifdef _WIN32
    _vsnprintf(text, line->size() - 1, format, arguments); // leaves a cut text without a terminator
#else
    vsnprintf(text, line->size(), format, arguments);
#endif
    text[line->size() - 1] = '\0';
    size_t length = strlen(text);
    if (length > 0 && text[length - 1] == '\n') {
        return;
    }
    length = std::min(length, line->size() - 2);
    text[length] = '\n';
    text[length + 1] = '\0';
}

void CoreDumpFormatLine(CoreDumpLine* line, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    CoreDumpVFormatLine(line, format, arguments);
    va_end(arguments);
}

std::string CoreDumpModulePart(const std::string& file, uint64_t base, uint32_t section, uint32_t offset) {
    return Str_Format("[%s base %#010" DIAG_I64 "x %#06x:%#010x]", file.c_str(), base, section, offset);
}

std::string CoreDumpDescribeAddress(const std::optional<CoreDumpSymbol>& symbol,
                                    const std::string& modulePart, bool includeModule) {
    std::string text =
        symbol ? Str_Format("%s + %#06" DIAG_I64 "x", symbol->name.c_str(), symbol->displacement) : "???";
    return includeModule ? Str_Format("%s %s", text.c_str(), modulePart.c_str()) : text;
}

std::string CoreDumpProgramName(std::string_view modulePath) {
    const size_t separator = modulePath.rfind('\\');
    const size_t dot = modulePath.rfind('.');
    std::string_view name = modulePath;
    if (separator != std::string_view::npos && dot != std::string_view::npos && dot > separator) {
        name = modulePath.substr(separator + 1, dot - separator - 1);
    }
    std::string program(name);
    std::replace_if(
        program.begin(), program.end(),
        [](char c) { return static_cast<unsigned char>(c) < ' ' || strchr("<>:\"/\\|?*", c) != nullptr; },
        '_');
    return program;
}

CoreDumpNames CoreDumpChooseNames(const std::string& directory, const std::string& program,
                                  uint32_t processId, bool (*exists)(const char* name)) {
    CoreDumpNames names;
    int k = 0;
    for (std::string& name : names) {
        do {
            name = CandidateName(directory, program, processId, k++);
        } while (k < MAX_CANDIDATES && exists(name.c_str()));
    }
    return names;
}

size_t CoreDumpReservedBytes(uint32_t sizeKB, size_t pageSize) {
    const size_t bytes = std::min(sizeKB, MAX_RESERVED_KB) * BYTES_PER_KB;
    return (bytes + pageSize - 1) / pageSize * pageSize;
}
