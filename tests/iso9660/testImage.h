// Images made byte by byte, so that a test can have what no tool would write, and a folder to work in.
#pragma once

#include "iso9660/iso9660.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

inline constexpr size_t TEST_SECTOR = 2048;

// Where TestImage puts what every image has. Tests use the sectors from TEST_FREE on.
inline constexpr uint32_t TEST_PRIMARY = 16;
inline constexpr uint32_t TEST_SUPPLEMENTARY = 17; // without Joliet, the terminator
inline constexpr uint32_t TEST_ROOT = 20;
inline constexpr uint32_t TEST_JOLIET_ROOT = 22;
inline constexpr uint32_t TEST_FREE = 24;

inline constexpr uint8_t TEST_DIRECTORY = 2;
inline constexpr uint8_t TEST_MORE_EXTENTS = 0x80;

std::string Both32(uint32_t value); // little-endian, then a big-endian half that is wrong on purpose
std::string JolietName(std::u16string_view name);

struct TestRecord {
    std::string name; // as stored
    uint32_t sector = 0;
    uint32_t size = 0;
    uint8_t flags = 0;
    std::string systemUse = {};
    std::string time = std::string("\x7D\x01\x02\x03\x04\x05\x08", 7);

    std::string Bytes() const;
};

// System-use entries.
std::string Entry(std::string_view signature, std::string_view data, int version = 1);
std::string SkipAnnouncement(uint8_t skip = 0); // SP
std::string RockRidgeAnnouncement();            // ER
std::string AlternateName(uint8_t flags, std::string_view text);
std::string Continuation(uint32_t sector, uint32_t offset, size_t length);

class TestImage {
public:
    // A primary descriptor, perhaps a Joliet one, a terminator, and empty root directories.
    explicit TestImage(bool joliet = false);

    // Grows the image by whole sectors as needed.
    void Put(uint32_t sector, std::string_view bytes, size_t offset = 0);
    void PutDescriptor(uint32_t sector, uint8_t type);
    void SetRoot(uint32_t descriptor, uint32_t sector, uint32_t size);

    // "." and ".." and the records, as many to a sector as fit. Returns the directory's size in bytes.
    uint32_t PutDirectory(uint32_t sector, uint32_t parent, const std::vector<TestRecord>& records,
                          const std::string& selfSystemUse = {});

    std::vector<uint8_t> bytes;
};

// An image with these records in its root, the Joliet one if that is wanted. The root announces Rock Ridge.
TestImage RootWith(const std::vector<TestRecord>& records, uint32_t wanted = 0);

// "a/b" to the content, or to TEST_TREE_DIRECTORY.
using TestTree = std::map<std::string, std::string>;
inline const std::string TEST_TREE_DIRECTORY = "<directory>";

// An image of every kind of thing: a directory in the root, Joliet and Rock Ridge names, a continuation,
// files of no, one and three sectors. What extraction gives is in `tree`.
TestImage SampleImage(TestTree* tree = nullptr);

class TestFolder {
public:
    TestFolder();
    TestFolder(const TestFolder&) = delete;
    TestFolder& operator=(const TestFolder&) = delete;
    ~TestFolder();

    std::string Path(std::string_view name = {}) const; // UTF-8
    std::string Write(std::string_view name, const std::vector<uint8_t>& bytes) const;
    std::string Write(const TestImage& image) const { return Write("image.iso", image.bytes); }
    std::string Make(std::string_view name) const; // a directory
    TestTree Tree(std::string_view name) const;

private:
    std::filesystem::path root_;
};

// An open image that closes itself.
class OpenedImage {
public:
    OpenedImage(const std::string& path, uint32_t wanted, uint32_t mode = 0)
        : result(Iso9660_Open(path.c_str(), wanted, mode, &image)) {}
    OpenedImage(const OpenedImage&) = delete;
    OpenedImage& operator=(const OpenedImage&) = delete;
    ~OpenedImage() { Iso9660_Close(image); }

    Iso9660_Image* image = nullptr;
    Iso9660_Result result;
};

// Prints a result as its number.
void PrintTo(Iso9660_Result result, std::ostream* stream);
