#include "unicode/unicode.h"
#include "misc/encodingTable.h"
#include "support/diagCapture.h"

#include <gtest/gtest.h>

#include <string_view>
#include <vector>

using namespace std::string_view_literals;

namespace {

using Messages = std::vector<std::string>;

CodeSet_Utf16 Wide(std::u16string_view text) {
    return CodeSet_Utf16(text.begin(), text.end());
}

// Every test runs both ways: through ICU, and through the system without it.
class Unicode : public testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        CodeSet_Init(nullptr);
        if (!GetParam()) {
            CodeSet_DisableIcu();
        }
        DiagCapture_Take();
    }
};

TEST_P(Unicode, DecodesBigEndianNames) {
    std::string out = "old";
    const auto decode = [&](std::string_view bytes) {
        return Unicode_FromUtf16BigEndian(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), &out);
    };
    for (std::string_view bad : {"\0a\0"sv, "\xD8\x3D"sv, "\xDE\x00\0a"sv, "\xDE\x00\xD8\x3D"sv}) {
        EXPECT_FALSE(decode(bad));
        EXPECT_EQ(out, "old");
    }
    EXPECT_TRUE(decode("\0s\0e\0\xE9\x65\xE5\xD8\x3D\xDE\x00"sv));
    EXPECT_EQ(out, "se\xC3\xA9\xE6\x97\xA5\xF0\x9F\x98\x80");
    EXPECT_TRUE(decode(""));
    EXPECT_EQ(out, "");
}

TEST_P(Unicode, ConvertsNamesForTheSystem) {
    EXPECT_EQ(Unicode_ToWide("C:\\\xE6\x97\xA5"), Wide(u"C:\\\x65E5"));
    EXPECT_EQ(Unicode_FromWide(Wide(u"C:\\\x65E5")), "C:\\\xE6\x97\xA5");
    EXPECT_EQ(Unicode_ToWide("a\xC3"), std::nullopt);
    EXPECT_EQ(Unicode_FromWide(Wide(u"a\xD800")), std::nullopt);
}

TEST_P(Unicode, AllocatesFromEveryKindOfEncoding) {
    const int utf16 = Unicode_EncodingNameToIndex("UTF-16LE");
    const int local = Unicode_EncodingNameToIndex("windows-1252");
    EXPECT_EQ(Unicode_AllocWithLength(nullptr, 3, local), std::nullopt);
    EXPECT_EQ(Unicode_AllocWithLength("caf\xE9 and more", 4, local), "caf\xC3\xA9");
    EXPECT_EQ(Unicode_AllocWithLength("caf\xE9\0more", -1, local), "caf\xC3\xA9");
    EXPECT_EQ(Unicode_AllocWithLength("", -1, local), "");
    EXPECT_EQ(Unicode_AllocWithLength("a\0\0\1z\0\0\0c\0", -1, utf16), "a\xC4\x80z");
    EXPECT_EQ(Unicode_AllocWithLength("a\0b\0", 2, utf16), "a");
    EXPECT_EQ(Unicode_AllocWithLength("plain", -1, UNICODE_ENCODING_LOCAL), "plain");
    if (CodeSet_UsesIcu()) { // the system does not convert UTF-32
        EXPECT_EQ(Unicode_AllocWithLength("a\0\0\0\0\xF6\x01\0\0\0\0\0z\0\0\0", -1,
                                          Unicode_EncodingNameToIndex("UTF-32LE")),
                  "a\xF0\x9F\x98\x80");
    }
}

TEST_P(Unicode, StopsAtInvalidTextInAnAllocation) {
    EXPECT_THROW(Unicode_AllocWithLength("a\\\x01\xFFz", -1, Unicode_EncodingNameToIndex("UTF-8")),
                 DiagPanic);
    const DiagMessages said = DiagCapture_Take();
    EXPECT_EQ(said.debug, Messages{"Unicode_AllocWithLength: Error: Couldn't convert invalid buffer "
                                   "[a\\x5C\\x01\\xFFz] from UTF-8 to Unicode.\n"});
    ASSERT_EQ(said.warning.size(), 1U);
    EXPECT_TRUE(said.warning[0].starts_with("PANIC lib/unicode/unicodeCommon:")) << said.warning[0];
}

