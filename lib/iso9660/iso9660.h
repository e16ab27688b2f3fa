// Reads ISO-9660 images (plain, Joliet or Rock Ridge names) and extracts them.
//
// An image is opened once, walked by path, listed entry by entry and read file by file; extraction puts these
// together for a file or a whole tree. Names are UTF-8; plain and Rock Ridge names are the image's own bytes,
// which nobody promised to be UTF-8. Paths inside an image separate with "\\" or "/", compare
// case-sensitively, and their empty components are skipped.
//
// The image is hostile until proven otherwise: damaged lengths, loops and truncation end with a code, and a
// name that could reach outside the target directory stops the extraction before anything of it is written.
//
// An image and everything opened from it belong to one thread at a time. A null pointer where a value is
// needed gives InvalidArgument. A function that fails leaves its outputs untouched, unless said otherwise.
#pragma once

#include <cstddef>
#include <cstdint>

enum class Iso9660_Result : uint32_t {
    Success = 0,
    IoError = 2, // the image could not be read, or something could not be created or written
    End = 5,     // no more entries, or end of file
    OutOfMemory = 6,
    NotFound = 7,        // a component of a path is not there
    InvalidArgument = 8, // also a name that does not fit or is not text, and every use of a mode-1 image
    BadFormat = 9,       // not an ISO-9660 image, or a damaged one
    NoExtension = 11,    // the wanted extension is not in the image
};

inline constexpr uint32_t ISO9660_WANT_JOLIET = 2;
inline constexpr uint32_t ISO9660_WANT_ROCK_RIDGE = 4;

inline constexpr size_t ISO9660_NAME_SIZE = 260; // bytes, the terminator included
inline constexpr size_t ISO9660_TIME_SIZE = 7;

struct Iso9660_Image; // opaque to callers

// Plain values that own nothing; copies go their own ways. A "sector" is 2048 bytes, counted from the image's
// start.
struct Iso9660_Dir {
    uint32_t firstSector;
    uint32_t currentSector;
    uint32_t size;     // bytes
    uint32_t position; // bytes from the start of the current sector; past its end until the next call, maybe
};

struct Iso9660_File {
    uint32_t firstSector;
    uint32_t size;     // bytes
    uint32_t position; // bytes from the start of the file
};

struct Iso9660_Entry {
    char name[ISO9660_NAME_SIZE];
    bool isDir;
    bool moreExtents; // the file goes on in the next entry of this name; extraction refuses it
    uint32_t mode;    // POSIX mode, links and owner from Rock Ridge; 0 without it
    uint32_t links;
    uint32_t userId;
    uint32_t firstSector;
    uint32_t size; // bytes
    // Years since 1900, month, day, hour, minute, second, zone in quarter hours; with Rock Ridge the time of
    // creation where there is one.
    uint8_t recordingTime[ISO9660_TIME_SIZE];
};

// `wanted` is a set of ISO9660_WANT_ bits. Without Joliet in the image, wanting it gives NoExtension; without
// Rock Ridge, the image opens with plain names. Mode 0 reads; mode 1 opens an image that refuses everything
// but close. IoError: the file cannot be opened or read. BadFormat: no usable descriptors in sectors 16
// to 99.
Iso9660_Result Iso9660_Open(const char* path, uint32_t wanted, uint32_t mode, Iso9660_Image** image);

// Frees the image whatever it answers; IoError when the file was not open or did not close. Null gives
// Success.
Iso9660_Result Iso9660_Close(Iso9660_Image* image);

// Only directories are matched, so a file's name on the way gives NotFound. No path components: the root. A
// damaged record met on the way, or one whose name cannot be worked out, gives the code that ReadDir would
// give.
Iso9660_Result Iso9660_OpenDir(Iso9660_Image* image, const char* path, Iso9660_Dir* dir);

// Entries come in the order of the image, "." and ".." included. End: nothing more to come. One directory
// shape is listed short, and callers count on it: when a directory's last record ends exactly where a
// directory of at most one sector ends, that record is filled in but answered with End. OpenDir does find it.
// A failing call leaves `dir` where it stood.
Iso9660_Result Iso9660_ReadDir(Iso9660_Image* image, Iso9660_Dir* dir, Iso9660_Entry* entry);

// InvalidArgument for a directory's entry. There is nothing to close.
Iso9660_Result Iso9660_OpenFile(Iso9660_Image* image, const Iso9660_Entry* entry, Iso9660_File* file);

// *length: in, room in the buffer in bytes; out, bytes delivered, which is less only at the end of the file.
// End (and a length of 0) when the position is at or past the size. The image must hold the file's last
// sector whole.
Iso9660_Result Iso9660_Read(Iso9660_Image* image, Iso9660_File* file, void* buffer, uint32_t* length);

// Extraction. What was written before a failure stays. Existing directories are reused, existing files
// replaced; no times, attributes or permissions are applied. A null target path is the current directory. A
// failure is reported once, by a line that names the entry and the code and goes to Debug and to Warning.
//
// IoError also stands for: a name that does not fit behind the path (the two together over 260 bytes, the
// separator not counted), a file where a directory must be. BadFormat also for: a directory inside itself, a
// file in several extents (there is no way to hold 4 GiB and more), a name that must not become one here (see
// iso9660Target.h). InvalidArgument also for: a name that is not UTF-8.

// `imagePath` names a file or a directory of the image; ending in a separator, or null, a directory.
Iso9660_Result Iso9660_Extract(Iso9660_Image* image, const char* imagePath, const char* targetPath);

// Everything below a directory, itself not included. The target directory must exist; without it, files go to
// the target's own name, one over the other.
Iso9660_Result Iso9660_ExtractDir(Iso9660_Image* image, const char* imagePath, const char* targetPath);

// Into an existing directory under the entry's name, or to the target's own name. InvalidArgument for a
// directory.
Iso9660_Result Iso9660_ExtractFile(Iso9660_Image* image, const Iso9660_Entry* entry, const char* targetPath);
