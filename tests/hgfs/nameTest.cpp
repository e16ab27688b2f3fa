#include "hgfsFixture.h"

namespace {

using namespace std::string_literals;
using HgfsNames = HgfsMemoryTest;

constexpr HgfsOp kGetattr[] = {HgfsOpGetattr, HgfsOpGetattrV2, HgfsOpGetattrV3};
constexpr HgfsOp kSetattr[] = {HgfsOpSetattr, HgfsOpSetattrV2, HgfsOpSetattrV3};

// ---- Attributes ----

TEST_F(HgfsNames, ReportsAttributes) {
    MemoryFile& file =
        MemoryFs_Add("C:\\tmp\\f", kHgfsFileHidden | kHgfsFileArchive | kHgfsFileReadOnly, "12345");
    file.creationTime = 0x0102030405060708;
    file.accessTime = 2;
    file.writeTime = 3;
    file.changeTime = 4;
    file.moreStreams = true;
    for (HgfsOp op : kGetattr) {
        HgfsPackets_Attributes attributes = Ask(OnName(op, DriveName({"C", "tmp", "f"}))).reply.attributes;
        EXPECT_EQ(attributes.type, kHgfsTypeRegular);
        EXPECT_EQ(attributes.size, 5u);
        EXPECT_EQ(attributes.creationTime, 0x0102030405060708u);
        EXPECT_EQ(attributes.accessTime, 2u);
        EXPECT_EQ(attributes.writeTime, 3u);
        EXPECT_EQ(attributes.changeTime, 4u);
        EXPECT_EQ(attributes.ownerPerms, kHgfsPermRead | kHgfsPermExecute);
        if (op != HgfsOpGetattr) {
            EXPECT_EQ(attributes.mask, 0x1CFBFu);
            EXPECT_EQ(attributes.groupPerms, 5);
            EXPECT_EQ(attributes.otherPerms, 5);
            EXPECT_EQ(attributes.effectivePerms, 5u);
            EXPECT_EQ(attributes.attributes, kHgfsAttrHidden | kHgfsAttrArchive | kHgfsAttrMoreStreams);
            EXPECT_EQ(attributes.allocationSize, 4096u);
            EXPECT_EQ(attributes.fileId, file.index);
            EXPECT_EQ(attributes.volumeId, 0x12345678u);
        }
        attributes = Ask(OnName(op, DriveName({"C", "tmp"}))).reply.attributes;
        EXPECT_EQ(attributes.type, kHgfsTypeDirectory);
        EXPECT_EQ(attributes.ownerPerms, 7);
        EXPECT_EQ(Status(OnName(op, DriveName({"C", "tmp", "none"}))), HgfsStatusNoSuchFileOrDir);
    }
}

TEST_F(HgfsNames, ReportsALinkAsARegularFileWithItsTarget) {
    MemoryFs_Add("C:\\tmp\\link", kHgfsFileDirectory).linkTarget = "D:\\elsewhere";
    for (HgfsOp op : kGetattr) {
        HgfsPackets_Reply reply = Ask(OnName(op, DriveName({"C", "tmp", "link"}))).reply;
        EXPECT_EQ(reply.attributes.type, kHgfsTypeRegular);
        EXPECT_EQ(reply.name, op == HgfsOpGetattr ? "" : "D:\\elsewhere");
    }
}

TEST_F(HgfsNames, ReportsAttributesOfAnOpenFile) {
    const uint32_t handle = MustOpen(DriveName({"C", "tmp", "f"}));
    WriteHandle(handle, 0, "abc");
    MemoryFs_Add("C:\\tmp\\g", kHgfsFileDirectory);
    for (HgfsOp op : {HgfsOpGetattrV2, HgfsOpGetattrV3}) {
        HgfsPackets_Request request = OnName(op, DriveName({"C", "tmp", "g"}));
        request.handle = handle;
        EXPECT_EQ(Ask(request).reply.attributes.type, kHgfsTypeDirectory); // the handle is not meant
        request.mask = kHgfsMaskHandle;
        EXPECT_EQ(Ask(request).reply.attributes.size, 3u);
        request.name = "";
        EXPECT_EQ(Ask(request).reply.attributes.size, 3u);
        request.handle = 77;
        EXPECT_EQ(Status(request), HgfsStatusInvalidHandle);
    }
}

HgfsPackets_Request SetRequest(HgfsOp op, uint64_t mask) {
    HgfsPackets_Request request = OnName(op, DriveName({"C", "tmp", "f"}));
    request.change.mask = mask;
    request.change.size = 3;
    request.change.creationTime = 11;
    request.change.accessTime = 12;
    request.change.writeTime = 13;
    request.change.changeTime = 14;
    request.change.ownerPerms = kHgfsPermRead;
    request.change.attributes = kHgfsAttrSystem | kHgfsAttrMoreStreams;
    return request;
}

TEST_F(HgfsNames, SetsWhatTheMaskSays) {
    struct Case {
        uint64_t mask;
        void (*expect)(const MemoryFile& file, HgfsOp op);
    };
    const Case cases[] = {
        {kHgfsBlockSize, [](const MemoryFile& file, HgfsOp) { EXPECT_EQ(file.data.size(), 3u); }},
        {kHgfsBlockCreation, [](const MemoryFile& file, HgfsOp) { EXPECT_EQ(file.creationTime, 11u); }},
        {kHgfsBlockAccess, [](const MemoryFile& file, HgfsOp) { EXPECT_EQ(file.accessTime, 12u); }},
        {kHgfsBlockWrite, [](const MemoryFile& file, HgfsOp) { EXPECT_EQ(file.writeTime, 13u); }},
        {kHgfsBlockChange, [](const MemoryFile& file, HgfsOp) { EXPECT_EQ(file.changeTime, 14u); }},
        {kHgfsBlockOwnerPerms,
         [](const MemoryFile& file, HgfsOp) {
             EXPECT_EQ(file.attributes, kHgfsFileReadOnly | kHgfsFileHidden);
         }},
        {kHgfsBlockAttributes,
         [](const MemoryFile& file, HgfsOp op) {
             EXPECT_EQ(file.attributes, op == HgfsOpSetattr ? kHgfsFileHidden : kHgfsFileSystem);
         }},
        {kHgfsBlockGroupPerms | kHgfsBlockOtherPerms | kHgfsBlockUserId | kHgfsBlockFileId, nullptr},
    };
    for (HgfsOp op : kSetattr) {
        for (const Case& c : cases) {
            SCOPED_TRACE(c.mask);
            fs.now = 1000;
            MemoryFile& file = MemoryFs_Add("C:\\tmp\\f", kHgfsFileHidden, "12345");
            MemoryFile before = file;
            EXPECT_EQ(Status(SetRequest(op, c.mask)), HgfsStatusSuccess);
            if (c.expect != nullptr) {
                c.expect(file, op);
            }
            // And nothing else.
            EXPECT_EQ(file.data.size(), c.mask == kHgfsBlockSize ? 3 : before.data.size());
            EXPECT_EQ(file.creationTime == before.creationTime, c.mask != kHgfsBlockCreation);
            EXPECT_EQ(file.accessTime == before.accessTime, c.mask != kHgfsBlockAccess);
            EXPECT_EQ(file.writeTime == before.writeTime, c.mask != kHgfsBlockWrite);
            EXPECT_EQ(file.changeTime == before.changeTime, c.mask != kHgfsBlockChange);
        }
    }
}

TEST_F(HgfsNames, RefusesTimesThatTheSystemCannotHold) {
    MemoryFs_Add("C:\\tmp\\f", 0);
    for (HgfsOp op : kSetattr) {
        HgfsPackets_Request request = SetRequest(op, kHgfsBlockWrite);
        request.change.writeTime = uint64_t{1} << 63;
        EXPECT_EQ(Status(request), HgfsStatusInvalidParameter);
        request.change.mask = kHgfsBlockSize;
        request.change.size = uint64_t{1} << 63;
        EXPECT_EQ(Status(request), HgfsStatusInvalidParameter);
    }
}

TEST_F(HgfsNames, SetsAttributesOfAnOpenFileWhateverItWasOpenedFor) {
    MemoryFs_Add("C:\\tmp\\f", 0, "12345");
    HgfsPackets_Request open = OpenRequest(DriveName({"C", "tmp", "f"}));
    for (uint32_t mode : {kHgfsModeRead, kHgfsModeReadWrite}) {
        open.mode = mode;
        for (HgfsOp op : {HgfsOpSetattrV2, HgfsOpSetattrV3}) {
            HgfsPackets_Request request = SetRequest(op, kHgfsBlockSize);
            request.mask = kHgfsMaskHandle;
            request.handle = Ask(open).reply.handle;
            request.name = "";
            request.change.size = op + mode;
            EXPECT_EQ(Status(request), HgfsStatusSuccess);
            EXPECT_EQ(MemoryFs_Find("C:\\tmp\\f")->data.size(), op + mode);
            request.handle = 999;
            EXPECT_EQ(Status(request), HgfsStatusInvalidHandle);
        }
    }
}

// ---- Directories ----

TEST_F(HgfsNames, CreatesDirectories) {
    for (HgfsOp op : {HgfsOpCreateDir, HgfsOpCreateDirV2, HgfsOpCreateDirV3}) {
        const std::string child = "d" + std::to_string(op);
        HgfsPackets_Request request = OnName(op, DriveName({"C", "tmp", child}));
        request.mask = kHgfsMaskAttributes;
        request.attributes = kHgfsAttrHidden;
        EXPECT_EQ(Status(request), HgfsStatusSuccess);
        EXPECT_EQ(MemoryFs_Find("C:\\tmp\\" + child)->attributes,
                  kHgfsFileDirectory | (op == HgfsOpCreateDirV3 ? kHgfsFileHidden : 0));
        EXPECT_EQ(Status(request), HgfsStatusFileExists);
        request.name = DriveName({"C", "nowhere", "d"});
        EXPECT_EQ(Status(request), HgfsStatusNoSuchFileOrDir);
    }
}

TEST_F(HgfsNames, ADirectoryThatCannotGetItsAttributesIsNotLeftBehind) {
    HgfsPackets_Request request = OnName(HgfsOpCreateDirV3, DriveName({"C", "tmp", "d"}));
    request.mask = kHgfsMaskAttributes;
    request.attributes = kHgfsAttrHidden;
    fs.failCall = fs.calls + 2;
    EXPECT_EQ(Status(request), HgfsStatusGenericError);
    EXPECT_EQ(MemoryFs_Find("C:\\tmp\\d"), nullptr);
}

TEST_F(HgfsNames, DeletesFilesAndDirectories) {
    const HgfsOp files[] = {HgfsOpDeleteFile, HgfsOpDeleteFileV2, HgfsOpDeleteFileV3};
    const HgfsOp directories[] = {HgfsOpDeleteDir, HgfsOpDeleteDirV2, HgfsOpDeleteDirV3};
    for (size_t i = 0; i < 3; ++i) {
        MemoryFs_Add("C:\\tmp\\d", kHgfsFileDirectory);
        MemoryFs_Add("C:\\tmp\\d\\f", 0);
        EXPECT_EQ(Status(OnName(directories[i], DriveName({"C", "tmp", "d"}))), HgfsStatusDirNotEmpty);
        EXPECT_EQ(Status(OnName(files[i], DriveName({"C", "tmp", "d"}))), HgfsStatusAccessDenied);
        EXPECT_EQ(Status(OnName(files[i], DriveName({"C", "tmp", "d", "f"}))), HgfsStatusSuccess);
        EXPECT_EQ(Status(OnName(files[i], DriveName({"C", "tmp", "d", "f"}))), HgfsStatusNoSuchFileOrDir);
        EXPECT_EQ(Status(OnName(directories[i], DriveName({"C", "tmp", "d"}))), HgfsStatusSuccess);
        EXPECT_EQ(MemoryFs_Find("C:\\tmp\\d"), nullptr);
    }
    MemoryFs_Add("C:\\tmp\\held", 0).held = true;
    EXPECT_EQ(Status(OnName(HgfsOpDeleteFile, DriveName({"C", "tmp", "held"}))), HgfsStatusSharingViolation);
}

TEST_F(HgfsNames, DeletesByHandle) {
    for (HgfsOp op : {HgfsOpDeleteFileV2, HgfsOpDeleteFileV3}) {
        HgfsPackets_Request request = OnHandle(op, MustOpen(DriveName({"C", "tmp", "f"})));
        request.mask = kHgfsMaskHandle;
        EXPECT_EQ(Status(request), HgfsStatusSuccess);
        EXPECT_EQ(MemoryFs_Find("C:\\tmp\\f"), nullptr);
        request.handle = 99;
        EXPECT_EQ(Status(request), HgfsStatusInvalidHandle);
    }
}

TEST_F(HgfsNames, Renames) {
    for (HgfsOp op : {HgfsOpRename, HgfsOpRenameV2, HgfsOpRenameV3}) {
        MemoryFs_Add("C:\\tmp\\a", 0, "a");
        MemoryFs_Add("C:\\tmp\\b", 0, "b");
        HgfsPackets_Request request = OnName(op, DriveName({"C", "tmp", "a"}));
        request.newName = DriveName({"C", "tmp", "b"});
        EXPECT_EQ(Status(request), HgfsStatusFileExists);
        request.newName = DriveName({"D", "a"});
        EXPECT_EQ(Status(request), HgfsStatusNotSameDevice);
        request.newName = DriveName({"C", "tmp", "A"});
        EXPECT_EQ(Status(request), HgfsStatusSuccess);
        EXPECT_EQ(MemoryFs_Find("C:\\tmp\\a")->name, "A");
        request.name = DriveName({"C", "tmp", "none"});
        EXPECT_EQ(Status(request), HgfsStatusNoSuchFileOrDir);
        request.newName = DriveName({"C", "tmp", "x", "."});
        EXPECT_EQ(Status(request), HgfsStatusInvalidName);
    }
}

TEST_F(HgfsNames, RenamesByHandle) {
    for (HgfsOp op : {HgfsOpRenameV2, HgfsOpRenameV3}) {
        const std::string to = "to" + std::to_string(op);
        HgfsPackets_Request request = OnHandle(op, MustOpen(DriveName({"C", "tmp", "f"})));
        request.mask = kHgfsMaskHandle;
        request.newName = DriveName({"C", "tmp", to});
        EXPECT_EQ(Status(request), HgfsStatusSuccess);
        EXPECT_NE(MemoryFs_Find("C:\\tmp\\" + to), nullptr);
        request.newName = DriveName({"C", "tmp", to + "again"}); // the handle has followed
        EXPECT_EQ(Status(request), HgfsStatusSuccess);
    }
}

// ---- Listings ----

struct Entry {
    std::string name;
    HgfsPackets_Attributes attributes;
};

std::vector<Entry> List(HgfsOp op, const std::string& directory) {
    const bool large = op == HgfsOpSearchReadV3;
    const uint32_t handle =
        Ask(OnName(large ? HgfsOpSearchOpenV3 : HgfsOpSearchOpen, directory)).reply.handle;
    std::vector<Entry> entries;
    HgfsPackets_Request request = OnHandle(op, handle);
    for (;; ++request.index) {
        HgfsPackets_Reply reply = Ask(request).reply;
        EXPECT_EQ(reply.status, HgfsStatusSuccess);
        if (reply.name.empty()) {
            break;
        }
        entries.push_back({reply.name, reply.attributes});
    }
    request.op = large ? HgfsOpSearchCloseV3 : HgfsOpSearchClose;
    EXPECT_EQ(Status(request), HgfsStatusSuccess);
    EXPECT_EQ(Status(request), HgfsStatusGenericError);
    return entries;
}

TEST_F(HgfsNames, ListsDirectories) {
    MemoryFs_Add("C:\\tmp\\a", 0, "123");
    MemoryFs_Add("C:\\tmp\\con%.x", 0);
    MemoryFs_Add("C:\\tmp\\dir", kHgfsFileDirectory);
    MemoryFs_Add("C:\\tmp\\dir\\deeper", 0);
    for (HgfsOp op : {HgfsOpSearchRead, HgfsOpSearchReadV2, HgfsOpSearchReadV3}) {
        std::vector<Entry> entries = List(op, DriveName({"C", "tmp"}));
        std::vector<std::string> names;
        for (const Entry& entry : entries) {
            names.push_back(entry.name);
        }
        ASSERT_THAT(names, ::testing::ElementsAre(".", "..", "a", "con.x", "dir"));
        EXPECT_EQ(entries[0].attributes.type, kHgfsTypeDirectory);
        EXPECT_EQ(entries[1].attributes.type, kHgfsTypeDirectory);
        EXPECT_EQ(entries[2].attributes.size, 3u);
        EXPECT_EQ(entries[2].attributes.mask & kHgfsBlockVolumeId, 0u);
        EXPECT_EQ(entries[4].attributes.type, kHgfsTypeDirectory);
    }
    EXPECT_EQ(List(HgfsOpSearchRead, DriveName({"C"})).size(), 3u);
}

TEST_F(HgfsNames, LeavesOutNamesThatAreTooLong) {
    const std::string longest(1023, 'a');
    MemoryFs_Add("C:\\tmp\\" + longest, 0);
    MemoryFs_Add("C:\\tmp\\" + longest + 'b', 0);
    MemoryFs_Add("C:\\tmp\\z", 0);
    DiagCapture_Take();
    std::vector<std::string> entries;
    EXPECT_EQ(HgfsServerGetDents("C:\\tmp", &entries), HgfsErrorNone);
    EXPECT_THAT(entries, ::testing::ElementsAre(".", "..", longest, "z"));
    EXPECT_THAT(DiagCapture_Take().debug, ::testing::ElementsAre("HgfsServerGetDents: Error: Name \"" +
                                                                 longest + "b\" is too long.\n"));
    // The path of the one that fits a name does not fit a request: listed, with no attributes.
    std::vector<Entry> listed = List(HgfsOpSearchReadV3, DriveName({"C", "tmp"}));
    ASSERT_EQ(listed.size(), 4u);
    EXPECT_EQ(listed[2].attributes.mask, 0u);
    EXPECT_NE(listed[3].attributes.mask, 0u);
}

TEST_F(HgfsNames, ListsManyEntriesAndKeepsThemWhileTheyGo) {
    for (int i = 0; i < 10000; ++i) {
        MemoryFs_Add("C:\\tmp\\" + std::to_string(i), 0);
    }
    const uint32_t handle = Ask(OnName(HgfsOpSearchOpen, DriveName({"C", "tmp"}))).reply.handle;
    fs.files.erase("c:\\tmp\\0");
    HgfsPackets_Request request = OnHandle(HgfsOpSearchReadV2, handle);
    request.index = 2;
    HgfsPackets_Reply reply = Ask(request).reply;
    EXPECT_EQ(reply.name, "0");
    EXPECT_EQ(reply.attributes.mask, 0u);
    request.index = 10001;
    EXPECT_FALSE(Ask(request).reply.name.empty());
    for (uint32_t beyond : {10002u, 0xFFFFFFFFu}) {
        request.index = beyond;
        EXPECT_TRUE(Ask(request).reply.name.empty());
    }
}

TEST_F(HgfsNames, RefusesListingsOfWhatIsNone) {
    MemoryFs_Add("C:\\tmp\\f", 0);
    EXPECT_EQ(Status(OnName(HgfsOpSearchOpen, DriveName({"C", "tmp", "f"}))), HgfsStatusGenericError);
    EXPECT_EQ(Status(OnName(HgfsOpSearchOpenV3, DriveName({"C", "none"}))), HgfsStatusNoSuchFileOrDir);
    EXPECT_EQ(Status(OnHandle(HgfsOpSearchReadV3, 5)), HgfsStatusInvalidHandle);
    EXPECT_EQ(Status(OnHandle(HgfsOpSearchRead, MustOpen(DriveName({"C", "tmp", "f"})))),
              HgfsStatusInvalidHandle);
}

// ---- Volumes ----

TEST_F(HgfsNames, ReportsTheSpaceOfAVolume) {
    for (HgfsOp op : {HgfsOpQueryVolumeInfo, HgfsOpQueryVolumeInfoV3}) {
        HgfsPackets_Reply reply = Ask(OnName(op, DriveName({"C", "tmp", "none"}))).reply;
        EXPECT_EQ(reply.freeBytes, 1u << 20);
        EXPECT_EQ(reply.totalBytes, 8u << 20);
        EXPECT_EQ(Status(OnName(op, DriveName({"E"}))), HgfsStatusGenericError);
    }
}

TEST_F(HgfsNames, ReportsTheFullestVolumeForTheRootShare) {
    fs.volumes["A:\\"] = {0, 0, true};
    for (const std::string& name : {""s, "root"s, Name({"root", "drive"}), "ROOT"s}) {
        for (HgfsOp op : {HgfsOpQueryVolumeInfo, HgfsOpQueryVolumeInfoV3}) {
            HgfsPackets_Reply reply = Ask(OnName(op, name)).reply;
            EXPECT_EQ(reply.freeBytes, 1u << 10);
            EXPECT_EQ(reply.totalBytes, 4u << 10);
        }
    }
    EXPECT_EQ(Status(OnName(HgfsOpQueryVolumeInfo, Name({"root", "unc"}))), HgfsStatusInvalidName);
    for (auto& [root, volume] : fs.volumes) {
        volume.fails = true;
    }
    EXPECT_EQ(Status(OnName(HgfsOpQueryVolumeInfo, "root")), HgfsStatusGenericError);
    fs.failCall = fs.calls + 1;
    fs.failError = HgfsErrorAccessDenied;
    EXPECT_EQ(Status(OnName(HgfsOpQueryVolumeInfo, "root")), HgfsStatusAccessDenied);
}

} // namespace
