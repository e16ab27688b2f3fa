// Message channel over the hypervisor port: whole byte strings in both directions.
//
// Failure is a false or null result and nothing is logged here. After a failure the owner closes the channel
// and opens a new one; there is no reopen. A virtual machine that was saved and restored in mid-transfer
// (checkpoint) makes the transfer start again, at most HOSTCHANNEL_MAX_RESTARTS times. One thread at a time
// per channel.
#pragma once

#include <cstdint>

struct HostChannel;

inline constexpr uint32_t HOSTCHANNEL_TCLO = 0x4F4C4354;        // "TCLO": host-to-guest commands
inline constexpr uint32_t HOSTCHANNEL_RPCI = 0x49435052;        // "RPCI": guest-to-host requests
inline constexpr uint32_t HOSTCHANNEL_COOKIE_FLAG = 0x80000000; // ORed into the protocol of the first open

// A real host restarts a transfer once per save and restore. A thousand in one transfer is a broken one.
inline constexpr unsigned HOSTCHANNEL_MAX_RESTARTS = 1000;

// Message sub-commands, in cx bits 16 to 31.
enum class HostChannel_SubCommand : uint16_t {
    Open = 0,
    SendSize = 1,
    SendPayload = 2,
    ReceiveSize = 3,
    ReceivePayload = 4,
    ReceiveStatus = 5,
    Close = 6,
};

// Status bits: cx bits 16 to 23 after a low-bandwidth call, bx bits 16 to 23 after a high-bandwidth one.
inline constexpr uint8_t HOSTCHANNEL_SUCCESS = 0x01;
inline constexpr uint8_t HOSTCHANNEL_DO_RECEIVE = 0x02;
inline constexpr uint8_t HOSTCHANNEL_CHECKPOINT = 0x10;
inline constexpr uint8_t HOSTCHANNEL_HIGH_BANDWIDTH = 0x80;

// Opens a channel of a protocol (HOSTCHANNEL_TCLO or HOSTCHANNEL_RPCI). Null on failure; the caller closes
// it.
HostChannel* HostChannel_Open(uint32_t protocol);

// Sends `length` bytes as one message; a message may be empty and may hold NUL bytes.
bool HostChannel_Send(HostChannel* channel, const uint8_t* buffer, uint64_t length);

// Receives the waiting message, if any. With no message waiting: true, *length = 0, *buffer untouched. Else
// *buffer points into the channel's own buffer, followed by a NUL byte at *length, valid until the next
// receive or the close. After a failure neither output means anything.
bool HostChannel_Receive(HostChannel* channel, uint8_t** buffer, uint64_t* length);

// Closes and frees the channel, whatever the host says; returns whether the host agreed.
bool HostChannel_Close(HostChannel* channel);

// The seam for another transport: a slot that is set takes the whole call. Nothing in the program sets one.
// Set before the first use, from one thread.
struct HostChannel_Transport {
    HostChannel* (*open)(uint32_t protocol);
    bool (*send)(HostChannel* channel, const uint8_t* buffer, uint64_t length);
    bool (*receive)(HostChannel* channel, uint8_t** buffer, uint64_t* length);
    bool (*close)(HostChannel* channel);
};
extern HostChannel_Transport hostChannelTransport;
