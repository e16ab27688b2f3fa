// The upgrader's heart between doubles of everything below and beside it: what whole upgrades cannot bring
// about, or cannot see.
#include "upgrader/upgrader.h"

#include "err/err.h"
#include "file/file.h"
#include "file/logCapture.h"
#include "hgfslib/hgfsServer.h"
#include "iso9660/iso9660.h"
#include "log/log.h"
#include "support/diagCapture.h"
#include "support/failingNew.h"
#include "support/scriptedPort.h"
#include "support/transportDouble.h"
#include "system/system.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsSupersetOf;

// The world as the test sets it up, and what was done to it.
struct World {
    std::vector<std::string> done;
    bool hgfs = true;
    bool tmpDir = true;
    int directoriesThatFail = 0;
    bool imageStays = false;
    uint32_t random = 0xAB;
} world;

void Did(std::string what) {
    world.done.push_back(std::move(what));
}

} // namespace

// --- The doubles ---

bool HgfsServer_RegisterWithChannel(RpcIn* /*in*/, const char* applicationName) {
    Did(std::string("register ") + applicationName);
    return world.hgfs;
}
void HgfsServer_UnregisterFromChannel(RpcIn* /*in*/, const char* applicationName) {
    Did(std::string("unregister ") + applicationName);
}
bool HgfsServer_SendCapability(const char* /*applicationName*/, bool /*enabled*/) {
    return false;
}
std::optional<std::string> File_GetTmpDir(bool /*useConfig*/) {
    return world.tmpDir ? std::optional<std::string>("C:\\Temp") : std::nullopt;
}
bool File_CreateDirectory(const char* name) {
    Did(std::string("create ") + name);
    return --world.directoriesThatFail < 0;
}
bool File_Exists(const char* /*name*/) {
    return world.imageStays;
}
int File_Unlink(const char* /*name*/) {
    return -1;
}
int File_UnlinkDelayed(const char* name) {
    Did(std::string("delayed ") + name);
    return -1;
}
const char* Err_LastErrString() {
    return "the reason";
}
Iso9660_Result Iso9660_Open(const char* /*path*/, uint32_t wanted, uint32_t mode, Iso9660_Image** image) {
    EXPECT_EQ(wanted, ISO9660_WANT_JOLIET);
    EXPECT_EQ(mode, 0u);
    *image = reinterpret_cast<Iso9660_Image*>(&world);
    return Iso9660_Result::Success;
}
Iso9660_Result Iso9660_Close(Iso9660_Image* /*image*/) {
    return Iso9660_Result::Success;
}
Iso9660_Result Iso9660_Extract(Iso9660_Image* /*image*/, const char* /*imagePath*/, const char* targetPath) {
    Did(std::string("extract to ") + targetPath);
    return Iso9660_Result::Success;
}
uint32_t System_Shutdown(bool reboot) {
    Did(reboot ? "reboot" : "power off");
    return 0;
}
void ProcMgr_Free(ProcMgr_AsyncProc* /*process*/) {}
void UpgraderUsage(const char* programPath) {
    Did(std::string("usage ") + programPath);
}
void UpgraderLoop(UpgraderData* /*data*/) {}
void UpgraderRemoveOwnDirectory() {}
bool UpgraderLaunchInstaller(UpgraderData* /*data*/) {
    Did("launch");
    return true;
}
bool UpgraderInstallerFinished(UpgraderData* data) {
    Did("finished");
    data->stop = true;
    return true;
}
uint32_t UpgraderRandom() {
    return world.random++;
}

// --- The tests ---

namespace {

class UpgraderTest : public testing::Test {
protected:
    UpgraderTest() {
        scriptedPort = [](PortKind, HvPort_Registers* registers) {
            registers->ax = HVPORT_VERSION;
            registers->bx = HVPORT_MAGIC;
        };
        Renew();
    }
    ~UpgraderTest() override {
        EXPECT_EQ(host_.opened, host_.closed) << "channels left open";
        upgraderConsoleSignal = 0;
        scriptedPort = nullptr;
    }

    // A new world, whose host agrees to the greeting.
    void Renew() {
        world = {};
        host_.canOpen = true;
        host_.incoming = {"1 "};
        host_.sent.clear();
        DiagCapture_Take();
        LogCapture_Take();
    }
    // Runs `start`, which is UpgraderInit or UpgraderMain, with these options.
    template <typename Start>
    auto With(Start start, std::vector<std::string> options) {
        options.insert(options.begin(), "C:\\up\\rlupgrader.exe");
        std::vector<char*> arguments;
        for (std::string& text : options) {
            arguments.push_back(text.data());
        }
        arguments.push_back(nullptr);
        return start(static_cast<int>(options.size()), arguments.data());
    }
    UpgraderData* Init(std::vector<std::string> options = {}) {
        return With(UpgraderInit, std::move(options));
    }
    // Has the host send a command; every one is answered with an empty success.
    void Command(RpcIn_Callback callback, UpgraderData* data, const std::string& args = "") {
        const char* result = nullptr;
        uint64_t length = 77;
        EXPECT_TRUE(callback(&result, &length, "", args.data(), args.size(), data));
        EXPECT_EQ(length, 0u);
    }

