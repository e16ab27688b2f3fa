// The section search over module headers: what it finds, and what it must not touch.
#include "coreDump/coreDumpModule.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr size_t NT = 128; // where the test's NT headers begin

struct Section {
    uint32_t address;
    uint32_t virtualSize;
    uint32_t rawSize;
};

template <typename Number>
void Put(std::vector<uint8_t>* bytes, size_t at, Number value) {
    bytes->resize(std::max(bytes->size(), at + sizeof value));
    memcpy(bytes->data() + at, &value, sizeof value);
}

// Headers that end with the last byte of the section table.
std::vector<uint8_t> Headers(const std::vector<Section>& sections, uint16_t optionalSize = 240) {
    std::vector<uint8_t> bytes(NT + 264);
    memcpy(bytes.data(), "MZ", 2);
    Put<uint32_t>(&bytes, 60, NT);
    memcpy(bytes.data() + NT, "PE\0\0", 4);
    Put<uint16_t>(&bytes, NT + 6, static_cast<uint16_t>(sections.size()));
    Put<uint16_t>(&bytes, NT + 20, optionalSize);
    size_t at = NT + 24 + optionalSize;
    for (const Section& section : sections) {
        Put<uint32_t>(&bytes, at + 8, section.virtualSize);
        Put<uint32_t>(&bytes, at + 12, section.address);
        Put<uint32_t>(&bytes, at + 16, section.rawSize);
        Put<uint32_t>(&bytes, at + 36, 0x60000020);
        at += 40;
    }
    return bytes;
}

// Searches a copy that ends where the memory block ends, so that a sanitizer sees the first byte too many.
std::optional<CoreDumpSection> Find(const std::vector<uint8_t>& bytes, uint64_t offset) {
    auto copy = std::make_unique<uint8_t[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), copy.get());
    return CoreDumpFindSection({copy.get(), bytes.size()}, offset);
}

const std::vector<Section> TWO = {{0x1000, 0x800, 0xA00}, {0x2000, 0x3000, 0x200}};
const std::vector<Section> OVERLAPPING = {{0x1000, 0x2000, 0}, {0x2000, 0x1000, 0}};
const std::vector<Section> AT_THE_TOP = {{0xFFFFFFFF, 0xFFFFFFFF, 0}};

TEST(CoreDumpModule, FindsTheSectionAndTheOffsetInIt) {
    struct {
        const std::vector<Section>& sections;
        uint64_t offset;
        uint32_t number; // 0: none
        uint32_t inside;
    } cases[] = {
        {TWO, 0, 0, 0}, // the headers belong to no section
        {TWO, 0xFFF, 0, 0},
        {TWO, 0x1000, 1, 0},
        {TWO, 0x19FF, 1, 0x9FF}, // the larger of the sizes in memory and in the file
        {TWO, 0x1A00, 0, 0},
        {TWO, 0x4FFF, 2, 0x2FFF},
        {TWO, 0x5000, 0, 0},
        {TWO, 0x100001000, 0, 0},
        {TWO, UINT64_MAX, 0, 0},
        {OVERLAPPING, 0x2010, 1, 0x1010},
        {AT_THE_TOP, 0xFFFFFFFE, 0, 0},
        {AT_THE_TOP, 0xFFFFFFFF, 1, 0},
        {AT_THE_TOP, 0x1FFFFFFFD, 1, 0xFFFFFFFE},
        {AT_THE_TOP, 0x1FFFFFFFE, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.offset);
        const auto found = Find(Headers(c.sections), c.offset);
        ASSERT_EQ(found.has_value(), c.number != 0);
        EXPECT_EQ(found ? found->number : 0, c.number);
        EXPECT_EQ(found ? found->offset : 0, c.inside);
    }
}

TEST(CoreDumpModule, TheTableStandsBehindTheOptionalHeader) {
    for (uint16_t size : {uint16_t{240}, uint16_t{248}, uint16_t{4000}}) {
        EXPECT_EQ(Find(Headers(TWO, size), 0x2001).value().number, 2u) << size;
    }
}

TEST(CoreDumpModule, HeadersThatEndEarlyHoldNothing) {
    const auto whole = Headers(TWO);
    for (size_t length = 0; length < whole.size(); length++) {
        EXPECT_FALSE(Find({whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length)}, 0x1000)) << length;
    }
    EXPECT_TRUE(Find(whole, 0x1000));
}

TEST(CoreDumpModule, RefusesHeadersThatPointOutside) {
    struct {
        const char* what;
        size_t at;
        uint32_t value;
        size_t width;
    } cases[] = {
        {"DOS signature", 0, 0x5A4E, 2},
        {"NT signature", NT, 0x4551, 4},
        {"NT headers at the end of the address range", 60, 0xFFFFFFFF, 4},
        {"NT headers in the last bytes", 60, static_cast<uint32_t>(Headers(TWO).size()) - 4, 4},
        {"more sections than there are", NT + 6, 0xFFFF, 2},
        {"a huge optional header", NT + 20, 0xFFFF, 2},
        {"no sections", NT + 6, 0, 2},
    };
    for (const auto& c : cases) {
        auto headers = Headers(TWO);
        memcpy(headers.data() + c.at, &c.value, c.width);
        EXPECT_FALSE(Find(headers, 0x1000)) << c.what;
    }
}

} // namespace
