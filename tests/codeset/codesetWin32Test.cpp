// The ICU data file on the real system: where it is looked for, and what counts as absent.
#include "misc/codeset.h"
#include "support/diagCapture.h"

#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>
#include <windows.h>

namespace {

namespace fs = std::filesystem;

class CodeSetWin32 : public testing::Test {
protected:
    void SetUp() override {
        directory_ = fs::temp_directory_path() / (L"icu d\xE4ta " + std::to_wstring(GetCurrentProcessId()));
        fs::create_directories(directory_);
        DiagCapture_Take();
    }
    void TearDown() override { fs::remove_all(directory_); }

    static fs::path OwnData() {
        std::array<wchar_t, MAX_PATH> program;
        GetModuleFileNameW(nullptr, program.data(), program.size());
        return fs::path(program.data()).parent_path() / CODESET_DATA_FILE;
    }
    static std::string OwnContent() {
        std::ifstream file(OwnData(), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::string Directory() const {
        const std::u8string text = directory_.u8string();
        return {text.begin(), text.end()};
    }

    // The file counts as absent, and the program goes on without.
    void ExpectNoIcu(const std::string& directory) {
        EXPECT_TRUE(CodeSet_Init(directory.c_str()));
        EXPECT_FALSE(CodeSet_UsesIcu());
        EXPECT_EQ(DiagCapture_Take().debug, std::vector<std::string>{"CodeSet_Init: no ICU\n"});
        CodeSet_Utf16 wide;
        EXPECT_TRUE(CodeSet_ToUtf16("na\xC3\xAFve", 6, &wide));
        EXPECT_EQ(wide, L"na\xEFve");
    }

    fs::path directory_;
};

// Before any sound file: nothing of a bad one may have reached ICU by then.
TEST_F(CodeSetWin32, CountsBadFilesAsAbsent) {
    ExpectNoIcu(Directory());
    ExpectNoIcu(Directory() + "\\missing");
    ExpectNoIcu("no \xFF text");
    const std::string good = OwnContent();
    ASSERT_GT(good.size(), 1000000U);
    std::vector<std::string> bad = {"", good.substr(0, good.size() - 1), good.substr(0, 4096), good + '\0',
                                    std::string(good.size(), '\0')};
    for (size_t at : {size_t{0}, size_t{20}, good.size() / 2, good.size() - 1}) {
        bad.push_back(good);
        bad.back()[at] ^= 0x10;
    }
    for (const std::string& content : bad) {
        std::ofstream(directory_ / CODESET_DATA_FILE, std::ios::binary) << content;
        ExpectNoIcu(Directory());
    }
    fs::remove(directory_ / CODESET_DATA_FILE);
    fs::create_directory(directory_ / CODESET_DATA_FILE);
    ExpectNoIcu(Directory());
}

TEST_F(CodeSetWin32, LooksInTheGivenDirectoryOrBesideTheProgram) {
    fs::copy_file(OwnData(), directory_ / CODESET_DATA_FILE);
    CodeSet_Init(nullptr); // the first that is sound stays mapped, and a mapped file cannot be removed
    EXPECT_TRUE(CodeSet_UsesIcu());
    for (const std::string& directory : {Directory(), Directory() + "\\", Directory() + "/"}) {
        CodeSet_Init(directory.c_str());
        EXPECT_TRUE(CodeSet_UsesIcu()) << directory;
    }
    EXPECT_EQ(DiagCapture_Take().debug, std::vector<std::string>{});
    std::string out;
    EXPECT_TRUE(CodeSet_Convert("Shift_JIS", "\x93\xFA\x96\x7B", 4, "UTF-8", CodeSet_Mode::Stop, &out));
    EXPECT_EQ(out, "\xE6\x97\xA5\xE6\x9C\xAC");
}

// What each byte and each character becomes, in the way that is set; "-" for a failure.
std::vector<std::string> AllOfTheAnsiCodePage() {
    const std::string page = CodeSet_LocalEncoding();
    std::vector<std::string> results;
    const auto convert = [&](const char* from, const char* text, size_t length, const char* to) {
        std::string out;
        results.push_back(CodeSet_Convert(from, text, length, to, CodeSet_Mode::Stop, &out) ? out : "-");
    };
    for (int byte = 0; byte < 256; byte++) {
        const char text = static_cast<char>(byte);
        convert(page.c_str(), &text, 1, "UTF-8");
    }
    // Every character of the alphabets, and samples of the rest.
    for (uint32_t unit = 0; unit < 0x10000; unit += unit < 0x3000 ? 1 : 7) {
        const char text[] = {static_cast<char>(unit & 0xFF), static_cast<char>(unit >> 8)};
        convert("UTF-16LE", text, 2, page.c_str());
    }
    return results;
}

TEST_F(CodeSetWin32, AgreesWithTheSystemOnTheAnsiCodePage) {
    CodeSet_Init(nullptr);
    ASSERT_TRUE(CodeSet_UsesIcu());
    const std::vector<std::string> icu = AllOfTheAnsiCodePage();
    CodeSet_DisableIcu();
    const std::vector<std::string> system = AllOfTheAnsiCodePage();
    ASSERT_EQ(icu.size(), system.size());
    for (size_t i = 0; i < icu.size(); i++) {
        EXPECT_EQ(icu[i], system[i]) << (i < 256 ? "byte " : "character ") << (i < 256 ? i : i - 256);
    }
}

} // namespace
