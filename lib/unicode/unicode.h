// UTF-8 is the program's one string encoding; this is the way to and from everything else.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Strict decoding of big-endian UTF-16 (Joliet names): false, with *out untouched, for an odd number of bytes or a
// lone surrogate. Any thread.
bool Unicode_FromUtf16BigEndian(const uint8_t* bytes, size_t length, std::string* out);

// No overlong forms, surrogates, truncation or values beyond U+10FFFF. Any thread.
bool Unicode_IsValidUtf8(std::string_view text);

#ifdef _WIN32
// For a Windows call; none when the text is not valid UTF-8. Any thread.
std::optional<std::wstring> Unicode_ToWide(std::string_view text);

// None when the text is not valid UTF-16. Any thread.
std::optional<std::string> Unicode_FromWide(std::wstring_view text);
#endif
