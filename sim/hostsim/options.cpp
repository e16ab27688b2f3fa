#include "sim/hostsim/options.h"

#include <array>
#include <charconv>
#include <getopt.h>
#include <limits>

const char OPTIONS_HELP[] =
    R"(Usage: hostsim [OPTION]... [--] PROGRAM [ARGUMENT]...
Starts PROGRAM, the upgrader, as if inside a virtual machine: answers its port accesses, copies an image into it
over the channel, tells it to install, and says how it went.

What happens:
  -i, --image FILE          the tools image to copy; without it nothing is copied
  -r, --run-args TEXT       text behind "upgrader.run", such as "-q"
      --no-verify           do not read the copy back
      --file-version N      version of the file requests: 3 (default) or 1
      --cancel WHEN         send "upgrader.cancel" before, during or after the copy, or while installing
      --break-at WHEN       raise a console event at that time
      --signal NAME         which: ctrl-c, break (default), close, logoff or shutdown
      --refuse-greeting[=HOW]  as an unknown request (default), or with a text
  -d, --do STEP             the next step of a script in place of the usual one; may be repeated:
                              greeting | capabilities | copy [PERCENT] | verify | walk | run [ARGUMENTS] | cancel |
                              ping | reset | send TEXT [=> REPLY] | log TEXT | idle POLLS |
                              signal NAME | end

Faults:
      --fail-call N[:COUNT]        fail the N-th port call (and the ones after it)
      --checkpoint-call N[:COUNT]  the same with a checkpoint
      --checkpoint-payloads        answer every payload with a checkpoint
      --low-bandwidth              never offer the high-bandwidth port
      --no-cookie-open             refuse the first form of opening a channel
      --refuse-channel NAME        refuse channels of the protocol RPCI or TCLO
      --version N                  answer the version query with N
      --silent                     leave the version query unanswered
      --no-port                    do not answer the port at all
      --crash KIND@N               let PROGRAM crash at the N-th port call: read, illegal, breakpoint, overflow
                                   or thread (a read on another one)

What to expect:
      --expect-exit N       exit code of PROGRAM (default 0; 1 when it cannot start)
      --expect-end WHAT     "toolinstall.end 0": sent, none or any
      --expect-no-start     PROGRAM ends without a greeting
  -t, --timeout SECONDS     then PROGRAM is ended (default 300)

What to show:
  -g, --guest-log           PROGRAM's debug output
      --transcript FILE     write every message down
      --quiet               only the summary
  -h, --help                this text

Exit code: 0 as expected; 1 wrong usage; 2 PROGRAM cannot be started; 3 timed out; 4 PROGRAM crashed;
5 another exit code than expected; 6 a wrong use of the port or the channels; 7 the script failed; 8 the copy
failed or differs; 9 end notice missing or unexpected; 10 the image was left behind; 11 completion was not
signalled; 12 interrupted.
)";

