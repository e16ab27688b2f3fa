// The lock protocol's texts, numbers and decisions, without any file: names in the lock directory, the
// content of member files, tickets, pauses. Internal.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

inline constexpr std::string_view FILELOCK_SUFFIX = ".lck";
inline constexpr size_t FILELOCK_MEMBER_SIZE = 512; // bytes in a member file, the rest of its line zero
inline constexpr char FILELOCK_SHARED[] = "S";
inline constexpr char FILELOCK_EXCLUSIVE[] = "X";

// Somebody seen in the doorway.
struct ActiveLocker {
    std::string dirName; // name of the entry directory
    uint32_t ageMs = 0;  // for how long it has been seen
    bool marked = true;  // seen by the last scan
};

// One member, read from its file or our own.
struct LockValues {
    std::string machineID;
    std::string executionID;            // process id in decimal
    std::optional<std::string> payload; // creation time of the process as a FILETIME in decimal
    std::string lockType;
    std::optional<std::string> locationChecksum;
    std::string memberName;     // file name without directory; empty while not known
    uint32_t lamportNumber = 0; // ticket

    // Of our own member only.
    uint32_t waitTimeMs = 0;
    uint32_t maxWaitMs = 0;
    std::vector<ActiveLocker> doorway;
};

// The generator TT800: a twisted generalized feedback shift register of 25 words.
class FileLockGenerator {
public:
    explicit FileLockGenerator(uint32_t seed);
    uint32_t Next();

private:
    static constexpr size_t WORDS = 25;
    void Twist();
    std::array<uint32_t, WORDS> state_;
    size_t index_ = 0;
};
uint32_t FileLockSeed(std::string_view machineID, std::string_view executionID);
uint32_t FileLockDraw(FileLockGenerator* generator); // 0 to 65535

// "M", "D" or "E", five digits, suffix.
std::string FileLockEntryName(char letter, uint32_t number);
// One of the three letters, five digits behind it, and the suffix at the end; what stands between is free.
bool FileLockIsEntryName(std::string_view name);
// Leads from an entry directory to the files of the same locker: the last "D" becomes the letter.
std::string FileLockSibling(std::string fullName, char letter);

// Checksum of a lock directory's full name, without regard to the case of ASCII letters, in decimal.
std::string FileLockLocationChecksum(std::string_view lockDirectory);

std::array<char, FILELOCK_MEMBER_SIZE> FileLockFormatMember(const LockValues& own);

struct MemberFields {
    std::vector<std::string> argv; // at most 16
    bool tooMany = false;          // there are more
};
// The fields between runs of blanks, up to the first zero byte.
MemberFields FileLockSplitMember(std::span<const char> content);
// None when the fields do not make a member.
std::optional<LockValues> FileLockParseMember(const MemberFields& fields);

// Leading digits that fit the type; none otherwise. The signed form takes a sign.
std::optional<uint32_t> FileLockParseUnsigned(std::string_view text);
std::optional<int32_t> FileLockParseSigned(std::string_view text);
std::optional<uint64_t> FileLockParseUnsigned64(std::string_view text);

// Whether `other` names this machine, whose ids are `own` and, in the form without a UUID, `ownOldForm`.
bool FileLockMachineIDMatch(std::string_view own, std::string_view other, std::string_view ownOldForm);

// Whether we have to wait for the other member to go.
bool FileLockMustWait(const LockValues& own, const LockValues& other);
// The pause before look number `count` (from 0) at the member waited for.
uint32_t FileLockPause(uint32_t count);
bool FileLockIsTimedOut(const LockValues& own);

// Notes somebody seen in the doorway by the present scan.
void FileLockMarkDoorway(std::vector<ActiveLocker>* doorway, const std::string& dirName);
inline constexpr uint32_t FILELOCK_DOORWAY_PAUSE_MS = 200;
// After a scan: forgets who has left, lets the others grow older by one pause, and takes out those who have
// been there for more than 8000 ms, who are dead; returns their names.
std::vector<std::string> FileLockAgeDoorway(std::vector<ActiveLocker>* doorway);
