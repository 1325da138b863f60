#include <krcommon/platform/app/NotificationCenter.h>

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace krcommon::platform;
using namespace std::chrono_literals;

namespace {

// Records which observer saw which notification, from any thread.
struct Journal {
    std::mutex mutex;
    std::vector<std::string> entries;
    NotificationCenter::Block recorder(std::string who) {
        return [this, who](const Notification& n) {
            std::lock_guard lock(mutex);
            entries.push_back(who + ":" + n.name());
        };
    }
    std::vector<std::string> take() {
        std::lock_guard lock(mutex);
        return std::exchange(entries, {});
    }
};

}  // namespace

TEST(NotificationCenter, DeliversInRegistrationOrderToMatchingNamesUntilRemoved) {
    NotificationCenter center;
    NotificationCenter other;
    Journal journal;
    const auto a = center.addObserverForName("x", journal.recorder("A"));
    const auto b = center.addObserverForName(std::nullopt, journal.recorder("B"));
    center.addObserverForName("y", journal.recorder("C"));
    center.addObserverForName("x", journal.recorder("D"));
    const std::pair<const char*, std::vector<std::string>> rows[] = {
        {"x", {"A:x", "B:x", "D:x"}}, {"y", {"B:y", "C:y"}}, {"X", {"B:X"}}, {"", {"B:"}}};
    for (const auto& [name, expected] : rows) {
        center.postNotificationName(name);
        EXPECT_EQ(journal.take(), expected) << name;
    }
    center.removeObserver(a);
    center.removeObserver(a);
    center.removeObserver(nullptr);
    other.removeObserver(b);  // not this center's token: ignored
    center.postNotificationName("x");
    EXPECT_EQ(journal.take(), (std::vector<std::string>{"B:x", "D:x"}));
}

TEST(NotificationCenter, BlocksMayChangeRegistrationsAndPostWhileDelivering) {
    NotificationCenter center;
    Journal journal;
    std::shared_ptr<NotificationCenter::Token> self, later, added;
    self = center.addObserverForName("n", [&](const Notification& n) {
        journal.recorder("self")(n);
        center.removeObserver(self);
        center.removeObserver(later);
        added = center.addObserverForName("n", journal.recorder("added"));
        center.postNotificationName("inner");
    });
    center.addObserverForName("inner", journal.recorder("inner"));
    later = center.addObserverForName("n", journal.recorder("later"));
    center.postNotificationName("n");
    EXPECT_EQ(journal.take(), (std::vector<std::string>{"self:n", "inner:inner"}));
    center.postNotificationName("n");
    EXPECT_EQ(journal.take(), std::vector<std::string>{"added:n"});
}

TEST(NotificationCenter, AThrowingBlockStopsThePostButLeavesTheCenterUsable) {
    NotificationCenter center;
    Journal journal;
    const auto thrower = center.addObserverForName("n", [](const Notification&) { throw std::runtime_error("x"); });
    center.addObserverForName("n", journal.recorder("after"));
    EXPECT_THROW(center.postNotificationName("n"), std::runtime_error);
    EXPECT_TRUE(journal.take().empty());
    // The failed call left no record behind: removal from another thread returns.
    std::async(std::launch::async, [&] { center.removeObserver(thrower); }).get();
    center.postNotificationName("n");
    EXPECT_EQ(journal.take(), std::vector<std::string>{"after:n"});
}

TEST(NotificationCenter, ConcurrentPostsAndRegistrations) {
    NotificationCenter center;
    std::atomic<int> counted{0};
    center.addObserverForName("tick", [&](const Notification&) { counted.fetch_add(1); });
    std::atomic<bool> stop{false};
    std::thread churn([&] {
        while (!stop) center.removeObserver(center.addObserverForName(std::nullopt, [](const Notification&) {}));
    });
    std::vector<std::thread> posters;
    for (int t = 0; t < 4; ++t)
        posters.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) center.postNotificationName("tick");
        });
    for (auto& p : posters) p.join();
    stop = true;
    churn.join();
    EXPECT_EQ(counted.load(), 8000);
}

