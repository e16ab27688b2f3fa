// Two small utilities: environment references in file names, and messages that carry an identifier.
#pragma once

#include "misc/diag.h"

#include <optional>
#include <string>

// Writes "Msg_Append: %s\n" with the formatted message, cut to 999 bytes, as a warning. A message begins with
// its identifier, "@&!*@*@(msg.util.x)", which is printed with it: there is no catalogue yet that would
// translate it. Any thread.
void Msg_Append(const char* format, ...) DIAG_PRINTF(1, 2);

// A copy of the name with each "$NAME" replaced: by the environment variable, which Windows finds without
// regard to case and which may be empty; else, for "PID", by the process id in decimal; else, for "USER", by
// the name of the logged-on user, or "unknown". Any other name is left as it stands, with a warning, cut to
// 100 bytes with its "$". None after more than 100 chunks (a reference, or the text between two) or when
// memory runs out, which has then been reported. A null name gives none. Any thread.
std::optional<std::string> Util_ExpandString(const char* fileName);
