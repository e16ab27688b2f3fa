// The host's end of every HGFS packet: requests of all operations and versions from one form, replies back
// into another.
#pragma once

#include "hgfslib/hgfsProto.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// The attribute block of all versions. A version 1 block has one byte of permissions, the owner's here.
struct HgfsPackets_Attributes {
    uint64_t mask = 0; // kHgfsBlock...; of a version 1 request the bits that version 1 has
    uint32_t type = 0;
    uint64_t size = 0;
    uint64_t creationTime = 0;
    uint64_t accessTime = 0;
    uint64_t writeTime = 0;
    uint64_t changeTime = 0;
    uint8_t specialPerms = 0;
    uint8_t ownerPerms = 0;
    uint8_t groupPerms = 0;
    uint8_t otherPerms = 0;
    uint64_t attributes = 0;
    uint64_t allocationSize = 0;
    uint32_t userId = 0;
    uint32_t groupId = 0;
    uint64_t fileId = 0;
    uint32_t volumeId = 0;
    uint32_t effectivePerms = 0;
};

// A request of any operation; the fields that an operation or version does not have are not looked at.
struct HgfsPackets_Request {
    HgfsOp op = HgfsOpOpen;
    uint32_t id = 0;
    uint64_t mask = 0; // valid fields
    uint32_t handle = 0;
    std::string name; // components separated by NUL bytes
    std::string newName;
    uint32_t caseType = kHgfsCaseDefault;

    uint32_t mode = 0; // open
    uint32_t flags = 0;
    uint8_t ownerPerms = kHgfsPermRead | kHgfsPermWrite;
    uint64_t attributes = 0;
    uint64_t allocationSize = 0;
    uint32_t desiredAccess = 0;
    uint32_t shareAccess = 0;
    uint32_t desiredLock = 0;

    uint64_t offset = 0; // read and write
    uint32_t size = 0;
    uint8_t writeFlags = 0;
    std::string_view data;

    uint32_t index = 0; // search read
    HgfsPackets_Attributes change;
};
std::vector<uint8_t> HgfsPackets_Encode(const HgfsPackets_Request& request);

struct HgfsPackets_Reply {
    uint32_t id = 0;
    uint32_t status = 0;
    uint32_t handle = 0;
    uint32_t lock = 0;
    uint32_t actualSize = 0;
    std::string data;
    HgfsPackets_Attributes attributes;
    std::string name;
    uint64_t freeBytes = 0;
    uint64_t totalBytes = 0;
};

// False for a reply that is not exactly what the operation's layout asks for: its size, its terminators and
// its reserved bytes included.
bool HgfsPackets_Decode(HgfsOp op, std::span<const uint8_t> packet, HgfsPackets_Reply* reply);
