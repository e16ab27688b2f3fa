#include "fileTestWin32.h"

#include "file/fileIO.h"
#include "file/fileLock.h"
#include "file/fileLockEdge.h"
#include "file/fileLockMember.h"

#include <numeric>

using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Le;

namespace {

std::vector<DWORD> sleeps;

void CountSleep(DWORD milliseconds) {
    sleeps.push_back(milliseconds);
}

class FileLockTest : public FileWin32Test {
protected:
    FileLockTest() { sleeps.clear(); }

    static std::string Content(std::string line) {
        line.resize(FILELOCK_MEMBER_SIZE);
        return line;
    }
    void AddMember(const std::string& line) const {
        File_EnsureDirectory(Name("file.lck").c_str());
        WriteFileText("file.lck\\M60000.lck", Content(line));
    }
    std::vector<std::string> Members() const {
        std::vector<std::string> names;
        File_ListDirectory(Name("file.lck").c_str(), &names);
        return names;
    }
    bool LockDirectoryIsGone() const { return !File_Exists(Name("file.lck").c_str()); }

    FileLock_Token* Lock(uint32_t maxWaitMs) {
        error_ = -1;
        return FileLock_Lock(file_.c_str(), false, maxWaitMs, &error_);
    }
    void ExpectLockable() {
        FileLock_Token* token = Lock(FILELOCK_TRY_ONCE);
        ASSERT_NE(token, nullptr) << "error " << error_;
        EXPECT_EQ(FileLock_Unlock(file_.c_str(), token), 0);
        EXPECT_TRUE(LockDirectoryIsGone());
    }

