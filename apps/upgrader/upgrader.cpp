#include "upgrader/upgrader.h"

#include "err/err.h"
#include "file/file.h"
#include "hgfslib/hgfsServer.h"
#include "hvPort/hvPort.h"
#include "iso9660/iso9660.h"
#include "log/log.h"
#include "misc/diag.h"
#include "rpcout/rpcout.h"
#include "string/str.h"
#include "system/system.h"

#include <cstdlib>
#include <memory>
#include <new>

#include <getopt.h>

std::atomic<uint32_t> upgraderConsoleSignal{0};
bool upgraderRebootPromptQuit = false;

namespace {

constexpr int DIRECTORY_ATTEMPTS = 10;

// The place of the fatal stop for an impossible phase, as support knows it.
constexpr char PHASE_UNIT[] = "apps/upgrader/win32/upgraderWin32";
constexpr int PHASE_LINE = 515;

struct FreeReply {
    void operator()(char* reply) const { std::free(reply); }
};

bool ParseOptions(int argumentCount, char** arguments, UpgraderData* data) {
    // Zero makes getopt start afresh, whatever it parsed before. The leading plus ends the options at the
    // first argument that is none, and nothing is reported on the standard error stream.
    optind = 0;
    opterr = 0;
    for (int option; (option = getopt(argumentCount, arguments, "+dshcp:")) != -1;) {
        switch (option) {
        case 'c':
            data->deleteFiles = true;
            break;
        case 'd':
            if (int result = File_UnlinkDelayed(arguments[0]); result != 0) {
                Warning("Error deleting upgrader binary at %s error %d.\n", arguments[0], result);
            }
            break;
        case 'p':
            data->setupArguments = optarg;
            break;
        case 's':
            data->shutdown = true;
            break;
        default:
            Log_Level(LOG_DETAIL, "Showing the usage box"); // which waits for somebody to close it
            UpgraderUsage(arguments[0]);
            Debug("Upgrader failed parsing command line arguments.\n");
            return false;
        }
    }
    return true;
}

bool StartChannel(UpgraderData* data) {
    data->eventQueue = EventManager_Create();
    if (!data->eventQueue) {
        Warning("Unable to create the event queue.\n\n");
        return false;
    }
    data->rpcIn = RpcIn_Create(data->eventQueue);
    if (!data->rpcIn) {
        Warning("Unable to create the RpcIn object.\n\n");
        return false;
    }
    if (!RpcIn_start(data->rpcIn, UPGRADER_MAX_POLL_DELAY, UpgraderTcloReset, data, UpgraderRpcError, data)) {
        Warning("Unable to start the receive loop.\n\n");
        return false;
    }
    RpcIn_RegisterCallback(data->rpcIn, "Capabilities_Register", UpgraderTcloCapReg, nullptr);
    RpcIn_RegisterCallback(data->rpcIn, "upgrader.run", UpgraderTcloRun, data);
    RpcIn_RegisterCallback(data->rpcIn, "upgrader.cancel", UpgraderTcloCancel, data);
    return true;
}

void StopChannel(UpgraderData* data) {
    if (data->rpcIn) {
        RpcIn_stop(data->rpcIn);
        RpcIn_Free(data->rpcIn);
        data->rpcIn = nullptr;
    }
    EventManager_Destroy(data->eventQueue);
    data->eventQueue = nullptr;
}

bool OfferFiles(UpgraderData* data) {
    if (!HgfsServer_RegisterWithChannel(data->rpcIn, UPGRADER_APP_NAME)) {
        Warning("Unable to initialize HGFS server.\n");
        return false;
    }
    if (!UpgraderSetGuestFileRoot(data)) {
        Warning("Setting temp directory root failed.\n");
        HgfsServer_UnregisterFromChannel(data->rpcIn, UPGRADER_APP_NAME);
        return false;
    }
    return true;
}

// Gives the new directory's name with its trailing separator.
std::optional<std::string> CreateTemporaryDirectory(const std::string& parent) {
    for (int attempt = 0; attempt < DIRECTORY_ATTEMPTS; ++attempt) {
        std::string name;
        if (!Str_Asprintf(&name, "%s%s%08x%s", parent.c_str(), UPGRADER_SEPARATOR, UpgraderRandom(),
                          UPGRADER_SEPARATOR)) {
            Warning("Failed to allocate string for new directory name.\n");
            return std::nullopt;
        }
        if (File_CreateDirectory(name.c_str())) {
            return name;
        }
    }
    const char* reason = Err_LastErrString();
    Warning("Could not create temporary directory.\n");
    Log_Level(LOG_ALWAYS, "The last attempt was in [%s]: %s", parent.c_str(), reason);
    return std::nullopt;
}

// Sends one request. True when the host accepts it; `text` receives its reply, or why there is none.
bool AskHost(const char* request, std::string* text) {
    char* received = nullptr;
    uint64_t length = 0;
    bool accepted = RpcOut_SendRequest(&received, &length, "%s", request);
    std::unique_ptr<char, FreeReply> reply(received);
    *text = reply ? std::string(reply.get(), static_cast<size_t>(length)) : "no reply";
    return accepted;
}

// Tells the host where to put its files. It agrees with an empty reply.
bool SendGreeting(const std::string& directory) {
    std::string greeting;
    if (!Str_Asprintf(&greeting, "%s %s", "upgrader.setGuestFileRoot", directory.c_str())) {
        Warning("Unable to allocate string for RPC greeting.\n");
        return false;
    }
    std::string reply;
    bool accepted = AskHost(greeting.c_str(), &reply);
    if (accepted && reply.empty()) {
        return true;
    }
    Warning("%s",
            accepted ? "RPC greeting failed: Host software version may not be compatible with the Upgrader.\n"
                     : "Failed to send RPC greeting to set temp directory.\n");
    Log_Level(LOG_ALWAYS, "Reply to the greeting: [%s]", reply.c_str());
    return false;
}

// Tells the host that it need not wait for the new tools.
void SendEnd() {
    Log_Level(LOG_DETAIL, "Telling the host that the installation did not succeed");
    std::string reply;
    if (!AskHost("toolinstall.end 0", &reply)) {
        Warning("Failed to send RPC to end tool install.\n");
        Log_Level(LOG_ALWAYS, "Reply to the end of the installation: [%s]", reply.c_str());
    }
}

bool ExtractImage(const std::string& imagePath, const std::string& directory) {
    Iso9660_Image* image = nullptr;
    Iso9660_Result result = Iso9660_Open(imagePath.c_str(), ISO9660_WANT_JOLIET, 0, &image);
    if (result != Iso9660_Result::Success) {
        Debug("Error in Iso9660_Open\n");
        Log_Level(LOG_ALWAYS, "Could not open the image [%s], result %d%s", imagePath.c_str(),
                  static_cast<int>(result), File_Exists(imagePath.c_str()) ? "" : ": there is no such file");
        return false;
    }
    Debug("Extracting %s to %s\n", imagePath.c_str(), directory.c_str());
    result = Iso9660_Extract(image, UPGRADER_SEPARATOR, directory.c_str());
    if (result == Iso9660_Result::Success) {
        Log_Level(LOG_DETAIL, "Extracted the image to [%s]", directory.c_str());
    } else {
        Debug("Error in Iso9660_Extract\n");
        Log_Level(LOG_ALWAYS, "Could not extract the image to [%s], result %d", directory.c_str(),
                  static_cast<int>(result));
    }
    Iso9660_Close(image);
    return result == Iso9660_Result::Success;
}

// The steps after the first one have no command that starts them.
void ScheduleNextStep(UpgraderData* data) {
    if (data->stepScheduled || data->installPhase == UpgraderPhase::Extract || data->installerProcess) {
        return;
    }
    data->stepScheduled =
        EventManager_Add(data->eventQueue, UPGRADER_NEXT_STEP_DELAY, UpgraderInstallStep, data) != nullptr;
}

// After a successful extraction the image is gone already, and this says what the deletion of a missing file
// says.
void RemoveImage(const std::string& guestFileRoot) {
    std::string directory;
    File_GetPathName(guestFileRoot, &directory, nullptr);
    std::string image = Str_Format("%s%s%s", directory.c_str(), UPGRADER_SEPARATOR, UPGRADER_IMAGE_NAME);
    Debug("Deleting %s... ", image.c_str());
    if (File_Unlink(image.c_str()) != -1) {
        Debug(" succeeded.\n");
        return;
    }
    const char* reason = Err_LastErrString();
    Debug(" failed. Please finish the removal process manually.\n");
    if (File_Exists(image.c_str())) {
        Log_Level(LOG_ALWAYS, "Could not delete the image [%s]: %s", image.c_str(), reason);
    }
}

// Returns at once; the system acts later.
void AskForPowerAction(bool reboot) {
    const char* action = reboot ? "reboot" : "shutdown";
    Debug("%s", reboot ? "Upgrader rebooting VM.\n" : "Upgrader shutting down VM.\n");
    Log_Level(LOG_DETAIL, "Asking the system for a %s", action);
    if (uint32_t error = System_Shutdown(reboot); error != 0) {
        Log_Level(LOG_ALWAYS, "The system refused the %s, error %u", action, static_cast<unsigned>(error));
    }
}

} // namespace

