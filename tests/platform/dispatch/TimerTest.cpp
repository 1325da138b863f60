#include <krcommon/platform/dispatch/Timer.h>

#include <krcommon/platform/core/Exception.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

using namespace krcommon::platform;
using std::chrono::milliseconds;

namespace {

struct Target : Object {
    // The user info at each tick, or "!" for a tick off the main queue or while invalid.
    std::shared_ptr<std::vector<std::string>> ticks = std::make_shared<std::vector<std::string>>();
    std::weak_ptr<Timer> timer;  // invalidated by the destructor, as the timer releases its target
    ~Target() override {
        if (auto t = timer.lock()) t->invalidate();
    }
    void tick(Timer& t) {
        ticks->push_back(MainQueue::isMainThread() && t.isValid() ? t.userInfo().description() : "!");
        if (ticks->size() == 3) t.invalidate();
    }
};

// The queue keeps a repeating timer, and the timer its target, until the timer is invalidated,
// here from its own third tick; releasing the target then calls back into the timer. Ticks come
// on the main queue with the user info, and never early.
TEST(Timer, HoldsTargetUntilInvalidatedFromItsOwnTick) {
    auto target = std::make_shared<Target>();
    const std::weak_ptr<Target> weakTarget = target;
    const auto ticks = target->ticks;
    const auto start = MainQueue::Clock::now();
    auto timer = Timer::scheduledTimerWithTimeInterval(0.005, target, &Target::tick, Value("info"), true);
    EXPECT_DOUBLE_EQ(timer->timeInterval(), 0.005);
    target->timer = timer;
    const std::weak_ptr<Timer> weakTimer = timer;
    timer.reset();
    target.reset();
    ASSERT_TRUE(MainQueue::runUntil([&] { return weakTarget.expired(); }, 30));
    EXPECT_TRUE(weakTimer.expired());
    EXPECT_GE(MainQueue::Clock::now() - start, milliseconds(15));
    EXPECT_EQ(*ticks, std::vector<std::string>(3, "info"));
}

// A non-repeating timer fires once, by its schedule or by hand, and is invalid afterwards; one
// scheduled from another thread still fires on the main queue, and with no delay at once.
TEST(Timer, NonRepeatingTimerFiresOnceByScheduleOrByHandAndEveryTimerNeedsWork) {
    auto scheduled = std::make_shared<Target>(), byHand = std::make_shared<Target>();
    std::shared_ptr<Timer> timer;
    std::thread([&] { timer = Timer::scheduledTimerWithTimeInterval(-1, scheduled, &Target::tick, Value(), false); })
        .join();
    EXPECT_DOUBLE_EQ(timer->timeInterval(), 0.0);
    EXPECT_TRUE(scheduled->ticks->empty());  // never fires inside the call
    ASSERT_TRUE(MainQueue::runUntil([&] { return !timer->isValid(); }, 30));
    const auto once = Timer::scheduledTimerWithTimeInterval(10, byHand, &Target::tick, Value(), false);
    const auto repeating = Timer::scheduledTimerWithTimeInterval(10, byHand, &Target::tick, Value(1), true);
    for (const auto& t : {once, once, repeating}) t->fire();  // a fire after the end does nothing
    EXPECT_FALSE(once->isValid());
    EXPECT_TRUE(repeating->isValid());
    repeating->invalidate();
    repeating->fire();
    MainQueue::drain();
    EXPECT_EQ(*scheduled->ticks, std::vector<std::string>{"(null)"});
    EXPECT_EQ(*byHand->ticks, (std::vector<std::string>{"!", "!"}));  // by hand: on this thread
    const Timer::Selector none, some = [](Object&, Timer&) {};
    EXPECT_THROW(Timer::scheduledTimerWithTimeInterval(1, nullptr, some, Value(), true), InternalInconsistencyException);
    EXPECT_THROW(Timer::scheduledTimerWithTimeInterval(1, byHand, none, Value(), true), InternalInconsistencyException);
    EXPECT_THROW(Timer::scheduledTimerWithTimeInterval(1, true, Timer::Block()), InternalInconsistencyException);
}

// Ticks missed while the main queue was busy are skipped, not made up: the next tick is due
// after the busy one ends, so a job posted at its end runs first.
TEST(Timer, RepeatingTimerSkipsMissedTicks) {
    std::vector<std::string> order;
    auto timer = Timer::scheduledTimerWithTimeInterval(0.03, true, [&](Timer&) {
        order.push_back("tick");
        if (order.size() > 1) return;
        std::this_thread::sleep_for(milliseconds(100));  // busy past the next three ticks
        MainQueue::async([&] { order.push_back("posted at the end of the busy tick"); });
    });
    ASSERT_TRUE(MainQueue::runUntil([&] { return order.size() >= 3; }, 30));
    timer->invalidate();
    EXPECT_EQ(order, (std::vector<std::string>{"tick", "posted at the end of the busy tick", "tick"}));
}

}  // namespace
