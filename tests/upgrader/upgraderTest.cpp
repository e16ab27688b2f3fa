// The upgrader's heart between doubles of everything below and beside it: the order of what it does, every
// way in which a step can fail, and what is undone then. Whole runs with the real parts are tests of their
// own.
#include "upgrader/upgrader.h"

#include "file/file.h"
#include "hgfslib/hgfsServer.h"
#include "iso9660/iso9660.h"
#include "support/diagCapture.h"
#include "support/scriptedPort.h"
#include "support/transportDouble.h"
#include "system/system.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;

// The world as the test sets it up, and what was done to it.
struct World {
    std::vector<std::string> done;
    int unlinkDelayed = 0;
    bool hgfs = true;
    bool capability = true;
    bool tmpDir = true;
    int directoriesThatFail = 0;
    Iso9660_Result open = Iso9660_Result::Success;
    Iso9660_Result extract = Iso9660_Result::Success;
    bool launch = true;
    uint32_t random = 0;
} world;

void Did(std::string what) {
    world.done.push_back(std::move(what));
}

} // namespace

// --- The doubles
// ----------------------------------------------------------------------------------------------

bool HgfsServer_RegisterWithChannel(RpcIn* /*in*/, const char* applicationName) {
    Did(std::string("register ") + applicationName);
    return world.hgfs;
}
void HgfsServer_UnregisterFromChannel(RpcIn* /*in*/, const char* applicationName) {
    Did(std::string("unregister ") + applicationName);
}
bool HgfsServer_SendCapability(const char* /*applicationName*/, bool enabled) {
    Did(enabled ? "capability on" : "capability off");
    return world.capability;
}
std::optional<std::string> File_GetTmpDir(bool /*useConfig*/) {
    return world.tmpDir ? std::optional<std::string>("C:\\Temp") : std::nullopt;
}
bool File_CreateDirectory(const char* name) {
    Did(std::string("create ") + name);
    return --world.directoriesThatFail < 0;
}
int File_Unlink(const char* name) {
    Did(std::string("unlink ") + name);
    return -1;
}
int File_UnlinkDelayed(const char* name) {
    Did(std::string("delayed ") + name);
    return world.unlinkDelayed;
}
Iso9660_Result Iso9660_Open(const char* path, uint32_t wanted, uint32_t mode, Iso9660_Image** image) {
    EXPECT_EQ(wanted, ISO9660_WANT_JOLIET);
    EXPECT_EQ(mode, 0u);
    Did(std::string("open ") + path);
    *image = reinterpret_cast<Iso9660_Image*>(&world);
    return world.open;
}
Iso9660_Result Iso9660_Close(Iso9660_Image* /*image*/) {
    Did("close");
    return Iso9660_Result::Success;
}
Iso9660_Result Iso9660_Extract(Iso9660_Image* /*image*/, const char* imagePath, const char* targetPath) {
    Did(std::string("extract ") + imagePath + " " + targetPath);
    return world.extract;
}
uint32_t System_Shutdown(bool reboot) {
    Did(reboot ? "reboot" : "power off");
    return 0;
}
void ProcMgr_Free(ProcMgr_AsyncProc* /*process*/) {}
void UpgraderUsage(const char* programPath) {
    Did(std::string("usage ") + programPath);
}
void UpgraderLoop(UpgraderData* /*data*/) {
    Did("loop");
}
void UpgraderRemoveOwnDirectory() {
    Did("remove own directory");
}
bool UpgraderLaunchInstaller(UpgraderData* /*data*/) {
    Did("launch");
    return world.launch;
}
bool UpgraderInstallerFinished(UpgraderData* data) {
    Did("finished");
    data->stop = true;
    return true;
}
uint32_t UpgraderRandom() {
    return world.random++;
}

// --- The tests
// ------------------------------------------------------------------------------------------------

namespace {

class UpgraderTest : public testing::Test {
protected:
    UpgraderTest() {
        world = {};
        world.random = 0xAB;
        upgraderConsoleSignal = 0;
        scriptedPort = [this](PortKind, HvPort_Registers* registers) {
            registers->ax = version_;
            registers->bx = HVPORT_MAGIC;
        };
        host_.incoming.push_back("1 "); // to the greeting
        DiagCapture_Take();
    }
    ~UpgraderTest() override {
        EXPECT_EQ(host_.opened, host_.closed) << "channels left open";
        scriptedPort = nullptr;
    }

