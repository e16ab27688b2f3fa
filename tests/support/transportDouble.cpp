#include "transportDouble.h"

#include "hostChannel/hostChannel.h"

namespace {

TransportDouble* current;
std::string received;

HostChannel* Handle() {
    return reinterpret_cast<HostChannel*>(&received); // only its being there matters
}

HostChannel* Open(uint32_t protocol) {
    current->protocol = protocol;
    if (!current->canOpen) {
        return nullptr;
    }
    ++current->opened;
    return Handle();
}

bool Send(HostChannel* /*channel*/, const uint8_t* buffer, uint64_t length) {
    if (current->sendsLeft == 0) {
        return false;
    }
    --current->sendsLeft;
    current->sent.emplace_back(reinterpret_cast<const char*>(buffer), static_cast<size_t>(length));
    return true;
}

bool Receive(HostChannel* /*channel*/, uint8_t** buffer, uint64_t* length) {
    if (current->receivesLeft == 0) {
        return false;
    }
    --current->receivesLeft;
    *length = 0;
    if (!current->incoming.empty()) {
        received = current->incoming.front();
        current->incoming.pop_front();
        *buffer = reinterpret_cast<uint8_t*>(received.data());
        *length = received.size();
    }
    return true;
}

bool Close(HostChannel* /*channel*/) {
    ++current->closed;
    return current->canClose;
}

} // namespace

TransportDouble::TransportDouble() {
    current = this;
    hostChannelTransport = {Open, Send, Receive, Close};
}

TransportDouble::~TransportDouble() {
    hostChannelTransport = {};
    current = nullptr;
}
