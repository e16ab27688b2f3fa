// Extraction of files and trees.
#include "testImage.h"

#include "support/diagCapture.h"

#include <cstring>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using Result = Iso9660_Result;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

struct IsoExtract : testing::Test {
    IsoExtract() {
        target = folder.Make("target");
        DiagCapture_Take();
    }

    // Extracts the root into the target.
    Result ExtractAll(const TestImage& image, uint32_t wanted) {
        OpenedImage opened(folder.Write(image), wanted);
        EXPECT_EQ(opened.result, Result::Success);
        return Iso9660_Extract(opened.image, "\\", target.c_str());
    }
    // The records of the root, of a plain image.
    Result ExtractRoot(const std::vector<TestRecord>& records) {
        TestImage image;
        uint32_t size = image.PutDirectory(TEST_FREE + 8, TEST_FREE + 8, records);
        image.SetRoot(TEST_PRIMARY, TEST_FREE + 8, size);
        image.PutDirectory(TEST_FREE, TEST_FREE + 8, {{"INNER.TXT;1", TEST_FREE + 1, 5}});
        image.Put(TEST_FREE + 1, "inner");
        return ExtractAll(image, 0);
    }
    TestTree Tree() const { return folder.Tree("target"); }
    void WriteFile(const std::string& name, std::string_view text) const {
        folder.Write(name, std::vector<uint8_t>(text.begin(), text.end()));
    }

    TestFolder folder;
    std::string target;
};

TestRecord Directory(std::string name, uint32_t sector = TEST_FREE, uint32_t size = TEST_SECTOR) {
    return {std::move(name), sector, size, TEST_DIRECTORY};
}

TEST_F(IsoExtract, WholeTree) {
    TestTree expected;
    TestImage image = SampleImage(&expected);
    for (uint32_t wanted : {ISO9660_WANT_JOLIET, ISO9660_WANT_ROCK_RIDGE}) {
        EXPECT_EQ(ExtractAll(image, wanted), Result::Success);
        EXPECT_EQ(Tree(), expected); // the second time it replaces what is there
    }
    EXPECT_THAT(DiagCapture_Take().debug, IsEmpty());
}

TEST_F(IsoExtract, EmptyRootCreatesNothing) {
    EXPECT_EQ(ExtractAll(TestImage(), 0), Result::Success);
    EXPECT_THAT(Tree(), IsEmpty());
}

TEST_F(IsoExtract, PathsInsideTheImage) {
    OpenedImage opened(folder.Write(SampleImage()), ISO9660_WANT_JOLIET);
    auto extract = [&](const char* path) { return Iso9660_Extract(opened.image, path, target.c_str()); };
    EXPECT_EQ(extract("/Gr\u00FC\u00DFe/deep.bin"), Result::Success);
    EXPECT_THAT(Tree(), ElementsAre(testing::Key("deep.bin")));
    EXPECT_EQ(extract("readme.txt"), Result::Success);
    EXPECT_EQ(Tree()["readme.txt"], "hello");
    EXPECT_EQ(extract("Gr\u00FC\u00DFe"), Result::Success);
    EXPECT_EQ(extract("\\Gr\u00FC\u00DFe\\"), Result::Success);
    EXPECT_EQ(Tree().size(), 2u) << "what is below the directory, without the directory itself";
    EXPECT_EQ(extract(nullptr), Result::Success);
    EXPECT_EQ(Tree().size(), 7u);
    EXPECT_THAT(DiagCapture_Take().debug, IsEmpty());

    EXPECT_EQ(extract("\\README.TXT"), Result::NotFound);
    EXPECT_EQ(extract("none\\readme.txt"), Result::NotFound);
    EXPECT_EQ(extract("none\\"), Result::NotFound);
    EXPECT_EQ(extract("readme.txt\\"), Result::NotFound);
    EXPECT_THAT(DiagCapture_Take().debug, ElementsAre(HasSubstr("README.TXT"), HasSubstr("none"),
                                                      HasSubstr("none"), HasSubstr("readme.txt")));
}

