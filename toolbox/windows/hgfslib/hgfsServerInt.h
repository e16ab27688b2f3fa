// The file server's inside: its state, the tables of a session, and what the handlers are made of.
//
// Locking: each table has its own lock, taken by the functions below and never held across two of them; the
// session's reference count and the handle counter are atomic. The pending reply and the static reply buffer
// belong to the one packet that is in progress.
#pragma once

#include "hgfslib/cpName.h"
#include "hgfslib/hgfsPlatform.h"
#include "hgfslib/hgfsProto.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

// ---- Tables ----

inline constexpr uint32_t kHgfsNoIndex = UINT32_MAX;
inline constexpr size_t kHgfsFirstTableSize = 100; // doubled whenever it is full

struct HgfsLinks {
    uint32_t previous = kHgfsNoIndex;
    uint32_t next = kHgfsNoIndex;
};

// A doubly linked list through the `links` of a table's entries, by index, so that it survives the table's
// growth.
template <typename Entry>
class HgfsIndexList {
public:
    void PushBack(std::vector<Entry>& table, uint32_t index) {
        table[index].links = {back_, kHgfsNoIndex};
        (back_ == kHgfsNoIndex ? front_ : table[back_].links.next) = index;
        back_ = index;
        ++size_;
    }
    void Remove(std::vector<Entry>& table, uint32_t index) {
        auto [previous, next] = table[index].links;
        (previous == kHgfsNoIndex ? front_ : table[previous].links.next) = next;
        (next == kHgfsNoIndex ? back_ : table[next].links.previous) = previous;
        table[index].links = {};
        --size_;
    }
    void MoveToBack(std::vector<Entry>& table, uint32_t index) {
        if (index != back_) {
            Remove(table, index);
            PushBack(table, index);
        }
    }
    uint32_t Front() const { return front_; }
    size_t Size() const { return size_; }

private:
    uint32_t front_ = kHgfsNoIndex;
    uint32_t back_ = kHgfsNoIndex;
    size_t size_ = 0;
};

// Entries that are found by the handle the host knows them by. An entry has `links` and `handle`.
template <typename Entry>
class HgfsTable {
public:
    // A blank entry for a handle; the table doubles when it is full. Throws std::bad_alloc, nothing changed.
    uint32_t Take(uint32_t handle) {
        if (free_.Size() == 0) {
            Grow();
        }
        uint32_t index = free_.Front();
        byHandle_.emplace(handle, index);
        free_.Remove(entries_, index);
        entries_[index].handle = handle;
        return index;
    }
    void Return(uint32_t index) {
        byHandle_.erase(entries_[index].handle);
        entries_[index] = Entry();
        free_.PushBack(entries_, index);
    }
    std::optional<uint32_t> Find(uint32_t handle) const {
        auto found = byHandle_.find(handle);
        return found == byHandle_.end() ? std::nullopt : std::optional(found->second);
    }
    Entry& operator[](uint32_t index) { return entries_[index]; }
    std::vector<Entry>& Entries() { return entries_; }
    size_t InUse() const { return byHandle_.size(); }

private:
    void Grow() {
        size_t old = entries_.size();
        entries_.resize(old == 0 ? kHgfsFirstTableSize : 2 * old);
        for (size_t i = old; i < entries_.size(); ++i) {
            free_.PushBack(entries_, static_cast<uint32_t>(i));
        }
    }

    std::vector<Entry> entries_;
    HgfsIndexList<Entry> free_;
    std::unordered_map<uint32_t, uint32_t> byHandle_;
};

// ---- Shares, nodes, searches ----

struct HgfsShare {
    std::string name;
    std::string localPath; // empty: the whole local name space, by drive and machine
    bool readAllowed;
    bool writeAllowed;
};

enum class HgfsNodeState : uint32_t { Unused = 0, Cached = 1, Closed = 2 };

inline constexpr uint8_t kHgfsNodeAppend = 0x1;     // opened for appending only
inline constexpr uint8_t kHgfsNodeSequential = 0x2; // reads and writes at the file's position
inline constexpr uint8_t kHgfsNodeCreated = 0x4;    // the open created the file

// An open file as the host sees it. The system's file is closed while the node is not in the cache.
struct HgfsNode {
    HgfsLinks links; // free list or cache list
    uint32_t handle = 0;
    std::string localName;
    std::string requestName; // as the host gave it
    std::string shareName;
    HgfsFileId fileId{};
    HgfsOsHandle osHandle = nullptr; // valid while cached
    uint32_t desiredAccess = 0;
    uint32_t shareAccess = 0;
    uint32_t lock = 0; // granted at open; none is
    HgfsNodeState state = HgfsNodeState::Unused;
    uint8_t flags = 0;
    bool shareRead = false;
    bool shareWrite = false;
    uint64_t position = 0; // of a sequential file while it is closed
};

