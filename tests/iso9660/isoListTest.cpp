// Names, directories and attributes.
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
    bool joliet = (wanted & ISO9660_WANT_JOLIET) != 0;
    TestImage image(joliet);
    uint32_t root = joliet ? TEST_JOLIET_ROOT : TEST_ROOT;
    image.PutDirectory(root, root, {record}, SkipAnnouncement() + RockRidgeAnnouncement());
    std::vector<std::string> names = ListRoot(image, wanted);
    return names.size() < 3 ? "(none)" : names[2];
}

TEST(IsoNames, PlainNamesEndBeforeTheVersion) {
    EXPECT_EQ(NameOf({"README.TXT;1"}, 0), "README.TXT");
    EXPECT_EQ(NameOf({"README.;1"}, 0), "README.");
    EXPECT_EQ(NameOf({"A;B;1"}, 0), "A");
    EXPECT_EQ(NameOf({"NOVERSION"}, 0), "NOVERSION");
    EXPECT_EQ(NameOf({";1"}, 0), "");
    EXPECT_EQ(NameOf({"\xC4\xD6.TXT;1"}, 0), "\xC4\xD6.TXT")
        << "bytes that are not UTF-8 are listed as they are";
}

TEST(IsoNames, JolietNamesAreUtf16) {
    EXPECT_EQ(NameOf({JolietName(u"Gr\u00FC\u00DFe \u65E5\u672C.txt")}, 2),
              "Gr\u00FC\u00DFe \u65E5\u672C.txt");
    EXPECT_EQ(NameOf({JolietName(u"\U0001F600")}, 2), "\U0001F600");
    EXPECT_EQ(NameOf({JolietName(u"setup.exe;1")}, 2), "setup.exe;1") << "versions stay here";
    EXPECT_EQ(NameOf({JolietName(u"odd") + "x"}, 2), "=8");
    EXPECT_EQ(NameOf({JolietName(u"half ") + "\xD8\x3D"}, 2), "=8");
}

// Entries hold 259 bytes of name: 86 characters of three bytes are just right, as are 110 of one.
TEST(IsoNames, NamesMustFitTheirBuffer) {
    EXPECT_EQ(NameOf({JolietName(std::u16string(86, u'\u65E5'))}, 2).size(), 258u);
    EXPECT_EQ(NameOf({JolietName(u"a" + std::u16string(86, u'\u65E5'))}, 2).size(), 259u);
    EXPECT_EQ(NameOf({JolietName(std::u16string(87, u'\u65E5'))}, 2), "=8");
    EXPECT_EQ(NameOf({JolietName(std::u16string(110, u'a'))}, 2).size(), 110u);
}

struct NameCase {
    const char* what;
    std::string systemUse;
    std::string name;
};

std::string Times(char character, size_t count) {
    return std::string(count, character);
}

