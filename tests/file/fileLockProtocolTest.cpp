// The lock protocol, run by several lockers under an order of steps that a seed decides.
#include "lockWorld.h"
#include "logCapture.h"

#include "file/fileLockMember.h"
#include "file/fileRules.h"
#include "support/diagCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>

using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

namespace {

constexpr uint32_t FOREVER = FILELOCK_WAIT_FOREVER;

// How many orders of steps are tried: `usual`, or a multiple of it that the environment asks for.
uint32_t Schedules(uint32_t usual) {
    const char* factor = std::getenv("RL_LOCK_SCHEDULES");
    return usual * (factor == nullptr ? 1 : static_cast<uint32_t>(std::max(1, std::atoi(factor))));
}

// Each letter is one lock to be had and given back.
std::function<void()> Locks(LockWorld* world, std::string types) {
    return [world, types] {
        for (char type : types) {
            int error = -1;
            EXPECT_TRUE(world->LockOnce(type == 'X', FOREVER, &error)) << "error " << error;
            EXPECT_EQ(error, 0);
        }
    };
}

std::string MemberText(std::string line) {
    line.resize(FILELOCK_MEMBER_SIZE);
    return line;
}

// What one locker meets.
constexpr int HAD = -1; // the lock
struct Meeting {
    int error = HAD;
    uint64_t ms = 0;
    std::vector<std::string> left; // in the lock directory
    std::vector<std::string> log;
    std::vector<std::string> warnings;
};

Meeting MeetIn(LockWorld* world, bool exclusive, uint32_t maxWaitMs) {
    Meeting meeting;
    world->AddLocker([&] {
        int error = -1;
        meeting.error = world->LockOnce(exclusive, maxWaitMs, &error) && error == 0 ? HAD : error;
    });
    LogCapture_Take();
    DiagCapture_Take();
    world->RunAll();
    EXPECT_THAT(world->Violations(), IsEmpty());
    meeting.ms = world->NowMs();
    meeting.left = world->Names(WORLD_DIRECTORY);
    for (const LogLine& line : LogCapture_Take()) {
        EXPECT_EQ(line.level, 1u);
        meeting.log.push_back(line.text);
    }
    meeting.warnings = DiagCapture_Take().warning;
    return meeting;
}

// By name in the lock directory; a directory has no content.
using Files = std::map<std::string, std::optional<std::string>>;

Meeting Meet(const Files& files, uint32_t maxWaitMs = FILELOCK_TRY_ONCE, bool exclusive = true) {
    LockWorld world(1);
    world.AddDirectory(WORLD_DIRECTORY);
    for (const auto& [name, content] : files) {
        const std::string path = WORLD_DIRECTORY + ("\\" + name);
        content ? world.AddFile(path, *content) : world.AddDirectory(path);
    }
    return MeetIn(&world, exclusive, maxWaitMs);
}

// With a member of the given line.
Meeting MeetMember(const std::string& line, uint32_t maxWaitMs = FILELOCK_TRY_ONCE, bool exclusive = true) {
    return Meet({{"M60000.lck", MemberText(line)}}, maxWaitMs, exclusive);
}

void ExpectClean(const LockWorld& world, const std::string& what) {
    EXPECT_THAT(world.Violations(), IsEmpty()) << what;
    EXPECT_THAT(world.files, IsEmpty()) << what;
}

TEST(FileLockProtocol, OneLockerLeavesNothingBehind) {
    for (bool exclusive : {false, true}) {
        LockWorld world(0);
        Meeting meeting = MeetIn(&world, exclusive, FILELOCK_TRY_ONCE);
        EXPECT_EQ(meeting.error, HAD);
        EXPECT_THAT(world.files, IsEmpty());
        EXPECT_THAT(meeting.log, IsEmpty());
        EXPECT_THAT(meeting.warnings, IsEmpty());
    }
}

TEST(FileLockProtocol, ExcludesInEveryOrderOfSteps) {
    const std::vector<std::vector<std::string>> crowds = {
        {"XX", "XX"}, {"XS", "SX"}, {"XX", "XX", "XX"}, {"SX", "SS", "XS"}, {"S", "S", "X", "X"},
    };
    bool together = false;
    for (const auto& crowd : crowds) {
        for (uint32_t seed = 0; seed < Schedules(60); seed++) {
            LockWorld world(seed);
            for (const std::string& types : crowd) {
                world.AddLocker(Locks(&world, types));
            }
            world.RunAll();
            ExpectClean(world, crowd[0] + "... seed " + std::to_string(seed));
            together = together || world.HeldTogether();
        }
    }
    EXPECT_TRUE(together); // shared ones
}

// One locker dies at its n-th step, for every n that it gets to. Nobody else may suffer for longer than it
// takes to clear up, and the next ones find a clean place.
TEST(FileLockProtocol, ADeathAtAnyStepHarmsNobody) {
    DiagCapture_Take();
    for (const char* types : {"X", "S"}) {
        bool reached = true;
        for (uint32_t step = 0; reached; step++) {
            reached = false;
            for (uint32_t seed = 0; seed < Schedules(6); seed++) {
                SCOPED_TRACE("a " + std::string(types) + " dies at step " + std::to_string(step) + ", seed " +
                             std::to_string(seed));
                LockWorld world(seed);
                LockWorld::Locker& victim = world.AddLocker(Locks(&world, types));
                victim.dieAt = step;
                world.AddLocker(Locks(&world, "XX"));
                world.AddLocker(Locks(&world, "SX"));
                world.RunAll();
                reached = reached || victim.died;
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
                Contains(MatchesRegex("FILE: WaitForPossession discarding file 'C:.f.lck.M.*.lck'; invalid "
                                      "executionID.\n")));
}

// One operation of one locker fails. It may not get its lock then, but nobody gets in beside anybody; what it
// may leave in the way goes when its process does. (That something is gone when it is not would be no
// failure, but a lie.)
TEST(FileLockProtocol, AFailureAtAnyStepExcludesStill) {
    for (int injected : {FILE_EACCES, FILE_EIO}) {
        bool reached = true;
        for (uint32_t step = 0; reached; step++) {
            reached = false;
            for (uint32_t seed = 0; seed < Schedules(4); seed++) {
                SCOPED_TRACE("error " + std::to_string(injected) + " at step " + std::to_string(step) +
                             ", seed " + std::to_string(seed));
                LockWorld world(seed);
                LockWorld::Locker& locker = world.AddLocker([&world, injected] {
                    int error = -1;
                    if (!world.LockOnce(true, FOREVER, &error)) {
                        EXPECT_THAT(error, AnyOf(injected, FILE_EDOM));
                    }
                    world.ExitProcess();
                });
                locker.failAt = step;
                locker.failWith = injected;
                world.AddLocker(Locks(&world, "XX"));
                world.RunAll();
                reached = reached || locker.steps > step;
                world.AddLocker(Locks(&world, "X"));
                world.RunAll();
                EXPECT_THAT(world.Violations(), IsEmpty());
            }
        }
    }
}

// Numbers that are taken are drawn anew; one that is drawn again too soon costs a waiter its time at most.
TEST(FileLockProtocol, FewNumbersExcludeStill) {
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

// A locker is held up in the doorway for longer than others believe in it. It must not come back to life.
TEST(FileLockProtocol, WhoIsTakenForDeadWithdraws) {
    int withdrawn = 0;
    for (uint32_t step = 3; step < 12; step++) { // in the doorway, and somewhat beyond
        for (uint32_t seed = 0; seed < Schedules(8); seed++) {
            SCOPED_TRACE("step " + std::to_string(step) + ", seed " + std::to_string(seed));
            LockWorld world(seed);
            LockWorld::Locker& slow = world.AddLocker([&] {
                int error = -1;
                if (!world.LockOnce(true, FOREVER, &error)) {
                    EXPECT_THAT(error, AnyOf(FILE_EAGAIN, FILE_ENOENT, FILE_EDOM));
                    withdrawn++;
                }
            });
            slow.stallAt = step;
            slow.stallMs = 9000;
            world.AddLocker(Locks(&world, "XX"));
            world.AddLocker(Locks(&world, "XX"));
            world.RunAll();
            ExpectClean(world, "");
        }
    }
    EXPECT_GT(withdrawn, 0);
}

TEST(FileLockProtocol, TimesOutAfter2600MillisecondsAndNamesTheHolder) {
    struct {
        const char* member;
        const char* reason;
    } const cases[] = {
        {"uuid=other 7 1 X [ lc=1", "another machine (uuid=other)"},
        {"uuid=this 100 1 X 1000100", "a local process (100)"},
    };
    for (const auto& row : cases) {
        Meeting meeting = MeetMember(row.member, 2500);
        EXPECT_EQ(meeting.error, 0) << row.member;
        EXPECT_EQ(meeting.ms, 2600u) << row.member;
        EXPECT_THAT(meeting.left, ElementsAre("M60000.lck"));
        EXPECT_THAT(meeting.log,
                    ElementsAre("FILE: WaitForPossession timeout on 'C:\\f.lck\\M60000.lck' due to " +
                                std::string(row.reason) + "\n"));
    }
}

TEST(FileLockProtocol, ATryWaitsForNobodyAndSaysNothing) {
    Meeting meeting = MeetMember("uuid=other 7 1 S");
    EXPECT_EQ(meeting.error, 0);
    EXPECT_EQ(meeting.ms, 0u);
    EXPECT_THAT(meeting.log, IsEmpty());
    EXPECT_EQ(MeetMember("uuid=other 7 1 S", FILELOCK_TRY_ONCE, false).error, HAD); // shared beside shared
}

TEST(FileLockProtocol, AnAbandonedDoorwayIsClearedAfter41Pauses) {
    Meeting meeting = Meet({{"D60000.lck", std::nullopt},
                            {"E60000.lck", "half"},
                            {"M60000.lck", MemberText("uuid=this 100 1 X")}},
                           2500);
    EXPECT_EQ(meeting.error, HAD);
    EXPECT_GE(meeting.ms, 8400u); // 41 pauses until it is cleared, one until the directory is seen without
    EXPECT_LT(meeting.ms, 9000u);
    EXPECT_THAT(meeting.left, IsEmpty());
    EXPECT_THAT(meeting.log, ElementsAre("FILE: Scanner discarding D60000.lck data from 'C:\\f.lck'.\n"));
}

TEST(FileLockProtocol, ADoorwayThatCannotBeClearedIsNotWaitedForForEver) {
    Meeting meeting = Meet({{"D60000.lck", "a file"}}, FOREVER);
    EXPECT_EQ(meeting.error, FILE_ENOTDIR);
    EXPECT_EQ(meeting.ms, 8200u);
    EXPECT_THAT(meeting.warnings,
                ElementsAre(MatchesRegex("FILE: Scanner removal of 'C:.f.lck.D60000.lck' failed: .*\n")));
}

TEST(FileLockProtocol, StaleMembersAreDiscarded) {
    struct {
        const char* member;
        const char* reason;
    } const cases[] = {
        {"uuid=this 99 1 X 1000099", "invalid executionID."},            // a dead process
        {"old 99 1 X 1000099", "invalid executionID."},                  // the same in the old form
        {"uuid=this 100 1 X 7", "invalid executionID."},                 // a process id used again
        {"uuid=this 99 1 X [", "invalid executionID."},                  // dead, without payload
        {"uuid=this 100 1 X 1000100 lc=1", "lock file has been moved."}, // of ours, from elsewhere
    };
    for (const auto& row : cases) {
        Meeting meeting = MeetMember(row.member);
        EXPECT_EQ(meeting.error, HAD) << row.member;
        EXPECT_THAT(meeting.left, IsEmpty()) << row.member;
        EXPECT_THAT(meeting.log, ElementsAre("FILE: ScanDirectory discarding M60000.lck from C:\\f.lck': " +
                                             std::string(row.reason) + "\n"));
    }
}

TEST(FileLockProtocol, MembersThatMayLiveAreWaitedFor) {
    const std::string pid = "FILE: FileLockValidOwner pid conversion error on ";
    const std::string time = "FILE: FileLockValidOwner file creation time conversion error on ";
    struct {
        std::string member;
        std::string warning;
    } const cases[] = {
        {"uuid=other 99 1 X 7", ""}, // another machine's process cannot be judged
        {"uuid=this pid 1 X 7", pid + "pid\n"},
        {"uuid=this 99999999999999999 1 X", pid + "99999999999999999\n"},
        {"uuid=this 100 1 X", ""}, // alive, without a creation time to compare
        {"uuid=this 100 1 X time", time + "time\n"},
        {"uuid=this 100 1 X 1000100 lc=" + FileLockLocationChecksum(WORLD_DIRECTORY), ""},
    };
    for (const auto& row : cases) {
        Meeting meeting = MeetMember(row.member);
        EXPECT_EQ(meeting.error, 0) << row.member;
        EXPECT_THAT(meeting.left, ElementsAre("M60000.lck")) << row.member;
        EXPECT_EQ(meeting.warnings.empty(), row.warning.empty()) << row.member;
        EXPECT_THAT(meeting.warnings, ::testing::Each(row.warning)) << row.member;
    }
}

TEST(FileLockProtocol, DamagedAndHostileMembersAreRemoved) {
    const std::string cases[] = {
        "",
        std::string(513, 'x'),
        std::string(100000, 'x'),
        MemberText(""),
        MemberText("uuid=this 100 4294967296 X"),
        std::string(512, '\xFF'),
        MemberText("1 2 3 S 5 6=6 7=7 8=8 9=9 a=a b=b c=c d=d e=e f=f g=g h=h"),
        MemberText("%s%s%s %n %n X"),
    };
    for (const std::string& content : cases) {
        Meeting meeting = Meet({{"M60000.lck", content}});
        EXPECT_EQ(meeting.error, HAD) << content.substr(0, 50);
        EXPECT_THAT(meeting.left, IsEmpty()) << content.substr(0, 50);
        EXPECT_THAT(meeting.warnings, Contains("FILE: FileLockMemberValues removing problematic lock file "
                                               "'C:\\f.lck\\M60000.lck'\n"));
    }
}

TEST(FileLockProtocol, AProblematicMemberIsShownBeforeItGoes) {
    const std::string path = "C:\\f.lck\\M60000.lck";
    EXPECT_THAT(MeetMember("uuid=this  100 many").log,
                ElementsAre("FILE: FileLockMemberValues '" + path + "' contents are:\n",
                            "FILE: FileLockMemberValues " + path + " argv[0]: 'uuid=this'\n",
                            "FILE: FileLockMemberValues " + path + " argv[1]: '100'\n",
                            "FILE: FileLockMemberValues " + path + " argv[2]: 'many'\n"));
    EXPECT_THAT(Meet({{"M60000.lck", std::string(511, 'x')}}).warnings,
                ElementsAre("FILE: FileLockMemberValues file '" + path + "': size 511, required size 512\n",
                            "FILE: FileLockMemberValues removing problematic lock file '" + path + "'\n"));
}

TEST(FileLockProtocol, NamesThatDoNotBelongThereAreRemoved) {
    Meeting meeting = Meet({{"readme.txt", ""}, {"E60000.lck", "left behind"}});
    EXPECT_EQ(meeting.error, HAD);
    EXPECT_THAT(meeting.left, ElementsAre("E60000.lck")); // nobody can tell whose that is
    EXPECT_THAT(meeting.log, ElementsAre("FILE: ScanDirectory discarding readme.txt from C:\\f.lck'; invalid "
                                         "file name.\n"));
}

TEST(FileLockProtocol, AStrangerThatCannotBeRemovedEndsTheLock) {
    Meeting meeting = Meet({{"directory", std::nullopt}}, 2500);
    EXPECT_EQ(meeting.error, FILE_EACCES);
    EXPECT_THAT(meeting.left, ElementsAre("directory"));
    EXPECT_THAT(meeting.warnings, ElementsAre("FILE: RemoveLockingFile of 'C:\\f.lck\\directory' failed: "
                                              "Permission denied\n"));
}

TEST(FileLockProtocol, ThereIsNoTicketAboveTheLast) {
    Meeting meeting = MeetMember("uuid=other 7 4294967295 X", 2500);
    EXPECT_EQ(meeting.error, FILE_ERANGE);
    EXPECT_THAT(meeting.left, ElementsAre("M60000.lck"));
}

TEST(FileLockProtocol, WhatStandsWhereTheDirectoryShouldBe) {
    constexpr uint32_t OTHER = 2; // neither file nor directory
    struct {
        LockWorld::Node node;
        int error;
        const char* message;
    } const cases[] = {
        {{false, 0, nullptr}, FILE_EAGAIN, "exists; an old style lock file?\n"},
        {{true, OTHER, nullptr}, FILE_ENOTDIR, "exists and is not a directory.\n"}, // and cannot be deleted
        {{false, OTHER, nullptr}, HAD, nullptr},
    };
    for (const auto& row : cases) {
        LockWorld world(1);
        world.files[WORLD_DIRECTORY] = row.node;
        Meeting meeting = MeetIn(&world, true, 2500);
        EXPECT_EQ(meeting.error, row.error);
        EXPECT_EQ(world.files.contains(WORLD_DIRECTORY), row.error != HAD);
        if (row.message != nullptr) {
            EXPECT_THAT(row.error == FILE_EAGAIN ? meeting.log : meeting.warnings,
                        ElementsAre(std::string("FILE: CreateEntryDirectory: 'C:\\f.lck' ") + row.message));
        }
    }
}

TEST(FileLockProtocol, OnAReadOnlyMediumSharedLocksNeedNoFiles) {
    for (int refusal : {FILE_EACCES, FILE_EROFS}) {
        for (bool exclusive : {false, true}) {
            LockWorld world(1);
            DiagCapture_Take();
            LockWorld::Locker& locker = world.AddLocker([&] {
                int error = -1;
                EXPECT_EQ(world.LockOnce(exclusive, 2500, &error), !exclusive);
                EXPECT_EQ(error, exclusive ? refusal : 0);
            });
            locker.failAt = 1; // making the lock directory
            locker.failWith = refusal;
            world.RunAll();
            ExpectClean(world, "");
            std::vector<std::string> warnings = DiagCapture_Take().warning;
            ASSERT_EQ(warnings.size(), exclusive ? 1u : 2u);
            EXPECT_THAT(warnings[0], MatchesRegex("FILE: CreateEntryDirectory creation failure on .*\n"));
            EXPECT_EQ(warnings.back() == "FILE: FileLockIntrinsic implicit S lock succeeded on 'C:\\f'.\n",
                      !exclusive);
        }
    }
}

} // namespace
