// How a restart or power-off is asked for: the decisions, apart from the system calls. Internal to system.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

// Flags of SystemShutdownCalls::exitWindows, as the system numbers them.
inline constexpr uint32_t SYSTEM_EXIT_SHUTDOWN = 1;
inline constexpr uint32_t SYSTEM_EXIT_REBOOT = 2;
inline constexpr uint32_t SYSTEM_EXIT_FORCE = 4;
inline constexpr uint32_t SYSTEM_EXIT_POWER_OFF = 8;

inline constexpr uint32_t SYSTEM_ERROR_NOT_READY = 21;

// The system as the decisions see it. Calls that act return the Windows error, 0 for success.
struct SystemShutdownCalls {
    uint32_t (*family)();                          // Hostinfo's family number
    std::optional<uint32_t> (*servicePackMajor)(); // none when the system does not tell
    bool (*isAcpi)();
    bool (*isLoginScreenActive)();
    void (*enablePrivilege)();
    uint32_t (*exitWindows)(uint32_t flags);
    uint32_t (*initiateShutdown)(bool force, bool reboot);
};

uint32_t SystemShutdownWith(const SystemShutdownCalls& calls, bool reboot);

// `description` is a device's description in the system's code page; ASCII letters compare without case.
bool SystemIsAcpiDescription(std::string_view description);
