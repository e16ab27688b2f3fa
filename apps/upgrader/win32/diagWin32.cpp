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

constexpr size_t DEBUG_BYTES = 1024; // one message of Debug; longer ones are cut

// In both places: the standard error stream gets the text as it is, the log a line without an end of its own.
void Write(const char* text, size_t length) {
    // Not through the C runtime: a windowed program's stderr is not connected unless somebody made it so.
    HANDLE error = GetStdHandle(STD_ERROR_HANDLE);
    DWORD written = 0;
    if (error && error != INVALID_HANDLE_VALUE) {
        WriteFile(error, text, static_cast<DWORD>(length), &written, nullptr);
    }
    while (length > 0 && text[length - 1] == '\n') {
        --length;
    }
    Log_Level(LOG_ALWAYS, "%.*s", static_cast<int>(length), text);
}

// Most messages are short: they need no memory, so that a program without any can still say why it ends.
void WarnV(const char* format, va_list arguments) {
    char brief[DEBUG_BYTES];
    va_list copy;
    va_copy(copy, arguments);
    int length = _vsnprintf(brief, sizeof brief, format, copy);
    va_end(copy);
    if (length >= 0) {
        Write(brief, static_cast<size_t>(length));
        return;
    }
    std::string text;
    if (Str_Vasprintf(&text, format, arguments)) {
        Write(text.data(), text.size());
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
