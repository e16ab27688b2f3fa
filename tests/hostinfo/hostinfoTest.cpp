// The names of every release and edition, by the version record that each of them gives.
#include "misc/hostinfoNames.h"

#include <gtest/gtest.h>

#include <latch>
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
        {Win9x(4, 0, " A"), 1, 1, "win95", "Windows 95"},
        {Win9x(4, 0, " B"), 1, 1, "win95", "Windows 95 OSR2"},
        {Win9x(4, 0, " C"), 1, 1, "win95", "Windows 95 OSR2"},
        {Win9x(4, 0, "B "), 1, 1, "win95", "Windows 95"},
        {Win9x(4, 10, ""), 2, 2, "win98", "Windows 98"},
        {Win9x(4, 10, " A"), 2, 2, "win98", "Windows 98 SE"},
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
    });
    EXPECT_FALSE(HostinfoNameRelease(Basic(4, 0, std::nullopt)));
    EXPECT_FALSE(HostinfoNameRelease(Basic(5, 1, std::nullopt)));
}

TEST(HostinfoNames, Windows2000AndXp) {
    ExpectNames({
        {Nt(5, 0, NONE), 5, 5, "win2000", "Windows 2000" + SUFFIX},
        {Nt(5, 0, WORKSTATION), 6, 5, "win2000Pro", "Windows 2000 Professional" + SUFFIX},
        {Nt(5, 0, CONTROLLER, 0x82), 7, 5, "win2000DataCentServ", "Windows 2000 Data Center Server" + SUFFIX},
        {Nt(5, 0, SERVER, 0x2), 8, 5, "win2000AdvServ", "Windows 2000 Advanced Server" + SUFFIX},
        {Nt(5, 0, SERVER), 7, 5, "win2000Serv", "Windows 2000 Server" + SUFFIX},
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

// The first edition in the order of the table counts when more than one bit is set.
TEST(HostinfoNames, Server2003) {
    const std::string standard = "Windows Server 2003 Standard Edition";
    const std::string enterprise = "Windows Server 2003 Enterprise Edition";
    ExpectNames({
        {Nt(5, 2, SERVER, 0x82), 17, 7, "winNetDatacenter",
         "Windows Server 2003 Datacenter Edition" + SUFFIX},
        {Nt(5, 2, SERVER, 0x402), 16, 7, "winNetEnterprise", enterprise + SUFFIX},
        {Nt(5, 2, SERVER, 0x400), 14, 7, "winNetWeb", "Windows Server 2003 Web Edition" + SUFFIX},
        {Nt(5, 2, SERVER, 0x6000), 15, 7, "winNetComputeCluster",
         "Windows Server 2003 Compute Cluster Edition" + SUFFIX},
        {Nt(5, 2, SERVER, 0x2000), 15, 7, "winNetStorageSvr", "Windows Storage Server 2003" + SUFFIX},
        {Nt(5, 2, SERVER, 0x21), 15, 7, "winNetBusiness", "Windows Server 2003 Small Business" + SUFFIX},
        {Nt(5, 2, SERVER, 0x1), 15, 7, "winNetStandard", standard + SUFFIX},
        {Nt(5, 2, SERVER, 0x20), 15, 7, "winNetStandard", standard + SUFFIX},
        {Nt(5, 2, CONTROLLER), 15, 7, "winNetStandard", standard + SUFFIX},
        {Nt(5, 2, CONTROLLER, 0x2, BITS64), 16, 7, "winNetEnterprise-64", enterprise + " (64 bit)" + SUFFIX},
        {Nt(5, 2, NONE), 13, 7, "win2003", "Windows 2003" + SUFFIX},
    });
}

// Which editions are known at all, and some of them by name. Workstations are not told apart, whatever the
// record says; an unknown edition is what the record says.
TEST(HostinfoNames, VistaAndServer2008) {
    const std::set<uint32_t> workstations = {1, 2, 3, 4, 5, 6, 11, 26, 27, 28};
    const std::set<uint32_t> gaps = {0, 16, 19, 29, 33, 34, 36, 40};
    for (uint32_t product = 0; product < 300; product++) {
        const bool workstation = workstations.contains(product);
        const bool unknown = gaps.contains(product) || product > 41;
        const auto name = [&](uint8_t productType) {
            return HostinfoNameRelease(Nt6(0, productType, product, BITS64))->shortName;
        };
        EXPECT_EQ(name(WORKSTATION) == "winVista-64", workstation || unknown) << product;
        EXPECT_EQ(name(SERVER) == "winVista-64", workstation) << product;
        EXPECT_EQ(name(SERVER) == "winServer2008Standard-64", unknown || product == 7) << product;
    }
    ExpectNames({
        {Nt6(0, WORKSTATION, 6, BITS32), 18, 8, "winVista", "Windows Vista"},
        {Nt6(0, WORKSTATION, 0xABCDABCD, BITS64), 18, 8, "winVista-64", "Windows Vista x64 Edition"},
        {Nt6(0, NONE, 0, BITS32), 19, 8, "winServer2008Standard-32",
         "Windows Server 2008 Standard Edition, 32-bit"},
        {Nt6(0, CONTROLLER, 37, BITS64), 19, 8, "winServer2008Datacenter-64",
         "Windows Server 2008 Datacenter Edition, 64-bit"},
        {Nt6(0, SERVER, 14, BITS32), 19, 8, "winServer2008EnterpriseCore-32",
         "Windows Server 2008 Enterprise Edition (core installation), 32-bit"},
        {Nt6(0, SERVER, 35, BITS64), 19, 8, "winServer2008ForSmallBusiness-64",
         "Windows Server 2008 for Windows Essential Server Solutions, 64-bit"},
    });
}

TEST(HostinfoNames, Windows7AndServer2008R2) {
    const std::set<uint32_t> workstations = {1, 2, 3, 4, 6, 11, 16};
    const std::set<uint32_t> servers = {7, 8, 10, 12, 13, 14, 17, 29, 33, 36, 37, 38, 39, 40, 41};
    for (uint32_t product = 0; product < 300; product++) {
        std::optional<Hostinfo_OSName> name = HostinfoNameRelease(Nt6(1, SERVER, product, BITS32));
        EXPECT_EQ(name->shortName == "windows7srv-64", servers.contains(product)) << product;
        EXPECT_EQ(name->longName != "Windows 7, 32-bit",
                  servers.contains(product) || workstations.contains(product))
            << product;
    }
    ExpectNames({
        {Nt6(2, WORKSTATION, 0, BITS64), 20, 9, "windows7-64", "Windows 7, 64-bit"},
        {Nt6(1, WORKSTATION, 16, BITS32), 20, 9, "windows7", "Windows 7 Professional, 32-bit"},
        {Nt6(1, SERVER, 36, BITS64), 21, 9, "windows7srv-64",
         "Windows Server 2008 R2 Standard Edition, 64-bit"},
        {Nt6(1, SERVER, 29, BITS32), 21, 9, "windows7srv-64", "Windows Web Server 2008 R2 Edition, 32-bit"},
    });
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
}

// Many threads with different results: all of them see one result, whole, and it never changes.
TEST(HostinfoPublish, FirstOfManyThreadsWins) {
    constexpr uint32_t THREADS = 16;
    EXPECT_EQ(HostinfoPublished(), nullptr);
    std::latch start(THREADS);
    std::vector<const Hostinfo_OSName*> seen(THREADS);
    std::vector<std::string> names(THREADS);
    std::vector<std::jthread> threads;
    for (uint32_t index = 0; index < THREADS; index++) {
        threads.emplace_back([&, index] {
            const std::string mine(40, static_cast<char>('a' + index));
            start.arrive_and_wait();
            for (int round = 0; round < 200; round++) {
                seen[index] = HostinfoPublish({index, index, mine, mine});
                names[index] = round == 0 ? seen[index]->longName : names[index];
                EXPECT_EQ(seen[index]->longName, names[index]);
            }
        });
    }
    threads.clear();
    const Hostinfo_OSName* published = HostinfoPublished();
    ASSERT_NE(published, nullptr);
    EXPECT_EQ(published->shortName, std::string(40, static_cast<char>('a' + published->type)));
    EXPECT_EQ(seen, std::vector(THREADS, published));
    EXPECT_EQ(names, std::vector(THREADS, published->longName));
}

} // namespace
