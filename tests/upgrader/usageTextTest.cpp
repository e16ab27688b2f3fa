#include "upgrader/usageText.h"

#include <gtest/gtest.h>

namespace {

TEST(UsageText, ListsTheOptionsBelowTheUsageLine) {
    EXPECT_EQ(UsageText_Format({}, "rlupgrader.exe"),
              "Options:\n"
              " Usage: rlupgrader.exe [options]\n"
              " -p \"<args>\"     Pass <args> to the installer. Include the double quotes.\n"
              " -c                     Delete rlupgrader-related files when finished\n"
              " -s                     Shutdown the guest when finished\n"
              " -h                     Display usage\n");
}

TEST(UsageText, IsCutAtACharacter) {
    UsageTexts texts;
    for (std::string filler : {"", "x", "xx"}) {
        texts.heading = filler;
        while (texts.heading.size() < 1100) {
            texts.heading += "\xE6\x97\xA5"; // three bytes a character
        }
        std::string text = UsageText_Format(texts, "x");
        EXPECT_LE(text.size(), 1023u);
        EXPECT_GT(text.size(), 1020u);
        EXPECT_EQ((text.size() - filler.size()) % 3, 0u);
    }
}

} // namespace
