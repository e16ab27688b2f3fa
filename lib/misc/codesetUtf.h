// Strict UTF-8 and UTF-16 by the program's own code: no table, no system call. It judges texts where the
// system's conversions are lenient on old releases, and it is the tolerant decoder when ICU is absent.
//
// Valid UTF-8 has no overlong form, no surrogate, nothing beyond U+10FFFF and no unfinished sequence; valid
// UTF-16 has no lone surrogate. All functions may be called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// What a conversion does at an invalid or unmappable sequence. The numbers are part of the interface.
enum class CodeSet_Mode : uint32_t {
    Stop = 0,       // the conversion fails
    Substitute = 1, // one substitution character for each maximal invalid part
    Skip = 2,       // the part is left out
};

// Number of leading bytes (units) below 0x80.
size_t CodeSetUtf_AsciiLength(const char* text, size_t length);
size_t CodeSetUtf_AsciiLength(const char16_t* text, size_t units);

// Number of units (bytes) that a valid text takes in the other form; for an invalid one, any number that is
// no greater than three times its length.
size_t CodeSetUtf_Units(const char* text, size_t length);
size_t CodeSetUtf_Bytes(const char16_t* text, size_t units);

// Copies the leading ASCII text from one width to the other, into as much room; gives its length.
size_t CodeSetUtf_WidenAscii(const char* text, size_t length, char16_t* out);
size_t CodeSetUtf_NarrowAscii(const char16_t* text, size_t units, char* out);

bool CodeSetUtf_IsValid(const char* text, size_t length);
bool CodeSetUtf_IsValid(const char16_t* text, size_t units);

// UTF-8 to UTF-16 and back, appended to *out. False in stop mode for invalid text; *out is then untouched.
bool CodeSetUtf_Decode(const char* text, size_t length, CodeSet_Mode mode, std::u16string* out);
bool CodeSetUtf_Encode(const char16_t* text, size_t units, CodeSet_Mode mode, std::string* out);

// Length without an unfinished sequence at the end: for valid text that was cut at a byte count.
size_t CodeSetUtf_WholeCharacters(const char* text, size_t length);
