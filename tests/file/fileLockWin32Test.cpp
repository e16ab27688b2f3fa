#include "fileTestWin32.h"

#include "file/fileIO.h"
#include "file/fileLock.h"
#include "file/fileLockEdge.h"
#include "file/fileLockMember.h"
#include "file/fileRules.h"

using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

namespace {

std::vector<DWORD> sleeps;

void CountSleep(DWORD milliseconds) {
    sleeps.push_back(milliseconds);
}

DWORD Sum(const std::vector<DWORD>& pauses) {
    DWORD sum = 0;
    for (DWORD pause : pauses) {
        sum += pause;
    }
    return sum;
}

class FileLockTest : public FileWin32Test {
protected:
    FileLockTest() : file_(Name("file")), lockDirectory_("file.lck") { sleeps.clear(); }

    std::string Content(const std::string& line) const {
        std::string text = line;
        text.resize(FILELOCK_MEMBER_SIZE);
        return text;
    }
    void AddMember(const std::string& name, const std::string& line) const {
        File_EnsureDirectory(Name(lockDirectory_).c_str());
        WriteFileText(lockDirectory_ + "\\" + name, Content(line));
    }
    bool LockDirectoryIsGone() const { return !File_Exists(Name(lockDirectory_).c_str()); }

    FileLock_Token* Lock(bool readOnly, uint32_t maxWaitMs) {
        error_ = -1;
        return FileLock_Lock(file_.c_str(), readOnly, maxWaitMs, &error_);
    }
    void ExpectLockable() {
        FileLock_Token* token = Lock(false, FILELOCK_TRY_ONCE);
        ASSERT_NE(token, nullptr) << "error " << error_;
        EXPECT_EQ(FileLock_Unlock(file_.c_str(), token), 0);
        EXPECT_TRUE(LockDirectoryIsGone());
    }

