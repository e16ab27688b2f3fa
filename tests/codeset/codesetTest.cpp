#include "misc/codeset.h"
#include "misc/codesetData.h"
#include "misc/codesetSystem.h"
#include "support/diagCapture.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string_view>
#include <thread>
#include <vector>

using namespace std::string_view_literals;

namespace {

// Every test runs both ways: through ICU, and through the system without it.
class CodeSet : public testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        CodeSet_Init(nullptr);
        ASSERT_TRUE(CodeSet_UsesIcu());
        if (!GetParam()) {
            CodeSet_DisableIcu();
        }
    }
};

struct Converted {
    bool done;
    std::string text;
};
Converted Convert(const char* from, std::string_view text, const char* to,
                  CodeSet_Mode mode = CodeSet_Mode::Stop) {
    std::string out = "kept ";
    const bool done = CodeSet_Convert(from, text.data(), text.size(), to, mode, &out);
    EXPECT_TRUE(out.starts_with("kept "));
    EXPECT_TRUE(done || out == "kept ");
    return {done, out.substr(5)};
}

CodeSet_Utf16 Wide(std::u16string_view text) {
    return CodeSet_Utf16(text.begin(), text.end());
}

struct Pair {
    std::string_view utf8;
    std::u16string_view utf16;
};
const Pair PAIRS[] = {
    {"", u""},
    {"windows.iso", u"windows.iso"},
    {"\0a\0"sv, u"\0a\0"sv},
    {"na\xC3\xAFve", u"na\xEFve"},
    {"\xE6\x97\xA5\xE6\x9C\xAC", u"\x65E5\x672C"},
    {"\xF0\x9F\x98\x80 tail", u"\xD83D\xDE00 tail"},
    {"\xEF\xBB\xBFmark", u"\xFEFFmark"},
    {"\xEF\xBF\xBE\xEF\xBF\xBF\xF0\x9F\xBF\xBF", u"\xFFFE\xFFFF\xD83F\xDFFF"}, // noncharacters are characters
};

const std::string_view INVALID_UTF8[] = {
    "\x80",         "\xC0\x80",     "\xC1\xBF",         "\xE0\x9F\xBF",     "\xF0\x8F\xBF\xBF",
    "\xED\xA0\x80", "\xED\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF",
    "abc\xC3",      "abc\xE2\x82",  "a\xF0\x9F\x98",    "\xE2\x82z",        "\xED\xA0\xBD\xED\xB8\x80",
};

TEST_P(CodeSet, ConvertsBetweenUtf8AndUtf16) {
    for (const Pair& pair : PAIRS) {
        CodeSet_Utf16 wide = Wide(u"old");
        EXPECT_TRUE(CodeSet_ToUtf16(pair.utf8.data(), pair.utf8.size(), &wide));
        EXPECT_EQ(wide, Wide(pair.utf16)) << pair.utf8;
        std::string narrow = "old";
        EXPECT_TRUE(CodeSet_FromUtf16(pair.utf16.data(), pair.utf16.size() * 2, &narrow));
        EXPECT_EQ(narrow, pair.utf8);
    }
}

TEST_P(CodeSet, ConvertsTextsOfEveryLengthAroundTheSmallBuffer) {
    for (size_t length = 500; length < 520; length++) {
        for (std::string_view end : {"", "\xC3\xA9", "\xF0\x9F\x98\x80"}) {
            const std::string text = std::string(length, 'x') + std::string(end);
            CodeSet_Utf16 wide;
            ASSERT_TRUE(CodeSet_ToUtf16(text.data(), text.size(), &wide));
            std::string narrow;
            ASSERT_TRUE(CodeSet_FromUtf16(wide.data(), wide.size() * 2, &narrow));
            EXPECT_EQ(narrow, text);
        }
    }
}

TEST_P(CodeSet, ConvertsLargeTexts) {
    std::string text;
    while (text.size() < 300000) {
        text += "ascii, \xC3\xA9t\xC3\xA9, \xE6\x97\xA5\xE6\x9C\xAC, \xF0\x9F\x98\x80; ";
    }
    CodeSet_Utf16 wide;
    ASSERT_TRUE(CodeSet_ToUtf16(text.data(), text.size(), &wide));
    std::string narrow;
    ASSERT_TRUE(CodeSet_FromUtf16(wide.data(), wide.size() * 2, &narrow));
    EXPECT_TRUE(narrow == text);
    const Converted utf32 = Convert("UTF-8", text, "UTF-16LE");
    EXPECT_EQ(utf32.text.size(), wide.size() * 2);
    EXPECT_EQ(memcmp(utf32.text.data(), wide.data(), utf32.text.size()), 0);
}