TEST(IsoNames, RockRidgeNameFlags) {
    std::string host;
    ASSERT_TRUE(Iso9660HostName(&host));
    const NameCase cases[] = {
        {"plain", AlternateName(0, "name.txt"), "name.txt"},
        {"continued", AlternateName(1, "na") + AlternateName(1, "me") + AlternateName(0, ".txt"), "name.txt"},
        {"continued and never completed", AlternateName(1, "na") + AlternateName(1, "me"), "name"},
        {"nothing counts after the complete name", AlternateName(0, "one") + AlternateName(0, "two"), "one"},
        {"empty", AlternateName(0, ""), ""},
        {"current directory", AlternateName(2, "ignored"), "."},
        {"parent directory", AlternateName(4, "ignored"), ".."},
        {"these two do not complete it", AlternateName(2, "") + AlternateName(4, "") + AlternateName(0, "x"),
         "...x"},
        {"host", AlternateName(32, ""), host},
        {"host within a name", AlternateName(1, "on-") + AlternateName(32, "") + AlternateName(0, "!"),
         "on-" + host + "!"},
        {"unknown flags", AlternateName(1, "x") + AlternateName(8, "y") + AlternateName(0, "z"), ""},
        {"two flags at once", AlternateName(3, "x"), ""},
        {"no flags byte at all", Entry("NM", ""), "PLAIN"},
        {"another version of the entry", Entry("NM", Times('\0', 1) + "x", 2), "PLAIN"},
        {"no name among the entries", Entry("XX", "data") + Entry("RR", "\x89"), "PLAIN"},
        {"links and relocation change nothing",
         Entry("CL", Both32(99)) + Entry("PL", Both32(98)) + Entry("RE", "") + AlternateName(0, "x"), "x"},
        {"behind the end of the area", Entry("ST", "") + AlternateName(0, "x"), "PLAIN"},
        {"behind an entry too short to be one", std::string("XX\x03\x01", 4) + AlternateName(0, "x"),
         "PLAIN"},
        {"in an entry longer than the area", std::string("NM\xF0\x01\x00xyz", 8), "PLAIN"},
    };
    for (const NameCase& test : cases) {
        EXPECT_EQ(NameOf({"PLAIN.;1", 0, 0, 0, test.systemUse}, 4),
                  test.name == "PLAIN" ? "PLAIN." : test.name)
            << test.what;
    }
}

// Names longer than a record come in continuations. A count of 261 empties the name without an error, 260 is
// one too many for the buffer, 259 fits.
TEST(IsoNames, RockRidgeNamesAtTheLimit) {
    auto nameOfLength = [](size_t length) {
        std::string continued = AlternateName(0, Times('b', length - 100));
        TestImage image;
        image.Put(TEST_FREE, continued, 100);
        image.PutDirectory(TEST_ROOT, TEST_ROOT,
                           {{"X", 0, 0, 0,
                             AlternateName(1, Times('a', 100)) +
                                 Continuation(TEST_FREE, 100, static_cast<uint32_t>(continued.size()))}},
                           SkipAnnouncement() + RockRidgeAnnouncement());
        return ListRoot(image, ISO9660_WANT_ROCK_RIDGE).at(2);
    };
    EXPECT_EQ(nameOfLength(259), Times('a', 100) + Times('b', 159));
    EXPECT_EQ(nameOfLength(260), "=8");
    EXPECT_EQ(nameOfLength(261), "");
    EXPECT_EQ(nameOfLength(300), "");
}

#ifndef _WIN32
TEST(IsoNames, UnknownHostName) {
    auto saved = std::exchange(isoTestHostName, std::nullopt);
    EXPECT_EQ(NameOf({"X", 0, 0, 0, AlternateName(32, "")}, 4), "=8");
    EXPECT_EQ(NameOf({"X", 0, 0, 0, AlternateName(1, "a") + AlternateName(32, "")}, 4), "")
        << "260 on top of one is an overflow";
    isoTestHostName = std::string(300, 'h');
    EXPECT_EQ(NameOf({"X", 0, 0, 0, AlternateName(32, "")}, 4), "");
    isoTestHostName = saved;
}
#endif

TEST(IsoNames, RockRidgeWithJolietWanted) {
    // The Joliet tree rarely has Rock Ridge entries; where it has, they come first.
    EXPECT_EQ(NameOf({JolietName(u"joliet"), 0, 0, 0, AlternateName(0, "rock")}, 6), "rock");
    EXPECT_EQ(NameOf({JolietName(u"joliet")}, 6), "joliet");
}

struct AnnouncementCase {
    const char* what;
    std::string area;
    bool found;
};