    std::string file_;
    std::string lockDirectory_;
    int error_ = -1;
};

TEST_F(FileLockTest, AMemberShowsWhoHoldsTheLock) {
    FileLock_Token* token = Lock(false, 0);
    ASSERT_NE(token, nullptr);
    std::vector<std::string> names;
    ASSERT_EQ(File_ListDirectory(Name(lockDirectory_).c_str(), &names), 1);
    EXPECT_TRUE(FileLockIsEntryName(names[0])) << names[0];
    EXPECT_EQ(names[0][0], 'M');
    const std::string content = ReadFileText(lockDirectory_ + "\\" + names[0]);
    FILETIME created;
    FILETIME other;
    GetProcessTimes(GetCurrentProcess(), &created, &other, &other, &other);
    uint64_t creationTime = uint64_t{created.dwHighDateTime} << 32 | created.dwLowDateTime;
    EXPECT_EQ(content, Content(FileLockOwnIdentity().machineID + " " + std::to_string(GetCurrentProcessId()) +
                               " 1 X " + std::to_string(creationTime) +
                               " lc=" + FileLockLocationChecksum(Name(lockDirectory_))));
    EXPECT_EQ(FileLock_Unlock(file_.c_str(), token), 0);
    EXPECT_TRUE(LockDirectoryIsGone());
}

TEST_F(FileLockTest, TheIdentityIsStableAndWithoutBlanks) {
    const FileLockIdentity& identity = FileLockOwnIdentity();
    EXPECT_EQ(&identity, &FileLockOwnIdentity());
    EXPECT_THAT(identity.machineID, ::testing::AnyOf(StartsWith("uuid="), identity.machineIDOld));
    EXPECT_EQ(identity.machineIDOld.size(), 16u);
    EXPECT_EQ((identity.machineID + identity.machineIDOld).find_first_of(" \t\r\n/"), std::string::npos);
    EXPECT_EQ(identity.executionID, std::to_string(GetCurrentProcessId()));
}

TEST_F(FileLockTest, NumbersComeFromTheSeededGenerator) {
    FileLockGenerator generator(
        FileLockSeed(FileLockOwnIdentity().machineID, FileLockOwnIdentity().executionID));
    uint32_t number = FileLockDrawNumber();
    int draws = 0;
    while (FileLockDraw(&generator) != number && draws < 100000) {
        draws++; // those of earlier tests
    }
    ASSERT_LT(draws, 100000);
    for (int draw = 0; draw < 100; draw++) {
        EXPECT_EQ(FileLockDrawNumber(), FileLockDraw(&generator));
    }
}

TEST_F(FileLockTest, TheTimeoutComesAfter2600Milliseconds) {
    AddMember("M60000.lck", "uuid=elsewhere 1 1 X [");
    fileWin32Calls.sleep = CountSleep;
    EXPECT_EQ(Lock(true, 2500), nullptr);
    EXPECT_EQ(error_, 0);
    ASSERT_EQ(sleeps.size(), 23u);
    EXPECT_THAT(std::vector<DWORD>(sleeps.begin(), sleeps.begin() + 21), Each(100u));
    EXPECT_EQ(sleeps[21], 200u);
    EXPECT_EQ(sleeps[22], 300u);
    EXPECT_THAT(LogCapture_Take(),
                ElementsAre(LogLine{1, "FILE: WaitForPossession timeout on '" + Name(lockDirectory_) +
                                           "\\M60000.lck' due to another machine (uuid=elsewhere)\n"}));
    std::vector<std::string> names;
    EXPECT_EQ(File_ListDirectory(Name(lockDirectory_).c_str(), &names), 1);
}

TEST_F(FileLockTest, LongPausesAreSleptInPieces) {
    AddMember("M60000.lck", "uuid=elsewhere 1 1 X [");
    fileWin32Calls.sleep = CountSleep;
    EXPECT_EQ(Lock(false, 60000), nullptr);
    EXPECT_GT(Sum(sleeps), 60000u);
    EXPECT_LE(Sum(sleeps), 62000u);
    EXPECT_LE(*std::max_element(sleeps.begin(), sleeps.end()), 900u);
}

TEST_F(FileLockTest, ATimeoutNamesTheLocalHolder) {
    FileLock_Token* holder = Lock(false, 0);
    ASSERT_NE(holder, nullptr);
    fileWin32Calls.sleep = CountSleep;
    EXPECT_EQ(Lock(false, 2500), nullptr);
    EXPECT_EQ(error_, 0);
    std::vector<LogLine> lines = LogCapture_Take();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(
        lines[0].text.ends_with("due to a local process (" + std::to_string(GetCurrentProcessId()) + ")\n"))
        << lines[0].text;
    EXPECT_EQ(FileLock_Unlock(file_.c_str(), holder), 0);
    EXPECT_TRUE(LockDirectoryIsGone());
}

TEST_F(FileLockTest, AnAbandonedDoorwayIsClearedAfter41Pauses) {
    AddMember("M60000.lck", "anything");
    WriteFileText(lockDirectory_ + "\\E60000.lck", "");
    ASSERT_TRUE(File_CreateDirectory(Name(lockDirectory_ + "\\D60000.lck").c_str()));
    // The numbering pass would remove the member as a problematic one; leave it to the doorway's cleaning.
    ASSERT_EQ(File_Unlink(Name(lockDirectory_ + "\\M60000.lck").c_str()), 0);
    fileWin32Calls.sleep = CountSleep;
    FileLock_Token* token = Lock(false, 2500);
    ASSERT_NE(token, nullptr);
    EXPECT_EQ(sleeps.size(), 42u); // the last one before the pass that finds it gone
    EXPECT_THAT(sleeps, Each(200u));
    EXPECT_THAT(LogCapture_Take(), ElementsAre(LogLine{1, "FILE: Scanner discarding D60000.lck data from '" +
                                                              Name(lockDirectory_) + "'.\n"}));
    EXPECT_EQ(FileLock_Unlock(file_.c_str(), token), 0);
    EXPECT_TRUE(LockDirectoryIsGone());
}

TEST_F(FileLockTest, TheTimesHoldForReal) {
    AddMember("M60000.lck", "uuid=elsewhere 1 1 X [");
    DWORD start = GetTickCount();
    EXPECT_EQ(Lock(false, 2500), nullptr);
    EXPECT_GE(GetTickCount() - start, 2600u - 50);
    ASSERT_EQ(File_Unlink(Name(lockDirectory_ + "\\M60000.lck").c_str()), 0);
    ASSERT_TRUE(File_CreateDirectory(Name(lockDirectory_ + "\\D60000.lck").c_str()));
    start = GetTickCount();
    FileLock_Token* token = Lock(false, 2500);
    ASSERT_NE(token, nullptr);
    EXPECT_GE(GetTickCount() - start, 8200u - 50);
    EXPECT_EQ(FileLock_Unlock(file_.c_str(), token), 0);
    EXPECT_TRUE(LockDirectoryIsGone());
}

TEST_F(FileLockTest, ARawDiskIsLockedInTheTemporaryDirectory) {
    std::string path;
    EXPECT_EQ(FileLockNormalizePath("\\\\.\\PhysicalDrive12:x", &path), 0);
    EXPECT_EQ(path, *File_GetTmpDir(true) + "\\pd12:x");
    EXPECT_EQ(FileLockNormalizePath("C:/a/./b", &path), 0);
    EXPECT_EQ(path, "C:\\a\\b");
    EXPECT_EQ(FileLockNormalizePath(nullptr, &path), 14);
    EXPECT_EQ(FileLockNormalizePath("\xFF", &path), 22);
    EXPECT_EQ(FileLock_Lock(nullptr, true, 0, &error_), nullptr);
    EXPECT_EQ(error_, 14);
}

int openAttempts;
int openFailures;

HANDLE WINAPI OpenAfterSome(LPCWSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                            DWORD disposition, DWORD attributes, HANDLE templateFile) {
    EXPECT_EQ(share, 7u);
    EXPECT_EQ(attributes, DWORD{FILE_ATTRIBUTE_NORMAL});
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
        FileLockFile file;
        EXPECT_EQ(FileLockOpenFile(file_, FILELOCK_OPEN_READ, &file),
                  failures == 6 ? 5 : 0); // 32 has no code
        EXPECT_EQ(openAttempts, std::min(failures + 1, 6));
        EXPECT_EQ(sleeps, std::vector<DWORD>(static_cast<size_t>(std::min(failures, 5)), 100));
    }
    FileLockFile file;
    openAttempts = 0;
    EXPECT_EQ(FileLockOpenFile(std::string(261, 'x'), FILELOCK_OPEN_READ, &file), 38);
    EXPECT_EQ(openAttempts, 0);
    openFailures = 0;
    EXPECT_EQ(FileLockOpenFile(Name("missing"), FILELOCK_OPEN_READ, &file), 2);
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

class ProcessValidationTest : public FileWin32Test {
protected:
    ProcessValidationTest() {
        fileProcessCalls.linked = true;
        fileProcessCalls.createSnapshot = [](DWORD flags, DWORD) -> HANDLE {
            EXPECT_EQ(flags, 2u);
            return CreateEventW(nullptr, FALSE, FALSE, nullptr);
        };
        fileProcessCalls.first = FirstProcess;
        fileProcessCalls.next = StepProcesses;
        fileProcessCalls.getTimes = GetProcessTimes;
        processIds = {4, own_, 999999};
        ownTime_ = std::stoull(FileLockOwnPayload());
        walkError = ERROR_NO_MORE_FILES;
    }
    void ExpectWarning(const std::string& text) {
        EXPECT_THAT(DiagCapture_Take().warning, ElementsAre("FILE: HardProcessValidation " + text));
    }
    const DWORD own_ = GetCurrentProcessId();
    uint64_t ownTime_;
};

TEST_F(ProcessValidationTest, OnlyAProcessThatIsListedLives) {
    int32_t own = static_cast<int32_t>(own_);
    EXPECT_TRUE(HardProcessValidation(own, false, 0));
    EXPECT_TRUE(HardProcessValidation(own, true, ownTime_));
    EXPECT_FALSE(HardProcessValidation(own, true, ownTime_ + 1)); // the id is another process's now
    EXPECT_FALSE(HardProcessValidation(12345678, false, 0));
    EXPECT_TRUE(HardProcessValidation(999999, true, 1)); // listed, but cannot be opened
    EXPECT_THAT(DiagCapture_Take().warning, IsEmpty());
}

TEST_F(ProcessValidationTest, DoubtCountsAsAlive) {
    fileProcessCalls.getTimes = [](HANDLE, LPFILETIME, LPFILETIME, LPFILETIME, LPFILETIME) { return FALSE; };
    EXPECT_TRUE(HardProcessValidation(static_cast<int32_t>(own_), true, 1));
    EXPECT_EQ(FileLockOwnPayload(), "0");
    processIds.clear();
    walkError = ERROR_INVALID_DATA;
    EXPECT_TRUE(HardProcessValidation(1, false, 0));
    ExpectWarning("at least one process assertion failure: 13\n");
    fileProcessCalls.createSnapshot = [](DWORD, DWORD) { return INVALID_HANDLE_VALUE; };
    EXPECT_TRUE(HardProcessValidation(1, false, 0));
    ExpectWarning("CreateToolhelp32Snapshot failed.\n");
    fileProcessCalls.next = nullptr;
    EXPECT_TRUE(HardProcessValidation(1, false, 0));
    EXPECT_THAT(DiagCapture_Take().warning, IsEmpty());
}

TEST_F(ProcessValidationTest, AWalkThatBreaksOffIsReported) {
    walkError = ERROR_BAD_LENGTH;
    EXPECT_FALSE(HardProcessValidation(12345678, false, 0));
    ExpectWarning("Process32Next failure: 24\n");
}

TEST_F(ProcessValidationTest, AMissingModuleIsReportedOnce) {
    fileProcessCalls = {};
    fileWin32Calls.getModuleHandle = [](LPCWSTR) -> HMODULE { return nullptr; };
    std::string path;
    FileLockNormalizePath("C:\\x", &path);
    FileLockNormalizePath("C:\\x", &path);
    EXPECT_THAT(DiagCapture_Take().warning, ElementsAre("FILE: DynaLink kernel32 missing?\n"));
    EXPECT_TRUE(HardProcessValidation(1, false, 0));
}

TEST_F(FileLockTest, TheRealListOfProcessesIsRead) {
    std::string path;
    ASSERT_EQ(FileLockNormalizePath("C:\\x", &path), 0);
    FileHolder other((WriteFileText("file", "x"), WideName("file")), 60000);
    int32_t otherId = static_cast<int32_t>(other.Process().Id());
    EXPECT_TRUE(HardProcessValidation(otherId, false, 0));
    EXPECT_FALSE(HardProcessValidation(otherId, true, 1));
    other.Process().Kill();
    EXPECT_FALSE(HardProcessValidation(otherId, false, 0));
    EXPECT_TRUE(HardProcessValidation(static_cast<int32_t>(GetCurrentProcessId()), true,
                                      std::stoull(FileLockOwnPayload())));
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
    LogCapture_Take();
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

HANDLE WINAPI RefuseTheFileItself(LPCWSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                                  DWORD disposition, DWORD attributes, HANDLE templateFile) {
    if (std::wstring_view(name).ends_with(L".lck")) {
        return CreateFileW(name, access, share, security, disposition, attributes, templateFile);
    }
    SetLastError(ERROR_ACCESS_DENIED);
    return INVALID_HANDLE_VALUE;
}

TEST_F(FileIOLockTest, EveryFailingOpenGivesTheLockBack) {
    EXPECT_EQ(Open(FILEIO_OPEN_READ, FileIOOpenAction::Open), FileIOResult::FileNotFound);
    EXPECT_TRUE(LockDirectoryIsGone());
    WriteFileText("file", "x");
    EXPECT_EQ(Open(FILEIO_OPEN_WRITE, FileIOOpenAction::CreateSafe), FileIOResult::FileExists);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_EXISTS});
    EXPECT_TRUE(LockDirectoryIsGone());
    fileWin32Calls.createFile = RefuseTheFileItself;
    EXPECT_EQ(Open(FILEIO_OPEN_WRITE, FileIOOpenAction::Open), FileIOResult::NoPermission);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_TRUE(LockDirectoryIsGone());
    fileWin32Calls.createFile = CreateFileW;
    {
        FileHolder scanner(WideName("file"), 60000);
        EXPECT_EQ(Open(FILEIO_OPEN_WRITE, FileIOOpenAction::Open), FileIOResult::Error);
        EXPECT_TRUE(LockDirectoryIsGone());
    }
    EXPECT_EQ(descriptor_.lockToken, nullptr);
}

