// The weak-target timer on the real main queue.
#include <krcommon/util/OTTimerWeakTarget.h>

#include <gtest/gtest.h>

using krcommon::OTTimerWeakTarget;
using namespace krcommon::platform;

namespace {

// Keeps its own timer, the cycle the proxy breaks; its calls go to a record that outlives it.
struct Owner : Object {
    std::shared_ptr<std::vector<Value>> received = std::make_shared<std::vector<Value>>();
    std::shared_ptr<Timer> timer;
    void onTick(const Value& userInfo) { received->push_back(userInfo); }
};

TEST(OTTimerWeakTarget, ForwardsTheUserInfoWhileTheTargetLivesThenStops) {
    auto owner = std::make_shared<Owner>(), once = std::make_shared<Owner>();
    const auto received = owner->received;
    owner->timer = OTTimerWeakTarget::scheduledTimerWithTimeInterval(0.01, owner, &Owner::onTick, Value("pg"), true);
    once->timer = OTTimerWeakTarget::scheduledTimerWithTimeInterval(0.01, once, &Owner::onTick, Value(), false);
    const std::weak_ptr<Timer> timer = owner->timer;
    ASSERT_TRUE(MainQueue::runUntil([&] { return received->size() >= 3 && !once->timer->isValid(); }, 5));
    EXPECT_EQ(*received, std::vector<Value>(received->size(), Value("pg")));
    EXPECT_EQ(*once->received, std::vector<Value>{Value()});  // once, absent user info as nil
    const std::weak_ptr<Owner> gone = owner;
    owner.reset();
    EXPECT_TRUE(gone.expired());  // its own strong timer does not keep it alive
    const auto calls = received->size();
    ASSERT_TRUE(MainQueue::runUntil([&] { return timer.expired(); }, 5));  // invalidated and freed
    EXPECT_EQ(received->size(), calls);
}

}  // namespace
