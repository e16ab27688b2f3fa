#include "hgfsFixture.h"

#include <numeric>

namespace {

using HgfsFile = HgfsMemoryTest;

// ---- Planning an open ----

struct PlanCase {
    const char* what;
    HgfsOpenRequest request;
    uint32_t error;
    HgfsOpenArguments plan;
};

HgfsOpenRequest Plan(uint64_t mask, uint32_t mode, uint32_t flags = 0) {
    HgfsOpenRequest request;
    request.mask = mask;
    request.mode = mode;
    request.flags = flags;
    return request;
}

HgfsOpenRequest PlanAccess(uint32_t access, uint32_t mode = 0) {
    HgfsOpenRequest request = Plan(kHgfsMaskMode | kHgfsMaskDesiredAccess, mode);
    request.desiredAccess = access;
    return request;
}

HgfsOpenRequest PlanShare(uint32_t access, uint32_t share) {
    HgfsOpenRequest request = PlanAccess(access);
    request.mask |= kHgfsMaskShareAccess;
    request.shareAccess = share;
    return request;
}

HgfsOpenRequest PlanAttributes(uint8_t perms, uint64_t attributes) {
    HgfsOpenRequest request = Plan(kHgfsMaskMode | kHgfsMaskOwnerPerms | kHgfsMaskAttributes, 0);
    request.ownerPerms = perms;
    request.attributes = attributes;
    return request;
}

TEST(HgfsPlanOpen, TurnsFieldsIntoArguments) {
    constexpr uint32_t kFlags = kHgfsFlagBackupSemantics | kHgfsFlagOverlapped;
    const PlanCase cases[] = {
        {"read", Plan(1, 0), 0, {0x80000000, 7, 3, kFlags}},
        {"write", Plan(1, 1), 0, {0x40000000, 7, 3, kFlags}},
        {"both", Plan(1, 2), 0, {0xC0000000, 7, 3, kFlags}},
        {"no such mode", Plan(1, 3), HgfsErrorProtocol, {}},
        {"sequential", Plan(1, 4), 0, {0x80000000, 7, 3, kHgfsFlagBackupSemantics}},
        {"sequential, no such mode", Plan(1, 7), HgfsErrorProtocol, {}},
        {"flags 1", Plan(3, 0, 1), 0, {0x80000000, 7, 5, kFlags}},
        {"flags 2", Plan(3, 0, 2), 0, {0x80000000, 7, 4, kFlags}},
        {"flags 3", Plan(3, 0, 3), 0, {0x80000000, 7, 1, kFlags}},
        {"flags 4", Plan(3, 0, 4), 0, {0x80000000, 7, 2, kFlags}},
        {"flags 5", Plan(3, 0, 5), HgfsErrorProtocol, {}},
        {"flags below 0", Plan(3, 0, 0xFFFFFFFF), HgfsErrorProtocol, {}},
        {"flags not valid", Plan(1, 0, 5), 0, {0x80000000, 7, 3, kFlags}},
        {"access 0", PlanAccess(0), 0, {0, 7, 3, kFlags}},
        {"synchronize", PlanAccess(0x100000), 0, {0x100000, 7, 3, kFlags}},
        {"read attributes", PlanAccess(128), 0, {128, 7, 3, kFlags}},
        {"synchronize and attributes", PlanAccess(0x100080), 0, {0x100081, 7, 3, kFlags}},
        {"write data", PlanAccess(2), 0, {3, 7, 3, kFlags}},
        {"access counts, not mode", PlanAccess(1, 3), 0, {1, 7, 3, kFlags}},
        {"nothing shared, attributes", PlanShare(128, 0), 0, {128, 0, 3, kFlags}},
        {"nothing shared, access 0", PlanShare(0, 0), 0, {0, 0, 3, kFlags}},
        {"nothing shared, data", PlanShare(1, 0), 0, {1, 1, 3, kFlags}},
        {"read-only", PlanAttributes(5, 0), 0, {0x80000000, 7, 3, kFlags | 1}},
        {"writable", PlanAttributes(2, 0), 0, {0x80000000, 7, 3, kFlags}},
        {"hidden", PlanAttributes(2, 1), 0, {0x80000000, 7, 3, kFlags | 2}},
        {"system", PlanAttributes(2, 2), 0, {0x80000000, 7, 3, kFlags | 4}},
        {"archive and bits unheard of", PlanAttributes(2, ~uint64_t{3}), 0, {0x80000000, 7, 3, kFlags | 32}},
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
    EXPECT_THAT(DiagCapture_Take().debug, ::testing::Each("HgfsServerGetOpenFlags: Invalid HgfsOpenFlags\n"));
}

TEST_F(HgfsFile, OpensInEveryVersion) {
    for (HgfsOp op : {HgfsOpOpen, HgfsOpOpenV2, HgfsOpOpenV3}) {
        HgfsPackets_Request request =
            OpenRequest(DriveName({"C", "tmp", std::string(1, static_cast<char>('a' + op))}));
        request.op = op;
        request.mask |= kHgfsMaskDesiredLock;
        request.desiredLock = 2;
        Answer answer = Ask(request);
        EXPECT_EQ(answer.reply.status, HgfsStatusSuccess);
        EXPECT_EQ(answer.reply.lock, 0u); // none is granted
    }
    EXPECT_NE(MemoryFs_Find("C:\\tmp\\a"), nullptr);
}

TEST_F(HgfsFile, WantsModeAndNameInTheMask) {
    for (HgfsOp op : {HgfsOpOpenV2, HgfsOpOpenV3}) {
        HgfsPackets_Request request = OpenRequest(DriveName({"C", "tmp", "f"}));
        request.op = op;
        request.desiredAccess = 1;
        for (uint64_t missing : {kHgfsMaskName, kHgfsMaskMode}) {
            request.mask = (kHgfsMaskOpenV1 | kHgfsMaskDesiredAccess) & ~missing;
            EXPECT_EQ(Status(request), HgfsStatusProtocolError);
        }
    }
    EXPECT_EQ(fs.calls, 0u);
}

TEST_F(HgfsFile, AnswersOpensThatFail) {
    HgfsPackets_Request request = OpenRequest(DriveName({"C", "tmp", "f"}));
    request.flags = kHgfsOpenExisting;
    EXPECT_EQ(Status(request), HgfsStatusNoSuchFileOrDir);
    MemoryFs_Add("C:\\tmp\\f", kHgfsFileReadOnly);
    EXPECT_EQ(Status(request), HgfsStatusAccessDenied);
    request.flags = kHgfsOpenCreateNew;
    EXPECT_EQ(Status(request), HgfsStatusFileExists);
    request.flags = 5;
    EXPECT_EQ(Status(request), HgfsStatusProtocolError);
    request.flags = kHgfsOpenExisting;
    request.mode = 3;
    EXPECT_EQ(Status(request), HgfsStatusProtocolError);
    EXPECT_EQ(fs.openHandles, 0u);
}

TEST_F(HgfsFile, RemembersWhetherItCreatedTheFile) {
    const uint32_t created = MustOpen(DriveName({"C", "tmp", "f"}));
    const uint32_t opened = MustOpen(DriveName({"C", "tmp", "F"}));
    HgfsNodeFields first, second;
    EXPECT_EQ(HgfsServerGetNodeFields(hgfsServer.session, created, &first), HgfsErrorNone);
    EXPECT_EQ(HgfsServerGetNodeFields(hgfsServer.session, opened, &second), HgfsErrorNone);
    EXPECT_EQ(first.flags, kHgfsNodeCreated);
    EXPECT_EQ(second.flags, 0);
    EXPECT_EQ(first.fileId, second.fileId);
    EXPECT_EQ(second.localName, "C:\\tmp\\F");
    EXPECT_EQ(second.requestName, DriveName({"C", "tmp", "F"}));
}

// Emptying a file without the right to write it takes two opens.
TEST_F(HgfsFile, TruncatesAnExistingFileForReading) {
    MemoryFile& file = MemoryFs_Add("C:\\tmp\\f", kHgfsFileArchive, "content");
    file.creationTime = 1;
    file.accessTime = 2;
    HgfsPackets_Request request = OpenRequest(DriveName({"C", "tmp", "f"}));
    request.mode = kHgfsModeRead;
    request.flags = kHgfsOpenTruncate;
    EXPECT_EQ(Status(request), HgfsStatusSuccess);
    ASSERT_EQ(fs.opens.size(), 2u);
    EXPECT_EQ(fs.opens[0].access, 0x40000080u);
    EXPECT_EQ(fs.opens[0].disposition, static_cast<uint32_t>(HgfsTruncateExisting));
    EXPECT_EQ(fs.opens[0].flags, 0x2000080u);
    EXPECT_EQ(fs.opens[1].access, 0x80020000u);
    EXPECT_EQ(fs.opens[1].disposition, static_cast<uint32_t>(HgfsOpenAlways));
    EXPECT_EQ(fs.opens[1].flags, 0x42000020u);
    EXPECT_TRUE(file.data.empty());
    EXPECT_EQ(file.creationTime, 1u);
    EXPECT_EQ(file.accessTime, 2u);
    EXPECT_EQ(file.writeTime, file.changeTime);
    EXPECT_GT(file.writeTime, 1000u);
}

TEST_F(HgfsFile, AFailedTruncationFailsTheOpenThatWouldSucceed) {
    MemoryFs_Add("C:\\tmp\\f", kHgfsFileReadOnly, "content");
    HgfsPackets_Request request = OpenRequest(DriveName({"C", "tmp", "f"}));
    request.mode = kHgfsModeRead;
    request.flags = kHgfsOpenTruncate;
    EXPECT_EQ(Status(request), HgfsStatusAccessDenied);
    EXPECT_EQ(fs.opens.size(), 2u);
    EXPECT_EQ(fs.openHandles, 0u);
    request.mode = kHgfsModeReadWrite; // has the right itself
    EXPECT_EQ(Status(request), HgfsStatusAccessDenied);
    EXPECT_EQ(fs.opens.size(), 3u);
}

struct ShareCase {
    bool exists;
    uint32_t access;
    uint32_t disposition;
    uint32_t error;
};

TEST_F(HgfsFile, AReadOnlyShareRefusesWhatWrites) {
    constexpr uint32_t kRead = kHgfsAccessGenericRead;
    constexpr uint32_t kWrite = kHgfsAccessGenericWrite;
    const ShareCase cases[] = {
        {true, kRead, HgfsOpenExisting, 0},      {false, kRead, HgfsOpenExisting, 2},
        {true, kWrite, HgfsOpenExisting, 5},     {false, kWrite, HgfsOpenExisting, 2},
        {true, kRead, HgfsCreateNew, 183},       {false, kRead, HgfsCreateNew, 5},
        {true, kRead, HgfsOpenAlways, 0},        {false, kRead, HgfsOpenAlways, 5},
        {true, kWrite, HgfsOpenAlways, 5},       {true, kRead, HgfsCreateAlways, 5},
        {false, kRead, HgfsTruncateExisting, 2}, {true, kRead, HgfsTruncateExisting, 5},
    };
    for (const ShareCase& c : cases) {
        MemoryFs_Reset();
        if (c.exists) {
            MemoryFs_Add("C:\\tmp\\f", 0);
        }
        HgfsShareInfo share = {true, false, "data", "C:\\tmp\\f"};
        HgfsOsHandle handle = nullptr;
        EXPECT_EQ(HgfsServerOpenFile(share, {c.access, 7, c.disposition, 0}, &handle, nullptr), c.error)
            << c.exists << ' ' << c.access << ' ' << c.disposition;
        if (handle != nullptr) {
            hgfsServer.platform->close(handle);
        }
    }
    HgfsShareInfo share = {true, false, "data", "C:\\nowhere\\f"};
    HgfsOsHandle handle = nullptr;
    EXPECT_EQ(HgfsServerOpenFile(share, {kRead, 7, HgfsCreateNew, 0}, &handle, nullptr),
              HgfsErrorPathNotFound);
}

TEST_F(HgfsFile, AnUnreadableShareOpensNothing) {
    MemoryFs_Add("C:\\tmp\\f", 0);
    HgfsOsHandle handle = nullptr;
    const HgfsOpenArguments plan = {kHgfsAccessGenericRead, 7, HgfsOpenExisting, 0};
    EXPECT_EQ(HgfsServerOpenFile({false, true, "d", "C:\\tmp\\f"}, plan, &handle, nullptr),
              HgfsErrorAccessDenied);
    EXPECT_EQ(HgfsServerOpenFile({false, true, "d", "C:\\tmp\\g"}, plan, &handle, nullptr),
              HgfsErrorAccessDenied);
    EXPECT_EQ(HgfsServerOpenFile({false, true, "d", "C:\\x\\g"}, plan, &handle, nullptr),
              HgfsErrorPathNotFound);
}

TEST_F(HgfsFile, AShareBoundsWhatItsFilesAreUsedFor) {
    const uint32_t handle = MustOpen(DriveName({"C", "tmp", "f"}));
    hgfsServer.session->nodes.Entries()[0].shareWrite = false;
    EXPECT_EQ(WriteHandle(handle, 0, "abc").status, HgfsStatusAccessDenied);
    hgfsServer.session->nodes.Entries()[0].shareRead = false;
    EXPECT_EQ(ReadHandle(handle, 0, 3).status, HgfsStatusAccessDenied);

    hgfsServer.shares.push_back({"data", "C:\\tmp", true, false});
    EXPECT_EQ(Status(OnName(HgfsOpCreateDir, Name({"data", "d"}))), HgfsStatusAccessDenied);
    EXPECT_EQ(Status(OnName(HgfsOpDeleteFile, Name({"data", "f"}))), HgfsStatusAccessDenied);
    EXPECT_EQ(Status(OnName(HgfsOpDeleteDir, Name({"data", "f"}))), HgfsStatusAccessDenied);
    EXPECT_EQ(Status(OnName(HgfsOpSetattr, Name({"data", "f"}))), HgfsStatusAccessDenied);
    HgfsPackets_Request rename = OnName(HgfsOpRename, Name({"data", "f"}));
    rename.newName = DriveName({"C", "tmp", "g"});
    EXPECT_EQ(Status(rename), HgfsStatusAccessDenied);
    std::swap(rename.name, rename.newName);
    EXPECT_EQ(Status(rename), HgfsStatusAccessDenied);
    hgfsServer.shares.back().readAllowed = false;
    EXPECT_EQ(Status(OnName(HgfsOpGetattr, Name({"data", "f"}))), HgfsStatusAccessDenied);
    EXPECT_EQ(Status(OnName(HgfsOpSearchOpen, Name({"data"}))), HgfsStatusAccessDenied);
}

// ---- Reading and writing ----

std::string Pattern(size_t size) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        text[i] = static_cast<char>(i * 7 + i / 251);
    }
    return text;
}