TEST(IsoRockRidge, Announcement) {
    std::string skip = SkipAnnouncement();
    std::string rock = RockRidgeAnnouncement();
    auto extension = [](std::string_view text, uint8_t version) {
        std::string head = {static_cast<char>(text.size()), '\2', '\2', static_cast<char>(version)};
        return Entry("ER", head + std::string(text));
    };
    const AnnouncementCase cases[] = {
        {"both", skip + rock, true},
        {"entries between", skip + Entry("XX", "1") + rock, true},
        {"another extension first", skip + extension("OTHER_1999", 1) + rock, true},
        {"nothing", "", false},
        {"no SP", rock, false},
        {"SP not first", rock + skip, false},
        {"SP without its check bytes", Entry("SP", "\xBE\xEE" + std::string(1, '\0')) + rock, false},
        {"SP of another version", Entry("SP", "\xBE\xEF" + std::string(1, '\0'), 2) + rock, false},
        {"no ER", skip, false},
        {"ER behind the end", skip + Entry("ST", "") + rock, false},
        {"ER of another name", skip + extension("RRIP_1991B", 1), false},
        {"ER of another version", skip + extension("RRIP_1991A", 2), false},
        {"ER with a longer name", skip + extension("RRIP_1991AB", 1), false},
    };
    for (const AnnouncementCase& test : cases) {
        TestImage image;
        image.PutDirectory(TEST_ROOT, TEST_ROOT, {{"PLAIN", 0, 0, 0, AlternateName(0, "rock")}}, test.area);
        EXPECT_THAT(ListRoot(image, 4), ElementsAre(".", "..", test.found ? "rock" : "PLAIN", "=5"))
            << test.what;
    }
    EXPECT_EQ(NameOf({"PLAIN", 0, 0, 0, AlternateName(0, "rock")}, 0), "PLAIN") << "not wanted";
}

TEST(IsoRockRidge, AnnouncementInAContinuation) {
    TestImage image;
    std::string rock = RockRidgeAnnouncement();
    image.Put(TEST_FREE, rock);
    image.PutDirectory(TEST_ROOT, TEST_ROOT, {{"PLAIN", 0, 0, 0, AlternateName(0, "rock")}},
                       SkipAnnouncement() + Continuation(TEST_FREE, 0, static_cast<uint32_t>(rock.size())) +
                           Entry("ST", ""));
    EXPECT_THAT(ListRoot(image, 4), ElementsAre(".", "..", "rock", "=5"));
}

// The skip count holds for every area but the one that announces it, and not for continuations.
TEST(IsoRockRidge, SkippedBytes) {
    TestImage image;
    std::string continued = AlternateName(0, "-tail");
    image.Put(TEST_FREE, continued);
    std::string area = "123" + AlternateName(1, "rock") +
                       Continuation(TEST_FREE, 0, static_cast<uint32_t>(continued.size()));
    image.PutDirectory(TEST_ROOT, TEST_ROOT, {{"PLAIN", 0, 0, 0, area}, {"LITTLE", 0, 0, 0, "12"}},
                       SkipAnnouncement(3) + RockRidgeAnnouncement());
    EXPECT_THAT(ListRoot(image, 4), ElementsAre(".", "..", "rock-tail", "LITTLE", "=5"));
}

TEST(IsoRockRidge, Continuations) {
    struct {
        const char* what;
        uint32_t sector, offset, length;
        std::string name; // or the code
    } const cases[] = {
        {"at the sector's end, longer than the sector", TEST_FREE, 2040, 5000, "x"},
        {"behind the sector's end", TEST_FREE, 2048, 8, "PLAIN"},
        {"far behind it", TEST_FREE, 0xFFFFFFFF, 0xFFFFFFFF, "PLAIN"},
        {"of no length", TEST_FREE, 2040, 0, "PLAIN"},
        {"cut before the entry's end", TEST_FREE, 2040, 5, "PLAIN"},
        {"behind the image", 1000, 0, 8, "=9"},
        {"at the end of all sectors", 0xFFFFFFFF, 0, 8, "=9"},
        {"leading to itself for ever", TEST_FREE + 1, 0, 28, "=9"},
    };
    for (const auto& test : cases) {
        TestImage image;
        image.Put(TEST_FREE, AlternateName(0, "x") + "??", 2040);
        image.Put(TEST_FREE + 1, Continuation(TEST_FREE + 1, 0, 28));
        image.PutDirectory(TEST_ROOT, TEST_ROOT,
                           {{"PLAIN", 0, 0, 0, Continuation(test.sector, test.offset, test.length)}},
                           SkipAnnouncement() + RockRidgeAnnouncement());
        EXPECT_EQ(ListRoot(image, 4).at(2), test.name) << test.what;
    }
}

