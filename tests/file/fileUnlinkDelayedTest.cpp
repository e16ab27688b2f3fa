#include "fileTestWin32.h"

#include "unicode/unicode.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

std::wstring windowsDirectory; // what the replaced call gives; empty: it fails

UINT WINAPI GiveWindowsDirectory(LPWSTR buffer, UINT) {
    SetLastError(ERROR_PATH_NOT_FOUND);
    wcscpy(buffer, windowsDirectory.c_str());
    return static_cast<UINT>(windowsDirectory.size());
}

// A system without delayed moves, whose Windows directory is the private one.
class RenameListTest : public FileWin32Test {
protected:
    RenameListTest() {
        FailWith<ERROR_CALL_NOT_IMPLEMENTED>(&fileWin32Calls.moveFileEx);
        fileWin32Calls.getWindowsDirectory = GiveWindowsDirectory;
        windowsDirectory = *Unicode_ToWide(directory_);
    }
    std::string List() const { return ReadFileText("WININIT.INI"); }
    void ExpectFailure(const std::string& path, const std::string& message, const std::string& listLeft) {
        EXPECT_EQ(File_UnlinkDelayed(path.c_str()), -1);
        EXPECT_THAT(LogCapture_Take(), ElementsAre(LogLine{1, "FILE: File_UnlinkDelayed: " + message}));
        EXPECT_EQ(List(), listLeft);
    }
};

TEST_F(FileWin32Test, DeletionIsQueuedWithTheSystemOrItsRefusalLogged) {
    WriteFileText("later", "");
    EXPECT_EQ(File_UnlinkDelayed(Name("later").c_str()), 0);
    EXPECT_TRUE(File_Exists(Name("later").c_str()));
    EXPECT_THAT(LogCapture_Take(), IsEmpty());
    FailWith<ERROR_ACCESS_DENIED>(&fileWin32Calls.moveFileEx);
    EXPECT_EQ(File_UnlinkDelayed("C:\\x"), -1);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(File_UnlinkDelayed(nullptr), -1);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_ADDRESS});
    EXPECT_THAT(LogCapture_Take(),
                ElementsAre(LogLine{1, "FILE: File_UnlinkDelayed: MoveFileExW failed on C:\\x, code 5\n"},
                            LogLine{1, "FILE: File_UnlinkDelayed: MoveFileExW failed on , code 487\n"}));
}

TEST_F(RenameListTest, TheListIsMadeAndGrowsAtItsHead) {
    EXPECT_EQ(File_UnlinkDelayed("C:\\dir\\first"), 0);
    EXPECT_EQ(List(), "[Rename]\r\nNUL=C:\\dir\\first\r\n");
    EXPECT_EQ(File_UnlinkDelayed("C:/dir/./\xE2\x82\xAC"), 0);
    EXPECT_EQ(List(), "[Rename]\r\nNUL=C:\\dir\\\xE2\x82\xAC\r\nNUL=C:\\dir\\first\r\n");
    EXPECT_THAT(LogCapture_Take(), IsEmpty());
}

TEST_F(RenameListTest, EveryFailureHasItsMessage) {
    const std::string list = Name("WININIT.INI");
    windowsDirectory.clear();
    ExpectFailure("C:\\x", "GetWindowsDirectory failed, code 3\n", "");
    windowsDirectory = *Unicode_ToWide(directory_);
    ExpectFailure(std::string(40000, 'x'), "File_Fullpath failed\n", "");
    WriteFileText("WININIT.INI", "old");
    {
        FileHandle held(CreateFileW(WideName("WININIT.INI").c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                    OPEN_EXISTING, 0, nullptr));
        ExpectFailure("C:\\x", "CreateFile on " + list + " failed, code 32\n", "old");
    }
    constexpr intptr_t ALL_ONES = -1;
    FailWith<ERROR_DISK_FULL, ALL_ONES>(&fileWin32Calls.createFileMapping);
    ExpectFailure("C:\\x", "CreateFileMapping failed, code 112\n", "old");
    FailWith<ERROR_DISK_FULL>(&fileWin32Calls.createFileMapping);
    ExpectFailure("C:\\x", "MapViewOfFile failed, code 6\n", "old"); // the mapping's failure, a step later
    fileWin32Calls.createFileMapping = CreateFileMappingW;
    FailWith<ERROR_NOT_ENOUGH_MEMORY>(&fileWin32Calls.mapViewOfFile);
    ExpectFailure("C:\\x", "MapViewOfFile failed, code 8\n", "old"); // cut back to what it was
    FailWith<ERROR_INVALID_FUNCTION, ALL_ONES>(&fileWin32Calls.getFileSize);
    ExpectFailure("C:\\x", "GetFileSize on " + list + " failed, code 1\n", ""); // of unknown length: emptied
}

} // namespace
