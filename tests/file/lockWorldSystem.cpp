// The system that the lock protocol finds in a LockWorld: each call is one step of the locker that makes it.
#include "lockWorld.h"

#include "file/file.h"
#include "file/fileLockEdge.h"
#include "file/fileLockMember.h"
#include "file/fileRules.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

constexpr char MACHINE[] = "uuid=this";

// Makes a step; none when there is nothing to act on: outside a world, or with an error to be met.
LockWorld* Begin(int* error) {
    LockWorld* world = LockWorld::Current();
    *error = world == nullptr ? FILE_ENOENT : world->Step();
    return *error == 0 ? world : nullptr;
}

LockWorld::Node* Find(LockWorld* world, const char* name) {
    auto file = world->files.find(name);
    return file == world->files.end() ? nullptr : &file->second;
}

// Whether something can be made under the name.
bool HasParent(LockWorld* world, const std::string& name) {
    std::string parent = name.substr(0, name.rfind('\\'));
    LockWorld::Node* node = Find(world, parent.c_str());
    return parent == "C:" || (node != nullptr && node->isDirectory);
}

using Handle = std::shared_ptr<std::string>;

} // namespace

int FileAttributesRetry(const char* name, uint32_t /*budgetMs*/, FileData* data) {
    int error;
    LockWorld* world = Begin(&error);
    if (world == nullptr) {
        return error;
    }
    LockWorld::Node* node = Find(world, name);
    if (node == nullptr) {
        return FILE_ENOENT;
    }
    if (data != nullptr) {
        *data = FileData{};
        data->type = node->type;
        data->size = node->content == nullptr ? 0 : node->content->size();
    }
    return 0;
}

int FileCreateDirectoryRetry(const char* name, uint32_t /*budgetMs*/) {
    int error;
    LockWorld* world = Begin(&error);
    if (world == nullptr) {
        return error;
    }
    if (Find(world, name) != nullptr) {
        return FILE_EEXIST;
    }
    if (!HasParent(world, name)) {
        return FILE_ENOENT;
    }
    world->AddDirectory(name);
    return 0;
}

int FileRemoveDirectoryRetry(const char* name, uint32_t /*budgetMs*/) {
    int error;
    LockWorld* world = Begin(&error);
    if (world == nullptr) {
        return error;
    }
    LockWorld::Node* node = Find(world, name);
    if (node == nullptr) {
        return FILE_ENOENT;
    }
    if (!node->isDirectory || !world->Names(name).empty()) {
        return 41;
    }
    world->files.erase(name);
    return 0;
}

int FileDeletionRetry(const char* name, bool /*handleLink*/, uint32_t /*budgetMs*/) {
    int error;
    LockWorld* world = Begin(&error);
    if (world == nullptr) {
        return error;
    }
    LockWorld::Node* node = Find(world, name);
    if (node == nullptr || node->isDirectory) {
        return node == nullptr ? FILE_ENOENT : FILE_EACCES;
    }
    world->files.erase(name);
    return 0;
}

int FileRenameRetry(const char* oldName, const char* newName, uint32_t /*budgetMs*/) {
    int error;
    LockWorld* world = Begin(&error);
    if (world == nullptr) {
        return error;
    }
    if (Find(world, oldName) == nullptr) {
        return FILE_ENOENT;
    }
    if (Find(world, newName) != nullptr) {
        return FILE_EEXIST;
    }
    LockWorld::Node node = *Find(world, oldName);
    world->files.erase(oldName);
    world->files[newName] = std::move(node);
    return 0;
}

int FileListDirectoryRetry(const char* directory, uint32_t /*budgetMs*/, std::vector<std::string>* names) {
    int error;
    LockWorld* world = Begin(&error);
    if (world == nullptr || Find(world, directory) == nullptr) {
        return -1;
    }
    if (world->HowToList() == Listing::Snapshot) {
        *names = world->Names(directory);
        return static_cast<int>(names->size());
    }
    names->clear();
    for (;;) {
        std::vector<std::string> present = world->Names(directory);
        auto next = names->empty() ? present.begin() : std::ranges::upper_bound(present, names->back());
        if (next == present.end()) {
            return static_cast<int>(names->size());
        }
        names->push_back(*next);
        world->Step();
    }
}

const FileLockIdentity& FileLockOwnIdentity() {
    thread_local FileLockIdentity identity;
    identity = {MACHINE, "old", std::to_string(LockWorld::CurrentProcessId())};
    return identity;
}

std::string FileLockOwnPayload() {
    return std::to_string(1000000 + LockWorld::CurrentProcessId());
}

uint32_t FileLockDrawNumber() {
    return LockWorld::Current()->DrawNumber();
}

int FileLockNormalizePath(const char* name, std::string* path) {
    *path = name;
    return 0;
}

bool HardProcessValidation(int32_t processId, bool checkTime, uint64_t creationTime) {
    int error;
    LockWorld* world = Begin(&error);
    return world == nullptr || world->IsAlive(processId, checkTime, creationTime);
}

void FileLockSleep(uint32_t milliseconds) {
    LockWorld::Current()->Sleep(milliseconds);
}

int FileLockLastError() {
    return 5;
}

FileLockFile::~FileLockFile() {
    delete static_cast<Handle*>(handle);
}

int FileLockOpenFile(const std::string& name, uint32_t flags, FileLockFile* file) {
    int error;
    LockWorld* world = Begin(&error);
    if (world == nullptr) {
        return error;
    }
    LockWorld::Node* node = Find(world, name.c_str());
    if (node == nullptr) {
        if ((flags & FILELOCK_OPEN_CREATE) == 0 || !HasParent(world, name)) {
            return FILE_ENOENT;
        }
        world->AddFile(name, "");
        node = Find(world, name.c_str());
    }
    if (node->isDirectory) {
        return FILE_EACCES;
    }
    file->handle = new Handle(node->content);
    return 0;
}

int FileLockCloseFile(FileLockFile* file) {
    delete static_cast<Handle*>(std::exchange(file->handle, nullptr));
    int error;
    Begin(&error);
    return error;
}

int FileLockReadFile(FileLockFile* file, void* buffer, uint32_t length, uint32_t* done) {
    int error;
    *done = 0;
    if (Begin(&error) == nullptr) {
        return error;
    }
    const std::string& content = **static_cast<Handle*>(file->handle);
    *done = static_cast<uint32_t>(std::min<size_t>(length, content.size()));
    memcpy(buffer, content.data(), *done);
    return 0;
}

int FileLockWriteFile(FileLockFile* file, const void* buffer, uint32_t length, uint32_t* done) {
    int error;
    *done = 0;
    if (Begin(&error) == nullptr) {
        return error;
    }
    (*static_cast<Handle*>(file->handle))->assign(static_cast<const char*>(buffer), length);
    *done = length;
    return 0;
}
