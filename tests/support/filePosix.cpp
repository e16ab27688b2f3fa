// Stands in for the file library's system calls where there is no Windows, so that what reads images and
// extracts them is built, sanitized and fuzzed natively. "\\" in a name becomes "/"; there are no locks, and
// only the operations that those callers use.
#include "file/file.h"
#include "file/fileIO.h"
#include "file/fileRules.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace {

std::string LocalName(const char* name) {
    std::string local = name;
    std::ranges::replace(local, '\\', '/');
    return local;
}

// A descriptor holds the file number plus one, so that number 0 is not the invalid handle.
int FileNumber(const FileIODescriptor* descriptor) {
    return static_cast<int>(reinterpret_cast<intptr_t>(descriptor->handle)) - 1;
}

FileIOResult ResultFromErrno(int error) {
    switch (error) {
    case ENOENT:
    case ENOTDIR:
        return FileIOResult::FileNotFound;
    case EACCES:
    case EPERM:
    case EROFS:
    case EISDIR:
        return FileIOResult::NoPermission;
    case EEXIST:
        return FileIOResult::FileExists;
    default:
        return FileIOResult::Error;
    }
}

int OpenFlags(uint32_t flags, FileIOOpenAction action) {
    constexpr int ACTIONS[] = {0, O_TRUNC, O_CREAT, O_CREAT | O_EXCL, O_CREAT | O_TRUNC};
    bool reads = (flags & FILEIO_OPEN_READ) != 0;
    bool writes = (flags & FILEIO_OPEN_WRITE) != 0;
    return ACTIONS[static_cast<size_t>(action)] | O_CLOEXEC |
           (!writes ? O_RDONLY
            : reads ? O_RDWR
                    : O_WRONLY);
}

template <typename Call>
FileIOResult Transfer(size_t length, size_t* actual, Call call) {
    size_t done = 0;
    FileIOResult result = FileIOResult::Success;
    while (done < length && result == FileIOResult::Success) {
        ssize_t count = call(done, length - done);
        if (count < 0) {
            result = FileIOResult::Error;
        } else if (count == 0) {
            result = FileIOResult::EndOfFile;
        } else {
            done += static_cast<size_t>(count);
        }
    }
    if (actual != nullptr) {
        *actual = done;
    }
    return result;
}

} // namespace

FileIOResult FileIO_Create(FileIODescriptor* descriptor, const char* name, uint32_t flags,
                           FileIOOpenAction action, uint32_t /*permissions*/) {
    FileIO_Invalidate(descriptor);
    if (name == nullptr) {
        return FileIOResult::Error;
    }
    int number = open(LocalName(name).c_str(), OpenFlags(flags, action), 0666);
    if (number < 0) {
        return ResultFromErrno(errno);
    }
    struct stat status;
    if (fstat(number, &status) != 0 || S_ISDIR(status.st_mode)) { // Windows opens no directory as a file
        close(number);
        return FileIOResult::NoPermission;
    }
    descriptor->handle = reinterpret_cast<void*>(intptr_t{number} + 1);
    descriptor->flags = flags;
    descriptor->fileName = name;
    return FileIOResult::Success;
}

int64_t FileIO_Seek(FileIODescriptor* descriptor, int64_t distance, FileIOSeekOrigin origin) {
    constexpr int ORIGINS[] = {SEEK_SET, SEEK_CUR, SEEK_END};
    return lseek(FileNumber(descriptor), distance, ORIGINS[static_cast<size_t>(origin)]);
}

FileIOResult FileIO_Write(FileIODescriptor* descriptor, const void* buffer, size_t length, size_t* actual) {
    return Transfer(length, actual, [&](size_t done, size_t left) {
        return write(FileNumber(descriptor), static_cast<const char*>(buffer) + done, left);
    });
}

FileIOResult FileIO_Read(FileIODescriptor* descriptor, void* buffer, size_t length, size_t* actual) {
    return Transfer(length, actual, [&](size_t done, size_t left) {
        return read(FileNumber(descriptor), static_cast<char*>(buffer) + done, left);
    });
}

bool FileIO_Close(FileIODescriptor* descriptor) {
    bool failed = close(FileNumber(descriptor)) != 0;
    if ((descriptor->flags & FILEIO_OPEN_DELETE_ON_CLOSE) != 0) {
        unlink(LocalName(descriptor->fileName.c_str()).c_str());
    }
    FileIO_Invalidate(descriptor);
    return failed;
}

FileIOResult FileIO_Access(const char* name, uint32_t mode) {
    struct stat status;
    if (name == nullptr || stat(LocalName(name).c_str(), &status) != 0) {
        return FileIOResult::Error;
    }
    bool refused =
        (mode & FILEIO_ACCESS_WRITE) != 0 && !S_ISDIR(status.st_mode) && (status.st_mode & 0222) == 0;
    return refused ? FileIOResult::Error : FileIOResult::Success;
}

FileIOResult FileIO_Lock(FileIODescriptor* /*descriptor*/, uint32_t flags) {
    return (flags & FILEIO_OPEN_LOCKED) == 0 ? FileIOResult::Success : FileIOResult::LockFailed;
}

FileIOResult FileIO_Unlock(FileIODescriptor* /*descriptor*/) {
    return FileIOResult::Success;
}

std::optional<std::string> File_FullPath(const char* name) {
    std::error_code error;
    std::filesystem::path full =
        std::filesystem::absolute(name == nullptr ? std::string() : LocalName(name), error);
    if (error) {
        return std::nullopt;
    }
    return full.lexically_normal().string();
}

bool File_Exists(const char* name) {
    return FileIO_Access(name, FILEIO_ACCESS_EXISTS) == FileIOResult::Success;
}

bool File_IsDirectory(const char* name) {
    struct stat status;
    return name != nullptr && stat(LocalName(name).c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool File_CreateDirectory(const char* name) {
    return name != nullptr && mkdir(LocalName(name).c_str(), 0777) == 0;
}

bool File_EnsureDirectory(const char* name) {
    return File_CreateDirectory(name) || (name != nullptr && errno == EEXIST);
}

int File_Unlink(const char* name) {
    return name != nullptr && unlink(LocalName(name).c_str()) == 0 ? 0 : -1;
}
