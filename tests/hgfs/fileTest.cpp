#include "hgfsFixture.h"

namespace {

using HgfsFile = HgfsMemoryTest;
using ::testing::Contains;
using ::testing::Each;

// ---- Opening ----

struct PlanCase {
    const char* what;
    HgfsOpenRequest request;
    uint32_t error;
    HgfsOpenArguments plan;
};

TEST(HgfsPlanOpen, TurnsFieldsIntoArguments) {
    constexpr uint32_t kFlags = kHgfsFlagBackupSemantics | kHgfsFlagOverlapped;
    const PlanCase cases[] = {
        {"read", {.mask = 1, .mode = 0}, 0, {0x80000000, 7, 3, kFlags}},
        {"write", {.mask = 1, .mode = 1}, 0, {0x40000000, 7, 3, kFlags}},
        {"both", {.mask = 1, .mode = 2}, 0, {0xC0000000, 7, 3, kFlags}},
        {"no such mode", {.mask = 1, .mode = 3}, HgfsErrorProtocol, {}},
        {"sequential", {.mask = 1, .mode = 4}, 0, {0x80000000, 7, 3, kHgfsFlagBackupSemantics}},
        {"sequential, no such mode", {.mask = 1, .mode = 7}, HgfsErrorProtocol, {}},
        {"flags 1", {.mask = 3, .flags = 1}, 0, {0x80000000, 7, 5, kFlags}},
        {"flags 2", {.mask = 3, .flags = 2}, 0, {0x80000000, 7, 4, kFlags}},
        {"flags 3", {.mask = 3, .flags = 3}, 0, {0x80000000, 7, 1, kFlags}},
        {"flags 4", {.mask = 3, .flags = 4}, 0, {0x80000000, 7, 2, kFlags}},
        {"flags 5", {.mask = 3, .flags = 5}, HgfsErrorProtocol, {}},
        {"flags below 0", {.mask = 3, .flags = 0xFFFFFFFF}, HgfsErrorProtocol, {}},
        {"flags not valid", {.mask = 1, .flags = 5}, 0, {0x80000000, 7, 3, kFlags}},
        {"access 0", {.mask = 0x101}, 0, {0, 7, 3, kFlags}},
        {"synchronize", {.mask = 0x101, .desiredAccess = 0x100000}, 0, {0x100000, 7, 3, kFlags}},
        {"read attributes", {.mask = 0x101, .desiredAccess = 128}, 0, {128, 7, 3, kFlags}},
        {"both of these", {.mask = 0x101, .desiredAccess = 0x100080}, 0, {0x100081, 7, 3, kFlags}},
        {"write data", {.mask = 0x101, .desiredAccess = 2}, 0, {3, 7, 3, kFlags}},
        {"access, not mode", {.mask = 0x101, .mode = 3, .desiredAccess = 1}, 0, {1, 7, 3, kFlags}},
        {"shares nothing, attributes", {.mask = 0x301, .desiredAccess = 128}, 0, {128, 0, 3, kFlags}},
        {"shares nothing, access 0", {.mask = 0x301}, 0, {0, 0, 3, kFlags}},
        {"shares nothing, data", {.mask = 0x301, .desiredAccess = 1}, 0, {1, 1, 3, kFlags}},
        {"read-only", {.mask = 9, .ownerPerms = 5}, 0, {0x80000000, 7, 3, kFlags | 1}},
        {"writable", {.mask = 9, .ownerPerms = 2}, 0, {0x80000000, 7, 3, kFlags}},
        {"hidden", {.mask = 0x41, .attributes = 1}, 0, {0x80000000, 7, 3, kFlags | 2}},
        {"system", {.mask = 0x41, .attributes = 2}, 0, {0x80000000, 7, 3, kFlags | 4}},
        {"archive and others", {.mask = 0x41, .attributes = ~3ull}, 0, {0x80000000, 7, 3, kFlags | 32}},
    };
    for (const PlanCase& c : cases) {
        SCOPED_TRACE(c.what);
        HgfsOpenArguments plan{};
        EXPECT_EQ(HgfsServerPlanOpen(c.request, &plan), c.error);
        EXPECT_EQ(plan.access, c.plan.access);
        EXPECT_EQ(plan.share, c.plan.share);
        EXPECT_EQ(plan.disposition, c.plan.disposition);
        EXPECT_EQ(plan.flags, c.plan.flags);
    }
    EXPECT_THAT(DiagCapture_Take().debug, Each("HgfsServerGetOpenFlags: Invalid HgfsOpenFlags\n"));
}

TEST_F(HgfsFile, RefusesMalformedOpens) {
    HgfsPackets_Request request = Opening(Tmp("f"));
    request.desiredAccess = 1;
    for (HgfsOp op : {HgfsOpOpenV2, HgfsOpOpenV3}) {
        request.op = op;
        for (uint64_t missing : {kHgfsMaskName, kHgfsMaskMode}) {
            request.mask = (kHgfsMaskOpenV1 | kHgfsMaskDesiredAccess) & ~missing;
            EXPECT_EQ(Status(request), HgfsStatusProtocolError);
        }
    }
    EXPECT_EQ(Status(Opening(Tmp("f"), 3)), HgfsStatusProtocolError);
    EXPECT_EQ(Status(Opening(Tmp("f"), kHgfsModeRead, 5)), HgfsStatusProtocolError);
    EXPECT_EQ(fs.calls, 0u);
    EXPECT_THAT(DiagCapture_Take().debug, Contains("HgfsServer: OpenV2 failed, error 1728\n"));
}

// The program keeps warnings in its log, which a host that goes on failing must not fill.
TEST_F(HgfsFile, TheFirstFailuresOfACopyAreWarnings) {
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(Status(Opening(Tmp("none"), kHgfsModeRead, kHgfsOpenExisting)), HgfsStatusNoSuchFileOrDir);
    }
    DiagMessages messages = DiagCapture_Take();
    EXPECT_EQ(messages.warning, std::vector<std::string>(10, messages.debug.back()));
    EXPECT_EQ(messages.debug.size(), 20u);
}

