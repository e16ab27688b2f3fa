// Images as other programs write them, compared with what other programs read: names with isoinfo, contents
// with bsdtar. Where the three differ for a reason, the case says so.
#include "testImage.h"

#include "support/diagCapture.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <random>
#include <set>
#include <sstream>

namespace {

using Result = Iso9660_Result;
namespace fs = std::filesystem;

constexpr size_t MANY = 300; // files in one directory: several of its sectors

std::string Quoted(const std::string& text) {
    return "'" + text + "'";
}

bool RunTool(const std::string& command) {
    return std::system(("LC_ALL=C.UTF-8 " + command).c_str()) ==
           0; // NOLINT(cert-env33-c): commands of our own
}

std::string Filled(size_t size, unsigned seed) {
    std::mt19937 generator(seed);
    std::string content(size, '\0');
    std::generate(content.begin(), content.end(), [&] { return static_cast<char>(generator()); });
    return content;
}

// What goes into the images: made once for all of them.
struct Source {
    Source() {
        Add("Readme.txt", 100);
        for (size_t size : {0u, 1u, 2047u, 2048u, 2049u, 4096u, 100000u}) {
            Add("sizes/size" + std::to_string(size) + ".bin", size);
        }
        Add("names/UPPER.TXT", 3);
        Add("names/lower.c", 3);
        Add("names/.hidden", 3);
        Add("names/two.dots.tar", 3);
        Add("names/with blank.txt", 3);
        Add("names/noextension", 3);
        Add("names/Gr\u00FC\u00DFe.txt", 3);
        Add("names/\u65E5\u672C\u8A9E.txt", 3);
        Add("names/" + std::string(60, 'l') + ".txt", 3);
        Add("names/" + std::string(95, 'm') + ".text", 3);
        Add("names/longer/" + std::string(200, 'n') + ".text", 3);
        Add("1/2/3/4/5/6/7/8/9/10/deep.txt", 3000);
        fs::create_directories(root / "emptydir");
        fs::create_symlink("Readme.txt", root / "names/symlink");
        for (size_t i = 0; i < MANY; ++i) {
            Add("many/file" + std::to_string(10000 + i) + ".dat", i % 3);
        }
    }
    void Add(const std::string& name, size_t size) {
        static unsigned seed = 0;
        fs::create_directories((root / name).parent_path());
        std::string content = Filled(size, ++seed);
        folder.Write("source/" + name, std::vector<uint8_t>(content.begin(), content.end()));
    }

