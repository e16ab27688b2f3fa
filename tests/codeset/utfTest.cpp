#include "misc/codesetUtf.h"

#include <gtest/gtest.h>

#include <memory>
#include <string_view>

using namespace std::string_view_literals;

namespace {

// A copy that ends where its block ends, so that the sanitizer sees a read behind it.
struct Exact {
    explicit Exact(std::string_view text) : bytes(new char[text.size()]), size(text.size()) {
        text.copy(bytes.get(), size);
    }
    std::unique_ptr<char[]> bytes;
    size_t size;
};

struct Text {
    std::string_view utf8;
    std::u16string_view utf16;
};

const Text VALID[] = {
    {"", u""},
    {"a", u"a"},
    {"\0a\0"sv, u"\0a\0"sv},
    {"\x7F\xC2\x80\xDF\xBF", u"\x7F\x80\x7FF"},
    {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF", u"\x800\xD7FF\xE000\xFFFF"},
    {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", u"\xD800\xDC00\xDBFF\xDFFF"},
    {"\xEF\xBB\xBFmark", u"\xFEFFmark"},
    {"sixteen letters!\xC3\xA9", u"sixteen letters!\xE9"},
    {"thirty-two letters, no more here\xE2\x82\xAC sixteen letters!",
     u"thirty-two letters, no more here\x20AC sixteen letters!"},
};

// What replaces the invalid parts, one mark for each maximal part that could have begun a character.
struct Invalid {
    std::string_view utf8;
    std::u16string_view substituted;
    std::u16string_view skipped;
};

const Invalid INVALID[] = {
    {"\x80", u"\xFFFD", u""},
    {"a\xBFz", u"a\xFFFDz", u"az"},
    {"\xC0\x80", u"\xFFFD\xFFFD", u""},           // overlong NUL
    {"\xC1\xBF", u"\xFFFD\xFFFD", u""},           // overlong, two bytes
    {"\xE0\x9F\xBF", u"\xFFFD\xFFFD\xFFFD", u""}, // overlong, three bytes
    {"\xF0\x8F\xBF\xBF", u"\xFFFD\xFFFD\xFFFD\xFFFD", u""},
    {"\xED\xA0\x80", u"\xFFFD\xFFFD\xFFFD", u""}, // surrogates
    {"\xED\xBF\xBF", u"\xFFFD\xFFFD\xFFFD", u""},
    {"\xF4\x90\x80\x80", u"\xFFFD\xFFFD\xFFFD\xFFFD", u""}, // beyond U+10FFFF
    {"\xF5\x80\x80\x80", u"\xFFFD\xFFFD\xFFFD\xFFFD", u""},
    {"\xFE\xFF", u"\xFFFD\xFFFD", u""},
    {"ab\xC3", u"ab\xFFFD", u"ab"}, // unfinished
    {"ab\xE2\x82", u"ab\xFFFD", u"ab"},
    {"ab\xF0\x9F\x98", u"ab\xFFFD", u"ab"},
    {"\xE2\x82z", u"\xFFFDz", u"z"},
    {"\xF0\x9F\xC3\xA9", u"\xFFFD\xE9", u"\xE9"},
    {"sixteen letters!\xFFsixteen letters!", u"sixteen letters!\xFFFDsixteen letters!",
     u"sixteen letters!sixteen letters!"},
};

TEST(CodeSetUtf, ConvertsValidTextBothWays) {
    for (const Text& text : VALID) {
        const Exact input(text.utf8);
        EXPECT_TRUE(CodeSetUtf_IsValid(input.bytes.get(), input.size)) << text.utf8;
        std::u16string utf16 = u"before";
        EXPECT_TRUE(CodeSetUtf_Decode(input.bytes.get(), input.size, CodeSet_Mode::Stop, &utf16));
        EXPECT_EQ(utf16, u"before" + std::u16string(text.utf16));
        EXPECT_TRUE(CodeSetUtf_IsValid(text.utf16.data(), text.utf16.size()));
        std::string utf8 = "before";
        EXPECT_TRUE(CodeSetUtf_Encode(text.utf16.data(), text.utf16.size(), CodeSet_Mode::Stop, &utf8));
        EXPECT_EQ(utf8, "before" + std::string(text.utf8));
        EXPECT_EQ(CodeSetUtf_Units(input.bytes.get(), input.size), text.utf16.size());
        EXPECT_EQ(CodeSetUtf_Bytes(text.utf16.data(), text.utf16.size()), text.utf8.size());
    }
}

TEST(CodeSetUtf, DealsWithInvalidUtf8AsTheModeSays) {
    for (const Invalid& text : INVALID) {
        const Exact input(text.utf8);
        EXPECT_FALSE(CodeSetUtf_IsValid(input.bytes.get(), input.size)) << text.utf8;
        std::u16string out = u"before";
        EXPECT_FALSE(CodeSetUtf_Decode(input.bytes.get(), input.size, CodeSet_Mode::Stop, &out));
        EXPECT_EQ(out, u"before");
        out.clear();
        EXPECT_TRUE(CodeSetUtf_Decode(input.bytes.get(), input.size, CodeSet_Mode::Substitute, &out));
        EXPECT_EQ(out, text.substituted);
        out.clear();
        EXPECT_TRUE(CodeSetUtf_Decode(input.bytes.get(), input.size, CodeSet_Mode::Skip, &out));
        EXPECT_EQ(out, text.skipped);
    }
}

TEST(CodeSetUtf, DealsWithLoneSurrogatesAsTheModeSays) {
    for (std::u16string_view text : {u"\xD800"sv, u"\xDC00"sv, u"\xDBFF\xD800"sv, u"\xDC00\xD800"sv}) {
        const std::u16string input = u"a" + std::u16string(text) + u"z";
        EXPECT_FALSE(CodeSetUtf_IsValid(input.data(), input.size()));
        std::string out;
        EXPECT_FALSE(CodeSetUtf_Encode(input.data(), input.size(), CodeSet_Mode::Stop, &out));
        EXPECT_EQ(out, "");
        EXPECT_TRUE(CodeSetUtf_Encode(input.data(), input.size(), CodeSet_Mode::Skip, &out));
        EXPECT_EQ(out, "az");
        out.clear();
        EXPECT_TRUE(CodeSetUtf_Encode(input.data(), input.size(), CodeSet_Mode::Substitute, &out));
        EXPECT_EQ(out, text.size() == 1 ? "a\xEF\xBF\xBDz" : "a\xEF\xBF\xBD\xEF\xBF\xBDz");
    }
}

TEST(CodeSetUtf, FindsAndCopiesAsciiUpToEveryPlace) {
    for (size_t length = 0; length < 70; length++) {
        for (size_t end = 0; end <= length; end++) {
            std::string text(length, 0);
            std::u16string wide(length, 0);
            for (size_t i = 0; i < length; i++) {
                text[i] = static_cast<char>(i == end ? 0x80 : i + 1);
                wide[i] = static_cast<char16_t>(i == end ? (i % 2 == 0 ? 0x80 : 0x4100) : i + 1);
            }
            EXPECT_EQ(CodeSetUtf_AsciiLength(text.data(), length), end);
            EXPECT_EQ(CodeSetUtf_AsciiLength(wide.data(), length), end);
            // Exactly sized, for the sanitizer.
            const std::unique_ptr<char16_t[]> widened(new char16_t[length]);
            EXPECT_EQ(CodeSetUtf_WidenAscii(text.data(), length, widened.get()), end);
            EXPECT_EQ(std::u16string_view(widened.get(), end), std::u16string_view(wide).substr(0, end));
            const std::unique_ptr<char[]> narrowed(new char[length]);
            EXPECT_EQ(CodeSetUtf_NarrowAscii(wide.data(), length, narrowed.get()), end);
            EXPECT_EQ(std::string_view(narrowed.get(), end), std::string_view(text).substr(0, end));
        }
    }
}

TEST(CodeSetUtf, CutsBeforeAnUnfinishedCharacter) {
    struct Case {
        std::string_view text;
        size_t whole;
    };
    const Case cases[] = {
        {"", 0},
        {"abc", 3},
        {"ab\xC3", 2},
        {"ab\xC3\xA9", 4},
        {"ab\xE2\x82", 2},
        {"\xE2\x82\xAC", 3},
        {"ab\xF0\x9F\x98", 2},
        {"\xF0\x9F\x98\x80", 4},
        {"\x80\x80\x80\x80\x80", 5},
        {"\xF0", 0},
    };
    for (const Case& one : cases) {
        const Exact input(one.text);
        EXPECT_EQ(CodeSetUtf_WholeCharacters(input.bytes.get(), input.size), one.whole) << one.text;
    }
}

} // namespace
