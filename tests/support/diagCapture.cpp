#include "diagCapture.h"

#include "misc/diag.h"
#include "string/str.h"

#include <cstdarg>
#include <mutex>
#include <utility>

namespace {

std::mutex messagesLock;
DiagMessages messages;

std::string Format(const char* format, va_list arguments) {
    std::string text;
    return Str_Vasprintf(&text, format, arguments) ? text : std::string("(cannot be formatted)");
}

void Keep(std::vector<std::string> DiagMessages::*list, std::string text) {
    std::lock_guard lock(messagesLock);
    (messages.*list).push_back(std::move(text));
}

} // namespace

DiagMessages DiagCapture_Take() {
    std::lock_guard lock(messagesLock);
    return std::exchange(messages, {});
}

void Debug(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Keep(&DiagMessages::debug, Format(format, arguments));
    va_end(arguments);
}

void Warning(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Keep(&DiagMessages::warning, Format(format, arguments));
    va_end(arguments);
}

void Panic(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string text = Format(format, arguments);
    va_end(arguments);
    Keep(&DiagMessages::warning, text);
    throw DiagPanic(text);
}
