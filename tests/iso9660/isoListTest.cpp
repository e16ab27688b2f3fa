// Names, directories, attributes and the content of files.
#include "testImage.h"

#include "iso9660/iso9660System.h"
#ifndef _WIN32
#include "isoSystemDouble.h"
#endif

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using Result = Iso9660_Result;
using testing::ElementsAre;

constexpr uint32_t PLAIN = 0;
constexpr uint32_t JOLIET = ISO9660_WANT_JOLIET;
constexpr uint32_t ROCK = ISO9660_WANT_ROCK_RIDGE;

// The names of a directory; the last element is the code that ended the listing, as "=5".
std::vector<std::string> List(Iso9660_Image* image, const char* path) {
    std::vector<std::string> names;
    Iso9660_Dir dir;
    Result result = Iso9660_OpenDir(image, path, &dir);
    Iso9660_Entry entry;
    while (result == Result::Success) {
        result = Iso9660_ReadDir(image, &dir, &entry);
        if (result == Result::Success) {
            names.push_back(entry.name);
        }
    }
    names.push_back("=" + std::to_string(static_cast<unsigned>(result)));
    return names;
}

std::vector<std::string> ListRoot(const TestImage& image, uint32_t wanted) {
    TestFolder folder;
    OpenedImage opened(folder.Write(image), wanted);
    EXPECT_EQ(opened.result, Result::Success);
    return List(opened.image, "");
}

// The one record's name, or the code that it gave.
std::string NameOf(const TestRecord& record, uint32_t wanted) {
    return ListRoot(RootWith({record}, wanted), wanted).at(2);
}

std::string RockNameOf(const std::string& systemUse) {
    return NameOf({"README.;1", 0, 0, 0, systemUse}, ROCK);
}

std::string Times(char character, size_t count) {
    return std::string(count, character);
}

TEST(IsoNames, PlainAndJoliet) {
    const struct {
        uint32_t wanted;
        std::string stored;
        std::string name;
    } cases[] = {
        {PLAIN, "README.TXT;1", "README.TXT"},
        {PLAIN, "README.;1", "README."},
        {PLAIN, "A;B;1", "A"},
        {PLAIN, "NOVERSION", "NOVERSION"},
        {PLAIN, ";1", ""},
        {PLAIN, "\xC4\xD6.TXT;1", "\xC4\xD6.TXT"}, // what is not UTF-8 is listed as it is
        {JOLIET, JolietName(u"Gr\u00FC\u00DFe \u65E5\u672C.txt"), "Gr\u00FC\u00DFe \u65E5\u672C.txt"},
        {JOLIET, JolietName(u"\U0001F600"), "\U0001F600"},
        {JOLIET, JolietName(u"setup.exe;1"), "setup.exe;1"}, // versions stay here
        {JOLIET, JolietName(u"odd") + "x", "=8"},
        {JOLIET, JolietName(u"half ") + "\xD8\x3D", "=8"},
        {JOLIET, JolietName(std::u16string(110, u'a')), Times('a', 110)},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(NameOf({test.stored}, test.wanted), test.name) << test.stored;
    }
    // An entry holds 259 bytes of name: 86 characters of three bytes and one more.
    EXPECT_EQ(NameOf({JolietName(u"a" + std::u16string(86, u'\u65E5'))}, JOLIET).size(), 259u);
    EXPECT_EQ(NameOf({JolietName(std::u16string(87, u'\u65E5'))}, JOLIET), "=8");
}

