// Real processes that take one lock again and again while some of them are killed at random moments.
#include "fileTestWin32.h"

#include "file/fileLock.h"

#include <cstdlib>
#include <random>
#include <set>

namespace {

// From the environment, for longer runs by hand.
uint32_t Setting(const char* name, uint32_t usual) {
    const char* value = std::getenv(name);
    return value == nullptr ? usual : static_cast<uint32_t>(std::atoi(value));
}

class FileLockStress : public FileWin32Test {
protected:
    static constexpr uint32_t PROCESSES = 8;
    const uint32_t locksEach_ = Setting("RL_STRESS_LOCKS", 80);
    const uint32_t kills_ = Setting("RL_STRESS_KILLS", 6);
    const DWORD limitMs_ = 60000 + PROCESSES * locksEach_ * 500 + kills_ * 15000;

    std::unique_ptr<HelperProcess> Start() {
        return std::make_unique<HelperProcess>(L"stress \"" + WideName("counter") + L"\" \"" +
                                               WideName("journal") + L"\" " + std::to_wstring(locksEach_) +
                                               L" " + std::to_wstring(seed_++));
    }
    bool Running(const HelperProcess& process) {
        return WaitForSingleObject(process.Handle(), 0) == WAIT_TIMEOUT;
    }

    // Ends one of the processes and puts another in its place, until all kills are done. One that has done
    // its locks is replaced first, so that there is somebody to kill in the midst of it.
    void KillSome(std::vector<std::unique_ptr<HelperProcess>>* processes) {
        for (uint32_t kill = 0; kill < kills_; kill++) {
            Sleep(200 + random_() % 1500); // any moment will do
            std::unique_ptr<HelperProcess>& victim = (*processes)[random_() % processes->size()];
            if (Running(*victim)) {
                victim->Kill();
            } else {
                EXPECT_EQ(victim->Wait(), 0u);
            }
            victim = Start();
        }
    }

    std::vector<uint32_t> Journal() const {
        std::string text = ReadFileText("journal");
        std::vector<uint32_t> values(text.size() / sizeof(uint32_t));
        memcpy(values.data(), text.data(), values.size() * sizeof(uint32_t));
        return values;
    }

    uint32_t seed_ = Setting("RL_STRESS_SEED", 1);
    std::minstd_rand random_{seed_};
};

TEST_F(FileLockStress, NothingIsLostAndNobodyIsStuck) {
    WriteFileText("counter", std::string(sizeof(uint32_t), '\0'));
    WriteFileText("journal", "");
    DWORD start = GetTickCount();
    std::vector<std::unique_ptr<HelperProcess>> processes;
    for (size_t process = 0; process < PROCESSES; process++) {
        processes.push_back(Start());
    }
    KillSome(&processes);
    for (const auto& process : processes) {
        DWORD spent = GetTickCount() - start;
        EXPECT_EQ(process->Wait(spent < limitMs_ ? limitMs_ - spent : 0), 0u);
    }
    RecordProperty("milliseconds", static_cast<int>(GetTickCount() - start));

    // Every exclusive holder went on from what the last one left. One killed between counter and journal is
    // missing in the journal only.
    std::vector<uint32_t> journal = Journal();
    for (size_t entry = 1; entry < journal.size(); entry++) {
        EXPECT_GT(journal[entry], journal[entry - 1]) << "entry " << entry;
    }
    ASSERT_FALSE(journal.empty());
    EXPECT_LE(journal.back(), journal.size() + kills_);
    std::printf("%u processes, %u locks each, %u kills, %u raises, %lu ms\n",
                static_cast<unsigned>(PROCESSES), locksEach_, kills_, journal.back(), GetTickCount() - start);

    // What the dead left goes with the next one.
    int error = -1;
    FileLock_Token* token = FileLock_Lock(Name("counter").c_str(), false, 30000, &error);
    ASSERT_NE(token, nullptr) << error;
    EXPECT_EQ(FileLock_Unlock(Name("counter").c_str(), token), 0);
    std::vector<std::string> left;
    File_ListDirectory(Name("counter.lck").c_str(), &left);
    EXPECT_THAT(left, ::testing::IsEmpty());
    EXPECT_FALSE(File_Exists(Name("counter.lck").c_str()));
}

} // namespace
