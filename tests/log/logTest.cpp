// The log's own rules, with a system that keeps everything in memory.
#include "log/log.h"
#include "log/logState.h"
#include "log/logSystem.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

constexpr char STAMP[] = "inst : 02/29/24 07:08:09 ";

struct System {
    LogMask mask = {LogMaskRead::NoKey, 0, 0, 0};
    int masksRead = 0;
    bool hasTempDirectory = true;
    std::vector<std::string> refused; // paths that cannot be opened
    std::vector<std::string> opened;
    std::vector<std::string> writes;
    int closes = 0;
};
System sys;

class Log : public testing::Test {
protected:
    void SetUp() override {
        sys = {};
        logState = {};
    }
    void TearDown() override { EXPECT_EQ(sys.opened.size(), static_cast<size_t>(sys.closes)); }
};

using Lines = std::vector<std::string>;

std::string Line(const std::string& tagAndText) {
    return STAMP + tagAndText + "\r\n";
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
    for (const std::string& one : sys.refused) {
        if (one == path) {
            *error = 5;
            return false;
        }
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

void Begin(uint32_t mask) {
    sys.mask = {LogMaskRead::Read, mask, 0, 0};
    Log_Begin("Upgrader");
}

TEST_F(Log, WritesTheFirstTwoLevelsWithoutARegistryValue) {
    for (LogMaskRead outcome :
         {LogMaskRead::NoKey, LogMaskRead::KeyFailed, LogMaskRead::ValueFailed, LogMaskRead::WrongType}) {
        SetUp();
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

TEST_F(Log, WritesBeginAndEndWhenTheMaskHasThem) {
    Begin(LOG_BEGIN | LOG_END);
    Log_End();
    EXPECT_EQ(sys.writes,
              (Lines{Line("XX:Begin Logging 'Upgrader' (LogLevel 0x00000300)"), Line("XX:End Logging")}));
}

TEST_F(Log, OpensAndWritesNothingUnderAMaskOfZero) {
    Begin(0);
    Log_Level(0xFFFFFFFF, "lost");
    Log_Error("lost");
    Log_End();
    EXPECT_TRUE(sys.opened.empty());
    EXPECT_TRUE(sys.writes.empty());
}

TEST_F(Log, WritesNothingBeforeTheFirstBeginAndAfterTheLastEnd) {
    Log_Level(0xFFFFFFFF, "lost");
    Log_Error("lost");
    Begin(3);
    Log_End();
    Log_Level(0xFFFFFFFF, "lost");
    Log_Error("lost");
    Log_End();
    EXPECT_TRUE(sys.opened.empty());
    EXPECT_TRUE(sys.writes.empty());
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
    EXPECT_EQ(sys.opened.size(), 1U);
    EXPECT_EQ(sys.writes, (Lines{Line("XX:Begin Logging 'Upgrader' (LogLevel 0x00000301)"), Line("E1:text"),
                                 Line("XX:End Logging")}));
}

TEST_F(Log, OpensAnewAtTheNextPairAndKeepsItsMask) {
    for (int round = 0; round < 2; round++) {
        Begin(LOG_ALWAYS);
        Log_Error("text");
        Log_End();
    }
    EXPECT_EQ(sys.masksRead, 1);
    EXPECT_EQ(sys.opened.size(), 2U);
}

TEST_F(Log, AsksForTheMaskAgainWhileItReadsAsUnread) {
    for (int round = 0; round < 2; round++) {
        Begin(LOG_MASK_UNREAD);
        Log_End();
    }
    EXPECT_EQ(sys.masksRead, 2);
}

TEST_F(Log, WritesErrorsWhateverTheMaskSays) {
    Begin(LOG_DETAIL);
    Log_Level(LOG_ALWAYS, "lost");
    Log_Error("seen %d", 2);
    Log_End();
    EXPECT_EQ(sys.writes, Lines{Line("E1:seen 2")});
}

TEST_F(Log, FallsBackToTheCurrentDirectoryAndSaysSo) {
    sys.refused = {"T:\\temp\\rlinst.log"};
    Begin(3);
    Log_Level(LOG_DETAIL, "text");
    Log_Level(LOG_DETAIL, "more");
    Log_End();
    EXPECT_EQ(sys.opened, Lines{"inst.log"});
    EXPECT_EQ(sys.writes, (Lines{Line("E1:Unable to log to intended file T:\\temp\\rlinst.log, error 5"),
                                 Line("I1:text"), Line("I1:more")}));
}

TEST_F(Log, FallsBackInSilenceWhenTheMaskLeavesErrorsOut) {
    sys.refused = {"T:\\temp\\rlinst.log"};
    Begin(LOG_DETAIL);
    Log_Level(LOG_DETAIL, "text");
    Log_End();
    EXPECT_EQ(sys.writes, Lines{Line("I1:text")});
}

TEST_F(Log, TriesAgainAtTheNextMessageWhenNeitherFileOpens) {
    sys.refused = {"T:\\temp\\rlinst.log", "inst.log"};
    Begin(3);
    Log_Error("lost");
    sys.refused.clear();
    Log_Error("found");
    Log_End();
    EXPECT_EQ(sys.writes, Lines{Line("E1:found")});
}

TEST_F(Log, OpensNothingWithoutATemporaryDirectory) {
    sys.hasTempDirectory = false;
    Begin(3);
    Log_Error("lost");
    Log_End();
    EXPECT_TRUE(sys.opened.empty());
}

TEST_F(Log, FillsTheLineToItsLastByte) {
    const std::string longest(2018, 'x');
    Begin(3);
    Log_Error("%s", longest.c_str());
    Log_End();
    EXPECT_EQ(sys.writes, Lines{Line("E1:" + longest)});
}

TEST_F(Log, SaysThatAMessageIsCut) {
    for (size_t length : {2019U, 2020U, 10000U}) {
        SetUp();
        Begin(3);
        Log_Error("%s", std::string(length, 'x').c_str());
        Log_End();
        EXPECT_EQ(sys.writes,
                  (Lines{"The following message is truncated:\r\n", Line("E1:" + std::string(2018, 'x'))}));
    }
}

TEST_F(Log, CutsAMessageBetweenCharacters) {
    Begin(3);
    Log_Error("%s\xE2\x82\xAC!", std::string(2016, 'x').c_str());
    Log_End();
    ASSERT_EQ(sys.writes.size(), 2U);
    EXPECT_EQ(sys.writes[1], Line("E1:" + std::string(2016, 'x')));
}

TEST_F(Log, EndsEveryLineWithCrLf) {
    Begin(3);
    Log_Error("one\ntwo\r\nthree\n");
    Log_Error("%s", std::string(3000, '\n').c_str());
    Log_End();
    ASSERT_EQ(sys.writes.size(), 3U);
    EXPECT_EQ(sys.writes[0], Line("E1:one\r\ntwo\r\nthree\r\n"));
    EXPECT_EQ(sys.writes[2].size(), 28U + 2 * 2019);
}

TEST_F(Log, HasATagForEveryLevel) {
    struct Tagged {
        uint32_t level;
        const char* tag;
    };
    const Tagged tags[] = {{1, "E1:"},  {2, "I1:"},   {4, "E2:"},  {8, "W1:"}, {16, "G2:"},
                           {32, "I2:"}, {128, "P1:"}, {64, "XX:"}, {3, "XX:"}, {1024, "XX:"}};
    Begin(0xFFFFFFFF);
    for (const Tagged& one : tags) {
        Log_Level(one.level, "text");
        EXPECT_EQ(sys.writes.back(), Line(std::string(one.tag) + "text")) << one.level;
    }
    Log_End();
}

} // namespace
