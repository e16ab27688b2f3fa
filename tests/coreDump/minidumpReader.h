// Reads what a minidump says about a crash: exception, threads, modules and the memory saved with them.
//
// The layout is the documented one: a 32-byte header, a directory of streams (12 bytes each: type, size,
// offset in the file), and the streams, whose records are packed to 4 bytes. Everything is little-endian;
// offsets count from the start of the file. Streams of other types are passed over.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct MinidumpModule {
    uint64_t base;
    uint32_t size;
    std::u16string name; // full path
};

struct MinidumpThread {
    uint32_t id;
    uint64_t stackStart; // lowest address saved
    uint32_t stackBytes;
    uint64_t rip; // of its context
    uint64_t rsp;
};

struct MinidumpException {
    uint32_t threadId;
    uint32_t code;
    uint64_t address;
    std::vector<uint64_t> parameters;
    uint64_t rip;
    uint64_t rsp;
};

struct Minidump {
    uint64_t flags; // MINIDUMP_TYPE
    uint16_t architecture;
    std::optional<MinidumpException> exception;
    std::vector<MinidumpThread> threads;
    std::vector<MinidumpModule> modules;
};

// None, with the reason in *error, when the bytes are no minidump or a part of it lies outside the file.
std::optional<Minidump> Minidump_Read(std::span<const uint8_t> bytes, std::string* error);
