// Finds the section of a loaded module that an address lies in, from the module's headers in memory.
//
// What is read: the DOS header's offset of the NT headers, and from there the number of sections, the size of
// the optional header and, behind it, the section table. The headers of a module in a crashing process may
// have been overwritten, so every number in them is checked against the bytes at hand before it is used. All
// numbers are little-endian.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

struct CoreDumpSection {
    uint32_t number; // from 1, as linker maps count
    uint32_t offset; // from the start of the section
};

// `headers` starts at the module's base and ends where memory stops being readable; `offset` counts from the
// base. None when the headers are no module's, when they or the section table leave the span, or when no
// section contains the offset. A section extends over the larger of its sizes in memory and in the file.
std::optional<CoreDumpSection> CoreDumpFindSection(std::span<const uint8_t> headers, uint64_t offset);