uint32_t UpgraderMain(int argumentCount, char** arguments) {
    if (!Upgrader_CheckVersion()) {
        Warning("The Ravlin Tools Upgrader application must be run in a Virtual Machine.\n");
        return 1;
    }
    Debug("Starting Tools Upgrader\n");
    UpgraderData* data = UpgraderInit(argumentCount, arguments);
    if (!data) {
        Debug("Upgrader failed initialization.\n");
        return 1;
    }
    UpgraderLoop(data);
    UpgraderCleanup(data);
    return 0;
}

UpgraderData* UpgraderInit(int argumentCount, char** arguments) {
    std::unique_ptr<UpgraderData> data(new (std::nothrow) UpgraderData);
    if (!data) {
        Warning("Unable to create upgrader data structure.\n\n");
        return nullptr;
    }
    if (ParseOptions(argumentCount, arguments, data.get()) && StartChannel(data.get()) &&
        OfferFiles(data.get())) {
        return data.release();
    }
    StopChannel(data.get());
    return nullptr;
}

bool UpgraderSetGuestFileRoot(UpgraderData* data) {
    std::optional<std::string> parent = File_GetTmpDir(false);
    if (!parent) {
        Warning("Unable to get system temporary directory.\n");
        return false;
    }
    std::optional<std::string> directory = CreateTemporaryDirectory(*parent);
    if (!directory || !SendGreeting(*directory)) {
        return false;
    }
    Log_Level(LOG_DETAIL, "Guest file root [%s]", directory->c_str());
    data->guestFileRoot = std::move(directory);
    return true;
}