    const std::string file_ = Name("file");
    const std::string ownId_ = std::to_string(GetCurrentProcessId());
    const std::string machine_ = FileLockOwnIdentity().machineID;
    int error_ = -1;
};

TEST_F(FileLockTest, AMemberShowsWhoHoldsTheLock) {
    FileLock_Token* token = Lock(0);
    ASSERT_NE(token, nullptr);
    std::vector<std::string> names = Members();
    ASSERT_EQ(names.size(), 1u);
    EXPECT_TRUE(FileLockIsEntryName(names[0]) && names[0][0] == 'M') << names[0];
    FILETIME created;
    FILETIME other;
    GetProcessTimes(GetCurrentProcess(), &created, &other, &other, &other);
    uint64_t creationTime = uint64_t{created.dwHighDateTime} << 32 | created.dwLowDateTime;
    EXPECT_EQ(ReadFileText("file.lck\\" + names[0]),
              Content(machine_ + " " + ownId_ + " 1 X " + std::to_string(creationTime) +
                      " lc=" + FileLockLocationChecksum(Name("file.lck"))));
    EXPECT_EQ((machine_ + FileLockOwnIdentity().machineIDOld).find_first_of(" \t\r\n/"), std::string::npos);
    EXPECT_EQ(FileLock_Unlock(file_.c_str(), token), 0);
    EXPECT_TRUE(LockDirectoryIsGone());
}

TEST_F(FileLockTest, LongPausesAreSleptInPieces) {
    AddMember("uuid=elsewhere 1 1 X [");
    fileWin32Calls.sleep = CountSleep;
    EXPECT_EQ(Lock(60000), nullptr);
    EXPECT_EQ(error_, 0);
    EXPECT_THAT(sleeps, Each(Le(900u)));
    DWORD slept = std::accumulate(sleeps.begin(), sleeps.end(), DWORD{0});
    EXPECT_GT(slept, 60000u);
    EXPECT_LE(slept, 62000u);
}

TEST_F(FileLockTest, TheTimesHoldForReal) {
    AddMember("uuid=elsewhere 1 1 X [");
    DWORD start = GetTickCount();
    EXPECT_EQ(Lock(2500), nullptr);
    EXPECT_GE(GetTickCount() - start, 2600u - 50);
    ASSERT_EQ(File_Unlink(Name("file.lck\\M60000.lck").c_str()), 0);
    ASSERT_TRUE(File_CreateDirectory(Name("file.lck\\D60000.lck").c_str()));
    start = GetTickCount();
    FileLock_Token* token = Lock(2500);
    ASSERT_NE(token, nullptr);
    EXPECT_GE(GetTickCount() - start, 8200u - 50);
    EXPECT_EQ(FileLock_Unlock(file_.c_str(), token), 0);
    EXPECT_TRUE(LockDirectoryIsGone());
}

TEST_F(FileLockTest, StaleAndHostileMembersAreCleared) {
    for (const std::string& line :
         {machine_ + " 99999996 1 X 1 lc=1",                                  // dead
          FileLockOwnIdentity().machineIDOld + " 99999996 1 S",               // the same
          machine_ + " " + ownId_ + " 1 X 1",                                 // reused
          machine_ + " " + ownId_ + " 1 X " + FileLockOwnPayload() + " lc=1", // moved
          std::string(512, '\xFF')}) {
        AddMember(line);
        ExpectLockable();
    }
    AddMember("");
    WriteFileText("file.lck\\M60000.lck", std::string(511, 'x'));
    WriteFileText("file.lck\\intruder", "");
    ExpectLockable();
}

TEST_F(FileLockTest, NamesAreNormalized) {
    std::string path;
    EXPECT_EQ(FileLockNormalizePath("\\\\.\\PhysicalDrive12:x", &path), 0);
    EXPECT_EQ(path, *File_GetTmpDir(true) + "\\pd12:x");
    EXPECT_EQ(FileLockNormalizePath("C:/a/./b", &path), 0);
    EXPECT_EQ(path, "C:\\a\\b");
    EXPECT_EQ(FileLockNormalizePath("\xFF", &path), 22);
    EXPECT_EQ(FileLock_Lock(nullptr, true, 0, &error_), nullptr);
    EXPECT_EQ(error_, 14);
}

int openAttempts;
int openFailures;

HANDLE WINAPI OpenAfterSome(LPCWSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                            DWORD disposition, DWORD attributes, HANDLE templateFile) {
    EXPECT_EQ(share, 7u);
    if (openAttempts++ < openFailures) {
        SetLastError(openAttempts % 2 == 0 ? ERROR_SHARING_VIOLATION : ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    return CreateFileW(name, access, share, security, disposition, attributes, templateFile);
}

TEST_F(FileLockTest, AHeldMemberIsOpenedSixTimes) {
    WriteFileText("file", "x");
    fileWin32Calls.createFile = OpenAfterSome;
    fileWin32Calls.sleep = CountSleep;
    for (int failures : {0, 5, 6}) {
        openAttempts = 0;
        openFailures = failures;
        sleeps.clear();
        FileLockFile file; // a sharing violation has no code
        EXPECT_EQ(FileLockOpenFile(file_, FILELOCK_OPEN_READ, &file), failures == 6 ? 5 : 0);
        EXPECT_EQ(openAttempts, std::min(failures + 1, 6));
        EXPECT_EQ(sleeps, std::vector<DWORD>(static_cast<size_t>(std::min(failures, 5)), 100));
    }
    FileLockFile file;
    openAttempts = 0;
    EXPECT_EQ(FileLockOpenFile(std::string(261, 'x'), FILELOCK_OPEN_READ, &file), 38);
    EXPECT_EQ(openAttempts, 0);
}

// A list of processes for the replaced calls.
std::vector<DWORD> processIds;
size_t nextProcess;
DWORD walkError; // what the walk ends with

BOOL WINAPI StepProcesses(HANDLE, ProcessEntry* entry) {
    EXPECT_EQ(entry->dwSize, 304u);
    if (nextProcess == processIds.size()) {
        SetLastError(walkError);
        return FALSE;
    }
    entry->th32ProcessID = processIds[nextProcess++];
    return TRUE;
}

BOOL WINAPI FirstProcess(HANDLE snapshot, ProcessEntry* entry) {
    nextProcess = 0;
    return StepProcesses(snapshot, entry);
}

TEST_F(FileLockTest, DoubtCountsAsAlive) {
    fileProcessCalls = {true, [](DWORD, DWORD) -> HANDLE { return CreateEventW(nullptr, 0, 0, nullptr); },
                        FirstProcess, StepProcesses, GetProcessTimes};
    const uint64_t ownTime = std::stoull(FileLockOwnPayload());
    auto expect = [](DWORD id, std::optional<uint64_t> time, bool alive,
                     std::vector<std::string> warnings = {}) {
        EXPECT_EQ(HardProcessValidation(static_cast<int32_t>(id), time.has_value(), time.value_or(0)), alive);
        EXPECT_EQ(DiagCapture_Take().warning, warnings);
    };
    const DWORD own = GetCurrentProcessId();
    constexpr DWORD UNLISTED = 12345678;
    processIds = {4, own, 999999};
    walkError = ERROR_NO_MORE_FILES;
    expect(own, std::nullopt, true);
    expect(own, ownTime, true);
    expect(own, ownTime + 1, false); // another process has the id now
    expect(999999, 1, true);         // cannot be opened
    expect(UNLISTED, std::nullopt, false);
    walkError = ERROR_BAD_LENGTH;
    expect(UNLISTED, std::nullopt, false, {"FILE: HardProcessValidation Process32Next failure: 24\n"});
    FailWith<0>(&fileProcessCalls.getTimes);
    EXPECT_EQ(FileLockOwnPayload(), "0");
    expect(own, 1, true);
    FailWith<ERROR_INVALID_DATA>(&fileProcessCalls.first);
    expect(UNLISTED, std::nullopt, true,
           {"FILE: HardProcessValidation at least one process assertion failure: 13\n"});
    FailWith<0, -1>(&fileProcessCalls.createSnapshot);
    expect(UNLISTED, std::nullopt, true, {"FILE: HardProcessValidation CreateToolhelp32Snapshot failed.\n"});
}

TEST_F(FileLockTest, TheRealListOfProcessesIsRead) {
    std::string path;
    ASSERT_EQ(FileLockNormalizePath("C:\\x", &path), 0);
    WriteFileText("file", "x");
    FileHolder other(WideName("file"), 60000);
    int32_t otherId = static_cast<int32_t>(other.Process().Id());
    EXPECT_TRUE(HardProcessValidation(otherId, false, 0));
    EXPECT_FALSE(HardProcessValidation(otherId, true, 1));
    other.Process().Kill();
    EXPECT_FALSE(HardProcessValidation(otherId, false, 0));

    fileProcessCalls = {};
    FailWith<ERROR_MOD_NOT_FOUND>(&fileWin32Calls.getModuleHandle);
    FileLockNormalizePath("C:\\x", &path);
    FileLockNormalizePath("C:\\x", &path);
    EXPECT_THAT(DiagCapture_Take().warning, ElementsAre("FILE: DynaLink kernel32 missing?\n"));
    EXPECT_TRUE(HardProcessValidation(otherId, false, 0));
}

class FileIOLockTest : public FileLockTest {
protected:
    FileIOResult Open(uint32_t access, FileIOOpenAction action = FileIOOpenAction::OpenCreate) {
        return FileIO_Open(&descriptor_, file_.c_str(), access | FILEIO_OPEN_LOCKED, action);
    }
    void ExpectOpens(uint32_t access) {
        EXPECT_EQ(Open(access), FileIOResult::Success);
        EXPECT_NE(descriptor_.lockToken, nullptr);
        EXPECT_FALSE(FileIO_Close(&descriptor_));
        EXPECT_EQ(descriptor_.lockToken, nullptr);
    }
    // Time does not have to pass where nothing else will happen.
    void ExpectTimesOut(uint32_t access) {
        fileWin32Calls.sleep = CountSleep;
        EXPECT_EQ(Open(access), FileIOResult::LockFailed);
        EXPECT_FALSE(FileIO_IsValid(&descriptor_));
        EXPECT_THAT(DiagCapture_Take().warning,
                    Contains("FILE: FileIO_Lock on '" + file_ + "' failed: Lock timed out\n"));
    }
    FileIODescriptor descriptor_;
};

TEST_F(FileIOLockTest, ReadersShareAndWritersDoNot) {
    {
        FileHolder reader(WideName("file"), 60000, L"shared");
        ExpectOpens(FILEIO_OPEN_READ);
        ExpectTimesOut(FILEIO_OPEN_READ | FILEIO_OPEN_WRITE);
    }
    ExpectOpens(FILEIO_OPEN_WRITE); // the reader is dead
    {
        FileHolder writer(WideName("file"), 60000, L"exclusive");
        ExpectTimesOut(FILEIO_OPEN_READ);
        ExpectTimesOut(FILEIO_OPEN_WRITE);
    }
    ExpectOpens(FILEIO_OPEN_READ);
    EXPECT_TRUE(LockDirectoryIsGone());
}

TEST_F(FileIOLockTest, AWaiterGetsTheLockWhenTheHolderIsDone) {
    FileHolder writer(WideName("file"), 500, L"exclusive");
    ExpectOpens(FILEIO_OPEN_WRITE);
    EXPECT_EQ(writer.Process().Wait(), 0u);
    EXPECT_TRUE(LockDirectoryIsGone());
}

TEST_F(FileIOLockTest, EveryFailingOpenGivesTheLockBack) {
    EXPECT_EQ(Open(FILEIO_OPEN_READ, FileIOOpenAction::Open), FileIOResult::FileNotFound);
    EXPECT_TRUE(LockDirectoryIsGone());
    WriteFileText("file", "x");
    EXPECT_EQ(Open(FILEIO_OPEN_WRITE, FileIOOpenAction::CreateSafe), FileIOResult::FileExists);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_EXISTS});
    EXPECT_TRUE(LockDirectoryIsGone());
    FileHolder scanner(WideName("file"), 60000);
    EXPECT_EQ(Open(FILEIO_OPEN_WRITE, FileIOOpenAction::Open), FileIOResult::Error);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_SHARING_VIOLATION});
    EXPECT_TRUE(LockDirectoryIsGone());
    EXPECT_EQ(descriptor_.lockToken, nullptr);
}

