// A whole upgrade inside this process: the real heart, channel, file server and image reader against the
// model of the hypervisor and the simulated host, on a clock of the test's own. Then the same with a failure,
// and with a checkpoint, at every single port call.
#include "upgrader/upgrader.h"

#include "file/file.h"
#include "iso9660/testImage.h"
#include "sim/host.h"
#include "sim/inProcess.h"
#include "support/diagCapture.h"
#include "system/system.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>

#ifdef _WIN32
#include <windows.h>
#endif

namespace {

namespace fs = std::filesystem;
using testing::IsEmpty;

uint32_t now; // milliseconds, moved by the loop's waits
uint32_t nextName;
bool installerFound;
bool installerJudged;
Host* listener; // hears the guest's debug output

void PassOnDebug() {
    for (const std::string& text : DiagCapture_Take().debug) {
        Host_GuestSaid(listener, text);
    }
}

} // namespace

// --- What the platform does, without waits and windows ---

#ifndef _WIN32
const char* Err_LastErrString() {
    return "";
}
std::optional<std::string> File_GetTmpDir(bool /*useConfig*/) {
    return "C:\\Temp"; // a directory "C:" in the test's working directory
}
int File_UnlinkDelayed(const char* /*name*/) {
    return 0;
}
void ProcMgr_Free(ProcMgr_AsyncProc* /*process*/) {}
#endif
void UpgraderUsage(const char* /*programPath*/) {}
void UpgraderRemoveOwnDirectory() {}
uint32_t UpgraderRandom() {
    return nextName++;
}
void UpgraderLoop(UpgraderData* data) {
    uint64_t sleep = 0;
    unsigned turns = 0;
    while (UpgraderTurn(data, &sleep)) {
        now += static_cast<uint32_t>(sleep / 1000);
        PassOnDebug();
        ASSERT_LT(++turns, 20000u) << "the loop does not end";
    }
}
bool UpgraderLaunchInstaller(UpgraderData* data) {
    installerFound = File_Exists((*data->extractionDirectory + "\\setup.exe").c_str());
    data->extractionDirectory.reset();
    return installerFound;
}
bool UpgraderInstallerFinished(UpgraderData* data) {
    installerJudged = true;
    data->sendEnd = false;
    data->stop = true;
    return true;
}
uint32_t System_Shutdown(bool /*reboot*/) {
    return 0;
}

// --- The tests ---

namespace {

// "setup.exe" among some files, in Joliet, large enough for several file packets.
std::vector<uint8_t> ToolsImage() {
    TestImage image(true);
    constexpr uint32_t payloadBytes = 150000;
    std::vector<TestRecord> records;
    records.push_back({.name = JolietName(u"payload.bin"), .sector = TEST_FREE + 1, .size = payloadBytes});
    records.push_back({.name = JolietName(u"setup.exe"), .sector = TEST_FREE, .size = 5});
    uint32_t size = image.PutDirectory(TEST_JOLIET_ROOT, TEST_JOLIET_ROOT, records);
    image.SetRoot(TEST_SUPPLEMENTARY, TEST_JOLIET_ROOT, size);
    image.Put(TEST_FREE, "hello");
    image.Put(TEST_FREE + 1, std::string(payloadBytes, 'p'));
    return image.bytes;
}

struct Outcome {
    uint32_t exitCode = 0;
    Hypervisor hypervisor;
    Host host;
    DiagMessages messages;
};

bool ReadImage(void* clientData, uint64_t offset, uint8_t* bytes, size_t length) {
    const auto& image = *static_cast<std::vector<uint8_t>*>(clientData);
    if (offset + length > image.size()) {
        return false;
    }
    std::copy_n(image.begin() + static_cast<ptrdiff_t>(offset), length, bytes);
    return true;
}

std::unique_ptr<Outcome> Upgrade(const Hypervisor_Faults& faults, std::vector<uint8_t>* image) {
    installerFound = false;
    installerJudged = false;
    DiagCapture_Take();

    auto outcome = std::make_unique<Outcome>();
    Host& host = outcome->host;
    for (const char* text : {"greeting", "capabilities", "copy", "verify", "run -q", "end"}) {
        std::string error;
        EXPECT_TRUE(Host_ParseStep(text, &host.steps.emplace_back(), &error)) << error;
    }
    host.client.source = {ReadImage, image, image->size()};
    outcome->hypervisor.memory = Hypervisor_OwnMemory();
    outcome->hypervisor.service = Host_Service(&host);
    outcome->hypervisor.faults = faults;
    listener = &host;
    Host_Start(&host);
    {
        InProcess_Port port(&outcome->hypervisor);
        char program[] = "C:\\upgrade\\rlupgrader.exe";
        char* arguments[] = {program, nullptr};
        outcome->exitCode = UpgraderMain(1, arguments);
    }
    outcome->messages = DiagCapture_Take();
    for (const std::string& text : outcome->messages.debug) {
        Host_GuestSaid(&host, text);
    }
    Host_Finish(&host);
    return outcome;
}

class UpgradeSweep : public testing::Test {
protected:
    UpgradeSweep() : image_(ToolsImage()), saved_(eventManagerTickSource) {
        now = 700000000;
        nextName = 0x5EED0000;
        eventManagerTickSource = [] { return now; };
#ifndef _WIN32
        savedDirectory_ = fs::current_path();
        fs::create_directories(folder_.Path() + "/C:/Temp");
        fs::current_path(folder_.Path());
#endif
    }
    ~UpgradeSweep() override {
        eventManagerTickSource = saved_;
#ifndef _WIN32
        fs::current_path(savedDirectory_);
#endif
    }

