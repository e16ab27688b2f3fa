#include "rpcin/rpcin.h"

#include "hostChannel/hostChannel.h"
#include "misc/diag.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>

namespace {

constexpr char UNIT[] = "lib/rpcin/rpcin";
constexpr int NO_MEMORY_FOR_CALLBACK = 346; // told to support as the place of this fatal stop

} // namespace

struct RpcIn_CallbackEntry {
    std::string name;
    bool newStyle = false; // data form: the built-in entries
    union {
        RpcIn_Callback plain;
        RpcIn_DataCallback data;
    } callback{};
    std::unique_ptr<RpcIn_CallbackEntry> next;
    void* clientData = nullptr;
};

struct RpcIn {
    std::unique_ptr<RpcIn_CallbackEntry> callbacks; // newest first
    Event* nextEvent = nullptr;                     // the pending turn
    HostChannel* channel = nullptr;                 // null while stopped
    uint32_t delay = 0;                             // ticks before the next turn
    uint32_t maxDelay = 0;
    RpcIn_ErrorCallback errorCb = nullptr;
    void* errorData = nullptr;
    bool mustSend = false; // a result, possibly empty, is owed to the host
    std::unique_ptr<uint8_t[]> last;
    uint64_t lastLen = 0;
};

namespace {

EventManager* eventQueue = nullptr; // of the one RpcIn in this process

bool RpcInLoop(void* clientData);

bool Ping(RpcInCall* /*call*/) {
    return true;
}

void PushEntry(RpcIn* in, const char* name, bool newStyle, void* clientData, RpcIn_Callback plain,
               RpcIn_DataCallback data) {
    Debug("Registering callback '%s'\n", name);
    try {
        auto entry = std::make_unique<RpcIn_CallbackEntry>();
        entry->name = name;
        entry->newStyle = newStyle;
        if (newStyle) {
            entry->callback.data = data;
        } else {
            entry->callback.plain = plain;
        }
        entry->clientData = clientData;
        entry->next = std::move(in->callbacks);
        in->callbacks = std::move(entry);
    } catch (const std::bad_alloc&) {
        Diag_NotImplemented(UNIT, NO_MEMORY_FOR_CALLBACK);
    }
}

void ForgetLastResult(RpcIn* in) {
    in->last.reset();
    in->lastLen = 0;
    in->mustSend = false;
}

bool SendLastResult(RpcIn* in) {
    bool sent = HostChannel_Send(in->channel, in->last.get(), in->lastLen);
    if (!sent) {
        Debug("RpcIn: couldn't send back the last result\n");
    }
    ForgetLastResult(in);
    return sent;
}

bool ScheduleTurn(RpcIn* in) {
    in->mustSend = true;
    in->nextEvent = EventManager_Add(eventQueue, in->delay, RpcInLoop, in);
    return in->nextEvent != nullptr;
}

void BackOff(RpcIn* in) {
    if (in->delay < in->maxDelay) {
        uint32_t longer = in->delay == 0 ? 1 : in->delay * 2;
        in->delay = longer > in->delay ? longer : in->maxDelay;
    }
    if (in->delay > in->maxDelay) {
        in->delay = in->maxDelay;
    }
}

// A handler's answer before it is copied behind its prefix.
struct Result {
    bool status = false;
    const char* text = "";
    uint64_t length = 0;
    bool freeText = false;
};

Result Failure(std::string_view text) {
    return {false, text.data(), text.size(), false};
}

Result CallHandler(const RpcIn_CallbackEntry& entry, const char* args, uint64_t argsSize) {
    Result result;
    if (entry.newStyle) {
        RpcInCall call{};
        call.name = entry.name.c_str();
        call.args = args;
        call.argsSize = argsSize;
        call.clientData = entry.clientData;
        result.status = entry.callback.data(&call);
        result.text = call.result;
        result.length = call.resultLen;
        result.freeText = call.freeResult;
    } else {
        result.status = entry.callback.plain(&result.text, &result.length, entry.name.c_str(), args, argsSize,
                                             entry.clientData);
    }
    return result;
}

// The name is the first run of characters that are not blanks; the arguments begin right behind it.
Result Dispatch(RpcIn* in, const char* message, uint64_t length) {
    std::string_view text(message, static_cast<size_t>(length));
    size_t begin = text.find_first_not_of(' ');
    if (begin == std::string_view::npos) {
        return Failure("Bad command");
    }
    size_t end = text.find(' ', begin);
    if (end == std::string_view::npos) {
        end = text.size();
    }
    std::string_view name = text.substr(begin, end - begin);
    for (const RpcIn_CallbackEntry* entry = in->callbacks.get(); entry; entry = entry->next.get()) {
        if (entry->name == name) {
            return CallHandler(*entry, message + end, length - end);
        }
    }
    return Failure("Unknown Command");
}

// Makes prefix and result the answer of the next turn. False when memory is short.
bool KeepResult(RpcIn* in, const Result& result) {
    std::string_view prefix = result.status ? "OK " : "ERROR ";
    uint64_t total = prefix.size() + result.length;
    if (total >= result.length) {
        in->last.reset(new (std::nothrow) uint8_t[static_cast<size_t>(total)]);
    }
    if (in->last) {
        in->lastLen = total;
        std::memcpy(in->last.get(), prefix.data(), prefix.size());
        if (result.length > 0) {
            std::memcpy(in->last.get() + prefix.size(), result.text, static_cast<size_t>(result.length));
        }
    }
    if (result.freeText) {
        std::free(const_cast<char*>(result.text));
    }
    return in->last != nullptr;
}

// One exchange; gives the error text that ends the loop, or null.
const char* RunTurn(RpcIn* in) {
    if (!SendLastResult(in)) {
        return "RpcIn: Unable to send";
    }
    uint8_t* message = nullptr;
    uint64_t length = 0;
    if (!HostChannel_Receive(in->channel, &message, &length)) {
        return "RpcIn: Unable to receive";
    }
    if (length == 0) {
        BackOff(in);
    } else {
        if (!KeepResult(in, Dispatch(in, reinterpret_cast<const char*>(message), length))) {
            return "RpcIn: Not enough memory";
        }
        in->delay = 0;
    }
    return ScheduleTurn(in) ? nullptr : "RpcIn: Unable to run the loop";
}

bool RpcInLoop(void* clientData) {
    auto* in = static_cast<RpcIn*>(clientData);
    in->nextEvent = nullptr; // consumed by being called
    if (const char* error = RunTurn(in)) {
        RpcIn_stop(in);
        in->errorCb(in->errorData, error);
    }
    return true; // the queue carries on; the error callback decides what becomes of the program
}

} // namespace

