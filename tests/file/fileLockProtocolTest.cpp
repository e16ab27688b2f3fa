// The lock protocol, run by several lockers under an order of steps that a seed decides.
#include "lockWorld.h"
#include "logCapture.h"

#include "file/fileLockMember.h"
#include "file/fileRules.h"
#include "support/diagCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr uint32_t FOREVER = FILELOCK_WAIT_FOREVER;

// How many orders of steps are tried: `usual`, or a multiple of it that the environment asks for.
uint32_t Schedules(uint32_t usual) {
    const char* factor = std::getenv("RL_LOCK_SCHEDULES");
    return usual * (factor == nullptr ? 1 : static_cast<uint32_t>(std::max(1, std::atoi(factor))));
}

// Each letter is one lock to be had and given back.
LockWorld::Work Locks(LockWorld* world, std::string types, uint32_t maxWaitMs = FOREVER) {
    return [world, types, maxWaitMs] {
        for (char type : types) {
            int error = -1;
            EXPECT_TRUE(world->LockOnce(type == 'X', maxWaitMs, &error)) << "error " << error;
            EXPECT_EQ(error, 0);
        }
    };
}

std::string MemberText(const std::string& line) {
    std::string text = line;
    text.resize(FILELOCK_MEMBER_SIZE);
    return text;
}

class FileLockProtocol : public ::testing::Test {
protected:
    FileLockProtocol() {
        LogCapture_Take();
        DiagCapture_Take();
    }
    static void ExpectClean(const LockWorld& world, const std::string& what) {
        EXPECT_THAT(world.Violations(), IsEmpty()) << what;
        EXPECT_THAT(world.files, IsEmpty()) << what;
    }
};

TEST_F(FileLockProtocol, OneLockerLeavesNothingBehind) {
    LockWorld world(0);
    world.AddLocker(Locks(&world, "XSXS"));
    world.RunAll();
    ExpectClean(world, "alone");
    EXPECT_LT(world.NowMs(), 1000u); // nothing was waited for
    EXPECT_THAT(LogCapture_Take(), IsEmpty());
    EXPECT_THAT(DiagCapture_Take().warning, IsEmpty());
}

TEST_F(FileLockProtocol, ExcludesInEveryOrderOfSteps) {
    const std::vector<std::vector<std::string>> crowds = {
        {"XX", "XX"}, {"XS", "SX"}, {"XX", "XX", "XX"}, {"SX", "SS", "XS"}, {"S", "S", "X", "X"},
    };
    for (const auto& crowd : crowds) {
        for (uint32_t seed = 0; seed < Schedules(60); seed++) {
            LockWorld world(seed, seed % 2 == 0 ? Listing::Snapshot : Listing::Ordered);
            for (const std::string& types : crowd) {
                world.AddLocker(Locks(&world, types));
            }
            world.RunAll();
            ExpectClean(world, crowd[0] + "... seed " + std::to_string(seed));
        }
    }
}

TEST_F(FileLockProtocol, SharedLocksAreHeldTogether) {
    bool together = false;
    for (uint32_t seed = 0; seed < 20; seed++) {
        LockWorld world(seed);
        int inside = 0;
        for (int locker = 0; locker < 2; locker++) {
            world.AddLocker([&] {
                int error = 0;
                FileLock_Token* token = FileLock_Lock(WORLD_FILE, true, FOREVER, &error);
                ASSERT_NE(token, nullptr);
                together = ++inside == 2 || together;
                world.Sleep(1000);
                inside--;
                EXPECT_EQ(FileLock_Unlock(WORLD_FILE, token), 0);
            });
        }
        world.RunAll();
        ExpectClean(world, "shared");
    }
    EXPECT_TRUE(together);
}

