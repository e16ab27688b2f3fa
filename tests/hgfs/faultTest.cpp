// The n-th thing that can fail does, for every n: each request is answered or dropped, and nothing is left
// over.
#include "hgfsFixture.h"
#include "sim/hgfsExercise.h"

#include <cstdlib>
#include <new>

namespace {

// Allocations of the server until one fails; 0 while none is to.
thread_local uint64_t allocationsLeft;
thread_local bool counting;

void* Allocate(size_t size) {
    return counting && allocationsLeft != 0 && --allocationsLeft == 0 ? nullptr : std::malloc(size);
}

} // namespace

void* operator new(size_t size) {
    void* memory = Allocate(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
void* operator new[](size_t size) {
    return operator new(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
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
    reply.status = HgfsStatusGenericError; // what an answer that memory did not suffice for counts as
    if (size != 0) {
        EXPECT_TRUE(HgfsPackets_Decode(request.op, out, &reply)) << kHgfsOps[request.op].name;
        EXPECT_EQ(reply.id, request.id);
    }
    if (hgfsServer.session != nullptr) {
        EXPECT_EQ(hgfsServer.session->references, 1u);
    }
    EXPECT_FALSE(hgfsServer.pending);
    return reply;
}

// One walk through every operation with one fault; how many requests failed. The cache holds one file, so
// that the walk meets evictions, too.
unsigned Walk() {
    EXPECT_TRUE(HgfsServerStartUp(MemoryFs_Platform(), 1, nullptr));
    const HgfsPackets_Reply held =
        AskWithFaults(Opening(Tmp("held"), kHgfsModeReadWrite | kHgfsModeSequential));
    unsigned failures = held.status != HgfsStatusSuccess;
    HgfsExercise exercise;
    exercise.directory = DriveName({"C", "tmp"});
    std::string error;
    for (HgfsPackets_Request request; HgfsExercise_Next(exercise, &request);) {
        failures += !HgfsExercise_Take(&exercise, AskWithFaults(request), &error);
    }
    if (held.status == HgfsStatusSuccess) {
        failures += AskWithFaults(OnHandle(HgfsOpClose, held.handle)).status != HgfsStatusSuccess;
    }
    if (failures == 0) {
        EXPECT_EQ(hgfsServer.session->nodes.InUse(), 0u);
        EXPECT_EQ(MemoryFs_Get().files.size(), 4u); // the drives, C:\tmp and the file that was held
    }
    HgfsServerShutDown();
    EXPECT_EQ(MemoryFs_Get().openHandles, 0u);
    DiagCapture_Take();
    return failures;
}

TEST(HgfsFaults, EachSystemCallMayFail) {
    for (uint64_t n = 1;; ++n) {
        SCOPED_TRACE(n);
        MemoryFs& fs = MemoryFs_Reset();
        fs.failCall = n;
        const unsigned failures = Walk();
        if (fs.calls < n) {
            EXPECT_EQ(failures, 0u);
            EXPECT_GT(n, 50u);
            break;
        }
    }
}

TEST(HgfsFaults, EachAllocationMayFail) {
    for (uint64_t n = 1;; ++n) {
        SCOPED_TRACE(n);
        MemoryFs_Reset();
        allocationsLeft = n;
        const unsigned failures = Walk();
        if (std::exchange(allocationsLeft, 0) != 0) {
            EXPECT_EQ(failures, 0u);
            EXPECT_GT(n, 100u);
            break;
        }
    }
}

TEST(HgfsFaults, CloseMayFailThroughout) {
    MemoryFs_Reset().failClose = true;
    Walk();
}

} // namespace
