#include "sim/host.h"

#include "string/str.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace {

constexpr std::string_view PACKET_COMMAND = "f ";
constexpr std::string_view REPLY_OK = "OK ";
constexpr std::string_view REPLY_ERROR = "ERROR ";
constexpr size_t TRANSCRIPT_TEXT = 300; // bytes of one message

constexpr std::string_view REQUEST_ROOT = "upgrader.setGuestFileRoot ";
constexpr std::string_view REQUEST_PARAMETERS = "tools.capability.upgrader_parameters 1";
constexpr std::string_view REQUEST_FILES_ON = "tools.capability.hgfs_server tools-upgrader 1";
constexpr std::string_view REQUEST_FILES_OFF = "tools.capability.hgfs_server tools-upgrader 0";
constexpr std::string_view REQUEST_END = "toolinstall.end 0";

struct SignalName {
    std::string_view name;
    unsigned number;
};
constexpr std::array<SignalName, 5> SIGNALS = {
    {{"ctrl-c", 0}, {"break", 1}, {"close", 2}, {"logoff", 5}, {"shutdown", 6}}};

// What the guest says on its way, and the phase that begins with it.
struct Milestone {
    std::string_view text;
    Host_Phase phase;
};
constexpr std::array<Milestone, 3> MILESTONES = {
    {{"Upgrader: Beginning installation.", Host_Phase::Extracting},
     {"Attempting to launch ", Host_Phase::Installing},
     {"Setup process returned ", Host_Phase::Finishing}}};