namespace {

enum LongOption {
    // Above every character.
    OPTION_NO_VERIFY = 256,
    OPTION_FILE_VERSION,
    OPTION_CANCEL,
    OPTION_BREAK_AT,
    OPTION_SIGNAL,
    OPTION_REFUSE_GREETING,
    OPTION_FAIL_CALL,
    OPTION_CHECKPOINT_CALL,
    OPTION_CHECKPOINT_PAYLOADS,
    OPTION_LOW_BANDWIDTH,
    OPTION_NO_COOKIE_OPEN,
    OPTION_REFUSE_CHANNEL,
    OPTION_VERSION,
    OPTION_SILENT,
    OPTION_NO_PORT,
    OPTION_CRASH,
    OPTION_EXPECT_EXIT,
    OPTION_EXPECT_END,
    OPTION_EXPECT_NO_START,
    OPTION_TRANSCRIPT,
    OPTION_QUIET,
};

constexpr option LONG_OPTIONS[] = {
    {"image", required_argument, nullptr, 'i'},
    {"run-args", required_argument, nullptr, 'r'},
    {"no-verify", no_argument, nullptr, OPTION_NO_VERIFY},
    {"file-version", required_argument, nullptr, OPTION_FILE_VERSION},
    {"cancel", required_argument, nullptr, OPTION_CANCEL},
    {"break-at", required_argument, nullptr, OPTION_BREAK_AT},
    {"signal", required_argument, nullptr, OPTION_SIGNAL},
    {"refuse-greeting", optional_argument, nullptr, OPTION_REFUSE_GREETING},
    {"do", required_argument, nullptr, 'd'},
    {"fail-call", required_argument, nullptr, OPTION_FAIL_CALL},
    {"checkpoint-call", required_argument, nullptr, OPTION_CHECKPOINT_CALL},
    {"checkpoint-payloads", no_argument, nullptr, OPTION_CHECKPOINT_PAYLOADS},
    {"low-bandwidth", no_argument, nullptr, OPTION_LOW_BANDWIDTH},
    {"no-cookie-open", no_argument, nullptr, OPTION_NO_COOKIE_OPEN},
    {"refuse-channel", required_argument, nullptr, OPTION_REFUSE_CHANNEL},
    {"version", required_argument, nullptr, OPTION_VERSION},
    {"silent", no_argument, nullptr, OPTION_SILENT},
    {"no-port", no_argument, nullptr, OPTION_NO_PORT},
    {"crash", required_argument, nullptr, OPTION_CRASH},
    {"expect-exit", required_argument, nullptr, OPTION_EXPECT_EXIT},
    {"expect-end", required_argument, nullptr, OPTION_EXPECT_END},
    {"expect-no-start", no_argument, nullptr, OPTION_EXPECT_NO_START},
    {"timeout", required_argument, nullptr, 't'},
    {"guest-log", no_argument, nullptr, 'g'},
    {"transcript", required_argument, nullptr, OPTION_TRANSCRIPT},
    {"quiet", no_argument, nullptr, OPTION_QUIET},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

bool Number(std::string_view text, uint64_t low, uint64_t high, uint64_t* number) {
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *number);
    return error == std::errc() && end == text.data() + text.size() && *number >= low && *number <= high;
}

bool Number32(std::string_view text, uint32_t low, uint32_t high, uint32_t* number) {
    uint64_t wide = 0;
    if (!Number(text, low, high, &wide)) {
        return false;
    }
    *number = static_cast<uint32_t>(wide);
    return true;
}

// N or N:COUNT.
bool CallRange(std::string_view text, uint64_t* first, uint64_t* count) {
    constexpr uint64_t MOST = std::numeric_limits<uint64_t>::max();
    size_t colon = text.find(':');
    *count = 1;
    return Number(text.substr(0, colon), 1, MOST, first) &&
           (colon == std::string_view::npos || Number(text.substr(colon + 1), 1, MOST, count));
}

template <typename Value>
struct Named {
    std::string_view name;
    Value value;
};

template <typename Value, size_t Size>
bool Choice(std::string_view text, const std::array<Named<Value>, Size>& choices, Value* value) {
    for (const Named<Value>& choice : choices) {
        if (choice.name == text) {
            *value = choice.value;
            return true;
        }
    }
    return false;
}

constexpr std::array<Named<Options_Point>, 4> POINTS = {{{"before", Options_Point::Before},
                                                         {"during", Options_Point::During},
                                                         {"after", Options_Point::After},
                                                         {"installing", Options_Point::Installing}}};
constexpr std::array<Named<Host_Greeting>, 2> REFUSALS = {
    {{"unknown", Host_Greeting::Unknown}, {"text", Host_Greeting::Text}}};
constexpr std::array<Named<uint32_t>, 2> PROTOCOLS = {
    {{"RPCI", HOSTCHANNEL_RPCI}, {"TCLO", HOSTCHANNEL_TCLO}}};
constexpr std::array<Named<Host_EndNotice>, 3> NOTICES = {
    {{"sent", Host_EndNotice::Sent}, {"none", Host_EndNotice::None}, {"any", Host_EndNotice::Any}}};

constexpr std::array<Named<Options_Crash>, 5> CRASHES = {{{"read", Options_Crash::Read},
                                                          {"illegal", Options_Crash::Illegal},
                                                          {"breakpoint", Options_Crash::Breakpoint},
                                                          {"overflow", Options_Crash::Overflow},
                                                          {"thread", Options_Crash::Thread}}};

bool TakeExpectation(Options* options, int option, const char* value) {
    constexpr uint32_t MOST = std::numeric_limits<uint32_t>::max();
    if (option == OPTION_EXPECT_EXIT) {
        return Number32(value, 0, MOST, &options->expectedExit.emplace());
    }
    if (option == OPTION_EXPECT_END) {
        return Choice(value, NOTICES, &options->expectedEnd.emplace());
    }
    options->expectNoStart = true;
    return true;
}

// KIND@N.
bool TakeCrash(Options* options, std::string_view text) {
    const size_t at = text.find('@');
    return at != std::string_view::npos && Choice(text.substr(0, at), CRASHES, &options->crash) &&
           Number(text.substr(at + 1), 1, std::numeric_limits<uint64_t>::max(), &options->crashCall);
}

bool TakeFault(Options* options, int option, const char* value) {
    Hypervisor_Faults& faults = options->faults;
    switch (option) {
    case OPTION_FAIL_CALL:
        return CallRange(value, &faults.failCall, &faults.failCount);
    case OPTION_CHECKPOINT_CALL:
        return CallRange(value, &faults.checkpointCall, &faults.checkpointCount);
    case OPTION_CHECKPOINT_PAYLOADS:
        faults.checkpointPayloads = true;
        return true;
    case OPTION_LOW_BANDWIDTH:
        faults.lowBandwidth = true;
        return true;
    case OPTION_NO_COOKIE_OPEN:
        faults.refuseCookieOpen = true;
        return true;
    case OPTION_REFUSE_CHANNEL:
        return Choice(value, PROTOCOLS, &faults.refusedProtocol);
    case OPTION_VERSION:
        return Number32(value, 0, std::numeric_limits<uint32_t>::max(), &faults.version);
    case OPTION_SILENT:
        faults.silent = true;
        return true;
    case OPTION_NO_PORT:
        options->noPort = true;
        return true;
    case OPTION_CRASH:
        return TakeCrash(options, value);
    default:
        return TakeExpectation(options, option, value);
    }
}

// One option with its value; false when the value is no good.
bool TakeOption(Options* options, int option, const char* value) {
    switch (option) {
    case 'i':
        options->image = value;
        return !options->image.empty();
    case 'r':
        options->runArguments = value;
        return true;
    case 'd':
        options->steps.emplace_back(value);
        return true;
    case 't':
        return Number32(value, 1, 1000000, &options->timeout);
    case 'g':
        options->guestLog = true;
        return true;
    case 'h':
        options->help = true;
        return true;
    case OPTION_NO_VERIFY:
        options->verify = false;
        return true;
    case OPTION_FILE_VERSION:
        return Number32(value, 1, 3, &options->fileVersion) && options->fileVersion != 2;
    case OPTION_CANCEL:
        return Choice(value, POINTS, &options->cancel);
    case OPTION_BREAK_AT:
        return Choice(value, POINTS, &options->breakAt);
    case OPTION_SIGNAL:
        return Host_ParseSignal(value, &options->signal);
    case OPTION_REFUSE_GREETING:
        return Choice(value ? value : "unknown", REFUSALS, &options->greeting);
    case OPTION_TRANSCRIPT:
        options->transcript = value;
        return !options->transcript.empty();
    case OPTION_QUIET:
        options->quiet = true;
        return true;
    default:
        return TakeFault(options, option, value);
    }
}

bool CheckCombination(const Options& options, std::string* error) {
    bool interrupted = options.cancel != Options_Point::Never || options.breakAt != Options_Point::Never;
    if (options.cancel != Options_Point::Never && options.breakAt != Options_Point::Never) {
        *error = "--cancel and --break-at exclude each other";
    } else if (!options.steps.empty() && (interrupted || options.expectNoStart)) {
        *error = "--do excludes --cancel, --break-at and --expect-no-start";
    } else if (options.guest.empty()) {
        *error = "which program?";
    } else {
        return true;
    }
    return false;
}

Host_Step Step(std::string_view text) {
    Host_Step step;
    std::string error;
    Host_ParseStep(text, &step, &error);
    return step;
}

// The event that interrupts the usual script, if any.
std::optional<Host_Step> Interruption(const Options& options) {
    if (options.cancel != Options_Point::Never) {
        return Step("cancel");
    }
    if (options.breakAt != Options_Point::Never) {
        return Host_Step{Host_Verb::Signal, "", "", options.signal};
    }
    return std::nullopt;
}

// The usual script up to a point.
void AppendUsual(const Options& options, Options_Point until, std::vector<Host_Step>* steps) {
    steps->push_back(Step("greeting"));
    if (options.greeting != Host_Greeting::Accept) {
        return;
    }
    steps->push_back(Step("capabilities"));
    if (until == Options_Point::Before) {
        return;
    }
    if (!options.image.empty()) {
        steps->push_back(Step(until == Options_Point::During ? "copy 50" : "copy"));
        if (until == Options_Point::During) {
            return;
        }
        if (options.verify) {
            steps->push_back(Step("verify"));
        }
    }
    if (until == Options_Point::After) {
        return;
    }
    steps->push_back(Step(options.runArguments.empty() ? "run" : "run " + options.runArguments));
    if (until == Options_Point::Installing) {
        steps->push_back(Step("log Attempting to launch"));
    }
}

} // namespace

