// Extraction of files and trees.
#include "testImage.h"

#include "support/diagCapture.h"
#include "unicode/unicode.h"

#include <cstring>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using Result = Iso9660_Result;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Key;
using testing::Pair;
using namespace std::string_literals;

constexpr uint32_t JOLIET = ISO9660_WANT_JOLIET;
constexpr uint32_t ROCK = ISO9660_WANT_ROCK_RIDGE;

TestRecord File(std::string name) {
    return {std::move(name), TEST_FREE + 1, 5};
}

TestRecord Directory(std::string name, uint32_t sector = TEST_FREE, uint32_t size = TEST_SECTOR) {
    return {std::move(name), sector, size, TEST_DIRECTORY};
}

struct IsoExtract : testing::Test {
    IsoExtract() { DiagCapture_Take(); }

    // Extracts the root into the target.
    Result ExtractAll(const TestImage& image, uint32_t wanted = 0) {
        OpenedImage opened(folder.Write(image), wanted);
        EXPECT_EQ(opened.result, Result::Success);
        return Iso9660_Extract(opened.image, "\\", target.c_str());
    }
    // The records in the root; what File and Directory make has content.
    Result ExtractRoot(const std::vector<TestRecord>& records, uint32_t wanted = 0) {
        TestImage image = RootWith(records);
        image.PutDirectory(TEST_FREE, TEST_ROOT, {File("INNER.TXT;1")});
        image.Put(TEST_FREE + 1, "inner");
        return ExtractAll(image, wanted);
    }
    TestTree Tree() const { return folder.Tree("target"); }
    // The lines of the failures, which stand in both places.
    static std::vector<std::string> Messages() {
        DiagMessages messages = DiagCapture_Take();
        EXPECT_EQ(messages.debug, messages.warning);
        return messages.debug;
    }

    TestFolder folder;
    std::string target = folder.Make("target");
};

TEST_F(IsoExtract, WholeTree) {
    TestTree expected;
    TestImage image = SampleImage(&expected);
    for (uint32_t wanted : {JOLIET, ROCK}) {
        EXPECT_EQ(ExtractAll(image, wanted), Result::Success);
        EXPECT_EQ(Tree(), expected); // the second time it replaces what is there
    }
    EXPECT_THAT(Messages(), IsEmpty());
}

TEST_F(IsoExtract, EmptyRootCreatesNothing) {
    EXPECT_EQ(ExtractAll(TestImage()), Result::Success);
    EXPECT_THAT(Tree(), IsEmpty());
}

TEST_F(IsoExtract, PathsInsideTheImage) {
    OpenedImage opened(folder.Write(SampleImage()), JOLIET);
    auto extract = [&](const char* path) { return Iso9660_Extract(opened.image, path, target.c_str()); };
    EXPECT_EQ(extract("/Gr\u00FC\u00DFe/deep.bin"), Result::Success);
    EXPECT_THAT(Tree(), ElementsAre(Key("deep.bin")));
    EXPECT_EQ(extract("readme.txt"), Result::Success);
    EXPECT_EQ(Tree()["readme.txt"], "hello");
    EXPECT_EQ(extract("Gr\u00FC\u00DFe"), Result::Success);
    EXPECT_EQ(extract("\\Gr\u00FC\u00DFe\\"), Result::Success);
    EXPECT_EQ(Tree().size(), 2u) << "what is below the directory, without the directory itself";
    EXPECT_EQ(extract(nullptr), Result::Success);
    EXPECT_EQ(Tree().size(), 5u);
    EXPECT_THAT(Messages(), IsEmpty());
    for (const char* path : {"\\README.TXT", "none\\readme.txt", "none\\", "readme.txt\\"}) {
        EXPECT_EQ(extract(path), Result::NotFound);
        EXPECT_THAT(Messages(), ElementsAre(HasSubstr("code 7"))) << path;
    }
}