TEST(IsoRockRidge, LongestChainOfContinuations) {
    for (uint32_t links : {64u, 65u}) {
        TestImage image;
        for (uint32_t i = 0; i < links; ++i) {
            image.Put(TEST_FREE + i, i + 1 == links ? AlternateName(0, "the end of the line....")
                                                    : Continuation(TEST_FREE + i + 1, 0, 28));
        }
        image.PutDirectory(TEST_ROOT, TEST_ROOT, {{"PLAIN", 0, 0, 0, Continuation(TEST_FREE, 0, 28)}},
                           SkipAnnouncement() + RockRidgeAnnouncement());
        EXPECT_EQ(ListRoot(image, 4).at(2), links == 64 ? "the end of the line...." : "=9");
    }
}

std::string PosixEntry(size_t length) {
    std::string data = Both32(0xABCD81A4) + Both32(3) + Both32(1000) + Both32(1001) + Both32(77);
    return Entry("PX", data.substr(0, length - 4));
}

Iso9660_Entry EntryWith(const std::string& systemUse, uint32_t wanted = 4) {
    TestFolder folder;
    TestImage image;
    image.PutDirectory(TEST_ROOT, TEST_ROOT, {{"X", 77, 1234, 0, systemUse}},
                       SkipAnnouncement() + RockRidgeAnnouncement());
    OpenedImage opened(folder.Write(image), wanted);
    Iso9660_Dir dir;
    EXPECT_EQ(Iso9660_OpenDir(opened.image, "/", &dir), Result::Success);
    Iso9660_Entry entry;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Iso9660_ReadDir(opened.image, &dir, &entry), Result::Success);
    }
    return entry;
}

TEST(IsoRockRidge, Attributes) {
    for (size_t length : {36u, 44u}) { // the later edition has a serial number as well
        Iso9660_Entry entry = EntryWith(PosixEntry(length));
        EXPECT_EQ(entry.mode, 0x81A4u);
        EXPECT_EQ(entry.links, 3u);
        EXPECT_EQ(entry.userId, 1000u);
        EXPECT_EQ(entry.firstSector, 77u);
        EXPECT_EQ(entry.size, 1234u);
        EXPECT_FALSE(entry.isDir);
    }
    for (const Iso9660_Entry& without :
         {EntryWith(""), EntryWith(PosixEntry(36), 0), EntryWith(PosixEntry(35))}) {
        EXPECT_EQ(without.mode, 0u);
        EXPECT_EQ(without.links, 0u);
        EXPECT_EQ(without.userId, 0u);
    }
}

std::string TimeWith(const std::string& systemUse) {
    Iso9660_Entry entry = EntryWith(systemUse);
    return std::string(reinterpret_cast<char*>(entry.recordingTime), sizeof(entry.recordingTime));
}

