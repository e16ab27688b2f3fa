#include "string/str.h"

#include <cstdio>

namespace {

// Length of the formatted text without its terminator, negative when it cannot be formatted.
int FormattedLength(const char* format, va_list arguments) {
#ifdef _WIN32
    return _vscprintf(format, arguments);
#else
    return vsnprintf(nullptr, 0, format, arguments);
#endif
}

int FormatInto(char* buffer, size_t size, const char* format, va_list arguments) {
#ifdef _WIN32
    return _vsnprintf(buffer, size, format, arguments);
#else
    return vsnprintf(buffer, size, format, arguments);
#endif
}

} // namespace

bool Str_Vasprintf(std::string* out, const char* format, va_list arguments) {
    va_list measured;
    va_copy(measured, arguments);
    int length = FormattedLength(format, measured);
    va_end(measured);
    if (length < 0) {
        return false;
    }
    std::string text(static_cast<size_t>(length), '\0');
    if (FormatInto(text.data(), text.size() + 1, format, arguments) != length) {
        return false;
    }
    *out = std::move(text);
    return true;
}

bool Str_Asprintf(std::string* out, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    bool formatted = Str_Vasprintf(out, format, arguments);
    va_end(arguments);
    return formatted;
}

std::string Str_Format(const char* format, ...) {
    std::string text;
    va_list arguments;
    va_start(arguments, format);
    Str_Vasprintf(&text, format, arguments);
    va_end(arguments);
    return text;
}
