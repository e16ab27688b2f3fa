// The n-th of everything fails, for every n; the image is cut and damaged at every byte.
#include "fileMemory.h"
#include "testImage.h"

#include "support/diagCapture.h"

#include <algorithm>
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <new>

namespace {

// Counts down to the allocation that fails; 0: none does.
unsigned allocationsLeft = 0;

void* Allocate(size_t size) {
    return allocationsLeft != 0 && --allocationsLeft == 0 ? nullptr : malloc(size);
}

} // namespace

void* operator new(size_t size) {
    void* memory = Allocate(size);
    if (!memory) {
        throw std::bad_alloc();
    }
    return memory;
}

void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}

void operator delete(void* memory, const std::nothrow_t&) noexcept {
    free(memory);
}

void operator delete(void* memory) noexcept {
    free(memory);
}

void operator delete(void* memory, size_t) noexcept {
    free(memory);
}

namespace {

using Result = Iso9660_Result;

constexpr uint32_t JOLIET = ISO9660_WANT_JOLIET;
constexpr uint32_t ROCK = ISO9660_WANT_ROCK_RIDGE;

// Opens the image, extracts all of it and closes it; the first code that is not success.
Result ExtractAll(uint32_t wanted) {
    Iso9660_Image* image = nullptr;
    Result result = Iso9660_Open(FILE_MEMORY_IMAGE, wanted, 0, &image);
    if (result != Result::Success) {
        return result;
    }
    result = Iso9660_Extract(image, "\\", FILE_MEMORY_TARGET);
    Result closed = Iso9660_Close(image);
    EXPECT_EQ(fileMemory.openFiles, 0);
    return result != Result::Success ? result : closed;
}

// An image with one file of this size.
TestImage FileOfSize(uint32_t size) {
    TestImage image = RootWith({{"FILE", TEST_FREE, size}});
    image.Put(TEST_FREE, std::string(size + 1, 'x'));
    return image;
}

struct IsoSweep : testing::TestWithParam<uint32_t> {
    ~IsoSweep() override { DiagCapture_Take(); }

    // Whether a byte is one of those that say where everything is: all the sectors before the files' own,
    // each as far as it is filled.
    bool Describes(size_t byte) const {
        auto at = image.bytes.begin() + static_cast<ptrdiff_t>(byte);
        auto end = image.bytes.begin() + static_cast<ptrdiff_t>((byte / TEST_SECTOR + 1) * TEST_SECTOR);
        return byte < (TEST_FREE + 4) * TEST_SECTOR && std::any_of(at, end, [](uint8_t b) { return b != 0; });
    }

    TestTree expected;
    TestImage image = SampleImage(&expected);
};

TEST_P(IsoSweep, EveryFileCall) {
    for (unsigned n = 1;; ++n) {
        FileMemory_Reset(image.bytes);
        fileMemory.failingCall = n;
        DiagCapture_Take();
        Result result = ExtractAll(GetParam());
        if (!fileMemory.failed) {
            EXPECT_EQ(result, Result::Success);
            EXPECT_EQ(fileMemory.tree, expected);
            EXPECT_GT(n, 30u);
            break;
        }
        if (result == Result::Success) { // nobody misses the search for Rock Ridge but the names
            EXPECT_EQ(GetParam(), ROCK);
            EXPECT_EQ(fileMemory.tree.size(), expected.size());
            continue;
        }
        EXPECT_THAT(result, testing::AnyOf(Result::IoError, Result::BadFormat)) << "call " << n;
        if (fileMemory.calls > 8 && DiagCapture_Take().warning.empty()) {
            EXPECT_EQ(n, fileMemory.calls) << "only closing the image fails without a word";
        }
    }
}

TEST_P(IsoSweep, EveryAllocation) {
    for (unsigned n = 1;; ++n) {
        FileMemory_Reset(image.bytes);
        allocationsLeft = n;
        Result result = ExtractAll(GetParam());
        if (std::exchange(allocationsLeft, 0) != 0) {
            EXPECT_EQ(result, Result::Success);
            EXPECT_EQ(fileMemory.tree, expected);
            EXPECT_GT(n, 5u);
            break;
        }
        EXPECT_EQ(result, Result::OutOfMemory) << "allocation " << n;
    }
}

// Wherever the image is cut, there is a code, and it says success only when nothing is missing.
TEST_P(IsoSweep, Truncated) {
    for (size_t size = 0; size < image.bytes.size(); size += Describes(size) ? 1 : 97) {
        FileMemory_Reset(std::span(image.bytes).first(size));
        Result result = ExtractAll(GetParam());
        ASSERT_NE(result, Result::Success) << size;
        if (size < 17 * TEST_SECTOR) {
            EXPECT_EQ(result, Result::BadFormat) << size;
        }
        for (const auto& [name, content] : fileMemory.tree) {
            auto original = expected.find(name); // plain names, when Rock Ridge was cut off, are others
            EXPECT_TRUE(original == expected.end() || original->second.starts_with(content)) << name;
        }
        DiagCapture_Take();
    }
}

// One byte after the other of what describes the tree takes values that it should not have. What may be
// written, and where, the file system in memory checks.
TEST_P(IsoSweep, DamagedAtEveryByte) {
    size_t failures = 0;
    for (size_t i = 0; i < image.bytes.size(); ++i) {
        if (!Describes(i)) {
            continue;
        }
        uint8_t original = image.bytes[i];
        for (int value : {0x00, 0xFF, original ^ 0x01, original ^ 0x80, 0x2F, 0x5C, 0x3A}) {
            image.bytes[i] = static_cast<uint8_t>(value);
            FileMemory_Reset(image.bytes);
            fileMemory.room = 1u << 20;
            failures += ExtractAll(GetParam()) == Result::Success ? 0 : 1;
        }
        image.bytes[i] = original;
        DiagCapture_Take();
    }
    EXPECT_GT(failures, 300u);
}

INSTANTIATE_TEST_SUITE_P(Names, IsoSweep, testing::Values(JOLIET, ROCK));

// Nothing is allocated for a chunk: one of a thousand costs as many allocations as one of one.
TEST(IsoChunks, TakeNoMemory) {
    auto allocations = [](uint32_t chunks) {
        TestImage image = FileOfSize(chunks * 2048);
        FileMemory_Reset(image.bytes);
        fileMemory.tree["FILE"].reserve(size_t{chunks} * 2048);
        constexpr unsigned plenty = 1000000;
        allocationsLeft = plenty;
        EXPECT_EQ(ExtractAll(0), Result::Success);
        return plenty - std::exchange(allocationsLeft, 0);
    };
    EXPECT_EQ(allocations(1), allocations(1000));
}

// What is written comes in chunks of a sector, and only the first one takes a seek.
TEST(IsoChunks, HaveOneSector) {
    unsigned callsWithout = 0;
    for (auto [size, chunks] :
         {std::pair{0u, 0u}, {1u, 1u}, {2047u, 1u}, {2048u, 1u}, {2049u, 2u}, {4096u, 2u}}) {
        TestImage image = FileOfSize(size);
        FileMemory_Reset(image.bytes);
        EXPECT_EQ(ExtractAll(0), Result::Success);
        EXPECT_EQ(fileMemory.writes, chunks) << size;
        EXPECT_EQ(fileMemory.largestWrite, std::min(size, 2048u));
        callsWithout = size == 0 ? fileMemory.calls : callsWithout;
        EXPECT_EQ(fileMemory.calls - callsWithout, 2 * chunks + (size == 0 ? 0 : 1)) << size;
    }
}

} // namespace