// Emptying a file without the right to write it takes two opens.
TEST_F(HgfsFile, TruncatesAnExistingFileForReading) {
    MemoryFile& file = MemoryFs_Add("C:\\tmp\\f", kHgfsFileArchive, "content");
    file.info.creationTime = 1;
    file.info.accessTime = 2;
    EXPECT_EQ(Status(Opening(Tmp("f"), kHgfsModeRead, kHgfsOpenTruncate)), HgfsStatusSuccess);
    ASSERT_EQ(fs.opens.size(), 2u);
    EXPECT_EQ(fs.opens[0].access, 0x40000080u);
    EXPECT_EQ(fs.opens[0].disposition, HgfsTruncateExisting);
    EXPECT_EQ(fs.opens[0].flags, 0x2000080u);
    EXPECT_EQ(fs.opens[1].access, 0x80020000u);
    EXPECT_EQ(fs.opens[1].disposition, HgfsOpenAlways);
    EXPECT_EQ(fs.opens[1].flags, 0x42000020u);
    EXPECT_TRUE(file.data.empty());
    EXPECT_EQ(file.info.creationTime, 1u);
    EXPECT_EQ(file.info.accessTime, 2u);
    EXPECT_EQ(file.info.writeTime, file.info.changeTime);
    EXPECT_GT(file.info.writeTime, 1000u);
}

TEST_F(HgfsFile, AFailedTruncationFailsTheOpenThatWouldSucceed) {
    MemoryFs_Add("C:\\tmp\\f", 0, "content");
    for (uint64_t step : {1, 2, 3}) { // open, attributes, times
        fs.opens.clear();
        fs.failCall = fs.calls + step;
        fs.failError = HgfsErrorSharingViolation;
        EXPECT_EQ(Status(Opening(Tmp("f"), kHgfsModeRead, kHgfsOpenTruncate)), HgfsStatusSharingViolation);
        EXPECT_EQ(fs.opens.size(), step == 1 ? 1u : 2u); // of those that did not fail
        EXPECT_EQ(fs.openHandles, 0u);
    }
}

struct ShareCase {
    HgfsShareInfo share;
    uint32_t access;
    uint32_t disposition;
    uint32_t error;
};

