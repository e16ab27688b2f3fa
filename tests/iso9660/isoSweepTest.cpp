// The n-th of everything fails, for every n; the image is cut and damaged at every byte.
#include "fileMemory.h"
#include "testImage.h"

#include "support/diagCapture.h"

#include <algorithm>
#include <cstdlib>
#include <functional>
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

TestTree Extracted() {
    TestTree tree;
    auto named = [](std::string path) {
        std::replace(path.begin(), path.end(), '\\', '/');
        return path;
    };
    for (const auto& [path, content] : fileMemory.files) {
        tree[named(path)] = content;
    }
    for (const auto& [path, present] : fileMemory.directories) {
        tree[named(path)] = TEST_TREE_DIRECTORY;
    }
    return tree;
}

// Opens the image, extracts all of it and closes it; the first code that is not success.
Result ExtractAll(uint32_t wanted) {
    Iso9660_Image* image = nullptr;
    Result result = Iso9660_Open(FILE_MEMORY_IMAGE, wanted, 0, &image);
    if (result != Result::Success) {
        return result;
    }
    result = Iso9660_Extract(image, "\\", FILE_MEMORY_TARGET);
    Result closed = Iso9660_Close(image);
    return result != Result::Success ? result : closed;
}

struct IsoSweep : testing::Test {
    IsoSweep() : image(SampleImage(&expected)) { DiagCapture_Take(); }

    TestTree expected;
    TestImage image;
};

TEST_F(IsoSweep, EveryFileCall) {
    for (uint32_t wanted : {ISO9660_WANT_JOLIET, ISO9660_WANT_ROCK_RIDGE}) {
        for (unsigned n = 1;; ++n) {
            FileMemory_Reset(image.bytes);
            fileMemory.failingCall = n;
            Result result = ExtractAll(wanted);
            ASSERT_EQ(fileMemory.openFiles, 0);
            if (!fileMemory.failed) {
                EXPECT_EQ(result, Result::Success);
                EXPECT_EQ(Extracted(), expected);
                EXPECT_GT(n, 30u);
                break;
            }
            std::vector<std::string> debug = DiagCapture_Take().debug;
            if (result == Result::Success) {
                // Nobody misses the search for Rock Ridge but the names.
                EXPECT_EQ(wanted, ISO9660_WANT_ROCK_RIDGE);
                EXPECT_EQ(Extracted().size(), expected.size());
                continue;
            }
            EXPECT_THAT(result, testing::AnyOf(Result::IoError, Result::BadFormat)) << "call " << n;
            if (fileMemory.calls > 8 && debug.empty()) {
                EXPECT_EQ(n, fileMemory.calls) << "only closing the image fails without a word";
            }
        }
    }
}

TEST_F(IsoSweep, EveryAllocation) {
    for (uint32_t wanted : {ISO9660_WANT_JOLIET, ISO9660_WANT_ROCK_RIDGE}) {
        unsigned faults = 0;
        for (unsigned n = 1;; ++n) {
            FileMemory_Reset(image.bytes);
            allocationsLeft = n;
            Result result = ExtractAll(wanted);
            bool reached = allocationsLeft == 0;
            allocationsLeft = 0;
            ASSERT_EQ(fileMemory.openFiles, 0);
            if (!reached) {
                EXPECT_EQ(result, Result::Success);
                EXPECT_EQ(Extracted(), expected);
                break;
            }
            ++faults;
            EXPECT_EQ(result, Result::OutOfMemory) << "allocation " << n;
        }
        EXPECT_GT(faults, 5u);
    }
}

// Nothing is allocated for a chunk: one of a thousand costs as many allocations as one of one.
TEST_F(IsoSweep, NoAllocationPerChunk) {
    unsigned counts[2];
    for (unsigned chunks : {1u, 1000u}) {
        TestImage one;
        one.Put(TEST_FREE, std::string(chunks * 2048, 'x'));
        one.PutDirectory(TEST_ROOT, TEST_ROOT, {{"FILE", TEST_FREE, chunks * 2048}});
        FileMemory_Reset(one.bytes);
        fileMemory.files["FILE"].reserve(chunks * 2048);
        constexpr unsigned plenty = 1000000;
        allocationsLeft = plenty;
        Result result = ExtractAll(0);
        counts[chunks == 1 ? 0 : 1] = plenty - allocationsLeft;
        allocationsLeft = 0;
        EXPECT_EQ(result, Result::Success);
    }
    EXPECT_EQ(counts[0], counts[1]);
}