// An open directory listing: the names as they were when it was opened.
struct HgfsSearch {
    HgfsLinks links;
    uint32_t handle = 0;
    std::string localName;
    std::string requestName;
    std::string shareName;
    std::vector<std::string> entries;
};

enum class HgfsSessionKind : uint8_t { Channel, Other };
enum class HgfsSessionState : uint8_t { Open, Closed };

struct HgfsSession {
    HgfsSessionKind kind = HgfsSessionKind::Channel;
    HgfsSessionState state = HgfsSessionState::Open;
    std::atomic<uint32_t> references = 1;
    std::mutex lock; // state

    std::mutex nodeLock;
    HgfsTable<HgfsNode> nodes;
    HgfsIndexList<HgfsNode> cache; // least recently used first
    uint32_t lockedCount = 0;      // of the cached nodes

    std::mutex searchLock;
    HgfsTable<HgfsSearch> searches;
};

// ---- Server state ----

struct HgfsReply {
    std::unique_ptr<uint8_t[]> bytes;
    size_t size = 0;
    explicit operator bool() const { return bytes != nullptr; }
};

// Told the next handle after each one that is given out.
using HgfsHandleObserver = void (*)(uint32_t nextHandle);

struct HgfsServerState {
    const HgfsPlatform* platform = nullptr;
    std::vector<HgfsShare> shares;
    size_t maxCachedNodes = 0;
    std::atomic<uint32_t> nextHandle = 0;
    std::atomic<unsigned> reportedFailures = 0;
    HgfsHandleObserver observer = nullptr;
    HgfsSession* session = nullptr; // the channel's
    HgfsReply pending;
};
extern HgfsServerState hgfsServer;

inline constexpr size_t kHgfsMaxCachedNodes = 30; // default of "hgfs.fdCache.maxNodes"

// Builds the share list and the state and starts the platform; false leaves nothing behind.
bool HgfsServerStartUp(const HgfsPlatform* platform, size_t maxCachedNodes, HgfsHandleObserver observer);

// Drops the session with everything it has open, and the rest of what HgfsServerStartUp made.
void HgfsServerShutDown();

// Answers one packet. `size` is the packet's on entry and the reply's on return, 0 for none; `reply` has room
// for kHgfsLargePacketMax bytes.
void HgfsServer_HandlePacket(const uint8_t* packet, uint8_t* reply, size_t* size);

// Dispatches one packet; its reply is left as the pending one.
void HgfsServer_ReceivePacket(std::span<const uint8_t> packet, HgfsSession* session);

HgfsSession* HgfsServerCreateSession(); // with one reference; null when memory is short
void HgfsServerReleaseSession(HgfsSession* session);

HgfsStatus HgfsServer_MapStatus(uint32_t error);
uint32_t HgfsServer_MapNameStatus(uint32_t status); // a Windows error; an unknown status is fatal

// Owns an open file of the platform until it is released.
class HgfsFileOwner {
public:
    explicit HgfsFileOwner(HgfsOsHandle handle) : handle_(handle) {}
    ~HgfsFileOwner() {
        if (handle_ != nullptr) {
            hgfsServer.platform->close(handle_);
        }
    }
    HgfsFileOwner(const HgfsFileOwner&) = delete;
    HgfsFileOwner& operator=(const HgfsFileOwner&) = delete;
    HgfsOsHandle Get() const { return handle_; }
    HgfsOsHandle Release() { return std::exchange(handle_, nullptr); }

private:
    HgfsOsHandle handle_;
};

// ---- Names ----

struct HgfsShareInfo {
    bool readAllowed = false;
    bool writeAllowed = false;
    std::string shareName;
    std::string path;
};

// Resolves a request's name to a local path. Windows names ignore case, so the case type changes nothing.
HgfsNameStatus HgfsServerGetShareInfo(std::string_view name, uint32_t caseType, HgfsShareInfo* info);

// Whether a local path may be handed to the system: HgfsErrorInvalidName for one that is not UTF-8 and for a
// drive path of more than 259 UTF-16 units.
uint32_t HgfsServerCheckPath(std::string_view path);

// ---- Nodes (hgfsNode.cpp) ----

