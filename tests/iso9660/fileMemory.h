// The file library over a file system in memory: fast enough to sweep and to fuzz, able to fail at any call,
// and strict. An operation that reaches outside the target, or a name that a Windows file system would take
// for something else, ends the process: the library under test must never get that far.
#pragma once

#include "testImage.h"

#include <cstddef>
#include <cstdint>
#include <span>

inline const char* const FILE_MEMORY_IMAGE = "C:\\image.iso";
inline const char* const FILE_MEMORY_TARGET = "C:\\target"; // exists

struct FileMemory {
    std::span<const uint8_t> image; // must stay as long as it is used
    TestTree tree;                  // below the target
    uint64_t room = UINT64_MAX;     // bytes that may be written before the disk is full
    unsigned writes = 0;
    size_t largestWrite = 0;

    unsigned calls = 0;
    unsigned failingCall = 0; // counted from 1; 0: none
    bool failed = false;      // the failing call was reached
    int openFiles = 0;
};

extern FileMemory fileMemory;

// An empty target and this image.
void FileMemory_Reset(std::span<const uint8_t> image);