TEST_F(FileIOLockTest, LockAndUnlockStandAlone) {
    descriptor_.fileName = file_;
    EXPECT_EQ(FileIO_Lock(&descriptor_, FILEIO_OPEN_WRITE), FileIOResult::Success); // no lock asked for
    EXPECT_EQ(descriptor_.lockToken, nullptr);
    EXPECT_EQ(FileIO_Unlock(&descriptor_), FileIOResult::Success);
    EXPECT_EQ(FileIO_Lock(&descriptor_, FILEIO_OPEN_WRITE | FILEIO_OPEN_LOCKED), FileIOResult::Success);
    ASSERT_NE(descriptor_.lockToken, nullptr);
    std::vector<std::string> names;
    File_ListDirectory(Name(lockDirectory_).c_str(), &names);
    ASSERT_EQ(names.size(), 1u);
    ASSERT_EQ(File_Unlink(Name(lockDirectory_ + "\\" + names[0]).c_str()), 0); // somebody cleaned up
    EXPECT_EQ(FileIO_Unlock(&descriptor_), FileIOResult::Error);
    EXPECT_EQ(descriptor_.lockToken, nullptr);
    EXPECT_THAT(DiagCapture_Take().warning,
                ElementsAre("FILE: FileIO_Unlock on '" + file_ + "' failed: No such file or directory\n"));
}

