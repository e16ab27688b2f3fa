// Random packets against the server, in memory and, under Windows, on the real file system within one
// directory.
#include "hgfsFixture.h"
#include "packetStorm.h"

#include <cstdlib>
#include <random>

#ifdef _WIN32
#include "unicode/unicode.h"
#include <filesystem>
#include <windows.h>
#endif

namespace {

// The same packets every time; RL_STORM_ROUNDS asks for that many times as many, RL_STORM_SEED for others.
unsigned Setting(const char* name, unsigned otherwise) {
    const char* text = std::getenv(name);
    return text == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
}

void Storms(unsigned rounds, const std::string& directory, PacketStorm_Counts* counts) {
    std::mt19937 random(Setting("RL_STORM_SEED", 1728));
    rounds *= Setting("RL_STORM_ROUNDS", 1);
    std::vector<uint8_t> bytes(4000);
    for (unsigned round = 0; round < rounds; ++round) {
        std::ranges::generate(bytes, [&] { return static_cast<uint8_t>(random()); });
        PacketStorm_Run(bytes, directory, counts);
        DiagCapture_Take();
    }
}

TEST_F(HgfsMemoryTest, WeathersRandomPackets) {
    PacketStorm_Counts counts;
    Storms(100, DriveName({"C", "tmp"}), &counts);
    EXPECT_GT(counts.packets, 5000u);
    EXPECT_GT(counts.successes, counts.packets / 10);
    RecordProperty("packets", static_cast<int>(counts.packets));
}

#ifdef _WIN32

std::string allowed; // local paths below this may be touched

// The system's platform table with every path outside the test's directory refused.
bool IsAllowed(const std::string& path) {
    return path.starts_with(allowed) && path.find("..") == std::string::npos;
}
const HgfsPlatform& System() {
    return *HgfsPlatform_System();
}
HgfsPlatform Fenced() {
    HgfsPlatform fenced = System();
    fenced.open = [](const std::string& path, const HgfsOpenArguments& arguments, HgfsOsHandle* handle,
                     bool* existed) {
        return IsAllowed(path) ? System().open(path, arguments, handle, existed) : HgfsErrorAccessDenied;
    };
    fenced.change = [](const std::string& path, const HgfsFileChange& change) {
        return IsAllowed(path) ? System().change(path, change) : HgfsErrorAccessDenied;
    };
    fenced.createDirectory = [](const std::string& path) {
        return IsAllowed(path) ? System().createDirectory(path) : HgfsErrorAccessDenied;
    };
    fenced.deleteFile = [](const std::string& path) {
        return IsAllowed(path) ? System().deleteFile(path) : HgfsErrorAccessDenied;
    };
    fenced.deleteDirectory = [](const std::string& path) {
        return IsAllowed(path) ? System().deleteDirectory(path) : HgfsErrorAccessDenied;
    };
    fenced.rename = [](const std::string& from, const std::string& to) {
        return IsAllowed(from) && IsAllowed(to) ? System().rename(from, to) : HgfsErrorAccessDenied;
    };
    fenced.getInfo = [](const std::string& path, HgfsFileInfo* info) {
        return IsAllowed(path) ? System().getInfo(path, info) : HgfsErrorAccessDenied;
    };
    fenced.getEntryInfo = [](const std::string& path, HgfsFileInfo* info) {
        return IsAllowed(path) ? System().getEntryInfo(path, info) : HgfsErrorAccessDenied;
    };
    fenced.listDirectory = [](const std::string& path, bool (*entry)(void* data, std::string_view name),
                              void* data) {
        return IsAllowed(path) ? System().listDirectory(path, entry, data) : HgfsErrorAccessDenied;
    };
    return fenced;
}

TEST(HgfsStorm, WeathersRandomPacketsOnTheRealFileSystem) {
    namespace stdfs = std::filesystem;
    wchar_t temp[MAX_PATH + 1];
    GetTempPathW(MAX_PATH + 1, temp);
    const stdfs::path directory = stdfs::path(temp) / (L"storm" + std::to_wstring(GetCurrentProcessId()));
    stdfs::create_directories(directory);
    allowed = Unicode_FromWide(directory.native()).value() + '\\';
    std::string name = allowed.substr(0, allowed.size() - 1);
    name.erase(1, 1);
    std::ranges::replace(name, '\\', '\0');

    const HgfsPlatform platform = Fenced();
    DWORD before = 0, after = 0;
    for (DWORD* count : {&before, &after}) { // the first run leaves what the system itself keeps
        ASSERT_TRUE(HgfsServerStartUp(&platform, 4, nullptr));
        PacketStorm_Counts counts;
        Storms(count == &before ? 5 : 150, Name({"root", "drive"}) + '\0' + name, &counts);
        HgfsServerShutDown();
        GetProcessHandleCount(GetCurrentProcess(), count);
        if (count == &after) {
            EXPECT_GT(counts.packets, 5000u);
            EXPECT_GT(counts.successes, counts.packets / 10);
            RecordProperty("packets", static_cast<int>(counts.packets));
        }
    }
    EXPECT_EQ(after, before);
    std::error_code ignored;
    for (const auto& entry : stdfs::recursive_directory_iterator(directory)) {
        SetFileAttributesW(entry.path().c_str(), FILE_ATTRIBUTE_NORMAL);
    }
    stdfs::remove_all(directory, ignored);
}

#endif

} // namespace
