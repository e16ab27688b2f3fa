#include "file/fileLockMember.h"

#include "string/str.h"

#include <algorithm>
#include <charconv>

namespace {

constexpr size_t MAX_FIELDS = 16;
constexpr size_t TICKET_FIELD = 2;
constexpr size_t TYPE_FIELD = 3;
constexpr size_t PAYLOAD_FIELD = 4;
constexpr size_t MIN_FIELDS = 4;
constexpr std::string_view NO_PAYLOAD = "[";
constexpr std::string_view CHECKSUM_NAME = "lc";
constexpr std::string_view UUID_PREFIX = "uuid=";

constexpr size_t ENTRY_DIGITS = 5;
constexpr uint32_t MAX_DOORWAY_AGE_MS = 8000;

bool FileLockIsDigit(char character) {
    return character >= '0' && character <= '9';
}

template <typename Number>
std::optional<Number> FileLockParse(std::string_view text) {
    Number number{};
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc()) {
        return std::nullopt;
    }
    return number;
}

// name=value, both there; the value goes on to the end of the field.
bool FileLockTakeOption(std::string_view field, LockValues* values) {
    size_t equals = field.find('=');
    if (equals == std::string_view::npos || equals == 0 || equals + 1 == field.size()) {
        return false;
    }
    if (field.substr(0, equals) == CHECKSUM_NAME) {
        values->locationChecksum = field.substr(equals + 1);
    }
    return true;
}

} // namespace

FileLockGenerator::FileLockGenerator(uint32_t seed)
    : state_{0x95f24dab, 0x0b685215, 0xe76ccae7, 0xaf3ec239, 0x715fad23, 0x24a590ad, 0x69e4b5ef,
             0xbf456141, 0x96bc1b7b, 0xa7bdf825, 0xc1de75b7, 0x8858a9c9, 0x2da87693, 0xb657f9dd,
             0xffdc8a9f, 0x8121da71, 0x8b823ecb, 0x885d05f5, 0x4e20cd47, 0x5a9ad5d9, 0x512c0c03,
             0xea857ccd, 0x4cc1d30f, 0x8891a8a1, 0xa6b7aadb} {
    for (uint32_t& word : state_) {
        word ^= seed;
    }
}

void FileLockGenerator::Twist() {
    constexpr size_t OFFSET = 7;
    constexpr uint32_t TWIST = 0x8ebfd028;
    for (size_t word = 0; word < WORDS; word++) {
        uint32_t old = state_[word];
        state_[word] = state_[(word + OFFSET) % WORDS] ^ (old >> 1) ^ ((old & 1) != 0 ? TWIST : 0);
    }
    index_ = 0;
}

uint32_t FileLockGenerator::Next() {
    if (index_ == WORDS) {
        Twist();
    }
    uint32_t value = state_[index_++];
    value ^= (value << 7) & 0x2b5b2500;
    value ^= (value << 15) & 0xdb8b0000;
    return value ^ (value >> 16);
}

uint32_t FileLockSeed(std::string_view machineID, std::string_view executionID) {
    uint32_t sum = 0;
    for (std::string_view id : {machineID, executionID}) {
        for (char character : id) {
            sum += static_cast<uint32_t>(static_cast<signed char>(character));
        }
    }
    return sum;
}

uint32_t FileLockDraw(FileLockGenerator* generator) {
    return (generator->Next() >> 8) & 0xFFFF;
}

std::string FileLockEntryName(char letter, uint32_t number) {
    return Str_Format("%c%05u%s", letter, number, FILELOCK_SUFFIX.data());
}

bool FileLockIsEntryName(std::string_view name) {
    return name.size() > ENTRY_DIGITS && std::string_view("MDE").find(name[0]) != std::string_view::npos &&
           std::ranges::all_of(name.substr(1, ENTRY_DIGITS), FileLockIsDigit) &&
           name.ends_with(FILELOCK_SUFFIX);
}

std::string FileLockSibling(std::string fullName, char letter) {
    size_t position = fullName.rfind('D');
    if (position != std::string::npos) {
        fullName[position] = letter;
    }
    return fullName;
}

std::string FileLockLocationChecksum(std::string_view lockDirectory) {
    uint32_t hash = 5381;
    for (char character : lockDirectory) {
        char lower =
            character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
        hash = hash * 33 + static_cast<uint32_t>(static_cast<signed char>(lower));
    }
    return std::to_string(hash);
}

std::array<char, FILELOCK_MEMBER_SIZE> FileLockFormatMember(const LockValues& own) {
    std::string line =
        Str_Format("%s %s %u %s %s lc=%s", own.machineID.c_str(), own.executionID.c_str(), own.lamportNumber,
                   own.lockType.c_str(), own.payload ? own.payload->c_str() : NO_PAYLOAD.data(),
                   own.locationChecksum ? own.locationChecksum->c_str() : "0");
    std::array<char, FILELOCK_MEMBER_SIZE> content{};
    std::copy_n(line.begin(), std::min(line.size(), content.size()), content.begin());
    return content;
}

