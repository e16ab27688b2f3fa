// The heart of the upgrader: its one state record, the host's commands, and the steps of an installation.
//
// One thread. Every callback runs from the event queue inside UpgraderLoop, so the record needs no lock; only
// the console signal is written by another thread.
#pragma once

#include "eventManager/eventManager.h"
#include "procMgr/procMgr.h"
#include "rpcin/rpcin.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

inline constexpr char UPGRADER_APP_NAME[] = "tools-upgrader"; // as the host knows the file server's owner
inline constexpr char UPGRADER_IMAGE_NAME[] = "windows.iso";
inline constexpr char UPGRADER_SETUP_NAME[] = "setup.exe";
inline constexpr char UPGRADER_SEPARATOR[] = "\\";

// Delays in ticks of 10 ms.
inline constexpr uint32_t UPGRADER_MAX_POLL_DELAY = 10;   // ceiling of the host channel's back-off
inline constexpr uint32_t UPGRADER_FIRST_STEP_DELAY = 15; // "upgrader.run" to the first step
inline constexpr uint32_t UPGRADER_NEXT_STEP_DELAY = 20;  // one step to the next

// What an installation does next. The numbers are the ones that support knows from old logs.
enum class UpgraderPhase : int {
    Extract = 0,
    HandleResult = 3,
    Launch = 8,
};

struct ProcMgrFree {
    void operator()(ProcMgr_AsyncProc* process) const { ProcMgr_Free(process); }
};

struct UpgraderData {
    EventManager* eventQueue = nullptr; // owned
    RpcIn* rpcIn = nullptr;             // owned
    bool stop = false;                  // ends UpgraderLoop after the current turn
    bool deleteFiles = false;           // -c: remove the program's own directory when finished
    bool shutdown = false;              // -s: shut the guest down when finished
    bool sendEnd = true;                // tell the host "toolinstall.end 0" at tear-down
    // The temporary directory with its trailing separator; the image's full path once installation has begun.
    std::optional<std::string> guestFileRoot;
    UpgraderPhase installPhase = UpgraderPhase::Extract;
    std::optional<std::string> extractionDirectory; // without a trailing separator, cleared once launched
    std::unique_ptr<ProcMgr_AsyncProc, ProcMgrFree> installerProcess; // present while the installer runs
    int32_t installerExitCode = -1;
    bool stepScheduled = false;                // an installation step waits on the event queue
    bool reboot = false;                       // reboot the guest at tear-down
    std::optional<std::string> runArguments;   // text of "upgrader.run", its leading blank included
    uint64_t runArgumentsLength = 0;           // bytes, as the host sent it
    std::optional<std::string> setupArguments; // -p
    bool rebootSuppressed = false;             // the installer was told not to ask for a restart
};

// Beside the record: the first console control event that is not 0 (1 break, 2 close, 5 log-off, 6 shutdown),
// else 0. The system's console thread writes it.
extern std::atomic<uint32_t> upgraderConsoleSignal;
// The reboot prompt's timer fired and posted a quit message.
extern bool upgraderRebootPromptQuit;

// --- upgrader.cpp: platform-neutral ---

// The whole run. Returns the process's exit code: 0 once start-up succeeded, whatever the installer did; 1
// when the machine check or start-up failed. arguments[0] is the program's own full path.
uint32_t UpgraderMain(int argumentCount, char** arguments);

// Options, channel, file server, temporary directory and greeting. Null on failure, which has then been
// logged.
UpgraderData* UpgraderInit(int argumentCount, char** arguments);
bool UpgraderSetGuestFileRoot(UpgraderData* data);
bool UpgraderExtractIso(UpgraderData* data);
bool UpgraderInstallStep(void* data); // event-queue callback; false ends the loop

// One turn of the loop without its wait: schedules the next installation step, runs one due event and gives
// the time until the next one in microseconds. False when the loop has to end; the reason has then been
// logged.
bool UpgraderTurn(UpgraderData* data, uint64_t* sleep);

void UpgraderCleanup(UpgraderData* data); // removes what the run left behind, then UpgraderEnd
void UpgraderEnd(UpgraderData* data);     // tear-down; frees the record

bool UpgraderTcloCapReg(const char** result, uint64_t* resultLength, const char* name, const char* args,
                        uint64_t argsSize, void* clientData);
bool UpgraderTcloRun(const char** result, uint64_t* resultLength, const char* name, const char* args,
                     uint64_t argsSize, void* clientData);
bool UpgraderTcloCancel(const char** result, uint64_t* resultLength, const char* name, const char* args,
                        uint64_t argsSize, void* clientData);
bool UpgraderTcloReset(RpcInCall* call);
void UpgraderRpcError(void* clientData, const char* text);

// --- The platform's side ---

void UpgraderUsage(const char* programPath);        // the usage box
void UpgraderLoop(UpgraderData* data);              // runs the queue and waits for the installer
void UpgraderRemoveOwnDirectory();                  // -c: queues the program's directory for the next restart
bool UpgraderLaunchInstaller(UpgraderData* data);   // phase Launch
bool UpgraderInstallerFinished(UpgraderData* data); // phase HandleResult; always true
uint32_t UpgraderRandom();                          // 32 bits from the system's cryptographic generator
