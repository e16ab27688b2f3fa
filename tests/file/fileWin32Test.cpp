#include "fileTestWin32.h"

#include "file/fileRules.h"

#include <cerrno>
#include <functional>
#include <map>

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

namespace {

// The state of the call that a test makes fail. Replaced calls are plain functions, so it is global.
struct Injection {
    DWORD error;      // what the call fails with
    int failuresLeft; // then it succeeds
    int calls;
    std::vector<DWORD> sleeps;
};
Injection injection;

BOOL Fail() {
    injection.calls++;
    if (injection.failuresLeft-- <= 0) {
        return TRUE;
    }
    SetLastError(injection.error);
    return FALSE;
}

void CountSleep(DWORD milliseconds) {
    injection.sleeps.push_back(milliseconds);
    SetLastError(4711); // as any call may
}

HANDLE WINAPI FailToFind(LPCWSTR name, LPWIN32_FIND_DATAW entry) {
    return Fail() ? FindFirstFileW(name, entry) : INVALID_HANDLE_VALUE;
}

class FileRetryTest : public FileWin32Test {
protected:
    FileRetryTest() {
        fileWin32Calls.moveFile = [](LPCWSTR, LPCWSTR) { return Fail(); };
        fileWin32Calls.deleteFile = [](LPCWSTR) { return Fail(); };
        fileWin32Calls.createDirectory = [](LPCWSTR, LPSECURITY_ATTRIBUTES) { return Fail(); };
        fileWin32Calls.removeDirectory = [](LPCWSTR) { return Fail(); };
        fileWin32Calls.getFileAttributesEx = [](LPCWSTR, GET_FILEEX_INFO_LEVELS, LPVOID) { return Fail(); };
        fileWin32Calls.findFirstFile = FailToFind;
        fileWin32Calls.sleep = CountSleep;
    }
    static void Inject(DWORD error, int failures) { injection = {error, failures, 0, {}}; }