TEST_F(HgfsFile, AShareBoundsWhatIsOpened) {
    constexpr uint32_t kRead = kHgfsAccessGenericRead;
    constexpr uint32_t kWrite = kHgfsAccessGenericWrite;
    const HgfsShareInfo there = {true, false, "data", "C:\\tmp\\f"};
    const HgfsShareInfo missing = {true, false, "data", "C:\\tmp\\g"};
    const ShareCase cases[] = {
        {there, kRead, HgfsOpenExisting, 0},
        {missing, kRead, HgfsOpenExisting, 2},
        {there, kWrite, HgfsOpenExisting, 5},
        {missing, kWrite, HgfsOpenExisting, 2},
        {there, kRead, HgfsCreateNew, 183},
        {missing, kRead, HgfsCreateNew, 5},
        {there, kRead, HgfsOpenAlways, 0},
        {missing, kRead, HgfsOpenAlways, 5},
        {there, kWrite, HgfsOpenAlways, 5},
        {there, kRead, HgfsCreateAlways, 5},
        {there, kRead, HgfsTruncateExisting, 5},
        {missing, kRead, HgfsTruncateExisting, 2},
        {{true, false, "data", "C:\\nowhere\\f"}, kRead, HgfsCreateNew, 3},
        {{false, true, "data", "C:\\tmp\\f"}, kRead, HgfsOpenExisting, 5},
        {{false, true, "data", "C:\\tmp\\g"}, kRead, HgfsOpenExisting, 5},
        {{false, true, "data", "C:\\nowhere\\f"}, kRead, HgfsOpenExisting, 3},
    };
    MemoryFs_Add("C:\\tmp\\f", 0);
    for (const ShareCase& c : cases) {
        HgfsOsHandle handle = nullptr;
        EXPECT_EQ(HgfsServerOpenFile(c.share, {c.access, 7, c.disposition, 0}, &handle, nullptr), c.error)
            << c.share.path << ' ' << c.access << ' ' << c.disposition;
        if (handle != nullptr) {
            hgfsServer.platform->close(handle);
        }
    }
}

TEST_F(HgfsFile, AShareBoundsEveryOtherOperation) {
    const uint32_t handle = MustOpen(Tmp("f"));
    hgfsServer.session->nodes[0].shareWrite = false;
    EXPECT_EQ(WriteHandle(handle, 0, "abc").status, HgfsStatusAccessDenied);
    hgfsServer.session->nodes[0].shareRead = false;
    EXPECT_EQ(ReadHandle(handle, 0, 3).status, HgfsStatusAccessDenied);

    hgfsServer.shares.push_back({"data", "C:\\tmp", false, false});
    for (HgfsOp op : {HgfsOpCreateDir, HgfsOpDeleteFile, HgfsOpDeleteDir, HgfsOpSetattr, HgfsOpGetattr,
                      HgfsOpSearchOpen}) {
        EXPECT_EQ(Status(OnName(op, Name({"data", "f"}))), HgfsStatusAccessDenied) << kHgfsOps[op].name;
    }
    EXPECT_EQ(Status(Renaming(Name({"data", "f"}), Tmp("g"))), HgfsStatusAccessDenied);
    EXPECT_EQ(Status(Renaming(Tmp("f"), Name({"data", "g"}))), HgfsStatusAccessDenied);
}

// ---- Reading, writing and closing ----

TEST_F(HgfsFile, ReadsUpToThePacketsLimit) {
    std::string content(100000, '\0');
    for (size_t i = 0; i < content.size(); ++i) {
        content[i] = static_cast<char>(i * 7 + i / 251);
    }
    MemoryFs_Add("C:\\tmp\\f", 0, content);
    const uint32_t handle = MustOpen(Tmp("f"));
    EXPECT_EQ(ReadHandle(handle, 10, 10000, HgfsOpRead).data, content.substr(10, 6132));
    EXPECT_EQ(ReadHandle(handle, 10, 100000).data, content.substr(10, 63468));
    EXPECT_EQ(ReadHandle(handle, 10, 0xFFFFFFFF).data.size(), 63468u);
    EXPECT_EQ(ReadHandle(handle, 99990, 100).data, content.substr(99990));
    EXPECT_EQ(ReadHandle(handle, 0, 0).status, HgfsStatusSuccess);
    for (uint64_t beyond : {uint64_t{100000}, uint64_t{1} << 40}) {
        EXPECT_EQ(ReadHandle(handle, beyond, 100).status, HgfsStatusSuccess);
        EXPECT_TRUE(ReadHandle(handle, beyond, 100).data.empty());
    }
}

