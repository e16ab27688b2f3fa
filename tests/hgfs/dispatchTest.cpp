#include "hgfsFixture.h"

#include <algorithm>

namespace {

using HgfsDispatch = HgfsMemoryTest;
using HgfsShares = HgfsMemoryTest;

std::vector<uint8_t> Header(uint32_t id, uint32_t op, size_t size) {
    std::vector<uint8_t> packet(size);
    HgfsPacketWriter writer(packet);
    writer.U32(HgfsRequestHeader::Id, id);
    writer.U32(HgfsRequestHeader::Op, op);
    return packet;
}

void ExpectFailure(const std::vector<uint8_t>& packet, uint32_t id, HgfsStatus status) {
    const std::vector<uint8_t> reply = SendBytes(packet);
    ASSERT_EQ(reply.size(), kHgfsHeaderSize);
    HgfsPacketReader reader(reply);
    EXPECT_EQ(reader.U32(HgfsReplyHeader::Id), id);
    EXPECT_EQ(reader.U32(HgfsReplyHeader::Status), status);
}

TEST_F(HgfsDispatch, RefusesPacketsThatAreNone) {
    EXPECT_TRUE(SendBytes({}).empty());
    ExpectFailure({0x11, 0x22, 0x33, 0x44, 0, 0, 0}, 0x44332211, HgfsStatusProtocolError);
    ExpectFailure({0x11, 0x22}, 0x2211, HgfsStatusProtocolError);
    ExpectFailure(Header(7, HgfsOpCount, 200), 7, HgfsStatusProtocolError);
    ExpectFailure(Header(7, 0xFFFFFFFF, 200), 7, HgfsStatusProtocolError);
}

TEST_F(HgfsDispatch, KnowsEachSmallestSize) {
    for (uint32_t op = 0; op < HgfsOpCount; ++op) {
        SCOPED_TRACE(kHgfsOps[op].name);
        const uint32_t size = kHgfsOps[op].minimumSize;
        ExpectFailure(Header(op, op, size - 1), op, HgfsStatusProtocolError);
        if (op == HgfsOpCreateSymlink || op == HgfsOpServerLockChange || op == HgfsOpCreateSymlinkV3 ||
            op == HgfsOpServerLockChangeV3) {
            ExpectFailure(Header(op, op, size), op, HgfsStatusOperationNotSupported);
            continue;
        }
        const bool wantsMask = op == HgfsOpOpenV2 || op == HgfsOpOpenV3;
        const std::vector<uint8_t> reply = SendBytes(Header(op, op, size));
        EXPECT_EQ(HgfsPacketReader(reply).U32(HgfsReplyHeader::Status) == HgfsStatusProtocolError, wantsMask);
    }
}

// A request of every operation that takes a name.
std::vector<HgfsPackets_Request> NamedRequests(const std::string& name, const std::string& newName) {
    std::vector<HgfsPackets_Request> requests;
    for (uint32_t op = 0; op < HgfsOpCount; ++op) {
        HgfsPackets_Request request = Renaming(name, newName, static_cast<HgfsOp>(op));
        const bool open = op == HgfsOpOpen || op == HgfsOpOpenV2 || op == HgfsOpOpenV3;
        request.mask = open ? kHgfsMaskOpenV1 : 0;
        if (HgfsPackets_Encode(request).size() > kHgfsOps[op].minimumSize) {
            requests.push_back(request);
        }
    }
    EXPECT_EQ(requests.size(), 25u);
    return requests;
}

bool IsRename(HgfsOp op) {
    return op == HgfsOpRename || op == HgfsOpRenameV2 || op == HgfsOpRenameV3;
}

// A name's length is checked against what its packet holds, and what has to follow it there.
TEST_F(HgfsDispatch, ChecksNamesAgainstTheirPacket) {
    for (const HgfsPackets_Request& request : NamedRequests(Tmp("missing"), Tmp("other"))) {
        SCOPED_TRACE(kHgfsOps[request.op].name);
        const size_t fixed = kHgfsOps[request.op].version == 3 ? HgfsNameV3::Bytes : HgfsNameV1::Bytes;
        const std::vector<uint8_t> packet = HgfsPackets_Encode(request);
        ExpectFailure({packet.begin(), packet.end() - 1}, 0, HgfsStatusProtocolError);
        for (const std::string* name : {&request.name, &request.newName}) {
            const auto at = std::search(packet.begin(), packet.end(), name->begin(), name->end());
            const bool first = name == &request.name;
            if (!first && !IsRename(request.op)) {
                continue;
            }
            const size_t behind = first && IsRename(request.op) ? fixed + 1 : 0;
            const auto oneTooMany = static_cast<uint32_t>(static_cast<size_t>(packet.end() - at) - behind);
            for (uint32_t wrong : {oneTooMany, 0x7FFFFFFFu, 0xFFFFFFF0u, 0xFFFFFFFFu}) {
                std::vector<uint8_t> bad = packet;
                HgfsPacketWriter(bad).U32(static_cast<size_t>(at - packet.begin()) - fixed, wrong);
                ExpectFailure(bad, 0, HgfsStatusProtocolError);
            }
        }
    }
}

TEST_F(HgfsDispatch, AnswersNamesThatStopEarlyOrLeadNowhere) {
    for (const std::string& name :
         {Name({}), Name({"root"}), Name({"root", "drive"}), Name({"root", "unc"}),
          Name({"root", "unc", "srv"}), DriveName({"C", "a", "..", "b"}), std::string("\0root", 5)}) {
        EXPECT_EQ(Status(OnName(HgfsOpGetattr, name)), HgfsStatusInvalidName);
        EXPECT_EQ(Status(OnName(HgfsOpSearchOpenV3, name)), HgfsStatusInvalidName);
    }
    EXPECT_EQ(Status(OnName(HgfsOpGetattr, Name({"nowhere", "a"}))), HgfsStatusNoSuchFileOrDir);
    EXPECT_EQ(Status(OnName(HgfsOpGetattr, Name({"root", "disk", "C"}))), HgfsStatusNoSuchFileOrDir);
}

TEST_F(HgfsDispatch, OnlyAnOpenSessionOfTheChannelAnswers) {
    EXPECT_EQ(SendBytes(Header(1, 40, 8)).size(), kHgfsHeaderSize);
    hgfsServer.session->kind = HgfsSessionKind::Other;
    EXPECT_TRUE(SendBytes(Header(1, 40, 8)).empty());
    EXPECT_EQ(hgfsServer.session->references, 1u);
    hgfsServer.session->state = HgfsSessionState::Closed;
    EXPECT_TRUE(SendBytes(Header(1, 40, 8)).empty());
}

TEST(HgfsStatusMap, KnowsWindowsErrors) {
    const uint32_t errors[] = {0,  1,  2,  3,   5,   6,   8,   17,   32,   39,
                               50, 80, 87, 112, 123, 145, 183, 1117, 1728, 0xFFFFFFFF};
    const uint32_t statuses[] = {0, 10, 1, 1, 8, 2, 10, 16, 11, 12, 13, 4, 15, 12, 9, 6, 4, 10, 7, 10};
    for (size_t i = 0; i < std::size(errors); ++i) {
        EXPECT_EQ(HgfsServer_MapStatus(errors[i]), statuses[i]) << errors[i];
    }
}

TEST(HgfsStatusMap, KnowsNameStatuses) {
    const uint32_t errors[] = {0, 123, 123, 123, 123, 123, 123, 3, 5, 123, 8, 123};
    for (uint32_t status = 0; status < std::size(errors); ++status) {
        EXPECT_EQ(HgfsServer_MapNameStatus(status), errors[status]) << status;
    }
    EXPECT_THROW(HgfsServer_MapNameStatus(12), DiagPanic);
    EXPECT_THAT(DiagCapture_Take().warning, ::testing::ElementsAre(::testing::StartsWith(
                                                "NOT_IMPLEMENTED toolbox/windows/hgfslib/hgfsServerWin32:")));
}

// ---- Names to paths ----

TEST_F(HgfsShares, ResolvesNames) {
    hgfsServer.shares.push_back({"Root", "E:\\data", true, false});
    const std::pair<std::string, std::string> cases[] = {
        {Tmp("f"), "C:\\tmp\\f"},
        {DriveName({"C"}), "C:\\"},
        {Name({"ROOT", "drive", "C", "a:b"}), "C:\\a^%b"},
        {Name({"rOOT", "unc", "srv", "share", "con"}), "\\\\srv\\share\\con%"},
        {Name({"Root", "f"}), "E:\\data\\f"}, // the same case comes first
        {Name({"Root"}), "E:\\data"},
    };
    for (const auto& [name, path] : cases) {
        HgfsShareInfo info;
        EXPECT_EQ(HgfsServerGetShareInfo(name, kHgfsCaseDefault, &info), HgfsNameComplete);
        EXPECT_EQ(info.path, path);
        EXPECT_EQ(info.writeAllowed, !path.starts_with("E:"));
    }
}

TEST_F(HgfsShares, RefusesWhatDoesNotFit) {
    hgfsServer.shares.push_back({"far", std::string(kHgfsLocalPathMax - 1, 'p'), true, true});
    hgfsServer.shares.push_back({"farther", std::string(kHgfsLocalPathMax, 'p'), true, true});
    const std::string most(kHgfsLocalPathMax - 4 - 1, 'a'); // behind `C:\` and another `\`, with a NUL
    const std::pair<std::string, HgfsNameStatus> cases[] = {
        {DriveName({"C", most}), HgfsNameComplete},
        {DriveName({"C", most + 'a'}), HgfsNameFailure},
        {DriveName({std::string(6142, 'd')}), HgfsNameFailure},
        {Name({"far"}), HgfsNameComplete},
        {Name({"far", "f"}), HgfsNameFailure},
        {Name({"farther", "f"}), HgfsNameTooLong},
    };
    for (const auto& [name, status] : cases) {
        HgfsShareInfo info;
        EXPECT_EQ(HgfsServerGetShareInfo(name, 0, &info), status) << name.size();
        EXPECT_EQ(info.path.empty(), status != HgfsNameComplete);
    }
}

TEST_F(HgfsShares, BoundsDrivePathsInUtf16Units) {
    std::string faces; // 256 units in 512 bytes
    for (int i = 0; i < 128; ++i) {
        faces += "\xF0\x9F\x98\x80";
    }
    const std::pair<std::string, uint32_t> cases[] = {
        {"C:\\" + std::string(256, 'a'), HgfsErrorNone},
        {"C:\\" + std::string(257, 'a'), HgfsErrorInvalidName},
        {"C:\\" + faces, HgfsErrorNone},
        {"C:\\" + faces + "a", HgfsErrorInvalidName},
        {"\\\\srv\\" + std::string(400, 'a'), HgfsErrorNone},
        {"C:\\\xFF", HgfsErrorInvalidName},
        {"C:\\\xED\xA0\x80", HgfsErrorInvalidName}, // a lone surrogate
    };
    for (const auto& [path, error] : cases) {
        EXPECT_EQ(HgfsServerCheckPath(path), error) << path;
    }
}

// Every request on a path that is too long is refused before the file system hears of it.
TEST_F(HgfsShares, RefusesLongPathsInEveryOperation) {
    for (HgfsPackets_Request request : NamedRequests(DriveName({"C", std::string(257, 'a')}), Tmp("x"))) {
        EXPECT_EQ(Status(request), HgfsStatusInvalidName) << kHgfsOps[request.op].name;
        std::swap(request.name, request.newName);
        if (IsRename(request.op)) {
            EXPECT_EQ(Status(request), HgfsStatusInvalidName) << kHgfsOps[request.op].name;
        }
    }
    EXPECT_EQ(fs.calls, 0u);
}

} // namespace