    TransportDouble host_;
};

TEST_F(UpgraderTest, OptionsSetTheirFields) {
    UpgraderData* data = Init({"-c", "-p", "one", "-sp", "/qn REBOOT=R", "-d", "rest", "-x"});
    ASSERT_TRUE(data) << "what follows the first argument without a hyphen is not looked at";
    EXPECT_TRUE(data->deleteFiles);
    EXPECT_TRUE(std::exchange(data->shutdown, false));
    EXPECT_EQ(data->setupArguments, "/qn REBOOT=R");
    EXPECT_EQ(world.done.front(), "delayed C:\\up\\rlupgrader.exe");
    EXPECT_THAT(DiagCapture_Take().warning,
                ElementsAre("Error deleting upgrader binary at C:\\up\\rlupgrader.exe error -1.\n"));
    UpgraderEnd(data);
}

TEST_F(UpgraderTest, OptionsThatAreNoneShowTheUsageBoxAndTouchNothing) {
    for (const char* option : {"-h", "-x", "-p", "-sh", "-?"}) {
        Renew();
        EXPECT_EQ(Init({option}), nullptr) << option;
        EXPECT_THAT(world.done, ElementsAre("usage C:\\up\\rlupgrader.exe")) << option;
        EXPECT_EQ(host_.opened, 0);
    }
}

TEST_F(UpgraderTest, EveryFailureOfTheStartIsNamedAndUndone) {
    const std::string rootFailed = "Setting temp directory root failed.\n";
    struct {
        void (*arrange)(TransportDouble&);
        std::vector<std::string> warnings;
        std::string logged;
    } const cases[] = {
        {[](TransportDouble& host) { host.canOpen = false; }, {"Unable to start the receive loop.\n\n"}, ""},
        {[](TransportDouble&) { world.hgfs = false; }, {"Unable to initialize HGFS server.\n"}, ""},
        {[](TransportDouble&) { world.tmpDir = false; },
         {"Unable to get system temporary directory.\n", rootFailed},
         ""},
        {[](TransportDouble&) { world.directoriesThatFail = 10; },
         {"Could not create temporary directory.\n", rootFailed},
         "The last attempt was in [C:\\Temp]: the reason"},
        {[](TransportDouble& host) { host.incoming = {"0 not now"}; },
         {"Failed to send RPC greeting to set temp directory.\n", rootFailed},
         "Reply to the greeting: [not now]"},
        {[](TransportDouble& host) { host.incoming = {"1 what?"}; },
         {"RPC greeting failed: Host software version may not be compatible with the Upgrader.\n",
          rootFailed},
         "Reply to the greeting: [what?]"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.warnings[0]);
        Renew();
        c.arrange(host_);
        EXPECT_EQ(With(UpgraderMain, {}), 1u);
        DiagMessages messages = DiagCapture_Take();
        EXPECT_EQ(messages.warning, c.warnings);
        EXPECT_EQ(messages.debug.back(), "Upgrader failed initialization.\n");
        bool unregistered = !world.done.empty() && world.done.back() == "unregister tools-upgrader";
        EXPECT_EQ(unregistered, c.warnings.back() == rootFailed);
        EXPECT_EQ(host_.opened, host_.closed);
        if (!c.logged.empty()) {
            EXPECT_THAT(LogCapture_Take(), Contains(LogLine{LOG_ALWAYS, c.logged}));
        }
    }
}

TEST_F(UpgraderTest, AStartWithoutMemoryIsNamed) {
    std::vector<std::string> warnings;
    for (unsigned n = 1; n <= 10; ++n) {
        Renew();
        FailingNew_Set(n);
        if (UpgraderData* data = Init()) {
            UpgraderEnd(data);
        }
        FailingNew_Set(0);
        std::ranges::move(DiagCapture_Take().warning, std::back_inserter(warnings));
        EXPECT_EQ(host_.opened, host_.closed);
    }
    EXPECT_THAT(warnings, IsSupersetOf({"Unable to create upgrader data structure.\n\n",
                                        "Unable to create the event queue.\n\n",
                                        "Unable to create the RpcIn object.\n\n"}));
}

TEST_F(UpgraderTest, TheTenthDirectoryIsStillTried) {
    world.directoriesThatFail = 9;
    UpgraderData* data = Init();
    ASSERT_TRUE(data);
    EXPECT_EQ(data->guestFileRoot, "C:\\Temp\\000000b4\\");
    EXPECT_THAT(host_.sent, ElementsAre("upgrader.setGuestFileRoot C:\\Temp\\000000b4\\"));
    UpgraderEnd(data);
}

TEST_F(UpgraderTest, RunMayComeAgainAtAnyTime) {
    UpgraderData* data = Init();
    ASSERT_TRUE(data);
    for (const std::string& args :
         {std::string(), std::string(" -s"), std::string(" -q\0x", 5), std::string()}) {
        Command(UpgraderTcloRun, data, args);
    }
    EXPECT_EQ(data->runArguments, std::string(" -q\0x", 5))
        << "a command without arguments leaves the earlier ones";
    EXPECT_EQ(data->runArgumentsLength, 5u);
    world.done.clear();
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(UpgraderInstallStep(data));
    }
    EXPECT_THAT(world.done, ElementsAre("extract to C:\\Temp\\000000ab", "launch", "finished",
                                        "extract to C:\\Temp\\000000ab"));
    UpgraderEnd(data);
}