TEST_F(HgfsFile, WritesWhatThePacketHolds) {
    for (HgfsOp op : {HgfsOpWrite, HgfsOpWriteV3}) {
        const uint32_t handle = MustOpen(Tmp(kHgfsOps[op].name));
        HgfsPackets_Request request = OnHandle(op, handle);
        request.data = "abcdef";
        request.size = 1000;
        EXPECT_EQ(Ask(request).actualSize, 6u);
        request.size = 3;
        request.offset = 6;
        EXPECT_EQ(Ask(request).actualSize, 3u);
        EXPECT_EQ(WriteHandle(handle, 0, "0", op, kHgfsWriteAppend).actualSize, 1u);
        EXPECT_EQ(ReadHandle(handle, 0, 100).data, "abcdefabc0");
    }
}

TEST_F(HgfsFile, PassesErrorsOfReadingAndWritingOn) {
    const uint32_t handle = MustOpen(Tmp("f"));
    fs.capacity = 10;
    EXPECT_EQ(WriteHandle(handle, 0, "0123456789A").status, HgfsStatusNoSpace);
    EXPECT_EQ(ReadHandle(99, 0, 1).status, HgfsStatusInvalidHandle);
    EXPECT_EQ(WriteHandle(99, 0, "a").status, HgfsStatusInvalidHandle);
    fs.failCall = fs.calls + 1;
    EXPECT_EQ(ReadHandle(handle, 0, 1, HgfsOpRead).status, HgfsStatusGenericError);
}

TEST_F(HgfsFile, ClosesOnceEvenWhenThatFails) {
    for (bool fails : {false, true}) {
        const uint32_t handle = MustOpen(Tmp("f"));
        fs.failClose = fails;
        EXPECT_EQ(Status(OnHandle(HgfsOpClose, handle)), fails ? HgfsStatusGenericError : HgfsStatusSuccess);
        EXPECT_EQ(fs.openHandles, 0u);
        EXPECT_EQ(Status(OnHandle(HgfsOpCloseV3, handle)), HgfsStatusGenericError);
        EXPECT_EQ(hgfsServer.session->nodes.InUse(), 0u);
    }
}

// ---- Nodes and their cache ----

uint32_t observed;

TEST_F(HgfsFile, HandsOutHandlesInOrderAndNeverAgain) {
    hgfsServer.observer = [](uint32_t next) { observed = next; };
    for (uint32_t i = 0; i < 5; ++i) {
        const uint32_t handle = MustOpen(Tmp("f"));
        EXPECT_EQ(handle, 2 * i);
        EXPECT_EQ(observed, handle + 1);
        EXPECT_EQ(Ask(OnName(HgfsOpSearchOpen, DriveName({"C"}))).handle, 2 * i + 1);
        Status(OnHandle(HgfsOpClose, handle));
    }
}

// Opens as many files as push every earlier one out of the cache.
void FillCache() {
    for (size_t i = 0; i < kHgfsMaxCachedNodes; ++i) {
        MustOpen(Tmp("other"));
    }
}

TEST_F(HgfsFile, KeepsThirtyFilesOpenAndReopensTheRest) {
    std::vector<uint32_t> handles;
    for (int i = 0; i < 31; ++i) {
        handles.push_back(MustOpen(Tmp(std::to_string(i))));
        WriteHandle(handles.back(), 0, std::to_string(i));
    }
    EXPECT_EQ(fs.openHandles, 30u);
    const size_t opens = fs.opens.size();
    EXPECT_EQ(ReadHandle(handles[0], 0, 10).data, "0"); // the least recently used one had been closed
    EXPECT_EQ(fs.opens.size(), opens + 1);
    EXPECT_EQ(fs.opens.back().access, 0xC0020000u);
    EXPECT_EQ(fs.opens.back().flags, 0x42000000u);
    EXPECT_EQ(fs.opens.back().disposition, HgfsOpenExisting);
    EXPECT_EQ(fs.openHandles, 30u);
    EXPECT_EQ(ReadHandle(handles[2], 0, 10).data, "2"); // used again: now the most recent
    EXPECT_EQ(ReadHandle(handles[1], 0, 10).data, "1");
    EXPECT_EQ(fs.opens.size(), opens + 2);
    EXPECT_EQ(ReadHandle(handles[2], 0, 10).data, "2");
    EXPECT_EQ(fs.opens.size(), opens + 2);
}

