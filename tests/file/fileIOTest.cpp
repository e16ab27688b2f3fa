#include "fileTestWin32.h"

#include "file/fileIO.h"

#include <array>

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

constexpr uint32_t READ_WRITE = FILEIO_OPEN_READ | FILEIO_OPEN_WRITE;

class FileIOTest : public FileWin32Test {
protected:
    ~FileIOTest() override {
        if (FileIO_IsValid(&file_)) {
            FileIO_Close(&file_);
        }
    }
    FileIOResult Open(const std::string& name, uint32_t flags, FileIOOpenAction action) {
        return FileIO_Open(&file_, name.c_str(), flags, action);
    }
    // The file "file", new.
    void Create(uint32_t flags = READ_WRITE) {
        ASSERT_EQ(Open(Name("file"), flags, FileIOOpenAction::CreateEmpty), FileIOResult::Success);
    }
    void ExpectInvalid() const {
        EXPECT_FALSE(FileIO_IsValid(&file_));
        EXPECT_EQ(file_.flags, 0u);
        EXPECT_EQ(file_.fileName, "");
        EXPECT_EQ(file_.lockToken, nullptr);
    }
    FileIODescriptor file_;
    size_t actual_ = 4711;
};

TEST_F(FileIOTest, EveryActionOnAPresentAndOnAMissingFile) {
    struct {
        FileIOOpenAction action;
        FileIOResult present;
        const char* left; // of "old" when it was present
        FileIOResult missing;
    } const cases[] = {
        {FileIOOpenAction::Open, FileIOResult::Success, "old", FileIOResult::FileNotFound},
        {FileIOOpenAction::OpenEmpty, FileIOResult::Success, "", FileIOResult::FileNotFound},
        {FileIOOpenAction::OpenCreate, FileIOResult::Success, "old", FileIOResult::Success},
        {FileIOOpenAction::CreateSafe, FileIOResult::FileExists, "old", FileIOResult::Success},
        {FileIOOpenAction::CreateEmpty, FileIOResult::Success, "", FileIOResult::Success},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(static_cast<int>(row.action));
        WriteFileText("present", "old");
        File_Unlink(Name("missing").c_str());
        for (const char* name : {"present", "missing"}) {
            FileIOResult expected = *name == 'p' ? row.present : row.missing;
            EXPECT_EQ(Open(Name(name), READ_WRITE, row.action), expected);
            EXPECT_EQ(FileIO_IsValid(&file_), expected == FileIOResult::Success);
            if (FileIO_IsValid(&file_)) {
                EXPECT_EQ(file_.fileName, Name(name));
                EXPECT_FALSE(FileIO_Close(&file_));
            }
            ExpectInvalid();
        }
        EXPECT_EQ(ReadFileText("present"), row.left);
    }
}

DWORD openError; // what the replaced call fails with
int openCalls;

HANDLE WINAPI FailToOpen(LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
    openCalls++;
    SetLastError(openError);
    return INVALID_HANDLE_VALUE;
}

TEST_F(FileIOTest, EveryOpenErrorHasItsResult) {
    fileWin32Calls.createFile = FailToOpen;
    const std::pair<DWORD, FileIOResult> cases[] = {
        {2, FileIOResult::FileNotFound},  {3, FileIOResult::FileNotFound},  {5, FileIOResult::NoPermission},
        {12, FileIOResult::NoPermission}, {19, FileIOResult::NoPermission}, {80, FileIOResult::FileExists},
        {183, FileIOResult::FileExists},  {32, FileIOResult::Error},        {112, FileIOResult::Error},
    };
    for (const auto& [error, result] : cases) {
        openError = error;
        EXPECT_EQ(Open("C:\\x", FILEIO_OPEN_READ, FileIOOpenAction::Open), result) << error;
        EXPECT_EQ(GetLastError(), error);
        ExpectInvalid();
        std::vector<std::string> warnings;
        if (result == FileIOResult::Error) {
            warnings = {"FileIO_Create: Unrecognized error code: " + std::to_string(error) + "\n"};
        }
        EXPECT_THAT(DiagCapture_Take().warning, ElementsAreArray(warnings));
    }
}

