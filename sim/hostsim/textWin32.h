// Text of this program is UTF-8; Windows takes and gives UTF-16.
#pragma once

#include <string>
#include <string_view>
#include <windows.h>

inline std::wstring Text_ToWide(std::string_view text) {
    int length = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring wide(static_cast<size_t>(length), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(), length);
    return wide;
}

inline std::string Text_FromWide(std::wstring_view wide) {
    int length = WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), nullptr, 0,
                                     nullptr, nullptr);
    std::string text(static_cast<size_t>(length), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), text.data(), length, nullptr,
                        nullptr);
    return text;
}