    struct Operation {
        const char* name;
        std::function<int(uint32_t)> run;
    };
    // The operations that give an errno-style code.
    const std::vector<Operation> operations_ = {
        {"FileRenameRetry", [](uint32_t budgetMs) { return FileRenameRetry("a", "b", budgetMs); }},
        {"FileDeletionRetry", [](uint32_t budgetMs) { return FileDeletionRetry("a", true, budgetMs); }},
        {"FileCreateDirectoryRetry",
         [](uint32_t budgetMs) { return FileCreateDirectoryRetry("a", budgetMs); }},
        {"FileRemoveDirectoryRetry",
         [](uint32_t budgetMs) { return FileRemoveDirectoryRetry("a", budgetMs); }},
        {"FileAttributesRetry",
         [](uint32_t budgetMs) { return FileAttributesRetry("a", budgetMs, nullptr); }},
    };
};

TEST_F(FileRetryTest, WithoutABudgetThereIsOneAttempt) {
    for (const Operation& operation : operations_) {
        Inject(ERROR_SHARING_VIOLATION, 1);
        EXPECT_EQ(operation.run(0), 5) << operation.name;
        EXPECT_EQ(GetLastError(), DWORD{ERROR_SHARING_VIOLATION}) << operation.name;
        EXPECT_EQ(injection.calls, 1) << operation.name;
        EXPECT_THAT(injection.sleeps, IsEmpty()) << operation.name;
        EXPECT_THAT(LogCapture_Take(), ElementsAre(LogLine{1, "FILE: " + std::string(operation.name) +
                                                                  " unmapped error code 32\n"}));
        Inject(ERROR_ACCESS_DENIED, 1);
        EXPECT_EQ(operation.run(0), 13) << operation.name;
        EXPECT_THAT(LogCapture_Take(), IsEmpty()) << operation.name;
    }
}

TEST_F(FileRetryTest, AHeldFileIsTriedUntilItIsFree) {
    for (const Operation& operation : operations_) {
        Inject(ERROR_SHARING_VIOLATION, 3);
        EXPECT_EQ(operation.run(1000), 0) << operation.name;
        EXPECT_EQ(injection.calls, 4) << operation.name;
        EXPECT_EQ(injection.sleeps.size(), 3u) << operation.name;
        EXPECT_EQ(GetLastError(), 0u) << operation.name;
        EXPECT_THAT(LogCapture_Take(), IsEmpty()) << operation.name;
    }
}

TEST_F(FileRetryTest, AUsedUpBudgetIsLoggedOnce) {
    for (const Operation& operation : operations_) {
        Inject(ERROR_ACCESS_DENIED, 1000000);
        EXPECT_EQ(operation.run(1000), 13) << operation.name;
        DWORD sum = 0;
        for (DWORD pause : injection.sleeps) {
            EXPECT_GE(pause, 10u) << operation.name;
            EXPECT_LE(pause, 99u) << operation.name;
            EXPECT_LT(sum, 1000u) << operation.name; // no pause once the budget is used up
            sum += pause;
        }
        EXPECT_GE(sum, 1000u) << operation.name;
        EXPECT_EQ(static_cast<size_t>(injection.calls), injection.sleeps.size() + 1) << operation.name;
        EXPECT_THAT(LogCapture_Take(), ElementsAre(LogLine{1, "FILE: " + std::string(operation.name) +
                                                                  ": retry time expired; last error 5\n"}));
    }
}

TEST_F(FileRetryTest, OtherErrorsEndAtOnce) {
    for (const Operation& operation : operations_) {
        Inject(ERROR_DISK_FULL, 1);
        EXPECT_EQ(operation.run(1000), 28) << operation.name;
        EXPECT_EQ(injection.calls, 1) << operation.name;
        EXPECT_EQ(GetLastError(), DWORD{ERROR_DISK_FULL}) << operation.name;
    }
}

TEST_F(FileRetryTest, AListingNamesItsPatternWhenTheBudgetIsUsedUp) {
    Inject(ERROR_SHARING_VIOLATION, 1000000);
    EXPECT_EQ(FileListDirectoryRetry("C:\\dir", 50, nullptr), -1);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_SHARING_VIOLATION});
    EXPECT_THAT(LogCapture_Take(), ElementsAre(LogLine{1, "FILE: FileListDirectoryRetry: retry time expired "
                                                          "(C:\\dir\\*.*); last error 32\n"}));
    Inject(ERROR_SHARING_VIOLATION, 2);
    EXPECT_EQ(FileListDirectoryRetry(directory_.c_str(), 1000, nullptr), 0);
    EXPECT_EQ(injection.calls, 3);
}

TEST_F(FileRetryTest, MissingAndBrokenNamesNeverReachTheSystem) {
    Inject(0, 0);
    EXPECT_EQ(FileRenameRetry(nullptr, "b", 1000), 14);
    EXPECT_EQ(FileRenameRetry("a", nullptr, 1000), 14);
    EXPECT_EQ(FileDeletionRetry(nullptr, true, 1000), 14);
    EXPECT_EQ(FileCreateDirectoryRetry(nullptr, 1000), 14);
    EXPECT_EQ(FileRemoveDirectoryRetry(nullptr, 1000), 14);
    EXPECT_EQ(FileAttributesRetry(nullptr, 1000, nullptr), 14);
    EXPECT_EQ(FileListDirectoryRetry(nullptr, 1000, nullptr), -1);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_ADDRESS});
    EXPECT_EQ(FileDeletionRetry("broken \xFF name", true, 1000), 22);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_NAME});
    EXPECT_EQ(injection.calls, 0);
    EXPECT_THAT(LogCapture_Take(), IsEmpty());
}