bool Options_Parse(int count, char** arguments, Options* options, std::string* error) {
    *options = {};
    optind = 1;
    opterr = 0;
    // '+': the first argument that is no option is the program, and what follows is its own.
    for (int option = 0;
         (option = getopt_long(count, arguments, "+:i:r:d:t:gh", LONG_OPTIONS, nullptr)) != -1;) {
        if (option == '?' || option == ':') {
            *error = std::string(option == ':' ? "a value is missing: " : "unknown option: ") +
                     arguments[optind - 1];
            return false;
        }
        if (!TakeOption(options, option, optarg)) {
            *error = std::string("not a possible value: ") + optarg;
            return false;
        }
    }
    options->guest.assign(arguments + optind, arguments + count);
    return options->help || CheckCombination(*options, error);
}

bool Options_Script(const Options& options, std::vector<Host_Step>* steps, std::string* error) {
    steps->clear();
    for (const std::string& text : options.steps) {
        steps->emplace_back();
        if (!Host_ParseStep(text, &steps->back(), error)) {
            return false;
        }
    }
    if (options.expectNoStart || !options.steps.empty()) {
        return true;
    }
    AppendUsual(options, options.cancel != Options_Point::Never ? options.cancel : options.breakAt, steps);
    if (auto interruption = Interruption(options);
        interruption && options.greeting == Host_Greeting::Accept) {
        steps->push_back(*interruption);
    }
    steps->push_back(Step("end"));
    return true;
}

uint32_t Options_ExpectedExit(const Options& options) {
    bool starts = options.greeting == Host_Greeting::Accept && !options.expectNoStart;
    return options.expectedExit.value_or(starts ? 0 : 1);
}

Host_EndNotice Options_ExpectedEnd(const Options& options) {
    if (options.expectedEnd) {
        return *options.expectedEnd;
    }
    if (!options.steps.empty()) {
        return Host_EndNotice::Any;
    }
    // A guest that a console event ends has not installed anything; one that is cancelled keeps silent.
    bool interrupted = options.breakAt != Options_Point::Never && options.greeting == Host_Greeting::Accept;
    bool stops = options.signal != 0; // Ctrl+C does not
    return interrupted && stops ? Host_EndNotice::Sent : Host_EndNotice::None;
}
