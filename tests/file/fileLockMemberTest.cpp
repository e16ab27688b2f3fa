#include "file/fileLockMember.h"
#include "file/fileLockMachine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

LockValues Member(const char* type, uint32_t ticket, const char* name) {
    LockValues values;
    values.lockType = type;
    values.lamportNumber = ticket;
    values.memberName = name;
    return values;
}

// From a file's 512 bytes, with nothing behind them.
std::optional<LockValues> Parse(const std::string& text) {
    std::vector<char> content(text.begin(), text.end());
    content.resize(FILELOCK_MEMBER_SIZE);
    return FileLockParseMember(FileLockSplitMember(content));
}

TEST(FileLockMember, ContentIsOneLineAndZeroes) {
    LockValues own = Member("X", 4294967295, "M00001.lck");
    own.machineID = "uuid=1-2";
    own.executionID = "1234";
    own.payload = "18446744073709551615";
    own.locationChecksum = "42";
    auto content = FileLockFormatMember(own);
    const std::string line = "uuid=1-2 1234 4294967295 X 18446744073709551615 lc=42";
    EXPECT_EQ(std::string(content.data()), line);
    EXPECT_EQ(std::accumulate(content.begin() + line.size(), content.end(), 0), 0);
    own.payload.reset();
    EXPECT_EQ(std::string(FileLockFormatMember(own).data()), "uuid=1-2 1234 4294967295 X [ lc=42");
}

TEST(FileLockMember, TakesWhatOthersMayWrite) {
    struct {
        std::string text;
        uint32_t ticket;
        std::optional<std::string> payload;
        std::optional<std::string> checksum;
    } const cases[] = {
        {"id 1 7 S", 7, std::nullopt, std::nullopt},
        {"id 1 7 X 99", 7, "99", std::nullopt},
        {"id 1 7 S [ lc=5", 7, std::nullopt, "5"},
        {"   id   1  7   S   99   lc=5   ", 7, "99", "5"},
        {"id 1 7 S 99 new=thing lc=5", 7, "99", "5"},
        {"id 1 7 S 99 lc=5=6", 7, "99", "5=6"},
        {"id 1 7x S", 7, std::nullopt, std::nullopt},
        {"id 1 4294967295 S", 4294967295, std::nullopt, std::nullopt},
        {"i\td 1\n 7 S", 7, std::nullopt, std::nullopt}, // only blanks separate
        {"1 2 3 S 5 6=6 7=7 8=8 9=9 a=a b=b c=c d=d e=e f=f g=g", 3, "5", std::nullopt},
        {"id 1 7 S " + std::string(503, 'p'), 7, std::string(503, 'p'), std::nullopt}, // a full file
    };
    for (const auto& row : cases) {
        std::optional<LockValues> member = Parse(row.text);
        ASSERT_TRUE(member) << row.text;
        EXPECT_EQ(member->lamportNumber, row.ticket) << row.text;
        EXPECT_EQ(member->payload, row.payload) << row.text;
        EXPECT_EQ(member->locationChecksum, row.checksum) << row.text;
    }
}

TEST(FileLockMember, RefusesWhatCannotBeTrusted) {
    const std::string cases[] = {
        "",
        " ",
        "id 1 7",
        "id 1 seven S",
        "id 1 -7 S",
        "id 1 4294967296 S", // does not fit
        "id 1 99999999999999999999999999 S",
        "id 1 7 s",
        "id 1 7 SX",
        "id 1 7 S 99 lc",
        "id 1 7 S 99 =5",
        "id 1 7 S 99 lc=",
        "1 2 3 S 5 6=6 7=7 8=8 9=9 a=a b=b c=c d=d e=e f=f g=g h=h", // 17 fields
        std::string("id 1\0 7 S", 9),                                // the line ends at the first zero
        std::string(512, 'x'),                                       // one field, no end
        "\xFF\xFE\x80 \xC0",
    };
    for (const std::string& text : cases) {
        EXPECT_FALSE(Parse(text)) << text;
    }
}

