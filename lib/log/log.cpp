#include "log/log.h"
#include "log/logState.h"
#include "log/logSystem.h"
#include "misc/codesetUtf.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

constexpr uint32_t MASK_DEFAULT = LOG_ALWAYS | LOG_DETAIL;
constexpr size_t LINE_SIZE = 2048;
constexpr size_t TEXT_SIZE = LINE_SIZE - 2; // stamp, tag and message; the line end and a terminator follow
constexpr char FILE_NAME[] = "rlinst.log";
constexpr char FALLBACK_NAME[] = "inst.log";
constexpr char TRUNCATED[] = "The following message is truncated:\n";
constexpr char FORMAT_ERROR[] = "Serious format error in logging code\n";

const char* Tag(uint32_t level) {
    switch (level) {
    case 1:
        return "E1:";
    case 2:
        return "I1:";
    case 4:
        return "E2:";
    case 8:
        return "W1:";
    case 16:
        return "G2:";
    case 32:
        return "I2:";
    case 128:
        return "P1:";
    default:
        return "XX:";
    }
}

// Length of the text, or -1 when it does not fit or cannot be formatted. Nothing is lost when it is cut.
int Format(char* out, size_t size, const char* format, va_list arguments) {
#ifdef _WIN32
    return _vsnprintf(out, size, format, arguments);
#else
    // The product's formatter fills the room to its last byte, without a terminator.
    std::array<char, LINE_SIZE> text;
    const int length = vsnprintf(text.data(), size + 1, format, arguments);
    memcpy(out, text.data(), size);
    return length > static_cast<int>(size) ? -1 : length;
#endif
}

// Lines end with CR LF on disk, as the installers that share the file write it.
void Write(const char* text, size_t length) {
    std::array<char, 2 * LINE_SIZE> line;
    size_t used = 0;
    for (size_t i = 0; i < length; i++) {
        if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) {
            line[used++] = '\r';
        }
        line[used++] = text[i];
    }
    LogSystemWrite(line.data(), used);
}

void WriteMessage(uint32_t level, const char* format, va_list arguments) {
    std::array<char, LINE_SIZE> line = {};
    const LogTime now = LogSystemLocalTime();
    const int prefix = snprintf(line.data(), TEXT_SIZE, "inst : %02u/%02u/%02u %02u:%02u:%02u %s", now.month,
                                now.day, now.year % 100, now.hour, now.minute, now.second, Tag(level));
    if (prefix < 0 || static_cast<size_t>(prefix) >= TEXT_SIZE) {
        Write(FORMAT_ERROR, sizeof FORMAT_ERROR - 1);
        return;
    }
    char* message = line.data() + prefix;
    const size_t room = TEXT_SIZE - static_cast<size_t>(prefix);
    const int formatted = Format(message, room, format, arguments);
    auto length = static_cast<size_t>(formatted);
    if (formatted < 0) {
        Write(TRUNCATED, sizeof TRUNCATED - 1);
        length = CodeSetUtf_WholeCharacters(message, strnlen(message, room));
    }
    message[length] = '\n';
    Write(line.data(), static_cast<size_t>(prefix) + length + 1);
}

void WriteFormatted(uint32_t level, const char* format, ...) DIAG_PRINTF(2, 3);
void WriteFormatted(uint32_t level, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    WriteMessage(level, format, arguments);
    va_end(arguments);
}

void Open() {
    std::string path;
    if (logState.mask == 0 || !LogSystemTempDirectory(&path)) {
        return;
    }
    path += FILE_NAME;
    uint32_t error = 0;
    logState.open = LogSystemOpen(path, &error);
    if (logState.open) {
        return;
    }
    uint32_t ignored = 0;
    logState.open = LogSystemOpen(FALLBACK_NAME, &ignored);
    if (logState.open && (logState.mask & LOG_ALWAYS) != 0) {
        WriteFormatted(LOG_ALWAYS, "Unable to log to intended file %s, error %d", path.c_str(),
                       static_cast<int>(error));
    }
}

void Put(uint32_t level, const char* format, va_list arguments) {
    if (logState.nesting == 0) {
        return;
    }
    if (!logState.open) {
        Open();
    }
    if (logState.open) {
        WriteMessage(level, format, arguments);
    }
}

// The reasons go to the log by the ordinary way. The mask has not been read at that moment, so none of them
// is ever written; whoever needs them gives the mask another initial value.
uint32_t ReadMask() {
    const LogMask read = LogSystemReadMask();
    switch (read.outcome) {
    case LogMaskRead::Read:
        return read.number;
    case LogMaskRead::NoKey:
        Log_Level(LOG_PROBLEM, "Log level path doesn't exist so can't open");
        break;
    case LogMaskRead::KeyFailed:
        Log_Level(LOG_PROBLEM, "Could not open log level path: 0x%08x 0x%08x", read.result, read.lastError);
        break;
    case LogMaskRead::ValueFailed:
        Log_Level(LOG_PROBLEM, "Could not read log level value: 0x%08x 0x%08x", read.result, read.lastError);
        break;
    case LogMaskRead::WrongType:
        Log_Level(LOG_PROBLEM, "Log level value is the wrong type: 0x%08x", read.number);
        break;
    }
    return MASK_DEFAULT;
}

} // namespace

LogState logState;

void Log_Begin(const char* name) {
    if (logState.nesting++ != 0) {
        return;
    }
    logState.open = false;
    if (logState.mask == LOG_MASK_UNREAD) {
        logState.mask = ReadMask();
    }
    Log_Level(LOG_BEGIN, "Begin Logging '%s' (LogLevel 0x%08x)", name, logState.mask);
}

void Log_End() {
    if (logState.nesting == 0) {
        return;
    }
    if (logState.nesting == 1) {
        Log_Level(LOG_END, "End Logging");
        if (logState.open) {
            LogSystemClose();
            logState.open = false;
        }
    }
    logState.nesting--;
}

void Log_Level(uint32_t level, const char* format, ...) {
    if ((logState.mask & level) == 0) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    Put(level, format, arguments);
    va_end(arguments);
}

void Log_Error(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Put(LOG_ALWAYS, format, arguments);
    va_end(arguments);
}