TEST_F(FileIOTest, NamesThatCannotBeOpened) {
    fileWin32Calls.createFile = FailToOpen;
    openError = ERROR_FILE_NOT_FOUND;
    openCalls = 0;
    const std::string longName(261, 'x');
    struct {
        const char* name;
        FileIOResult result;
        DWORD error;
        int calls; // of the system, so far
    } const cases[] = {
        {nullptr, FileIOResult::Error, ERROR_INVALID_ADDRESS, 0},
        {"broken \xFF", FileIOResult::Error, ERROR_INVALID_NAME, 0},
        {longName.c_str(), FileIOResult::NameTooLong, ERROR_INVALID_PARAMETER, 0},
        {longName.c_str() + 1, FileIOResult::FileNotFound, ERROR_FILE_NOT_FOUND, 1},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(FileIO_Open(&file_, row.name, READ_WRITE, FileIOOpenAction::Open), row.result);
        EXPECT_EQ(GetLastError(), row.error);
        EXPECT_EQ(openCalls, row.calls);
        ExpectInvalid();
    }
    EXPECT_EQ(Open("\\\\?\\" + longName, READ_WRITE, FileIOOpenAction::Open), FileIOResult::FileNotFound);
}

// Whether somebody else could open the file in the given way while it is open.
bool CanOpen(const std::wstring& name, DWORD access) {
    FileHandle other(CreateFileW(name.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                 nullptr, OPEN_EXISTING, 0, nullptr));
    return static_cast<bool>(other);
}

TEST_F(FileIOTest, DenyingKeepsOthersOut) {
    WriteFileText("file", "x");
    for (uint32_t flags : {0x0u, FILEIO_OPEN_EXCLUSIVE_READ, FILEIO_OPEN_EXCLUSIVE_WRITE,
                           FILEIO_OPEN_EXCLUSIVE_READ | FILEIO_OPEN_EXCLUSIVE_WRITE}) {
        ASSERT_EQ(Open(Name("file"), FILEIO_OPEN_READ | flags, FileIOOpenAction::Open),
                  FileIOResult::Success);
        EXPECT_EQ(CanOpen(WideName("file"), GENERIC_READ), (flags & FILEIO_OPEN_EXCLUSIVE_READ) == 0);
        EXPECT_EQ(CanOpen(WideName("file"), GENERIC_WRITE), (flags & FILEIO_OPEN_EXCLUSIVE_WRITE) == 0);
        EXPECT_FALSE(FileIO_Close(&file_));
    }
}

TEST_F(FileIOTest, EveryOptionIsTakenByTheSystem) {
    for (uint32_t option : {FILEIO_OPEN_SYNC, FILEIO_OPEN_UNBUFFERED, FILEIO_OPEN_SEQUENTIAL,
                            FILEIO_OPEN_ASYNC, FILEIO_OPEN_SYNC | FILEIO_OPEN_DELETE_ON_CLOSE}) {
        Create(READ_WRITE | option);
        EXPECT_FALSE(FileIO_Close(&file_));
    }
    EXPECT_FALSE(File_Exists(Name("file").c_str())); // the last one deleted it
    Create(FILEIO_OPEN_WRITE | FILEIO_OPEN_DELETE_ON_CLOSE);
    EXPECT_NE(GetFileAttributesW(WideName("file").c_str()) & FILE_ATTRIBUTE_HIDDEN, 0u);
}