TEST(IsoNames, RockRidge) {
    std::string host;
    ASSERT_TRUE(Iso9660HostName(&host));
    const struct {
        const char* what;
        std::string systemUse;
        std::string name;
    } cases[] = {
        {"plain", AlternateName(0, "name.txt"), "name.txt"},
        {"continued", AlternateName(1, "na") + AlternateName(1, "me") + AlternateName(0, ".txt"), "name.txt"},
        {"continued and never completed", AlternateName(1, "na") + AlternateName(1, "me"), "name"},
        {"nothing counts after the complete name", AlternateName(0, "one") + AlternateName(0, "two"), "one"},
        {"empty", AlternateName(0, ""), ""},
        {"current directory", AlternateName(2, "ignored"), "."},
        {"parent directory", AlternateName(4, "ignored"), ".."},
        {"not completed", AlternateName(2, "") + AlternateName(4, "") + AlternateName(0, "x"), "...x"},
        {"host", AlternateName(1, "on-") + AlternateName(32, "") + AlternateName(0, "!"), "on-" + host + "!"},
        {"unknown flags", AlternateName(1, "x") + AlternateName(8, "y") + AlternateName(0, "z"), ""},
        {"two flags at once", AlternateName(3, "x"), ""},
        {"no flags byte at all", Entry("NM", ""), "README."},
        {"another version of the entry", Entry("NM", std::string("\0x", 2), 2), "README."},
        {"no name among the entries", Entry("XX", "data") + Entry("RR", "\x89"), "README."},
        {"links and relocation change nothing",
         Entry("CL", Both32(99)) + Entry("PL", Both32(98)) + Entry("RE", "") + AlternateName(0, "x"), "x"},
        {"behind the end of the area", Entry("ST", "") + AlternateName(0, "x"), "README."},
        {"behind an entry too short to be one", "XX\x03\x01" + AlternateName(0, "x"), "README."},
        {"in an entry longer than the area", std::string("NM\xF0\x01\x00xyz", 8), "README."},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(RockNameOf(test.systemUse), test.name) << test.what;
    }
    EXPECT_EQ(NameOf({JolietName(u"joliet"), 0, 0, 0, AlternateName(0, "rock")}, JOLIET | ROCK), "rock");
    EXPECT_EQ(NameOf({JolietName(u"joliet")}, JOLIET | ROCK), "joliet");
    EXPECT_EQ(NameOf({"README.;1", 0, 0, 0, AlternateName(0, "rock")}, PLAIN), "README.") << "not wanted";
}

// Names longer than a record come in continuations. A count of 261 empties the name without an error, 260 is
// one too many for the buffer, 259 fits.
TEST(IsoNames, RockRidgeAtTheLimit) {
    for (auto [length, name] : {std::pair{259, Times('a', 100) + Times('b', 159)}, {260, "=8"}, {261, ""}}) {
        std::string continued = AlternateName(0, Times('b', static_cast<size_t>(length) - 100));
        TestImage image =
            RootWith({{"X", 0, 0, 0,
                       AlternateName(1, Times('a', 100)) + Continuation(TEST_FREE, 100, continued.size())}});
        image.Put(TEST_FREE, continued, 100);
        EXPECT_EQ(ListRoot(image, ROCK).at(2), name);
    }
}

#ifndef _WIN32
TEST(IsoNames, UnknownHostName) {
    auto saved = std::exchange(isoTestHostName, std::nullopt);
    EXPECT_EQ(RockNameOf(AlternateName(32, "")), "=8") << "counts as 260 bytes";
    EXPECT_EQ(RockNameOf(AlternateName(1, "a") + AlternateName(32, "")), "");
    isoTestHostName = Times('h', 300);
    EXPECT_EQ(RockNameOf(AlternateName(32, "")), "");
    isoTestHostName = saved;
}
#endif

TEST(IsoRockRidge, Announcement) {
    const std::string skip = SkipAnnouncement();
    const std::string rock = RockRidgeAnnouncement();
    auto extension = [](std::string_view text, char version) {
        return Entry("ER",
                     std::string{static_cast<char>(text.size()), '\2', '\2', version} + std::string(text));
    };
    const struct {
        const char* what;
        std::string area;
        bool found;
    } cases[] = {
        {"both", skip + rock, true},
        {"another extension first", skip + extension("OTHER_1999", 1) + rock, true},
        {"in a continuation", skip + Continuation(TEST_FREE, 0, rock.size()) + Entry("ST", ""), true},
        {"no SP", rock, false},
        {"SP not first", rock + skip, false},
        {"SP without its check bytes", Entry("SP", std::string("\xBE\xEE\0", 3)) + rock, false},
        {"SP of another version", Entry("SP", std::string("\xBE\xEF\0", 3), 2) + rock, false},
        {"no ER", skip, false},
        {"ER behind the end", skip + Entry("ST", "") + rock, false},
        {"ER of another version", skip + extension("RRIP_1991A", 2), false},
        {"ER with a longer name", skip + extension("RRIP_1991AB", 1), false},
    };
    for (const auto& test : cases) {
        TestImage image;
        image.Put(TEST_FREE, rock);
        image.PutDirectory(TEST_ROOT, TEST_ROOT, {{"PLAIN", 0, 0, 0, AlternateName(0, "rock")}}, test.area);
        EXPECT_THAT(ListRoot(image, ROCK), ElementsAre(".", "..", test.found ? "rock" : "PLAIN", "=5"))
            << test.what;
    }
}

