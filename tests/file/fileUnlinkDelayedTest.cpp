#include "fileTestWin32.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

std::wstring windowsDirectory; // what the replaced call gives; empty: it fails

UINT WINAPI GiveWindowsDirectory(LPWSTR buffer, UINT) {
    if (windowsDirectory.empty()) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return 0;
    }
    wcscpy(buffer, windowsDirectory.c_str());
    return static_cast<UINT>(windowsDirectory.size());
}

template <DWORD Error>
BOOL WINAPI NoDelayedMove(LPCWSTR, LPCWSTR newName, DWORD flags) {
    EXPECT_EQ(newName, nullptr);
    EXPECT_EQ(flags, DWORD{MOVEFILE_DELAY_UNTIL_REBOOT});
    SetLastError(Error);
    return FALSE;
}

// A system without delayed moves, whose Windows directory is the private one.
class RenameListTest : public FileWin32Test {
protected:
    RenameListTest() {
        fileWin32Calls.moveFileEx = NoDelayedMove<ERROR_CALL_NOT_IMPLEMENTED>;
        fileWin32Calls.getWindowsDirectory = GiveWindowsDirectory;
        windowsDirectory = WideText(directory_);
    }
    std::string List() const { return ReadFileText("WININIT.INI"); }
    void ExpectFailure(const std::string& message, const std::string& listLeft) {
        EXPECT_EQ(File_UnlinkDelayed("C:\\x"), -1);
        EXPECT_THAT(LogCapture_Take(), ElementsAre(LogLine{1, "FILE: File_UnlinkDelayed: " + message}));
        EXPECT_EQ(List(), listLeft);
    }
};

TEST_F(FileWin32Test, DeletionIsQueuedWithTheSystem) {
    WriteFileText("later", "");
    EXPECT_EQ(File_UnlinkDelayed(Name("later").c_str()), 0);
    EXPECT_TRUE(File_Exists(Name("later").c_str()));
    EXPECT_THAT(LogCapture_Take(), IsEmpty());
}

TEST_F(FileWin32Test, ARefusedQueuingIsLogged) {
    fileWin32Calls.moveFileEx = NoDelayedMove<ERROR_ACCESS_DENIED>;
    EXPECT_EQ(File_UnlinkDelayed("C:\\x"), -1);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_THAT(LogCapture_Take(),
                ElementsAre(LogLine{1, "FILE: File_UnlinkDelayed: MoveFileExW failed on C:\\x, code 5\n"}));
    EXPECT_EQ(File_UnlinkDelayed(nullptr), -1);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_ADDRESS});
}

TEST_F(RenameListTest, TheListIsMadeAndGrowsAtItsHead) {
    EXPECT_EQ(File_UnlinkDelayed("C:\\dir\\first"), 0);
    EXPECT_EQ(List(), "[Rename]\r\nNUL=C:\\dir\\first\r\n");
    EXPECT_EQ(File_UnlinkDelayed("C:/dir/./second"), 0);
    EXPECT_EQ(List(), "[Rename]\r\nNUL=C:\\dir\\second\r\nNUL=C:\\dir\\first\r\n");
    EXPECT_THAT(LogCapture_Take(), IsEmpty());
}

TEST_F(RenameListTest, WhatElseStandsInTheListIsKept) {
    WriteFileText("WININIT.INI", "[Setup]\r\na=b\r\n[Rename]\r\nNUL=C:\\old\r\n[Last]\r\nc=d\r\n");
    EXPECT_EQ(File_UnlinkDelayed("C:\\\xE2\x82\xAC"), 0);
    EXPECT_EQ(List(),
              "[Setup]\r\na=b\r\n[Rename]\r\nNUL=C:\\\xE2\x82\xAC\r\nNUL=C:\\old\r\n[Last]\r\nc=d\r\n");
}

TEST_F(RenameListTest, EveryFailureHasItsMessage) {
    const std::string list = Name("WININIT.INI");
    windowsDirectory.clear();
    ExpectFailure("GetWindowsDirectory failed, code 3\n", "");
    windowsDirectory = WideText(directory_);
    EXPECT_EQ(File_UnlinkDelayed("\xFF"), -1);
    LogCapture_Take();

    WriteFileText("WININIT.INI", "old");
    {
        FileHandle held(CreateFileW(WideName("WININIT.INI").c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                    OPEN_EXISTING, 0, nullptr));
        ExpectFailure("CreateFile on " + list + " failed, code 32\n", "old");
    }
    fileWin32Calls.createFileMapping = [](HANDLE, LPSECURITY_ATTRIBUTES, DWORD, DWORD, DWORD,
                                          LPCWSTR) -> HANDLE {
        SetLastError(ERROR_DISK_FULL);
        return INVALID_HANDLE_VALUE;
    };
    ExpectFailure("CreateFileMapping failed, code 112\n", "old");
    fileWin32Calls.createFileMapping = [](HANDLE, LPSECURITY_ATTRIBUTES, DWORD, DWORD, DWORD,
                                          LPCWSTR) -> HANDLE { return nullptr; };
    ExpectFailure("MapViewOfFile failed, code 6\n", "old"); // the mapping's failure, seen a step later
    fileWin32Calls.createFileMapping = CreateFileMappingW;
    fileWin32Calls.mapViewOfFile = [](HANDLE, DWORD, DWORD, DWORD, SIZE_T) -> void* {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    };
    ExpectFailure("MapViewOfFile failed, code 8\n", "old"); // cut back to what it was
    fileWin32Calls.getFileSize = [](HANDLE, LPDWORD) -> DWORD {
        SetLastError(ERROR_INVALID_FUNCTION);
        return INVALID_FILE_SIZE;
    };
    ExpectFailure("GetFileSize on " + list + " failed, code 1\n", ""); // of unknown length: left empty
}

TEST_F(RenameListTest, APathThatCannotBeCompletedIsLogged) {
    fileWin32Calls.moveFileEx = NoDelayedMove<ERROR_CALL_NOT_IMPLEMENTED>;
    const std::string tooLong(40000, 'x');
    EXPECT_EQ(File_UnlinkDelayed(tooLong.c_str()), -1);
    EXPECT_THAT(LogCapture_Take(),
                ElementsAre(LogLine{1, "FILE: File_UnlinkDelayed: File_Fullpath failed\n"}));
    EXPECT_EQ(List(), "");
}

} // namespace
