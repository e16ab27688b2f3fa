#include "hostinfoNames.h"

#include "string/str.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <span>
#include <string_view>
#include <thread>
#include <utility>

namespace {

constexpr size_t MAX_SHORT_NAME = 63;
constexpr size_t MAX_LONG_NAME = 191;
constexpr size_t MAX_SUFFIX = 99;

constexpr uint16_t SUITE_SMALL_BUSINESS = 0x1;
constexpr uint16_t SUITE_ENTERPRISE = 0x2;
constexpr uint16_t SUITE_SMALL_BUSINESS_RESTRICTED = 0x20;
constexpr uint16_t SUITE_DATACENTER = 0x80;
constexpr uint16_t SUITE_PERSONAL = 0x200;
constexpr uint16_t SUITE_WEB = 0x400;
constexpr uint16_t SUITE_STORAGE = 0x2000;
constexpr uint16_t SUITE_COMPUTE_CLUSTER = 0x4000;

// Index: type number.
constexpr std::array<uint32_t, 22> FAMILY_OF_TYPE = {
    HOSTINFO_FAMILY_UNKNOWN, HOSTINFO_FAMILY_95,   HOSTINFO_FAMILY_98,    HOSTINFO_FAMILY_ME,
    HOSTINFO_FAMILY_NT4,     HOSTINFO_FAMILY_2000, HOSTINFO_FAMILY_2000,  HOSTINFO_FAMILY_2000,
    HOSTINFO_FAMILY_2000,    HOSTINFO_FAMILY_XP,   HOSTINFO_FAMILY_XP,    HOSTINFO_FAMILY_XP,
    HOSTINFO_FAMILY_XP,      HOSTINFO_FAMILY_2003, HOSTINFO_FAMILY_2003,  HOSTINFO_FAMILY_2003,
    HOSTINFO_FAMILY_2003,    HOSTINFO_FAMILY_2003, HOSTINFO_FAMILY_VISTA, HOSTINFO_FAMILY_VISTA,
    HOSTINFO_FAMILY_7,       HOSTINFO_FAMILY_7,
};

struct Names {
    uint32_t type;
    std::string_view shortName;
    std::string_view longName;
};

// --- Releases before 6.0 ---

struct Release9x {
    uint32_t minor;
    Names names;
    std::string_view letters; // release letters that mean the second edition
    std::string_view suffix;
};
constexpr Release9x RELEASES_9X[] = {
    {0, {1, "win95", "Windows 95"}, "BC", " OSR2"},
    {10, {2, "win98", "Windows 98"}, "A", " SE"},
    {90, {3, "winMe", "Windows Me"}, "", ""},
};

constexpr Names RELEASES_5[] = {
    // index: minor version
    {5, "win2000", "Windows 2000"},
    {9, "winXP", "Windows XP"},
    {13, "win2003", "Windows 2003"},
};

// A server edition applies when all bits of its mask are set; the first that applies counts.
struct ServerEdition {
    uint16_t suites;
    Names names;
};
constexpr ServerEdition EDITIONS_2000[] = {
    {SUITE_DATACENTER,
     {7, "win2000DataCentServ", "Windows 2000 Data Center Server"}}, // shares the Server's type
    {SUITE_ENTERPRISE, {8, "win2000AdvServ", "Windows 2000 Advanced Server"}},
    {0, {7, "win2000Serv", "Windows 2000 Server"}},
};
constexpr ServerEdition EDITIONS_2003[] = {
    {SUITE_DATACENTER, {17, "winNetDatacenter", "Windows Server 2003 Datacenter Edition"}},
    {SUITE_ENTERPRISE, {16, "winNetEnterprise", "Windows Server 2003 Enterprise Edition"}},
    {SUITE_WEB, {14, "winNetWeb", "Windows Server 2003 Web Edition"}},
    {SUITE_COMPUTE_CLUSTER, {15, "winNetComputeCluster", "Windows Server 2003 Compute Cluster Edition"}},
    {SUITE_STORAGE, {15, "winNetStorageSvr", "Windows Storage Server 2003"}},
    {SUITE_SMALL_BUSINESS | SUITE_SMALL_BUSINESS_RESTRICTED,
     {15, "winNetBusiness", "Windows Server 2003 Small Business"}},
    {0, {15, "winNetStandard", "Windows Server 2003 Standard Edition"}},
};

// --- 6.0: Vista and Server 2008 ---

// The workstation editions are not told apart: all of them are plain Vista to the host.
constexpr uint32_t VISTA_WORKSTATIONS[] = {1, 2, 3, 4, 5, 6, 11, 26, 27, 28};

struct Edition {
    uint32_t product;
    std::string_view shortStem; // "-64" or "-32" follows
    std::string_view longName;  // ", 64-bit" or ", 32-bit" follows
};
constexpr Edition EDITIONS_2008[] = {
    {7, "winServer2008Standard", "Windows Server 2008 Standard Edition"},
    {8, "winServer2008Datacenter", "Windows Server 2008 Datacenter Edition"},
    {9, "winServer2008SmallBusiness", "Windows Server 2008 Small Business Server"},
    {10, "winServer2008Enterprise", "Windows Server 2008 Enterprise Edition"},
    {12, "winServer2008DatacenterCore", "Windows Server 2008 Datacenter Edition (core installation)"},
    {13, "winServer2008StandardCore", "Windows Server 2008 Standard Edition (core installation)"},
    {14, "winServer2008EnterpriseCore", "Windows Server 2008 Enterprise Edition (core installation)"},
    {15, "winServer2008EnterpriseItanium",
     "Windows Server 2008 Enterprise Edition for Itanium-based Systems"},
    {17, "winServer2008Web", "Windows Server 2008 Web Server Edition"},
    {18, "winServer2008Cluster", "Windows Server 2008 Cluster Server Edition"},
    {20, "winServer2008StorageExpress", "Windows Server 2008 Storage Server Express"},
    {21, "winServer2008StorageStandard", "Windows Server 2008 Storage Server Standard"},
    {22, "winServer2008StorageWorkgroup", "Windows Server 2008 Storage Server Workgroup"},
    {23, "winServer2008StorageEnterprise", "Windows Server 2008 Storage Server Enterprise"},
    {24, "winServer2008ForSmallBusiness", "Windows Server 2008 for Windows Essential Server Solutions"},
    {25, "winServer2008SmallBusinessPremium", "Windows Server 2008 Small Business Server Premium Edition"},
    {30, "winServer2008MediumManagement", "Windows Essential Business Server Management Server"},
    {31, "winServer2008MediumSecurity", "Windows Essential Business Server Security Server"},
    {32, "winServer2008MediumMessaging", "Windows Essential Business Server Messaging Server"},
    {35, "winServer2008ForSmallBusiness", "Windows Server 2008 for Windows Essential Server Solutions"},
    {37, "winServer2008Datacenter", "Windows Server 2008 Datacenter Edition"},
    {38, "winServer2008Enterprise", "Windows Server 2008 Enterprise Edition"},
    {39, "winServer2008DatacenterCore", "Windows Server 2008 Datacenter Edition (core installation)"},
    {41, "winServer2008EnterpriseCore", "Windows Server 2008 Enterprise Edition (core installation)"},
};
constexpr uint32_t DEFAULT_SERVER_2008 = 7; // an unknown server counts as the Standard Edition

// --- 6.1 and later: Windows 7 and Server 2008 R2 ---

struct Edition7 {
    uint32_t product;
    std::string_view longName;
};
constexpr Edition7 WORKSTATIONS_7[] = {
    {1, "Windows 7 Ultimate"},      {2, "Windows 7 Home Basic"},   {3, "Windows 7 Home Premium"},
    {4, "Windows 7 Enterprise"},    {6, "Windows 7 Professional"}, {11, "Windows 7 Starter"},
    {16, "Windows 7 Professional"},
};
constexpr Edition7 SERVERS_2008_R2[] = {
    {7, "Windows Server 2008 R2 Standard Edition"},    {8, "Windows Server 2008 R2 Datacenter Edition"},
    {10, "Windows Server 2008 R2 Enterprise Edition"}, {12, "Windows Server 2008 R2 Datacenter Edition"},
    {13, "Windows Server 2008 R2 Standard Edition"},   {14, "Windows Server 2008 R2 Enterprise Edition"},
    {17, "Windows Web Server 2008 R2 Edition"},        {29, "Windows Web Server 2008 R2 Edition"},
    {33, "Windows Server 2008 R2 Foundation Edition"}, {36, "Windows Server 2008 R2 Standard Edition"},
    {37, "Windows Server 2008 R2 Datacenter Edition"}, {38, "Windows Server 2008 R2 Enterprise Edition"},
    {39, "Windows Server 2008 R2 Datacenter Edition"}, {40, "Windows Server 2008 R2 Standard Edition"},
    {41, "Windows Server 2008 R2 Enterprise Edition"},
};

// Systems without the extended record: what their registry calls them. Its letters come in either case.
struct RegistryProduct {
    std::string_view name;
    std::string_view suffix;
};
constexpr RegistryProduct REGISTRY_PRODUCTS[] = {
    {"WINNT", " Workstation"},
    {"LANMANNT", " Server"},
    {"SERVERNT", " Advanced Server"},
};

bool EqualWithoutCase(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(), [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
    });
}

