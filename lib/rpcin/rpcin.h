// Host-to-guest commands: receives them over one channel, runs their handlers, sends back the results.
//
// Driven by the event queue: each turn sends the previous result (or an empty message), receives the next
// command and schedules the turn after it, at once while commands come and backing off while they do not. One
// RpcIn per process; everything on the thread that runs the queue.
#pragma once

#include "eventManager/eventManager.h"

#include <cstdint>

struct RpcIn;

// Plain form of a handler. args points just behind the command name as it was received, so it begins with the
// blank that separates them; it may hold NUL bytes. The result must stay valid until RpcIn has copied it (a
// literal or a static buffer); RpcIn never frees it. Returns success ("OK ") or failure ("ERROR ").
using RpcIn_Callback = bool (*)(const char** result, uint64_t* resultLength, const char* name,
                                const char* args, uint64_t argsSize, void* clientData);

// Data form, used by "reset" and "ping". When the handler sets freeResult, RpcIn releases the result with
// std::free after copying it.
struct RpcInCall {
    const char* name;
    const char* args;
    uint64_t argsSize;
    char* result;       // out
    uint64_t resultLen; // out
    bool freeResult;    // out
    void* appCtx;       // always null
    void* clientData;
};
using RpcIn_DataCallback = bool (*)(RpcInCall* call);

// Called after the loop has stopped for good because of an error; the text has no line end.
using RpcIn_ErrorCallback = void (*)(void* clientData, const char* text);

// Null when memory is short. The queue must outlive the object.
RpcIn* RpcIn_Create(EventManager* eventManager);

// Frees the object and its callbacks. RpcIn_stop comes first.
void RpcIn_Free(RpcIn* in);

// Opens the channel and starts polling; maxDelay is the ceiling of the back-off in ticks of 10 ms. Adds the
// built-in "reset" (when resetCallback is given) and "ping" on every successful start. Returns false,
// stopped, on failure.
bool RpcIn_start(RpcIn* in, uint32_t maxDelay, RpcIn_DataCallback resetCallback, void* resetData,
                 RpcIn_ErrorCallback errorCallback, void* errorData);

// Cancels the pending turn, sends the owed result and closes the channel. Returns false when one of the last
// two failed; the object is stopped all the same and may be started again.
bool RpcIn_stop(RpcIn* in);

// Adds a handler; the newest of a name handles its commands. clientData is not owned.
void RpcIn_RegisterCallback(RpcIn* in, const char* name, RpcIn_Callback callback, void* clientData);

// Removes the newest handler of that name, which must be registered.
void RpcIn_UnregisterCallback(RpcIn* in, const char* name);

// Convenience for plain-form handlers: sets the result to a NUL-terminated text and returns `status`.
bool RpcIn_SetResult(const char** result, uint64_t* resultLength, const char* text, bool status);
