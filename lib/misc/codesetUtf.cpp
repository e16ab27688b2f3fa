#include "misc/codesetUtf.h"

#include <bit>
#include <cstring>
#include <emmintrin.h>

namespace {

constexpr char16_t REPLACEMENT = 0xFFFD;
constexpr size_t BLOCK = 8; // characters copied in one go

bool IsHighSurrogate(char16_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}
bool IsLowSurrogate(char16_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}
bool IsContinuation(uint8_t byte) {
    return (byte & 0xC0) == 0x80;
}

static_assert(std::endian::native == std::endian::little,
              "the first character is in the lowest bits of a word");
uint64_t LoadWord(const void* from) {
    uint64_t word;
    memcpy(&word, from, sizeof word);
    return word;
}

// One character at a time. An invalid step covers the maximal part that could have begun a character, which
// is what one substitution stands for.
struct Step {
    char32_t value;
    size_t length; // bytes or units consumed, at least 1
    bool valid;
};

// What may follow a lead byte: how many continuation bytes, and the range of the first of them, which is
// where overlong forms, surrogates and values beyond U+10FFFF are told apart.
struct Lead {
    uint8_t following;
    uint8_t low;
    uint8_t high;
};

Lead LeadOf(uint8_t byte) {
    if (byte >= 0xC2 && byte <= 0xDF) {
        return {1, 0x80, 0xBF};
    }
    if (byte >= 0xE0 && byte <= 0xEF) {
        return {2, static_cast<uint8_t>(byte == 0xE0 ? 0xA0 : 0x80),
                static_cast<uint8_t>(byte == 0xED ? 0x9F : 0xBF)};
    }
    if (byte >= 0xF0 && byte <= 0xF4) {
        return {3, static_cast<uint8_t>(byte == 0xF0 ? 0x90 : 0x80),
                static_cast<uint8_t>(byte == 0xF4 ? 0x8F : 0xBF)};
    }
    return {0, 0, 0};
}

Step NextCharacter(const char* text, size_t length) {
    const auto first = static_cast<uint8_t>(text[0]);
    if (first < 0x80) {
        return {first, 1, true};
    }
    const Lead lead = LeadOf(first);
    if (lead.following == 0) {
        return {0, 1, false};
    }
    char32_t value = first & (0x3FU >> lead.following);
    for (size_t i = 1; i <= lead.following; i++) {
        if (i == length) {
            return {0, i, false};
        }
        const auto byte = static_cast<uint8_t>(text[i]);
        const uint8_t low = i == 1 ? lead.low : uint8_t{0x80};
        const uint8_t high = i == 1 ? lead.high : uint8_t{0xBF};
        if (byte < low || byte > high) {
            return {0, i, false};
        }
        value = value << 6 | (byte & 0x3FU);
    }
    return {value, lead.following + size_t{1}, true};
}

Step NextCharacter(const char16_t* text, size_t units) {
    if (IsHighSurrogate(text[0]) && units > 1 && IsLowSurrogate(text[1])) {
        return {0x10000 + ((text[0] - char32_t{0xD800}) << 10) + (text[1] - char32_t{0xDC00}), 2, true};
    }
    return {text[0], 1, !IsHighSurrogate(text[0]) && !IsLowSurrogate(text[0])};
}

void Append(std::u16string* out, char32_t value) {
    if (value < 0x10000) {
        out->push_back(static_cast<char16_t>(value));
    } else {
        out->push_back(static_cast<char16_t>(0xD800 + ((value - 0x10000) >> 10)));
        out->push_back(static_cast<char16_t>(0xDC00 + (value & 0x3FF)));
    }
}

void Append(std::string* out, char32_t value) {
    if (value < 0x80) {
        out->push_back(static_cast<char>(value));
        return;
    }
    const int following = value < 0x800 ? 1 : value < 0x10000 ? 2 : 3;
    const uint32_t marker = 0xFF00U >> (following + 1) & 0xFFU; // one leading 1 bit for each byte
    out->push_back(static_cast<char>(marker | value >> 6 * following));
    for (int shift = 6 * (following - 1); shift >= 0; shift -= 6) {
        out->push_back(static_cast<char>(0x80U | (value >> shift & 0x3FU)));
    }
}

template <typename From>
bool IsValid(const From* text, size_t length) {
    size_t at = 0;
    while ((at += CodeSetUtf_AsciiLength(text + at, length - at)) < length) {
        const Step step = NextCharacter(text + at, length - at);
        if (!step.valid) {
            return false;
        }
        at += step.length;
    }
    return true;
}

template <typename From, typename To>
bool Recode(const From* text, size_t length, CodeSet_Mode mode, To* out) {
    const size_t before = out->size();
    out->reserve(before + length);
    for (size_t at = 0; at < length;) {
        const Step step = NextCharacter(text + at, length - at);
        if (step.valid) {
            Append(out, step.value);
        } else if (mode == CodeSet_Mode::Substitute) {
            Append(out, REPLACEMENT);
        } else if (mode == CodeSet_Mode::Stop) {
            out->resize(before);
            return false;
        }
        at += step.length;
    }
    return true;
}

} // namespace