RpcIn* RpcIn_Create(EventManager* eventManager) {
    auto* in = new (std::nothrow) RpcIn;
    eventQueue = in ? eventManager : nullptr;
    return in;
}

void RpcIn_Free(RpcIn* in) {
    // One by one: the default would recurse once per entry.
    while (in->callbacks) {
        in->callbacks = std::move(in->callbacks->next);
    }
    eventQueue = nullptr;
    delete in;
}

bool RpcIn_start(RpcIn* in, uint32_t maxDelay, RpcIn_DataCallback resetCallback, void* resetData,
                 RpcIn_ErrorCallback errorCallback, void* errorData) {
    in->maxDelay = maxDelay;
    in->errorCb = errorCallback;
    in->errorData = errorData;
    in->delay = 0;

    in->channel = HostChannel_Open(HOSTCHANNEL_TCLO);
    if (!in->channel) {
        Debug("RpcIn_start: couldn't open channel with TCLO protocol\n");
        RpcIn_stop(in);
        return false;
    }
    if (!ScheduleTurn(in)) {
        Debug("RpcIn_start: couldn't start the loop\n");
        RpcIn_stop(in);
        return false;
    }
    if (resetCallback) {
        PushEntry(in, "reset", true, resetData, nullptr, resetCallback);
    }
    PushEntry(in, "ping", true, nullptr, nullptr, Ping);
    return true;
}

bool RpcIn_stop(RpcIn* in) {
    if (in->nextEvent) {
        EventManager_Remove(in->nextEvent);
        in->nextEvent = nullptr;
    }
    if (!in->channel) {
        return true;
    }
    bool clean = !in->mustSend || SendLastResult(in);
    if (!HostChannel_Close(in->channel)) {
        Debug("RpcIn: couldn't close channel\n");
        clean = false;
    }
    in->channel = nullptr;
    return clean;
}

void RpcIn_RegisterCallback(RpcIn* in, const char* name, RpcIn_Callback callback, void* clientData) {
    PushEntry(in, name, false, clientData, callback, nullptr);
}

void RpcIn_UnregisterCallback(RpcIn* in, const char* name) {
    Debug("Unregistering callback '%s'\n", name);
    std::unique_ptr<RpcIn_CallbackEntry>* link = &in->callbacks;
    while ((*link)->name != name) {
        link = &(*link)->next;
    }
    *link = std::move((*link)->next);
}

bool RpcIn_SetResult(const char** result, uint64_t* resultLength, const char* text, bool status) {
    *result = text;
    *resultLength = std::strlen(text);
    return status;
}
