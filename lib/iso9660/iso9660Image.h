// What the units of this library share: the open image and the steps below its public calls.
#pragma once

#include "file/fileIO.h"
#include "iso9660/iso9660.h"
#include "iso9660/iso9660Format.h"

#include <array>
#include <memory>
#include <new>
#include <string>

inline constexpr uint32_t ISO9660_MODE_CLOSE_ONLY = 1;

inline constexpr uint32_t ISO9660_FLAG_OPENED = 1;
inline constexpr uint32_t ISO9660_FLAG_JOLIET = 2;
inline constexpr uint32_t ISO9660_FLAG_ROCK_RIDGE = 4;

using IsoSector = std::array<uint8_t, ISO_SECTOR_SIZE>;

// The directory sectors read last: one, or two when a record reaches into the second. Listing a directory
// reads each of its sectors once, and extracting the files in between does not disturb it.
struct IsoWindow {
    std::array<uint8_t, size_t{2} * ISO_SECTOR_SIZE> bytes;
    uint64_t firstSector = 0;
    uint32_t sectors = 0; // how many of `bytes` are filled
};

struct Iso9660_Image {
    FileIODescriptor file;
    uint32_t mode = 0;
    uint32_t flags = 0;
    uint8_t suspSkip = 0; // bytes that precede every record's system-use entries
    std::unique_ptr<IsoSector> primary;
    std::unique_ptr<IsoSector> supplementary; // the Joliet one, if in use
    const uint8_t* root = nullptr;            // ISO_ROOT_RECORD_LENGTH bytes inside one of the two

    // How far reading got, so that sequential reads need no seek, and the buffers that make it run without
    // allocations.
    uint64_t filePosition = 0;
    bool filePositionKnown = false;
    uint64_t nextDescriptor = 0; // sector behind the last descriptor read
    uint64_t directoryReads = 0; // directory sectors read from the file since the count was last reset
    IsoWindow window;
    IsoSector continuation; // of a system-use area
    IsoSector scratch;      // for reads of parts of a sector
    std::string name;       // of the record at hand; may hold any byte, NUL included
};

// Reads whole sectors. EndOfFile when the image ends before or inside them.
FileIOResult Iso9660ReadSectors(Iso9660_Image* image, uint64_t sector, uint32_t count, void* buffer);

Iso9660_Dir Iso9660RootDir(const Iso9660_Image* image);

// The record at dir's position, and dir moved behind it. `record` points into the image's window: it holds
// until the next record is asked for. End at the end of the directory.
Iso9660_Result Iso9660NextRecord(Iso9660_Image* image, Iso9660_Dir* dir, IsoRecord* record);

// As Iso9660_ReadDir, and says whether this is the genuine "." or "..". The image's `name` is the whole name,
// where the entry's seems to end at a NUL.
Iso9660_Result Iso9660ReadListed(Iso9660_Image* image, Iso9660_Dir* dir, Iso9660_Entry* entry,
                                 bool* isSelfOrParent);

// True when a UDF file system stands behind (or instead of) the ISO-9660 descriptors.
bool Iso9660HoldsUdf(Iso9660_Image* image);

// The library's edge: memory that runs out inside `body` becomes a code.
template <typename Body>
Iso9660_Result Iso9660Guard(Body body) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return Iso9660_Result::OutOfMemory;
    }
}

inline bool Iso9660IsUsable(const Iso9660_Image* image) {
    return image && image->mode != ISO9660_MODE_CLOSE_ONLY;
}
