// Opening files: from the request's fields to an open as Windows understands it.
#include "hgfslib/hgfsServerInt.h"
#include "misc/diag.h"

namespace {

bool IsMoreThanAttributes(uint32_t access) {
    return access != 0 && access != kHgfsAccessSynchronize && access != kHgfsAccessReadAttributes;
}

uint32_t PlanAccess(const HgfsOpenRequest& request, uint32_t* access) {
    if (request.mask & kHgfsMaskDesiredAccess) {
        *access = request.desiredAccess;
        if (IsMoreThanAttributes(*access)) {
            *access |= kHgfsAccessReadData;
        }
        return HgfsErrorNone;
    }
    switch (request.mode & kHgfsModeAccessBits) {
    case kHgfsModeRead:
        *access = kHgfsAccessGenericRead;
        return HgfsErrorNone;
    case kHgfsModeWrite:
        *access = kHgfsAccessGenericWrite;
        return HgfsErrorNone;
    case kHgfsModeReadWrite:
        *access = kHgfsAccessGenericRead | kHgfsAccessGenericWrite;
        return HgfsErrorNone;
    default:
        return HgfsErrorProtocol;
    }
}

uint32_t PlanAttributes(const HgfsOpenRequest& request) {
    uint32_t attributes = 0;
    if ((request.mask & kHgfsMaskOwnerPerms) && !(request.ownerPerms & kHgfsPermWrite)) {
        attributes |= kHgfsFileReadOnly;
    }
    if (request.mask & kHgfsMaskAttributes) {
        attributes |= HgfsServerWindowsAttributes(request.attributes);
    }
    return attributes;
}

// What a share that may not be written answers, by whether the file exists; 0 lets the open go ahead.
uint32_t CheckReadOnlyShare(const std::string& path, const HgfsOpenArguments& plan) {
    const bool writes = (plan.access & kHgfsAccessWriting) != 0;
    if (!writes && plan.disposition == HgfsOpenExisting) {
        return HgfsErrorNone;
    }
    uint32_t attributes;
    uint32_t error = hgfsServer.platform->getAttributes(path, &attributes);
    if (error == HgfsErrorNone) {
        if (plan.disposition == HgfsCreateNew) {
            return HgfsErrorAlreadyExists;
        }
        return plan.disposition == HgfsOpenAlways && !writes ? HgfsErrorNone : HgfsErrorAccessDenied;
    }
    if (error == HgfsErrorFileNotFound) {
        const bool needsFile =
            plan.disposition == HgfsOpenExisting || plan.disposition == HgfsTruncateExisting;
        return needsFile ? HgfsErrorFileNotFound : HgfsErrorAccessDenied;
    }
    return error;
}

uint32_t CheckUnreadableShare(const std::string& path) {
    uint32_t attributes;
    uint32_t error = hgfsServer.platform->getAttributes(path, &attributes);
    return error == HgfsErrorNone || error == HgfsErrorFileNotFound ? HgfsErrorAccessDenied : error;
}

// Empties a file whose real open does not carry the right to do so, as though it had been written to just
// now.
uint32_t TruncateFirst(const std::string& path, uint32_t share, uint32_t* attributes) {
    const HgfsPlatform& platform = *hgfsServer.platform;
    HgfsOpenArguments arguments = {kHgfsAccessGenericWrite | kHgfsAccessReadAttributes, share,
                                   HgfsTruncateExisting, kHgfsFlagBackupSemantics | kHgfsFileNormal};
    HgfsOsHandle handle;
    uint32_t error = platform.open(path, arguments, &handle, nullptr);
    if (error != HgfsErrorNone) {
        return error;
    }
    HgfsFileOwner file(handle);
    error = platform.getAttributes(path, attributes);
    if (error != HgfsErrorNone) {
        return error;
    }
    HgfsFileChange change{};
    change.writeTime = change.changeTime = platform.now();
    return platform.changeByHandle(file.Get(), change);
}

} // namespace

