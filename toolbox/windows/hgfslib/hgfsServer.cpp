// The server's state, its session, and the dispatch of packets.
#include "hgfslib/hgfsServerInt.h"
#include "misc/diag.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

HgfsServerState hgfsServer;

namespace {

// In the order of the operation numbers; the names, versions and smallest sizes are kHgfsOps'.
constexpr std::array<HgfsHandler, HgfsOpCount> kHandlers = {
    HgfsServerOpen,         HgfsServerRead,         HgfsServerWrite,        HgfsServerClose,
    HgfsServerSearchOpen,   HgfsServerSearchRead,   HgfsServerSearchClose,  HgfsServerGetattr,
    HgfsServerSetattr,      HgfsServerCreateDir,    HgfsServerDeleteFile,   HgfsServerDeleteDir,
    HgfsServerRename,       HgfsServerQueryVolume,

    HgfsServerOpen,         HgfsServerGetattr,      HgfsServerSetattr,      HgfsServerSearchRead,
    HgfsServerNotSupported, HgfsServerNotSupported, HgfsServerCreateDir,    HgfsServerDeleteFile,
    HgfsServerDeleteDir,    HgfsServerRename,

    HgfsServerOpen,         HgfsServerRead,         HgfsServerWrite,        HgfsServerClose,
    HgfsServerSearchOpen,   HgfsServerSearchRead,   HgfsServerSearchClose,  HgfsServerGetattr,
    HgfsServerSetattr,      HgfsServerCreateDir,    HgfsServerDeleteFile,   HgfsServerDeleteDir,
    HgfsServerRename,       HgfsServerQueryVolume,  HgfsServerNotSupported, HgfsServerNotSupported,
};
static_assert(kHandlers[HgfsOpQueryVolumeInfo] == HgfsServerQueryVolume);
static_assert(kHandlers[HgfsOpSearchReadV2] == HgfsServerSearchRead &&
              kHandlers[HgfsOpRenameV2] == HgfsServerRename);
static_assert(kHandlers[HgfsOpQueryVolumeInfoV3] == HgfsServerQueryVolume);

constexpr unsigned kMaxReportedFailures = 10; // of one start-up

// For the debugger; and as warnings, which the program keeps in its log, the first failures of what a copy
// into the guest consists of: a full disk has to be told from there, and a host that goes on and on must not
// fill it.
void ReportFailure(HgfsOp op, uint32_t error) {
    const char* name = kHgfsOps[op].name.data();
    Debug("HgfsServer: %s failed, error %u\n", name, static_cast<unsigned>(error));
    const HgfsHandler handler = kHandlers[op];
    const bool copies = handler == HgfsServerOpen || handler == HgfsServerWrite || handler == HgfsServerClose;
    if (copies && hgfsServer.reportedFailures < kMaxReportedFailures) {
        ++hgfsServer.reportedFailures;
        Warning("HgfsServer: %s failed, error %u\n", name, static_cast<unsigned>(error));
    }
}

// Runs the handler of a packet that is as long as its operation asks for. Its failure is logged in here
// because memory for that may be short, too.
uint32_t CallHandler(std::span<const uint8_t> packet, HgfsSession* session) {
    if (packet.size() < kHgfsHeaderSize) {
        return HgfsErrorProtocol;
    }
    const HgfsOp op = HgfsRequestOp(packet);
    if (op >= HgfsOpCount || packet.size() < kHgfsOps[op].minimumSize) {
        return HgfsErrorProtocol;
    }
    try {
        const uint32_t error = kHandlers[op](packet, session);
        if (error != HgfsErrorNone) {
            ReportFailure(op, error);
        }
        return error;
    } catch (const std::bad_alloc&) {
        return HgfsErrorInternal;
    }
}

} // namespace

bool HgfsServerStartUp(const HgfsPlatform* platform, size_t maxCachedNodes, HgfsHandleObserver observer) {
    try {
        hgfsServer.shares.push_back({"root", "", true, true});
    } catch (const std::bad_alloc&) {
        hgfsServer.shares.clear();
        return false;
    }
    hgfsServer.platform = platform;
    hgfsServer.maxCachedNodes = maxCachedNodes;
    hgfsServer.nextHandle = 0;
    hgfsServer.reportedFailures = 0;
    hgfsServer.observer = observer;
    hgfsServer.session = nullptr;
    hgfsServer.pending = {};
    uint32_t error = platform->startUp();
    if (error != HgfsErrorNone) {
        Debug("HgfsServer: cannot start the platform layer, error %u\n", error);
        hgfsServer.shares.clear();
        return false;
    }
    return true;
}

void HgfsServerShutDown() {
    if (hgfsServer.session != nullptr) {
        HgfsServerReleaseSession(std::exchange(hgfsServer.session, nullptr));
    }
    hgfsServer.platform->shutDown();
    hgfsServer.pending = {};
    hgfsServer.shares.clear();
}

HgfsSession* HgfsServerCreateSession() {
    return new (std::nothrow) HgfsSession;
}

void HgfsServerReleaseSession(HgfsSession* session) {
    if (--session->references == 0) {
        HgfsServerFreeAllNodes(session);
        delete session;
    }
}