TEST_F(HgfsFile, ASequentialFileIgnoresOffsetsAndKeepsItsPlaceWhenTheCacheClosesIt) {
    const uint32_t handle = MustOpen(Tmp("f"), kHgfsModeReadWrite | kHgfsModeSequential);
    EXPECT_EQ(fs.opens.back().flags & kHgfsFlagOverlapped, 0u);
    EXPECT_EQ(WriteHandle(handle, 500, "abc").actualSize, 3u);
    FillCache();
    EXPECT_EQ(WriteHandle(handle, 0, "def").actualSize, 3u);
    EXPECT_EQ(WriteHandle(handle, 0, "x", HgfsOpWrite, kHgfsWriteAppend).status, HgfsStatusGenericError);
    EXPECT_EQ(ReadHandle(handle, 0, 10).data, "");
    EXPECT_EQ(ReadHandle(MustOpen(Tmp("f")), 0, 10).data, "abcdef");
    // Rather than go on elsewhere it fails.
    FillCache();
    fs.failCall = fs.calls + 2;
    EXPECT_EQ(WriteHandle(handle, 0, "ghi").status, HgfsStatusGenericError);
    EXPECT_EQ(MemoryFs_Find("C:\\tmp\\f")->data.size(), 6u);
    EXPECT_EQ(fs.openHandles, 30u);
}

TEST_F(HgfsFile, AnEvictedFileFollowsTheHostsRenamesAndMayBeGone) {
    MemoryFs_Add("C:\\tmp\\dir", kHgfsFileDirectory);
    MemoryFs_Add("C:\\tmp\\directory", 0, "not this");
    const uint32_t other = MustOpen(Tmp("directory"));
    const uint32_t handle = MustOpen(DriveName({"C", "TMP", "dir", "f"}));
    WriteHandle(handle, 0, "content");
    FillCache();
    EXPECT_EQ(Status(Renaming(Tmp("DIR"), Tmp("moved"))), HgfsStatusSuccess);
    EXPECT_EQ(ReadHandle(handle, 0, 10).data, "content");
    EXPECT_EQ(ReadHandle(other, 0, 10).data, "not this");
    FillCache();
    fs.files.erase("c:\\tmp\\moved\\f");
    EXPECT_EQ(ReadHandle(handle, 0, 10).status, HgfsStatusNoSuchFileOrDir);
}

TEST_F(HgfsFile, LockedFilesAreNotEvicted) {
    FillCache();
    HgfsSession& session = *hgfsServer.session;
    session.nodes[0].lock = 1;
    session.lockedCount = 1;
    MustOpen(Tmp("f"));
    EXPECT_EQ(session.nodes[0].state, HgfsNodeState::Cached);
    EXPECT_EQ(session.nodes[1].state, HgfsNodeState::Closed);
    for (uint32_t i = 0; i < 31; ++i) {
        session.nodes[i].lock = 1;
    }
    session.lockedCount = 30;
    EXPECT_THROW(SendBytes(HgfsPackets_Encode(Opening(Tmp("g")))), DiagPanic);
    EXPECT_THAT(
        DiagCapture_Take().warning,
        Contains(::testing::MatchesRegex("ASSERT toolbox/windows/hgfslib/hgfsServer:.* bugNr=36244\n")));
    --session.references; // the program would have ended there
}

TEST_F(HgfsFile, AnEvictionThatFailsFailsTheOpen) {
    FillCache();
    fs.failClose = true;
    EXPECT_EQ(Status(Opening(Tmp("f"))), HgfsStatusGenericError);
    EXPECT_EQ(fs.openHandles, 29u);
    MustOpen(Tmp("g"));                                             // there is a place now
    EXPECT_EQ(ReadHandle(0, 0, 1).status, HgfsStatusInvalidHandle); // evicted; another has to go for it
    fs.failClose = false;
    EXPECT_EQ(ReadHandle(0, 0, 1).status, HgfsStatusSuccess);
}

TEST_F(HgfsFile, UnregistrationClosesEverything) {
    for (int i = 0; i < 120; ++i) {
        MustOpen(Tmp(std::to_string(i)));
        Ask(OnName(HgfsOpSearchOpenV3, DriveName({"C", "tmp"})));
    }
    EXPECT_EQ(hgfsServer.session->nodes.Entries().size(), 200u); // the 101st doubled the table
    HgfsServerShutDown();
    EXPECT_EQ(fs.openHandles, 0u);
    ASSERT_TRUE(HgfsServerStartUp(MemoryFs_Platform(), kHgfsMaxCachedNodes, nullptr));
    EXPECT_EQ(ReadHandle(0, 0, 1).status, HgfsStatusInvalidHandle);
}

} // namespace
