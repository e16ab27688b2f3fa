#include "lockWorld.h"

#include "file/fileLockMember.h"

#include <algorithm>
#include <utility>

namespace {

constexpr int32_t FIRST_PROCESS_ID = 100;
constexpr uint64_t STUCK_MS = 10 * 60 * 1000; // of the world's own time

thread_local LockWorld* currentWorld;
thread_local int currentLocker;

} // namespace

LockWorld::LockWorld(uint32_t seed)
    : random_(seed), listing_(static_cast<Listing>(seed % 3)),
      stickiness_(static_cast<uint32_t>(random_() % 3 * 4)) {}

LockWorld::Locker& LockWorld::AddLocker(std::function<void()> work) {
    lockers_.push_back(std::make_unique<Locker>());
    Locker& locker = *lockers_.back();
    locker.index = static_cast<int>(lockers_.size()) - 1;
    locker.work = std::move(work);
    return locker;
}

LockWorld::Locker& LockWorld::Self() const {
    return *lockers_[static_cast<size_t>(currentLocker)];
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
        Leave(locker->index);
    }
    locker->ended = true;
    turnEnded_.release();
}

LockWorld::Locker* LockWorld::PickNext() {
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
    std::vector<Locker*> ready;
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
    Locker& self = Self();
    if (self.steps == self.stallAt) {
        self.wakeAtMs = std::max(self.wakeAtMs, nowMs_ + self.stallMs);
    }
    turnEnded_.release();
    self.turn.acquire();
    uint32_t step = self.steps++;
    if (step == self.dieAt || ending_) {
        throw Ended();
    }
    return step == self.failAt ? self.failWith : 0;
}

void LockWorld::Sleep(uint32_t milliseconds) {
    Self().wakeAtMs = nowMs_ + milliseconds;
    Step();
}

bool LockWorld::IsAlive(int32_t processId, bool checkTime, uint64_t creationTime) const {
    int32_t index = processId - FIRST_PROCESS_ID;
    if (index < 0 || index >= static_cast<int32_t>(lockers_.size())) {
        return false;
    }
    const Locker& locker = *lockers_[static_cast<size_t>(index)];
    return !locker.died && !locker.exited &&
           (!checkTime || creationTime == 1000000 + static_cast<uint64_t>(processId));
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
    std::map<int32_t, LockValues> members; // of living processes
    for (const std::string& name : Names(WORLD_DIRECTORY)) {
        if (name[0] != 'M') {
            continue;
        }
        auto member =
            FileLockParseMember(FileLockSplitMember(*files[WORLD_DIRECTORY + ("\\" + name)].content));
        int32_t processId = member ? FileLockParseSigned(member->executionID).value_or(0) : 0;
        if (IsAlive(processId, false, 0)) {
            member->memberName = name;
            members[processId] = *member;
        }
    }
    auto own = members.find(CurrentProcessId());
    if (own == members.end()) {
        return; // an implicit lock
    }
    for (const Holder& holder : holders_) {
        members.erase(FIRST_PROCESS_ID + holder.locker);
    }
    for (const auto& member : members) {
        if (member.first != own->first && FileLockMustWait(own->second, member.second)) {
            violations_.push_back((exclusive ? "an exclusive" : "a shared") +
                                  std::string(" lock overtakes ") + member.second.memberName);
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
    heldTogether_ = heldTogether_ || !holders_.empty();
    holders_.push_back({currentLocker, exclusive});
}

void LockWorld::Leave(int locker) {
    std::erase_if(holders_, [locker](const Holder& holder) { return holder.locker == locker; });
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
    Leave(currentLocker);
    *error = FileLock_Unlock(WORLD_FILE, std::exchange(owner.token, nullptr));
    return true;
}
