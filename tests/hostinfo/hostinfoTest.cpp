// The names of every release and edition, by the version record that each of them gives.
#include "misc/hostinfoNames.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr bool BITS32 = false;
constexpr bool BITS64 = true;
constexpr uint8_t NONE = 0;
constexpr uint8_t WORKSTATION = HOSTINFO_PRODUCT_WORKSTATION;
constexpr uint8_t CONTROLLER = HOSTINFO_PRODUCT_DOMAIN_CONTROLLER;
constexpr uint8_t SERVER = HOSTINFO_PRODUCT_SERVER;

HostinfoVersion Nt(uint32_t major, uint32_t minor, uint8_t productType, uint16_t suites = 0,
                   bool is64 = BITS32) {
    HostinfoVersion version;
    version.platform = HOSTINFO_PLATFORM_NT;
    version.major = major;
    version.minor = minor;
    version.build = 2600;
    version.servicePack = "Service Pack 2";
    version.extended = true;
    version.productType = productType;
    version.suiteMask = suites;
    version.is64Bit = is64;
    return version;
}

HostinfoVersion Nt6(uint32_t minor, uint8_t productType, uint32_t product, bool is64) {
    HostinfoVersion version = Nt(6, minor, productType, 0, is64);
    version.product = product;
    return version;
}

HostinfoVersion Win9x(uint32_t major, uint32_t minor, const char* servicePack) {
    HostinfoVersion version;
    version.platform = HOSTINFO_PLATFORM_9X;
    version.major = major;
    version.minor = minor;
    version.servicePack = servicePack;
    return version;
}

// A system that answers the basic record only.
HostinfoVersion Basic(uint32_t major, uint32_t minor, std::optional<std::string> registry) {
    HostinfoVersion version = Nt(major, minor, NONE);
    version.extended = false;
    version.registryProductType = std::move(registry);
    return version;
}

struct Expected {
    HostinfoVersion version;
    uint32_t type;
    uint32_t family;
    const char* shortName;
    std::string longName;
};

void ExpectNames(const std::vector<Expected>& table) {
    for (const Expected& row : table) {
        SCOPED_TRACE(testing::Message()
                     << row.version.major << "." << row.version.minor << " type "
                     << int{row.version.productType} << " product " << row.version.product << " suites "
                     << row.version.suiteMask << " bits64 " << row.version.is64Bit);
        std::optional<Hostinfo_OSName> name = HostinfoNameRelease(row.version);
        ASSERT_TRUE(name);
        EXPECT_EQ(name->type, row.type);
        EXPECT_EQ(name->family, row.family);
        EXPECT_EQ(name->shortName, row.shortName);
        EXPECT_EQ(name->longName, row.longName);
    }
}

const std::string SUFFIX = " Service Pack 2 (Build 2600)";

TEST(HostinfoNames, OldConsumerReleases) {
    HostinfoVersion win32s;
    ExpectNames({
        {win32s, 0, 99999, "", "Windows 32s"},
        {Win9x(4, 0, ""), 1, 1, "win95", "Windows 95"},
        {Win9x(4, 0, " "), 1, 1, "win95", "Windows 95"},
        {Win9x(4, 0, " A"), 1, 1, "win95", "Windows 95"},
        {Win9x(4, 0, " B"), 1, 1, "win95", "Windows 95 OSR2"},
        {Win9x(4, 0, " C"), 1, 1, "win95", "Windows 95 OSR2"},
        {Win9x(4, 0, "B "), 1, 1, "win95", "Windows 95"},
        {Win9x(4, 10, ""), 2, 2, "win98", "Windows 98"},
        {Win9x(4, 10, " A"), 2, 2, "win98", "Windows 98 SE"},
        {Win9x(4, 10, " B"), 2, 2, "win98", "Windows 98"},
        {Win9x(4, 90, " A"), 3, 3, "winMe", "Windows Me"},
        {Win9x(4, 50, ""), 0, 99999, "", ""},
        {Win9x(5, 0, ""), 0, 99999, "", ""},
    });
}

