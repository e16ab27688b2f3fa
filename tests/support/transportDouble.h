// A host at the other end of the message channels, without the port: scripted answers, everything sent is
// kept. Installing it sets the channel's four replacement slots; the destructor clears them.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

class TransportDouble {
public:
    TransportDouble();
    ~TransportDouble();
    TransportDouble(const TransportDouble&) = delete;

    bool canOpen = true;
    bool canClose = true;
    // Sends succeed until this many have; receives likewise.
    unsigned sendsLeft = 1u << 30;
    unsigned receivesLeft = 1u << 30;
    std::deque<std::string> incoming; // one message a receive; none waiting when empty
    std::vector<std::string> sent;
    int opened = 0;
    int closed = 0;
    uint32_t protocol = 0;
};