TEST_P(Unicode, CopiesIntoABufferOfAnySize) {
    const struct {
        const char* source;
        size_t size; // of the destination, in bytes
        const char16_t* copied;
        bool whole;
    } cases[] = {
        {"abc", 8, u"abc", true},
        {"abc", 9, u"abc", true},
        {"abc", 7, u"ab", false},
        {"abc", 2, u"", false},
        {"", 2, u"", true},
        {"a\xF0\x9F\x98\x80", 8, u"a\xD83D\xDE00", true},
        {"a\xF0\x9F\x98\x80", 6, u"a", false}, // only half of the pair would fit
        {"\xF0\x9F\x98\x80", 4, u"", false},
        {"a\xFF", 8, u"", false},
        {"abc", 1, u"\x5555", false}, // nothing is written, not even the terminator
        {"abc", 0, u"\x5555", false},
    };
    for (const auto& test : cases) {
        CodeSet_Utf16 buffer(8, 0x5555);
        size_t copied = 99;
        EXPECT_EQ(Unicode_CopyToUtf16(buffer.data(), test.source, test.size, &copied), test.whole)
            << test.source;
        CodeSet_Utf16 expected = Wide(test.copied);
        EXPECT_EQ(copied, test.size < 2 ? 0 : expected.size() * 2);
        expected.resize(expected.size() + (test.size < 2 ? 0 : 1));
        expected.resize(8, 0x5555);
        EXPECT_EQ(buffer, expected) << test.source << " into " << test.size;
    }
}

TEST_P(Unicode, NamesEncodings) {
    const int windows1252 = Unicode_EncodingNameToIndex("windows-1252");
    EXPECT_GE(windows1252, 0);
    for (const char* name : {"Windows-1252", "WINDOWS-1252", "cp1252", "ibm-5348", "windows-01252"}) {
        EXPECT_EQ(Unicode_EncodingNameToIndex(name), windows1252) << name;
    }
    EXPECT_STREQ(Unicode_EncodingEnumToName(windows1252), "ibm-5348_P100-1997");
    EXPECT_STREQ(Unicode_EncodingEnumToName(Unicode_EncodingNameToIndex("utf-8")), "UTF-8");
    EXPECT_EQ(Unicode_EncodingNameToIndex("windows-31j"), Unicode_EncodingNameToIndex("Shift_JIS"));
    EXPECT_EQ(DiagCapture_Take().debug, Messages{});
}

TEST_P(Unicode, ReportsNamesThatItDoesNotKnow) {
    for (const char* name : {"", "no such", "windows-", "windows-1252x", "windows-x"}) {
        EXPECT_EQ(Unicode_EncodingNameToIndex(name), -1) << name;
        EXPECT_EQ(DiagCapture_Take().debug,
                  Messages{"UnicodeIANALookup: Did not find an IANA match for encoding \"" +
                           std::string(name) + "\"\n"});
    }
    for (const char* name :
         {"windows-0", "windows-4242", "windows-4294968548", "windows-99999999999999999999"}) {
        EXPECT_EQ(Unicode_EncodingNameToIndex(name), -1) << name;
    }
    EXPECT_EQ(Unicode_EncodingNameToIndex(nullptr), -1);
}

TEST_P(Unicode, StopsAtAnIndexOutsideOfTheTable) {
    for (int index : {-2, static_cast<int>(EncodingTable_Count())}) {
        EXPECT_THROW(Unicode_EncodingEnumToName(index), DiagPanic);
        const DiagMessages said = DiagCapture_Take();
        EXPECT_EQ(said.debug,
                  Messages{"Unicode_EncodingEnumToName: Unknown encoding " + std::to_string(index) + ".\n"});
        EXPECT_TRUE(said.warning.at(0).starts_with("NOT_REACHED lib/unicode/")) << said.warning[0];
    }
}

INSTANTIATE_TEST_SUITE_P(BothWays, Unicode, testing::Bool(), [](const testing::TestParamInfo<bool>& way) {
    return way.param ? "Icu" : "System";
});

} // namespace
