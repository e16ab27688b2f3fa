// Extraction.
//
// The target's full path is worked out once, and a subdirectory is entered through its record, not by looking
// its path up again; so a file costs its own open, reads, writes and close, and nothing else. One set of
// buffers serves the whole walk: memory does not grow with the image, and with the depth only by the stack of
// directories being walked, whose number the length of the paths bounds.
#include "iso9660/iso9660Image.h"
#include "iso9660/iso9660System.h"
#include "iso9660/iso9660Target.h"

#include "file/file.h"
#include "misc/diag.h"
#include "string/str.h"

#include <optional>
#include <string_view>
#include <utility>

namespace {

constexpr uint32_t CHUNK_SIZE = 2048;
constexpr size_t MAXIMUM_PATH_SUM = 260; // bytes of a path and of the name to go behind it

// A tree of this few files beside a UDF file system only says that the content is over there.
constexpr uint32_t MAXIMUM_README_FILES = 2;

std::string Join(std::string_view directory, std::string_view name) {
    std::string path;
    path.reserve(directory.size() + 1 + name.size());
    return path.append(directory).append("\\").append(name);
}

// To the debugger output, and as a warning, which the program also keeps in its log: what went wrong with an
// upgrade must be told from there.
void Report(const std::string& line) {
    Debug("%s", line.c_str());
    Warning("%s", line.c_str());
}

// Reports one failure and returns its code. `source` is the path in the image. The place that fails calls
// this; the callers above it only pass the code on.
Iso9660_Result Fail(std::string_view source, const char* what, Iso9660_Result result) {
    Report(Str_Format("Iso9660_Extract: %s: %s (code %u)\n", Iso9660Printable(source).c_str(), what,
                      static_cast<unsigned>(result)));
    return result;
}

// The same for a call to the file layer on `path`, with the system's own reason.
Iso9660_Result FailCall(std::string_view source, const char* what, std::string_view path,
                        const std::string& reason = Iso9660LastError()) {
    std::string failed = Str_Format("%s %s: %s", what, Iso9660Printable(path).c_str(), reason.c_str());
    return Fail(source, failed.c_str(), Iso9660_Result::IoError);
}

// ---- One file

struct OutputFile {
    FileIODescriptor descriptor;

