// A model of the hypervisor's side of the port: registers go in, registers come out.
//
// It answers the version query, keeps the message channels, moves messages at low and at high bandwidth, and
// checks every register that the guest has to set; whatever deviates is refused and recorded. Answers carry
// junk wherever the guest may not look, so that a guest that does look is found out. Faults are answered on
// request. The model makes no system call and has no thread; the guest's memory is reached through two
// callbacks.
#pragma once

#include "hostChannel/hostChannel.h"
#include "hvPort/hvPort.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

inline constexpr size_t HYPERVISOR_CHANNELS = 8;
// The longest message in either direction: a large file packet with its command and result words, rounded up.
inline constexpr uint64_t HYPERVISOR_MAX_MESSAGE = uint64_t{128} * 1024;
// Deviations beyond this many are counted but not kept.
inline constexpr size_t HYPERVISOR_MAX_DEVIATIONS = 100;

// Guest memory by virtual address. Both return false when not every byte is there.
struct Hypervisor_Memory {
    bool (*read)(void* clientData, uint64_t address, uint8_t* bytes, size_t length) = nullptr;
    bool (*write)(void* clientData, uint64_t address, const uint8_t* bytes, size_t length) = nullptr;
    void* clientData = nullptr;
};

// Memory of this very process, for a guest that runs inside it.
Hypervisor_Memory Hypervisor_OwnMemory();

// Whoever talks over the channels. Any callback may be null.
struct Hypervisor_Service {
    void (*opened)(void* clientData, uint16_t channel, uint32_t protocol) = nullptr;
    // One whole message from the guest.
    void (*fromGuest)(void* clientData, uint16_t channel, std::span<const uint8_t> message) = nullptr;
    // The guest asks for a message and none is waiting. True with the message, or false for none.
    bool (*forGuest)(void* clientData, uint16_t channel, std::vector<uint8_t>* message) = nullptr;
    // The message went to the guest (true), or the guest gave it up (false).
    void (*delivered)(void* clientData, uint16_t channel, bool received) = nullptr;
    void (*closed)(void* clientData, uint16_t channel) = nullptr;
    void* clientData = nullptr;
};

// Faults on request. Calls are numbered from 1 over the whole run; 0 means never.
struct Hypervisor_Faults {
    uint64_t failCall = 0; // this call and the failCount - 1 after it fail
    uint64_t failCount = 1;
    uint64_t checkpointCall = 0; // the same with a checkpoint in place of the failure
    uint64_t checkpointCount = 1;
    bool checkpointPayloads = false; // every payload call is answered with a checkpoint
    bool refuseCookieOpen = false;   // knows no cookie flag
    bool lowBandwidth = false;       // never offers the high-bandwidth port
    uint32_t refusedProtocol = 0;    // refuses to open channels of this protocol
    uint32_t version = HVPORT_VERSION;
    bool silent = false; // leaves the version query unanswered
};

struct Hypervisor_Counts {
    uint64_t calls = 0; // all port accesses
    uint64_t lowCalls = 0;
    uint64_t bulkOuts = 0;
    uint64_t bulkIns = 0;
    uint64_t faults = 0; // answered with a fault on request
    uint64_t messagesFromGuest = 0;
    uint64_t messagesToGuest = 0;
    uint64_t bytesFromGuest = 0;
    uint64_t bytesToGuest = 0;
};

struct Hypervisor_Channel {
    enum class Transfer {
        Idle,
        Sending,    // a size was announced, the payload is coming
        Receiving,  // a size was answered, the payload is going
        OwesNotice, // a receive was failed: the guest has to say that it knows
    };

    bool open = false;
    bool guestBelievesClosed = false; // its close call was failed on request
    uint16_t id = 0;
    uint32_t protocol = 0;
    uint32_t cookieHigh = 0;
    uint32_t cookieLow = 0;
    Transfer transfer = Transfer::Idle;
    bool bulk = false;                           // high bandwidth was offered for this transfer
    std::vector<uint8_t> out;                    // from the guest, so far
    uint64_t announced = 0;                      // its length
    std::optional<std::vector<uint8_t>> waiting; // for the guest, until it has acknowledged it
    uint64_t position = 0;                       // bytes of `waiting` that have gone
    HostChannel_SubCommand notice = HostChannel_SubCommand::Open; // owed, in OwesNotice
};

enum class Hypervisor_Instruction { In, BulkOut, BulkIn };

struct Hypervisor {
    Hypervisor_Memory memory;
    Hypervisor_Service service;
    Hypervisor_Faults faults;
    Hypervisor_Counts counts;
    std::vector<std::string> deviations; // "call 12: ..."; the first HYPERVISOR_MAX_DEVIATIONS
    uint64_t deviationCount = 0;
    std::array<Hypervisor_Channel, HYPERVISOR_CHANNELS> channels;
    uint32_t opens = 0; // channels opened so far; makes ids and cookies
};

// Answers one port access. `backwards`: the direction flag was set, which no bulk access may have.
void Hypervisor_Call(Hypervisor* hypervisor, Hypervisor_Instruction instruction, bool backwards,
                     HvPort_Registers* registers);

// Channels that the guest has opened and neither closed nor tried to close.
size_t Hypervisor_OpenChannels(const Hypervisor& hypervisor);
