// A walk through every operation of the file protocol in every version, each answer checked.
#pragma once

#include "sim/hgfsPackets.h"

#include <cstddef>
#include <cstdint>
#include <string>

struct HgfsExercise {
    std::string directory; // protocol name of an existing directory; the walk leaves in it what it found
    size_t step = 0;
    uint32_t handle = 0; // of the file that is open
    uint32_t search = 0; // of the listing that is open
};

// Makes the next request, all but its id. False when the walk is over.
bool HgfsExercise_Next(const HgfsExercise& exercise, HgfsPackets_Request* request);

// Takes the reply to that request and goes on to the next step. False with *error set when it is not the
// reply that a guest in order gives; the walk may be continued all the same.
bool HgfsExercise_Take(HgfsExercise* exercise, const HgfsPackets_Reply& reply, std::string* error);