TEST_F(IsoExtract, FileToAnotherName) {
    OpenedImage opened(folder.Write(SampleImage()), ISO9660_WANT_JOLIET);
    EXPECT_EQ(Iso9660_Extract(opened.image, "readme.txt", (target + "\\other.txt").c_str()), Result::Success);
    EXPECT_EQ(Iso9660_Extract(opened.image, "empty", (target + "/none/other.txt").c_str()), Result::IoError);
    EXPECT_THAT(DiagCapture_Take().debug,
                ElementsAre(testing::AllOf(HasSubstr("empty"), HasSubstr("code 2"))));

    Iso9660_Entry directory = {};
    directory.isDir = true;
    memcpy(directory.name, "dir", 4);
    EXPECT_EQ(Iso9660_ExtractFile(opened.image, &directory, target.c_str()), Result::InvalidArgument);
    EXPECT_EQ(Iso9660_ExtractFile(opened.image, nullptr, target.c_str()), Result::InvalidArgument);
    EXPECT_EQ(Iso9660_ExtractDir(opened.image, nullptr, target.c_str()), Result::InvalidArgument);
    EXPECT_THAT(Tree(), ElementsAre(testing::Pair("other.txt", "hello")));
}

// Kept on purpose: the target directory is not made. Without it, files go to the name itself, each over the
// one before, and the first subdirectory is the end. Callers make their directory first.
TEST_F(IsoExtract, MissingTargetTakesFilesByItsOwnName) {
    OpenedImage opened(folder.Write(SampleImage()), ISO9660_WANT_ROCK_RIDGE);
    EXPECT_EQ(Iso9660_ExtractDir(opened.image, "Gr\u00FC\u00DFe", (target + "\\none").c_str()),
              Result::Success);
    EXPECT_THAT(Tree(), ElementsAre(testing::Pair("none", std::string(5000, 'd'))));
    EXPECT_EQ(Iso9660_ExtractDir(opened.image, "", (target + "\\absent").c_str()), Result::IoError);
    EXPECT_THAT(Tree(), ElementsAre(testing::Key("none")));
}

TEST_F(IsoExtract, ReusesDirectoriesAndReplacesFiles) {
    folder.Make("target/Gr\u00FC\u00DFe/older");
    WriteFile("target/more", std::string(10000, 'x'));
    WriteFile("target/unrelated", "stays");
    TestTree expected;
    TestImage image = SampleImage(&expected);
    EXPECT_EQ(ExtractAll(image, ISO9660_WANT_JOLIET), Result::Success);
    expected["Gr\u00FC\u00DFe/older"] = TEST_TREE_DIRECTORY;
    expected["unrelated"] = "stays";
    EXPECT_EQ(Tree(), expected);
}

TEST_F(IsoExtract, FileWhereADirectoryMustBe) {
    WriteFile("target/DIR", "in the way");
    EXPECT_EQ(ExtractRoot({Directory("DIR")}), Result::IoError);
    EXPECT_THAT(DiagCapture_Take().debug,
                ElementsAre(testing::AllOf(HasSubstr("\\DIR"), HasSubstr("code 2"))));
}

TEST_F(IsoExtract, DirectoryWhereAFileMustBe) {
    folder.Make("target/FILE");
    EXPECT_EQ(ExtractRoot({{"FILE", TEST_FREE + 1, 5}}), Result::IoError);
    EXPECT_THAT(DiagCapture_Take().debug, ElementsAre(HasSubstr("\\FILE")));
}

// The first failure ends the walk; what was written stays.
TEST_F(IsoExtract, StopsAtTheFirstFailure) {
    EXPECT_EQ(
        ExtractRoot({{"A", TEST_FREE + 1, 5}, Directory("B"), {"C", 9999, 3000}, {"D", TEST_FREE + 1, 5}}),
        Result::IoError);
    EXPECT_THAT(Tree(), ElementsAre(testing::Key("A"), testing::Key("B"), testing::Key("B/INNER.TXT"),
                                    testing::Pair("C", "")));
    EXPECT_THAT(DiagCapture_Take().debug,
                ElementsAre(testing::AllOf(HasSubstr("\\C:"), HasSubstr("byte 0"), HasSubstr("code 2"))));
}

