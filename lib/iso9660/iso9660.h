// Reads ISO-9660 images (with Joliet or Rock Ridge names) and extracts them.
#pragma once

#include <cstdint>

enum class Iso9660_Result : uint32_t {
    Success = 0,
    IoError = 2,
    End = 5,          // no more entries, or end of file
    OutOfMemory = 6,
    NotFound = 7,
    InvalidArgument = 8,
    BadFormat = 9,
    NoExtension = 11, // the wanted extension is not in the image
};

inline constexpr uint32_t ISO9660_WANT_JOLIET = 2;
inline constexpr uint32_t ISO9660_WANT_ROCK_RIDGE = 4;

struct Iso9660_Image; // opaque to callers

// mode 0 reads; mode 1 opens an image that refuses everything but close.
Iso9660_Result Iso9660_Open(const char* path, uint32_t wanted, uint32_t mode, Iso9660_Image** image);
Iso9660_Result Iso9660_Close(Iso9660_Image* image);
Iso9660_Result Iso9660_Extract(Iso9660_Image* image, const char* imagePath, const char* targetPath);
