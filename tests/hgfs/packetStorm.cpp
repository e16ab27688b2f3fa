#include "packetStorm.h"

#include "hgfslib/hgfsServerInt.h"
#include "sim/hgfsPackets.h"
#include "string/str.h"

#include <array>
#include <stdexcept>
#include <vector>

namespace {

// What the bytes are read as; zeros behind their end.
class Choices {
public:
    explicit Choices(std::span<const uint8_t> bytes) : bytes_(bytes) {}
    bool Done() const { return bytes_.empty(); }
    uint8_t U8() {
        if (bytes_.empty()) {
            return 0;
        }
        uint8_t byte = bytes_.front();
        bytes_ = bytes_.subspan(1);
        return byte;
    }
    uint32_t U16() { return U8() | static_cast<uint32_t>(U8()) << 8; }
    uint64_t U64() {
        uint64_t value = 0;
        for (int i = 0; i < 8; ++i) {
            value = value << 8 | U8();
        }
        return value;
    }
    // Mostly small, sometimes anything.
    uint64_t Number() {
        const uint8_t kind = U8();
        return kind < 224 ? kind % 32 : kind < 240 ? U16() : U64();
    }
    std::string Text() {
        std::string text(U8() % 48, '\0');
        for (char& c : text) {
            c = static_cast<char>(U8());
        }
        return text;
    }

private:
    std::span<const uint8_t> bytes_;
};

bool IsOpen(HgfsOp op) {
    return op == HgfsOpOpen || op == HgfsOpOpenV2 || op == HgfsOpOpenV3;
}

class Storm {
public:
    Storm(std::span<const uint8_t> bytes, const std::string& directory, PacketStorm_Counts* counts)
        : choices_(bytes), directory_(directory), counts_(counts) {}

    void Run() {
        while (!choices_.Done()) {
            std::vector<uint8_t> packet = choices_.U8() < 16 ? Raw() : HgfsPackets_Encode(Request());
            Damage(&packet);
            Send(packet);
        }
    }

private:
    std::string PickName() {
        using namespace std::string_literals;
        static const std::array<std::string, 14> kBelow = {"a",          "A",   "b",    "dir",      "dir\0a"s,
                                                           "dir\0b\0c"s, "con", "x:y",  "dir\0x."s, "50%",
                                                           "b\0a"s,      "..",  "\xFF", "\xC3\xA4"};
        static const std::array<std::string, 4> kElsewhere = {"", "root", "root\0drive"s,
                                                              "ROOT\0unc\0nobody\0share\0f"s};
        const std::string below = directory_ + '\0';
        const uint8_t pick = choices_.U8();
        if (pick < 192) {
            return below + kBelow[pick % kBelow.size()];
        }
        switch (pick % 8) {
        case 4:
            return directory_;
        case 5:
            return below + std::string(choices_.U16() % 7000, 'n');
        case 6:
            return below + choices_.Text();
        case 7:
            return choices_.Text();
        default:
            return kElsewhere[pick % 4];
        }
    }

    uint32_t PickHandle() {
        const uint8_t pick = choices_.U8();
        return pick < 224 && !handles_.empty() ? handles_[pick % handles_.size()]
                                               : static_cast<uint32_t>(choices_.Number());
    }

    HgfsPackets_Request Request() {
        HgfsPackets_Request request;
        request.op = static_cast<HgfsOp>(choices_.U8() % HgfsOpCount);
        request.id = static_cast<uint32_t>(counts_->packets);
        const uint8_t mask = choices_.U8();
        request.mask = !IsOpen(request.op) ? mask % 4
                       : mask < 200        ? kHgfsMaskOpenV1 | uint64_t{mask} << 4
                                           : choices_.Number();
        request.handle = PickHandle();
        request.name = PickName();
        request.mode = choices_.U8() % 9;
        request.flags = choices_.U8() % 6;
        request.ownerPerms = choices_.U8();
        request.attributes = choices_.U8();
        request.offset = choices_.Number() * 1000;
        request.size = static_cast<uint32_t>(choices_.Number() * 100);
        request.index = request.size / 100;
        request.writeFlags = choices_.U8() % 4 == 0;
        request.data = kData.substr(0, choices_.U8() * 250u);
        if (IsOpen(request.op)) {
            request.desiredAccess = static_cast<uint32_t>(choices_.Number());
            request.shareAccess = choices_.U8() % 8;
        }
        if (request.op == HgfsOpRename || request.op == HgfsOpRenameV2 || request.op == HgfsOpRenameV3) {
            request.newName = PickName();
        }
        request.change.mask = choices_.U16();
        request.change.size = request.offset;
        request.change.writeTime = choices_.Number();
        request.change.ownerPerms = request.ownerPerms;
        request.change.attributes = request.attributes;
        return request;
    }