struct HgfsNodeFields {
    std::string localName;
    std::string requestName;
    HgfsFileId fileId{};
    uint32_t desiredAccess = 0;
    uint32_t shareAccess = 0;
    uint8_t flags = 0;
    bool shareRead = false;
    bool shareWrite = false;
};

// What a request needs of an open file.
struct HgfsOpenFile {
    HgfsOsHandle osHandle;
    uint8_t flags;
    bool shareRead;
    bool shareWrite;
};

// Makes a node of a file that has just been opened and admits it to the cache. On failure the file stays the
// caller's. Throws std::bad_alloc with nothing made.
uint32_t HgfsServerAddNode(HgfsSession* session, HgfsNode fields, uint32_t* handle);

// The open file behind a handle, reopened if the cache had closed it. HgfsErrorInvalidHandle for an unknown
// one. Opening, reopening or closing another node may close it again.
uint32_t HgfsServerGetFile(HgfsSession* session, uint32_t handle, HgfsOpenFile* file);

// Frees a node and closes its file. False for an unknown handle or a file that cannot be closed.
bool HgfsServerCloseNode(HgfsSession* session, uint32_t handle);

uint32_t HgfsServerGetNodeFields(HgfsSession* session, uint32_t handle, HgfsNodeFields* fields);

// Lets the nodes of a file, or of those below a directory, follow a rename by the host: planned before it,
// carried out when it has succeeded. The planning throws std::bad_alloc.
struct HgfsNodeRename {
    uint32_t handle;
    std::string localName;
};
std::vector<HgfsNodeRename> HgfsServerPlanNodeRenames(HgfsSession* session, std::string_view from,
                                                      std::string_view to);
void HgfsServerRenameNodes(HgfsSession* session, std::vector<HgfsNodeRename> renames);

// Puts a node whose file is open at the most recently used end of the cache, closing another one's file when
// the cache is full. The node lock is held.
bool HgfsServer_AdmitToCache(HgfsSession* session, uint32_t index);

void HgfsServerFreeAllNodes(HgfsSession* session);

uint32_t HgfsServerNewHandle();

// ---- Searches (hgfsNode.cpp) ----

uint32_t HgfsServerAddSearch(HgfsSession* session, HgfsSearch fields); // its handle; throws std::bad_alloc

// The directory and the name of one entry, empty behind the last; HgfsErrorInvalidHandle for an unknown
// handle.
uint32_t HgfsServerGetSearchEntry(HgfsSession* session, uint32_t handle, uint32_t index,
                                  std::string* directory, std::string* entry);
bool HgfsServerCloseSearch(HgfsSession* session, uint32_t handle);

// ---- Handlers ----

// Gets a packet of at least the operation's minimum size. Returns 0 when it has queued its reply, or a
// Windows error, with nothing left half made. May throw std::bad_alloc under the same terms.
using HgfsHandler = uint32_t (*)(std::span<const uint8_t> packet, HgfsSession* session);

uint32_t HgfsServerOpen(std::span<const uint8_t> packet, HgfsSession* session);
uint32_t HgfsServerRead(std::span<const uint8_t> packet, HgfsSession* session);
uint32_t HgfsServerWrite(std::span<const uint8_t> packet, HgfsSession* session);
uint32_t HgfsServerClose(std::span<const uint8_t> packet, HgfsSession* session);
uint32_t HgfsServerSearchOpen(std::span<const uint8_t> packet, HgfsSession* session);
uint32_t HgfsServerSearchRead(std::span<const uint8_t> packet, HgfsSession* session);
uint32_t HgfsServerSearchClose(std::span<const uint8_t> packet, HgfsSession* session);
uint32_t HgfsServerGetattr(std::span<const uint8_t> packet, HgfsSession* session);
uint32_t HgfsServerSetattr(std::span<const uint8_t> packet, HgfsSession* session);
uint32_t HgfsServerCreateDir(std::span<const uint8_t> packet, HgfsSession* session);
uint32_t HgfsServerDeleteFile(std::span<const uint8_t> packet, HgfsSession* session);
uint32_t HgfsServerDeleteDir(std::span<const uint8_t> packet, HgfsSession* session);
uint32_t HgfsServerRename(std::span<const uint8_t> packet, HgfsSession* session);
uint32_t HgfsServerQueryVolume(std::span<const uint8_t> packet, HgfsSession* session);
uint32_t HgfsServerNotSupported(std::span<const uint8_t> packet, HgfsSession* session);