    // Every run ends in one of the documented ways, whatever the port did. No channel stays open, and no
    // image in the directory that the guest announced, which goes now.
    static void ExpectOrderlyEnd(const Outcome& outcome) {
        EXPECT_THAT(outcome.hypervisor.deviations, IsEmpty());
        EXPECT_EQ(Hypervisor_OpenChannels(outcome.hypervisor), 0u);
        if (outcome.exitCode == 1) {
            EXPECT_FALSE(installerFound);
            EXPECT_FALSE(outcome.messages.warning.empty()) << "start-up failed without a word";
        } else {
            EXPECT_EQ(outcome.exitCode, 0u);
        }
        if (std::string root = outcome.host.root; !root.empty()) {
#ifndef _WIN32
            std::ranges::replace(root, '\\', '/');
#endif
            EXPECT_FALSE(fs::exists(fs::path(root) / "windows.iso"));
            std::error_code ignored;
            fs::remove_all(root, ignored);
        }
    }
    // One upgrade for each port call, with the fault there; gives how many of them came to the installer's
    // end.
    unsigned Sweep(uint64_t Hypervisor_Faults::*call) {
        uint64_t calls = Upgrade({}, &image_)->hypervisor.counts.calls;
        EXPECT_GT(calls, 50u);
        unsigned survived = 0;
        for (uint64_t n = 1; n <= calls && !HasFailure(); ++n) {
            SCOPED_TRACE("call " + std::to_string(n) + " of " + std::to_string(calls));
            Hypervisor_Faults faults;
            faults.*call = n;
            ExpectOrderlyEnd(*Upgrade(faults, &image_));
            survived += installerJudged;
        }
        return survived;
    }

    std::vector<uint8_t> image_;
    TestFolder folder_;
    fs::path savedDirectory_;
    uint32_t (*saved_)();
};

TEST_F(UpgradeSweep, SucceedsAtBothBandwidths) {
    for (bool low : {false, true}) {
        Hypervisor_Faults faults;
        faults.lowBandwidth = low;
        auto outcome = Upgrade(faults, &image_);
        for (const Host_Problem& problem : outcome->host.problems) {
            ADD_FAILURE() << problem.text;
        }
        EXPECT_EQ(outcome->exitCode, 0u);
        EXPECT_TRUE(installerJudged);
        EXPECT_FALSE(outcome->host.endSent);
        ExpectOrderlyEnd(*outcome);
    }
}

TEST_F(UpgradeSweep, AFailureAtAnyPortCallEndsInOrder) {
    Upgrade({}, &image_); // what is set up once
#ifdef _WIN32
    DWORD handlesBefore = 0;
    GetProcessHandleCount(GetCurrentProcess(), &handlesBefore);
#endif
    Sweep(&Hypervisor_Faults::failCall);
#ifdef _WIN32
    DWORD handlesAfter = 0;
    GetProcessHandleCount(GetCurrentProcess(), &handlesAfter);
    EXPECT_LE(handlesAfter, handlesBefore) << "handles leaked";
#endif
}

TEST_F(UpgradeSweep, ACheckpointAtAnyPortCallIsSurvivedOrEndsInOrder) {
    EXPECT_GT(Sweep(&Hypervisor_Faults::checkpointCall), 20u) << "payload and status calls start again";
}

TEST_F(UpgradeSweep, EndlessCheckpointsDoNotHangIt) {
    Hypervisor_Faults faults;
    faults.checkpointPayloads = true;
    auto outcome = Upgrade(faults, &image_);
    EXPECT_EQ(outcome->exitCode, 1u);
    ExpectOrderlyEnd(*outcome);
}

} // namespace
