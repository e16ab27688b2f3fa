// The server over the real file system: what its platform table makes of files as they are found in the
// field.
#include "hgfsFixture.h"
#include "packetStorm.h"

#include "hgfslib/hgfsServer.h"
#include "misc/win32Handle.h"
#include "unicode/unicode.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <windows.h>

namespace {

namespace stdfs = std::filesystem;

class HgfsReal : public ::testing::Test {
protected:
    void SetUp() override {
        wchar_t temp[MAX_PATH + 1];
        GetTempPathW(MAX_PATH + 1, temp);
        UseDirectory(stdfs::path(temp) / (L"hgfs" + std::to_wstring(GetCurrentProcessId())));
        ASSERT_TRUE(HgfsServer_RegisterWithChannel(nullptr, "test"));
    }
    void TearDown() override {
        if (!hgfsServer.shares.empty()) {
            HgfsServerShutDown();
        }
        for (const auto& entry : stdfs::recursive_directory_iterator(directory_)) {
            SetFileAttributesW(entry.path().c_str(), FILE_ATTRIBUTE_NORMAL);
        }
        std::error_code ignored;
        stdfs::remove_all(directory_, ignored);
        DiagCapture_Take();
    }

    void UseDirectory(const stdfs::path& directory) {
        directory_ = directory;
        stdfs::remove_all(directory_);
        stdfs::create_directories(directory_);
    }

    // The protocol name of something below the test's directory.
    std::string In(std::initializer_list<std::string_view> components) const {
        std::string path = Unicode_FromWide(directory_.native()).value();
        path.erase(1, 1); // the colon
        std::ranges::replace(path, '\\', '\0');
        return DriveName({path}) + (components.size() == 0 ? "" : std::string(1, '\0') + Name(components));
    }
    stdfs::path Path(const wchar_t* child) const { return directory_ / child; }
    void Put(const wchar_t* child) const { std::ofstream(Path(child)) << "abcdef"; }
    HgfsPackets_Attributes AttributesOf(std::string_view child) const {
        return Ask(OnName(HgfsOpGetattrV3, In({child}))).attributes;
    }

