// Conversions, both ways: through ICU, and through the system and the program's own code without it.
#include "misc/codeset.h"
#include "misc/codesetSystem.h"
#include "support/diagCapture.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string_view>
#include <thread>
#include <vector>

using namespace std::string_view_literals;

namespace {

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

// The result, or "failed".
std::string Convert(const char* from, std::string_view text, const char* to,
                    CodeSet_Mode mode = CodeSet_Mode::Stop) {
    // A copy that ends where its block ends, so that the sanitizer sees a read behind it.
    const std::unique_ptr<char[]> input(new char[text.size()]);
    text.copy(input.get(), text.size());
    std::string out = "kept ";
    const bool done = CodeSet_Convert(from, input.get(), text.size(), to, mode, &out);
    EXPECT_TRUE(done ? out.starts_with("kept ") : out == "kept ") << out;
    return done ? out.substr(5) : "failed";
}

CodeSet_Utf16 Wide(std::u16string_view text) {
    return CodeSet_Utf16(text.begin(), text.end());
}
std::string_view Bytes(std::u16string_view text) {
    return {reinterpret_cast<const char*>(text.data()), 2 * text.size()};
}

struct Text {
    std::string_view utf8;
    std::u16string_view utf16;
};

TEST_P(CodeSet, ConvertsBetweenUtf8AndUtf16) {
    const Text texts[] = {
        {"", u""},
        {"windows.iso", u"windows.iso"},
        {"\0a\0"sv, u"\0a\0"sv},
        {"\x7F\xC2\x80\xDF\xBF", u"\x7F\x80\x7FF"},
        {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF", u"\x800\xD7FF\xE000\xFFFF"},
        {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", u"\xD800\xDC00\xDBFF\xDFFF"},
        {"\xEF\xBB\xBFmark", u"\xFEFFmark"},
        {"thirty-two letters, no more here\xE2\x82\xAC sixteen letters!",
         u"thirty-two letters, no more here\x20AC sixteen letters!"},
    };
    for (const Text& text : texts) {
        CodeSet_Utf16 wide = Wide(u"old");
        EXPECT_TRUE(CodeSet_ToUtf16(text.utf8.data(), text.utf8.size(), &wide));
        EXPECT_EQ(wide, Wide(text.utf16)) << text.utf8;
        std::string narrow = "old";
        EXPECT_TRUE(CodeSet_FromUtf16(text.utf16.data(), text.utf16.size() * 2, &narrow));
        EXPECT_EQ(narrow, text.utf8);
        EXPECT_EQ(Convert("UTF-8", text.utf8, "UTF-16LE"), Bytes(text.utf16));
        EXPECT_EQ(Convert("UTF-16LE", Bytes(text.utf16), "UTF-8"), text.utf8);
        EXPECT_TRUE(CodeSet_IsValid(text.utf8.data(), text.utf8.size(), "UTF-8"));
        EXPECT_TRUE(CodeSetUtf_IsValid(text.utf8.data(), text.utf8.size()));
        EXPECT_TRUE(CodeSetUtf_IsValid(text.utf16.data(), text.utf16.size()));
        EXPECT_EQ(CodeSetUtf_Units(text.utf8.data(), text.utf8.size()), text.utf16.size());
        EXPECT_EQ(CodeSetUtf_Bytes(text.utf16.data(), text.utf16.size()), text.utf8.size());
    }
}

// Around the size of the buffer for short texts, and far beyond it.
TEST_P(CodeSet, ConvertsTextsOfEveryLength) {
    for (size_t length : {509, 510, 511, 512, 513, 300000}) {
        for (std::string_view end : {"", "\xC3\xA9", "\xE6\x97\xA5", "\xF0\x9F\x98\x80"}) {
            const std::string text = std::string(length - end.size(), 'x').append(end).append(end);
            CodeSet_Utf16 wide;
            ASSERT_TRUE(CodeSet_ToUtf16(text.data(), text.size(), &wide));
            std::string narrow;
            ASSERT_TRUE(CodeSet_FromUtf16(wide.data(), wide.size() * 2, &narrow));
            EXPECT_TRUE(narrow == text);
            EXPECT_EQ(Convert("UTF-8", text, "UTF-16LE"),
                      std::string_view(reinterpret_cast<const char*>(wide.data()), wide.size() * 2));
        }
    }
}

// One mark stands for each maximal part that could have begun a character.
TEST_P(CodeSet, DealsWithInvalidUtf8AsTheModeSays) {
    const struct {
        std::string_view text;
        size_t marks; // before what is skipped to
        std::string_view skipped;
    } cases[] = {
        {"\x80", 1, ""},
        {"\xBFz", 1, "z"},
        {"\xC0\x80", 2, ""}, // overlong
        {"\xC1\xBF", 2, ""},
        {"\xE0\x9F\xBF", 3, ""},
        {"\xF0\x8F\xBF\xBF", 4, ""},
        {"\xED\xA0\x80", 3, ""}, // surrogates
        {"\xED\xA0\xBD\xED\xB8\x80", 6, ""},
        {"\xF4\x90\x80\x80", 4, ""}, // beyond U+10FFFF
        {"\xF5\x80\x80\x80", 4, ""},
        {"\xFE\xFF", 2, ""},
        {"\xC3", 1, ""}, // unfinished
        {"\xE2\x82", 1, ""},
        {"\xF0\x9F\x98", 1, ""},
        {"\xE2\x82z", 1, "z"},
        {"\xF0\x9F\xC3\xA9", 1, "\xC3\xA9"},
        {"\xFFsixteen letters!", 1, "sixteen letters!"},
    };
    for (const auto& test : cases) {
        for (std::string before : {"", "ab", "sixteen letters!"}) {
            const std::string text = before + std::string(test.text);
            std::string marked = before;
            for (size_t i = 0; i < test.marks; i++) {
                marked += "\xEF\xBF\xBD";
            }
            EXPECT_EQ(Convert("UTF-8", text, "UTF-8", CodeSet_Mode::Substitute), marked.append(test.skipped));
            EXPECT_EQ(Convert("UTF-8", text, "UTF-8", CodeSet_Mode::Skip), before.append(test.skipped));
            EXPECT_EQ(Convert("UTF-8", text, "UTF-16LE"), "failed") << text;
            CodeSet_Utf16 wide = Wide(u"old");
            EXPECT_FALSE(CodeSet_ToUtf16(text.data(), text.size(), &wide)) << text;
            EXPECT_EQ(wide, Wide(u"old"));
            EXPECT_FALSE(CodeSet_IsValid(text.data(), text.size(), "UTF-8")) << text;
            EXPECT_FALSE(CodeSetUtf_IsValid(text.data(), text.size())) << text;
        }
    }
}

TEST_P(CodeSet, DealsWithInvalidUtf16AsTheModeSays) {
    for (std::u16string_view lone : {u"\xD800"sv, u"\xDC00"sv, u"\xDBFF\xD800"sv, u"\xDC00\xD800"sv}) {
        const std::u16string text = u"a" + std::u16string(lone) + u"z";
        const std::string marks = lone.size() == 1 ? "\xEF\xBF\xBD" : "\xEF\xBF\xBD\xEF\xBF\xBD";
        EXPECT_EQ(Convert("UTF-16LE", Bytes(text), "UTF-8", CodeSet_Mode::Substitute), "a" + marks + "z");
        EXPECT_EQ(Convert("UTF-16LE", Bytes(text), "UTF-8", CodeSet_Mode::Skip), "az");
        EXPECT_FALSE(CodeSetUtf_IsValid(text.data(), text.size()));
    }
    for (std::string_view text : {"\x00\xD8"sv, "a\0\x00\xDC"sv, "\x00\xD8z\0"sv, "a\0b"sv, "a"sv}) {
        std::string narrow = "old";
        EXPECT_FALSE(CodeSet_FromUtf16(text.data(), text.size(), &narrow));
        EXPECT_EQ(narrow, "old");
        EXPECT_FALSE(CodeSet_IsValid(text.data(), text.size(), "UTF-16LE"));
        EXPECT_EQ(Convert("UTF-16LE", text, "UTF-8"), "failed");
    }
}

TEST_P(CodeSet, ReadsUtf16InEveryOrderAndAtOddAddresses) {
    const std::string_view marked = "\xFF\xFE\x61\0"sv;
    EXPECT_EQ(Convert("UTF-16", marked, "UTF-8"), "a");
    EXPECT_EQ(Convert("UTF-16", "\xFE\xFF\0a"sv, "UTF-8"), "a");
    EXPECT_EQ(Convert("UTF-16", "\0a"sv, "UTF-8"), "a");
    EXPECT_EQ(Convert("UTF-8", "a", "UTF-16"), marked);
    EXPECT_EQ(Convert("UTF-16BE", "\xFE\xFF\0a"sv, "UTF-8"), "\xEF\xBB\xBF\x61");
    EXPECT_EQ(Convert("UTF-8", "a\xC3\xA9", "UTF-16BE"), "\0a\0\xE9"sv);
    std::string narrow;
    alignas(char16_t) const char bytes[] = "_a\0\xE9";
    EXPECT_TRUE(CodeSet_FromUtf16(bytes + 1, 4, &narrow));
    EXPECT_EQ(narrow, "a\xC3\xA9");
}

// A name must not turn into another one silently: neither by a look-alike nor by leaving a character out.
TEST_P(CodeSet, ConvertsTheAnsiCodePage) {
    EXPECT_EQ(Convert("windows-1252", "\x80 caf\xE9 \x9F", "UTF-8"), "\xE2\x82\xAC caf\xC3\xA9 \xC5\xB8");
    EXPECT_EQ(Convert("UTF-8", "\xE2\x82\xAC caf\xC3\xA9 \xC5\xB8", "windows-1252"), "\x80 caf\xE9 \x9F");
    EXPECT_TRUE(CodeSet_IsValid("caf\xE9", 4, "windows-1252"));
    EXPECT_EQ(Convert("UTF-8", "a\xE2\x98\x83z", "windows-1252", CodeSet_Mode::Skip), "az");
    for (std::string_view text :
         {"\xE2\x98\x83", "\xC4\x80", "\xE2\x88\x9E", "\xE2\x80\x8D", "\xF0\x9F\x98\x80"}) {
        EXPECT_EQ(Convert("UTF-8", text, "windows-1252"), "failed") << text;
    }
}

TEST_P(CodeSet, ConvertsNothingToNothing) {
    EXPECT_EQ(Convert("no such encoding", "", "UTF-8", static_cast<CodeSet_Mode>(3)), "");
    std::string out;
    EXPECT_TRUE(CodeSet_Convert("UTF-8", nullptr, 5, "UTF-8", CodeSet_Mode::Stop, &out));
    EXPECT_EQ(out, "");
    EXPECT_TRUE(CodeSet_IsValid(nullptr, 0, "UTF-8"));
    EXPECT_TRUE(CodeSet_IsValid("\xFF\xFE", 2, "UTF-16")) << "a mark alone stands for no character";
}

TEST_P(CodeSet, RefusesUnknownEncodings) {
    for (const char* name : {static_cast<const char*>(nullptr), "", "no such encoding", "windows-4242"}) {
        EXPECT_EQ(Convert(name, "a", "UTF-8"), "failed");
        EXPECT_EQ(Convert("UTF-8", "a", name), "failed");
        EXPECT_FALSE(CodeSet_IsValid("a", 1, name));
    }
}

TEST_P(CodeSet, StopsAtAnImpossibleModeOrLength) {
    EXPECT_THROW(Convert("UTF-8", "a", "UTF-8", static_cast<CodeSet_Mode>(3)), DiagPanic);
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
                EXPECT_EQ(Convert("windows-1252", "\xE9", "UTF-8"), "\xC3\xA9");
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

} // namespace