// The skip count holds for every area but the one that announces it, and not for continuations.
TEST(IsoRockRidge, SkippedBytes) {
    TestImage image;
    std::string continued = AlternateName(0, "-tail");
    image.Put(TEST_FREE, continued);
    std::string area = "123" + AlternateName(1, "rock") + Continuation(TEST_FREE, 0, continued.size());
    image.PutDirectory(TEST_ROOT, TEST_ROOT, {{"PLAIN", 0, 0, 0, area}, {"LITTLE", 0, 0, 0, "12"}},
                       SkipAnnouncement(3) + RockRidgeAnnouncement());
    EXPECT_THAT(ListRoot(image, ROCK), ElementsAre(".", "..", "rock-tail", "LITTLE", "=5"));
}

TEST(IsoRockRidge, Continuations) {
    const struct {
        const char* what;
        uint32_t sector, offset, length;
        std::string name; // or the code
    } cases[] = {
        {"at the sector's end, longer than the sector", TEST_FREE, 2040, 5000, "x"},
        {"by way of another one", TEST_FREE + 2, 8, 28, "x"},
        {"behind the sector's end", TEST_FREE, 2048, 8, "PLAIN."},
        {"far behind it", TEST_FREE, 0xFFFFFFFF, 0xFFFFFFFF, "PLAIN."},
        {"of no length", TEST_FREE, 2040, 0, "PLAIN."},
        {"cut before the entry's end", TEST_FREE, 2040, 5, "PLAIN."},
        {"behind the image", 1000, 0, 8, "=9"},
        {"at the end of all sectors", 0xFFFFFFFF, 0, 8, "=9"},
        {"leading to itself for ever", TEST_FREE + 1, 0, 28, "=9"},
    };
    for (const auto& test : cases) {
        TestImage image =
            RootWith({{"PLAIN.", 0, 0, 0, Continuation(test.sector, test.offset, test.length)}});
        image.Put(TEST_FREE, AlternateName(0, "x") + "??", 2040);
        image.Put(TEST_FREE + 1, Continuation(TEST_FREE + 1, 0, 28));
        image.Put(TEST_FREE + 2, Continuation(TEST_FREE, 2040, 6), 8);
        EXPECT_EQ(ListRoot(image, ROCK).at(2), test.name) << test.what;
    }
}

// The listed entry of a file with these system-use entries.
Iso9660_Entry EntryWith(const std::string& systemUse, uint32_t wanted = ROCK) {
    TestFolder folder;
    OpenedImage opened(folder.Write(RootWith({{"X", 77, 1234, 0, systemUse}})), wanted);
    Iso9660_Dir dir;
    EXPECT_EQ(Iso9660_OpenDir(opened.image, "/", &dir), Result::Success);
    Iso9660_Entry entry;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Iso9660_ReadDir(opened.image, &dir, &entry), Result::Success);
    }
    return entry;
}

TEST(IsoRockRidge, Attributes) {
    std::string data = Both32(0xABCD81A4) + Both32(3) + Both32(1000) + Both32(1001);
    std::string serialNumber = Both32(77); // in the later edition
    auto attributes = [](const Iso9660_Entry& entry) {
        EXPECT_EQ(entry.firstSector, 77u);
        EXPECT_EQ(entry.size, 1234u);
        EXPECT_FALSE(entry.isDir);
        return std::vector{entry.mode, entry.links, entry.userId};
    };
    EXPECT_THAT(attributes(EntryWith(Entry("PX", data))), ElementsAre(0x81A4, 3, 1000));
    EXPECT_THAT(attributes(EntryWith(Entry("PX", data + serialNumber))), ElementsAre(0x81A4, 3, 1000));
    EXPECT_THAT(attributes(EntryWith(Entry("PX", data.substr(1)))), ElementsAre(0, 0, 0)) << "a byte short";
    EXPECT_THAT(attributes(EntryWith(Entry("PX", data), PLAIN)), ElementsAre(0, 0, 0));
}

