#include "sim/hgfsClient.h"

#include "sim/hgfsPackets.h"
#include "string/str.h"

#include <algorithm>

namespace {

using State = HgfsClient_State;

bool Fail(HgfsClient* client, const std::string& error) {
    client->error = error;
    client->state = State::Failed;
    return false;
}

bool Large(const HgfsClient& client) {
    return client.version >= 3;
}

size_t WriteRoom(const HgfsClient& client) {
    return Large(client) ? kHgfsLargePacketMax - HgfsWriteRequestV3::Data
                         : kHgfsPacketMax - HgfsWriteRequestV1::Data;
}

size_t ReadRoom(const HgfsClient& client) {
    return Large(client) ? kHgfsReadMaxV3 : kHgfsReadMaxV1;
}

// ---- Requests ----

void AppendPacket(HgfsClient* client, HgfsPackets_Request request, std::vector<uint8_t>* message) {
    client->requestOp = request.op;
    client->requestSize = request.size;
    request.id = ++client->requestId;
    std::vector<uint8_t> packet = HgfsPackets_Encode(request);
    message->insert(message->end(), packet.begin(), packet.end());
    ++client->requests;
}

HgfsPackets_Request MakeRequest(const HgfsClient& client, HgfsOp first, HgfsOp third) {
    HgfsPackets_Request request;
    request.op = Large(client) ? third : first;
    request.handle = client.handle;
    request.offset = client.offset;
    return request;
}

HgfsPackets_Request OpenRequest(const HgfsClient& client) {
    bool copy = client.job == HgfsClient_Job::Copy;
    HgfsPackets_Request request = MakeRequest(client, HgfsOpOpen, HgfsOpOpenV3);
    request.mask = kHgfsMaskOpenV1;
    request.mode = copy ? kHgfsModeWrite : kHgfsModeRead;
    request.flags = copy ? kHgfsOpenCreateEmpty : kHgfsOpenExisting;
    request.name = client.name;
    return request;
}

bool AppendWrite(HgfsClient* client, std::vector<uint8_t>* message) {
    auto count = static_cast<size_t>(std::min<uint64_t>(WriteRoom(*client), client->limit - client->offset));
    client->data.resize(count);
    const HgfsClient_Source& source = client->source;
    if (!source.read(source.clientData, client->offset, client->data.data(), count)) {
        return Fail(client, "the image cannot be read");
    }
    HgfsPackets_Request request = MakeRequest(*client, HgfsOpWrite, HgfsOpWriteV3);
    request.size = static_cast<uint32_t>(count);
    request.data = {reinterpret_cast<const char*>(client->data.data()), count};
    AppendPacket(client, request, message);
    return true;
}

void AppendRead(HgfsClient* client, std::vector<uint8_t>* message) {
    HgfsPackets_Request request = MakeRequest(*client, HgfsOpRead, HgfsOpReadV3);
    request.size = static_cast<uint32_t>(ReadRoom(*client));
    AppendPacket(client, request, message);
}

void AppendWalk(HgfsClient* client, std::vector<uint8_t>* message) {
    HgfsPackets_Request request;
    HgfsExercise_Next(client->walk, &request);
    AppendPacket(client, request, message);
}

// ---- Replies ----

bool TakeAttributes(HgfsClient* client, const HgfsPackets_Reply& reply) {
    uint32_t type = reply.attributes.type;
    uint64_t size = reply.attributes.size;
    if (type != kHgfsTypeRegular || size != client->source.size) {
        return Fail(client,
                    Str_Format("the copy has type %u and %" DIAG_I64 "u bytes instead of %" DIAG_I64 "u",
                               static_cast<unsigned>(type), size, client->source.size));
    }
    client->state = State::Open;
    return true;
}

bool TakeOpen(HgfsClient* client, const HgfsPackets_Reply& reply) {
    client->handle = reply.handle;
    bool empty = client->job == HgfsClient_Job::Copy && client->limit == 0;
    client->state = !empty ? State::Transfer : client->source.size == 0 ? State::Close : State::Done;
    return true;
}

bool TakeWrite(HgfsClient* client, const HgfsPackets_Reply& reply) {
    uint32_t written = reply.actualSize;
    if (written == 0 || written > client->requestSize) {
        return Fail(client,
                    Str_Format("%u of %u bytes written at %" DIAG_I64 "u", static_cast<unsigned>(written),
                               static_cast<unsigned>(client->requestSize), client->offset));
    }
    client->offset += written;
    if (client->offset == client->limit) {
        client->state = client->limit == client->source.size ? State::Close : State::Done;
    }
    return true;
}

bool Compare(HgfsClient* client, const std::string& data) {
    client->data.resize(data.size());
    const HgfsClient_Source& source = client->source;
    if (!source.read(source.clientData, client->offset, client->data.data(), data.size())) {
        return Fail(client, "the image cannot be read");
    }
    auto same = [](uint8_t ours, char theirs) { return ours == static_cast<uint8_t>(theirs); };
    auto ours = std::mismatch(client->data.begin(), client->data.end(), data.begin(), same).first;
    if (ours != client->data.end()) {
        uint64_t at = client->offset + static_cast<uint64_t>(ours - client->data.begin());
        return Fail(client, Str_Format("the copy differs from the image at byte %" DIAG_I64 "u", at));
    }
    return true;
}

bool TakeRead(HgfsClient* client, const HgfsPackets_Reply& reply) {
    uint32_t count = reply.actualSize;
    uint64_t left = client->source.size - client->offset;
    if (count > left || (count == 0 && left != 0)) {
        return Fail(client, Str_Format("%u bytes read at %" DIAG_I64 "u of %" DIAG_I64 "u",
                                       static_cast<unsigned>(count), client->offset, client->source.size));
    }
    if (count == 0) {
        client->state = State::Close;
        return true;
    }
    if (!Compare(client, reply.data)) {
        return false;
    }
    client->offset += count;
    return true;
}

bool TakeWalk(HgfsClient* client, const HgfsPackets_Reply& reply) {
    std::string error;
    if (!HgfsExercise_Take(&client->walk, reply, &error)) {
        return Fail(client, error);
    }
    HgfsPackets_Request next;
    if (!HgfsExercise_Next(client->walk, &next)) {
        client->state = State::Done;
    }
    return true;
}

} // namespace