TEST_F(FileRetryTest, ANameOf261UnitsIsRefusedForADirectoryOnly) {
    const std::string longName(261, 'x');
    Inject(0, 0);
    errno = 0;
    EXPECT_EQ(FileCreateDirectoryRetry(longName.c_str(), 1000), 38);
    EXPECT_EQ(errno, 38);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_FILENAME_EXCED_RANGE});
    EXPECT_EQ(injection.calls, 0);
    EXPECT_EQ(FileCreateDirectoryRetry(longName.substr(1).c_str(), 0), 0);
    EXPECT_EQ(FileCreateDirectoryRetry(("\\\\?\\" + longName).c_str(), 0), 0);
    std::string euros; // 260 units of three bytes each
    for (int unit = 0; unit < 260; unit++) {
        euros += "\xE2\x82\xAC";
    }
    EXPECT_EQ(FileCreateDirectoryRetry(euros.c_str(), 0), 0);
    EXPECT_EQ(FileDeletionRetry(longName.c_str(), true, 0), 0);
    EXPECT_EQ(injection.calls, 4);
}

TEST_F(FileWin32Test, SleepsWhatItSays) {
    injection = {};
    fileWin32Calls.sleep = CountSleep;
    EXPECT_EQ(FileRandomSleep(20, 20), 20u);
    for (int pause = 0; pause < 100; pause++) {
        DWORD slept = FileRandomSleep(10, 100);
        EXPECT_EQ(slept, injection.sleeps.back());
        EXPECT_GE(slept, 10u);
        EXPECT_LE(slept, 100u);
    }
}

TEST_F(FileWin32Test, AFileThatAnotherProcessHoldsIsHadWhenItLetsGo) {
    WriteFileText("scanned", "x");
    {
        FileHolder scanner(WideName("scanned"), 1000);
        EXPECT_EQ(FileDeletionRetry(Name("scanned").c_str(), true, 0), 5); // a sharing violation has no code
        EXPECT_EQ(FileRenameRetry(Name("scanned").c_str(), Name("renamed").c_str(), 20000), 0);
    }
    FileHolder scanner(WideName("renamed"), 1000);
    EXPECT_EQ(FileDeletionRetry(Name("renamed").c_str(), true, 20000), 0);
    EXPECT_FALSE(File_Exists(Name("renamed").c_str()));
}

TEST_F(FileWin32Test, AttributesOfFilesAndDirectories) {
    WriteFileText("file", "12345");
    ASSERT_TRUE(File_CreateDirectory(Name("dir").c_str()));
    FileData data{};
    ASSERT_EQ(FileAttributesRetry(Name("file").c_str(), 0, &data), 0);
    EXPECT_EQ(data.size, 5u);
    EXPECT_EQ(data.type, 0u);
    EXPECT_EQ(data.mode, 0666u);
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    uint64_t nowUnits = uint64_t{now.dwHighDateTime} << 32 | now.dwLowDateTime;
    constexpr uint64_t HOUR = 36000000000;
    for (uint64_t time : {data.accessTime, data.creationTime, data.modificationTime}) {
        EXPECT_GT(time, nowUnits - HOUR);
        EXPECT_LT(time, nowUnits + HOUR);
    }
    ASSERT_EQ(FileAttributesRetry(Name("dir").c_str(), 0, &data), 0);
    EXPECT_EQ(data.type, 1u);
    EXPECT_EQ(data.mode, 0777u);

    SetFileAttributesW(WideName("file").c_str(), FILE_ATTRIBUTE_READONLY);
    ASSERT_EQ(FileAttributesRetry(Name("file").c_str(), 0, &data), 0);
    EXPECT_EQ(data.mode, 0444u);
    SetFileAttributesW(WideName("file").c_str(), FILE_ATTRIBUTE_NORMAL);
}

BOOL WINAPI OddAttributes(LPCWSTR, GET_FILEEX_INFO_LEVELS, LPVOID information) {
    *static_cast<WIN32_FILE_ATTRIBUTE_DATA*>(information) = {
        .dwFileAttributes = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN,
        .ftCreationTime = {1, 2},
        .ftLastAccessTime = {3, 4},
        .ftLastWriteTime = {5, 6},
        .nFileSizeHigh = 7,
        .nFileSizeLow = 0xFFFFFFFF,
    };
    return TRUE;
}