TEST_F(FileIOLockTest, WhatALockFailsWithIsWhatTheOpenSays) {
    WriteFileText("file.lck", ""); // where the directory should be
    EXPECT_EQ(Open(FILEIO_OPEN_READ), FileIOResult::Error);
    EXPECT_FALSE(FileIO_IsValid(&descriptor_));
    EXPECT_EQ(descriptor_.fileName, "");
    ASSERT_EQ(File_Unlink(Name("file.lck").c_str()), 0);
    fileWin32Calls.createDirectory = [](LPCWSTR, LPSECURITY_ATTRIBUTES) -> BOOL {
        SetLastError(ERROR_WRITE_PROTECT);
        return FALSE;
    };
    EXPECT_EQ(Open(FILEIO_OPEN_WRITE), FileIOResult::LockFailed);
    EXPECT_EQ(Open(FILEIO_OPEN_READ), FileIOResult::Success); // on a read-only medium, without files
    EXPECT_FALSE(FileIO_Close(&descriptor_));
    EXPECT_THAT(DiagCapture_Take().warning,
                Contains("FILE: FileLockIntrinsic implicit S lock succeeded on '" + file_ + "'.\n"));
}

TEST_F(FileLockTest, StaleAndHostileMembersAreClearedForReal) {
    const std::string dead = FileLockOwnIdentity().machineID + " 99999996 1 X 1 lc=1";
    const std::string reused =
        FileLockOwnIdentity().machineID + " " + std::to_string(GetCurrentProcessId()) + " 1 X 1";
    const std::string moved = FileLockOwnIdentity().machineID + " " + std::to_string(GetCurrentProcessId()) +
                              " 1 X " + FileLockOwnPayload() + " lc=1";
    for (const std::string& line : {dead, reused, moved, std::string("hostile"), std::string(512, '\xFF'),
                                    FileLockOwnIdentity().machineIDOld + " 99999996 1 S"}) {
        AddMember("M60000.lck", line);
        ExpectLockable();
    }
    File_EnsureDirectory(Name(lockDirectory_).c_str());
    WriteFileText(lockDirectory_ + "\\M60000.lck", std::string(511, 'x'));
    WriteFileText(lockDirectory_ + "\\intruder", "");
    ExpectLockable();
}

} // namespace