uint32_t HgfsServerUnpackOpen(std::span<const uint8_t> packet, HgfsOpenRequest* request) {
    HgfsPacketReader reader(packet);
    const HgfsOp op = HgfsRequestOp(packet);
    if (op == HgfsOpOpen) {
        using Layout = HgfsOpenRequestV1;
        request->mask = kHgfsMaskOpenV1;
        request->mode = reader.U32(Layout::Mode);
        request->flags = reader.U32(Layout::Flags);
        request->ownerPerms = reader.U8(Layout::Permissions);
        return HgfsServerReadName(&reader, Layout::Name, 1, &request->name);
    }
    using Layout = HgfsOpenRequestV2; // version 3 differs in the name block only
    request->mask = reader.U64(Layout::Mask);
    request->mode = reader.U32(Layout::Mode);
    request->flags = reader.U32(Layout::Flags);
    request->ownerPerms = reader.U8(Layout::OwnerPerms);
    request->attributes = reader.U64(Layout::Attributes);
    request->desiredAccess = reader.U32(Layout::DesiredAccess);
    request->shareAccess = reader.U32(Layout::ShareAccess);
    request->desiredLock = reader.U32(Layout::DesiredLock);
    if (!(request->mask & kHgfsMaskName) || !(request->mask & kHgfsMaskMode)) {
        return HgfsErrorProtocol;
    }
    return HgfsServerReadName(&reader, Layout::Name, kHgfsOps[op].version, &request->name);
}

bool HgfsServerGetOpenFlags(uint32_t flags, uint32_t* disposition) {
    switch (flags) {
    case kHgfsOpenExisting:
        *disposition = HgfsOpenExisting;
        return true;
    case kHgfsOpenTruncate:
        *disposition = HgfsTruncateExisting;
        return true;
    case kHgfsOpenCreate:
        *disposition = HgfsOpenAlways;
        return true;
    case kHgfsOpenCreateNew:
        *disposition = HgfsCreateNew;
        return true;
    case kHgfsOpenCreateEmpty:
        *disposition = HgfsCreateAlways;
        return true;
    default:
        Debug("HgfsServerGetOpenFlags: Invalid HgfsOpenFlags\n");
        return false;
    }
}

uint32_t HgfsServerPlanOpen(const HgfsOpenRequest& request, HgfsOpenArguments* plan) {
    uint32_t access;
    uint32_t error = PlanAccess(request, &access);
    if (error != HgfsErrorNone) {
        return error;
    }
    uint32_t disposition;
    if (!HgfsServerGetOpenFlags((request.mask & kHgfsMaskFlags) ? request.flags : kHgfsOpenExisting,
                                &disposition)) {
        return HgfsErrorProtocol;
    }
    uint32_t share = (request.mask & kHgfsMaskShareAccess) ? request.shareAccess : kHgfsShareAll;
    if (IsMoreThanAttributes(access)) {
        share |= kHgfsShareRead;
    }
    const uint32_t overlapped = (request.mode & kHgfsModeSequential) ? 0 : kHgfsFlagOverlapped;
    *plan = {access, share, disposition, PlanAttributes(request) | kHgfsFlagBackupSemantics | overlapped};
    return HgfsErrorNone;
}

uint32_t HgfsServerOpenFile(const HgfsShareInfo& share, const HgfsOpenArguments& plan, HgfsOsHandle* handle,
                            bool* existed) {
    if (!share.writeAllowed) {
        if (uint32_t error = CheckReadOnlyShare(share.path, plan); error != HgfsErrorNone) {
            return error;
        }
    }
    if (!share.readAllowed) {
        if (uint32_t error = CheckUnreadableShare(share.path); error != HgfsErrorNone) {
            return error;
        }
    }
    HgfsOpenArguments arguments = plan;
    arguments.access |= kHgfsAccessReadControl;
    uint32_t truncateError = HgfsErrorNone;
    if (plan.disposition == HgfsTruncateExisting && !(plan.access & kHgfsAccessGenericWrite)) {
        uint32_t attributes = 0;
        truncateError = TruncateFirst(share.path, plan.share, &attributes);
        // Attributes share a word with the flags of an open; only the low half are attributes that an open
        // takes.
        arguments.flags |= attributes & 0xFFFF;
        arguments.disposition = HgfsOpenAlways;
    }
    HgfsOsHandle opened;
    uint32_t error = hgfsServer.platform->open(share.path, arguments, &opened, existed);
    if (error != HgfsErrorNone) {
        return truncateError != HgfsErrorNone ? truncateError : error;
    }
    // Hosts rely on being told that the file could not be emptied even where it can be opened, or has been
    // created by this very open.
    HgfsFileOwner file(opened);
    if (truncateError != HgfsErrorNone) {
        return truncateError;
    }
    *handle = file.Release();
    return HgfsErrorNone;
}
