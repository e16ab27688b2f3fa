// The channel protocol. A message in either direction is a size call, the payload, and (when receiving) a
// status call. The payload goes 4 bytes a call through the low-bandwidth port, or whole through the
// high-bandwidth port when the size call's reply offers that.

#include "hostChannel/hostChannel.h"

#include "hvPort/hvPort.h"

#include <cstddef>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <utility>

struct HostChannel {
    uint16_t id = 0; // assigned by the hypervisor; repeated in every call with the two cookie words
    std::unique_ptr<uint8_t[]> in; // receive buffer; grows to the largest message and never shrinks
    uint64_t inAlloc = 0;          // its capacity in bytes
    uint32_t cookieHigh = 0;
    uint32_t cookieLow = 0;
};

HostChannel_Transport hostChannelTransport{};

namespace {

constexpr uint16_t BULK_COMMAND_MESSAGE = 0;
constexpr uint16_t BULK_PROCEED = 1; // upper half of bx on the way in
constexpr uint64_t RECEIVE_OK = 1;   // bx of ReceivePayload and ReceiveStatus
constexpr uint64_t RECEIVE_FAILED = 0;
constexpr uint16_t REPLY_SEND_SIZE = 1; // upper half of dx: what the host is doing in turn
constexpr uint16_t REPLY_SEND_PAYLOAD = 2;
constexpr size_t WORD_BYTES = 4; // payload of one low-bandwidth call

// Only the low byte of the status half counts.
uint8_t Status(uint64_t word) {
    return static_cast<uint8_t>(HvPort_High(word));
}

bool Has(uint8_t status, uint8_t bit) {
    return (status & bit) != 0;
}

HvPort_Registers LowCall(HostChannel_SubCommand subCommand, uint64_t argument) {
    HvPort_Registers registers{};
    registers.bx = argument;
    registers.cx = HvPort_Word(static_cast<uint16_t>(subCommand), HVPORT_COMMAND_MESSAGE);
    return registers;
}

// One low-bandwidth call on an open channel; the status is in cx afterwards.
HvPort_Registers Call(const HostChannel* channel, HostChannel_SubCommand subCommand, uint64_t argument) {
    HvPort_Registers registers = LowCall(subCommand, argument);
    registers.dx = HvPort_Word(channel->id, 0);
    registers.si = channel->cookieHigh;
    registers.di = channel->cookieLow;
    HvPort(&registers);
    return registers;
}

HvPort_Registers BulkRegisters(const HostChannel* channel, uint64_t length) {
    HvPort_Registers registers{};
    registers.bx = HvPort_Word(BULK_PROCEED, BULK_COMMAND_MESSAGE);
    registers.cx = length;
    registers.dx = HvPort_Word(channel->id, 0);
    return registers;
}

// The two bulk calls give the status. The buffer's address displaces one cookie word into bp.
uint8_t BulkSend(const HostChannel* channel, const uint8_t* buffer, uint64_t length) {
    HvPort_Registers registers = BulkRegisters(channel, length);
    registers.si = reinterpret_cast<uintptr_t>(buffer);
    registers.di = channel->cookieLow;
    registers.bp = channel->cookieHigh;
    HvPort_BulkOut(&registers);
    return Status(registers.bx);
}

uint8_t BulkReceive(const HostChannel* channel, uint8_t* buffer, uint64_t length) {
    HvPort_Registers registers = BulkRegisters(channel, length);
    registers.si = channel->cookieHigh;
    registers.di = reinterpret_cast<uintptr_t>(buffer);
    registers.bp = channel->cookieLow;
    HvPort_BulkIn(&registers);
    return Status(registers.bx);
}

uint64_t PackWord(const uint8_t* bytes, size_t count) {
    uint64_t word = 0;
    for (size_t i = 0; i < count; ++i) {
        word |= static_cast<uint64_t>(bytes[i]) << (8 * i);
    }
    return word;
}

void UnpackWord(uint64_t word, uint8_t* bytes, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<uint8_t>(word >> (8 * i));
    }
}

size_t WordPart(uint64_t remaining) {
    return remaining < WORD_BYTES ? static_cast<size_t>(remaining) : WORD_BYTES;
}

uint8_t SendByWords(const HostChannel* channel, const uint8_t* buffer, uint64_t length) {
    uint8_t status = HOSTCHANNEL_SUCCESS;
    for (uint64_t done = 0; done < length && Has(status, HOSTCHANNEL_SUCCESS);) {
        size_t part = WordPart(length - done);
        status = Status(Call(channel, HostChannel_SubCommand::SendPayload, PackWord(buffer + done, part)).cx);
        done += part;
    }
    return status;
}

// Room for `length` bytes and a NUL, keeping what is there.
bool GrowReceiveBuffer(HostChannel* channel, uint64_t length) {
    uint64_t wanted = length + 1;
    if (wanted <= channel->inAlloc) {
        return true;
    }
    std::unique_ptr<uint8_t[]> grown(new (std::nothrow) uint8_t[static_cast<size_t>(wanted)]);
    if (!grown) {
        return false;
    }
    if (channel->in) {
        std::memcpy(grown.get(), channel->in.get(), static_cast<size_t>(channel->inAlloc));
    }
    channel->in = std::move(grown);
    channel->inAlloc = wanted;
    return true;
}

enum class ReceiveStep { Done, Checkpoint, Failed };

ReceiveStep AfterFailure(uint8_t status) {
    return Has(status, HOSTCHANNEL_CHECKPOINT) ? ReceiveStep::Checkpoint : ReceiveStep::Failed;
}

