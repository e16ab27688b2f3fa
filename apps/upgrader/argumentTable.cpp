#include "upgrader/argumentTable.h"

#include <cstring>

namespace {

constexpr char WHITE_SPACE[] = " \t\n\v\f\r";

// Removes the escaping backslashes between begin and end, which both stay where they are for the caller.
void RemoveBackslashes(char* begin, const char* end) {
    char* to = begin;
    for (const char* from = begin; from < end; ++from) {
        if (*from == '\\' && ++from == end) {
            break; // a lone backslash at the end escapes nothing
        }
        *to++ = *from;
    }
    *to = '\0';
}

// Both cut the argument that starts at `begin` and give the place where the search for the next one goes on.
char* CutQuoted(char* begin) {
    char* end = begin;
    while (*end != '\0' && *end != '"') {
        end += end[0] == '\\' && end[1] != '\0' ? 2 : 1;
    }
    char* next = *end == '\0' ? end : end + 1;
    RemoveBackslashes(begin, end);
    return next;
}

char* CutPlain(char* begin) {
    char* end = begin + std::strcspn(begin, WHITE_SPACE);
    if (*end == '\0') {
        return end;
    }
    *end = '\0';
    return end + 1;
}

} // namespace

bool ArgumentTable_Split(char* commandLine, char* programPath, ArgumentTable* table) {
    *table = {};
    table->arguments[0] = programPath;
    table->count = 1;

    for (char* at = commandLine;;) {
        at += std::strspn(at, WHITE_SPACE);
        if (*at == '\0') {
            return true;
        }
        if (table->count > ARGUMENT_TABLE_MAX_ARGUMENTS) {
            return false;
        }
        bool quoted = *at == '"';
        char* argument = quoted ? at + 1 : at;
        at = quoted ? CutQuoted(argument) : CutPlain(argument);
        table->arguments[static_cast<size_t>(table->count++)] = argument;
    }
}