TEST_F(IsoExtract, DebugLineNamesTheEntryInItsDirectory) {
    TestImage image;
    image.PutDirectory(TEST_FREE, TEST_ROOT, {{"BROKEN.CAB;1", TEST_FREE, 9999999}});
    image.PutDirectory(TEST_ROOT, TEST_ROOT, {Directory("DATA")});
    EXPECT_EQ(ExtractAll(image, 0), Result::IoError);
    EXPECT_THAT(DiagCapture_Take().debug,
                ElementsAre("Iso9660_Extract: \\DATA\\BROKEN.CAB: cannot read byte 2048 of "
                            "the file (code 2)\n"));
    EXPECT_EQ(Tree()["DATA/BROKEN.CAB"].size(), TEST_SECTOR) << "chunk by chunk: what could be read is there";
}

// A directory's path and the name that goes behind it may have 260 bytes together, the separator not counted.
// Trees up to there have always come out, so the sum is kept, although it is not what the file system counts.
TEST_F(IsoExtract, TargetPathAndNameHave260Bytes) {
    std::string base = target;
#ifdef _WIN32
    constexpr size_t baseLength = 200; // the file system's own limit for directories is below 250
#else
    constexpr size_t baseLength = 250;
#endif
    base += "/" + std::string(100, 'p');
    base += "/" + std::string(baseLength - base.size() - 1, 'q');
    ASSERT_EQ(base.size(), baseLength);
    std::filesystem::create_directories(base);
    for (size_t excess : {0u, 1u}) {
        TestImage image;
        image.PutDirectory(TEST_FREE, TEST_ROOT, {});
        image.PutDirectory(TEST_ROOT, TEST_ROOT, {Directory(std::string(260 - baseLength + excess, 'n'))});
        OpenedImage opened(folder.Write(image), 0);
        Result result = Iso9660_Extract(opened.image, "\\", base.c_str());
        std::vector<std::string> debug = DiagCapture_Take().debug;
        if (excess != 0) {
            EXPECT_EQ(result, Result::IoError);
            EXPECT_THAT(debug, ElementsAre(HasSubstr("the target path is too long")));
        }
#ifndef _WIN32
        EXPECT_EQ(result, excess == 0 ? Result::Success : Result::IoError);
#endif
    }
}

// The path inside the image has the same limit. It is met first only where names lose full stops on their way
// into the target, and the directory is there by then.
TEST_F(IsoExtract, ImagePathAndNameHave260Bytes) {
    for (size_t excess : {0u, 1u}) {
        TestImage image;
        image.PutDirectory(TEST_ROOT, TEST_ROOT, {Directory("a" + std::string(118, '.'), TEST_FREE)});
        image.PutDirectory(TEST_FREE, TEST_ROOT, {Directory("b" + std::string(118, '.'), TEST_FREE + 1)});
        image.PutDirectory(TEST_FREE + 1, TEST_FREE,
                           {Directory(std::string(20 + excess, 'c'), TEST_FREE + 2)});
        image.PutDirectory(TEST_FREE + 2, TEST_FREE + 1, {});
        EXPECT_EQ(ExtractAll(image, 0), excess == 0 ? Result::Success : Result::IoError);
        EXPECT_EQ(Tree().count("a/b/" + std::string(20 + excess, 'c')), 1u);
    }
    EXPECT_THAT(DiagCapture_Take().debug, ElementsAre(HasSubstr("the path in the image is too long")));
}

TEST_F(IsoExtract, MultipleExtentsAreRefused) {
    TestRecord first = {"BIG.BIN;1", TEST_FREE + 1, 5, TEST_MORE_EXTENTS};
    EXPECT_EQ(ExtractRoot({{"A", TEST_FREE + 1, 5}, first, {"BIG.BIN;1", TEST_FREE + 1, 5}}),
              Result::BadFormat);
    EXPECT_THAT(Tree(), ElementsAre(testing::Key("A")));
    EXPECT_THAT(DiagCapture_Take().debug,
                ElementsAre(testing::AllOf(HasSubstr("BIG.BIN"), HasSubstr("extents"), HasSubstr("code 9"))));
}

// ---- Names that must not get out

struct NameCase {
    std::string name;
    Result result;
    std::string written = {}; // when extracted
};

