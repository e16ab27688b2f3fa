#include "misc/diag.h"
#include "misc/encodingTable.h"
#include "misc/hashTable.h"
#include "unicode/unicode.h"

#include <cstring>

namespace {

constexpr char UNIT[] = "lib/unicode/unicodeSimpleTypes";
constexpr size_t CACHE_BUCKETS = 128;
constexpr int NOT_COMPUTED = -2;

struct CachedName {
    std::string name;
    int index;
};
struct ByName {
    using Key = std::string_view;
    static size_t Hash(Key name) { return std::hash<std::string_view>()(name); }
    static bool Equal(Key one, Key other) { return one == other; }
    static Key Of(const CachedName& entry) { return entry.name; }
};
using NameCache = HashTable<CachedName, CACHE_BUCKETS, ByName>;
std::atomic<NameCache*> nameCache;

std::atomic<int> localEncoding = NOT_COMPUTED;

// Is the name "windows-" or "Windows-" and a number? A number too large for a code page reads as 0, which
// none has.
bool IsCodePageName(std::string_view name, uint32_t* codePage) {
    constexpr size_t PREFIX = 8;
    constexpr size_t MOST_DIGITS = 9;
    const std::string_view digits = name.substr(std::min(PREFIX, name.size()));
    if (!(name.starts_with("windows-") || name.starts_with("Windows-")) || digits.empty() ||
        digits.find_first_not_of("0123456789") != std::string_view::npos) {
        return false;
    }
    *codePage = 0;
    for (size_t i = 0; i < digits.size() && digits.size() <= MOST_DIGITS; i++) {
        *codePage = *codePage * 10 + static_cast<uint32_t>(digits[i] - '0');
    }
    return true;
}

int UnicodeIANALookup(const char* name) {
    uint32_t codePage = 0;
    if (IsCodePageName(name, &codePage)) {
        return EncodingTable_FindCodePage(codePage);
    }
    const int index = EncodingTable_FindName(name);
    if (index < 0) {
        Debug("%s: Did not find an IANA match for encoding \"%s\"\n", "UnicodeIANALookup", name);
    }
    return index;
}

int LocalEncoding() {
    int index = localEncoding.load(std::memory_order_relaxed);
    if (index == NOT_COMPUTED) {
        index = Unicode_EncodingNameToIndex(CodeSet_LocalEncoding().c_str());
        localEncoding.store(index, std::memory_order_relaxed);
    }
    return index;
}

} // namespace

int Unicode_EncodingNameToIndex(const char* name) {
    if (name == nullptr) {
        return ENCODING_TABLE_UNKNOWN;
    }
    NameCache& cache = HashTable_Install(&nameCache);
    if (const CachedName* cached = cache.Find(name)) {
        return cached->index;
    }
    const int index = UnicodeIANALookup(name);
    return index < 0 ? ENCODING_TABLE_UNKNOWN : cache.Insert({name, index})->index;
}

const char* Unicode_EncodingEnumToName(int encoding) {
    const int index = encoding == UNICODE_ENCODING_LOCAL ? LocalEncoding() : encoding;
    if (index < 0 || static_cast<size_t>(index) >= EncodingTable_Count()) {
        Debug("%s: Unknown encoding %d.\n", "Unicode_EncodingEnumToName", index);
        Diag_NotReached(UNIT, __LINE__);
    }
    return EncodingTable_Row(static_cast<size_t>(index)).names;
}
