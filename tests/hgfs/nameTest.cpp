#include "hgfsFixture.h"

#include <array>

namespace {

using HgfsNames = HgfsMemoryTest;

constexpr HgfsOp kGetattr[] = {HgfsOpGetattr, HgfsOpGetattrV2, HgfsOpGetattrV3};
constexpr HgfsOp kSetattr[] = {HgfsOpSetattr, HgfsOpSetattrV2, HgfsOpSetattrV3};

// ---- Attributes ----

TEST_F(HgfsNames, ReportsAttributes) {
    MemoryFile& file =
        MemoryFs_Add("C:\\tmp\\f", kHgfsFileHidden | kHgfsFileArchive | kHgfsFileReadOnly, "12345");
    file.info.creationTime = 0x0102030405060708;
    file.info.accessTime = 2;
    file.info.writeTime = 3;
    file.info.changeTime = 4;
    file.info.hasMoreStreams = true;
    for (HgfsOp op : kGetattr) {
        HgfsPackets_Attributes attributes = Ask(OnName(op, Tmp("f"))).attributes;
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
            EXPECT_EQ(attributes.fileId, file.info.id.index);
            EXPECT_EQ(attributes.volumeId, 0x12345678u);
        }
        attributes = Ask(OnName(op, DriveName({"C", "tmp"}))).attributes;
        EXPECT_EQ(attributes.type, kHgfsTypeDirectory);
        EXPECT_EQ(attributes.ownerPerms, 7);
    }
}

TEST_F(HgfsNames, ReportsALinkAsARegularFileWithItsTargetIfThatFits) {
    MemoryFile& link = MemoryFs_Add("C:\\tmp\\link", kHgfsFileDirectory);
    link.info.isLink = true;
    for (HgfsOp op : kGetattr) {
        // The longest replies in which it fits: 117 and 137 bytes without it.
        const size_t most = kHgfsPacketMax - (op == HgfsOpGetattrV3 ? 137 : 117);
        for (size_t length : {size_t{1}, most, most + 1}) {
            link.info.linkTarget = std::string(length, 't');
            const HgfsPackets_Reply reply = Ask(OnName(op, Tmp("link")));
            EXPECT_EQ(reply.attributes.type, kHgfsTypeRegular);
            EXPECT_EQ(reply.name, op == HgfsOpGetattr || length > most ? "" : link.info.linkTarget);
        }
    }
}