std::vector<NameCase> NameCases() {
    return {
        {"a/b", Result::BadFormat},
        {"a\\b", Result::BadFormat},
        {"..\\b", Result::BadFormat},
        {"/etc", Result::BadFormat},
        {"C:", Result::BadFormat},
        {"C:x", Result::BadFormat},
        {"a:stream", Result::BadFormat},
        {"", Result::BadFormat},
        {".", Result::BadFormat},
        {"..", Result::BadFormat},
        {"...", Result::BadFormat},
        {".. ", Result::BadFormat},
        {". .", Result::BadFormat},
        {" ", Result::BadFormat},
        {std::string("a\0b", 3), Result::BadFormat},
        {std::string("..\0", 3), Result::BadFormat},
        {"line\nfeed", Result::BadFormat},
        {"\x7F", Result::BadFormat},
        {"c1 \xC2\x85", Result::BadFormat},
        {"NUL", Result::BadFormat},
        {"nul", Result::BadFormat},
        {"Aux.txt", Result::BadFormat},
        {"con .txt.gz", Result::BadFormat},
        {"PRN. ", Result::BadFormat},
        {"com1", Result::BadFormat},
        {"LPT9.log", Result::BadFormat},
        {"lpt\u00B3", Result::BadFormat},
        {"CONIN$", Result::BadFormat},
        {"\xC4.TXT", Result::InvalidArgument},
        {"\xED\xA0\x80", Result::InvalidArgument},
        {"NULL", Result::Success, "NULL"},
        {"COM", Result::Success, "COM"},
        {"COM10", Result::Success, "COM10"},
        {"CONS", Result::Success, "CONS"},
        {"xnul.txt", Result::Success, "xnul.txt"},
        {".nul", Result::Success, ".nul"},
        {".hidden", Result::Success, ".hidden"},
        {"..a", Result::Success, "..a"},
        {" lead", Result::Success, " lead"},
        {"README.", Result::Success, "README"},
        {"trail. . ", Result::Success, "trail"},
        {"\u65E5\u672C\u00A0\u00DF", Result::Success, "\u65E5\u672C\u00A0\u00DF"},
    };
}

// The same judgement for files and directories, before anything of the entry is written.
TEST_F(IsoExtract, NamesAreJudgedBeforeAnythingIsWritten) {
    for (bool isDirectory : {false, true}) {
        for (const NameCase& test : NameCases()) {
            TestRecord record = {test.name.size() < 2 ? test.name + ";" : test.name,
                                 TEST_FREE + (isDirectory ? 0u : 1u), isDirectory ? 2048u : 5u,
                                 isDirectory ? TEST_DIRECTORY : uint8_t{0}};
            EXPECT_EQ(ExtractRoot({record}), test.result) << test.name;
            TestTree tree = Tree();
            std::vector<std::string> debug = DiagCapture_Take().debug;
            if (test.result == Result::Success) {
                EXPECT_EQ(tree.count(test.written), 1u) << test.name;
                EXPECT_EQ(tree.size(), isDirectory ? 2u : 1u);
                EXPECT_THAT(debug, IsEmpty());
            } else {
                EXPECT_THAT(tree, IsEmpty()) << test.name;
                ASSERT_EQ(debug.size(), 1u);
                EXPECT_EQ(debug[0].find('\n'), debug[0].size() - 1) << "one line, whatever the name holds";
            }
            std::filesystem::remove_all(target);
            folder.Make("target");
            EXPECT_EQ(folder.Tree("").size(), 2u) << "the image and the target";
        }
    }
}

// A directory's own "." and ".." are skipped; anything else that calls itself so is a disguise.
TEST_F(IsoExtract, DisguisedDots) {
    for (uint8_t flags : {uint8_t{2}, uint8_t{4}}) {
        for (uint8_t kind : {uint8_t{0}, TEST_DIRECTORY}) {
            TestImage image;
            image.PutDirectory(TEST_ROOT, TEST_ROOT,
                               {{"DIR", TEST_FREE, TEST_SECTOR, kind, AlternateName(flags, "")}},
                               SkipAnnouncement() + RockRidgeAnnouncement());
            image.PutDirectory(TEST_FREE, TEST_ROOT, {});
            EXPECT_EQ(ExtractAll(image, ISO9660_WANT_ROCK_RIDGE), Result::BadFormat);
            EXPECT_THAT(Tree(), IsEmpty());
        }
    }
    EXPECT_EQ(ExtractRoot({{std::string(1, '\1'), TEST_FREE + 1, 5, 0}}), Result::BadFormat)
        << "a file called \"..\"";
}