// `remaining` counts down the bytes that have not arrived.
ReceiveStep ReceiveByWords(HostChannel* channel, uint8_t* buffer, uint64_t* remaining) {
    while (*remaining > 0) {
        HvPort_Registers reply = Call(channel, HostChannel_SubCommand::ReceivePayload, RECEIVE_OK);
        if (!Has(Status(reply.cx), HOSTCHANNEL_SUCCESS)) {
            return AfterFailure(Status(reply.cx));
        }
        if (HvPort_High(reply.dx) != REPLY_SEND_PAYLOAD) {
            return ReceiveStep::Failed;
        }
        size_t part = WordPart(*remaining);
        UnpackWord(reply.bx, buffer, part);
        buffer += part;
        *remaining -= part;
    }
    return ReceiveStep::Done;
}

// Payload and closing status call of one announced message.
ReceiveStep ReceiveMessage(HostChannel* channel, uint64_t length, bool bulk, uint64_t* remaining) {
    if (!GrowReceiveBuffer(channel, length)) {
        return ReceiveStep::Failed;
    }
    if (bulk && length > 0) {
        // The count of remaining bytes stays as it is: the host expects the payload form of the failure
        // notice for everything that goes wrong after a bulk transfer.
        uint8_t status = BulkReceive(channel, channel->in.get(), length);
        if (!Has(status, HOSTCHANNEL_SUCCESS)) {
            return AfterFailure(status);
        }
    } else {
        ReceiveStep step = ReceiveByWords(channel, channel->in.get(), remaining);
        if (step != ReceiveStep::Done) {
            return step;
        }
    }
    channel->in[static_cast<size_t>(length)] = 0;
    uint8_t status = Status(Call(channel, HostChannel_SubCommand::ReceiveStatus, RECEIVE_OK).cx);
    return Has(status, HOSTCHANNEL_SUCCESS) ? ReceiveStep::Done : AfterFailure(status);
}

void NotifyReceiveFailed(const HostChannel* channel, uint64_t remaining) {
    Call(channel,
         remaining > 0 ? HostChannel_SubCommand::ReceivePayload : HostChannel_SubCommand::ReceiveStatus,
         RECEIVE_FAILED);
}

} // namespace

HostChannel* HostChannel_Open(uint32_t protocol) {
    if (hostChannelTransport.open) {
        return hostChannelTransport.open(protocol);
    }
    std::unique_ptr<HostChannel> channel(new (std::nothrow) HostChannel);
    if (!channel) {
        return nullptr;
    }
    // A hypervisor too old for the cookie flag refuses the first form.
    for (uint32_t argument : {protocol | HOSTCHANNEL_COOKIE_FLAG, protocol}) {
        HvPort_Registers registers = LowCall(HostChannel_SubCommand::Open, argument);
        HvPort(&registers);
        if (Has(Status(registers.cx), HOSTCHANNEL_SUCCESS)) {
            channel->id = HvPort_High(registers.dx);
            channel->cookieHigh = static_cast<uint32_t>(registers.si);
            channel->cookieLow = static_cast<uint32_t>(registers.di);
            return channel.release();
        }
    }
    return nullptr;
}

bool HostChannel_Send(HostChannel* channel, const uint8_t* buffer, uint64_t length) {
    if (hostChannelTransport.send) {
        return hostChannelTransport.send(channel, buffer, length);
    }
    if (length > std::numeric_limits<uint32_t>::max()) {
        return false; // the size word has 32 bits
    }
    for (unsigned restarts = 0; restarts <= HOSTCHANNEL_MAX_RESTARTS; ++restarts) {
        uint8_t status = Status(Call(channel, HostChannel_SubCommand::SendSize, length).cx);
        if (!Has(status, HOSTCHANNEL_SUCCESS)) {
            return false;
        }
        if (length > 0) {
            status = Has(status, HOSTCHANNEL_HIGH_BANDWIDTH) ? BulkSend(channel, buffer, length)
                                                             : SendByWords(channel, buffer, length);
        }
        if (Has(status, HOSTCHANNEL_SUCCESS)) {
            return true;
        }
        if (!Has(status, HOSTCHANNEL_CHECKPOINT)) {
            return false;
        }
    }
    return false;
}

bool HostChannel_Receive(HostChannel* channel, uint8_t** buffer, uint64_t* length) {
    if (hostChannelTransport.receive) {
        return hostChannelTransport.receive(channel, buffer, length);
    }
    for (unsigned restarts = 0; restarts <= HOSTCHANNEL_MAX_RESTARTS; ++restarts) {
        HvPort_Registers reply = Call(channel, HostChannel_SubCommand::ReceiveSize, 0);
        uint8_t status = Status(reply.cx);
        if (!Has(status, HOSTCHANNEL_SUCCESS)) {
            return false;
        }
        if (!Has(status, HOSTCHANNEL_DO_RECEIVE)) {
            *length = 0;
            return true;
        }
        if (HvPort_High(reply.dx) != REPLY_SEND_SIZE) {
            return false;
        }
        uint64_t size = static_cast<uint32_t>(reply.bx);
        uint64_t remaining = size;
        switch (ReceiveMessage(channel, size, Has(status, HOSTCHANNEL_HIGH_BANDWIDTH), &remaining)) {
        case ReceiveStep::Done:
            *length = size;
            *buffer = channel->in.get();
            return true;
        case ReceiveStep::Failed:
            NotifyReceiveFailed(channel, remaining);
            return false;
        case ReceiveStep::Checkpoint:
            break;
        }
    }
    return false;
}

bool HostChannel_Close(HostChannel* channel) {
    if (hostChannelTransport.close) {
        return hostChannelTransport.close(channel);
    }
    std::unique_ptr<HostChannel> owner(channel);
    return Has(Status(Call(channel, HostChannel_SubCommand::Close, 0).cx), HOSTCHANNEL_SUCCESS);
}
