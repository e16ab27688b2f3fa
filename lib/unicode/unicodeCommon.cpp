#include "misc/diag.h"
#include "misc/encodingTable.h"
#include "string/str.h"
#include "unicode/unicode.h"

#include <cstring>
#include <new>

namespace {

constexpr char UNIT[] = "lib/unicode/unicodeCommon";

// Bytes before the terminator, which is as wide as the encoding's smallest character.
size_t TerminatedLength(const char* text, size_t unitSize) {
    static constexpr char ZEROES[4] = {};
    size_t length = 0;
    while (memcmp(text + length, ZEROES, unitSize) != 0) {
        length += unitSize;
    }
    return length;
}

std::string EscapeBytes(const char* text, size_t length) {
    try {
        std::string escaped;
        for (size_t i = 0; i < length; i++) {
            const auto byte = static_cast<uint8_t>(text[i]);
            if (byte >= 0x20 && byte < 0x7F && byte != '\\') {
                escaped += text[i];
            } else {
                escaped += Str_Format("\\x%02X", byte);
            }
        }
        return escaped;
    } catch (const std::bad_alloc&) {
        return "(couldn't escape bytes)";
    }
}

bool IsHighSurrogate(CodeSet_Unit unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}

} // namespace

bool Unicode_FromUtf16BigEndian(const uint8_t* bytes, size_t length, std::string* out) {
    if (length % 2 != 0) {
        return false;
    }
    std::u16string units(length / 2, 0);
    for (size_t i = 0; i < units.size(); i++) {
        units[i] = static_cast<char16_t>(bytes[2 * i] << 8 | bytes[2 * i + 1]);
    }
    return CodeSet_FromUtf16(units.data(), length, out);
}

bool Unicode_IsValidUtf8(std::string_view text) {
    return CodeSetUtf_IsValid(text.data(), text.size());
}

std::optional<CodeSet_Utf16> Unicode_ToWide(std::string_view text) {
    std::optional<CodeSet_Utf16> wide(std::in_place);
    if (!CodeSet_ToUtf16(text.data(), text.size(), &*wide)) {
        wide.reset();
    }
    return wide;
}

std::optional<std::string> Unicode_FromWide(std::basic_string_view<CodeSet_Unit> text) {
    std::optional<std::string> narrow(std::in_place);
    if (!CodeSet_FromUtf16(text.data(), text.size() * sizeof(CodeSet_Unit), &*narrow)) {
        narrow.reset();
    }
    return narrow;
}

std::optional<std::string> Unicode_AllocWithLength(const void* buffer, ptrdiff_t length, int encoding) {
    if (buffer == nullptr) {
        return std::nullopt;
    }
    const char* name = Unicode_EncodingEnumToName(encoding);
    const char* text = static_cast<const char*>(buffer);
    const size_t unitSize = EncodingTable_Row(static_cast<size_t>(EncodingTable_FindName(name))).unitSize;
    const size_t bytes = length >= 0 ? static_cast<size_t>(length) : TerminatedLength(text, unitSize);
    std::string converted;
    if (!CodeSet_Convert(name, text, bytes, "UTF-8", CodeSet_Mode::Stop, &converted)) {
        Debug("%s: Error: Couldn't convert invalid buffer [%s] from %s to Unicode.\n",
              "Unicode_AllocWithLength", EscapeBytes(text, bytes).c_str(), name);
        Panic("PANIC %s:%d\n", UNIT, __LINE__);
    }
    return converted;
}

bool Unicode_CopyToUtf16(CodeSet_Unit* destination, const char* source, size_t destinationSize,
                         size_t* copied) {
    *copied = 0;
    if (destinationSize < sizeof(CodeSet_Unit)) {
        return false;
    }
    CodeSet_Utf16 text;
    try {
        if (!CodeSet_ToUtf16(source, strlen(source), &text)) {
            *destination = 0;
            return false;
        }
    } catch (const std::bad_alloc&) {
        Panic("MEM_ALLOC %s:%d\n", UNIT, __LINE__);
    }
    size_t units = std::min(text.size(), destinationSize / sizeof(CodeSet_Unit) - 1);
    if (units > 0 && IsHighSurrogate(text[units - 1])) {
        units--; // its other half did not fit
    }
    text.copy(destination, units);
    destination[units] = 0;
    *copied = units * sizeof(CodeSet_Unit);
    return units == text.size();
}
