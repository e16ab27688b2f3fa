// Names that Windows cannot hold, written so that it can, and back.
//
// A name or buffer here is one or more components separated by NUL bytes. The escape character is '%': an
// illegal character becomes a substitute and '%'; a reserved device name and a trailing dot or blank get a
// '%' behind them; a '%' that would read as one of these becomes "]%". HgfsEscape_Reverse undoes exactly
// that. Nothing is allocated; any thread.
#pragma once

#include <cstddef>

// Length of the escaped name, one NUL behind it not counted; 0 when nothing needs escaping; -1, with a
// warning, for a name that ends in more NULs.
ptrdiff_t HgfsEscape_GetSize(const char* name, size_t length);

// Writes the escaped name, NUL bytes as they stand, and returns its length; -1 when it does not fit into
// `room`, the output then being incomplete. The output is not terminated and must not overlap the name.
ptrdiff_t HgfsEscape_Apply(const char* name, size_t length, size_t room, char* out);

// Undoes the escape in place and returns the new length; -1 for a null buffer.
ptrdiff_t HgfsEscape_Reverse(char* buffer, size_t length);
