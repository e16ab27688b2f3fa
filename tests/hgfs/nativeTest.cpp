#include "hgfslib/hgfsNative.h"
#include "hgfslib/hgfsProto.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

// A record: 32-bit words, and UTF-16 text behind them.
Bytes Record(std::initializer_list<uint32_t> words, std::u16string_view text) {
    Bytes bytes(4 * words.size() + 2 * text.size());
    HgfsPacketWriter writer(bytes);
    size_t at = 0;
    for (uint32_t word : words) {
        writer.U32(at, word);
        at += 4;
    }
    for (char16_t unit : text) {
        writer.U8(at, static_cast<uint8_t>(unit));
        writer.U8(at + 1, static_cast<uint8_t>(unit >> 8));
        at += 2;
    }
    return bytes;
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

TEST(HgfsNative, GivesPathsTheirNativeForm) {
    const std::pair<const char16_t*, const char16_t*> cases[] = {{u"C:\\", u"\\??\\C:\\"},
                                                                 {u"c:\\a\\b", u"\\??\\c:\\a\\b"},
                                                                 {u"C:\\\\a", u"\\??\\C:\\a"},
                                                                 {u"C:\\\\\\a", u"\\??\\C:\\\\a"},
                                                                 {u"C:a", u"C:a"},
                                                                 {u"\\\\srv\\share", u"\\\\srv\\share"},
                                                                 {u"1:\\a", u"1:\\a"},
                                                                 {u"", u""}};
    for (auto [path, native] : cases) {
        EXPECT_EQ(HgfsNative_Path(path), native);
    }
}

TEST(HgfsNative, TellsMoreThanTheDefaultStream) {
    const Bytes alone = Record({0, 14, 0, 0, 0, 0}, u"::$DATA");
    EXPECT_FALSE(HgfsNative_HasMoreStreams({}));
    EXPECT_FALSE(HgfsNative_HasMoreStreams(alone));
    EXPECT_TRUE(HgfsNative_HasMoreStreams(Record({40, 14, 0, 0, 0, 0}, u"::$DATA ") + alone));
    EXPECT_TRUE(HgfsNative_HasMoreStreams(Record({0, 16, 0, 0, 0, 0}, u":x:$DATA"))); // a directory's
    EXPECT_TRUE(HgfsNative_HasMoreStreams({alone.begin(), alone.end() - 1}));
}

std::vector<std::u16string> Walk(const Bytes& bytes) {
    std::vector<std::u16string> names;
    HgfsNative_WalkNames(
        bytes,
        [](void* data, std::u16string_view name) {
            static_cast<std::vector<std::u16string>*>(data)->emplace_back(name);
        },
        &names);
    return names;
}

TEST(HgfsNative, WalksNamesThatLieWithinTheBuffer) {
    EXPECT_EQ(Walk(Record({20, 0, 8}, u"a\x00E4\xD83D\xDE00") + Record({0, 0, 2}, u"b")),
              (std::vector<std::u16string>{u"a\x00E4\xD83D\xDE00", u"b"}));
    EXPECT_TRUE(Walk({}).empty());
    EXPECT_TRUE(Walk(Bytes(11)).empty());
    EXPECT_TRUE(Walk(Record({0, 0, 4}, u"a")).empty());
    EXPECT_TRUE(Walk(Record({0, 0, 0xFFFFFFFF}, u"a")).empty());
    for (uint32_t next : {13u, 14u, 15u, 0xFFFFFFF0u}) { // the last byte, the end, and beyond
        EXPECT_EQ(Walk(Record({next, 0, 2}, u"a")).size(), 1u) << next;
    }
}

// A link whose data hold both names, one behind the other.
Bytes Link(uint32_t tag, std::u16string_view substitute, std::u16string_view shown) {
    const auto length = static_cast<uint32_t>(2 * substitute.size());
    const auto shownLength = static_cast<uint32_t>(2 * shown.size());
    std::u16string text(tag == 0xA000000C ? 2 : 0, u'\0'); // a word of flags
    text += substitute;
    text += shown;
    return Record({tag, 0, length << 16, shownLength << 16 | length}, text);
}

TEST(HgfsNative, TellsWhereLinksLead) {
    EXPECT_EQ(HgfsNative_LinkTarget(Link(0xA000000C, u"\\??\\C:\\to", u"C:\\to")), u"C:\\to");
    EXPECT_EQ(HgfsNative_LinkTarget(Link(0xA0000003, u"\\??\\C:\\to", u"C:\\to")), u"C:\\to");
    EXPECT_EQ(HgfsNative_LinkTarget(Link(0xA0000003, u"\\??\\Volume{1}\\", u"")), u"\\??\\Volume{1}\\");
    EXPECT_EQ(HgfsNative_LinkTarget(Link(0x80000013, u"\\??\\C:\\to", u"C:\\to")), u""); // deduplicated
    for (Bytes cut = Link(0xA000000C, u"\\??\\C:\\to", u"C:\\to"); !cut.empty();) {
        cut.pop_back();
        EXPECT_NE(HgfsNative_LinkTarget(cut), u"C:\\to");
    }
}

} // namespace
