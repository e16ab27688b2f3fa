#include "fileTestWin32.h"

#include "unicode/unicode.h"

#include <cerrno>
#include <functional>
#include <numeric>

using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::IsEmpty;
using ::testing::Le;
using ::testing::UnorderedElementsAreArray;

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
};

TEST_F(FileRetryTest, HeldFilesAreTriedForAsLongAsTheBudgetLasts) {
    struct {
        const char* name;
        std::function<int(const char*, uint32_t)> run;
    } const operations[] = {
        {"FileRenameRetry", [](const char* name, uint32_t ms) { return FileRenameRetry(name, "b", ms); }},
        {"FileRenameRetry", [](const char* name, uint32_t ms) { return FileRenameRetry("a", name, ms); }},
        {"FileDeletionRetry",
         [](const char* name, uint32_t ms) { return FileDeletionRetry(name, true, ms); }},
        {"FileCreateDirectoryRetry", FileCreateDirectoryRetry},
        {"FileRemoveDirectoryRetry", FileRemoveDirectoryRetry},
        {"FileAttributesRetry",
         [](const char* name, uint32_t ms) { return FileAttributesRetry(name, ms, nullptr); }},
    };
    for (const auto& operation : operations) {
        const std::string prefix = std::string("FILE: ") + operation.name;
        SCOPED_TRACE(prefix);
        Inject(ERROR_SHARING_VIOLATION, 1);
        EXPECT_EQ(operation.run("a", 0), 5);
        EXPECT_EQ(GetLastError(), DWORD{ERROR_SHARING_VIOLATION});
        EXPECT_EQ(injection.calls, 1);
        EXPECT_THAT(LogCapture_Take(), ElementsAre(LogLine{1, prefix + " unmapped error code 32\n"}));

        Inject(ERROR_SHARING_VIOLATION, 3);
        EXPECT_EQ(operation.run("a", 1000), 0);
        EXPECT_EQ(GetLastError(), 0u);
        EXPECT_EQ(injection.calls, 4);
        EXPECT_EQ(injection.sleeps.size(), 3u);
        EXPECT_THAT(LogCapture_Take(), IsEmpty());

        Inject(ERROR_ACCESS_DENIED, 1000000);
        EXPECT_EQ(operation.run("a", 1000), 13);
        EXPECT_THAT(injection.sleeps, Each(AllOf(Ge(10u), Le(100u))));
        DWORD slept = std::accumulate(injection.sleeps.begin(), injection.sleeps.end(), DWORD{0});
        EXPECT_GE(slept, 1000u);
        EXPECT_LT(slept - injection.sleeps.back(), 1000u);
        EXPECT_EQ(static_cast<size_t>(injection.calls), injection.sleeps.size() + 1);
        EXPECT_THAT(LogCapture_Take(),
                    ElementsAre(LogLine{1, prefix + ": retry time expired; last error 5\n"}));

        Inject(ERROR_DISK_FULL, 1);
        EXPECT_EQ(operation.run("a", 1000), 28);
        EXPECT_EQ(GetLastError(), DWORD{ERROR_DISK_FULL});
        EXPECT_EQ(operation.run(nullptr, 1000), 14);
        EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_ADDRESS});
        EXPECT_EQ(operation.run("broken \xFF name", 1000), 22);
        EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_NAME});
        EXPECT_EQ(injection.calls, 1);
        EXPECT_THAT(LogCapture_Take(), IsEmpty());
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
    EXPECT_EQ(FileListDirectoryRetry(nullptr, 1000, nullptr), -1);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_ADDRESS});
    EXPECT_EQ(injection.calls, 3);
}

TEST_F(FileRetryTest, ANameOf261UnitsIsRefusedForADirectoryOnly) {
    const std::string longName(261, 'x');
    Inject(0, 0);
    errno = 0;
    EXPECT_EQ(FileCreateDirectoryRetry(longName.c_str(), 1000), 38);
    EXPECT_EQ(errno, 38);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_FILENAME_EXCED_RANGE});
    EXPECT_EQ(injection.calls, 0);
    EXPECT_EQ(FileCreateDirectoryRetry(longName.c_str() + 1, 0), 0);
    EXPECT_EQ(FileCreateDirectoryRetry(("\\\\?\\" + longName).c_str(), 0), 0);
    std::string umlauts; // 260 units of two bytes each
    for (int unit = 0; unit < 260; unit++) {
        umlauts += "\xC3\xA4";
    }
    EXPECT_EQ(FileCreateDirectoryRetry(umlauts.c_str(), 0), 0);
    EXPECT_EQ(FileDeletionRetry(longName.c_str(), true, 0), 0);
    EXPECT_EQ(injection.calls, 4);
}

