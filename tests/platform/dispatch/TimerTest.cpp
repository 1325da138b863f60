#include <krcommon/platform/dispatch/Timer.h>

#include <krcommon/platform/core/Exception.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

using namespace krcommon::platform;
using Clock = std::chrono::steady_clock;

namespace {

class TimerTest : public ::testing::Test {
protected:
    void SetUp() override { MainQueue::drain(); }
    void TearDown() override { MainQueue::drain(); }
    // Pumps the main queue for `seconds` whatever happens.
    static void pump(double seconds) {
        MainQueue::runUntil([] { return false; }, seconds);
    }
};

struct Target : Object {
    std::vector<Value> infos;
    std::vector<bool> onMainQueue;
    std::vector<bool> validDuringTick;
    void tick(Timer& timer) {
        infos.push_back(timer.userInfo());
        onMainQueue.push_back(MainQueue::isMainThread());
        validDuringTick.push_back(timer.isValid());
    }
};

TEST_F(TimerTest, RepeatingTimerTicksOnTheMainQueueWithItsUserInfoUntilInvalidated) {
    auto target = std::make_shared<Target>();
    const auto start = Clock::now();
    auto timer = Timer::scheduledTimerWithTimeInterval(0.02, target, &Target::tick, Value("info"), true);
    EXPECT_TRUE(timer->isValid());
    EXPECT_DOUBLE_EQ(timer->timeInterval(), 0.02);
    EXPECT_TRUE(target->infos.empty());  // never fires inside the call

    ASSERT_TRUE(MainQueue::runUntil([&] { return target->infos.size() >= 3; }, 5));
    // Three ticks on a 20 ms schedule cannot come before 60 ms.
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(59));
    for (std::size_t i = 0; i < target->infos.size(); ++i) {
        EXPECT_EQ(target->infos[i], Value("info"));
        EXPECT_TRUE(target->onMainQueue[i]);
        EXPECT_TRUE(target->validDuringTick[i]);
    }
    timer->invalidate();
    EXPECT_FALSE(timer->isValid());
    const auto ticks = target->infos.size();
    pump(0.08);
    EXPECT_EQ(target->infos.size(), ticks);
    timer->invalidate();  // a second call is harmless
}

TEST_F(TimerTest, NonRepeatingTimerFiresOnceAndIsThenInvalid) {
    auto target = std::make_shared<Target>();
    auto timer = Timer::scheduledTimerWithTimeInterval(0.01, target, &Target::tick, Value(), false);
    EXPECT_DOUBLE_EQ(timer->timeInterval(), 0.0);
    ASSERT_TRUE(MainQueue::runUntil([&] { return !timer->isValid(); }, 5));
    pump(0.05);
    ASSERT_EQ(target->infos.size(), 1u);
    EXPECT_TRUE(target->infos[0].isNil());
    EXPECT_TRUE(target->validDuringTick[0]);  // invalidated after the tick, not before
}

TEST_F(TimerTest, HoldsTargetStronglyAndIsKeptByTheQueueUntilInvalidated) {
    auto target = std::make_shared<Target>();
    std::weak_ptr<Target> weakTarget = target;
    auto timer = Timer::scheduledTimerWithTimeInterval(0.01, target, &Target::tick, Value(), true);
    std::weak_ptr<Timer> weakTimer = timer;
    timer.reset();
    target.reset();
    ASSERT_FALSE(weakTarget.expired());
    ASSERT_TRUE(MainQueue::runUntil([&] { return weakTarget.lock()->infos.size() >= 2; }, 5));
    ASSERT_FALSE(weakTimer.expired());

    weakTimer.lock()->invalidate();
    EXPECT_TRUE(weakTarget.expired());
    EXPECT_TRUE(weakTimer.expired());
}