void HgfsServer_HandlePacket(const uint8_t* packet, uint8_t* reply, size_t* size) {
    if (*size == 0) {
        return;
    }
    if (hgfsServer.session == nullptr) {
        hgfsServer.session = HgfsServerCreateSession();
        if (hgfsServer.session == nullptr) {
            *size = 0;
            return;
        }
    }
    HgfsServer_ReceivePacket({packet, *size}, hgfsServer.session);
    *size = hgfsServer.pending.size;
    if (*size > 0) {
        std::memcpy(reply, hgfsServer.pending.bytes.get(), *size);
    }
    hgfsServer.pending = {};
}

void HgfsServer_ReceivePacket(std::span<const uint8_t> packet, HgfsSession* session) {
    {
        std::lock_guard guard(session->lock);
        if (session->state == HgfsSessionState::Closed) {
            return;
        }
    }
    ++session->references;
    const uint32_t error = CallHandler(packet, session);
    if (error == HgfsErrorNone) {
        return;
    }
    // The id of a packet shorter than its header is what is there, the rest taken as zeros.
    uint8_t id[4] = {};
    std::memcpy(id, packet.data(), std::min(packet.size(), sizeof id));
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): the analyser loses sight of the owner
    HgfsServer_QueueReply(session, HgfsRequestId(id), error, HgfsServerNewReply(kHgfsHeaderSize));
}

HgfsStatus HgfsServer_MapStatus(uint32_t error) {
    switch (error) {
    case HgfsErrorNone:
        return HgfsStatusSuccess;
    case HgfsErrorFileNotFound:
    case HgfsErrorPathNotFound:
        return HgfsStatusNoSuchFileOrDir;
    case HgfsErrorAccessDenied:
        return HgfsStatusAccessDenied;
    case HgfsErrorInvalidHandle:
        return HgfsStatusInvalidHandle;
    case HgfsErrorNotSameDevice:
        return HgfsStatusNotSameDevice;
    case HgfsErrorSharingViolation:
        return HgfsStatusSharingViolation;
    case HgfsErrorHandleDiskFull:
    case HgfsErrorDiskFull:
        return HgfsStatusNoSpace;
    case HgfsErrorNotSupported:
        return HgfsStatusOperationNotSupported;
    case HgfsErrorFileExists:
    case HgfsErrorAlreadyExists:
        return HgfsStatusFileExists;
    case HgfsErrorInvalidParameter:
        return HgfsStatusInvalidParameter;
    case HgfsErrorInvalidName:
        return HgfsStatusInvalidName;
    case HgfsErrorDirNotEmpty:
        return HgfsStatusDirNotEmpty;
    case HgfsErrorProtocol:
        return HgfsStatusProtocolError;
    default:
        return HgfsStatusGenericError;
    }
}

uint32_t HgfsServer_MapNameStatus(uint32_t status) {
    switch (status) {
    case HgfsNameComplete:
        return HgfsErrorNone;
    case HgfsNameFailure:
    case HgfsNameIncompleteBase:
    case HgfsNameIncompleteRoot:
    case HgfsNameIncompleteDrive:
    case HgfsNameIncompleteUnc:
    case HgfsNameIncompleteMachine:
    case HgfsNameInvalid:
    case HgfsNameTooLong:
        return HgfsErrorInvalidName;
    case HgfsNameDoesNotExist:
        return HgfsErrorPathNotFound;
    case HgfsNameAccessDenied:
        return HgfsErrorAccessDenied;
    case HgfsNameOutOfMemory:
        return HgfsErrorNotEnoughMemory;
    default:
        Diag_NotImplemented("toolbox/windows/hgfslib/hgfsServerWin32", __LINE__);
    }
}

HgfsReply HgfsServerNewReply(size_t size) {
    return {std::unique_ptr<uint8_t[]>(new (std::nothrow) uint8_t[size]()), size};
}

HgfsReply HgfsServerNewDataReply(size_t dataOffset, size_t dataSize) {
    HgfsReply reply = {std::unique_ptr<uint8_t[]>(new (std::nothrow) uint8_t[dataOffset + dataSize]),
                       dataOffset + dataSize};
    if (reply) {
        std::memset(reply.bytes.get(), 0, dataOffset);
    }
    return reply;
}

uint32_t HgfsServer_QueueReply(HgfsSession* session, uint32_t requestId, uint32_t error, HgfsReply reply) {
    if (reply) {
        HgfsPacketWriter writer({reply.bytes.get(), reply.size});
        writer.U32(HgfsReplyHeader::Id, requestId);
        writer.U32(HgfsReplyHeader::Status, HgfsServer_MapStatus(error));
        if (session->kind == HgfsSessionKind::Channel) {
            hgfsServer.pending = std::move(reply);
        }
    }
    HgfsServerReleaseSession(session);
    return HgfsErrorNone;
}

uint32_t HgfsServerFinish(HgfsSession* session, std::span<const uint8_t> packet, HgfsReply reply) {
    if (!reply) {
        return HgfsErrorNotEnoughMemory;
    }
    return HgfsServer_QueueReply(session, HgfsRequestId(packet), HgfsErrorNone, std::move(reply));
}

HgfsReply HgfsServerNewEmptyReply(HgfsOp op) {
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): the analyser loses sight of the owner
    return HgfsServerNewReply(kHgfsOps[op].version == 3 ? HgfsEmptyReplyV3::Size : HgfsEmptyReplyV1::Size);
}

uint32_t HgfsServerNotSupported(std::span<const uint8_t>, HgfsSession*) {
    return HgfsErrorNotSupported;
}
