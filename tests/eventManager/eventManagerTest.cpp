#include "eventManager/eventManager.h"

#include "support/diagCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vector>

namespace {

uint32_t testMilliseconds;

struct Recorder {
    int id;
    std::vector<int>* log;
    bool result = true;
};

bool Record(void* clientData) {
    auto* recorder = static_cast<Recorder*>(clientData);
    recorder->log->push_back(recorder->id);
    return recorder->result;
}

class EventManagerTest : public testing::Test {
protected:
    EventManagerTest() : saved_(eventManagerTickSource) {
        // Onwards from whatever the clock saw before, so that no test begins with a wrap.
        static uint32_t start = 1000;
        start += 1000000;
        testMilliseconds = start;
        eventManagerTickSource = [] { return testMilliseconds; };
        manager_ = EventManager_Create();
    }
    ~EventManagerTest() override {
        EventManager_Destroy(manager_);
        eventManagerTickSource = saved_;
    }

    Event* Add(uint32_t delay, Recorder* recorder) {
        return EventManager_Add(manager_, delay, Record, recorder);
    }
    // Runs every due event; gives the last result.
    int32_t RunDue() {
        sleep_ = 0;
        int32_t result;
        while ((result = EventManager_RunNext(manager_, &sleep_)) == 1 && sleep_ == 0) {
        }
        return result;
    }

    uint32_t (*saved_)();
    EventManager* manager_;
    uint64_t sleep_ = 0;
    std::vector<int> log_;
    Recorder first_{1, &log_};
    Recorder second_{2, &log_};
    Recorder third_{3, &log_};
};

TEST_F(EventManagerTest, EventsRunByDueTimeAndThenInTheOrderAdded) {
    Add(20, &third_);
    Add(10, &first_);
    Add(10, &second_);
    EXPECT_EQ(EventManager_RunNext(manager_, &sleep_), 1);
    EXPECT_EQ(sleep_, 100000u) << "10 ticks in microseconds";
    testMilliseconds += 100;
    EXPECT_EQ(RunDue(), 1);
    EXPECT_THAT(log_, testing::ElementsAre(1, 2));
    EXPECT_EQ(sleep_, 100000u);
    testMilliseconds += 100; // exactly due
    EXPECT_EQ(RunDue(), 0);
    EXPECT_THAT(log_, testing::ElementsAre(1, 2, 3));
}

TEST_F(EventManagerTest, ANewEventWithoutDelayRunsBehindAnOverdueOne) {
    Add(1, &first_);
    testMilliseconds += 500;
    Add(0, &second_);
    EXPECT_EQ(EventManager_RunNext(manager_, &sleep_), 1);
    EXPECT_EQ(sleep_, 0u);
    EXPECT_THAT(log_, testing::ElementsAre(1)) << "one callback a call";
    RunDue();
    EXPECT_THAT(log_, testing::ElementsAre(1, 2));
}

TEST_F(EventManagerTest, ARemovedEventNeverRuns) {
    Event* gone = Add(0, &first_);
    Add(0, &second_);
    EventManager_Remove(gone);
    RunDue();
    EXPECT_THAT(log_, testing::ElementsAre(2));
}

TEST_F(EventManagerTest, AFailingCallbackGivesMinusOneAndIsForgotten) {
    first_.result = false;
    Add(0, &first_);
    sleep_ = 77;
    EXPECT_EQ(EventManager_RunNext(manager_, &sleep_), -1);
    EXPECT_EQ(EventManager_RunNext(manager_, &sleep_), 0) << "the queue is empty";
    EXPECT_EQ(sleep_, 77u) << "neither writes the sleep";
}

TEST_F(EventManagerTest, DestroyingCountsWhatNeverRan) {
    DiagCapture_Take();
    EventManager_Destroy(EventManager_Create());
    EventManager_Destroy(nullptr);
    EXPECT_TRUE(DiagCapture_Take().debug.empty());
    EventManager* manager = EventManager_Create();
    for (Recorder* recorder : {&first_, &second_, &third_}) {
        EventManager_Add(manager, 5, Record, recorder);
    }
    EventManager_Destroy(manager);
    EXPECT_THAT(DiagCapture_Take().debug, testing::ElementsAre("EventManager_Destroy: destroyed 3 events\n"));
    EXPECT_TRUE(log_.empty());
}

// Last in this file: it moves the process's clock past a wrap.
TEST_F(EventManagerTest, TheWrapOfTheSystemsCountIsSeen) {
    testMilliseconds = 0xFFFFFFFF;
    uint64_t before = EventManager_GetTime();
    Add(2, &first_);
    testMilliseconds = 4; // five milliseconds later
    EXPECT_EQ(EventManager_GetTime(), before + 1) << "(2^32 - 1) / 10 and (2^32 + 4) / 10 are one tick apart";
    EXPECT_EQ(RunDue(), 1);
    EXPECT_TRUE(log_.empty());
    testMilliseconds = 20;
    EXPECT_EQ(RunDue(), 0);
    EXPECT_THAT(log_, testing::ElementsAre(1));
}

} // namespace
