// Section search over arbitrary headers. Input: the offset (8 bytes), then the headers.
#include "coreDump/coreDumpModule.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    uint64_t offset = 0;
    if (size < sizeof offset) {
        return 0;
    }
    memcpy(&offset, data, sizeof offset);
    const size_t length = size - sizeof offset;
    // A block of exactly this length: a sanitizer sees the first byte too many.
    auto headers = std::make_unique<uint8_t[]>(length);
    memcpy(headers.get(), data + sizeof offset, length);
    const auto found = CoreDumpFindSection({headers.get(), length}, offset);
    if (!found) {
        return 0;
    }
    // The section's 40 bytes lie in the headers, and more readable memory behind them changes nothing.
    std::vector<uint8_t> longer(headers.get(), headers.get() + length);
    longer.insert(longer.end(), 64, 0xFF);
    const auto again = CoreDumpFindSection(longer, offset);
    if (found->number < 1 || found->number * size_t{40} > length || found->offset > offset || !again ||
        again->number != found->number || again->offset != found->offset) {
        abort();
    }
    return 0;
}
