// The known encodings, one row each. A row's position is the encoding's index and is stable from build to
// build.
//
// The rows are generated from ICU's own alias data, completed with the code pages that Windows documents; see
// encodingTableMake.cpp. No name stands in two rows, and a row whose names hold "windows-N" has the code page
// N. All functions may be called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>

struct EncodingTableRow {
    uint32_t codePage; // as Windows numbers it, 0 when it has none
    uint32_t unitSize; // bytes of the smallest character and so of a text's terminator: 1, 2 or 4
    // Each ends with a zero byte, the list with an empty name. ICU opens the first.
    const char* names;
};

inline constexpr int ENCODING_TABLE_UNKNOWN = -1;

size_t EncodingTable_Count();
const EncodingTableRow& EncodingTable_Row(size_t index);

// The row's index, or ENCODING_TABLE_UNKNOWN. Names are compared without regard to the case of ASCII letters.
int EncodingTable_FindName(const char* name);
int EncodingTable_FindCodePage(uint32_t codePage);

// Does ICU, with the data that it found, convert this encoding? No until the character sets start.
bool EncodingTable_IsSupported(size_t index);
void EncodingTable_SetSupported(size_t index, bool supported);
