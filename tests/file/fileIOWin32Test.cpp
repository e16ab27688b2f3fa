#include "fileTestWin32.h"

#include "file/fileIO.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class FileIOWin32Test : public FileWin32Test {
protected:
    ~FileIOWin32Test() override {
        if (FileIO_IsValid(&file_)) {
            FileIO_Close(&file_);
        }
    }
    FileIOResult Open(const std::string& name, uint32_t flags, FileIOOpenAction action) {
        return FileIO_Open(&file_, name.c_str(), flags, action);
    }
    FileIODescriptor file_;
};

DWORD openError; // what the replaced call fails with
int openCalls;

HANDLE WINAPI FailToOpen(LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
    openCalls++;
    SetLastError(openError);
    return INVALID_HANDLE_VALUE;
}

TEST_F(FileIOWin32Test, EveryOpenErrorHasItsResult) {
    fileWin32Calls.createFile = FailToOpen;
    struct {
        DWORD error;
        FileIOResult result;
    } const cases[] = {
        {2, FileIOResult::FileNotFound},  {3, FileIOResult::FileNotFound},  {5, FileIOResult::NoPermission},
        {12, FileIOResult::NoPermission}, {19, FileIOResult::NoPermission}, {80, FileIOResult::FileExists},
        {183, FileIOResult::FileExists},  {32, FileIOResult::Error},        {112, FileIOResult::Error},
    };
    for (const auto& row : cases) {
        openError = row.error;
        EXPECT_EQ(Open("C:\\x", FILEIO_OPEN_READ, FileIOOpenAction::Open), row.result) << row.error;
        EXPECT_EQ(GetLastError(), row.error);
        EXPECT_FALSE(FileIO_IsValid(&file_));
        EXPECT_EQ(file_.fileName, "");
        if (row.result == FileIOResult::Error) {
            EXPECT_THAT(DiagCapture_Take().warning, ElementsAre("FileIO_Create: Unrecognized error code: " +
                                                                std::to_string(row.error) + "\n"));
        } else {
            EXPECT_THAT(DiagCapture_Take().warning, IsEmpty());
        }
    }
}

TEST_F(FileIOWin32Test, ALongNameNeedsTheVerbatimPrefix) {
    fileWin32Calls.createFile = FailToOpen;
    openError = ERROR_FILE_NOT_FOUND;
    openCalls = 0;
    EXPECT_EQ(Open(std::string(261, 'x'), FILEIO_OPEN_READ, FileIOOpenAction::Open),
              FileIOResult::NameTooLong);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_FALSE(FileIO_IsValid(&file_));
    EXPECT_EQ(openCalls, 0);
    EXPECT_EQ(Open(std::string(260, 'x'), FILEIO_OPEN_READ, FileIOOpenAction::Open),
              FileIOResult::FileNotFound);
    EXPECT_EQ(Open("\\\\?\\" + std::string(261, 'x'), FILEIO_OPEN_READ, FileIOOpenAction::Open),
              FileIOResult::FileNotFound);
    EXPECT_EQ(openCalls, 2);
}

TEST_F(FileIOWin32Test, VerbatimNamesOpenFilesThatOthersCannotName) {
    for (const char* name : {"trailing.", "trailing ", "\xE2\x82\xAC"}) {
        const std::string verbatim = "\\\\?\\" + Name(name);
        ASSERT_EQ(Open(verbatim, FILEIO_OPEN_WRITE, FileIOOpenAction::CreateSafe), FileIOResult::Success)
            << name;
        EXPECT_FALSE(FileIO_Close(&file_));
        std::vector<std::string> names;
        EXPECT_EQ(File_ListDirectory(directory_.c_str(), &names), 1);
        EXPECT_THAT(names, ElementsAre(name));
        EXPECT_EQ(File_Unlink(verbatim.c_str()), 0);
    }
    EXPECT_EQ(Open("broken \xFF", FILEIO_OPEN_READ, FileIOOpenAction::Open), FileIOResult::Error);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_NAME});
}

