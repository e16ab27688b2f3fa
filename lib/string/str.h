// Allocating printf. One place decides which formatter the messages go through: on Windows the C runtime's
// own (so "%I64u" and "%S" behave as the message texts need), elsewhere the platform's.
#pragma once

#include "misc/diag.h"

#include <cstdarg>
#include <string>

// Formats into `*out`. Returns false when the formatter refuses the arguments; `*out` is then untouched.
// Any thread.
bool Str_Asprintf(std::string* out, const char* format, ...) DIAG_PRINTF(2, 3);
bool Str_Vasprintf(std::string* out, const char* format, va_list arguments) DIAG_PRINTF(2, 0);

// As Str_Asprintf, for formats that cannot fail; gives the empty string if one does.
std::string Str_Format(const char* format, ...) DIAG_PRINTF(1, 2);