// One locker dies at its n-th step, for every n that it gets to. Nobody else may suffer for longer than it
// takes to clear up, and the next ones find a clean place.
TEST_F(FileLockProtocol, ADeathAtAnyStepHarmsNobody) {
    for (const char* victim : {"X", "S"}) {
        bool reached = true;
        for (uint32_t step = 0; reached; step++) {
            reached = false;
            for (uint32_t seed = 0; seed < Schedules(6); seed++) {
                SCOPED_TRACE("a " + std::string(victim) + " dies at step " + std::to_string(step) +
                             ", seed " + std::to_string(seed));
                LockWorld world(seed, seed % 2 == 0 ? Listing::Snapshot : Listing::Ordered);
                int victimIndex = world.AddLocker(Locks(&world, victim));
                world.DieAtStep(victimIndex, step);
                world.AddLocker(Locks(&world, "XX"));
                world.AddLocker(Locks(&world, "SX"));
                world.RunAll();
                reached = reached || world.Died(victimIndex);
                EXPECT_THAT(world.Violations(), IsEmpty());
                EXPECT_LT(world.NowMs(), 20000u);
                world.AddLocker(Locks(&world, "X"));
                world.RunAll();
                ExpectClean(world, "after the last one");
            }
        }
    }
    // Some died while others were already waiting for them.
    EXPECT_THAT(DiagCapture_Take().warning,
                Contains(::testing::MatchesRegex("FILE: WaitForPossession discarding file "
                                                 "'C:.f.lck.M.*.lck'; invalid executionID.\n")));
}

// One operation of one locker fails. It may not get its lock then, but nobody gets in beside anybody; what it
// may leave in the way goes when its process does. (That something is gone when it is not would be no
// failure, but a lie.)
TEST_F(FileLockProtocol, AFailureAtAnyStepExcludesStill) {
    for (int injected : {FILE_EACCES, FILE_EIO}) {
        bool reached = true;
        for (uint32_t step = 0; reached; step++) {
            reached = false;
            for (uint32_t seed = 0; seed < Schedules(4); seed++) {
                SCOPED_TRACE("error " + std::to_string(injected) + " at step " + std::to_string(step) +
                             ", seed " + std::to_string(seed));
                LockWorld world(seed);
                int index = world.AddLocker([&world, injected] {
                    int error = -1;
                    if (!world.LockOnce(true, FOREVER, &error)) {
                        EXPECT_THAT(error, AnyOf(injected, FILE_EDOM));
                    }
                    world.ExitProcess();
                });
                world.FailAtStep(index, step, injected);
                world.AddLocker(Locks(&world, "XX"));
                world.RunAll();
                reached = reached || world.StepsOf(index) > step;
                EXPECT_THAT(world.Violations(), IsEmpty());
                world.AddLocker(Locks(&world, "X"));
                world.RunAll();
                EXPECT_THAT(world.Violations(), IsEmpty());
            }
        }
    }
}

// Numbers that are taken are drawn anew; one that is drawn again too soon costs a waiter its time at most.
TEST_F(FileLockProtocol, FewNumbersExcludeStill) {
    for (uint32_t seed = 0; seed < Schedules(60); seed++) {
        LockWorld world(seed);
        world.LimitNumbers(4);
        for (int locker = 0; locker < 3; locker++) {
            world.AddLocker([&world] {
                for (int left = 3; left > 0;) {
                    int error = -1;
                    left -= world.LockOnce(true, 2500, &error) ? 1 : 0;
                    EXPECT_EQ(error, 0);
                }
            });
        }
        world.RunAll();
        ExpectClean(world, "seed " + std::to_string(seed));
    }
}

TEST_F(FileLockProtocol, TimesOutAfter2600Milliseconds) {
    LockWorld world(1);
    world.AddDirectory(WORLD_DIRECTORY);
    world.AddFile(WORLD_DIRECTORY + std::string("\\M60000.lck"), MemberText("uuid=other 7 1 X [ lc=1"));
    world.AddLocker([&world] {
        int error = -1;
        EXPECT_FALSE(world.LockOnce(true, 2500, &error));
        EXPECT_EQ(error, 0);
    });
    world.RunAll();
    EXPECT_EQ(world.NowMs(), 2600u);
    EXPECT_THAT(world.Names(WORLD_DIRECTORY), ElementsAre("M60000.lck"));
    EXPECT_THAT(LogCapture_Take(), ElementsAre(LogLine{1, "FILE: WaitForPossession timeout on "
                                                          "'C:\\f.lck\\M60000.lck' due to another machine "
                                                          "(uuid=other)\n"}));
}

