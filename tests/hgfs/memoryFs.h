// A file system in memory behind the file server's platform table, with knobs for faults that a real one does
// not produce on demand. It has names, contents and attributes, but hardly any of the rules by which a real
// one refuses requests. One per process.
#pragma once

#include "hgfslib/hgfsPlatform.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

struct MemoryFile {
    std::string name;    // as it is spelled in its directory
    HgfsFileInfo info{}; // all but the sizes
    std::vector<uint8_t> data;
};

struct MemoryVolume {
    uint64_t freeBytes = 0;
    uint64_t totalBytes = 0;
    bool fails = false;
};

struct MemoryFs {
    std::map<std::string, std::shared_ptr<MemoryFile>> files; // by lower-case path
    std::map<std::string, MemoryVolume> volumes;              // by root, "C:\"
    uint64_t capacity = 1 << 20;                              // bytes in all files together
    uint64_t now = 1000;

    uint64_t calls = 0;      // of functions that may fail
    uint64_t failCall = 0;   // this one fails (1 is the first), 0 for none
    uint32_t failError = 21; // with this
    bool failClose = false;
    uint32_t startUpError = 0;
    size_t openHandles = 0;
    std::vector<HgfsOpenArguments> opens; // every open that was asked for
};

// Empties the file system, leaving C: and D:, and C:\tmp. No handle may be open.
MemoryFs& MemoryFs_Reset();
MemoryFs& MemoryFs_Get();
const HgfsPlatform* MemoryFs_Platform();

// Puts a file there, its directory's existence not looked at.
MemoryFile& MemoryFs_Add(const std::string& path, uint32_t attributes, std::string_view data = {});
MemoryFile* MemoryFs_Find(const std::string& path);