TEST_P(CodeSet, RefusesInvalidUtf8) {
    for (std::string_view text : INVALID_UTF8) {
        CodeSet_Utf16 wide = Wide(u"old");
        EXPECT_FALSE(CodeSet_ToUtf16(text.data(), text.size(), &wide)) << text;
        EXPECT_EQ(wide, Wide(u"old"));
        EXPECT_FALSE(CodeSet_IsValid(text.data(), text.size(), "UTF-8")) << text;
        EXPECT_FALSE(Convert("UTF-8", text, "UTF-16LE").done) << text;
    }
}

TEST_P(CodeSet, RefusesInvalidUtf16) {
    for (std::string_view text : {"\x00\xD8"sv, "a\0\x00\xDC"sv, "\x00\xD8z\0"sv, "a\0b"sv, "a"sv}) {
        std::string narrow = "old";
        EXPECT_FALSE(CodeSet_FromUtf16(text.data(), text.size(), &narrow));
        EXPECT_EQ(narrow, "old");
        EXPECT_FALSE(CodeSet_IsValid(text.data(), text.size(), "UTF-16LE"));
        EXPECT_FALSE(Convert("UTF-16LE", text, "UTF-8").done);
    }
}

TEST_P(CodeSet, TakesUtf16AtOddAddresses) {
    const std::string_view bytes = "_a\0\xE9\0"sv;
    std::string narrow;
    EXPECT_TRUE(CodeSet_FromUtf16(bytes.data() + 1, 4, &narrow));
    EXPECT_EQ(narrow, "a\xC3\xA9");
}

TEST_P(CodeSet, PutsOneMarkForEachInvalidPart) {
    EXPECT_EQ(Convert("UTF-8", "a\xE2\x82z\x80", "UTF-8", CodeSet_Mode::Substitute).text,
              "a\xEF\xBF\xBDz\xEF\xBF\xBD");
    EXPECT_EQ(Convert("UTF-8", "\xED\xA0\x80|\xF0\x9F\x98", "UTF-16LE", CodeSet_Mode::Substitute).text,
              "\xFD\xFF\xFD\xFF\xFD\xFF|\0\xFD\xFF"sv);
    EXPECT_EQ(Convert("UTF-16LE", "a\0\x00\xDCz\0"sv, "UTF-8", CodeSet_Mode::Substitute).text,
              "a\xEF\xBF\xBDz");
}

TEST_P(CodeSet, LeavesInvalidPartsOutWhenTold) {
    EXPECT_EQ(Convert("UTF-8", "a\xE2\x82z\x80", "UTF-8", CodeSet_Mode::Skip).text, "az");
    EXPECT_EQ(Convert("UTF-16LE", "a\0\x00\xDCz\0"sv, "UTF-8", CodeSet_Mode::Skip).text, "az");
    EXPECT_EQ(Convert("UTF-8", "a\xE2\x98\x83z", "windows-1252", CodeSet_Mode::Skip).text, "az");
}

TEST_P(CodeSet, ConvertsTheAnsiCodePage) {
    const Converted utf8 = Convert("windows-1252", "\x80 caf\xE9 \x9F", "UTF-8");
    EXPECT_EQ(utf8.text, "\xE2\x82\xAC caf\xC3\xA9 \xC5\xB8");
    EXPECT_EQ(Convert("UTF-8", utf8.text, "windows-1252").text, "\x80 caf\xE9 \x9F");
    EXPECT_TRUE(CodeSet_IsValid("caf\xE9", 4, "windows-1252"));
}

// A name must not turn into another one silently: neither by a look-alike nor by leaving a character out.
TEST_P(CodeSet, RefusesWhatTheTargetCannotExpress) {
    for (std::string_view text :
         {"\xE2\x98\x83", "\xC4\x80", "\xE2\x88\x9E", "\xE2\x80\x8D", "\xF0\x9F\x98\x80"}) {
        EXPECT_FALSE(Convert("UTF-8", text, "windows-1252").done) << text;
    }
}

