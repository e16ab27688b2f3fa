#include "file/file.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

struct NameCase {
    const char* name;
    const char* volume;
    const char* directory;
    const char* base;
    const char* path; // volume and directory without trailing separators
    const char* stripped;
};

// Written with "/"; every case is also run with "\\".
constexpr NameCase CASES[] = {
    {"", "", "", "", "", ""},
    {"x", "", "", "x", "", "x"},
    {"/", "", "/", "", "", "/"},
    {"a/b/", "", "a/b/", "", "a/b", "a/b"},
    {"/a///", "", "/a///", "", "/a", "/a"},
    {"/dir//x", "", "/dir//", "x", "/dir", "/dir//x"},
    {"C:", "C:", "", "", "C:", "C:"},
    {"C://", "C:", "//", "", "C:", "C:/"},
    {"C:/x", "C:", "/", "x", "C:", "C:/x"},
    {"C:/dir/sub/x.txt", "C:", "/dir/sub/", "x.txt", "C:/dir/sub", "C:/dir/sub/x.txt"},
    {"C:x", "C:", "", "", "C:", "C:"}, // a base inside the volume is none
    {"C:x/y", "C:", "x/", "y", "C:x", "C:x/y"},
    {"/:", "/:", "", "", "/:", "/:"}, // any first character makes a drive
    {"//", "", "//", "", "", "/"},
    {"///", "///", "", "", "", "///"},
    {"//server", "", "", "server", "", "//server"},
    {"//server/", "//server/", "", "", "//server", "//server/"},
    {"//server/share", "//server/share", "", "", "//server/share", "//server/share"},
    {"//server/share//", "//server/share", "//", "", "//server/share", "//server/share/"},
    {"//server/share/a/b", "//server/share", "/a/", "b", "//server/share/a", "//server/share/a/b"},
    {"//?/C:/dir/x", "//?/C:", "/dir/", "x", "//?/C:/dir", "//?/C:/dir/x"},
    {"/\xE2\x82\xAC/\xF0\x9F\x93\x81", "", "/\xE2\x82\xAC/", "\xF0\x9F\x93\x81", "/\xE2\x82\xAC",
     "/\xE2\x82\xAC/\xF0\x9F\x93\x81"},
    {"//\x82/s/x", "", "//\x82/s/", "x", "//\x82/s", "//\x82/s/x"}, // no UNC head, but a broken character
};

std::string Spelled(std::string text, char separator) {
    std::ranges::replace(text, '/', separator);
    return text;
}

TEST(FileName, ComesApart) {
    for (char separator : {'/', '\\'}) {
        for (const NameCase& row : CASES) {
            const std::string name = Spelled(row.name, separator);
            std::string volume = "untouched";
            std::string directory = "untouched";
            std::string base = "untouched";
            File_SplitName(name, &volume, &directory, &base);
            EXPECT_EQ(volume, Spelled(row.volume, separator)) << name;
            EXPECT_EQ(directory, Spelled(row.directory, separator)) << name;
            EXPECT_EQ(base, Spelled(row.base, separator)) << name;
            std::string path;
            std::string baseOfPath;
            File_GetPathName(name, &path, &baseOfPath);
            EXPECT_EQ(path, Spelled(row.path, separator)) << name;
            EXPECT_EQ(baseOfPath, base) << name;
            EXPECT_EQ(File_StripSlashes(name), Spelled(row.stripped, separator)) << name;
        }
    }
}

TEST(FileName, TakesMixedSeparatorsAndPartsNotAskedFor) {
    std::string name = "\\\\server/share\\x";
    File_SplitName(name, &name, nullptr, nullptr);
    EXPECT_EQ(name, "\\\\server/share");
}

} // namespace
