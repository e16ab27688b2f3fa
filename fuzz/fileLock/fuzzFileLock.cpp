// What the lock protocol reads of others: member files, names in the lock directory, and the firmware's
// table. What is taken from a member must survive being written and read again.
//
// An input is a byte that chooses what is read, and the rest of it.
#include "file/fileLockMachine.h"
#include "file/fileLockMember.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

void Require(bool condition, const char* what) {
    if (!condition) {
        fprintf(stderr, "fuzz_fileLock: %s\n", what);
        abort();
    }
}

void ReadMember(std::string_view content) {
    MemberFields fields = FileLockSplitMember(content);
    Require(fields.argv.size() <= 16, "more than 16 fields");
    for (const std::string& field : fields.argv) {
        Require(!field.empty() && field.find(' ') == std::string::npos, "a field is none");
    }
    std::optional<LockValues> member = FileLockParseMember(fields);
    if (!member) {
        return;
    }
    // Read back from a file, unless the fields do not fit one in the form in which they are written.
    std::array<char, FILELOCK_MEMBER_SIZE> written = FileLockFormatMember(*member);
    if (written.back() != '\0' || !member->locationChecksum) {
        return;
    }
    std::optional<LockValues> again = FileLockParseMember(FileLockSplitMember(written));
    Require(again.has_value(), "what was written cannot be read");
    Require(again->machineID == member->machineID && again->executionID == member->executionID &&
                again->lamportNumber == member->lamportNumber && again->lockType == member->lockType &&
                again->payload == member->payload && again->locationChecksum == member->locationChecksum,
            "what was written reads differently");
}

void ReadName(const std::string& name) {
    if (!FileLockIsEntryName(name)) {
        return;
    }
    Require(name.size() >= 10, "a name is too short");
    if (name[0] == 'D') {
        std::string sibling = FileLockSibling("C:\\DIR\\" + name, 'M');
        Require(sibling != "C:\\DIR\\" + name, "a doorway without member");
        Require(sibling.starts_with("C:\\DIR\\"), "a member elsewhere");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    switch (data[0] % 3) {
    case 0:
        ReadMember(rest);
        break;
    case 1:
        ReadName(std::string(rest));
        break;
    default:
        FileLockFindUuid({data + 1, size - 1});
        break;
    }
    FileLockParseSigned(rest);
    FileLockParseUnsigned(rest);
    FileLockParseUnsigned64(rest);
    FileLockLocationChecksum(rest);
    return 0;
}
