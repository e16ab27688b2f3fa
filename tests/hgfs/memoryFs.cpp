#include "memoryFs.h"

#include <algorithm>
#include <set>

namespace {

MemoryFs fs;
uint64_t nextIndex = 1;

struct OpenFile {
    std::shared_ptr<MemoryFile> file;
    uint32_t access;
    uint64_t position = 0;
};
std::set<OpenFile*> openFiles;

OpenFile& FileOf(HgfsOsHandle handle) {
    return *static_cast<OpenFile*>(handle);
}

// ---- Paths ----

// What a path leads to.
struct Place {
    std::string key;    // in MemoryFs::files
    std::string parent; // the directory's key
    std::string name;   // the last component as it was spelled
    std::shared_ptr<MemoryFile> file;
    uint32_t error; // of a path that leads nowhere
};

std::string Lower(std::string text) {
    std::ranges::transform(text, text.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    return text;
}

std::shared_ptr<MemoryFile> Find(const std::string& key) {
    auto found = fs.files.find(key);
    return found == fs.files.end() ? nullptr : found->second;
}

bool IsDirectory(const MemoryFile& file) {
    return (file.info.attributes & kHgfsFileDirectory) != 0;
}

// Components are joined by single separators; "." and ".." are carried out.
Place Locate(const std::string& path) {
    std::vector<std::string> parts;
    for (size_t begin = 0; begin <= path.size();) {
        const size_t end = std::min(path.find('\\', begin), path.size());
        const std::string part = path.substr(begin, end - begin);
        if (part == ".." && parts.size() > 1) {
            parts.pop_back();
        } else if (!part.empty() && part != "." && part != "..") {
            parts.push_back(part);
        }
        begin = end + 1;
    }
    Place place{};
    for (const std::string& part : parts) {
        place.parent = place.key;
        place.key += (place.key.empty() ? "" : "\\") + Lower(part);
        place.name = part;
    }
    place.file = Find(place.key);
    auto parent = Find(place.parent);
    place.error = place.file != nullptr                       ? HgfsErrorNone
                  : parent != nullptr && IsDirectory(*parent) ? HgfsErrorFileNotFound
                                                              : HgfsErrorPathNotFound;
    return place;
}

std::shared_ptr<MemoryFile> Create(const Place& place, uint32_t attributes) {
    auto file = std::make_shared<MemoryFile>();
    file->name = place.name;
    HgfsFileInfo& info = file->info;
    info.id = {0x12345678, nextIndex++};
    info.knowsVolume = true;
    info.creationTime = info.accessTime = info.writeTime = info.changeTime = fs.now;
    info.attributes = attributes;
    fs.files[place.key] = file;
    return file;
}

bool Resize(MemoryFile* file, uint64_t size) {
    uint64_t others = 0;
    for (const auto& [key, other] : fs.files) {
        others += other.get() == file ? 0 : other->data.size();
    }
    if (size > file->data.size() && (size > fs.capacity || others > fs.capacity - size)) {
        return false;
    }
    file->data.resize(size);
    return true;
}

// ---- Open files ----

// What an open does to a file that is or is not there.
uint32_t Dispose(const HgfsOpenArguments& arguments, Place* place) {
    const uint32_t disposition = arguments.disposition;
    if (place->file == nullptr) {
        if (disposition == HgfsOpenExisting || disposition == HgfsTruncateExisting ||
            place->error == HgfsErrorPathNotFound) {
            return place->error;
        }
        place->file = Create(*place, arguments.flags & 0x27);
    } else if (disposition == HgfsCreateNew) {
        return HgfsErrorFileExists;
    } else if (disposition == HgfsCreateAlways || disposition == HgfsTruncateExisting) {
        place->file->data.clear();
    }
    return HgfsErrorNone;
}

uint32_t Open(const std::string& path, const HgfsOpenArguments& arguments, HgfsOsHandle* handle,
              bool* existed) {
    fs.opens.push_back(arguments);
    Place place = Locate(path);
    const bool there = place.file != nullptr;
    if (uint32_t error = Dispose(arguments, &place); error != HgfsErrorNone) {
        return error;
    }
    auto opened = std::make_unique<OpenFile>(OpenFile{place.file, arguments.access});
    openFiles.insert(opened.get());
    *handle = opened.release();
    fs.openHandles = openFiles.size();
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
    fs.openHandles = openFiles.size();
    return !fs.failClose;
}

uint32_t ReadAt(HgfsOsHandle handle, uint64_t offset, std::span<uint8_t> data, uint32_t* actual) {
    const auto& bytes = FileOf(handle).file->data;
    if (offset >= bytes.size() && !data.empty()) {
        return HgfsErrorHandleEof;
    }
    const size_t begin = std::min<uint64_t>(offset, bytes.size());
    const size_t count = std::min(data.size(), bytes.size() - begin);
    std::copy_n(bytes.begin() + static_cast<ptrdiff_t>(begin), count, data.begin());
    *actual = static_cast<uint32_t>(count);
    return HgfsErrorNone;
}

uint32_t WriteAt(HgfsOsHandle handle, uint64_t offset, std::span<const uint8_t> data, uint32_t* actual) {
    MemoryFile& file = *FileOf(handle).file;
    if (!data.empty()) {
        if (offset > fs.capacity ||
            !Resize(&file, std::max<uint64_t>(file.data.size(), offset + data.size()))) {
            return HgfsErrorDiskFull;
        }
        std::ranges::copy(data, file.data.begin() + static_cast<ptrdiff_t>(offset));
    }
    *actual = static_cast<uint32_t>(data.size());
    return HgfsErrorNone;
}

uint32_t Append(HgfsOsHandle handle, std::span<const uint8_t> data, uint32_t* actual) {
    return WriteAt(handle, FileOf(handle).file->data.size(), data, actual);
}

// ReadAt or WriteAt where the last one ended.
template <auto Move, typename Data>
uint32_t Next(HgfsOsHandle handle, Data data, uint32_t* actual) {
    *actual = 0;
    const uint32_t error = Move(handle, FileOf(handle).position, data, actual);
    FileOf(handle).position += *actual;
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

// ---- Attributes ----

HgfsFileInfo InfoOf(const MemoryFile& file) {
    HgfsFileInfo info = file.info;
    info.size = file.data.size();
    info.allocationSize = (info.size + 4095) & ~uint64_t{4095};
    return info;
}

uint32_t GetFileId(HgfsOsHandle handle, HgfsFileId* id) {
    *id = InfoOf(*FileOf(handle).file).id;
    return HgfsErrorNone;
}

uint32_t GetInfoByHandle(HgfsOsHandle handle, HgfsFileInfo* info) {
    *info = InfoOf(*FileOf(handle).file);
    return HgfsErrorNone;
}

uint32_t GetInfo(const std::string& path, HgfsFileInfo* info) {
    const Place place = Locate(path);
    if (place.file != nullptr) {
        *info = InfoOf(*place.file);
    }
    return place.error;
}

uint32_t GetEntryInfo(const std::string& path, HgfsFileInfo* info) {
    const uint32_t error = GetInfo(path, info);
    if (error == HgfsErrorNone) {
        info->id.volume = 0;
        info->knowsVolume = false;
    }
    return error;
}

uint32_t GetAttributes(const std::string& path, uint32_t* attributes) {
    const Place place = Locate(path);
    if (place.file != nullptr) {
        *attributes = place.file->info.attributes;
    }
    return place.error;
}

uint32_t ApplyChange(MemoryFile* file, const HgfsFileChange& change) {
    if (change.setSize && change.size > INT64_MAX) {
        return HgfsErrorInvalidParameter;
    }
    if (change.setSize && !Resize(file, change.size)) {
        return HgfsErrorDiskFull;
    }
    if (change.setReadOnly) {
        file->info.attributes =
            (file->info.attributes & ~kHgfsFileReadOnly) | (change.readOnly ? kHgfsFileReadOnly : 0);
    }
    if (change.setAttributes) {
        const uint32_t settable = kHgfsFileHidden | kHgfsFileSystem | kHgfsFileArchive;
        file->info.attributes = (file->info.attributes & ~settable) | (change.attributes & settable);
    }
    auto setTime = [](uint64_t* time, uint64_t to) { *time = to == 0 ? *time : to; };
    setTime(&file->info.creationTime, change.creationTime);
    setTime(&file->info.accessTime, change.accessTime);
    setTime(&file->info.writeTime, change.writeTime);
    setTime(&file->info.changeTime, change.changeTime);
    return HgfsErrorNone;
}

uint32_t Change(const std::string& path, const HgfsFileChange& change) {
    const Place place = Locate(path);
    return place.file == nullptr ? place.error : ApplyChange(place.file.get(), change);
}

uint32_t ChangeByHandle(HgfsOsHandle handle, const HgfsFileChange& change) {
    const OpenFile& open = FileOf(handle);
    const bool may = (open.access & (kHgfsAccessGenericWrite | kHgfsAccessWriteAttributes)) != 0;
    return may ? ApplyChange(open.file.get(), change) : HgfsErrorAccessDenied;
}

// ---- Names ----

uint32_t CreateOneDirectory(const std::string& path) {
    const Place place = Locate(path);
    if (place.error != HgfsErrorFileNotFound) {
        return place.file != nullptr ? HgfsErrorAlreadyExists : HgfsErrorPathNotFound;
    }
    Create(place, kHgfsFileDirectory);
    return HgfsErrorNone;
}

uint32_t Delete(const std::string& path) {
    const Place place = Locate(path);
    fs.files.erase(place.key);
    return place.error;
}

uint32_t Rename(const std::string& from, const std::string& to) {
    const Place old = Locate(from);
    const Place wanted = Locate(to);
    if (old.file == nullptr || wanted.error == HgfsErrorPathNotFound) {
        return HgfsErrorPathNotFound;
    }
    std::map<std::string, std::shared_ptr<MemoryFile>> files;
    for (const auto& [key, file] : fs.files) {
        const bool moves = key == old.key || key.starts_with(old.key + '\\');
        files[moves ? wanted.key + key.substr(old.key.size()) : key] = file;
    }
    fs.files = std::move(files);
    old.file->name = wanted.name;
    return HgfsErrorNone;
}

uint32_t ListDirectory(const std::string& path, HgfsEntryCallback entry, void* data) {
    const Place place = Locate(path);
    const std::string prefix = place.key + '\\';
    for (const auto& [key, file] : fs.files) {
        if (key.starts_with(prefix) && key.find('\\', prefix.size()) == std::string::npos) {
            entry(data, file->name);
        }
    }
    return place.error;
}

uint32_t ListVolumes(std::vector<std::string>* roots) {
    std::vector<std::string> found;
    for (const auto& [root, volume] : fs.volumes) {
        found.push_back(root);
    }
    *roots = std::move(found);
    return HgfsErrorNone;
}

uint32_t GetVolumeSpace(const std::string& path, uint64_t* freeBytes, uint64_t* totalBytes) {
    auto volume = fs.volumes.find(path.substr(0, 3));
    if (volume == fs.volumes.end() || volume->second.fails) {
        return 21; // the drive is not ready
    }
    *freeBytes = volume->second.freeBytes;
    *totalBytes = volume->second.totalBytes;
    return HgfsErrorNone;
}

// Counts the calls of a function and lets the one that is asked for fail.
template <auto Call>
struct Faulty;
template <typename... Arguments, uint32_t (*Call)(Arguments...)>
struct Faulty<Call> {
    static uint32_t Run(Arguments... arguments) {
        return ++fs.calls == fs.failCall ? fs.failError : Call(arguments...);
    }
};

constexpr HgfsPlatform kMemory = {
    .startUp = [] { return fs.startUpError; },
    .shutDown = [] {},
    .open = Faulty<Open>::Run,
    .close = Close,
    .readAt = Faulty<ReadAt>::Run,
    .writeAt = Faulty<WriteAt>::Run,
    .append = Faulty<Append>::Run,
    .readNext = Faulty<Next<ReadAt, std::span<uint8_t>>>::Run,
    .writeNext = Faulty<Next<WriteAt, std::span<const uint8_t>>>::Run,
    .getPosition = GetPosition,
    .setPosition = Faulty<SetPosition>::Run,
    .getFileId = Faulty<GetFileId>::Run,
    .getAttributes = Faulty<GetAttributes>::Run,
    .getInfo = Faulty<GetInfo>::Run,
    .getEntryInfo = Faulty<GetEntryInfo>::Run,
    .getInfoByHandle = Faulty<GetInfoByHandle>::Run,
    .change = Faulty<Change>::Run,
    .changeByHandle = Faulty<ChangeByHandle>::Run,
    .now = [] { return ++fs.now; },
    .createDirectory = Faulty<CreateOneDirectory>::Run,
    .deleteFile = Faulty<Delete>::Run,
    .deleteDirectory = Faulty<Delete>::Run,
    .rename = Faulty<Rename>::Run,
    .listDirectory = Faulty<ListDirectory>::Run,
    .listVolumes = Faulty<ListVolumes>::Run,
    .getVolumeSpace = Faulty<GetVolumeSpace>::Run,
};

} // namespace

MemoryFs& MemoryFs_Reset() {
    fs = MemoryFs();
    nextIndex = 1;
    fs.volumes = {{"C:\\", {1 << 20, 8 << 20, false}}, {"D:\\", {1 << 10, 4 << 10, false}}};
    for (const char* directory : {"C:\\", "D:\\", "C:\\tmp"}) {
        MemoryFs_Add(directory, kHgfsFileDirectory);
    }
    return fs;
}

MemoryFs& MemoryFs_Get() {
    return fs;
}

const HgfsPlatform* MemoryFs_Platform() {
    return &kMemory;
}

MemoryFile& MemoryFs_Add(const std::string& path, uint32_t attributes, std::string_view data) {
    MemoryFile& file = *Create(Locate(path), attributes);
    file.data.assign(data.begin(), data.end());
    return file;
}

MemoryFile* MemoryFs_Find(const std::string& path) {
    return Locate(path).file.get();
}

#ifndef _WIN32
const HgfsPlatform* HgfsPlatform_System() {
    return &kMemory;
}
#endif