template <typename Row>
const Row* FindProduct(std::span<const Row> table, uint32_t product) {
    auto row =
        std::find_if(table.begin(), table.end(), [&](const Row& each) { return each.product == product; });
    return row == table.end() ? nullptr : &*row;
}

void Assign(Hostinfo_OSName* out, const Names& names) {
    out->type = names.type;
    out->shortName = names.shortName;
    out->longName = names.longName;
}

const char* BitnessSuffix(const HostinfoVersion& version) {
    return version.is64Bit ? ", 64-bit" : ", 32-bit";
}

bool IsWorkstation(const HostinfoVersion& version) {
    return version.productType == HOSTINFO_PRODUCT_WORKSTATION;
}

bool IsServer(const HostinfoVersion& version) {
    return version.productType == HOSTINFO_PRODUCT_SERVER ||
           version.productType == HOSTINFO_PRODUCT_DOMAIN_CONTROLLER;
}

void Name9x(const HostinfoVersion& version, Hostinfo_OSName* out) {
    for (const Release9x& release : RELEASES_9X) {
        if (version.major != 4 || version.minor != release.minor) {
            continue;
        }
        Assign(out, release.names);
        if (version.servicePack.size() > 1 &&
            release.letters.find(version.servicePack[1]) != std::string_view::npos) {
            out->longName += release.suffix;
        }
    }
}