TEST_F(HgfsFile, ReadsUpToThePacketsLimit) {
    const std::string content = Pattern(100000);
    MemoryFs_Add("C:\\tmp\\f", 0, content);
    const uint32_t handle = MustOpen(DriveName({"C", "tmp", "f"}));
    EXPECT_EQ(ReadHandle(handle, 10, 10000, HgfsOpRead).data, content.substr(10, 6132));
    EXPECT_EQ(ReadHandle(handle, 10, 100000).data, content.substr(10, 63468));
    EXPECT_EQ(ReadHandle(handle, 10, 0xFFFFFFFF).data.size(), 63468u);
    EXPECT_EQ(ReadHandle(handle, 99990, 100).data, content.substr(99990));
    EXPECT_EQ(ReadHandle(handle, 0, 0).status, HgfsStatusSuccess);
    for (uint64_t beyond : {uint64_t{100000}, uint64_t{1} << 40}) {
        HgfsPackets_Reply reply = ReadHandle(handle, beyond, 100);
        EXPECT_EQ(reply.status, HgfsStatusSuccess);
        EXPECT_TRUE(reply.data.empty());
    }
}

TEST_F(HgfsFile, WritesWhatThePacketHolds) {
    const uint32_t handle = MustOpen(DriveName({"C", "tmp", "f"}));
    for (HgfsOp op : {HgfsOpWrite, HgfsOpWriteV3}) {
        HgfsPackets_Request request = OnHandle(op, handle);
        request.data = "abcdef";
        request.size = 1000;
        EXPECT_EQ(Ask(request).reply.actualSize, 6u);
        request.size = 3;
        request.offset = 6;
        EXPECT_EQ(Ask(request).reply.actualSize, 3u);
        EXPECT_EQ(ReadHandle(handle, 0, 100).data, "abcdefabc");
        WriteHandle(handle, 0, "XXXXXXXXX", op);
    }
    EXPECT_EQ(WriteHandle(handle, 0, "0", HgfsOpWriteV3, kHgfsWriteAppend).actualSize, 1u);
    EXPECT_EQ(ReadHandle(handle, 0, 100).data, "XXXXXXXXX0");
}

