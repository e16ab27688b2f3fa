#include "logCapture.h"

#include "log/log.h"
#include "string/str.h"

#include <cstdarg>
#include <mutex>
#include <utility>

namespace {

std::mutex linesLock;
std::vector<LogLine> lines;

void Keep(uint32_t level, const char* format, va_list arguments) {
    std::string text;
    Str_Vasprintf(&text, format, arguments);
    std::lock_guard lock(linesLock);
    lines.push_back({level, std::move(text)});
}

} // namespace

std::vector<LogLine> LogCapture_Take() {
    std::lock_guard lock(linesLock);
    return std::exchange(lines, {});
}

void Log_Begin(const char* /*name*/) {}

void Log_End() {}

void Log_Level(uint32_t level, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Keep(level, format, arguments);
    va_end(arguments);
}

void Log_Error(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Keep(LOG_ALWAYS, format, arguments);
    va_end(arguments);
}
