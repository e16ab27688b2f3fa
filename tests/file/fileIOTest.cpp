// The descriptor layer's contract that does not depend on the system: on Windows it runs against the real
// layer, elsewhere against the stand-in that other tests rest on.
#include "file/fileIO.h"
#include "file/file.h"

#include "support/diagCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

class FileIOTest : public ::testing::Test {
protected:
    FileIOTest() {
        path_ = std::filesystem::temp_directory_path() /
                ("fileio-test-" + std::to_string(reinterpret_cast<uintptr_t>(this)));
        std::filesystem::remove_all(path_);
        std::filesystem::create_directories(path_);
    }
    ~FileIOTest() override {
        if (FileIO_IsValid(&file_)) {
            FileIO_Close(&file_);
        }
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    std::string Name(const char* name) const { return (path_ / name).string(); }
    void WriteText(const char* name, const std::string& text) const {
        std::ofstream(path_ / name, std::ios::binary) << text;
    }
    std::string ReadText(const char* name) const {
        std::ifstream file(path_ / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
    FileIOResult Open(const char* name, uint32_t flags, FileIOOpenAction action) {
        return FileIO_Open(&file_, Name(name).c_str(), flags, action);
    }
    void ExpectInvalid() const {
        EXPECT_FALSE(FileIO_IsValid(&file_));
        EXPECT_EQ(file_.handle, nullptr);
        EXPECT_EQ(file_.flags, 0u);
        EXPECT_EQ(file_.fileName, "");
        EXPECT_EQ(file_.lockToken, nullptr);
    }

    std::filesystem::path path_;
    FileIODescriptor file_;
};

constexpr uint32_t READ_WRITE = FILEIO_OPEN_READ | FILEIO_OPEN_WRITE;

TEST_F(FileIOTest, EveryActionOnAPresentAndOnAMissingFile) {
    using enum FileIOOpenAction;
    struct {
        FileIOOpenAction action;
        FileIOResult present;
        const char* left; // of "old" when it was present
        FileIOResult missing;
    } const cases[] = {
        {Open, FileIOResult::Success, "old", FileIOResult::FileNotFound},
        {OpenEmpty, FileIOResult::Success, "", FileIOResult::FileNotFound},
        {OpenCreate, FileIOResult::Success, "old", FileIOResult::Success},
        {CreateSafe, FileIOResult::FileExists, "old", FileIOResult::Success},
        {CreateEmpty, FileIOResult::Success, "", FileIOResult::Success},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(static_cast<int>(row.action));
        WriteText("present", "old");
        std::filesystem::remove(path_ / "missing");
        for (bool present : {true, false}) {
            FileIOResult expected = present ? row.present : row.missing;
            EXPECT_EQ(FileIOTest::Open(present ? "present" : "missing", READ_WRITE, row.action), expected);
            EXPECT_EQ(FileIO_IsValid(&file_), expected == FileIOResult::Success);
            if (FileIO_IsValid(&file_)) {
                EXPECT_EQ(file_.flags, READ_WRITE);
                EXPECT_EQ(file_.fileName, Name(present ? "present" : "missing"));
                EXPECT_FALSE(FileIO_Close(&file_));
            }
            ExpectInvalid();
        }
        EXPECT_EQ(ReadText("present"), row.left);
        EXPECT_EQ(std::filesystem::exists(path_ / "missing"), row.missing == FileIOResult::Success);
    }
}

TEST_F(FileIOTest, AMissingDirectoryIsNotFoundAndADirectoryIsNoFile) {
    EXPECT_EQ(Open("missing/file", READ_WRITE, FileIOOpenAction::CreateEmpty), FileIOResult::FileNotFound);
    EXPECT_EQ(FileIO_Open(&file_, path_.string().c_str(), READ_WRITE, FileIOOpenAction::Open),
              FileIOResult::NoPermission);
    EXPECT_EQ(FileIO_Open(&file_, nullptr, READ_WRITE, FileIOOpenAction::Open), FileIOResult::Error);
    ExpectInvalid();
}

TEST_F(FileIOTest, ReadsSayHowFarTheyCame) {
    WriteText("sixty", std::string(60, 's'));
    ASSERT_EQ(Open("sixty", FILEIO_OPEN_READ, FileIOOpenAction::Open), FileIOResult::Success);
    char buffer[100];
    size_t actual = 4711;
    EXPECT_EQ(FileIO_Read(&file_, buffer, 100, &actual), FileIOResult::EndOfFile);
    EXPECT_EQ(actual, 60u);
    EXPECT_EQ(FileIO_Read(&file_, buffer, 1, &actual), FileIOResult::EndOfFile);
    EXPECT_EQ(actual, 0u);
    EXPECT_EQ(FileIO_Read(&file_, buffer, 0, &actual), FileIOResult::Success);
    EXPECT_EQ(FileIO_Seek(&file_, 10, FileIOSeekOrigin::Begin), 10);
    EXPECT_EQ(FileIO_Read(&file_, buffer, 50, &actual), FileIOResult::Success);
    EXPECT_EQ(actual, 50u);
    EXPECT_EQ(FileIO_Read(&file_, buffer, 1, nullptr), FileIOResult::EndOfFile);
}

TEST_F(FileIOTest, WritesAndReadsBack) {
    ASSERT_EQ(Open("file", READ_WRITE, FileIOOpenAction::CreateSafe), FileIOResult::Success);
    const std::string text("with a\0zero", 11);
    size_t actual = 0;
    EXPECT_EQ(FileIO_Write(&file_, text.data(), text.size(), &actual), FileIOResult::Success);
    EXPECT_EQ(actual, 11u);
    EXPECT_EQ(FileIO_Write(&file_, nullptr, 0, &actual), FileIOResult::Success);
    EXPECT_EQ(actual, 0u);
    EXPECT_EQ(FileIO_Seek(&file_, 0, FileIOSeekOrigin::Begin), 0);
    std::string back(11, '\0');
    EXPECT_EQ(FileIO_Read(&file_, back.data(), back.size(), nullptr), FileIOResult::Success);
    EXPECT_EQ(back, text);
}

TEST_F(FileIOTest, WrongDirectionsFail) {
    WriteText("file", "text");
    char buffer[4] = {};
    size_t actual = 4711;
    ASSERT_EQ(Open("file", FILEIO_OPEN_READ, FileIOOpenAction::Open), FileIOResult::Success);
    EXPECT_EQ(FileIO_Write(&file_, buffer, 4, &actual), FileIOResult::Error);
    EXPECT_EQ(actual, 0u);
    EXPECT_FALSE(FileIO_Close(&file_));
    ASSERT_EQ(Open("file", FILEIO_OPEN_WRITE, FileIOOpenAction::Open), FileIOResult::Success);
    actual = 4711;
    EXPECT_EQ(FileIO_Read(&file_, buffer, 4, &actual), FileIOResult::Error);
    EXPECT_EQ(actual, 0u);
}

TEST_F(FileIOTest, SeeksFromEveryOriginAndBeyondFourGigabytes) {
    ASSERT_EQ(Open("sparse", READ_WRITE, FileIOOpenAction::CreateEmpty), FileIOResult::Success);
    constexpr int64_t FAR = 0x123456789;
    EXPECT_EQ(FileIO_Seek(&file_, FAR, FileIOSeekOrigin::Begin), FAR);
    EXPECT_EQ(FileIO_Seek(&file_, 0xFFFFFFFF, FileIOSeekOrigin::Begin),
              0xFFFFFFFF); // low half all ones, no error
    EXPECT_EQ(FileIO_Seek(&file_, 1, FileIOSeekOrigin::Current), 0x100000000);
    EXPECT_EQ(FileIO_Seek(&file_, -0x100000000, FileIOSeekOrigin::Current), 0);
    EXPECT_EQ(FileIO_Seek(&file_, -1, FileIOSeekOrigin::Current), -1);
    EXPECT_EQ(FileIO_Seek(&file_, 0, FileIOSeekOrigin::Current), 0); // a refused seek moves nothing
    EXPECT_EQ(FileIO_Seek(&file_, 0, FileIOSeekOrigin::End), 0);
}

TEST_F(FileIOTest, ReadsAndWritesBeyondFourGigabytes) {
    constexpr uintmax_t SIZE = 0x100000010; // sparse: made by its length, not by writing it
    WriteText("sparse", "");
    std::error_code error;
    std::filesystem::resize_file(path_ / "sparse", SIZE, error);
    if (error) {
        GTEST_SKIP() << "the file system takes no file of 4 GiB: " << error.message();
    }
    ASSERT_EQ(Open("sparse", READ_WRITE, FileIOOpenAction::Open), FileIOResult::Success);
    EXPECT_EQ(FileIO_Seek(&file_, -8, FileIOSeekOrigin::End), static_cast<int64_t>(SIZE) - 8);
    EXPECT_EQ(FileIO_Write(&file_, "tail", 4, nullptr), FileIOResult::Success);
    EXPECT_EQ(FileIO_Seek(&file_, 0x100000008, FileIOSeekOrigin::Begin), 0x100000008);
    char buffer[16];
    size_t actual = 0;
    EXPECT_EQ(FileIO_Read(&file_, buffer, sizeof buffer, &actual), FileIOResult::EndOfFile);
    EXPECT_EQ(std::string(buffer, actual), std::string("tail\0\0\0\0", 8));
    EXPECT_EQ(FileIO_Seek(&file_, 0, FileIOSeekOrigin::Current), static_cast<int64_t>(SIZE));
}

TEST_F(FileIOTest, AccessAsksOnlyForTheReadOnlyAttribute) {
    WriteText("file", "");
    WriteText("readonly", "");
    std::filesystem::permissions(path_ / "readonly", std::filesystem::perms::owner_read);
    std::filesystem::create_directory(path_ / "dir");
    std::filesystem::permissions(path_ / "dir",
                                 std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
    struct {
        const char* name;
        uint32_t mode;
        FileIOResult result;
    } const cases[] = {
        {"file", 0, FileIOResult::Success},       {"file", 0x1, FileIOResult::Success},
        {"file", 0x2, FileIOResult::Success},     {"file", 0xF, FileIOResult::Success},
        {"readonly", 0x1, FileIOResult::Success}, {"readonly", 0x4, FileIOResult::Success},
        {"readonly", 0x8, FileIOResult::Success}, {"readonly", 0x2, FileIOResult::Error},
        {"readonly", 0xA, FileIOResult::Error},   {"dir", 0x2, FileIOResult::Success},
        {"dir", 0x8, FileIOResult::Success},      {"missing", 0, FileIOResult::Error},
        {"missing", 0x8, FileIOResult::Error},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(FileIO_Access(Name(row.name).c_str(), row.mode), row.result) << row.name << " " << row.mode;
    }
    EXPECT_EQ(FileIO_Access(nullptr, 0), FileIOResult::Error);
    std::filesystem::permissions(path_ / "readonly", std::filesystem::perms::owner_all);
    std::filesystem::permissions(path_ / "dir", std::filesystem::perms::owner_all);
}

TEST_F(FileIOTest, DeleteOnCloseLeavesNothing) {
    ASSERT_EQ(Open("gone", FILEIO_OPEN_WRITE | FILEIO_OPEN_DELETE_ON_CLOSE, FileIOOpenAction::CreateSafe),
              FileIOResult::Success);
    EXPECT_TRUE(std::filesystem::exists(path_ / "gone"));
    EXPECT_FALSE(FileIO_Close(&file_));
    EXPECT_FALSE(std::filesystem::exists(path_ / "gone"));
}

} // namespace