TEST_F(HgfsFile, ASequentialFileIgnoresOffsets) {
    HgfsPackets_Request request = OpenRequest(DriveName({"C", "tmp", "f"}));
    request.mode |= kHgfsModeSequential;
    const uint32_t handle = Ask(request).reply.handle;
    EXPECT_EQ(fs.opens.back().flags & kHgfsFlagOverlapped, 0u);
    EXPECT_EQ(WriteHandle(handle, 500, "abc").actualSize, 3u);
    EXPECT_EQ(WriteHandle(handle, 0, "def").actualSize, 3u);
    EXPECT_EQ(WriteHandle(handle, 0, "x", HgfsOpWrite, kHgfsWriteAppend).status, HgfsStatusGenericError);
    EXPECT_EQ(ReadHandle(handle, 0, 10).data, "");
    EXPECT_EQ(ReadHandle(MustOpen(DriveName({"C", "tmp", "f"})), 0, 10).data, "abcdef");
}

TEST_F(HgfsFile, ASequentialFileKeepsItsPlaceWhenTheCacheClosesIt) {
    MemoryFs_Add("C:\\tmp\\f", 0, "abcdef");
    HgfsPackets_Request request = OpenRequest(DriveName({"C", "tmp", "f"}));
    request.mode |= kHgfsModeSequential;
    const uint32_t handle = Ask(request).reply.handle;
    EXPECT_EQ(ReadHandle(handle, 0, 2).data, "ab");
    for (int i = 0; i < 30; ++i) {
        MustOpen(DriveName({"C", "tmp", "g"}));
    }
    EXPECT_EQ(ReadHandle(handle, 0, 2).data, "cd");
}

