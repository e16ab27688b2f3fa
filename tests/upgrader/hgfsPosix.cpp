// The little of a file system that a copied image needs from the file server, over POSIX; paths as in
// filePosix.
#include "hgfslib/hgfsPlatform.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

int Number(HgfsOsHandle handle) {
    return static_cast<int>(reinterpret_cast<intptr_t>(handle)) - 1;
}

std::string Local(std::string path) {
    std::ranges::replace(path, '\\', '/');
    return path;
}

uint32_t Open(const std::string& path, const HgfsOpenArguments& arguments, HgfsOsHandle* handle,
              bool* existed) {
    std::string local = Local(path);
    int flags = (arguments.access & kHgfsAccessWriting) != 0 ? O_RDWR : O_RDONLY;
    if (arguments.disposition != HgfsOpenExisting && arguments.disposition != HgfsTruncateExisting) {
        flags |= O_CREAT;
    }
    if (arguments.disposition == HgfsCreateAlways || arguments.disposition == HgfsTruncateExisting) {
        flags |= O_TRUNC;
    }
    bool there = access(local.c_str(), F_OK) == 0;
    int number = open(local.c_str(), flags | O_CLOEXEC, 0600);
    if (number < 0) {
        return HgfsErrorFileNotFound;
    }
    if (existed) {
        *existed = there;
    }
    *handle = reinterpret_cast<HgfsOsHandle>(static_cast<intptr_t>(number) + 1);
    return HgfsErrorNone;
}

uint32_t ReadAt(HgfsOsHandle handle, uint64_t offset, std::span<uint8_t> data, uint32_t* actual) {
    ssize_t count = pread(Number(handle), data.data(), data.size(), static_cast<off_t>(offset));
    *actual = count < 0 ? 0 : static_cast<uint32_t>(count);
    return count < 0 ? HgfsErrorIoDevice : HgfsErrorNone;
}

uint32_t WriteAt(HgfsOsHandle handle, uint64_t offset, std::span<const uint8_t> data, uint32_t* actual) {
    ssize_t count = pwrite(Number(handle), data.data(), data.size(), static_cast<off_t>(offset));
    *actual = count < 0 ? 0 : static_cast<uint32_t>(count);
    return count < 0 ? HgfsErrorIoDevice : HgfsErrorNone;
}

uint32_t Describe(const struct stat& status, HgfsFileInfo* info) {
    *info = {};
    info->size = static_cast<uint64_t>(status.st_size);
    info->attributes = kHgfsFileNormal;
    return HgfsErrorNone;
}

uint32_t GetInfo(const std::string& path, HgfsFileInfo* info) {
    struct stat status {};
    return stat(Local(path).c_str(), &status) == 0 ? Describe(status, info) : HgfsErrorFileNotFound;
}

uint32_t GetInfoByHandle(HgfsOsHandle handle, HgfsFileInfo* info) {
    struct stat status {};
    return fstat(Number(handle), &status) == 0 ? Describe(status, info) : HgfsErrorInvalidHandle;
}

uint32_t GetFileId(HgfsOsHandle /*handle*/, HgfsFileId* id) {
    *id = {};
    return HgfsErrorNone;
}

} // namespace

const HgfsPlatform* HgfsPlatform_System() {
    static HgfsPlatform table = {};
    table.startUp = [] { return uint32_t{HgfsErrorNone}; };
    table.shutDown = [] {};
    table.open = Open;
    table.close = [](HgfsOsHandle handle) { return close(Number(handle)) == 0; };
    table.readAt = ReadAt;
    table.writeAt = WriteAt;
    table.getFileId = GetFileId;
    table.getInfo = GetInfo;
    table.getInfoByHandle = GetInfoByHandle;
    return &table;
}
