#include "fileMemory.h"

#include "file/file.h"
#include "file/fileIO.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
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
    if (name.empty() || name.back() == '.' || name.back() == ' ' ||
        name.find_first_of("/:") != std::string_view::npos ||
        std::any_of(name.begin(), name.end(), [](char c) { return c >= 0 && c < ' '; })) {
        Violation("a name that must not be created", path);
    }
}

// The part below the target, as the tree names it.
std::string Below(const char* path) {
    std::string_view rest(path);
    std::string_view target(FILE_MEMORY_TARGET);
    if (!rest.starts_with(target)) {
        Violation("outside the target", path);
    }
    rest.remove_prefix(target.size());
    std::string below;
    while (!rest.empty()) {
        if (rest[0] != '\\') {
            Violation("outside the target", path);
        }
        std::string_view component = rest.substr(1, rest.find('\\', 1) - 1);
        CheckComponent(component, path);
        below.append(below.empty() ? "" : "/").append(component);
        rest.remove_prefix(1 + component.size());
    }
    return below;
}

bool IsDirectory(const std::string& below) {
    auto found = fileMemory.tree.find(below);
    return below.empty() || (found != fileMemory.tree.end() && found->second == TEST_TREE_DIRECTORY);
}

bool ParentExists(const std::string& below) {
    size_t separator = below.rfind('/');
    return IsDirectory(separator == std::string::npos ? "" : below.substr(0, separator));
}

OpenFile* Get(FileIODescriptor* descriptor) {
    if (!descriptor->handle) {
        Violation("not open", "");
    }
    return static_cast<OpenFile*>(descriptor->handle);
}

} // namespace

void FileMemory_Reset(std::span<const uint8_t> image) {
    fileMemory = FileMemory();
    fileMemory.image = image;
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
        if (Fails() || IsDirectory(below) || !ParentExists(below)) {
            return FileIOResult::NoPermission;
        }
        file->content = &fileMemory.tree[below];
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
    file->position =
        static_cast<uint64_t>(distance) + (origin == FileIOSeekOrigin::End ? fileMemory.image.size() : 0);
    return static_cast<int64_t>(file->position);
}

FileIOResult FileIO_Read(FileIODescriptor* descriptor, void* buffer, size_t length, size_t* actual) {
    OpenFile* file = Get(descriptor);
    if (Fails()) {
        return FileIOResult::Error;
    }
    size_t start = std::min<size_t>(file->position, fileMemory.image.size());
    size_t count = std::min(length, fileMemory.image.size() - start);
    std::copy_n(fileMemory.image.begin() + static_cast<ptrdiff_t>(start), count,
                static_cast<uint8_t*>(buffer));
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
    fileMemory.writes++;
    fileMemory.largestWrite = std::max(fileMemory.largestWrite, length);
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
    return !Fails() && IsDirectory(Below(name));
}

bool File_CreateDirectory(const char* name) {
    std::string below = Below(name);
    return !Fails() && ParentExists(below) &&
           (!below.empty() && fileMemory.tree.emplace(below, TEST_TREE_DIRECTORY).second);
}