TEST_F(IsoExtract, FileToAnotherName) {
    OpenedImage opened(folder.Write(SampleImage()), JOLIET);
    EXPECT_EQ(Iso9660_Extract(opened.image, "readme.txt", (target + "\\other.txt").c_str()), Result::Success);
    EXPECT_EQ(Iso9660_Extract(opened.image, "empty", (target + "/none/other.txt").c_str()), Result::IoError);
    Iso9660_Entry directory = {};
    directory.isDir = true;
    memcpy(directory.name, "dir", 4);
    EXPECT_EQ(Iso9660_ExtractFile(opened.image, &directory, target.c_str()), Result::InvalidArgument);
    EXPECT_EQ(Iso9660_ExtractFile(opened.image, nullptr, target.c_str()), Result::InvalidArgument);
    EXPECT_EQ(Iso9660_ExtractDir(opened.image, nullptr, target.c_str()), Result::InvalidArgument);
    EXPECT_THAT(Tree(), ElementsAre(Pair("other.txt", "hello")));
}

// Kept on purpose: the target directory is not made. Without it, files go to the name itself, each over the
// one before, and the first subdirectory is the end. Callers make their directory first.
TEST_F(IsoExtract, MissingTargetTakesFilesByItsOwnName) {
    OpenedImage opened(folder.Write(SampleImage()), ROCK);
    EXPECT_EQ(Iso9660_ExtractDir(opened.image, "Gr\u00FC\u00DFe", (target + "\\none").c_str()),
              Result::Success);
    EXPECT_EQ(Iso9660_ExtractDir(opened.image, "", (target + "\\absent").c_str()), Result::IoError);
    EXPECT_THAT(Tree(), ElementsAre(Pair("none", std::string(5000, 'd'))));
}

TEST_F(IsoExtract, ReusesDirectoriesAndReplacesFiles) {
    TestTree expected;
    TestImage image = SampleImage(&expected);
    folder.Make("target/Gr\u00FC\u00DFe/older");
    folder.Write("target/readme.txt", std::vector<uint8_t>(10000));
    folder.Write("target/unrelated", {'x'});
    EXPECT_EQ(ExtractAll(image, JOLIET), Result::Success);
    expected["Gr\u00FC\u00DFe/older"] = TEST_TREE_DIRECTORY;
    expected["unrelated"] = "x";
    EXPECT_EQ(Tree(), expected);
}

TEST_F(IsoExtract, SomethingElseInTheWay) {
    folder.Write("target/DIR", {});
    EXPECT_EQ(ExtractRoot({Directory("DIR")}), Result::IoError);
    folder.Make("target/FILE");
    EXPECT_EQ(ExtractRoot({File("FILE")}), Result::IoError);
    EXPECT_THAT(Messages(), ElementsAre(HasSubstr("\\DIR"), HasSubstr("\\FILE")));
}

// The first failure ends the walk; what was written stays, chunk by chunk.
TEST_F(IsoExtract, StopsAtTheFirstFailure) {
    TestImage image = RootWith({File("A"), Directory("DATA"), File("Z")});
    image.PutDirectory(TEST_FREE, TEST_ROOT, {File("B"), {"BROKEN.CAB;1", TEST_FREE, 9999999}, File("C")});
    image.Put(TEST_FREE + 1, "inner");
    EXPECT_EQ(ExtractAll(image), Result::IoError);
    TestTree tree = Tree();
    EXPECT_THAT(tree, ElementsAre(Key("A"), Key("DATA"), Key("DATA/B"), Key("DATA/BROKEN.CAB")));
    EXPECT_EQ(tree["DATA/BROKEN.CAB"].size(), 2 * TEST_SECTOR);
    EXPECT_THAT(Messages(),
                ElementsAre("Iso9660_Extract: \\DATA\\BROKEN.CAB: cannot read byte 4096 of the file "
                            "(code 2)\n"));
}