// Whether somebody else could open the file in the given way while it is open.
bool CanOpen(const std::wstring& name, DWORD access) {
    FileHandle other(CreateFileW(name.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                 nullptr, OPEN_EXISTING, 0, nullptr));
    return static_cast<bool>(other);
}

TEST_F(FileIOWin32Test, DenyingKeepsOthersOut) {
    WriteFileText("file", "x");
    struct {
        uint32_t flags;
        bool others_read;
        bool others_write;
    } const cases[] = {
        {0, true, true},
        {FILEIO_OPEN_EXCLUSIVE_READ, false, true},
        {FILEIO_OPEN_EXCLUSIVE_WRITE, true, false},
        {FILEIO_OPEN_EXCLUSIVE_READ | FILEIO_OPEN_EXCLUSIVE_WRITE, false, false},
    };
    for (const auto& row : cases) {
        ASSERT_EQ(Open(Name("file"), FILEIO_OPEN_READ | row.flags, FileIOOpenAction::Open),
                  FileIOResult::Success);
        EXPECT_EQ(CanOpen(WideName("file"), GENERIC_READ), row.others_read) << row.flags;
        EXPECT_EQ(CanOpen(WideName("file"), GENERIC_WRITE), row.others_write) << row.flags;
        EXPECT_FALSE(FileIO_Close(&file_));
    }
}

TEST_F(FileIOWin32Test, EveryOptionIsTakenByTheSystem) {
    for (uint32_t option : {FILEIO_OPEN_SYNC, FILEIO_OPEN_UNBUFFERED, FILEIO_OPEN_SEQUENTIAL,
                            FILEIO_OPEN_ASYNC, FILEIO_OPEN_SYNC | FILEIO_OPEN_DELETE_ON_CLOSE}) {
        EXPECT_EQ(
            Open(Name("file"), FILEIO_OPEN_READ | FILEIO_OPEN_WRITE | option, FileIOOpenAction::OpenCreate),
            FileIOResult::Success)
            << option;
        EXPECT_FALSE(FileIO_Close(&file_));
    }
    EXPECT_FALSE(File_Exists(Name("file").c_str())); // the last one deleted it
}

TEST_F(FileIOWin32Test, AFileMadeToBeDeletedIsHidden) {
    ASSERT_EQ(
        Open(Name("file"), FILEIO_OPEN_WRITE | FILEIO_OPEN_DELETE_ON_CLOSE, FileIOOpenAction::CreateSafe),
        FileIOResult::Success);
    DWORD attributes = GetFileAttributesW(WideName("file").c_str());
    EXPECT_NE(attributes, INVALID_FILE_ATTRIBUTES);
    EXPECT_NE(attributes & FILE_ATTRIBUTE_HIDDEN, 0u);
}

// Transfers in pieces of three bytes, then a failure.
int piecesLeft;

BOOL Piece(DWORD asked, LPDWORD done) {
    if (piecesLeft-- == 0) {
        *done = 0;
        SetLastError(ERROR_CRC);
        return FALSE;
    }
    *done = std::min<DWORD>(asked, 3);
    return TRUE;
}

