#include "versionResource.h"

#include <cstdint>
#include <cstring>
#include <vector>
#include <windows.h>

namespace {

using Bytes = std::vector<uint8_t>;

void Append16(Bytes* bytes, size_t value) {
    bytes->push_back(static_cast<uint8_t>(value));
    bytes->push_back(static_cast<uint8_t>(value >> 8));
}

void AppendText(Bytes* bytes, const std::wstring& text) {
    for (wchar_t each : text + L'\0') {
        Append16(bytes, static_cast<uint16_t>(each));
    }
}

void Align(Bytes* bytes) {
    bytes->resize((bytes->size() + 3) / 4 * 4);
}

// A node of the tree: lengths, type (1 text), name, value, children; each part aligned to 4 bytes.
Bytes Node(const std::wstring& name, uint16_t type, size_t valueLength, const Bytes& value,
           const Bytes& children) {
    Bytes node(2);
    Append16(&node, valueLength);
    Append16(&node, type);
    AppendText(&node, name);
    Align(&node);
    node.insert(node.end(), value.begin(), value.end());
    Align(&node);
    node.insert(node.end(), children.begin(), children.end());
    node[0] = static_cast<uint8_t>(node.size());
    node[1] = static_cast<uint8_t>(node.size() >> 8);
    return node;
}

Bytes FixedInfo() {
    VS_FIXEDFILEINFO info{};
    info.dwSignature = 0xFEEF04BD;
    info.dwStrucVersion = 0x00010000;
    info.dwFileOS = VOS_NT_WINDOWS32;
    info.dwFileType = VFT_APP;
    Bytes bytes(sizeof info);
    memcpy(bytes.data(), &info, sizeof info);
    return bytes;
}

} // namespace

bool VersionResource_Write(const std::filesystem::path& program, const std::wstring& block,
                           const std::wstring& description) {
    Bytes text;
    AppendText(&text, description);
    Bytes tree = Node(L"FileDescription", 1, description.size() + 1, text, {});
    tree = Node(block, 1, 0, {}, tree);
    tree = Node(L"StringFileInfo", 1, 0, {}, tree);
    tree = Node(L"VS_VERSION_INFO", 0, sizeof(VS_FIXEDFILEINFO), FixedInfo(), tree);
    HANDLE update = BeginUpdateResourceW(program.c_str(), FALSE);
    if (!update) {
        return false;
    }
    bool done = UpdateResourceW(update, RT_VERSION, MAKEINTRESOURCEW(VS_VERSION_INFO), 0, tree.data(),
                                static_cast<DWORD>(tree.size()));
    return EndUpdateResourceW(update, !done) && done;
}