TEST(IsoRockRidge, TimeOfCreationReplacesTheRecordingTime) {
    std::string recorded = TestRecord().time;
    std::string shortTime("\x01\x02\x03\x04\x05\x06\xF8", 7);
    std::string longTime = "2031122313595977\x04"; // hundredths and zone last
    std::string expected("\x83\x0C\x17\x0D\x3B\x3B\x04", 7);
    EXPECT_EQ(TimeWith(""), recorded);
    EXPECT_EQ(TimeWith(Entry("TF", "\x01" + shortTime)), shortTime);
    EXPECT_EQ(TimeWith(Entry("TF", "\x0F" + shortTime + recorded + recorded)), shortTime) << "it comes first";
    EXPECT_EQ(TimeWith(Entry("TF", "\x0E" + shortTime + shortTime + shortTime)), recorded)
        << "no creation time";
    EXPECT_EQ(TimeWith(Entry("TF", "\x81" + longTime)), expected);
    EXPECT_EQ(TimeWith(Entry("TF", "\x81" + longTime.substr(1))), recorded) << "a byte short";
    EXPECT_EQ(TimeWith(Entry("TF", "\x01" + shortTime.substr(1))), recorded) << "a byte short";
    EXPECT_EQ(TimeWith(Entry("TF", "\x81" + std::string(17, '\0'))), recorded) << "no digits";
    EXPECT_EQ(TimeWith(Entry("TF", "\x81"
                                   "1899" +
                                       longTime.substr(4))),
              recorded)
        << "before what seven bytes hold";
    EXPECT_EQ(TimeWith(Entry("TF", "")), recorded);
}

// ---- Directories

TEST(IsoDirectories, Paths) {
    TestFolder folder;
    TestImage image(true);
    auto dir = [](std::u16string_view name, uint32_t sector) {
        return TestRecord{JolietName(name), sector, TEST_SECTOR, TEST_DIRECTORY};
    };
    image.PutDirectory(TEST_JOLIET_ROOT, TEST_JOLIET_ROOT,
                       {{JolietName(u"both"), TEST_FREE, 5},
                        dir(u"both", TEST_FREE + 1),
                        {JolietName(u"file"), TEST_FREE, 5}});
    image.PutDirectory(TEST_FREE + 1, TEST_JOLIET_ROOT, {dir(u"in\u00FC", TEST_FREE + 2)});
    image.PutDirectory(TEST_FREE + 2, TEST_FREE + 1, {});
    OpenedImage opened(folder.Write(image), ISO9660_WANT_JOLIET);

    struct {
        const char* path;
        Result result;
        uint32_t sector;
    } const cases[] = {
        {"", Result::Success, TEST_JOLIET_ROOT},
        {"\\", Result::Success, TEST_JOLIET_ROOT},
        {"//\\\\/", Result::Success, TEST_JOLIET_ROOT},
        {"both", Result::Success, TEST_FREE + 1},
        {"\\both\\", Result::Success, TEST_FREE + 1},
        {"/both//in\u00FC\\\\", Result::Success, TEST_FREE + 2},
        {"both\\in\u00FC\\..", Result::Success, TEST_FREE + 1},
        {"both\\.\\..\\both", Result::Success, TEST_FREE + 1},
        {"Both", Result::NotFound, 0},
        {"bot", Result::NotFound, 0},
        {"both\\none", Result::NotFound, 0},
        {"file", Result::NotFound, 0},
        {"file\\x", Result::NotFound, 0},
    };
    for (const auto& test : cases) {
        Iso9660_Dir dir1 = {1, 2, 3, 4};
        EXPECT_EQ(Iso9660_OpenDir(opened.image, test.path, &dir1), test.result) << test.path;
        EXPECT_EQ(dir1.firstSector, test.result == Result::Success ? test.sector : 1u) << test.path;
        EXPECT_EQ(dir1.position, test.result == Result::Success ? 0u : 4u) << test.path;
    }
    Iso9660_Dir dir1;
    EXPECT_EQ(Iso9660_OpenDir(opened.image, nullptr, &dir1), Result::InvalidArgument);
}

TEST(IsoDirectories, LookupReportsAnUnreadableName) {
    TestFolder folder;
    TestImage image(true);
    image.PutDirectory(TEST_JOLIET_ROOT, TEST_JOLIET_ROOT,
                       {{"odd"}, {JolietName(u"dir"), TEST_JOLIET_ROOT, TEST_SECTOR, TEST_DIRECTORY}});
    OpenedImage opened(folder.Write(image), ISO9660_WANT_JOLIET);
    Iso9660_Dir dir;
    EXPECT_EQ(Iso9660_OpenDir(opened.image, "dir", &dir), Result::InvalidArgument);
}

