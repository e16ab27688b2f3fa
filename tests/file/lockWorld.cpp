#include "lockWorld.h"

#include "file/file.h"
#include "file/fileLockEdge.h"
#include "file/fileLockMember.h"
#include "file/fileRules.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace {

constexpr int32_t FIRST_PROCESS_ID = 100;
constexpr uint64_t STUCK_MS = 10 * 60 * 1000; // of the world's own time

thread_local LockWorld* currentWorld;
thread_local int currentLocker;

uint64_t CreationTimeOf(int32_t processId) {
    return 1000000 + static_cast<uint64_t>(processId);
}

} // namespace

struct LockWorld::Locker {
    int index;
    Work work;
    std::thread thread;
    std::binary_semaphore turn{0};
    uint64_t wakeAtMs = 0;
    uint32_t steps = 0;
    uint32_t dieAt = UINT32_MAX;
    uint32_t failAt = UINT32_MAX;
    int failWith = 0;
    uint32_t stallAt = UINT32_MAX;
    uint32_t stallMs = 0;
    bool ended = false;  // its work
    bool exited = false; // its process, with all the others of a run
    bool died = false;
};

LockWorld::LockWorld(uint32_t seed, Listing listing)
    : random_(seed), listing_(listing), stickiness_(seed % 3 * 4) {}

LockWorld::~LockWorld() = default;

int LockWorld::AddLocker(Work work) {
    auto locker = std::make_unique<Locker>();
    locker->index = static_cast<int>(lockers_.size());
    locker->work = std::move(work);
    lockers_.push_back(std::move(locker));
    return lockers_.back()->index;
}

void LockWorld::DieAtStep(int locker, uint32_t step) {
    lockers_[static_cast<size_t>(locker)]->dieAt = step;
}

void LockWorld::FailAtStep(int locker, uint32_t step, int error) {
    lockers_[static_cast<size_t>(locker)]->failAt = step;
    lockers_[static_cast<size_t>(locker)]->failWith = error;
}

uint32_t LockWorld::StepsOf(int locker) const {
    return lockers_[static_cast<size_t>(locker)]->steps;
}

void LockWorld::StallAtStep(int locker, uint32_t step, uint32_t milliseconds) {
    lockers_[static_cast<size_t>(locker)]->stallAt = step;
    lockers_[static_cast<size_t>(locker)]->stallMs = milliseconds;
}

bool LockWorld::Died(int locker) const {
    return lockers_[static_cast<size_t>(locker)]->died;
}

LockWorld* LockWorld::Current() {
    return currentWorld;
}

int32_t LockWorld::CurrentProcessId() {
    return FIRST_PROCESS_ID + currentLocker;
}

void LockWorld::RunLocker(Locker* locker) {
    currentWorld = this;
    currentLocker = locker->index;
    locker->turn.acquire();
    try {
        locker->work();
    } catch (const Ended&) {
        locker->died = true;
        std::erase_if(holders_, [&](const Holder& holder) { return holder.locker == locker->index; });
    }
    locker->ended = true;
    turnEnded_.release();
}

LockWorld::Locker* LockWorld::PickNext() {
    std::vector<Locker*> ready;
    uint64_t earliestMs = UINT64_MAX;
    for (const auto& locker : lockers_) {
        if (!locker->ended) {
            earliestMs = std::min(earliestMs, locker->wakeAtMs);
        }
    }
    if (earliestMs == UINT64_MAX) {
        return nullptr;
    }
    nowMs_ = std::max(nowMs_, earliestMs);
    for (const auto& locker : lockers_) {
        if (!locker->ended && locker->wakeAtMs <= nowMs_) {
            ready.push_back(locker.get());
        }
    }
    if (std::ranges::find(ready, last_) != ready.end() && random_() % 10 < stickiness_) {
        return last_;
    }
    return ready[random_() % ready.size()];
}

void LockWorld::RunAll() {
    for (const auto& locker : lockers_) {
        if (!locker->ended) {
            locker->thread = std::thread(&LockWorld::RunLocker, this, locker.get());
        }
    }
    while ((last_ = PickNext()) != nullptr) {
        if (nowMs_ > STUCK_MS && !ending_) {
            violations_.push_back("somebody is stuck");
            ending_ = true;
        }
        last_->turn.release();
        turnEnded_.acquire();
    }
    for (const auto& locker : lockers_) {
        if (locker->thread.joinable()) {
            locker->thread.join();
        }
        locker->exited = true;
    }
}

