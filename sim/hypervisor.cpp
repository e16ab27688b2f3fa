#include "sim/hypervisor.h"

#include "string/str.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <utility>

namespace {

using Channel = Hypervisor_Channel;
using Transfer = Hypervisor_Channel::Transfer;
using SubCommand = HostChannel_SubCommand;

constexpr uint64_t JUNK = 0xD1D1D1D100000000; // upper halves of answers, where nobody may look
constexpr uint16_t FIRST_ID = 0x8001;         // a sign extension in the guest would show
constexpr uint32_t HYPERVISOR_TYPE = 4;
constexpr uint16_t BULK_PROCEED = 1;      // bx.high of a bulk call
constexpr uint64_t RECEIVE_GOES_WELL = 1; // bx of receive payload and receive status; 0 is a failure notice
constexpr uint16_t ANSWER_SEND_SIZE = 1;  // dx.high of the answers to receive size and receive payload
constexpr uint16_t ANSWER_SEND_PAYLOAD = 2;
constexpr uint64_t WORD_BYTES = 4;

enum class Fault { None, Fail, Checkpoint };

void Deviate(Hypervisor* hypervisor, const char* format, ...) DIAG_PRINTF(2, 3);

void Deviate(Hypervisor* hypervisor, const char* format, ...) {
    ++hypervisor->deviationCount;
    if (hypervisor->deviations.size() == HYPERVISOR_MAX_DEVIATIONS) {
        return;
    }
    std::string text;
    va_list arguments;
    va_start(arguments, format);
    Str_Vasprintf(&text, format, arguments);
    va_end(arguments);
    hypervisor->deviations.push_back("call " + std::to_string(hypervisor->counts.calls) + ": " + text);
}

void CheckWord(Hypervisor* hypervisor, const char* name, uint64_t value, uint64_t wanted) {
    if (value != wanted) {
        Deviate(hypervisor, "%s is 0x%" DIAG_I64 "x instead of 0x%" DIAG_I64 "x", name, value, wanted);
    }
}

bool InRun(uint64_t call, uint64_t first, uint64_t count) {
    return first != 0 && call >= first && call - first < count;
}

Fault PlannedFault(Hypervisor* hypervisor) {
    uint64_t call = hypervisor->counts.calls;
    const Hypervisor_Faults& faults = hypervisor->faults;
    if (InRun(call, faults.failCall, faults.failCount)) {
        ++hypervisor->counts.faults;
        return Fault::Fail;
    }
    if (InRun(call, faults.checkpointCall, faults.checkpointCount)) {
        ++hypervisor->counts.faults;
        return Fault::Checkpoint;
    }
    return Fault::None;
}

Fault PayloadFault(Hypervisor* hypervisor, Fault planned) {
    if (planned == Fault::None && hypervisor->faults.checkpointPayloads) {
        ++hypervisor->counts.faults;
        return Fault::Checkpoint;
    }
    return planned;
}

uint8_t FaultStatus(Fault fault) {
    return fault == Fault::Checkpoint ? HOSTCHANNEL_CHECKPOINT : 0;
}

// The status half of a word; its high byte is junk too.
uint64_t StatusWord(uint8_t status, uint16_t low) {
    return JUNK | HvPort_Word(static_cast<uint16_t>(0x5A00 | status), low);
}

void AnswerLow(HvPort_Registers* registers, uint8_t status) {
    registers->ax = JUNK;
    registers->cx = StatusWord(status, HvPort_Low(registers->cx));
}

void AnswerBulk(HvPort_Registers* registers, uint8_t status) {
    registers->bx = StatusWord(status, HvPort_Low(registers->bx));
    registers->cx = JUNK;
    registers->si = JUNK;
    registers->di = JUNK;
    registers->bp = JUNK;
}

// ---- Channels ----

Channel* FindChannel(Hypervisor* hypervisor, uint16_t id) {
    auto& channels = hypervisor->channels;
    auto found = std::find_if(channels.begin(), channels.end(),
                              [id](const Channel& channel) { return channel.open && channel.id == id; });
    return found == channels.end() ? nullptr : &*found;
}

// Forgets what was under way. A message for the guest stays waiting.
void AbandonTransfer(Channel* channel) {
    channel->transfer = Transfer::Idle;
    channel->out.clear();
    channel->announced = 0;
    channel->position = 0;
}

void DropWaiting(Hypervisor* hypervisor, Channel* channel, bool received) {
    channel->waiting.reset();
    AbandonTransfer(channel);
    if (hypervisor->service.delivered) {
        hypervisor->service.delivered(hypervisor->service.clientData, channel->id, received);
    }
}

// The guest's count of remaining bytes: a bulk transfer never reduces it.
bool GuestCountsRemaining(const Channel& channel) {
    uint64_t length = channel.waiting ? channel.waiting->size() : 0;
    return channel.bulk ? length > 0 : channel.position < length;
}

SubCommand NoticeFor(const Channel& channel) {
    return GuestCountsRemaining(channel) ? SubCommand::ReceivePayload : SubCommand::ReceiveStatus;
}

// A call of a receive is answered with a fault: after a checkpoint the guest asks anew, otherwise it owes a
// notice.
void FailReceive(Channel* channel, Fault fault) {
    if (fault == Fault::Checkpoint) {
        AbandonTransfer(channel);
    } else {
        channel->notice = NoticeFor(*channel);
        channel->transfer = Transfer::OwesNotice;
    }
}

void MessageFromGuest(Hypervisor* hypervisor, Channel* channel) {
    ++hypervisor->counts.messagesFromGuest;
    hypervisor->counts.bytesFromGuest += channel->out.size();
    std::vector<uint8_t> message = std::move(channel->out);
    AbandonTransfer(channel);
    if (hypervisor->service.fromGuest) {
        hypervisor->service.fromGuest(hypervisor->service.clientData, channel->id, message);
    }
}

// A sub-command other than the ones that carry on with what is under way.
void CheckNothingUnderWay(Hypervisor* hypervisor, Channel* channel, const char* subCommand) {
    switch (channel->transfer) {
    case Transfer::Idle:
        return;
    case Transfer::Sending:
        Deviate(hypervisor, "%s while %u of %u bytes of a message have been sent", subCommand,
                static_cast<unsigned>(channel->out.size()), static_cast<unsigned>(channel->announced));
        break;
    case Transfer::Receiving:
        Deviate(hypervisor, "%s before the message received was acknowledged", subCommand);
        break;
    case Transfer::OwesNotice:
        Deviate(hypervisor, "%s in place of the failure notice", subCommand);
        break;
    }
    AbandonTransfer(channel);
}

// ---- Low-bandwidth sub-commands ----

void Open(Hypervisor* hypervisor, Fault fault, HvPort_Registers* registers) {
    if ((registers->bx >> 32) != 0) {
        Deviate(hypervisor, "open: upper half of bx is 0x%x", static_cast<unsigned>(registers->bx >> 32));
    }
    auto argument = static_cast<uint32_t>(registers->bx);
    uint32_t protocol = argument & ~HOSTCHANNEL_COOKIE_FLAG;
    bool flagged = (argument & HOSTCHANNEL_COOKIE_FLAG) != 0;
    if (protocol != HOSTCHANNEL_TCLO && protocol != HOSTCHANNEL_RPCI) {
        Deviate(hypervisor, "open: unknown protocol 0x%x", static_cast<unsigned>(protocol));
        return AnswerLow(registers, 0);
    }
    auto& channels = hypervisor->channels;
    auto slot = std::find_if(channels.begin(), channels.end(), [](const Channel& channel) {
        return !channel.open || channel.guestBelievesClosed;
    });
    if (slot == channels.end()) {
        Deviate(hypervisor, "open: all %u channels are in use", static_cast<unsigned>(channels.size()));
        return AnswerLow(registers, 0);
    }
    if (fault != Fault::None || protocol == hypervisor->faults.refusedProtocol ||
        (flagged && hypervisor->faults.refuseCookieOpen)) {
        return AnswerLow(registers, FaultStatus(fault));
    }
    *slot = Channel{};
    slot->open = true;
    slot->protocol = protocol;
    slot->id = static_cast<uint16_t>(FIRST_ID + hypervisor->opens);
    slot->cookieHigh = 0x9E3779B9 ^ (hypervisor->opens << 8);
    slot->cookieLow = 0xC2B2AE35 ^ (hypervisor->opens << 4);
    ++hypervisor->opens;
    AnswerLow(registers, HOSTCHANNEL_SUCCESS);
    registers->dx = JUNK | HvPort_Word(slot->id, HvPort_Low(registers->dx));
    registers->si = JUNK | slot->cookieHigh;
    registers->di = JUNK | slot->cookieLow;
    if (hypervisor->service.opened) {
        hypervisor->service.opened(hypervisor->service.clientData, slot->id, protocol);
    }
}

uint8_t TransferStatus(const Hypervisor& hypervisor) {
    return static_cast<uint8_t>(HOSTCHANNEL_SUCCESS |
                                (hypervisor.faults.lowBandwidth ? 0 : HOSTCHANNEL_HIGH_BANDWIDTH));
}

void SendSize(Hypervisor* hypervisor, Channel* channel, Fault fault, HvPort_Registers* registers) {
    CheckNothingUnderWay(hypervisor, channel, "send size");
    if (registers->bx > HYPERVISOR_MAX_MESSAGE) {
        Deviate(hypervisor, "send size: 0x%" DIAG_I64 "x bytes are too many", registers->bx);
        return AnswerLow(registers, 0);
    }
    if (fault != Fault::None) {
        return AnswerLow(registers, FaultStatus(fault));
    }
    channel->announced = registers->bx;
    channel->bulk = !hypervisor->faults.lowBandwidth;
    AnswerLow(registers, TransferStatus(*hypervisor));
    if (channel->announced == 0) {
        return MessageFromGuest(hypervisor, channel);
    }
    channel->transfer = Transfer::Sending;
}

void SendPayload(Hypervisor* hypervisor, Channel* channel, Fault fault, HvPort_Registers* registers) {
    if (channel->transfer != Transfer::Sending) {
        Deviate(hypervisor, "send payload: no size was announced, or all bytes have come");
        return AnswerLow(registers, 0);
    }
    if (channel->bulk) {
        Deviate(hypervisor, "send payload: word by word although high bandwidth was offered");
    }
    uint64_t part = std::min(WORD_BYTES, channel->announced - channel->out.size());
    if ((registers->bx >> (8 * part)) != 0) {
        Deviate(hypervisor, "send payload: bx 0x%" DIAG_I64 "x holds more than the %u bytes left",
                registers->bx, static_cast<unsigned>(part));
    }
    if (fault != Fault::None) {
        AbandonTransfer(channel);
        return AnswerLow(registers, FaultStatus(fault));
    }
    for (uint64_t i = 0; i < part; ++i) {
        channel->out.push_back(static_cast<uint8_t>(registers->bx >> (8 * i)));
    }
    AnswerLow(registers, HOSTCHANNEL_SUCCESS);
    if (channel->out.size() == channel->announced) {
        MessageFromGuest(hypervisor, channel);
    }
}

void ReceiveSize(Hypervisor* hypervisor, Channel* channel, Fault fault, HvPort_Registers* registers) {
    CheckNothingUnderWay(hypervisor, channel, "receive size");
    if (fault != Fault::None) {
        return AnswerLow(registers, FaultStatus(fault));
    }
    if (!channel->waiting && hypervisor->service.forGuest) {
        std::vector<uint8_t> message;
        if (hypervisor->service.forGuest(hypervisor->service.clientData, channel->id, &message)) {
            channel->waiting = std::move(message);
        }
    }
    if (!channel->waiting) {
        return AnswerLow(registers, HOSTCHANNEL_SUCCESS);
    }
    channel->transfer = Transfer::Receiving;
    channel->position = 0;
    channel->bulk = !hypervisor->faults.lowBandwidth;
    AnswerLow(registers, static_cast<uint8_t>(TransferStatus(*hypervisor) | HOSTCHANNEL_DO_RECEIVE));
    registers->bx = JUNK | channel->waiting->size();
    registers->dx = JUNK | HvPort_Word(ANSWER_SEND_SIZE, HvPort_Low(registers->dx));
}

// The guest gives a message up, as it must after a fault and may when it has no room for it.
void FailureNotice(Hypervisor* hypervisor, Channel* channel, SubCommand subCommand,
                   HvPort_Registers* registers) {
    bool owed = channel->transfer == Transfer::OwesNotice;
    if (!owed && channel->transfer != Transfer::Receiving) {
        Deviate(hypervisor, "failure notice without a receive");
        return AnswerLow(registers, 0);
    }
    SubCommand wanted = owed ? channel->notice : NoticeFor(*channel);
    if (subCommand != wanted) {
        Deviate(hypervisor, "failure notice with sub-command %u instead of %u",
                static_cast<unsigned>(subCommand), static_cast<unsigned>(wanted));
    }
    DropWaiting(hypervisor, channel, false);
    AnswerLow(registers, HOSTCHANNEL_SUCCESS);
}

void ReceivePayload(Hypervisor* hypervisor, Channel* channel, Fault fault, HvPort_Registers* registers) {
    if (channel->transfer != Transfer::Receiving || channel->position == channel->waiting->size()) {
        Deviate(hypervisor, "receive payload: no bytes are left to receive");
        return AnswerLow(registers, 0);
    }
    if (channel->bulk) {
        Deviate(hypervisor, "receive payload: word by word although high bandwidth was offered");
    }
    if (fault != Fault::None) {
        FailReceive(channel, fault);
        return AnswerLow(registers, FaultStatus(fault));
    }
    const std::vector<uint8_t>& message = *channel->waiting;
    uint64_t part = std::min(WORD_BYTES, message.size() - channel->position);
    uint64_t word = 0x7B7B7B7B; // beyond the last byte there is junk
    for (uint64_t i = 0; i < part; ++i) {
        word &= ~(uint64_t{0xFF} << (8 * i));
        word |= static_cast<uint64_t>(message[static_cast<size_t>(channel->position + i)]) << (8 * i);
    }
    channel->position += part;
    AnswerLow(registers, HOSTCHANNEL_SUCCESS);
    registers->bx = JUNK | word;
    registers->dx = JUNK | HvPort_Word(ANSWER_SEND_PAYLOAD, HvPort_Low(registers->dx));
}

void ReceiveStatus(Hypervisor* hypervisor, Channel* channel, Fault fault, HvPort_Registers* registers) {
    if (channel->transfer != Transfer::Receiving || channel->position != channel->waiting->size()) {
        Deviate(hypervisor, "receive status: no whole message has gone");
        return AnswerLow(registers, 0);
    }
    if (fault != Fault::None) {
        FailReceive(channel, fault);
        return AnswerLow(registers, FaultStatus(fault));
    }
    ++hypervisor->counts.messagesToGuest;
    hypervisor->counts.bytesToGuest += channel->waiting->size();
    DropWaiting(hypervisor, channel, true);
    AnswerLow(registers, HOSTCHANNEL_SUCCESS);
}

void Close(Hypervisor* hypervisor, Channel* channel, Fault fault, HvPort_Registers* registers) {
    CheckNothingUnderWay(hypervisor, channel, "close");
    uint16_t id = channel->id;
    if (fault == Fault::None) {
        *channel = Channel{};
        AnswerLow(registers, HOSTCHANNEL_SUCCESS);
    } else {
        channel->guestBelievesClosed = true; // it may not come back either way
        AnswerLow(registers, FaultStatus(fault));
    }
    if (hypervisor->service.closed) {
        hypervisor->service.closed(hypervisor->service.clientData, id);
    }
}

// ---- One call ----

// The open channel that a call means, when it also knows both cookie words.
Channel* AddressedChannel(Hypervisor* hypervisor, uint64_t dx, uint64_t cookieHigh, uint64_t cookieLow) {
    Channel* channel = FindChannel(hypervisor, HvPort_High(dx));
    if (!channel) {
        Deviate(hypervisor, "channel 0x%x is not open", static_cast<unsigned>(HvPort_High(dx)));
        return nullptr;
    }
    if (channel->guestBelievesClosed) {
        Deviate(hypervisor, "channel 0x%x is used after its close", static_cast<unsigned>(channel->id));
    }
    if (cookieHigh != channel->cookieHigh || cookieLow != channel->cookieLow) {
        Deviate(hypervisor, "channel 0x%x: cookies 0x%" DIAG_I64 "x, 0x%" DIAG_I64 "x instead of 0x%x, 0x%x",
                static_cast<unsigned>(channel->id), cookieHigh, cookieLow,
                static_cast<unsigned>(channel->cookieHigh), static_cast<unsigned>(channel->cookieLow));
        return nullptr;
    }
    return channel;
}

void Message(Hypervisor* hypervisor, Fault fault, HvPort_Registers* registers) {
    auto subCommand = static_cast<SubCommand>(HvPort_High(registers->cx));
    if (subCommand == SubCommand::Open) {
        return Open(hypervisor, fault, registers);
    }
    Channel* channel = AddressedChannel(hypervisor, registers->dx, registers->si, registers->di);
    if (!channel) {
        return AnswerLow(registers, 0);
    }
    switch (subCommand) {
    case SubCommand::SendSize:
        return SendSize(hypervisor, channel, fault, registers);
    case SubCommand::SendPayload:
        return SendPayload(hypervisor, channel, PayloadFault(hypervisor, fault), registers);
    case SubCommand::ReceiveSize:
        return ReceiveSize(hypervisor, channel, fault, registers);
    case SubCommand::ReceivePayload:
    case SubCommand::ReceiveStatus:
        if (registers->bx == 0) {
            return FailureNotice(hypervisor, channel, subCommand, registers);
        }
        CheckWord(hypervisor, "acknowledgement in bx", registers->bx, RECEIVE_GOES_WELL);
        return subCommand == SubCommand::ReceivePayload
                   ? ReceivePayload(hypervisor, channel, PayloadFault(hypervisor, fault), registers)
                   : ReceiveStatus(hypervisor, channel, fault, registers);
    case SubCommand::Close:
        return Close(hypervisor, channel, fault, registers);
    default:
        Deviate(hypervisor, "unknown sub-command %u", static_cast<unsigned>(subCommand));
        return AnswerLow(registers, 0);
    }
}

void Version(Hypervisor* hypervisor, Fault fault, HvPort_Registers* registers) {
    CheckWord(hypervisor, "version query: bx", registers->bx, ~uint64_t{HVPORT_MAGIC});
    CheckWord(hypervisor, "version query: sub-command", HvPort_High(registers->cx), 0xFFFF);
    if (fault != Fault::None) {
        registers->ax = JUNK | 0xFFFFFFFF;
        return;
    }
    if (hypervisor->faults.silent) {
        return; // as a machine without the hypervisor would: every register as it was
    }
    registers->ax = JUNK | hypervisor->faults.version;
    registers->bx = JUNK | HVPORT_MAGIC;
    registers->cx = JUNK | HYPERVISOR_TYPE;
}

void LowCall(Hypervisor* hypervisor, Fault fault, HvPort_Registers* registers) {
    ++hypervisor->counts.lowCalls;
    CheckWord(hypervisor, "port", HvPort_Low(registers->dx), HVPORT_LOW_BANDWIDTH);
    CheckWord(hypervisor, "upper half of cx", registers->cx >> 32, 0);
    switch (HvPort_Low(registers->cx)) {
    case HVPORT_COMMAND_GET_VERSION:
        return Version(hypervisor, fault, registers);
    case HVPORT_COMMAND_MESSAGE:
        return Message(hypervisor, fault, registers);
    default:
        Deviate(hypervisor, "unknown command %u", static_cast<unsigned>(HvPort_Low(registers->cx)));
        registers->ax = JUNK | 0xFFFFFFFF;
    }
}

void BulkOut(Hypervisor* hypervisor, Fault fault, HvPort_Registers* registers) {
    ++hypervisor->counts.bulkOuts;
    Channel* channel = AddressedChannel(hypervisor, registers->dx, registers->bp, registers->di);
    if (!channel) {
        return AnswerBulk(registers, 0);
    }
    if (channel->transfer != Transfer::Sending || !channel->bulk) {
        Deviate(hypervisor, "bulk out that was not offered");
        return AnswerBulk(registers, 0);
    }
    if (registers->cx != channel->announced) {
        Deviate(hypervisor, "bulk out of %" DIAG_I64 "u bytes where %" DIAG_I64 "u were announced",
                registers->cx, channel->announced);
        AbandonTransfer(channel);
        return AnswerBulk(registers, 0);
    }
    if (fault != Fault::None) {
        AbandonTransfer(channel);
        return AnswerBulk(registers, FaultStatus(fault));
    }
    channel->out.resize(static_cast<size_t>(channel->announced));
    if (!hypervisor->memory.read(hypervisor->memory.clientData, registers->si, channel->out.data(),
                                 channel->out.size())) {
        Deviate(hypervisor, "bulk out: the guest has no %" DIAG_I64 "u bytes at 0x%" DIAG_I64 "x",
                registers->cx, registers->si);
        AbandonTransfer(channel);
        return AnswerBulk(registers, 0);
    }
    AnswerBulk(registers, HOSTCHANNEL_SUCCESS);
    MessageFromGuest(hypervisor, channel);
}

void BulkIn(Hypervisor* hypervisor, Fault fault, HvPort_Registers* registers) {
    ++hypervisor->counts.bulkIns;
    Channel* channel = AddressedChannel(hypervisor, registers->dx, registers->si, registers->bp);
    if (!channel) {
        return AnswerBulk(registers, 0);
    }
    if (channel->transfer != Transfer::Receiving || !channel->bulk || channel->position != 0) {
        Deviate(hypervisor, "bulk in that was not offered");
        return AnswerBulk(registers, 0);
    }
    const std::vector<uint8_t>& message = *channel->waiting;
    if (registers->cx != message.size()) {
        Deviate(hypervisor, "bulk in of %" DIAG_I64 "u bytes where %" DIAG_I64 "u are waiting", registers->cx,
                static_cast<uint64_t>(message.size()));
        FailReceive(channel, Fault::Fail);
        return AnswerBulk(registers, 0);
    }
    if (fault != Fault::None) {
        FailReceive(channel, fault);
        return AnswerBulk(registers, FaultStatus(fault));
    }
    if (!hypervisor->memory.write(hypervisor->memory.clientData, registers->di, message.data(),
                                  message.size())) {
        Deviate(hypervisor, "bulk in: the guest has no room for %" DIAG_I64 "u bytes at 0x%" DIAG_I64 "x",
                registers->cx, registers->di);
        FailReceive(channel, Fault::Fail);
        return AnswerBulk(registers, 0);
    }
    channel->position = message.size();
    AnswerBulk(registers, HOSTCHANNEL_SUCCESS);
}

void BulkCall(Hypervisor* hypervisor, Hypervisor_Instruction instruction, bool backwards, Fault fault,
              HvPort_Registers* registers) {
    CheckWord(hypervisor, "port", HvPort_Low(registers->dx), HVPORT_HIGH_BANDWIDTH);
    CheckWord(hypervisor, "bx of a bulk call", registers->bx, HvPort_Word(BULK_PROCEED, 0));
    if (backwards) {
        Deviate(hypervisor, "bulk call with the direction flag set");
    }
    fault = PayloadFault(hypervisor, fault);
    if (instruction == Hypervisor_Instruction::BulkOut) {
        BulkOut(hypervisor, fault, registers);
    } else {
        BulkIn(hypervisor, fault, registers);
    }
}

} // namespace

