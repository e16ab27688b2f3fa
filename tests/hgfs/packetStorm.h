// Turns arbitrary bytes into a session of packets, sound, damaged and made up, and checks every answer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

struct PacketStorm_Counts {
    size_t packets = 0;
    size_t successes = 0;
};

// Sends what the bytes say to the server, which has been started, with names below `directory` (a protocol
// name) and some elsewhere. Throws std::runtime_error at the first answer that no packet may get.
void PacketStorm_Run(std::span<const uint8_t> bytes, const std::string& directory,
                     PacketStorm_Counts* counts);
