// What the Windows side adds to the decisions: it reads version resources, and says how a command line came
// about.
#include "upgrader/win32/upgraderWin32.h"

#include "support/diagCapture.h"
#include "unicode/unicode.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>
#include <windows.h>

bool upgraderRebootPromptQuit = false; // of the program's loop

namespace {

namespace fs = std::filesystem;

// The sample's Setup Launcher.
std::string LauncherBytes() {
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::ifstream file(fs::path(self).parent_path().parent_path() / "sample/launcher/setup.exe",
                       std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string Utf16(const std::wstring& text) {
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

// Whether a program with these bytes counts as a launcher.
bool IsLauncher(const std::string& bytes) {
    fs::path setup =
        fs::temp_directory_path() / (L"in st \x00E9\x65E5" + std::to_wstring(GetCurrentProcessId()));
    std::ofstream(setup, std::ios::binary) << bytes;
    UpgraderData data;
    data.guestFileRoot = "C:\\Temp\\x\\windows.iso";
    auto line = UpgraderGetInstallerCmdLine(&data, *Unicode_FromWide(setup.wstring()));
    fs::remove(setup);
    return line && line->ends_with(" /w");
}

TEST(InstallerWin32, ALauncherIsKnownByItsDescription) {
    const std::string launcher = LauncherBytes();
    ASSERT_TRUE(IsLauncher(launcher));
    struct {
        std::wstring was, is;
        bool launcher;
    } const changes[] = {
        {L"040904e4", L"040904E4", true},
        {L"040904e4", L"040904b0", false},
        {L"040904e4", L"040704e4", false},
        {L"FileDescription", L"FileDescriptiom", false},
        {L"Setup Launcher", L"setup launcher", false},
        {L"Setup Launcher", L"Setup Launche_", false},
        {L"Setup Launcher", L" Setup Launche", false},
    };
    for (const auto& change : changes) {
        std::string changed = launcher;
        size_t place = changed.find(Utf16(change.was));
        ASSERT_NE(place, std::string::npos);
        changed.replace(place, change.was.size() * sizeof(wchar_t), Utf16(change.is));
        EXPECT_EQ(IsLauncher(changed), change.launcher) << Utf16(change.is);
    }
    EXPECT_FALSE(IsLauncher("no program"));
}

TEST(InstallerWin32, TheWayToTheCommandLineIsTold) {
    struct {
        std::optional<std::string> setupArguments;
        std::vector<std::string> said; // before the command line
    } const cases[] = {
        {"REBOOT=R",
         {"Pointer location out of bounds. \n",
          "Reboot really suppress parameter not detected or skipped. \n"}},
        {"/qn REBOOT=R", {"Reboot really suppress parameter detected. \n"}},
        {std::nullopt, {}},
    };
    for (auto& c : cases) {
        UpgraderData data;
        data.setupArguments = c.setupArguments;
        data.runArguments = " -s"; // not looked for there
        data.runArgumentsLength = 3;
        DiagCapture_Take();
        std::string line = UpgraderGetInstallerCmdLine(&data, "C:\\none\\setup.exe").value_or("none");
        std::vector<std::string> expected = c.said;
        expected.push_back("Final command line is " + line);
        EXPECT_EQ(DiagCapture_Take().debug, expected);
    }
}

} // namespace