TEST_F(FileLockProtocol, ATryWaitsForNobodyAndSaysNothing) {
    LockWorld world(1);
    world.AddDirectory(WORLD_DIRECTORY);
    world.AddFile(WORLD_DIRECTORY + std::string("\\M60000.lck"), MemberText("uuid=other 7 1 S"));
    world.AddLocker([&world] {
        int error = -1;
        EXPECT_FALSE(world.LockOnce(true, FILELOCK_TRY_ONCE, &error));
        EXPECT_EQ(error, 0);
        EXPECT_TRUE(world.LockOnce(false, FILELOCK_TRY_ONCE, &error)); // shared beside shared
    });
    world.RunAll();
    EXPECT_LT(world.NowMs(), 300u);
    EXPECT_THAT(LogCapture_Take(), IsEmpty());
}

TEST_F(FileLockProtocol, AnAbandonedDoorwayIsClearedAfter41Pauses) {
    LockWorld world(1);
    world.AddDirectory(WORLD_DIRECTORY);
    world.AddDirectory(WORLD_DIRECTORY + std::string("\\D60000.lck"));
    world.AddFile(WORLD_DIRECTORY + std::string("\\E60000.lck"), "half");
    world.AddFile(WORLD_DIRECTORY + std::string("\\M60000.lck"), MemberText("uuid=this 100 1 X"));
    world.AddLocker([&world] {
        int error = -1;
        EXPECT_TRUE(world.LockOnce(true, 2500, &error));
        EXPECT_GE(world.NowMs(),
                  8400u); // 41 pauses until it is cleared, one until the directory is seen without
    });
    world.RunAll();
    EXPECT_LT(world.NowMs(), 9000u);
    ExpectClean(world, "");
    EXPECT_THAT(LogCapture_Take(),
                ElementsAre(LogLine{1, "FILE: Scanner discarding D60000.lck data from 'C:\\f.lck'.\n"}));
}

struct StaleCase {
    const char* what;
    std::string content;
    const char* log; // of the line that tells, or null
};

TEST_F(FileLockProtocol, StaleMembersAreDiscarded) {
    const std::string checksum = FileLockLocationChecksum(WORLD_DIRECTORY);
    const StaleCase cases[] = {
        {"a dead process", MemberText("uuid=this 99 1 X 1000099"), "invalid executionID."},
        {"a dead process in the old form", MemberText("old 99 1 X 1000099"), "invalid executionID."},
        {"a process id used again", MemberText("uuid=this 100 1 X 7"), "invalid executionID."},
        {"no payload, dead", MemberText("uuid=this 99 1 X ["), "invalid executionID."},
        {"of ours, moved here", MemberText("uuid=this 100 1 X 1000100 lc=1"), "lock file has been moved."},
    };
    for (const StaleCase& row : cases) {
        LockWorld world(1);
        world.AddDirectory(WORLD_DIRECTORY);
        world.AddFile(WORLD_DIRECTORY + std::string("\\M60000.lck"), row.content);
        world.AddLocker(Locks(&world, "X", FILELOCK_TRY_ONCE));
        world.RunAll();
        ExpectClean(world, row.what);
        EXPECT_THAT(LogCapture_Take(),
                    ElementsAre(LogLine{1, "FILE: ScanDirectory discarding M60000.lck from C:\\f.lck': " +
                                               std::string(row.log) + "\n"}))
            << row.what;
    }
}

TEST_F(FileLockProtocol, MembersThatMayLiveAreWaitedFor) {
    const std::string cases[] = {
        "uuid=other 99 1 X 7",             // another machine's process cannot be judged
        "uuid=this pid 1 X 7",             // a process id that cannot be read
        "uuid=this 99999999999999999 1 X", // nor this
        "uuid=this 100 1 X",               // alive, without a creation time to compare
        "uuid=this 100 1 X time",          // nor with this
        "uuid=this 100 1 X 1000100",       // alive
        "uuid=this 100 1 X 1000100 lc=" + FileLockLocationChecksum(WORLD_DIRECTORY),
    };
    for (const std::string& content : cases) {
        LockWorld world(1);
        world.AddDirectory(WORLD_DIRECTORY);
        world.AddFile(WORLD_DIRECTORY + std::string("\\M60000.lck"), MemberText(content));
        world.AddLocker([&world] {
            int error = -1;
            EXPECT_FALSE(world.LockOnce(true, FILELOCK_TRY_ONCE, &error));
            EXPECT_EQ(error, 0);
        });
        world.RunAll();
        EXPECT_THAT(world.Names(WORLD_DIRECTORY), ElementsAre("M60000.lck")) << content;
    }
}