// A directory's path and the name that goes behind it may have 260 bytes together, the separator not counted.
// Trees up to there have always come out, so the sum is kept, although it is not what the file system counts.
TEST_F(IsoExtract, TargetPathAndNameHave260Bytes) {
#ifdef _WIN32
    constexpr size_t baseLength = 200; // the file system's own limit for directories is below 250
#else
    constexpr size_t baseLength = 250;
#endif
    target += "/" + std::string(100, 'p');
    target += "/" + std::string(baseLength - target.size() - 1, 'q');
    std::filesystem::create_directories(target);
#ifndef _WIN32
    EXPECT_EQ(ExtractRoot({Directory(std::string(260 - baseLength, 'n'))}), Result::Success);
#endif
    EXPECT_EQ(ExtractRoot({Directory(std::string(261 - baseLength, 'n'))}), Result::IoError);
    EXPECT_THAT(Messages(), ElementsAre(HasSubstr("the target path is too long")));
}

// The path inside the image has the same limit. It is met first only where names lose full stops on their way
// into the target, and the directory is there by then.
TEST_F(IsoExtract, ImagePathAndNameHave260Bytes) {
    for (size_t length : {20u, 21u}) {
        TestImage image = RootWith({Directory("a" + std::string(118, '.'), TEST_FREE)});
        image.PutDirectory(TEST_FREE, TEST_ROOT, {Directory("b" + std::string(118, '.'), TEST_FREE + 1)});
        image.PutDirectory(TEST_FREE + 1, TEST_FREE, {Directory(std::string(length, 'c'), TEST_FREE + 2)});
        image.PutDirectory(TEST_FREE + 2, TEST_FREE + 1, {});
        EXPECT_EQ(ExtractAll(image), length == 20 ? Result::Success : Result::IoError);
        EXPECT_EQ(Tree().count("a/b/" + std::string(length, 'c')), 1u);
    }
    EXPECT_THAT(Messages(), ElementsAre(HasSubstr("the path in the image is too long")));
}

TEST_F(IsoExtract, MultipleExtentsAreRefused) {
    TestRecord first = {"BIG.BIN;1", TEST_FREE + 1, 5, TEST_MORE_EXTENTS};
    EXPECT_EQ(ExtractRoot({File("A"), first, File("BIG.BIN;1")}), Result::BadFormat);
    EXPECT_THAT(Tree(), ElementsAre(Key("A")));
    EXPECT_THAT(Messages(), ElementsAre(HasSubstr("BIG.BIN: a file in several extents")));
}

// ---- Names that must not get out

// The same judgement for files and directories, before anything of the entry is written.
TEST_F(IsoExtract, RefusesNamesBeforeAnythingIsWritten) {
    const std::vector<std::string> refused = {"a/b", "..\\b", "/etc", "C:", "C:x", "a:stream", ";1", ".",
                                              "..", "...", ". .", " ", "a\0b"s, "..\0"s, "line\nfeed", "\x7F",
                                              "c1 \xC2\x85", "nul", "Aux.txt", "con .txt.gz", "PRN. ", "com1",
                                              "LPT9.log", "lpt\u00B3", "CONIN$",
                                              // not UTF-8
                                              "\xC4.TXT", "\xED\xA0\x80"};
    for (const std::string& name : refused) {
        bool isText = Unicode_IsValidUtf8(name);
        for (const TestRecord& record : {File(name), Directory(name)}) {
            EXPECT_EQ(ExtractRoot({record}), isText ? Result::BadFormat : Result::InvalidArgument) << name;
            std::vector<std::string> messages = Messages();
            ASSERT_EQ(messages.size(), 1u) << name;
            EXPECT_EQ(messages[0].find('\n'), messages[0].size() - 1) << "one line, whatever the name holds";
            EXPECT_TRUE(Unicode_IsValidUtf8(messages[0])) << name;
        }
    }
    EXPECT_EQ(folder.Tree("").size(), 2u) << "the image and the target";
}

