// A hypervisor that answers the port with whatever the input says, below the version check, a request and the
// command loop. Whatever it answers, nothing is read or written outside its place, nothing leaks and nothing
// hangs.

#include "eventManager/eventManager.h"
#include "hostChannel/hostChannel.h"
#include "hvPort/hvPort.h"
#include "rpcin/rpcin.h"
#include "rpcout/rpcout.h"
#include "support/diagCapture.h"

#include <cstdlib>
#include <cstring>
#include <span>

namespace {

constexpr unsigned MOST_TURNS = 50;
constexpr uint32_t LONGEST_MESSAGE = 0x20000; // of the messages announced; memory for more is not the point
constexpr uint16_t BULK = 0xFFFE;             // in place of a sub-command

std::span<const uint8_t> input;
uint64_t calls = 0;

uint8_t Byte() {
    if (input.empty()) {
        return 0;
    }
    uint8_t byte = input.front();
    input = input.subspan(1);
    return byte;
}

uint64_t Word() {
    uint64_t word = 0;
    for (int i = 0; i < 4; ++i) {
        word = word << 8 | Byte();
    }
    return word;
}

// Registers of the input's own choice; lengths that fit into memory.
void AnswerAnyhow(HvPort_Registers* registers) {
    registers->ax = Word();
    registers->bx = uint64_t{0xFFFFFFFF} << 32 | Word() % LONGEST_MESSAGE;
    registers->cx = Word();
    registers->dx = Word();
    registers->si = Word();
    registers->di = Word();
}

// What the call asks for, so that messages arrive and go on to their handlers.
void AnswerInOrder(uint16_t asked, uint8_t status, HvPort_Registers* registers) {
    registers->cx = HvPort_Word(status, 0);
    switch (static_cast<HostChannel_SubCommand>(asked)) {
    case HostChannel_SubCommand::ReceiveSize:
        registers->bx = Byte();
        registers->dx = HvPort_Word(1, 0);
        break;
    case HostChannel_SubCommand::ReceivePayload:
        registers->bx = Word();
        registers->dx = HvPort_Word(2, 0);
        break;
    default:
        registers->ax = HVPORT_VERSION;
        registers->bx = asked == 0xFFFF ? HVPORT_MAGIC : HvPort_Word(status, 0); // the status of bulk calls
        break;
    }
}

void Answer(uint16_t asked, HvPort_Registers* registers) {
    ++calls;
    uint8_t kind = Byte();
    if ((kind & 0x30) == 0x30) {
        return AnswerAnyhow(registers);
    }
    uint8_t status = HOSTCHANNEL_SUCCESS;
    status |= (kind & 1) != 0 ? HOSTCHANNEL_DO_RECEIVE : 0;
    status |= (kind & 2) != 0 ? HOSTCHANNEL_HIGH_BANDWIDTH : 0;
    AnswerInOrder(asked, (kind & 0x0C) == 0x0C ? Byte() : status, registers);
}

bool Handler(const char** result, uint64_t* length, const char* name, const char* args, uint64_t size,
             void*) {
    // Touches all of what it was given, and answers with it.
    volatile size_t sum = std::strlen(name);
    for (uint64_t i = 0; i < size; ++i) {
        sum = sum + static_cast<uint8_t>(args[i]);
    }
    static char answer[256];
    *length = size < sizeof answer ? size : sizeof answer;
    std::memcpy(answer, args, static_cast<size_t>(*length));
    *result = answer;
    return size % 2 == 0;
}

bool Reset(RpcInCall* call) {
    call->result = static_cast<char*>(std::malloc(4));
    call->resultLen = 4;
    call->freeResult = call->result != nullptr;
    if (call->result) {
        std::memcpy(call->result, "ATR ", 4);
    }
    return call->result != nullptr;
}

void Failed(void* stopped, const char* /*text*/) {
    *static_cast<bool*>(stopped) = true;
}

uint32_t now = 0;

void RunCommandLoop() {
    EventManager* queue = EventManager_Create();
    RpcIn* in = RpcIn_Create(queue);
    bool stopped = false;
    if (RpcIn_start(in, 10, Reset, nullptr, Failed, &stopped)) {
        RpcIn_RegisterCallback(in, "f", Handler, nullptr);
        RpcIn_RegisterCallback(in, "a", Handler, nullptr);
        uint64_t sleep = 0;
        for (unsigned turn = 0; !stopped && turn < MOST_TURNS && !input.empty(); ++turn) {
            if (EventManager_RunNext(queue, &sleep) != 1) {
                break;
            }
            now += static_cast<uint32_t>(sleep / 1000);
        }
        RpcIn_stop(in);
    }
    RpcIn_Free(in);
    EventManager_Destroy(queue);
}

} // namespace

void HvPort(HvPort_Registers* registers) {
    Answer(HvPort_High(registers->cx), registers);
}

void HvPort_BulkOut(HvPort_Registers* registers) {
    // Reads what it is told to, as the real one does.
    volatile uint8_t sum = 0;
    const auto* bytes = reinterpret_cast<const uint8_t*>(registers->si);
    for (uint64_t i = 0; i < registers->cx; ++i) {
        sum = static_cast<uint8_t>(sum + bytes[i]);
    }
    Answer(BULK, registers);
}

void HvPort_BulkIn(HvPort_Registers* registers) {
    auto* bytes = reinterpret_cast<uint8_t*>(registers->di);
    for (uint64_t i = 0; i < registers->cx; ++i) {
        bytes[i] = Byte();
    }
    Answer(BULK, registers);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    input = {data, size};
    calls = 0;
    eventManagerTickSource = [] { return now; };
    Upgrader_CheckVersion();
    char* reply = nullptr;
    uint64_t length = 0;
    RpcOut_SendRequest(&reply, &length, "request %s", "with an argument");
    std::free(reply);
    RunCommandLoop();
    DiagCapture_Take();
    // Two transfers a turn, each started again at most so often.
    if (calls > uint64_t{MOST_TURNS + 4} * 4 * (HOSTCHANNEL_MAX_RESTARTS + 1) * 64) {
        std::abort();
    }
    return 0;
}
