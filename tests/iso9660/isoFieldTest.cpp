// Images as other programs write them, extracted as another program reads them.
#include "testImage.h"

#include "support/diagCapture.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <random>

namespace {

using Result = Iso9660_Result;

constexpr uint32_t JOLIET = ISO9660_WANT_JOLIET;
constexpr uint32_t ROCK = ISO9660_WANT_ROCK_RIDGE;

struct FieldCase {
    const char* name;
    const char* command; // before "-o IMAGE SOURCE"
    uint32_t wanted;
    bool relocates = false; // bsdtar puts relocated directories back, this reader lists them where they lie
};

const FieldCase FIELD_CASES[] = {
    {"XorrisoJoliet", "xorriso -as mkisofs -quiet -J", JOLIET},
    {"XorrisoJolietNoRock", "xorriso -as mkisofs -quiet --norock -J -joliet-long", JOLIET},
    {"XorrisoRock", "xorriso -as mkisofs -quiet -R", ROCK},
    {"XorrisoBothWanted", "xorriso -as mkisofs -quiet -R -J -joliet-long", JOLIET | ROCK},
    {"XorrisoLevel1", "xorriso -as mkisofs -quiet --norock -iso-level 1", 0},
    {"GenJolietLevel1", "genisoimage -quiet -J -ucs-level 1", JOLIET},
    {"GenJolietUdf", "genisoimage -quiet -J -joliet-long -udf", JOLIET},
    {"GenRock", "genisoimage -quiet -R", ROCK, true},
    {"GenRockHiddenRelocation", "genisoimage -quiet -R -hide-rr-moved", ROCK, true},
    {"GenRockDeep", "genisoimage -quiet -R -D", ROCK},
    {"GenPlainLong", "genisoimage -quiet -D -l -relaxed-filenames -allow-lowercase -allow-multidot", 0},
    {"GenPlainUntranslated", "genisoimage -quiet -D -U", 0},
    {"GenHiddenNoPadding", "genisoimage -quiet -J -no-pad -hidden '*.c' -hidden many", JOLIET},
};

std::string Quoted(const std::string& text) {
    return "'" + text + "'";
}

bool RunTool(const std::string& command) {
    return std::system(("LC_ALL=C.UTF-8 " + command).c_str()) == 0;
}

// What goes into the images: made once for all of them.
struct Source {
    Source() {
        for (size_t size : {0u, 1u, 2047u, 2048u, 2049u, 4096u, 100000u}) {
            Add("sizes/size" + std::to_string(size) + ".bin", size);
        }
        for (const char* name : {"UPPER.TXT", "lower.c", ".hidden", "two.dots.tar", "with blank.txt",
                                 "noextension", "Gr\u00FC\u00DFe.txt", "\u65E5\u672C\u8A9E.txt"}) {
            Add(std::string("names/") + name, 3);
        }
        Add("names/" + std::string(60, 'l') + ".txt", 3);
        Add("names/" + std::string(95, 'm') + ".text", 3);
        Add("names/longer/" + std::string(200, 'n') + ".text", 3);
        Add("1/2/3/4/5/6/7/8/9/10/deep.txt", 3000);
        folder.Make("source/emptydir");
        std::filesystem::create_symlink("UPPER.TXT", folder.Path("source/names/symlink"));
        for (size_t i = 0; i < 100; ++i) { // several sectors of one directory
            Add("many/file" + std::to_string(10000 + i) + ".dat", i % 3);
        }
    }
    void Add(const std::string& name, size_t size) {
        std::filesystem::path path = folder.Path("source/" + name);
        std::filesystem::create_directories(path.parent_path());
        std::vector<uint8_t> content(size);
        std::generate(content.begin(), content.end(), [&] { return static_cast<uint8_t>(generator()); });
        folder.Write("source/" + name, content);
    }

    TestFolder folder;
    std::mt19937 generator;
};

// Takes out what the other program has elsewhere or by another name: deep directories that were relocated,
// and long Joliet names, which it cuts at 103 characters.
void KeepComparable(const FieldCase& test, TestTree* tree) {
    std::erase_if(*tree, [&](const auto& entry) {
        const std::string& name = entry.first;
        return (test.relocates && (name.starts_with("1/") || name.find("moved") != std::string::npos)) ||
               ((test.wanted & JOLIET) != 0 && name.starts_with("names/longer/n"));
    });
}

struct IsoField : testing::TestWithParam<FieldCase> {
    void SetUp() override {
        for (const char* tool : {"xorriso", "genisoimage", "bsdtar"}) {
            if (!RunTool(std::string("command -v ") + tool + " >/dev/null")) {
                GTEST_SKIP() << tool << " is not installed";
            }
        }
    }
    TestFolder folder;
};

TEST_P(IsoField, SameAsBsdtar) {
    static const Source source;
    uint32_t wanted = GetParam().wanted;
    std::string image = folder.Path("image.iso");
    ASSERT_TRUE(RunTool(GetParam().command + (" -o " + Quoted(image)) + " " +
                        Quoted(source.folder.Path("source")) + " 2>/dev/null"));
    std::string options = (wanted & JOLIET) != 0 ? "iso9660:joliet,iso9660:!rockridge"
                          : wanted == ROCK       ? "iso9660:!joliet"
                                                 : "iso9660:!joliet,iso9660:!rockridge";
    ASSERT_TRUE(RunTool("bsdtar -xf " + Quoted(image) + " --options " + options + " -C " +
                        Quoted(folder.Make("reference"))));
    OpenedImage opened(image, wanted);
    ASSERT_EQ(Iso9660_Extract(opened.image, "\\", folder.Make("target").c_str()), Result::Success)
        << testing::PrintToString(DiagCapture_Take().debug);

    TestTree expected = folder.Tree("reference");
    TestTree actual = folder.Tree("target");
    EXPECT_GT(actual.size(), 100u);
    if (auto link = expected.find("names/symlink"); link != expected.end()) {
        link->second = ""; // links come out as empty files
    }
    KeepComparable(GetParam(), &expected);
    KeepComparable(GetParam(), &actual);
    EXPECT_EQ(actual, expected);
}

INSTANTIATE_TEST_SUITE_P(Tools, IsoField, testing::ValuesIn(FIELD_CASES),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