TEST_F(FileIOTest, TransfersSayHowFarTheyCame) {
    Create();
    const std::string text("with a\0zero", 11);
    EXPECT_EQ(FileIO_Write(&file_, text.data(), text.size(), &actual_), FileIOResult::Success);
    EXPECT_EQ(actual_, 11u);
    EXPECT_EQ(FileIO_Write(&file_, nullptr, 0, &actual_), FileIOResult::Success);
    EXPECT_EQ(actual_, 0u);
    EXPECT_EQ(FileIO_Seek(&file_, 0, FileIOSeekOrigin::Begin), 0);
    std::array<char, 100> buffer;
    EXPECT_EQ(FileIO_Read(&file_, buffer.data(), buffer.size(), &actual_), FileIOResult::EndOfFile);
    EXPECT_EQ(std::string(buffer.data(), actual_), text);
    EXPECT_EQ(FileIO_Read(&file_, buffer.data(), 1, nullptr), FileIOResult::EndOfFile);
    EXPECT_EQ(FileIO_Read(&file_, buffer.data(), 0, &actual_), FileIOResult::Success);
    EXPECT_EQ(FileIO_Seek(&file_, 1, FileIOSeekOrigin::Begin), 1);
    EXPECT_EQ(FileIO_Read(&file_, buffer.data(), 10, &actual_), FileIOResult::Success);
    EXPECT_EQ(actual_, 10u);
    EXPECT_FALSE(FileIO_Close(&file_));
    Create(FILEIO_OPEN_WRITE);
    EXPECT_EQ(FileIO_Read(&file_, buffer.data(), 1, &actual_), FileIOResult::Error);
    EXPECT_EQ(actual_, 0u);
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

TEST_F(FileIOTest, PartialTransfersAreContinued) {
    Create();
    fileWin32Calls.writeFile = [](HANDLE, LPCVOID, DWORD asked, LPDWORD done, LPOVERLAPPED) {
        return Piece(asked, done);
    };
    fileWin32Calls.readFile = [](HANDLE, LPVOID, DWORD asked, LPDWORD done, LPOVERLAPPED) {
        return Piece(asked, done);
    };
    char buffer[10] = {};
    for (auto [pieces, result, actual] : {std::tuple{4, FileIOResult::Success, size_t{10}},
                                          {2, FileIOResult::Error, size_t{6}},
                                          {3, FileIOResult::Error, size_t{9}}}) {
        piecesLeft = pieces;
        EXPECT_EQ(FileIO_Write(&file_, buffer, 10, &actual_), result);
        EXPECT_EQ(actual_, actual);
        piecesLeft = pieces;
        EXPECT_EQ(FileIO_Read(&file_, buffer, 10, &actual_), result);
        EXPECT_EQ(actual_, actual);
    }
    EXPECT_EQ(GetLastError(), DWORD{ERROR_CRC});
    fileWin32Calls.writeFile = [](HANDLE, LPCVOID, DWORD, LPDWORD done, LPOVERLAPPED) -> BOOL {
        *done = 0;
        return TRUE;
    };
    EXPECT_EQ(FileIO_Write(&file_, buffer, 10, &actual_), FileIOResult::Error); // rather than for ever
}

TEST_F(FileIOTest, TransfersOfTwoGigabytesStopTheProgram) {
    Create();
    char byte = 0;
    for (size_t length : {size_t{0x80000000}, size_t{0x180000000}}) {
        EXPECT_THROW(FileIO_Write(&file_, &byte, length, nullptr), DiagPanic);
        EXPECT_THROW(FileIO_Read(&file_, &byte, length, nullptr), DiagPanic);
        EXPECT_THAT(DiagCapture_Take().warning, ElementsAre("NOT_IMPLEMENTED lib/file/fileIOWin32:556\n",
                                                            "NOT_IMPLEMENTED lib/file/fileIOWin32:617\n"));
    }
    fileWin32Calls.readFile = [](HANDLE, LPVOID, DWORD asked, LPDWORD done, LPOVERLAPPED) -> BOOL {
        *done = asked;
        return TRUE;
    };
    EXPECT_EQ(FileIO_Read(&file_, &byte, 0x7FFFFFFF, &actual_), FileIOResult::Success);
    EXPECT_EQ(actual_, 0x7FFFFFFFu);
}

TEST_F(FileIOTest, SeeksAndTransfersBeyondFourGigabytes) {
    Create();
    EXPECT_EQ(FileIO_Seek(&file_, 0x123456789, FileIOSeekOrigin::Begin), 0x123456789);
    SetLastError(ERROR_GEN_FAILURE); // an older error must not turn a low half of all ones into a failure
    EXPECT_EQ(FileIO_Seek(&file_, 0xFFFFFFFF, FileIOSeekOrigin::Begin), 0xFFFFFFFF);
    EXPECT_EQ(FileIO_Seek(&file_, 1, FileIOSeekOrigin::Current), 0x100000000);
    EXPECT_EQ(FileIO_Seek(&file_, -0x100000000, FileIOSeekOrigin::Current), 0);
    EXPECT_EQ(FileIO_Seek(&file_, -1, FileIOSeekOrigin::Current), -1);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NEGATIVE_SEEK});
    EXPECT_EQ(FileIO_Seek(&file_, 0, FileIOSeekOrigin::Current), 0); // a refused seek moves nothing

    constexpr int64_t SIZE = 0x100000010; // sparse: made by its length, not by writing it
    FileIO_Seek(&file_, SIZE, FileIOSeekOrigin::Begin);
    if (!SetEndOfFile(file_.handle)) {
        GTEST_SKIP() << "the file system takes no file of 4 GiB: error " << GetLastError();
    }
    EXPECT_EQ(FileIO_Seek(&file_, -8, FileIOSeekOrigin::End), SIZE - 8);
    EXPECT_EQ(FileIO_Write(&file_, "tail", 4, nullptr), FileIOResult::Success);
    EXPECT_EQ(FileIO_Seek(&file_, 0x100000008, FileIOSeekOrigin::Begin), 0x100000008);
    char buffer[16];
    EXPECT_EQ(FileIO_Read(&file_, buffer, sizeof buffer, &actual_), FileIOResult::EndOfFile);
    EXPECT_EQ(std::string(buffer, actual_), std::string("tail\0\0\0\0", 8));
}

