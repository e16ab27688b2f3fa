// The n-th thing that can fail does, for every n: each request is answered or dropped, and nothing is left
// over.
#include "hgfsFixture.h"
#include "sim/hgfsExercise.h"

#include <cstdlib>
#include <new>

namespace {

// Allocations until one fails; 0 while none is to.
thread_local uint64_t allocationsLeft;
thread_local bool counting;

bool AllocationFails() {
    return counting && allocationsLeft != 0 && --allocationsLeft == 0;
}

} // namespace

void* operator new(size_t size) {
    void* memory = AllocationFails() ? nullptr : std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return AllocationFails() ? nullptr : std::malloc(size);
}
void* operator new[](size_t size) {
    return operator new(size);
}
void* operator new[](size_t size, const std::nothrow_t& tag) noexcept {
    return operator new(size, tag);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, size_t) noexcept {
    std::free(memory);
}

namespace {

HgfsPackets_Reply AskWithFaults(const HgfsPackets_Request& request) {
    const std::vector<uint8_t> packet = HgfsPackets_Encode(request);
    std::vector<uint8_t> out(kHgfsLargePacketMax);
    size_t size = packet.size();
    counting = true;
    HgfsServer_HandlePacket(packet.data(), out.data(), &size);
    counting = false;
    out.resize(size);
    HgfsPackets_Reply reply;
    if (size != 0) {
        EXPECT_TRUE(HgfsPackets_Decode(request.op, out, &reply)) << kHgfsOps[request.op].name;
        EXPECT_EQ(reply.id, request.id);
    } else {
        reply.status = HgfsStatusGenericError;
    }
    if (hgfsServer.session != nullptr) {
        EXPECT_EQ(hgfsServer.session->references, 1u);
    }
    EXPECT_FALSE(hgfsServer.pending);
    return reply;
}

// One walk with one fault; whether the fault was met. A small cache, so that the walk meets evictions too.
struct SweepResult {
    unsigned failures;
    size_t nodesLeft;
};
SweepResult Walk() {
    SweepResult result = {};
    EXPECT_TRUE(HgfsServerStartUp(MemoryFs_Platform(), 1, nullptr));
    HgfsPackets_Request open = OpenRequest(DriveName({"C", "tmp", "held"}));
    open.mode |= kHgfsModeSequential;
    const HgfsPackets_Reply opened = AskWithFaults(open);
    HgfsExercise exercise;
    exercise.directory = DriveName({"C", "tmp"});
    std::string error;
    for (HgfsPackets_Request request; HgfsExercise_Next(exercise, &request);) {
        result.failures += !HgfsExercise_Take(&exercise, AskWithFaults(request), &error);
    }
    if (opened.status == HgfsStatusSuccess) {
        AskWithFaults(OnHandle(HgfsOpClose, opened.handle));
    }
    result.nodesLeft = hgfsServer.session == nullptr ? 0 : hgfsServer.session->nodes.InUse();
    HgfsServerShutDown();
    DiagCapture_Take();
    return result;
}

TEST(HgfsFaults, TheWalkSucceedsUndisturbed) {
    MemoryFs& fs = MemoryFs_Reset();
    SweepResult result = Walk();
    EXPECT_EQ(result.failures, 0u);
    EXPECT_EQ(result.nodesLeft, 0u);
    EXPECT_EQ(fs.openHandles, 0u);
    EXPECT_EQ(fs.files.size(), 4u); // the drives, C:\tmp and the file that was held
}

TEST(HgfsFaults, EachSystemCallMayFail) {
    for (uint64_t n = 1;; ++n) {
        SCOPED_TRACE(n);
        MemoryFs& fs = MemoryFs_Reset();
        fs.failCall = n;
        SweepResult result = Walk();
        EXPECT_EQ(fs.openHandles, 0u);
        if (fs.calls < n) {
            EXPECT_EQ(result.failures, 0u);
            EXPECT_GT(n, 50u);
            break;
        }
    }
}

TEST(HgfsFaults, EachAllocationMayFail) {
    for (uint64_t n = 1;; ++n) {
        SCOPED_TRACE(n);
        MemoryFs& fs = MemoryFs_Reset();
        allocationsLeft = n;
        SweepResult result = Walk();
        const bool met = allocationsLeft == 0;
        allocationsLeft = 0;
        EXPECT_EQ(fs.openHandles, 0u);
        if (!met) {
            EXPECT_EQ(result.failures, 0u);
            EXPECT_GT(n, 100u);
            break;
        }
    }
}

TEST(HgfsFaults, CloseMayFailThroughout) {
    MemoryFs& fs = MemoryFs_Reset();
    fs.failClose = true;
    Walk();
    EXPECT_EQ(fs.openHandles, 0u);
}

} // namespace
