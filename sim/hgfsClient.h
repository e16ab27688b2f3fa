// The host's end of the file protocol: copies one file into the guest and reads it back for comparison, or
// walks through every operation there is.
//
// A job is a sequence of request packets, one at a time: HgfsClient_Append makes the next one,
// HgfsClient_Take judges the guest's reply. The file's bytes come from a callback, so nothing is held but one
// packet.
#pragma once

#include "hgfslib/hgfsProto.h"
#include "sim/hgfsExercise.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// The file to copy, by position. `read` fills the whole of `bytes` or returns false.
struct HgfsClient_Source {
    bool (*read)(void* clientData, uint64_t offset, uint8_t* bytes, size_t length) = nullptr;
    void* clientData = nullptr;
    uint64_t size = 0;
};

enum class HgfsClient_Job {
    None,
    Copy,   // create or empty, write, close
    Verify, // attributes, open, read up to the end and once beyond it, close
    Walk,   // every operation in every version, in the file's directory
};

enum class HgfsClient_State { Attributes, Open, Transfer, Close, Done, Failed };

struct HgfsClient {
    HgfsClient_Source source;
    uint32_t version = 3; // of the layouts: 3, or 1 with its small packets
    std::string name;     // components separated by NUL bytes

    HgfsClient_Job job = HgfsClient_Job::None;
    HgfsClient_State state = HgfsClient_State::Done;
    uint64_t limit = 0;  // a copy ends here, its file left open when this is short of the whole
    uint64_t offset = 0; // bytes copied or compared so far
    uint32_t handle = 0;
    uint32_t requestId = 0; // of the request that is out
    HgfsOp requestOp = HgfsOpOpen;
    uint32_t requestSize = 0;  // bytes asked to be read or written
    uint64_t requests = 0;     // packets made for this job
    std::vector<uint8_t> data; // the source's part of the packet under way
    HgfsExercise walk;
    std::string error; // set in state Failed
};

// The protocol's name for a file in a directory given as a drive path or as a network path, with or without a
// trailing separator. Empty when the directory is neither.
std::string HgfsClient_Name(std::string_view directory, std::string_view file);

// Begins a job. A copy stops after `percent` of the source's bytes.
void HgfsClient_Begin(HgfsClient* client, HgfsClient_Job job, unsigned percent = 100);

// Appends the next request packet to `message`. False when the job is over, well or not.
bool HgfsClient_Append(HgfsClient* client, std::vector<uint8_t>* message);

// Takes the reply to the last request. False when the job has failed.
bool HgfsClient_Take(HgfsClient* client, std::span<const uint8_t> reply);

// One line for a transcript: operation, id and main fields; and a packet's first bytes in hexadecimal.
std::string HgfsClient_DescribeRequest(std::span<const uint8_t> packet);
std::string HgfsClient_DescribeReply(uint32_t op, std::span<const uint8_t> packet);
std::string HgfsClient_StatusName(uint32_t status);
std::string HgfsClient_Hex(std::span<const uint8_t> packet);