TEST_F(HgfsFile, PassesErrorsOfReadingAndWritingOn) {
    const uint32_t handle = MustOpen(DriveName({"C", "tmp", "f"}));
    fs.capacity = 10;
    EXPECT_EQ(WriteHandle(handle, 0, "0123456789A").status, HgfsStatusNoSpace);
    EXPECT_EQ(ReadHandle(99, 0, 1).status, HgfsStatusInvalidHandle);
    EXPECT_EQ(WriteHandle(99, 0, "a").status, HgfsStatusInvalidHandle);
    fs.failCall = fs.calls + 1;
    EXPECT_EQ(ReadHandle(handle, 0, 1, HgfsOpRead).status, HgfsStatusGenericError);
}

TEST_F(HgfsFile, ClosesOnce) {
    for (HgfsOp op : {HgfsOpClose, HgfsOpCloseV3}) {
        const uint32_t handle = MustOpen(DriveName({"C", "tmp", "f"}));
        EXPECT_EQ(Status(OnHandle(op, handle)), HgfsStatusSuccess);
        EXPECT_EQ(fs.openHandles, 0u);
        EXPECT_EQ(Status(OnHandle(op, handle)), HgfsStatusGenericError);
    }
}

TEST_F(HgfsFile, AFileThatCannotBeClosedFailsTheRequestAndIsGone) {
    const uint32_t handle = MustOpen(DriveName({"C", "tmp", "f"}));
    fs.failClose = true;
    EXPECT_EQ(Status(OnHandle(HgfsOpClose, handle)), HgfsStatusGenericError);
    fs.failClose = false;
    EXPECT_EQ(Status(OnHandle(HgfsOpClose, handle)), HgfsStatusGenericError);
    EXPECT_EQ(hgfsServer.session->nodes.InUse(), 0u);
}

