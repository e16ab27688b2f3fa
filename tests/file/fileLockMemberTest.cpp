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

// A file's 512 bytes, and nothing behind them.
std::vector<char> Content(const std::string& text) {
    std::vector<char> content(text.begin(), text.end());
    content.resize(FILELOCK_MEMBER_SIZE);
    return content;
}

std::optional<LockValues> Parse(const std::string& text) {
    return FileLockParseMember(FileLockSplitMember(Content(text)));
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
    content = FileLockFormatMember(own);
    EXPECT_EQ(std::string(content.data()), "uuid=1-2 1234 4294967295 X [ lc=42");
    std::optional<LockValues> back = FileLockParseMember(FileLockSplitMember(content));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->machineID, own.machineID);
    EXPECT_EQ(back->executionID, own.executionID);
    EXPECT_EQ(back->lamportNumber, own.lamportNumber);
    EXPECT_EQ(back->payload, std::nullopt);
    EXPECT_EQ(back->locationChecksum, "42");
}

TEST(FileLockMember, TakesWhatOthersMayWrite) {
    struct {
        const char* text;
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
        {"id 1 7 S 99 lc=1 lc=2", 7, "99", "2"},
        {"id 1 7x S", 7, std::nullopt, std::nullopt},
        {"id 1 0 S", 0, std::nullopt, std::nullopt},
        {"id 1 4294967295 S", 4294967295, std::nullopt, std::nullopt},
        {"i\td 1\n 7 S", 7, std::nullopt, std::nullopt}, // only blanks separate
        {"1 2 3 S 5 6=6 7=7 8=8 9=9 a=a b=b c=c d=d e=e f=f g=g", 3, "5", std::nullopt},
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
        "id",
        "id 1 7",
        "id 1 seven S",
        "id 1 -7 S",
        "id 1 +7 S",
        "id 1 4294967296 S", // does not fit
        "id 1 99999999999999999999999999 S",
        "id 1 7 s",
        "id 1 7 SX",
        "id 1 7 S 99 lc",
        "id 1 7 S 99 =5",
        "id 1 7 S 99 lc=",
        "id 1 7 S 99 new=thing lc=5 more=",
        "1 2 3 S 5 6=6 7=7 8=8 9=9 a=a b=b c=c d=d e=e f=f g=g h=h", // 17 fields
        std::string("id 1\0 7 S", 9),                                // the line ends at the first zero
        std::string(512, 'x'),                                       // one field, no end
        std::string("\xFF\xFE\x80 \xC0"),
    };
    for (const std::string& text : cases) {
        EXPECT_FALSE(Parse(text)) << text;
    }
}

TEST(FileLockMember, FullFilesAreReadToTheirEnd) {
    std::string text = "id 1 7 S " + std::string(503, 'p');
    ASSERT_EQ(text.size(), 512u);
    std::optional<LockValues> member = Parse(text);
    ASSERT_TRUE(member);
    EXPECT_EQ(member->payload->size(), 503u);
    std::string blanks;
    for (int field = 0; field < 256; field++) {
        blanks += "x ";
    }
    MemberFields fields = FileLockSplitMember(Content(blanks));
    EXPECT_EQ(fields.argv.size(), 16u);
    EXPECT_TRUE(fields.tooMany);
}

TEST(FileLockMember, EntryNames) {
    EXPECT_EQ(FileLockEntryName('M', 7), "M00007.lck");
    EXPECT_EQ(FileLockEntryName('D', 65535), "D65535.lck");
    for (const char* name : {"M00000.lck", "D12345.lck", "E99999.lck", "M123456.lck", "D12345 copy.lck"}) {
        EXPECT_TRUE(FileLockIsEntryName(name)) << name;
    }
    for (const char* name : {"", "M", "M1234.lck", "m12345.lck", "X12345.lck", "M12345.LCK", "M12345lck",
                             "M12345.lck~", "12345.lck", "M1234x.lck", ".lck", "M12.lck.lck"}) {
        EXPECT_FALSE(FileLockIsEntryName(name)) << name;
    }
    EXPECT_EQ(FileLockSibling("C:\\D\\x.lck\\D00007.lck", 'M'), "C:\\D\\x.lck\\M00007.lck");
    EXPECT_EQ(FileLockSibling("D00007 D.lck", 'E'), "D00007 E.lck");
}

