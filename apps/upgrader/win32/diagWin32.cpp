// The program's Debug, Warning and Panic: debugger output and the standard error stream. Nobody sees that
// stream of a windowless program in a guest, so what goes there stands in the installer log, too.

#include "misc/diag.h"

#include "log/log.h"
#include "string/str.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include <windows.h>

namespace {

constexpr size_t DEBUG_BYTES = 1024;

void WriteToStandardError(const std::string& text) {
    // Not through the C runtime: a windowed program's stderr is not connected unless somebody made it so.
    HANDLE error = GetStdHandle(STD_ERROR_HANDLE);
    DWORD written = 0;
    if (error && error != INVALID_HANDLE_VALUE) {
        WriteFile(error, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    }
}

void WarnV(const char* format, va_list arguments) {
    std::string text;
    if (Str_Vasprintf(&text, format, arguments)) {
        WriteToStandardError(text);
        text.erase(text.find_last_not_of('\n') + 1);
        Log_Level(LOG_ALWAYS, "%s", text.c_str());
    }
}

} // namespace

void Debug(const char* format, ...) {
    char message[DEBUG_BYTES] = "";
    va_list arguments;
    va_start(arguments, format);
    int length = _vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    // The runtime leaves a text that fills the buffer without its terminator: that counts as cut, too.
    if (length < 0 || static_cast<size_t>(length) >= sizeof message) {
        OutputDebugStringA("Ravlin Tools Upgrader: Failed to format error message\n");
        message[sizeof message - 1] = '\0';
    }
    std::string text;
    if (Str_Asprintf(&text, "[RLToolsUpgrader]: %s", message)) {
        OutputDebugStringA(text.c_str());
    }
}

void Warning(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    WarnV(format, arguments);
    va_end(arguments);
}

void Panic(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    WarnV(format, arguments);
    va_end(arguments);
    ExitProcess(255);
}
