// The naming of Windows releases as pure functions, and the publication of the result. Internal to hostinfo.
#pragma once

#include "misc/hostinfo.h"

#include <cstdint>
#include <optional>
#include <string>

// Values of HostinfoVersion::platform and ::productType, as the system numbers them.
inline constexpr uint32_t HOSTINFO_PLATFORM_WIN32S = 0;
inline constexpr uint32_t HOSTINFO_PLATFORM_9X = 1;
inline constexpr uint32_t HOSTINFO_PLATFORM_NT = 2;
inline constexpr uint8_t HOSTINFO_PRODUCT_WORKSTATION = 1;
inline constexpr uint8_t HOSTINFO_PRODUCT_DOMAIN_CONTROLLER = 2;
inline constexpr uint8_t HOSTINFO_PRODUCT_SERVER = 3;

// Everything that the names depend on, as asked from the system.
struct HostinfoVersion {
    uint32_t platform = 0;
    uint32_t major = 0;
    uint32_t minor = 0;
    uint32_t build = 0;
    std::string servicePack; // text such as "Service Pack 2"; on 9x a blank and a release letter
    bool extended = false;   // the two members below are known
    uint8_t productType = 0;
    uint16_t suiteMask = 0;
    uint32_t product = 0;                           // edition as 6.0 and later tell it; 0 when they do not
    bool is64Bit = false;                           // of the machine
    std::optional<std::string> registryProductType; // for systems without the extended record
    bool hotfixSp6a = false; // NT 4 carries the patch that makes Service Pack 6 into 6a
};

// None when `version` lacks the extended record and the registry does not stand in for it.
std::optional<Hostinfo_OSName> HostinfoNameRelease(const HostinfoVersion& version);

uint32_t HostinfoFamilyOfType(uint32_t type);

// The published names, null before the first publication.
const Hostinfo_OSName* HostinfoPublished();
// Publishes `name` unless names have been published already; gives what is published now. Any thread.
const Hostinfo_OSName* HostinfoPublish(Hostinfo_OSName name);
