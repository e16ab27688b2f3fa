// What the character sets need of the system: the ICU data file, and conversions that stand in for ICU's.
// codesetWin32.cpp serves the product; codesetPosix.cpp serves the native builds, for sanitizers and fuzzing.
#pragma once

#include "misc/codesetUtf.h"

#include <cstddef>
#include <cstdint>
#include <string>

inline constexpr uint32_t CODESET_UTF8_PAGE = 65001;

// Gives ICU its data file, from the directory or, for null, from beside the program. False when there is no
// sound file. The file stays mapped, for ICU reads it in place.
bool CodeSetSystemLoadIcuData(const char* directory);

uint32_t CodeSetSystemAnsiPage();

// UTF-8 to UTF-16 and back, strictly, into room for what a valid text takes. False for invalid text.
bool CodeSetSystemToUtf16(const char* text, size_t length, char16_t* out, size_t room, size_t* units);
bool CodeSetSystemFromUtf16(const char16_t* text, size_t units, char* out, size_t room, size_t* length);

// Between UTF-16 and a code page (any but a Unicode one), appended to *out. False when the page is not
// installed, and in stop mode for what cannot be converted; *out is then untouched. No best-fit mappings.
bool CodeSetSystemDecode(uint32_t codePage, const char* text, size_t length, CodeSet_Mode mode,
                         std::u16string* out);
bool CodeSetSystemEncode(uint32_t codePage, const char16_t* text, size_t units, CodeSet_Mode mode,
                         std::string* out);