TEST_F(TimerTest, InvalidationFromItsOwnTickAndFromTheTargetDestructor) {
    // A tick that invalidates its timer on the third call, and a target whose
    // destructor calls back into the timer it is released by.
    struct SelfStopping : Object {
        int calls = 0;
        std::weak_ptr<Timer> timer;
        ~SelfStopping() override {
            if (auto t = timer.lock()) t->invalidate();
        }
        void tick(Timer& t) {
            if (++calls == 3) t.invalidate();
        }
    };
    auto target = std::make_shared<SelfStopping>();
    std::weak_ptr<SelfStopping> weakTarget = target;
    auto timer = Timer::scheduledTimerWithTimeInterval(0.005, target, &SelfStopping::tick, Value(), true);
    target->timer = timer;
    target.reset();
    ASSERT_TRUE(MainQueue::runUntil([&] { return !timer->isValid(); }, 5));
    EXPECT_TRUE(weakTarget.expired());
    pump(0.03);
    std::weak_ptr<Timer> weakTimer = timer;
    timer.reset();
    EXPECT_TRUE(weakTimer.expired());
}

TEST_F(TimerTest, BlockTimerScheduledFromAnotherThreadTicksOnTheMainQueue) {
    std::atomic<int> calls{0};
    std::atomic<bool> onMainQueue{false};
    std::shared_ptr<Timer> timer;
    std::thread([&] {
        timer = Timer::scheduledTimerWithTimeInterval(0.01, false, [&](Timer& t) {
            onMainQueue = MainQueue::isMainThread();
            EXPECT_TRUE(t.userInfo().isNil());
            ++calls;
        });
    }).join();
    ASSERT_TRUE(MainQueue::runUntil([&] { return !timer->isValid(); }, 5));
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(onMainQueue);
}

TEST_F(TimerTest, ManualFireRunsNowAndEndsANonRepeatingTimer) {
    int repeatingCalls = 0;
    int onceCalls = 0;
    auto repeating = Timer::scheduledTimerWithTimeInterval(10, true, [&](Timer&) { ++repeatingCalls; });
    auto once = Timer::scheduledTimerWithTimeInterval(10, false, [&](Timer&) { ++onceCalls; });
    repeating->fire();
    once->fire();
    EXPECT_EQ(repeatingCalls, 1);
    EXPECT_EQ(onceCalls, 1);
    EXPECT_TRUE(repeating->isValid());
    EXPECT_FALSE(once->isValid());
    once->fire();  // invalid: nothing happens
    EXPECT_EQ(onceCalls, 1);
    repeating->invalidate();
    repeating->fire();
    EXPECT_EQ(repeatingCalls, 1);
}

TEST_F(TimerTest, RepeatingTimerKeepsItsScheduleAndSkipsMissedTicks) {
    std::vector<Clock::time_point> ticks;
    auto timer = Timer::scheduledTimerWithTimeInterval(0.03, true, [&](Timer&) {
        ticks.push_back(Clock::now());
        if (ticks.size() == 1) std::this_thread::sleep_for(std::chrono::milliseconds(100));  // misses 3 ticks
    });
    ASSERT_TRUE(MainQueue::runUntil([&] { return ticks.size() >= 3; }, 5));
    timer->invalidate();
    // The second tick comes on the next slot after the busy one, not at once.
    const auto gap = ticks[1] - ticks[0];
    EXPECT_GE(gap, std::chrono::milliseconds(110));
    EXPECT_LT(gap, std::chrono::milliseconds(400));
    EXPECT_GE(ticks[2] - ticks[1], std::chrono::milliseconds(20));
}

TEST_F(TimerTest, RefusesMissingTargetSelectorOrBlock) {
    auto target = std::make_shared<Target>();
    EXPECT_THROW(Timer::scheduledTimerWithTimeInterval(1, nullptr, Timer::Selector([](Object&, Timer&) {}),
                                                       Value(), true),
                 InternalInconsistencyException);
    EXPECT_THROW(Timer::scheduledTimerWithTimeInterval(1, target, Timer::Selector(), Value(), true),
                 InternalInconsistencyException);
    EXPECT_THROW(Timer::scheduledTimerWithTimeInterval(1, true, Timer::Block()), InternalInconsistencyException);
}

}  // namespace