TEST(NotificationCenter, RemovalWaitsForACallRunningOnAnotherThread) {
    NotificationCenter center;
    std::promise<void> entered;
    std::promise<void> release;
    auto released = release.get_future().share();
    std::atomic<bool> callFinished{false};
    const auto token = center.addObserverForName("n", [&](const Notification&) {
        entered.set_value();
        released.wait();
        callFinished = true;
    });
    std::thread poster([&] { center.postNotificationName("n"); });
    entered.get_future().wait();
    auto removal = std::async(std::launch::async, [&] {
        center.removeObserver(token);
        return callFinished.load();
    });
    EXPECT_EQ(removal.wait_for(100ms), std::future_status::timeout);
    release.set_value();
    EXPECT_TRUE(removal.get());
    poster.join();
}

TEST(NotificationCenter, NoCallRunsAfterRemovalReturns) {
    NotificationCenter center;
    std::atomic<bool> removed{false};
    std::atomic<int> calls{0};
    std::atomic<int> late{0};
    const auto token = center.addObserverForName("n", [&](const Notification&) {
        if (removed) ++late;
        calls.fetch_add(1);
        std::this_thread::yield();
        if (removed) ++late;
    });
    std::atomic<bool> stop{false};
    std::vector<std::thread> posters;
    for (int t = 0; t < 2; ++t)
        posters.emplace_back([&] {
            while (!stop) center.postNotificationName("n");
        });
    while (calls < 200) std::this_thread::yield();
    center.removeObserver(token);
    removed = true;
    std::this_thread::sleep_for(20ms);
    stop = true;
    for (auto& p : posters) p.join();
    EXPECT_EQ(late.load(), 0);
}

// Two blocks running on two threads each remove the other: waiting for each
// other would never end, so one of the removals returns without waiting.
TEST(NotificationCenter, MutualRemovalFromRunningBlocksDoesNotDeadlock) {
    NotificationCenter center;
    std::barrier bothRunning(2);
    std::atomic<int> aCalls{0};
    std::atomic<int> bCalls{0};
    std::shared_ptr<NotificationCenter::Token> a, b;
    a = center.addObserverForName("a", [&](const Notification&) {
        if (++aCalls > 1) return;
        bothRunning.arrive_and_wait();
        center.removeObserver(b);
    });
    b = center.addObserverForName("b", [&](const Notification&) {
        if (++bCalls > 1) return;
        bothRunning.arrive_and_wait();
        center.removeObserver(a);
    });
    std::thread first([&] { center.postNotificationName("a"); });
    std::thread second([&] { center.postNotificationName("b"); });
    first.join();
    second.join();
    center.postNotificationName("a");
    center.postNotificationName("b");
    EXPECT_EQ(aCalls.load(), 1);
    EXPECT_EQ(bCalls.load(), 1);
}

TEST(NotificationCenter, DefaultCenterIsOneAndDeliversOnThePostingThread) {
    NotificationCenter* fromThread = nullptr;
    const auto sender = std::make_shared<Object>();
    std::thread::id seenOn;
    Value seenObject;
    Dictionary seenInfo;
    auto& center = NotificationCenter::defaultCenter();
    const auto token = center.addObserverForName("krcommon.test", [&](const Notification& n) {
        seenOn = std::this_thread::get_id();
        seenObject = n.object();
        seenInfo = n.userInfo();
    });
    std::thread poster([&] {
        fromThread = &NotificationCenter::defaultCenter();
        fromThread->postNotificationName("krcommon.test", sender, Dictionary{{"k", 1}});
    });
    const auto posterId = poster.get_id();
    poster.join();
    center.removeObserver(token);
    EXPECT_EQ(fromThread, &center);
    EXPECT_EQ(seenOn, posterId);
    EXPECT_EQ(seenObject.objectAs<Object>(), sender);
    EXPECT_EQ(seenInfo, (Dictionary{{"k", 1}}));
}