TEST(FileLockMember, EntryNames) {
    for (const char* name : {"M00000.lck", "D12345.lck", "E99999.lck", "M123456.lck", "D12345 copy.lck"}) {
        EXPECT_TRUE(FileLockIsEntryName(name)) << name;
    }
    for (const char* name : {"", "M", "M1234.lck", "m12345.lck", "X12345.lck", "M12345.LCK", "M12345lck",
                             "M12345.lck~", "M1234x.lck", ".lck", "M12.lck.lck"}) {
        EXPECT_FALSE(FileLockIsEntryName(name)) << name;
    }
    EXPECT_EQ(FileLockSibling("C:\\D\\x.lck\\D00007.lck", 'M'), "C:\\D\\x.lck\\M00007.lck");
}

TEST(FileLockMember, SumsTakeBytesAsSigned) {
    EXPECT_EQ(FileLockLocationChecksum(""), "5381");
    EXPECT_EQ(FileLockLocationChecksum("a"), "177670");
    EXPECT_EQ(FileLockLocationChecksum("A"), "177670");
    EXPECT_EQ(FileLockLocationChecksum("\xFF"), std::to_string(5381 * 33 - 1));
    EXPECT_NE(FileLockLocationChecksum("\xC3\x84"), FileLockLocationChecksum("\xC3\xA4"));
    EXPECT_EQ(FileLockSeed("ab", "12"), 97u + 98u + 49u + 50u);
    EXPECT_EQ(FileLockSeed("\xFF", ""), 0xFFFFFFFFu);
}

TEST(FileLockMember, NumbersSpreadEvenly) {
    FileLockGenerator generator(12345);
    std::vector<int> histogram(16);
    for (int draw = 0; draw < 16000; draw++) {
        uint32_t number = FileLockDraw(&generator);
        ASSERT_LE(number, 65535u);
        histogram[number >> 12]++;
    }
    EXPECT_THAT(histogram, ::testing::Each(::testing::AllOf(::testing::Gt(850), ::testing::Lt(1150))));
}

TEST(FileLockMember, MachinesMatch) {
    struct {
        const char* own;
        const char* other;
        bool match;
    } const cases[] = {
        {"uuid=1", "uuid=1", true}, {"uuid=1", "uuid=2", false}, {"uuid=1", "old", true},
        {"uuid=1", "else", false},  {"old", "uuid=1", false},    {"old", "old", true},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(FileLockMachineIDMatch(row.own, row.other, "old"), row.match)
            << row.own << " " << row.other;
    }
}

TEST(FileLockMember, WhoWaitsForWhom) {
    struct {
        const char* ownType;
        const char* otherType;
        uint32_t otherTicket;  // ours is 5
        const char* otherName; // ours is M5
        bool waits;
    } const cases[] = {
        {"X", "X", 4, "M9", true},  {"X", "X", 6, "M0", false}, {"X", "X", 5, "M4", true},
        {"X", "X", 5, "M6", false}, {"X", "X", 5, "M5", false}, {"S", "S", 4, "M0", false},
        {"S", "X", 4, "M9", true},  {"X", "S", 4, "M9", true},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(FileLockMustWait(Member(row.ownType, 5, "M5"),
                                   Member(row.otherType, row.otherTicket, row.otherName)),
                  row.waits)
            << row.ownType << " " << row.otherType << row.otherTicket << row.otherName;
    }
}

TEST(FileLockMember, PausesGrowToTwoSeconds) {
    for (auto [count, pauseMs] : {std::pair{20u, 100u},
                                  {21u, 200u},
                                  {38u, 1900u},
                                  {39u, 2000u},
                                  {40u, 2000u},
                                  {0xFFFFFFFFu, 2000u}}) {
        EXPECT_EQ(FileLockPause(count), pauseMs) << count;
    }
}

