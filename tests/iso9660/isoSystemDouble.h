// The host name where there is no Windows to ask.
#pragma once

#include <optional>
#include <string>

extern std::optional<std::string> isoTestHostName;