TEST_F(IsoSweep, FullDisk) {
    size_t all = 0;
    for (const auto& [name, content] : expected) {
        all += content == TEST_TREE_DIRECTORY ? 0 : content.size();
    }
    for (size_t room : {size_t{0}, size_t{2048}, all - 1, all}) {
        FileMemory_Reset(image.bytes);
        fileMemory.room = room;
        EXPECT_EQ(ExtractAll(ISO9660_WANT_JOLIET), room == all ? Result::Success : Result::IoError);
        EXPECT_EQ(DiagCapture_Take().debug.size(), room == all ? 0u : 1u);
    }
}

// What is written comes in chunks of a sector, whatever the size of the file.
TEST_F(IsoSweep, ChunksOfOneSector) {
    for (auto [size, calls] :
         {std::pair{0u, 0u}, {1u, 1u}, {2047u, 1u}, {2048u, 1u}, {2049u, 2u}, {4096u, 2u}}) {
        TestImage one;
        one.Put(TEST_FREE, std::string(size + 1, 'x'));
        one.PutDirectory(TEST_ROOT, TEST_ROOT, {{"FILE", TEST_FREE, size}});
        FileMemory_Reset(one.bytes);
        EXPECT_EQ(ExtractAll(0), Result::Success);
        unsigned withFile = fileMemory.calls;
        TestImage empty;
        empty.Put(TEST_FREE, std::string(size + 1, 'x'));
        empty.PutDirectory(TEST_ROOT, TEST_ROOT, {{"FILE", TEST_FREE, 0}});
        FileMemory_Reset(empty.bytes);
        EXPECT_EQ(ExtractAll(0), Result::Success);
        unsigned seek = size == 0 ? 0 : 1;
        EXPECT_EQ(withFile - fileMemory.calls, 2 * calls + seek)
            << size << " bytes: reads, writes and one seek";
    }
}

// Wherever the image is cut, there is a code, and it says success only when nothing is missing.
TEST_F(IsoSweep, TruncatedAtEveryByte) {
    for (size_t size = 0; size < image.bytes.size(); size += size < 16 * TEST_SECTOR - 1 ? 7 : 1) {
        std::vector<uint8_t> cut(image.bytes.begin(), image.bytes.begin() + static_cast<ptrdiff_t>(size));
        for (uint32_t wanted : {ISO9660_WANT_JOLIET, ISO9660_WANT_ROCK_RIDGE}) {
            FileMemory_Reset(cut);
            Result result = ExtractAll(wanted);
            ASSERT_NE(result, Result::Success) << size;
            if (size < 17 * TEST_SECTOR) {
                EXPECT_EQ(result, Result::BadFormat) << size;
            }
            for (const auto& [name, content] : Extracted()) {
                auto original = expected.find(name); // plain names, when Rock Ridge was cut off, are others
                EXPECT_TRUE(original == expected.end() || original->second.starts_with(content)) << name;
            }
        }
        DiagCapture_Take();
    }
}

// One byte after the other of what describes the tree takes values that it should not have. What may be
// written, and where, the file system in memory checks.
TEST_F(IsoSweep, DamagedAtEveryByte) {
    size_t failures = 0;
    for (size_t i = 16 * TEST_SECTOR; i < (TEST_FREE + 4) * TEST_SECTOR; ++i) {
        uint8_t original = image.bytes[i];
        if (original == 0 && i % TEST_SECTOR > 500) {
            continue;
        }
        for (int value : {0x00, 0xFF, original ^ 0x01, original ^ 0x80, 0x2F, 0x5C, 0x3A}) {
            image.bytes[i] = static_cast<uint8_t>(value);
            for (uint32_t wanted : {0u, ISO9660_WANT_JOLIET, ISO9660_WANT_ROCK_RIDGE}) {
                FileMemory_Reset(image.bytes);
                fileMemory.room = 1u << 20;
                failures += ExtractAll(wanted) == Result::Success ? 0 : 1;
                ASSERT_EQ(fileMemory.openFiles, 0);
            }
        }
        image.bytes[i] = original;
        DiagCapture_Take();
    }
    EXPECT_GT(failures, 1000u);
}

} // namespace