// Records that fill a directory to its very end: as many of 48 bytes as needed behind "." and "..".
std::vector<TestRecord> FillingRecords(uint32_t sectors) {
    std::vector<TestRecord> records;
    size_t used = 2 * 34;
    for (uint32_t sector = 0; sector < sectors; ++sector, used = 0) {
        while (TEST_SECTOR - used >= 2 * 48) {
            records.push_back({"F" + std::to_string(1000 + records.size()) + "-------.X;", 9, 9});
            used += 48;
        }
        std::string last = "L" + std::to_string(1000 + records.size());
        last.resize(TEST_SECTOR - used - 33, 'L'); // the name makes up for what is left
        if (last.size() % 2 == 0) {
            last.pop_back(); // the pad byte stands there then
        }
        records.push_back({last, 9, 9});
    }
    return records;
}

// Kept on purpose: in a directory of one sector, a last record that ends exactly where the directory ends is
// filled in but answered with the code for the end, so a listing ends without it. Callers that take 5 for the
// end, and have always done so, see the same list as ever. A path still finds it. In a longer directory
// nothing is lost, since the position counts from the current sector only.
TEST(IsoDirectories, ListingLosesTheLastRecordOfAFullSector) {
    TestFolder folder;
    for (uint32_t sectors : {1u, 2u, 3u}) {
        TestImage image;
        std::vector<TestRecord> records = FillingRecords(sectors);
        records.back().flags = TEST_DIRECTORY;
        records.back().sector = TEST_FREE;
        uint32_t start = TEST_FREE + 1;
        uint32_t size = image.PutDirectory(start, start, records);
        ASSERT_EQ(size, sectors * TEST_SECTOR);
        image.SetRoot(TEST_PRIMARY, start, size);
        OpenedImage opened(folder.Write(image), 0);
        std::vector<std::string> names = List(opened.image, "");
        EXPECT_EQ(names.back(), "=5");
        EXPECT_EQ(names.size() - 1, 2 + records.size() - (sectors == 1 ? 1 : 0)) << sectors << " sectors";

        Iso9660_Dir dir;
        EXPECT_EQ(Iso9660_OpenDir(opened.image, records.back().name.c_str(), &dir), Result::Success);
        EXPECT_EQ(dir.firstSector, TEST_FREE);
    }
}

TEST(IsoDirectories, TheLostRecordIsFilledIn) {
    TestFolder folder;
    TestImage image;
    TestRecord record = {"FILE.TXT;1", 99, 7};
    image.PutDirectory(TEST_ROOT, TEST_ROOT, {record});
    image.SetRoot(TEST_PRIMARY, TEST_ROOT, static_cast<uint32_t>(2 * 34 + record.Bytes().size()));
    OpenedImage opened(folder.Write(image), 0);
    Iso9660_Dir dir;
    Iso9660_Entry entry;
    ASSERT_EQ(Iso9660_OpenDir(opened.image, "", &dir), Result::Success);
    EXPECT_EQ(Iso9660_ReadDir(opened.image, &dir, &entry), Result::Success);
    EXPECT_EQ(Iso9660_ReadDir(opened.image, &dir, &entry), Result::Success);
    EXPECT_EQ(Iso9660_ReadDir(opened.image, &dir, &entry), Result::End);
    EXPECT_STREQ(entry.name, "FILE.TXT");
    EXPECT_EQ(entry.size, 7u);
    EXPECT_EQ(Iso9660_ReadDir(opened.image, &dir, &entry), Result::End);
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
    image.Put(TEST_FREE, content);
    image.SetRoot(TEST_PRIMARY, TEST_FREE, 3 * TEST_SECTOR);
    expected.push_back("=5");
    OpenedImage opened(folder.Write(image), 0);
    EXPECT_EQ(List(opened.image, ""), expected);

    // The image ends in the middle of such a record.
    image.bytes.resize((TEST_FREE + 1) * TEST_SECTOR);
    OpenedImage cut(folder.Write("cut.iso", image.bytes), 0);
    EXPECT_EQ(List(cut.image, "").back(), "=9");
}