    TestFolder folder;
    fs::path root = folder.Make("source");
};

const Source& GetSource() {
    static const Source source;
    return source;
}

struct FieldCase {
    const char* name;
    const char* command; // before "-o IMAGE SOURCE"
    uint32_t wanted;
    bool relocates = false; // bsdtar puts relocated directories back, this reader lists them where they lie
};

void PrintTo(const FieldCase& test, std::ostream* stream) {
    *stream << test.command << ", wanted " << test.wanted;
}

constexpr uint32_t JOLIET = ISO9660_WANT_JOLIET;
constexpr uint32_t ROCK = ISO9660_WANT_ROCK_RIDGE;

const FieldCase FIELD_CASES[] = {
    {"XorrisoJoliet", "xorriso -as mkisofs -quiet -J", JOLIET},
    {"XorrisoJolietLong", "xorriso -as mkisofs -quiet -J -joliet-long", JOLIET},
    {"XorrisoJolietNoRock", "xorriso -as mkisofs -quiet --norock -J -joliet-long", JOLIET},
    {"XorrisoRock", "xorriso -as mkisofs -quiet -R", ROCK},
    {"XorrisoRockWithJoliet", "xorriso -as mkisofs -quiet -R -J -joliet-long", ROCK},
    {"XorrisoBothWanted", "xorriso -as mkisofs -quiet -R -J -joliet-long", JOLIET | ROCK},
    {"XorrisoLevel1", "xorriso -as mkisofs -quiet --norock -iso-level 1", 0},
    {"XorrisoLevel3", "xorriso -as mkisofs -quiet --norock -iso-level 3 -allow-lowercase", 0},
    {"GenJoliet", "genisoimage -quiet -J", JOLIET},
    {"GenJolietLong", "genisoimage -quiet -J -joliet-long", JOLIET},
    {"GenJolietLevel1", "genisoimage -quiet -J -ucs-level 1", JOLIET},
    {"GenJolietLevel2", "genisoimage -quiet -J -ucs-level 2", JOLIET},
    {"GenJolietUdf", "genisoimage -quiet -J -joliet-long -udf", JOLIET},
    {"GenRock", "genisoimage -quiet -R", ROCK, true},
    {"GenRockRationalized", "genisoimage -quiet -r -J", ROCK, true},
    {"GenRockHiddenRelocation", "genisoimage -quiet -R -hide-rr-moved", ROCK, true},
    {"GenRockDeep", "genisoimage -quiet -R -D", ROCK},
    {"GenPlain", "genisoimage -quiet -D", 0},
    {"GenPlainLong", "genisoimage -quiet -D -l -relaxed-filenames -allow-lowercase -allow-multidot", 0},
    {"GenPlainNoVersion", "genisoimage -quiet -D -N -d -l", 0},
    {"GenPlainUntranslated", "genisoimage -quiet -D -U", 0},
    {"GenHiddenNoPadding", "genisoimage -quiet -J -no-pad -hidden '*.c' -hidden many", JOLIET},
    {"GenTables", "genisoimage -quiet -D -T -J", 0},
};

// Relocated directories as bsdtar does not take them.
const FieldCase NAMES_ONLY_CASES[] = {
    {"XorrisoRelocation", "xorriso -as mkisofs -quiet -R -rr_reloc_dir /moved", ROCK, true},
};

// As isoinfo prints Joliet names when asked for ISO 8859-1.
std::string ToLatin1(const std::string& utf8) {
    std::string latin1;
    for (size_t i = 0; i < utf8.size(); ++i) {
        auto byte = static_cast<unsigned char>(utf8[i]);
        if (byte < 0x80) {
            latin1 += utf8[i];
        } else if (byte >= 0xC4) {
            latin1 += '_';
        } else if (byte >= 0xC0) {
            latin1 += static_cast<char>((byte & 3) << 6 | (utf8[i + 1] & 0x3F));
        }
    }
    return latin1;
}

// The paths that isoinfo prints, without versions and the full stop before them.
std::set<std::string> IsoinfoPaths(const fs::path& image, uint32_t wanted, const fs::path& output) {
    std::string kind = (wanted & JOLIET) != 0 ? "-J" : (wanted & ROCK) != 0 ? "-R" : "";
    EXPECT_TRUE(RunTool("isoinfo -j iso8859-1 -f " + kind + " -i " + Quoted(image) + " >" + Quoted(output)));
    std::set<std::string> paths;
    std::istringstream lines(ReadWhole(output));
    for (std::string line; std::getline(lines, line);) {
        line = kind.empty() ? line.substr(0, line.find(';')) : line;
        paths.insert(line);
    }
    return paths;
}

void ListBelow(Iso9660_Image* image, const std::string& path, std::set<std::string>* paths) {
    Iso9660_Dir dir;
    ASSERT_EQ(Iso9660_OpenDir(image, path.c_str(), &dir), Result::Success) << path;
    Iso9660_Entry entry;
    Result result;
    while ((result = Iso9660_ReadDir(image, &dir, &entry)) == Result::Success) {
        std::string name = entry.name;
        if (name != "." && name != "..") {
            paths->insert(path + "/" + name);
            if (entry.isDir) {
                ListBelow(image, path + "/" + name, paths);
            }
        }
    }
    EXPECT_EQ(result, Result::End) << path;
}

// Takes the deep directories out, and gives the file at their end, wherever it lies.
std::string TakeDeepFile(TestTree* tree) {
    std::string found = "(none)";
    for (auto entry = tree->begin(); entry != tree->end();) {
        const std::string& name = entry->first;
        if (name.ends_with("9/10/deep.txt")) {
            found = entry->second;
        }
        bool deep = name.starts_with("1/") || name.find("moved") != std::string::npos;
        entry = deep ? tree->erase(entry) : std::next(entry);
    }
    return found;
}

void CutLongName(TestTree* tree) {
    static const std::string directory = "names/longer/";
    auto entry = tree->lower_bound(directory + "n");
    if (entry != tree->end() && entry->first.size() > directory.size() + 103) {
        std::string content = entry->second;
        std::string name = entry->first.substr(0, directory.size() + 103);
        tree->erase(entry);
        (*tree)[name] = content;
    }
}

// The reason to skip: a program that is missing.
std::string MissingTool() {
    for (const char* tool : {"xorriso", "genisoimage", "isoinfo", "bsdtar"}) {
        if (!RunTool(std::string("command -v ") + tool + " >/dev/null")) {
            return std::string(tool) + " is not installed";
        }
    }
    return {};
}

struct IsoField : testing::TestWithParam<FieldCase> {
    void SetUp() override {
        if (std::string missing = MissingTool(); !missing.empty()) {
            GTEST_SKIP() << missing;
        }
        image = folder.Path("image.iso");
        ASSERT_TRUE(RunTool(std::string(GetParam().command) + " -o " + Quoted(image) + " " +
                            Quoted(GetSource().root) + " 2>" + Quoted(folder.Path("log"))))
            << ReadWhole(folder.Path("log"));
        DiagCapture_Take();
    }

