// Character sets: UTF-8 to UTF-16 and back for every Windows call, and text in any known encoding.
//
// Conversions go through ICU when its data file, icudt38l.dat, is there and sound, and through the system's
// own conversions otherwise. Both are equally strict about UTF-8 and UTF-16 and give the same results for
// them and for the code page of the system. Encodings are named as ICU, IANA or Windows name them ("UTF-8",
// "UTF-16LE", "windows-1252"); misc/encodingTable.h has the list. All functions may be called from any
// thread.
#pragma once

#include "misc/codesetUtf.h"

#include <cstddef>
#include <cstdint>
#include <string>

// A UTF-16 string of the kind that the system's calls take.
#ifdef _WIN32
using CodeSet_Unit = wchar_t;
#else
using CodeSet_Unit = char16_t;
#endif
using CodeSet_Utf16 = std::basic_string<CodeSet_Unit>;

inline constexpr char CODESET_DATA_FILE[] = "icudt38l.dat";

// Looks for the data file in the directory (UTF-8; null stands for the folder of the program's own file) and
// hands it to ICU. A file that is missing, damaged, cut or of another make counts as absent: then
// "CodeSet_Init: no ICU\n" goes to the debugger output and the system's conversions serve. True either way.
// Once per process, before the first conversion.
bool CodeSet_Init(const char* dataDirectory);

bool CodeSet_UsesIcu();
void CodeSet_DisableIcu(); // for the rest of the run

// "windows-1252" where that is the system's ANSI code page.
std::string CodeSet_LocalEncoding();

// Converts `length` bytes and appends the result to *output, which a failure leaves as it was. No input at
// all succeeds with nothing, whatever else is asked for. False for an encoding that is not known, and in stop
// mode for text that is invalid or that the target cannot express. A mode outside of the enumeration stops
// the program.
bool CodeSet_Convert(const char* inputEncoding, const void* input, size_t length, const char* outputEncoding,
                     CodeSet_Mode mode, std::string* output);

// UTF-8 to UTF-16 and back, strictly; false, with *out untouched, for invalid text and for more than 2^31 - 1
// bytes. Lengths are in bytes, so an odd length is invalid UTF-16.
bool CodeSet_ToUtf16(const char* utf8, size_t length, CodeSet_Utf16* out);
bool CodeSet_FromUtf16(const void* utf16, size_t length, std::string* out);

// Is the text valid in that encoding? An empty text is. More than 2^31 - 1 bytes stop the program.
bool CodeSet_IsValid(const void* text, size_t length, const char* encoding);
