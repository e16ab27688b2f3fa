#include "file/fileRules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <vector>

namespace {

TEST(FileRules, EveryCodeHasItsWindowsErrors) {
    const std::map<int, std::set<uint32_t>> byCode = {
        {0, {0}},
        {2, {2, 3, 303}},
        {5, {27, 29, 30, 31}},
        {9, {6}},
        {12, {8, 14}},
        {13, {5, 82}},
        {14, {487}},
        {16, {16, 148}},
        {17, {80, 183}},
        {20, {267}},
        {22, {1, 12, 87, 123, 160}},
        {24, {4}},
        {28, {112}},
        {30, {19}},
        {38, {206}},
        {40, {50}},
        {41, {145}},
    };
    std::map<int, std::set<uint32_t>> found;
    for (uint32_t error = 0; error < 20000; error++) {
        if (std::optional<int> code = FileErrnoFromWin32(error)) {
            found[*code].insert(error);
        }
    }
    EXPECT_EQ(found, byCode);
    EXPECT_EQ(FileErrnoFromWin32(0xFFFFFFFF), std::nullopt);
}

TEST(FileRules, GeneratorIsTheMinimalStandardOne) {
    uint32_t state = 1;
    for (int step = 0; step < 10000; step++) {
        uint64_t expected = uint64_t{state} * 16807 % 0x7FFFFFFF;
        state = FileRandomAdvance(state);
        ASSERT_EQ(state, expected) << "step " << step;
    }
    EXPECT_EQ(state, 1043618065u); // the published check value
}

TEST(FileRules, GeneratorStaysInRangeFromAnySeed) {
    for (uint32_t seed : {1u, 2u, 0x7FFFFFFEu, 0x7FFFFFFFu, 0x80000000u, 0x80000001u, 0xFFFFFFFFu}) {
        uint32_t state = FileRandomAdvance(seed);
        EXPECT_GT(state, 0u) << seed;
        EXPECT_LE(state, 0x7FFFFFFFu) << seed;
    }
}

TEST(FileRules, PausesAreSharesOfTheSpan) {
    EXPECT_EQ(FileRandomScale(1, 10, 100), 10u);
    EXPECT_EQ(FileRandomScale(0x40000000, 10, 100), 55u);
    EXPECT_EQ(FileRandomScale(1043618065, 10, 100), 53u);
    EXPECT_EQ(FileRandomScale(0x7FFF0000, 10, 100), 99u);
    EXPECT_EQ(FileRandomScale(0x7FFF0000, 0, 1), 0u);
}

// Attempts that answer from a list, the last entry for ever; pauses of 30 ms that are counted.
struct RetryRun {
    std::vector<uint32_t> errors;
    size_t attempts = 0;
    uint32_t sleptMs = 0;

