// Access lists and identifiers of any bytes: nothing outside is read, and what is appended is found again.
#include "procMgr/procMgrAcl.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    // The first byte divides the rest; each part in memory of exactly its size.
    size_t sidSize = std::min<size_t>(data[0], size - 1);
    size_t aclSize = size - 1 - sidSize;
    auto sidMemory = std::make_unique<uint8_t[]>(sidSize);
    auto aclMemory = std::make_unique<uint8_t[]>(aclSize);
    std::copy_n(data + 1, sidSize, sidMemory.get());
    std::copy_n(data + 1 + sidSize, aclSize, aclMemory.get());
    std::span<const uint8_t> sid(sidMemory.get(), sidSize);
    std::span<const uint8_t> acl(aclMemory.get(), aclSize);

    for (const ProcMgrAce& ace : PROCMGR_STATION_ACES) {
        ProcMgrAclFindLast(acl, ace, sid);
    }
    std::optional<ProcMgrBytes> longer = ProcMgrAclAppend(acl, PROCMGR_STATION_ACES, sid);
    if (!longer) {
        return 0;
    }
    uint32_t count = static_cast<uint32_t>((*longer)[4] | (*longer)[5] << 8);
    if (ProcMgrAclFindLast(*longer, PROCMGR_STATION_ACES[1], sid) != count - 1) {
        std::abort();
    }
    return 0;
}