    OutputFile() { FileIO_Invalidate(&descriptor); }
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile() {
        if (FileIO_IsValid(&descriptor)) {
            FileIO_Close(&descriptor);
        }
    }
};

Iso9660_Result CopyChunks(Iso9660_Image* image, Iso9660_File* file, OutputFile* output,
                          std::string_view source, const std::string& path) {
    uint8_t chunk[CHUNK_SIZE];
    for (;;) {
        uint32_t length = CHUNK_SIZE;
        Iso9660_Result result = Iso9660_Read(image, file, chunk, &length);
        if (result == Iso9660_Result::End) {
            return Iso9660_Result::Success;
        }
        if (result != Iso9660_Result::Success) {
            return Fail(source, Str_Format("cannot read byte %u of the file", file->position).c_str(),
                        result);
        }
        if (FileIO_Write(&output->descriptor, chunk, length, nullptr) != FileIOResult::Success) {
            return FailCall(source, "cannot write", path);
        }
    }
}

// Writes the content of `entry`, which is `source` in the image, to the file `path`.
Iso9660_Result WriteEntry(Iso9660_Image* image, const Iso9660_Entry& entry, std::string_view source,
                          const std::string& path) {
    Iso9660_File file;
    Iso9660_Result result = Iso9660_OpenFile(image, &entry, &file);
    if (result != Iso9660_Result::Success) {
        return Fail(source, "not a file", result);
    }
    if (entry.moreExtents) {
        return Fail(source, "a file in several extents (4 GiB or more) cannot be read",
                    Iso9660_Result::BadFormat);
    }
    OutputFile output;
    if (FileIO_Open(&output.descriptor, path.c_str(), FILEIO_OPEN_WRITE, FileIOOpenAction::CreateEmpty) !=
        FileIOResult::Success) {
        return FailCall(source, "cannot create", path);
    }
    result = CopyChunks(image, &file, &output, source, path);
    if (result == Iso9660_Result::Success && FileIO_Close(&output.descriptor)) {
        return FailCall(source, "cannot close", path);
    }
    return result;
}

// ---- A tree

struct Extraction {
    Iso9660_Image* image;
    std::string source; // the directory being extracted, as a path in the image
    std::string target; // where it goes: a full path
    bool targetIsDirectory;
    uint64_t maximumReads; // of directory sectors, in the whole walk
    uint32_t files = 0;
    Iso9660_Entry entry = {}; // the one at hand
};

// The directories being walked, innermost first.
struct Walked {
    const Walked* outer;
    uint32_t firstSector;
};

bool IsBeingWalked(const Walked* innermost, uint32_t firstSector) {
    for (const Walked* walked = innermost; walked; walked = walked->outer) {
        if (walked->firstSector == firstSector) {
            return true;
        }
    }
    return false;
}

Iso9660_Result FailEntry(const Extraction& extraction, const char* what, Iso9660_Result result) {
    return Fail(Join(extraction.source, extraction.image->name), what, result);
}

// The name that the entry at hand gets in the target. It stays where it is until the next entry is read.
Iso9660_Result TargetName(const Extraction& extraction, std::string_view* name) {
    Iso9660_Result result = Iso9660TargetName(extraction.image->name, name);
    return result == Iso9660_Result::Success ? result : FailEntry(extraction, "unusable name", result);
}

Iso9660_Result ExtractFileEntry(Extraction* extraction) {
    std::string source = Join(extraction->source, extraction->image->name);
    ++extraction->files;
    if (!extraction->targetIsDirectory) {
        return WriteEntry(extraction->image, extraction->entry, source, extraction->target);
    }
    std::string_view name;
    Iso9660_Result result = TargetName(*extraction, &name);
    if (result != Iso9660_Result::Success) {
        return result;
    }
    return WriteEntry(extraction->image, extraction->entry, source, Join(extraction->target, name));
}

// Creating answers most questions with one call: what could be created did not exist. On failure, *reason is
// the system's.
bool MakeDirectory(const std::string& path, std::string* reason) {
    if (File_CreateDirectory(path.c_str())) {
        return true;
    }
    *reason = Iso9660LastError(); // before the next call has one of its own
    return File_IsDirectory(path.c_str());
}

Iso9660_Result ExtractTree(Extraction* extraction, Iso9660_Dir dir, const Walked* outer);

Iso9660_Result ExtractDirectoryEntry(Extraction* extraction, const Walked* walked) {
    const Iso9660_Entry& entry = extraction->entry;
    const std::string& ownName = extraction->image->name;
    std::string_view name;
    Iso9660_Result result = TargetName(*extraction, &name);
    if (result != Iso9660_Result::Success) {
        return result;
    }
    if (entry.size != 0 && IsBeingWalked(walked, entry.firstSector)) {
        return FailEntry(*extraction, "a directory inside itself", Iso9660_Result::BadFormat);
    }
    size_t sourceLength = extraction->source.size();
    size_t targetLength = extraction->target.size();
    if (targetLength + ownName.size() > MAXIMUM_PATH_SUM) {
        return FailEntry(*extraction, "the target path is too long", Iso9660_Result::IoError);
    }
    extraction->target.append("\\").append(name);
    std::string reason;
    if (!MakeDirectory(extraction->target, &reason)) {
        return FailCall(Join(extraction->source, ownName), "cannot create the directory", extraction->target,
                        reason);
    }
    if (sourceLength + ownName.size() > MAXIMUM_PATH_SUM) {
        return FailEntry(*extraction, "the path in the image is too long", Iso9660_Result::IoError);
    }
    extraction->source.append("\\").append(ownName);

    result = ExtractTree(extraction, {entry.firstSector, entry.firstSector, entry.size, 0}, walked);
    extraction->source.resize(sourceLength);
    extraction->target.resize(targetLength);
    return result;
}

Iso9660_Result ExtractTree(Extraction* extraction, Iso9660_Dir dir, const Walked* outer) {
    Iso9660_Image* image = extraction->image;
    Walked walked = {outer, dir.firstSector};
    for (;;) {
        bool isSelfOrParent = false;
        Iso9660_Result result = Iso9660ReadListed(image, &dir, &extraction->entry, &isSelfOrParent);
        if (result == Iso9660_Result::End) {
            return Iso9660_Result::Success;
        }
        if (result == Iso9660_Result::Success && image->directoryReads > extraction->maximumReads) {
            result = Iso9660_Result::BadFormat;
        }
        if (result != Iso9660_Result::Success) {
            std::string what = Str_Format("cannot read the directory at sector %u, byte %u",
                                          dir.currentSector, dir.position);
            return Fail(extraction->source + "\\", what.c_str(), result);
        }
        if (extraction->entry.isDir && isSelfOrParent) {
            continue;
        }
        result = extraction->entry.isDir ? ExtractDirectoryEntry(extraction, &walked)
                                         : ExtractFileEntry(extraction);
        if (result != Iso9660_Result::Success) {
            return result;
        }
    }
}

// Directories of a sound image share no sectors, so that walking a tree reads each of its sectors once, and
// the one at hand once more after every subdirectory: at most twice as many reads as the image has sectors. A
// tree that takes more has directories within directories in ways that would keep the walk busy for ages.
Iso9660_Result MaximumDirectoryReads(Iso9660_Image* image, uint64_t* reads) {
    int64_t size = FileIO_Seek(&image->file, 0, FileIOSeekOrigin::End);
    image->filePositionKnown = false;
    if (size < 0) {
        return Iso9660_Result::IoError;
    }
    *reads = 2 * ((static_cast<uint64_t>(size) >> ISO_SECTOR_SHIFT) + 1);
    return Iso9660_Result::Success;
}

void WarnOfUdf(const Extraction& extraction) {
    if (extraction.files <= MAXIMUM_README_FILES && Iso9660HoldsUdf(extraction.image)) {
        Report(Str_Format("Iso9660_Extract: %s: only %u files here, but the image also holds a UDF file "
                          "system, which is not read\n",
                          Iso9660Printable(extraction.source + "\\").c_str(), extraction.files));
    }
}

Iso9660_Result ExtractDirectory(Iso9660_Image* image, std::string_view imagePath, const char* targetPath) {
    std::string source(imagePath);
    std::optional<std::string> target = File_FullPath(targetPath);
    if (!target) {
        return FailCall(source, "cannot resolve", targetPath ? targetPath : "");
    }
    Iso9660_Dir dir;
    Iso9660_Result result = Iso9660_OpenDir(image, source.c_str(), &dir);
    if (result != Iso9660_Result::Success) {
        return Fail(source, "cannot open the directory", result);
    }
    bool targetIsDirectory = File_IsDirectory(target->c_str());
    Extraction extraction = {image, std::move(source), *std::move(target), targetIsDirectory, 0};
    result = MaximumDirectoryReads(image, &extraction.maximumReads);
    if (result != Iso9660_Result::Success) {
        return FailCall(extraction.source, "cannot tell the size of", "the image");
    }
    image->directoryReads = 0;
    result = ExtractTree(&extraction, dir, nullptr);
    if (result == Iso9660_Result::Success) {
        WarnOfUdf(extraction);
    }
    return result;
}

Iso9660_Result ExtractFile(Iso9660_Image* image, const Iso9660_Entry& entry, std::string_view source,
                           const char* targetPath) {
    std::optional<std::string> path = File_FullPath(targetPath);
    if (!path) {
        return FailCall(source, "cannot resolve", targetPath ? targetPath : "");
    }
    if (File_IsDirectory(path->c_str())) {
        std::string_view name;
        Iso9660_Result result = Iso9660TargetName(entry.name, &name);
        if (result != Iso9660_Result::Success) {
            return Fail(source, "unusable name", result);
        }
        path = Join(*path, name);
    }
    return WriteEntry(image, entry, source, *path);
}

// One named file or directory of a directory.
Iso9660_Result ExtractNamed(Iso9660_Image* image, std::string_view imagePath, std::string_view directory,
                            std::string_view name, const char* targetPath) {
    Iso9660_Dir dir;
    Iso9660_Result result = Iso9660_OpenDir(image, std::string(directory).c_str(), &dir);
    Iso9660_Entry entry;
    while (result == Iso9660_Result::Success) {
        result = Iso9660_ReadDir(image, &dir, &entry);
        if (result == Iso9660_Result::Success && entry.name == name) {
            return entry.isDir ? ExtractDirectory(image, imagePath, targetPath)
                               : ExtractFile(image, entry, imagePath, targetPath);
        }
    }
    if (result == Iso9660_Result::End) {
        result = Iso9660_Result::NotFound;
    }
    return Fail(imagePath, "cannot find it in the image", result);
}

Iso9660_Result ExtractPath(Iso9660_Image* image, std::string_view imagePath, const char* targetPath) {
    static constexpr std::string_view separators = "\\/";
    size_t nameStart = imagePath.find_last_of(separators) + 1; // 0 without a separator
    std::string_view name = imagePath.substr(nameStart);
    std::string_view directory = imagePath.substr(0, nameStart);
    directory = directory.substr(0, directory.find_last_not_of(separators) + 1);
    return name.empty() ? ExtractDirectory(image, directory, targetPath)
                        : ExtractNamed(image, imagePath, directory, name, targetPath);
}

// The library's edge. What memory is left may not do for a message of many parts, so this one takes none.
template <typename Body>
Iso9660_Result GuardExtraction(Body body) {
    Iso9660_Result result = Iso9660Guard(body);
    if (result == Iso9660_Result::OutOfMemory) {
        static constexpr char LINE[] = "Iso9660_Extract: out of memory (code 6)\n";
        Debug(LINE);
        Warning(LINE);
    }
    return result;
}

} // namespace

Iso9660_Result Iso9660_Extract(Iso9660_Image* image, const char* imagePath, const char* targetPath) {
    if (!Iso9660IsUsable(image)) {
        return Iso9660_Result::InvalidArgument;
    }
    return GuardExtraction([&] { return ExtractPath(image, imagePath ? imagePath : "", targetPath); });
}

Iso9660_Result Iso9660_ExtractDir(Iso9660_Image* image, const char* imagePath, const char* targetPath) {
    if (!Iso9660IsUsable(image) || !imagePath) {
        return Iso9660_Result::InvalidArgument;
    }
    return GuardExtraction([&] { return ExtractDirectory(image, imagePath, targetPath); });
}

Iso9660_Result Iso9660_ExtractFile(Iso9660_Image* image, const Iso9660_Entry* entry, const char* targetPath) {
    if (!Iso9660IsUsable(image) || !entry) {
        return Iso9660_Result::InvalidArgument;
    }
    return GuardExtraction([&] { return ExtractFile(image, *entry, entry->name, targetPath); });
}
