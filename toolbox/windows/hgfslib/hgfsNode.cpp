// Open files and searches of a session, and the cache that bounds how many files the system holds open.
#include "hgfslib/hgfsServerInt.h"
#include "misc/diag.h"

#include <algorithm>
#include <utility>

namespace {

const char kUnit[] = "toolbox/windows/hgfslib/hgfsServer";

// The tables' functions with the node lock held.

void RemoveFromCache(HgfsSession* session, uint32_t index) {
    HgfsNode& node = session->nodes[index];
    session->cache.Remove(session->nodes.Entries(), index);
    node.state = HgfsNodeState::Closed;
    if (node.lock != 0) {
        --session->lockedCount;
    }
}

// Takes a node out of the cache and closes its file, keeping what reopening does not bring back.
bool CloseCached(HgfsSession* session, uint32_t index) {
    HgfsNode& node = session->nodes[index];
    if (node.flags & kHgfsNodeSequential) {
        uint64_t position = 0;
        if (hgfsServer.platform->getPosition(node.osHandle, &position) == HgfsErrorNone) {
            node.position = position;
        }
    }
    RemoveFromCache(session, index);
    return hgfsServer.platform->close(std::exchange(node.osHandle, nullptr));
}

// Closes the file that has not been used for longest and that no lock keeps open.
bool Evict(HgfsSession* session) {
    auto& table = session->nodes.Entries();
    for (size_t tries = session->cache.Size(); tries > 0; --tries) {
        uint32_t index = session->cache.Front();
        if (session->nodes[index].lock == 0) {
            return CloseCached(session, index);
        }
        session->cache.MoveToBack(table, index);
    }
    return true;
}

uint32_t Reopen(HgfsSession* session, uint32_t index) {
    const HgfsPlatform& platform = *hgfsServer.platform;
    HgfsNode& node = session->nodes[index];
    const bool sequential = (node.flags & kHgfsNodeSequential) != 0;
    HgfsOpenArguments arguments = {node.desiredAccess | kHgfsAccessReadControl, node.shareAccess,
                                   HgfsOpenExisting,
                                   kHgfsFlagBackupSemantics | (sequential ? 0 : kHgfsFlagOverlapped)};
    HgfsOsHandle handle = nullptr;
    uint32_t error = platform.open(node.localName, arguments, &handle, nullptr);
    if (error != HgfsErrorNone) {
        return error;
    }
    HgfsFileOwner file(handle);
    if (node.position != 0) {
        error = platform.setPosition(handle, node.position);
        if (error != HgfsErrorNone) {
            return error; // reading on from the start would be worse
        }
    }
    if (!HgfsServer_AdmitToCache(session, index)) {
        return HgfsErrorInvalidHandle;
    }
    node.osHandle = file.Release();
    return HgfsErrorNone;
}

// Whether a path is `from` or lies below it. Names ignore case as far as ASCII goes; beyond that the host's
// spelling has to match.
bool IsAtOrBelow(std::string_view path, std::string_view from) {
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    auto same = [&](char l, char r) { return lower(l) == lower(r); };
    return path.size() >= from.size() && std::equal(from.begin(), from.end(), path.begin(), same) &&
           (path.size() == from.size() || path[from.size()] == '\\');
}

} // namespace

uint32_t HgfsServerNewHandle() {
    uint32_t handle = hgfsServer.nextHandle++;
    if (hgfsServer.observer != nullptr) {
        hgfsServer.observer(handle + 1);
    }
    return handle;
}

bool HgfsServer_AdmitToCache(HgfsSession* session, uint32_t index) {
    HgfsNode& node = session->nodes[index];
    auto& table = session->nodes.Entries();
    if (node.state == HgfsNodeState::Cached) {
        session->cache.MoveToBack(table, index);
        return true;
    }
    if (session->cache.Size() == hgfsServer.maxCachedNodes && !Evict(session)) {
        return false;
    }
    if (session->cache.Size() >= hgfsServer.maxCachedNodes) {
        Diag_AssertFailed(kUnit, __LINE__, 36244);
    }
    session->cache.PushBack(table, index);
    node.state = HgfsNodeState::Cached;
    if (node.lock != 0) {
        ++session->lockedCount;
    }
    return true;
}

