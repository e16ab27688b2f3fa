// The lock protocol: the steps of one locker and the scans of the lock directory, over plain file operations.
#include "file/fileLock.h"

#include "file/file.h"
#include "file/fileLockEdge.h"
#include "file/fileLockMember.h"
#include "file/fileRules.h"
#include "log/log.h"
#include "misc/diag.h"

#include <algorithm>
#include <cstring>
#include <memory>

// What a holder keeps; an implicit lock keeps nothing.
struct FileLock_Token {
    std::string memberFile;
};

namespace {

// For every file operation of the protocol, against scanners and indexers.
constexpr uint32_t BUDGET_MS = 2000;

// Somebody who holds our number has to go before it can be had; so many draws in a row mean that something
// else is wrong with the directory.
constexpr int MAX_DRAWS = 100000;

FileLock_Token implicitToken;

// The names of one locker.
struct EntryNames {
    std::string directory;
    std::string entryFile;
    std::string memberFile;
    std::string memberName;
};

struct Scan {
    const std::string& directory;
    // Called with each member, our own included; anything but 0 ends the scan.
    int (*callback)(const std::string& directory, const LockValues& member, LockValues* own);
    LockValues* own;
    bool cleanUp; // waits for the doorway to empty, and empties it
};

std::string InDirectory(const std::string& directory, const std::string& name) {
    return directory + "\\" + name;
}

bool IsOnThisMachine(const LockValues& member) {
    const FileLockIdentity& identity = FileLockOwnIdentity();
    return FileLockMachineIDMatch(identity.machineID, member.machineID, identity.machineIDOld);
}

bool FileLockValidOwner(const LockValues& member) {
    std::optional<int32_t> processId = FileLockParseSigned(member.executionID);
    if (!processId) {
        Warning("FILE: %s pid conversion error on %s\n", "FileLockValidOwner", member.executionID.c_str());
        return true;
    }
    std::optional<uint64_t> creationTime;
    if (member.payload) {
        creationTime = FileLockParseUnsigned64(*member.payload);
        if (!creationTime) {
            Warning("FILE: %s file creation time conversion error on %s\n", "FileLockValidOwner",
                    member.payload->c_str());
        }
    }
    return HardProcessValidation(*processId, creationTime.has_value(), creationTime.value_or(0));
}

void ReportRemoval(const char* operation, const std::string& entryDirectory, int error) {
    Warning("FILE: %s removal of '%s' failed: %s\n", operation, entryDirectory.c_str(), strerror(error));
}

int RemoveLockingFile(const std::string& directory, const std::string& name) {
    std::string path = InDirectory(directory, name);
    int error = FileDeletionRetry(path.c_str(), false, BUDGET_MS);
    if (error == FILE_ENOENT) {
        error = 0;
    }
    if (error != 0) {
        Warning("FILE: %s of '%s' failed: %s\n", "RemoveLockingFile", path.c_str(), strerror(error));
    }
    return error;
}

// Removes a member file that cannot be trusted. Gone is what its reader is to see when that worked.
int RemoveProblematicMember(const std::string& path, const MemberFields& fields) {
    constexpr const char* OPERATION = "FileLockMemberValues";
    Warning("FILE: %s removing problematic lock file '%s'\n", OPERATION, path.c_str());
    if (!fields.argv.empty()) {
        Log_Level(LOG_ALWAYS, "FILE: %s '%s' contents are:\n", OPERATION, path.c_str());
        for (size_t field = 0; field < fields.argv.size(); field++) {
            Log_Level(LOG_ALWAYS, "FILE: %s %s argv[%d]: '%s'\n", OPERATION, path.c_str(),
                      static_cast<int>(field), fields.argv[field].c_str());
        }
    }
    int error = FileDeletionRetry(path.c_str(), false, BUDGET_MS);
    return error == 0 ? FILE_ENOENT : error;
}

// Opens a member and reads all of it. `*sized` tells whether it has the size of one; if not, nothing is read.
int ReadMember(const std::string& path, std::array<char, FILELOCK_MEMBER_SIZE>* content, bool* sized) {
    constexpr const char* OPERATION = "FileLockMemberValues";
    constexpr uint32_t SIZE = FILELOCK_MEMBER_SIZE;
    FileLockFile file;
    int error = FileLockOpenFile(path, FILELOCK_OPEN_READ, &file);
    if (error != 0) {
        if (error != FILE_ENOENT) {
            Warning("FILE: %s open failure on '%s': %s\n", OPERATION, path.c_str(), strerror(error));
        }
        return error;
    }
    FileData data{};
    error = FileAttributesRetry(path.c_str(), BUDGET_MS, &data);
    if (error != 0) {
        Warning("FILE: %s file size failure on '%s': %s\n", OPERATION, path.c_str(), strerror(error));
        return error;
    }
    *sized = data.size == SIZE;
    if (!*sized) {
        Warning("FILE: %s file '%s': size %" DIAG_I64 "u, required size %u\n", OPERATION, path.c_str(),
                data.size, SIZE);
        return 0;
    }
    uint32_t done = 0;
    error = FileLockReadFile(&file, content->data(), SIZE, &done);
    if (error != 0) {
        Warning("FILE: %s read failure on '%s': %s\n", OPERATION, path.c_str(), strerror(error));
    } else if (done != SIZE) {
        Warning("FILE: %s read length issue on '%s': %u and %u\n", OPERATION, path.c_str(), done, SIZE);
        error = FILE_EIO;
    }
    return error;
}

int FileLockMemberValues(const std::string& directory, const std::string& name, LockValues* member) {
    std::string path = InDirectory(directory, name);
    std::array<char, FILELOCK_MEMBER_SIZE> content{};
    bool sized = false;
    int error = ReadMember(path, &content, &sized);
    if (error != 0) {
        return error;
    }
    MemberFields fields = sized ? FileLockSplitMember(content) : MemberFields{};
    std::optional<LockValues> values = FileLockParseMember(fields);
    if (!values) {
        return RemoveProblematicMember(path, fields);
    }
    *member = std::move(*values);
    member->memberName = name;
    return 0;
}

// Why a member on this machine does not count; null when it does.
const char* StaleReason(const LockValues& member, const LockValues& own) {
    if (!IsOnThisMachine(member)) {
        return nullptr;
    }
    if (!FileLockValidOwner(member)) {
        return "invalid executionID.";
    }
    if (member.executionID == own.executionID && member.locationChecksum &&
        member.locationChecksum != own.locationChecksum) {
        return "lock file has been moved.";
    }
    return nullptr;
}

int ScanMember(const Scan& scan, const std::string& name) {
    if (name == scan.own->memberName) {
        return scan.callback(scan.directory, *scan.own, scan.own);
    }
    LockValues member;
    int error = FileLockMemberValues(scan.directory, name, &member);
    if (error != 0) {
        return error == FILE_ENOENT ? 0 : error;
    }
    if (const char* reason = StaleReason(member, *scan.own)) {
        Log_Level(LOG_ALWAYS, "FILE: %s discarding %s from %s': %s\n", "ScanDirectory", name.c_str(),
                  scan.directory.c_str(), reason);
        return RemoveLockingFile(scan.directory, name);
    }
    return scan.callback(scan.directory, member, scan.own);
}

// First pass over the names: removes what does not belong there, notes who is in the doorway, and leaves only
// the files of lockers.
int ScanNames(const Scan& scan, std::vector<std::string>* names) {
    for (const std::string& name : *names) {
        if (!FileLockIsEntryName(name)) {
            Log_Level(LOG_ALWAYS, "FILE: %s discarding %s from %s'; invalid file name.\n", "ScanDirectory",
                      name.c_str(), scan.directory.c_str());
            int error = RemoveLockingFile(scan.directory, name);
            if (error != 0) {
                return error;
            }
        } else if (name[0] == 'D' && scan.cleanUp) {
            FileLockMarkDoorway(&scan.own->doorway, name);
        }
    }
    std::erase_if(*names,
                  [](const std::string& name) { return !FileLockIsEntryName(name) || name[0] == 'D'; });
    return 0;
}

int ListNames(const Scan& scan, std::vector<std::string>* names) {
    if (FileListDirectoryRetry(scan.directory.c_str(), BUDGET_MS, names) < 0) {
        int systemError = FileLockLastError();
        Log_Level(LOG_ALWAYS, "FILE: %s: Could not read the directory '%s': %d\n", "ScanDirectory",
                  scan.directory.c_str(), systemError);
        return FILE_EDOM;
    }
    return ScanNames(scan, names);
}

// With anybody in the doorway, the members are not looked at: the caller has to come again.
int ScanDirectory(const Scan& scan) {
    std::vector<std::string> names;
    int error = ListNames(scan, &names);
    if (error == 0 && scan.cleanUp && scan.own->doorway.empty()) {
        // A listing need not show one moment: somebody who stepped out of the doorway meanwhile may be
        // missing in both places. Whoever was on the way then is a member by now.
        error = ListNames(scan, &names);
    }
    if (error != 0 || !scan.own->doorway.empty()) {
        return error;
    }
    for (const std::string& name : names) {
        error = name[0] == 'E' ? 0 : ScanMember(scan, name);
        if (error != 0) {
            return error;
        }
    }
    return 0;
}

// Clears up behind a locker that died in the doorway: what it may have written goes before its directory, so
// that nobody passes the doorway and still meets its member. What cannot be removed (it is no empty
// directory) would keep everybody waiting for ever, and ends the scan.
int DiscardLocker(const std::string& directory, const std::string& dirName) {
    std::string path = InDirectory(directory, dirName);
    Log_Level(LOG_ALWAYS, "FILE: %s discarding %s data from '%s'.\n", "Scanner", dirName.c_str(),
              directory.c_str());
    FileDeletionRetry(FileLockSibling(path, 'M').c_str(), false, BUDGET_MS);
    FileDeletionRetry(FileLockSibling(path, 'E').c_str(), false, BUDGET_MS);
    int error = FileRemoveDirectoryRetry(path.c_str(), BUDGET_MS);
    if (error == FILE_ENOENT) {
        error = 0;
    }
    if (error != 0) {
        ReportRemoval("Scanner", path, error);
    }
    return error;
}

// Scans until it has met an empty doorway and then seen every member, or failed.
int Scanner(const Scan& scan) {
    std::vector<ActiveLocker>* doorway = &scan.own->doorway;
    doorway->clear();
    int error = ScanDirectory(scan);
    while (error == 0 && !doorway->empty()) {
        for (const std::string& dead : FileLockAgeDoorway(doorway)) {
            error = DiscardLocker(scan.directory, dead);
            if (error != 0) {
                return error;
            }
        }
        FileLockSleep(FILELOCK_DOORWAY_PAUSE_MS);
        error = ScanDirectory(scan);
    }
    return error;
}

int RaiseTicket(const std::string& /*directory*/, const LockValues& member, LockValues* own) {
    own->lamportNumber = std::max(own->lamportNumber, member.lamportNumber);
    return 0;
}

// In pieces, so that a suspended machine does not oversleep by much.
void SleepInPieces(uint32_t milliseconds) {
    constexpr uint32_t PIECE_MS = 900;
    while (milliseconds > 0) {
        uint32_t piece = std::min(milliseconds, PIECE_MS);
        FileLockSleep(piece);
        milliseconds -= piece;
    }
}

void ReportTimeout(const std::string& path, const LockValues& member) {
    bool local = IsOnThisMachine(member);
    Log_Level(LOG_ALWAYS,
              local ? "FILE: %s timeout on '%s' due to a local process (%s)\n"
                    : "FILE: %s timeout on '%s' due to another machine (%s)\n",
              "WaitForPossession", path.c_str(),
              local ? member.executionID.c_str() : member.machineID.c_str());
}

int WaitForPossession(const std::string& directory, const LockValues& member, LockValues* own) {
    if (!FileLockMustWait(*own, member)) {
        return 0;
    }
    std::string path = InDirectory(directory, member.memberName);
    bool local = IsOnThisMachine(member);
    for (uint32_t pauses = 0; !FileLockIsTimedOut(*own); pauses++) {
        uint32_t pauseMs = FileLockPause(pauses);
        own->waitTimeMs += pauseMs;
        SleepInPieces(pauseMs);
        int error = FileAttributesRetry(path.c_str(), BUDGET_MS, nullptr);
        if (error != 0) {
            return error == FILE_ENOENT ? 0 : error;
        }
        if (local && !FileLockValidOwner(member)) {
            Warning("FILE: %s discarding file '%s'; invalid executionID.\n", "WaitForPossession",
                    path.c_str());
            return RemoveLockingFile(directory, member.memberName);
        }
    }
    if (own->maxWaitMs != FILELOCK_TRY_ONCE) {
        ReportTimeout(path, member);
    }
    return FILE_EAGAIN;
}

int MakeDirectory(const std::string& directory) {
    int error = FileCreateDirectoryRetry(directory.c_str(), BUDGET_MS);
    if (error == FILE_EEXIST) {
        error = 0;
    }
    if (error != 0) {
        Warning("FILE: %s creation failure on '%s': %s\n", "CreateEntryDirectory", directory.c_str(),
                strerror(error));
    }
    return error;
}

// Sees to it that the lock directory is there and is a directory.
int EnsureLockDirectory(const std::string& directory) {
    constexpr uint32_t REGULAR_FILE = 0;
    constexpr uint32_t DIRECTORY = 1;
    FileData data{};
    int error = FileAttributesRetry(directory.c_str(), BUDGET_MS, &data);
    if (error == 0 && data.type == REGULAR_FILE) {
        Log_Level(LOG_ALWAYS, "FILE: %s: '%s' exists; an old style lock file?\n", "CreateEntryDirectory",
                  directory.c_str());
        return FILE_EAGAIN;
    }
    if (error == 0 && data.type != DIRECTORY) {
        if (FileDeletionRetry(directory.c_str(), false, BUDGET_MS) != 0) {
            Warning("FILE: %s: '%s' exists and is not a directory.\n", "CreateEntryDirectory",
                    directory.c_str());
            return FILE_ENOTDIR;
        }
        error = FileAttributesRetry(directory.c_str(), BUDGET_MS, &data);
    }
    if (error == FILE_ENOENT) {
        return MakeDirectory(directory);
    }
    if (error != 0) {
        Warning("FILE: %s stat failure on '%s': %s\n", "CreateEntryDirectory", directory.c_str(),
                strerror(error));
    }
    return error;
}

EntryNames NamesOf(const std::string& directory, uint32_t number) {
    std::string memberName = FileLockEntryName('M', number);
    return {InDirectory(directory, FileLockEntryName('D', number)),
            InDirectory(directory, FileLockEntryName('E', number)), InDirectory(directory, memberName),
            memberName};
}

// Claims a number by making its entry directory: nobody else is in the doorway, or a member, under it.
int CreateEntryDirectory(const std::string& directory, EntryNames* names) {
    int error = 0;
    for (int draw = 0; draw < MAX_DRAWS; draw++) {
        error = EnsureLockDirectory(directory);
        if (error != 0) {
            return error;
        }
        *names = NamesOf(directory, FileLockDrawNumber());
        error = FileCreateDirectoryRetry(names->directory.c_str(), BUDGET_MS);
        if (error == 0) {
            if (FileAttributesRetry(names->memberFile.c_str(), BUDGET_MS, nullptr) == FILE_ENOENT) {
                return 0;
            }
            FileRemoveDirectoryRetry(names->directory.c_str(), BUDGET_MS);
            error = FILE_EEXIST;
        } else if (error != FILE_EEXIST && error != FILE_ENOENT) {
            break; // the number is not taken, nor has the last locker just removed the whole directory
        }
    }
    Warning("FILE: %s creation failure on '%s': %s\n", "CreateEntryDirectory", names->directory.c_str(),
            strerror(error));
    return error;
}

// Writes the entry file and publishes it, whole, as the member file.
int CreateMemberFile(const LockValues& own, const EntryNames& names, FileLockFile* file) {
    constexpr const char* OPERATION = "CreateMemberFile";
    std::array<char, FILELOCK_MEMBER_SIZE> content = FileLockFormatMember(own);
    uint32_t done = 0;
    int error = FileLockWriteFile(file, content.data(), FILELOCK_MEMBER_SIZE, &done);
    if (error != 0) {
        Warning("FILE: %s write of '%s' failed: %s\n", OPERATION, names.entryFile.c_str(), strerror(error));
        FileLockCloseFile(file);
        return error;
    }
    error = FileLockCloseFile(file);
    if (error != 0) {
        Warning("FILE: %s close of '%s' failed: %s\n", OPERATION, names.entryFile.c_str(), strerror(error));
        return error;
    }
    if (done != FILELOCK_MEMBER_SIZE) {
        Warning("FILE: %s write length issue on '%s': %u and %" DIAG_I64 "d\n", OPERATION,
                names.entryFile.c_str(), done, int64_t{FILELOCK_MEMBER_SIZE});
        return FILE_EIO;
    }
    error = FileRenameRetry(names.entryFile.c_str(), names.memberFile.c_str(), 0);
    if (error != 0) {
        Warning("FILE: %s FileRename of '%s' to '%s' failed: %s\n", OPERATION, names.entryFile.c_str(),
                names.memberFile.c_str(), strerror(error));
    }
    return error;
}

// The lock directory goes with the last of its entries; until then its removal fails, which harms nothing.
void LeaveDirectory(const std::string& directory) {
    FileRemoveDirectoryRetry(directory.c_str(), BUDGET_MS);
}

// One above every ticket in the directory.
int TakeTicket(const std::string& directory, LockValues* own) {
    own->lamportNumber = 0;
    int error = Scanner({directory, RaiseTicket, own, false});
    if (error == 0 && own->lamportNumber == UINT32_MAX) {
        return FILE_ERANGE; // starting again from 0 would go before everybody who holds the lock
    }
    own->lamportNumber++;
    return error;
}

// A locker whose entry directory is gone was taken for dead, and one whose directory stays will be: its
// member does not protect it, and it has to withdraw.
int CheckDoorwayLeft(const std::string& entryDirectory, int removalError) {
    if (removalError != 0) {
        ReportRemoval("FileLockIntrinsic", entryDirectory, removalError);
    }
    return removalError == FILE_ENOENT ? FILE_EAGAIN : removalError;
}

// The way through the doorway, from the claimed number to the published member.
int PassDoorway(const std::string& directory, const EntryNames& names, LockValues* own) {
    FileLockFile file;
    int error = FileLockOpenFile(names.entryFile, FILELOCK_OPEN_WRITE | FILELOCK_OPEN_CREATE, &file);
    if (error != 0) {
        FileRemoveDirectoryRetry(names.directory.c_str(), BUDGET_MS);
        LeaveDirectory(directory);
        return error;
    }
    error = TakeTicket(directory, own);
    if (error != 0) {
        FileLockCloseFile(&file);
        FileDeletionRetry(names.entryFile.c_str(), false, BUDGET_MS);
        FileRemoveDirectoryRetry(names.directory.c_str(), BUDGET_MS);
        LeaveDirectory(directory);
        return error;
    }
    own->memberName = names.memberName;
    error = CreateMemberFile(*own, names, &file);
    int removed = FileRemoveDirectoryRetry(names.directory.c_str(), BUDGET_MS);
    if (error == 0) {
        error = CheckDoorwayLeft(names.directory, removed);
    }
    if (error != 0) {
        FileDeletionRetry(names.entryFile.c_str(), false, BUDGET_MS);
        FileDeletionRetry(names.memberFile.c_str(), false, BUDGET_MS);
        LeaveDirectory(directory);
    }
    return error;
}

FileLock_Token* FileLockIntrinsic(const std::string& path, bool exclusive, uint32_t maxWaitMs,
                                  const std::string& payload, int* error) {
    std::string directory = path + std::string(FILELOCK_SUFFIX);
    LockValues own;
    own.machineID = FileLockOwnIdentity().machineID;
    own.executionID = FileLockOwnIdentity().executionID;
    own.payload = payload;
    own.lockType = exclusive ? FILELOCK_EXCLUSIVE : FILELOCK_SHARED;
    own.locationChecksum = FileLockLocationChecksum(directory);
    own.maxWaitMs = maxWaitMs;

    EntryNames names;
    *error = CreateEntryDirectory(directory, &names);
    if ((*error == FILE_EACCES || *error == FILE_EROFS) && !exclusive) {
        Warning("FILE: %s implicit %s lock succeeded on '%s'.\n", "FileLockIntrinsic", FILELOCK_SHARED,
                path.c_str());
        return &implicitToken;
    }
    if (*error == 0) {
        *error = PassDoorway(directory, names, &own);
    }
    if (*error != 0) {
        return nullptr;
    }
    int waited = Scanner({directory, WaitForPossession, &own, true});
    if (waited == 0) {
        return new FileLock_Token{names.memberFile};
    }
    if (waited == FILE_EAGAIN) {
        FileDeletionRetry(names.memberFile.c_str(), false, BUDGET_MS);
        LeaveDirectory(directory);
        waited = 0;
    }
    *error = waited; // after anything but a time-out the member stays, as the protocol has it
    return nullptr;
}

} // namespace

FileLock_Token* FileLock_Lock(const char* fileName, bool readOnly, uint32_t maxWaitMs, int* error) {
    std::string path;
    *error = FileLockNormalizePath(fileName, &path);
    if (*error != 0) {
        return nullptr;
    }
    return FileLockIntrinsic(path, !readOnly, maxWaitMs, FileLockOwnPayload(), error);
}

int FileLock_Unlock(const char* fileName, FileLock_Token* token) {
    if (token == &implicitToken) {
        return 0;
    }
    std::unique_ptr<FileLock_Token> owned(token);
    int error = FileDeletionRetry(owned->memberFile.c_str(), false, BUDGET_MS);
    std::string path;
    if (FileLockNormalizePath(fileName, &path) == 0) {
        LeaveDirectory(path + std::string(FILELOCK_SUFFIX));
    }
    return error;
}