TEST_F(FileLockProtocol, DamagedAndHostileMembersAreRemoved) {
    const std::string cases[] = {
        "",
        std::string(511, 'x'),
        std::string(513, 'x'),
        std::string(100000, 'x'),
        MemberText(""),
        MemberText("uuid=this 100 1"),
        MemberText("uuid=this 100 4294967296 X"),
        std::string(512, '\xFF'),
        MemberText("1 2 3 S 5 6=6 7=7 8=8 9=9 a=a b=b c=c d=d e=e f=f g=g h=h"),
        MemberText("%s%s%s %n %n X"),
    };
    for (const std::string& content : cases) {
        LockWorld world(1);
        world.AddDirectory(WORLD_DIRECTORY);
        world.AddFile(WORLD_DIRECTORY + std::string("\\M60000.lck"), content);
        world.AddLocker(Locks(&world, "X", FILELOCK_TRY_ONCE));
        world.RunAll();
        ExpectClean(world, content.substr(0, 50));
        EXPECT_THAT(DiagCapture_Take().warning,
                    Contains("FILE: FileLockMemberValues removing problematic lock "
                             "file 'C:\\f.lck\\M60000.lck'\n"));
    }
}

TEST_F(FileLockProtocol, AProblematicMemberIsShownBeforeItGoes) {
    LockWorld world(1);
    world.AddDirectory(WORLD_DIRECTORY);
    world.AddFile(WORLD_DIRECTORY + std::string("\\M60000.lck"), MemberText("uuid=this  100 many"));
    world.AddLocker(Locks(&world, "S", FILELOCK_TRY_ONCE));
    world.RunAll();
    const std::string path = "C:\\f.lck\\M60000.lck";
    EXPECT_THAT(LogCapture_Take(),
                ElementsAre(LogLine{1, "FILE: FileLockMemberValues '" + path + "' contents are:\n"},
                            LogLine{1, "FILE: FileLockMemberValues " + path + " argv[0]: 'uuid=this'\n"},
                            LogLine{1, "FILE: FileLockMemberValues " + path + " argv[1]: '100'\n"},
                            LogLine{1, "FILE: FileLockMemberValues " + path + " argv[2]: 'many'\n"}));
    world.AddDirectory(WORLD_DIRECTORY);
    world.AddFile(path, std::string(511, 'x'));
    world.AddLocker(Locks(&world, "S", FILELOCK_TRY_ONCE));
    DiagCapture_Take();
    world.RunAll();
    EXPECT_THAT(DiagCapture_Take().warning,
                ElementsAre("FILE: FileLockMemberValues file '" + path + "': size 511, required size 512\n",
                            "FILE: FileLockMemberValues removing problematic lock file '" + path + "'\n"));
}

TEST_F(FileLockProtocol, NamesThatDoNotBelongThereAreRemoved) {
    LockWorld world(1);
    world.AddDirectory(WORLD_DIRECTORY);
    world.AddFile(WORLD_DIRECTORY + std::string("\\readme.txt"), "");
    world.AddFile(WORLD_DIRECTORY + std::string("\\E60000.lck"), "left behind");
    world.AddLocker(Locks(&world, "X"));
    world.RunAll();
    EXPECT_THAT(world.Names(WORLD_DIRECTORY), ElementsAre("E60000.lck")); // nobody can tell whose that is
    EXPECT_THAT(LogCapture_Take(),
                ElementsAre(LogLine{
                    1, "FILE: ScanDirectory discarding readme.txt from C:\\f.lck'; invalid file name.\n"}));
}

TEST_F(FileLockProtocol, ThereIsNoTicketAboveTheLast) {
    LockWorld world(1);
    world.AddDirectory(WORLD_DIRECTORY);
    world.AddFile(WORLD_DIRECTORY + std::string("\\M60000.lck"), MemberText("uuid=other 7 4294967295 X"));
    world.AddLocker([&world] {
        int error = -1;
        EXPECT_FALSE(world.LockOnce(true, 2500, &error));
        EXPECT_EQ(error, FILE_ERANGE);
    });
    world.RunAll();
    EXPECT_THAT(world.Names(WORLD_DIRECTORY), ElementsAre("M60000.lck"));
}