TEST(HostinfoNames, Nt4) {
    HostinfoVersion sp6 = Nt(4, 0, WORKSTATION);
    sp6.servicePack = "service pack 6";
    HostinfoVersion sp6a = sp6;
    sp6a.hotfixSp6a = true;
    HostinfoVersion sp5Patched = Nt(4, 0, SERVER);
    sp5Patched.servicePack = "Service Pack 5";
    sp5Patched.hotfixSp6a = true;
    HostinfoVersion xpPatched = Nt(5, 1, WORKSTATION);
    xpPatched.servicePack = "Service Pack 6";
    xpPatched.hotfixSp6a = true;
    ExpectNames({
        {Nt(4, 0, WORKSTATION), 4, 4, "winNT", "Windows NT Workstation 4.0" + SUFFIX},
        {Nt(4, 0, SERVER), 4, 4, "winNT", "Windows NT" + SUFFIX},
        {Nt(3, 51, WORKSTATION), 4, 4, "winNT", "Windows NT" + SUFFIX},
        {sp6, 4, 4, "winNT", "Windows NT Workstation 4.0 service pack 6 (Build 2600)"},
        {sp6a, 4, 4, "winNT", "Windows NT Workstation 4.0 Service Pack 6a (Build 2600)"},
        {sp5Patched, 4, 4, "winNT", "Windows NT Service Pack 5 (Build 2600)"},
        {xpPatched, 11, 6, "winXPPro", "Windows XP Professional Service Pack 6 (Build 2600)"},
        {Basic(4, 0, "WinNT"), 4, 4, "winNT", "Windows NT Workstation" + SUFFIX},
        {Basic(4, 0, "LANMANNT"), 4, 4, "winNT", "Windows NT Server" + SUFFIX},
        {Basic(4, 0, "ServerNT"), 4, 4, "winNT", "Windows NT Advanced Server" + SUFFIX},
        {Basic(4, 0, "WINNT2"), 4, 4, "winNT", "Windows NT" + SUFFIX},
        {Basic(4, 0, ""), 4, 4, "winNT", "Windows NT" + SUFFIX},
    });
    EXPECT_FALSE(HostinfoNameRelease(Basic(4, 0, std::nullopt)));
    EXPECT_FALSE(HostinfoNameRelease(Basic(5, 1, std::nullopt)));
}

TEST(HostinfoNames, Windows2000AndXp) {
    ExpectNames({
        {Nt(5, 0, NONE), 5, 5, "win2000", "Windows 2000" + SUFFIX},
        {Nt(5, 0, WORKSTATION), 6, 5, "win2000Pro", "Windows 2000 Professional" + SUFFIX},
        {Nt(5, 0, SERVER, 0x80), 7, 5, "win2000DataCentServ", "Windows 2000 Data Center Server" + SUFFIX},
        {Nt(5, 0, CONTROLLER, 0x82), 7, 5, "win2000DataCentServ", "Windows 2000 Data Center Server" + SUFFIX},
        {Nt(5, 0, SERVER, 0x2), 8, 5, "win2000AdvServ", "Windows 2000 Advanced Server" + SUFFIX},
        {Nt(5, 0, SERVER), 7, 5, "win2000Serv", "Windows 2000 Server" + SUFFIX},
        {Nt(5, 0, CONTROLLER), 7, 5, "win2000Serv", "Windows 2000 Server" + SUFFIX},
        {Nt(5, 1, NONE), 9, 6, "winXP", "Windows XP" + SUFFIX},
        {Nt(5, 1, SERVER), 9, 6, "winXP", "Windows XP" + SUFFIX},
        {Nt(5, 1, WORKSTATION, 0x200), 10, 6, "winXPHome", "Windows XP Home Edition" + SUFFIX},
        {Nt(5, 1, WORKSTATION, 0x100), 11, 6, "winXPPro", "Windows XP Professional" + SUFFIX},
        {Nt(5, 2, WORKSTATION, 0, BITS64), 12, 6, "winXPPro-64",
         "Windows XP Professional x64 Edition" + SUFFIX},
        {Nt(5, 3, WORKSTATION), 0, 99999, "winNT", "Windows NT" + SUFFIX},
        {Basic(5, 0, "ServerNT"), 5, 5, "win2000", "Windows 2000 Advanced Server" + SUFFIX},
    });
}

