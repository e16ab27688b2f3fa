// UTF-8 is the program's one string encoding; this is the way to and from everything else.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

using Utf16 = std::basic_string<char16_t>;

// One-time start-up: loads ICU and finds the local encoding. Failure is fatal (Panic). Any thread.
// wideArguments and wideEnvironment may be null; the converted lists replace the narrow ones.
void Unicode_Startup(const char* dataDirectory);

// Converts a Windows string to UTF-8; text that is not valid UTF-16 is a programming error and ends in Panic.
// These two are for names that the system itself handed out.
#ifdef _WIN32
std::string Unicode_FromWide(const wchar_t* text);

// UTF-8 to a wide string for a Windows call; none when the text is not valid UTF-8.
std::optional<std::wstring> Unicode_ToWide(std::string_view text);
// As above without the Panic: none when the text is not valid UTF-16.
std::optional<std::string> Unicode_TryFromWide(std::wstring_view text);
#endif