uint32_t HgfsServerAddNode(HgfsSession* session, HgfsNode fields, uint32_t* handle) {
    std::lock_guard guard(session->nodeLock);
    uint32_t index = session->nodes.Take(HgfsServerNewHandle());
    HgfsNode& node = session->nodes[index];
    fields.handle = node.handle;
    fields.links = node.links;
    fields.state = HgfsNodeState::Closed;
    node = std::move(fields);
    if (!HgfsServer_AdmitToCache(session, index)) {
        session->nodes.Return(index);
        return HgfsErrorInternal;
    }
    *handle = node.handle;
    return HgfsErrorNone;
}

uint32_t HgfsServerGetFile(HgfsSession* session, uint32_t handle, HgfsOpenFile* file) {
    std::lock_guard guard(session->nodeLock);
    auto index = session->nodes.Find(handle);
    if (!index) {
        return HgfsErrorInvalidHandle;
    }
    HgfsNode& node = session->nodes[*index];
    if (node.state == HgfsNodeState::Cached) {
        session->cache.MoveToBack(session->nodes.Entries(), *index);
    } else if (uint32_t error = Reopen(session, *index); error != HgfsErrorNone) {
        return error;
    }
    *file = {node.osHandle, node.flags, node.shareRead, node.shareWrite};
    return HgfsErrorNone;
}

bool HgfsServerCloseNode(HgfsSession* session, uint32_t handle) {
    std::lock_guard guard(session->nodeLock);
    auto index = session->nodes.Find(handle);
    if (!index) {
        return false;
    }
    bool closed = session->nodes[*index].state != HgfsNodeState::Cached || CloseCached(session, *index);
    session->nodes.Return(*index);
    return closed;
}

uint32_t HgfsServerGetNodeFields(HgfsSession* session, uint32_t handle, HgfsNodeFields* fields) {
    std::lock_guard guard(session->nodeLock);
    auto index = session->nodes.Find(handle);
    if (!index) {
        return HgfsErrorInvalidHandle;
    }
    const HgfsNode& node = session->nodes[*index];
    *fields = {node.localName,   node.requestName, node.fileId,    node.desiredAccess,
               node.shareAccess, node.flags,       node.shareRead, node.shareWrite};
    return HgfsErrorNone;
}

std::vector<HgfsNodeRename> HgfsServerPlanNodeRenames(HgfsSession* session, std::string_view from,
                                                      std::string_view to) {
    std::lock_guard guard(session->nodeLock);
    std::vector<HgfsNodeRename> renames;
    for (const HgfsNode& node : session->nodes.Entries()) {
        if (node.state != HgfsNodeState::Unused && IsAtOrBelow(node.localName, from)) {
            renames.push_back({node.handle, std::string(to) + node.localName.substr(from.size())});
        }
    }
    return renames;
}

void HgfsServerRenameNodes(HgfsSession* session, std::vector<HgfsNodeRename> renames) {
    std::lock_guard guard(session->nodeLock);
    for (HgfsNodeRename& rename : renames) {
        if (auto index = session->nodes.Find(rename.handle)) {
            session->nodes[*index].localName = std::move(rename.localName);
        }
    }
}

void HgfsServerFreeAllNodes(HgfsSession* session) {
    std::lock_guard guard(session->nodeLock);
    while (session->cache.Size() > 0) {
        CloseCached(session, session->cache.Front());
    }
}

uint32_t HgfsServerAddSearch(HgfsSession* session, HgfsSearch fields) {
    std::lock_guard guard(session->searchLock);
    uint32_t index = session->searches.Take(HgfsServerNewHandle());
    HgfsSearch& search = session->searches[index];
    fields.handle = search.handle;
    fields.links = search.links;
    search = std::move(fields);
    return search.handle;
}

uint32_t HgfsServerGetSearchEntry(HgfsSession* session, uint32_t handle, uint32_t index,
                                  std::string* directory, std::string* entry) {
    std::lock_guard guard(session->searchLock);
    auto found = session->searches.Find(handle);
    if (!found) {
        return HgfsErrorInvalidHandle;
    }
    const HgfsSearch& search = session->searches[*found];
    *directory = search.localName;
    *entry = index < search.entries.size() ? search.entries[index] : std::string();
    return HgfsErrorNone;
}

bool HgfsServerCloseSearch(HgfsSession* session, uint32_t handle) {
    std::lock_guard guard(session->searchLock);
    auto index = session->searches.Find(handle);
    if (!index) {
        return false;
    }
    session->searches.Return(*index);
    return true;
}