TEST(HostinfoNames, Server2003) {
    struct Row {
        uint16_t suites;
        uint32_t type;
        std::string shortName;
        std::string longName;
    };
    const Row rows[] = {
        {0x80, 17, "winNetDatacenter", "Windows Server 2003 Datacenter Edition"},
        {0x82, 17, "winNetDatacenter", "Windows Server 2003 Datacenter Edition"},
        {0x2, 16, "winNetEnterprise", "Windows Server 2003 Enterprise Edition"},
        {0x402, 16, "winNetEnterprise", "Windows Server 2003 Enterprise Edition"},
        {0x400, 14, "winNetWeb", "Windows Server 2003 Web Edition"},
        {0x4000, 15, "winNetComputeCluster", "Windows Server 2003 Compute Cluster Edition"},
        {0x6000, 15, "winNetComputeCluster", "Windows Server 2003 Compute Cluster Edition"},
        {0x2000, 15, "winNetStorageSvr", "Windows Storage Server 2003"},
        {0x21, 15, "winNetBusiness", "Windows Server 2003 Small Business"},
        {0x1, 15, "winNetStandard", "Windows Server 2003 Standard Edition"},
        {0x20, 15, "winNetStandard", "Windows Server 2003 Standard Edition"},
        {0, 15, "winNetStandard", "Windows Server 2003 Standard Edition"},
    };
    for (const Row& row : rows) {
        for (uint8_t productType : {SERVER, CONTROLLER}) {
            ExpectNames({
                {Nt(5, 2, productType, row.suites), row.type, 7, row.shortName.c_str(),
                 row.longName + SUFFIX},
                {Nt(5, 2, productType, row.suites, BITS64), row.type, 7, (row.shortName + "-64").c_str(),
                 row.longName + " (64 bit)" + SUFFIX},
            });
        }
    }
    ExpectNames({{Nt(5, 2, NONE), 13, 7, "win2003", "Windows 2003" + SUFFIX}});
}

TEST(HostinfoNames, VistaWorkstationsAreNotToldApart) {
    const std::set<uint32_t> workstations = {1, 2, 3, 4, 5, 6, 11, 26, 27, 28};
    for (uint32_t product : workstations) {
        ExpectNames({
            {Nt6(0, WORKSTATION, product, BITS32), 18, 8, "winVista", "Windows Vista"},
            {Nt6(0, WORKSTATION, product, BITS64), 18, 8, "winVista-64", "Windows Vista x64 Edition"},
            {Nt6(0, SERVER, product, BITS64), 19, 8, "winVista-64", "Windows Vista x64 Edition"},
        });
    }
}

TEST(HostinfoNames, Server2008) {
    struct Row {
        uint32_t product;
        std::string shortStem;
        std::string longName;
    };
    const Row rows[] = {
        {7, "winServer2008Standard", "Windows Server 2008 Standard Edition"},
        {8, "winServer2008Datacenter", "Windows Server 2008 Datacenter Edition"},
        {37, "winServer2008Datacenter", "Windows Server 2008 Datacenter Edition"},
        {9, "winServer2008SmallBusiness", "Windows Server 2008 Small Business Server"},
        {10, "winServer2008Enterprise", "Windows Server 2008 Enterprise Edition"},
        {38, "winServer2008Enterprise", "Windows Server 2008 Enterprise Edition"},
        {12, "winServer2008DatacenterCore", "Windows Server 2008 Datacenter Edition (core installation)"},
        {39, "winServer2008DatacenterCore", "Windows Server 2008 Datacenter Edition (core installation)"},
        {13, "winServer2008StandardCore", "Windows Server 2008 Standard Edition (core installation)"},
        {14, "winServer2008EnterpriseCore", "Windows Server 2008 Enterprise Edition (core installation)"},
        {41, "winServer2008EnterpriseCore", "Windows Server 2008 Enterprise Edition (core installation)"},
        {15, "winServer2008EnterpriseItanium",
         "Windows Server 2008 Enterprise Edition for Itanium-based Systems"},
        {17, "winServer2008Web", "Windows Server 2008 Web Server Edition"},
        {18, "winServer2008Cluster", "Windows Server 2008 Cluster Server Edition"},
        {20, "winServer2008StorageExpress", "Windows Server 2008 Storage Server Express"},
        {21, "winServer2008StorageStandard", "Windows Server 2008 Storage Server Standard"},
        {22, "winServer2008StorageWorkgroup", "Windows Server 2008 Storage Server Workgroup"},
        {23, "winServer2008StorageEnterprise", "Windows Server 2008 Storage Server Enterprise"},
        {24, "winServer2008ForSmallBusiness", "Windows Server 2008 for Windows Essential Server Solutions"},
        {35, "winServer2008ForSmallBusiness", "Windows Server 2008 for Windows Essential Server Solutions"},
        {25, "winServer2008SmallBusinessPremium",
         "Windows Server 2008 Small Business Server Premium Edition"},
        {30, "winServer2008MediumManagement", "Windows Essential Business Server Management Server"},
        {31, "winServer2008MediumSecurity", "Windows Essential Business Server Security Server"},
        {32, "winServer2008MediumMessaging", "Windows Essential Business Server Messaging Server"},
    };
    for (const Row& row : rows) {
        ExpectNames({
            {Nt6(0, SERVER, row.product, BITS32), 19, 8, (row.shortStem + "-32").c_str(),
             row.longName + ", 32-bit"},
            {Nt6(0, CONTROLLER, row.product, BITS64), 19, 8, (row.shortStem + "-64").c_str(),
             row.longName + ", 64-bit"},
        });
    }
}