TEST_F(FileWin32Test, AFileThatAnotherProcessHoldsIsHadWhenItLetsGo) {
    WriteFileText("scanned", "x");
    FileHolder scanner(WideName("scanned"), 1000);
    EXPECT_EQ(FileDeletionRetry(Name("scanned").c_str(), true, 0), 5); // a sharing violation has no code
    EXPECT_EQ(FileRenameRetry(Name("scanned").c_str(), Name("renamed").c_str(), 20000), 0);
    EXPECT_TRUE(File_Exists(Name("renamed").c_str()));
}

TEST_F(FileWin32Test, AttributesOfFilesAndDirectories) {
    WriteFileText("file", "12345");
    FileData data{};
    ASSERT_EQ(FileAttributesRetry(Name("file").c_str(), 0, &data), 0);
    EXPECT_EQ(data.size, 5u);
    EXPECT_EQ(data.type, 0u);
    EXPECT_EQ(data.mode, 0666u);
    SetFileAttributesW(WideName("file").c_str(), FILE_ATTRIBUTE_READONLY);
    ASSERT_EQ(FileAttributesRetry(Name("file").c_str(), 0, &data), 0);
    EXPECT_EQ(data.mode, 0444u);
    EXPECT_EQ(FileAttributesRetry(Name("missing").c_str(), 0, &data), 2);
    EXPECT_EQ(data.size, 5u); // left alone
    ASSERT_EQ(FileAttributesRetry(directory_.c_str(), 0, &data), 0);
    EXPECT_EQ(data.type, 1u);
    EXPECT_EQ(data.mode, 0777u);

    fileWin32Calls.getFileAttributesEx = [](LPCWSTR, GET_FILEEX_INFO_LEVELS, LPVOID information) -> BOOL {
        *static_cast<WIN32_FILE_ATTRIBUTE_DATA*>(information) = {
            FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN,
            {1, 2},
            {3, 4},
            {5, 6},
            7,
            0xFFFFFFFF,
        };
        return TRUE;
    };
    ASSERT_EQ(FileAttributesRetry("x", 0, &data), 0);
    EXPECT_EQ(data.creationTime, 0x200000001u);
    EXPECT_EQ(data.accessTime, 0x400000003u);
    EXPECT_EQ(data.modificationTime, 0x600000005u);
    EXPECT_EQ(data.size, 0x7FFFFFFFFu);
    EXPECT_EQ(data.mode, 0555u);
}

TEST_F(FileWin32Test, CreatesTestsAndRemoves) {
    const std::string directory = Name("dir");
    const std::string file = directory + "\\file";
    EXPECT_TRUE(File_CreateDirectory(directory.c_str()));
    EXPECT_FALSE(File_CreateDirectory(directory.c_str()));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ALREADY_EXISTS});
    EXPECT_TRUE(File_EnsureDirectory(directory.c_str()));
    EXPECT_TRUE(File_IsDirectory(directory.c_str()));
    EXPECT_FALSE(File_EnsureDirectory(Name("missing\\dir").c_str()));
    WriteFileText("dir\\file", "x");
    EXPECT_TRUE(File_Exists(file.c_str()));
    EXPECT_FALSE(File_IsDirectory(file.c_str()));
    EXPECT_FALSE(File_IsDirectory(nullptr));
    EXPECT_FALSE(File_Exists(nullptr));
    EXPECT_EQ(FileRemoveDirectoryRetry(directory.c_str(), 0), 41);
    EXPECT_EQ(File_Unlink(file.c_str()), 0);
    EXPECT_EQ(File_Unlink(file.c_str()), -1);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(FileRemoveDirectoryRetry(directory.c_str(), 0), 0);
    EXPECT_THAT(LogCapture_Take(), IsEmpty());
}