void NameVista(const HostinfoVersion& version, Hostinfo_OSName* out) {
    out->type = IsWorkstation(version) ? 18 : 19;
    const Edition* server = FindProduct<Edition>(EDITIONS_2008, version.product);
    bool workstation = std::find(std::begin(VISTA_WORKSTATIONS), std::end(VISTA_WORKSTATIONS),
                                 version.product) != std::end(VISTA_WORKSTATIONS);
    if (!server && !workstation) { // an edition of later days, or one that the system does not tell
        workstation = IsWorkstation(version);
        server = FindProduct<Edition>(EDITIONS_2008, DEFAULT_SERVER_2008);
    }
    if (workstation) {
        out->shortName = version.is64Bit ? "winVista-64" : "winVista";
        out->longName = version.is64Bit ? "Windows Vista x64 Edition" : "Windows Vista";
        return;
    }
    out->shortName = std::string(server->shortStem) + (version.is64Bit ? "-64" : "-32");
    out->longName = std::string(server->longName) + BitnessSuffix(version);
}

void Name7(const HostinfoVersion& version, Hostinfo_OSName* out) {
    out->type = IsWorkstation(version) ? 20 : 21;
    out->shortName = version.is64Bit ? "windows7-64" : "windows7";
    out->longName = "Windows 7";
    if (const Edition7* workstation = FindProduct<Edition7>(WORKSTATIONS_7, version.product)) {
        out->longName = workstation->longName;
    } else if (const Edition7* server = FindProduct<Edition7>(SERVERS_2008_R2, version.product)) {
        out->shortName = "windows7srv-64"; // Server 2008 R2 exists for 64 bits only
        out->longName = server->longName;
    }
    out->longName += BitnessSuffix(version);
}

void NameNtRelease(const HostinfoVersion& version, Hostinfo_OSName* out) {
    if (version.major == 6) {
        (version.minor == 0 ? NameVista : Name7)(version, out);
    } else if (version.major == 5 && version.minor < std::size(RELEASES_5)) {
        Assign(out, RELEASES_5[version.minor]);
    } else if (version.major <= 5) {
        Assign(out, {version.major < 5 ? 4u : 0u, "winNT", "Windows NT"});
    }
}