    std::vector<uint8_t> Raw() {
        std::vector<uint8_t> packet(choices_.U8());
        for (uint8_t& byte : packet) {
            byte = choices_.U8();
        }
        return packet;
    }

    void Damage(std::vector<uint8_t>* packet) {
        const uint8_t kind = choices_.U8();
        if (kind < 160 || packet->empty()) {
            return;
        }
        switch (kind % 4) {
        case 0:
            packet->resize(choices_.U16() % packet->size());
            break;
        case 1:
            packet->resize(packet->size() + choices_.U8());
            break;
        default:
            (*packet)[choices_.U16() % packet->size()] = choices_.U8();
            break;
        }
        packet->shrink_to_fit();
    }

    void Send(const std::vector<uint8_t>& packet) {
        static std::array<uint8_t, kHgfsLargePacketMax> reply;
        size_t size = packet.size();
        HgfsServer_HandlePacket(packet.data(), reply.data(), &size);
        ++counts_->packets;
        if (const char* wrong = Check(packet, {reply.data(), size})) {
            std::string text = wrong;
            for (uint8_t byte : packet) {
                text += Str_Format(" %02x", static_cast<unsigned>(byte));
            }
            throw std::runtime_error(text);
        }
    }

    // What is wrong with the answer, null for nothing.
    const char* Check(std::span<const uint8_t> packet, std::span<const uint8_t> reply) {
        if (packet.empty()) {
            return reply.empty() ? nullptr : "an empty packet has an answer";
        }
        if (reply.size() < kHgfsHeaderSize) {
            return "a packet has no answer:";
        }
        HgfsPackets_Reply decoded;
        decoded.id = HgfsPacketReader(reply).U32(HgfsReplyHeader::Id);
        if (packet.size() >= 4 && decoded.id != HgfsPacketReader(packet).U32(HgfsRequestHeader::Id)) {
            return "the answer has another id than the packet:";
        }
        const uint32_t status = HgfsPacketReader(reply).U32(HgfsReplyHeader::Status);
        if (status > HgfsStatusNotSameDevice || status == HgfsStatusOperationNotPermitted ||
            status == HgfsStatusNotDirectory || status == HgfsStatusNameTooLong) {
            return "the status is none that the server gives:";
        }
        if (hgfsServer.session->references != 1) {
            return "a reference to the session is kept:";
        }
        const HgfsOp op = packet.size() < kHgfsHeaderSize ? HgfsOpCount : HgfsRequestOp(packet);
        if (op >= HgfsOpCount) {
            return status == HgfsStatusProtocolError ? nullptr : "nonsense is not refused:";
        }
        if (!HgfsPackets_Decode(op, reply, &decoded)) {
            return "the answer has not its operation's layout:";
        }
        if (status == HgfsStatusSuccess) {
            ++counts_->successes;
            if (IsOpen(op) || op == HgfsOpSearchOpen || op == HgfsOpSearchOpenV3) {
                handles_.push_back(decoded.handle);
            }
        }
        return nullptr;
    }

    static const std::string kContent;
    static const std::string_view kData;
    Choices choices_;
    const std::string& directory_;
    PacketStorm_Counts* counts_;
    std::vector<uint32_t> handles_;
};

const std::string Storm::kContent(64000, 'x');
const std::string_view Storm::kData = Storm::kContent;

} // namespace

void PacketStorm_Run(std::span<const uint8_t> bytes, const std::string& directory,
                     PacketStorm_Counts* counts) {
    Storm(bytes, directory, counts).Run();
}
