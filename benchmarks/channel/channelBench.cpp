// What the host channel costs above the bare port accesses that it is made of: a poll, a request, and an
// image copied through command loop and file server. All inside this process, on the real port instructions.
#include "benchmarks/support/measure.h"
#include "eventManager/eventManager.h"
#include "hgfslib/hgfsServer.h"
#include "rpcin/rpcin.h"
#include "rpcout/rpcout.h"
#include "sim/host.h"
#include "sim/inProcess.h"
#include "support/diagCapture.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <windows.h>

namespace {

constexpr int ROUNDS = 7;
constexpr uint64_t IMAGE_SIZE = uint64_t{64} << 20;
constexpr size_t PIECE = kHgfsLargePacketMax - HgfsWriteRequestV3::Data;

// Runs both in turns and writes the row; each gives the time of one of its units.
template <typename Ours, typename Reference>
void Compare(const char* name, const char* unit, Ours ours, Reference reference) {
    std::vector<double> values;
    std::vector<double> references;
    std::vector<double> ratios;
    for (int round = 0; round < ROUNDS; ++round) {
        values.push_back(ours());
        references.push_back(reference());
        ratios.push_back(values.back() / references.back());
    }
    std::printf("%s\t%.2f\t%s\t%.2f\t%.2f\n", name, Median(values), unit, Median(references), Median(ratios));
    std::fflush(stdout);
}

// One port access and nothing else: the version query.
double PortCall() {
    constexpr int CALLS = 2000;
    uint32_t version = 0;
    uint32_t type = 0;
    double start = Microseconds();
    for (int i = 0; i < CALLS; ++i) {
        HvPort_GetVersion(&version, &type);
    }
    return (Microseconds() - start) / CALLS;
}

struct Guest {
    Hypervisor hypervisor;
    Host host;
    InProcess_Port port{&hypervisor};
    EventManager* queue = EventManager_Create();
    RpcIn* in = RpcIn_Create(queue);
    bool stop = false;

    Guest() {
        hypervisor.memory = Hypervisor_OwnMemory();
        hypervisor.service = Host_Service(&host);
        auto failed = [](void* data, const char* text) {
            std::printf("the channel failed: %s\n", text);
            static_cast<Guest*>(data)->stop = true;
        };
        RpcIn_start(in, 0, nullptr, nullptr, failed, this); // no back-off: polls without a pause
        RpcIn_RegisterCallback(in, "upgrader.cancel", Cancel, this);
        HgfsServer_RegisterWithChannel(in, "tools-upgrader");
    }
    ~Guest() {
        HgfsServer_UnregisterFromChannel(in, "tools-upgrader");
        RpcIn_stop(in);
        RpcIn_Free(in);
        EventManager_Destroy(queue);
        for (const Host_Problem& problem : host.problems) {
            std::printf("problem: %s\n", problem.text.c_str());
        }
    }
    Guest(const Guest&) = delete;
    Guest& operator=(const Guest&) = delete;

    static bool Cancel(const char** result, uint64_t* length, const char*, const char*, uint64_t,
                       void* data) {
        static_cast<Guest*>(data)->stop = true;
        return RpcIn_SetResult(result, length, "", true);
    }

    void Turn() {
        uint64_t sleep = 0;
        EventManager_RunNext(queue, &sleep);
    }
};

double Poll() {
    constexpr int POLLS = 1000;
    Guest guest;
    double start = Microseconds();
    for (int i = 0; i < POLLS; ++i) {
        guest.Turn();
    }
    return (Microseconds() - start) / POLLS;
}

double Request() {
    constexpr int REQUESTS = 500;
    Guest guest;
    double start = Microseconds();
    for (int i = 0; i < REQUESTS; ++i) {
        RpcOut_SendRequest(nullptr, nullptr, "tools.capability.upgrader_parameters 1");
    }
    double each = (Microseconds() - start) / REQUESTS;
    DiagCapture_Take();
    return each;
}

// A fresh directory as the program makes one, with its last separator.
std::string MakeRoot() {
    char base[MAX_PATH];
    GetTempPathA(MAX_PATH, base);
    std::string root = std::string(base) + "0badcafe\\";
    CreateDirectoryA(root.c_str(), nullptr);
    return root;
}

bool ReadPattern(void* /*clientData*/, uint64_t offset, uint8_t* bytes, size_t length) {
    std::memset(bytes, static_cast<int>(offset >> 8), length);
    return true;
}

double CopyImage(const std::string& root) {
    Guest guest;
    guest.host.client.source = {ReadPattern, nullptr, IMAGE_SIZE};
    for (const char* text : {"greeting", "copy", "cancel"}) {
        std::string error;
        Host_ParseStep(text, &guest.host.steps.emplace_back(), &error);
    }
    Host_Start(&guest.host);
    RpcOut_SendRequest(nullptr, nullptr, "upgrader.setGuestFileRoot %s", root.c_str());
    double start = Microseconds();
    while (!guest.stop) {
        guest.Turn();
    }
    double took = Microseconds() - start;
    DeleteFileA((root + "windows.iso").c_str());
    return took / 1000;
}

// The same bytes by the same pieces, straight into a file.
double WriteImage(const std::string& root) {
    std::vector<uint8_t> piece(PIECE);
    std::string path = root + "plain.iso";
    double start = Microseconds();
    HANDLE file = CreateFileA(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    for (uint64_t offset = 0; offset < IMAGE_SIZE; offset += PIECE) {
        ReadPattern(nullptr, offset, piece.data(), PIECE);
        DWORD written = 0;
        WriteFile(file, piece.data(), static_cast<DWORD>(std::min<uint64_t>(PIECE, IMAGE_SIZE - offset)),
                  &written, nullptr);
    }
    CloseHandle(file);
    double took = Microseconds() - start;
    DeleteFileA(path.c_str());
    return took / 1000;
}

} // namespace

int main() {
    constexpr double POLL_CALLS = 2;    // send size, receive size
    constexpr double REQUEST_CALLS = 7; // open; size and payload; size, payload and status; close
    {
        Guest guest; // answers the bare calls
        std::printf("port call, in process\t%.2f\tus\t-\t-\n", PortCall());
    }
    auto bare = [](double calls) {
        return [calls] {
            Guest guest;
            return calls * PortCall();
        };
    };
    Compare("poll without a command (its port calls)", "us", Poll, bare(POLL_CALLS));
    Compare("guest-to-host request (its port calls)", "us", Request, bare(REQUEST_CALLS));
    std::string root = MakeRoot();
    Compare(
        "64 MiB copied in, in process (bare WriteFile)", "ms", [&] { return CopyImage(root); },
        [&] { return WriteImage(root); });
    RemoveDirectoryA(root.c_str());
    return 0;
}
