// The error texts of the real system.
#include "err/err.h"

#include <gtest/gtest.h>

#include <cstring>
#include <windows.h>

namespace {

TEST(ErrWin32, GivesTheSystemsTextWithoutItsEnd) {
    SetLastError(4711);
    const char* text = Err_ErrString(ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(GetLastError(), 4711U);
    ASSERT_GT(strlen(text), 0U);
    EXPECT_NE(strstr(text, "ile"), nullptr) << text; // "file" in every wording
    EXPECT_EQ(strpbrk(text + strlen(text) - 1, ".\r\n"), nullptr) << text;
    EXPECT_STREQ(Err_ErrString(0x12345678), "Unknown error 305419896 (0x12345678)");
    EXPECT_EQ(GetLastError(), 4711U);
}

// Texts with inserts ("%1 is not a valid Win32 application") come as they stand.
TEST(ErrWin32, LeavesInsertsAlone) {
    EXPECT_NE(strstr(Err_ErrString(ERROR_BAD_EXE_FORMAT), "%1"), nullptr);
}

} // namespace
