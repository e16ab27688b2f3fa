#include "tinyGuest.h"

#include "rpcout/rpcout.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr uint32_t MAX_DELAY = 10;
constexpr uint32_t RUN_DELAY = 15;
constexpr unsigned MOST_TURNS = 100000; // a guest that nobody stops

bool Capabilities(const char** result, uint64_t* length, const char*, const char*, uint64_t, void* data) {
    auto* guest = static_cast<TinyGuest*>(data);
    RpcOut_SendRequest(nullptr, nullptr, "tools.capability.upgrader_parameters 1");
    return RpcIn_SetResult(result, length, guest->capabilityReply, guest->capabilityStatus);
}

bool Install(void* data) {
    auto* guest = static_cast<TinyGuest*>(data);
    guest->say(guest->clientData, "Upgrader: Beginning installation.\n");
    guest->say(guest->clientData, "Attempting to launch \"x\"\n");
    if (guest->onRun) {
        guest->onRun(guest);
        return true;
    }
    guest->say(guest->clientData, "Setup process returned 0\n");
    guest->sendEnd = !guest->installs;
    guest->stop = true;
    return true;
}

bool Run(const char** result, uint64_t* length, const char*, const char* args, uint64_t size, void* data) {
    auto* guest = static_cast<TinyGuest*>(data);
    guest->ran.emplace_back(args, static_cast<size_t>(size));
    EventManager_Add(guest->queue, RUN_DELAY, Install, guest);
    return RpcIn_SetResult(result, length, "", true);
}

bool Cancel(const char** result, uint64_t* length, const char*, const char*, uint64_t, void* data) {
    auto* guest = static_cast<TinyGuest*>(data);
    guest->stop = true;
    guest->sendEnd = false;
    return RpcIn_SetResult(result, length, "", true);
}

bool Packet(const char** result, uint64_t* length, const char*, const char* args, uint64_t size, void* data) {
    auto* guest = static_cast<TinyGuest*>(data);
    std::span packet(reinterpret_cast<const uint8_t*>(args) + 1, static_cast<size_t>(size - 1));
    guest->packetReply = guest->server.Answer(packet);
    *result = reinterpret_cast<const char*>(guest->packetReply.data());
    *length = guest->packetReply.size();
    return true;
}

bool Reset(RpcInCall* call) {
    static char text[] = "ATR tools-upgrader";
    call->result = text;
    call->resultLen = std::strlen(text);
    return true;
}

void Failed(void* data, const char* /*text*/) {
    static_cast<TinyGuest*>(data)->stop = true;
}

bool Greet(const TinyGuest& guest) {
    char* reply = nullptr;
    uint64_t length = 0;
    bool sent = RpcOut_SendRequest(&reply, &length, "upgrader.setGuestFileRoot %s", guest.root);
    bool accepted = sent && length == 0;
    std::free(reply);
    return accepted;
}

void Loop(TinyGuest* guest) {
    uint64_t sleep = 0;
    while (!guest->stop && EventManager_RunNext(guest->queue, &sleep) == 1) {
        guest->sleep(sleep);
        if (++guest->turns == guest->stopAfter || guest->turns > MOST_TURNS) {
            break;
        }
    }
}

bool Serve(TinyGuest* guest) {
    if (!RpcIn_start(guest->in, MAX_DELAY, Reset, guest, Failed, guest)) {
        return false;
    }
    RpcIn_RegisterCallback(guest->in, "Capabilities_Register", Capabilities, guest);
    RpcIn_RegisterCallback(guest->in, "upgrader.run", Run, guest);
    RpcIn_RegisterCallback(guest->in, "upgrader.cancel", Cancel, guest);
    RpcIn_RegisterCallback(guest->in, "f", Packet, guest);
    bool greeted = Greet(*guest);
    if (greeted) {
        Loop(guest);
    }
    RpcIn_stop(guest->in);
    return greeted;
}

} // namespace

bool TinyGuest_Live(TinyGuest* guest) {
    guest->queue = EventManager_Create();
    guest->in = RpcIn_Create(guest->queue);
    bool served = Serve(guest);
    RpcIn_Free(guest->in);
    EventManager_Destroy(guest->queue);
    for (int i = 0; served && guest->sendEnd && i < (guest->endsTwice ? 2 : 1); ++i) {
        RpcOut_SendRequest(nullptr, nullptr, "toolinstall.end 0");
    }
    return served;
}
