#include "fileMemory.h"

#include "file/file.h"
#include "file/fileIO.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

FileMemory fileMemory;

namespace {

struct OpenFile {
    std::string* content = nullptr; // null: the image
    uint64_t position = 0;
};

[[noreturn]] void Violation(const char* what, const char* path) {
    fprintf(stderr, "fileMemory: %s: '%s'\n", what, path);
    abort();
}

bool Fails() {
    if (++fileMemory.calls != fileMemory.failingCall) {
        return false;
    }
    fileMemory.failed = true;
    return true;
}

// One component of a path that is about to be created, as the strictest reader would see it.
void CheckComponent(std::string_view name, const char* path) {
    static constexpr std::string_view devices[] = {"con", "prn", "aux", "nul"};
    std::string stem(name.substr(0, name.find('.')));
    std::transform(stem.begin(), stem.end(), stem.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; });
    stem.resize(stem.find_last_not_of(' ') + 1);
    bool device = std::find(std::begin(devices), std::end(devices), stem) != std::end(devices) ||
                  (stem.size() == 4 && (stem.starts_with("com") || stem.starts_with("lpt")) &&
                   stem[3] >= '0' && stem[3] <= '9');
    if (name.empty() || name.back() == '.' || name.back() == ' ' || device ||
        name.find_first_of("/:") != std::string_view::npos ||
        std::any_of(name.begin(), name.end(), [](char c) { return c >= 0 && c < ' '; })) {
        Violation("a name that must not be created", path);
    }
}

// The part below the target.
std::string Below(const char* path) {
    std::string_view rest(path);
    std::string_view target(FILE_MEMORY_TARGET);
    if (!rest.starts_with(target) || (rest.size() > target.size() && rest[target.size()] != '\\')) {
        Violation("outside the target", path);
    }
    rest.remove_prefix(target.size());
    std::string below(rest.substr(rest.empty() ? 0 : 1));
    while (!rest.empty()) {
        rest.remove_prefix(1);
        std::string_view component = rest.substr(0, rest.find('\\'));
        CheckComponent(component, path);
        rest.remove_prefix(component.size());
    }
    return below;
}

bool ParentExists(const std::string& below) {
    size_t separator = below.rfind('\\');
    return separator == std::string::npos || fileMemory.directories.count(below.substr(0, separator)) != 0;
}

uint64_t ImageSize() {
    return fileMemory.imageOffset + fileMemory.image.size();
}

OpenFile* Get(FileIODescriptor* descriptor) {
    if (!descriptor->handle) {
        Violation("not open", "");
    }
    return static_cast<OpenFile*>(descriptor->handle);
}

} // namespace

void FileMemory_Reset(std::span<const uint8_t> image, size_t imageOffset) {
    fileMemory = FileMemory();
    fileMemory.image = image;
    fileMemory.imageOffset = imageOffset;
}

FileIOResult FileIO_Create(FileIODescriptor* descriptor, const char* name, uint32_t flags,
                           FileIOOpenAction action, uint32_t /*permissions*/) {
    auto file = std::make_unique<OpenFile>();
    std::string ownName = name;
    if (flags == FILEIO_OPEN_READ && action == FileIOOpenAction::Open) {
        if (Fails() || ownName != FILE_MEMORY_IMAGE) {
            return FileIOResult::FileNotFound;
        }
    } else if (flags == FILEIO_OPEN_WRITE && action == FileIOOpenAction::CreateEmpty) {
        std::string below = Below(name);
        if (Fails() || below.empty() || fileMemory.directories.count(below) != 0 || !ParentExists(below)) {
            return FileIOResult::NoPermission;
        }
        file->content = &fileMemory.files[below];
        file->content->clear();
    } else {
        Violation("unexpected way to open", name);
    }
    descriptor->fileName = std::move(ownName);
    descriptor->flags = flags;
    descriptor->handle = file.release();
    ++fileMemory.openFiles;
    return FileIOResult::Success;
}

int64_t FileIO_Seek(FileIODescriptor* descriptor, int64_t distance, FileIOSeekOrigin origin) {
    OpenFile* file = Get(descriptor);
    if (Fails() || distance < 0) {
        return -1;
    }
    file->position = static_cast<uint64_t>(distance) + (origin == FileIOSeekOrigin::End ? ImageSize() : 0);
    return static_cast<int64_t>(file->position);
}

FileIOResult FileIO_Read(FileIODescriptor* descriptor, void* buffer, size_t length, size_t* actual) {
    OpenFile* file = Get(descriptor);
    if (Fails()) {
        return FileIOResult::Error;
    }
    uint64_t left = file->position < ImageSize() ? ImageSize() - file->position : 0;
    size_t count = static_cast<size_t>(std::min<uint64_t>(length, left));
    auto* bytes = static_cast<uint8_t*>(buffer);
    for (size_t i = 0; i < count;) {
        uint64_t position = file->position + i;
        if (position < fileMemory.imageOffset) {
            bytes[i++] = 0;
            continue;
        }
        memcpy(&bytes[i], &fileMemory.image[position - fileMemory.imageOffset], count - i);
        i = count;
    }
    file->position += count;
    if (actual) {
        *actual = count;
    }
    return count == length ? FileIOResult::Success : FileIOResult::EndOfFile;
}

FileIOResult FileIO_Write(FileIODescriptor* descriptor, const void* buffer, size_t length,
                          size_t* /*actual*/) {
    OpenFile* file = Get(descriptor);
    if (Fails() || length > fileMemory.room) {
        return FileIOResult::Error;
    }
    fileMemory.room -= length;
    file->content->append(static_cast<const char*>(buffer), length);
    return FileIOResult::Success;
}

bool FileIO_Close(FileIODescriptor* descriptor) {
    delete Get(descriptor);
    --fileMemory.openFiles;
    FileIO_Invalidate(descriptor);
    return Fails();
}

std::optional<std::string> File_FullPath(const char* name) {
    return Fails() || !name ? std::nullopt : std::optional<std::string>(name);
}

bool File_IsDirectory(const char* name) {
    std::string below = Below(name);
    return !Fails() && (below.empty() || fileMemory.directories.count(below) != 0);
}

bool File_CreateDirectory(const char* name) {
    std::string below = Below(name);
    if (Fails() || below.empty() || !ParentExists(below) || fileMemory.files.count(below) != 0 ||
        fileMemory.directories.count(below) != 0) {
        return false;
    }
    fileMemory.directories[below] = true;
    return true;
}