TEST_F(FileWin32Test, AttributesKeepEveryBitOfTimesAndSizes) {
    fileWin32Calls.getFileAttributesEx = OddAttributes;
    FileData data{};
    ASSERT_EQ(FileAttributesRetry("x", 0, &data), 0);
    EXPECT_EQ(data.creationTime, 0x200000001u);
    EXPECT_EQ(data.accessTime, 0x400000003u);
    EXPECT_EQ(data.modificationTime, 0x600000005u);
    EXPECT_EQ(data.size, 0x7FFFFFFFFu);
    EXPECT_EQ(data.mode, 0555u);
    EXPECT_EQ(data.owner, 0u);
    EXPECT_EQ(data.group, 0u);
}

TEST_F(FileWin32Test, AFailureLeavesTheRecordAlone) {
    FileData data{};
    data.size = 42;
    EXPECT_EQ(FileAttributesRetry(Name("missing").c_str(), 0, &data), 2);
    EXPECT_EQ(data.size, 42u);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
}

TEST_F(FileWin32Test, CreatesTestsAndRemoves) {
    EXPECT_TRUE(File_CreateDirectory(Name("dir").c_str()));
    EXPECT_FALSE(File_CreateDirectory(Name("dir").c_str()));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ALREADY_EXISTS});
    EXPECT_TRUE(File_EnsureDirectory(Name("dir").c_str()));
    EXPECT_TRUE(File_IsDirectory(Name("dir").c_str()));
    EXPECT_FALSE(File_EnsureDirectory(Name("missing\\dir").c_str()));
    WriteFileText("dir\\file", "x");
    EXPECT_TRUE(File_Exists(Name("dir\\file").c_str()));
    EXPECT_FALSE(File_IsDirectory(Name("dir\\file").c_str()));
    EXPECT_FALSE(File_IsDirectory(nullptr));
    EXPECT_FALSE(File_Exists(nullptr));
    EXPECT_EQ(FileRemoveDirectoryRetry(Name("dir").c_str(), 0), 41);
    EXPECT_EQ(FileRenameRetry(Name("dir\\file").c_str(), Name("file").c_str(), 0), 0);
    EXPECT_EQ(FileRemoveDirectoryRetry(Name("dir").c_str(), 0), 0);
    EXPECT_EQ(File_Unlink(Name("file").c_str()), 0);
    EXPECT_EQ(File_Unlink(Name("file").c_str()), -1);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(File_Unlink(nullptr), -1);
    EXPECT_THAT(LogCapture_Take(), IsEmpty());
}

TEST_F(FileWin32Test, NamesAreTakenAsUsersHaveThem) {
    const std::string names[] = {
        "\xC3\xA4\xC3\xB6\xC3\xBC\xC3\x9F.txt",
        "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E",
        "\xF0\x9F\x93\x81 emoji",
        "with blanks in it",
        "dot.in.the.middle",
        "percent %s %n",
        "$HOME",
    };
    for (const std::string& name : names) {
        EXPECT_TRUE(File_CreateDirectory(Name(name).c_str())) << name;
        EXPECT_TRUE(File_IsDirectory(Name(name).c_str())) << name;
    }
    std::vector<std::string> listed;
    EXPECT_EQ(File_ListDirectory(directory_.c_str(), &listed), static_cast<int>(std::size(names)));
    EXPECT_THAT(listed, ::testing::UnorderedElementsAreArray(names));
    std::string forward = directory_;
    std::replace(forward.begin(), forward.end(), '\\', '/');
    EXPECT_TRUE(File_IsDirectory((forward + "/$HOME").c_str()));
    EXPECT_EQ(FileRemoveDirectoryRetry((forward + "/$HOME/").c_str(), 0), 0);
}

TEST_F(FileWin32Test, VerbatimNamesGoBeyondTheLimit) {
    std::string deep = "\\\\?\\" + directory_;
    for (int level = 0; level < 10; level++) {
        deep += "\\" + std::string(50, static_cast<char>('a' + level));
        ASSERT_TRUE(File_CreateDirectory(deep.c_str())) << level << ", error " << GetLastError();
    }
    EXPECT_TRUE(File_IsDirectory(deep.c_str()));
    EXPECT_EQ(FileRemoveDirectoryRetry(deep.c_str(), 0), 0);
}

