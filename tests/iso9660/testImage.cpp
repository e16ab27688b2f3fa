#include "testImage.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <iterator>
#include <ostream>
#include <random>

namespace {

constexpr size_t ROOT_IN_DESCRIPTOR = 156;
constexpr size_t BLOCK_SIZE_IN_DESCRIPTOR = 128;
constexpr size_t ESCAPES_IN_DESCRIPTOR = 88;

std::string Byte(unsigned value) {
    return std::string(1, static_cast<char>(value));
}

std::string Text(const std::filesystem::path& path) {
    auto text = path.generic_u8string();
    return std::string(text.begin(), text.end());
}

std::filesystem::path FromText(std::string_view text) {
    return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

} // namespace

std::string Little32(uint32_t value) {
    return Byte(value & 0xFF) + Byte(value >> 8 & 0xFF) + Byte(value >> 16 & 0xFF) + Byte(value >> 24);
}

std::string Both32(uint32_t value) {
    return Little32(value) + "\xEE\xEE\xEE\xEE";
}

std::string JolietName(std::u16string_view name) {
    std::string bytes;
    for (char16_t unit : name) {
        bytes += Byte(unit >> 8) + Byte(unit & 0xFFu);
    }
    return bytes;
}

std::string TestRecord::Bytes() const {
    std::string bytes = std::string(1, '\0') + Both32(sector) + Both32(size) + time + Byte(flags) +
                        std::string(2, '\0') + std::string("\x01\x00\xEE\xEE", 4) +
                        Byte(static_cast<unsigned>(name.size())) + name;
    bytes.insert(1, 1, '\0'); // no extended attributes
    if (name.size() % 2 == 0) {
        bytes += '\0';
    }
    bytes += systemUse;
    if (bytes.size() % 2 != 0) {
        bytes += '\0';
    }
    bytes[0] = static_cast<char>(bytes.size());
    return bytes;
}

std::string Entry(std::string_view signature, std::string_view data, int version) {
    return std::string(signature) + Byte(static_cast<unsigned>(4 + data.size())) +
           Byte(static_cast<unsigned>(version)) + std::string(data);
}

std::string SkipAnnouncement(uint8_t skip) {
    return Entry("SP", "\xBE\xEF" + Byte(skip));
}

std::string RockRidgeAnnouncement() {
    return Entry("ER", std::string("\x0A\x02\x02\x01", 4) + "RRIP_1991A" + "dddd");
}

std::string AlternateName(uint8_t flags, std::string_view text) {
    return Entry("NM", Byte(flags) + std::string(text));
}

std::string Continuation(uint32_t sector, uint32_t offset, uint32_t length) {
    return Entry("CE", Both32(sector) + Both32(offset) + Both32(length));
}

TestImage::TestImage(bool joliet) {
    PutDescriptor(TEST_PRIMARY, 1);
    SetRoot(TEST_PRIMARY, TEST_ROOT, TEST_SECTOR);
    PutDirectory(TEST_ROOT, TEST_ROOT, {});
    if (joliet) {
        PutDescriptor(TEST_SUPPLEMENTARY, 2);
        Put(TEST_SUPPLEMENTARY, "%/E", ESCAPES_IN_DESCRIPTOR);
        SetRoot(TEST_SUPPLEMENTARY, TEST_JOLIET_ROOT, TEST_SECTOR);
        PutDirectory(TEST_JOLIET_ROOT, TEST_JOLIET_ROOT, {});
    }
    PutDescriptor(joliet ? TEST_SUPPLEMENTARY + 1 : TEST_SUPPLEMENTARY, 255);
}

void TestImage::Put(uint32_t sector, std::string_view text, size_t offset) {
    size_t start = sector * TEST_SECTOR + offset;
    size_t sectors = (start + text.size() + TEST_SECTOR - 1) / TEST_SECTOR;
    bytes.resize(std::max(bytes.size(), sectors * TEST_SECTOR));
    std::copy(text.begin(), text.end(), bytes.begin() + static_cast<ptrdiff_t>(start));
}

void TestImage::PutDescriptor(uint32_t sector, uint8_t type) {
    Put(sector, std::string(TEST_SECTOR, '\0'));
    Put(sector, Byte(type) + "CD001\x01");
    Put(sector, std::string_view("\x00\x08\x08\x00", 4), BLOCK_SIZE_IN_DESCRIPTOR);
}

void TestImage::SetRoot(uint32_t descriptor, uint32_t sector, uint32_t size) {
    Put(descriptor, TestRecord{std::string(1, '\0'), sector, size, TEST_DIRECTORY}.Bytes(),
        ROOT_IN_DESCRIPTOR);
}

uint32_t TestImage::PutDirectory(uint32_t sector, uint32_t parent, const std::vector<TestRecord>& records,
                                 const std::string& selfSystemUse) {
    std::vector<std::string> stored = {
        TestRecord{std::string(1, '\0'), sector, TEST_SECTOR, TEST_DIRECTORY, selfSystemUse}.Bytes(),
        TestRecord{std::string(1, '\1'), parent, TEST_SECTOR, TEST_DIRECTORY}.Bytes()};
    for (const TestRecord& record : records) {
        stored.push_back(record.Bytes());
    }
    std::string content;
    for (const std::string& record : stored) {
        size_t left = TEST_SECTOR - content.size() % TEST_SECTOR;
        if (record.size() > left) {
            content.append(left, '\0');
        }
        content += record;
    }
    content.resize((content.size() + TEST_SECTOR - 1) / TEST_SECTOR * TEST_SECTOR);
    Put(sector, content);
    return static_cast<uint32_t>(content.size());
}

TestImage SampleImage(TestTree* tree) {
    TestTree sample = {
        {"readme.txt", "hello"},
        {"empty", ""},
        {"sector", std::string(2048, 's')},
        {"more", std::string(2049, 'm')},
        {"Gr\u00FC\u00DFe", TEST_TREE_DIRECTORY},
        {"Gr\u00FC\u00DFe/deep.bin", std::string(5000, 'd')},
    };
    TestImage image(true);
    uint32_t next = TEST_FREE + 4;
    std::map<std::string, uint32_t> sectors;
    for (const auto& [name, content] : sample) {
        if (content != TEST_TREE_DIRECTORY && !content.empty()) {
            sectors[name] = next;
            image.Put(next, content);
            next += static_cast<uint32_t>((content.size() + TEST_SECTOR - 1) / TEST_SECTOR);
        }
    }
    auto file = [&](std::string stored, const std::string& name, const std::string& alternate) {
        return TestRecord{std::move(stored), sectors[name], static_cast<uint32_t>(sample[name].size()), 0,
                          alternate.empty() ? "" : AlternateName(0, alternate)};
    };
    std::string deep = "Gr\u00FC\u00DFe/deep.bin";
    uint32_t continued = TEST_FREE + 2;
    std::string tail = AlternateName(0, "txt");
    image.Put(continued, tail);

    image.PutDirectory(TEST_FREE, TEST_ROOT, {file("DEEP.BIN;1", deep, "deep.bin")});
    image.PutDirectory(
        TEST_ROOT, TEST_ROOT,
        {{"DIR", TEST_FREE, TEST_SECTOR, TEST_DIRECTORY, AlternateName(0, "Gr\u00FC\u00DFe")},
         file("EMPTY.;1", "empty", "empty"),
         file("MORE.;1", "more", "more"),
         {"README.TXT;1", sectors["readme.txt"], 5, 0,
          AlternateName(1, "readme.") + Continuation(continued, 0, static_cast<uint32_t>(tail.size()))},
         file("SECTOR.;1", "sector", "sector")},
        SkipAnnouncement() + RockRidgeAnnouncement());

    image.PutDirectory(TEST_FREE + 1, TEST_JOLIET_ROOT, {file(JolietName(u"deep.bin"), deep, "")});
    image.PutDirectory(TEST_JOLIET_ROOT, TEST_JOLIET_ROOT,
                       {{JolietName(u"Gr\u00FC\u00DFe"), TEST_FREE + 1, TEST_SECTOR, TEST_DIRECTORY},
                        file(JolietName(u"empty"), "empty", ""),
                        file(JolietName(u"more"), "more", ""),
                        file(JolietName(u"readme.txt"), "readme.txt", ""),
                        file(JolietName(u"sector"), "sector", "")});
    if (tree) {
        *tree = sample;
    }
    return image;
}

TestFolder::TestFolder() {
    static std::atomic<unsigned> count = 0;
    static const auto salt = std::random_device()();
    root_ = std::filesystem::temp_directory_path() /
            ("rliso-" + std::to_string(salt) + "-" + std::to_string(count++));
    std::filesystem::create_directories(root_);
}

TestFolder::~TestFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
}

std::string TestFolder::Path(std::string_view name) const {
    auto text = (name.empty() ? root_ : root_ / FromText(name)).u8string();
    return std::string(text.begin(), text.end());
}

std::string TestFolder::Write(std::string_view name, const std::vector<uint8_t>& content) const {
    std::ofstream stream(root_ / FromText(name), std::ios::binary | std::ios::trunc);
    stream.write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
    return Path(name);
}

std::string TestFolder::Make(std::string_view name) const {
    std::filesystem::create_directories(root_ / FromText(name));
    return Path(name);
}

TestTree TestFolder::Tree(std::string_view name) const {
    return ReadTree(root_ / FromText(name));
}

std::string ReadWhole(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), {});
}

TestTree ReadTree(const std::filesystem::path& root) {
    TestTree tree;
    for (const auto& found : std::filesystem::recursive_directory_iterator(root)) {
        std::string name = Text(found.path().lexically_relative(root));
        tree[name] = found.is_directory() ? TEST_TREE_DIRECTORY : ReadWhole(found.path());
    }
    return tree;
}

void PrintTo(Iso9660_Result result, std::ostream* stream) {
    *stream << "code " << static_cast<unsigned>(result);
}
