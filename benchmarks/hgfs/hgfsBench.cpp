// What the file server costs: copying a large file in against the bare writes, its own share of a packet,
// opening and closing against the bare calls, listings of growing directories, names through the escape.
#include "benchmarks/support/measure.h"
#include "hgfslib/hgfsEscape.h"
#include "hgfslib/hgfsServerInt.h"
#include "sim/hgfsPackets.h"
#include "unicode/unicode.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <windows.h>

namespace {

constexpr size_t PIECE = kHgfsLargePacketMax - HgfsWriteRequestV3::Data;
constexpr uint64_t COPY_SIZE = uint64_t{300} << 20;

std::string directory; // where to work, a drive path
volatile size_t sink;  // keeps the work from being left out

struct Pair {
    double ours;
    double reference;
};

// A round of each in turn; the ratio's median, too, is taken over the rounds.
template <typename Ours, typename Reference>
Pair Interleave(int rounds, Ours ours, Reference reference) {
    std::vector<double> oursTimes;
    std::vector<double> referenceTimes;
    for (int round = 0; round < rounds; round++) {
        oursTimes.push_back(ours());
        referenceTimes.push_back(reference());
    }
    return {Median(oursTimes), Median(referenceTimes)};
}

void Row(const char* name, double value, const char* unit, double reference, double ratio) {
    printf("%s\t%.3f\t%s\t%.3f\t%.3f\n", name, value, unit, reference, ratio);
    fflush(stdout);
}

[[noreturn]] void Fail(const char* what, uint32_t code) {
    fprintf(stderr, "hgfsBench: %s failed (%u)\n", what, static_cast<unsigned>(code));
    exit(1);
}

// ---- The host's side ----

std::string NameOf(const std::string& path) {
    std::string name = path;
    name.erase(1, 1);
    std::ranges::replace(name, '\\', '\0');
    return std::string("root\0drive\0", 11) + name;
}

HgfsPackets_Reply Send(HgfsOp op, const std::vector<uint8_t>& packet) {
    static uint8_t reply[kHgfsLargePacketMax];
    size_t size = packet.size();
    HgfsServer_HandlePacket(packet.data(), reply, &size);
    HgfsPackets_Reply decoded;
    if (!HgfsPackets_Decode(op, {reply, size}, &decoded)) {
        Fail("decoding", op);
    }
    return decoded;
}

HgfsPackets_Reply Must(const HgfsPackets_Request& request) {
    HgfsPackets_Reply reply = Send(request.op, HgfsPackets_Encode(request));
    if (reply.status != HgfsStatusSuccess) {
        Fail("a request", reply.status);
    }
    return reply;
}

HgfsPackets_Request OpenRequest(const std::string& path, uint32_t flags) {
    HgfsPackets_Request request;
    request.op = HgfsOpOpenV3;
    request.mask = kHgfsMaskOpenV1;
    request.mode = kHgfsModeReadWrite;
    request.flags = flags;
    request.name = NameOf(path);
    return request;
}

HgfsPackets_Request OnHandle(HgfsOp op, uint32_t handle) {
    HgfsPackets_Request request;
    request.op = op;
    request.handle = handle;
    return request;
}

// A packet that writes a piece, and where in it the offset stands.
std::vector<uint8_t> WritePacket(uint32_t handle, size_t size) {
    static const std::string content(PIECE, 'x');
    HgfsPackets_Request request = OnHandle(HgfsOpWriteV3, handle);
    request.data = std::string_view(content).substr(0, size);
    request.size = static_cast<uint32_t>(size);
    return HgfsPackets_Encode(request);
}

// ---- Copying ----

// One of the two files that are written in step, piece by piece in turn, so that whatever else the machine
// does meets both alike.
class Copy {
public:
    virtual ~Copy() = default;
    virtual void Write(uint64_t offset) = 0;

    std::vector<double> taken; // microseconds, of each piece
};

class ServerCopy : public Copy {
public:
    explicit ServerCopy(const std::string& path)
        : handle_(Must(OpenRequest(path, kHgfsOpenCreateEmpty)).handle),
          packet_(WritePacket(handle_, PIECE)) {}
    ~ServerCopy() override { Must(OnHandle(HgfsOpCloseV3, handle_)); }

