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
    ProcMgrBytes entry = {type, flags, static_cast<uint8_t>(8 + sid.size()), 0};
    for (int shift = 0; shift < 32; shift += 8) {
        entry.push_back(static_cast<uint8_t>(rights >> shift));
    }
    entry.insert(entry.end(), sid.begin(), sid.end());
    return entry;
}

ProcMgrBytes List(const std::vector<ProcMgrBytes>& entries, size_t slack = 0, uint8_t revision = 2) {
    ProcMgrBytes list(8);
    for (const ProcMgrBytes& entry : entries) {
        list.insert(list.end(), entry.begin(), entry.end());
    }
    list.resize(list.size() + slack);
    list[0] = revision;
    list[2] = static_cast<uint8_t>(list.size());
    list[3] = static_cast<uint8_t>(list.size() >> 8);
    list[4] = static_cast<uint8_t>(entries.size());
    list[5] = static_cast<uint8_t>(entries.size() >> 8);
    return list;
}

// A copy whose memory ends with the list, so that the sanitizer sees every read beyond.
struct Exact {
    explicit Exact(const ProcMgrBytes& list)
        : memory(std::make_unique<uint8_t[]>(list.size())), span(memory.get(), list.size()) {
        std::copy(list.begin(), list.end(), memory.get());
    }
    std::unique_ptr<uint8_t[]> memory;
    std::span<const uint8_t> span;
};

std::optional<uint32_t> Find(const ProcMgrBytes& list, const ProcMgrBytes& sid = LOGON,
                             const ProcMgrAce& ace = FULL_DESKTOP) {
    return ProcMgrAclFindLast(Exact(list).span, ace, sid);
}
std::optional<ProcMgrBytes> Append(const ProcMgrBytes& list, const ProcMgrBytes& sid = LOGON) {
    return ProcMgrAclAppend(Exact(list).span, PROCMGR_DESKTOP_ACES, sid);
}

TEST(ProcMgrAcl, StationGetsTwoEntriesBehindTheExistingOnes) {
    ProcMgrBytes list = List({Entry(1, 0, 0x10, EVERYBODY), Entry(0, 3, 0x20, EVERYBODY)});
    const ProcMgrBytes expected = {
        2, 0,  104, 0, 4,    0,    0,    0, // 8 + 20 + 20 + 28 + 28
        1, 0,  20,  0, 0x10, 0,    0,    0,    1, 1, 0, 0, 0, 0, 0, 1, 0,    0,    0,    0, // as they were
        0, 3,  20,  0, 0x20, 0,    0,    0,    1, 1, 0, 0, 0, 0, 0, 1, 0,    0,    0,    0, //
        0, 11, 28,  0, 0,    0,    0,    0xF0, // all generic rights
        1, 3,  0,   0, 0,    0,    0,    5,    5, 0, 0, 0, 0, 0, 0, 0, 0x87, 0xD6, 0x12, 0, //
        0, 4,  28,  0, 0x7F, 0x03, 0x0F, 0, // all of a station's
        1, 3,  0,   0, 0,    0,    0,    5,    5, 0, 0, 0, 0, 0, 0, 0, 0x87, 0xD6, 0x12, 0, //
    };
    EXPECT_EQ(ProcMgrAclAppend(list, PROCMGR_STATION_ACES, LOGON), expected);
}

TEST(ProcMgrAcl, SlackGoesAndTheRevisionStays) {
    const ProcMgrBytes objectEntry = {5, 0, 12, 0, 1, 2, 3, 4, 5, 6, 7, 8}; // belongs to revision 4
    const ProcMgrBytes ours = Entry(0, 0, 0xF01FF, LOGON);
    EXPECT_EQ(Append(List({objectEntry}, 100, 4)), List({objectEntry, ours}, 0, 4));
    EXPECT_EQ(Append(List({}, 0, 0)), List({ours}));
}

TEST(ProcMgrAcl, FindsTheLastOfEqualEntries) {
    const ProcMgrBytes ours = Entry(0, 0, 0xF01FF, LOGON);
    const ProcMgrBytes list = List({ours, Entry(0, 0, 0xF01FF, EVERYBODY), ours, Entry(1, 0, 0xF01FF, LOGON),
                                    Entry(0, 16, 0xF01FF, LOGON), Entry(0, 0, 0xF01FE, LOGON)},
                                   8);
    EXPECT_EQ(Find(list), 2u);
    EXPECT_EQ(Find(list, EVERYBODY), 1u);
    EXPECT_EQ(Find(list, LOGON, {16, 0xF01FF}), 4u);
    EXPECT_FALSE(Find(list, LOGON, {1, 0xF01FF}));
    EXPECT_FALSE(Find(List({})));
}

TEST(ProcMgrAcl, EntriesForAnotherIdentifierDoNotMatch) {
    ProcMgrBytes longerSid = LOGON; // begins alike
    longerSid[1] = 4;
    longerSid.resize(24);
    EXPECT_FALSE(Find(List({Entry(0, 0, 0xF01FF, longerSid)})));
    ProcMgrBytes cut = Entry(0, 0, 0xF01FF, LOGON); // too short for its identifier
    cut.resize(24);
    cut[2] = 24;
    EXPECT_FALSE(Find(List({cut})));
    EXPECT_FALSE(Find(List({{0, 0, 4, 0}})));
}

TEST(ProcMgrAcl, MalformedListsAreRefused) {
    const ProcMgrBytes good = List({Entry(0, 0, 0xF01FF, LOGON), Entry(0, 3, 0x20, EVERYBODY)});
    std::vector<ProcMgrBytes> bad;
    for (size_t length = 0; length < good.size(); length++) { // its size is beyond the bytes
        bad.emplace_back(good.begin(), good.begin() + static_cast<ptrdiff_t>(length));
    }
    struct {
        size_t at;
        uint8_t value;
    } changes[] = {
        {2, 7},             // list smaller than its header
        {2, 55},            // list ends within the last entry
        {4, 3},             // more entries than there are
        {5, 0xFF},          // very many
        {10, 3},            // entry smaller than its header
        {10, 0},   {11, 1}, // entry longer than the list
    };
    for (const auto& change : changes) {
        bad.push_back(good);
        bad.back()[change.at] = change.value;
    }
    for (const ProcMgrBytes& each : bad) {
        EXPECT_FALSE(Append(each));
        EXPECT_FALSE(Find(each));
    }
}

TEST(ProcMgrAcl, MalformedIdentifiersAreRefused) {
    ProcMgrBytes tooMany = LOGON;
    tooMany[1] = 16;
    tooMany.resize(8 + 4 * 16);
    ProcMgrBytes longer = LOGON;
    longer.resize(24);
    for (const ProcMgrBytes& sid :
         {ProcMgrBytes(), ProcMgrBytes(7), tooMany, longer, ProcMgrBytes(LOGON.begin(), LOGON.end() - 1)}) {
        EXPECT_FALSE(Append(List({}), sid));
        EXPECT_FALSE(Find(List({}), sid));
    }
}

TEST(ProcMgrAcl, AListCannotOutgrowItsSizeField) {
    const std::vector<ProcMgrBytes> entries((0xFFFC - 8) / 20 - 1, Entry(0, 0, 1, EVERYBODY));
    const auto full = Append(List(entries), EVERYBODY);
    ASSERT_TRUE(full);
    EXPECT_EQ(Find(*full, EVERYBODY), entries.size());
    EXPECT_FALSE(Append(*full, EVERYBODY));
    EXPECT_FALSE(ProcMgrAclAppend(List(entries), PROCMGR_STATION_ACES, EVERYBODY));
}

} // namespace