// ---- Nodes and their cache ----

TEST_F(HgfsFile, HandsOutHandlesInOrderAndNeverAgain) {
    for (uint32_t i = 0; i < 5; ++i) {
        const uint32_t handle = MustOpen(DriveName({"C", "tmp", "f"}));
        EXPECT_EQ(handle, 2 * i);
        EXPECT_EQ(Ask(OnName(HgfsOpSearchOpen, DriveName({"C", "tmp"}))).reply.handle, 2 * i + 1);
        Status(OnHandle(HgfsOpClose, handle));
    }
}

uint32_t observed;

TEST_F(HgfsFile, TellsTheObserverTheNextHandle) {
    hgfsServer.observer = [](uint32_t next) { observed = next; };
    const uint32_t handle = MustOpen(DriveName({"C", "tmp", "f"}));
    EXPECT_EQ(observed, handle + 1);
}

TEST_F(HgfsFile, KeepsThirtyFilesOpenAndReopensTheRest) {
    std::vector<uint32_t> handles;
    for (int i = 0; i < 31; ++i) {
        handles.push_back(MustOpen(DriveName({"C", "tmp", std::to_string(i)})));
        WriteHandle(handles.back(), 0, std::to_string(i));
    }
    EXPECT_EQ(fs.openHandles, 30u);
    const size_t opens = fs.opens.size();
    EXPECT_EQ(ReadHandle(handles[0], 0, 10).data, "0"); // the least recently used one had been closed
    EXPECT_EQ(fs.opens.size(), opens + 1);
    EXPECT_EQ(fs.opens.back().access, 0xC0020000u);
    EXPECT_EQ(fs.opens.back().flags, 0x42000000u);
    EXPECT_EQ(fs.opens.back().disposition, static_cast<uint32_t>(HgfsOpenExisting));
    EXPECT_EQ(fs.openHandles, 30u);
    EXPECT_EQ(ReadHandle(handles[2], 0, 10).data, "2"); // used again: now the most recent
    EXPECT_EQ(ReadHandle(handles[1], 0, 10).data, "1");
    EXPECT_EQ(fs.opens.size(), opens + 2);
    EXPECT_EQ(ReadHandle(handles[2], 0, 10).data, "2");
    EXPECT_EQ(fs.opens.size(), opens + 2);
}