TEST(IsoRockRidge, TimeOfCreationReplacesTheRecordingTime) {
    const std::string recorded = TestRecord().time;
    const std::string created("\x01\x02\x03\x04\x05\x06\xF8", 7);
    const std::string digits = "2031122313595977\x04"; // hundredths and zone last
    const struct {
        const char* what;
        std::string systemUse;
        std::string time;
    } cases[] = {
        {"none", "", recorded},
        {"short", Entry("TF", "\x01" + created), created},
        {"among others, which come later", Entry("TF", "\x0F" + created + recorded + recorded), created},
        {"only others", Entry("TF", "\x0E" + created + created + created), recorded},
        {"long", Entry("TF", "\x81" + digits), "\x83\x0C\x17\x0D\x3B\x3B\x04"},
        {"long, a byte too few", Entry("TF", "\x81" + digits.substr(1)), recorded},
        {"short, a byte too few", Entry("TF", "\x01" + created.substr(1)), recorded},
        {"no digits", Entry("TF", "\x81" + Times('\0', 17)), recorded},
        {"before what seven bytes hold", Entry("TF", "\x81" + ("1899" + digits.substr(4))), recorded},
        {"no flags", Entry("TF", ""), recorded},
        {"a bad one later", Entry("TF", "\x01" + created) + Entry("TF", "\x81" + Times('\0', 17)), created},
    };
    for (const auto& test : cases) {
        Iso9660_Entry entry = EntryWith(test.systemUse);
        EXPECT_EQ(std::string(std::begin(entry.recordingTime), std::end(entry.recordingTime)), test.time)
            << test.what;
    }
}

// ---- Directories

TestRecord Directory(const std::string& name, uint32_t sector) {
    return {name, sector, TEST_SECTOR, TEST_DIRECTORY};
}

TEST(IsoDirectories, Paths) {
    TestImage image =
        RootWith({{"both", TEST_FREE, 5}, Directory("both", TEST_FREE + 1), {"file", TEST_FREE, 5}});
    image.PutDirectory(TEST_FREE + 1, TEST_ROOT, {Directory("in", TEST_FREE + 2)});
    image.PutDirectory(TEST_FREE + 2, TEST_FREE + 1, {});
    TestFolder folder;
    OpenedImage opened(folder.Write(image), PLAIN);
    constexpr uint32_t none = 99;
    const std::pair<const char*, uint32_t> cases[] = {
        {"", TEST_ROOT},
        {"//\\\\/", TEST_ROOT},
        {"both", TEST_FREE + 1},
        {"\\both\\", TEST_FREE + 1},
        {"/both//in\\\\", TEST_FREE + 2},
        {"both\\in\\..", TEST_FREE + 1},
        {"both\\.\\..\\both", TEST_FREE + 1},
        {"Both", none},
        {"bot", none},
        {"both\\none", none},
        {"file", none},
        {"file\\x", none},
    };
    for (auto [path, sector] : cases) {
        Iso9660_Dir dir = {none, 0, 0, 0};
        EXPECT_EQ(Iso9660_OpenDir(opened.image, path, &dir),
                  sector == none ? Result::NotFound : Result::Success);
        EXPECT_EQ(dir.firstSector, sector) << path;
    }
    Iso9660_Dir dir;
    EXPECT_EQ(Iso9660_OpenDir(opened.image, nullptr, &dir), Result::InvalidArgument);
}

