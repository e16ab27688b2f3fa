#include "memoryFs.h"

#include <algorithm>
#include <set>

namespace {

MemoryFs fs;
uint64_t nextIndex = 1;

struct OpenFile {
    std::shared_ptr<MemoryFile> file;
    HgfsOpenArguments arguments;
    uint64_t position = 0;
};
std::set<OpenFile*> openFiles;

std::string Lower(std::string text) {
    std::ranges::transform(text, text.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    return text;
}

// Components joined by single separators, "." and ".." carried out; the last component as it was spelled.
std::string Normalise(const std::string& path, std::string* name = nullptr) {
    std::vector<std::string> parts;
    for (size_t begin = 0; begin <= path.size();) {
        size_t end = std::min(path.find('\\', begin), path.size());
        std::string part = path.substr(begin, end - begin);
        if (part == "..") {
            if (parts.size() > 1) {
                parts.pop_back();
            }
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        begin = end + 1;
    }
    std::string key;
    for (const std::string& part : parts) {
        key += (key.empty() ? "" : "\\") + part;
    }
    if (name != nullptr) {
        *name = parts.empty() ? "" : parts.back();
    }
    return Lower(key);
}

std::string ParentOf(const std::string& key) {
    size_t at = key.rfind('\\');
    return at == std::string::npos ? std::string() : key.substr(0, at);
}

bool Fails() {
    ++fs.calls;
    return fs.calls == fs.failCall;
}

std::shared_ptr<MemoryFile> Find(const std::string& key) {
    auto found = fs.files.find(key);
    return found == fs.files.end() ? nullptr : found->second;
}

bool IsDirectory(const MemoryFile& file) {
    return (file.attributes & kHgfsFileDirectory) != 0;
}

uint32_t Missing(const std::string& key) {
    auto parent = Find(ParentOf(key));
    return parent != nullptr && IsDirectory(*parent) ? HgfsErrorFileNotFound : HgfsErrorPathNotFound;
}

std::shared_ptr<MemoryFile> Create(const std::string& key, const std::string& name, uint32_t attributes) {
    auto file = std::make_shared<MemoryFile>();
    file->name = name;
    file->index = nextIndex++;
    file->attributes = attributes;
    file->creationTime = file->accessTime = file->writeTime = file->changeTime = fs.now;
    fs.files[key] = file;
    return file;
}

uint64_t Used() {
    uint64_t used = 0;
    for (const auto& [key, file] : fs.files) {
        used += file->data.size();
    }
    return used;
}

bool Resize(MemoryFile* file, uint64_t size) {
    if (size > file->data.size() && size - file->data.size() > fs.capacity - std::min(Used(), fs.capacity)) {
        return false;
    }
    file->data.resize(size);
    return true;
}

OpenFile& FileOf(HgfsOsHandle handle) {
    return *static_cast<OpenFile*>(handle);
}

uint32_t StartUp() {
    return fs.startUpError;
}
void ShutDown() {}

// What an open does to a file that is or is not there; the file afterwards in *file.
uint32_t Dispose(const HgfsOpenArguments& arguments, const std::string& key, const std::string& name,
                 std::shared_ptr<MemoryFile>* file) {
    const bool writes = (arguments.access & (kHgfsAccessWriting | kHgfsAccessAppendData)) != 0;
    if (*file == nullptr) {
        if (arguments.disposition == HgfsOpenExisting || arguments.disposition == HgfsTruncateExisting ||
            Missing(key) == HgfsErrorPathNotFound) {
            return Missing(key);
        }
        *file = Create(key, name, arguments.flags & 0x27);
        return HgfsErrorNone;
    }
    if (arguments.disposition == HgfsCreateNew) {
        return HgfsErrorFileExists;
    }
    const bool empties =
        arguments.disposition == HgfsCreateAlways || arguments.disposition == HgfsTruncateExisting;
    if ((writes || empties) && (((*file)->attributes & kHgfsFileReadOnly) || IsDirectory(**file))) {
        return HgfsErrorAccessDenied;
    }
    if (arguments.disposition == HgfsTruncateExisting && !(arguments.access & kHgfsAccessGenericWrite)) {
        return HgfsErrorInvalidParameter;
    }
    if (empties) {
        (*file)->data.clear();
    }
    return HgfsErrorNone;
}

uint32_t Open(const std::string& path, const HgfsOpenArguments& arguments, HgfsOsHandle* handle,
              bool* existed) {
    if (Fails()) {
        return fs.failError;
    }
    fs.opens.push_back(arguments);
    std::string name;
    const std::string key = Normalise(path, &name);
    std::shared_ptr<MemoryFile> file = Find(key);
    const bool there = file != nullptr;
    if (there && file->held && (arguments.access & ~(kHgfsAccessReadAttributes | kHgfsAccessReadControl))) {
        return HgfsErrorSharingViolation;
    }
    uint32_t error = Dispose(arguments, key, name, &file);
    if (error != HgfsErrorNone) {
        return error;
    }
    auto opened = std::make_unique<OpenFile>(OpenFile{file, arguments, 0});
    openFiles.insert(opened.get());
    *handle = opened.release();
    ++fs.openHandles;
    if (existed != nullptr) {
        *existed = there;
    }
    return HgfsErrorNone;
}

bool Close(HgfsOsHandle handle) {
    std::unique_ptr<OpenFile> closing(&FileOf(handle));
    if (openFiles.erase(closing.get()) != 1) {
        std::abort(); // closed twice
    }
    --fs.openHandles;
    return !fs.failClose;
}

uint32_t Read(OpenFile* open, uint64_t offset, std::span<uint8_t> data, uint32_t* actual) {
    if (Fails()) {
        return fs.failError;
    }
    if (IsDirectory(*open->file)) {
        return HgfsErrorInvalidFunction;
    }
    if (!(open->arguments.access & (kHgfsAccessGenericRead | kHgfsAccessReadData))) {
        return HgfsErrorAccessDenied;
    }
    const auto& bytes = open->file->data;
    if (offset >= bytes.size() && !data.empty()) {
        return HgfsErrorHandleEof;
    }
    const size_t begin = std::min<uint64_t>(offset, bytes.size());
    const size_t count = std::min(data.size(), bytes.size() - begin);
    std::copy_n(bytes.begin() + static_cast<ptrdiff_t>(begin), count, data.begin());
    *actual = static_cast<uint32_t>(count);
    return HgfsErrorNone;
}

uint32_t Write(OpenFile* open, uint64_t offset, std::span<const uint8_t> data, uint32_t* actual) {
    if (Fails()) {
        return fs.failError;
    }
    if (!(open->arguments.access &
          (kHgfsAccessGenericWrite | kHgfsAccessWriteData | kHgfsAccessAppendData))) {
        return HgfsErrorAccessDenied;
    }
    if (!data.empty()) {
        if (offset > fs.capacity ||
            !Resize(open->file.get(), std::max<uint64_t>(open->file->data.size(), offset + data.size()))) {
            return HgfsErrorDiskFull;
        }
        std::ranges::copy(data, open->file->data.begin() + static_cast<ptrdiff_t>(offset));
    }
    open->file->writeTime = open->file->changeTime = ++fs.now;
    *actual = static_cast<uint32_t>(data.size());
    return HgfsErrorNone;
}

uint32_t ReadAt(HgfsOsHandle handle, uint64_t offset, std::span<uint8_t> data, uint32_t* actual) {
    return Read(&FileOf(handle), offset, data, actual);
}
uint32_t WriteAt(HgfsOsHandle handle, uint64_t offset, std::span<const uint8_t> data, uint32_t* actual) {
    return Write(&FileOf(handle), offset, data, actual);
}
uint32_t Append(HgfsOsHandle handle, std::span<const uint8_t> data, uint32_t* actual) {
    return Write(&FileOf(handle), FileOf(handle).file->data.size(), data, actual);
}
uint32_t ReadNext(HgfsOsHandle handle, std::span<uint8_t> data, uint32_t* actual) {
    OpenFile& open = FileOf(handle);
    *actual = 0;
    uint32_t error = Read(&open, open.position, data, actual);
    open.position += *actual;
    return error == HgfsErrorHandleEof ? static_cast<uint32_t>(HgfsErrorNone) : error;
}
uint32_t WriteNext(HgfsOsHandle handle, std::span<const uint8_t> data, uint32_t* actual) {
    OpenFile& open = FileOf(handle);
    *actual = 0;
    uint32_t error = Write(&open, open.position, data, actual);
    open.position += *actual;
    return error;
}
uint32_t GetPosition(HgfsOsHandle handle, uint64_t* position) {
    *position = FileOf(handle).position;
    return HgfsErrorNone;
}
uint32_t SetPosition(HgfsOsHandle handle, uint64_t position) {
    FileOf(handle).position = position;
    return HgfsErrorNone;
}

uint32_t GetFileId(HgfsOsHandle handle, HgfsFileId* id) {
    if (Fails()) {
        return fs.failError;
    }
    *id = {0x12345678, FileOf(handle).file->index};
    return HgfsErrorNone;
}

uint32_t GetAttributes(const std::string& path, uint32_t* attributes) {
    if (Fails()) {
        return fs.failError;
    }
    const std::string key = Normalise(path);
    auto file = Find(key);
    if (file == nullptr) {
        return Missing(key);
    }
    *attributes = file->attributes;
    return HgfsErrorNone;
}

uint32_t GetInfoByHandle(HgfsOsHandle handle, HgfsFileInfo* info) {
    if (Fails()) {
        return fs.failError;
    }
    const MemoryFile& file = *FileOf(handle).file;
    *info = {};
    info->id = {0x12345678, file.index};
    info->knowsVolume = true;
    info->size = file.data.size();
    info->allocationSize = (file.data.size() + 4095) & ~uint64_t{4095};
    info->creationTime = file.creationTime;
    info->accessTime = file.accessTime;
    info->writeTime = file.writeTime;
    info->changeTime = file.changeTime;
    info->attributes = file.attributes;
    info->isLink = !file.linkTarget.empty();
    info->hasMoreStreams = file.moreStreams;
    info->linkTarget = file.linkTarget;
    return HgfsErrorNone;
}

uint32_t GetInfo(const std::string& path, HgfsFileInfo* info) {
    if (Fails()) {
        return fs.failError;
    }
    const std::string key = Normalise(path);
    auto file = Find(key);
    if (file == nullptr) {
        return Missing(key);
    }
    OpenFile open{file, {}, 0};
    return GetInfoByHandle(&open, info);
}

uint32_t GetEntryInfo(const std::string& path, HgfsFileInfo* info) {
    uint32_t error = GetInfo(path, info);
    if (error == HgfsErrorNone) {
        info->id.volume = 0;
        info->knowsVolume = false;
    }
    return error;
}

uint32_t ApplyChange(MemoryFile* file, const HgfsFileChange& change) {
    if (change.setSize) {
        if (change.size > INT64_MAX) {
            return HgfsErrorInvalidParameter;
        }
        if (change.size > fs.capacity || !Resize(file, change.size)) {
            return HgfsErrorDiskFull;
        }
    }
    if (change.setReadOnly) {
        file->attributes =
            (file->attributes & ~kHgfsFileReadOnly) | (change.readOnly ? kHgfsFileReadOnly : 0);
    }
    if (change.setAttributes) {
        const uint32_t settable = kHgfsFileHidden | kHgfsFileSystem | kHgfsFileArchive;
        file->attributes = (file->attributes & ~settable) | (change.attributes & settable);
    }
    auto setTime = [](uint64_t* time, uint64_t to) { *time = to == 0 ? *time : to; };
    setTime(&file->creationTime, change.creationTime);
    setTime(&file->accessTime, change.accessTime);
    setTime(&file->writeTime, change.writeTime);
    setTime(&file->changeTime, change.changeTime);
    return HgfsErrorNone;
}

uint32_t Change(const std::string& path, const HgfsFileChange& change) {
    if (Fails()) {
        return fs.failError;
    }
    const std::string key = Normalise(path);
    auto file = Find(key);
    if (file == nullptr) {
        return Missing(key);
    }
    const bool stillReadOnly =
        (file->attributes & kHgfsFileReadOnly) && !(change.setReadOnly && !change.readOnly);
    if (change.setSize && (IsDirectory(*file) || stillReadOnly)) {
        return HgfsErrorAccessDenied;
    }
    return ApplyChange(file.get(), change);
}

uint32_t ChangeByHandle(HgfsOsHandle handle, const HgfsFileChange& change) {
    if (Fails()) {
        return fs.failError;
    }
    OpenFile& open = FileOf(handle);
    if (!(open.arguments.access & (kHgfsAccessGenericWrite | kHgfsAccessWriteAttributes)) ||
        (change.setSize && IsDirectory(*open.file))) {
        return HgfsErrorAccessDenied;
    }
    return ApplyChange(open.file.get(), change);
}

uint64_t Now() {
    return ++fs.now;
}

uint32_t CreateOneDirectory(const std::string& path) {
    if (Fails()) {
        return fs.failError;
    }
    std::string name;
    const std::string key = Normalise(path, &name);
    if (Find(key) != nullptr) {
        return HgfsErrorAlreadyExists;
    }
    if (Missing(key) == HgfsErrorPathNotFound) {
        return HgfsErrorPathNotFound;
    }
    Create(key, name, kHgfsFileDirectory);
    return HgfsErrorNone;
}

uint32_t DeleteOneFile(const std::string& path) {
    if (Fails()) {
        return fs.failError;
    }
    const std::string key = Normalise(path);
    auto file = Find(key);
    if (file == nullptr) {
        return Missing(key);
    }
    if (IsDirectory(*file) || (file->attributes & kHgfsFileReadOnly)) {
        return HgfsErrorAccessDenied;
    }
    if (file->held) {
        return HgfsErrorSharingViolation;
    }
    fs.files.erase(key);
    return HgfsErrorNone;
}

bool HasChildren(const std::string& key) {
    auto next = fs.files.upper_bound(key + '\\');
    return next != fs.files.end() && next->first.starts_with(key + '\\');
}

uint32_t DeleteOneDirectory(const std::string& path) {
    if (Fails()) {
        return fs.failError;
    }
    const std::string key = Normalise(path);
    auto file = Find(key);
    if (file == nullptr) {
        return Missing(key);
    }
    if (!IsDirectory(*file)) {
        return HgfsErrorDirectory;
    }
    if (HasChildren(key)) {
        return HgfsErrorDirNotEmpty;
    }
    if (ParentOf(key).empty()) {
        return HgfsErrorAccessDenied;
    }
    fs.files.erase(key);
    return HgfsErrorNone;
}

uint32_t Rename(const std::string& from, const std::string& to) {
    if (Fails()) {
        return fs.failError;
    }
    std::string name;
    const std::string key = Normalise(from);
    const std::string newKey = Normalise(to, &name);
    auto file = Find(key);
    if (file == nullptr) {
        return Missing(key);
    }
    if (key.substr(0, 2) != newKey.substr(0, 2)) {
        return HgfsErrorNotSameDevice;
    }
    if (key != newKey && Find(newKey) != nullptr) {
        return HgfsErrorAlreadyExists;
    }
    if (Missing(newKey) == HgfsErrorPathNotFound) {
        return HgfsErrorPathNotFound;
    }
    if (newKey.starts_with(key + '\\') || ParentOf(key).empty()) {
        return HgfsErrorSharingViolation;
    }
    std::map<std::string, std::shared_ptr<MemoryFile>> moved;
    for (auto it = fs.files.begin(); it != fs.files.end();) {
        if (it->first == key || it->first.starts_with(key + '\\')) {
            moved[newKey + it->first.substr(key.size())] = it->second;
            it = fs.files.erase(it);
        } else {
            ++it;
        }
    }
    fs.files.merge(moved);
    file->name = name;
    return HgfsErrorNone;
}

uint32_t ListDirectory(const std::string& path, bool (*entry)(void* data, std::string_view name),
                       void* data) {
    if (Fails()) {
        return fs.failError;
    }
    const std::string key = Normalise(path);
    auto directory = Find(key);
    if (directory == nullptr) {
        return Missing(key);
    }
    if (!IsDirectory(*directory)) {
        return HgfsErrorDirectory;
    }
    for (const auto& [child, file] : fs.files) {
        if (ParentOf(child) == key && !entry(data, file->name)) {
            break;
        }
    }
    return HgfsErrorNone;
}

uint32_t ListVolumes(std::vector<std::string>* roots) {
    if (Fails()) {
        return fs.failError;
    }
    std::vector<std::string> found;
    for (const auto& [root, volume] : fs.volumes) {
        found.push_back(root);
    }
    *roots = std::move(found);
    return HgfsErrorNone;
}

uint32_t GetVolumeSpace(const std::string& path, uint64_t* freeBytes, uint64_t* totalBytes) {
    if (Fails()) {
        return fs.failError;
    }
    auto volume = fs.volumes.find(path.substr(0, 3));
    if (volume == fs.volumes.end()) {
        return HgfsErrorPathNotFound;
    }
    if (volume->second.fails) {
        return 21; // the drive is not ready
    }
    *freeBytes = volume->second.freeBytes;
    *totalBytes = volume->second.totalBytes;
    return HgfsErrorNone;
}

constexpr HgfsPlatform kMemory = {
    .startUp = StartUp,
    .shutDown = ShutDown,
    .open = Open,
    .close = Close,
    .readAt = ReadAt,
    .writeAt = WriteAt,
    .append = Append,
    .readNext = ReadNext,
    .writeNext = WriteNext,
    .getPosition = GetPosition,
    .setPosition = SetPosition,
    .getFileId = GetFileId,
    .getAttributes = GetAttributes,
    .getInfo = GetInfo,
    .getEntryInfo = GetEntryInfo,
    .getInfoByHandle = GetInfoByHandle,
    .change = Change,
    .changeByHandle = ChangeByHandle,
    .now = Now,
    .createDirectory = CreateOneDirectory,
    .deleteFile = DeleteOneFile,
    .deleteDirectory = DeleteOneDirectory,
    .rename = Rename,
    .listDirectory = ListDirectory,
    .listVolumes = ListVolumes,
    .getVolumeSpace = GetVolumeSpace,
};

} // namespace

MemoryFs& MemoryFs_Reset() {
    fs = MemoryFs();
    nextIndex = 1;
    fs.volumes["C:\\"] = {1 << 20, 8 << 20, false};
    fs.volumes["D:\\"] = {1 << 10, 4 << 10, false};
    MemoryFs_Add("C:\\", kHgfsFileDirectory);
    MemoryFs_Add("D:\\", kHgfsFileDirectory);
    MemoryFs_Add("C:\\tmp", kHgfsFileDirectory);
    return fs;
}

MemoryFs& MemoryFs_Get() {
    return fs;
}

const HgfsPlatform* MemoryFs_Platform() {
    return &kMemory;
}

MemoryFile& MemoryFs_Add(const std::string& path, uint32_t attributes, std::string_view data) {
    std::string name;
    const std::string key = Normalise(path, &name);
    MemoryFile& file = *Create(key, name, attributes);
    file.data.assign(data.begin(), data.end());
    return file;
}

MemoryFile* MemoryFs_Find(const std::string& path) {
    auto found = fs.files.find(Normalise(path));
    return found == fs.files.end() ? nullptr : found->second.get();
}

#ifndef _WIN32
const HgfsPlatform* HgfsPlatform_System() {
    return &kMemory;
}
#endif