TEST(FileLockMember, ChecksumIsThatOfTheLowerCasedBytes) {
    EXPECT_EQ(FileLockLocationChecksum(""), "5381");
    EXPECT_EQ(FileLockLocationChecksum("a"), "177670");
    EXPECT_EQ(FileLockLocationChecksum("A"), "177670");
    EXPECT_EQ(FileLockLocationChecksum("\xC3\x84"), FileLockLocationChecksum("\xC3\x84"));
    EXPECT_EQ(FileLockLocationChecksum("\xFF"), std::to_string(5381 * 33 - 1)); // bytes are signed
    EXPECT_NE(FileLockLocationChecksum("\xC3\x84"), FileLockLocationChecksum("\xC3\xA4"));
}

TEST(FileLockMember, GeneratorIsTheShiftRegister) {
    FileLockGenerator generator(0);
    // The first word of the published state, tempered by hand.
    uint32_t word = 0x95f24dab;
    word ^= (word << 7) & 0x2b5b2500;
    word ^= (word << 15) & 0xdb8b0000;
    EXPECT_EQ(generator.Next(), word ^ (word >> 16));
    // Behind the first 25 outputs, what matters is that a seed fixes the numbers and that they spread evenly.
    FileLockGenerator one(12345);
    FileLockGenerator same(12345);
    FileLockGenerator other(12346);
    std::vector<int> histogram(16);
    int differences = 0;
    for (int draw = 0; draw < 16000; draw++) {
        uint32_t number = FileLockDraw(&one);
        ASSERT_EQ(number, FileLockDraw(&same));
        ASSERT_LE(number, 65535u);
        differences += number != FileLockDraw(&other);
        histogram[number >> 12]++;
    }
    EXPECT_GT(differences, 15900);
    for (int count : histogram) {
        EXPECT_NEAR(count, 1000, 150);
    }
}

TEST(FileLockMember, SeedIsTheSumOfSignedBytes) {
    EXPECT_EQ(FileLockSeed("", ""), 0u);
    EXPECT_EQ(FileLockSeed("ab", "12"), 97u + 98u + 49u + 50u);
    EXPECT_EQ(FileLockSeed("\xFF", ""), 0xFFFFFFFFu);
}

TEST(FileLockMember, MachinesMatch) {
    struct {
        const char* own;
        const char* other;
        bool match;
    } const cases[] = {
        {"uuid=1", "uuid=1", true}, {"uuid=1", "uuid=2", false}, {"uuid=1", "old", true},
        {"uuid=1", "else", false},  {"old", "uuid=1", false},    {"old", "old", true},
        {"else", "old", false},     {"uuid=1", "", false},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(FileLockMachineIDMatch(row.own, row.other, "old"), row.match)
            << row.own << " " << row.other;
    }
}

TEST(FileLockMember, WhoWaitsForWhom) {
    struct {
        const char* ownType;
        uint32_t ownTicket;
        const char* otherType;
        uint32_t otherTicket;
        const char* otherName;
        bool waits;
    } const cases[] = {
        {"X", 5, "X", 4, "M9", true},  {"X", 5, "X", 6, "M0", false}, {"X", 5, "X", 5, "M4", true},
        {"X", 5, "X", 5, "M6", false}, {"X", 5, "X", 5, "M5", false}, {"S", 5, "S", 4, "M0", false},
        {"S", 5, "X", 4, "M9", true},  {"X", 5, "S", 4, "M9", true},  {"S", 5, "X", 6, "M0", false},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(FileLockMustWait(Member(row.ownType, row.ownTicket, "M5"),
                                   Member(row.otherType, row.otherTicket, row.otherName)),
                  row.waits)
            << row.ownType << row.ownTicket << " " << row.otherType << row.otherTicket << row.otherName;
    }
}

TEST(FileLockMember, PausesGrow) {
    uint32_t sum = 0;
    for (uint32_t count = 0; count < 21; count++) {
        EXPECT_EQ(FileLockPause(count), 100u);
        sum += FileLockPause(count);
    }
    EXPECT_EQ(FileLockPause(21), 200u);
    EXPECT_EQ(FileLockPause(22), 300u);
    EXPECT_EQ(sum + 500, 2600u);
    EXPECT_EQ(FileLockPause(39), 2000u);
    EXPECT_EQ(FileLockPause(40), 2000u);
    EXPECT_EQ(FileLockPause(0xFFFFFFFF), 2000u);
}

