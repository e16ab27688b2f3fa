// Access lists byte for byte.
#include "procMgr/procMgrAcl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

namespace {

// S-1-5-5-0-1234567, a logon session, and S-1-1-0, everybody.
const ProcMgrBytes LOGON = {1, 3, 0, 0, 0, 0, 0, 5, 5, 0, 0, 0, 0, 0, 0, 0, 0x87, 0xD6, 0x12, 0};
const ProcMgrBytes EVERYBODY = {1, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0};
constexpr ProcMgrAce FULL_DESKTOP = PROCMGR_DESKTOP_ACES[0];

ProcMgrBytes Entry(uint8_t type, uint8_t flags, uint32_t rights, const ProcMgrBytes& sid) {
    ProcMgrBytes entry = {type,
                          flags,
                          static_cast<uint8_t>(8 + sid.size()),
                          0,
                          static_cast<uint8_t>(rights),
                          static_cast<uint8_t>(rights >> 8),
                          static_cast<uint8_t>(rights >> 16),
                          static_cast<uint8_t>(rights >> 24)};
    entry.insert(entry.end(), sid.begin(), sid.end());
    return entry;
}

ProcMgrBytes List(const std::vector<ProcMgrBytes>& entries, size_t slack = 0, uint8_t revision = 2) {
    ProcMgrBytes list = {
        revision, 0, 0, 0, static_cast<uint8_t>(entries.size()), static_cast<uint8_t>(entries.size() >> 8),
        0,        0};
    for (const ProcMgrBytes& entry : entries) {
        list.insert(list.end(), entry.begin(), entry.end());
    }
    list.resize(list.size() + slack);
    list[2] = static_cast<uint8_t>(list.size());
    list[3] = static_cast<uint8_t>(list.size() >> 8);
    return list;
}

// A copy whose memory ends with the list, so that the sanitizer sees every read beyond it.
struct Exact {
    explicit Exact(const ProcMgrBytes& bytes)
        : memory(std::make_unique<uint8_t[]>(bytes.size())), span(memory.get(), bytes.size()) {
        std::copy(bytes.begin(), bytes.end(), memory.get());
    }
    std::unique_ptr<uint8_t[]> memory;
    std::span<const uint8_t> span;
};

TEST(ProcMgrAcl, StationGetsTwoEntriesBehindTheExistingOnes) {
    ProcMgrBytes list = List({Entry(1, 0, 0x10, EVERYBODY), Entry(0, 3, 0x20, EVERYBODY)});
    auto longer = ProcMgrAclAppend(list, PROCMGR_STATION_ACES, LOGON);
    ASSERT_TRUE(longer);
    const ProcMgrBytes expected = {
        2, 0,  104, 0, 4,    0,    0,    0, // 8 + 20 + 20 + 28 + 28
        1, 0,  20,  0, 0x10, 0,    0,    0,    1, 1, 0, 0, 0, 0, 0, 1, 0,    0,    0,    0, // as they were
        0, 3,  20,  0, 0x20, 0,    0,    0,    1, 1, 0, 0, 0, 0, 0, 1, 0,    0,    0,    0, //
        0, 11, 28,  0, 0,    0,    0,    0xF0, // all generic rights
        1, 3,  0,   0, 0,    0,    0,    5,    5, 0, 0, 0, 0, 0, 0, 0, 0x87, 0xD6, 0x12, 0, //
        0, 4,  28,  0, 0x7F, 0x03, 0x0F, 0, // all of a station's
        1, 3,  0,   0, 0,    0,    0,    5,    5, 0, 0, 0, 0, 0, 0, 0, 0x87, 0xD6, 0x12, 0, //
    };
    EXPECT_EQ(*longer, expected);
}

TEST(ProcMgrAcl, DesktopGetsOneEntry) {
    auto longer = ProcMgrAclAppend(List({}), PROCMGR_DESKTOP_ACES, LOGON);
    ASSERT_TRUE(longer);
    EXPECT_EQ(*longer, List({Entry(0, 0, 0xF01FF, LOGON)}));
}

TEST(ProcMgrAcl, SlackGoesAndTheRevisionStays) {
    ProcMgrBytes objectEntry = {5, 0, 12, 0, 1, 2, 3, 4, 5, 6, 7, 8}; // belongs to revision 4
    auto longer = ProcMgrAclAppend(List({objectEntry}, 100, 4), PROCMGR_DESKTOP_ACES, EVERYBODY);
    ASSERT_TRUE(longer);
    EXPECT_EQ(*longer, List({objectEntry, Entry(0, 0, 0xF01FF, EVERYBODY)}, 0, 4));
    longer = ProcMgrAclAppend(List({}, 0, 0), PROCMGR_DESKTOP_ACES, EVERYBODY);
    ASSERT_TRUE(longer);
    EXPECT_EQ(*longer, List({Entry(0, 0, 0xF01FF, EVERYBODY)}));
}

TEST(ProcMgrAcl, FindsTheLastOfEqualEntries) {
    ProcMgrBytes ours = Entry(0, 0, 0xF01FF, LOGON);
    ProcMgrBytes list = List({ours, Entry(0, 0, 0xF01FF, EVERYBODY), ours, Entry(1, 0, 0xF01FF, LOGON),
                              Entry(0, 16, 0xF01FF, LOGON), Entry(0, 0, 0xF01FE, LOGON)},
                             8);
    EXPECT_EQ(ProcMgrAclFindLast(list, FULL_DESKTOP, LOGON), 2u);
    EXPECT_EQ(ProcMgrAclFindLast(list, FULL_DESKTOP, EVERYBODY), 1u);
    EXPECT_EQ(ProcMgrAclFindLast(list, {16, 0xF01FF}, LOGON), 4u);
    EXPECT_FALSE(ProcMgrAclFindLast(list, {1, 0xF01FF}, LOGON));
    EXPECT_FALSE(ProcMgrAclFindLast(List({}), FULL_DESKTOP, LOGON));
}

TEST(ProcMgrAcl, AnIdentifierThatBeginsAlikeIsAnother) {
    ProcMgrBytes longerSid = LOGON;
    longerSid[1] = 4;
    longerSid.resize(24);
    ProcMgrBytes list = List({Entry(0, 0, 0xF01FF, longerSid)});
    EXPECT_FALSE(ProcMgrAclFindLast(list, FULL_DESKTOP, LOGON));
    EXPECT_EQ(ProcMgrAclFindLast(list, FULL_DESKTOP, longerSid), 0u);
}

TEST(ProcMgrAcl, GrantedIsWhatIsFound) {
    ProcMgrBytes list = List({Entry(0, 3, 0x20, EVERYBODY)});
    auto granted = ProcMgrAclAppend(list, PROCMGR_STATION_ACES, LOGON);
    granted = ProcMgrAclAppend(*granted, PROCMGR_STATION_ACES, LOGON);
    EXPECT_EQ(ProcMgrAclFindLast(*granted, PROCMGR_STATION_ACES[0], LOGON), 3u);
    EXPECT_EQ(ProcMgrAclFindLast(*granted, PROCMGR_STATION_ACES[1], LOGON), 4u);
}

TEST(ProcMgrAcl, MalformedListsAreRefused) {
    ProcMgrBytes good = List({Entry(0, 0, 0xF01FF, LOGON), Entry(0, 3, 0x20, EVERYBODY)});
    std::vector<ProcMgrBytes> bad;
    for (size_t length = 0; length < good.size(); length++) {
        bad.emplace_back(good.begin(),
                         good.begin() + static_cast<ptrdiff_t>(length)); // size beyond the bytes
    }
    auto with = [&](size_t at, uint8_t value) {
        bad.push_back(good);
        bad.back()[at] = value;
    };
    with(2, 7);    // list smaller than its header
    with(2, 55);   // list ends within the last entry
    with(4, 3);    // more entries than there are
    with(5, 0xFF); // very many
    with(10, 3);   // entry smaller than its header
    with(10, 0);
    with(11, 1); // entry longer than the list
    for (const ProcMgrBytes& each : bad) {
        Exact list(each);
        EXPECT_FALSE(ProcMgrAclAppend(list.span, PROCMGR_DESKTOP_ACES, LOGON));
        EXPECT_FALSE(ProcMgrAclFindLast(list.span, FULL_DESKTOP, LOGON));
    }
}

TEST(ProcMgrAcl, AnEntryTooShortForItsIdentifierNeverMatches) {
    ProcMgrBytes shortEntry = Entry(0, 0, 0xF01FF, LOGON);
    shortEntry.resize(24);
    shortEntry[2] = 24;
    Exact list(List({shortEntry}));
    EXPECT_FALSE(ProcMgrAclFindLast(list.span, FULL_DESKTOP, LOGON));
    Exact header(List({{0, 0, 4, 0}}));
    EXPECT_FALSE(ProcMgrAclFindLast(header.span, FULL_DESKTOP, LOGON));
}

TEST(ProcMgrAcl, MalformedIdentifiersAreRefused) {
    ProcMgrBytes tooMany = LOGON;
    tooMany[1] = 16;
    tooMany.resize(8 + 4 * 16);
    ProcMgrBytes longer = LOGON;
    longer.resize(24);
    for (const ProcMgrBytes& sid :
         {ProcMgrBytes(), ProcMgrBytes(7), tooMany, longer, ProcMgrBytes(LOGON.begin(), LOGON.end() - 1)}) {
        EXPECT_FALSE(ProcMgrAclAppend(List({}), PROCMGR_DESKTOP_ACES, sid));
        EXPECT_FALSE(ProcMgrAclFindLast(List({}), FULL_DESKTOP, sid));
    }
}

TEST(ProcMgrAcl, AListCannotOutgrowItsSizeField) {
    std::vector<ProcMgrBytes> entries((0xFFFC - 8) / 20 - 1, Entry(0, 0, 1, EVERYBODY));
    ProcMgrBytes list = List(entries);
    auto full = ProcMgrAclAppend(list, PROCMGR_DESKTOP_ACES, EVERYBODY);
    ASSERT_TRUE(full);
    EXPECT_LE(full->size(), 0xFFFCu);
    EXPECT_EQ(ProcMgrAclFindLast(*full, FULL_DESKTOP, EVERYBODY), entries.size());
    EXPECT_FALSE(ProcMgrAclAppend(*full, PROCMGR_DESKTOP_ACES, EVERYBODY));
    EXPECT_FALSE(ProcMgrAclAppend(list, PROCMGR_STATION_ACES, EVERYBODY));
}

} // namespace