// A locker is held up in the doorway for longer than others believe in it. It must not come back to life.
TEST_F(FileLockProtocol, WhoIsTakenForDeadWithdraws) {
    constexpr uint32_t LONG_MS = 9000;
    int withdrawn = 0;
    for (uint32_t step = 3; step < 12; step++) { // in the doorway, and somewhat beyond
        for (uint32_t seed = 0; seed < Schedules(8); seed++) {
            SCOPED_TRACE("step " + std::to_string(step) + ", seed " + std::to_string(seed));
            LockWorld world(seed);
            int slow = world.AddLocker([&] {
                int error = -1;
                if (!world.LockOnce(true, FOREVER, &error)) {
                    EXPECT_THAT(error, AnyOf(FILE_EAGAIN, FILE_ENOENT, FILE_EDOM));
                    withdrawn++;
                }
            });
            world.StallAtStep(slow, step, LONG_MS);
            world.AddLocker(Locks(&world, "XX"));
            world.AddLocker(Locks(&world, "XX"));
            world.RunAll();
            ExpectClean(world, "");
        }
    }
    EXPECT_GT(withdrawn, 0);
}

TEST_F(FileLockProtocol, AnOldStyleLockFileIsRespected) {
    LockWorld world(1);
    world.AddFile(WORLD_DIRECTORY, "");
    world.AddLocker([&world] {
        int error = -1;
        EXPECT_FALSE(world.LockOnce(false, 2500, &error));
        EXPECT_EQ(error, FILE_EAGAIN);
    });
    world.RunAll();
    EXPECT_THAT(
        LogCapture_Take(),
        ElementsAre(LogLine{1, "FILE: CreateEntryDirectory: 'C:\\f.lck' exists; an old style lock file?\n"}));
    EXPECT_TRUE(world.files.contains(WORLD_DIRECTORY));
}

TEST_F(FileLockProtocol, WhatIsNeitherFileNorDirectoryMakesRoom) {
    LockWorld world(1);
    world.files[WORLD_DIRECTORY] = {false, 2, nullptr};
    world.AddLocker(Locks(&world, "X"));
    world.RunAll();
    ExpectClean(world, "");
    // ... or cannot be moved away.
    world.files[WORLD_DIRECTORY] = {true, 2, nullptr};
    world.AddLocker([&world] {
        int error = -1;
        EXPECT_FALSE(world.LockOnce(true, 2500, &error));
        EXPECT_EQ(error, FILE_ENOTDIR);
    });
    world.RunAll();
    EXPECT_THAT(DiagCapture_Take().warning,
                ElementsAre("FILE: CreateEntryDirectory: 'C:\\f.lck' exists and is not a directory.\n"));
}

TEST_F(FileLockProtocol, OnAReadOnlyMediumSharedLocksNeedNoFiles) {
    for (int refusal : {FILE_EACCES, FILE_EROFS}) {
        LockWorld world(1);
        int shared = world.AddLocker([&world] {
            int error = -1;
            EXPECT_TRUE(world.LockOnce(false, 2500, &error));
            EXPECT_EQ(error, 0);
        });
        world.FailAtStep(shared, 1, refusal); // making the lock directory
        world.RunAll();
        ExpectClean(world, "");
        std::vector<std::string> warnings = DiagCapture_Take().warning;
        ASSERT_EQ(warnings.size(), 2u);
        EXPECT_THAT(warnings[0], ::testing::StartsWith("FILE: CreateEntryDirectory creation failure on "));
        EXPECT_EQ(warnings[1], "FILE: FileLockIntrinsic implicit S lock succeeded on 'C:\\f'.\n");
        int exclusive = world.AddLocker([&world, refusal] {
            int error = -1;
            EXPECT_FALSE(world.LockOnce(true, 2500, &error));
            EXPECT_EQ(error, refusal);
        });
        world.FailAtStep(exclusive, 1, refusal);
        world.RunAll();
        DiagCapture_Take();
    }
}

} // namespace
