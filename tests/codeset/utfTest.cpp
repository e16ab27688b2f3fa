// What the program's own conversion is made of.
#include "misc/codesetUtf.h"

#include <gtest/gtest.h>

#include <memory>
#include <string_view>

namespace {

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
    const std::pair<std::string_view, size_t> cases[] = {
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
    for (const auto& [text, whole] : cases) {
        EXPECT_EQ(CodeSetUtf_WholeCharacters(text.data(), text.size()), whole) << text;
    }
}

} // namespace
