// The command line of hostsim, and the script of steps that it asks for.
#pragma once

#include "sim/host.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// When a cancel or a console event comes.
enum class Options_Point { Never, Before, During, After, Installing };

// What --crash makes the guest do.
enum class Options_Crash { Read, Illegal, Breakpoint, Overflow, Thread };

struct Options {
    std::string image;
    std::string runArguments;
    std::vector<std::string> steps; // --do; in place of the usual script
    Options_Point cancel = Options_Point::Never;
    Options_Point breakAt = Options_Point::Never;
    unsigned signal = 1; // what --break-at raises
    Host_Greeting greeting = Host_Greeting::Accept;
    uint32_t fileVersion = 3;
    Hypervisor_Faults faults;
    bool noPort = false;
    Options_Crash crash = Options_Crash::Read;
    uint64_t crashCall = 0; // the port call that crashes in place of an answer, counted from 1; 0: none
    bool verify = true;
    std::optional<uint32_t> expectedExit;
    std::optional<Host_EndNotice> expectedEnd;
    bool expectNoStart = false;
    uint32_t timeout = 300; // seconds
    bool guestLog = false;
    bool quiet = false;
    std::string transcript;
    std::vector<std::string> guest; // program and arguments

    bool help = false;
};

// Reads the command line, argument 0 being the program. False with a message for the user in *error. Not
// thread-safe: it uses the C library's option parser.
bool Options_Parse(int count, char** arguments, Options* options, std::string* error);

// The steps to take. False when a step given by --do is not one.
bool Options_Script(const Options& options, std::vector<Host_Step>* steps, std::string* error);

uint32_t Options_ExpectedExit(const Options& options);
Host_EndNotice Options_ExpectedEnd(const Options& options);

extern const char OPTIONS_HELP[];