std::string_view Text(std::span<const uint8_t> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

std::span<const uint8_t> Bytes(std::string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

std::string Printable(std::string_view text) {
    std::string out = "'";
    for (char character : text.substr(0, TRANSCRIPT_TEXT)) {
        auto byte = static_cast<unsigned char>(character);
        if (byte < 0x20 || byte == 0x7F) {
            out += Str_Format("\\x%02x", static_cast<unsigned>(byte));
        } else {
            out += character;
        }
    }
    out += '\'';
    if (text.size() > TRANSCRIPT_TEXT) {
        out += Str_Format(" (%u bytes)", static_cast<unsigned>(text.size()));
    }
    return out;
}

void Say(Host* host, const std::string& line) {
    if (host->observer.transcript) {
        host->observer.transcript(host->observer.clientData, line);
    }
}

void Problem(Host* host, Host_ProblemKind kind, const std::string& text) {
    Say(host, "problem: " + text);
    host->problems.push_back({kind, text});
}

void EnterPhase(Host* host, Host_Phase phase) {
    if (phase > host->phase) {
        host->phase = phase;
        if (host->observer.phase) {
            host->observer.phase(host->observer.clientData, phase);
        }
    }
}

const Host_Step* CurrentStep(const Host& host) {
    return Host_Done(host) ? nullptr : &host.steps[host.step];
}

bool StepIs(const Host& host, Host_Verb verb) {
    const Host_Step* step = CurrentStep(host);
    return step && step->verb == verb;
}

void BeginStep(Host* host);

void NextStep(Host* host) {
    ++host->step;
    BeginStep(host);
}

// A step that cannot be carried out leaves the ones behind it undone. The guest is cancelled, or else it
// would wait for commands for ever.
void AbandonScript(Host* host, Host_ProblemKind kind, const std::string& text) {
    Problem(host, kind, text);
    host->step = host->steps.size();
    host->givingUp = true;
}

void BeginStep(Host* host) {
    host->stepPolls = 0;
    const Host_Step* step = CurrentStep(*host);
    if (!step) {
        return;
    }
    switch (step->verb) {
    case Host_Verb::Copy:
        EnterPhase(host, Host_Phase::Copying);
        HgfsClient_Begin(&host->client, HgfsClient_Job::Copy, step->number);
        break;
    case Host_Verb::Verify:
        EnterPhase(host, Host_Phase::Verifying);
        HgfsClient_Begin(&host->client, HgfsClient_Job::Verify);
        break;
    case Host_Verb::Walk:
        HgfsClient_Begin(&host->client, HgfsClient_Job::Walk);
        break;
    case Host_Verb::Signal:
        Say(host, "signal: " + Host_DescribeStep(*step));
        if (host->observer.signal) {
            host->observer.signal(host->observer.clientData, step->number);
        }
        NextStep(host);
        break;
    default:
        break;
    }
}

// ---- Requests of the guest ----

bool LooksLikeRoot(std::string_view root) {
    // Eight hexadecimal digits between separators at the end of an absolute path.
    constexpr size_t DIGITS = 8;
    if (root.size() < DIGITS + 4 || root.back() != '\\' || root[root.size() - DIGITS - 2] != '\\') {
        return false;
    }
    std::string_view digits = root.substr(root.size() - DIGITS - 1, DIGITS);
    return digits.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

std::string AnswerRoot(Host* host, std::string_view root) {
    if (!host->root.empty()) {
        Problem(host, Host_ProblemKind::Message, "a second directory was announced");
    }
    host->root = root;
    host->client.name = HgfsClient_Name(root, host->imageName);
    if (!LooksLikeRoot(root) || host->client.name.empty()) {
        Problem(host, Host_ProblemKind::Message,
                "the directory announced has an odd name: " + Printable(root));
    }
    EnterPhase(host, Host_Phase::Greeted);
    if (StepIs(*host, Host_Verb::Greeting)) {
        NextStep(host);
    }
    switch (host->greeting) {
    case Host_Greeting::Unknown:
        return "0 Unknown command";
    case Host_Greeting::Text:
        return "1 not compatible";
    case Host_Greeting::Accept:
        break;
    }
    return "1 ";
}

std::string AnswerRequest(Host* host, std::string_view request) {
    if (request.starts_with(REQUEST_ROOT)) {
        return AnswerRoot(host, request.substr(REQUEST_ROOT.size()));
    }
    if (request == REQUEST_END) {
        if (host->endSent) {
            Problem(host, Host_ProblemKind::Message, "a second end notice");
        }
        host->endSent = true;
        return "1 ";
    }
    if (request == REQUEST_PARAMETERS || request == REQUEST_FILES_ON || request == REQUEST_FILES_OFF) {
        return "1 ";
    }
    Problem(host, Host_ProblemKind::Message, "unknown request " + Printable(request));
    return "0 Unknown command";
}

void RequestFromGuest(Host* host, std::optional<std::string>* reply, std::string_view request) {
    Say(host, "guest request: " + Printable(request));
    host->requests.emplace_back(request);
    *reply = AnswerRequest(host, request);
    Say(host, "host answers:  " + Printable(**reply));
}

// ---- Commands to the guest ----

void TakePacketReply(Host* host, std::string_view reply) {
    if (!reply.starts_with(REPLY_OK)) {
        return AbandonScript(host, Host_ProblemKind::Copy, "file request answered " + Printable(reply));
    }
    std::span<const uint8_t> packet = Bytes(reply.substr(REPLY_OK.size()));
    Say(host, "guest: " + HgfsClient_DescribeReply(host->client.requestOp, packet));
    if (!HgfsClient_Take(&host->client, packet)) {
        return AbandonScript(host, Host_ProblemKind::Copy, host->client.error);
    }
    if (host->client.job == HgfsClient_Job::Walk) {
        Say(host, "       " + HgfsClient_Hex(packet));
    } else {
        bool copy = host->client.job == HgfsClient_Job::Copy;
        (copy ? host->copiedBytes : host->verifiedBytes) = host->client.offset;
        (copy ? host->copyPackets : host->verifyPackets) = host->client.requests;
    }
    if (host->client.state == HgfsClient_State::Done) {
        NextStep(host);
    }
}

void TakeCommandReply(Host* host, std::string_view reply) {
    Say(host, "guest: " + Printable(reply));
    if (!reply.starts_with(REPLY_OK) && !reply.starts_with(REPLY_ERROR)) {
        Problem(host, Host_ProblemKind::Message,
                "a reply that says neither OK nor ERROR: " + Printable(reply));
    }
    const Host_Step* step = CurrentStep(*host);
    if (!step || step->verb != Host_Verb::Send) {
        return;
    }
    if (reply != step->expected) {
        return AbandonScript(host, Host_ProblemKind::Script,
                             Host_DescribeStep(*step) + ": answered " + Printable(reply) + " instead of " +
                                 Printable(step->expected));
    }
    NextStep(host);
}

// The guest sends exactly one message between two polls: the reply that it owes, or an empty one.
void CommandChannelSpoke(Host* host, std::string_view message) {
    if (!host->polled) {
        Problem(host, Host_ProblemKind::Message,
                "two messages on the command channel without a poll between them");
    }
    host->polled = false;
    if (!host->commandOut) {
        if (!message.empty()) {
            Problem(host, Host_ProblemKind::Message, "a reply to no command: " + Printable(message));
        }
        return;
    }
    host->commandOut = false;
    if (host->commandIsPacket) {
        TakePacketReply(host, message);
    } else {
        TakeCommandReply(host, message);
    }
}

bool PacketForGuest(Host* host, std::vector<uint8_t>* message) {
    message->assign(PACKET_COMMAND.begin(), PACKET_COMMAND.end());
    if (!HgfsClient_Append(&host->client, message)) {
        AbandonScript(host, Host_ProblemKind::Copy, host->client.error);
        return false;
    }
    std::span<const uint8_t> packet = std::span(*message).subspan(PACKET_COMMAND.size());
    Say(host, "host:  f " + HgfsClient_DescribeRequest(packet));
    if (host->client.job == HgfsClient_Job::Walk) {
        Say(host, "         " + HgfsClient_Hex(packet));
    }
    host->commandIsPacket = true;
    return true;
}

bool TextForGuest(Host* host, const std::string& text, std::vector<uint8_t>* message) {
    Say(host, "host:  " + Printable(text));
    message->assign(text.begin(), text.end());
    host->commandIsPacket = false;
    return true;
}

bool CommandForGuest(Host* host, std::vector<uint8_t>* message) {
    if (host->givingUp && !host->cancelSent) {
        host->cancelSent = true;
        return TextForGuest(host, "upgrader.cancel", message);
    }
    const Host_Step* step = CurrentStep(*host);
    if (!step) {
        return false;
    }
    switch (step->verb) {
    case Host_Verb::Send:
        return TextForGuest(host, step->text, message);
    case Host_Verb::Copy:
    case Host_Verb::Verify:
    case Host_Verb::Walk:
        return PacketForGuest(host, message);
    case Host_Verb::Idle:
        if (++host->stepPolls >= step->number) {
            NextStep(host);
        }
        return false;
    default:
        return false;
    }
}

void CommandChannelClosed(Host* host) {
    Say(host, "guest closed the command channel");
    host->tclo.reset();
    if (StepIs(*host, Host_Verb::End)) {
        NextStep(host);
    } else if (const Host_Step* step = CurrentStep(*host)) {
        AbandonScript(host, Host_ProblemKind::Script,
                      "the guest closed the command channel in step '" + Host_DescribeStep(*step) + "'");
    }
    EnterPhase(host, Host_Phase::Finishing);
}

// ---- The hypervisor's callbacks ----

std::optional<std::string>* PendingReply(Host* host, uint16_t channel) {
    auto found = std::find_if(host->rpci.begin(), host->rpci.end(),
                              [channel](const auto& entry) { return entry.first == channel; });
    return found == host->rpci.end() ? nullptr : &found->second;
}

void OnOpened(void* clientData, uint16_t channel, uint32_t protocol) {
    auto* host = static_cast<Host*>(clientData);
    if (protocol == HOSTCHANNEL_RPCI) {
        host->rpci.emplace_back(channel, std::nullopt);
        return;
    }
    Say(host, "guest opened the command channel");
    if (host->tclo) {
        Problem(host, Host_ProblemKind::Message, "a second command channel");
    }
    host->tclo = channel;
    host->polled = true;
    host->commandOut = false;
}

void OnFromGuest(void* clientData, uint16_t channel, std::span<const uint8_t> message) {
    auto* host = static_cast<Host*>(clientData);
    if (host->tclo == channel) {
        CommandChannelSpoke(host, Text(message));
    } else if (auto* reply = PendingReply(host, channel)) {
        RequestFromGuest(host, reply, Text(message));
    }
}

bool OnForGuest(void* clientData, uint16_t channel, std::vector<uint8_t>* message) {
    auto* host = static_cast<Host*>(clientData);
    if (host->tclo == channel) {
        host->polled = true;
        host->commandOut = CommandForGuest(host, message);
        host->polls += host->commandOut ? 0 : 1;
        return host->commandOut;
    }
    auto* reply = PendingReply(host, channel);
    if (!reply || !*reply) {
        return false;
    }
    message->assign((*reply)->begin(), (*reply)->end());
    reply->reset();
    return true;
}

void OnDelivered(void* clientData, uint16_t channel, bool received) {
    auto* host = static_cast<Host*>(clientData);
    if (!received && host->tclo == channel) {
        host->commandOut = false;
        AbandonScript(host, Host_ProblemKind::Script, "the guest gave a command up");
    }
}

void OnClosed(void* clientData, uint16_t channel) {
    auto* host = static_cast<Host*>(clientData);
    if (host->tclo == channel) {
        return CommandChannelClosed(host);
    }
    std::erase_if(host->rpci, [channel](const auto& entry) { return entry.first == channel; });
}

// ---- Steps in writing ----

std::pair<std::string_view, std::string_view> SplitWord(std::string_view text) {
    size_t blank = std::min(text.find(' '), text.size());
    return {text.substr(0, blank), text.substr(std::min(blank + 1, text.size()))};
}

bool ParseNumber(std::string_view text, unsigned low, unsigned high, unsigned* number) {
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *number);
    return error == std::errc() && end == text.data() + text.size() && *number >= low && *number <= high;
}

Host_Step Send(std::string_view text, std::string_view expected) {
    return {Host_Verb::Send, std::string(text), std::string(expected), 0};
}

Host_Step ParseSend(std::string_view rest) {
    constexpr std::string_view ARROW = " => ";
    size_t arrow = rest.find(ARROW);
    if (arrow == std::string_view::npos) {
        return Send(rest, REPLY_OK);
    }
    return Send(rest.substr(0, arrow), rest.substr(arrow + ARROW.size()));
}

} // namespace

bool Host_ParseSignal(std::string_view name, unsigned* number) {
    auto found = std::find_if(SIGNALS.begin(), SIGNALS.end(),
                              [name](const SignalName& signal) { return signal.name == name; });
    if (found == SIGNALS.end()) {
        return false;
    }
    *number = found->number;
    return true;
}

bool Host_ParseStep(std::string_view text, Host_Step* step, std::string* error) {
    auto [verb, rest] = SplitWord(text);
    unsigned number = 100;
    if (verb == "greeting" && rest.empty()) {
        *step = {Host_Verb::Greeting, "", "", 0};
    } else if (verb == "capabilities" && rest.empty()) {
        *step = Send("Capabilities_Register", REPLY_OK);
    } else if (verb == "copy" && (rest.empty() || ParseNumber(rest, 0, 100, &number))) {
        *step = {Host_Verb::Copy, "", "", number};
    } else if (verb == "verify" && rest.empty()) {
        *step = {Host_Verb::Verify, "", "", 0};
    } else if (verb == "walk" && rest.empty()) {
        *step = {Host_Verb::Walk, "", "", 0};
    } else if (verb == "run") {
        *step = Send(rest.empty() ? "upgrader.run" : "upgrader.run " + std::string(rest), REPLY_OK);
    } else if (verb == "cancel" && rest.empty()) {
        *step = Send("upgrader.cancel", REPLY_OK);
    } else if (verb == "ping" && rest.empty()) {
        *step = Send("ping", REPLY_OK);
    } else if (verb == "reset" && rest.empty()) {
        *step = Send("reset", "OK ATR tools-upgrader");
    } else if (verb == "send" && !rest.empty()) {
        *step = ParseSend(rest);
    } else if (verb == "log" && !rest.empty()) {
        *step = {Host_Verb::Log, std::string(rest), "", 0};
    } else if (verb == "idle" && ParseNumber(rest, 1, 1000000, &number)) {
        *step = {Host_Verb::Idle, "", "", number};
    } else if (verb == "signal" && Host_ParseSignal(rest, &number)) {
        *step = {Host_Verb::Signal, "", "", number};
    } else if (verb == "end" && rest.empty()) {
        *step = {Host_Verb::End, "", "", 0};
    } else {
        *error = "no such step: '" + std::string(text) + "'";
        return false;
    }
    return true;
}

std::string Host_DescribeStep(const Host_Step& step) {
    switch (step.verb) {
    case Host_Verb::Greeting:
        return "greeting";
    case Host_Verb::Send:
        return "send " + step.text;
    case Host_Verb::Copy:
        return "copy " + std::to_string(step.number);
    case Host_Verb::Verify:
        return "verify";
    case Host_Verb::Walk:
        return "walk";
    case Host_Verb::Log:
        return "log " + step.text;
    case Host_Verb::Idle:
        return "idle " + std::to_string(step.number);
    case Host_Verb::Signal:
        for (const SignalName& signal : SIGNALS) {
            if (signal.number == step.number) {
                return "signal " + std::string(signal.name);
            }
        }
        return "signal " + std::to_string(step.number);
    case Host_Verb::End:
        break;
    }
    return "end";
}

const char* Host_PhaseName(Host_Phase phase) {
    static constexpr std::array<const char*, HOST_PHASES> NAMES = {"start",   "greeting", "copy",   "verify",
                                                                   "extract", "install",  "finish", "end"};
    return NAMES[static_cast<size_t>(phase)];
}

Hypervisor_Service Host_Service(Host* host) {
    Hypervisor_Service service;
    service.opened = OnOpened;
    service.fromGuest = OnFromGuest;
    service.forGuest = OnForGuest;
    service.delivered = OnDelivered;
    service.closed = OnClosed;
    service.clientData = host;
    return service;
}

void Host_Start(Host* host) {
    BeginStep(host);
}

void Host_GuestSaid(Host* host, std::string_view text) {
    for (const Milestone& milestone : MILESTONES) {
        if (text.starts_with(milestone.text)) {
            EnterPhase(host, milestone.phase);
        }
    }
    if (StepIs(*host, Host_Verb::Log) && text.find(host->steps[host->step].text) != std::string_view::npos) {
        NextStep(host);
    }
}

void Host_Finish(Host* host) {
    EnterPhase(host, Host_Phase::Ended);
    if (const Host_Step* step = CurrentStep(*host)) {
        Problem(host, Host_ProblemKind::Script, "the guest ended in step '" + Host_DescribeStep(*step) + "'");
    }
    if (host->expectedEnd == Host_EndNotice::Sent && !host->endSent) {
        Problem(host, Host_ProblemKind::Notice, "\"toolinstall.end 0\" was not sent");
    }
    if (host->expectedEnd == Host_EndNotice::None && host->endSent) {
        Problem(host, Host_ProblemKind::Notice, "\"toolinstall.end 0\" was sent");
    }
}
