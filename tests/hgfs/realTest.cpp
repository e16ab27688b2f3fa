// The server over the real file system: what its platform table makes of files as they are found in the
// field.
#include "hgfsFixture.h"

#include "hgfslib/hgfsServer.h"
#include "misc/win32Handle.h"
#include "sim/hgfsExercise.h"
#include "unicode/unicode.h"

#include <filesystem>
#include <fstream>
#include <windows.h>

namespace {

namespace stdfs = std::filesystem;

class HgfsReal : public ::testing::Test {
protected:
    void SetUp() override {
        wchar_t temp[MAX_PATH + 1];
        GetTempPathW(MAX_PATH + 1, temp);
        directory_ = stdfs::path(temp) / (L"hgfs" + std::to_wstring(GetCurrentProcessId()));
        stdfs::remove_all(directory_);
        stdfs::create_directories(directory_);
        ASSERT_TRUE(HgfsServer_RegisterWithChannel(nullptr, "test"));
    }
    void TearDown() override {
        if (!hgfsServer.shares.empty()) {
            HgfsServerShutDown();
        }
        MakeWritable();
        std::error_code ignored;
        stdfs::remove_all(directory_, ignored);
        DiagCapture_Take();
    }

    void MakeWritable() {
        for (const auto& entry : stdfs::recursive_directory_iterator(directory_)) {
            SetFileAttributesW(entry.path().c_str(), FILE_ATTRIBUTE_NORMAL);
        }
    }

    // The protocol name of something below the test's directory.
    std::string In(std::initializer_list<std::string_view> components) const {
        std::string name = Name({"root", "drive"});
        std::string path = Unicode_FromWide(directory_.native()).value();
        path.erase(1, 1); // the colon
        std::ranges::replace(path, '\\', '\0');
        name += '\0' + path;
        for (std::string_view component : components) {
            name += '\0' + std::string(component);
        }
        return name;
    }
    stdfs::path Path(const wchar_t* child) const { return directory_ / child; }

