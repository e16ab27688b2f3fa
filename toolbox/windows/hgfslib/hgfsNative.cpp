#include "hgfslib/hgfsNative.h"

#include "hgfslib/hgfsProto.h"

namespace {

// Records of both classes begin with the offset of the next one, 0 in the last.
struct StreamRecord {
    static constexpr size_t NameLength = 4;
    static constexpr size_t Name = 24;
};
struct NamesRecord {
    static constexpr size_t NameLength = 8;
    static constexpr size_t Name = 12;
};

// Layout of a reparse point. Both kinds of link hold offsets and lengths of two names, counted from the text.
constexpr uint32_t kTagMountPoint = 0xA0000003;
constexpr uint32_t kTagSymlink = 0xA000000C;
struct ReparseData {
    static constexpr size_t Tag = 0;
    static constexpr size_t SubstituteOffset = 8;
    static constexpr size_t SubstituteLength = 10;
    static constexpr size_t PrintOffset = 12;
    static constexpr size_t PrintLength = 14;
    static constexpr size_t MountPointText = 16;
    static constexpr size_t SymlinkText = 20; // behind a word of flags
};

uint16_t U16(HgfsPacketReader* reader, size_t offset) {
    return static_cast<uint16_t>(reader->U8(offset) | reader->U8(offset + 1) << 8);
}

std::u16string Text(HgfsPacketReader* reader, size_t offset, size_t bytes) {
    std::u16string text;
    if (reader->Bytes(offset, bytes).size() == bytes) {
        for (size_t i = 0; i + 1 < bytes; i += 2) {
            text += static_cast<char16_t>(U16(reader, offset + i));
        }
    }
    return text;
}

} // namespace

std::u16string HgfsNative_Path(std::u16string_view path) {
    auto isLetter = [](char16_t c) { return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z'); };
    if (path.size() < 3 || !isLetter(path[0]) || path[1] != u':' || path[2] != u'\\') {
        return std::u16string(path);
    }
    std::u16string native = u"\\??\\";
    native += path.substr(0, 3);
    native += path.substr(path.size() > 3 && path[3] == u'\\' ? 4 : 3);
    return native;
}

bool HgfsNative_HasMoreStreams(std::span<const uint8_t> information) {
    if (information.empty()) {
        return false;
    }
    HgfsPacketReader reader(information);
    const uint32_t next = reader.U32(0);
    std::u16string name = Text(&reader, StreamRecord::Name, reader.U32(StreamRecord::NameLength));
    return next != 0 || name != u"::$DATA";
}

void HgfsNative_WalkNames(std::span<const uint8_t> information, HgfsNativeEntry entry, void* data) {
    for (;;) {
        HgfsPacketReader reader(information);
        const uint32_t next = reader.U32(0);
        std::u16string name = Text(&reader, NamesRecord::Name, reader.U32(NamesRecord::NameLength));
        if (!reader.Ok()) {
            return;
        }
        entry(data, name);
        if (next == 0 || next > information.size()) {
            return;
        }
        information = information.subspan(next);
    }
}

std::u16string HgfsNative_LinkTarget(std::span<const uint8_t> reparse) {
    HgfsPacketReader reader(reparse);
    const uint32_t tag = reader.U32(ReparseData::Tag);
    if (tag != kTagMountPoint && tag != kTagSymlink) {
        return {};
    }
    const size_t text = tag == kTagSymlink ? ReparseData::SymlinkText : ReparseData::MountPointText;
    std::u16string shown =
        Text(&reader, text + U16(&reader, ReparseData::PrintOffset), U16(&reader, ReparseData::PrintLength));
    if (!shown.empty()) {
        return shown;
    }
    return Text(&reader, text + U16(&reader, ReparseData::SubstituteOffset),
                U16(&reader, ReparseData::SubstituteLength));
}