TEST_F(IsoExtract, RockRidgeNameThatIsNoText) {
    TestImage image;
    image.PutDirectory(TEST_ROOT, TEST_ROOT, {{"F", TEST_FREE, 5, 0, AlternateName(0, "\xE4.txt")}},
                       SkipAnnouncement() + RockRidgeAnnouncement());
    EXPECT_EQ(ExtractAll(image, ISO9660_WANT_ROCK_RIDGE), Result::InvalidArgument);
    EXPECT_THAT(DiagCapture_Take().debug, ElementsAre(HasSubstr("\\?.txt")));
}

// ---- Trees that do not end

TEST_F(IsoExtract, DirectoryInsideItself) {
    TestImage image;
    image.PutDirectory(TEST_ROOT, TEST_ROOT, {Directory("A", TEST_FREE)});
    image.PutDirectory(TEST_FREE, TEST_ROOT, {Directory("SELF", TEST_FREE)});
    EXPECT_EQ(ExtractAll(image, 0), Result::BadFormat);
    image.PutDirectory(TEST_FREE, TEST_ROOT, {Directory("ROOT", TEST_ROOT)});
    EXPECT_EQ(ExtractAll(image, 0), Result::BadFormat);
    EXPECT_THAT(Tree(), ElementsAre(testing::Key("A")));
    EXPECT_THAT(DiagCapture_Take().debug, ElementsAre(HasSubstr("\\A\\SELF"), HasSubstr("\\A\\ROOT")));
}

// Each level holds the next one twice: 2^40 directories in 40 sectors, none inside itself.
TEST_F(IsoExtract, DirectoriesThatMultiply) {
    TestImage image;
    image.SetRoot(TEST_PRIMARY, TEST_FREE, TEST_SECTOR);
    for (uint32_t level = 0; level < 40; ++level) {
        uint32_t below = TEST_FREE + level + 1;
        image.PutDirectory(TEST_FREE + level, TEST_FREE, {Directory("A", below), Directory("B", below)});
    }
    image.PutDirectory(TEST_FREE + 40, TEST_FREE, {});
    EXPECT_EQ(ExtractAll(image, 0), Result::BadFormat);
}

// A sound tree of the same depth and far more directories than the smallest image would excuse.
TEST_F(IsoExtract, ManyNestedDirectoriesAreNoFault) {
    TestImage image;
    uint32_t root = TEST_FREE;
    std::vector<TestRecord> records;
    for (uint32_t i = 0; i < 200; ++i) {
        uint32_t sector = root + 20 + i;
        records.push_back(Directory("D" + std::to_string(i), sector));
        image.PutDirectory(sector, root, {});
    }
    image.SetRoot(TEST_PRIMARY, root, image.PutDirectory(root, root, records));
    EXPECT_EQ(ExtractAll(image, 0), Result::Success);
    EXPECT_EQ(Tree().size(), 200u);
}

TEST_F(IsoExtract, DirectoryCutOffInTheMiddle) {
    TestImage image;
    image.PutDirectory(TEST_ROOT, TEST_ROOT, {Directory("A", TEST_FREE, 0xFFFFFFFF), {"Z", TEST_FREE, 5}});
    image.PutDirectory(TEST_FREE, TEST_ROOT, {{"FILE", TEST_ROOT, 5}});
    EXPECT_EQ(ExtractAll(image, 0), Result::IoError);
    EXPECT_THAT(Tree(), ElementsAre(testing::Key("A"), testing::Key("A/FILE")));
    EXPECT_THAT(DiagCapture_Take().debug,
                ElementsAre(HasSubstr("\\A\\: cannot read the directory at sector")));
}

// Cut anywhere, on a real file system; the sweep over every byte has one in memory.
TEST_F(IsoExtract, TruncatedImages) {
    TestImage image = SampleImage();
    std::string path = folder.Write(image);
    for (size_t size = image.bytes.size() - 1; size > 15 * TEST_SECTOR; size -= 1021) {
        std::filesystem::resize_file(path, size);
        for (uint32_t wanted : {ISO9660_WANT_JOLIET, ISO9660_WANT_ROCK_RIDGE}) {
            OpenedImage opened(path, wanted);
            if (opened.result == Result::Success) {
                EXPECT_NE(Iso9660_Extract(opened.image, "\\", target.c_str()), Result::Success);
            }
        }
    }
}

} // namespace