TEST_F(UpgraderTest, ARunThatCannotBeScheduledIsLogged) {
    UpgraderData* data = Init();
    ASSERT_TRUE(data);
    FailingNew_Set(1);
    Command(UpgraderTcloRun, data);
    EXPECT_FALSE(data->stepScheduled);
    EXPECT_EQ(LogCapture_Take().back().text, "Run: nothing could be scheduled, nothing will be installed");
    UpgraderEnd(data);
}

TEST_F(UpgraderTest, AnImpossiblePhaseIsFatal) {
    UpgraderData* data = Init();
    ASSERT_TRUE(data);
    data->installPhase = static_cast<UpgraderPhase>(5);
    EXPECT_THROW(UpgraderInstallStep(data), DiagPanic);
    EXPECT_EQ(DiagCapture_Take().warning.back(), "NOT_REACHED apps/upgrader/win32/upgraderWin32:515\n");
    UpgraderEnd(data);
}

TEST_F(UpgraderTest, AnEmptyQueueEndsTheLoop) {
    UpgraderData* data = Init();
    ASSERT_TRUE(data);
    RpcIn_stop(data->rpcIn);
    uint64_t sleep = 0;
    EXPECT_FALSE(UpgraderTurn(data, &sleep));
    EXPECT_EQ(DiagCapture_Take().debug.back(), "Unexpected end of the main loop (0)\n");
    UpgraderEnd(data);
}

TEST_F(UpgraderTest, TheEndTellsTheHostAndThePowerGoesLast) {
    struct {
        bool cancel, shutdown, reboot;
        uint32_t signal;
        const char* last;
    } const cases[] = {
        {true, false, false, 0, "unregister tools-upgrader"},
        {false, true, false, 0, "power off"},
        {false, true, true, 0, "power off"},
        {false, false, true, 0, "reboot"},
        // A signal takes back the shutdown, but not the reboot.
        {false, true, false, 6, "unregister tools-upgrader"},
        {false, true, true, 1, "reboot"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        Renew();
        UpgraderData* data = Init();
        ASSERT_TRUE(data);
        if (c.cancel) {
            Command(UpgraderTcloCancel, data);
            EXPECT_TRUE(data->stop);
        }
        data->shutdown = c.shutdown;
        data->reboot = c.reboot;
        upgraderConsoleSignal = c.signal;
        UpgraderEnd(data);
        EXPECT_EQ(std::ranges::count(host_.sent, "toolinstall.end 0"), !c.cancel);
        EXPECT_EQ(world.done.back(), c.last);
        upgraderConsoleSignal = 0;
    }
}

TEST_F(UpgraderTest, AnImageThatStaysIsLogged) {
    const LogLine stays = {LOG_ALWAYS,
                           "Could not delete the image [C:\\Temp\\000000ab\\windows.iso]: the reason"};
    for (bool there : {false, true}) {
        Renew();
        UpgraderData* data = Init();
        ASSERT_TRUE(data);
        world.imageStays = there;
        UpgraderCleanup(data);
        EXPECT_THAT(DiagCapture_Take().debug,
                    Contains(" failed. Please finish the removal process manually.\n"));
        EXPECT_EQ(std::ranges::count(LogCapture_Take(), stays), there);
    }
}

TEST_F(UpgraderTest, CapabilitiesThatAreRefusedDoNotFailTheCommand) {
    host_.incoming = {"0 no"};
    Command(UpgraderTcloCapReg, nullptr);
    EXPECT_THAT(host_.sent, ElementsAre("tools.capability.upgrader_parameters 1"));
    EXPECT_THAT(DiagCapture_Take().debug,
                testing::AllOf(Contains("Failed to send upgrader capability to RHD\n"),
                               Contains("UpgraderTcloCapReg: Failed to register HGFS server capability.\n")));
}

TEST_F(UpgraderTest, AnErrorOfTheChannelStopsTheLoop) {
    UpgraderData data;
    UpgraderRpcError(&data, "RpcIn: Unable to receive");
    EXPECT_TRUE(data.stop);
    EXPECT_THAT(DiagCapture_Take().warning,
                ElementsAre("Error in the RPC receive loop: RpcIn: Unable to receive.\n\n"));
}

} // namespace
