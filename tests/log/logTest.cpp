// The log's own rules, with a system that keeps everything in memory.
#include "log/log.h"
#include "log/logState.h"
#include "log/logSystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

struct System {
    LogMask mask = {LogMaskRead::NoKey, 0, 0, 0};
    int masksRead = 0;
    bool hasTempDirectory = true;
    Lines refused; // paths that cannot be opened
    Lines opened;
    Lines writes;
    int closes = 0;
};
System sys;

std::string Line(const std::string& tagAndText) {
    return "inst : 02/29/24 07:08:09 " + tagAndText + "\r\n";
}

} // namespace

LogMask LogSystemReadMask() {
    sys.masksRead++;
    return sys.mask;
}
LogTime LogSystemLocalTime() {
    return {2, 29, 2024, 7, 8, 9};
}
bool LogSystemTempDirectory(std::string* directory) {
    *directory = "T:\\temp\\";
    return sys.hasTempDirectory;
}
bool LogSystemOpen(const std::string& path, uint32_t* error) {
    *error = 5;
    if (std::count(sys.refused.begin(), sys.refused.end(), path) != 0) {
        return false;
    }
    sys.opened.push_back(path);
    return true;
}
void LogSystemWrite(const char* bytes, size_t length) {
    sys.writes.emplace_back(bytes, length);
}
void LogSystemClose() {
    sys.closes++;
}

namespace {

class Log : public testing::Test {
protected:
    Log() {
        sys = {};
        logState = {};
    }
    ~Log() override { EXPECT_EQ(sys.opened.size(), static_cast<size_t>(sys.closes)); }
};

void Begin(uint32_t mask) {
    sys.mask = {LogMaskRead::Read, mask, 0, 0};
    Log_Begin("Upgrader");
}

// What is written for one error under a mask.
Lines WritesFor(const std::string& text, uint32_t mask = 3) {
    Begin(mask);
    Log_Error("%s", text.c_str());
    Log_End();
    return std::move(sys.writes);
}

TEST_F(Log, WritesTheFirstTwoLevelsWithoutARegistryValue) {
    for (LogMaskRead outcome :
         {LogMaskRead::NoKey, LogMaskRead::KeyFailed, LogMaskRead::ValueFailed, LogMaskRead::WrongType}) {
        sys = {};
        logState = {};
        sys.mask = {outcome, 0xFFFFFFFF, 5, 5};
        Log_Begin("Upgrader");
        EXPECT_TRUE(sys.opened.empty());
        for (uint32_t level : {1U, 2U, 4U, 8U, 16U, 32U, 128U}) {
            Log_Level(level, "level %u", level);
        }
        Log_End();
        EXPECT_EQ(sys.opened, Lines{"T:\\temp\\rlinst.log"});
        EXPECT_EQ(sys.writes, (Lines{Line("E1:level 1"), Line("I1:level 2")}));
    }
}

TEST_F(Log, HasATagForEveryLevel) {
    struct {
        uint32_t level;
        const char* tag;
    } tags[] = {{1, "E1:"},  {2, "I1:"},   {4, "E2:"},  {8, "W1:"}, {16, "G2:"},
                {32, "I2:"}, {128, "P1:"}, {64, "XX:"}, {3, "XX:"}, {1024, "XX:"}};
    Begin(0xFFFFFFFF);
    for (const auto& one : tags) {
        Log_Level(one.level, "text");
        EXPECT_EQ(sys.writes.back(), Line(std::string(one.tag) + "text")) << one.level;
    }
    Log_End();
}

TEST_F(Log, OpensAndWritesNothingUnderAMaskOfZeroOrOutsideOfItsUse) {
    const auto logAll = [] {
        Log_Level(0xFFFFFFFF, "lost");
        Log_Error("lost");
    };
    logAll();
    Begin(0);
    logAll();
    Log_End();
    logState.mask = 3;
    logAll();
    Log_End();
    EXPECT_TRUE(sys.opened.empty());
    EXPECT_EQ(logState.nesting, 0U);
}

TEST_F(Log, NestsAndKeepsTheFileOpenForTheOutermostPair) {
    Begin(LOG_ALWAYS | LOG_BEGIN | LOG_END);
    Log_Begin("inner");
    Log_Error("text");
    Log_End();
    EXPECT_EQ(sys.closes, 0);
    Log_End();
    EXPECT_EQ(sys.closes, 1);
    EXPECT_EQ(sys.masksRead, 1);
    EXPECT_EQ(sys.writes, (Lines{Line("XX:Begin Logging 'Upgrader' (LogLevel 0x00000301)"), Line("E1:text"),
                                 Line("XX:End Logging")}));
}

// Only the number that stands for "not read" is read again.
TEST_F(Log, ReadsItsMaskOnceAndOpensAnewAtTheNextPair) {
    struct {
        uint32_t mask;
        int reads;
    } cases[] = {{LOG_ALWAYS, 1}, {LOG_MASK_UNREAD, 2}};
    for (const auto& c : cases) {
        sys = {};
        logState = {};
        WritesFor("text", c.mask);
        WritesFor("text", c.mask);
        EXPECT_EQ(sys.masksRead, c.reads);
        EXPECT_EQ(sys.opened.size(), 2U);
    }
}

TEST_F(Log, WritesErrorsWhateverTheMaskSays) {
    EXPECT_EQ(WritesFor("seen", LOG_DETAIL), Lines{Line("E1:seen")});
}

TEST_F(Log, FallsBackToTheCurrentDirectoryAndSaysSoIfTheMaskAllows) {
    sys.refused = {"T:\\temp\\rlinst.log"};
    EXPECT_EQ(
        WritesFor("text"),
        (Lines{Line("E1:Unable to log to intended file T:\\temp\\rlinst.log, error 5"), Line("E1:text")}));
    EXPECT_EQ(sys.opened, Lines{"inst.log"});
    logState = {};
    EXPECT_EQ(WritesFor("text", LOG_DETAIL), Lines{Line("E1:text")});
}

TEST_F(Log, TriesAgainAtTheNextMessageWhenNothingCanBeOpened) {
    Begin(3);
    sys.hasTempDirectory = false;
    Log_Error("lost");
    EXPECT_TRUE(sys.opened.empty());
    sys.hasTempDirectory = true;
    sys.refused = {"T:\\temp\\rlinst.log", "inst.log"};
    Log_Error("lost");
    sys.refused.clear();
    Log_Error("found");
    Log_End();
    EXPECT_EQ(sys.writes, Lines{Line("E1:found")});
}

TEST_F(Log, SaysThatAMessageIsCutWhenItDoesNotFitTheLine) {
    const std::string longest(2018, 'x');
    EXPECT_EQ(WritesFor(longest), Lines{Line("E1:" + longest)});
    const Lines cut = {"The following message is truncated:\r\n", Line("E1:" + longest)};
    for (size_t length : {2019U, 2020U, 10000U}) {
        EXPECT_EQ(WritesFor(std::string(length, 'x')), cut) << length;
    }
    // Between characters, not within one.
    EXPECT_EQ(WritesFor(longest.substr(2) + "\xE2\x82\xAC!")[1], Line("E1:" + longest.substr(2)));
}

TEST_F(Log, EndsEveryLineWithCrLf) {
    EXPECT_EQ(WritesFor("one\ntwo\r\nthree\n"), Lines{Line("E1:one\r\ntwo\r\nthree\r\n")});
    EXPECT_EQ(WritesFor(std::string(3000, '\n'))[1].size(), 28U + 2 * 2019);
}

} // namespace