TEST_F(FileIOLockTest, LockAndUnlockStandAlone) {
    descriptor_.fileName = file_;
    EXPECT_EQ(FileIO_Lock(&descriptor_, FILEIO_OPEN_WRITE), FileIOResult::Success); // no lock asked for
    EXPECT_EQ(descriptor_.lockToken, nullptr);
    EXPECT_EQ(FileIO_Unlock(&descriptor_), FileIOResult::Success);
    EXPECT_EQ(FileIO_Lock(&descriptor_, FILEIO_OPEN_WRITE | FILEIO_OPEN_LOCKED), FileIOResult::Success);
    ASSERT_NE(descriptor_.lockToken, nullptr);
    ASSERT_EQ(Members().size(), 1u);
    ASSERT_EQ(File_Unlink(Name("file.lck\\" + Members()[0]).c_str()), 0); // somebody cleaned up
    EXPECT_EQ(FileIO_Unlock(&descriptor_), FileIOResult::Error);
    EXPECT_EQ(descriptor_.lockToken, nullptr);
    EXPECT_THAT(DiagCapture_Take().warning,
                ElementsAre("FILE: FileIO_Unlock on '" + file_ + "' failed: No such file or directory\n"));
}

TEST_F(FileIOLockTest, WhatALockFailsWithIsWhatTheOpenSays) {
    static DWORD refusal;
    fileWin32Calls.createDirectory = [](LPCWSTR, LPSECURITY_ATTRIBUTES) -> BOOL {
        SetLastError(refusal);
        return FALSE;
    };
    const std::pair<DWORD, FileIOResult> cases[] = {
        {ERROR_WRITE_PROTECT, FileIOResult::LockFailed},
        {ERROR_PATH_NOT_FOUND, FileIOResult::FileNotFound},
        {ERROR_CANNOT_MAKE, FileIOResult::NoPermission},
        {ERROR_FILENAME_EXCED_RANGE, FileIOResult::NameTooLong},
        {ERROR_DISK_FULL, FileIOResult::Error},
    };
    for (const auto& [error, result] : cases) {
        refusal = error;
        EXPECT_EQ(Open(FILEIO_OPEN_WRITE), result) << error;
        EXPECT_FALSE(FileIO_IsValid(&descriptor_));
    }
    refusal = ERROR_WRITE_PROTECT;
    EXPECT_EQ(Open(FILEIO_OPEN_READ), FileIOResult::Success); // on a read-only medium, without files
    EXPECT_FALSE(FileIO_Close(&descriptor_));
    EXPECT_THAT(DiagCapture_Take().warning,
                Contains("FILE: FileLockIntrinsic implicit S lock succeeded on '" + file_ + "'.\n"));
}

} // namespace