TEST(IsoDirectories, PaddingMovesToTheNextSector) {
    TestFolder folder;
    TestImage image;
    image.Put(TEST_FREE + 2, TestRecord{"LAST"}.Bytes()); // behind a sector of padding
    image.PutDirectory(TEST_FREE, TEST_FREE, {});
    image.SetRoot(TEST_PRIMARY, TEST_FREE, 3 * TEST_SECTOR);
    OpenedImage opened(folder.Write(image), 0);
    EXPECT_THAT(List(opened.image, ""), ElementsAre(".", "..", "LAST", "=5"));
}

TEST(IsoDirectories, DamagedRecords) {
    struct {
        const char* what;
        size_t offset; // in the third record, a file's
        uint8_t value;
        std::string outcome; // name or code
    } const cases[] = {
        {"as it is", 1, 0, "FILE"},
        {"shorter than a record can be", 0, 32, "=9"},
        {"shorter than its name", 0, 36, "=9"},
        {"exactly its name", 0, 37, "FILE"},
        {"a name longer than the record", 32, 200, "=9"},
        {"no name", 32, 0, ""},
        {"no length", 0, 0, "=5"},
    };
    for (const auto& test : cases) {
        TestImage image;
        image.PutDirectory(TEST_ROOT, TEST_ROOT, {{"FILE", 9, 9}, {"NEXT", 9, 9}});
        image.PutByte(TEST_ROOT, 2 * 34 + test.offset, test.value);
        EXPECT_EQ(ListRoot(image, 0).at(2), test.outcome) << test.what;
    }
}

