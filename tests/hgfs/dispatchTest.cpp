#include "hgfsFixture.h"

#include <algorithm>

namespace {

using HgfsDispatch = HgfsMemoryTest;

std::vector<uint8_t> Header(uint32_t id, uint32_t op, size_t size) {
    std::vector<uint8_t> packet(size);
    HgfsPacketWriter writer(packet);
    writer.U32(HgfsRequestHeader::Id, id);
    writer.U32(HgfsRequestHeader::Op, op);
    return packet;
}

void ExpectFailure(const std::vector<uint8_t>& reply, uint32_t id, HgfsStatus status) {
    ASSERT_EQ(reply.size(), kHgfsHeaderSize);
    HgfsPacketReader reader(reply);
    EXPECT_EQ(reader.U32(HgfsReplyHeader::Id), id);
    EXPECT_EQ(reader.U32(HgfsReplyHeader::Status), status);
}

TEST_F(HgfsDispatch, RefusesWhatIsShorterThanAHeader) {
    EXPECT_TRUE(SendBytes({}).empty());
    const std::vector<uint8_t> packet = {0x11, 0x22, 0x33, 0x44, 0, 0, 0};
    ExpectFailure(SendBytes(packet), 0x44332211, HgfsStatusProtocolError);
    ExpectFailure(SendBytes({0x11, 0x22}), 0x2211, HgfsStatusProtocolError);
}

TEST_F(HgfsDispatch, RefusesUnknownOperations) {
    ExpectFailure(SendBytes(Header(7, 40, 200)), 7, HgfsStatusProtocolError);
    ExpectFailure(SendBytes(Header(7, 0xFFFFFFFF, 200)), 7, HgfsStatusProtocolError);
}

// The smallest sizes, written down once more: hosts in the field depend on each.
TEST_F(HgfsDispatch, KnowsEachSmallestSize) {
    const uint32_t sizes[HgfsOpCount] = {22, 24, 26,  12, 13,  16, 12, 13, 59, 14, 13, 13, 18, 13,
                                         77, 25, 129, 16, 18,  16, 25, 25, 25, 34, 89, 32, 34, 20,
                                         33, 28, 20,  41, 145, 45, 41, 41, 58, 33, 50, 16};
    for (uint32_t op = 0; op < HgfsOpCount; ++op) {
        SCOPED_TRACE(kHgfsOps[op].name);
        ExpectFailure(SendBytes(Header(op, op, sizes[op] - 1)), op, HgfsStatusProtocolError);
        std::vector<uint8_t> reply = SendBytes(Header(op, op, sizes[op]));
        const bool open = op == HgfsOpOpenV2 || op == HgfsOpOpenV3; // these ask for more than a size
        EXPECT_EQ(HgfsPacketReader(reply).U32(HgfsReplyHeader::Status) == HgfsStatusProtocolError, open);
    }
}

TEST_F(HgfsDispatch, RefusesLinksAndLockChanges) {
    for (HgfsOp op :
         {HgfsOpCreateSymlink, HgfsOpServerLockChange, HgfsOpCreateSymlinkV3, HgfsOpServerLockChangeV3}) {
        ExpectFailure(SendBytes(Header(3, op, kHgfsOps[op].minimumSize)), 3, HgfsStatusOperationNotSupported);
    }
}

// A name's length is checked against what its packet holds: one byte more is refused, the exact one is not.
TEST_F(HgfsDispatch, ChecksNamesAgainstTheirPacket) {
    const std::string name = DriveName({"C", "tmp", "missing"});
    for (uint32_t op = 0; op < HgfsOpCount; ++op) {
        HgfsPackets_Request request = OnName(static_cast<HgfsOp>(op), name);
        request.newName = DriveName({"C", "tmp", "other"});
        request.mask = kHgfsMaskName;
        if (op == HgfsOpOpen || op == HgfsOpOpenV2 || op == HgfsOpOpenV3) {
            request.mask |= kHgfsMaskMode;
        } else {
            request.mask = 0;
        }
        std::vector<uint8_t> packet = HgfsPackets_Encode(request);
        if (packet.size() == kHgfsOps[op].minimumSize) {
            continue; // no name
        }
        SCOPED_TRACE(kHgfsOps[op].name);
        const size_t at = static_cast<size_t>(
            std::search(packet.begin(), packet.end(), name.begin(), name.end()) - packet.begin());
        const size_t length = at - (kHgfsOps[op].version == 3 ? HgfsNameV3::Bytes : HgfsNameV1::Bytes);
        for (uint32_t wrong : {static_cast<uint32_t>(packet.size()), 0x7FFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFF0u}) {
            std::vector<uint8_t> bad = packet;
            HgfsPacketWriter(bad).U32(length, wrong);
            ExpectFailure(SendBytes(bad), 0, HgfsStatusProtocolError);
        }
        std::vector<uint8_t> cut(packet.begin(), packet.end() - 1);
        ExpectFailure(SendBytes(cut), 0, HgfsStatusProtocolError);
    }
}

TEST_F(HgfsDispatch, ChecksTheSecondNameOfARename) {
    for (HgfsOp op : {HgfsOpRename, HgfsOpRenameV2, HgfsOpRenameV3}) {
        HgfsPackets_Request request = OnName(op, "a");
        request.newName = "bcd";
        std::vector<uint8_t> packet = HgfsPackets_Encode(request);
        const size_t fixed = kHgfsOps[op].version == 3 ? HgfsNameV3::EmptySize : HgfsNameV1::EmptySize;
        HgfsPacketWriter(packet).U32(packet.size() - 3 - fixed, 4);
        ExpectFailure(SendBytes(packet), 0, HgfsStatusProtocolError);
        // An old name that leaves no room for the new one's block.
        packet = HgfsPackets_Encode(request);
        HgfsPacketWriter(packet).U32(packet.size() - 4 - 2 * fixed, 5);
        ExpectFailure(SendBytes(packet), 0, HgfsStatusProtocolError);
    }
}

TEST_F(HgfsDispatch, AnswersNamesThatStopEarly) {
    for (const std::string& name : {Name({}), Name({"root"}), Name({"root", "drive"}), Name({"root", "unc"}),
                                    Name({"root", "unc", "srv"})}) {
        EXPECT_EQ(Status(OnName(HgfsOpGetattr, name)), HgfsStatusInvalidName);
        EXPECT_EQ(Status(OnName(HgfsOpSearchOpen, name)), HgfsStatusInvalidName);
        EXPECT_EQ(Status(OnName(HgfsOpSearchOpenV3, name)), HgfsStatusInvalidName);
    }
    EXPECT_EQ(Status(OnName(HgfsOpGetattr, Name({"nowhere", "a"}))), HgfsStatusNoSuchFileOrDir);
    EXPECT_EQ(Status(OnName(HgfsOpGetattr, Name({"root", "disk", "C"}))), HgfsStatusNoSuchFileOrDir);
    EXPECT_EQ(Status(OnName(HgfsOpGetattr, DriveName({"C", "a", "..", "b"}))), HgfsStatusInvalidName);
}

TEST_F(HgfsDispatch, AClosedSessionAnswersNothing) {
    EXPECT_EQ(SendBytes(Header(1, 40, 8)).size(), kHgfsHeaderSize);
    hgfsServer.session->state = HgfsSessionState::Closed;
    EXPECT_TRUE(SendBytes(Header(1, 40, 8)).empty());
}

TEST_F(HgfsDispatch, ASessionOfAnotherKindHasNoPendingReply) {
    SendBytes(Header(1, 40, 8));
    hgfsServer.session->kind = HgfsSessionKind::Other;
    EXPECT_TRUE(SendBytes(Header(1, 40, 8)).empty());
    EXPECT_EQ(hgfsServer.session->references, 1u);
}

TEST_F(HgfsDispatch, HoldsNoReferenceBetweenPackets) {
    MustOpen(DriveName({"C", "tmp", "f"}));
    EXPECT_EQ(hgfsServer.session->references, 1u);
    Status(OnHandle(HgfsOpClose, 99));
    EXPECT_EQ(hgfsServer.session->references, 1u);
    EXPECT_FALSE(hgfsServer.pending);
}

TEST(HgfsStart, FailsWithItsPlatform) {
    MemoryFs_Reset().startUpError = 127;
    EXPECT_FALSE(HgfsServerStartUp(MemoryFs_Platform(), 30, nullptr));
    EXPECT_TRUE(hgfsServer.shares.empty());
}

TEST(HgfsStatusMap, KnowsWindowsErrors) {
    const std::pair<uint32_t, HgfsStatus> cases[] = {{0, HgfsStatusSuccess},
                                                     {1, HgfsStatusGenericError},
                                                     {2, HgfsStatusNoSuchFileOrDir},
                                                     {3, HgfsStatusNoSuchFileOrDir},
                                                     {5, HgfsStatusAccessDenied},
                                                     {6, HgfsStatusInvalidHandle},
                                                     {8, HgfsStatusGenericError},
                                                     {17, HgfsStatusNotSameDevice},
                                                     {32, HgfsStatusSharingViolation},
                                                     {39, HgfsStatusNoSpace},
                                                     {50, HgfsStatusOperationNotSupported},
                                                     {80, HgfsStatusFileExists},
                                                     {87, HgfsStatusInvalidParameter},
                                                     {112, HgfsStatusNoSpace},
                                                     {123, HgfsStatusInvalidName},
                                                     {145, HgfsStatusDirNotEmpty},
                                                     {183, HgfsStatusFileExists},
                                                     {1117, HgfsStatusGenericError},
                                                     {1728, HgfsStatusProtocolError},
                                                     {0xFFFFFFFF, HgfsStatusGenericError}};
    for (auto [error, status] : cases) {
        EXPECT_EQ(HgfsServer_MapStatus(error), status) << error;
    }
}

TEST(HgfsStatusMap, KnowsNameStatuses) {
    const uint32_t errors[] = {0, 123, 123, 123, 123, 123, 123, 3, 5, 123, 8, 123};
    for (uint32_t status = 0; status < std::size(errors); ++status) {
        EXPECT_EQ(HgfsServer_MapNameStatus(status), errors[status]) << status;
    }
    EXPECT_THROW(HgfsServer_MapNameStatus(12), DiagPanic);
    EXPECT_THAT(DiagCapture_Take().warning,
                ::testing::ElementsAre(::testing::StartsWith("NOT_IMPLEMENTED "
                                                             "toolbox/windows/hgfslib/hgfsServerWin32:")));
}

// ---- Names to paths ----

using HgfsShares = HgfsMemoryTest;

TEST_F(HgfsShares, ResolvesNames) {
    const std::pair<std::string, std::string> cases[] = {
        {DriveName({"C", "tmp", "f"}), "C:\\tmp\\f"},
        {DriveName({"C"}), "C:\\"},
        {Name({"ROOT", "drive", "C", "a:b"}), "C:\\a^%b"},
        {Name({"Root", "unc", "srv", "share", "con"}), "\\\\srv\\share\\con%"},
    };
    for (const auto& [name, path] : cases) {
        HgfsShareInfo info;
        EXPECT_EQ(HgfsServerGetShareInfo(name, kHgfsCaseDefault, &info), HgfsNameComplete);
        EXPECT_EQ(info.path, path);
        EXPECT_EQ(info.shareName, "root");
        EXPECT_TRUE(info.readAllowed && info.writeAllowed);
    }
}

TEST_F(HgfsShares, PrefersTheShareOfTheSameCase) {
    hgfsServer.shares.push_back({"Root", "E:\\data", true, false});
    HgfsShareInfo info;
    EXPECT_EQ(HgfsServerGetShareInfo(Name({"Root", "f"}), 0, &info), HgfsNameComplete);
    EXPECT_EQ(info.path, "E:\\data\\f");
    EXPECT_FALSE(info.writeAllowed);
    EXPECT_EQ(HgfsServerGetShareInfo(Name({"Root"}), 0, &info), HgfsNameComplete);
    EXPECT_EQ(info.path, "E:\\data");
    EXPECT_EQ(HgfsServerGetShareInfo(Name({"rOOT"}), 0, &info), HgfsNameIncompleteRoot);
}

TEST_F(HgfsShares, RefusesWhatDoesNotFit) {
    HgfsShareInfo info;
    info.path = "untouched";
    const std::string longest(kHgfsLocalPathMax - 3 - 1, 'a'); // behind `C:` and its `\`, with a NUL
    EXPECT_EQ(HgfsServerGetShareInfo(DriveName({"C", longest + 'a'}), 0, &info), HgfsNameFailure);
    EXPECT_EQ(HgfsServerGetShareInfo(Name({"root", "drive", std::string(6142, 'd')}), 0, &info),
              HgfsNameFailure);
    EXPECT_EQ(info.path, "untouched");
    hgfsServer.shares.push_back({"far", std::string(kHgfsLocalPathMax, 'p'), true, true});
    EXPECT_EQ(HgfsServerGetShareInfo(Name({"far", "f"}), 0, &info), HgfsNameTooLong);
    hgfsServer.shares.back().localPath.pop_back();
    EXPECT_EQ(HgfsServerGetShareInfo(Name({"far"}), 0, &info), HgfsNameComplete);
    EXPECT_EQ(HgfsServerGetShareInfo(Name({"far", "f"}), 0, &info), HgfsNameFailure);
}

TEST_F(HgfsShares, BoundsDrivePathsInUtf16Units) {
    const std::string two = "\xC3\xA4";          // one unit in two bytes
    const std::string four = "\xF0\x9F\x98\x80"; // two units
    auto path = [](size_t count, const std::string& character, const std::string& end) {
        std::string text = "C:\\";
        for (size_t i = 0; i < count; ++i) {
            text += character;
        }
        return text + end;
    };
    EXPECT_EQ(HgfsServerCheckPath(path(256, "a", "")), HgfsErrorNone);
    EXPECT_EQ(HgfsServerCheckPath(path(257, "a", "")), HgfsErrorInvalidName);
    EXPECT_EQ(HgfsServerCheckPath(path(256, two, "")), HgfsErrorNone);
    EXPECT_EQ(HgfsServerCheckPath(path(257, two, "")), HgfsErrorInvalidName);
    EXPECT_EQ(HgfsServerCheckPath(path(128, four, "")), HgfsErrorNone);
    EXPECT_EQ(HgfsServerCheckPath(path(128, four, "a")), HgfsErrorInvalidName);
    EXPECT_EQ(HgfsServerCheckPath("\\\\srv\\" + std::string(400, 'a')), HgfsErrorNone);
    EXPECT_EQ(HgfsServerCheckPath("C:\\\xFF"), HgfsErrorInvalidName);
    EXPECT_EQ(HgfsServerCheckPath("C:\\\xED\xA0\x80"), HgfsErrorInvalidName); // a lone surrogate
}

// Every request on a path that is too long is refused before the file system hears of it.
TEST_F(HgfsShares, RefusesLongPathsInEveryOperation) {
    const std::string name = DriveName({"C", std::string(257, 'a')});
    fs.calls = 0;
    for (uint32_t i = 0; i < HgfsOpCount; ++i) {
        const HgfsOp op = static_cast<HgfsOp>(i);
        HgfsPackets_Request request = OnName(op, name);
        request.newName = DriveName({"C", "tmp", "x"});
        const bool open = op == HgfsOpOpen || op == HgfsOpOpenV2 || op == HgfsOpOpenV3;
        request.mask = open ? kHgfsMaskOpenV1 : 0;
        if (HgfsPackets_Encode(request).size() == kHgfsOps[op].minimumSize || op == HgfsOpWrite ||
            op == HgfsOpWriteV3) {
            continue;
        }
        EXPECT_EQ(Status(request), HgfsStatusInvalidName) << kHgfsOps[op].name;
        std::swap(request.name, request.newName);
        if (op == HgfsOpRename || op == HgfsOpRenameV2 || op == HgfsOpRenameV3) {
            EXPECT_EQ(Status(request), HgfsStatusInvalidName) << kHgfsOps[op].name;
        }
    }
    EXPECT_EQ(fs.calls, 0u);
}

} // namespace
