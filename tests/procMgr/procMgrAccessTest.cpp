// Granting and revoking the interactive station and desktop, with lists that the system itself made and
// checks.
#include "procMgr/procMgrAccessWin32.h"

#include "fakeStation.h"
#include "misc/win32Handle.h"
#include "string/str.h"
#include "support/diagCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <windows.h>

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class ProcMgrAccess : public testing::Test {
protected:
    ProcMgrAccess() { DiagCapture_Take(); }
    ~ProcMgrAccess() override {
        EXPECT_TRUE(station.onOwnStation);
        EXPECT_EQ(station.openStations, 0);
        EXPECT_EQ(station.openDesktops, 0);
    }

    void ExpectLists(const char* onStation, const char* onDesktop) const {
        EXPECT_EQ(FakeStation::ListOf(station.station), onStation);
        EXPECT_EQ(FakeStation::ListOf(station.desktop), onDesktop);
    }

    FakeStation station;
    const HANDLE token = station.token.Get();
};

TEST_F(ProcMgrAccess, GrantsInOrderAndStaysOnTheStation) {
    {
        auto granted = ProcMgr_GrantInteractiveAccess(token);
        ASSERT_TRUE(granted);
        EXPECT_FALSE(station.onOwnStation);
        EXPECT_EQ(station.openDesktops, 0);
    }
    ExpectLists("0:20 0:40 11:f0000000* 4:f037f* ", "0:10 0:f01ff* ");
    EXPECT_EQ(station.trace, "station! desktop! ");
    EXPECT_EQ(station.opened, "winsta0 0 60000;default 0 0 60081;");
    EXPECT_THAT(DiagCapture_Take().warning, IsEmpty());
}

TEST_F(ProcMgrAccess, RevokeUndoesOneGrant) {
    ProcMgr_GrantInteractiveAccess(token);
    ProcMgr_GrantInteractiveAccess(token);
    station.trace.clear();
    ProcMgr_RevokeInteractiveAccess(token);
    EXPECT_EQ(station.trace, "delete 2 desktop! delete 4 delete 4 station! ");
    ExpectLists("0:20 0:40 11:f0000000* 4:f037f* ", "0:10 0:f01ff* ");
    ProcMgr_RevokeInteractiveAccess(token);
    ExpectLists("0:20 0:40 ", "0:10 ");
    station.trace.clear();
    ProcMgr_RevokeInteractiveAccess(token); // nothing left of ours
    EXPECT_EQ(station.trace, "");
    EXPECT_THAT(DiagCapture_Take().warning, IsEmpty());
}

// An object without a list lets everybody in; a list of ours alone would end that.
TEST_F(ProcMgrAccess, ObjectsWithoutAListAreLeftAlone) {
    SECURITY_DESCRIPTOR none;
    InitializeSecurityDescriptor(&none, SECURITY_DESCRIPTOR_REVISION);
    SetSecurityDescriptorDacl(&none, TRUE, nullptr, FALSE);
    ASSERT_TRUE(SetKernelObjectSecurity(station.station.Get(), DACL_SECURITY_INFORMATION, &none));
    EXPECT_TRUE(ProcMgr_GrantInteractiveAccess(token));
    ExpectLists("", "0:10 0:f01ff* ");
    ProcMgr_RevokeInteractiveAccess(token);
    ExpectLists("", "0:10 ");
}

TEST_F(ProcMgrAccess, AListThatGrowsMeanwhileIsReadAgain) {
    station.listGrowsOnce = true;
    EXPECT_TRUE(ProcMgr_GrantInteractiveAccess(token));
    ExpectLists("0:1 0:2 0:3 0:4 0:5 0:6 0:7 0:8 11:f0000000* 4:f037f* ", "0:10 0:f01ff* ");
}

TEST_F(ProcMgrAccess, AFailedDeletionIsLoggedAndNothingWritten) {
    ProcMgr_GrantInteractiveAccess(token);
    station.trace.clear();
    station.failDeletes = true;
    ProcMgr_RevokeInteractiveAccess(token);
    EXPECT_EQ(station.trace, "delete 1 delete 2 delete 3 ");
    EXPECT_THAT(DiagCapture_Take().warning,
                ElementsAre("Unable to delete ace at index 1: 87\n", "Unable to delete ace at index 2: 87\n",
                            "Unable to delete ace at index 3: 87\n"));
}

// Each call of a grant and of a revoke fails once. Only the way back to the process's own station, which
// comes last, can leave it where it is.
TEST(ProcMgrAccessSweep, EveryFailureIsLoggedAndLeavesNothingOpen) {
    for (bool revoke : {false, true}) {
        bool reached = true;
        for (int call = 1; reached; call++) {
            SCOPED_TRACE(Str_Format("%s, call %d", revoke ? "revoke" : "grant", call));
            FakeStation station;
            HANDLE token = station.token.Get();
            if (revoke) {
                ProcMgr_GrantInteractiveAccess(token);
            }
            DiagCapture_Take();
            station.callCount = 0;
            station.failCall = call;
            bool granted = false;
            if (revoke) {
                ProcMgr_RevokeInteractiveAccess(token);
            } else {
                granted = ProcMgr_GrantInteractiveAccess(token).has_value();
            }
            reached = station.callCount >= call;
            const bool wentBack = station.onOwnStation;
            EXPECT_TRUE(wentBack || station.callCount == call);
            EXPECT_EQ(station.openStations, wentBack ? 0 : 1);
            EXPECT_EQ(station.openDesktops, 0);
            EXPECT_TRUE(revoke || granted == (!reached || !wentBack));
            if (reached) {
                EXPECT_THAT(DiagCapture_Take().warning, Contains(HasSubstr("failed 5")));
            } else {
                EXPECT_GT(call, 10);
            }
        }
    }
}

// The system's own station, as far as the system has one.
TEST(ProcMgrAccessReal, GrantAndRevokeOnTheSystemsOwnStation) {
    DiagCapture_Take();
    const HWINSTA before = GetProcessWindowStation();
    KernelHandle token;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, token.Receive()));
    EXPECT_TRUE(ProcMgr_GrantInteractiveAccess(token.Get()));
    EXPECT_EQ(GetProcessWindowStation(), before);
    ProcMgr_RevokeInteractiveAccess(token.Get());
    EXPECT_EQ(GetProcessWindowStation(), before);
    EXPECT_THAT(DiagCapture_Take().warning, IsEmpty());
}

} // namespace
