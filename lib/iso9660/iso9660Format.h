// The bytes of an ISO-9660 image.
//
// Everything lies in sectors of 2048 bytes. Sectors 16 and up hold volume descriptors, one each, until a
// terminator. The primary descriptor carries the record of the root directory; a supplementary one may carry
// a second tree whose names are big-endian UTF-16 (Joliet). A directory is an extent of records; a record
// does not cross into the next sector in a well-formed image, and a zero length byte fills the rest of a
// sector. Behind a record's name lies the system-use area, a list of tagged entries that Rock Ridge uses for
// POSIX names and attributes; it may continue in another sector. Numbers are stored in both byte orders; only
// the little-endian half is looked at, since some makers get the other one wrong.
//
// Tolerated: no terminator, other descriptor kinds between, logical block sizes other than 2048 (sectors are
// counted in 2048 bytes all the same), a record that crosses into the next sector, an image cut off behind
// its last used sector, unknown system-use entries.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr uint32_t ISO_SECTOR_SIZE = 2048;
inline constexpr uint32_t ISO_SECTOR_SHIFT = 11;
static_assert(ISO_SECTOR_SIZE == 1u << ISO_SECTOR_SHIFT);

// Volume descriptors.
inline constexpr uint32_t ISO_FIRST_DESCRIPTOR = 16;    // sector
inline constexpr uint32_t ISO_END_OF_DESCRIPTORS = 100; // sector; a limit of ours
inline constexpr uint8_t ISO_DESCRIPTOR_PRIMARY = 1;
inline constexpr uint8_t ISO_DESCRIPTOR_SUPPLEMENTARY = 2;
inline constexpr uint8_t ISO_DESCRIPTOR_TERMINATOR = 255;
inline constexpr size_t ISO_DESCRIPTOR_IDENTIFIER = 1;
inline constexpr size_t ISO_IDENTIFIER_LENGTH = 5;
inline constexpr size_t ISO_DESCRIPTOR_VOLUME_FLAGS = 7;
inline constexpr size_t ISO_DESCRIPTOR_ESCAPES = 88;
inline constexpr size_t ISO_DESCRIPTOR_BLOCK_SIZE = 128;
inline constexpr size_t ISO_DESCRIPTOR_ROOT = 156;
inline constexpr size_t ISO_ROOT_RECORD_LENGTH = 34;

// Directory records.
inline constexpr size_t ISO_RECORD_EXTENT = 2;
inline constexpr size_t ISO_RECORD_SIZE = 10;
inline constexpr size_t ISO_RECORD_TIME = 18;
inline constexpr size_t ISO_RECORD_FLAGS = 25;
inline constexpr size_t ISO_RECORD_NAME_LENGTH = 32;
inline constexpr size_t ISO_RECORD_NAME = 33;
inline constexpr size_t ISO_RECORD_MAXIMUM = 255; // its length is one byte
inline constexpr uint8_t ISO_FLAG_DIRECTORY = 0x02;
inline constexpr uint8_t ISO_FLAG_MORE_EXTENTS = 0x80;
static_assert(ISO_ROOT_RECORD_LENGTH == ISO_RECORD_NAME + 1, "the root's name is one byte");

// System-use entries: signature (2 bytes), length of the whole entry, version, data.
inline constexpr size_t SUSP_LENGTH = 2;
inline constexpr size_t SUSP_VERSION = 3;
inline constexpr size_t SUSP_HEADER = 4;

using IsoBytes = std::span<const uint8_t>;

// Decoding over a bounded span. The caller has made sure that the bytes are there.
constexpr uint16_t IsoLittle16(IsoBytes bytes, size_t offset) {
    return static_cast<uint16_t>(bytes[offset] | bytes[offset + 1] << 8);
}
constexpr uint32_t IsoLittle32(IsoBytes bytes, size_t offset) {
    return IsoLittle16(bytes, offset) | static_cast<uint32_t>(IsoLittle16(bytes, offset + 2)) << 16;
}

// A directory record taken apart. The spans point into the bytes it was parsed from.
struct IsoRecord {
    uint32_t firstSector = 0;
    uint32_t size = 0; // bytes
    uint8_t flags = 0;
    IsoBytes time;
    IsoBytes name;
    IsoBytes systemUse;

    bool IsDirectory() const { return (flags & ISO_FLAG_DIRECTORY) != 0; }
    bool IsSelf() const { return name.size() == 1 && name[0] == 0; }
    bool IsParent() const { return name.size() == 1 && name[0] == 1; }
};

// `bytes` is exactly one record, as its length byte says. False when the record is too short for its own
// name.
bool IsoParseRecord(IsoBytes bytes, IsoRecord* record);

bool IsoHasIdentifier(IsoBytes descriptor, const char* identifier);
bool IsoIsJoliet(IsoBytes descriptor);