TEST_F(FileIOTest, AccessAsksOnlyForTheReadOnlyAttribute) {
    WriteFileText("file", "");
    WriteFileText("readonly", "");
    SetFileAttributesW(WideName("readonly").c_str(), FILE_ATTRIBUTE_READONLY);
    File_CreateDirectory(Name("dir").c_str());
    SetFileAttributesW(WideName("dir").c_str(), FILE_ATTRIBUTE_READONLY);
    struct {
        const char* name;
        uint32_t mode;
        FileIOResult result;
    } const cases[] = {
        {"file", 0xF, FileIOResult::Success},   {"readonly", 0xD, FileIOResult::Success},
        {"readonly", 0x2, FileIOResult::Error}, {"readonly", 0xA, FileIOResult::Error},
        {"dir", 0xF, FileIOResult::Success},    {"missing", 0, FileIOResult::Error},
        {"missing", 0x8, FileIOResult::Error},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(FileIO_Access(Name(row.name).c_str(), row.mode), row.result) << row.name << " " << row.mode;
    }
    EXPECT_EQ(FileIO_Access(nullptr, 0), FileIOResult::Error);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_ADDRESS});
}

TEST_F(FileIOTest, AFailedCloseIsReportedAndForgotten) {
    Create();
    fileWin32Calls.closeHandle = [](HANDLE handle) -> BOOL {
        CloseHandle(handle);
        SetLastError(ERROR_NETNAME_DELETED);
        return FALSE;
    };
    EXPECT_TRUE(FileIO_Close(&file_));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NETNAME_DELETED});
    ExpectInvalid();
}

} // namespace
