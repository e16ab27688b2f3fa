// What the running system tells.
#include "misc/hostinfo.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

TEST(HostinfoWin32, TellsVersionAndBitness) {
    EXPECT_GE(Hostinfo_OSVersion(0), 6u);
    EXPECT_NE(Hostinfo_OSVersion(2), 0u);
    EXPECT_EQ(Hostinfo_OSVersion(4), 0u);
    EXPECT_EQ(HostinfoOSBitness(), 64);
}

// This program names no release in a manifest either, so a current system reads as 6.2.
TEST(HostinfoWin32, EveryThreadGetsTheOneName) {
    std::vector<const Hostinfo_OSName*> seen(8);
    std::vector<std::jthread> threads;
    for (const Hostinfo_OSName*& each : seen) {
        threads.emplace_back([&each] { each = Hostinfo_GetOSName(); });
    }
    threads.clear();
    ASSERT_NE(seen[0], nullptr);
    EXPECT_EQ(seen, std::vector(8, seen[0]));
    EXPECT_EQ(seen[0]->family, HOSTINFO_FAMILY_7);
    EXPECT_EQ(seen[0]->shortName.substr(0, 8), "windows7");
    EXPECT_NE(seen[0]->longName.find(", 64-bit"), std::string::npos) << seen[0]->longName;
}

} // namespace
