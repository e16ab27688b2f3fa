// Which names of an image may become names in the guest's file system.
#pragma once

#include "iso9660/iso9660.h"

#include <string>
#include <string_view>

// Judges one name. Success sets *target to the part of `name` to create: all of it but trailing full stops
// and blanks, which the file system would drop by itself ("README." becomes "README").
//
// BadFormat, because the name would reach something other than a new entry of the directory it is in:
//   - nothing left ("", ".", "..", "...", ". ."),
//   - a separator ("/", "\\") or ":" (a drive, or a stream of another file),
//   - a control character, NUL included,
//   - a device ("NUL", "com1.txt", "LPT¹", "CONIN$"), in any case and with any extension.
// InvalidArgument: not UTF-8.
//
// Characters that the file system refuses by itself ("*", "?", "<", ">", "|", "\"") are left to it.
Iso9660_Result Iso9660TargetName(std::string_view name, std::string_view* target);

// `text` fit for one line of a log: control characters and bytes that are not UTF-8 become "?".
std::string Iso9660Printable(std::string_view text);
