// The file library over a file system in memory: fast enough to sweep and to fuzz, able to fail at any call,
// and strict. An operation that reaches outside the target, or a name that a Windows file system would take
// for something else, ends the process: the library under test must never get that far.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>

inline const char* const FILE_MEMORY_IMAGE = "C:\\image.iso";
inline const char* const FILE_MEMORY_TARGET = "C:\\target"; // exists

struct FileMemory {
    // The image's bytes from this offset on; zeros before. Must stay as long as it is used.
    std::span<const uint8_t> image;
    size_t imageOffset = 0;

    std::map<std::string, std::string> files; // path below the target to content
    std::map<std::string, bool> directories;  // path below the target
    uint64_t room = UINT64_MAX;               // bytes that may be written before the disk is full

    unsigned calls = 0;
    unsigned failingCall = 0; // counted from 1; 0: none
    bool failed = false;      // the failing call was reached
    int openFiles = 0;
};

extern FileMemory fileMemory;

// An empty target and this image.
void FileMemory_Reset(std::span<const uint8_t> image, size_t imageOffset = 0);
