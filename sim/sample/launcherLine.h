// The command line of a Setup Launcher: /s (show nothing), /w (wait for the installer), /v"..." with what is
// meant for the Windows Installer, and /L with a value that this launcher has no use for.
#pragma once

#include <string_view>

// What stands behind the program's own name in a whole command line.
std::wstring_view LauncherLine_SkipProgram(std::wstring_view commandLine);

// Finds what `line`, the arguments behind the program's own name, hands to the installer: the text in
// /v"...", its outer quotes removed, or nothing without /v. Writes it, terminated, to `installerArgs`, which
// has room for as many characters as `line` and the terminator. False when there is something that is no
// launcher's option, or when the quote behind /v is never closed; what was written then means nothing.
//
// Quotes inside /v"..." need no escaping: one between a blank or an equals sign and something that is no
// blank opens an inner quoted part, and the next quote closes that part. The first quote that does neither
// ends the whole. `\"` outside an inner part is an inner quote too, as other callers spell it, and loses its
// backslash.
bool LauncherLine_Parse(std::wstring_view line, wchar_t* installerArgs);