TEST_F(FileWin32Test, ListsWithoutTheDots) {
    std::vector<std::string> names{"from before"};
    EXPECT_EQ(File_ListDirectory(directory_.c_str(), &names), 0);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NO_MORE_FILES});
    EXPECT_THAT(names, IsEmpty());
    WriteFileText("one", "");
    WriteFileText("..two", "");
    ASSERT_TRUE(File_CreateDirectory(Name("three").c_str()));
    EXPECT_EQ(File_ListDirectory(directory_.c_str(), nullptr), 3);
    EXPECT_EQ(File_ListDirectory((directory_ + "\\").c_str(), &names), 3);
    EXPECT_THAT(names, UnorderedElementsAre("one", "..two", "three"));
    EXPECT_EQ(File_ListDirectory(Name("missing").c_str(), &names), -1);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_PATH_NOT_FOUND});
    EXPECT_EQ(names.size(), 3u);
    EXPECT_THAT(LogCapture_Take(), IsEmpty());
}

TEST_F(FileWin32Test, AListingThatBreaksOffGivesNoNames) {
    WriteFileText("one", "");
    fileWin32Calls.findNextFile = [](HANDLE, LPWIN32_FIND_DATAW) -> BOOL {
        SetLastError(ERROR_NETNAME_DELETED);
        return FALSE;
    };
    fileWin32Calls.findClose = [](HANDLE search) -> BOOL {
        FindClose(search);
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    };
    std::vector<std::string> names{"from before"};
    EXPECT_EQ(File_ListDirectory(directory_.c_str(), &names), -1);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NETNAME_DELETED});
    EXPECT_THAT(names, ElementsAre("from before"));
    EXPECT_THAT(
        LogCapture_Take(),
        ElementsAre(
            LogLine{1, "FILE: FileListDirectoryRetry: FindClose failure (6) on (" + directory_ + ")\n"},
            LogLine{1, "FILE: FileListDirectoryRetry: FindNextFile failure (64) on (" + directory_ + ")\n"}));
}

HANDLE WINAPI FindBrokenName(LPCWSTR name, LPWIN32_FIND_DATAW entry) {
    HANDLE search = FindFirstFileW(name, entry);
    wcscpy(entry->cFileName, L"half \xD800 pair");
    return search;
}

TEST_F(FileWin32Test, ANameThatIsNoTextIsLeftOutAndReported) {
    fileWin32Calls.findFirstFile = FindBrokenName;
    WriteFileText("file", "");
    std::vector<std::string> names;
    EXPECT_EQ(File_ListDirectory(directory_.c_str(), &names), 1);
    EXPECT_THAT(names, ElementsAre("file"));
    EXPECT_EQ(LogCapture_Take().size(), 1u);
}

TEST_F(FileWin32Test, FullPathIsAbsolute) {
    wchar_t current[MAX_PATH];
    GetCurrentDirectoryW(MAX_PATH, current);
    const std::string here = NarrowText(current);
    EXPECT_EQ(File_FullPath(nullptr), here);
    EXPECT_EQ(File_FullPath("x"), File_StripSlashes(here + "\\") + "\\x");
    EXPECT_EQ(File_FullPath("C:/a/./b/../c"), "C:\\a\\c");
    EXPECT_EQ(File_FullPath("C:\\a\\"), "C:\\a\\");
    EXPECT_EQ(File_FullPath("\\\\server\\share\\a\\..\\b"), "\\\\server\\share\\b");
    EXPECT_EQ(File_FullPath("\\\\?\\C:\\a"), "\\\\?\\C:\\a");
    EXPECT_EQ(File_FullPath("C:\\\xE2\x82\xAC"), "C:\\\xE2\x82\xAC");
    EXPECT_THAT(DiagCapture_Take().warning, IsEmpty());
    SetLastError(77);
    EXPECT_EQ(File_FullPath("\xFF"), std::nullopt);
    EXPECT_THAT(DiagCapture_Take().warning,
                ElementsAre(::testing::StartsWith("FILE: File_FullPath:  _wfullpath failed on (\xFF): ")));
}

} // namespace
