#include "file/fileRules.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

TEST(FileRules, ErrorsAreFoundOrHaveNoCode) {
    struct {
        uint32_t win32Error;
        std::optional<int> code;
    } const cases[] = {
        {0, 0},   {5, 13},   {18, std::nullopt},  {32, std::nullopt},         {183, 17},
        {303, 2}, {487, 14}, {488, std::nullopt}, {0xFFFFFFFF, std::nullopt},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(FileErrnoFromWin32(row.win32Error), row.code) << row.win32Error;
    }
}

TEST(FileRules, GeneratorIsTheMinimalStandardOne) {
    uint32_t state = 1;
    for (int step = 0; step < 10000; step++) {
        uint64_t expected = uint64_t{state} * 16807 % 0x7FFFFFFF;
        state = FileRandomAdvance(state);
        ASSERT_EQ(state, expected) << "step " << step;
    }
    EXPECT_EQ(state, 1043618065u); // the published check value
    for (uint32_t seed : {0x7FFFFFFEu, 0x7FFFFFFFu, 0x80000000u, 0x80000001u, 0xFFFFFFFFu}) {
        EXPECT_GT(static_cast<int32_t>(FileRandomAdvance(seed)), 0) << seed;
    }
}

TEST(FileRules, PausesAreSharesOfTheSpan) {
    EXPECT_EQ(FileRandomScale(1, 10, 100), 10u);
    EXPECT_EQ(FileRandomScale(0x40000000, 10, 100), 55u);
    EXPECT_EQ(FileRandomScale(0x7FFF0000, 10, 100), 99u);
    EXPECT_EQ(FileRandomScale(0x7FFF0000, 0, 1), 0u);
}

TEST(FileRules, RetryEndsWhereItShould) {
    struct {
        const char* what;
        uint32_t budgetMs;
        std::vector<uint32_t> errors; // of the attempts, the last one for ever
        uint32_t error;
        bool expired;
        size_t attempts;
    } const cases[] = {
        {"success at once", 1000, {0}, 0, false, 1},
        {"no budget", 0, {32}, 32, false, 1},
        {"a lasting error", 1000, {2}, 2, false, 1},
        {"held, then free", 1000, {32, 5, 32, 0}, 0, false, 4},
        {"held, then gone", 1000, {32, 2}, 2, false, 2},
        {"held for ever", 100, {32}, 32, true, 5}, // pauses at 0, 30, 60, 90; 120 is too late
        {"exactly the budget", 90, {5}, 5, true, 4},
        {"free at the last attempt", 60, {32, 32, 0}, 0, true, 3},
    };
    for (const auto& row : cases) {
        size_t attempts = 0;
        FileRetryOutcome outcome = FileRetry(
            row.budgetMs, [&] { return row.errors[std::min(attempts++, row.errors.size() - 1)]; },
            [](uint32_t minMs, uint32_t maxMs) { return minMs == 10 && maxMs == 100 ? 30u : 10000u; });
        EXPECT_EQ(outcome.win32Error, row.error) << row.what;
        EXPECT_EQ(outcome.expired, row.expired) << row.what;
        EXPECT_EQ(attempts, row.attempts) << row.what;
    }
}

TEST(FileRules, OnlyTheVerbatimPrefixExcusesALongName) {
    EXPECT_FALSE(FileIsNameTooLong("x", 260));
    EXPECT_TRUE(FileIsNameTooLong("x", 261));
    EXPECT_FALSE(FileIsNameTooLong("\\\\?\\C:\\x", 32000));
    EXPECT_TRUE(FileIsNameTooLong("//?/C:/x", 261));
}