// An unreadable name on the way of a look-up is reported; a listing that fails stays where it is, so that it
// fails the same way again instead of skipping an entry.
TEST(IsoDirectories, UnreadableName) {
    TestFolder folder;
    OpenedImage opened(
        folder.Write(RootWith({{"odd"}, Directory(JolietName(u"dir"), TEST_JOLIET_ROOT)}, JOLIET)), JOLIET);
    Iso9660_Dir dir;
    EXPECT_EQ(Iso9660_OpenDir(opened.image, "dir", &dir), Result::InvalidArgument);
    ASSERT_EQ(Iso9660_OpenDir(opened.image, "", &dir), Result::Success);
    Iso9660_Entry entry;
    EXPECT_EQ(Iso9660_ReadDir(opened.image, &dir, &entry), Result::Success);
    EXPECT_EQ(Iso9660_ReadDir(opened.image, &dir, &entry), Result::Success);
    EXPECT_EQ(Iso9660_ReadDir(opened.image, &dir, &entry), Result::InvalidArgument);
    EXPECT_EQ(Iso9660_ReadDir(opened.image, &dir, &entry), Result::InvalidArgument);
    EXPECT_STREQ(entry.name, "..");
}

// Kept on purpose: in a directory of one sector, a last record that ends exactly where the directory ends is
// filled in but answered with the code for the end, so a listing ends without it. Callers that take 5 for the
// end, and have always done so, see the same list as ever. A path still finds it. In a longer directory
// nothing is lost, since the position counts from the current sector only.
TEST(IsoDirectories, ListingLosesTheLastRecordOfAFullSector) {
    for (uint32_t sectors : {1u, 2u, 3u}) {
        // "." and ".." take 68 bytes; 30 records of 64 bytes and one of 60 fill their sector, 32 each other
        // one.
        std::vector<TestRecord> records;
        for (size_t i = 0; i < 32 * sectors - 1; ++i) {
            records.push_back({Times('F', i == 30 ? 27 : 31), 9, 9});
        }
        TestRecord& last = records.back();
        last = Directory(std::string("LAST").append(last.name.size() - 4, '.'), TEST_FREE);
        TestImage image;
        uint32_t size = image.PutDirectory(TEST_FREE, TEST_FREE, records);
        ASSERT_EQ(size, sectors * TEST_SECTOR);
        image.SetRoot(TEST_PRIMARY, TEST_FREE, size);
        TestFolder folder;
        OpenedImage opened(folder.Write(image), PLAIN);
        EXPECT_EQ(List(opened.image, "").size() - 1, 2 + records.size() - (sectors == 1 ? 1 : 0)) << sectors;

        Iso9660_Dir dir;
        Iso9660_Entry entry;
        ASSERT_EQ(Iso9660_OpenDir(opened.image, "", &dir), Result::Success);
        while (Iso9660_ReadDir(opened.image, &dir, &entry) == Result::Success) {
        }
        EXPECT_EQ(entry.name, last.name);
        EXPECT_EQ(Iso9660_OpenDir(opened.image, last.name.c_str(), &dir), Result::Success);
    }
}

// No tool writes it, but a record may reach into the next sector, and the listing goes on behind it.
TEST(IsoDirectories, RecordAcrossTwoSectors) {
    TestFolder folder;
    TestImage image;
    std::string content = TestRecord{std::string(1, '\0'), TEST_FREE, 0, TEST_DIRECTORY}.Bytes();
    std::vector<std::string> expected = {"."};
    for (int i = 0; content.size() < 2 * TEST_SECTOR + 500; ++i) {
        expected.push_back("NAME-" + std::to_string(10000 + i));
        content += TestRecord{expected.back(), 1, 1}.Bytes();
    }
    expected.push_back("=5");
    image.Put(TEST_FREE, content);
    image.SetRoot(TEST_PRIMARY, TEST_FREE, 3 * TEST_SECTOR);
    EXPECT_EQ(ListRoot(image, PLAIN), expected);
    // The image ends in the middle of such a record.
    image.bytes.resize((TEST_FREE + 1) * TEST_SECTOR);
    EXPECT_EQ(ListRoot(image, PLAIN).back(), "=9");
}

TEST(IsoDirectories, PaddingMovesToTheNextSector) {
    TestImage image;
    image.Put(TEST_FREE + 2, TestRecord{"LAST"}.Bytes()); // behind a sector of padding
    image.PutDirectory(TEST_FREE, TEST_FREE, {});
    image.SetRoot(TEST_PRIMARY, TEST_FREE, 3 * TEST_SECTOR);
    EXPECT_THAT(ListRoot(image, PLAIN), ElementsAre(".", "..", "LAST", "=5"));
    image.SetRoot(TEST_PRIMARY, TEST_FREE, 0);
    EXPECT_THAT(ListRoot(image, ROCK), ElementsAre("=5")) << "an empty root";
}