HgfsPackets_Request Setting(HgfsOp op, uint64_t mask) {
    HgfsPackets_Request request = OnName(op, Tmp("f"));
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

using Fields = std::array<uint64_t, 6>;
Fields FieldsOf(const MemoryFile& file) {
    return {file.data.size(),    file.info.creationTime, file.info.accessTime,
            file.info.writeTime, file.info.changeTime,   file.info.attributes};
}

TEST_F(HgfsNames, SetsWhatTheMaskSaysAndNothingElse) {
    struct Case {
        uint64_t mask;
        size_t field;
        uint64_t value;
    };
    const Case cases[] = {
        {kHgfsBlockSize, 0, 3},
        {kHgfsBlockCreation, 1, 11},
        {kHgfsBlockAccess, 2, 12},
        {kHgfsBlockWrite, 3, 13},
        {kHgfsBlockChange, 4, 14},
        {kHgfsBlockOwnerPerms, 5, kHgfsFileReadOnly | kHgfsFileHidden},
        {kHgfsBlockAttributes, 5, kHgfsFileSystem},
        {kHgfsBlockGroupPerms | kHgfsBlockOtherPerms | kHgfsBlockUserId | kHgfsBlockFileId, 0, 5},
    };
    for (HgfsOp op : kSetattr) {
        for (const Case& c : cases) {
            SCOPED_TRACE(c.mask);
            MemoryFile& file = MemoryFs_Add("C:\\tmp\\f", kHgfsFileHidden, "12345");
            Fields expected = FieldsOf(file);
            if (op != HgfsOpSetattr || c.mask != kHgfsBlockAttributes) { // which version 1 does not have
                expected[c.field] = c.value;
            }
            EXPECT_EQ(Status(Setting(op, c.mask)), HgfsStatusSuccess);
            EXPECT_EQ(FieldsOf(file), expected);
        }
    }
}

TEST_F(HgfsNames, RefusesNumbersThatTheSystemCannotHold) {
    MemoryFs_Add("C:\\tmp\\f", 0);
    for (HgfsOp op : kSetattr) {
        for (uint64_t mask : {kHgfsBlockSize, kHgfsBlockCreation, kHgfsBlockChange}) {
            HgfsPackets_Request request = Setting(op, mask);
            request.change.size = request.change.creationTime = request.change.changeTime = uint64_t{1} << 63;
            EXPECT_EQ(Status(request), HgfsStatusInvalidParameter);
        }
    }
}

// Versions 2 and 3 act on an open file; the name is not looked at.
TEST_F(HgfsNames, ActsOnOpenFiles) {
    for (HgfsOp op : {HgfsOpGetattrV2, HgfsOpGetattrV3, HgfsOpSetattrV2, HgfsOpSetattrV3, HgfsOpRenameV2,
                      HgfsOpRenameV3, HgfsOpDeleteFileV2, HgfsOpDeleteFileV3}) {
        SCOPED_TRACE(kHgfsOps[op].name);
        MemoryFs_Add("C:\\tmp\\f", 0, "12345");
        for (uint32_t mode : {kHgfsModeRead, kHgfsModeReadWrite}) { // whatever it was opened for
            HgfsPackets_Request request = Setting(op, kHgfsBlockSize);
            request.name = "";
            request.newName = Tmp("to");
            request.handle = MustOpen(Tmp("f"), mode);
            request.mask = kHgfsMaskHandle;
            const HgfsPackets_Reply reply = Ask(request);
            EXPECT_EQ(reply.status, HgfsStatusSuccess);
            if (op == HgfsOpGetattrV2 || op == HgfsOpGetattrV3) {
                EXPECT_EQ(reply.attributes.size, 5u);
            } else if (op == HgfsOpSetattrV2 || op == HgfsOpSetattrV3) {
                EXPECT_EQ(MemoryFs_Find("C:\\tmp\\f")->data.size(), 3u);
            } else {
                EXPECT_EQ(MemoryFs_Find("C:\\tmp\\f"), nullptr);
            }
            if (op == HgfsOpRenameV2 || op == HgfsOpRenameV3) {
                request.newName = Tmp("f"); // the handle has followed
                EXPECT_EQ(Status(request), HgfsStatusSuccess);
            }
            request.handle = 999;
            EXPECT_EQ(Status(request), HgfsStatusInvalidHandle);
        }
    }
}

// ---- Directories and names ----

TEST_F(HgfsNames, ADirectoryGetsItsAttributesOrIsNotLeftBehind) {
    HgfsPackets_Request request = OnName(HgfsOpCreateDirV3, Tmp("d"));
    request.mask = kHgfsMaskAttributes;
    request.attributes = kHgfsAttrHidden;
    fs.failCall = fs.calls + 2;
    EXPECT_EQ(Status(request), HgfsStatusGenericError);
    EXPECT_EQ(MemoryFs_Find("C:\\tmp\\d"), nullptr);
    EXPECT_EQ(Status(request), HgfsStatusSuccess);
    EXPECT_EQ(MemoryFs_Find("C:\\tmp\\d")->info.attributes, kHgfsFileDirectory | kHgfsFileHidden);
}

TEST_F(HgfsNames, PassesErrorsOfTheFileSystemOn) {
    MemoryFs_Add("C:\\tmp\\f", 0);
    fs.failError = HgfsErrorSharingViolation;
    for (HgfsOp op : {HgfsOpOpen, HgfsOpGetattr, HgfsOpSetattr, HgfsOpCreateDir, HgfsOpDeleteFile,
                      HgfsOpDeleteDir, HgfsOpRename, HgfsOpSearchOpen}) {
        fs.failCall = fs.calls + 1;
        EXPECT_EQ(Status(Renaming(Tmp("f"), Tmp("g"), op)), HgfsStatusSharingViolation) << kHgfsOps[op].name;
    }
}

// ---- Listings ----

TEST_F(HgfsNames, LeavesOutNamesThatAreTooLong) {
    const std::string longest(1023, 'a');
    MemoryFs_Add("C:\\tmp\\" + longest, 0);
    MemoryFs_Add("C:\\tmp\\" + longest + 'b', 0);
    MemoryFs_Add("C:\\tmp\\z", 0);
    const std::vector<HgfsPackets_Reply> listed = List(DriveName({"C", "tmp"}));
    ASSERT_EQ(listed.size(), 4u);
    EXPECT_EQ(listed[2].name, longest);
    EXPECT_EQ(listed[2].attributes.mask, 0u); // its path does not fit a request
    EXPECT_EQ(listed[3].name, "z");
    EXPECT_EQ(listed[3].attributes.mask, 0x14FBFu); // all but the volume
    EXPECT_THAT(DiagCapture_Take().debug,
                ::testing::Contains("HgfsServerGetDents: Error: Name \"" + longest + "b\" is too long.\n"));
}

TEST_F(HgfsNames, ListsManyEntriesAndKeepsThemWhileTheyGo) {
    for (int i = 0; i < 10000; ++i) {
        MemoryFs_Add("C:\\tmp\\" + std::to_string(i), 0);
    }
    HgfsPackets_Request request = OnName(HgfsOpSearchOpen, DriveName({"C", "tmp"}));
    request.handle = Ask(request).handle;
    fs.files.erase("c:\\tmp\\0");
    request.op = HgfsOpSearchReadV2;
    request.index = 2;
    HgfsPackets_Reply reply = Ask(request);
    EXPECT_EQ(reply.name, "0");
    EXPECT_EQ(reply.attributes.mask, 0u);
    for (uint32_t index : {10001u, 10002u, 0xFFFFFFFFu}) {
        request.index = index;
        EXPECT_EQ(Ask(request).name.empty(), index > 10001);
    }
}

TEST_F(HgfsNames, ReadsOpenListingsOnly) {
    EXPECT_EQ(Status(OnHandle(HgfsOpSearchReadV3, 5)), HgfsStatusInvalidHandle);
    EXPECT_EQ(Status(OnHandle(HgfsOpSearchRead, MustOpen(Tmp("f")))), HgfsStatusInvalidHandle);
}

// ---- Volumes ----

TEST_F(HgfsNames, ReportsTheSpaceOfAVolumeOrOfTheFullest) {
    fs.volumes["A:\\"] = {0, 0, true};
    for (HgfsOp op : {HgfsOpQueryVolumeInfo, HgfsOpQueryVolumeInfoV3}) {
        const HgfsPackets_Reply reply = Ask(OnName(op, Tmp("none")));
        EXPECT_EQ(reply.freeBytes, 1u << 20);
        EXPECT_EQ(reply.totalBytes, 8u << 20);
        for (const std::string& name : {Name({}), Name({"ROOT"}), Name({"root", "drive"})}) {
            const HgfsPackets_Reply fullest = Ask(OnName(op, name));
            EXPECT_EQ(fullest.freeBytes, 1u << 10);
            EXPECT_EQ(fullest.totalBytes, 4u << 10);
        }
        EXPECT_EQ(Status(OnName(op, DriveName({"A"}))), HgfsStatusGenericError);
        EXPECT_EQ(Status(OnName(op, Name({"root", "unc"}))), HgfsStatusInvalidName);
    }
    for (auto& [root, volume] : fs.volumes) {
        volume.fails = true;
    }
    EXPECT_EQ(Status(OnName(HgfsOpQueryVolumeInfo, "root")), HgfsStatusGenericError);
    fs.failCall = fs.calls + 1;
    fs.failError = HgfsErrorAccessDenied;
    EXPECT_EQ(Status(OnName(HgfsOpQueryVolumeInfo, "root")), HgfsStatusAccessDenied);
}

} // namespace