TEST_F(IsoExtract, TakesNamesThatOnlyLookLikeThose) {
    const char* const names[] = {"NULL", "COM", "COM10", "CONS",
                                 ".nul", "..a", " lead", "\u65E5\u672C\u00A0\u00DF"};
    std::vector<TestRecord> records = {Directory("trail. . ")};
    TestTree expected = {{"trail", TEST_TREE_DIRECTORY}, {"trail/INNER.TXT", "inner"}};
    for (const char* name : names) {
        records.push_back(File(name));
        expected[name] = "inner";
    }
    EXPECT_EQ(ExtractRoot(records), Result::Success);
    EXPECT_EQ(Tree(), expected);
    EXPECT_THAT(Messages(), IsEmpty());
}

// A directory's own "." and ".." are skipped; anything else that calls itself so is a disguise.
TEST_F(IsoExtract, DisguisedDots) {
    EXPECT_EQ(ExtractRoot({File(std::string(1, '\1'))}), Result::BadFormat);
    for (uint8_t flags : {uint8_t{2}, uint8_t{4}}) {
        for (TestRecord record : {File("X"), Directory("X")}) {
            record.systemUse = AlternateName(flags, "");
            EXPECT_EQ(ExtractRoot({record}, ROCK), Result::BadFormat);
        }
    }
    EXPECT_THAT(Tree(), IsEmpty());
}

// ---- Trees that do not end

TEST_F(IsoExtract, DirectoryInsideItself) {
    for (uint32_t sector : {TEST_FREE, TEST_ROOT}) {
        TestImage image = RootWith({Directory("A")});
        image.PutDirectory(TEST_FREE, TEST_ROOT, {Directory("B", sector)});
        EXPECT_EQ(ExtractAll(image), Result::BadFormat);
        EXPECT_THAT(Messages(), ElementsAre(HasSubstr("\\A\\B: a directory inside itself")));
    }
    EXPECT_THAT(Tree(), ElementsAre(Key("A")));
}

// Each level holds the next one twice: 2^40 directories in 40 sectors, none inside itself.
TEST_F(IsoExtract, DirectoriesThatMultiply) {
    TestImage image;
    image.SetRoot(TEST_PRIMARY, TEST_FREE, TEST_SECTOR);
    for (uint32_t level = TEST_FREE; level < TEST_FREE + 40; ++level) {
        image.PutDirectory(level, TEST_FREE, {Directory("A", level + 1), Directory("B", level + 1)});
    }
    image.PutDirectory(TEST_FREE + 40, TEST_FREE, {});
    EXPECT_EQ(ExtractAll(image), Result::BadFormat);
}

// A sound tree of far more directories than the smallest image would excuse.
TEST_F(IsoExtract, ManyDirectoriesAreNoFault) {
    TestImage image;
    std::vector<TestRecord> records;
    for (uint32_t i = 0; i < 200; ++i) {
        records.push_back(Directory("D" + std::to_string(i), TEST_FREE + 20 + i));
        image.PutDirectory(TEST_FREE + 20 + i, TEST_FREE, {});
    }
    image.SetRoot(TEST_PRIMARY, TEST_FREE, image.PutDirectory(TEST_FREE, TEST_FREE, records));
    EXPECT_EQ(ExtractAll(image), Result::Success);
    EXPECT_EQ(Tree().size(), 200u);
}

TEST_F(IsoExtract, DirectoryCutOffInTheMiddle) {
    TestImage image = RootWith({Directory("A", TEST_FREE, 0xFFFFFFFF), {"Z", TEST_ROOT, 5}});
    image.PutDirectory(TEST_FREE, TEST_ROOT, {{"FILE", TEST_ROOT, 5}});
    EXPECT_EQ(ExtractAll(image), Result::IoError);
    EXPECT_THAT(Tree(), ElementsAre(Key("A"), Key("A/FILE")));
    EXPECT_THAT(Messages(), ElementsAre(HasSubstr("\\A\\: cannot read the directory at sector")));
}

} // namespace