    stdfs::path directory_;
};

FileHandle OpenFile(const stdfs::path& path, DWORD share, DWORD disposition) {
    return FileHandle(CreateFileW(path.c_str(), GENERIC_WRITE, share, nullptr, disposition, 0, nullptr));
}

DWORD HandleCount() {
    DWORD count = 0;
    GetProcessHandleCount(GetCurrentProcess(), &count);
    return count;
}

TEST_F(HgfsReal, EscapedAndForeignNamesReachTheDisk) {
    const std::pair<const char*, const wchar_t*> cases[] = {
        {"con", L"con%"},
        {"a:b?", L"a^%b$%"},
        {"dot.", L"dot.%"},
        {"50%", L"50%"},
        {"\xE6\x97\xA5\xE6\x9C\xAC", L"\x65E5\x672C"},
        {"\xF0\x9F\x98\x80", L"\xD83D\xDE00"},
    };
    std::vector<std::string> expected = {".", ".."};
    for (auto [name, onDisk] : cases) {
        MustOpen(In({name}));
        EXPECT_TRUE(stdfs::exists(Path(onDisk))) << name;
        expected.push_back(name);
    }
    std::vector<std::string> names;
    for (const HgfsPackets_Reply& entry : List(In({}))) {
        EXPECT_NE(entry.attributes.mask, 0u) << entry.name;
        names.push_back(entry.name);
    }
    EXPECT_THAT(names, ::testing::UnorderedElementsAreArray(expected));
}

TEST_F(HgfsReal, AnswersEachDisposition) {
    struct Case {
        uint32_t flags;
        bool exists;
        HgfsStatus status;
        uint64_t sizeAfter;
    };
    const Case cases[] = {{kHgfsOpenExisting, true, HgfsStatusSuccess, 6},
                          {kHgfsOpenExisting, false, HgfsStatusNoSuchFileOrDir, 0},
                          {kHgfsOpenTruncate, true, HgfsStatusSuccess, 0},
                          {kHgfsOpenTruncate, false, HgfsStatusNoSuchFileOrDir, 0},
                          {kHgfsOpenCreate, true, HgfsStatusSuccess, 6},
                          {kHgfsOpenCreate, false, HgfsStatusSuccess, 0},
                          {kHgfsOpenCreateNew, true, HgfsStatusFileExists, 6},
                          {kHgfsOpenCreateNew, false, HgfsStatusSuccess, 0},
                          {kHgfsOpenCreateEmpty, true, HgfsStatusSuccess, 0},
                          {kHgfsOpenCreateEmpty, false, HgfsStatusSuccess, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.flags * 10 + c.exists);
        stdfs::remove(Path(L"f"));
        if (c.exists) {
            Put(L"f");
        }
        const HgfsPackets_Reply reply = Ask(Opening(In({"f"}), kHgfsModeReadWrite, c.flags));
        EXPECT_EQ(reply.status, c.status);
        if (reply.status == HgfsStatusSuccess) {
            HgfsNodeFields fields;
            HgfsServerGetNodeFields(hgfsServer.session, reply.handle, &fields);
            EXPECT_EQ((fields.flags & kHgfsNodeCreated) != 0, !c.exists);
            Status(OnHandle(HgfsOpClose, reply.handle));
        }
        if (c.exists || c.status == HgfsStatusSuccess) {
            EXPECT_EQ(stdfs::file_size(Path(L"f")), c.sizeAfter);
        }
    }
}

TEST_F(HgfsReal, TruncatesForAReader) {
    Put(L"f");
    const uint64_t before = AttributesOf("f").writeTime;
    EXPECT_EQ(Status(Opening(In({"f"}), kHgfsModeRead, kHgfsOpenTruncate)), HgfsStatusSuccess);
    EXPECT_EQ(AttributesOf("f").size, 0u);
    EXPECT_GE(AttributesOf("f").writeTime, before);
    EXPECT_EQ(Status(Opening(In({"g"}), kHgfsModeRead, kHgfsOpenTruncate)), HgfsStatusNoSuchFileOrDir);
}

TEST_F(HgfsReal, ReachesBeyondFourGigabytes) {
    constexpr uint64_t kFar = (uint64_t{5} << 30) + 123;
    const uint32_t handle = MustOpen(In({"large"}));
    EXPECT_EQ(WriteHandle(handle, kFar, "far away").actualSize, 8u);
    EXPECT_EQ(ReadHandle(handle, kFar - 1, 2).data, std::string("\0f", 2));
    EXPECT_EQ(WriteHandle(handle, 0, "!", HgfsOpWriteV3, kHgfsWriteAppend).actualSize, 1u);
    EXPECT_EQ(ReadHandle(handle, kFar, 100).data, "far away!");
    EXPECT_EQ(ReadHandle(handle, kFar + 9, 100).actualSize, 0u);
    for (uint64_t offset : {~uint64_t{0}, ~uint64_t{0} - 1, uint64_t{1} << 63}) {
        EXPECT_EQ(WriteHandle(handle, offset, "x").status, HgfsStatusInvalidParameter);
        EXPECT_EQ(ReadHandle(handle, offset, 1).status, HgfsStatusInvalidParameter);
    }
    EXPECT_EQ(AttributesOf("large").size, kFar + 9);
}

TEST_F(HgfsReal, ASequentialFileIsReadInOrderEvenWhenTheCacheClosesIt) {
    Put(L"s");
    const uint32_t handle = MustOpen(In({"s"}), kHgfsModeReadWrite | kHgfsModeSequential);
    EXPECT_EQ(ReadHandle(handle, 5, 2).data, "ab");
    for (int i = 0; i < 30; ++i) {
        MustOpen(In({"other"}));
    }
    EXPECT_EQ(ReadHandle(handle, 5, 2).data, "cd");
    EXPECT_EQ(WriteHandle(handle, 0, "EF").actualSize, 2u);
    EXPECT_EQ(ReadHandle(handle, 0, 2).actualSize, 0u);
}

TEST_F(HgfsReal, LeavesFilesHeldByOthersAlone) {
    FileHandle held = OpenFile(Path(L"held"), 0, CREATE_NEW);
    ASSERT_TRUE(held);
    EXPECT_EQ(Status(Opening(In({"held"}))), HgfsStatusSharingViolation);
    EXPECT_EQ(Status(OnName(HgfsOpDeleteFile, In({"held"}))), HgfsStatusSharingViolation);
    EXPECT_EQ(Status(OnName(HgfsOpGetattr, In({"held"}))), HgfsStatusSuccess);
    EXPECT_EQ(Status(Renaming(In({"held"}), In({"other"}))), HgfsStatusSharingViolation);
}

TEST_F(HgfsReal, HonoursAndChangesReadOnly) {
    Put(L"f");
    HgfsPackets_Request change = OnName(HgfsOpSetattrV3, In({"f"}));
    change.change.mask = kHgfsBlockOwnerPerms;
    change.change.ownerPerms = kHgfsPermRead;
    EXPECT_EQ(Status(change), HgfsStatusSuccess);
    EXPECT_EQ(AttributesOf("f").ownerPerms, 5);
    if (!OpenFile(Path(L"f"), 7, OPEN_EXISTING)) { // an all-powerful user's emulated system opens it
        EXPECT_EQ(Status(Opening(In({"f"}))), HgfsStatusAccessDenied);
        change.change.mask = kHgfsBlockSize;
        change.change.size = 1;
        EXPECT_EQ(Status(change), HgfsStatusAccessDenied);
        EXPECT_EQ(stdfs::file_size(Path(L"f")), 6u);
    }
    EXPECT_EQ(Status(OnName(HgfsOpDeleteFile, In({"f"}))), HgfsStatusAccessDenied);
    // Writable again, shorter, hidden and older in one request.
    change.change.mask =
        kHgfsBlockSize | kHgfsBlockOwnerPerms | kHgfsBlockAttributes | kHgfsBlockAccess | kHgfsBlockWrite;
    change.change.size = 1;
    change.change.ownerPerms = kHgfsPermRead | kHgfsPermWrite;
    change.change.attributes = kHgfsAttrHidden;
    change.change.accessTime = 126000000000000000; // April 2000
    change.change.writeTime = 125000000000000000;
    EXPECT_EQ(Status(change), HgfsStatusSuccess);
    const HgfsPackets_Attributes now = AttributesOf("f");
    EXPECT_EQ(now.size, 1u);
    EXPECT_TRUE(now.attributes & kHgfsAttrHidden);
    EXPECT_EQ(now.accessTime, change.change.accessTime);
    EXPECT_EQ(now.writeTime, change.change.writeTime);
    EXPECT_EQ(Status(OnName(HgfsOpDeleteFile, In({"f"}))), HgfsStatusSuccess);

    HgfsPackets_Request create = Opening(In({"made read-only"}));
    create.ownerPerms = kHgfsPermRead;
    EXPECT_EQ(Status(create), HgfsStatusSuccess);
    EXPECT_TRUE(GetFileAttributesW(Path(L"made read-only").c_str()) & FILE_ATTRIBUTE_READONLY);
}

// More than the directory reader returns at once, which is 64 KiB of names.
TEST_F(HgfsReal, ListsManyEntries) {
    std::set<std::string> expected = {".", ".."};
    for (int i = 0; i < 500; ++i) {
        const std::string name = std::string(150, 'n') + std::to_string(i);
        OpenFile(directory_ / name, 0, CREATE_NEW);
        expected.insert(name);
    }
    std::set<std::string> names;
    for (const HgfsPackets_Reply& entry : List(In({}))) {
        names.insert(entry.name);
    }
    EXPECT_EQ(names, expected);
}

TEST_F(HgfsReal, HoldsThirtyFilesOpenAndInTheEndNone) {
    HgfsServerShutDown();
    const DWORD before = HandleCount();
    ASSERT_TRUE(HgfsServer_RegisterWithChannel(nullptr, "test"));
    std::vector<uint32_t> handles;
    for (int i = 0; i < 150; ++i) {
        handles.push_back(MustOpen(In({std::to_string(i)})));
        WriteHandle(handles.back(), 0, std::to_string(i));
        Ask(OnName(HgfsOpGetattrV3, In({i % 2 == 0 ? "0" : "missing"})));
    }
    Ask(OnName(HgfsOpSearchOpen, In({})));
    EXPECT_LE(HandleCount(), before + 32);
    for (int i = 0; i < 150; ++i) {
        ASSERT_EQ(ReadHandle(handles[static_cast<size_t>(i)], 0, 10).data, std::to_string(i));
    }
    // Behind evicted handles: one file renamed by the host, one by somebody else, one deleted.
    EXPECT_EQ(Status(Renaming(In({"10"}), In({"renamed"}))), HgfsStatusSuccess);
    EXPECT_EQ(ReadHandle(handles[10], 0, 10).data, "10");
    stdfs::rename(Path(L"11"), Path(L"away"));
    EXPECT_EQ(ReadHandle(handles[11], 0, 10).status, HgfsStatusNoSuchFileOrDir);
    EXPECT_EQ(Status(OnName(HgfsOpDeleteFile, In({"12"}))), HgfsStatusSuccess);
    EXPECT_EQ(ReadHandle(handles[12], 0, 10).status, HgfsStatusNoSuchFileOrDir);
    HgfsServerShutDown();
    EXPECT_EQ(HandleCount(), before);
    EXPECT_TRUE(OpenFile(Path(L"149"), 0, OPEN_EXISTING)); // nobody holds it any more
}

TEST_F(HgfsReal, RefusesLongDrivePaths) {
    const size_t used = directory_.native().size() + 1;
    EXPECT_EQ(Status(Opening(In({std::string(259 - used, 'a')}))), HgfsStatusSuccess);
    EXPECT_EQ(Status(Opening(In({std::string(260 - used, 'a')}))), HgfsStatusInvalidName);
}

TEST_F(HgfsReal, OpensDirectoriesAndTellsWhatTheyAre) {
    stdfs::create_directory(Path(L"d"));
    HgfsPackets_Request request = Opening(In({"d"}), kHgfsModeRead, kHgfsOpenExisting);
    request.handle = Ask(request).handle;
    request.op = HgfsOpGetattrV3;
    request.mask = kHgfsMaskHandle;
    EXPECT_EQ(Ask(request).attributes.type, kHgfsTypeDirectory);
    EXPECT_NE(ReadHandle(request.handle, 0, 10).status, HgfsStatusSuccess);
}

TEST_F(HgfsReal, PassesTheSystemsRefusalsOn) {
    stdfs::create_directory(Path(L"d"));
    Put(L"d\\f");
    Put(L"f");
    EXPECT_EQ(Status(OnName(HgfsOpGetattr, In({"none"}))), HgfsStatusNoSuchFileOrDir);
    EXPECT_EQ(Status(OnName(HgfsOpCreateDir, In({"d"}))), HgfsStatusFileExists);
    EXPECT_EQ(Status(OnName(HgfsOpCreateDir, In({"none", "d"}))), HgfsStatusNoSuchFileOrDir);
    EXPECT_EQ(Status(OnName(HgfsOpDeleteDir, In({"none"}))), HgfsStatusNoSuchFileOrDir);
    EXPECT_EQ(Status(OnName(HgfsOpDeleteDir, In({"d"}))), HgfsStatusDirNotEmpty);
    EXPECT_EQ(Status(OnName(HgfsOpDeleteFile, In({"d"}))), HgfsStatusAccessDenied);
    EXPECT_EQ(Status(OnName(HgfsOpSearchOpen, In({"f"}))), HgfsStatusGenericError);
    EXPECT_EQ(Status(Renaming(In({"none"}), In({"e"}))), HgfsStatusNoSuchFileOrDir);
    EXPECT_EQ(Status(Renaming(In({"f"}), In({"d", "f"}))), HgfsStatusFileExists);
}

TEST_F(HgfsReal, ReportsVolumes) {
    ULARGE_INTEGER available, total;
    ASSERT_TRUE(GetDiskFreeSpaceExW(L"C:\\", &available, &total, nullptr));
    EXPECT_EQ(Ask(OnName(HgfsOpQueryVolumeInfo, DriveName({"C"}))).totalBytes, total.QuadPart);
    EXPECT_EQ(Ask(OnName(HgfsOpQueryVolumeInfoV3, In({"no such file"}))).totalBytes, total.QuadPart);
    EXPECT_EQ(Status(OnName(HgfsOpQueryVolumeInfoV3, "root")), HgfsStatusSuccess);
    EXPECT_EQ(Status(OnName(HgfsOpQueryVolumeInfo, DriveName({"Q"}))), HgfsStatusGenericError);
}

// The test's caller may name a directory on a volume of some 64 KiB.
TEST_F(HgfsReal, ReportsAFullVolume) {
    wchar_t small[MAX_PATH];
    if (GetEnvironmentVariableW(L"RL_SMALL_VOLUME", small, MAX_PATH) == 0) {
        GTEST_SKIP() << "RL_SMALL_VOLUME names no small volume";
    }
    UseDirectory(stdfs::path(small) / L"hgfs");
    const uint32_t handle = MustOpen(In({"f"}));
    const std::string piece(63000, 'x');
    HgfsPackets_Reply reply{};
    for (uint64_t offset = 0; offset < 1 << 20 && reply.status == HgfsStatusSuccess;
         offset += reply.actualSize) {
        reply = WriteHandle(handle, offset, piece);
    }
    EXPECT_EQ(reply.status, HgfsStatusNoSpace);
    EXPECT_EQ(Status(OnHandle(HgfsOpClose, handle)), HgfsStatusSuccess);
    EXPECT_LT(Ask(OnName(HgfsOpQueryVolumeInfo, In({}))).freeBytes, 63000u);
}

TEST_F(HgfsReal, TellsFilesWithMoreStreams) {
    Put(L"f");
    EXPECT_EQ(AttributesOf("f").attributes & kHgfsAttrMoreStreams, 0u);
    DWORD features = 0;
    GetVolumeInformationW(L"C:\\", nullptr, 0, nullptr, nullptr, &features, nullptr, 0);
    if (!(features & FILE_NAMED_STREAMS)) {
        GTEST_SKIP() << "this file system has no named streams";
    }
    OpenFile(Path(L"f:more"), 7, CREATE_NEW);
    EXPECT_NE(AttributesOf("f").attributes & kHgfsAttrMoreStreams, 0u);
}

// ---- Random packets ----

// Rounds of some 75 packets each, the same every time; RL_STORM_ROUNDS asks for that many times as many,
// RL_STORM_SEED for others.
PacketStorm_Counts Storm(unsigned rounds, const std::string& directory) {
    auto setting = [](const char* name, unsigned otherwise) {
        const char* text = std::getenv(name);
        return text == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
    };
    PacketStorm_Counts counts;
    std::mt19937 random(setting("RL_STORM_SEED", 1728));
    std::vector<uint8_t> bytes(4000);
    for (unsigned left = rounds * setting("RL_STORM_ROUNDS", 1); left > 0; --left) {
        std::ranges::generate(bytes, [&] { return static_cast<uint8_t>(random()); });
        PacketStorm_Run(bytes, directory, &counts);
        DiagCapture_Take();
    }
    return counts;
}

TEST_F(HgfsReal, WeathersRandomPackets) {
    Put(L"keep"); // so that the directory itself is never empty enough to be deleted
    DWORD handles = 0;
    for (unsigned rounds : {5u, 100u}) { // the first run leaves what the system itself keeps
        HgfsServerShutDown();
        ASSERT_TRUE(HgfsServerStartUp(HgfsPlatform_System(), 4, nullptr));
        // No name leads out of a share with a path.
        hgfsServer.shares[0].localPath = Unicode_FromWide(directory_.native()).value();
        const PacketStorm_Counts counts = Storm(rounds, "root");
        EXPECT_GT(counts.packets, rounds * 50);
        EXPECT_GT(counts.successes, counts.packets / 10);
        HgfsServerShutDown();
        EXPECT_TRUE(rounds == 5 || HandleCount() == handles) << HandleCount() << " after " << handles;
        handles = HandleCount();
        ASSERT_TRUE(HgfsServer_RegisterWithChannel(nullptr, "test"));
    }
}

} // namespace