    UpgraderData* Init(std::vector<std::string> options = {}) {
        std::vector<std::string> texts = {"C:\\up\\rlupgrader.exe"};
        texts.insert(texts.end(), options.begin(), options.end());
        std::vector<char*> arguments;
        for (std::string& text : texts) {
            arguments.push_back(text.data());
        }
        arguments.push_back(nullptr);
        return UpgraderInit(static_cast<int>(texts.size()), arguments.data());
    }
    uint32_t Main() {
        char program[] = "C:\\up\\rlupgrader.exe";
        char* arguments[] = {program, nullptr};
        return UpgraderMain(1, arguments);
    }
    bool Run(UpgraderData* data, const std::string& args) {
        const char* result = nullptr;
        uint64_t length = 77;
        bool status = UpgraderTcloRun(&result, &length, "upgrader.run", args.data(), args.size(), data);
        EXPECT_EQ(length, 0u);
        return status;
    }

    uint32_t version_ = HVPORT_VERSION;
    TransportDouble host_;
};

TEST_F(UpgraderTest, StartsUpInOrder) {
    UpgraderData* data = Init();
    ASSERT_TRUE(data);
    EXPECT_THAT(world.done, ElementsAre("register tools-upgrader", "create C:\\Temp\\000000ab\\"));
    EXPECT_THAT(host_.sent, ElementsAre("upgrader.setGuestFileRoot C:\\Temp\\000000ab\\"));
    EXPECT_EQ(data->guestFileRoot, "C:\\Temp\\000000ab\\");
    EXPECT_TRUE(data->sendEnd);
    EXPECT_EQ(data->installerExitCode, -1);
    UpgraderEnd(data);
}

TEST_F(UpgraderTest, OptionsSetTheirFields) {
    UpgraderData* data = Init({"-c", "-p", "one", "-sp", "/qn REBOOT=R", "-d", "rest", "-x"});
    ASSERT_TRUE(data) << "what follows the first argument without a hyphen is not looked at";
    EXPECT_TRUE(data->deleteFiles);
    EXPECT_TRUE(data->shutdown);
    EXPECT_EQ(data->setupArguments, "/qn REBOOT=R");
    EXPECT_EQ(world.done.front(), "delayed C:\\up\\rlupgrader.exe");
    data->shutdown = false;
    UpgraderEnd(data);
}

TEST_F(UpgraderTest, AFailedDelayedDeletionIsToldAndNothingMore) {
    world.unlinkDelayed = -1;
    UpgraderData* data = Init({"-d"});
    ASSERT_TRUE(data);
    EXPECT_THAT(DiagCapture_Take().warning,
                ElementsAre("Error deleting upgrader binary at C:\\up\\rlupgrader.exe error -1.\n"));
    UpgraderEnd(data);
}

TEST_F(UpgraderTest, HelpAndUnknownOptionsShowTheUsageBox) {
    for (const char* option : {"-h", "-x", "-p", "-sh", "-?"}) {
        world.done.clear();
        EXPECT_EQ(Init({option}), nullptr) << option;
        EXPECT_THAT(world.done, ElementsAre("usage C:\\up\\rlupgrader.exe")) << option;
        EXPECT_THAT(DiagCapture_Take().debug,
                    ElementsAre("Upgrader failed parsing command line arguments.\n"));
        EXPECT_EQ(host_.opened, 0);
    }
}

TEST_F(UpgraderTest, EveryFailureOfTheStartIsNamedAndUndone) {
    struct {
        const char* name;
        void (*arrange)(TransportDouble&);
        std::vector<std::string> warnings;
        bool unregistered;
    } const cases[] = {
        {"no channel",
         [](TransportDouble& host) { host.canOpen = false; },
         {"Unable to start the receive loop.\n\n"},
         false},
        {"no file server",
         [](TransportDouble&) { world.hgfs = false; },
         {"Unable to initialize HGFS server.\n"},
         false},
        {"no temporary directory",
         [](TransportDouble&) { world.tmpDir = false; },
         {"Unable to get system temporary directory.\n", "Setting temp directory root failed.\n"},
         true},
        {"ten directories fail",
         [](TransportDouble&) { world.directoriesThatFail = 10; },
         {"Could not create temporary directory.\n", "Setting temp directory root failed.\n"},
         true},
        {"greeting refused",
         [](TransportDouble& host) { host.incoming = {"0 no"}; },
         {"Failed to send RPC greeting to set temp directory.\n", "Setting temp directory root failed.\n"},
         true},
        {"greeting answered with words",
         [](TransportDouble& host) { host.incoming = {"1 what?"}; },
         {"RPC greeting failed: Host software version may not be compatible with the Upgrader.\n",
          "Setting temp directory root failed.\n"},
         true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        world = {};
        host_.canOpen = true;
        host_.incoming = {"1 "};
        c.arrange(host_);
        DiagCapture_Take();
        EXPECT_EQ(Main(), 1u);
        auto messages = DiagCapture_Take();
        EXPECT_EQ(messages.warning, c.warnings);
        EXPECT_EQ(messages.debug.back(), "Upgrader failed initialization.\n");
        bool unregistered = !world.done.empty() && world.done.back() == "unregister tools-upgrader";
        EXPECT_EQ(unregistered, c.unregistered);
        EXPECT_EQ(host_.opened, host_.closed);
    }
}

TEST_F(UpgraderTest, TheTenthDirectoryIsStillTried) {
    world.directoriesThatFail = 9;
    UpgraderData* data = Init();
    ASSERT_TRUE(data);
    EXPECT_EQ(data->guestFileRoot, "C:\\Temp\\000000b4\\");
    UpgraderEnd(data);
}

TEST_F(UpgraderTest, AnotherVersionOfTheHypervisorEndsTheRun) {
    version_ = HVPORT_VERSION + 1;
    EXPECT_EQ(Main(), 1u);
    EXPECT_THAT(DiagCapture_Take().warning,
                ElementsAre("The Ravlin Tools Upgrader application must be run in a Virtual Machine.\n"));
    EXPECT_TRUE(world.done.empty());
}

TEST_F(UpgraderTest, AWholeRunByCommands) {
    UpgraderData* data = Init();
    ASSERT_TRUE(data);
    world.done.clear();
    EXPECT_TRUE(Run(data, std::string(" -q\0", 4)));
    EXPECT_EQ(data->runArguments, std::string(" -q\0", 4));
    EXPECT_EQ(data->runArgumentsLength, 4u);
    EXPECT_TRUE(data->stepScheduled);
    EXPECT_TRUE(UpgraderInstallStep(data));
    EXPECT_FALSE(data->stepScheduled);
    EXPECT_EQ(data->installPhase, UpgraderPhase::Launch);
    EXPECT_EQ(data->extractionDirectory, "C:\\Temp\\000000ab");
    EXPECT_EQ(data->guestFileRoot, "C:\\Temp\\000000ab\\windows.iso");
    EXPECT_TRUE(UpgraderInstallStep(data));
    EXPECT_EQ(data->installPhase, UpgraderPhase::HandleResult);
    EXPECT_TRUE(UpgraderInstallStep(data));
    EXPECT_EQ(data->installPhase, UpgraderPhase::Extract);
    EXPECT_THAT(world.done,
                ElementsAre("open C:\\Temp\\000000ab\\windows.iso", "extract \\ C:\\Temp\\000000ab", "close",
                            "unlink C:\\Temp\\000000ab\\windows.iso", "launch", "finished"));
    UpgraderEnd(data);
}

TEST_F(UpgraderTest, StepsThatFailEndTheLoopWhereTheyStand) {
    struct {
        const char* name;
        UpgraderPhase phase;
        Iso9660_Result open, extract;
        bool launch;
        std::string last;
        std::string message;
    } const cases[] = {
        {"no image", UpgraderPhase::Extract, Iso9660_Result::IoError, Iso9660_Result::Success, true,
         "open C:\\Temp\\000000ab\\windows.iso", "Error in Iso9660_Open\n"},
        {"damaged image", UpgraderPhase::Extract, Iso9660_Result::Success, Iso9660_Result::BadFormat, true,
         "close", "Error in Iso9660_Extract\n"},
        {"no installer", UpgraderPhase::Launch, Iso9660_Result::Success, Iso9660_Result::Success, false,
         "launch", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        world = {};
        world.random = 0xAB;
        host_.incoming = {"1 "};
        UpgraderData* data = Init();
        ASSERT_TRUE(data);
        world.open = c.open;
        world.extract = c.extract;
        world.launch = c.launch;
        data->installPhase = c.phase;
        DiagCapture_Take();
        EXPECT_FALSE(UpgraderInstallStep(data));
        EXPECT_EQ(data->installPhase, c.phase);
        EXPECT_EQ(data->extractionDirectory, std::nullopt);
        EXPECT_EQ(world.done.back(), c.last);
        if (!c.message.empty()) {
            EXPECT_EQ(DiagCapture_Take().debug.back(), c.message);
        }
        UpgraderEnd(data);
    }
}

TEST_F(UpgraderTest, AnImpossiblePhaseIsFatal) {
    UpgraderData* data = Init();
    ASSERT_TRUE(data);
    data->installPhase = static_cast<UpgraderPhase>(5);
    EXPECT_THROW(UpgraderInstallStep(data), DiagPanic);
    EXPECT_EQ(DiagCapture_Take().warning.back(), "NOT_REACHED apps/upgrader/win32/upgraderWin32:515\n");
    data->installPhase = UpgraderPhase::Extract;
    UpgraderEnd(data);
}

TEST_F(UpgraderTest, TheEndTellsTheHostAndThePowerGoesLast) {
    struct {
        const char* name;
        bool cancel, shutdown, reboot;
        uint32_t signal;
        bool told;
        std::string power;
    } const cases[] = {
        {"nothing happened", false, false, false, 0, true, ""},
        {"cancelled", true, false, false, 0, false, ""},
        {"shutdown", false, true, false, 0, true, "power off"},
        {"shutdown wins over reboot", false, true, true, 0, true, "power off"},
        {"reboot", false, false, true, 0, true, "reboot"},
        {"a signal takes back the shutdown", false, true, false, 6, true, ""},
        {"but not the reboot", false, true, true, 1, true, "reboot"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        host_.incoming = {"1 "};
        UpgraderData* data = Init();
        ASSERT_TRUE(data);
        if (c.cancel) {
            const char* result = nullptr;
            uint64_t length = 0;
            EXPECT_TRUE(UpgraderTcloCancel(&result, &length, "upgrader.cancel", "", 0, data));
            EXPECT_TRUE(data->stop);
        }
        data->shutdown = c.shutdown;
        data->reboot = c.reboot;
        upgraderConsoleSignal = c.signal;
        world.done.clear();
        host_.sent.clear();
        UpgraderEnd(data);
        EXPECT_EQ(std::count(host_.sent.begin(), host_.sent.end(), "toolinstall.end 0"), c.told ? 1 : 0);
        EXPECT_EQ(world.done.front(), "unregister tools-upgrader");
        EXPECT_EQ(world.done.back(), c.power.empty() ? "unregister tools-upgrader" : c.power);
    }
}

TEST_F(UpgraderTest, TheLoopDrivesTheLaterStepsAndSaysWhyItEnds) {
    UpgraderData* data = Init();
    ASSERT_TRUE(data);
    static uint32_t now;
    now = eventManagerTickSource();
    auto saved = std::exchange(eventManagerTickSource, [] { return now += 10; });
    uint64_t sleep = 0;
    EXPECT_TRUE(UpgraderTurn(data, &sleep)) << "the first poll";
    EXPECT_FALSE(data->stepScheduled) << "nothing to do before the host's command";
    data->installPhase = UpgraderPhase::Launch;
    EXPECT_TRUE(UpgraderTurn(data, &sleep));
    EXPECT_TRUE(data->stepScheduled);

    data->stop = true;
    EXPECT_FALSE(UpgraderTurn(data, &sleep));
    data->stop = false;
    upgraderConsoleSignal = 2;
    DiagCapture_Take();
    EXPECT_FALSE(UpgraderTurn(data, &sleep));
    EXPECT_EQ(DiagCapture_Take().debug.back(), "Exiting UpgraderLoop on signal 2\n");
    upgraderConsoleSignal = 0;

    RpcIn_stop(data->rpcIn);
    world.launch = false;
    while (UpgraderTurn(data, &sleep)) {
    }
    EXPECT_EQ(DiagCapture_Take().debug.back(), "Unexpected end of the main loop (-1)\n")
        << "the launch failed";
    data->installPhase = UpgraderPhase::Extract;
    EXPECT_FALSE(UpgraderTurn(data, &sleep));
    EXPECT_EQ(DiagCapture_Take().debug.back(), "Unexpected end of the main loop (0)\n");
    UpgraderEnd(data);
    eventManagerTickSource = saved;
}

TEST_F(UpgraderTest, CleanUpRemovesTheImageAndOnRequestTheProgram) {
    for (const char* option : {"-d", "-c"}) {
        world = {};
        world.random = 0xAB;
        host_.incoming = {"1 "};
        UpgraderData* data = Init({option});
        ASSERT_TRUE(data);
        DiagCapture_Take();
        UpgraderCleanup(data);
        auto messages = DiagCapture_Take().debug;
        EXPECT_EQ(messages[0], "Deleting C:\\Temp\\000000ab\\windows.iso... ");
        EXPECT_EQ(messages[1], " failed. Please finish the removal process manually.\n");
        bool removed = std::count(world.done.begin(), world.done.end(), "remove own directory") == 1;
        EXPECT_EQ(removed, std::string(option) == "-c");
    }
}

TEST_F(UpgraderTest, CapabilitiesAreSentAgainAndNeverFailTheCommand) {
    for (bool works : {true, false}) {
        world = {};
        world.capability = works;
        host_.incoming = {works ? "1 " : "0 no"};
        host_.sent.clear();
        DiagCapture_Take();
        const char* result = nullptr;
        uint64_t length = 9;
        EXPECT_TRUE(UpgraderTcloCapReg(&result, &length, "Capabilities_Register", "", 0, nullptr));
        EXPECT_EQ(length, 0u);
        EXPECT_THAT(host_.sent, ElementsAre("tools.capability.upgrader_parameters 1"));
        EXPECT_THAT(world.done, ElementsAre("capability on"));
        auto debug = DiagCapture_Take().debug;
        EXPECT_EQ(std::count(debug.begin(), debug.end(), "Failed to send upgrader capability to RHD\n"),
                  !works);
        EXPECT_EQ(debug.back() == "UpgraderTcloCapReg: Failed to register HGFS server capability.\n", !works);
    }
}

TEST_F(UpgraderTest, ResetAnswersAndErrorsStop) {
    UpgraderData* data = Init();
    ASSERT_TRUE(data);
    RpcInCall call{};
    EXPECT_TRUE(UpgraderTcloReset(&call));
    EXPECT_EQ(std::string(call.result, static_cast<size_t>(call.resultLen)), "ATR tools-upgrader");
    EXPECT_FALSE(call.freeResult);
    UpgraderRpcError(data, "RpcIn: Unable to receive");
    EXPECT_TRUE(data->stop);
    EXPECT_EQ(DiagCapture_Take().warning.back(),
              "Error in the RPC receive loop: RpcIn: Unable to receive.\n\n");
    UpgraderEnd(data);
}

TEST_F(UpgraderTest, RunMayComeAgainAtAnyTime) {
    UpgraderData* data = Init();
    ASSERT_TRUE(data);
    for (const char* args : {"", " -s", " -q", ""}) {
        EXPECT_TRUE(Run(data, args));
    }
    EXPECT_EQ(data->runArguments, " -q") << "a command without arguments leaves the earlier ones";
    for (int i = 0; i < 7; ++i) {
        EXPECT_TRUE(UpgraderInstallStep(data));
    }
    UpgraderEnd(data);
}

} // namespace