Hypervisor_Memory Hypervisor_OwnMemory() {
    // The addresses come out of registers.
    // NOLINTBEGIN(performance-no-int-to-ptr)
    return {[](void*, uint64_t address, uint8_t* bytes, size_t length) {
                std::memcpy(bytes, reinterpret_cast<const void*>(address), length);
                return true;
            },
            [](void*, uint64_t address, const uint8_t* bytes, size_t length) {
                std::memcpy(reinterpret_cast<void*>(address), bytes, length);
                return true;
            },
            nullptr};
    // NOLINTEND(performance-no-int-to-ptr)
}

void Hypervisor_Call(Hypervisor* hypervisor, Hypervisor_Instruction instruction, bool backwards,
                     HvPort_Registers* registers) {
    ++hypervisor->counts.calls;
    CheckWord(hypervisor, "magic in ax", registers->ax, HVPORT_MAGIC);
    CheckWord(hypervisor, "upper half of dx", registers->dx >> 32, 0);
    Fault fault = PlannedFault(hypervisor);
    if (instruction == Hypervisor_Instruction::In) {
        LowCall(hypervisor, fault, registers);
    } else {
        BulkCall(hypervisor, instruction, backwards, fault, registers);
    }
}

size_t Hypervisor_OpenChannels(const Hypervisor& hypervisor) {
    return static_cast<size_t>(
        std::count_if(hypervisor.channels.begin(), hypervisor.channels.end(),
                      [](const Channel& channel) { return channel.open && !channel.guestBelievesClosed; }));
}