std::string HgfsClient_Name(std::string_view directory, std::string_view file) {
    using namespace std::string_view_literals;
    std::string name;
    std::string_view rest;
    if (directory.size() >= 3 && directory[1] == ':' && directory[2] == '\\') {
        name = "root\0drive\0"sv;
        name += directory[0];
        rest = directory.substr(2);
    } else if (directory.size() > 2 && directory.starts_with("\\\\")) {
        name = "root\0unc"sv;
        rest = directory.substr(1);
    } else {
        return {};
    }
    std::string path = std::string(rest) + '\\' + std::string(file);
    for (size_t begin = 0; begin < path.size();) {
        size_t end = std::min(path.find('\\', begin), path.size());
        if (end > begin) {
            name += '\0';
            name.append(path, begin, end - begin);
        }
        begin = end + 1;
    }
    return name;
}

void HgfsClient_Begin(HgfsClient* client, HgfsClient_Job job, unsigned percent) {
    client->job = job;
    client->state = job == HgfsClient_Job::Verify ? State::Attributes
                    : job == HgfsClient_Job::Walk ? State::Transfer
                                                  : State::Open;
    client->walk = {client->name.substr(0, client->name.rfind('\0')), 0, 0, 0};
    client->offset = 0;
    client->limit = percent >= 100 ? client->source.size : client->source.size / 100 * percent;
    client->requests = 0;
    client->error.clear();
}

bool HgfsClient_Append(HgfsClient* client, std::vector<uint8_t>* message) {
    if (client->job == HgfsClient_Job::Walk && client->state == State::Transfer) {
        AppendWalk(client, message);
        return true;
    }
    switch (client->state) {
    case State::Attributes: {
        HgfsPackets_Request request;
        request.op = HgfsOpGetattr;
        request.name = client->name;
        AppendPacket(client, request, message);
        return true;
    }
    case State::Open:
        AppendPacket(client, OpenRequest(*client), message);
        return true;
    case State::Transfer:
        if (client->job == HgfsClient_Job::Copy) {
            return AppendWrite(client, message);
        }
        AppendRead(client, message);
        return true;
    case State::Close:
        AppendPacket(client, MakeRequest(*client, HgfsOpClose, HgfsOpCloseV3), message);
        return true;
    case State::Done:
    case State::Failed:
        break;
    }
    return false;
}

bool HgfsClient_Take(HgfsClient* client, std::span<const uint8_t> bytes) {
    std::string operation(kHgfsOps[client->requestOp].name);
    HgfsPackets_Reply reply;
    if (!HgfsPackets_Decode(client->requestOp, bytes, &reply)) {
        return Fail(client, operation + Str_Format(": a malformed reply of %u bytes",
                                                   static_cast<unsigned>(bytes.size())));
    }
    if (reply.id != client->requestId) {
        return Fail(client, operation + Str_Format(": a reply to request %u instead of %u",
                                                   static_cast<unsigned>(reply.id),
                                                   static_cast<unsigned>(client->requestId)));
    }
    if (client->job == HgfsClient_Job::Walk && client->state == State::Transfer) {
        return TakeWalk(client, reply);
    }
    if (reply.status != HgfsStatusSuccess) {
        return Fail(client, operation + " failed: " + HgfsClient_StatusName(reply.status));
    }
    switch (client->state) {
    case State::Attributes:
        return TakeAttributes(client, reply);
    case State::Open:
        return TakeOpen(client, reply);
    case State::Transfer:
        return client->job == HgfsClient_Job::Copy ? TakeWrite(client, reply) : TakeRead(client, reply);
    case State::Close:
        client->state = State::Done;
        return true;
    case State::Done:
    case State::Failed:
        break;
    }
    return Fail(client, operation + ": a reply without a request");
}
