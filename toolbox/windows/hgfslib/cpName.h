// Cross-platform names: path components separated by NUL bytes, turned into local Windows paths.
//
// A name never begins or ends with NUL; runs of NULs between components count as one separator; "." and ".."
// are no components. Names are bytes (UTF-8 in practice) and may hold anything else. All functions write
// their errors to the warning log, allocate nothing and may run on any thread.
#pragma once

#include <cstddef>
#include <cstdint>

// How far a name could be resolved to a local path. HgfsServer_MapNameStatus turns these into Windows errors.
enum HgfsNameStatus : uint32_t {
    HgfsNameComplete = 0,
    HgfsNameFailure = 1,           // malformed, or no room while converting
    HgfsNameIncompleteBase = 2,    // empty: stops before the share
    HgfsNameIncompleteRoot = 3,    // stops at the root share
    HgfsNameIncompleteDrive = 4,   // stops at "drive"
    HgfsNameIncompleteUnc = 5,     // stops at "unc"
    HgfsNameIncompleteMachine = 6, // stops at the machine
    HgfsNameDoesNotExist = 7,      // no such share, or neither "drive" nor "unc" below the root share
    HgfsNameAccessDenied = 8,
    HgfsNameInvalid = 9,
    HgfsNameOutOfMemory = 10,
    HgfsNameTooLong = 11,
};

// Where a conversion stands: input still to be read and room still to be written. The conversions below move
// it past what they consumed and wrote on success; after a failure it is unchanged and the output is to be
// thrown away. They end their output with a NUL, which is not counted as written.
struct CPNameCursor {
    const char* in;
    size_t inSize;
    char* out;
    size_t room;
};

// Length of the component at `begin`, with *next set to where the following one begins (or to `end`); 0 when
// nothing is left; -1, *next unset, for a NUL in front or behind the last component.
ptrdiff_t CPName_GetComponent(const char* begin, const char* end, const char** next);

// Appends every remaining component, each behind a `separator`. False for a malformed name, a dot component
// or too little room. When cursor->in equals cursor->out the name is taken to stand one byte further on,
// which is where the separators make it fit exactly.
bool CPNameConvertFrom(CPNameCursor* cursor, char separator);

// CPNameConvertFrom after escaping what Windows names cannot hold (hgfsEscape.h).
bool CPNameEscapeAndConvertFrom(CPNameCursor* cursor, char separator);

// The rest of a name below its prefix, with `\` in front of every component.
bool CPName_ConvertToLocal(CPNameCursor* cursor);

// The prefix that a name below the root share begins with: "drive", "C" gives `C:\`; "unc", "srv" gives
// `\\srv`. A bare machine name is refused with HgfsNameIncompleteMachine, "unc" consumed and the machine's
// name written.
HgfsNameStatus CPName_ConvertFromRoot(CPNameCursor* cursor);
