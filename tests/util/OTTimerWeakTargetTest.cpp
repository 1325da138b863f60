#include <krcommon/util/OTTimerWeakTarget.h>

#include <gtest/gtest.h>

#include <memory>
#include <vector>

using krcommon::OTTimerWeakTarget;
using namespace krcommon::platform;

namespace {

class OTTimerWeakTargetTest : public ::testing::Test {
protected:
    void SetUp() override { MainQueue::drain(); }
    void TearDown() override { MainQueue::drain(); }
    static void pump(double seconds) {
        MainQueue::runUntil([] { return false; }, seconds);
    }
};

// Counts its calls in a record that outlives it.
struct Owner : Object {
    std::shared_ptr<std::vector<Value>> received = std::make_shared<std::vector<Value>>();
    std::shared_ptr<Timer> timer;  // an owner keeping its own timer: the cycle the proxy breaks
    void onTick(const Value& userInfo) { received->push_back(userInfo); }
};

TEST_F(OTTimerWeakTargetTest, LiveTargetReceivesTheUserInfoAtEveryTick) {
    auto owner = std::make_shared<Owner>();
    Dictionary info;
    info.set("page", Value("login"));
    owner->timer =
        OTTimerWeakTarget::scheduledTimerWithTimeInterval(0.01, owner, &Owner::onTick, Value(info), true);
    ASSERT_TRUE(owner->timer);
    ASSERT_TRUE(MainQueue::runUntil([&] { return owner->received->size() >= 3; }, 5));
    EXPECT_TRUE(owner->timer->isValid());
    for (const auto& v : *owner->received) EXPECT_EQ(v, Value(info));
    owner->timer->invalidate();
}

TEST_F(OTTimerWeakTargetTest, FreedTargetStopsTheTimerAtTheNextTickAndFreesEverything) {
    auto owner = std::make_shared<Owner>();
    const auto received = owner->received;
    std::weak_ptr<Owner> weakOwner = owner;
    owner->timer = OTTimerWeakTarget::scheduledTimerWithTimeInterval(0.01, owner, &Owner::onTick, Value(1), true);
    std::weak_ptr<Timer> weakTimer = owner->timer;
    ASSERT_TRUE(MainQueue::runUntil([&] { return received->size() >= 2; }, 5));

    owner.reset();  // the owner's own strong timer reference does not keep it alive
    ASSERT_TRUE(weakOwner.expired());
    const auto calls = received->size();
    ASSERT_TRUE(MainQueue::runUntil([&] { return weakTimer.expired(); }, 5));
    pump(0.04);
    EXPECT_EQ(received->size(), calls);
}

TEST_F(OTTimerWeakTargetTest, ProxyIsFreedWithItsTimer) {
    // The same wiring the class operation makes, with the proxy in view.
    auto owner = std::make_shared<Owner>();
    auto proxy = std::make_shared<OTTimerWeakTarget>();
    proxy->setTarget(owner);
    proxy->setSelector([](Object& target, const Value& info) { static_cast<Owner&>(target).onTick(info); });
    proxy->setTimer(Timer::scheduledTimerWithTimeInterval(0.01, proxy, &OTTimerWeakTarget::fire, Value(), true));
    std::weak_ptr<OTTimerWeakTarget> weakProxy = proxy;
    std::weak_ptr<Timer> weakTimer = proxy->timer();
    proxy.reset();
    ASSERT_FALSE(weakProxy.expired());  // the timer keeps it
    EXPECT_EQ(weakProxy.lock()->target(), owner);

    ASSERT_TRUE(MainQueue::runUntil([&] { return !owner->received->empty(); }, 5));
    EXPECT_TRUE(owner->received->front().isNil());  // absent user info arrives as nil
    owner.reset();
    ASSERT_TRUE(MainQueue::runUntil([&] { return weakProxy.expired(); }, 5));
    EXPECT_TRUE(weakTimer.expired());
}

TEST_F(OTTimerWeakTargetTest, NonRepeatingTimerCallsOnceAndNeverKeepsTheTarget) {
    auto owner = std::make_shared<Owner>();
    auto timer = OTTimerWeakTarget::scheduledTimerWithTimeInterval(0.01, owner, &Owner::onTick, Value("once"), false);
    ASSERT_TRUE(MainQueue::runUntil([&] { return !timer->isValid(); }, 5));
    pump(0.04);
    ASSERT_EQ(owner->received->size(), 1u);
    EXPECT_EQ(owner->received->front(), Value("once"));

    // Freed before its first tick: nothing is called and the timer stops.
    auto early = std::make_shared<Owner>();
    const auto earlyCalls = early->received;
    std::weak_ptr<Owner> weakEarly = early;
    auto stopped = OTTimerWeakTarget::scheduledTimerWithTimeInterval(0.01, early, &Owner::onTick, Value(), true);
    early.reset();
    EXPECT_TRUE(weakEarly.expired());
    ASSERT_TRUE(MainQueue::runUntil([&] { return !stopped->isValid(); }, 5));
    EXPECT_TRUE(earlyCalls->empty());
}

}  // namespace
