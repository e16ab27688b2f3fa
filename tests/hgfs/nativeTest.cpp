#include "hgfslib/hgfsNative.h"
#include "hgfslib/hgfsProto.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

void PutText(Bytes* bytes, size_t at, std::u16string_view text) {
    bytes->resize(std::max(bytes->size(), at + 2 * text.size()));
    for (size_t i = 0; i < text.size(); ++i) {
        (*bytes)[at + 2 * i] = static_cast<uint8_t>(text[i]);
        (*bytes)[at + 2 * i + 1] = static_cast<uint8_t>(text[i] >> 8);
    }
}

TEST(HgfsNative, GivesPathsTheirNativeForm) {
    const std::pair<const char16_t*, const char16_t*> cases[] = {{u"C:\\", u"\\??\\C:\\"},
                                                                 {u"c:\\a\\b", u"\\??\\c:\\a\\b"},
                                                                 {u"C:\\\\a", u"\\??\\C:\\a"},
                                                                 {u"C:\\\\\\a", u"\\??\\C:\\\\a"},
                                                                 {u"C:", u"C:"},
                                                                 {u"C:a", u"C:a"},
                                                                 {u"\\\\srv\\share", u"\\\\srv\\share"},
                                                                 {u"1:\\a", u"1:\\a"},
                                                                 {u"", u""}};
    for (auto [path, native] : cases) {
        EXPECT_EQ(HgfsNative_Path(path), native);
    }
}

Bytes Streams(std::initializer_list<std::u16string_view> names) {
    Bytes all;
    size_t left = names.size();
    for (std::u16string_view name : names) {
        Bytes record(24);
        PutText(&record, 24, name);
        record.resize((record.size() + 7) & ~size_t{7});
        HgfsPacketWriter writer(record);
        writer.U32(0, --left == 0 ? 0 : static_cast<uint32_t>(record.size()));
        writer.U32(4, static_cast<uint32_t>(2 * name.size()));
        all.insert(all.end(), record.begin(), record.end());
    }
    return all;
}

TEST(HgfsNative, TellsMoreThanTheDefaultStream) {
    EXPECT_FALSE(HgfsNative_HasMoreStreams({}));
    EXPECT_FALSE(HgfsNative_HasMoreStreams(Streams({u"::$DATA"})));
    EXPECT_TRUE(HgfsNative_HasMoreStreams(Streams({u"::$DATA", u":Zone.Identifier:$DATA"})));
    EXPECT_TRUE(HgfsNative_HasMoreStreams(Streams({u":x:$DATA"}))); // a directory's
    Bytes cut = Streams({u"::$DATA"});
    cut.resize(30);
    EXPECT_TRUE(HgfsNative_HasMoreStreams(cut));
}

std::vector<std::u16string> Walk(const Bytes& bytes, size_t most = 100) {
    struct Found {
        std::vector<std::u16string> names;
        size_t most;
    } found = {{}, most};
    bool all = HgfsNative_WalkNames(
        bytes,
        [](void* data, std::u16string_view name) {
            auto& into = *static_cast<Found*>(data);
            into.names.emplace_back(name);
            return into.names.size() < into.most;
        },
        &found);
    EXPECT_EQ(all, found.names.size() < most);
    return found.names;
}

Bytes Record(uint32_t next, uint32_t nameBytes, std::u16string_view name) {
    Bytes record(12);
    PutText(&record, 12, name);
    HgfsPacketWriter writer(record);
    writer.U32(0, next);
    writer.U32(8, nameBytes);
    return record;
}

TEST(HgfsNative, WalksNames) {
    Bytes bytes = Record(20, 8, u"a\x00E4\xD83D\xDE00");
    const Bytes last = Record(0, 2, u"b");
    bytes.insert(bytes.end(), last.begin(), last.end());
    EXPECT_EQ(Walk(bytes), (std::vector<std::u16string>{u"a\x00E4\xD83D\xDE00", u"b"}));
    EXPECT_EQ(Walk(bytes, 1), (std::vector<std::u16string>{u"a\x00E4\xD83D\xDE00"}));
}

TEST(HgfsNative, StopsAtRecordsThatLeaveTheBuffer) {
    EXPECT_TRUE(Walk({}).empty());
    EXPECT_TRUE(Walk(Bytes(11)).empty());
    EXPECT_TRUE(Walk(Record(0, 4, u"a")).empty());
    EXPECT_TRUE(Walk(Record(0, 0xFFFFFFFF, u"a")).empty());
    EXPECT_EQ(Walk(Record(13, 2, u"a")).size(), 1u);         // the next begins at the last byte
    EXPECT_EQ(Walk(Record(14, 2, u"a")).size(), 1u);         // the next begins at the end
    EXPECT_EQ(Walk(Record(0xFFFFFFF0, 2, u"a")).size(), 1u); // the next is far away
}

Bytes Reparse(uint32_t tag, std::u16string_view substitute, std::u16string_view shown) {
    const size_t text = tag == 0xA000000C ? 20 : 16;
    Bytes bytes(text);
    PutText(&bytes, text, substitute);
    PutText(&bytes, text + 2 * substitute.size(), shown);
    HgfsPacketWriter writer(bytes);
    writer.U32(0, tag);
    auto put = [&](size_t at, size_t value) {
        writer.U8(at, static_cast<uint8_t>(value));
        writer.U8(at + 1, static_cast<uint8_t>(value >> 8));
    };
    put(8, 0);
    put(10, 2 * substitute.size());
    put(12, 2 * substitute.size());
    put(14, 2 * shown.size());
    return bytes;
}

TEST(HgfsNative, TellsWhereLinksLead) {
    EXPECT_EQ(HgfsNative_LinkTarget(Reparse(0xA000000C, u"\\??\\C:\\to", u"C:\\to")), u"C:\\to");
    EXPECT_EQ(HgfsNative_LinkTarget(Reparse(0xA0000003, u"\\??\\C:\\to", u"C:\\to")), u"C:\\to");
    EXPECT_EQ(HgfsNative_LinkTarget(Reparse(0xA0000003, u"\\??\\Volume{1}\\", u"")), u"\\??\\Volume{1}\\");
    EXPECT_EQ(HgfsNative_LinkTarget(Reparse(0x80000013, u"\\??\\C:\\to", u"C:\\to")), u""); // deduplicated
    EXPECT_EQ(HgfsNative_LinkTarget({}), u"");
    Bytes cut = Reparse(0xA000000C, u"\\??\\C:\\to", u"C:\\to");
    while (!cut.empty()) {
        cut.pop_back();
        EXPECT_NE(HgfsNative_LinkTarget(cut), u"C:\\to");
    }
}

} // namespace
