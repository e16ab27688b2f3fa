// Diagnostics: the three log calls that every library uses, and the ways a program stops for good.
//
// Declared here, low down, and defined by the application (debugger output, standard error) or by a test,
// which then sees every message. Messages carry their own "\n". All functions may be called from any thread.
#pragma once

#if defined(__MINGW32__) && !defined(__clang__)
#define DIAG_PRINTF(text, first) __attribute__((format(ms_printf, text, first)))
#else
#define DIAG_PRINTF(text, first) __attribute__((format(printf, text, first)))
#endif

// Length prefix for an unsigned 64-bit number in a printf format: "%" DIAG_I64 "u". The product's messages
// are written by msvcrt, whose spelling is "%I64u".
#ifdef _WIN32
#define DIAG_I64 "I64"
#else
#define DIAG_I64 "l"
#endif

// Writes one message to the debugger output.
void Debug(const char* format, ...) DIAG_PRINTF(1, 2);

// Writes one message to the standard error stream.
void Warning(const char* format, ...) DIAG_PRINTF(1, 2);

// As Warning, then ends the process with exit code 255.
[[noreturn]] void Panic(const char* format, ...) DIAG_PRINTF(1, 2);

// The four fatal stops. `unit` is the source unit as messages name it, "lib/rpcin/rpcin", and `line` a number
// that tells the places of one unit apart; support knows the fixed ones by heart.
[[noreturn]] inline void Diag_NotReached(const char* unit, int line) {
    Panic("NOT_REACHED %s:%d\n", unit, line);
}
[[noreturn]] inline void Diag_NotImplemented(const char* unit, int line) {
    Panic("NOT_IMPLEMENTED %s:%d\n", unit, line);
}
[[noreturn]] inline void Diag_AssertFailed(const char* unit, int line, int bugNumber) {
    Panic("ASSERT %s:%d bugNr=%d\n", unit, line, bugNumber);
}
[[noreturn]] inline void Diag_OutOfMemory(const char* unit, int line) {
    Panic("Unrecoverable memory allocation failure at %s:%d\n", unit, line);
}
