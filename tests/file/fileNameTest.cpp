#include "file/file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

struct SplitCase {
    const char* name;
    const char* volume;
    const char* directory;
    const char* base;
};

// Written with "/"; every case is also run with "\\".
constexpr SplitCase SPLIT_CASES[] = {
    {"", "", "", ""},
    {"x", "", "", "x"},
    {"/", "", "/", ""},
    {"a/b", "", "a/", "b"},
    {"a/b/", "", "a/b/", ""},
    {"a//b", "", "a//", "b"},
    {"/dir/x", "", "/dir/", "x"},
    {"C:", "C:", "", ""},
    {"C:/", "C:", "/", ""},
    {"C:/x", "C:", "/", "x"},
    {"C:/dir/sub/x.txt", "C:", "/dir/sub/", "x.txt"},
    {"C:x", "C:", "", ""}, // a base inside the volume is none
    {"C:x/y", "C:", "x/", "y"},
    {"/:", "/:", "", ""}, // any first character makes a drive
    {"//", "", "//", ""},
    {"///", "///", "", ""},
    {"//server", "", "", "server"},
    {"//server/", "//server/", "", ""},
    {"//server/share", "//server/share", "", ""},
    {"//server/share/", "//server/share", "/", ""},
    {"//server/share/a/b.txt", "//server/share", "/a/", "b.txt"},
    {"//?/C:/dir/x", "//?/C:", "/dir/", "x"},
    {"/dir/trailing. ", "", "/dir/", "trailing. "},
    {"/\xE2\x82\xAC/\xF0\x9F\x93\x81.txt", "", "/\xE2\x82\xAC/", "\xF0\x9F\x93\x81.txt"},
    {"//\x82/share/x", "", "//\x82/share/", "x"}, // not a UNC head: the prefix is part of a broken character
};

std::string WithBackslashes(std::string text) {
    for (char& character : text) {
        character = character == '/' ? '\\' : character;
    }
    return text;
}

using Transform = std::string (*)(std::string);
constexpr Transform SPELLINGS[] = {[](std::string text) { return text; }, WithBackslashes};

TEST(FileName, Splits) {
    for (Transform spelling : SPELLINGS) {
        for (const SplitCase& row : SPLIT_CASES) {
            std::string volume = "untouched";
            std::string directory = "untouched";
            std::string base = "untouched";
            File_SplitName(spelling(row.name), &volume, &directory, &base);
            EXPECT_EQ(volume, spelling(row.volume)) << row.name;
            EXPECT_EQ(directory, spelling(row.directory)) << row.name;
            EXPECT_EQ(base, spelling(row.base)) << row.name;
        }
    }
}

TEST(FileName, SplitTakesMixedSeparatorsAndPartsNotAskedFor) {
    std::string base;
    File_SplitName("C:/a\\b/c", nullptr, nullptr, &base);
    EXPECT_EQ(base, "c");
    std::string name = "\\\\server/share\\x";
    File_SplitName(name, &name, nullptr, nullptr);
    EXPECT_EQ(name, "\\\\server/share");
}

TEST(FileName, PathLosesEveryTrailingSeparator) {
    struct {
        const char* name;
        const char* path;
        const char* base;
    } const cases[] = {
        {"C:/x", "C:", "x"},
        {"/dir/x", "/dir", "x"},
        {"/dir//x", "/dir", "x"},
        {"/x", "", "x"},
        {"///", "", ""},
        {"x", "", "x"},
        {"C:/a/b/", "C:/a/b", ""},
        {"//server/share/x", "//server/share", "x"},
        {"//server", "", "server"},
    };
    for (Transform spelling : SPELLINGS) {
        for (const auto& row : cases) {
            std::string path;
            std::string base;
            File_GetPathName(spelling(row.name), &path, &base);
            EXPECT_EQ(path, spelling(row.path)) << row.name;
            EXPECT_EQ(base, spelling(row.base)) << row.name;
        }
    }
}

TEST(FileName, StripsSlashesButKeepsALoneOne) {
    struct {
        const char* name;
        const char* stripped;
    } const cases[] = {
        {"", ""},
        {"/", "/"},
        {"//", "/"},
        {"/a/", "/a"},
        {"/a///", "/a"},
        {"a", "a"},
        {"/a/b", "/a/b"},
        {"C:/", "C:/"},
        {"C://", "C:/"},
        {"C:/a//", "C:/a"},
        {"C:", "C:"},
        {"//server/share//", "//server/share/"},
        {"//server", "//server"},
        {"/a/*.*", "/a/*.*"},
    };
    for (Transform spelling : SPELLINGS) {
        for (const auto& row : cases) {
            EXPECT_EQ(File_StripSlashes(spelling(row.name)), spelling(row.stripped)) << row.name;
        }
    }
}

} // namespace