TEST_F(FileIOWin32Test, PartialTransfersAreContinued) {
    ASSERT_EQ(Open(Name("file"), FILEIO_OPEN_READ | FILEIO_OPEN_WRITE, FileIOOpenAction::CreateSafe),
              FileIOResult::Success);
    fileWin32Calls.writeFile = [](HANDLE, LPCVOID, DWORD asked, LPDWORD done, LPOVERLAPPED) {
        return Piece(asked, done);
    };
    fileWin32Calls.readFile = [](HANDLE, LPVOID, DWORD asked, LPDWORD done, LPOVERLAPPED) {
        return Piece(asked, done);
    };
    char buffer[10] = {};
    size_t actual = 0;
    piecesLeft = 4;
    EXPECT_EQ(FileIO_Write(&file_, buffer, 10, &actual), FileIOResult::Success);
    EXPECT_EQ(actual, 10u);
    piecesLeft = 4;
    EXPECT_EQ(FileIO_Read(&file_, buffer, 10, &actual), FileIOResult::Success);
    EXPECT_EQ(actual, 10u);
    piecesLeft = 2;
    EXPECT_EQ(FileIO_Write(&file_, buffer, 10, &actual), FileIOResult::Error);
    EXPECT_EQ(actual, 6u);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_CRC});
    piecesLeft = 3;
    EXPECT_EQ(FileIO_Read(&file_, buffer, 10, &actual), FileIOResult::Error);
    EXPECT_EQ(actual, 9u);
    fileWin32Calls.writeFile = [](HANDLE, LPCVOID, DWORD, LPDWORD done, LPOVERLAPPED) -> BOOL {
        *done = 0;
        return TRUE;
    };
    EXPECT_EQ(FileIO_Write(&file_, buffer, 10, &actual), FileIOResult::Error); // rather than for ever
}

TEST_F(FileIOWin32Test, TransfersOfTwoGigabytesStopTheProgram) {
    ASSERT_EQ(Open(Name("file"), FILEIO_OPEN_READ | FILEIO_OPEN_WRITE, FileIOOpenAction::CreateSafe),
              FileIOResult::Success);
    char byte = 0;
    for (size_t length : {size_t{0x80000000}, size_t{0x80000001}, size_t{0x180000000}}) {
        EXPECT_THROW(FileIO_Write(&file_, &byte, length, nullptr), DiagPanic);
        EXPECT_THROW(FileIO_Read(&file_, &byte, length, nullptr), DiagPanic);
        EXPECT_THAT(DiagCapture_Take().warning, ElementsAre("NOT_IMPLEMENTED lib/file/fileIOWin32:556\n",
                                                            "NOT_IMPLEMENTED lib/file/fileIOWin32:617\n"));
    }
    // One byte less goes to the system.
    fileWin32Calls.readFile = [](HANDLE, LPVOID, DWORD asked, LPDWORD done, LPOVERLAPPED) -> BOOL {
        *done = asked;
        return TRUE;
    };
    size_t actual = 0;
    EXPECT_EQ(FileIO_Read(&file_, &byte, 0x7FFFFFFF, &actual), FileIOResult::Success);
    EXPECT_EQ(actual, 0x7FFFFFFFu);
}

TEST_F(FileIOWin32Test, AFailedCloseIsReportedAndForgotten) {
    ASSERT_EQ(Open(Name("file"), FILEIO_OPEN_WRITE, FileIOOpenAction::CreateSafe), FileIOResult::Success);
    fileWin32Calls.closeHandle = [](HANDLE handle) -> BOOL {
        CloseHandle(handle);
        SetLastError(ERROR_NETNAME_DELETED);
        return FALSE;
    };
    EXPECT_TRUE(FileIO_Close(&file_));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NETNAME_DELETED});
    EXPECT_FALSE(FileIO_IsValid(&file_));
    EXPECT_EQ(file_.fileName, "");
}

TEST_F(FileIOWin32Test, AFailedSeekKeepsTheSystemsError) {
    ASSERT_EQ(Open(Name("file"), FILEIO_OPEN_WRITE, FileIOOpenAction::CreateSafe), FileIOResult::Success);
    EXPECT_EQ(FileIO_Seek(&file_, -1, FileIOSeekOrigin::Begin), -1);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NEGATIVE_SEEK});
    SetLastError(ERROR_GEN_FAILURE); // an older error must not turn all ones into a failure
    EXPECT_EQ(FileIO_Seek(&file_, 0x1FFFFFFFF, FileIOSeekOrigin::Begin), 0x1FFFFFFFF);
}

} // namespace