    void Write(uint64_t offset) override {
        static uint8_t reply[kHgfsLargePacketMax];
        HgfsPacketWriter(packet_).U64(HgfsWriteRequestV3::Offset, offset);
        size_t size = packet_.size();
        const double start = Microseconds();
        HgfsServer_HandlePacket(packet_.data(), reply, &size);
        taken.push_back(Microseconds() - start);
        if (size != HgfsWriteReplyV3::Size) {
            Fail("writing", 0);
        }
    }

private:
    uint32_t handle_;
    std::vector<uint8_t> packet_;
};

class BareCopy : public Copy {
public:
    explicit BareCopy(const std::string& path)
        : event_(CreateEventW(nullptr, TRUE, FALSE, nullptr)),
          file_(CreateFileW(Unicode_ToWide(path)->c_str(), GENERIC_READ | GENERIC_WRITE, 7, nullptr,
                            CREATE_ALWAYS, FILE_FLAG_OVERLAPPED, nullptr)),
          packet_(WritePacket(0, PIECE)) {}
    ~BareCopy() override {
        CloseHandle(file_);
        CloseHandle(event_);
    }

    void Write(uint64_t offset) override {
        const uint8_t* piece = packet_.data() + HgfsWriteRequestV3::Data; // aligned as it is in a packet
        OVERLAPPED overlapped = {};
        overlapped.Offset = static_cast<DWORD>(offset);
        overlapped.OffsetHigh = static_cast<DWORD>(offset >> 32);
        overlapped.hEvent = event_;
        DWORD written = 0;
        const double start = Microseconds();
        if (!WriteFile(file_, piece, PIECE, &written, &overlapped) &&
            !(GetLastError() == ERROR_IO_PENDING &&
              GetOverlappedResult(file_, &overlapped, &written, TRUE))) {
            Fail("WriteFile", GetLastError());
        }
        taken.push_back(Microseconds() - start);
    }

private:
    HANDLE event_;
    HANDLE file_;
    std::vector<uint8_t> packet_;
};

void MeasureCopy() {
    const std::string paths[] = {directory + "\\served", directory + "\\bare"};
    std::vector<double> ours;
    std::vector<double> reference;
    for (int round = 0; round < 5; round++) {
        ServerCopy served(paths[0]);
        BareCopy bare(paths[1]);
        for (uint64_t piece = 0; piece * PIECE < COPY_SIZE; piece++) {
            Copy* const order[] = {&served, &bare};
            order[piece % 2]->Write(piece * PIECE);
            order[1 - piece % 2]->Write(piece * PIECE);
        }
        ours.insert(ours.end(), served.taken.begin(), served.taken.end());
        reference.insert(reference.end(), bare.taken.begin(), bare.taken.end());
    }
    for (const std::string& path : paths) {
        DeleteFileW(Unicode_ToWide(path)->c_str());
    }
    // Of the pieces' times the median: the mean is other programs' as soon as they want the processor.
    const double value = Median(ours);
    const double base = Median(reference);
    Row("hgfs: copying 300 MiB in version 3 packets, against overlapped WriteFile", PIECE / value, "MB/s",
        PIECE / base, value / base);
}

// ---- The server's own share ----

// Microseconds for one packet, times at a stretch.
double PerPacket(const std::vector<uint8_t>& packet, int times) {
    static uint8_t reply[kHgfsLargePacketMax];
    return Time(times, [&] {
        size_t size = packet.size();
        HgfsServer_HandlePacket(packet.data(), reply, &size);
        sink = size;
    });
}

// The system's table with the reads and writes left out.
HgfsPlatform WithoutTransfers() {
    HgfsPlatform platform = *HgfsPlatform_System();
    platform.writeAt = [](HgfsOsHandle, uint64_t, std::span<const uint8_t> data, uint32_t* actual) {
        *actual = static_cast<uint32_t>(data.size());
        return static_cast<uint32_t>(HgfsErrorNone);
    };
    platform.readAt = [](HgfsOsHandle, uint64_t, std::span<uint8_t> data, uint32_t* actual) {
        *actual = static_cast<uint32_t>(data.size());
        return static_cast<uint32_t>(HgfsErrorNone);
    };
    return platform;
}

void MeasurePackets() {
    const std::string path = directory + "\\packets";
    const std::wstring widePath = *Unicode_ToWide(path);
    const HgfsPlatform bare = WithoutTransfers();
    HgfsServerShutDown();
    HgfsServerStartUp(&bare, kHgfsMaxCachedNodes, nullptr);
    const uint32_t handle = Must(OpenRequest(path, kHgfsOpenCreate)).handle;
    HgfsPackets_Request read = OnHandle(HgfsOpReadV3, handle);
    read.size = kHgfsReadMaxV3;
    const std::vector<uint8_t> writePacket = WritePacket(handle, PIECE);
    const std::vector<uint8_t> readPacket = HgfsPackets_Encode(read);
    const std::vector<uint8_t> smallPacket = HgfsPackets_Encode(OnHandle(HgfsOpClose, 0xFFFFFFFF));
    HANDLE file =
        CreateFileW(widePath.c_str(), GENERIC_READ | GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0, nullptr);
    std::vector<uint8_t> piece(kHgfsReadMaxV3, 'x');
    auto bareWrite = [&] {
        return Time(50, [&] {
            DWORD done;
            SetFilePointer(file, 0, nullptr, FILE_BEGIN);
            WriteFile(file, piece.data(), PIECE, &done, nullptr);
        });
    };
    auto bareRead = [&] {
        return Time(50, [&] {
            DWORD done;
            SetFilePointer(file, 0, nullptr, FILE_BEGIN);
            ReadFile(file, piece.data(), kHgfsReadMaxV3, &done, nullptr);
        });
    };
    bareWrite();
    Pair pair = Interleave(
        11, [&] { return PerPacket(writePacket, 1000); }, bareWrite);
    Row("hgfs: the server's own cost of a large write, against WriteFile", pair.ours, "us", pair.reference,
        pair.ours / pair.reference);
    pair = Interleave(
        11, [&] { return PerPacket(readPacket, 200); }, bareRead);
    Row("hgfs: the server's own cost of a large read, against ReadFile", pair.ours, "us", pair.reference,
        pair.ours / pair.reference);
    pair = Interleave(
        11, [&] { return PerPacket(smallPacket, 1000); }, bareWrite);
    Row("hgfs: the smallest request, refused, against WriteFile of a large piece", pair.ours, "us",
        pair.reference, pair.ours / pair.reference);
    CloseHandle(file);
    HgfsServerShutDown();
    DeleteFileW(widePath.c_str());
    HgfsServerStartUp(HgfsPlatform_System(), kHgfsMaxCachedNodes, nullptr);
}

// ---- Opening and closing ----

void MeasureOpen() {
    const std::string path = directory + "\\open";
    const std::wstring widePath = *Unicode_ToWide(path);
    Must(OnHandle(HgfsOpClose, Must(OpenRequest(path, kHgfsOpenCreate)).handle));
    auto ours = [&] {
        return Time(
            300, [&] { Must(OnHandle(HgfsOpCloseV3, Must(OpenRequest(path, kHgfsOpenExisting)).handle)); });
    };
    auto reference = [&] {
        return Time(30, [&] {
            HANDLE file =
                CreateFileW(widePath.c_str(), GENERIC_READ | GENERIC_WRITE | READ_CONTROL, 7, nullptr,
                            OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OVERLAPPED, nullptr);
            BY_HANDLE_FILE_INFORMATION information;
            GetFileInformationByHandle(file, &information);
            CloseHandle(file);
        });
    };
    Pair pair = Interleave(51, ours, reference);
    Row("hgfs: open and close, against the bare calls", pair.ours, "us", pair.reference,
        pair.ours / pair.reference);
    DeleteFileW(widePath.c_str());
}

// ---- Listing ----

// Fills a directory. Wine would look through all of it for the name of each new file; the Unix spelling of
// the path, which Windows does not have, spares it that.
void Fill(const std::string& path, int count) {
    CreateDirectoryW(Unicode_ToWide(path)->c_str(), nullptr);
    std::string fast = path;
    if (GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name") != nullptr &&
        path.starts_with("Z:\\")) {
        fast = "\\\\?\\unix" + path.substr(2);
    }
    for (int i = 0; i < count; i++) {
        HANDLE file = CreateFileW(Unicode_ToWide(fast + "\\entry number " + std::to_string(i))->c_str(),
                                  GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
        if (file == INVALID_HANDLE_VALUE) {
            Fail("creating", GetLastError());
        }
        CloseHandle(file);
    }
}

void Empty(const std::string& path) {
    for (WIN32_FIND_DATAW found;;) {
        HANDLE search = FindFirstFileW(Unicode_ToWide(path + "\\entry*")->c_str(), &found);
        if (search == INVALID_HANDLE_VALUE) {
            break;
        }
        do {
            DeleteFileW((*Unicode_ToWide(path) + L"\\" + found.cFileName).c_str());
        } while (FindNextFileW(search, &found));
        FindClose(search);
    }
    RemoveDirectoryW(Unicode_ToWide(path)->c_str());
}

// Microseconds for one entry of a whole listing, attributes included.
double List(const std::string& path) {
    HgfsPackets_Request request = OnHandle(HgfsOpSearchOpenV3, 0);
    request.name = NameOf(path);
    const double start = Microseconds();
    request.handle = Must(request).handle;
    request.op = HgfsOpSearchReadV3;
    while (!Must(request).name.empty()) {
        request.index++;
    }
    request.op = HgfsOpSearchCloseV3;
    Must(request);
    return (Microseconds() - start) / request.index;
}

void MeasureListing() {
    const std::string small = directory + "\\small";
    const std::string large = directory + "\\large";
    Fill(small, 1000);
    Fill(large, 10000);
    Pair pair = Interleave(
        5, [&] { return List(large); }, [&] { return List(small); });
    Row("hgfs: one entry of 10,000 listed, against one of 1,000", pair.ours, "us", pair.reference,
        pair.ours / pair.reference);
    Empty(small);
    Empty(large);
}

// ---- Names ----

void MeasureNames(const char* what, const std::string& component) {
    std::string name = "root";
    while (name.size() < 200) {
        name += '\0' + component;
    }
    std::vector<char> escaped(3 * name.size());
    std::vector<char> copy(3 * name.size());
    const ptrdiff_t length = HgfsEscape_Apply(name.data(), name.size(), escaped.size(), escaped.data());
    auto gigabytes = [&](double microseconds) {
        return static_cast<double>(name.size()) / microseconds / 1e3;
    };
    auto floor = [&] {
        return Time(2000, [&] {
            memcpy(copy.data(), name.data(), name.size());
            sink = static_cast<size_t>(copy[sink % 100]);
        });
    };
    auto escape = [&] {
        return Time(1000, [&] {
            sink = static_cast<size_t>(
                HgfsEscape_GetSize(name.data(), name.size()) +
                HgfsEscape_Apply(name.data(), name.size(), escaped.size(), escaped.data()));
        });
    };
    auto reverse = [&] {
        return Time(1000, [&] {
            memcpy(copy.data(), escaped.data(), static_cast<size_t>(length));
            sink = static_cast<size_t>(HgfsEscape_Reverse(copy.data(), static_cast<size_t>(length)));
        });
    };
    Pair pair = Interleave(101, escape, floor);
    Row((std::string("hgfs: escaping ") + what + ", against copying").c_str(), gigabytes(pair.ours), "GB/s",
        gigabytes(pair.reference), pair.ours / pair.reference);
    pair = Interleave(101, reverse, floor);
    Row((std::string("hgfs: unescaping ") + what + ", against copying").c_str(), gigabytes(pair.ours), "GB/s",
        gigabytes(pair.reference), pair.ours / pair.reference);
}

} // namespace

int main() {
    const char* out = getenv("RL_OUT");
    directory = out == nullptr ? "C:\\windows\\temp" : std::string("Z:") + out;
    std::ranges::replace(directory, '/', '\\');
    if (!HgfsServerStartUp(HgfsPlatform_System(), kHgfsMaxCachedNodes, nullptr)) {
        Fail("starting", 0);
    }
    MeasureCopy();
    MeasurePackets();
    MeasureOpen();
    MeasureListing();
    MeasureNames("plain names", "a file name.txt");
    MeasureNames("names full of escapes", "con:1?%.");
    HgfsServerShutDown();
    return 0;
}
