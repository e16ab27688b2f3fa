// UTF-8 is the program's one string encoding; this is the way to and from everything else.
//
// An encoding is passed as its index in the encoding table; -1 stands for the encoding of the system's ANSI
// code page, and any other negative index for one that is not known. Any thread, unless said otherwise.
#pragma once

#include "misc/codeset.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

inline constexpr int UNICODE_ENCODING_LOCAL = -1;

// Starts the character sets, once per process; later calls do nothing, and calls at the same time wait. The
// data directory is CodeSet_Init's. The lists are replaced by their UTF-8 forms: from the wide list where one
// is given, else from the local encoding. A wide list ends with a null entry, the argument list after
// argumentCount entries at the latest. Null lists are left out. Failure is fatal: nothing can run without
// UTF-8 strings.
void Unicode_Startup(int argumentCount, const char* dataDirectory, const CodeSet_Unit* const* wideArguments,
                     const CodeSet_Unit* const* wideEnvironment, std::vector<std::string>* arguments,
                     std::vector<std::string>* environment);
inline void Unicode_Startup(const char* dataDirectory) {
    Unicode_Startup(0, dataDirectory, nullptr, nullptr, nullptr, nullptr);
}

// Strict decoding of big-endian UTF-16 (Joliet names): false, with *out untouched, for an odd number of bytes
// or a lone surrogate.
bool Unicode_FromUtf16BigEndian(const uint8_t* bytes, size_t length, std::string* out);

// No overlong forms, surrogates, truncation or values beyond U+10FFFF.
bool Unicode_IsValidUtf8(std::string_view text);

// For a Windows call; none when the text is not valid UTF-8. Takes no ICU converter and, for the length of a
// name, allocates nothing but its result.
std::optional<CodeSet_Utf16> Unicode_ToWide(std::string_view text);

// None when the text is not valid UTF-16.
std::optional<std::string> Unicode_FromWide(std::basic_string_view<CodeSet_Unit> text);

// The UTF-8 form of a text in the given encoding; none only for a null buffer. Length -1 means up to the
// terminator, which is two zero bytes in the UTF-16 encodings, four in the UTF-32 ones and one elsewhere.
// Invalid text is a programming error and stops the program: check foreign text with CodeSet_IsValid first.
std::optional<std::string> Unicode_AllocWithLength(const void* buffer, ptrdiff_t length, int encoding);

// Copies a UTF-8 text, which must be valid, into a UTF-16 buffer of `destinationSize` bytes, with a
// terminator and without splitting a surrogate pair. *copied is in bytes, without the terminator. False when
// the text was cut; a destination of less than two bytes receives nothing.
bool Unicode_CopyToUtf16(CodeSet_Unit* destination, const char* source, size_t destinationSize,
                         size_t* copied);

// The encoding's index, or -1 for an unknown name. "windows-" and digits only stand for the code page of that
// number; other names are compared without regard to case. A null name gives -1.
int Unicode_EncodingNameToIndex(const char* name);

// The first name of an encoding, valid for ever. An index outside of the table stops the program.
const char* Unicode_EncodingEnumToName(int encoding);
