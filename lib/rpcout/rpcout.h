// Guest-to-host requests: one request, one reply, over a channel of its own.
#pragma once

#include "misc/diag.h"

#include <cstdint>
#include <string_view>

// Formats a request and sends it. `reply` (optional) receives a NUL-terminated copy that the caller frees
// with std::free, or null; `replyLength` (optional) its length in bytes. Returns the host's status: true only
// when the reply began with "1 " and the channel closed cleanly. On failure the reply is the explanation: the
// host's own text, or one of this library's. Blocks the calling thread for the whole exchange.
bool RpcOut_SendRequest(char** reply, uint64_t* replyLength, const char* format, ...) DIAG_PRINTF(3, 4);

// As RpcOut_SendRequest with a request that is sent byte for byte; it must be NUL-terminated for the log.
bool RpcOut_SendRequestRaw(const char* request, uint64_t requestLength, char** reply, uint64_t* replyLength);
