// Gives a program file the version resource that a test wants.
#pragma once

#include <filesystem>
#include <string>

// A resource with one text, FileDescription, under `block` (language and code page, "040904e4"). Replaces
// what the file had. False when the system refuses.
bool VersionResource_Write(const std::filesystem::path& program, const std::wstring& block,
                           const std::wstring& description);