TEST_P(CodeSet, ReadsUtf16WithAndWithoutAMark) {
    EXPECT_EQ(Convert("UTF-16",
                      "\xFF\xFE"
                      "a\0"sv,
                      "UTF-8")
                  .text,
              "a");
    EXPECT_EQ(Convert("UTF-16", "\xFE\xFF\0a"sv, "UTF-8").text, "a");
    EXPECT_EQ(Convert("UTF-16", "\0a"sv, "UTF-8").text, "a");
    EXPECT_EQ(Convert("UTF-8", "a", "UTF-16").text, "\xFF\xFE"
                                                    "a\0"sv);
    EXPECT_EQ(Convert("UTF-16BE", "\xFE\xFF\0a"sv, "UTF-8").text, "\xEF\xBB\xBF"
                                                                  "a");
    EXPECT_EQ(Convert("UTF-8", "a\xC3\xA9", "UTF-16BE").text, "\0a\0\xE9"sv);
}

TEST_P(CodeSet, ConvertsNothingToNothing) {
    EXPECT_TRUE(Convert("UTF-8", "", "windows-1252").done);
    EXPECT_TRUE(Convert("no such encoding", "", "UTF-8").done);
    std::string out;
    EXPECT_TRUE(CodeSet_Convert("UTF-8", nullptr, 5, "UTF-8", CodeSet_Mode::Stop, &out));
    EXPECT_EQ(out, "");
    EXPECT_TRUE(CodeSet_IsValid(nullptr, 0, "UTF-8"));
}

// A mark alone stands for no character.
TEST_P(CodeSet, HoldsTextWithoutCharactersToBeValid) {
    EXPECT_TRUE(CodeSet_IsValid("\xFF\xFE", 2, "UTF-16"));
}

TEST_P(CodeSet, RefusesUnknownEncodings) {
    for (const char* name : {"", "no such encoding", "windows-4242"}) {
        EXPECT_FALSE(Convert(name, "a", "UTF-8").done) << name;
        EXPECT_FALSE(Convert("UTF-8", "a", name).done) << name;
        EXPECT_FALSE(CodeSet_IsValid("a", 1, name)) << name;
    }
    EXPECT_FALSE(Convert(nullptr, "a", "UTF-8").done);
}

TEST_P(CodeSet, StopsAtAnImpossibleModeOrLength) {
    std::string out;
    EXPECT_THROW(CodeSet_Convert("UTF-8", "a", 1, "UTF-8", static_cast<CodeSet_Mode>(3), &out), DiagPanic);
    EXPECT_THROW(CodeSet_IsValid("a", 0x80000000U, "UTF-8"), DiagPanic);
    for (const std::string& message : DiagCapture_Take().warning) {
        EXPECT_TRUE(message.starts_with("NOT_IMPLEMENTED lib/misc/codeset:")) << message;
    }
    EXPECT_FALSE(CodeSet_ToUtf16("a", 0x80000000U, nullptr));
    EXPECT_FALSE(CodeSet_FromUtf16("a", 0x80000000U, nullptr));
}

TEST_P(CodeSet, ConvertsInManyThreadsAtOnce) {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([] {
            for (int round = 0; round < 500; round++) {
                std::string out;
                EXPECT_TRUE(CodeSet_Convert("windows-1252", "\xE9", 1, "UTF-8", CodeSet_Mode::Stop, &out));
                EXPECT_EQ(out, "\xC3\xA9");
            }
        });
    }
}

INSTANTIATE_TEST_SUITE_P(BothWays, CodeSet, testing::Bool(), [](const testing::TestParamInfo<bool>& way) {
    return way.param ? "Icu" : "System";
});

// A text that ends amid its first character stands for none either, but it is not valid.
TEST(CodeSetIcu, RefusesAnUnfinishedFirstCharacter) {
    CodeSet_Init(nullptr);
    for (const char* encoding : {"UTF-32", "UTF-32BE", "UTF-16", "UTF-16BE", "Shift_JIS", "UTF-8"}) {
        EXPECT_FALSE(CodeSet_IsValid("\xE0\x80\x80", 1, encoding)) << encoding;
    }
    EXPECT_FALSE(CodeSet_IsValid("\0", 2, "UTF-32"));
}

TEST(CodeSetData, ComputesTheChecksumOfCksum) {
    auto checksum = [](std::string_view text) {
        return CodeSetData_Checksum({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
    };
    EXPECT_EQ(checksum(""), 4294967295U);
    EXPECT_EQ(checksum("a"), 1220704766U);
    EXPECT_EQ(checksum("12345678"), 2796357287U);
    EXPECT_EQ(checksum("The quick brown fox jumps over the lazy dog"), 2074844392U);
}

} // namespace