TEST(FileLockMember, WaitingEnds) {
    struct {
        uint32_t waited;
        uint32_t limit;
        bool timedOut;
    } const cases[] = {
        {0, 0, true}, {0, 1, false}, {2500, 2500, false}, {2501, 2500, true}, {0xFFFFFFFF, 0xFFFFFFFF, false},
    };
    for (const auto& row : cases) {
        LockValues own;
        own.waitTimeMs = row.waited;
        own.maxWaitMs = row.limit;
        EXPECT_EQ(FileLockIsTimedOut(own), row.timedOut) << row.waited << " of " << row.limit;
    }
}

TEST(FileLockMember, TheDoorwayIsClearedAfter41Pauses) {
    std::vector<ActiveLocker> doorway;
    int pauses = 0;
    std::vector<std::string> dead;
    while (dead.empty() && pauses < 100) {
        FileLockMarkDoorway(&doorway, "D00001.lck");
        dead = FileLockAgeDoorway(&doorway);
        pauses++;
    }
    EXPECT_EQ(pauses, 42); // seen by the scan after the 41st pause
    EXPECT_THAT(dead, ElementsAre("D00001.lck"));
    EXPECT_THAT(doorway, IsEmpty());
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
    std::vector<uint8_t> table;
    for (const auto& structure : structures) {
        table.insert(table.end(), structure.begin(), structure.end());
    }
    std::vector<uint8_t> whole = {0, 3, 0, 0, static_cast<uint8_t>(table.size()), 0, 0, 0};
    whole.insert(whole.end(), table.begin(), table.end());
    return whole;
}

std::vector<uint8_t> SystemInformation(uint8_t fill) {
    std::vector<uint8_t> structure = {1, 27, 0, 1, 1, 2, 3, 4};
    for (uint8_t byte = 0; byte < 16; byte++) {
        structure.push_back(fill == 0xAA ? static_cast<uint8_t>(0xA0 + byte) : fill);
    }
    structure.insert(structure.end(), {6, 1, 2, 'm', 'e', 0, 'x', 0, 0});
    return structure;
}

const std::vector<uint8_t> BIOS = {0, 6, 0, 0, 1, 2, 'b', 'i', 'o', 's', 0, 'v', 0, 0};
const std::vector<uint8_t> NO_STRINGS = {2, 4, 1, 0, 0, 0};
const std::vector<uint8_t> LAST = {127, 4, 9, 0, 0, 0};

TEST(FileLockMachine, FindsTheSystemUuid) {
    auto uuid = FileLockFindUuid(Firmware({BIOS, NO_STRINGS, SystemInformation(0xAA), LAST}));
    ASSERT_TRUE(uuid);
    EXPECT_EQ(FileLockMachineIDFromUuid(*uuid), "uuid=a0a1a2a3-a4a5-a6a7-a8a9-aaabacadaeaf");
}

TEST(FileLockMachine, AnUnsetOrMissingUuidIsNone) {
    EXPECT_FALSE(FileLockFindUuid({}));
    EXPECT_FALSE(FileLockFindUuid(Firmware({})));
    EXPECT_FALSE(FileLockFindUuid(Firmware({BIOS})));
    EXPECT_FALSE(FileLockFindUuid(Firmware({SystemInformation(0x00)})));
    EXPECT_FALSE(FileLockFindUuid(Firmware({SystemInformation(0xFF)})));
    EXPECT_FALSE(FileLockFindUuid(Firmware({LAST, SystemInformation(0xAA)})));
    EXPECT_FALSE(FileLockFindUuid(Firmware({{1, 8, 0, 0, 1, 2, 3, 4, 0, 0}}))); // too old to have one
    EXPECT_FALSE(FileLockFindUuid(Firmware({{9, 2, 0, 0, 0, 0}})));             // shorter than its own head
}

TEST(FileLockMachine, ACutTableIsReadNoFurther) {
    const std::vector<uint8_t> whole = Firmware({BIOS, SystemInformation(0xAA), LAST});
    for (size_t size = 0; size < whole.size(); size++) {
        std::vector<uint8_t> cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
        bool complete = size >= 8 + BIOS.size() + 27;
        EXPECT_EQ(FileLockFindUuid(cut).has_value(), complete) << size;
    }
}

TEST(FileLockMachine, TheOlderFormHasSixteenCharactersWithoutSlash) {
    EXPECT_EQ(FileLockMachineIDFromNumbers(0, 0), "AAAAAAAAAAAAAAAA");
    EXPECT_EQ(FileLockMachineIDFromNumbers(0xFFFFFFFF, 0xFFFFFFFFFFFFFFFF), "----------------");
    EXPECT_EQ(FileLockMachineIDFromNumbers(0x03020100, 0x0B0A090807060504), "AAECAwQFBgcICQoL");
}

} // namespace