TEST(FileLockMember, WhoLeavesTheDoorwayStartsAnew) {
    std::vector<ActiveLocker> doorway;
    for (int pause = 0; pause < 41; pause++) {
        FileLockMarkDoorway(&doorway, "D00001.lck");
        FileLockMarkDoorway(&doorway, "D00002.lck");
        EXPECT_THAT(FileLockAgeDoorway(&doorway), IsEmpty());
    }
    FileLockMarkDoorway(&doorway, "D00002.lck");
    FileLockMarkDoorway(&doorway, "D00003.lck");
    EXPECT_THAT(FileLockAgeDoorway(&doorway), ElementsAre("D00002.lck")); // the first has left in time
    ASSERT_EQ(doorway.size(), 1u);
    EXPECT_EQ(doorway[0].dirName, "D00003.lck");
    EXPECT_EQ(doorway[0].ageMs, 200u);
}

// A firmware table: its head, then the structures given.
std::vector<uint8_t> Firmware(std::initializer_list<std::vector<uint8_t>> structures) {
    std::vector<uint8_t> table = {0, 3, 0, 0, 0, 0, 0, 0};
    for (const auto& structure : structures) {
        table.insert(table.end(), structure.begin(), structure.end());
    }
    table[4] = static_cast<uint8_t>(table.size() - 8);
    return table;
}

// With bytes of the UUID that go up from `first` by `step`.
std::vector<uint8_t> SystemInformation(uint8_t first, uint8_t step) {
    std::vector<uint8_t> structure = {1, 27, 0, 1, 1, 2, 3, 4};
    for (int byte = 0; byte < 16; byte++) {
        structure.push_back(static_cast<uint8_t>(first + byte * step));
    }
    structure.insert(structure.end(), {6, 1, 2, 'm', 'e', 0, 'x', 0, 0});
    return structure;
}

const std::vector<uint8_t> BIOS = {0, 6, 0, 0, 1, 2, 'b', 'i', 'o', 's', 0, 'v', 0, 0};
const std::vector<uint8_t> NO_STRINGS = {2, 4, 1, 0, 0, 0};
const std::vector<uint8_t> LAST = {127, 4, 9, 0, 0, 0};

TEST(FileLockMachine, FindsTheSystemUuidInATableThatReachesSoFar) {
    const std::vector<uint8_t> whole = Firmware({BIOS, NO_STRINGS, SystemInformation(0xA0, 1), LAST});
    auto uuid = FileLockFindUuid(whole);
    ASSERT_TRUE(uuid);
    EXPECT_EQ(FileLockMachineIDFromUuid(*uuid), "uuid=a0a1a2a3-a4a5-a6a7-a8a9-aaabacadaeaf");
    for (size_t size = 0; size < whole.size(); size++) {
        std::vector<uint8_t> cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
        bool complete = size >= 8 + BIOS.size() + NO_STRINGS.size() + 27;
        EXPECT_EQ(FileLockFindUuid(cut).has_value(), complete) << size;
    }
}

TEST(FileLockMachine, AnUnsetOrMissingUuidIsNone) {
    EXPECT_FALSE(FileLockFindUuid(Firmware({})));
    EXPECT_FALSE(FileLockFindUuid(Firmware({BIOS})));
    EXPECT_FALSE(FileLockFindUuid(Firmware({SystemInformation(0x00, 0)})));
    EXPECT_FALSE(FileLockFindUuid(Firmware({SystemInformation(0xFF, 0)})));
    EXPECT_FALSE(FileLockFindUuid(Firmware({LAST, SystemInformation(0xA0, 1)})));
    EXPECT_FALSE(FileLockFindUuid(Firmware({{1, 8, 0, 0, 1, 2, 3, 4, 0, 0}}))); // too old to have one
    EXPECT_FALSE(FileLockFindUuid(Firmware({{9, 2, 0, 0, 0, 0}})));             // shorter than its own head
}

TEST(FileLockMachine, TheOlderFormHasSixteenCharactersWithoutSlash) {
    EXPECT_EQ(FileLockMachineIDFromNumbers(0xFFFFFFFF, 0xFFFFFFFFFFFFFFFF), "----------------");
    EXPECT_EQ(FileLockMachineIDFromNumbers(0x03020100, 0x0B0A090807060504), "AAECAwQFBgcICQoL");
}

} // namespace
