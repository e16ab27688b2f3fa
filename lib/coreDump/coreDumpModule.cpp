#include "coreDump/coreDumpModule.h"

#include <algorithm>
#include <cstddef>

namespace {

constexpr size_t DOS_HEADER_SIZE = 64;
constexpr size_t DOS_NT_OFFSET = 60;       // 32 bits: where the NT headers begin
constexpr uint16_t DOS_SIGNATURE = 0x5A4D; // "MZ"

// The NT headers of a 64-bit module: signature, file header (20 bytes), optional header (240 bytes).
constexpr size_t NT_HEADERS_SIZE = 264;
constexpr uint32_t NT_SIGNATURE = 0x00004550; // "PE", 0, 0
constexpr size_t NT_SECTION_COUNT = 6;        // 16 bits
constexpr size_t NT_OPTIONAL_SIZE = 20;       // 16 bits: bytes of the optional header
constexpr size_t NT_OPTIONAL = 24;            // the optional header itself

constexpr size_t SECTION_SIZE = 40;
constexpr size_t SECTION_VIRTUAL_SIZE = 8;
constexpr size_t SECTION_VIRTUAL_ADDRESS = 12;
constexpr size_t SECTION_RAW_SIZE = 16;

uint16_t Read16(std::span<const uint8_t> bytes, size_t at) {
    return static_cast<uint16_t>(bytes[at] | bytes[at + 1] << 8);
}

uint32_t Read32(std::span<const uint8_t> bytes, size_t at) {
    return Read16(bytes, at) | static_cast<uint32_t>(Read16(bytes, at + 2)) << 16;
}

// From `at` to the end; empty when that lies outside.
std::span<const uint8_t> From(std::span<const uint8_t> bytes, size_t at) {
    return bytes.subspan(std::min(at, bytes.size()));
}

// The NT headers and all that follows them; empty when these are no module's headers.
std::span<const uint8_t> NtHeaders(std::span<const uint8_t> headers) {
    if (headers.size() < DOS_HEADER_SIZE || Read16(headers, 0) != DOS_SIGNATURE) {
        return {};
    }
    std::span<const uint8_t> nt = From(headers, Read32(headers, DOS_NT_OFFSET));
    if (nt.size() < NT_HEADERS_SIZE || Read32(nt, 0) != NT_SIGNATURE) {
        return {};
    }
    return nt;
}

} // namespace

std::optional<CoreDumpSection> CoreDumpFindSection(std::span<const uint8_t> headers, uint64_t offset) {
    std::span<const uint8_t> nt = NtHeaders(headers);
    if (nt.empty()) {
        return std::nullopt;
    }
    const uint32_t count = Read16(nt, NT_SECTION_COUNT);
    std::span<const uint8_t> table = From(nt, NT_OPTIONAL + Read16(nt, NT_OPTIONAL_SIZE));
    if (table.size() < count * SECTION_SIZE) {
        return std::nullopt;
    }
    for (uint32_t index = 0; index < count; index++) {
        std::span<const uint8_t> section = table.subspan(index * SECTION_SIZE, SECTION_SIZE);
        const uint64_t start = Read32(section, SECTION_VIRTUAL_ADDRESS);
        const uint64_t size =
            std::max(Read32(section, SECTION_VIRTUAL_SIZE), Read32(section, SECTION_RAW_SIZE));
        if (offset >= start && offset - start < size) {
            return CoreDumpSection{index + 1, static_cast<uint32_t>(offset - start)};
        }
    }
    return std::nullopt;
}