    stdfs::path directory_;
};

DWORD HandleCount() {
    DWORD count = 0;
    GetProcessHandleCount(GetCurrentProcess(), &count);
    return count;
}

TEST_F(HgfsReal, WalksThroughEveryOperation) {
    HgfsExercise exercise;
    exercise.directory = In({});
    for (HgfsPackets_Request request; HgfsExercise_Next(exercise, &request);) {
        std::string error;
        EXPECT_TRUE(HgfsExercise_Take(&exercise, Ask(request).reply, &error)) << error;
    }
    EXPECT_TRUE(stdfs::is_empty(directory_));
}

TEST_F(HgfsReal, EscapedAndForeignNamesReachTheDisk) {
    for (std::string_view name :
         {"con", "a:b?", "dot.", "\xE6\x97\xA5\xE6\x9C\xAC", "\xF0\x9F\x98\x80", "50%"}) {
        WriteHandle(MustOpen(In({name})), 0, name);
    }
    EXPECT_TRUE(stdfs::exists(Path(L"con%")));
    EXPECT_TRUE(stdfs::exists(Path(L"a^%b$%")));
    EXPECT_TRUE(stdfs::exists(Path(L"dot.%")));
    EXPECT_TRUE(stdfs::exists(Path(L"\x65E5\x672C")));
    EXPECT_TRUE(stdfs::exists(Path(L"\xD83D\xDE00")));
    const uint32_t handle = Ask(OnName(HgfsOpSearchOpenV3, In({}))).reply.handle;
    std::vector<std::string> names;
    for (HgfsPackets_Request request = OnHandle(HgfsOpSearchReadV3, handle);; ++request.index) {
        HgfsPackets_Reply reply = Ask(request).reply;
        if (reply.name.empty()) {
            break;
        }
        EXPECT_NE(reply.attributes.mask, 0u) << reply.name;
        names.push_back(reply.name);
    }
    EXPECT_THAT(names,
                ::testing::UnorderedElementsAre(".", "..", "con", "a:b?", "dot.", "\xE6\x97\xA5\xE6\x9C\xAC",
                                                "\xF0\x9F\x98\x80", "50%"));
}

TEST_F(HgfsReal, AnswersEachDisposition) {
    struct Case {
        uint32_t flags;
        bool exists;
        HgfsStatus status;
        uint64_t sizeAfter;
    };
    const Case cases[] = {{kHgfsOpenExisting, true, HgfsStatusSuccess, 3},
                          {kHgfsOpenExisting, false, HgfsStatusNoSuchFileOrDir, 0},
                          {kHgfsOpenTruncate, true, HgfsStatusSuccess, 0},
                          {kHgfsOpenTruncate, false, HgfsStatusNoSuchFileOrDir, 0},
                          {kHgfsOpenCreate, true, HgfsStatusSuccess, 3},
                          {kHgfsOpenCreate, false, HgfsStatusSuccess, 0},
                          {kHgfsOpenCreateNew, true, HgfsStatusFileExists, 3},
                          {kHgfsOpenCreateNew, false, HgfsStatusSuccess, 0},
                          {kHgfsOpenCreateEmpty, true, HgfsStatusSuccess, 0},
                          {kHgfsOpenCreateEmpty, false, HgfsStatusSuccess, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.flags * 10 + c.exists);
        stdfs::remove(Path(L"f"));
        if (c.exists) {
            std::ofstream(Path(L"f")) << "abc";
        }
        HgfsPackets_Request request = OpenRequest(In({"f"}));
        request.flags = c.flags;
        HgfsPackets_Reply reply = Ask(request).reply;
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
    std::ofstream(Path(L"f")) << "abc";
    HgfsPackets_Request request = OpenRequest(In({"f"}));
    request.mode = kHgfsModeRead;
    request.flags = kHgfsOpenTruncate;
    HgfsPackets_Attributes before = Ask(OnName(HgfsOpGetattrV3, request.name)).reply.attributes;
    EXPECT_EQ(Status(request), HgfsStatusSuccess);
    HgfsPackets_Attributes after = Ask(OnName(HgfsOpGetattrV3, request.name)).reply.attributes;
    EXPECT_EQ(after.size, 0u);
    EXPECT_GE(after.writeTime, before.writeTime);
}

TEST_F(HgfsReal, ReachesBeyondFourGigabytes) {
    constexpr uint64_t kFar = (uint64_t{5} << 30) + 123;
    const uint32_t handle = MustOpen(In({"large"}));
    EXPECT_EQ(WriteHandle(handle, kFar, "far away").actualSize, 8u);
    EXPECT_EQ(ReadHandle(handle, kFar, 100).data, "far away");
    EXPECT_EQ(ReadHandle(handle, kFar - 1, 2).data, std::string("\0f", 2));
    EXPECT_EQ(Ask(OnName(HgfsOpGetattr, In({"large"}))).reply.attributes.size, kFar + 8);
    EXPECT_EQ(WriteHandle(handle, 0, "!", HgfsOpWriteV3, kHgfsWriteAppend).actualSize, 1u);
    EXPECT_EQ(ReadHandle(handle, kFar, 100).data, "far away!");
    EXPECT_EQ(ReadHandle(handle, kFar + 9, 100).actualSize, 0u);
    for (uint64_t offset : {~uint64_t{0}, ~uint64_t{0} - 1, uint64_t{1} << 63}) {
        EXPECT_EQ(WriteHandle(handle, offset, "x").status, HgfsStatusInvalidParameter);
        EXPECT_EQ(ReadHandle(handle, offset, 1).status, HgfsStatusInvalidParameter);
    }
    EXPECT_EQ(Ask(OnName(HgfsOpGetattr, In({"large"}))).reply.attributes.size, kFar + 9);
}

TEST_F(HgfsReal, ASequentialFileIsReadInOrderEvenWhenTheCacheClosesIt) {
    std::ofstream(Path(L"s")) << "abcdef";
    HgfsPackets_Request request = OpenRequest(In({"s"}));
    request.mode = kHgfsModeReadWrite | kHgfsModeSequential;
    const uint32_t handle = Ask(request).reply.handle;
    EXPECT_EQ(ReadHandle(handle, 5, 2).data, "ab");
    for (int i = 0; i < 30; ++i) {
        MustOpen(In({"other"}));
    }
    EXPECT_EQ(ReadHandle(handle, 5, 2).data, "cd");
    EXPECT_EQ(WriteHandle(handle, 0, "EF").actualSize, 2u);
    EXPECT_EQ(ReadHandle(handle, 0, 2).actualSize, 0u);
}

TEST_F(HgfsReal, LeavesFilesHeldByOthersAlone) {
    FileHandle held(CreateFileW(Path(L"held").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
    ASSERT_TRUE(held);
    EXPECT_EQ(Status(OpenRequest(In({"held"}))), HgfsStatusSharingViolation);
    EXPECT_EQ(Status(OnName(HgfsOpDeleteFile, In({"held"}))), HgfsStatusSharingViolation);
    EXPECT_EQ(Status(OnName(HgfsOpGetattr, In({"held"}))), HgfsStatusSuccess);
    HgfsPackets_Request rename = OnName(HgfsOpRename, In({"held"}));
    rename.newName = In({"other"});
    EXPECT_EQ(Status(rename), HgfsStatusSharingViolation);
}

bool Refuses(const stdfs::path& path) {
    FileHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0, nullptr));
    return !file;
}

TEST_F(HgfsReal, HonoursAndChangesReadOnly) {
    std::ofstream(Path(L"f")) << "abc";
    HgfsPackets_Request change = OnName(HgfsOpSetattrV3, In({"f"}));
    change.change.mask = kHgfsBlockOwnerPerms;
    change.change.ownerPerms = kHgfsPermRead;
    EXPECT_EQ(Status(change), HgfsStatusSuccess);
    EXPECT_EQ(Ask(OnName(HgfsOpGetattr, In({"f"}))).reply.attributes.ownerPerms, 5);
    if (Refuses(Path(L"f"))) { // an all-powerful user's emulated system does not
        EXPECT_EQ(Status(OpenRequest(In({"f"}))), HgfsStatusAccessDenied);
        change.change.mask = kHgfsBlockSize;
        change.change.size = 1;
        EXPECT_EQ(Status(change), HgfsStatusAccessDenied);
        EXPECT_EQ(stdfs::file_size(Path(L"f")), 3u);
    }
    EXPECT_EQ(Status(OnName(HgfsOpDeleteFile, In({"f"}))), HgfsStatusAccessDenied);
    // Writable again, shorter and hidden in one request.
    change.change.mask = kHgfsBlockSize | kHgfsBlockOwnerPerms | kHgfsBlockAttributes;
    change.change.size = 1;
    change.change.ownerPerms = kHgfsPermRead | kHgfsPermWrite;
    change.change.attributes = kHgfsAttrHidden;
    EXPECT_EQ(Status(change), HgfsStatusSuccess);
    EXPECT_EQ(stdfs::file_size(Path(L"f")), 1u);
    EXPECT_TRUE(Ask(OnName(HgfsOpGetattrV2, In({"f"}))).reply.attributes.attributes & kHgfsAttrHidden);
    EXPECT_EQ(Status(OnName(HgfsOpDeleteFile, In({"f"}))), HgfsStatusSuccess);

    HgfsPackets_Request create = OpenRequest(In({"made read-only"}));
    create.ownerPerms = kHgfsPermRead;
    EXPECT_EQ(Status(create), HgfsStatusSuccess);
    EXPECT_TRUE(GetFileAttributesW(Path(L"made read-only").c_str()) & FILE_ATTRIBUTE_READONLY);
}

TEST_F(HgfsReal, SetsTimes) {
    std::ofstream(Path(L"f")) << "abc";
    HgfsPackets_Request change = OnName(HgfsOpSetattrV2, In({"f"}));
    change.change.mask = kHgfsBlockAccess | kHgfsBlockWrite;
    change.change.accessTime = 126000000000000000; // April 2000
    change.change.writeTime = 125000000000000000;
    EXPECT_EQ(Status(change), HgfsStatusSuccess);
    HgfsPackets_Attributes now = Ask(OnName(HgfsOpGetattrV2, In({"f"}))).reply.attributes;
    EXPECT_EQ(now.accessTime, change.change.accessTime);
    EXPECT_EQ(now.writeTime, change.change.writeTime);
}

// More than the directory reader returns at once.
TEST_F(HgfsReal, ListsThousandsOfEntries) {
    constexpr uint32_t kCount = 2000;
    stdfs::create_directory(Path(L"many"));
    for (uint32_t i = 0; i < kCount; ++i) {
        FileHandle file(CreateFileW((Path(L"many") / (L"the entry of number " + std::to_wstring(i))).c_str(),
                                    GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
    }
    const uint32_t handle = Ask(OnName(HgfsOpSearchOpen, In({"many"}))).reply.handle;
    std::vector<bool> seen(kCount);
    HgfsPackets_Request request = OnHandle(HgfsOpSearchRead, handle);
    for (request.index = 2; request.index < kCount + 2; ++request.index) {
        HgfsPackets_Reply reply = Ask(request).reply;
        ASSERT_TRUE(reply.name.starts_with("the entry of number ")) << request.index;
        seen[static_cast<size_t>(std::stoi(reply.name.substr(20)))] = true;
    }
    EXPECT_EQ(std::ranges::count(seen, true), kCount);
    EXPECT_TRUE(Ask(request).reply.name.empty());
}

TEST_F(HgfsReal, AThousandHandlesOverACacheOfThirty) {
    std::vector<uint32_t> handles;
    const DWORD before = HandleCount();
    for (int i = 0; i < 1000; ++i) {
        handles.push_back(MustOpen(In({std::to_string(i)})));
        WriteHandle(handles.back(), 0, std::to_string(i));
    }
    EXPECT_LE(HandleCount(), before + 32);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(ReadHandle(handles[static_cast<size_t>(i)], 0, 10).data, std::to_string(i));
    }
    // Behind evicted handles: one file renamed by the host, one by somebody else, one deleted.
    HgfsPackets_Request rename = OnName(HgfsOpRename, In({"10"}));
    rename.newName = In({"renamed"});
    EXPECT_EQ(Status(rename), HgfsStatusSuccess);
    EXPECT_EQ(ReadHandle(handles[10], 0, 10).data, "10");
    stdfs::rename(Path(L"11"), Path(L"away"));
    EXPECT_EQ(ReadHandle(handles[11], 0, 10).status, HgfsStatusNoSuchFileOrDir);
    EXPECT_EQ(Status(OnName(HgfsOpDeleteFile, In({"12"}))), HgfsStatusSuccess);
    EXPECT_EQ(ReadHandle(handles[12], 0, 10).status, HgfsStatusNoSuchFileOrDir);
}

TEST_F(HgfsReal, UnregistrationLeavesNoHandle) {
    HgfsServerShutDown();
    const DWORD before = HandleCount();
    ASSERT_TRUE(HgfsServer_RegisterWithChannel(nullptr, "test"));
    for (int i = 0; i < 40; ++i) {
        const uint32_t handle = MustOpen(In({std::to_string(i)}));
        WriteHandle(handle, 0, "being written");
        Ask(OnName(HgfsOpSearchOpen, In({})));
        Ask(OnName(HgfsOpGetattrV3, In({"0"})));
        Ask(OnName(HgfsOpGetattrV3, In({"missing"})));
    }
    HgfsServerShutDown();
    EXPECT_EQ(HandleCount(), before);
    // Nobody holds the files any more.
    FileHandle alone(CreateFileW(Path(L"39").c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_TRUE(alone);
}

TEST_F(HgfsReal, RefusesLongDrivePaths) {
    const size_t used = directory_.native().size() + 1;
    EXPECT_EQ(Status(OpenRequest(In({std::string(259 - used, 'a')}))), HgfsStatusSuccess);
    EXPECT_EQ(Status(OpenRequest(In({std::string(260 - used, 'a')}))), HgfsStatusInvalidName);
}

TEST_F(HgfsReal, OpensDirectoriesAndTellsWhatTheyAre) {
    stdfs::create_directory(Path(L"d"));
    HgfsPackets_Request request = OpenRequest(In({"d"}));
    request.flags = kHgfsOpenExisting;
    request.mode = kHgfsModeRead;
    const uint32_t handle = Ask(request).reply.handle;
    HgfsPackets_Request getattr = OnHandle(HgfsOpGetattrV3, handle);
    getattr.mask = kHgfsMaskHandle;
    EXPECT_EQ(Ask(getattr).reply.attributes.type, kHgfsTypeDirectory);
    EXPECT_NE(ReadHandle(handle, 0, 10).status, HgfsStatusSuccess);
    EXPECT_EQ(Status(OnName(HgfsOpDeleteDir, In({"missing"}))), HgfsStatusNoSuchFileOrDir);
    std::ofstream(Path(L"d") / L"f") << "abc";
    EXPECT_EQ(Status(OnName(HgfsOpDeleteDir, In({"d"}))), HgfsStatusDirNotEmpty);
    EXPECT_EQ(Status(OnName(HgfsOpSearchOpen, In({"d", "f"}))), HgfsStatusGenericError);
}

TEST_F(HgfsReal, ReportsVolumes) {
    ULARGE_INTEGER available, total;
    ASSERT_TRUE(GetDiskFreeSpaceExW(L"C:\\", &available, &total, nullptr));
    EXPECT_EQ(Ask(OnName(HgfsOpQueryVolumeInfo, DriveName({"C"}))).reply.totalBytes, total.QuadPart);
    EXPECT_EQ(Ask(OnName(HgfsOpQueryVolumeInfoV3, In({"no such file"}))).reply.totalBytes, total.QuadPart);
    EXPECT_EQ(Status(OnName(HgfsOpQueryVolumeInfoV3, "root")), HgfsStatusSuccess);
    EXPECT_EQ(Status(OnName(HgfsOpQueryVolumeInfo, DriveName({"Q"}))), HgfsStatusGenericError);
}

// The test's caller may name a directory on a volume of some 64 KiB.
TEST_F(HgfsReal, ReportsAFullVolume) {
    wchar_t small[MAX_PATH];
    if (GetEnvironmentVariableW(L"RL_SMALL_VOLUME", small, MAX_PATH) == 0) {
        GTEST_SKIP() << "RL_SMALL_VOLUME names no small volume";
    }
    stdfs::remove_all(directory_);
    directory_ = stdfs::path(small) / L"hgfs";
    stdfs::create_directories(directory_);
    const uint32_t handle = MustOpen(In({"f"}));
    const std::string piece(63000, 'x');
    HgfsPackets_Reply reply{};
    for (uint64_t offset = 0; offset < 1 << 20 && reply.status == HgfsStatusSuccess;
         offset += reply.actualSize) {
        reply = WriteHandle(handle, offset, piece);
    }
    EXPECT_EQ(reply.status, HgfsStatusNoSpace);
    EXPECT_EQ(Status(OnHandle(HgfsOpClose, handle)), HgfsStatusSuccess);
    EXPECT_LT(Ask(OnName(HgfsOpQueryVolumeInfo, In({}))).reply.freeBytes, 63000u);
    HgfsPackets_Request change = OnName(HgfsOpSetattr, In({"f"}));
    change.change.mask = kHgfsBlockSize;
    EXPECT_EQ(Status(change), HgfsStatusSuccess);
    EXPECT_GE(Ask(OnName(HgfsOpQueryVolumeInfo, In({}))).reply.freeBytes, 40000u);
}

TEST_F(HgfsReal, TellsFilesWithMoreStreams) {
    std::ofstream(Path(L"f")) << "abc";
    EXPECT_EQ(Ask(OnName(HgfsOpGetattrV3, In({"f"}))).reply.attributes.attributes & kHgfsAttrMoreStreams, 0u);
    FileHandle stream(
        CreateFileW(Path(L"f:more").c_str(), GENERIC_WRITE, 7, nullptr, CREATE_NEW, 0, nullptr));
    wchar_t flags[MAX_PATH];
    DWORD features = 0;
    GetVolumeInformationW(L"C:\\", nullptr, 0, nullptr, nullptr, &features, flags, MAX_PATH);
    if (!stream || !(features & FILE_NAMED_STREAMS)) {
        GTEST_SKIP() << "this file system has no named streams";
    }
    stream.Reset();
    EXPECT_NE(Ask(OnName(HgfsOpGetattrV3, In({"f"}))).reply.attributes.attributes & kHgfsAttrMoreStreams, 0u);
}

} // namespace
