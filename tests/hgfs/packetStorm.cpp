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
        static const std::array<const char*, 14> kNames = {"a",       "A",   "b",    "dir",     "dir/a",
                                                           "dir/b/c", "con", "x:y",  "dir/x.",  "50%",
                                                           "b/a",     "..",  "\xFF", "\xC3\xA4"};
        const uint8_t pick = choices_.U8();
        if (pick < 192) {
            std::string name = directory_;
            name += '\0';
            for (const char* c = kNames[pick % kNames.size()]; *c != '\0'; ++c) {
                name += *c == '/' ? '\0' : *c;
            }
            return name;
        }
        switch (pick % 8) {
        case 0:
            return "";
        case 1:
            return "root";
        case 2:
            return std::string("root\0drive", 10);
        case 3:
            return std::string("ROOT\0unc\0nobody\0share\0f", 23);
        case 4:
            return directory_;
        case 5:
            return directory_ + '\0' + std::string(choices_.U16() % 7000, 'n');
        case 6:
            return directory_ + '\0' + choices_.Text();
        default:
            return choices_.Text();
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
        const bool open =
            request.op == HgfsOpOpen || request.op == HgfsOpOpenV2 || request.op == HgfsOpOpenV3;
        const uint8_t mask = choices_.U8();
        request.mask =
            open ? (mask < 200 ? kHgfsMaskOpenV1 | uint64_t{mask} << 4 : choices_.Number()) : mask % 4;
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
        if (open) {
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
        Check(packet, {reply.data(), size});
    }

    void Check(const std::vector<uint8_t>& packet, std::span<const uint8_t> reply) {
        if (packet.empty()) {
            Expect(reply.empty(), "an empty packet has no answer", packet);
            return;
        }
        Expect(reply.size() >= kHgfsHeaderSize, "every packet is answered", packet);
        HgfsPacketReader request(packet);
        if (packet.size() >= 4) {
            Expect(HgfsPacketReader(reply).U32(HgfsReplyHeader::Id) == request.U32(HgfsRequestHeader::Id),
                   "the answer has the request's id", packet);
        }
        const uint32_t status = HgfsPacketReader(reply).U32(HgfsReplyHeader::Status);
        Expect(status <= HgfsStatusNotSameDevice && status != HgfsStatusOperationNotPermitted &&
                   status != HgfsStatusNotDirectory && status != HgfsStatusNameTooLong,
               "the status is one that the server gives", packet);
        Expect(hgfsServer.session->references == 1, "no reference is kept", packet);
        if (packet.size() < kHgfsHeaderSize || request.U32(HgfsRequestHeader::Op) >= HgfsOpCount) {
            Expect(status == HgfsStatusProtocolError, "nonsense is a protocol error", packet);
            return;
        }
        const HgfsOp op = HgfsRequestOp(packet);
        HgfsPackets_Reply decoded;
        Expect(HgfsPackets_Decode(op, reply, &decoded), "the answer has its operation's layout", packet);
        if (status == HgfsStatusSuccess) {
            ++counts_->successes;
            if (op == HgfsOpOpen || op == HgfsOpOpenV2 || op == HgfsOpOpenV3 || op == HgfsOpSearchOpen ||
                op == HgfsOpSearchOpenV3) {
                handles_.push_back(decoded.handle);
            }
        }
    }

    void Expect(bool holds, const char* what, std::span<const uint8_t> packet) {
        if (!holds) {
            std::string text = what;
            text += ", but not this one:";
            for (uint8_t byte : packet) {
                text += Str_Format(" %02x", static_cast<unsigned>(byte));
            }
            throw std::runtime_error(text);
        }
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
