// What the host does over the channels: answers the guest's requests, sends it commands, copies the image
// into the directory that the guest announces, and follows a script of steps.
//
// A host is told of everything by callbacks (Host_Service, Host_GuestSaid) and makes no system call. What
// goes wrong is collected in `problems`; a host without problems whose steps are all done has seen what it
// expected.
#pragma once

#include "sim/hgfsClient.h"
#include "sim/hypervisor.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

enum class Host_Verb {
    Greeting, // wait until the guest has announced its directory
    Send,     // send a command, expect its reply
    Copy,     // copy the image, or the first percent of it
    Verify,   // read the copy back and compare
    Walk,     // every file operation in every version, in the announced directory
    Log,      // wait until the guest's debug output holds a text
    Idle,     // let the guest poll a number of times
    Signal,   // raise a console control event in the guest
    End,      // wait until the guest has closed the command channel
};

struct Host_Step {
    Host_Verb verb = Host_Verb::End;
    std::string text;     // command or debug text
    std::string expected; // reply to Send, prefix included
    unsigned number = 0;  // percent, polls, or control event
};

// Reads a step as people write it:
//   greeting | capabilities | copy [PERCENT] | verify | walk | run [ARGUMENTS] | cancel | ping | reset |
//   send TEXT [=> REPLY] | log TEXT | idle POLLS | signal ctrl-c|break|close|logoff|shutdown | end
// The reply of `send` is "OK " when not given. False with *error set when it is none of these.
bool Host_ParseStep(std::string_view text, Host_Step* step, std::string* error);
std::string Host_DescribeStep(const Host_Step& step);

// Number of a console control event by its name above; false for an unknown name.
bool Host_ParseSignal(std::string_view name, unsigned* number);

enum class Host_Greeting {
    Accept,
    Unknown, // as a host that has never heard of the request: status 0
    Text,    // as a host that answers success with a text, where silence is expected
};

enum class Host_EndNotice { None, Sent, Any }; // "toolinstall.end 0"

// How far the upgrade has come; each is entered once.
enum class Host_Phase { Starting, Greeted, Copying, Verifying, Extracting, Installing, Finishing, Ended };
inline constexpr size_t HOST_PHASES = 8;
const char* Host_PhaseName(Host_Phase phase);

enum class Host_ProblemKind {
    Script,  // a step that did not go as written
    Message, // a message that breaks the rules of its channel
    Copy,    // the copy failed or differs
    Notice,  // "toolinstall.end 0" missing, or sent where it should not be
};
struct Host_Problem {
    Host_ProblemKind kind;
    std::string text;
};

// Callbacks to whoever runs the host. Any may be null.
struct Host_Observer {
    void (*phase)(void* clientData, Host_Phase phase) = nullptr;
    void (*transcript)(void* clientData, const std::string& line) = nullptr; // no line end
    void (*signal)(void* clientData, unsigned event) = nullptr;
    void* clientData = nullptr;
};

struct Host {
    // Set before the guest starts.
    std::vector<Host_Step> steps;
    Host_Greeting greeting = Host_Greeting::Accept;
    Host_EndNotice expectedEnd = Host_EndNotice::None;
    std::string imageName = "windows.iso"; // in the guest
    HgfsClient client;                     // its source is the image
    Host_Observer observer;

    // What has happened.
    size_t step = 0;      // the step under way
    std::string root;     // the directory that the guest announced
    bool endSent = false; // the guest sent "toolinstall.end 0"
    Host_Phase phase = Host_Phase::Starting;
    std::vector<Host_Problem> problems;
    std::vector<std::string> requests; // everything asked over RPCI, in order
    uint64_t polls = 0;                // times the guest asked for a command and got none
    uint64_t copiedBytes = 0;
    uint64_t copyPackets = 0;
    uint64_t verifiedBytes = 0;
    uint64_t verifyPackets = 0;

    // Command channel.
    std::optional<uint16_t> tclo;
    bool polled = true;      // the guest has asked since it last sent
    bool commandOut = false; // a command was handed over and its reply has not come
    bool commandIsPacket = false;
    unsigned stepPolls = 0;
    bool givingUp = false; // a step failed: the guest is cancelled, so that it ends
    bool cancelSent = false;

    // Request channels: replies that wait to be fetched.
    std::vector<std::pair<uint16_t, std::optional<std::string>>> rpci;
};

// The callbacks that make a hypervisor talk to this host. The host must outlive them.
Hypervisor_Service Host_Service(Host* host);

// Begins the first step. Called once, before the guest starts.
void Host_Start(Host* host);

// One message of the guest's debug output, without the program's prefix.
void Host_GuestSaid(Host* host, std::string_view text);

// Called once the guest is gone: adds what was expected and has not come.
void Host_Finish(Host* host);

inline bool Host_Done(const Host& host) {
    return host.step == host.steps.size();
}