TEST(IsoDirectories, DamagedRecords) {
    const struct {
        const char* what;
        size_t offset; // in the third record, a file's
        char value;
        std::string outcome; // name or code
    } cases[] = {
        {"as it is", 1, 0, "FILE"},
        {"shorter than a record can be", 0, 32, "=9"},
        {"shorter than its name", 0, 36, "=9"},
        {"exactly its name", 0, 37, "FILE"},
        {"a name longer than the record", 32, 127, "=9"},
        {"no name", 32, 0, ""},
        {"no length", 0, 0, "=5"},
    };
    for (const auto& test : cases) {
        TestImage image;
        image.PutDirectory(TEST_ROOT, TEST_ROOT, {{"FILE", 9, 9}, {"NEXT", 9, 9}});
        image.Put(TEST_ROOT, std::string(1, test.value), 2 * 34 + test.offset);
        EXPECT_EQ(ListRoot(image, PLAIN).at(2), test.outcome) << test.what;
    }
}

TEST(IsoDirectories, ExtentsOutsideTheImage) {
    TestFolder folder;
    for (uint32_t sector : {1000u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        OpenedImage opened(folder.Write(RootWith({{"DIR", sector, 0xFFFFFFFF, TEST_DIRECTORY}})), PLAIN);
        EXPECT_THAT(List(opened.image, "DIR"), ElementsAre("=2"));
        EXPECT_THAT(List(opened.image, "DIR/DIR"), ElementsAre("=2"));
    }
}

// ---- Files

TEST(IsoFiles, AnyPositionAndLength) {
    std::string content;
    for (int i = 0; i < 3 * 2048 + 77; ++i) {
        content += static_cast<char>(i * 7 + i / 256);
    }
    TestImage image;
    image.Put(TEST_FREE, content);
    TestFolder folder;
    OpenedImage opened(folder.Write(image), PLAIN);
    for (uint32_t position : {0u, 1u, 2047u, 2048u, 2049u, 4096u, 6144u, 6220u, 6221u, 9000u, 0xFFFFFFFFu}) {
        for (uint32_t length : {0u, 1u, 2u, 2047u, 2048u, 2049u, 4096u, 4097u, 6221u, 100000u}) {
            SCOPED_TRACE(testing::Message() << "position " << position << ", length " << length);
            bool within = position < content.size();
            std::string expected = within ? content.substr(position, length) : "";
            std::vector<char> buffer(expected.size() + 1, '~'); // exactly sized, and one to see
            Iso9660_File file = {TEST_FREE, static_cast<uint32_t>(content.size()), position};
            uint32_t actual = length;
            EXPECT_EQ(Iso9660_Read(opened.image, &file, buffer.data(), &actual),
                      within ? Result::Success : Result::End);
            EXPECT_EQ(std::string(buffer.data(), actual), expected);
            EXPECT_EQ(buffer.back(), '~');
            EXPECT_EQ(file.position, position + expected.size());
        }
    }
}

// The last sector must be there whole, although only its beginning is wanted.
TEST(IsoFiles, TruncatedContent) {
    TestImage image;
    image.Put(TEST_FREE, Times('x', 2049));
    image.bytes.resize((TEST_FREE + 1) * TEST_SECTOR + 1);
    TestFolder folder;
    OpenedImage opened(folder.Write(image), PLAIN);
    Iso9660_File file = {TEST_FREE, 2049, 0};
    char buffer[4096] = {};
    uint32_t length = sizeof(buffer);
    EXPECT_EQ(Iso9660_Read(opened.image, &file, buffer, &length), Result::IoError);
    EXPECT_EQ(length, sizeof(buffer));
    EXPECT_EQ(file.position, 0u);
    length = 2048;
    EXPECT_EQ(Iso9660_Read(opened.image, &file, buffer, &length), Result::Success);
    EXPECT_EQ(Iso9660_Read(opened.image, &file, buffer, &length), Result::IoError);
    file = {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFF00};
    EXPECT_EQ(Iso9660_Read(opened.image, &file, buffer, &length), Result::IoError);
}

} // namespace
