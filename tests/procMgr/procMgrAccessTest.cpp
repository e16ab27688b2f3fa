// Granting and revoking the interactive station and desktop, with lists that the system itself made and
// checks.
#include "procMgr/procMgrAccessWin32.h"

#include "fakeStation.h"
#include "misc/win32Handle.h"
#include "support/diagCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>
#include <windows.h>

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

struct Ace {
    int flags;
    DWORD rights;
    bool logon;
    bool operator==(const Ace&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Ace& ace) {
    return out << "{" << ace.flags << ", " << std::hex << ace.rights << std::dec
               << (ace.logon ? ", logon}" : "}");
}

// A list as the system reads it.
std::vector<Ace> Read(ProcMgrBytes list, const FakeStation& station) {
    auto* acl = reinterpret_cast<ACL*>(list.data());
    EXPECT_TRUE(IsValidAcl(acl));
    std::vector<Ace> entries;
    ProcMgrBytes logon = station.logonSid;
    for (DWORD index = 0; index < acl->AceCount; index++) {
        void* entry = nullptr;
        EXPECT_TRUE(GetAce(acl, index, &entry));
        auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(entry);
        EXPECT_EQ(allowed->Header.AceType, ACCESS_ALLOWED_ACE_TYPE);
        entries.push_back(
            {allowed->Header.AceFlags, allowed->Mask, EqualSid(&allowed->SidStart, logon.data()) != 0});
    }
    return entries;
}

const Ace STATION_1{11, 0xF0000000, true};
const Ace STATION_2{4, 0xF037F, true};
const Ace DESKTOP{0, 0xF01FF, true};
const Ace OLD_STATION_1{0, 0x20, false};
const Ace OLD_STATION_2{0, 0x40, false};
const Ace OLD_DESKTOP{0, 0x10, false};
const HANDLE TOKEN = reinterpret_cast<HANDLE>(0x42);

class ProcMgrAccess : public testing::Test {
protected:
    ProcMgrAccess() { DiagCapture_Take(); }

    void ExpectNothingLeftOpen() const {
        EXPECT_TRUE(station.onOwnStation);
        EXPECT_EQ(station.openStations, 0);
        EXPECT_EQ(station.openDesktops, 0);
    }

