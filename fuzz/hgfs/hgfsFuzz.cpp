// A session of packets over a file system in memory: every packet gets an answer of its operation's layout or
// none, and nothing is left open or allocated.
#include "hgfslib/hgfsServerInt.h"
#include "support/diagCapture.h"
#include "tests/hgfs/memoryFs.h"
#include "tests/hgfs/packetStorm.h"

#include <cstdio>
#include <cstdlib>

namespace {

// Over all inputs, told at the end.
struct Totals {
    PacketStorm_Counts counts;
    ~Totals() {
        fprintf(stderr, "%zu packets, %zu answered with success\n", counts.packets, counts.successes);
    }
} totals;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace std::string_literals;
    if (size == 0) {
        return 0;
    }
    MemoryFs& fs = MemoryFs_Reset();
    fs.capacity = 1 << 16;
    fs.failCall = data[0] < 128 ? 0 : data[0] - 127u;
    if (!HgfsServerStartUp(MemoryFs_Platform(), 1 + data[0] % 3, nullptr)) {
        std::abort();
    }
    PacketStorm_Counts counts;
    PacketStorm_Run({data + 1, size - 1}, "root\0drive\0C\0tmp"s, &counts);
    HgfsServerShutDown();
    if (fs.openHandles != 0) {
        std::abort();
    }
    DiagCapture_Take();
    totals.counts.packets += counts.packets;
    totals.counts.successes += counts.successes;
    return 0;
}