TEST(FileRules, OpenFlagsBecomeCreateFileArguments) {
    struct {
        uint32_t flags;
        FileIOOpenAction action;
        FileIOOpenArguments expected;
    } const cases[] = {
        {0, FileIOOpenAction::Open, {0, 3, 3, 0x80}},
        {0x1, FileIOOpenAction::OpenEmpty, {0x80000000, 3, 5, 0x80}},
        {0x2, FileIOOpenAction::OpenCreate, {0x40000000, 3, 4, 0x80}},
        {0x3, FileIOOpenAction::CreateSafe, {0xC0000000, 3, 1, 0x80}},
        {0x2 | 0x4, FileIOOpenAction::CreateEmpty, {0x40000000, 3, 2, 0x80000080}},
        {0x8, FileIOOpenAction::Open, {0, 3, 3, 0x4000082}},
        {0x4 | 0x8, FileIOOpenAction::Open, {0, 3, 3, 0x84000082}},
        {0x10, FileIOOpenAction::Open, {0, 3, 3, 0x20000080}},
        {0x20, FileIOOpenAction::Open, {0, 3, 3, 0x80}},
        {0x40, FileIOOpenAction::Open, {0, 3, 3, 0x60000080}},
        {0x200, FileIOOpenAction::Open, {0, 2, 3, 0x80}},
        {0x400, FileIOOpenAction::Open, {0, 1, 3, 0x80}},
        {0x600, FileIOOpenAction::Open, {0, 0, 3, 0x80}},
        {0x800, FileIOOpenAction::Open, {0, 3, 3, 0x8000080}},
        {0xE7F, FileIOOpenAction::CreateEmpty, {0xC0000000, 0, 2, 0xEC000082}},
    };
    for (const auto& row : cases) {
        FileIOOpenArguments arguments = FileIOTranslate(row.flags, row.action);
        EXPECT_EQ(arguments.desiredAccess, row.expected.desiredAccess) << std::hex << row.flags;
        EXPECT_EQ(arguments.shareMode, row.expected.shareMode) << std::hex << row.flags;
        EXPECT_EQ(arguments.creationDisposition, row.expected.creationDisposition) << std::hex << row.flags;
        EXPECT_EQ(arguments.flagsAndAttributes, row.expected.flagsAndAttributes) << std::hex << row.flags;
    }
}

// The buffer is exactly as large as promised, so that the sanitizer sees a byte too many.
std::string InsertIntoList(const std::string& list, const std::string& line) {
    std::vector<char> text(list.begin(), list.end());
    text.resize(list.size() + line.size() + FILE_RENAME_SECTION.size());
    size_t used = FileRenameListInsert(text, list.size(), line);
    return {text.data(), used};
}

TEST(FileRules, RenameListGetsTheLineBelowItsHeader) {
    const std::string line = "NUL=C:\\x\r\n";
    const std::string tail(1000, 't');
    struct {
        std::string before;
        std::string after;
    } const cases[] = {
        {"", "[Rename]\r\n" + line},
        {"[Rename]\r\nNUL=C:\\old\r\n", "[Rename]\r\n" + line + "NUL=C:\\old\r\n"}, // newest first
        {"[Setup]\r\na=b\r\n[Rename]\r\n[Last]\r\nc=d\r\n",
         "[Setup]\r\na=b\r\n[Rename]\r\n" + line + "[Last]\r\nc=d\r\n"},
        {"[Setup]\r\na=b\r\n", "[Setup]\r\na=b\r\n[Rename]\r\n" + line},
        {"[Rename]", "[Rename][Rename]\r\n" + line}, // a header is one with its line end only
        {"[Rename]\nNUL=x\n", "[Rename]\nNUL=x\n[Rename]\r\n" + line},
        {"[Rename]\r\n[Rename]\r\n", "[Rename]\r\n" + line + "[Rename]\r\n"},
        {"[Rename]\r\n" + tail, "[Rename]\r\n" + line + tail}, // longer than the line, and shorter
        {"[Rename]\r\nt", "[Rename]\r\n" + line + "t"},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(InsertIntoList(row.before, line), row.after) << row.before;
    }
}

} // namespace