TEST_F(FileWin32Test, ListsNamesAsUsersHaveThemWithoutTheDots) {
    std::vector<std::string> names{"from before"};
    EXPECT_EQ(File_ListDirectory(directory_.c_str(), &names), 0);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NO_MORE_FILES});
    EXPECT_THAT(names, IsEmpty());
    const std::vector<std::string> made = {
        "\xC3\xA4\xC3\x9F.txt", "\xE6\x97\xA5", "\xF0\x9F\x93\x81 emoji", "trailing.", "trailing ", "..two",
        "percent %s %n",        "$HOME"};
    for (const std::string& name : made) {
        EXPECT_TRUE(File_CreateDirectory(("\\\\?\\" + Name(name)).c_str())) << name;
    }
    std::string forward = directory_ + "/";
    std::replace(forward.begin(), forward.end(), '\\', '/');
    EXPECT_EQ(File_ListDirectory(directory_.c_str(), nullptr), static_cast<int>(made.size()));
    EXPECT_EQ(File_ListDirectory(forward.c_str(), &names), static_cast<int>(made.size()));
    EXPECT_THAT(names, UnorderedElementsAreArray(made));
    EXPECT_EQ(File_ListDirectory(Name("missing").c_str(), &names), -1);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_PATH_NOT_FOUND});
    EXPECT_EQ(names.size(), made.size());
    EXPECT_EQ(FileRemoveDirectoryRetry((forward + "$HOME/").c_str(), 0), 0);
    EXPECT_THAT(LogCapture_Take(), IsEmpty());
}

TEST_F(FileWin32Test, VerbatimNamesGoBeyondTheLimit) {
    std::string deep = "\\\\?\\" + directory_;
    for (int level = 0; level < 10; level++) {
        deep += "\\" + std::string(50, static_cast<char>('a' + level));
        ASSERT_TRUE(File_CreateDirectory(deep.c_str())) << level << ", error " << GetLastError();
    }
    EXPECT_TRUE(File_IsDirectory(deep.c_str()));
}

TEST_F(FileWin32Test, AListingThatBreaksOffGivesNoNames) {
    WriteFileText("one", "");
    FailWith<ERROR_NETNAME_DELETED>(&fileWin32Calls.findNextFile);
    fileWin32Calls.findClose = [](HANDLE search) -> BOOL {
        FindClose(search);
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    };
    std::vector<std::string> names{"from before"};
    EXPECT_EQ(File_ListDirectory(directory_.c_str(), &names), -1);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NETNAME_DELETED});
    EXPECT_THAT(names, ElementsAre("from before"));
    const std::string prefix = "FILE: FileListDirectoryRetry: ";
    EXPECT_THAT(LogCapture_Take(),
                ElementsAre(LogLine{1, prefix + "FindClose failure (6) on (" + directory_ + ")\n"},
                            LogLine{1, prefix + "FindNextFile failure (64) on (" + directory_ + ")\n"}));
}

TEST_F(FileWin32Test, ANameThatIsNoTextIsLeftOutAndReported) {
    fileWin32Calls.findFirstFile = [](LPCWSTR name, LPWIN32_FIND_DATAW entry) -> HANDLE {
        HANDLE search = FindFirstFileW(name, entry);
        wcscpy(entry->cFileName, L"half \xD800 pair");
        return search;
    };
    WriteFileText("file", "");
    std::vector<std::string> names;
    EXPECT_EQ(File_ListDirectory(directory_.c_str(), &names), 1);
    EXPECT_THAT(names, ElementsAre("file"));
    EXPECT_EQ(LogCapture_Take().size(), 1u);
}

TEST_F(FileWin32Test, FullPathIsAbsolute) {
    wchar_t current[MAX_PATH];
    GetCurrentDirectoryW(MAX_PATH, current);
    const std::string here = *Unicode_FromWide(current);
    EXPECT_EQ(File_FullPath(nullptr), here);
    EXPECT_EQ(File_FullPath("x"), File_StripSlashes(here + "\\") + "\\x");
    EXPECT_EQ(File_FullPath("C:/a/./b/../\xE2\x82\xAC\\"), "C:\\a\\\xE2\x82\xAC\\");
    EXPECT_EQ(File_FullPath("\\\\server\\share\\a\\..\\b"), "\\\\server\\share\\b");
    EXPECT_EQ(File_FullPath("\\\\?\\C:\\a"), "\\\\?\\C:\\a");
    EXPECT_THAT(DiagCapture_Take().warning, IsEmpty());
    EXPECT_EQ(File_FullPath("\xFF"), std::nullopt);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_NAME});
    EXPECT_THAT(DiagCapture_Take().warning,
                ElementsAre("FILE: File_FullPath:  _wfullpath failed on (\xFF): 123\n"));
}

} // namespace