// Everything outside the tables: 0 for "not told", the gaps, and editions of later days.
TEST(HostinfoNames, UnknownEditions) {
    std::vector<uint32_t> unknown6 = {0, 16, 19, 29, 33, 34, 36, 40, 0xABCDABCD};
    for (uint32_t product = 42; product < 300; product++) {
        unknown6.push_back(product);
    }
    for (uint32_t product : unknown6) {
        ExpectNames({
            {Nt6(0, WORKSTATION, product, BITS64), 18, 8, "winVista-64", "Windows Vista x64 Edition"},
            {Nt6(0, WORKSTATION, product, BITS32), 18, 8, "winVista", "Windows Vista"},
            {Nt6(0, SERVER, product, BITS32), 19, 8, "winServer2008Standard-32",
             "Windows Server 2008 Standard Edition, 32-bit"},
            {Nt6(0, NONE, product, BITS64), 19, 8, "winServer2008Standard-64",
             "Windows Server 2008 Standard Edition, 64-bit"},
        });
    }
    std::vector<uint32_t> unknown61 = {0, 5, 9, 15, 18, 19, 26, 27, 28, 30, 31, 32, 34, 35, 0xABCDABCD};
    for (uint32_t product = 42; product < 300; product++) {
        unknown61.push_back(product);
    }
    for (uint32_t product : unknown61) {
        ExpectNames({
            {Nt6(2, WORKSTATION, product, BITS64), 20, 9, "windows7-64", "Windows 7, 64-bit"},
            {Nt6(1, SERVER, product, BITS32), 21, 9, "windows7", "Windows 7, 32-bit"},
        });
    }
}

TEST(HostinfoNames, Windows7AndServer2008R2) {
    struct Row {
        uint32_t product;
        bool server;
        std::string longName;
    };
    const Row rows[] = {
        {1, false, "Windows 7 Ultimate"},
        {2, false, "Windows 7 Home Basic"},
        {3, false, "Windows 7 Home Premium"},
        {4, false, "Windows 7 Enterprise"},
        {6, false, "Windows 7 Professional"},
        {16, false, "Windows 7 Professional"},
        {11, false, "Windows 7 Starter"},
        {7, true, "Windows Server 2008 R2 Standard Edition"},
        {13, true, "Windows Server 2008 R2 Standard Edition"},
        {36, true, "Windows Server 2008 R2 Standard Edition"},
        {40, true, "Windows Server 2008 R2 Standard Edition"},
        {8, true, "Windows Server 2008 R2 Datacenter Edition"},
        {12, true, "Windows Server 2008 R2 Datacenter Edition"},
        {37, true, "Windows Server 2008 R2 Datacenter Edition"},
        {39, true, "Windows Server 2008 R2 Datacenter Edition"},
        {10, true, "Windows Server 2008 R2 Enterprise Edition"},
        {14, true, "Windows Server 2008 R2 Enterprise Edition"},
        {38, true, "Windows Server 2008 R2 Enterprise Edition"},
        {41, true, "Windows Server 2008 R2 Enterprise Edition"},
        {17, true, "Windows Web Server 2008 R2 Edition"},
        {29, true, "Windows Web Server 2008 R2 Edition"},
        {33, true, "Windows Server 2008 R2 Foundation Edition"},
    };
    for (const Row& row : rows) {
        ExpectNames({
            {Nt6(1, WORKSTATION, row.product, BITS32), 20, 9, row.server ? "windows7srv-64" : "windows7",
             row.longName + ", 32-bit"},
            {Nt6(1, SERVER, row.product, BITS64), 21, 9, row.server ? "windows7srv-64" : "windows7-64",
             row.longName + ", 64-bit"},
        });
    }
}

