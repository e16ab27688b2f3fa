// What the expansion needs of the system. utilWin32.cpp is the real thing; tests may bring their own.
#pragma once

#include <optional>
#include <string>

std::optional<std::string> UtilSystemVariable(const std::string& name); // none when it is not set
unsigned long UtilSystemProcessId();
std::optional<std::string> UtilSystemUserName(); // at most 100 characters; none when it cannot be read