bool UpgraderExtractIso(UpgraderData* data) {
    Debug("Upgrader: Beginning installation.\n");
    std::string imagePath;
    if (!Str_Asprintf(&imagePath, "%s%s", data->guestFileRoot->c_str(), UPGRADER_IMAGE_NAME)) {
        Debug("Error in Str_Asprintf\n");
        return false;
    }
    data->guestFileRoot = imagePath;

    std::string directory;
    File_GetPathName(imagePath, &directory, nullptr);
    if (!ExtractImage(imagePath, directory)) {
        return false;
    }
    data->extractionDirectory = std::move(directory);
    Debug("Unlinking ISO at %s\n", imagePath.c_str());
    File_Unlink(imagePath.c_str());
    return true;
}

bool UpgraderInstallStep(void* clientData) {
    auto* data = static_cast<UpgraderData*>(clientData);
    data->stepScheduled = false;
    switch (data->installPhase) {
    case UpgraderPhase::Extract:
        if (!UpgraderExtractIso(data)) {
            return false;
        }
        data->installPhase = UpgraderPhase::Launch;
        return true;
    case UpgraderPhase::Launch:
        if (!UpgraderLaunchInstaller(data)) {
            return false;
        }
        data->installPhase = UpgraderPhase::HandleResult;
        return true;
    case UpgraderPhase::HandleResult: {
        bool handled = UpgraderInstallerFinished(data);
        data->installPhase = UpgraderPhase::Extract;
        return handled;
    }
    }
    Diag_NotReached(PHASE_UNIT, PHASE_LINE);
}