// Room for a reply, header included; empty when memory is short. Handlers take it before they change
// anything. NewReply gives zeros, NewDataReply zeros only up to `dataOffset`.
HgfsReply HgfsServerNewReply(size_t size);
HgfsReply HgfsServerNewDataReply(size_t dataOffset, size_t dataSize);

// Fills in the header, makes the reply the pending one and releases the session's reference. Returns 0.
uint32_t HgfsServer_QueueReply(HgfsSession* session, uint32_t requestId, uint32_t error, HgfsReply reply);

inline uint32_t HgfsRequestId(std::span<const uint8_t> packet) {
    return HgfsPacketReader(packet).U32(HgfsRequestHeader::Id);
}
inline HgfsOp HgfsRequestOp(std::span<const uint8_t> packet) {
    return static_cast<HgfsOp>(HgfsPacketReader(packet).U32(HgfsRequestHeader::Op));
}

struct HgfsRequestName {
    std::string_view bytes;
    uint32_t caseType = kHgfsCaseDefault;
};

// Reads the name block at `offset`. `behind` is the least that must follow it; `next` (optional) receives
// where that begins. HgfsErrorProtocol for a name that runs past the packet.
uint32_t HgfsServerReadName(HgfsPacketReader* reader, size_t offset, uint32_t version, HgfsRequestName* name,
                            size_t behind = 0, size_t* next = nullptr);

// The local path of a name; a Windows error for one that has none.
uint32_t HgfsServerResolveName(const HgfsRequestName& name, HgfsShareInfo* info);

// HgfsServerResolveName for an operation that changes the file system.
uint32_t HgfsServerResolveForChange(const HgfsRequestName& name, HgfsShareInfo* info);

// Queues a reply of success; without one the request fails for lack of memory.
uint32_t HgfsServerFinish(HgfsSession* session, std::span<const uint8_t> packet, HgfsReply reply);

// The reply of an operation that has nothing to tell.
HgfsReply HgfsServerNewEmptyReply(HgfsOp op);

// ---- Requests about a file that is named or open (hgfsServerName.cpp) ----

// Where a request says which file it means; mask 0 for a version that has neither mask nor handle.
struct HgfsTargetLayout {
    size_t mask;
    size_t handle;
    size_t name;
};
HgfsTargetLayout HgfsServerTargetLayout(HgfsOp op); // of get attributes and the deletes

struct HgfsTarget {
    bool byHandle = false;
    uint32_t handle = 0;
    std::string path; // of an open file, the one it was opened by
    bool readAllowed = false;
    bool writeAllowed = false;
};

// The name block has to be well formed even when the handle counts.
uint32_t HgfsServerReadTarget(HgfsPacketReader* reader, const HgfsTargetLayout& layout, HgfsSession* session,
                              HgfsTarget* target);

// ---- Attributes (hgfsServerAttr.cpp) ----

uint32_t HgfsServerWindowsAttributes(uint64_t attributes);

// The reply of get attributes and of search read: a block, zeros when `info` is null, and, except in version
// 1 of get attributes, a name, left out when it does not fit into an ordinary packet.
HgfsReply HgfsServerNewAttributesReply(HgfsOp op, const HgfsFileInfo* info, std::string_view name);

// ---- Directories (hgfsServerSearch.cpp) ----

// The names in a directory as the file system spells them, "." and ".." first. Throws std::bad_alloc.
uint32_t HgfsServerGetDents(const std::string& directory, std::vector<std::string>* entries);

// ---- Open (hgfsServerOpen.cpp) ----

// The fields of all versions in one form.
struct HgfsOpenRequest {
    uint64_t mask = 0;
    uint32_t mode = 0;
    uint32_t flags = 0;
    uint8_t ownerPerms = 0;
    uint64_t attributes = 0;
    uint32_t desiredAccess = 0;
    uint32_t shareAccess = 0;
    uint32_t desiredLock = 0;
    HgfsRequestName name = {};
};

uint32_t HgfsServerUnpackOpen(std::span<const uint8_t> packet, HgfsOpenRequest* request);

// The Windows disposition of HGFS open flags; false, logged, for flags that do not exist.
bool HgfsServerGetOpenFlags(uint32_t flags, uint32_t* disposition);

// What a request asks of the system. HgfsErrorProtocol for a combination that means nothing.
uint32_t HgfsServerPlanOpen(const HgfsOpenRequest& request, HgfsOpenArguments* plan);

// Opens a local path as planned, within what the share allows. The caller closes the handle.
uint32_t HgfsServerOpenFile(const HgfsShareInfo& share, const HgfsOpenArguments& plan, HgfsOsHandle* handle,
                            bool* existed);
