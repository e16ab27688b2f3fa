// A small guest for the host: the real command loop, requests and event queue, a file server in memory, and
// no installation. It can be told to misbehave.
#pragma once

#include "eventManager/eventManager.h"
#include "fileServer.h"
#include "rpcin/rpcin.h"

#include <cstdint>
#include <string>
#include <vector>

struct TinyGuest {
    // Behaviour.
    const char* root = "C:\\Temp\\0a1b2c3d\\";
    bool installs = true; // "upgrader.run" ends well; else the host is told
    bool endsTwice = false;
    const char* capabilityReply = "";
    bool capabilityStatus = true;
    unsigned stopAfter = 0;                    // turns; 0 never
    void (*onRun)(TinyGuest* guest) = nullptr; // in place of the installation
    void (*say)(void* clientData, const char* text) = nullptr;
    void (*sleep)(uint64_t microseconds) = nullptr;
    void* clientData = nullptr;

    // What has happened.
    EventManager* queue = nullptr;
    RpcIn* in = nullptr;
    FileServer server;
    std::vector<uint8_t> packetReply;
    bool stop = false;
    bool sendEnd = true;
    unsigned turns = 0;
    std::vector<std::string> ran; // argument texts of "upgrader.run"
};

// The whole life; false when it never got as far as its loop.
bool TinyGuest_Live(TinyGuest* guest);
