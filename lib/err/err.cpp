#include "err/err.h"
#include "err/errSystem.h"
#include "misc/codesetUtf.h"
#include "misc/hashTable.h"
#include "string/str.h"

#include <string_view>

namespace {

constexpr size_t LONGEST_TEXT = 2047;
constexpr size_t BUCKETS = 2048;

struct ErrEntry {
    uint32_t code;
    std::string string;
};

struct ByCode {
    using Key = uint32_t;
    static size_t Hash(Key key) { return key; }
    static bool Equal(Key one, Key other) { return one == other; }
    static Key Of(const ErrEntry& entry) { return entry.code; }
};

// From a text that was given out back to its code.
struct ByString {
    using Key = const char*;
    static size_t Hash(Key key) {
        return reinterpret_cast<uintptr_t>(key) >> 4;
    } // allocations are 16 bytes apart
    static bool Equal(Key one, Key other) { return one == other; }
    static Key Of(const ErrEntry* entry) { return entry->string.c_str(); }
};

using CodeTable = HashTable<ErrEntry, BUCKETS, ByCode>;
using StringTable = HashTable<const ErrEntry*, BUCKETS, ByString>;
std::atomic<CodeTable*> byCode;
std::atomic<StringTable*> byString;

class LastErrorKeeper {
public:
    LastErrorKeeper() = default;
    LastErrorKeeper(const LastErrorKeeper&) = delete;
    LastErrorKeeper& operator=(const LastErrorKeeper&) = delete;
    ~LastErrorKeeper() { ErrSystemSetLastError(error_); }

private:
    uint32_t error_ = ErrSystemLastError();
};

} // namespace

void ErrStripEnd(std::string* text) {
    static constexpr std::string_view SUFFIXES[] = {"\n", "\r", ".", "\xE3\x80\x82"};
    for (bool removed = true; removed;) {
        removed = false;
        for (std::string_view suffix : SUFFIXES) {
            if (text->ends_with(suffix)) {
                text->resize(text->size() - suffix.size());
                removed = true;
                break;
            }
        }
    }
}

std::string ErrFormat(uint32_t code) {
    std::string text;
    if (!ErrSystemMessage(code, &text)) {
        return Str_Format("Unknown error %d (0x%x)", static_cast<int>(code), code);
    }
    ErrStripEnd(&text);
    if (text.size() > LONGEST_TEXT) {
        text.resize(CodeSetUtf_WholeCharacters(text.data(), LONGEST_TEXT));
    }
    return text;
}

const char* Err_ErrString(uint32_t code) {
    LastErrorKeeper keeper;
    CodeTable& codes = HashTable_Install(&byCode);
    const ErrEntry* entry = codes.Find(code);
    if (entry == nullptr) {
        entry = codes.Insert({code, ErrFormat(code)});
        HashTable_Install(&byString).Insert(entry);
    }
    return entry->string.c_str();
}

const char* Err_LastErrString() {
    return Err_ErrString(ErrSystemLastError());
}

bool ErrCodeOfString(const char* text, uint32_t* code) {
    const ErrEntry* const* entry = HashTable_Install(&byString).Find(text);
    if (entry == nullptr) {
        return false;
    }
    *code = (*entry)->code;
    return true;
}
