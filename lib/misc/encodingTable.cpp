#include "misc/encodingTable.h"

#include <atomic>
#include <cstring>
#include <iterator>

namespace {

constexpr EncodingTableRow ROWS[] = {
// clang-format off
#include "misc/encodingTable.inc"
    // clang-format on
};

std::atomic<bool> supported[std::size(ROWS)];

char Lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool EqualWithoutCase(const char* one, const char* other) {
    while (*one != '\0' && Lower(*one) == Lower(*other)) {
        one++;
        other++;
    }
    return Lower(*one) == Lower(*other);
}

bool HasName(const EncodingTableRow& row, const char* name) {
    for (const char* candidate = row.names; *candidate != '\0'; candidate += strlen(candidate) + 1) {
        if (EqualWithoutCase(candidate, name)) {
            return true;
        }
    }
    return false;
}

} // namespace

size_t EncodingTable_Count() {
    return std::size(ROWS);
}
const EncodingTableRow& EncodingTable_Row(size_t index) {
    return ROWS[index];
}

int EncodingTable_FindName(const char* name) {
    for (size_t i = 0; i < std::size(ROWS) && *name != '\0'; i++) {
        if (HasName(ROWS[i], name)) {
            return static_cast<int>(i);
        }
    }
    return ENCODING_TABLE_UNKNOWN;
}

int EncodingTable_FindCodePage(uint32_t codePage) {
    for (size_t i = 0; i < std::size(ROWS) && codePage != 0; i++) {
        if (ROWS[i].codePage == codePage) {
            return static_cast<int>(i);
        }
    }
    return ENCODING_TABLE_UNKNOWN;
}

bool EncodingTable_IsSupported(size_t index) {
    return supported[index].load(std::memory_order_relaxed);
}
void EncodingTable_SetSupported(size_t index, bool value) {
    supported[index].store(value, std::memory_order_relaxed);
}