TEST(IsoDirectories, ExtentsOutsideTheImage) {
    TestFolder folder;
    for (uint32_t sector : {1000u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        TestImage image;
        image.PutDirectory(TEST_ROOT, TEST_ROOT, {{"DIR", sector, 0xFFFFFFFF, TEST_DIRECTORY}});
        OpenedImage opened(folder.Write(image), 0);
        EXPECT_THAT(List(opened.image, "DIR"), ElementsAre("=2"));
        EXPECT_THAT(List(opened.image, "DIR/DIR"), ElementsAre("=2"));
    }
    TestImage image;
    image.SetRoot(TEST_PRIMARY, TEST_ROOT, 0);
    EXPECT_THAT(ListRoot(image, ISO9660_WANT_ROCK_RIDGE), ElementsAre("=5")) << "an empty root";
}

// A failed call leaves the handle where it was, so that it fails the same way again instead of skipping an
// entry.
TEST(IsoDirectories, FailureMovesNothing) {
    TestFolder folder;
    TestImage image(true);
    image.PutDirectory(TEST_JOLIET_ROOT, TEST_JOLIET_ROOT, {{"odd"}});
    OpenedImage opened(folder.Write(image), ISO9660_WANT_JOLIET);
    Iso9660_Dir dir;
    Iso9660_Entry entry;
    ASSERT_EQ(Iso9660_OpenDir(opened.image, "", &dir), Result::Success);
    EXPECT_EQ(Iso9660_ReadDir(opened.image, &dir, &entry), Result::Success);
    EXPECT_EQ(Iso9660_ReadDir(opened.image, &dir, &entry), Result::Success);
    Iso9660_Dir before = dir;
    EXPECT_EQ(Iso9660_ReadDir(opened.image, &dir, &entry), Result::InvalidArgument);
    EXPECT_EQ(memcmp(&before, &dir, sizeof(dir)), 0);
    EXPECT_STREQ(entry.name, "..");
}

// ---- Files

TEST(IsoFiles, AnyPositionAndLength) {
    TestFolder folder;
    TestImage image;
    std::string content;
    for (int i = 0; i < 3 * 2048 + 77; ++i) {
        content += static_cast<char>(i * 7 + i / 256);
    }
    image.Put(TEST_FREE, content);
    OpenedImage opened(folder.Write(image), 0);
    Iso9660_Entry entry = {};
    entry.firstSector = TEST_FREE;
    entry.size = static_cast<uint32_t>(content.size());
    for (uint32_t position : {0u, 1u, 2047u, 2048u, 2049u, 4096u, 6144u, 6220u, 6221u, 9000u, 0xFFFFFFFFu}) {
        for (uint32_t length : {0u, 1u, 2u, 2047u, 2048u, 2049u, 4096u, 4097u, 6221u, 100000u}) {
            Iso9660_File file;
            ASSERT_EQ(Iso9660_OpenFile(opened.image, &entry, &file), Result::Success);
            file.position = position;
            std::string expected = position < content.size() ? content.substr(position, length) : "";
            std::vector<char> buffer(expected.size() + 1, '~'); // exactly sized, and one to see
            uint32_t actual = length;
            Result result = Iso9660_Read(opened.image, &file, buffer.data(), &actual);
            SCOPED_TRACE(testing::Message() << "position " << position << ", length " << length);
            EXPECT_EQ(result, position < content.size() ? Result::Success : Result::End);
            EXPECT_EQ(std::string(buffer.data(), actual), expected);
            EXPECT_EQ(buffer.back(), '~');
            EXPECT_EQ(file.position, position + expected.size());
        }
    }
}

TEST(IsoFiles, DirectoriesAreNoFiles) {
    TestFolder folder;
    OpenedImage opened(folder.Write(TestImage()), 0);
    Iso9660_Dir dir;
    Iso9660_Entry entry;
    Iso9660_File file;
    ASSERT_EQ(Iso9660_OpenDir(opened.image, "", &dir), Result::Success);
    ASSERT_EQ(Iso9660_ReadDir(opened.image, &dir, &entry), Result::Success);
    EXPECT_TRUE(entry.isDir);
    EXPECT_EQ(Iso9660_OpenFile(opened.image, &entry, &file), Result::InvalidArgument);
}

// The last sector must be there whole, although only its beginning is wanted.
TEST(IsoFiles, TruncatedContent) {
    TestFolder folder;
    TestImage image;
    image.Put(TEST_FREE, std::string(2049, 'x'));
    image.bytes.resize((TEST_FREE + 1) * TEST_SECTOR + 1);
    OpenedImage opened(folder.Write(image), 0);
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

// Two walks at once, and reading files in between, do not disturb each other.
TEST(IsoFiles, InterleavedWalks) {
    TestFolder folder;
    OpenedImage opened(folder.Write(SampleImage()), ISO9660_WANT_JOLIET);
    Iso9660_Dir outer;
    Iso9660_Entry entry;
    ASSERT_EQ(Iso9660_OpenDir(opened.image, "", &outer), Result::Success);
    std::vector<std::string> names;
    while (Iso9660_ReadDir(opened.image, &outer, &entry) == Result::Success) {
        names.push_back(entry.name);
        EXPECT_THAT(List(opened.image, "Gr\u00FC\u00DFe"), ElementsAre(".", "..", "deep.bin", "=5"));
        Iso9660_File file;
        char buffer[3];
        uint32_t length = sizeof(buffer);
        if (Iso9660_OpenFile(opened.image, &entry, &file) == Result::Success && file.size > 0) {
            EXPECT_EQ(Iso9660_Read(opened.image, &file, buffer, &length), Result::Success);
        }
    }
    EXPECT_THAT(names, ElementsAre(".", "..", "Gr\u00FC\u00DFe", "empty", "more", "readme.txt", "sector"));
}

} // namespace
