#include "testImage.h"

#include <algorithm>
#include <atomic>
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

std::string Text(const std::u8string& text) {
    return std::string(text.begin(), text.end());
}

std::filesystem::path FromText(std::string_view text) {
    return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

} // namespace

std::string Both32(uint32_t value) {
    return Byte(value & 0xFF) + Byte(value >> 8 & 0xFF) + Byte(value >> 16 & 0xFF) + Byte(value >> 24) +
           "\xEE\xEE\xEE\xEE";
}

std::string JolietName(std::u16string_view name) {
    std::string bytes;
    for (char16_t unit : name) {
        bytes += Byte(unit >> 8) + Byte(unit & 0xFFu);
    }
    return bytes;
}

std::string TestRecord::Bytes() const {
    std::string bytes(2, '\0'); // the length, known in the end; no extended attributes
    bytes += Both32(sector) + Both32(size) + time + Byte(flags) + std::string("\0\0\x01\0\xEE\xEE", 6) +
             Byte(static_cast<unsigned>(name.size())) + name;
    bytes.resize((bytes.size() + 1) / 2 * 2);
    bytes += systemUse;
    bytes.resize((bytes.size() + 1) / 2 * 2);
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

std::string Continuation(uint32_t sector, uint32_t offset, size_t length) {
    return Entry("CE", Both32(sector) + Both32(offset) + Both32(static_cast<uint32_t>(length)));
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
    std::vector<TestRecord> all = {
        {std::string(1, '\0'), sector, TEST_SECTOR, TEST_DIRECTORY, selfSystemUse},
        {std::string(1, '\1'), parent, TEST_SECTOR, TEST_DIRECTORY},
    };
    all.insert(all.end(), records.begin(), records.end());
    std::string content;
    for (const TestRecord& record : all) {
        std::string stored = record.Bytes();
        size_t left = TEST_SECTOR - content.size() % TEST_SECTOR;
        content.append(stored.size() > left ? left : 0, '\0');
        content += stored;
    }
    content.resize((content.size() + TEST_SECTOR - 1) / TEST_SECTOR * TEST_SECTOR);
    Put(sector, content);
    return static_cast<uint32_t>(content.size());
}

TestImage RootWith(const std::vector<TestRecord>& records, uint32_t wanted) {
    bool joliet = (wanted & ISO9660_WANT_JOLIET) != 0;
    TestImage image(joliet);
    uint32_t root = joliet ? TEST_JOLIET_ROOT : TEST_ROOT;
    image.PutDirectory(root, root, records, SkipAnnouncement() + RockRidgeAnnouncement());
    return image;
}

TestImage SampleImage(TestTree* tree) {
    constexpr uint32_t deep = TEST_FREE + 4;
    constexpr uint32_t readme = deep + 3;
    const std::string directory = "Gr\u00FC\u00DFe";
    const std::string deepContent(5000, 'd');
    const std::string tail = AlternateName(0, "txt");
    TestImage image(true);
    image.Put(TEST_FREE + 2, tail);
    image.Put(deep, deepContent);
    image.Put(readme, "hello");
    image.PutDirectory(TEST_FREE, TEST_ROOT, {{"DEEP.BIN;1", deep, 5000, 0, AlternateName(0, "deep.bin")}});
    image.PutDirectory(TEST_ROOT, TEST_ROOT,
                       {{"DIR", TEST_FREE, TEST_SECTOR, TEST_DIRECTORY, AlternateName(0, directory)},
                        {"EMPTY.;1", readme, 0, 0, AlternateName(0, "empty")},
                        {"README.TXT;1", readme, 5, 0,
                         AlternateName(1, "readme.") + Continuation(TEST_FREE + 2, 0, tail.size())}},
                       SkipAnnouncement() + RockRidgeAnnouncement());
    image.PutDirectory(TEST_FREE + 1, TEST_JOLIET_ROOT, {{JolietName(u"deep.bin"), deep, 5000}});
    image.PutDirectory(TEST_JOLIET_ROOT, TEST_JOLIET_ROOT,
                       {{JolietName(u"Gr\u00FC\u00DFe"), TEST_FREE + 1, TEST_SECTOR, TEST_DIRECTORY},
                        {JolietName(u"empty"), readme, 0},
                        {JolietName(u"readme.txt"), readme, 5}});
    if (tree) {
        *tree = {{"readme.txt", "hello"},
                 {"empty", ""},
                 {directory, TEST_TREE_DIRECTORY},
                 {directory + "/deep.bin", deepContent}};
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
    return Text((name.empty() ? root_ : root_ / FromText(name)).u8string());
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
    TestTree tree;
    std::filesystem::path top = root_ / FromText(name);
    for (const auto& found : std::filesystem::recursive_directory_iterator(top)) {
        std::string& content = tree[Text(found.path().lexically_relative(top).generic_u8string())];
        if (found.is_directory()) {
            content = TEST_TREE_DIRECTORY;
        } else {
            std::ifstream stream(found.path(), std::ios::binary);
            content.assign(std::istreambuf_iterator<char>(stream), {});
        }
    }
    return tree;
}

void PrintTo(Iso9660_Result result, std::ostream* stream) {
    *stream << "code " << static_cast<unsigned>(result);
}
