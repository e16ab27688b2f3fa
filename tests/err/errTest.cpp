// The cache and the cleaning of texts, with a system whose messages the test makes up.
#include "err/err.h"
#include "err/errSystem.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr uint32_t FIRST_OF_MANY = 0x10000; // codes from here on are "message N"

std::map<uint32_t, std::string> messages;
std::atomic<int> asked = 0;
thread_local uint32_t lastError = 0;

} // namespace

bool ErrSystemMessage(uint32_t code, std::string* text) {
    asked++;
    lastError = 1813; // as a failing look-up leaves it
    if (code >= FIRST_OF_MANY && code < 2 * FIRST_OF_MANY) {
        *text = "message " + std::to_string(code) + ".\r\n";
        return true;
    }
    const auto found = messages.find(code);
    if (found != messages.end()) {
        *text = found->second;
    }
    return found != messages.end();
}
uint32_t ErrSystemLastError() {
    return lastError;
}
void ErrSystemSetLastError(uint32_t code) {
    lastError = code;
}

namespace {

TEST(Err, StripsLineEndsAndFullStops) {
    const std::pair<const char*, const char*> cases[] = {
        {"File not found.\r\n", "File not found"},
        {"File not found", "File not found"},
        {"A. B.\n\n..\r\n.", "A. B"},
        {"\xE3\x82\x93\xE3\x80\x82\r\n", "\xE3\x82\x93"},
        {"ends in a blank. ", "ends in a blank. "},
        {".\r\n", ""},
        {"", ""},
        {"\xE3\x80\x81", "\xE3\x80\x81"}, // only the last byte differs from the full stop's
    };
    for (const auto& [given, stripped] : cases) {
        std::string text = given;
        ErrStripEnd(&text);
        EXPECT_EQ(text, stripped);
    }
}

TEST(Err, GivesTheSamePointerEachTimeAndAsksOnce) {
    messages[2] = "File not found.\r\n";
    const int before = asked;
    const char* text = Err_ErrString(2);
    EXPECT_STREQ(text, "File not found");
    EXPECT_EQ(Err_ErrString(2), text);
    EXPECT_EQ(asked, before + 1);
    uint32_t code = 0;
    EXPECT_TRUE(ErrCodeOfString(text, &code));
    EXPECT_EQ(code, 2U);
    EXPECT_FALSE(ErrCodeOfString("File not found", &code));
}

TEST(Err, NamesAnUnknownCodeInBothWays) {
    const char* text = Err_ErrString(0x12345678);
    EXPECT_STREQ(text, "Unknown error 305419896 (0x12345678)");
    EXPECT_EQ(Err_ErrString(0x12345678), text);
    EXPECT_STREQ(Err_ErrString(0xC0000005), "Unknown error -1073741819 (0xc0000005)");
}

TEST(Err, PreservesTheLastError) {
    messages[1234] = "Twelve thirty-four.";
    lastError = 1234;
    Err_ErrString(0x22222222);
    EXPECT_STREQ(Err_LastErrString(), "Twelve thirty-four");
    EXPECT_EQ(lastError, 1234U);
}

TEST(Err, CutsLongTextsAtAWholeCharacter) {
    messages[3] = std::string(3000, 'x');
    EXPECT_EQ(Err_ErrString(3), std::string(2047, 'x'));
    messages[4] = std::string(2045, 'x') + "\xE2\x82\xAC and more";
    EXPECT_EQ(Err_ErrString(4), std::string(2045, 'x'));
    messages[6] = std::string(2044, 'x') + "\xE2\x82\xAC and more";
    EXPECT_EQ(Err_ErrString(6), std::string(2044, 'x') + "\xE2\x82\xAC");
}

// More codes than buckets, so that chains are walked, and all threads want the same code at the same time.
TEST(Err, KeepsPointersStableUnderManyThreads) {
    constexpr uint32_t CODES = 5000;
    using Pointers = std::vector<const char*>;
    std::vector<Pointers> seen(8, Pointers(CODES));
    std::latch start(static_cast<ptrdiff_t>(seen.size()));
    std::vector<std::jthread> threads;
    for (Pointers& mine : seen) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            for (uint32_t i = 0; i < CODES; i++) {
                lastError = i;
                mine[i] = Err_ErrString(FIRST_OF_MANY + i);
                EXPECT_EQ(lastError, i);
            }
        });
    }
    threads.clear();
    for (const Pointers& each : seen) {
        EXPECT_EQ(each, seen[0]);
    }
    for (uint32_t i = 0; i < CODES; i++) {
        EXPECT_EQ(seen[0][i], "message " + std::to_string(FIRST_OF_MANY + i));
    }
}

} // namespace