void RefineWorkstation(const HostinfoVersion& version, Hostinfo_OSName* out) {
    if (version.major == 4) {
        out->longName += " Workstation 4.0";
    } else if (version.major == 5 && version.minor == 0) {
        Assign(out, {6, "win2000Pro", "Windows 2000 Professional"});
    } else if (version.major == 5 && version.minor == 1) {
        bool home = (version.suiteMask & SUITE_PERSONAL) != 0;
        Assign(out, home ? Names{10, "winXPHome", "Windows XP Home Edition"}
                         : Names{11, "winXPPro", "Windows XP Professional"});
    } else if (version.major == 5 && version.minor == 2) {
        Assign(out, {12, "winXPPro-64", "Windows XP Professional x64 Edition"});
    }
}

void RefineServer(const HostinfoVersion& version, Hostinfo_OSName* out) {
    std::span<const ServerEdition> editions;
    if (version.major == 5 && version.minor == 0) {
        editions = EDITIONS_2000;
    } else if (version.major == 5 && version.minor == 2) {
        editions = EDITIONS_2003;
    } else {
        return;
    }
    auto edition = std::find_if(editions.begin(), editions.end(), [&](const ServerEdition& each) {
        return (version.suiteMask & each.suites) == each.suites;
    });
    Assign(out, edition->names);
    if (version.minor == 2 && version.is64Bit) {
        out->shortName += "-64";
        out->longName += " (64 bit)";
    }
}

void AppendRegistryProduct(const std::string& product, Hostinfo_OSName* out) {
    for (const RegistryProduct& each : REGISTRY_PRODUCTS) {
        if (EqualWithoutCase(product, each.name)) {
            out->longName += each.suffix;
        }
    }
}

void AppendServicePackAndBuild(const HostinfoVersion& version, Hostinfo_OSName* out) {
    bool sp6a =
        version.major == 4 && version.hotfixSp6a && EqualWithoutCase(version.servicePack, "Service Pack 6");
    std::string text =
        Str_Format("%s%s (Build %d)", " ", sp6a ? "Service Pack 6a" : version.servicePack.c_str(),
                   static_cast<int>(version.build));
    out->longName += text.substr(0, MAX_SUFFIX);
}

bool NameNt(const HostinfoVersion& version, Hostinfo_OSName* out) {
    NameNtRelease(version, out);
    if (version.extended) {
        if (IsWorkstation(version)) {
            RefineWorkstation(version, out);
        } else if (IsServer(version)) {
            RefineServer(version, out);
        }
    } else if (version.registryProductType) {
        AppendRegistryProduct(*version.registryProductType, out);
    } else {
        return false;
    }
    if (version.major != 6) { // those end with the bitness instead
        AppendServicePackAndBuild(version, out);
    }
    return true;
}

std::atomic<bool> publishLock{false};
std::atomic<const Hostinfo_OSName*> published{nullptr};
Hostinfo_OSName publishedName;

} // namespace

uint32_t HostinfoFamilyOfType(uint32_t type) {
    return type < FAMILY_OF_TYPE.size() ? FAMILY_OF_TYPE[type] : HOSTINFO_FAMILY_UNKNOWN;
}

std::optional<Hostinfo_OSName> HostinfoNameRelease(const HostinfoVersion& version) {
    Hostinfo_OSName name{};
    if (version.platform == HOSTINFO_PLATFORM_WIN32S) {
        name.longName = "Windows 32s";
    } else if (version.platform == HOSTINFO_PLATFORM_9X) {
        Name9x(version, &name);
    } else if (version.platform == HOSTINFO_PLATFORM_NT && !NameNt(version, &name)) {
        return std::nullopt;
    }
    name.family = HostinfoFamilyOfType(name.type);
    name.shortName.resize(std::min(name.shortName.size(), MAX_SHORT_NAME));
    name.longName.resize(std::min(name.longName.size(), MAX_LONG_NAME));
    return name;
}

const Hostinfo_OSName* HostinfoPublished() {
    return published.load(std::memory_order_acquire);
}

const Hostinfo_OSName* HostinfoPublish(Hostinfo_OSName name) {
    while (publishLock.exchange(true, std::memory_order_acquire)) {
        std::this_thread::yield();
    }
    if (!published.load(std::memory_order_relaxed)) {
        publishedName = std::move(name);
        published.store(&publishedName, std::memory_order_release);
    }
    publishLock.store(false, std::memory_order_release);
    return &publishedName;
}
