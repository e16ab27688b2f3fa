#include "upgrader/argumentTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

char program[] = "C:\\x\\rlupgrader.exe";

TEST(ArgumentTable, SplitsAsTheCommandLineSays) {
    struct {
        const char* line;
        std::vector<std::string> arguments;
    } const cases[] = {
        {"", {}},
        {" \t\r\n\v\f ", {}},
        {"-s", {"-s"}},
        {"  -s\t-c ", {"-s", "-c"}},
        {"-p \"/qn REBOOT=R\"", {"-p", "/qn REBOOT=R"}},
        {R"("/s /v\"/qn\"" -s)", {"/s /v\"/qn\"", "-s"}},
        {R"("C:\\dir" C:\\dir)", {"C:\\dir", "C:\\\\dir"}},
        {R"("a\b" "\\\"")", {"ab", "\\\""}},
        {R"("a""b"c)", {"a", "b", "c"}},
        {R"(a"b c"d)", {"a\"b", "c\"d"}},
        {"\"\" -s", {"", "-s"}},
        // Without a closing quote the argument runs to the end of the line.
        {"\"open end ", {"open end "}},
        {R"("open \"end)", {"open \"end"}},
        {R"("lone\)", {"lone"}},
        {R"("lone\\)", {"lone\\"}},
        {"\"", {""}},
        {"\xC3\xA9\xC2\xA0x", {"\xC3\xA9\xC2\xA0x"}}, // only ASCII white space separates
    };
    for (const auto& c : cases) {
        std::string line = c.line;
        ArgumentTable table;
        ASSERT_TRUE(ArgumentTable_Split(line.data(), program, &table)) << c.line;
        ASSERT_EQ(table.count, static_cast<int>(c.arguments.size()) + 1) << c.line;
        EXPECT_EQ(table.arguments[0], program);
        for (size_t i = 0; i < c.arguments.size(); ++i) {
            EXPECT_EQ(table.arguments[i + 1], c.arguments[i]) << c.line;
        }
        EXPECT_EQ(table.arguments[c.arguments.size() + 1], nullptr);
    }
}

TEST(ArgumentTable, HoldsAsManyAsItSaysAndRefusesOneMore) {
    std::string line;
    for (int i = 0; i < ARGUMENT_TABLE_MAX_ARGUMENTS; ++i) {
        line += "x ";
    }
    std::string more = line + "y";
    ArgumentTable table;
    EXPECT_TRUE(ArgumentTable_Split(line.data(), program, &table));
    EXPECT_EQ(table.count, 127);
    EXPECT_EQ(table.arguments.back(), nullptr);
    EXPECT_FALSE(ArgumentTable_Split(more.data(), program, &table));
    EXPECT_EQ(table.arguments.back(), nullptr);
}

} // namespace
