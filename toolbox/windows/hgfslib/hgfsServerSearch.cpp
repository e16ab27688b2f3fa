// Directory listings: opened with all their names, read entry by entry.
#include "hgfslib/hgfsEscape.h"
#include "hgfslib/hgfsServerInt.h"
#include "misc/diag.h"

namespace {

constexpr size_t kFirstEntries = 100; // room before the list grows, doubling each time

void AddEntry(std::vector<std::string>* entries, std::string_view name) {
    if (entries->size() == entries->capacity()) {
        entries->reserve(entries->empty() ? kFirstEntries : 2 * entries->size());
    }
    entries->emplace_back(name);
}

void TakeEntry(void* data, std::string_view name) {
    if (name.size() >= kHgfsEntryNameMax) {
        Debug("HgfsServerGetDents: Error: Name \"%s\" is too long.\n", std::string(name).c_str());
        return;
    }
    AddEntry(static_cast<std::vector<std::string>*>(data), name);
}

std::string EntryPath(std::string directory, std::string_view entry) {
    if (entry == ".") {
        return directory;
    }
    if (!directory.ends_with('\\')) {
        directory += '\\';
    }
    directory += entry;
    return directory;
}

// An entry may be gone by now, or refuse to be looked at; it is listed all the same, with no attributes.
const HgfsFileInfo* EntryInfo(const std::string& path, HgfsFileInfo* info) {
    const bool known = HgfsServerCheckPath(path) == HgfsErrorNone &&
                       hgfsServer.platform->getEntryInfo(path, info) == HgfsErrorNone;
    return known ? info : nullptr;
}

} // namespace

uint32_t HgfsServerGetDents(const std::string& directory, std::vector<std::string>* entries) {
    std::vector<std::string> found;
    AddEntry(&found, ".");
    AddEntry(&found, "..");
    uint32_t error = hgfsServer.platform->listDirectory(directory, TakeEntry, &found);
    if (error != HgfsErrorNone) {
        return error;
    }
    found.shrink_to_fit();
    *entries = std::move(found);
    return HgfsErrorNone;
}

uint32_t HgfsServerSearchOpen(std::span<const uint8_t> packet, HgfsSession* session) {
    HgfsPacketReader reader(packet);
    const uint32_t version = kHgfsOps[HgfsRequestOp(packet)].version;
    HgfsRequestName name;
    HgfsShareInfo share;
    uint32_t error = HgfsServerReadName(
        &reader, version == 3 ? HgfsNameRequestV3::Name : HgfsNameRequestV1::Name, version, &name);
    if (error == HgfsErrorNone) {
        error = HgfsServerResolveName(name, &share);
    }
    if (error == HgfsErrorNone && !share.readAllowed) {
        error = HgfsErrorAccessDenied;
    }
    HgfsSearch search;
    if (error == HgfsErrorNone) {
        error = HgfsServerGetDents(share.path, &search.entries);
    }
    if (error != HgfsErrorNone) {
        return error;
    }
    HgfsReply reply =
        HgfsServerNewReply(version == 3 ? HgfsSearchOpenReplyV3::Size : HgfsSearchOpenReplyV1::Size);
    if (!reply) {
        return HgfsErrorNotEnoughMemory;
    }
    search.localName = std::move(share.path);
    search.requestName = name.bytes;
    search.shareName = std::move(share.shareName);
    const uint32_t handle = HgfsServerAddSearch(session, std::move(search));
    HgfsPacketWriter({reply.bytes.get(), reply.size}).U32(HgfsSearchOpenReplyV1::Handle, handle);
    return HgfsServerFinish(session, packet, std::move(reply));
}

uint32_t HgfsServerSearchRead(std::span<const uint8_t> packet, HgfsSession* session) {
    using Request = HgfsSearchReadRequestV1; // version 3 adds fields behind it
    HgfsPacketReader reader(packet);
    const HgfsOp op = HgfsRequestOp(packet);
    std::string directory;
    std::string entry;
    uint32_t error = HgfsServerGetSearchEntry(session, reader.U32(Request::Handle),
                                              reader.U32(Request::Index), &directory, &entry);
    if (error != HgfsErrorNone) {
        return error;
    }
    HgfsFileInfo info{};
    const HgfsFileInfo* known =
        entry.empty() ? nullptr : EntryInfo(EntryPath(std::move(directory), entry), &info);
    entry.resize(static_cast<size_t>(HgfsEscape_Reverse(entry.data(), entry.size())));
    return HgfsServerFinish(session, packet, HgfsServerNewAttributesReply(op, known, entry));
}

uint32_t HgfsServerSearchClose(std::span<const uint8_t> packet, HgfsSession* session) {
    HgfsReply reply = HgfsServerNewEmptyReply(HgfsRequestOp(packet));
    if (!reply) {
        return HgfsErrorNotEnoughMemory;
    }
    if (!HgfsServerCloseSearch(session, HgfsPacketReader(packet).U32(HgfsHandleRequestV1::Handle))) {
        return HgfsErrorInternal;
    }
    return HgfsServerFinish(session, packet, std::move(reply));
}
