#include "rpcout/rpcout.h"

#include "hostChannel/hostChannel.h"
#include "string/str.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

namespace {

constexpr size_t PREFIX_LENGTH = 2; // "1 " or "0 "

struct RpcOut {
    HostChannel* channel = nullptr; // null while none is open
};

struct Answer {
    bool status = false;
    std::string_view text; // NUL-terminated; lives in the channel's buffer or is a literal
};

Answer ParseReply(const uint8_t* reply, uint64_t length) {
    std::string_view received(reinterpret_cast<const char*>(reply), static_cast<size_t>(length));
    if (received.starts_with("1 ")) {
        return {true, received.substr(PREFIX_LENGTH)};
    }
    if (received.starts_with("0 ")) {
        return {false, received.substr(PREFIX_LENGTH)};
    }
    return {false, "RpcOut: Invalid format for the result of the RPCI command"};
}

// Opens the channel and leaves it open: the answer may point into its buffer.
Answer Exchange(RpcOut* out, const char* request, uint64_t requestLength) {
    out->channel = HostChannel_Open(HOSTCHANNEL_RPCI);
    if (!out->channel) {
        Debug("RpcOut: couldn't open channel with RPCI protocol\n");
        return {false, "RpcOut: Unable to open the communication channel"};
    }
    if (!HostChannel_Send(out->channel, reinterpret_cast<const uint8_t*>(request), requestLength)) {
        return {false, "RpcOut: Unable to send the RPCI command"};
    }
    uint8_t* reply = nullptr;
    uint64_t replyLength = 0;
    if (!HostChannel_Receive(out->channel, &reply, &replyLength)) {
        return {false, "RpcOut: Unable to receive the result of the RPCI command"};
    }
    return ParseReply(reply, replyLength);
}

// Hosts parse a command up to its first blank, so a request without arguments carries one in memory and in
// the log; it is not part of the length and never reaches the wire. False when it cannot be formatted.
bool FormatRequest(std::string* request, uint64_t* length, const char* format, va_list arguments) {
    try {
        if (!Str_Vasprintf(request, format, arguments)) {
            return false;
        }
        *length = request->size();
        if (request->find(' ') == std::string::npos) {
            *request += ' ';
        }
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

char* CopyReply(std::string_view text) {
    auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy) {
        std::memcpy(copy, text.data(), text.size());
        copy[text.size()] = '\0';
    }
    return copy;
}

} // namespace

bool RpcOut_SendRequestRaw(const char* request, uint64_t requestLength, char** reply, uint64_t* replyLength) {
    Debug("Rpci: Sending request='%s'\n", request);

    std::unique_ptr<RpcOut> out(new (std::nothrow) RpcOut);
    Answer answer{false, "RpcOut: Unable to create the RpcOut object"};
    if (out) {
        answer = Exchange(out.get(), request, requestLength);
    }
    Debug("Rpci: Sent request='%s', reply='%s', len=%" DIAG_I64 "u, status=%d\n", request, answer.text.data(),
          static_cast<uint64_t>(answer.text.size()), answer.status ? 1 : 0);

    if (reply) {
        *reply = CopyReply(answer.text);
        if (*reply && replyLength) {
            *replyLength = answer.text.size();
        }
    }
    if (!out || !out->channel) {
        return answer.status;
    }
    if (!HostChannel_Close(out->channel)) {
        Debug("RpcOut: couldn't close channel\n");
        if (reply) {
            std::free(*reply);
            *reply = nullptr;
        }
        Debug("Rpci: unable to close the communication channel\n");
        return false;
    }
    return answer.status;
}

bool RpcOut_SendRequest(char** reply, uint64_t* replyLength, const char* format, ...) {
    std::string request;
    uint64_t length = 0;
    va_list arguments;
    va_start(arguments, format);
    bool formatted = FormatRequest(&request, &length, format, arguments);
    va_end(arguments);
    if (!formatted) {
        if (reply) {
            *reply = nullptr;
        }
        return false;
    }
    return RpcOut_SendRequestRaw(request.c_str(), length, reply, replyLength);
}