TEST(HostinfoNames, LaterMajorVersionsHaveNoName) {
    ExpectNames({{Nt(10, 0, WORKSTATION), 0, 99999, "", SUFFIX}});
}

TEST(HostinfoNames, LengthsAreBounded) {
    HostinfoVersion version = Nt(5, 2, SERVER, 0x4000, BITS64);
    version.servicePack = std::string(127, 'p'); // the longest that the system's record holds
    std::optional<Hostinfo_OSName> name = HostinfoNameRelease(version);
    ASSERT_TRUE(name);
    EXPECT_EQ(name->longName, "Windows Server 2003 Compute Cluster Edition (64 bit) " +
                                  std::string(98, 'p')); // 99 with the blank
    for (uint32_t product = 0; product < 50; product++) {
        name = HostinfoNameRelease(Nt6(0, SERVER, product, BITS64));
        EXPECT_LE(name->shortName.size(), 63u);
        EXPECT_LE(name->longName.size(), 191u);
    }
}

TEST(HostinfoNames, FamilyOfEveryType) {
    const std::vector<uint32_t> families = {99999, 1, 2, 3, 4, 5, 5, 5, 5, 6, 6,    6,
                                            6,     7, 7, 7, 7, 7, 8, 8, 9, 9, 99999};
    for (uint32_t type = 0; type < families.size(); type++) {
        EXPECT_EQ(HostinfoFamilyOfType(type), families[type]) << type;
    }
    EXPECT_EQ(HostinfoFamilyOfType(UINT32_MAX), HOSTINFO_FAMILY_UNKNOWN);
}

// Many threads with different results: all of them see one result, whole, and it never changes.
TEST(HostinfoPublish, FirstOfManyThreadsWins) {
    constexpr uint32_t THREADS = 16;
    constexpr int ROUNDS = 200;
    EXPECT_EQ(HostinfoPublished(), nullptr);
    std::atomic<uint32_t> waiting{0};
    std::vector<const Hostinfo_OSName*> seen(THREADS);
    std::vector<std::string> names(THREADS);
    std::vector<std::thread> threads;
    for (uint32_t index = 0; index < THREADS; index++) {
        threads.emplace_back([&, index] {
            waiting++;
            while (waiting < THREADS) {
                std::this_thread::yield();
            }
            std::string mine(40, static_cast<char>('a' + index));
            for (int round = 0; round < ROUNDS; round++) {
                const Hostinfo_OSName* result = HostinfoPublish({index, index, mine, mine});
                if (round > 0 && (result != seen[index] || result->longName != names[index])) {
                    ADD_FAILURE() << "the published name changed";
                }
                seen[index] = result;
                names[index] = result->longName;
            }
        });
    }
    for (std::thread& each : threads) {
        each.join();
    }
    const Hostinfo_OSName* published = HostinfoPublished();
    ASSERT_NE(published, nullptr);
    EXPECT_EQ(published->shortName, std::string(40, static_cast<char>('a' + published->type)));
    EXPECT_EQ(published->family, published->type);
    for (uint32_t index = 0; index < THREADS; index++) {
        EXPECT_EQ(seen[index], published);
        EXPECT_EQ(names[index], published->longName);
    }
}

} // namespace