    FakeStation station;
};

TEST_F(ProcMgrAccess, GrantsInOrderAndStaysOnTheStation) {
    {
        auto granted = ProcMgr_GrantInteractiveAccess(TOKEN);
        ASSERT_TRUE(granted);
        EXPECT_FALSE(station.onOwnStation);
        EXPECT_EQ(station.openDesktops, 0);
    }
    ExpectNothingLeftOpen();
    EXPECT_THAT(Read(*station.stationList, station),
                ElementsAre(OLD_STATION_1, OLD_STATION_2, STATION_1, STATION_2));
    EXPECT_THAT(Read(*station.desktopList, station), ElementsAre(OLD_DESKTOP, DESKTOP));
    EXPECT_EQ(station.trace, "station! desktop! ");
    EXPECT_EQ(station.opened, "winsta0 0 60000;default 0 0 60081;");
    EXPECT_THAT(DiagCapture_Take().warning, IsEmpty());
}

TEST_F(ProcMgrAccess, RevokeUndoesOneGrant) {
    ProcMgrBytes stationBefore = *station.stationList;
    ProcMgrBytes desktopBefore = *station.desktopList;
    ProcMgr_GrantInteractiveAccess(TOKEN);
    ProcMgr_GrantInteractiveAccess(TOKEN);
    station.trace.clear();

    ProcMgr_RevokeInteractiveAccess(TOKEN);
    EXPECT_EQ(station.trace, "delete 2 desktop! delete 4 delete 4 station! ");
    EXPECT_THAT(Read(*station.stationList, station),
                ElementsAre(OLD_STATION_1, OLD_STATION_2, STATION_1, STATION_2));
    EXPECT_THAT(Read(*station.desktopList, station), ElementsAre(OLD_DESKTOP, DESKTOP));

    ProcMgr_RevokeInteractiveAccess(TOKEN);
    EXPECT_THAT(Read(*station.stationList, station), ElementsAre(OLD_STATION_1, OLD_STATION_2));
    EXPECT_THAT(Read(*station.desktopList, station), ElementsAre(OLD_DESKTOP));

    station.trace.clear();
    ProcMgr_RevokeInteractiveAccess(TOKEN); // nothing left of ours
    EXPECT_EQ(station.trace, "");
    ExpectNothingLeftOpen();
    EXPECT_THAT(DiagCapture_Take().warning, IsEmpty());
}

TEST_F(ProcMgrAccess, WhatOthersAddedMeanwhileStays) {
    ProcMgr_GrantInteractiveAccess(TOKEN);
    const ProcMgrAce others[] = {{0, 0xF0000000}, {4, 0xF037E}};
    station.stationList = ProcMgrAclAppend(*station.stationList, others, station.logonSid);
    ProcMgr_RevokeInteractiveAccess(TOKEN);
    EXPECT_THAT(Read(*station.stationList, station),
                ElementsAre(OLD_STATION_1, OLD_STATION_2, Ace{0, 0xF0000000, true}, Ace{4, 0xF037E, true}));
}

TEST_F(ProcMgrAccess, NoLogonSessionNoGrant) {
    station.tokenHasLogonSession = false;
    EXPECT_FALSE(ProcMgr_GrantInteractiveAccess(TOKEN));
    ExpectNothingLeftOpen();
    EXPECT_EQ(station.trace, "");
    ProcMgr_RevokeInteractiveAccess(TOKEN);
    ExpectNothingLeftOpen();
    EXPECT_EQ(station.trace, "");
}

// An object without a list lets everybody in; a list of ours alone would end that.
TEST_F(ProcMgrAccess, ObjectsWithoutAListAreLeftAlone) {
    station.stationList.reset();
    station.desktopList.reset();
    EXPECT_TRUE(ProcMgr_GrantInteractiveAccess(TOKEN));
    ProcMgr_RevokeInteractiveAccess(TOKEN);
    EXPECT_FALSE(station.stationList);
    EXPECT_FALSE(station.desktopList);
    ExpectNothingLeftOpen();
}

TEST_F(ProcMgrAccess, AListThatGrowsMeanwhileIsReadAgain) {
    station.listGrowsOnce = true;
    EXPECT_TRUE(ProcMgr_GrantInteractiveAccess(TOKEN));
    EXPECT_EQ(Read(*station.stationList, station).size(), 10u);
}

TEST_F(ProcMgrAccess, AFailedDeletionIsLoggedAndNothingWritten) {
    ProcMgr_GrantInteractiveAccess(TOKEN);
    station.trace.clear();
    station.failDeletes = true;
    ProcMgr_RevokeInteractiveAccess(TOKEN);
    EXPECT_EQ(station.trace, "delete 1 delete 2 delete 3 ");
    EXPECT_THAT(DiagCapture_Take().warning,
                ElementsAre("Unable to delete ace at index 1: 87\n", "Unable to delete ace at index 2: 87\n",
                            "Unable to delete ace at index 3: 87\n"));
    ExpectNothingLeftOpen();
}

// Every call fails once. Reading a list takes two calls, of which the first one, asking the size, fails
// anyway.
TEST_F(ProcMgrAccess, EveryFailureOfAGrantIsAFailureAndLeavesNothingOpen) {
    int succeeded = 0;
    for (int call = 1; succeeded == 0 && call < 50; call++) {
        SCOPED_TRACE(call);
        DiagCapture_Take();
        station.callCount = 0;
        station.failCall = call;
        auto granted = ProcMgr_GrantInteractiveAccess(TOKEN);
        if (granted) {
            succeeded = call;
            station.failCall = 0;
            EXPECT_EQ(station.callCount, call - 1); // the failure was not reached
        } else {
            EXPECT_THAT(DiagCapture_Take().warning, Contains(HasSubstr("failed 5")));
            ExpectNothingLeftOpen();
        }
    }
    EXPECT_GT(succeeded, 8);
    ExpectNothingLeftOpen();
}

TEST(ProcMgrAccessSweep, EveryFailureOfARevokeIsLoggedAndLeavesNothingOpen) {
    bool reached = true;
    for (int call = 1; reached; call++) {
        SCOPED_TRACE(call);
        FakeStation station;
        ProcMgr_GrantInteractiveAccess(TOKEN);
        DiagCapture_Take();
        station.callCount = 0;
        station.failCall = call;
        ProcMgr_RevokeInteractiveAccess(TOKEN);
        reached = station.callCount >= call;
        EXPECT_EQ(station.openDesktops, 0);
        if (reached) {
            EXPECT_THAT(DiagCapture_Take().warning, Contains(HasSubstr("failed 5")));
            bool lastCall = station.callCount == call; // going back to the process's own station
            EXPECT_EQ(station.openStations, lastCall && !station.onOwnStation ? 1 : 0);
        } else {
            EXPECT_GT(call, 10);
        }
    }
}

// The list building on a list of a real object: what the system stores and gives back is what was built.
TEST(ProcMgrAclReal, AnObjectOfTheSystemTakesTheBuiltList) {
    KernelHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    ProcMgrBytes logon = {1, 3, 0, 0, 0, 0, 0, 5, 5, 0, 0, 0, 0, 0, 0, 0, 0x87, 0xD6, 0x12, 0};
    auto longer = ProcMgrAclAppend(FakeStation_List({EVENT_ALL_ACCESS}), PROCMGR_STATION_ACES, logon);
    ASSERT_TRUE(longer);
    SECURITY_DESCRIPTOR absolute;
    ASSERT_TRUE(InitializeSecurityDescriptor(&absolute, SECURITY_DESCRIPTOR_REVISION));
    ASSERT_TRUE(SetSecurityDescriptorDacl(&absolute, TRUE, reinterpret_cast<ACL*>(longer->data()), FALSE));
    ASSERT_TRUE(SetKernelObjectSecurity(event.Get(), DACL_SECURITY_INFORMATION, &absolute));

    DWORD size = 0;
    GetKernelObjectSecurity(event.Get(), DACL_SECURITY_INFORMATION, nullptr, 0, &size);
    ProcMgrBytes descriptor(size);
    ASSERT_TRUE(
        GetKernelObjectSecurity(event.Get(), DACL_SECURITY_INFORMATION, descriptor.data(), size, &size));
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    ACL* acl = nullptr;
    ASSERT_TRUE(GetSecurityDescriptorDacl(descriptor.data(), &present, &acl, &defaulted));
    ASSERT_TRUE(present && acl);
    const auto* bytes = reinterpret_cast<const uint8_t*>(acl);
    EXPECT_EQ(ProcMgrBytes(bytes, bytes + acl->AclSize), *longer);
    std::span<const uint8_t> stored(bytes, acl->AclSize);
    ASSERT_EQ(ProcMgrAclFindLast(stored, PROCMGR_STATION_ACES[1], logon), 2u);
    ASSERT_TRUE(DeleteAce(acl, 2));
    EXPECT_FALSE(ProcMgrAclFindLast(stored, PROCMGR_STATION_ACES[1], logon));
    EXPECT_EQ(ProcMgrAclFindLast(stored, PROCMGR_STATION_ACES[0], logon), 1u);
}

// The system's own station and token, as far as the system has them.
TEST(ProcMgrAccessReal, GrantAndRevokeOnTheSystemsOwnStation) {
    DiagCapture_Take();
    HWINSTA before = GetProcessWindowStation();
    KernelHandle token;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, token.Receive()));
    {
        auto granted = ProcMgr_GrantInteractiveAccess(token.Get());
        EXPECT_TRUE(granted);
    }
    EXPECT_EQ(GetProcessWindowStation(), before);
    ProcMgr_RevokeInteractiveAccess(token.Get());
    EXPECT_EQ(GetProcessWindowStation(), before);
    EXPECT_THAT(DiagCapture_Take().warning, IsEmpty());
}

} // namespace
