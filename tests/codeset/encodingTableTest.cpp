#include "misc/encodingTable.h"
#include "misc/codeset.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unicode/ucnv.h>
#include <unicode/uenum.h>
#include <vector>

namespace {

std::vector<std::string> NamesOf(size_t index) {
    std::vector<std::string> names;
    for (const char* name = EncodingTable_Row(index).names; *name != '\0'; name += strlen(name) + 1) {
        names.emplace_back(name);
    }
    return names;
}

std::string Lower(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

uint32_t PageOf(const std::string& name) {
    const std::string lower = Lower(name);
    const bool number =
        lower.starts_with("windows-") && lower.find_first_not_of("0123456789", 8) == std::string::npos;
    return number ? static_cast<uint32_t>(std::stoul(lower.substr(8))) : 0;
}

class EncodingTable : public testing::Test {
protected:
    static void SetUpTestSuite() {
        CodeSet_Init(nullptr);
        ASSERT_TRUE(CodeSet_UsesIcu());
    }
};

TEST_F(EncodingTable, HasEachNameAndEachPageInOneRow) {
    std::map<std::string, size_t> rowOf;
    std::set<uint32_t> pages;
    for (size_t i = 0; i < EncodingTable_Count(); i++) {
        const uint32_t page = EncodingTable_Row(i).codePage;
        EXPECT_FALSE(NamesOf(i).empty()) << i;
        for (const std::string& name : NamesOf(i)) {
            const auto [found, isNew] = rowOf.emplace(Lower(name), i);
            EXPECT_TRUE(isNew) << name << " in rows " << found->second << " and " << i;
            EXPECT_TRUE(PageOf(name) == 0 || PageOf(name) == page) << name;
        }
        if (page != 0) {
            EXPECT_TRUE(pages.insert(page).second) << page;
            EXPECT_EQ(EncodingTable_FindName(("windows-" + std::to_string(page)).c_str()),
                      static_cast<int>(i));
            EXPECT_EQ(EncodingTable_FindCodePage(page), static_cast<int>(i));
        }
    }
}

// The library and the table must be of the same make, and an index keeps its meaning.
TEST_F(EncodingTable, BeginsWithTheConvertersInIcusOrder) {
    UErrorCode status = U_ZERO_ERROR;
    const std::unique_ptr<UEnumeration, void (*)(UEnumeration*)> all(ucnv_openAllNames(&status), uenum_close);
    size_t row = 0;
    while (const char* name = uenum_next(all.get(), nullptr, &status)) {
        ASSERT_LT(row, EncodingTable_Count());
        EXPECT_STREQ(EncodingTable_Row(row).names, name);
        row++;
    }
    EXPECT_EQ(row, 365U);
    EXPECT_EQ(EncodingTable_Count(), 407U);
    size_t supported = 0;
    for (size_t i = 0; i < EncodingTable_Count(); i++) {
        supported += EncodingTable_IsSupported(i);
    }
    EXPECT_EQ(supported, 233U);
}

TEST_F(EncodingTable, FindsNamesWithoutRegardToCase) {
    EXPECT_EQ(EncodingTable_FindName("UTF-8"), 0);
    EXPECT_EQ(EncodingTable_FindName("utf-8"), 0);
    EXPECT_EQ(EncodingTable_FindName("shift_JIS"), EncodingTable_FindCodePage(932));
    EXPECT_EQ(EncodingTable_FindName("latin1"), EncodingTable_FindCodePage(28591));
    EXPECT_EQ(EncodingTable_FindName("UTF-"), ENCODING_TABLE_UNKNOWN);
    EXPECT_EQ(EncodingTable_FindName("UTF-88"), ENCODING_TABLE_UNKNOWN);
    EXPECT_EQ(EncodingTable_FindName(""), ENCODING_TABLE_UNKNOWN);
    EXPECT_EQ(EncodingTable_FindCodePage(0), ENCODING_TABLE_UNKNOWN);
    EXPECT_EQ(EncodingTable_FindCodePage(4242), ENCODING_TABLE_UNKNOWN);
}

// Every ANSI code page that a Windows release comes with; the program does not start on one that is not
// known.
TEST_F(EncodingTable, KnowsEveryAnsiCodePage) {
    for (uint32_t page : {874U, 932U, 936U, 949U, 950U, 1250U, 1251U, 1252U, 1253U, 1254U, 1255U, 1256U,
                          1257U, 1258U, 65001U}) {
        const int index = EncodingTable_FindCodePage(page);
        ASSERT_GE(index, 0) << page;
        EXPECT_TRUE(EncodingTable_IsSupported(static_cast<size_t>(index))) << page;
    }
}

} // namespace