bool UpgraderTurn(UpgraderData* data, uint64_t* sleep) {
    ScheduleNextStep(data);
    int32_t result = EventManager_RunNext(data->eventQueue, sleep);
    if (result != 1) {
        Debug("Unexpected end of the main loop (%d)\n", result);
        Log_Level(LOG_ALWAYS, "The main loop ended before its time (%d)", static_cast<int>(result));
        return false;
    }
    if (data->stop) {
        return false;
    }
    if (uint32_t signal = upgraderConsoleSignal; signal != 0) {
        Debug("Exiting UpgraderLoop on signal %d\n", static_cast<int>(signal));
        Log_Level(LOG_DETAIL, "Stopped by console signal %d", static_cast<int>(signal));
        return false;
    }
    return true;
}

void UpgraderCleanup(UpgraderData* data) {
    if (data->guestFileRoot) {
        RemoveImage(*data->guestFileRoot);
    }
    if (data->deleteFiles) {
        UpgraderRemoveOwnDirectory();
    }
    UpgraderEnd(data);
}

void UpgraderEnd(UpgraderData* data) {
    // A console signal means that somebody else is already shutting the guest down, or that a person stopped
    // us; a reboot that the user agreed to stands all the same.
    bool shutDown = upgraderConsoleSignal == 0 && data->shutdown;
    bool reboot = data->reboot;

    HgfsServer_UnregisterFromChannel(data->rpcIn, UPGRADER_APP_NAME);
    StopChannel(data);
    if (data->sendEnd) {
        SendEnd();
    }
    delete data;

    if (shutDown || reboot) {
        AskForPowerAction(reboot && !shutDown);
    }
}

bool UpgraderTcloCapReg(const char** result, uint64_t* resultLength, const char* /*name*/,
                        const char* /*args*/, uint64_t /*argsSize*/, void* /*clientData*/) {
    Debug("Received Capabilities_Register from RHD\n");
    if (!RpcOut_SendRequest(nullptr, nullptr, "%s", "tools.capability.upgrader_parameters 1")) {
        Debug("Failed to send upgrader capability to RHD\n");
    }
    if (!HgfsServer_SendCapability(UPGRADER_APP_NAME, true)) {
        Debug("UpgraderTcloCapReg: Failed to register HGFS server capability.\n");
    }
    return RpcIn_SetResult(result, resultLength, "", true);
}

bool UpgraderTcloRun(const char** result, uint64_t* resultLength, const char* /*name*/, const char* args,
                     uint64_t argsSize, void* clientData) {
    auto* data = static_cast<UpgraderData*>(clientData);
    Debug("Received upgrader.run from ravlin\n");
    if (args && argsSize != 0) {
        try {
            data->runArguments.emplace(args, static_cast<size_t>(argsSize));
            data->runArgumentsLength = argsSize;
        } catch (const std::bad_alloc&) {
            Debug("Error in UpgraderTcloRun\n");
            Log_Level(LOG_ALWAYS, "Run: out of memory, nothing will be installed");
            return RpcIn_SetResult(result, resultLength, "", true);
        }
    }
    Log_Level(LOG_DETAIL, "Run [%s]", data->runArguments.value_or("").c_str());
    data->stepScheduled =
        EventManager_Add(data->eventQueue, UPGRADER_FIRST_STEP_DELAY, UpgraderInstallStep, data) != nullptr;
    if (!data->stepScheduled) {
        Log_Level(LOG_ALWAYS, "Run: nothing could be scheduled, nothing will be installed");
    }
    return RpcIn_SetResult(result, resultLength, "", true);
}

bool UpgraderTcloCancel(const char** result, uint64_t* resultLength, const char* /*name*/,
                        const char* /*args*/, uint64_t /*argsSize*/, void* clientData) {
    auto* data = static_cast<UpgraderData*>(clientData);
    Debug("Received upgrader.cancel from RHD\n");
    Log_Level(LOG_DETAIL, "Cancelled by the host");
    data->stop = true;
    data->sendEnd = false;
    return RpcIn_SetResult(result, resultLength, "", true);
}

bool UpgraderTcloReset(RpcInCall* call) {
    static char answer[] = "ATR tools-upgrader";
    Debug("Received reset from RHD\n");
    call->result = answer;
    call->resultLen = sizeof answer - 1;
    return true;
}

void UpgraderRpcError(void* clientData, const char* text) {
    auto* data = static_cast<UpgraderData*>(clientData);
    Warning("Error in the RPC receive loop: %s.\n\n", text);
    data->stop = true;
}