TEST_F(HgfsFile, AThousandHandlesReadBackWhatTheyWrote) {
    std::vector<uint32_t> handles;
    for (int i = 0; i < 1000; ++i) {
        handles.push_back(MustOpen(DriveName({"C", "tmp", std::to_string(i)})));
        EXPECT_EQ(WriteHandle(handles.back(), 0, std::to_string(i)).status, HgfsStatusSuccess);
        if (i == 100) {
            EXPECT_EQ(hgfsServer.session->nodes.Entries().size(), 200u); // the 101st doubled the table
        }
    }
    EXPECT_EQ(fs.openHandles, 30u);
    for (int step = 0; step < 1000; ++step) {
        const int i = step * 7 % 1000;
        EXPECT_EQ(ReadHandle(handles[static_cast<size_t>(i)], 0, 10).data, std::to_string(i));
    }
    for (uint32_t handle : handles) {
        EXPECT_EQ(Status(OnHandle(HgfsOpCloseV3, handle)), HgfsStatusSuccess);
    }
    EXPECT_EQ(fs.openHandles, 0u);
}

// Opens `first` and as many others as push it out of the cache.
uint32_t OpenEvicted(const std::string& first) {
    const uint32_t handle = MustOpen(first);
    for (int i = 0; i < 30; ++i) {
        MustOpen(DriveName({"C", "tmp", "other"}));
    }
    return handle;
}