int LockWorld::Step() {
    Locker* self = lockers_[static_cast<size_t>(currentLocker)].get();
    if (self->steps == self->stallAt) {
        self->wakeAtMs = std::max(self->wakeAtMs, nowMs_ + self->stallMs);
    }
    turnEnded_.release();
    self->turn.acquire();
    uint32_t step = self->steps++;
    if (step == self->dieAt || ending_) {
        throw Ended();
    }
    return step == self->failAt ? self->failWith : 0;
}

void LockWorld::Sleep(uint32_t milliseconds) {
    lockers_[static_cast<size_t>(currentLocker)]->wakeAtMs = nowMs_ + milliseconds;
    Step();
}

bool LockWorld::IsAlive(int32_t processId, bool checkTime, uint64_t creationTime) const {
    int32_t index = processId - FIRST_PROCESS_ID;
    if (index < 0 || index >= static_cast<int32_t>(lockers_.size())) {
        return false;
    }
    const Locker& locker = *lockers_[static_cast<size_t>(index)];
    return !locker.died && !locker.exited && (!checkTime || creationTime == CreationTimeOf(processId));
}

uint32_t LockWorld::DrawNumber() {
    return numberLimit_ == 0 ? numbersDrawn_++ % 65536 : static_cast<uint32_t>(random_() % numberLimit_);
}

std::vector<std::string> LockWorld::Names(const std::string& directory) const {
    std::vector<std::string> names;
    const std::string prefix = directory + "\\";
    for (auto file = files.lower_bound(prefix); file != files.end() && file->first.starts_with(prefix);
         ++file) {
        names.push_back(file->first.substr(prefix.size()));
    }
    return names;
}

// Whoever comes before us and conflicts must not be waiting still.
void LockWorld::CheckOvertaking(bool exclusive) {
    std::map<int32_t, LockValues> members;
    for (const std::string& name : Names(WORLD_DIRECTORY)) {
        if (name[0] != 'M') {
            continue;
        }
        auto member =
            FileLockParseMember(FileLockSplitMember(*files[WORLD_DIRECTORY + ("\\" + name)].content));
        std::optional<int32_t> processId =
            member ? FileLockParseSigned(member->executionID) : std::optional<int32_t>();
        if (processId && IsAlive(*processId, false, 0)) {
            member->memberName = name;
            members[*processId] = *member;
        }
    }
    auto own = members.find(CurrentProcessId());
    if (own == members.end()) {
        return; // an implicit lock
    }
    for (const auto& entry : members) {
        int32_t processId = entry.first;
        const LockValues& member = entry.second;
        bool holds = std::ranges::any_of(
            holders_, [&](const Holder& holder) { return holder.locker == processId - FIRST_PROCESS_ID; });
        if (processId != own->first && !holds && FileLockMustWait(own->second, member)) {
            violations_.push_back((exclusive ? "an exclusive" : "a shared") +
                                  std::string(" lock overtakes ") + member.memberName);
        }
    }
}

void LockWorld::Enter(bool exclusive) {
    for (const Holder& holder : holders_) {
        if (exclusive || holder.exclusive) {
            violations_.push_back("locker " + std::to_string(currentLocker) + " gets in beside locker " +
                                  std::to_string(holder.locker));
        }
    }
    CheckOvertaking(exclusive);
    holders_.push_back({currentLocker, exclusive});
}

void LockWorld::ExitProcess() {
    lockers_[static_cast<size_t>(currentLocker)]->exited = true;
}

void LockWorld::Leave() {
    std::erase_if(holders_, [](const Holder& holder) { return holder.locker == currentLocker; });
}

bool LockWorld::LockOnce(bool exclusive, uint32_t maxWaitMs, int* error) {
    FileLock_Token* token = FileLock_Lock(WORLD_FILE, !exclusive, maxWaitMs, error);
    if (token == nullptr) {
        return false;
    }
    // The token of a locker that dies is given back outside the world, where nothing comes of it.
    struct Owner {
        FileLock_Token* token;
        ~Owner() {
            if (token != nullptr) {
                currentWorld = nullptr;
                FileLock_Unlock(WORLD_FILE, token);
            }
        }
    } owner{token};
    Enter(exclusive);
    for (uint32_t stay = static_cast<uint32_t>(random_() % 4); stay > 0; stay--) {
        random_() % 2 == 0 ? Sleep(50) : static_cast<void>(Step());
    }
    Leave();
    *error = FileLock_Unlock(WORLD_FILE, std::exchange(owner.token, nullptr));
    return true;
}
