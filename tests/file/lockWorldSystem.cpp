// The system that the lock protocol finds in a LockWorld: each call is one step of the locker that makes it.
#include "lockWorld.h"

#include "file/file.h"
#include "file/fileLockEdge.h"
#include "file/fileRules.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

constexpr int ENOT_EMPTY = 41;

using Handle = std::shared_ptr<std::string>;

// Makes a step and acts in it. Outside a world, or with an error to be met, nothing is done.
template <typename Act>
int AsStep(Act act) {
    LockWorld* world = LockWorld::Current();
    int error = world == nullptr ? FILE_ENOENT : world->Step();
    return error == 0 ? act(*world) : error;
}

LockWorld::Node* Find(LockWorld& world, const std::string& name) {
    auto file = world.files.find(name);
    return file == world.files.end() ? nullptr : &file->second;
}

// Whether something can be made under the name.
bool HasParent(LockWorld& world, const std::string& name) {
    std::string parent = name.substr(0, name.rfind('\\'));
    LockWorld::Node* node = Find(world, parent);
    return parent == "C:" || (node != nullptr && node->isDirectory);
}

} // namespace

int FileAttributesRetry(const char* name, uint32_t /*budgetMs*/, FileData* data) {
    return AsStep([&](LockWorld& world) {
        LockWorld::Node* node = Find(world, name);
        if (node != nullptr && data != nullptr) {
            *data = FileData{};
            data->type = node->type;
            data->size = node->content == nullptr ? 0 : node->content->size();
        }
        return node == nullptr ? FILE_ENOENT : 0;
    });
}

int FileCreateDirectoryRetry(const char* name, uint32_t /*budgetMs*/) {
    return AsStep([&](LockWorld& world) {
        if (Find(world, name) != nullptr) {
            return FILE_EEXIST;
        }
        if (!HasParent(world, name)) {
            return FILE_ENOENT;
        }
        world.AddDirectory(name);
        return 0;
    });
}

int FileRemoveDirectoryRetry(const char* name, uint32_t /*budgetMs*/) {
    return AsStep([&](LockWorld& world) {
        LockWorld::Node* node = Find(world, name);
        if (node == nullptr || !node->isDirectory) {
            return node == nullptr ? FILE_ENOENT : FILE_ENOTDIR;
        }
        if (!world.Names(name).empty()) {
            return ENOT_EMPTY;
        }
        world.files.erase(name);
        return 0;
    });
}

int FileDeletionRetry(const char* name, bool /*handleLink*/, uint32_t /*budgetMs*/) {
    return AsStep([&](LockWorld& world) {
        LockWorld::Node* node = Find(world, name);
        if (node == nullptr || node->isDirectory) {
            return node == nullptr ? FILE_ENOENT : FILE_EACCES;
        }
        world.files.erase(name);
        return 0;
    });
}

int FileRenameRetry(const char* oldName, const char* newName, uint32_t /*budgetMs*/) {
    return AsStep([&](LockWorld& world) {
        LockWorld::Node* node = Find(world, oldName);
        if (node == nullptr || Find(world, newName) != nullptr) {
            return node == nullptr ? FILE_ENOENT : FILE_EEXIST;
        }
        world.files[newName] = *node;
        world.files.erase(oldName);
        return 0;
    });
}

int FileListDirectoryRetry(const char* directory, uint32_t /*budgetMs*/, std::vector<std::string>* names) {
    int error = AsStep([&](LockWorld& world) {
        *names = world.Names(directory);
        return Find(world, directory) == nullptr ? FILE_ENOENT : 0;
    });
    if (error != 0) {
        return -1;
    }
    LockWorld& world = *LockWorld::Current();
    if (world.HowToList() == Listing::Vanishing) {
        std::erase_if(*names, [&](const std::string& name) {
            world.Step();
            return Find(world, directory + ("\\" + name)) == nullptr;
        });
    } else if (world.HowToList() == Listing::Reversed) {
        std::vector<std::string> present = std::exchange(*names, {});
        while (!present.empty()) {
            names->push_back(present.back());
            world.Step();
            present = world.Names(directory);
            std::erase_if(present, [&](const std::string& name) { return name >= names->back(); });
        }
    }
    return static_cast<int>(names->size());
}

const FileLockIdentity& FileLockOwnIdentity() {
    thread_local FileLockIdentity identity;
    identity = {"uuid=this", "old", std::to_string(LockWorld::CurrentProcessId())};
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
    return AsStep(
        [&](LockWorld& world) { return world.IsAlive(processId, checkTime, creationTime) ? 1 : 0; });
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
    return AsStep([&](LockWorld& world) {
        if (Find(world, name) == nullptr && (flags & FILELOCK_OPEN_CREATE) != 0 && HasParent(world, name)) {
            world.AddFile(name, "");
        }
        LockWorld::Node* node = Find(world, name);
        if (node == nullptr || node->isDirectory) {
            return node == nullptr ? FILE_ENOENT : FILE_EACCES;
        }
        file->handle = new Handle(node->content);
        return 0;
    });
}

int FileLockCloseFile(FileLockFile* file) {
    delete static_cast<Handle*>(std::exchange(file->handle, nullptr));
    return AsStep([](LockWorld&) { return 0; });
}

int FileLockReadFile(FileLockFile* file, void* buffer, uint32_t length, uint32_t* done) {
    *done = 0;
    return AsStep([&](LockWorld&) {
        const std::string& content = **static_cast<Handle*>(file->handle);
        *done = static_cast<uint32_t>(std::min<size_t>(length, content.size()));
        memcpy(buffer, content.data(), *done);
        return 0;
    });
}

int FileLockWriteFile(FileLockFile* file, const void* buffer, uint32_t length, uint32_t* done) {
    *done = 0;
    return AsStep([&](LockWorld&) {
        (*static_cast<Handle*>(file->handle))->assign(static_cast<const char*>(buffer), length);
        *done = length;
        return 0;
    });
}