MemberFields FileLockSplitMember(std::span<const char> content) {
    std::string_view text(content.data(), content.size());
    text = text.substr(0, text.find('\0'));
    MemberFields fields;
    for (;;) {
        size_t start = text.find_first_not_of(' ');
        if (start == std::string_view::npos) {
            return fields;
        }
        if (fields.argv.size() == MAX_FIELDS) {
            fields.tooMany = true;
            return fields;
        }
        text.remove_prefix(start);
        size_t length = std::min(text.find(' '), text.size());
        fields.argv.emplace_back(text.substr(0, length));
        text.remove_prefix(length);
    }
}

std::optional<LockValues> FileLockParseMember(const MemberFields& fields) {
    const std::vector<std::string>& argv = fields.argv;
    if (fields.tooMany || argv.size() < MIN_FIELDS) {
        return std::nullopt;
    }
    LockValues values;
    values.machineID = argv[0];
    values.executionID = argv[1];
    values.lockType = argv[TYPE_FIELD];
    if (argv.size() > PAYLOAD_FIELD && argv[PAYLOAD_FIELD] != NO_PAYLOAD) {
        values.payload = argv[PAYLOAD_FIELD];
    }
    for (size_t field = PAYLOAD_FIELD + 1; field < argv.size(); field++) {
        if (!FileLockTakeOption(argv[field], &values)) {
            return std::nullopt;
        }
    }
    std::optional<uint32_t> ticket = FileLockParseUnsigned(argv[TICKET_FIELD]);
    if (!ticket || (values.lockType != FILELOCK_SHARED && values.lockType != FILELOCK_EXCLUSIVE)) {
        return std::nullopt;
    }
    values.lamportNumber = *ticket;
    return values;
}

std::optional<uint32_t> FileLockParseUnsigned(std::string_view text) {
    return FileLockParse<uint32_t>(text);
}

std::optional<int32_t> FileLockParseSigned(std::string_view text) {
    return FileLockParse<int32_t>(text);
}

std::optional<uint64_t> FileLockParseUnsigned64(std::string_view text) {
    return FileLockParse<uint64_t>(text);
}

bool FileLockMachineIDMatch(std::string_view own, std::string_view other, std::string_view ownOldForm) {
    if (own.starts_with(UUID_PREFIX) && !other.starts_with(UUID_PREFIX)) {
        return other == ownOldForm;
    }
    return own == other;
}

bool FileLockMustWait(const LockValues& own, const LockValues& other) {
    bool otherIsFirst = other.lamportNumber < own.lamportNumber ||
                        (other.lamportNumber == own.lamportNumber && other.memberName < own.memberName);
    return otherIsFirst && (own.lockType == FILELOCK_EXCLUSIVE || other.lockType == FILELOCK_EXCLUSIVE);
}

uint32_t FileLockPause(uint32_t count) {
    constexpr uint32_t STEP_MS = 100;
    constexpr uint32_t MAX_MS = 2000;
    constexpr uint32_t SHORT_PAUSES = 21;
    if (count < SHORT_PAUSES) {
        return STEP_MS;
    }
    uint32_t steps = std::min(count - SHORT_PAUSES + 2, MAX_MS / STEP_MS);
    return steps * STEP_MS;
}

bool FileLockIsTimedOut(const LockValues& own) {
    constexpr uint32_t FOREVER = 0xFFFFFFFF;
    return own.maxWaitMs == 0 || (own.maxWaitMs != FOREVER && own.waitTimeMs > own.maxWaitMs);
}

void FileLockMarkDoorway(std::vector<ActiveLocker>* doorway, const std::string& dirName) {
    auto known = std::ranges::find(*doorway, dirName, &ActiveLocker::dirName);
    if (known == doorway->end()) {
        doorway->push_back({dirName});
    } else {
        known->marked = true;
    }
}

std::vector<std::string> FileLockAgeDoorway(std::vector<ActiveLocker>* doorway) {
    std::vector<std::string> dead;
    for (const ActiveLocker& locker : *doorway) {
        if (locker.marked && locker.ageMs > MAX_DOORWAY_AGE_MS) {
            dead.push_back(locker.dirName);
        }
    }
    std::erase_if(*doorway, [](const ActiveLocker& locker) {
        return !locker.marked || locker.ageMs > MAX_DOORWAY_AGE_MS;
    });
    for (ActiveLocker& locker : *doorway) {
        locker.marked = false;
        locker.ageMs += FILELOCK_DOORWAY_PAUSE_MS;
    }
    return dead;
}
