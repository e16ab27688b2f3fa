// A world for the lock protocol in which everything is under control: a file system in memory, time that
// passes only when everybody sleeps, and lockers of which exactly one makes one step at a time, in an order
// that a seed decides. The protocol runs unchanged; this stands in for the file operations and the system
// behind it.
#pragma once

#include "file/fileLock.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

inline constexpr char WORLD_FILE[] = "C:\\f";
inline constexpr char WORLD_DIRECTORY[] = "C:\\f.lck";

// How a directory is listed.
enum class Listing {
    Snapshot,  // all names of one moment
    Reversed,  // name after name while the directory changes, members before doorways
    Vanishing, // the names of one moment, less those that are gone when each is looked at
};

class LockWorld {
public:
    // The listing is one of the three by the seed, too.
    explicit LockWorld(uint32_t seed);
    LockWorld(const LockWorld&) = delete;
    LockWorld& operator=(const LockWorld&) = delete;

    static constexpr uint32_t NEVER = UINT32_MAX;

    struct Locker {
        int index;
        std::function<void()> work; // what it does, in a process of its own
        uint32_t dieAt = NEVER;     // the step at which it ends, as a process does
        uint32_t failAt = NEVER;    // the step at which it meets an errno-style code
        int failWith = 0;
        uint32_t stallAt = NEVER; // the step before which it is held up
        uint32_t stallMs = 0;
        uint32_t steps = 0; // made so far
        bool died = false;

        bool ended = false;  // its work
        bool exited = false; // its process, with all the others of a run
        uint64_t wakeAtMs = 0;
        std::binary_semaphore turn{0};
        std::thread thread;
    };
    Locker& AddLocker(std::function<void()> work);
    void RunAll(); // until everybody has ended or died

    // For the lockers' work: takes and gives back the lock, with a stay of some steps in between, and checks
    // that the others keep out meanwhile. False when the lock could not be had; `error` then tells why.
    bool LockOnce(bool exclusive, uint32_t maxWaitMs, int* error);

    // For the work: its process is gone from now on. Otherwise the processes of a run live until it ends.
    void ExitProcess() { Self().exited = true; }

    // Numbers are drawn from 0 to one below this; the default gives every draw a number of its own.
    void LimitNumbers(uint32_t count) { numberLimit_ = count; }

    uint64_t NowMs() const { return nowMs_; }
    const std::vector<std::string>& Violations() const { return violations_; }
    bool HeldTogether() const { return heldTogether_; } // two shared locks, at some time

    // The file system. Names are full; a file in a directory that is not there cannot be made.
    struct Node {
        bool isDirectory = false;
        uint32_t type = 0; // what attributes report for something that is neither file nor directory
        std::shared_ptr<std::string> content;
    };
    std::map<std::string, Node> files;
    void AddDirectory(const std::string& name) { files[name] = {true, 1, nullptr}; }
    void AddFile(const std::string& name, std::string content) {
        files[name] = {false, 0, std::make_shared<std::string>(std::move(content))};
    }
    std::vector<std::string> Names(const std::string& directory) const;

    // Used by the stand-ins for the system: waits for the next turn, and gives the error to meet there, or 0.
    int Step();
    void Sleep(uint32_t milliseconds);
    bool IsAlive(int32_t processId, bool checkTime, uint64_t creationTime) const;
    uint32_t DrawNumber();
    Listing HowToList() const { return listing_; }

    static LockWorld* Current(); // the world whose locker is running on this thread
    static int32_t CurrentProcessId();

private:
    struct Holder {
        int locker;
        bool exclusive;
    };
    struct Ended {}; // thrown to end a locker where it stands

    Locker& Self() const;
    void RunLocker(Locker* locker);
    Locker* PickNext();
    void Enter(bool exclusive);
    void Leave(int locker);
    void CheckOvertaking(bool exclusive);

    std::mt19937 random_;
    Listing listing_;
    uint32_t stickiness_; // how many turns of ten go to the locker that had the last one
    std::vector<std::unique_ptr<Locker>> lockers_;
    Locker* last_ = nullptr;
    std::binary_semaphore turnEnded_{0};
    uint64_t nowMs_ = 0;
    bool ending_ = false;
    uint32_t numberLimit_ = 0;
    uint32_t numbersDrawn_ = 0;
    std::vector<Holder> holders_;
    bool heldTogether_ = false;
    std::vector<std::string> violations_;
};