    FileRetryOutcome Run(uint32_t budgetMs) {
        return FileRetry(
            budgetMs, [this] { return errors[std::min(attempts++, errors.size() - 1)]; },
            [this](uint32_t minMs, uint32_t maxMs) {
                EXPECT_EQ(minMs, 10u);
                EXPECT_EQ(maxMs, 100u);
                sleptMs += 30;
                return 30u;
            });
    }
};

TEST(FileRules, RetryEndsWhereItShould) {
    struct {
        const char* what;
        uint32_t budgetMs;
        std::vector<uint32_t> errors;
        uint32_t error;
        bool expired;
        size_t attempts;
    } const cases[] = {
        {"success at once", 1000, {0}, 0, false, 1},
        {"no budget, held", 0, {32}, 32, false, 1},
        {"no budget, denied", 0, {5}, 5, false, 1},
        {"a lasting error", 1000, {2}, 2, false, 1},
        {"held, then free", 1000, {32, 5, 32, 0}, 0, false, 4},
        {"held, then gone", 1000, {32, 2}, 2, false, 2},
        {"held for ever", 100, {32}, 32, true, 5}, // pauses at 0, 30, 60, 90; 120 is too late
        {"exactly the budget", 90, {5}, 5, true, 4},
        {"free at the last attempt", 60, {32, 32, 0}, 0, true, 3},
    };
    for (const auto& row : cases) {
        RetryRun run{row.errors};
        FileRetryOutcome outcome = run.Run(row.budgetMs);
        EXPECT_EQ(outcome.win32Error, row.error) << row.what;
        EXPECT_EQ(outcome.expired, row.expired) << row.what;
        EXPECT_EQ(run.attempts, row.attempts) << row.what;
        EXPECT_EQ(run.sleptMs, 30 * (row.attempts - 1)) << row.what;
    }
}

TEST(FileRules, OnlyTheVerbatimPrefixExcusesALongName) {
    EXPECT_FALSE(FileIsNameTooLong("x", 260));
    EXPECT_TRUE(FileIsNameTooLong("x", 261));
    EXPECT_FALSE(FileIsNameTooLong("\\\\?\\C:\\x", 32000));
    EXPECT_TRUE(FileIsNameTooLong("//?/C:/x", 261));
    EXPECT_TRUE(FileIsNameTooLong("\\\\?", 261));
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

TEST(FileRules, OpenErrorsThatHaveAResult) {
    std::map<FileIOResult, std::set<uint32_t>> found;
    for (uint32_t error = 0; error < 2000; error++) {
        if (std::optional<FileIOResult> result = FileIOResultFromWin32(error)) {
            found[*result].insert(error);
        }
    }
    const std::map<FileIOResult, std::set<uint32_t>> expected = {
        {FileIOResult::FileNotFound, {2, 3}},
        {FileIOResult::NoPermission, {5, 12, 19}},
        {FileIOResult::FileExists, {80, 183}},
    };
    EXPECT_EQ(found, expected);
}

TEST(FileRules, LockErrorsHaveResults) {
    const std::map<int, FileIOResult> special = {
        {0, FileIOResult::LockFailed},    {30, FileIOResult::LockFailed},  {2, FileIOResult::FileNotFound},
        {13, FileIOResult::NoPermission}, {38, FileIOResult::NameTooLong},
    };
    for (int error = 0; error < 100; error++) {
        auto row = special.find(error);
        EXPECT_EQ(FileIOResultFromLockError(error), row == special.end() ? FileIOResult::Error : row->second)
            << error;
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
    struct {
        const char* what;
        std::string before;
        std::string after;
    } const cases[] = {
        {"empty", "", "[Rename]\r\n" + line},
        {"section last, without entries", "[Rename]\r\n", "[Rename]\r\n" + line},
        {"newest first", "[Rename]\r\nNUL=C:\\old\r\n", "[Rename]\r\n" + line + "NUL=C:\\old\r\n"},
        {"section in the middle", "[Setup]\r\na=b\r\n[Rename]\r\nNUL=C:\\old\r\n[Last]\r\nc=d\r\n",
         "[Setup]\r\na=b\r\n[Rename]\r\n" + line + "NUL=C:\\old\r\n[Last]\r\nc=d\r\n"},
        {"no section", "[Setup]\r\na=b\r\n", "[Setup]\r\na=b\r\n[Rename]\r\n" + line},
        {"header at the end without its line end", "[Rename]", "[Rename][Rename]\r\n" + line},
        {"header with a bare line feed", "[Rename]\nNUL=x\n", "[Rename]\nNUL=x\n[Rename]\r\n" + line},
        {"first of two sections", "[Rename]\r\n[Rename]\r\n", "[Rename]\r\n" + line + "[Rename]\r\n"},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(InsertIntoList(row.before, line), row.after) << row.what;
    }
}

TEST(FileRules, RenameListTakesLinesLongerAndShorterThanWhatFollows) {
    std::string tail(1000, 't');
    EXPECT_EQ(InsertIntoList("[Rename]\r\n" + tail, "x"), "[Rename]\r\nx" + tail);
    std::string line(1000, 'l');
    EXPECT_EQ(InsertIntoList("[Rename]\r\nt", line), "[Rename]\r\n" + line + "t");
}

} // namespace