TEST_F(HgfsFile, AnEvictedFileThatIsGoneSaysSo) {
    const uint32_t handle = OpenEvicted(DriveName({"C", "tmp", "f"}));
    fs.files.erase("c:\\tmp\\f");
    EXPECT_EQ(ReadHandle(handle, 0, 1).status, HgfsStatusNoSuchFileOrDir);
    EXPECT_EQ(WriteHandle(handle, 0, "a").status, HgfsStatusNoSuchFileOrDir);
    EXPECT_EQ(Status(OnHandle(HgfsOpClose, handle)), HgfsStatusSuccess);
}

TEST_F(HgfsFile, AnEvictedFileFollowsTheHostsRenames) {
    MemoryFs_Add("C:\\tmp\\dir", kHgfsFileDirectory);
    MemoryFs_Add("C:\\tmp\\directory", 0, "not this");
    const uint32_t other = MustOpen(DriveName({"C", "tmp", "directory"}));
    const uint32_t handle = MustOpen(DriveName({"C", "TMP", "dir", "f"}));
    WriteHandle(handle, 0, "content");
    OpenEvicted(DriveName({"C", "tmp", "x"}));
    HgfsPackets_Request rename = OnName(HgfsOpRename, DriveName({"C", "tmp", "DIR"}));
    rename.newName = DriveName({"C", "tmp", "moved"});
    EXPECT_EQ(Status(rename), HgfsStatusSuccess);
    EXPECT_EQ(ReadHandle(handle, 0, 10).data, "content");
    EXPECT_EQ(ReadHandle(other, 0, 10).data, "not this");
}

TEST_F(HgfsFile, LockedFilesAreNotEvicted) {
    for (int i = 0; i < 30; ++i) {
        MustOpen(DriveName({"C", "tmp", std::to_string(i)}));
    }
    HgfsSession& session = *hgfsServer.session;
    session.nodes[0].lock = 1;
    session.lockedCount = 1;
    MustOpen(DriveName({"C", "tmp", "30"}));
    EXPECT_EQ(session.nodes[0].state, HgfsNodeState::Cached);
    EXPECT_EQ(session.nodes[1].state, HgfsNodeState::Closed);
    for (uint32_t i = 0; i < 31; ++i) {
        session.nodes[i].lock = 1;
    }
    session.lockedCount = 30;
    HgfsPackets_Request request = OpenRequest(DriveName({"C", "tmp", "31"}));
    EXPECT_THROW(SendBytes(HgfsPackets_Encode(request)), DiagPanic);
    EXPECT_THAT(DiagCapture_Take().warning,
                ::testing::Contains(
                    ::testing::AllOf(::testing::StartsWith("ASSERT toolbox/windows/hgfslib/hgfsServer:"),
                                     ::testing::EndsWith(" bugNr=36244\n"))));
    --session.references; // the program would have ended there
}

TEST_F(HgfsFile, AnEvictionThatFailsFailsTheOpen) {
    for (int i = 0; i < 30; ++i) {
        MustOpen(DriveName({"C", "tmp", std::to_string(i)}));
    }
    fs.failClose = true;
    EXPECT_EQ(Status(OpenRequest(DriveName({"C", "tmp", "30"}))), HgfsStatusGenericError);
    EXPECT_EQ(fs.openHandles, 29u);
    fs.failClose = false;
    const uint32_t evicted = 0;
    fs.failClose = true;
    MustOpen(DriveName({"C", "tmp", "31"})); // there is a place now
    EXPECT_EQ(ReadHandle(evicted, 0, 1).status, HgfsStatusInvalidHandle);
    fs.failClose = false;
    EXPECT_EQ(ReadHandle(evicted, 0, 1).status, HgfsStatusSuccess);
}

TEST_F(HgfsFile, UnregistrationClosesEverything) {
    for (int i = 0; i < 120; ++i) {
        MustOpen(DriveName({"C", "tmp", std::to_string(i)}));
        Ask(OnName(HgfsOpSearchOpenV3, DriveName({"C", "tmp"})));
    }
    HgfsServerShutDown();
    EXPECT_EQ(fs.openHandles, 0u);
    ASSERT_TRUE(HgfsServerStartUp(MemoryFs_Platform(), kHgfsMaxCachedNodes, nullptr));
    EXPECT_EQ(ReadHandle(0, 0, 1).status, HgfsStatusInvalidHandle);
}

} // namespace