size_t CodeSetUtf_AsciiLength(const char* text, size_t length) {
    constexpr uint64_t HIGH_BITS = 0x8080808080808080U;
    constexpr size_t WORD = 8;
    size_t at = 0;
    for (; length - at >= WORD; at += WORD) {
        if (const uint64_t high = LoadWord(text + at) & HIGH_BITS) {
            return at + static_cast<size_t>(std::countr_zero(high)) / 8;
        }
    }
    while (at < length && static_cast<uint8_t>(text[at]) < 0x80) {
        at++;
    }
    return at;
}

size_t CodeSetUtf_AsciiLength(const char16_t* text, size_t units) {
    constexpr uint64_t HIGH_BITS = 0xFF80FF80FF80FF80U;
    constexpr size_t WORD = 4;
    size_t at = 0;
    for (; units - at >= WORD; at += WORD) {
        if (const uint64_t high = LoadWord(text + at) & HIGH_BITS) {
            return at + static_cast<size_t>(std::countr_zero(high)) / 16;
        }
    }
    while (at < units && text[at] < 0x80) {
        at++;
    }
    return at;
}

// Continuation bytes stand for nothing, the leads of four bytes for two units, all others for one.
size_t CodeSetUtf_Units(const char* text, size_t length) {
    size_t count = 0;
    for (size_t i = 0; i < length; i++) {
        const auto byte = static_cast<uint8_t>(text[i]);
        count += !IsContinuation(byte);
        count += byte >= 0xF0;
    }
    return count;
}

// Each half of a surrogate pair stands for two bytes.
size_t CodeSetUtf_Bytes(const char16_t* text, size_t units) {
    size_t count = units;
    for (size_t i = 0; i < units; i++) {
        count += text[i] >= 0x80;
        count += text[i] >= 0x800 && !IsHighSurrogate(text[i]) && !IsLowSurrogate(text[i]);
    }
    return count;
}

// Eight characters at a time, with the instructions that every 64-bit processor of this kind has.
size_t CodeSetUtf_WidenAscii(const char* text, size_t length, char16_t* out) {
    size_t at = 0;
    for (; length - at >= BLOCK; at += BLOCK) {
        const __m128i bytes = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(text + at));
        if (_mm_movemask_epi8(bytes) != 0) {
            break;
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + at), _mm_unpacklo_epi8(bytes, _mm_setzero_si128()));
    }
    for (; at < length && static_cast<uint8_t>(text[at]) < 0x80; at++) {
        out[at] = static_cast<uint8_t>(text[at]);
    }
    return at;
}

size_t CodeSetUtf_NarrowAscii(const char16_t* text, size_t units, char* out) {
    const __m128i beyond = _mm_set1_epi16(static_cast<int16_t>(0xFF80));
    size_t at = 0;
    for (; units - at >= BLOCK; at += BLOCK) {
        const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + at));
        const __m128i isAscii = _mm_cmpeq_epi16(_mm_and_si128(block, beyond), _mm_setzero_si128());
        if (_mm_movemask_epi8(isAscii) != 0xFFFF) {
            break;
        }
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + at), _mm_packus_epi16(block, block));
    }
    for (; at < units && text[at] < 0x80; at++) {
        out[at] = static_cast<char>(text[at]);
    }
    return at;
}

bool CodeSetUtf_IsValid(const char* text, size_t length) {
    return IsValid(text, length);
}
bool CodeSetUtf_IsValid(const char16_t* text, size_t units) {
    return IsValid(text, units);
}

bool CodeSetUtf_Decode(const char* text, size_t length, CodeSet_Mode mode, std::u16string* out) {
    return Recode(text, length, mode, out);
}

bool CodeSetUtf_Encode(const char16_t* text, size_t units, CodeSet_Mode mode, std::string* out) {
    return Recode(text, units, mode, out);
}

size_t CodeSetUtf_WholeCharacters(const char* text, size_t length) {
    size_t lead = length;
    while (lead > 0 && length - lead < 4) {
        lead--;
        const auto byte = static_cast<uint8_t>(text[lead]);
        if (IsContinuation(byte)) {
            continue;
        }
        return byte < 0x80 || length - lead > LeadOf(byte).following ? length : lead;
    }
    return length;
}