    TestFolder folder;
    fs::path image;
};

struct IsoFieldNames : IsoField {};
struct IsoFieldContents : IsoField {};

TEST_P(IsoFieldNames, SameAsIsoinfo) {
    OpenedImage opened(image, GetParam().wanted);
    ASSERT_EQ(opened.result, Result::Success);
    std::set<std::string> paths;
    ListBelow(opened.image, "", &paths);
    EXPECT_GT(paths.size(), MANY);
    if ((GetParam().wanted & JOLIET) != 0) {
        std::set<std::string> latin1;
        std::transform(paths.begin(), paths.end(), std::inserter(latin1, latin1.end()), ToLatin1);
        paths = latin1;
    }
    EXPECT_EQ(paths, IsoinfoPaths(image, GetParam().wanted, folder.Path("listing")));
}

TEST_P(IsoFieldContents, SameAsBsdtar) {
    uint32_t wanted = GetParam().wanted;
    std::string options = (wanted & JOLIET) != 0 ? "iso9660:joliet,iso9660:!rockridge"
                          : wanted == ROCK       ? "iso9660:!joliet"
                                                 : "iso9660:!joliet,iso9660:!rockridge";
    std::string reference = folder.Make("reference");
    ASSERT_TRUE(
        RunTool("bsdtar -xf " + Quoted(image) + " --options " + options + " -C " + Quoted(reference)));

    OpenedImage opened(image, wanted);
    std::string target = folder.Make("target");
    ASSERT_EQ(Iso9660_Extract(opened.image, "\\", target.c_str()), Result::Success)
        << testing::PrintToString(DiagCapture_Take().debug);
    TestTree expected = folder.Tree("reference");
    TestTree actual = folder.Tree("target");
    if (expected.count("names/symlink") != 0) {
        expected["names/symlink"] = ""; // links come out as empty files
    }
    if (GetParam().relocates) {
        EXPECT_EQ(TakeDeepFile(&actual), TakeDeepFile(&expected));
    }
    if ((wanted & JOLIET) != 0) {
        CutLongName(&actual); // bsdtar cuts at 103 characters, xorriso writes some more
        CutLongName(&expected);
    }
    EXPECT_EQ(actual, expected);
}

std::string CaseName(const testing::TestParamInfo<FieldCase>& info) {
    return info.param.name;
}

// Kept on purpose: the first supplementary descriptor must be the Joliet one. At level 4 there is another
// kind, which genisoimage writes first and xorriso last.
TEST(IsoFieldLevel4, DependsOnTheOrderOfDescriptors) {
    if (std::string missing = MissingTool(); !missing.empty()) {
        GTEST_SKIP() << missing;
    }
    TestFolder folder;
    std::string options = " -quiet -iso-level 4 -J -o ";
    std::string from = " " + Quoted(folder.Make("source")) + " 2>/dev/null";
    folder.Write("source/file", {1, 2, 3});
    std::string first = folder.Path("first.iso");
    std::string last = folder.Path("last.iso");
    ASSERT_TRUE(RunTool("genisoimage" + options + Quoted(first) + from));
    ASSERT_TRUE(RunTool("xorriso -as mkisofs" + options + Quoted(last) + from));
    EXPECT_EQ(OpenedImage(first, JOLIET).result, Result::BadFormat);
    EXPECT_EQ(OpenedImage(first, ROCK).result, Result::Success);
    EXPECT_EQ(OpenedImage(last, JOLIET).result, Result::Success);
}

INSTANTIATE_TEST_SUITE_P(Tools, IsoFieldNames, testing::ValuesIn(FIELD_CASES), CaseName);
INSTANTIATE_TEST_SUITE_P(MoreTools, IsoFieldNames, testing::ValuesIn(NAMES_ONLY_CASES), CaseName);
INSTANTIATE_TEST_SUITE_P(Tools, IsoFieldContents, testing::ValuesIn(FIELD_CASES), CaseName);

} // namespace
